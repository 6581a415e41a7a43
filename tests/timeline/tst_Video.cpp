#include "TimelineFixture.h"
#include "timeline/Video.h"

#include <QtTest>

class tst_Video : public QObject
{
    Q_OBJECT

private slots:
    void timestepIsTheFlooredFrameLength_data()
    {
        QTest::addColumn<double>("framerate");
        QTest::addColumn<int>("timestep");
        QTest::newRow("29.97") << 29.97 << 33;
        QTest::newRow("23.976") << 23.976 << 41;
        QTest::newRow("unknown rate") << 0.0 << 0;
        QTest::newRow("negative rate") << -25.0 << 0;
    }

    void timestepIsTheFlooredFrameLength()
    {
        QFETCH(double, framerate);
        QFETCH(int, timestep);
        const auto input = Video::makeInput(nullptr, 1, "in.mp4", 1000, framerate, 1.0, {});
        QCOMPARE(input->info.value(QStringLiteral("timestep")).toInt(), timestep);
    }

    void inputRangeEndsAtTheLastFrame()
    {
        const auto input = Video::makeInput(nullptr, 1, "in.mp4", 1000, 29.97, 1.5,
                                            {{QStringLiteral("duration"), 1000}, {QStringLiteral("sar"), 9.0}});
        QCOMPARE(input->range(), QPoint(0, 967));
        QCOMPARE(input->info.value(QStringLiteral("sar")).toDouble(), 1.5);
    }

    void knownInputKeepsItsRecord_data()
    {
        QTest::addColumn<qint64>("knownDuration");
        QTest::addColumn<qint64>("requestDuration");
        QTest::addColumn<qint64>("expected");
        QTest::newRow("record has a duration") << qint64(5000) << qint64(0) << qint64(5000);
        QTest::newRow("record has none, request has one") << qint64(0) << qint64(3000) << qint64(3000);
        QTest::newRow("neither: the info's duration") << qint64(0) << qint64(0) << qint64(4200);
    }

    void knownInputKeepsItsRecord()
    {
        QFETCH(qint64, knownDuration);
        QFETCH(qint64, requestDuration);
        QFETCH(qint64, expected);
        auto known = std::make_shared<Video>(7, knownDuration, 0, "in.mp4", QVariantMap{});
        const auto again = Video::makeInput(known, 7, "in.mp4", requestDuration, 25.0, 1.0,
                                            {{QStringLiteral("duration"), 4200}});
        QCOMPARE(again, known);
        QCOMPARE(again->duration, TSType(expected));
    }

    void previewTiesImageSequenceToGenerating()
    {
        const auto preview = Video::makePreview(
            12, "render/%06d.png", 2000, 1000, 50.0, 2.0, 1.0, true,
            {{QStringLiteral("fps"), 10.0}, {QStringLiteral("isImageSequence"), false}});
        // The rate given wins over the info's.
        QCOMPARE(preview->info.value(QStringLiteral("fps")).toDouble(), 50.0);
        QCOMPARE(preview->info.value(QStringLiteral("isImageSequence")).toBool(), true);
    }

    void frameRateChangeKeepsTheFrameCount()
    {
        const QVariantMap merged = Video::mergedInfo(
            {{QStringLiteral("fps"), 30.0}, {QStringLiteral("duration"), 1000}}, {{QStringLiteral("fps"), 60.0}});
        QCOMPARE(merged.value(QStringLiteral("duration")).toDouble(), 500.0);
        // Computed from the already changed duration: a deliberate order.
        QCOMPARE(merged.value(QStringLiteral("length")).toDouble(), 250.0);
        QCOMPARE(merged.value(QStringLiteral("fps")).toDouble(), 60.0);
    }

    void frameRateOfZeroIsIgnored()
    {
        Video video(1, 1000, 0, "a.mp4", {{QStringLiteral("fps"), 30.0}, {QStringLiteral("duration"), 1000}});
        video.applyInfo({{QStringLiteral("fps"), 0.0}});
        QCOMPARE(video.info.value(QStringLiteral("fps")).toDouble(), 30.0);
        QCOMPARE(video.info.value(QStringLiteral("duration")).toInt(), 1000);
    }

    void rotationSetsTheShownSize_data()
    {
        QTest::addColumn<int>("rotation");
        QTest::addColumn<double>("width");
        QTest::addColumn<double>("height");
        // originalSize 1920x1080, sar 1.5: the factor follows the stored width.
        QTest::newRow("quarter turn clockwise") << 0 << 1080.0 << 2880.0;
        QTest::newRow("half turn") << 1 << 2880.0 << 1080.0;
    }

    void rotationSetsTheShownSize()
    {
        QFETCH(int, rotation);
        QFETCH(double, width);
        QFETCH(double, height);
        const QVariantMap merged = Video::mergedInfo(
            {{QStringLiteral("originalSize"), QSize(1920, 1080)}, {QStringLiteral("sar"), 1.5}},
            {{QStringLiteral("rotation"), rotation}});
        QCOMPARE(merged.value(QStringLiteral("rotation")).toInt(), rotation);
        QCOMPARE(merged.value(QStringLiteral("width")).toDouble(), width);
        QCOMPARE(merged.value(QStringLiteral("height")).toDouble(), height);
        const QSize shown{static_cast<int>(width), static_cast<int>(height)};
        for (const char *key : {"size", "resolution", "adjustedSize"})
            QCOMPARE(merged.value(QLatin1String(key)).toSize(), shown);
        QCOMPARE(merged.value(QStringLiteral("originalSize")).toSize(), QSize(1920, 1080));
    }

    void flagsAndColourKeysAreMergedOnlyWhenGiven()
    {
        const QVariantMap merged = Video::mergedInfo(
            {{QStringLiteral("colorSpace"), 5}, {QStringLiteral("isTelecined"), true}},
            {{QStringLiteral("isBlackAndWhite"), 1}, {QStringLiteral("overrideInputColorspace"), true},
             {QStringLiteral("colorPrimaries"), QStringLiteral("9")}, {QStringLiteral("colorTrc"), 16.0},
             {QStringLiteral("colorRange"), 2}, {QStringLiteral("unknownKey"), 1}});
        // Flags become booleans and colour keys integers, whatever type they came in.
        QCOMPARE(merged.value(QStringLiteral("isBlackAndWhite")), QVariant(true));
        QCOMPARE(merged.value(QStringLiteral("overrideInputColorspace")), QVariant(1));
        QCOMPARE(merged.value(QStringLiteral("colorPrimaries")), QVariant(9));
        QCOMPARE(merged.value(QStringLiteral("colorSpace")).toInt(), 5);
        QVERIFY(!merged.contains(QStringLiteral("unknownKey")));
        QVERIFY(!merged.contains(QStringLiteral("fps")));
    }

    void transposedROIFollowsTheRotationTable_data()
    {
        QTest::addColumn<int>("rotation");
        QTest::addColumn<QRect>("expected");
        // Displayed (10, 20, 100, 50) on a stored picture of 1920x1080.
        QTest::newRow("0") << 0 << QRect(20, 1080 - 10 - 100, 50, 100);
        QTest::newRow("1") << 1 << QRect(1920 - 10 - 100, 1080 - 20 - 50, 100, 50);
        QTest::newRow("2") << 2 << QRect(1920 - 20 - 50, 10, 50, 100);
        QTest::newRow("negative odd") << -1 << QRect(10, 20, 100, 50);
        QTest::newRow("other even behaves as 2") << 4 << QRect(1920 - 20 - 50, 10, 50, 100);
    }

    void transposedROIFollowsTheRotationTable()
    {
        QFETCH(int, rotation);
        QFETCH(QRect, expected);
        QCOMPARE(getTransposedROI(10, 20, 100, 50, rotation, QSize(1920, 1080)), expected);
        const QVariantMap info{{QStringLiteral("rotation"), rotation},
                               {QStringLiteral("originalSize"), QSize(1920, 1080)}};
        QCOMPARE(getTransposedROI(10, 20, 100, 50, info), expected);
    }
};

QTEST_GUILESS_MAIN(tst_Video)
#include "tst_Video.moc"
