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

    void sinkSeesEveryCallEvenWhileDisabled()
    {
        QList<ConsoleLogger::Record> records;
        ConsoleLogger::setCaptureSink([&records](const ConsoleLogger::Record &record) { records.append(record); });

        ConsoleLogger logger;
        QVERIFY(!logger.enabled);
        logger.prefix = QStringLiteral("P ");
        logger.log(QStringLiteral("first"));
        logger.log(QStringLiteral("second"), 3);

        QCOMPARE(records.size(), 2);
        QCOMPARE(records[0].level, 0);
        QCOMPARE(records[0].message, QStringLiteral("first"));
        QCOMPARE(records[1].level, 3);
        QCOMPARE(records[1].prefix, QStringLiteral("P "));

        ConsoleLogger::setCaptureSink({});
        logger.log(QStringLiteral("unseen"));
        QCOMPARE(records.size(), 2);
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

    void costlyMessagesAreBuiltOnlyForAListener()
    {
        ConsoleLogger logger;
        int built = 0;
        const auto listing = [&built] {
            ++built;
            return QStringLiteral("listing");
        };
        logger.log(listing);
        QCOMPARE(built, 0);

        QStringList seen;
        ConsoleLogger::setCaptureSink([&seen](const ConsoleLogger::Record &record) { seen.append(record.message); });
        logger.log(listing, 2);
        QCOMPARE(built, 1);
        QCOMPARE(seen, QStringList{QStringLiteral("listing")});
    }
};

QTEST_GUILESS_MAIN(ConsoleLoggerTest)
#include "tst_ConsoleLogger.moc"
