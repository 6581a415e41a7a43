// The settings fixed at load: the configuration file and the developer-mode flag.
#include "../files/FilesTestSupport.h"

#include "StandInProcess.h"
#include "plugin/DeveloperMode.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

namespace {

int childMain()
{
    const bool atLoad = kutils::isDeveloperMode();
    qputenv("KVID_DEVELOPER_MODE", atLoad ? "0" : "1");
    std::printf("atLoad=%d afterChange=%d environmentNow=%d\n", int(atLoad), int(kutils::isDeveloperMode()),
                int(kutils::developerModeInEnvironment()));
    return 0;
}

QByteArray runChild(const QByteArray *value)
{
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("KVID_DEVELOPER_MODE"));
    if (value)
        env.insert(QStringLiteral("KVID_DEVELOPER_MODE"), QString::fromLatin1(*value));
    env.insert(QStringLiteral("KUTILS_DEVMODE_CHILD"), QStringLiteral("1"));
    child.setProcessEnvironment(env);
    child.start(QCoreApplication::applicationFilePath(), {});
    if (!child.waitForFinished(30000))
        return {};
    return child.readAllStandardOutput().trimmed();
}

} // namespace

class ConfigurationTest : public QObject
{
    Q_OBJECT

    QTemporaryDir dir;
    int files = 0;

    QString writeConfig(const QByteArray &content)
    {
        const QString path = dir.filePath(QStringLiteral("config-%1.json").arg(++files));
        return ::writeFile(path, content) ? path : QString();
    }

private slots:
    void cleanup()
    {
        qunsetenv("KUTILS_CONFIG_FILE");
        Configuration::reload();
    }

    void overrideFileReplacesKeysOneByOne()
    {
        const QJsonObject settings{{"videoApiProduction", "https://127.0.0.1:4443"},
                                   {"modelHost", "https://127.0.0.1:4444"},
                                   {"emailMacSalt", "salt"},
                                   {"unknownKey", "ignored"},
                                   {"mpvExtraOptions", QJsonArray{QJsonArray{"vo", "null"}, QJsonArray{"ao", "null"},
                                                                  QJsonArray{"hwdec", "no"}}}};
        useConfiguration(dir.path(), settings);
        const Configuration &config = Configuration::instance();
        QCOMPARE(config.videoApiProduction, QStringLiteral("https://127.0.0.1:4443"));
        QCOMPARE(config.modelHost, QStringLiteral("https://127.0.0.1:4444"));
        QCOMPARE(config.emailMacSalt, QStringLiteral("salt"));
        QVERIFY(config.videoApiStaging.isEmpty());
        // Options keep their order.
        QCOMPARE(config.mpvExtraOptions.size(), 3);
        QCOMPARE(config.mpvExtraOptions[0], qMakePair(QStringLiteral("vo"), QStringLiteral("null")));
        QCOMPARE(config.mpvExtraOptions[2], qMakePair(QStringLiteral("hwdec"), QStringLiteral("no")));
    }

    void badOverrideFilesKeepTheDefaults_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<bool>("exists");
        QTest::newRow("missing file") << QByteArray() << false;
        QTest::newRow("malformed JSON") << QByteArray("{\"modelHost\": ") << true;
        QTest::newRow("array instead of object") << QByteArray("[1, 2]") << true;
        QTest::newRow("number where a string belongs") << QByteArray("{\"modelHost\": 5}") << true;
    }

    void badOverrideFilesKeepTheDefaults()
    {
        QFETCH(QByteArray, content);
        QFETCH(bool, exists);
        const QString path = exists ? writeConfig(content) : dir.filePath(QStringLiteral("absent.json"));
        qputenv("KUTILS_CONFIG_FILE", path.toUtf8());
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral(".")));
        const Configuration config = Configuration::load();
        QVERIFY(config.modelHost.isEmpty());
    }

    // The flag is fixed when the library loads, so each value is tried in a
    // fresh child process started with (or without) the variable. The child
    // then flips the variable: neither its flag nor an earlier reading may
    // follow, while the environment does.
    void developerModeIsByteExactOneAndFixedAtLoad_data()
    {
        QTest::addColumn<bool>("set");
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<bool>("expected");
        QTest::newRow("unset") << false << QByteArray() << false;
        QTest::newRow("1") << true << QByteArray("1") << true;
        QTest::newRow("true") << true << QByteArray("true") << false;
        QTest::newRow("11") << true << QByteArray("11") << false;
        QTest::newRow("1 with a space") << true << QByteArray("1 ") << false;
    }

    void developerModeIsByteExactOneAndFixedAtLoad()
    {
        QFETCH(bool, set);
        QFETCH(QByteArray, value);
        QFETCH(bool, expected);
        const QByteArray out = runChild(set ? &value : nullptr);
        QCOMPARE(out, expected ? QByteArray("atLoad=1 afterChange=1 environmentNow=0")
                               : QByteArray("atLoad=0 afterChange=0 environmentNow=1"));
    }
};

int main(int argc, char *argv[])
{
    if (qEnvironmentVariableIsSet("KUTILS_DEVMODE_CHILD"))
        return childMain();
    QCoreApplication app(argc, argv);
    ConfigurationTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_Configuration.moc"
