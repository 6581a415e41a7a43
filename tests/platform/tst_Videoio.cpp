#include "FrameHashes.h"
#include "VideoioMedia.h"

#include "videoio/FFReader.h"

#include <QSize>
#include <QTemporaryDir>
#include <QTest>

#include <opencv2/core.hpp>

using namespace videoio;
using namespace videoio::testing;

class tst_FFReader : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString path(const QString &name) const { return m_dir.filePath(name); }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        const QStringList bframes{QStringLiteral("-bf"), QStringLiteral("3"), QStringLiteral("-g"), QStringLiteral("30")};
        QCOMPARE(makeH264(path("plain.mp4"), 90, {"-bf", "0", "-g", "30"}), QString());
        QCOMPARE(makeH264(path("bframes.mp4"), 90, bframes), QString());
        QCOMPARE(makeH264(path("opengop.mp4"), 90,
                          {"-bf", "3", "-x264-params", "open-gop=1:keyint=30:min-keyint=30:scenecut=0"}),
                 QString());
        QCOMPARE(makeH264(path("bframes.ts"), 90, bframes + QStringList{"-f", "mpegts"}), QString());
        // The rotation tag only turns into a display matrix on a stream copy.
        QCOMPARE(makeH264(path("upright.mp4"), 30), QString());
        QCOMPARE(makeMedia({"-i", path("upright.mp4"), "-c", "copy", "-metadata:s:v:0", "rotate=90"}, path("rotated.mp4")),
                 QString());
        QCOMPARE(makeH264(path("anamorphic.mp4"), 30, {"-vf", "setsar=4/3"}), QString());
        QCOMPARE(makeMedia(patternInput("642x360", 30) + QStringList{"-c:v", "libx264", "-pix_fmt", "yuv420p"},
                           path("odd.mp4")),
                 QString());
        QVERIFY(QDir().mkpath(path("seq")));
        QCOMPARE(makeMedia(patternInput("160x120", 12) + QStringList{"-start_number", "1001"},
                           path("seq/frame_%06d.png")),
                 QString());
        QFile garbage(path("garbage.mp4"));
        QVERIFY(garbage.open(QIODevice::WriteOnly));
        garbage.write(QByteArray(4096, 'x'));
    }

    void seeksLandOnTheFramesOfASequentialDecode_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<int>("frames");
        QTest::newRow("h264 mp4 with B-frames") << "bframes.mp4" << 90;
        QTest::newRow("h264 open GOP") << "opengop.mp4" << 90;
        QTest::newRow("MPEG-TS") << "bframes.ts" << 90;
        QTest::newRow("odd width 642") << "odd.mp4" << 30;
        QTest::newRow("PNG sequence from 1001") << "seq/frame_%06d.png" << 12;
    }
    void seeksLandOnTheFramesOfASequentialDecode()
    {
        QFETCH(QString, file);
        QFETCH(int, frames);
        const Decoded all = decodeAll(path(file));
        QCOMPARE(all.hashes.size(), frames);
        // The fixture must tell frames apart, or a wrong frame would pass.
        QCOMPARE(QSet<QByteArray>(all.hashes.cbegin(), all.hashes.cend()).size(), frames);
        QCOMPARE(all.positions.first(), 0);

        FFReader reader(path(file));
        QVERIFY(reader.isOpen());
        // Backwards across key frames, forwards in jumps, single steps back,
        // then a shuffled walk: every way of arriving must give the same frame.
        QList<int> order;
        for (int i = frames - 1; i >= 0; i -= 7)
            order << i;
        for (int i = 0; i < frames; i += 11)
            order << i;
        for (int i = frames - 1; i > frames - 5; --i)
            order << i;
        QList<int> shuffled;
        for (int i = 0; i < frames; ++i)
            shuffled << (i * 37 + 11) % frames;
        order += shuffled;
        for (int index : std::as_const(order)) {
            QVERIFY(reader.seek(all.positions[index], false));
            QCOMPARE(reader.position(), all.positions[index]);
            QVERIFY2(frameHash(reader) == all.hashes[index], qPrintable(QStringLiteral("frame %1").arg(index)));
        }
        // Between two frames the earlier one is shown.
        const int middle = frames / 2;
        QVERIFY(reader.seek(all.positions[middle] + 5, false));
        QCOMPARE(frameHash(reader), all.hashes[middle]);
        // Stepping after a seek goes on from the frame sought.
        QVERIFY(reader.next());
        QCOMPARE(frameHash(reader), all.hashes[middle + 1]);
        QVERIFY(reader.previous());
        QVERIFY(reader.previous());
        QCOMPARE(frameHash(reader), all.hashes[middle - 1]);
        QVERIFY(reader.last());
        QCOMPARE(frameHash(reader), all.hashes.last());
        QVERIFY(reader.isEOF());
        QVERIFY(!reader.next());
        QVERIFY(reader.isEOF());
        QVERIFY(reader.first());
        QCOMPARE(frameHash(reader), all.hashes.first());
        QVERIFY(!reader.isEOF());
    }

    void infoMapDescribesTheFile_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QSize>("originalSize");
        QTest::addColumn<QSize>("size");
        QTest::addColumn<int>("rotation");
        QTest::addColumn<double>("sar");
        QTest::addColumn<qlonglong>("duration");
        QTest::addColumn<bool>("isImageSequence");
        QTest::newRow("quarter turn counter-clockwise")
            << "rotated.mp4" << QSize(320, 240) << QSize(240, 320) << 2 << 1.0 << 1000LL << false;
        QTest::newRow("anamorphic 4:3 pixels")
            << "anamorphic.mp4" << QSize(320, 240) << QSize(426, 240) << 3 << 4.0 / 3.0 << 1000LL << false;
        QTest::newRow("image sequence")
            << "seq/frame_%06d.png" << QSize(160, 120) << QSize(160, 120) << 3 << 1.0 << 400LL << true;
        QTest::newRow("MPEG-TS") << "bframes.ts" << QSize(320, 240) << QSize(320, 240) << 3 << 1.0 << 3000LL << false;
    }
    void infoMapDescribesTheFile()
    {
        QFETCH(QString, file);
        QFETCH(QSize, originalSize);
        QFETCH(QSize, size);
        QFETCH(int, rotation);
        QFETCH(double, sar);
        QFETCH(qlonglong, duration);
        QFETCH(bool, isImageSequence);
        FFReader reader(path(file));
        QVERIFY(reader.isOpen());
        const QVariantMap info = reader.getInfo();
        QCOMPARE(info["originalSize"].toSize(), originalSize);
        QCOMPARE(info["size"].toSize(), size);
        QCOMPARE(info["rotation"].toInt(), rotation);
        QVERIFY(qFuzzyCompare(info["sar"].toDouble(), sar));
        QCOMPARE(info["fps"].toDouble(), 30.0);
        QVERIFY2(qAbs(info["duration"].toLongLong() - duration) <= 34, qPrintable(info["duration"].toString()));
        QCOMPARE(info["isImageSequence"].toBool(), isImageSequence);
    }

    void thumbnailsAreUprightAndSized_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<float>("edge");
        QTest::addColumn<int>("cols");
        QTest::addColumn<int>("rows");
        QTest::newRow("never enlarged") << "plain.mp4" << 380.0f << 320 << 240;
        QTest::newRow("long edge 380") << "odd.mp4" << 380.0f << 380 << 213;
        QTest::newRow("rotated stands upright") << "rotated.mp4" << 380.0f << 240 << 320;
        QTest::newRow("pixel aspect applied") << "anamorphic.mp4" << 380.0f << 380 << 214;
        QTest::newRow("thin picture keeps the minimum edge") << "odd.mp4" << 40.0f << 40 << 30;
    }
    void thumbnailsAreUprightAndSized()
    {
        QFETCH(QString, file);
        QFETCH(float, edge);
        QFETCH(int, cols);
        QFETCH(int, rows);
        FFReader reader(path(file));
        QVERIFY(reader.seek(500, false));
        const qlonglong before = reader.position();
        const QByteArray shown = frameHash(reader);
        const cv::Mat thumb = reader.thumbnail(edge, 30, 0);
        QCOMPARE(thumb.type(), CV_8UC3);
        QCOMPARE(thumb.cols, cols);
        QCOMPARE(thumb.rows, rows);
        // Taking a thumbnail elsewhere leaves the reader where it stood.
        QCOMPARE(reader.position(), before);
        QCOMPARE(frameHash(reader), shown);
    }

    void unreadableFilesLeaveAClosedReader_data()
    {
        QTest::addColumn<QString>("file");
        QTest::newRow("missing") << "nothing-here.mp4";
        QTest::newRow("not a video") << "garbage.mp4";
        QTest::newRow("sequence without frames") << "seq/none_%04d.png";
    }
    void unreadableFilesLeaveAClosedReader()
    {
        QFETCH(QString, file);
        FFReader reader(file.isEmpty() ? QString() : path(file));
        QVERIFY(!reader.isOpen());
        QVERIFY(!reader.frame());
        QVERIFY(!reader.seek(100, false));
        QVERIFY(!reader.next());
        QVERIFY(!reader.last());
        QVERIFY(reader.thumbnail(380.0f, 30, 0).empty());
    }
};

QTEST_GUILESS_MAIN(tst_FFReader)
#include "tst_FFReader.moc"
