// Live-render figures beside ffmpeg, in one run:
//   1. filter change to the first chunk of the window at the playhead on the
//      timeline (startRender to previewReadyToInject of the 21 pictures from a
//      position), against `ffmpeg -ss T -frames:v 21 -vf F -c:v ffv1`;
//   2. rendering 10 s of 1080p H.264 through hflip,hqdn3d,yadif: pictures per
//      second, and the growth of resident memory during the render, against
//      `ffmpeg -vf F -c:v ffv1` on the same file and its peak resident memory.
//
// Run:  build/bench/liverender/bench_LiveRender [file.mp4]
// Without a file it makes a 10 s 1080p H.264 clip (25 fps, B-frames) first.

#include "BenchStats.h"
#include "LiveRenderMedia.h"
#include "playback/InstantReaderWatcher.h"
#include "videoio/DiskCacheWriter.h"

#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTimer>

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

using videoplayer::InstantReaderWatcher;

using liverenderbench::ffmpeg;
using liverenderbench::loadAverage;
using liverenderbench::inputOrClip;

namespace {

const QString kChain = QStringLiteral("hflip,hqdn3d,yadif");

qint64 residentKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLongLong();
    }
    return 0;
}

QVariantMap filterState(const QString &chain)
{
    const QVariantMap command{{"ffmpeg", QStringList{"-i", "in", "-filter_complex", "[0:v]" + chain + ",split=2[a][b]",
                                                    "-c:v", "ffv1"}}};
    return {{"video", QVariantMap{{"procInfo", QVariantMap{}}}},
            {"output", QVariantMap{{"commands", QVariantList{command}}}}};
}

// Runs `start` and runs the event loop until `finished` says so; ms taken.
// The loop sleeps between events, as a UI thread does: spinning, it would
// take a core from the render it times.
template<typename Start, typename Finished>
double timed(Start start, Finished finished, const std::function<void()> &sample = {}, qint64 patienceMs = 600000)
{
    QTimer wake;  // to sample and to give up while no event comes
    wake.start(10);
    QElapsedTimer timer;
    timer.start();
    start();
    while (!finished() && timer.elapsed() < patienceMs) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        if (sample)
            sample();
    }
    return timer.nsecsElapsed() / 1e6;
}

void spread(const char *label, const std::vector<double> &v, const char *unit = "ms")
{
    std::printf("  %-34s median %8.1f %s  (min %.1f, max %.1f, n %zu)\n", label, benchstats::median(v), unit,
                benchstats::best(v), benchstats::worst(v), v.size());
}

} // namespace

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    QTemporaryDir dir;
    const QString file = inputOrClip(app.arguments().value(1), dir);
    if (file.isEmpty())
        return 1;

    InstantReaderWatcher watcher;
    watcher.setProcessInfo(filterState(kChain), 1);
    int chunks = 0;
    QPoint last;
    QString failure;
    QObject::connect(&watcher, &InstantReaderWatcher::previewReadyToInject, [&](QString, QPoint range) {
        ++chunks;
        last = range;
    });
    QObject::connect(&watcher, &InstantReaderWatcher::renderFailed, [&](int, QString message) { failure = message; });

    // 1. A filter change: the 21 pictures from a random playhead.
    std::printf("filter change to the first chunk on the timeline, %s\n", qPrintable(kChain));
    std::vector<double> ours;
    std::vector<double> reference;
    constexpr int kChanges = 7;
    for (int i = 0; i < kChanges; ++i) {
        const int at = 40 * QRandomGenerator::global()->bounded(200);
        chunks = 0;
        ours.push_back(timed([&] { watcher.startRender(1, file, at, at + 800); }, [&] { return chunks > 0; }));
        const QString out = dir.filePath(QStringLiteral("ref%1.mkv").arg(i));
        reference.push_back(timed(
            [&] {
                ffmpeg({"-ss", QString::number(at / 1000.0, 'f', 3), "-i", file, "-frames:v", "21", "-vf", kChain,
                        "-c:v", "ffv1", out});
            },
            [] { return true; }));
    }
    spread("watcher (startRender to chunk)", ours);
    spread("ffmpeg -ss -frames:v 21 -vf -ffv1", reference);
    std::printf("  ratio of medians: %.2fx  (<= 1.0 is the target)\n",
                benchstats::median(ours) / benchstats::median(reference));

    // 2. The whole file, rendered ahead, in turns with ffmpeg so that both
    // see the same load.
    std::printf("\nrendering %s through %s, load average %.2f\n", qPrintable(file), qPrintable(kChain), loadAverage());
    constexpr int kRenders = 3;
    std::vector<double> ourRates;
    std::vector<double> ffmpegRates;
    std::vector<double> ratios;
    qint64 growth = 0;
    // The first render opens the cache writer's encoder afresh: its growth
    // counts the encoder's buffers too.
    timed([] {}, [] { return false; }, {}, videoio::DiskCacheWriter::kEncoderIdleMs + 500);
    for (int i = 0; i < kRenders; ++i) {
        watcher.stopRender(1);
        // Else the cache writer would skip the ranges it wrote last time.
        watcher.clearDiskCachedRecord(1);
        QCoreApplication::processEvents();
        const qint64 before = residentKiB();
        qint64 peak = before;
        chunks = 0;
        last = {};
        const double ms = timed([&] { watcher.startRender(1, file, 0, -1); },
                                [&] { return !failure.isEmpty() || last.y() + 1 >= 10000; },
                                [&] { peak = std::max(peak, residentKiB()); });
        if (!failure.isEmpty()) {
            std::fprintf(stderr, "render failed: %s\n", qPrintable(failure));
            return 1;
        }
        growth = std::max(growth, peak - before);
        const double ffmpegMs = timed(
            [&] { ffmpeg({"-i", file, "-vf", kChain, "-c:v", "ffv1", dir.filePath("all.mkv")}); }, [] { return true; });
        ourRates.push_back(250 * 1000.0 / ms);
        ffmpegRates.push_back(250 * 1000.0 / ffmpegMs);
        ratios.push_back(ffmpegMs / ms);
    }
    rusage children{};
    getrusage(RUSAGE_CHILDREN, &children);
    const double chunkMiB = 20.0 * 1920 * 1080 * 1.5 / 1048576.0;
    spread("watcher", ourRates, "pictures/s");
    spread("ffmpeg -vf -c:v ffv1", ffmpegRates, "pictures/s");
    std::printf("  ratio of rates, median %.2fx (min %.2f, max %.2f)  (>= 1.0 is the target); load average now %.2f\n",
                benchstats::median(ratios), benchstats::best(ratios), benchstats::worst(ratios), loadAverage());
    std::printf("  most resident memory growth during a render: %.0f MiB; ffmpeg's peak %.0f MiB + three chunks "
                "(%.0f MiB) = %.0f MiB\n",
                growth / 1024.0, children.ru_maxrss / 1024.0, 3 * chunkMiB, children.ru_maxrss / 1024.0 + 3 * chunkMiB);
    return 0;
}
