#include "timeline/ConsoleLogger.h"

#include <QtTest>

class ConsoleLoggerTest : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { ConsoleLogger::setCaptureSink({}); }

    void lineFormat_data()
    {
        QTest::addColumn<int>("level");
        QTest::addColumn<QString>("word");
        QTest::addColumn<QString>("colour");
        QTest::newRow("info") << 0 << " INFO" << "\033[32m";
        QTest::newRow("warn") << 2 << " WARN" << "\033[33m";
        QTest::newRow("critical") << 3 << " CRIT" << "\033[31m";
        QTest::newRow("fatal") << 4 << "FATAL" << "\033[1;41m";
        QTest::newRow("unknown level") << 9 << "  LOG" << "\033[37m";
    }

    void lineFormat()
    {
        QFETCH(int, level);
        QFETCH(QString, word);
        QFETCH(QString, colour);

        const QString line = QString::fromUtf8(ConsoleLogger::formatLine(QStringLiteral("Timeline ~~ "), QStringLiteral("message ü"), level));
        // <thread colour>\n<stamp>: <level colour><word><reset>: <thread colour><prefix><reset> <message><reset>\n<reset>
        static const QRegularExpression shape(QStringLiteral(
            "^(\033\\[1;3[1-6]m)\n(\\d{4}-\\d{2}-\\d{2}-\\d{2}:\\d{2}:\\d{2}\\.\\d{3}): (\033\\[[0-9;]+m)(.{5})\033\\[0m: "
            "(\033\\[1;3[1-6]m)Timeline ~~ \033\\[0m message ü\033\\[0m\n\033\\[0m$"));
        const QRegularExpressionMatch match = shape.match(line);
        QVERIFY2(match.hasMatch(), qPrintable(line.toUtf8().toPercentEncoding(" :.-~")));
        QCOMPARE(match.captured(4), word);
        QCOMPARE(match.captured(3), colour);
        QCOMPARE(match.captured(1), match.captured(5));
        const QDateTime stamp = QDateTime::fromString(match.captured(2), QStringLiteral("yyyy-MM-dd-HH:mm:ss.zzz"));
        QVERIFY(stamp.isValid());
        QVERIFY(qAbs(stamp.secsTo(QDateTime::currentDateTime())) < 60);
    }

    // The real output goes to standard output of the process, so a child process
    // tells whether a disabled logger stays silent and an enabled one speaks.
    void disabledLoggerWritesNothing()
    {
        if (qEnvironmentVariableIsSet("KUTILS_LOGGER_CHILD")) {
            ConsoleLogger logger;
            logger.log(QStringLiteral("silent"));
            logger.enabled = qEnvironmentVariable("KUTILS_LOGGER_CHILD") == QLatin1String("enabled");
            logger.log(QStringLiteral("spoken"), 2);
            return;
        }
        for (const QString mode : {QStringLiteral("disabled"), QStringLiteral("enabled")}) {
            QProcess child;
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert(QStringLiteral("KUTILS_LOGGER_CHILD"), mode);
            child.setProcessEnvironment(env);
            child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("disabledLoggerWritesNothing"), QStringLiteral("-silent")});
            QVERIFY(child.waitForFinished(30000));
            const QByteArray out = child.readAllStandardOutput();
            QVERIFY(!out.contains("silent\033"));
            QCOMPARE(out.contains(" WARN\033[0m: "), mode == QLatin1String("enabled"));
            QCOMPARE(out.contains("spoken"), mode == QLatin1String("enabled"));
        }
    }

    // A disabled logger builds a costly message only when a capture sink
    // listens, and the sink sees it with its level and prefix.
    void costlyMessagesAreBuiltOnlyForAListener()
    {
        ConsoleLogger logger;
        QVERIFY(!logger.enabled);
        logger.prefix = QStringLiteral("P ");
        int built = 0;
        const auto listing = [&built] {
            ++built;
            return QStringLiteral("listing");
        };
        logger.log(listing);
        QCOMPARE(built, 0);

        QList<ConsoleLogger::Record> seen;
        ConsoleLogger::setCaptureSink([&seen](const ConsoleLogger::Record &record) { seen.append(record); });
        logger.log(listing, 2);
        QCOMPARE(built, 1);
        QCOMPARE(seen.size(), 1);
        QCOMPARE(seen[0].message, QStringLiteral("listing"));
        QCOMPARE(seen[0].level, 2);
        QCOMPARE(seen[0].prefix, QStringLiteral("P "));
        ConsoleLogger::setCaptureSink({});
        logger.log(QStringLiteral("unseen"));
        QCOMPARE(seen.size(), 1);
    }
};

QTEST_GUILESS_MAIN(ConsoleLoggerTest)
#include "tst_ConsoleLogger.moc"
