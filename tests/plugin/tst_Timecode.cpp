#include "plugin/KUtils.h"

#include <QtTest>

// Timecode arithmetic through the C++ face of KUtils; tst_PluginModule calls it from QML.
class TimecodeTest : public QObject
{
    Q_OBJECT

private slots:
    void msecToSmpte_data()
    {
        QTest::addColumn<int>("ms");
        QTest::addColumn<double>("rate");
        QTest::addColumn<QString>("expected");

        QTest::newRow("minute 1 skips ;00 and ;01") << 60060 << 29.97 << "00:01:00;02";
        QTest::newRow("no skip at a tenth minute") << 600000 << 29.97 << "00:10:00;00";
        QTest::newRow("23.976 drops one label a minute") << 1001 << 23.976 << "00:00:01;00";
        QTest::newRow("zero rate means 30 non-drop") << 500 << 0.0 << "00:00:00:15";
        QTest::newRow("negative time is zero") << -5000 << 25.0 << "00:00:00:00";
        QTest::newRow("non-drop does not wrap at a day") << 90000000 << 25.0 << "25:00:00:00";
        QTest::newRow("drop-frame wraps oddly past a day") << 90000000 << 29.97 << "00:59:59;28";
        QTest::newRow("59.94 drops four labels") << 60060 << 59.94 << "00:01:00;04";
        QTest::newRow("half frame rounds up") << 20 << 25.0 << "00:00:00:01";
        QTest::newRow("hundred hours grow wider") << 360000000 << 25.0 << "100:00:00:00";
        QTest::newRow("frames above 99 grow wider") << 10 << 120000.0 << "00:00:00:1200";
    }

    void msecToSmpte()
    {
        QFETCH(int, ms);
        QFETCH(double, rate);
        QFETCH(QString, expected);
        QCOMPARE(utils.convertMsecToSmpte(ms, rate), expected);
    }

    void smpteToMsec_data()
    {
        QTest::addColumn<QString>("timecode");
        QTest::addColumn<double>("rate");
        QTest::addColumn<int>("expected");

        QTest::newRow("first real label of minute 1") << "00:01:00;02" << 29.97 << 60060;
        QTest::newRow("dropped label reads as the next real one") << "00:01:00;00" << 29.97 << 60060;
        QTest::newRow("tenth minute keeps ;00") << "00:10:00;00" << 29.97 << 600000;
        QTest::newRow("semicolon decides, not the rate") << "00:01:00;05" << 25.0 << 60160;
        QTest::newRow("colon text at 29.97 is non-drop") << "00:01:00:00" << 29.97 << 60060;
        QTest::newRow("non-numbers read as zero") << "xx:00:01:yy" << 25.0 << 1000;
        QTest::newRow("after a second semicolon is dropped") << "00:00:01;05;99" << 25.0 << 1200;
        QTest::newRow("truncates, not rounds") << "00:00:00:01" << 29.97 << 33;
        QTest::newRow("single precision loses whole frames") << "155:20:40:17" << 30.0 << 559240533;
    }

    void smpteToMsec()
    {
        QFETCH(QString, timecode);
        QFETCH(double, rate);
        QFETCH(int, expected);
        QCOMPARE(utils.convertSmpteTomsec(timecode, rate), expected);
    }

    void malformedTimecodeLogsAndGivesZero()
    {
        QTest::ignoreMessage(QtWarningMsg, "Failed to convert time code to milliseconds for time code: 1:2:3");
        QCOMPARE(utils.convertSmpteTomsec(QStringLiteral("1:2:3"), 25), 0);
        QTest::ignoreMessage(QtWarningMsg, "Failed to convert time code to milliseconds for time code: 1:2;3:4");
        QCOMPARE(utils.convertSmpteTomsec(QStringLiteral("1:2;3:4"), 25), 0);
    }

    void frameArithmetic_data()
    {
        QTest::addColumn<int>("ms");
        QTest::addColumn<double>("rate");
        QTest::addColumn<int>("frames");
        QTest::addColumn<int>("frameMs");
        QTest::addColumn<int>("snapped");

        // ms, rate, msec->frames, frames(=column 3)->msec, snapped ms
        QTest::newRow("one second at 29.97") << 1000 << 29.97 << 30 << 1001 << 1001;
        QTest::newRow("half frame rounds away from zero") << 20 << 25.0 << 1 << 40 << 40;
        QTest::newRow("negative half rounds away from zero") << -20 << 25.0 << -1 << -40 << -40;
    }

    void frameArithmetic()
    {
        QFETCH(int, ms);
        QFETCH(double, rate);
        QFETCH(int, frames);
        QFETCH(int, frameMs);
        QFETCH(int, snapped);
        QCOMPARE(utils.convertMsecToFrameCount(ms, rate), frames);
        QCOMPARE(utils.convertFrameCountToMsec(frames, rate), frameMs);
        QCOMPARE(utils.convertMsToFrameMs(ms, rate), snapped);
    }

    void validity_data()
    {
        QTest::addColumn<QString>("timecode");
        QTest::addColumn<bool>("valid");

        QTest::newRow("letters pass, only the shape counts") << "ab:cd:ef:gh" << true;
        QTest::newRow("four-character field") << "0000:00:00:00" << true;
        QTest::newRow("five-character field") << "00:00:00:12345" << false;
        QTest::newRow("three fields") << "00:00:00" << false;
        QTest::newRow("empty text") << "" << false;
        QTest::newRow("semicolon then empty frames") << "00:00:00;" << false;
    }

    void validity()
    {
        QFETCH(QString, timecode);
        QFETCH(bool, valid);
        QCOMPARE(utils.isValidSmpteTimecode(timecode), valid);
    }

    void writtenLabelsNeverLandOnDroppedOnes()
    {
        for (int ms = 0; ms < 30 * 60 * 1000; ms += 7) {
            const QString label = utils.convertMsecToSmpte(ms, 29.97);
            const QStringList parts = label.split(QRegularExpression(QStringLiteral("[:;]")));
            const int minutes = parts[1].toInt();
            const int seconds = parts[2].toInt();
            const int frames = parts[3].toInt();
            if (minutes % 10 != 0 && seconds == 0 && frames < 2)
                QFAIL(qPrintable(QStringLiteral("%1 ms gave the dropped label %2").arg(ms).arg(label)));
        }
    }

    void absurdRatesStayDefined()
    {
        // Below half a frame a second the nominal rate is 0; the answer must still be
        // defined and nothing may trap.
        QVERIFY(!utils.convertMsecToSmpte(5000, 0.25).isEmpty());
        QCOMPARE(utils.convertSmpteTomsec(QStringLiteral("00:00:01:00"), 0.0), 0);
        QCOMPARE(utils.convertFrameCountToMsec(10, 0.0), 0);
        QCOMPARE(utils.convertFrameCountToMsec(std::numeric_limits<int>::max(), 0.001), std::numeric_limits<int>::max());
        QCOMPARE(utils.convertMsecToFrameCount(std::numeric_limits<int>::max(), 1e9), std::numeric_limits<int>::max());
    }

private:
    KUtils utils;
};

QTEST_GUILESS_MAIN(TimecodeTest)
#include "tst_Timecode.moc"
