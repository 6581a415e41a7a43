#include "plugin/DeveloperMode.h"

#include <QtTest>

static int childMain()
{
    const bool atLoad = kutils::isDeveloperMode();
    qputenv("KVID_DEVELOPER_MODE", atLoad ? "0" : "1");
    std::printf("atLoad=%d afterChange=%d environmentNow=%d\n", int(atLoad), int(kutils::isDeveloperMode()),
                int(kutils::developerModeInEnvironment()));
    return 0;
}

static QByteArray runChild(const QByteArray *value)
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

// The flag is fixed when the library loads, so each value is tried in a fresh
// child process started with (or without) the variable.
class DeveloperModeTest : public QObject
{
    Q_OBJECT

private slots:
    // The child flips the variable after load: neither its flag nor an earlier
    // reading may follow, while the environment does.
    void flagIsByteExactOneAndFixedAtLoad_data()
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

    void flagIsByteExactOneAndFixedAtLoad()
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
    DeveloperModeTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_DeveloperMode.moc"
