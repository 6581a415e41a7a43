// The arithmetic between file time and the input's axis: the rows that sit on
// a truncation, a rounding or a precision limit.
#include "playback/SyncMath.h"

#include <QTest>

using namespace syncmath;

class tst_SyncMath : public QObject
{
    Q_OBJECT

private slots:
    void seekIsSinglePrecisionLoadIsDouble()
    {
        // Past about four and a half hours a float no longer holds every millisecond.
        const struct { qint64 ms; const char *seek, *load; } rows[] = {
            {1480, "1.480000", "1.480000"},
            {18000001, "18000.000000", "18000.001000"},
            {36000003, "36000.003906", "36000.003000"}};
        for (const auto &row : rows) {
            QCOMPARE(QString::asprintf("%f", seekSeconds(row.ms)), QLatin1String(row.seek));
            QCOMPARE(QString::asprintf("%f", loadSeconds(row.ms)), QLatin1String(row.load));
        }
    }

    void fileTimeAndInputAxis()
    {
        QCOMPARE(fileToInput(500, 2.0f, 1000), qint64(1250));
        QCOMPARE(inputToFile(1250, 1000, 2.0f), qint64(500));
        QCOMPARE(fileToInput(100, 3.0f, 0), qint64(33)); // truncates
        QCOMPARE(fileToInput(0, 1.0f, 7000), qint64(7000));
        // A distance, not a difference: before the start it is still positive.
        QCOMPARE(syncOnePosition(1500, 2000, 1.0f), qint64(500));
        QCOMPARE(syncOnePosition(2100, 2000, 1.5f), qint64(150)); // the factor's fraction is kept
    }

    void framesAndSteps()
    {
        QCOMPARE(timestepMs(29.97), qint64(33));
        QCOMPARE(frameFromMs(1001, 29.97), 30);
        QCOMPARE(snapToFrameMs(1001, 29.97), 1001);
        // Past half a frame rounds up, below it rounds down.
        QCOMPARE(frameFromMs(1021, 25.0), 26);
        QCOMPARE(snapToFrameMs(1021, 25.0), 1040);
        QCOMPARE(frameFromMs(1019, 25.0), 25);
        QCOMPARE(snapToFrameMs(1019, 25.0), 1000);
        QCOMPARE(timestepMs(0.0), qint64(0)); // no rate
        QCOMPARE(frameRange(0, 1000, 40), Range(0, 960));
    }

    void speedsAndZoom()
    {
        // The faster pane is slowed to the other's pace, whichever side it is.
        QCOMPARE(paneSpeeds(2.0f, 1.0f).right, 0.5);
        QCOMPARE(paneSpeeds(2.0f, 1.0f).left, 1.0);
        QCOMPARE(paneSpeeds(1.0f, 4.0f).left, 0.25);
        // mpv takes the zoom as a power of two, computed in 32 bits.
        QCOMPARE(QString::asprintf("%f", double(zoomExponent(0.5))), QStringLiteral("-1.000000"));
        QCOMPARE(QString::asprintf("%f", double(zoomExponent(3.0))), QStringLiteral("1.584962"));
    }
};

QTEST_APPLESS_MAIN(tst_SyncMath)
#include "tst_SyncMath.moc"
