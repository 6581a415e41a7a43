#include "FrameHashes.h"
#include "VideoioMedia.h"

#include "videoio/FFReader.h"
#include "videoio/FFReaderUtils.h"

#include <QTemporaryDir>
#include <QTest>

using namespace videoio;
using namespace videoio::testing;

class tst_FFReaderUtils : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString path(const QString &name) const { return m_dir.filePath(name); }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        // Intra-only parts cut cleanly at any frame; the two parts show
        // different pictures so that the join can be seen in the hashes.
        const QStringList intra{"-g", "1", "-bf", "0"};
        QCOMPARE(makeH264(path("a.mp4"), 20, intra), QString());
        QCOMPARE(makeMedia(QStringList{"-f", "lavfi", "-i", "testsrc=size=320x240:rate=30", "-frames:v", "10",
                                       "-c:v", "libx264", "-pix_fmt", "yuv420p", "-preset", "veryfast"} + intra,
                           path("b.mp4")),
                 QString());
        QCOMPARE(makeMedia(patternInput("640x480", 10) + QStringList{"-c:v", "libx264", "-pix_fmt", "yuv420p"},
                           path("large.mp4")),
                 QString());
        QCOMPARE(makeMedia(patternInput("320x240", 10) + QStringList{"-c:v", "mpeg4"}, path("mpeg4.mp4")), QString());
        QCOMPARE(makeH264(path("b.ts"), 45, {"-bf", "2", "-f", "mpegts"}), QString());
    }

    void durationsAndCounts_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<qint64>("duration");
        QTest::addColumn<qint64>("from");
        QTest::addColumn<int>("frames");
        QTest::newRow("mp4, from 300 ms") << "a.mp4" << qint64(667) << qint64(300) << 11;
        QTest::newRow("MPEG-TS with B-frames") << "b.ts" << qint64(1500) << qint64(0) << 45;
        QTest::newRow("missing") << "none.mp4" << qint64(0) << qint64(0) << 0;
    }
    void durationsAndCounts()
    {
        QFETCH(QString, file);
        QFETCH(qint64, duration);
        QFETCH(qint64, from);
        QFETCH(int, frames);
        QVERIFY(qAbs(FFReaderUtils::getDuration(path(file)) - duration) <= 34);
        QCOMPARE(FFReaderUtils::countFrames(path(file), from), size_t(frames));
    }

    void concatenationGivesTheFramesOfBoth_data()
    {
        QTest::addColumn<int>("cut");
        QTest::addColumn<int>("kept");
        QTest::newRow("all of the former") << 0 << 20;
        QTest::newRow("cut after 12 frames") << 12 << 12;
    }
    void concatenationGivesTheFramesOfBoth()
    {
        QFETCH(int, cut);
        QFETCH(int, kept);
        const QList<QByteArray> a = decodeAll(path("a.mp4")).hashes;
        const QList<QByteArray> b = decodeAll(path("b.mp4")).hashes;
        QCOMPARE(a.size(), 20);
        QCOMPARE(b.size(), 10);
        const QString out = path(QStringLiteral("joined-%1.mp4").arg(cut));
        QVERIFY(FFReaderUtils::concat(out, path("a.mp4"), path("b.mp4"), size_t(cut)));
        QCOMPARE(decodeAll(out).hashes, a.mid(0, kept) + b);
        QCOMPARE(FFReaderUtils::countFrames(out, 0), size_t(kept + 10));
        QVERIFY(qAbs(FFReaderUtils::getDuration(out) - (kept + 10) * 1000 / 30) <= 34);
    }

    void incompatibleInputsAreRefused_data()
    {
        QTest::addColumn<QString>("latter");
        QTest::newRow("other size") << "large.mp4";
        QTest::newRow("other codec") << "mpeg4.mp4";
    }
    void incompatibleInputsAreRefused()
    {
        QFETCH(QString, latter);
        const QString out = path("refused.mp4");
        QVERIFY(!FFReaderUtils::concat(out, path("a.mp4"), path(latter), 0));
        QVERIFY(!QFile::exists(out));
    }
};

QTEST_GUILESS_MAIN(tst_FFReaderUtils)
#include "tst_FFReaderUtils.moc"
