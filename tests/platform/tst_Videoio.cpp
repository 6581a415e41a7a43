#include "FrameHashes.h"
#include "VideoioMedia.h"

#include "videoio/DelayedDeleter.h"
#include "videoio/DiskCacheWriter.h"
#include "videoio/FFReader.h"
#include "videoio/FFReaderUtils.h"
#include "videoio/FilterGraphWorker.h"
#include "videoio/FrameConverter.h"
#include "videoio/InstantReader.h"
#include "videoio/Reader.h"
#include "videoio/ThumbnailImageProvider.h"
#include "videoio/ThumbnailStore.h"
#include "videoio/VideoManager.h"

#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>
#include <QSize>
#include <QTemporaryDir>
#include <QTest>

#include <opencv2/core.hpp>

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <vector>

using namespace videoio;
using namespace videoio::testing;

namespace {

ff::FramePtr makeFrame(AVPixelFormat format, int width, int height)
{
    ff::FramePtr frame = ff::makeFrame();
    frame->format = format;
    frame->width = width;
    frame->height = height;
    if (av_frame_get_buffer(frame.get(), 0) < 0)
        return {};
    // Mid grey in every plane: a valid picture in any of the formats used.
    for (int p = 0; p < AV_NUM_DATA_POINTERS && frame->data[p]; ++p) {
        const int rows = (p == 0 || format == AV_PIX_FMT_YUV444P || format == AV_PIX_FMT_GBRP) ? height
                                                                                              : (height + 1) / 2;
        std::fill_n(frame->data[p], static_cast<size_t>(frame->linesize[p]) * rows, uint8_t(0x80));
    }
    return frame;
}

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

// The video I/O layer on real media that ffmpeg makes here: the reader, its
// utilities, the shared readers, thumbnails and deferred deletion, the picture
// conversion on frames made in memory, and the live-render pieces: filter
// graphs, the filtering reader and the disk cache.
class tst_Videoio : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_clip; // the live-render clip: kFrames pictures
    QString path(const QString &name) const { return m_dir.filePath(name); }

private slots:
    void initTestCase()
    {
        m_clip = path("clip.mp4");
        QCOMPARE(makeH264(m_clip, kFrames), QString());
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
    }

    void seeksLandOnTheFramesOfASequentialDecode_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<int>("frames");
        QTest::newRow("h264 mp4 with B-frames") << "bframes.mp4" << 90;
        QTest::newRow("h264 open GOP") << "opengop.mp4" << 90;
        QTest::newRow("MPEG-TS") << "bframes.ts" << 90;
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
        // Counted from a position, B-frames and all; the file utilities take no sequences.
        if (!file.contains(QLatin1Char('%')))
            QCOMPARE(FFReaderUtils::countFrames(path(file), all.positions[frames / 2]), size_t(frames - frames / 2));

        FFReader reader(path(file));
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
        const QVariantMap info = reader.getInfo();
        QCOMPARE(info["originalSize"].toSize(), originalSize);
        QCOMPARE(info["size"].toSize(), size);
        QCOMPARE(info["rotation"].toInt(), rotation);
        QVERIFY(qFuzzyCompare(info["sar"].toDouble(), sar));
        QCOMPARE(info["fps"].toDouble(), 30.0);
        QVERIFY2(qAbs(info["duration"].toLongLong() - duration) <= 34, qPrintable(info["duration"].toString()));
        QVERIFY(isImageSequence || qAbs(FFReaderUtils::getDuration(path(file)) - duration) <= 34);
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
        FFReader reader(path(file));
        QVERIFY(!reader.isOpen());
        QVERIFY(!reader.frame());
        QVERIFY(!reader.seek(100, false));
        QVERIFY(!reader.next());
        QVERIFY(!reader.last());
        QVERIFY(reader.thumbnail(380.0f, 30, 0).empty());
        QCOMPARE(FFReaderUtils::getDuration(path(file)), 0);
        QCOMPARE(FFReaderUtils::countFrames(path(file), 0), size_t(0));
    }

    void concatenationGivesTheFramesOfBothOrRefuses_data()
    {
        QTest::addColumn<QString>("latter");
        QTest::addColumn<int>("cut");
        QTest::addColumn<int>("kept"); // -1: refused, and no file is left
        QTest::newRow("all of the former") << "b.mp4" << 0 << 20;
        QTest::newRow("cut after 12 frames") << "b.mp4" << 12 << 12;
        QTest::newRow("other size") << "large.mp4" << 0 << -1;
        QTest::newRow("other codec") << "mpeg4.mp4" << 0 << -1;
    }
    void concatenationGivesTheFramesOfBothOrRefuses()
    {
        QFETCH(QString, latter);
        QFETCH(int, cut);
        QFETCH(int, kept);
        const QString out = path(QStringLiteral("joined-%1-%2").arg(cut).arg(latter));
        QCOMPARE(FFReaderUtils::concat(out, path("a.mp4"), path(latter), size_t(cut)), kept >= 0);
        QCOMPARE(QFile::exists(out), kept >= 0);
        if (kept < 0)
            return;
        const QList<QByteArray> a = decodeAll(path("a.mp4")).hashes;
        const QList<QByteArray> b = decodeAll(path("b.mp4")).hashes;
        QCOMPARE(decodeAll(out).hashes, a.mid(0, kept) + b);
        QCOMPARE(FFReaderUtils::countFrames(out, 0), size_t(kept + 10));
        QVERIFY(qAbs(FFReaderUtils::getDuration(out) - (kept + 10) * 1000 / 30) <= 34);
    }

    void readersAreSharedPerPathUntilRemoved()
    {
        VideoManager &manager = VideoManager::GetInstance();
        const auto a = VideoManager::GetReader(path("plain.mp4"));
        const auto b = VideoManager::GetReader(path("plain.mp4"));
        QCOMPARE(a, b);
        QVERIFY(VideoManager::GetNewReader(path("plain.mp4")) != a);

        // Dropping without closing leaves the holders a working reader.
        manager.remove(path("plain.mp4"), false);
        QVERIFY(a->isOpen());
        const auto c = VideoManager::GetReader(path("plain.mp4"));
        QVERIFY(c != a);
        manager.remove(path("plain.mp4"), true);
        QVERIFY(!c->isOpen());

        // A preview reader replaces a plain one of its file, and takes a new factor.
        const auto d = VideoManager::GetReader(path("plain.mp4"));
        const auto preview = VideoManager::GetPreviewReader(path("plain.mp4"), 3.0);
        QVERIFY(preview != d && preview->isPreviewReader() && !d->isPreviewReader());
        QCOMPARE(VideoManager::GetReader(path("plain.mp4")), preview);
        QCOMPARE(VideoManager::GetPreviewReader(path("plain.mp4"), 4.0), preview);
        QCOMPARE(preview->getInfo()["slowMoFactor"].toDouble(), 4.0);
        manager.removeAll();
        QVERIFY(!preview->isOpen());
        QCOMPARE(manager.count(), 0);
    }

    void deletionWaitsForTheLastReader()
    {
        QVERIFY(QFile::copy(path("plain.mp4"), path("held.mp4")));
        auto reader = VideoManager::GetNewReader(path("held.mp4"));
        QVERIFY(reader->isOpen());
        DelayedDeleter::DeleteLater(path("held.mp4"), 0);
        // Still there while held: wait until the deleter has looked at least
        // once, which a second file queued behind it tells.
        QVERIFY(QFile::copy(path("plain.mp4"), path("free.mp4")));
        DelayedDeleter::DeleteLater(path("free.mp4"), 0);
        QTRY_VERIFY(!QFile::exists(path("free.mp4")));
        QVERIFY(QFile::exists(path("held.mp4")));
        reader.reset();
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(path("held.mp4")), 5000);
    }

    void deleteNowRemovesFilesFoldersAndSequences_data()
    {
        QTest::addColumn<QStringList>("files");
        QTest::addColumn<QString>("target");
        QTest::newRow("file") << QStringList{"x/one.txt"} << "x/one.txt";
        QTest::newRow("folder") << QStringList{"y/a.txt", "y/z/b.txt"} << "y";
        QTest::newRow("sequence") << QStringList{"s/f_0001.png", "s/f_0002.png"} << "s/f_%04d.png";
    }
    void deleteNowRemovesFilesFoldersAndSequences()
    {
        QFETCH(QStringList, files);
        QFETCH(QString, target);
        for (const QString &file : files) {
            QDir().mkpath(QFileInfo(path(file)).path());
            QFile f(path(file));
            QVERIFY(f.open(QIODevice::WriteOnly));
        }
        QVERIFY(DelayedDeleter::DeleteNow(path(target)));
        for (const QString &file : files)
            QVERIFY(!QFile::exists(path(file)));
    }

    void thumbnailsLiveInMemoryAndOnDisk()
    {
        ThumbnailStore &store = ThumbnailStore::GetInstance();
        auto reader = VideoManager::GetNewReader(path("plain.mp4"));
        const cv::Mat picture = reader->thumbnail(380.0f, 30, 0);
        const auto [ok, file] = store.add("t1", path("thumbs"), picture);
        QCOMPARE(file, path("thumbs/t1.jpg"));
        QCOMPARE(QImage(file).size(), QSize(320, 240));

        ThumbnailImageProvider provider;
        QSize size;
        QCOMPARE(provider.requestImage("t1", &size, QSize()).size(), QSize(320, 240));
        QCOMPARE(size, QSize(320, 240));
        QCOMPARE(provider.requestImage("t1?refresh=2", &size, QSize(160, 160)).size(), QSize(160, 120));
        QVERIFY(!store.add("t3", path("thumbs"), cv::Mat()).first);

        store.remove("t1");
        QVERIFY(!QFile::exists(file));
        QVERIFY(provider.requestImage("t1", &size, QSize()).isNull());
    }

    // A conversion into a tightly packed buffer must not touch one byte past
    // its last row, whatever the width: the guard is what lets frames be
    // converted straight into a QVideoFrame.
    void conversionsStayInsideTheirBuffer()
    {
        constexpr size_t kGuard = 256;
        const int height = 36;
        for (const AVPixelFormat source : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUV422P,
                                           AV_PIX_FMT_YUV444P, AV_PIX_FMT_NV12, AV_PIX_FMT_RGB24}) {
            for (const AVPixelFormat target : {AV_PIX_FMT_RGB0, AV_PIX_FMT_BGR24}) {
                for (const int width : {642, 17, 2, 1922}) {
                    const ff::FramePtr frame = makeFrame(source, width, height);
                    QVERIFY(frame);
                    const int stride = width * (target == AV_PIX_FMT_RGB0 ? 4 : 3);
                    std::vector<uint8_t> buffer(static_cast<size_t>(stride) * height + kGuard, 0xA5);
                    FrameConverter converter;
                    QVERIFY(converter.convert(frame.get(), buffer.data(), stride, width, height, target));
                    const bool inside = std::all_of(buffer.end() - kGuard, buffer.end(), [](uint8_t b) { return b == 0xA5; });
                    QVERIFY2(inside, qPrintable(QStringLiteral("%1 to %2, %3 wide")
                                                    .arg(av_get_pix_fmt_name(source), av_get_pix_fmt_name(target))
                                                    .arg(width)));
                }
            }
        }
    }

    void theYuvMatrixFollowsTheTagOrTheSize_data()
    {
        QTest::addColumn<int>("colorspace");
        QTest::addColumn<int>("height");
        QTest::addColumn<int>("matrix");
        QTest::newRow("untagged SD is BT.601") << int(AVCOL_SPC_UNSPECIFIED) << 576 << SWS_CS_ITU601;
        QTest::newRow("tagged SD BT.709 stays") << int(AVCOL_SPC_BT709) << 480 << SWS_CS_ITU709;
        QTest::newRow("BT.2020") << int(AVCOL_SPC_BT2020_NCL) << 2160 << SWS_CS_BT2020;
    }
    void theYuvMatrixFollowsTheTagOrTheSize()
    {
        QFETCH(int, colorspace);
        QFETCH(int, height);
        QFETCH(int, matrix);
        ff::FramePtr frame = ff::makeFrame();
        frame->height = height;
        frame->colorspace = AVColorSpace(colorspace);
        QCOMPARE(FrameConverter::sourceMatrix(frame.get()), matrix);
    }

    // Pure red in limited-range BT.709 YUV must come out as red on the HD path.
    void hdRedComesOutRed()
    {
        ff::FramePtr frame = makeFrame(AV_PIX_FMT_YUV420P, 1280, 720);
        QVERIFY(frame);
        const auto fill = [&](int plane, uint8_t value, int rows) {
            std::fill_n(frame->data[plane], static_cast<size_t>(frame->linesize[plane]) * rows, value);
        };
        fill(0, 63, 720);
        fill(1, 102, 360);
        fill(2, 240, 360);
        FrameConverter converter;
        const cv::Mat bgr = converter.toBgr(frame.get(), 64, 36);
        QVERIFY(!bgr.empty());
        const cv::Vec3b pixel = bgr.at<cv::Vec3b>(10, 10);
        QVERIFY2(pixel[2] >= 250 && pixel[1] <= 6 && pixel[0] <= 6,
                 qPrintable(QStringLiteral("%1 %2 %3").arg(pixel[2]).arg(pixel[1]).arg(pixel[0])));
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
        QTest::newRow("the last picture reaches back one") << "hflip" << 2967 << -1 << QList<int>{2} << 1.0;
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
        const int endPicture = end < 0 ? kFrames : int(std::floor(end * 30 / 1000.0)) + 1;
        // Never a lone picture: a window on the last one reaches back one.
        const int firstPicture = std::min(int(std::ceil(start * 30 / 1000.0)), endPicture - 2);
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

        // A slowed chain's timing in the cache is the watcher's test, through its own cache.
        QVERIFY(installGraph(reader, "negate"));
        QCOMPARE(reader.render(0, 630, 0, never).chunks, 1);  // 19 pictures, 633 ms
        QCOMPARE(errors.count(), 0);
        const QString negated = cached.at(0).at(0).toString();
        QVERIFY(negated.startsWith(cacheDir.path()));
        QCOMPARE(FFReaderUtils::countFrames(negated, 0), size_t(19));

        QVERIFY(installGraph(reader, "hflip"));
        QCOMPARE(reader.render(0, 630, 0, never).chunks, 1);
        QCOMPARE(cached.count(), 2);
        const QString plainFile = cached.at(1).at(0).toString();
        QVERIFY(plainFile != negated);
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

QTEST_GUILESS_MAIN(tst_Videoio)
#include "tst_Videoio.moc"
