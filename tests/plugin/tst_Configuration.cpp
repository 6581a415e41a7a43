#include "plugin/Configuration.h"

#include <QtTest>

class ConfigurationTest : public QObject
{
    Q_OBJECT

private slots:
    void cleanup()
    {
        qunsetenv("KUTILS_CONFIG_FILE");
        Configuration::reload();
    }

    void defaultsCarryNoRealValues();
    void overrideFileReplacesKeysOneByOne();
    void badOverrideFilesKeepTheDefaults_data();
    void badOverrideFilesKeepTheDefaults();

private:
    QString writeFile(const QByteArray &content)
    {
        const QString path = dir.filePath(QStringLiteral("config-%1.json").arg(++files));
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly))
            qFatal("cannot write %s", qPrintable(path));
        file.write(content);
        return path;
    }

    QTemporaryDir dir;
    int files = 0;
};

void ConfigurationTest::defaultsCarryNoRealValues()
{
    qunsetenv("KUTILS_CONFIG_FILE");
    const Configuration config = Configuration::load();
    QVERIFY(config.videoApiProduction.isEmpty());
    QVERIFY(config.cloudApiKeyProduction.isEmpty());
    QVERIFY(config.amplitudeSecret.isEmpty());
    QVERIFY(config.emailMacSalt.isEmpty());
    QVERIFY(config.modelHost.isEmpty());
    QVERIFY(config.mpvExtraOptions.isEmpty());
}

void ConfigurationTest::overrideFileReplacesKeysOneByOne()
{
    const QString path = writeFile(R"({
        "videoApiProduction": "https://127.0.0.1:4443",
        "modelHost": "https://127.0.0.1:4444",
        "emailMacSalt": "salt",
        "unknownKey": "ignored",
        "mpvExtraOptions": [["vo", "null"], ["ao", "null"], ["hwdec", "no"]]
    })");
    qputenv("KUTILS_CONFIG_FILE", path.toUtf8());
    Configuration::reload();
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

void ConfigurationTest::badOverrideFilesKeepTheDefaults_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("exists");
    QTest::newRow("missing file") << QByteArray() << false;
    QTest::newRow("malformed JSON") << QByteArray("{\"modelHost\": ") << true;
    QTest::newRow("array instead of object") << QByteArray("[1, 2]") << true;
    QTest::newRow("number where a string belongs") << QByteArray("{\"modelHost\": 5}") << true;
}

void ConfigurationTest::badOverrideFilesKeepTheDefaults()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, exists);
    const QString path = exists ? writeFile(content) : dir.filePath(QStringLiteral("absent.json"));
    qputenv("KUTILS_CONFIG_FILE", path.toUtf8());
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral(".")));
    const Configuration config = Configuration::load();
    QVERIFY(config.modelHost.isEmpty());
}

QTEST_GUILESS_MAIN(ConfigurationTest)
#include "tst_Configuration.moc"
