// Two mpv panes against one bare libmpv context, on a clip made by ffmpeg.
//
// Build:  ninja -C <build> bench_mpv_panes
// Run:    tests/support/with-xvfb.sh env KUTILS_CONFIG_FILE=tests/support/test-config.json \
//             <build>/bench/playback/bench_mpv_panes [seeks]
//
// Prints, per pane and for the bare context: time from load to "file loaded",
// and from an exact seek to "seeking stopped" (median and worst of N seeks).
// Then a burst of 100 seeks in one second through the player's request queue,
// served by a worker thread as the player's would be: how many requests reach
// mpv, and how long after the last push both panes stand on the last target.
#include "playback/MPVObject.h"
#include "playback/VPReqQueue.h"
#include "plugin/Configuration.h"

#include "BenchStats.h"

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QProcess>
#include <QQuickItem>
#include <QQuickView>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTimer>

#include <mpv/client.h>

#include <algorithm>
#include <atomic>
#include <clocale>
#include <cstdio>
#include <thread>

namespace {

struct Figures
{
    double loadMs = 0;
    std::vector<double> seekMs;
    double median() const { return benchstats::median(seekMs); }
    double worst() const { return benchstats::worst(seekMs); }
};

bool waitFor(const std::function<bool()> &condition, int timeoutMs = 20000)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
    }
    return true;
}

struct PaneState
{
    bool loaded = false;
    bool seeking = false;
    int seekStops = 0;
    qint64 position = -1;
};

// A context with the pane's options and nothing of the wrapper, in its own window.
Figures measureBareMpv(const QString &clip, const std::vector<qint64> &targets)
{
    Figures figures;
    std::setlocale(LC_NUMERIC, "C");
    mpv_handle *mpv = mpv_create();
    for (const auto &[name, value] : Configuration::instance().mpvExtraOptions)
        mpv_set_option_string(mpv, name.toUtf8().constData(), value.toUtf8().constData());
    mpv_set_option_string(mpv, "vo", "gpu-next");
    mpv_set_option_string(mpv, "pause", "yes");
    mpv_set_option_string(mpv, "keep-open", "yes");
    mpv_initialize(mpv);
    mpv_observe_property(mpv, 0, "seeking", MPV_FORMAT_FLAG);
    const auto waitEvent = [mpv](auto accept) {
        while (true) {
            const mpv_event *event = mpv_wait_event(mpv, 10.0);
            if (event->event_id == MPV_EVENT_NONE || accept(event))
                return;
        }
    };
    QElapsedTimer timer;
    const QByteArray path = clip.toUtf8();
    const char *load[] = {"loadfile", path.constData(), "replace", nullptr};
    timer.start();
    mpv_command_async(mpv, 0, load);
    waitEvent([](const mpv_event *e) { return e->event_id == MPV_EVENT_FILE_LOADED; });
    figures.loadMs = timer.nsecsElapsed() / 1e6;
    for (const qint64 target : targets) {
        const QByteArray seconds = QByteArray::number(target / 1000.0, 'f', 6);
        const char *seek[] = {"seek", seconds.constData(), "absolute+exact", nullptr};
        timer.restart();
        mpv_command_async(mpv, 0, seek);
        bool started = false;
        waitEvent([&started](const mpv_event *e) {
            if (e->event_id != MPV_EVENT_PROPERTY_CHANGE)
                return false;
            const auto *p = static_cast<const mpv_event_property *>(e->data);
            if (p->format != MPV_FORMAT_FLAG)
                return false;
            const bool value = *static_cast<int *>(p->data) != 0;
            started = started || value;
            return started && !value;
        });
        figures.seekMs.push_back(timer.nsecsElapsed() / 1e6);
    }
    mpv_terminate_destroy(mpv);
    return figures;
}

} // namespace

int main(int argc, char **argv)
{
    QGuiApplication app(argc, argv);
    const int seekCount = argc > 1 ? std::max(1, atoi(argv[1])) : 20;

    QTemporaryDir dir;
    const QString clip = dir.filePath(QStringLiteral("bench.mp4"));
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 {"-v", "error", "-f", "lavfi", "-i", "testsrc2=s=640x360:r=25:d=10", "-c:v", "libx264", "-g", "50",
                  "-pix_fmt", "yuv420p", clip});
    if (!ffmpeg.waitForFinished(120000) || ffmpeg.exitCode() != 0) {
        std::fprintf(stderr, "ffmpeg could not make the clip\n");
        return 1;
    }

    QQuickView view;
    view.resize(1300, 380);
    MPVObject left(view.contentItem());
    MPVObject right(view.contentItem());
    left.setSize({640, 360});
    right.setPosition({650, 0});
    right.setSize({640, 360});
    left.setMPVID(0);
    right.setMPVID(1);
    MPVObject *panes[] = {&left, &right};
    PaneState state[2];
    for (MPVObject *pane : panes) {
        QObject::connect(pane, &MPVObject::fileLoaded, [&state](int id) { state[id].loaded = true; });
        QObject::connect(pane, &MPVObject::seekingChanged, [&state](int id, bool value) {
            state[id].seeking = value;
            if (!value)
                ++state[id].seekStops;
        });
        QObject::connect(pane, &MPVObject::timePosFullChanged,
                         [&state](int id, qlonglong pos) { state[id].position = pos; });
    }
    view.show();
    if (!waitFor([&] { return view.isExposed(); }) || !waitFor([&] { return left.surface() && right.surface(); })) {
        std::fprintf(stderr, "no window\n");
        return 1;
    }

    std::vector<qint64> targets;
    QRandomGenerator random(7);
    for (int i = 0; i < seekCount; ++i)
        targets.push_back(qint64(random.bounded(9000)) / 40 * 40);

    Figures paneFigures[2];
    for (int id = 0; id < 2; ++id) {
        QElapsedTimer timer;
        timer.start();
        panes[id]->load(clip, 0);
        waitFor([&] { return state[id].loaded; });
        paneFigures[id].loadMs = timer.nsecsElapsed() / 1e6;
        waitFor([&] { return !state[id].seeking && state[id].position == 0; }, 3000);
        for (const qint64 target : targets) {
            const int stops = state[id].seekStops;
            timer.restart();
            panes[id]->seek(target);
            waitFor([&] { return state[id].seekStops > stops && state[id].position == target; });
            paneFigures[id].seekMs.push_back(timer.nsecsElapsed() / 1e6);
        }
    }
    const Figures bare = measureBareMpv(clip, targets);

    std::printf("%-24s %12s %16s %16s\n", "", "load ms", "seek median ms", "seek worst ms");
    std::printf("%-24s %12.1f %16.1f %16.1f\n", "pane 0 (MPVObject)", paneFigures[0].loadMs, paneFigures[0].median(),
                paneFigures[0].worst());
    std::printf("%-24s %12.1f %16.1f %16.1f\n", "pane 1 (MPVObject)", paneFigures[1].loadMs, paneFigures[1].median(),
                paneFigures[1].worst());
    std::printf("%-24s %12.1f %16.1f %16.1f\n", "bare libmpv", bare.loadMs, bare.median(), bare.worst());

    // The burst: 100 seeks in one second, pushed from the GUI thread; a worker
    // serves the queue and sends each seek to both panes, as the player does.
    videoplayer::VPReqQueue queue;
    std::atomic<int> served{0};
    std::thread worker([&] {
        QVariantMap request;
        while (queue.pop(request)) {
            if (request.value("type").toInt() == videoplayer::Close)
                break;
            const qint64 ts = request.value("timestamp").toLongLong();
            left.seek(ts);
            right.seek(ts);
            ++served;
        }
    });
    constexpr int burst = 100;
    qint64 lastTarget = 0;
    QElapsedTimer burstTimer;
    burstTimer.start();
    for (int i = 0; i < burst; ++i) {
        lastTarget = 2000 + i * 40;
        queue.push({{"type", int(videoplayer::Seek)}, {"timestamp", lastTarget}, {"interrupt", true}, {"initIR", false}});
        const qint64 due = (i + 1) * 10;
        waitFor([&] { return burstTimer.elapsed() >= due; });
    }
    const qint64 pushMs = burstTimer.elapsed();
    QElapsedTimer settle;
    settle.start();
    const bool settled = waitFor([&] {
        return state[0].position == lastTarget && state[1].position == lastTarget && !state[0].seeking
               && !state[1].seeking && queue.empty();
    });
    const double settleMs = settle.nsecsElapsed() / 1e6;
    queue.push({{"type", int(videoplayer::Close)}});
    worker.join();
    std::printf("\nburst of %d seeks in %.0f ms: %d reached mpv (the rest merged in the queue); "
                "both panes on the last target %s %.1f ms after the last push\n",
                burst, double(pushMs), served.load(), settled ? "" : "NOT (timed out)",
                settleMs);
    std::printf("one exact seek of the bare context, for comparison: median %.1f ms\n", bare.median());
    return 0;
}
