// The arithmetic between file time and the input's axis, by tables.
#include "playback/SyncMath.h"

#include <QTest>

using namespace syncmath;

class tst_SyncMath : public QObject
{
    Q_OBJECT

private slots:
    void seekIsSinglePrecisionLoadIsDouble_data();
    void seekIsSinglePrecisionLoadIsDouble();
    void fileTimeAndInputAxis_data();
    void fileTimeAndInputAxis();
    void syncViewTruncatesTheFactor_data();
    void syncViewTruncatesTheFactor();
    void syncOneMeasuresTheDistance_data();
    void syncOneMeasuresTheDistance();
    void framesAndSteps_data();
    void framesAndSteps();
    void paneSpeedsSlowTheFasterPane_data();
    void paneSpeedsSlowTheFasterPane();
    void stepsWrapAtBothEnds_data();
    void stepsWrapAtBothEnds();
    void zoomIsAPowerOfTwo_data();
    void zoomIsAPowerOfTwo();
};

void tst_SyncMath::seekIsSinglePrecisionLoadIsDouble_data()
{
    QTest::addColumn<qint64>("ms");
    QTest::addColumn<QString>("seek");
    QTest::addColumn<QString>("load");
    QTest::newRow("zero") << qint64(0) << "0.000000" << "0.000000";
    QTest::newRow("frame 37 at 25 fps") << qint64(1480) << "1.480000" << "1.480000";
    QTest::newRow("one hour, already off by a fraction") << qint64(3600001) << "3600.000977" << "3600.001000";
    // Past about four and a half hours a float no longer holds every millisecond.
    QTest::newRow("five hours and one ms") << qint64(18000001) << "18000.000000" << "18000.001000";
    QTest::newRow("ten hours and three ms") << qint64(36000003) << "36000.003906" << "36000.003000";
}

void tst_SyncMath::seekIsSinglePrecisionLoadIsDouble()
{
    QFETCH(qint64, ms);
    QFETCH(QString, seek);
    QFETCH(QString, load);
    QCOMPARE(QString::asprintf("%f", seekSeconds(ms)), seek);
    QCOMPARE(QString::asprintf("%f", loadSeconds(ms)), load);
}

void tst_SyncMath::fileTimeAndInputAxis_data()
{
    QTest::addColumn<qint64>("fileMs");
    QTest::addColumn<float>("slowMotion");
    QTest::addColumn<qint64>("start");
    QTest::addColumn<qint64>("inputTs");
    QTest::newRow("input itself") << qint64(1480) << 1.0f << qint64(0) << qint64(1480);
    QTest::newRow("slow motion 2 from 1000") << qint64(500) << 2.0f << qint64(1000) << qint64(1250);
    QTest::newRow("slow motion 3 truncates") << qint64(100) << 3.0f << qint64(0) << qint64(33);
    QTest::newRow("late preview") << qint64(0) << 1.0f << qint64(7000) << qint64(7000);
}

void tst_SyncMath::fileTimeAndInputAxis()
{
    QFETCH(qint64, fileMs);
    QFETCH(float, slowMotion);
    QFETCH(qint64, start);
    QFETCH(qint64, inputTs);
    QCOMPARE(fileToInput(fileMs, slowMotion, start), inputTs);
    // Back to file time: exact whenever the forward step did not truncate.
    if (qint64(float(fileMs) / slowMotion) * slowMotion == fileMs)
        QCOMPARE(inputToFile(inputTs, start, slowMotion), fileMs);
}

void tst_SyncMath::syncViewTruncatesTheFactor_data()
{
    QTest::addColumn<qint64>("truth");
    QTest::addColumn<qint64>("start");
    QTest::addColumn<float>("slowMotion");
    QTest::addColumn<qint64>("position");
    QTest::newRow("before the start") << qint64(500) << qint64(1000) << 1.0f << qint64(0);
    QTest::newRow("factor 1.5 multiplies by 1") << qint64(2000) << qint64(1000) << 1.5f << qint64(1000);
    QTest::newRow("factor 2") << qint64(1500) << qint64(1000) << 2.0f << qint64(1000);
    QTest::newRow("factor 0.5 multiplies by 0") << qint64(1500) << qint64(1000) << 0.5f << qint64(0);
}

void tst_SyncMath::syncViewTruncatesTheFactor()
{
    QFETCH(qint64, truth);
    QFETCH(qint64, start);
    QFETCH(float, slowMotion);
    QFETCH(qint64, position);
    QCOMPARE(syncViewPosition(truth, start, slowMotion), position);
}

void tst_SyncMath::syncOneMeasuresTheDistance_data()
{
    QTest::addColumn<qint64>("inputTs");
    QTest::addColumn<qint64>("first");
    QTest::addColumn<float>("slowMotion");
    QTest::addColumn<qint64>("position");
    QTest::newRow("inside") << qint64(2500) << qint64(2000) << 2.0f << qint64(1000);
    // A distance, not a difference: before the start it is still positive.
    QTest::newRow("before the start") << qint64(1500) << qint64(2000) << 1.0f << qint64(500);
    QTest::newRow("at the start") << qint64(2000) << qint64(2000) << 4.0f << qint64(0);
    QTest::newRow("factor 1.5 is kept") << qint64(2100) << qint64(2000) << 1.5f << qint64(150);
}

void tst_SyncMath::syncOneMeasuresTheDistance()
{
    QFETCH(qint64, inputTs);
    QFETCH(qint64, first);
    QFETCH(float, slowMotion);
    QFETCH(qint64, position);
    QCOMPARE(syncOnePosition(inputTs, first, slowMotion), position);
}

void tst_SyncMath::framesAndSteps_data()
{
    QTest::addColumn<double>("fps");
    QTest::addColumn<qint64>("ms");
    QTest::addColumn<qint64>("timestep");
    QTest::addColumn<int>("frame");
    QTest::addColumn<int>("snapped");
    QTest::newRow("29.97") << 29.97 << qint64(1001) << qint64(33) << 30 << 1001;
    QTest::newRow("60 floors") << 60.0 << qint64(1000) << qint64(16) << 60 << 1000;
    QTest::newRow("25 mid frame rounds up") << 25.0 << qint64(1021) << qint64(40) << 26 << 1040;
    QTest::newRow("25 below half rounds down") << 25.0 << qint64(1019) << qint64(40) << 25 << 1000;
    QTest::newRow("no rate") << 0.0 << qint64(0) << qint64(0) << 0 << 0;
}

void tst_SyncMath::framesAndSteps()
{
    QFETCH(double, fps);
    QFETCH(qint64, ms);
    QFETCH(qint64, timestep);
    QFETCH(int, frame);
    QFETCH(int, snapped);
    QCOMPARE(timestepMs(fps), timestep);
    if (fps > 0) {
        QCOMPARE(frameFromMs(ms, fps), frame);
        QCOMPARE(snapToFrameMs(ms, fps), snapped);
        QCOMPARE(frameRange(0, 1000, timestep), Range(0, 1000 - timestep));
    }
}

void tst_SyncMath::paneSpeedsSlowTheFasterPane_data()
{
    QTest::addColumn<float>("left");
    QTest::addColumn<float>("right");
    QTest::addColumn<double>("leftSpeed");
    QTest::addColumn<double>("rightSpeed");
    QTest::newRow("equal") << 2.0f << 2.0f << 1.0 << 1.0;
    QTest::newRow("left slower") << 2.0f << 1.0f << 1.0 << 0.5;
    QTest::newRow("right slower") << 1.0f << 4.0f << 0.25 << 1.0;
}

void tst_SyncMath::paneSpeedsSlowTheFasterPane()
{
    QFETCH(float, left);
    QFETCH(float, right);
    QFETCH(double, leftSpeed);
    QFETCH(double, rightSpeed);
    const Speeds speeds = paneSpeeds(left, right);
    QCOMPARE(speeds.left, leftSpeed);
    QCOMPARE(speeds.right, rightSpeed);
}

void tst_SyncMath::stepsWrapAtBothEnds_data()
{
    QTest::addColumn<qint64>("ts");
    QTest::addColumn<qint64>("forward");
    QTest::addColumn<qint64>("backward");
    // Frames of a 1000 ms input at 25 fps: 0 .. 960.
    QTest::newRow("middle") << qint64(400) << qint64(440) << qint64(360);
    QTest::newRow("last frame wraps forward") << qint64(960) << qint64(0) << qint64(920);
    QTest::newRow("first frame wraps back") << qint64(0) << qint64(40) << qint64(960);
}

void tst_SyncMath::stepsWrapAtBothEnds()
{
    QFETCH(qint64, ts);
    QFETCH(qint64, forward);
    QFETCH(qint64, backward);
    const Range frames{0, 960};
    QCOMPARE(stepForward(ts, 40, frames), forward);
    QCOMPARE(stepBackward(ts, 40, frames), backward);
}

void tst_SyncMath::zoomIsAPowerOfTwo_data()
{
    QTest::addColumn<double>("zoom");
    QTest::addColumn<QString>("sent");
    QTest::newRow("unit") << 1.0 << "0.000000";
    QTest::newRow("double") << 2.0 << "1.000000";
    QTest::newRow("half") << 0.5 << "-1.000000";
    QTest::newRow("three, in 32 bits") << 3.0 << "1.584962";
}

void tst_SyncMath::zoomIsAPowerOfTwo()
{
    QFETCH(double, zoom);
    QFETCH(QString, sent);
    QCOMPARE(QString::asprintf("%f", double(zoomExponent(zoom))), sent);
}

QTEST_APPLESS_MAIN(tst_SyncMath)
#include "tst_SyncMath.moc"
