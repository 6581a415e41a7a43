// A filter change to the filtered picture on screen, beside ffmpeg and a bare
// mpv pane:
//   ours       the demo's live-render wiring (demo/LiveRender.qml) with the
//              player and two real mpv panes: from the filter change until a
//              grab of the right pane shows the filtered picture at the
//              playhead;
//   reference  `ffmpeg -ss T -frames:v 21 -vf F -c:v ffv1`, then an mpv pane
//              of its own loads that file: until a grab shows its first picture.
// "Shows" means PSNR >= 35 dB against a third pane showing ffmpeg's filtered
// picture at T, so that both sides are scaled by mpv alike. Every change gets
// a fresh scene at a random playhead, so nothing of the last is on screen;
// every other one is warmed by another chain's window rendered there first.
//
// Run it on a display, or without one inside Xvfb:
//   tests/support/with-xvfb.sh build/bench/liverender/bench_LiveRenderScreen [file.mp4]
// Without a file it makes a 10 s 1080p H.264 clip (25 fps, B-frames) first.
// Unless KUTILS_CONFIG_FILE says otherwise, mpv draws in software as in the
// GUI tests (tests/support/test-config.json).

#include "BenchStats.h"
#include "LiveRenderMedia.h"
#include "LiveRenderScene.h"
#include "playback/InstantReaderWatcher.h"
#include "playback/MPVObject.h"
#include "playback/VideoPlayer.h"

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickWindow>
#include <QRandomGenerator>
#include <QScreen>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>

using videoplayer::InstantReaderWatcher;
using videoplayer::VideoPlayer;

using liverenderbench::ffmpeg;
using liverenderbench::loadAverage;
using liverenderbench::inputOrClip;
using liverenderscene::kScene;
using liverenderscene::psnr;

namespace {

const QString kChain = QStringLiteral("hflip,hqdn3d,yadif");
constexpr int kDurationMs = 10000;
constexpr double kMatchDb = 35.0;
constexpr qint64 kPatienceMs = 60000;

// Runs the event loop until `done`, asked after every event and every 5 ms;
// false when it never was. The loop sleeps in between, as a UI thread does:
// spinning, it would take a core from the render it times.
template<typename Done>
bool spinUntil(Done done, qint64 timeoutMs = kPatienceMs)
{
    QTimer wake;
    wake.start(5);
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

void spread(const char *label, const std::vector<double> &v)
{
    std::printf("  %-40s median %7.1f ms  (min %.1f, max %.1f, n %zu)\n", label, benchstats::median(v),
                benchstats::best(v), benchstats::worst(v), v.size());
}

// One window of the demo's scene, opened on the input at a playhead.
class Scene
{
public:
    explicit Scene(QQmlEngine &engine)
    {
        QQmlComponent component(&engine);
        component.setData(QString::fromUtf8(kScene)
                              .arg(QUrl::fromLocalFile(QStringLiteral(KUTILS_SOURCE_DIR "/demo")).toString())
                              .toUtf8(), QUrl());
        m_root.reset(component.create());
        if (!m_root) {
            m_error = component.errorString();
            return;
        }
        m_window = qobject_cast<QQuickWindow *>(m_root.get());
        m_player = qobject_cast<VideoPlayer *>(m_root->property("player").value<QObject *>());
        m_live = m_root->property("live").value<QObject *>();
    }

    QString error() const { return m_error; }
    QObject *live() const { return m_live; }
    VideoPlayer *player() const { return m_player; }

    // Opens the input, pauses at `ms` and turns live render on: what the
    // demo has done before a filter is chosen.
    bool openAt(const QString &input, int ms)
    {
        const auto panes = m_root->findChildren<MPVObject *>();
        if (!spinUntil([&] { return std::all_of(panes.begin(), panes.end(), [](MPVObject *p) { return p->surface(); }); }))
            return fail("the panes got no surface");
        QMetaObject::invokeMethod(m_root.get(), "open", Q_ARG(QVariant, input), Q_ARG(QVariant, kDurationMs));
        if (!spinUntil([&] { return m_player->isIdle() && m_player->getIsOpen(); }))
            return fail("the player did not open the input");
        m_player->seek(ms);
        if (!spinUntil([&] { return m_player->isIdle() && m_player->getInputTimestamp() == ms; }))
            return fail("the player did not reach the playhead");
        // Turning it on realigns the panes and stops their renders: a filter
        // change before that settles would be stopped.
        QMetaObject::invokeMethod(m_live, "setEnabled", Q_ARG(QVariant, true));
        if (!spinUntil([&] { return m_player->isIdle(); }))
            return fail("the player did not settle with live render on");
        QCoreApplication::sendPostedEvents();
        return true;
    }

    // Shows `file` in the named pane, as a bare mpv shows a file.
    bool load(const char *pane, const QString &file)
    {
        auto *mpv = m_root->findChild<MPVObject *>(QLatin1String(pane));
        QSignalSpy loaded(mpv, &MPVObject::fileLoaded);
        mpv->load(file, 0);
        return spinUntil([&] { return !loaded.isEmpty(); });
    }

    // The inner part of a pane: column and row of the 2 x 2 grid.
    QImage grab(int column, int row) const
    {
        const QImage window = m_window->screen()->grabWindow(m_window->winId()).toImage();
        return window.copy(column * 320 + 20, row * 240 + 20, 280, 200).convertToFormat(QImage::Format_RGB32);
    }

    // Whether a pane shows what the expected pane does.
    bool shows(int column, int row) const { return psnr(grab(column, row), grab(0, 1)) >= kMatchDb; }

    // The expected pane has its picture once two grabs agree and it is not black.
    bool expectedSettled() const
    {
        const QImage first = grab(0, 1);
        const QImage second = grab(0, 1);
        QImage black(first.size(), first.format());
        black.fill(Qt::black);
        return psnr(first, second) >= 60 && psnr(first, black) < 30;
    }

    bool fail(const char *what)
    {
        m_error = QString::fromLatin1(what);
        return false;
    }

private:
    QString m_error;
    std::unique_ptr<QObject> m_root;
    QQuickWindow *m_window = nullptr;
    VideoPlayer *m_player = nullptr;
    QObject *m_live = nullptr;
};

double since(const QElapsedTimer &timer)
{
    return timer.nsecsElapsed() / 1e6;
}

} // namespace

int main(int argc, char **argv)
{
    // Xvfb has no GPU: mpv must draw in software, as in the GUI tests.
    if (qEnvironmentVariableIsEmpty("KUTILS_CONFIG_FILE"))
        qputenv("KUTILS_CONFIG_FILE", KUTILS_SOURCE_DIR "/tests/support/test-config.json");
    QGuiApplication app(argc, argv);
    qmlRegisterType<MPVObject>("kutils", 1, 0, "MPVObject");
    qmlRegisterType<VideoPlayer>("kutils", 1, 0, "VideoPlayer");
    qmlRegisterType<InstantReaderWatcher>("kutils", 1, 0, "InstantReaderWatcher");
    QTemporaryDir dir;
    const QString file = inputOrClip(app.arguments().value(1), dir);
    if (file.isEmpty())
        return 1;

    QQmlEngine engine;
    std::printf("filter change to the filtered picture on screen, %s, load average %.2f\n", qPrintable(kChain),
                loadAverage());
    // Cold: the scene's first filter change, which sets the watcher's view up
    // and opens its reader. Warm: a change after another chain's window was
    // rendered at the same playhead, as when a filter is being tuned.
    std::vector<double> ours[2];
    std::vector<double> firstChunk[2];  // of ours: until the watcher's first chunk is laid
    std::vector<double> reference;
    constexpr int kChanges = 8;
    for (int i = 0; i < kChanges; ++i) {
        const bool warm = i % 2;
        // Not the last second: the window of 21 pictures fits the file.
        const int at = 40 * QRandomGenerator::global()->bounded(200);
        Scene scene(engine);
        const QString expected = dir.filePath(QStringLiteral("expected%1.mkv").arg(i));
        const QString twentyOne = dir.filePath(QStringLiteral("ref%1.mkv").arg(i));
        const QString ss = QString::number(at / 1000.0, 'f', 3);
        if (scene.error().isEmpty() && scene.openAt(file, at) && warm) {
            QSignalSpy laid(scene.live(), SIGNAL(chunkLaid(int,int)));
            QMetaObject::invokeMethod(scene.live(), "setFilter", Q_ARG(QVariant, "negate"));
            if (!spinUntil([&] { return laid.count() == 2 && scene.player()->isIdle(); }))
                scene.fail("the warming change was not laid");
        }
        if (scene.error().isEmpty()
            && !ffmpeg({"-ss", ss, "-i", file, "-frames:v", "1", "-vf", kChain, "-c:v", "ffv1", expected}))
            scene.fail("ffmpeg failed");
        if (scene.error().isEmpty() && !scene.load("refLeft", expected))
            scene.fail("mpv did not load ffmpeg's picture");
        if (scene.error().isEmpty() && !spinUntil([&] { return scene.expectedSettled(); }))
            scene.fail("the expected pane showed no steady picture");
        if (!scene.error().isEmpty()) {
            std::fprintf(stderr, "run %d at %d ms: %s\n", i, at, qPrintable(scene.error()));
            return 1;
        }
        if (scene.shows(1, 0)) {
            std::fprintf(stderr, "run %d at %d ms: the right pane shows the filtered picture before the change\n", i, at);
            return 1;
        }

        QElapsedTimer timer;
        double laidAt = -1;
        QSignalSpy laid(scene.live(), SIGNAL(chunkLaid(int,int)));
        timer.start();
        QMetaObject::invokeMethod(scene.live(), "setFilter", Q_ARG(QVariant, kChain));
        if (!spinUntil([&] {
                if (laidAt < 0 && !laid.isEmpty())
                    laidAt = since(timer);
                // Nothing new shows before a chunk is laid (as the reference
                // looks only once mpv has its file): grabs meanwhile would
                // only take CPU from the render.
                return laidAt >= 0 && scene.shows(1, 0);
            })) {
            std::fprintf(stderr, "run %d at %d ms: the right pane never showed the filtered picture (%s)\n", i, at,
                         qPrintable(scene.live()->property("lastError").toString()));
            return 1;
        }
        ours[warm].push_back(since(timer));
        firstChunk[warm].push_back(laidAt);

        timer.start();
        if (!ffmpeg({"-ss", ss, "-i", file, "-frames:v", "21", "-vf", kChain, "-c:v", "ffv1", twentyOne})
            || !scene.load("refRight", twentyOne) || !spinUntil([&] { return scene.shows(1, 1); })) {
            std::fprintf(stderr, "run %d at %d ms: the bare pane never showed ffmpeg's file\n", i, at);
            return 1;
        }
        reference.push_back(since(timer));
        std::printf("  run %d at %5d ms, %s: ours %7.1f ms (first chunk laid at %.1f), reference %7.1f ms\n", i, at,
                    warm ? "warm" : "cold", ours[warm].back(), laidAt, reference.back());
    }
    spread("ffmpeg 21 pictures + mpv showing them", reference);
    for (const bool warm : {false, true}) {
        std::printf(" %s\n", warm ? "warm: after another chain's window at the playhead" : "cold: a fresh scene");
        spread("live render (filter change to screen)", ours[warm]);
        spread("  of it, until the first chunk is laid", firstChunk[warm]);
        std::printf("  ratio of medians %.2fx  (<= 1.0 is the target)\n",
                    benchstats::median(ours[warm]) / benchstats::median(reference));
    }
    std::printf("load average now %.2f\n", loadAverage());
    return 0;
}
