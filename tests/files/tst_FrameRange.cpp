#include "files/FrameRange.h"

#include <QSet>
#include <QTest>

#include <cmath>

// The frame search by file tests alone, against a counting existence seam.
class tst_FrameRange : public QObject
{
    Q_OBJECT

private slots:
    void findsTheSequenceAroundTheGivenFrame_data()
    {
        QTest::addColumn<QString>("onDisk");    // the pattern of the files that exist
        QTest::addColumn<qint64>("lowest");
        QTest::addColumn<qint64>("highest");
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("first");
        QTest::addColumn<int>("last");
        QTest::addColumn<int>("maxTests");
        const QString padded = QStringLiteral("/a/b/frame_%05d.exr");
        QTest::newRow("12 to 20 from 12") << padded << 12LL << 20LL << "/a/b/frame_00012.exr" << 12 << 20 << 12;
        QTest::newRow("3 to 20 from 12") << padded << 3LL << 20LL << "/a/b/frame_00012.exr" << 3 << 20 << 22;
        QTest::newRow("unpadded 99") << "/s/shot_%d.png" << 99LL << 100LL << "/s/shot_99.png" << 99 << 100 << 6;
        QTest::newRow("unpadded 100") << "/s/shot_%d.png" << 99LL << 100LL << "/s/shot_100.png" << 99 << 100 << 6;
        QTest::newRow("missing start") << padded << 30LL << 40LL << "/a/b/frame_00012.exr" << 12 << 11 << 2;
        QTest::newRow("digits in a folder") << "/take%d/shot.exr" << 5LL << 9LL << "/take7/shot.exr" << 5 << 9 << 8;
        // The pattern's own "06" is taken for the frame number.
        QTest::newRow("path holding %06d") << padded << 1LL << 5LL << "/a/b/frame_%06d.exr" << 6 << 5 << 2;
        QTest::newRow("frames up to the largest int")
            << padded << 2147483600LL << 2147483647LL << "/a/b/frame_2147483600.exr" << 2147483600 << 2147483647 << 16;
        QTest::newRow("run longer than an int") << padded << 1LL << 3LL << "/a/b/frame_12345678901234.exr" << 0 << -1
                                                << 0;
        QTest::newRow("no digits") << padded << 1LL << 3LL << "/a/b/frame.exr" << 0 << -1 << 0;
        const int logBound = int(2 * std::log2(100000.0) + 4);
        QTest::newRow("100000 frames from the first")
            << "/f/%06d.exr" << 1LL << 100000LL << "/f/000001.exr" << 1 << 100000 << logBound;
    }

    void findsTheSequenceAroundTheGivenFrame()
    {
        QFETCH(QString, onDisk);
        QFETCH(qint64, lowest);
        QFETCH(qint64, highest);
        QFETCH(QString, path);
        QFETCH(int, first);
        QFETCH(int, last);
        QFETCH(int, maxTests);
        QSet<QString> files;
        const FramePattern pattern = FramePattern::fromFormat(onDisk, lowest);
        QVERIFY(pattern.valid);
        for (qint64 frame = lowest; frame <= highest; ++frame)
            files.insert(pattern.frameName(frame));
        int tests = 0;
        const FrameRange range = findFrameRange(path, [&](const QString &name) {
            ++tests;
            return files.contains(name);
        });
        QCOMPARE(range.first, first);
        QCOMPARE(range.last, last);
        QVERIFY2(tests <= maxTests, qPrintable(QString::number(tests) + " file tests"));
    }
};

QTEST_APPLESS_MAIN(tst_FrameRange)
#include "tst_FrameRange.moc"
