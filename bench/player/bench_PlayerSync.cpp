// Sync of the two panes of videoplayer::VideoPlayer, measured on real mpv, once
// on an idle machine and once with an encode running on every core beside it
// (the application renders on the machine it previews on).
//
//   ninja -C build bench_PlayerSync
//   KUTILS_CONFIG_FILE=tests/support/test-config.json \
//     tests/support/with-xvfb.sh build/bench/player/bench_PlayerSync
//
// 1. Plays 0.6 s .. 3.9 s of a 25 fps input beside a preview set (1.0-2.0 s at
//    slow motion 1, 2.52-3.0 s at slow motion 2) and prints the offset between
//    the panes on the input's axis in frames, away from and around each
//    preview boundary: from mpv's reported positions (each pane's last report
//    carried to the instant of the other's), and from photographs of
//    the window (each input frame is a grey level that names its number).
// 2. The time from the last of a burst of ten seeks until both panes show the
//    target, beside the same burst sent to two bare mpv panes holding the
//    panes' files, as a ratio (median of 20 bursts).
#include "PaneOffsets.h"
#include "PlayerMedia.h"

#include "playback/MPVObject.h"
#include "playback/VideoPlayer.h"

#include "BenchStats.h"

#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QProcess>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickWindow>
#include <QScreen>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

using videoplayer::VideoPlayer;

using benchstats::percentile;

namespace {

const QByteArray kScene = R"(
import QtQuick
import QtQuick.Window
import kutils 1.0
Window {
    width: 1280; height: 240; visible: true; color: "black"
    property alias player: player
    property alias left: left
    property alias right: right
    property alias bareLeft: bareLeft
    property alias bareRight: bareRight
    MPVObject { id: left; x: 0; width: 320; height: 240 }
    MPVObject { id: right; x: 320; width: 320; height: 240 }
    MPVObject { id: bareLeft; x: 640; width: 320; height: 240 }
    MPVObject { id: bareRight; x: 960; width: 320; height: 240 }
    VideoPlayer { id: player; m_mpvs: [left, right] }
}
)";

// QTest::qWaitFor sleeps 10 ms between looks, which would round every burst
// up to the next 10 ms step, the bare panes' as well as the player's: a
// burst settled on the second look would read as twice the other. Settle
// times are taken at a finer step.
bool waitClosely(const std::function<bool()> &done, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents);
        QThread::usleep(500);
    }
    return true;
}

double share(const std::vector<double> &values, double atMost)
{
    if (values.empty())
        return 0;
    return 100.0 * std::count_if(values.begin(), values.end(), [&](double v) { return v <= atMost; })
           / static_cast<double>(values.size());
}

void printRow(const char *label, const std::vector<double> &frames)
{
    std::printf("  %-34s %5zu samples  median %4.2f  p95 %4.2f  p99 %4.2f  max %4.2f  at 0: %5.1f %%\n", label,
                frames.size(), percentile(frames, 0.5), percentile(frames, 0.95), percentile(frames, 0.99),
                percentile(frames, 1.0), share(frames, 0.25));
}

struct Bench
{
    QString input, previewA, previewB;
    QQuickWindow *window = nullptr;
    VideoPlayer *player = nullptr;
    MPVObject *left = nullptr;
    MPVObject *right = nullptr;
    MPVObject *bareLeft = nullptr;
    MPVObject *bareRight = nullptr;

    std::unique_ptr<playermedia::PaneOffsets> offsets;

    playermedia::PaneOffsets::OnInput onInputAxis(const QString &file, double ms) const
    {
        if (file == previewA)
            return {1000.0 + ms, 1};
        if (file == previewB)
            return {2520.0 + ms / 2.0, 2};
        return {ms, 1};
    }

    static bool nearBoundary(double ms)
    {
        static const double boundaries[] = {1000, 2001, 2520, 3001};
        return std::any_of(std::begin(boundaries), std::end(boundaries), [&](double b) { return std::abs(ms - b) < 80; });
    }

    void play(const char *title)
    {
        player->seek(600);
        (void)QTest::qWaitFor([&] { return player->isIdle(); }, 10000);
        QTest::qWait(300);
        std::vector<double> steady, boundary, photoSteady, photoBoundary, photoSlow;
        double photoLead = 0;  // right minus left, summed over steady photographs
        offsets->samples.clear();
        offsets->setTaking(true);
        player->play();
        QElapsedTimer guard;
        guard.start();
        int tick = 0;
        while (player->getInputTimestamp() < 3850 && guard.elapsed() < 20000) {
            QTest::qWait(7);
            if (!player->getIsPlaying() || ++tick % 3 != 0)
                continue;
            // Two software-GL windows flip on their own: a photograph is the
            // user's view, a position report is not.
            const QImage grab = window->screen()->grabWindow(window->winId(), 0, 0, 640, 240).toImage();
            const double shownLeft = playermedia::frameShown(grab, QRect(40, 40, 240, 160));
            const double shownRight = playermedia::frameShown(grab, QRect(360, 40, 240, 160));
            const bool nearInPicture = nearBoundary(shownLeft * 40) || nearBoundary(shownRight * 40);
            const double lead = std::round(shownRight) - std::round(shownLeft);
            (nearInPicture ? photoBoundary : photoSteady).push_back(std::abs(lead));
            if (!nearInPicture && shownLeft * 40 > 2520 && shownLeft * 40 < 3000)
                photoSlow.push_back(std::abs(lead));
            if (!nearInPicture)
                photoLead += lead;
        }
        offsets->setTaking(false);
        player->pause();
        (void)QTest::qWaitFor([&] { return player->isIdle() && !player->getIsPlaying(); }, 5000);
        double mpvLead = 0;  // right minus left, summed over steady samples
        for (const auto &sample : offsets->samples) {
            const bool near = nearBoundary(sample.inputMs) || nearBoundary(sample.inputMs - sample.rightMinusLeft)
                              || nearBoundary(sample.inputMs + sample.rightMinusLeft);
            (near ? boundary : steady).push_back(std::abs(sample.rightMinusLeft) / 40.0);
            if (!near)
                mpvLead += sample.rightMinusLeft / 40.0;
        }

        QFile loadavg(QStringLiteral("/proc/loadavg"));
        const QByteArray loadText = loadavg.open(QIODevice::ReadOnly) ? loadavg.readLine().trimmed() : QByteArray();
        std::printf("%s (load %s): offset between the panes on the input's axis while playing (frames)\n", title,
                    loadText.constData());
        printRow("mpv positions, steady", steady);
        std::printf("  %-34s %+5.2f frames (right minus left)\n", "mpv positions, steady, mean",
                    steady.empty() ? 0.0 : mpvLead / static_cast<double>(steady.size()));
        printRow("mpv positions, within 2 frames of a cut", boundary);
        printRow("photographs, steady", photoSteady);
        printRow("photographs, within 2 frames of a cut", photoBoundary);
        printRow("photographs, slowed preview, steady", photoSlow);
        std::printf("  %-34s %+5.2f frames (right minus left)\n", "photographs, steady, mean",
                    photoSteady.empty() ? 0.0 : photoLead / static_cast<double>(photoSteady.size()));
    }

    void bursts(const char *title)
    {
        bareLeft->load(input, 0);
        bareRight->load(previewB, 0);
        QTest::qWait(500);
        const auto settled = [](MPVObject *pane, double fileMs) {
            return pane->getPropertyInt(QStringLiteral("seeking")) == 0
                   && std::abs(pane->getPropertyDouble(QStringLiteral("time-pos/full")) * 1000.0 - fileMs) < 20.0;
        };
        std::vector<double> playerMs, bareMs, ratios;
        for (int round = 0; round < 20; ++round) {
            // The last target lies in the slowed preview, on a frame's start.
            const qint64 target = 2600 + 40 * (round % 8);
            const double rightFile = (target - 2520) * 2.0;
            QElapsedTimer timer;
            for (int i = 9; i >= 0; --i)
                player->seek(target - 100 * i);
            timer.start();
            const bool ok = waitClosely(
                [&] { return player->isIdle() && settled(left, target) && settled(right, rightFile); }, 5000);
            const double mine = ok ? timer.nsecsElapsed() / 1e6 : -1;

            for (int i = 9; i >= 0; --i) {
                bareLeft->seek(target - 100 * i);
                bareRight->seek(static_cast<qint64>(std::max(0.0, (target - 100 * i - 2520) * 2.0)));
            }
            timer.restart();
            const bool bareOk
                = waitClosely([&] { return settled(bareLeft, target) && settled(bareRight, rightFile); }, 5000);
            const double theirs = bareOk ? timer.nsecsElapsed() / 1e6 : -1;
            playerMs.push_back(mine);
            bareMs.push_back(theirs);
            if (mine > 0 && theirs > 0)
                ratios.push_back(mine / theirs);
        }
        std::printf("%s: from the last of ten seeks until both panes show the target (ms, 20 bursts)\n", title);
        std::printf("  %-34s median %6.1f  max %6.1f\n", "player, both panes", percentile(playerMs, 0.5),
                    percentile(playerMs, 1.0));
        std::printf("  %-34s median %6.1f  max %6.1f\n", "two bare mpv panes", percentile(bareMs, 0.5),
                    percentile(bareMs, 1.0));
        std::printf("  %-34s median %6.2f  (player / bare, burst by burst)\n", "ratio", percentile(ratios, 0.5));
        std::printf("  %-34s %6.2f\n", "ratio of the medians", percentile(playerMs, 0.5) / percentile(bareMs, 0.5));
    }
};

} // namespace

int main(int argc, char **argv)
{
    QGuiApplication app(argc, argv);
    qunsetenv("QML_IMPORT_PATH");
    qmlRegisterType<MPVObject>("kutils", 1, 0, "MPVObject");
    qmlRegisterType<VideoPlayer>("kutils", 1, 0, "VideoPlayer");

    QTemporaryDir dir;
    Bench bench;
    bench.input = dir.filePath(QStringLiteral("input.mp4"));
    bench.previewA = dir.filePath(QStringLiteral("a.mp4"));
    bench.previewB = dir.filePath(QStringLiteral("b.mp4"));
    if (!playermedia::makeInput(bench.input) || !playermedia::makePreview(bench.input, bench.previewA, 1000, 1000, 1)
        || !playermedia::makePreview(bench.input, bench.previewB, 2520, 480, 2)) {
        std::fprintf(stderr, "ffmpeg could not make the media\n");
        return 1;
    }

    QQmlEngine engine;
    QQmlComponent component(&engine);
    component.setData(kScene, QUrl());
    std::unique_ptr<QObject> root(component.create());
    if (!root) {
        std::fprintf(stderr, "%s\n", qPrintable(component.errorString()));
        return 1;
    }
    const auto item = [&](const char *name) { return qobject_cast<MPVObject *>(root->property(name).value<QObject *>()); };
    bench.window = qobject_cast<QQuickWindow *>(root.get());
    bench.player = qobject_cast<VideoPlayer *>(root->property("player").value<QObject *>());
    bench.left = item("left");
    bench.right = item("right");
    bench.bareLeft = item("bareLeft");
    bench.bareRight = item("bareRight");
    bench.offsets = std::make_unique<playermedia::PaneOffsets>(
        bench.left, bench.right, [&bench](const QString &file, double ms) { return bench.onInputAxis(file, ms); });
    (void)QTest::qWaitFor([&] { return bench.left->surface() && bench.right->surface() && bench.bareRight->surface(); }, 10000);

    bench.player->addInput(1, 0, bench.input, 4000, 25.0, 1.0, true, {{QStringLiteral("duration"), 4000}});
    bench.player->addPreview(5, 2, 1, 1, bench.previewA, 1000, 1000, 25.0, 1.0, 1.0, {});
    bench.player->addPreview(5, 3, 1, 1, bench.previewB, 2520, 480, 25.0, 2.0, 1.0, {});
    bench.player->setPreviewSet(1, 5);

    bench.play("idle");
    bench.bursts("idle");

    QProcess load;
    if (!playermedia::startBackgroundEncode(load)) {
        std::fprintf(stderr, "could not start the background encode\n");
        return 1;
    }
    QTest::qWait(1000);
    std::printf("\n");
    bench.play("busy");
    bench.bursts("busy");
    load.kill();
    load.waitForFinished();
    return 0;
}
