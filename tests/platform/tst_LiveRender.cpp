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
#include <QThread>
#include <QVideoFrame>

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavutil/pixdesc.h>
}

#include <functional>

using namespace videoio;
using namespace videoio::testing;

namespace {

constexpr int kFrames = 30;
constexpr int kWidth = 320;
constexpr int kHeight = 240;

using PixelRule = std::function<bool(const uint8_t *original, const uint8_t *filtered)>;

// The RGB0 picture an unfiltered reader shows at `ms`.
QByteArray referencePicture(const QString &path, qlonglong ms)
{
    FFReader reader(path);
    if (!reader.seek(ms, false))
        return {};
    QVideoFrame frame = *reader.frame();
    frame.map(QVideoFrame::ReadOnly);
    QByteArray pixels;
    for (int y = 0; y < frame.height(); ++y)
        pixels.append(reinterpret_cast<const char *>(frame.bits(0) + y * frame.bytesPerLine(0)), frame.width() * 4);
    frame.unmap();
    return pixels;
}

// Pixels of `filtered` (RGB0) that break `rule` against `original`, where a
// filtered pixel at (x, y) is compared with the original at (sourceX(x), y).
int mismatches(const QByteArray &original, const AVFrame *filtered, const std::function<int(int)> &sourceX,
               const PixelRule &rule)
{
    int bad = 0;
    for (int y = 0; y < filtered->height; ++y) {
        for (int x = 0; x < filtered->width; ++x) {
            const auto *src = reinterpret_cast<const uint8_t *>(original.constData()) + (y * kWidth + sourceX(x)) * 4;
            const uint8_t *dst = filtered->data[0] + y * filtered->linesize[0] + x * 4;
            bad += rule(src, dst) ? 0 : 1;
        }
    }
    return bad;
}

bool sameRgb(const uint8_t *a, const uint8_t *b)
{
    return a[0] == b[0] && a[1] == b[1] && a[2] == b[2];
}

// Hands a graph to `reader` the way the watcher does, from the thread the
// signal arrives on.
void deliverTo(FilterGraphWorker &worker, InstantReader &reader)
{
    QObject::connect(&worker, &FilterGraphWorker::filterGraphReady, &reader,
                     [&reader](AVFilterContext *src, AVFilterContext *sink, AVFilterGraph *fg, int counter, int) {
                         reader.setFilterGraphOnReady(src, sink, fg, counter);
                     });
}

} // namespace

class tst_LiveRender : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_clip;

    // Gives `reader` a graph of `chain` built on this thread; false when none came.
    static bool installGraph(InstantReader &reader, const std::string &chain)
    {
        FilterGraphWorker worker;
        QObject::connect(&reader, &InstantReader::initFilterGraph, &worker, &FilterGraphWorker::start);
        deliverTo(worker, reader);
        const int counter = reader.requestFilterGraph(chain);
        return reader.filterGraphCounter() == counter;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_clip = m_dir.filePath("clip.mp4");
        QCOMPARE(makeH264(m_clip, kFrames), QString());
        // The filters must be visible: the pattern is neither mirror-symmetric nor grey.
        const QByteArray picture = referencePicture(m_clip, 0);
        QCOMPARE(picture.size(), kWidth * kHeight * 4);
        int asymmetric = 0;
        for (int x = 0; x < kWidth; ++x)
            asymmetric += sameRgb(reinterpret_cast<const uint8_t *>(picture.constData()) + x * 4,
                                  reinterpret_cast<const uint8_t *>(picture.constData()) + (kWidth - 1 - x) * 4)
                              ? 0
                              : 1;
        QVERIFY(asymmetric > kWidth / 4);
    }

    void workerBuildsGraphs_data()
    {
        QTest::addColumn<QString>("chain");
        QTest::addColumn<QString>("sourceArguments");
        QTest::addColumn<bool>("builds");
        QTest::addColumn<int>("outputWidth");

        const QString rgb = "video_size=320x240:pix_fmt=rgb0:time_base=1/1000:pixel_aspect=1/1";
        QTest::newRow("empty chain passes through") << "" << rgb << true << 320;
        QTest::newRow("chain of two, scaling") << "scale=160:120,negate" << rgb << true << 160;
        QTest::newRow("yuv source") << "hflip" << "video_size=64x48:pix_fmt=yuv420p:time_base=1/25:pixel_aspect=1/1"
                                    << true << 64;
        QTest::newRow("unknown filter") << "nosuchfilter" << rgb << false << 0;
        QTest::newRow("two outputs") << "split" << rgb << false << 0;
        QTest::newRow("source without size") << "hflip" << "pix_fmt=rgb0:time_base=1/1000" << false << 0;
    }

    void workerBuildsGraphs()
    {
        QFETCH(QString, chain);
        QFETCH(QString, sourceArguments);
        QFETCH(bool, builds);
        QFETCH(int, outputWidth);

        FilterGraphWorker worker;
        QSignalSpy ready(&worker, &FilterGraphWorker::filterGraphReady);
        if (!builds)
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("not built"));
        worker.start(chain.toStdString(), sourceArguments.toStdString(), 7, 1);
        QCOMPARE(ready.count(), builds ? 1 : 0);
        if (!builds)
            return;
        FilterGraphPtr graph(ready.first().at(2).value<AVFilterGraph *>());
        auto *src = ready.first().at(0).value<AVFilterContext *>();
        auto *sink = ready.first().at(1).value<AVFilterContext *>();
        QCOMPARE(ready.first().at(3).toInt(), 7);
        QCOMPARE(ready.first().at(4).toInt(), 1);
        QVERIFY(src && sink);
        QCOMPARE(av_buffersink_get_w(sink), outputWidth);
        // Whatever the chain converts on the way, the sink gives the source's format.
        QCOMPARE(av_buffersink_get_format(sink),
                 int(av_get_pix_fmt(sourceArguments.contains("yuv") ? "yuv420p" : "rgb0")));
    }

    void readerShowsTheFilterInItsPixels_data()
    {
        QTest::addColumn<QString>("chain");
        QTest::addColumn<bool>("mirrored");
        QTest::addColumn<bool>("inverted");

        QTest::newRow("hflip") << "hflip" << true << false;
        QTest::newRow("negate") << "negate" << false << true;
    }

    void readerShowsTheFilterInItsPixels()
    {
        QFETCH(QString, chain);
        QFETCH(bool, mirrored);
        QFETCH(bool, inverted);

        InstantReader reader(m_clip, 1);
        QVERIFY(reader.isOpen());
        QVERIFY(installGraph(reader, chain.toStdString()));
        QSignalSpy buffers(&reader, &InstantReader::previewBufferReady);
        QSignalSpy ramRange(&reader, &InstantReader::setRAMBufferRangeToUI);
        QSignalSpy seeking(&reader, &InstantReader::setSeekingStatus);

        const qlonglong start = 334;  // inside frame 10
        QCOMPARE(reader.render(start, 5), 5);
        QCOMPARE(buffers.count(), 1);
        const auto frames = buffers.first().at(1).value<FrameBuffer>();
        QCOMPARE(frames->size(), size_t(5));
        const QPoint range = buffers.first().at(2).toPoint();
        QCOMPARE(range, QPoint(333, int(frames->back()->pts)));
        QCOMPARE(ramRange.first().at(0).toPoint(), range);
        QCOMPARE(seeking.last(), (QVariantList{1, false, false}));

        const auto sourceX = [mirrored](int x) { return mirrored ? kWidth - 1 - x : x; };
        const PixelRule rule = inverted
            ? PixelRule([](const uint8_t *a, const uint8_t *b) {
                  return b[0] == 255 - a[0] && b[1] == 255 - a[1] && b[2] == 255 - a[2];
              })
            : PixelRule(sameRgb);
        for (const std::shared_ptr<AVFrame> &frame : *frames) {
            QCOMPARE(frame->format, int(AV_PIX_FMT_RGB0));
            QCOMPARE(frame->width, kWidth);
            const QByteArray original = referencePicture(m_clip, frame->pts);
            QCOMPARE(mismatches(original, frame.get(), sourceX, rule), 0);
        }

        reader.clearFrames();
        QVERIFY(!reader.frames());
    }

    void renderStopsAtTheEndOfTheFile()
    {
        InstantReader reader(m_clip, 0);
        QVERIFY(installGraph(reader, "negate"));
        QCOMPARE(reader.render(900, 50), 3);  // frames 27, 28, 29
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
        QCOMPARE(status.count(), 2);
        QCOMPARE(status.first(), (QVariantList{0, true, true}));

        const auto handTo = [&ready](InstantReader &target, int index) {
            const QVariantList &args = ready.at(index);
            target.setFilterGraphOnReady(args.at(0).value<AVFilterContext *>(), args.at(1).value<AVFilterContext *>(),
                                         args.at(2).value<AVFilterGraph *>(), args.at(3).toInt());
        };
        // The watcher hands every graph of a view to every reader of it; a
        // reader must take its own only, or two would free one graph.
        handTo(reader, 2);
        QCOMPARE(reader.filterGraphCounter(), -1);
        QCOMPARE(reader.render(0, 1), 0);
        handTo(reader, 1);
        QCOMPARE(reader.filterGraphCounter(), newer);
        QCOMPARE(status.last(), (QVariantList{0, false, false}));
        handTo(reader, 0);  // older than the installed one: freed, not installed
        QCOMPARE(reader.filterGraphCounter(), newer);
        handTo(other, 2);
        QCOMPARE(other.filterGraphCounter(), foreign);
        QVERIFY(older < newer);
        QCOMPARE(reader.render(0, 2), 2);
    }

    void workerThreadAndDiskCacheWriteAReadableFile()
    {
        QTemporaryDir cacheDir;
        QVERIFY(cacheDir.isValid());
        QThread graphThread;
        QThread cacheThread;
        auto *worker = new FilterGraphWorker;
        std::vector<QPoint> cachedRanges;
        auto *writer = new DiskCacheWriter(1, {}, cacheDir.path(), &cachedRanges);
        worker->moveToThread(&graphThread);
        writer->moveToThread(&cacheThread);
        connect(&graphThread, &QThread::finished, worker, &QObject::deleteLater);
        connect(&cacheThread, &QThread::finished, writer, &QObject::deleteLater);
        graphThread.start();
        cacheThread.start();
        const auto stop = qScopeGuard([&] {
            graphThread.quit();
            cacheThread.quit();
            graphThread.wait();
            cacheThread.wait();
        });

        InstantReader reader(m_clip, 1);
        connect(&reader, &InstantReader::initFilterGraph, worker, &FilterGraphWorker::start);
        deliverTo(*worker, reader);
        connect(&reader, &InstantReader::previewBufferReady, writer, &DiskCacheWriter::onAddtoCacheQueue,
                Qt::QueuedConnection);
        QSignalSpy cached(writer, &DiskCacheWriter::cacheReadyToLoad);
        QSignalSpy errors(writer, &DiskCacheWriter::cacheError);

        const int counter = reader.requestFilterGraph("negate");
        QTRY_COMPARE_WITH_TIMEOUT(reader.filterGraphCounter(), counter, 10000);
        QCOMPARE(reader.render(0, 12), 12);
        QVERIFY(cached.wait(20000));
        QCOMPARE(errors.count(), 0);
        const QString file = cached.first().at(0).toString();
        QCOMPARE(cached.first().at(1).toPoint(), reader.frames() ? QPoint(0, int(reader.frames()->back()->pts))
                                                                 : QPoint());
        QCOMPARE(cached.first().at(2).toInt(), 1);
        QVERIFY(file.startsWith(cacheDir.path()));

        QCOMPARE(FFReaderUtils::countFrames(file, 0), size_t(12));

        // The cache is lossless: its first picture is the rendered one.
        QCOMPARE(mismatches(referencePicture(file, 0), reader.frames()->front().get(), [](int x) { return x; },
                            sameRgb),
                 0);

        // A range already on disk is not written twice until the history is cleared.
        const QPoint range = cached.first().at(1).toPoint();
        QCOMPARE(cachedRanges, std::vector<QPoint>{range});
        QMetaObject::invokeMethod(writer, [&reader, writer, range] {
            writer->onAddtoCacheQueue(reader.getPath(), reader.frames(), range, 1, 30.0);
        }, Qt::BlockingQueuedConnection);
        QCOMPARE(cached.count(), 1);
        QMetaObject::invokeMethod(writer, "onClearcachedRangeReqAndHistory", Qt::BlockingQueuedConnection,
                                  Q_ARG(int, 1));
        QVERIFY(cachedRanges.empty());
        QCOMPARE(reader.render(0, 12), 12);
        QVERIFY(cached.wait(20000));
        QCOMPARE(cached.count(), 2);
        QVERIFY(cached.last().at(0).toString() != file);
        QCOMPARE(cachedRanges.size(), size_t(1));
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
        QCOMPARE(reader.render(0, 2), 2);
        FrameBuffer frames = emptyBuffer ? std::make_shared<std::vector<std::shared_ptr<AVFrame>>>() : reader.frames();

        DiskCacheWriter writer(0, options, folder, nullptr);
        QSignalSpy cached(&writer, &DiskCacheWriter::cacheReadyToLoad);
        QSignalSpy errors(&writer, &DiskCacheWriter::cacheError);
        writer.onAddtoCacheQueue(m_clip, frames, QPoint(0, 33), 0, 30.0);
        QCOMPARE(cached.count(), 0);
        QCOMPARE(errors.count(), 1);
        QCOMPARE(errors.first().at(0).toString(), m_clip);
        QVERIFY(!errors.first().at(1).toString().isEmpty());
        QCOMPARE(errors.first().at(2).toInt(), code);
        // A failed file is not left behind for the player to load.
        QCOMPARE(QDir(folder).entryList(QDir::Files).size(), 0);
    }

    void diskCacheRefusesBuffersOfAnotherView()
    {
        InstantReader reader(m_clip, 1);
        QVERIFY(installGraph(reader, "hflip"));
        QCOMPARE(reader.render(0, 1), 1);
        DiskCacheWriter writer(0, {}, m_dir.filePath("cache-other"), nullptr);
        QSignalSpy cached(&writer, &DiskCacheWriter::cacheReadyToLoad);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("refused a buffer of view 1"));
        writer.onAddtoCacheQueue(m_clip, reader.frames(), QPoint(0, 0), 1, 30.0);
        QCOMPARE(cached.count(), 0);
    }

    void readerOfAMissingFileRendersNothing()
    {
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("Unable to open video"));
        InstantReader reader(m_dir.filePath("missing.mp4"), 0);
        QVERIFY(!reader.isOpen());
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("No filter graph"));
        QCOMPARE(reader.render(0, 3), 0);
    }
};

QTEST_GUILESS_MAIN(tst_LiveRender)
#include "tst_LiveRender.moc"
