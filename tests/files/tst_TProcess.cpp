#include "FilesTestSupport.h"

#include "files/TFileManager.h"
#include "files/TProcess.h"

#include <QtTest>

#include <csignal>
#include <memory>

namespace {

// Runs `printenv name` (or any program) through a TProcess and returns what it printed.
QString runAndRead(TProcess &process, const QString &program, const QVariantList &arguments)
{
    process.start(program, arguments, false, false);
    process.waitForFinished(20000);
    return process.readAllStandardOutput();
}

} // namespace

class tst_TProcess : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        m_home = std::make_unique<IsolatedHome>();
        m_printenv = QStandardPaths::findExecutable(QStringLiteral("printenv"));
        QVERIFY(!m_printenv.isEmpty());
    }

    void childrenSeeTheModelFoldersAndTheLaterValue()
    {
        TProcess process;
        TFileManager manager;
        process.addEnvironmentVariable(QStringLiteral("KUTILS_PROBE"), QStringLiteral("first"));
        process.addEnvironmentVariable(QStringLiteral("KUTILS_PROBE"), QStringLiteral("second"));
        // Arguments of any type reach the child as text.
        const QString output = runAndRead(process, QStringLiteral("sh"),
                                          {QStringLiteral("-c"),
                                           QStringLiteral("printf '%s|' \"$KVID_MODEL_DIR\" \"$KVID_MODEL_DATA_DIR\" "
                                                          "\"$KORVEL_AIE_MESSAGES\" \"$KVID_ALWAYS_LOG\" \"$KUTILS_PROBE\" \"$@\""),
                                           QStringLiteral("sh"), 42, 2.5, true, QStringLiteral("word with spaces")});
        QVERIFY(manager.defaultModelFolderPath().startsWith(m_home->machineData));
        QCOMPARE(output, QStringList({manager.defaultModelFolderPath(), manager.getModelFolderPath(),
                                      QStringLiteral("1|1|second|42|2.5|true|word with spaces|")})
                             .join(QLatin1Char('|')));
    }

    void addToPathPutsTheLastPathFirst_data()
    {
        QTest::addColumn<bool>("pathSet");
        QTest::addColumn<QStringList>("added");
        QTest::addColumn<QString>("expected");

        QTest::newRow("one on a set PATH") << true << QStringList{QStringLiteral("/opt/a")}
                                           << QStringLiteral("/opt/a;/usr/bin:/bin");
        QTest::newRow("two on a set PATH") << true << QStringList{QStringLiteral("/opt/a"), QStringLiteral("/opt/b")}
                                           << QStringLiteral("/opt/b;/opt/a;/usr/bin:/bin");
        QTest::newRow("no PATH at all") << false << QStringList{QStringLiteral("/opt/a")} << QStringLiteral("/opt/a;");
    }

    void addToPathPutsTheLastPathFirst()
    {
        QFETCH(bool, pathSet);
        QFETCH(QStringList, added);
        QFETCH(QString, expected);

        // The environment is taken at construction, so PATH is arranged before it.
        const QByteArray savedPath = qgetenv("PATH");
        if (pathSet)
            qputenv("PATH", "/usr/bin:/bin");
        else
            qunsetenv("PATH");
        TProcess process;
        qputenv("PATH", savedPath);

        for (const QString &path : added)
            process.addToPath(path);
        QCOMPARE(runAndRead(process, m_printenv, {QStringLiteral("PATH")}).trimmed(), expected);
    }

    void destroyingKillsTheChild()
    {
        auto process = std::make_unique<TProcess>();
        process->start(QStringLiteral("sleep"), {600});
        QVERIFY(process->QProcess::waitForStarted(10000));
        const qint64 pid = process->processId();
        QVERIFY(pid > 0);
        LogCapture log;
        process.reset();
        QVERIFY(log.contains(QStringLiteral("~TProcess(): destroyed")));
        // The child was killed and reaped: its pid is gone.
        QVERIFY(!QFileInfo::exists(QStringLiteral("/proc/%1").arg(pid)));
    }

    void startIsLoggedWithoutArgumentsWhenAsked()
    {
        LogCapture log;
        TProcess quiet;
        quiet.start(QStringLiteral("printf"), {QStringLiteral("secret-token")}, false, false);
        quiet.waitForFinished(20000);
        TProcess loud;
        loud.start(QStringLiteral("printf"), {QStringLiteral("visible-token")});
        loud.waitForFinished(20000);
        QVERIFY(!log.lines().join(QLatin1Char('\n')).contains(QStringLiteral("secret-token")));
        QVERIFY(log.contains(QStringLiteral("visible-token")));
    }

private:
    std::unique_ptr<IsolatedHome> m_home;
    QString m_printenv;
};

QTEST_GUILESS_MAIN(tst_TProcess)
#include "tst_TProcess.moc"
