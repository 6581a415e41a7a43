// The frame fetcher beside a plain reader, on 10 s of 1080p H.264 at 25 fps:
//   1. a consumer that wants one picture every 40 ms: the share of its pops
//      that find a picture waiting, and the pictures it gets within their
//      40 ms slot, beside the same consumer decoding each picture itself;
//   2. the first picture after a re-init at 100 random positions, beside a
//      plain frame-exact seek of a reader of the same file.
// Each figure is taken over several runs and printed as median (min..max).
//
// Run:  build/bench/liverender/bench_SmartFrameFetcher [file.mp4] [runs]
// Without a file it makes the clip first.

#include "playback/SmartFrameFetcher.h"
#include "videoio/FFReader.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

using namespace videoplayer;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto kSlot = std::chrono::milliseconds(40);

struct Spread
{
    std::vector<double> values;
    void add(double value) { values.push_back(value); }
    double median() const
    {
        std::vector<double> sorted = values;
        std::sort(sorted.begin(), sorted.end());
        return sorted.empty() ? 0.0 : sorted[sorted.size() / 2];
    }
    QString text(int decimals = 1) const
    {
        const auto [low, high] = std::minmax_element(values.begin(), values.end());
        return QStringLiteral("%1 (%2..%3)")
            .arg(median(), 0, 'f', decimals)
            .arg(*low, 0, 'f', decimals)
            .arg(*high, 0, 'f', decimals);
    }
};

struct Playback
{
    int pictures = 0;
    int immediate = 0;
    int onTime = 0;
};

// One picture due every 40 ms from the first on; a picture is on time when it
// is in hand before its slot ends. A late consumer does not shift the schedule.
template<typename Next>
Playback play(Next &&next)
{
    Playback result;
    const Clock::time_point begin = Clock::now();
    for (int k = 0;; ++k) {
        const Clock::time_point due = begin + k * kSlot;
        std::this_thread::sleep_until(due);
        bool waited = true;
        if (!next(waited))
            break;
        ++result.pictures;
        result.immediate += waited ? 0 : 1;
        result.onTime += Clock::now() < due + kSlot ? 1 : 0;
    }
    return result;
}

Playback playFetcher(const QString &file)
{
    SmartFrameFetcher fetcher;
    fetcher.init(std::make_shared<videoio::FFReader>(file), {0, -1}, 0, false);
    fetcher.startFetching();
    return play([&](bool &waited) {
        waited = fetcher.isEmpty();
        const auto record = fetcher.popFrame();
        return record && !record->isEOF;
    });
}

Playback playReader(const QString &file)
{
    videoio::FFReader reader(file);
    bool first = true;
    return play([&](bool &waited) {
        const bool moved = first || reader.next();
        first = false;
        waited = true;
        return moved && reader.frame() != nullptr;
    });
}

bool makeClip(const QString &file)
{
    QProcess ffmpeg;
    ffmpeg.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 {"-hide_banner", "-loglevel", "error", "-y", "-f", "lavfi", "-i", "testsrc2=size=1920x1080:rate=25",
                  "-frames:v", "250", "-c:v", "libx264", "-preset", "veryfast", "-bf", "3", "-g", "50", "-pix_fmt",
                  "yuv420p", file});
    return ffmpeg.waitForFinished(600000) && ffmpeg.exitCode() == 0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    QString file = app.arguments().value(1);
    const int runs = std::max(1, app.arguments().value(2, QStringLiteral("3")).toInt());
    if (file.isEmpty()) {
        file = dir.filePath(QStringLiteral("fetch1080.mp4"));
        std::printf("making %s ...\n", qPrintable(file));
        if (!makeClip(file)) {
            std::fprintf(stderr, "ffmpeg failed\n");
            return 1;
        }
    }

    Spread immediate, fetcherOnTime, readerOnTime, onTimeRatio;
    for (int run = 0; run < runs; ++run) {
        const Playback fetched = playFetcher(file);
        const Playback decoded = playReader(file);
        if (fetched.pictures == 0 || decoded.pictures == 0) {
            std::fprintf(stderr, "no pictures from %s\n", qPrintable(file));
            return 1;
        }
        immediate.add(100.0 * fetched.immediate / fetched.pictures);
        fetcherOnTime.add(fetched.onTime);
        readerOnTime.add(decoded.onTime);
        onTimeRatio.add(double(fetched.onTime) / std::max(1, decoded.onTime));
    }
    std::printf("25 fps consumer, %d runs over %s\n", runs, qPrintable(file));
    std::printf("  pops without waiting, %%:        fetcher %s   (target >= 95)\n", qPrintable(immediate.text()));
    std::printf("  pictures on time:               fetcher %s   plain reader %s   ratio %s (target >= 1.0)\n",
                qPrintable(fetcherOnTime.text(0)), qPrintable(readerOnTime.text(0)), qPrintable(onTimeRatio.text(2)));

    // The fetcher's reader and the plain one are separate, so neither inherits
    // the other's decoder state; each fetch is stopped outside the timing.
    auto source = std::make_shared<videoio::FFReader>(file);
    videoio::FFReader plain(file);
    const qlonglong duration = source->getInfo()[QStringLiteral("duration")].toLongLong();
    QRandomGenerator random(13);
    Spread fetcherMs, seekMs, seekRatio;
    SmartFrameFetcher fetcher;
    for (int run = 0; run < runs; ++run) {
        qint64 fetchNs = 0;
        qint64 seekNs = 0;
        QElapsedTimer timer;
        for (int i = 0; i < 100; ++i) {
            const qlonglong at = random.bounded(duration);
            timer.start();
            fetcher.init(source, {0, -1}, at, false);
            fetcher.startFetching();
            const auto record = fetcher.popFrame();
            fetchNs += timer.nsecsElapsed();
            fetcher.stopFetching(0);
            timer.start();
            const bool sought = plain.seek(at, false) && plain.frame();
            seekNs += timer.nsecsElapsed();
            if (!record || !sought) {
                std::fprintf(stderr, "no picture at %lld\n", at);
                return 1;
            }
        }
        fetcherMs.add(fetchNs / 1e6 / 100);
        seekMs.add(seekNs / 1e6 / 100);
        seekRatio.add(double(fetchNs) / double(seekNs));
    }
    std::printf("first picture at 100 random positions, ms each:\n");
    std::printf("  re-init + pop %s   plain seek %s   ratio %s (target <= 1.2)\n", qPrintable(fetcherMs.text(2)),
                qPrintable(seekMs.text(2)), qPrintable(seekRatio.text(2)));
    return 0;
}
