#include "VideoioMedia.h"

#include "videoio/DiskCacheWriter.h"
#include "videoio/FFReader.h"
#include "videoio/FFReaderUtils.h"
#include "videoio/FilterGraphWorker.h"
#include "videoio/InstantReader.h"

#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavutil/pixdesc.h>
}

using namespace videoio;
using namespace videoio::testing;

namespace {

constexpr int kFrames = 90;  // 3 s at 30 fps: pictures at round(n * 1000 / 30) ms
constexpr int kWidth = 320;

// Gives `reader` a graph of `chain` the way a view does, through a builder.
bool installGraph(InstantReader &reader, const std::string &chain)
{
    FilterGraphWorker worker;
    QObject::connect(&reader, &InstantReader::initFilterGraph, &worker, &FilterGraphWorker::start);
    QObject::connect(&worker, &FilterGraphWorker::filterGraphReady, &reader,
                     [&reader](AVFilterContext *src, AVFilterContext *sink, AVFilterGraph *fg, int counter, int) {
                         reader.setFilterGraphOnReady(src, sink, fg, counter);
                     });
    const int counter = reader.requestFilterGraph(chain);
    return reader.filterGraphCounter() == counter;
}

const auto never = [] { return false; };

} // namespace

class tst_LiveRender : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_clip;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_clip = m_dir.filePath("clip.mp4");
        QCOMPARE(makeH264(m_clip, kFrames), QString());
    }

    void workerBuildsGraphs_data()
    {
        QTest::addColumn<QString>("chain");
        QTest::addColumn<QString>("sourceArguments");
        QTest::addColumn<int>("outputWidth");  // 0: no graph

        const QString yuv = "video_size=320x240:pix_fmt=yuv420p:time_base=1/1000:pixel_aspect=1/1";
        QTest::newRow("empty chain passes through") << "" << yuv << 320;
        QTest::newRow("chain of two, scaling") << "scale=160:120,negate" << yuv << 160;
        QTest::newRow("labelled as in a render command") << "[0:v]scale=160:-2,hflip[v]" << yuv << 160;
        QTest::newRow("labelled input only") << "[in]hqdn3d,yadif" << yuv << 320;
        QTest::newRow("rgb source") << "hflip" << "video_size=64x48:pix_fmt=rgb0:time_base=1/25:pixel_aspect=1/1"
                                    << 64;
        QTest::newRow("unknown filter") << "nosuchfilter" << yuv << 0;
        QTest::newRow("two outputs") << "split" << yuv << 0;
        QTest::newRow("two inputs") << "[a][b]overlay" << yuv << 0;
        QTest::newRow("source without size") << "hflip" << "pix_fmt=yuv420p:time_base=1/1000" << 0;
    }

    void workerBuildsGraphs()
    {
        QFETCH(QString, chain);
        QFETCH(QString, sourceArguments);
        QFETCH(int, outputWidth);

        FilterGraphWorker worker;
        QSignalSpy ready(&worker, &FilterGraphWorker::filterGraphReady);
        if (outputWidth == 0)
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("not built"));
        worker.start(chain.toStdString(), sourceArguments.toStdString(), 7, 1);
        QCOMPARE(ready.count(), outputWidth ? 1 : 0);
        if (!outputWidth)
            return;
        FilterGraphPtr graph(ready.first().at(2).value<AVFilterGraph *>());
        auto *sink = ready.first().at(1).value<AVFilterContext *>();
        QCOMPARE(ready.first().at(3).toInt(), 7);
        QCOMPARE(ready.first().at(4).toInt(), 1);
        QCOMPARE(av_buffersink_get_w(sink), outputWidth);
        // Whatever the chain converts on the way, the sink gives the source's format.
        QCOMPARE(av_buffersink_get_format(sink),
                 int(av_get_pix_fmt(sourceArguments.contains("yuv") ? "yuv420p" : "rgb0")));
    }

    // Chunks tile the window on the input's axis, hold at most twenty source
    // pictures and never one alone, and a filter that holds pictures back
    // gives them all up by the window's end.
    void windowsComeInChunksThatTileThem_data()
    {
        QTest::addColumn<QString>("chain");
        QTest::addColumn<int>("start");
        QTest::addColumn<int>("end");
        QTest::addColumn<QList<int>>("pictures");  // filtered pictures per chunk
        QTest::addColumn<double>("slowMoFactor");

        QTest::newRow("whole clip") << "hflip" << 0 << -1 << QList<int>{20, 20, 20, 20, 10} << 1.0;
        QTest::newRow("twenty-one go as nineteen and two") << "hflip" << 0 << 667 << QList<int>{19, 2} << 1.0;
        QTest::newRow("start between pictures") << "negate" << 50 << 690 << QList<int>{19} << 1.0;
        QTest::newRow("slowed by the chain") << "setpts=2*PTS" << 1000 << 1632 << QList<int>{19} << 2.0;
        QTest::newRow("yadif holds one") << "yadif" << 0 << 1499 << QList<int>{20, 20, 5} << 1.0;
        QTest::newRow("atadenoise holds several") << "atadenoise" << 500 << -1 << QList<int>{20, 20, 20, 15} << 1.0;
        QTest::newRow("reverse holds all") << "reverse" << 0 << 1299 << QList<int>{20, 19} << 1.0;
    }

    void windowsComeInChunksThatTileThem()
    {
        QFETCH(QString, chain);
        QFETCH(int, start);
        QFETCH(int, end);
        QFETCH(QList<int>, pictures);
        QFETCH(double, slowMoFactor);

        InstantReader reader(m_clip, 1);
        QVERIFY(installGraph(reader, chain.toStdString()));
        QSignalSpy ramRange(&reader, &InstantReader::setRAMBufferRangeToUI);
        // What a chunk held, without holding on to its pictures.
        struct Seen { QPoint range; int pictures; qlonglong firstPts; PreviewChunk info; };
        std::vector<Seen> seen;
        connect(&reader, &InstantReader::previewBufferReady, this,
                [&seen](const QString &, const FrameBuffer &frames, QPoint range, int, double, const PreviewChunk &info) {
                    seen.push_back({range, int(frames->size()), frames->front()->pts, info});
                });
        const auto result = reader.render(start, end, 9, never);
        QVERIFY2(result.error.isEmpty(), qPrintable(result.error));
        QCOMPARE(result.chunks, int(pictures.size()));

        const auto positionOf = [](int picture) { return int(std::lround(picture * 1000 / 30.0)); };
        const int firstPicture = int(std::ceil(start * 30 / 1000.0));
        const int endPicture = end < 0 ? kFrames : int(std::floor(end * 30 / 1000.0)) + 1;
        QCOMPARE(seen.front().range.x(), positionOf(firstPicture));
        QCOMPARE(seen.back().range.y() + 1, positionOf(endPicture));
        for (size_t i = 0; i < seen.size(); ++i) {
            if (i + 1 < seen.size())
                QCOMPARE(seen[i + 1].range.x(), seen[i].range.y() + 1);
            QCOMPARE(seen[i].pictures, pictures.at(int(i)));
            QCOMPARE(seen[i].firstPts, 0);  // a chunk's file starts with its first picture
            QCOMPARE(seen[i].info.chain, chain.toStdString());
            QCOMPARE(seen[i].info.tag, 9);
            QVERIFY2(std::abs(seen[i].info.slowMoFactor - slowMoFactor) < 0.05,
                     qPrintable(QString::number(seen[i].info.slowMoFactor)));
            QCOMPARE(ramRange.at(int(i)).at(0).toPoint(), seen[i].range);
        }
    }

    void filterShowsInTheDecodersPictures()
    {
        InstantReader reader(m_clip, 0);
        QVERIFY(installGraph(reader, "[0:v]hflip[out]"));
        QSignalSpy spy(&reader, &InstantReader::previewBufferReady);
        QCOMPARE(reader.render(334, 700, 0, never).chunks, 1);
        const QPoint range = spy.first().at(2).toPoint();
        FFReader plain(m_clip);
        for (const std::shared_ptr<AVFrame> &filtered : *spy.first().at(1).value<FrameBuffer>()) {
            QCOMPARE(filtered->format, int(AV_PIX_FMT_YUV420P));
            QVERIFY(plain.seek(range.x() + filtered->pts, false));
            const ff::FramePtr original = plain.decodedFrame();
            int bad = 0;
            for (int y = 0; y < filtered->height; ++y) {
                for (int x = 0; x < kWidth; ++x)
                    bad += filtered->data[0][y * filtered->linesize[0] + x]
                        != original->data[0][y * original->linesize[0] + kWidth - 1 - x];
            }
            QCOMPARE(bad, 0);
        }
    }

    void windowsWithoutAPreviewFail_data()
    {
        QTest::addColumn<int>("start");
        QTest::addColumn<int>("end");
        QTest::addColumn<QString>("error");
        QTest::newRow("one picture") << 100 << 120 << "one picture";
        QTest::newRow("start past the end") << 5000 << -1 << "no picture";
        QTest::newRow("between two pictures") << 101 << 120 << "no picture";
    }

    void windowsWithoutAPreviewFail()
    {
        QFETCH(int, start);
        QFETCH(int, end);
        QFETCH(QString, error);
        InstantReader reader(m_clip, 0);
        QVERIFY(installGraph(reader, "hflip"));
        QSignalSpy spy(&reader, &InstantReader::previewBufferReady);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(error));
        const auto result = reader.render(start, end, 0, never);
        QVERIFY(result.error.contains(error));
        QCOMPARE(spy.count(), 0);
        // The spent graph was replaced: the next window renders.
        QCOMPARE(reader.render(0, 100, 0, never).chunks, 1);
    }

    void stopIsAskedBeforeEveryPicture()
    {
        InstantReader reader(m_clip, 0);
        QVERIFY(installGraph(reader, "hflip"));
        QSignalSpy spy(&reader, &InstantReader::previewBufferReady);
        int asked = 0;
        const auto result = reader.render(0, -1, 0, [&asked] { return ++asked > 21; });
        QVERIFY(result.stopped);
        QCOMPARE(result.pictures, 21);
        QCOMPARE(spy.count(), 0);  // the twenty-first leaves one too few behind it
    }

    // Receivers that keep their chunks hold the render up: memory doesn't grow
    // with the window.
    void chunksInFlightAreBounded()
    {
        InstantReader reader(m_clip, 0);
        QVERIFY(installGraph(reader, "hflip"));
        QSignalSpy spy(&reader, &InstantReader::previewBufferReady);  // holds every buffer
        reader.clearFrames();
        qlonglong lastPosition = -1;
        int stalls = 0;
        const auto result = reader.render(0, -1, 0, [&] {
            const qlonglong at = reader.position();
            stalls = at == lastPosition ? stalls + 1 : 0;
            lastPosition = at;
            return stalls > 5;
        });
        QVERIFY(result.stopped);
        QCOMPARE(spy.count(), InstantReader::kBuffersInFlight);
        spy.clear();
        reader.clearFrames();
        // Let go of, they make room at once.
        QCOMPARE(reader.render(0, 700, 0, never).chunks, 2);
    }

    void readerTakesOnlyItsOwnNewestGraph()
    {
        InstantReader reader(m_clip, 0);
        InstantReader other(m_clip, 0);
        FilterGraphWorker worker;
        QSignalSpy ready(&worker, &FilterGraphWorker::filterGraphReady);
        connect(&reader, &InstantReader::initFilterGraph, &worker, &FilterGraphWorker::start);
        connect(&other, &InstantReader::initFilterGraph, &worker, &FilterGraphWorker::start);
        QSignalSpy status(&reader, &InstantReader::setFilterInitStatus);

        const int older = reader.requestFilterGraph("hflip");
        const int newer = reader.requestFilterGraph("negate");
        const int foreign = other.requestFilterGraph("hflip");
        QCOMPARE(ready.count(), 3);
        QCOMPARE(status.first(), (QVariantList{0, true, true}));
        QVERIFY(reader.hasRequest(older) && !reader.hasRequest(foreign));
        QCOMPARE(reader.requestedChain(newer), std::string("negate"));

        const auto handTo = [&ready](InstantReader &target, int index) {
            const QVariantList &args = ready.at(index);
            target.setFilterGraphOnReady(args.at(0).value<AVFilterContext *>(), args.at(1).value<AVFilterContext *>(),
                                         args.at(2).value<AVFilterGraph *>(), args.at(3).toInt());
        };
        // A view hands every graph to every reader of it; a reader must take
        // its own only, or two would free one graph.
        handTo(reader, 2);
        QCOMPARE(reader.filterGraphCounter(), -1);
        handTo(reader, 1);
        QCOMPARE(reader.filterGraphCounter(), newer);
        QCOMPARE(status.last(), (QVariantList{0, false, false}));
        handTo(reader, 0);  // older than the installed one: freed, not installed
        QCOMPARE(reader.filterChain(), std::string("negate"));
        handTo(other, 2);
        QCOMPARE(other.filterGraphCounter(), foreign);
        QCOMPARE(reader.render(0, 100, 0, never).chunks, 1);
    }

    // The cache keeps the chunk's timing, and a range is written again when
    // its chain changed; the same range and chain is announced again as it is.
    void diskCacheWritesChunksWithTheirTiming()
    {
        QTemporaryDir cacheDir;
        DiskCacheWriter writer(1, {}, cacheDir.path(), nullptr);
        QSignalSpy cached(&writer, &DiskCacheWriter::chunkCached);
        QSignalSpy errors(&writer, &DiskCacheWriter::cacheError);
        InstantReader reader(m_clip, 1);
        connect(&reader, &InstantReader::previewBufferReady, &writer, &DiskCacheWriter::onAddtoCacheQueue);

        QVERIFY(installGraph(reader, "setpts=2*PTS"));
        QCOMPARE(reader.render(0, 630, 0, never).chunks, 1);  // 19 pictures, 633 ms
        QCOMPARE(errors.count(), 0);
        const QString slowFile = cached.at(0).at(0).toString();
        QVERIFY(slowFile.startsWith(cacheDir.path()));
        QCOMPARE(FFReaderUtils::countFrames(slowFile, 0), size_t(19));
        QVERIFY(std::abs(FFReaderUtils::getDuration(slowFile) - 2 * 633) <= 2);

        QVERIFY(installGraph(reader, "hflip"));
        QCOMPARE(reader.render(0, 630, 0, never).chunks, 1);
        QCOMPARE(cached.count(), 2);
        const QString plainFile = cached.at(1).at(0).toString();
        QVERIFY(plainFile != slowFile);
        QVERIFY(std::abs(FFReaderUtils::getDuration(plainFile) - 633) <= 2);

        QCOMPARE(reader.render(0, 630, 0, never).chunks, 1);
        QCOMPARE(cached.at(2).at(0).toString(), plainFile);
        writer.onClearcachedRangeReqAndHistory(1);
        QCOMPARE(reader.render(0, 630, 0, never).chunks, 1);
        QVERIFY(cached.at(3).at(0).toString() != plainFile);
    }

    // Files of the same pictures share an encoder that gives a packet for each
    // picture; one that holds pictures back is flushed into each file.
    void diskCacheFilesHoldTheirOwnPictures_data()
    {
        QTest::addColumn<QString>("encoder");
        QTest::newRow("chosen by the writer, kept") << "";
        QTest::newRow("key pictures only, kept") << "ffv1";
        QTest::newRow("with a lookahead, flushed") << "libx264";
    }

    void diskCacheFilesHoldTheirOwnPictures()
    {
        QFETCH(QString, encoder);
        QTemporaryDir cacheDir;
        DiskCacheWriter writer(1, encoder.isEmpty() ? QVariantMap{} : QVariantMap{{"encoder", encoder}},
                               cacheDir.path(), nullptr);
        QSignalSpy cached(&writer, &DiskCacheWriter::chunkCached);
        InstantReader reader(m_clip, 1);
        connect(&reader, &InstantReader::previewBufferReady, &writer, &DiskCacheWriter::onAddtoCacheQueue);
        for (const char *chain : {"hflip", "negate"}) {
            QVERIFY(installGraph(reader, chain));
            QCOMPARE(reader.render(0, 1299, 0, never).chunks, 2);
        }
        QCOMPARE(cached.count(), 4);
        for (int i = 0; i < 4; ++i)
            QCOMPARE(FFReaderUtils::countFrames(cached.at(i).at(0).toString(), 0), size_t(i % 2 ? 19 : 20));
    }

    void diskCacheReportsFailures_data()
    {
        QTest::addColumn<QVariantMap>("options");
        QTest::addColumn<QString>("folder");
        QTest::addColumn<bool>("emptyBuffer");
        QTest::addColumn<int>("code");

        const QString blocker = m_dir.filePath("plain-file");
        QFile file(blocker);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.close();

        QTest::newRow("empty buffer") << QVariantMap{} << m_dir.filePath("cache-a") << true << AVERROR(EINVAL);
        QTest::newRow("unknown encoder") << QVariantMap{{"encoder", "nosuchcodec"}} << m_dir.filePath("cache-b")
                                         << false << AVERROR_ENCODER_NOT_FOUND;
        QTest::newRow("unknown container") << QVariantMap{{"extension", "nosuchext"}} << m_dir.filePath("cache-d")
                                           << false << int(AVERROR(EINVAL));
        QTest::newRow("folder under a file") << QVariantMap{} << blocker + "/cache" << false << AVERROR(EACCES);
    }

    void diskCacheReportsFailures()
    {
        QFETCH(QVariantMap, options);
        QFETCH(QString, folder);
        QFETCH(bool, emptyBuffer);
        QFETCH(int, code);

        InstantReader reader(m_clip, 0);
        QVERIFY(installGraph(reader, "hflip"));
        QCOMPARE(reader.render(0, 100, 0, never).chunks, 1);
        FrameBuffer frames = emptyBuffer ? std::make_shared<std::vector<std::shared_ptr<AVFrame>>>() : reader.frames();

        DiskCacheWriter writer(0, options, folder, nullptr);
        QSignalSpy cached(&writer, &DiskCacheWriter::cacheReadyToLoad);
        QSignalSpy errors(&writer, &DiskCacheWriter::cacheError);
        writer.onAddtoCacheQueue(m_clip, frames, QPoint(0, 99), 0, 30.0, PreviewChunk{"hflip", 0, 100, 1.0});
        QCOMPARE(cached.count(), 0);
        QCOMPARE(errors.count(), 1);
        QCOMPARE(errors.first().at(0).toString(), m_clip);
        QCOMPARE(errors.first().at(2).toInt(), code);
        // A failed file is not left behind for the player to load.
        QCOMPARE(QDir(folder).entryList(QDir::Files).size(), 0);
    }
};

QTEST_GUILESS_MAIN(tst_LiveRender)
#include "tst_LiveRender.moc"
