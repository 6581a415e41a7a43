// Sync of the two panes of videoplayer::VideoPlayer, measured on real mpv.
//
//   ninja -C build-x bench_PlayerSync
//   KUTILS_CONFIG_FILE=tests/support/test-config.json \
//     tests/support/with-xvfb.sh build-x/bench/player/bench_PlayerSync
//
// 1. Plays 0.6 s .. 3.9 s of a 25 fps input beside a preview set (1.0-2.0 s at
//    slow motion 1, 2.5-3.0 s at slow motion 2), samples both panes every 10 ms
//    and prints the offset between them on the input's axis in frames, away
//    from and around each preview boundary.
// 2. The time from the last of a burst of ten seeks until both panes show the
//    target, beside the same burst sent to one bare mpv.
#include "PlayerMedia.h"

#include "playback/MPVObject.h"
#include "playback/VideoPlayer.h"

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

using videoplayer::VideoPlayer;

namespace {

const QByteArray kScene = R"(
import QtQuick
import QtQuick.Window
import kutils 1.0
Window {
    width: 960; height: 240; visible: true
    property alias player: player
    property alias left: left
    property alias right: right
    property alias bare: bare
    MPVObject { id: left; x: 0; width: 320; height: 240 }
    MPVObject { id: right; x: 320; width: 320; height: 240 }
    MPVObject { id: bare; x: 640; width: 320; height: 240 }
    VideoPlayer { id: player; m_mpvs: [left, right] }
}
)";

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return -1;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, static_cast<size_t>(p * values.size()))];
}

void printRow(const char *label, const std::vector<double> &frames)
{
    std::printf("%-28s %6zu samples  median %5.2f  p95 %5.2f  max %5.2f frames\n", label, frames.size(),
                percentile(frames, 0.5), percentile(frames, 0.95), percentile(frames, 1.0));
}

} // namespace

int main(int argc, char **argv)
{
    QGuiApplication app(argc, argv);
    qunsetenv("QML_IMPORT_PATH");
    qmlRegisterType<MPVObject>("kutils", 1, 0, "MPVObject");
    qmlRegisterType<VideoPlayer>("kutils", 1, 0, "VideoPlayer");

    QTemporaryDir dir;
    const QString input = dir.filePath(QStringLiteral("input.mp4"));
    const QString previewA = dir.filePath(QStringLiteral("a.mp4"));
    const QString previewB = dir.filePath(QStringLiteral("b.mp4"));
    if (!playermedia::makeInput(input) || !playermedia::makePreview(input, previewA, 1000, 1000, 1)
        || !playermedia::makePreview(input, previewB, 2500, 500, 2)) {
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
    auto *player = qobject_cast<VideoPlayer *>(root->property("player").value<QObject *>());
    auto *left = qobject_cast<MPVObject *>(root->property("left").value<QObject *>());
    auto *right = qobject_cast<MPVObject *>(root->property("right").value<QObject *>());
    auto *bare = qobject_cast<MPVObject *>(root->property("bare").value<QObject *>());
    QTest::qWaitFor([&] { return left->surface() && right->surface() && bare->surface(); }, 10000);

    player->addInput(1, 0, input, 4000, 25.0, 1.0, true, {{QStringLiteral("duration"), 4000}});
    player->addPreview(5, 2, 1, 1, previewA, 1000, 1000, 25.0, 1.0, 1.0, {});
    player->addPreview(5, 3, 1, 1, previewB, 2500, 500, 25.0, 2.0, 1.0, {});
    player->setPreviewSet(1, 5);
    player->seek(600);
    QTest::qWaitFor([&] { return player->isIdle(); }, 10000);
    QTest::qWait(500);

    const auto onInputAxis = [&](MPVObject *pane) {
        const double ms = pane->getPropertyDouble(QStringLiteral("time-pos/full")) * 1000.0;
        const QString file = QString::fromStdString(pane->getCurrentPlayingVideoPath());
        if (file == previewA)
            return 1000.0 + ms;
        if (file == previewB)
            return 2500.0 + ms / 2.0;
        return ms;
    };
    const double boundaries[] = {1000, 2001, 2500, 3001};
    std::vector<double> steady;
    std::vector<double> nearBoundary;
    player->play();
    QElapsedTimer guard;
    guard.start();
    while (player->getInputTimestamp() < 3900 && guard.elapsed() < 15000) {
        QTest::qWait(10);
        if (!player->getIsPlaying())
            continue;
        const double l = onInputAxis(left);
        const double r = onInputAxis(right);
        const double frames = std::abs(l - r) / 40.0;
        const bool near = std::any_of(std::begin(boundaries), std::end(boundaries),
                                      [&](double b) { return std::abs(l - b) < 200 || std::abs(r - b) < 200; });
        (near ? nearBoundary : steady).push_back(frames);
    }
    player->pause();
    QTest::qWaitFor([&] { return player->isIdle() && !player->getIsPlaying(); }, 5000);

    std::printf("Offset between the panes on the input's axis while playing:\n");
    printRow("steady", steady);
    printRow("within 200 ms of a boundary", nearBoundary);

    // Bursts of seeks; the target of the last lies in the slowed preview.
    bare->load(input, 0);
    QTest::qWait(500);
    const auto settled = [](MPVObject *pane, double fileMs) {
        return pane->getPropertyInt(QStringLiteral("seeking")) == 0
               && std::abs(pane->getPropertyDouble(QStringLiteral("time-pos/full")) * 1000.0 - fileMs) < 20.0;
    };
    std::vector<double> playerMs;
    std::vector<double> bareMs;
    for (int round = 0; round < 5; ++round) {
        const qint64 target = 2600 + 40 * round;
        QElapsedTimer timer;
        for (int i = 9; i >= 0; --i)
            player->seek(target - 100 * i);
        timer.start();
        const bool ok = QTest::qWaitFor(
            [&] { return player->isIdle() && settled(left, target) && settled(right, (target - 2500) * 2.0); }, 5000);
        playerMs.push_back(ok ? timer.elapsed() : -1);

        for (int i = 9; i >= 0; --i)
            bare->seek(target - 100 * i);
        timer.restart();
        const bool bareOk = QTest::qWaitFor([&] { return settled(bare, target); }, 5000);
        bareMs.push_back(bareOk ? timer.elapsed() : -1);
    }
    std::printf("\nFrom the last of ten seeks until the target shows (ms):\n");
    std::printf("%-28s median %6.1f  max %6.1f\n", "player, both panes", percentile(playerMs, 0.5),
                percentile(playerMs, 1.0));
    std::printf("%-28s median %6.1f  max %6.1f\n", "bare mpv", percentile(bareMs, 0.5), percentile(bareMs, 1.0));
    return 0;
}
