// The player's handlers, driven through its slots as QML drives them; the
// frame lock's control loop against two simulated panes; the view nodes and
// their manager on real timelines; the playable nodes that ready a view's
// readers on numbered clips; the arithmetic between file time and the
// input's axis that they use (the rows that sit on a truncation, a rounding or
// a precision limit); the player's request queue: every coalescing case as a
// table and its idleness; and the live-render watcher through QML: filter
// state in, chunks of a window out as previews to inject, readers closed and
// durations measured on its threads, failures told instead of leaving the
// player waiting. The panes are real MPVObjects whose mpv cores are never
// started: every command they would send is recorded, so each branch is
// reached deterministically and without a display.
#include "PlayerMedia.h"
#include "../timeline/TimelineFixture.h"

#include "playback/FrameLock.h"
#include "playback/InstantReaderWatcher.h"
#include "playback/SyncMath.h"
#include "playback/VPReqQueue.h"
#include "playback/VideoPlayer.h"
#include "playback/ViewNode.h"
#include "playback/ViewNodeManager.h"
#include "timeline/SyncView.h"
#include "videoio/FFReader.h"
#include "videoio/FFReaderUtils.h"
#include "videoio/InstantReader.h"
#include "videoio/Reader.h"
#include "videoio/VideoManager.h"

#include <QQmlComponent>
#include <QQmlEngine>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <cmath>
#include <memory>
#include <mutex>
#include <random>

using namespace videoplayer;
using namespace syncmath;

namespace {

constexpr int kInput = 1;
constexpr int kPreview = 2;
constexpr int kSet = 7;
const QString kInputPath = QStringLiteral("/media/input.mp4");

QString seekText(qint64 ms)
{
    return QStringLiteral("seek ") + QString::asprintf("%f", double(float(ms) / 1000.0f)) + QStringLiteral(" absolute+exact");
}

// mpv before client API 2.3 takes no playlist index in "loadfile"; both forms count.
bool hasLoad(const QStringList &lines, const QString &path, const QString &start)
{
    return std::any_of(lines.begin(), lines.end(), [&](const QString &line) {
        return line.startsWith(QStringLiteral("loadfile ") + path + QStringLiteral(" replace"))
               && line.endsWith(QStringLiteral(" start=+") + start);
    });
}

QVariantMap inputInfo(int rotation = 3, int originalRotation = 3)
{
    return {{QStringLiteral("duration"), 4000},
            {QStringLiteral("fps"), 25.0},
            {QStringLiteral("rotation"), rotation},
            {QStringLiteral("originalRotation"), originalRotation},
            {QStringLiteral("originalSize"), QSize(160, 120)}};
}


std::shared_ptr<Video> makeVideo(UID uid, TSType start, TSType duration, const std::string &path, double slowmotion,
                                 TSType fileDuration)
{
    auto video = std::make_shared<Video>(uid, duration, start, path,
                                         QVariantMap{{"duration", qint64(fileDuration)}, {"timestep", 40}, {"uid", uid}});
    video->framerate = 25.0;
    video->slowmotion = slowmotion;
    return video;
}

QVariantMap request(int type, QVariantMap keys = {})
{
    keys.insert(QStringLiteral("type"), type);
    return keys;
}

QVariantMap seek(qint64 ts, bool interrupt = true, bool initIR = true)
{
    return request(Seek, {{"timestamp", ts}, {"interrupt", interrupt}, {"initIR", initIR}});
}

QVariantMap reload(int uid)
{
    return request(Reload, {{"uid", uid}, {"newRangeX", -1}, {"newRangeY", -1}});
}

QVariantMap addInput(int uid, QVariant firstLoad = {})
{
    QVariantMap keys{{"uid", uid}, {"timestamp", 0}, {"filepath", QStringLiteral("/in%1.mp4").arg(uid)}};
    if (firstLoad.isValid())
        keys.insert(QStringLiteral("firstLoad"), firstLoad);
    return request(AddInput, keys);
}

QVariantMap openForPreview(int view, const QString &path)
{
    return request(OpenVideoForPreview, {{"params", QVariantMap{{"filepath", path}}}, {"viewID", view}});
}

// A step of a script: a request to push, or an invalid variant meaning "pop one".
const QVariant popOne;

QList<QVariantMap> drain(VPReqQueue &queue)
{
    QList<QVariantMap> out;
    QVariantMap next;
    while (!queue.empty() && queue.pop(next))
        out.append(next);
    return out;
}

// The live-render watcher as QML drives it.
const QByteArray kWatcher = R"(
import QtQuick
import kutils 1.0
InstantReaderWatcher {
    function apply(ffmpegArguments, view) {
        const commands = ffmpegArguments === null ? [] : [{ ffmpeg: ffmpegArguments }]
        return setProcessInfo({ video: { procInfo: {} }, output: { commands: commands } }, view)
    }
    function render(view, path, start, end) { return startRender(view, path, start, end) }
}
)";

QStringList chainCommand(const QString &chain)
{
    return {"-i", "in.mp4", "-filter_complex", chain, "-map", "[v]", "-c:v", "ffv1", "out.mkv"};
}

// The frame lock against two simulated panes: each shows a frame every 40 ms on
// its own clock and reports it after a delivery delay that scatters either way;
// the follower's clock obeys the lock's trims and re-seeks as an mpv core
// would, a little late.
struct Outcome
{
    double finalOffset = 0;  // follower minus leader, ms, at the end
    int trims = 0;
    int reseeks = 0;
    double slowestTrim = 1.0;
    double fastestTrim = 1.0;
};

// `offset`: where the follower starts against the leader (ms on the input's
// axis); `rate`: input ms per wall ms (0.5 in a slow-motion stretch);
// `jitter`: the largest delivery delay either way; `seekMs`: how long a
// re-seek keeps the follower from advancing; `stallMs`: how long the
// follower's core stands still from 0.4 s on, as a starved one does.
Outcome simulate(double offset, double rate, double jitter, double seekMs, double stallMs, double seconds,
                 unsigned seed, bool heard)
{
    FrameLock lock;
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> delay(-jitter, jitter);
    Outcome outcome;
    double leaderStart = 1000.0;
    double followerPos = leaderStart + offset;  // on the input's axis at wall 1000
    double followerSpeed = 1.0;
    double frozenUntil = 0;
    double last = 1000.0;
    const double frame = 40.0 * rate;  // a reported step of the file, on the input's axis
    for (double wall = 1000.0; wall < 1000.0 + seconds * 1000.0; wall += 1.0) {
        const bool stalled = wall >= 1400.0 && wall < 1400.0 + stallMs;
        if (wall >= frozenUntil && !stalled)
            followerPos += rate * followerSpeed * (wall - last);
        last = wall;
        const double leaderPos = leaderStart + rate * (wall - 1000.0);
        // Each pane reports when it crosses a frame of its own.
        for (int pane : {0, 1}) {
            const double pos = pane == 0 ? leaderPos : followerPos;
            const double before = pane == 0 ? leaderPos - rate : followerPos - rate * followerSpeed;
            if (std::floor(pos / frame) == std::floor(before / frame))
                continue;
            const double shown = std::floor(pos / frame) * frame;
            const auto action = lock.report(pane, shown, wall + std::abs(delay(random)) + delay(random) * 0.2, rate, 40.0, heard);
            if (action.kind == FrameLock::Action::Trim) {
                ++outcome.trims;
                followerSpeed = action.speedFactor;
                outcome.slowestTrim = std::min(outcome.slowestTrim, action.speedFactor);
                outcome.fastestTrim = std::max(outcome.fastestTrim, action.speedFactor);
            } else if (action.kind == FrameLock::Action::Reseek) {
                ++outcome.reseeks;
                followerSpeed = 1.0;
                followerPos = action.targetInputMs;
                frozenUntil = wall + seekMs;
            }
        }
        outcome.finalOffset = followerPos - leaderPos;
    }
    return outcome;
}

} // namespace

class tst_VideoPlayer : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<MPVObject> left;
    std::unique_ptr<MPVObject> right;
    std::unique_ptr<VideoPlayer> player;
    playermedia::PaneCommands commands;
    // The panes of bare nodes report as a view of their own.
    static constexpr int kNodePane = 9;
    std::mutex timestampMutex;
    std::mutex infoMutex;
    std::unique_ptr<LogCapture> log;
    std::vector<std::shared_ptr<MPVObject>> panes;
    std::shared_ptr<Video> input;
    std::shared_ptr<Video> preview;
    // A 4 s clip at 25 fps with two previews rendered from it, as files:
    //   I(0,999) P(1000,2000) I(2001,2499) Q(2500,3000) I(3001,4000)
    // P is rendered at slow motion 2 (its file is 2 s long), Q at 1.
    QTemporaryDir dir;
    QString clip, p, q;
    std::unique_ptr<QQmlEngine> engine;

    std::unique_ptr<ViewNode> makeNode(int viewID, std::shared_ptr<MPVObject> mpv)
    {
        if (mpv) {
            commands.watch(*mpv, kNodePane);
            // Nodes only hold the use of a pane; the scene (here the test) owns it.
            panes.push_back(mpv);
        }
        return std::make_unique<ViewNode>(viewID, 0, QVariantMap{}, std::move(mpv), 1.0f, ViewNode::FrameRange{0, 0},
                                          0.0, 1.0, nullptr, nullptr, &timestampMutex, &infoMutex);
    }

    bool settle()
    {
        return QTest::qWaitFor([this] { return player->isIdle(); }, 5000);
    }

    // An open 4 s input at 25 fps in both panes.
    bool openInput(const QVariantMap &info = inputInfo())
    {
        player->addInput(kInput, 0, kInputPath, 4000, 25.0, 1.0, true, info);
        return settle();
    }

    // A preview over 0..2000 ms of the input at `slowmotion` in set kSet, shown on the right.
    bool showPreview(double slowmotion)
    {
        player->addPreview(kSet, kPreview, 1, kInput, QStringLiteral("/media/preview.mp4"), 0, 2000, 25.0, slowmotion,
                           1.0, QVariantMap{});
        player->setPreviewSet(1, kSet);
        return settle();
    }

    // Both panes report the end of their loads and seeks, as mpv would.
    void panesReady()
    {
        for (int view : {0, 1}) {
            player->queuedPlayMPVSlotLoaded(view);
            player->queuedPlayMPVSlotSeeking(view, false);
        }
    }

    bool playFrom(qint64 ms)
    {
        player->seek(ms);
        if (!settle())
            return false;
        panesReady();
        player->play();
        return QTest::qWaitFor([this] { return player->getIsPlaying() && player->isIdle(); }, 5000);
    }

    std::unique_ptr<InstantReaderWatcher> makeWatcher()
    {
        QQmlComponent component(engine.get());
        component.setData(kWatcher, QUrl());
        std::unique_ptr<InstantReaderWatcher> watcher(qobject_cast<InstantReaderWatcher *>(component.create()));
        if (!watcher)
            qWarning() << component.errorString();
        return watcher;
    }

    static QString apply(InstantReaderWatcher *watcher, const QVariant &arguments, int view)
    {
        QVariant chain;
        QMetaObject::invokeMethod(watcher, "apply", Q_RETURN_ARG(QVariant, chain), Q_ARG(QVariant, arguments),
                                  Q_ARG(QVariant, view));
        return chain.toString();
    }

    static bool render(InstantReaderWatcher *watcher, int view, const QString &path, int start, int end)
    {
        QVariant started;
        QMetaObject::invokeMethod(watcher, "render", Q_RETURN_ARG(QVariant, started), Q_ARG(QVariant, view),
                                  Q_ARG(QVariant, path), Q_ARG(QVariant, start), Q_ARG(QVariant, end));
        return started.toBool();
    }

private slots:
    void initTestCase()
    {
        qunsetenv("QML_IMPORT_PATH");
        qmlRegisterType<InstantReaderWatcher>("kutils", 1, 0, "InstantReaderWatcher");
        engine = std::make_unique<QQmlEngine>();
        clip = dir.filePath(QStringLiteral("input.mp4"));
        p = dir.filePath(QStringLiteral("p.mp4"));
        q = dir.filePath(QStringLiteral("q.mp4"));
        QVERIFY(playermedia::makeInput(clip));
        QVERIFY(playermedia::makePreview(clip, p, 1000, 1000, 2));
        QVERIFY(playermedia::makePreview(clip, q, 2500, 500, 1));
    }

    void init()
    {
        log = std::make_unique<LogCapture>();
        input = makeVideo(1, 0, 10000, "/in.mp4", 1.0, 10000);
        // A preview over 2000..3000 of the input, rendered at slow motion 2.
        preview = makeVideo(2, 2000, 1000, "/a.mp4", 2.0, 2000);
        left = std::make_unique<MPVObject>();
        right = std::make_unique<MPVObject>();
        player = std::make_unique<VideoPlayer>();
        commands.clear();
        commands.watch(*left, 0);
        commands.watch(*right, 1);
        player->setMPVObjects({left.get(), right.get()});
    }

    // The player goes before the panes it commands.
    void cleanup()
    {
        player.reset();
        log.reset();
        panes.clear();
    }

    void addInputOpensItEvenWithIdlePanes_data()
    {
        QTest::addColumn<bool>("idle");
        QTest::newRow("both panes load at the start") << false;
        QTest::newRow("idle panes load nothing") << true;
    }

    void addInputOpensItEvenWithIdlePanes()
    {
        QFETCH(bool, idle);
        player->setMPVIdle(idle);
        QSignalSpy opened(player.get(), &VideoPlayer::openedInput);
        // The picture is turned back by the difference of the rotation codes,
        // here none (3) over a quarter clockwise (0).
        player->addInput(kInput, 1200, kInputPath, 0, 25.0, 1.0, true, inputInfo(3, 0));
        QVERIFY(opened.wait(5000));
        QCOMPARE(opened.first().at(0).toInt(), kInput);
        QVERIFY(player->getIsOpen());
        // A zero duration is taken from the info.
        QCOMPARE(player->getPreview(kInput)->duration, 4000);
        for (int view : {0, 1}) {
            QCOMPARE(hasLoad(commands.of(view), kInputPath, QStringLiteral("1.200000")), !idle);
            if (!idle)
                QCOMPARE(commands.of(view, QStringLiteral("set video-rotate")).value(0), QStringLiteral("set video-rotate 270"));
        }
    }

    void blackAndWhiteFilterIsSentOnlyOnChange()
    {
        QVariantMap info = inputInfo();
        info[QStringLiteral("isBlackAndWhite")] = false;
        QVERIFY(openInput(info));
        const QVariantMap on{{QStringLiteral("isBlackAndWhite"), true}};
        player->updateInfo(kInput, on);
        player->updateInfo(kInput, QVariantMap{});
        player->updateInfo(kInput, on);
        player->updateInfo(kInput, QVariantMap{{QStringLiteral("isBlackAndWhite"), false}});
        QVERIFY(settle());
        // Off while nothing was set sends nothing; repeats of a state send nothing.
        QCOMPARE(commands.of(1, QStringLiteral("vf")),
                 (QStringList{QStringLiteral("vf add format=yuv420p,extractplanes=y"),
                              QStringLiteral("vf remove format=yuv420p,extractplanes=y")}));
    }

    // The input's pane is slowed to a preview at slow motion 4, and the preview
    // is entered at its own file time. Speeds back to equal past the preview are
    // the end-to-end test's, which plays out of a slowed preview.
    void unequalSlowMotionSlowsTheOtherPane()
    {
        QVERIFY(openInput());
        QVERIFY(showPreview(4.0));
        commands.clear();
        player->seek(500);
        QVERIFY(settle());
        QCOMPARE(commands.of(0, QStringLiteral("set speed")).last(), QStringLiteral("set speed 0.250000"));
        QCOMPARE(commands.of(1, QStringLiteral("set speed")).last(), QStringLiteral("set speed 1.000000"));
        QVERIFY(commands.of(1).contains(seekText(2000)));
    }

    void stepsWrapAndSlowMotionStepsAFraction_data()
    {
        QTest::addColumn<double>("slowmotion"); // 0: no preview
        QTest::addColumn<qlonglong>("from");
        QTest::addColumn<bool>("forward");
        QTest::addColumn<qlonglong>("expected");
        QTest::newRow("next on the last frame wraps") << 0.0 << 3960LL << true << 0LL;
        QTest::newRow("prev on the first frame wraps") << 0.0 << 0LL << false << 3960LL;
        QTest::newRow("next over slow motion 2 is half a frame") << 2.0 << 1000LL << true << 1020LL;
    }

    void stepsWrapAndSlowMotionStepsAFraction()
    {
        QFETCH(double, slowmotion);
        QFETCH(qlonglong, from);
        QFETCH(bool, forward);
        QFETCH(qlonglong, expected);
        QVERIFY(openInput());
        if (slowmotion > 0)
            QVERIFY(showPreview(slowmotion));
        player->seek(from);
        QVERIFY(settle());
        forward ? player->next() : player->prev();
        QVERIFY(settle());
        QCOMPARE(player->getInputTimestamp(), expected);
    }

    void pauseRealignsBothPanesOnceBothReportPaused_data()
    {
        QTest::addColumn<qlonglong>("seekAfterPause"); // -1: none
        QTest::newRow("realigned where it paused") << -1LL;
        // mpv's pause reports arrive after the user's seek.
        QTest::newRow("a seek after the pause is not undone") << 400LL;
    }

    void pauseRealignsBothPanesOnceBothReportPaused()
    {
        QFETCH(qlonglong, seekAfterPause);
        QVERIFY(openInput());
        QVERIFY(playFrom(1500));
        QSignalSpy stops(player.get(), &VideoPlayer::stopIR);
        player->pause();
        QVERIFY(!player->getIsPlaying());
        QCOMPARE(stops.count(), 2);
        QCOMPARE(commands.of(0).last(), QStringLiteral("set pause yes"));
        if (seekAfterPause >= 0)
            player->seek(seekAfterPause);
        QVERIFY(settle());
        commands.clear();
        player->queuedseekMPVSlotPaused(0);
        QVERIFY(settle());
        QVERIFY(commands.of(0, QStringLiteral("seek")).isEmpty());
        player->queuedseekMPVSlotPaused(1);
        QVERIFY(settle());
        if (seekAfterPause < 0) {
            QVERIFY(commands.of(0).contains(seekText(1500)));
            QVERIFY(commands.of(1).contains(seekText(1500)));
        } else {
            QVERIFY(commands.of(0, QStringLiteral("seek")).isEmpty());
            QCOMPARE(player->getInputTimestamp(), seekAfterPause);
        }
    }

    void inOutRangeLoopsAtTheLastFrameBeforeTheOutPoint_data()
    {
        QTest::addColumn<int>("view");
        QTest::addColumn<qlonglong>("timePos");
        QTest::addColumn<qlonglong>("loopTo"); // -1: no loop
        // Out point 1000, in point 200; the right pane shows a 25 fps preview.
        QTest::newRow("preview before the last frame") << 1 << 959LL << -1LL;
        QTest::newRow("preview on the last frame") << 1 << 960LL << 201LL;
        QTest::newRow("input just under 1.5 frames past") << 0 << 1059LL << 200LL;
        QTest::newRow("input 1.5 frames past") << 0 << 1060LL << -1LL;
    }

    void inOutRangeLoopsAtTheLastFrameBeforeTheOutPoint()
    {
        QFETCH(int, view);
        QFETCH(qlonglong, timePos);
        QFETCH(qlonglong, loopTo);
        QVERIFY(openInput());
        QVERIFY(showPreview(1.0));
        player->adjustInOutRange(true, QPoint(200, 1000));
        QVERIFY(playFrom(300));
        commands.clear();
        player->mpvTimelineSync(view, timePos, false);
        QVERIFY(settle());
        QVERIFY(player->getIsPlaying());
        if (loopTo < 0) {
            QVERIFY(commands.of(view, QStringLiteral("seek")).isEmpty());
        } else {
            QCOMPARE(player->getInputTimestamp(), loopTo);
            QVERIFY(commands.of(view).contains(seekText(loopTo)));
        }
    }

    // A looping preview restarts at its end. Playing on from a preview's end
    // into the input is the end-to-end test's, which crosses four such cuts.
    void reachingTheEndOfALoopingPreviewRestartsIt()
    {
        QVERIFY(openInput());
        QVERIFY(showPreview(1.0));
        player->toggleLoopingPreviews(true, kPreview);
        QVERIFY(playFrom(1900));
        // The right pane's file reaches the preview's end.
        player->mpvTimelineSync(1, 2000, false);
        QVERIFY(settle());
        QCOMPARE(player->getInputTimestamp(), 0);
    }

    void queuedPlayStartsWhenTheLastFlagClears_data()
    {
        QTest::addColumn<bool>("liveRender");
        QTest::addColumn<QList<int>>("events"); // -1 queue a play, else view*2 + (0 seeking done, 1 loaded)
        QTest::newRow("left load last") << false << QList<int>{-1, 2, 3, 1, 0};
        QTest::newRow("loads after seeks") << false << QList<int>{-1, 0, 2, 1, 3};
        // A pause while the live render starts cancels the next play it queued, and only that one.
        QTest::newRow("pause during live render") << true << QList<int>{-1, 1, -1, 1};
    }

    void queuedPlayStartsWhenTheLastFlagClears()
    {
        QFETCH(bool, liveRender);
        QFETCH(QList<int>, events);
        QVERIFY(openInput());
        if (liveRender) {
            QVERIFY(showPreview(1.0));
            panesReady();
            player->toggleIR(true);
            QVERIFY(settle());
            player->pause();
        } else {
            for (int view : {0, 1})
                player->queuedPlayMPVSlotSeeking(view, true);
        }
        for (int i = 0; i < events.size(); ++i) {
            QVERIFY2(!player->getIsPlaying(), qPrintable(QStringLiteral("played after %1 events").arg(i)));
            if (events[i] < 0)
                player->queuePlay();
            else if (events[i] % 2)
                player->queuedPlayMPVSlotLoaded(events[i] / 2);
            else
                player->queuedPlayMPVSlotSeeking(events[i] / 2, false);
        }
        QVERIFY(player->getIsPlaying());
    }

    void liveRenderAsksForTheRawStretchAfterThePreview_data()
    {
        QTest::addColumn<bool>("trim");
        QTest::addColumn<bool>("leftFilter");
        QTest::addColumn<QList<QList<qlonglong>>>("expected"); // view, mode, start, end
        QTest::newRow("up to the out point") << true << false << QList<QList<qlonglong>>{{1, 1, 2001, 3000}};
        QTest::newRow("left pane on the input with a filter")
            << false << true << QList<QList<qlonglong>>{{0, 0, -1, -1}, {1, 1, 2001, -1}};
    }

    void liveRenderAsksForTheRawStretchAfterThePreview()
    {
        QFETCH(bool, trim);
        QFETCH(bool, leftFilter);
        QFETCH(QList<QList<qlonglong>>, expected);
        QVERIFY(openInput());
        QVERIFY(showPreview(1.0));
        player->adjustInOutRange(trim, QPoint(200, 3000));
        player->setFilterEnabledStatus(0, leftFilter);
        QSignalSpy starts(player.get(), qOverload<int, int, qlonglong, qlonglong>(&VideoPlayer::startIR));
        QSignalSpy initiating(player.get(), qOverload<int, bool, int>(&VideoPlayer::isInitiatingIRChanged));
        player->initLiveRenderAtTS(500);
        QList<QList<qlonglong>> started;
        for (const QList<QVariant> &args : std::as_const(starts))
            started.append({args.at(0).toLongLong(), args.at(1).toLongLong(), args.at(2).toLongLong(),
                            args.at(3).toLongLong()});
        QCOMPARE(started, expected);
        // With an interrupt the UI learns which pane waits for the renderer.
        QCOMPARE(initiating.count(), 2);
        QCOMPARE(initiating.at(0).at(1).toBool(), leftFilter);
    }

    void closesTheGapWithoutOvershooting_data()
    {
        QTest::addColumn<double>("offset");
        QTest::addColumn<double>("rate");
        QTest::addColumn<double>("jitter");
        QTest::addColumn<double>("seekMs");
        QTest::addColumn<bool>("reseeks");
        QTest::addColumn<double>("seconds");
        QTest::addColumn<bool>("heard");
        QTest::addColumn<double>("stallMs");
        QTest::newRow("in step: left alone") << 0.5 << 1.0 << 3.0 << 30.0 << false << 4.0 << true << 0.0;
        QTest::newRow("a third of a frame behind: trimmed") << -13.0 << 1.0 << 3.0 << 30.0 << false << 4.0 << true << 0.0;
        QTest::newRow("slow motion, a quarter frame ahead: trimmed") << 8.0 << 0.5 << 3.0 << 30.0 << false << 4.0 << true << 0.0;
        QTest::newRow("busy machine, wide scatter: trimmed") << -15.0 << 1.0 << 9.0 << 60.0 << false << 4.0 << true << 0.0;
        // Cuts come every half second or so: the start-up gap must not outlive one.
        QTest::newRow("a frame behind after a cut: closed in time") << -36.0 << 1.0 << 3.0 << 30.0 << false << 0.8 << true << 0.0;
        QTest::newRow("muted, a frame behind after a cut: closed in half the time")
            << -36.0 << 1.0 << 3.0 << 30.0 << false << 0.45 << false << 0.0;
        QTest::newRow("muted, slow motion, half a frame ahead") << 20.0 << 0.5 << 6.0 << 30.0 << false << 0.7 << false << 0.0;
        QTest::newRow("a frame and a half ahead: trimmed") << 60.0 << 1.0 << 3.0 << 30.0 << false << 4.0 << true << 0.0;
        QTest::newRow("starved core: the follower stands still for half a second")
            << 6.0 << 1.0 << 6.0 << 60.0 << true << 4.0 << true << 500.0;
        QTest::newRow("lost seek: fifteen frames behind") << -600.0 << 1.0 << 3.0 << 30.0 << true << 4.0 << true << 0.0;
        QTest::newRow("stray seek ahead, slow seeks") << 320.0 << 1.0 << 6.0 << 120.0 << true << 4.0 << true << 0.0;
    }

    void closesTheGapWithoutOvershooting()
    {
        QFETCH(double, offset);
        QFETCH(double, rate);
        QFETCH(double, jitter);
        QFETCH(double, seekMs);
        QFETCH(bool, reseeks);
        QFETCH(double, seconds);
        QFETCH(bool, heard);
        QFETCH(double, stallMs);
        for (unsigned seed : {1u, 2u, 3u}) {
            const Outcome outcome = simulate(offset, rate, jitter, seekMs, stallMs, seconds, seed, heard);
            const QString what = QStringLiteral("seed %1: offset %2 ms after %3 trims, %4 re-seeks")
                                     .arg(seed)
                                     .arg(outcome.finalOffset)
                                     .arg(outcome.trims)
                                     .arg(outcome.reseeks);
            QVERIFY2(std::abs(outcome.finalOffset) <= 4.0, qPrintable(what));
            QVERIFY2((outcome.reseeks > 0) == reseeks, qPrintable(what));
            // Trims stay small enough to go unheard and unseen.
            const double bound = heard ? 0.08 : 0.25;
            QVERIFY2(outcome.slowestTrim >= 1 - bound && outcome.fastestTrim <= 1 + bound, qPrintable(what));
            if (std::abs(offset) <= 2.0)
                QCOMPARE(outcome.trims, 0);
        }
    }

    void nothingUntilBothLinesAreKnownAndAgainAfterReset()
    {
        FrameLock lock;
        // The follower far ahead, but too few steady reports to say so: the
        // first after a start is passed over, then two are needed.
        for (int i = 0; i < 2; ++i) {
            QCOMPARE(lock.report(0, 40.0 * i, 1000.0 + 40 * i, 1.0, 40.0).kind, FrameLock::Action::None);
            QCOMPARE(lock.report(1, 400 + 40.0 * i, 1000.0 + 40 * i, 1.0, 40.0).kind, FrameLock::Action::None);
        }
        lock.report(0, 80.0, 1080.0, 1.0, 40.0);
        const auto action = lock.report(1, 480.0, 1080.0, 1.0, 40.0);
        QCOMPARE(action.kind, FrameLock::Action::Reseek);
        // Where the leader will be once the seek is done.
        QVERIFY(action.targetInputMs > 80.0 && action.targetInputMs < 180.0);
        lock.reset();
        QCOMPARE(lock.offsetAt(1300.0), 0.0);
        // Asked for before the reset, the re-seek is not sent after it: it would
        // undo the player's own pause or seek that came with the reset.
        bool sent = false;
        lock.carryOut(action, [&] { sent = true; });
        QVERIFY(!sent);
        // Bad input is ignored, not divided by.
        QCOMPARE(lock.report(1, 0, 1300.0, 0.0, 40.0).kind, FrameLock::Action::None);
        QCOMPARE(lock.report(3, 0, 1300.0, 1.0, 40.0).kind, FrameLock::Action::None);
        QCOMPARE(lock.report(1, 0, 1300.0, 1.0, std::nan("")).kind, FrameLock::Action::None);
    }
    void seekToRefusesWhatItCannotSeek_data()
    {
        QTest::addColumn<bool>("withMpv");
        QTest::addColumn<qint64>("position");
        QTest::newRow("pane without mpv") << false << qint64(500);
        QTest::newRow("negative position") << true << qint64(-1);
    }

    void seekToRefusesWhatItCannotSeek()
    {
        QFETCH(bool, withMpv);
        QFETCH(qint64, position);
        auto node = makeNode(0, withMpv ? std::make_shared<MPVObject>() : nullptr);
        node->truthTS = 7;
        int calls = 0;
        node->timestampChanged = [&calls] { ++calls; };
        QVERIFY(!node->seekTo(position));
        QCOMPARE(node->truthTS.load(), qint64(7));
        QCOMPARE(calls, 0);
        QVERIFY(commands.of(kNodePane).isEmpty());
        // A refused seek says why.
        QCOMPARE(log->count(QString(), ConsoleLogger::Warn), 1);
        // The input's node has no pane and takes any position.
        auto in = makeNode(-1, nullptr);
        QVERIFY(in->seekTo(-1));
        QCOMPARE(in->getTimestamp(), -1);
    }

    void timelineSync_data()
    {
        QTest::addColumn<bool>("withPreview");
        QTest::addColumn<qint64>("startAt");
        QTest::addColumn<QString>("mpvPath");
        QTest::addColumn<qint64>("timePos");
        QTest::addColumn<bool>("isEOF");
        QTest::addColumn<qint64>("truth");
        QTest::addColumn<int>("index");
        QTest::addColumn<QString>("loaded");
        // Timeline: I (0, 1999), A (2000, 3000) at slow motion 2, I (3001, 10000).
        QTest::newRow("before the stretch clamps to its start")
            << true << qint64(2500) << "/a.mp4" << qint64(-100) << false << qint64(2000) << 1 << "";
        QTest::newRow("end of file reported for the old file is stale")
            << true << qint64(2500) << "/old.mp4" << qint64(900) << true << qint64(-7) << 1 << "";
        QTest::newRow("the last stretch wraps to the first")
            << true << qint64(5000) << "/in.mp4" << qint64(10000) << true << qint64(0) << 0
            << "loadfile /in.mp4 replace start=+0.000000";
        QTest::newRow("a lone input clamps instead of reloading")
            << false << qint64(500) << "/in.mp4" << qint64(20000) << true << qint64(0) << 0 << "";
    }

    void timelineSync()
    {
        QFETCH(bool, withPreview);
        QFETCH(qint64, startAt);
        QFETCH(QString, mpvPath);
        QFETCH(qint64, timePos);
        QFETCH(bool, isEOF);
        QFETCH(qint64, truth);
        QFETCH(int, index);
        QFETCH(QString, loaded);
        auto mpv = std::make_shared<MPVObject>();
        auto node = makeNode(0, mpv);
        node->initTimelineForPlaying(100); // no timeline yet: nothing to play
        QVERIFY(node->playbackVideos.empty());
        node->timeline = std::make_shared<Timeline>();
        node->timeline->setInput(input);
        if (withPreview)
            node->timeline->addVideo(preview);
        node->initTimelineForPlaying(startAt);
        // Later edits of the timeline do not reach the play order.
        node->timeline->deletePreview(2);
        node->updateInfoFromVideo(node->currentVideo);
        mpv->load(mpvPath);
        commands.clear();
        node->truthTS = -7;
        node->timelineSyncEnabled = true;

        node->mpvTimelineSync(timePos, isEOF);
        QCOMPARE(node->truthTS.load(), truth);
        QCOMPARE(node->playbackIndex, index);
        QStringList sent = commands.of(kNodePane);
        sent.replaceInStrings(QStringLiteral(" -1 "), QStringLiteral(" ")); // the playlist index of newer libmpv
        QCOMPARE(sent, loaded.isEmpty() ? QStringList() : QStringList{loaded});
        if (!loaded.isEmpty())
            QCOMPARE(node->currentRange, node->playbackRanges[size_t(index)]);
    }

    void syncOneSeeksOnlyInsideTheVideo_data()
    {
        QTest::addColumn<int>("inputTs");
        QTest::addColumn<QString>("sent");
        // The left pane shows frames 2000..2960 at slow motion 2.
        QTest::newRow("last frame") << 2960 << "seek 1.920000 absolute+exact";
        QTest::newRow("after the last frame") << 2961 << "";
        QTest::newRow("before the video") << 1999 << "";
    }

    void syncOneSeeksOnlyInsideTheVideo()
    {
        QFETCH(int, inputTs);
        QFETCH(QString, sent);
        auto in = makeNode(-1, nullptr);
        auto left = makeNode(0, std::make_shared<MPVObject>());
        ViewNodeManager manager({{-1, in.get()}, {0, left.get()}}, &timestampMutex, &infoMutex, {}, {}, {}, {}, {}, {});
        left->frameRange = {2000, 2960};
        left->slowMotion = 2.0f;
        in->setTimestamp(inputTs);
        manager.syncOne(0, false);
        QCOMPARE(commands.of(kNodePane).value(0), sent);
        // Views the manager does not hold are refused without a command.
        commands.clear();
        for (int view : {-1, 5})
            manager.resetOne(view, true);
        QVERIFY(commands.of(kNodePane).isEmpty());
    }

    // The manager tells timestamps outside the timestamp lock, once every node
    // has its own, and infos inside the info lock, only on a change; updating
    // from the videos takes that lock once.
    void managerCallsBackUnderTheRightLock()
    {
        auto in = makeNode(-1, nullptr);
        auto left = makeNode(0, nullptr);
        auto right = makeNode(1, nullptr);
        QList<QList<int>> seen;
        const auto snapshot = [&] { seen.append({in->getTimestamp(), left->getTimestamp(), right->getTimestamp()}); };
        int infoCalls = 0;
        bool lockedDuringCall = false;
        const auto onInfo = [&] {
            ++infoCalls;
            lockedDuringCall = !infoMutex.try_lock();
            if (!lockedDuringCall)
                infoMutex.unlock();
        };
        ViewNodeManager manager({{-1, in.get()}, {0, left.get()}, {1, right.get()}}, &timestampMutex, &infoMutex,
                                snapshot, onInfo, snapshot, onInfo, snapshot, {});
        manager.setAllTimestamps(4200);
        QCOMPARE(seen, (QList<QList<int>>{{4200, 4200, 4200}, {4200, 4200, 4200}, {4200, 4200, 4200}}));
        seen.clear();
        manager.setTimestamps({{10, 0}, {20, 1}, {30, 9}});
        QCOMPARE(seen, (QList<QList<int>>{{4200, 10, 20}, {4200, 10, 20}}));

        manager.setInfos({{QVariantMap(), 0}});
        QCOMPARE(infoCalls, 0); // empty and null maps are equal
        manager.setInfos({{QVariantMap{{"fps", 25.0}}, 0}, {QVariantMap{{"fps", 30.0}}, 7}});
        QCOMPARE(infoCalls, 1);
        QVERIFY(lockedDuringCall);
        manager.setInfos({{QVariantMap{{"fps", 25.0}}, 0}});
        QCOMPARE(infoCalls, 1);
        manager.updateInfoFromVideos(); // no video yet: the info stays
        QCOMPARE(left->getInfo(), (QVariantMap{{"fps", 25.0}}));
        in->currentVideo = input;
        left->currentVideo = preview;
        infoCalls = 0;
        manager.updateInfoFromVideos(); // would deadlock if a node took the lock again
        QCOMPARE(infoCalls, 2);
        QCOMPARE(left->getInfo(), preview->info);
        QCOMPARE(left->slowMotion, 2.0f);
        QCOMPARE(in->frameRange, (ViewNode::FrameRange{0, 9960}));
    }

    void initPlayNodes_data()
    {
        QTest::addColumn<qlonglong>("at");
        QTest::addColumn<int>("priorIndex");
        QTest::addColumn<double>("factor");
        QTest::addColumn<int>("index");
        QTest::addColumn<qlonglong>("videoTimestamp");
        QTest::addColumn<qlonglong>("timelineTimestamp");
        QTest::addColumn<QString>("readied");

        QTest::newRow("on the input, the next preview is readied") << 500LL << -1 << 2.0 << 0 << 500LL << 500LL << "P";
        QTest::newRow("in a preview: file time doubled, carried back without the factor")
            << 1500LL << -1 << 2.0 << 1 << 1000LL << 2000LL << "";
        QTest::newRow("a factor of 1.5 multiplies by 1") << 1500LL << -1 << 1.5 << 1 << 500LL << 1500LL << "";
        QTest::newRow("past the first preview, the second is readied")
            << 2200LL << -1 << 2.0 << 2 << 2200LL << 2200LL << "Q";
        QTest::newRow("before the video's start: file 0, timeline up to the start")
            << -100LL << 1 << 2.0 << 1 << 0LL << 1000LL << "";
        QTest::newRow("an index past the end starts at stretch 0") << -100LL << 7 << 2.0 << 0 << 0LL << 0LL << "P";
    }

    // View A shows the clip's timeline; view B's timeline has no input and so
    // no stretches at all.
    void initPlayNodes()
    {
        QFETCH(qlonglong, at);
        QFETCH(int, priorIndex);
        QFETCH(double, factor);
        QFETCH(int, index);
        QFETCH(qlonglong, videoTimestamp);
        QFETCH(qlonglong, timelineTimestamp);
        QFETCH(QString, readied);

        const auto inputVideo = Video::makeInput(nullptr, 1, clip.toStdString(), 4000, 25.0, 1.0, {});
        const auto pVideo = Video::makePreview(2, p.toStdString(), 1000, 1000, 25.0, factor, 1.0, false, {});
        const auto qVideo = Video::makePreview(3, q.toStdString(), 2500, 500, 25.0, 1.0, 1.0, false, {});
        auto shown = std::make_shared<Timeline>();
        shown->setInput(inputVideo);
        shown->addVideo(pVideo);
        shown->addVideo(qVideo);
        if (priorIndex >= 0)
            shown->rData.index = priorIndex;

        auto left = makeNode(0, nullptr);
        auto right = makeNode(1, nullptr);
        left->timeline = shown;
        right->timeline = std::make_shared<Timeline>();

        // Both previews stand on their last frame, so a readied one shows.
        const auto pReader = videoio::VideoManager::GetPreviewReader(p, factor);
        const auto qReader = videoio::VideoManager::GetPreviewReader(q, 1.0);
        QVERIFY(pReader->last() && qReader->last());

        SyncView sync(left.get(), right.get());
        sync.timestamp = at;
        sync.initPlayNodes();

        const PlayableNode &a = *sync.nodeA();
        QCOMPARE(a.index, index);
        QCOMPARE(a.currentVideo, shown->rData.videos[static_cast<std::size_t>(index)]);
        QCOMPARE(left->currentVideo, a.currentVideo);
        QCOMPARE(qlonglong(a.videoTimestamp), videoTimestamp);
        QCOMPARE(qlonglong(a.timelineTimestamp), timelineTimestamp);
        QCOMPARE(pReader->position() == 0, readied == "P");
        QCOMPARE(qReader->position() == 0, readied == "Q");

        // One reader per file, previews opened with their factor.
        QCOMPARE(sync.readers().size(), 3u);
        QCOMPARE(a.playNodes[1], pReader);

        const PlayableNode &b = *sync.nodeB();
        QVERIFY(!b.currentVideo && b.videos.empty() && !right->currentVideo);
        QCOMPARE(b.videoTimestamp, TSType(0));
    }

    void positionArithmeticAtItsLimits()
    {
        // Past about four and a half hours a float no longer holds every
        // millisecond: seeks go in single precision, loads in double.
        const struct { qint64 ms; const char *seek, *load; } rows[] = {
            {1480, "1.480000", "1.480000"},
            {18000001, "18000.000000", "18000.001000"},
            {36000003, "36000.003906", "36000.003000"}};
        for (const auto &row : rows) {
            QCOMPARE(QString::asprintf("%f", seekSeconds(row.ms)), QLatin1String(row.seek));
            QCOMPARE(QString::asprintf("%f", loadSeconds(row.ms)), QLatin1String(row.load));
        }
        QCOMPARE(fileToInput(100, 3.0f, 1000), qint64(1033)); // truncates
        QCOMPARE(inputToFile(1033, 1000, 3.0f), qint64(99));
        // A distance, not a difference: before the start it is still positive.
        QCOMPARE(syncOnePosition(1500, 2000, 1.0f), qint64(500));
        QCOMPARE(syncOnePosition(2100, 2000, 1.5f), qint64(150)); // the factor's fraction is kept
        QCOMPARE(timestepMs(29.97), qint64(33));
        QCOMPARE(timestepMs(0.0), qint64(0)); // no rate
        QCOMPARE(frameRange(0, 1000, 40), Range(0, 960));
        // Past half a frame rounds up, below it rounds down.
        QCOMPARE(frameFromMs(1021, 25.0), 26);
        QCOMPARE(snapToFrameMs(1021, 25.0), 1040);
        QCOMPARE(frameFromMs(1019, 25.0), 25);
        QCOMPARE(snapToFrameMs(1019, 25.0), 1000);
    }

    void coalescing_data()
    {
        QTest::addColumn<QVariantList>("script");
        QTest::addColumn<QList<QVariantMap>>("expected");

        QTest::newRow("seeks collapse to the newest time with the first flags")
            << QVariantList{seek(100, true, true), seek(200, false, false), seek(300, false, false)}
            << QList<QVariantMap>{seek(300, true, true)};
        QTest::newRow("a missing firstLoad counts as a switch")
            << QVariantList{addInput(1), addInput(2)} << QList<QVariantMap>{addInput(2)};
        QTest::newRow("two first loads are never merged")
            << QVariantList{addInput(1, true), addInput(2, true)}
            << QList<QVariantMap>{addInput(1, true), addInput(2, true)};
        // The same path again in one view is dropped, in the other view or once popped it is taken.
        QTest::newRow("open for preview")
            << QVariantList{openForPreview(0, "/p.mp4"), openForPreview(0, "/p.mp4"), openForPreview(1, "/p.mp4"), popOne,
                            openForPreview(0, "/p.mp4")}
            << QList<QVariantMap>{openForPreview(1, "/p.mp4"), openForPreview(0, "/p.mp4")};
        // Indexes are not rebased when the head leaves: a later seek writes its time
        // into whatever now stands at the old position.
        QTest::newRow("stale seek index writes into the next request")
            << QVariantList{request(Play), seek(100), reload(1), popOne, seek(200)}
            << QList<QVariantMap>{seek(100), [] {
                                      QVariantMap r = reload(1);
                                      r.insert("timestamp", 200);
                                      return r;
                                  }()};
        QTest::newRow("stale reload index replaces another request whole")
            << QVariantList{request(Play), reload(1), seek(100), popOne, reload(2)}
            << QList<QVariantMap>{reload(1), reload(2)};
        QTest::newRow("a popped first load leaves the switch slot pending")
            << QVariantList{addInput(1, true), addInput(2, false), addInput(3, true), popOne, addInput(4, false)}
            << QList<QVariantMap>{addInput(2, false), addInput(4, false)};
        // The reload slot remembers index 2, past the end after two pops: the
        // reload is kept (with a warning) and the next one, of another uid, merges into it.
        QTest::newRow("stale index past the end appends")
            << QVariantList{request(Play), request(Play), reload(1), popOne, popOne, reload(2), reload(3)}
            << QList<QVariantMap>{reload(1), reload(3)};
    }

    void coalescing()
    {
        QFETCH(QVariantList, script);
        QFETCH(QList<QVariantMap>, expected);
        VPReqQueue queue;
        for (const QVariant &step : script) {
            if (step.isValid()) {
                queue.push(step.toMap());
            } else {
                QVariantMap popped;
                QVERIFY(queue.pop(popped));
            }
        }
        QCOMPARE(drain(queue), expected);
    }

    void aRequestInHandIsNotIdle()
    {
        VPReqQueue queue;
        queue.push(request(Play));
        QVariantMap out;
        QVERIFY(queue.pop(out));
        // Empty, but the worker has not done it yet.
        QVERIFY(queue.empty());
        QVERIFY(!queue.idle());
        queue.finished();
        QVERIFY(queue.idle());
    }
    void processInfoFollowsTheFirstCommand_data()
    {
        QTest::addColumn<QVariant>("arguments");
        QTest::addColumn<QString>("chain");
        QTest::addColumn<QString>("encoder");

        const QVariant none = QVariant::fromValue(nullptr);
        QTest::newRow("split at 0") << QVariant(chainCommand("split=2[a][b]")) << "" << "ffv1";
        QTest::newRow("split inside") << QVariant(chainCommand("[0:v]hqdn3d,yadif,split=2[a][b]"))
                                      << "[0:v]hqdn3d,yadif" << "ffv1";
        QTest::newRow("no chain") << QVariant(QStringList{"-i", "in.mp4", "-c:v", "libx264"}) << "" << "libx264";
        QTest::newRow("-filter_complex last") << QVariant(QStringList{"-c:v", "prores", "-filter_complex"}) << ""
                                              << "prores";
        QTest::newRow("-c:v last") << QVariant(QStringList{"-filter_complex", "negate", "-c:v"}) << "negate"
                                   << "earlier";
        QTest::newRow("no commands") << none << "earlier" << "earlier";
    }

    void processInfoFollowsTheFirstCommand()
    {
        QFETCH(QVariant, arguments);
        QFETCH(QString, chain);
        QFETCH(QString, encoder);

        const auto watcher = makeWatcher();
        QVERIFY(watcher);
        QCOMPARE(apply(watcher.get(), QStringList{"-filter_complex", "earlier", "-c:v", "earlier"}, 1), "earlier");
        QCOMPARE(apply(watcher.get(), arguments, 1), chain);
        QSignalSpy injected(watcher.get(), &InstantReaderWatcher::previewReadyToInject);
        watcher->onPreviewCachedToDisk("chunk.mkv", QPoint(0, 99), 1);
        const QVariantMap info = injected.first().at(3).toMap();
        QCOMPARE(info.value("filterComplex").toString(), chain);
        QCOMPARE(info.value("encoderId").toString(), encoder);
        // The other view keeps nothing.
        watcher->onPreviewCachedToDisk("chunk.mkv", QPoint(0, 99), 0);
        QCOMPARE(injected.last().at(3).toMap(), QVariantMap());
    }

    void durationsAreMeasuredOffTheUiThread()
    {
        const auto watcher = makeWatcher();
        QThread *emittedOn = nullptr;
        connect(watcher.get(), &InstantReaderWatcher::fileDurationUpdate, this,
                [&emittedOn] { emittedOn = QThread::currentThread(); }, Qt::DirectConnection);
        QSignalSpy durations(watcher.get(), &InstantReaderWatcher::fileDurationUpdate);
        watcher->queueDurationCheck(1, 42, clip, QVariantMap{{"filterComplex", "hflip"}});
        QVERIFY(durations.wait(20000));
        QCOMPARE(durations.first().at(0).toInt(), 42);
        QCOMPARE(durations.first().at(1).toLongLong(), 4000);
        QCOMPARE(emittedOn, QThread::currentThread());
    }

    // A slowed chain's chunks tile the window on the input's axis, land in the
    // watcher's cache and carry how much longer their files are than the
    // stretch they cover. How a window cuts into chunks is the reader's own
    // test.
    void renderedChunksAreAnnouncedForInjection()
    {
        const auto watcher = makeWatcher();
        QSignalSpy injected(watcher.get(), &InstantReaderWatcher::previewReadyToInject);
        QSignalSpy failed(watcher.get(), &InstantReaderWatcher::renderFailed);
        apply(watcher.get(), chainCommand("setpts=2*PTS"), 1);
        QVERIFY(render(watcher.get(), 1, clip, 0, 760));
        QTRY_COMPARE_WITH_TIMEOUT(injected.count(), 1, 30000);
        QCOMPARE(failed.count(), 0);
        const QVariantList &chunk = injected.first();
        const QString file = chunk.at(0).toString();
        const QPoint range = chunk.at(1).toPoint();
        const QVariantMap info = chunk.at(3).toMap();
        QVERIFY(file.startsWith(watcher->cacheFolder()));
        QCOMPARE(chunk.at(2).toInt(), 1);
        QCOMPARE(range, QPoint(0, 799));
        QCOMPARE(info.value("filterComplex").toString(), "setpts=2*PTS");
        QVERIFY(std::abs(info.value("slowMoFactor").toDouble() - 2.0) < 0.01);
        QVERIFY2(std::abs(videoio::FFReaderUtils::getDuration(file) - 2 * 800) <= 2, qPrintable(file));
    }

    // A new render, a new chain or a reset stops the running one: nothing it
    // had in hand is announced after.
    void aNewRenderStopsTheRunningOne_data()
    {
        QTest::addColumn<QString>("interruption");
        QTest::newRow("another window") << "render";
        QTest::newRow("a new chain") << "chain";
        QTest::newRow("reset") << "resetIR";
    }

    void aNewRenderStopsTheRunningOne()
    {
        QFETCH(QString, interruption);
        const auto watcher = makeWatcher();
        QSignalSpy injected(watcher.get(), &InstantReaderWatcher::previewReadyToInject);
        apply(watcher.get(), chainCommand("hqdn3d"), 0);
        QVERIFY(render(watcher.get(), 0, clip, 0, -1));
        if (interruption == "chain")
            apply(watcher.get(), chainCommand("negate"), 0);
        else if (interruption == "resetIR")
            watcher->resetIR(0);
        else if (interruption == "stopRender")
            watcher->stopRender(0);
        // Whatever the first render handed to the cache comes out of it ahead
        // of the second render's chunks.
        QVERIFY(render(watcher.get(), 0, clip, 2000, 2400));
        QTRY_VERIFY_WITH_TIMEOUT(!injected.isEmpty(), 30000);
        for (const QVariantList &chunk : injected)
            QCOMPARE(chunk.at(1).toPoint().x(), 2000);
    }

    void badInputFailsAndReleasesThePlayer_data()
    {
        QTest::addColumn<QString>("chain");
        QTest::addColumn<QString>("file");
        QTest::addColumn<int>("start");
        QTest::addColumn<int>("end");
        QTest::addColumn<QString>("message");
        // What needs the file is found on the render thread, after startRender
        // accepted the request.
        QTest::addColumn<bool>("accepted");

        QTest::newRow("chain that doesn't build") << "nosuchfilter" << "input.mp4" << 0 << -1 << "does not build" << true;
        QTest::newRow("missing file") << "hflip" << "missing.mp4" << 0 << -1 << "no such file" << true;
        QTest::newRow("end before start") << "hflip" << "input.mp4" << 500 << 400 << "before its start" << false;
        QTest::newRow("negative start") << "hflip" << "input.mp4" << -1 << -1 << "before the input" << false;
        QTest::newRow("one picture") << "hflip" << "input.mp4" << 1000 << 1000 << "one picture" << true;
    }

    void badInputFailsAndReleasesThePlayer()
    {
        QFETCH(QString, chain);
        QFETCH(QString, file);
        QFETCH(int, start);
        QFETCH(int, end);
        QFETCH(QString, message);
        QFETCH(bool, accepted);

        const auto watcher = makeWatcher();
        QThread *failedOn = nullptr;
        connect(watcher.get(), &InstantReaderWatcher::renderFailed, this,
                [&failedOn] { failedOn = QThread::currentThread(); }, Qt::DirectConnection);
        QSignalSpy failed(watcher.get(), &InstantReaderWatcher::renderFailed);
        QSignalSpy init(watcher.get(), &InstantReaderWatcher::updateFilterInitStatus);
        apply(watcher.get(), chainCommand(chain), 1);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("failed: .*" + message));
        if (message == "one picture")
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("Render of view 1 .*one picture"));
        QCOMPARE(render(watcher.get(), 1, dir.filePath(file), start, end), accepted);
        QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, 20000);
        QCOMPARE(failedOn, QThread::currentThread());
        QCOMPARE(failed.first().at(0).toInt(), 1);
        QVERIFY2(failed.first().at(1).toString().contains(message), qPrintable(failed.first().at(1).toString()));
        QTRY_VERIFY_WITH_TIMEOUT(!init.isEmpty() && init.last() == (QVariantList{1, false, false}), 20000);
    }

    void plainReadersAndUnknownViewsAreRefused()
    {
        const auto watcher = makeWatcher();
        QSignalSpy failed(watcher.get(), &InstantReaderWatcher::renderFailed);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("failed: only an instant reader"));
        watcher->addToWatchList(std::make_shared<videoio::FFReader>(clip), 0);
        QCOMPARE(failed.count(), 1);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("there is no view 2"));
        QVERIFY(!render(watcher.get(), 2, clip, 0, -1));
    }

    // Graphs queued faster than the loop takes them: the newest is installed,
    // the older ones freed, and a reader whose request was dropped is asked
    // again for the newest chain.
    void onlyTheNewestGraphIsInstalled()
    {
        const auto watcher = makeWatcher();
        auto first = std::make_shared<videoio::InstantReader>(clip, 0);
        auto second = std::make_shared<videoio::InstantReader>(clip, 0);
        watcher->addToWatchList(first, 0);
        watcher->addToWatchList(second, 0);
        second->requestFilterGraph("hflip");
        first->requestFilterGraph("negate");
        first->requestFilterGraph("vflip");
        const int newest = first->requestFilterGraph("hflip,vflip");
        QTRY_COMPARE_WITH_TIMEOUT(first->filterGraphCounter(), newest, 20000);
        QTRY_VERIFY_WITH_TIMEOUT(second->hasFilterGraph(), 20000);
        QCOMPARE(first->filterChain(), std::string("hflip,vflip"));
    }

    void clearedReadersCloseOnTheCloseThread()
    {
        const auto watcher = makeWatcher();
        QThread *closedOn = nullptr;
        {
            auto reader = std::make_shared<videoio::InstantReader>(clip, 1);
            connect(reader.get(), &QObject::destroyed, this, [&closedOn] { closedOn = QThread::currentThread(); },
                    Qt::DirectConnection);
            watcher->addToWatchList(reader, 1);
        }
        watcher->clearWatchListatViewID(1);
        QTRY_VERIFY_WITH_TIMEOUT(closedOn, 20000);
        QVERIFY(closedOn != QThread::currentThread());
    }

    void destroyingMidRenderReturnsAndRemovesTheCache()
    {
        auto watcher = makeWatcher();
        QCOMPARE(InstantReaderWatcher::instance(), watcher.get());
        QSignalSpy injected(watcher.get(), &InstantReaderWatcher::previewReadyToInject);
        apply(watcher.get(), chainCommand("hqdn3d=8,atadenoise"), 1);
        QVERIFY(render(watcher.get(), 1, clip, 0, -1));
        QVERIFY(injected.wait(30000));
        const QString folder = watcher->cacheFolder();
        QVERIFY(QFileInfo::exists(folder));
        watcher.reset();
        QCOMPARE(InstantReaderWatcher::instance(), nullptr);
        QTRY_VERIFY_WITH_TIMEOUT(!QFileInfo::exists(folder), 20000);
    }
};

QTEST_MAIN(tst_VideoPlayer)
#include "tst_VideoPlayer.moc"
