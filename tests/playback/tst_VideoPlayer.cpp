// The player's handlers, driven through its slots as QML drives them, with two
// real MPVObject panes whose mpv cores are never started: every command they
// would send is recorded, so each branch of the player is reached
// deterministically and without a display.
#include "PlayerMedia.h"

#include "playback/VideoPlayer.h"

#include <QSignalSpy>
#include <QtTest>

#include <algorithm>
#include <memory>

using videoplayer::VideoPlayer;

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

} // namespace

class tst_VideoPlayer : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<MPVObject> left;
    std::unique_ptr<MPVObject> right;
    std::unique_ptr<VideoPlayer> player;
    playermedia::PaneCommands commands;

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

private slots:
    void init()
    {
        left = std::make_unique<MPVObject>();
        right = std::make_unique<MPVObject>();
        player = std::make_unique<VideoPlayer>();
        commands.clear();
        commands.watch(*left, 0);
        commands.watch(*right, 1);
        player->setMPVObjects({left.get(), right.get()});
    }

    // The player goes before the panes it commands.
    void cleanup() { player.reset(); }

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
        // The same uid again keeps its record.
        const auto first = player->getPreview(kInput);
        player->addInput(kInput, 0, kInputPath, 4000, 25.0, 1.0, false, inputInfo());
        QVERIFY(opened.wait(5000));
        QCOMPARE(player->getPreview(kInput), first);
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

    void unequalSlowMotionSlowsTheOtherPane_data()
    {
        QTest::addColumn<double>("slowmotion");
        QTest::addColumn<qlonglong>("at");
        QTest::addColumn<QString>("leftSpeed");
        QTest::newRow("factor 4 against the input") << 4.0 << 500LL << "set speed 0.250000";
        QTest::newRow("past the preview: equal") << 2.0 << 3000LL << "set speed 1.000000";
    }

    void unequalSlowMotionSlowsTheOtherPane()
    {
        QFETCH(double, slowmotion);
        QFETCH(qlonglong, at);
        QFETCH(QString, leftSpeed);
        QVERIFY(openInput());
        QVERIFY(showPreview(slowmotion));
        commands.clear();
        player->seek(at);
        QVERIFY(settle());
        QCOMPARE(commands.of(0, QStringLiteral("set speed")).last(), leftSpeed);
        QCOMPARE(commands.of(1, QStringLiteral("set speed")).last(), QStringLiteral("set speed 1.000000"));
        // The slowed preview is entered at its own file time.
        if (at < 2000)
            QVERIFY(commands.of(1).contains(seekText(qint64(at * slowmotion))));
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

    void reachingThePreviewsEnd_data()
    {
        QTest::addColumn<double>("slowmotion");
        QTest::addColumn<int>("loopingUID");
        QTest::addColumn<qlonglong>("expected");
        // The preview's stretch ends at 2000 inclusive, so the input takes over at 2001.
        QTest::newRow("slow motion 2: on to the input") << 2.0 << 99 << 2001LL;
        QTest::newRow("looping this preview restarts it") << 1.0 << kPreview << 0LL;
    }

    void reachingThePreviewsEnd()
    {
        QFETCH(double, slowmotion);
        QFETCH(int, loopingUID);
        QFETCH(qlonglong, expected);
        QVERIFY(openInput());
        QVERIFY(showPreview(slowmotion));
        player->toggleLoopingPreviews(true, loopingUID);
        QVERIFY(playFrom(1900));
        commands.clear();
        // The right pane's file reaches the preview's end.
        player->mpvTimelineSync(1, qint64(2000 * slowmotion), false);
        QVERIFY(settle());
        QCOMPARE(player->getInputTimestamp(), expected);
        if (expected == 0)
            return;
        QVERIFY(hasLoad(commands.of(1), kInputPath, QStringLiteral("2.001000")));
        QVERIFY(!player->getIsPlaying());
        // The play waits for the panes, then resumes at the input's pace.
        panesReady();
        QVERIFY(player->getIsPlaying());
        QCOMPARE(commands.of(1, QStringLiteral("set speed")).last(), QStringLiteral("set speed 1.000000"));
    }

    void queuedPlayStartsWhenTheLastFlagClears_data()
    {
        QTest::addColumn<QList<int>>("order"); // view*2 + (0 seeking done, 1 loaded)
        QTest::newRow("left load last") << QList<int>{2, 3, 1, 0};
        QTest::newRow("loads after seeks") << QList<int>{0, 2, 1, 3};
    }

    void queuedPlayStartsWhenTheLastFlagClears()
    {
        QFETCH(QList<int>, order);
        QVERIFY(openInput());
        for (int view : {0, 1})
            player->queuedPlayMPVSlotSeeking(view, true);
        player->queuePlay();
        for (int i = 0; i < order.size(); ++i) {
            QVERIFY2(!player->getIsPlaying(), qPrintable(QStringLiteral("played after %1 events").arg(i)));
            if (order[i] % 2)
                player->queuedPlayMPVSlotLoaded(order[i] / 2);
            else
                player->queuedPlayMPVSlotSeeking(order[i] / 2, false);
        }
        QVERIFY(player->getIsPlaying());
    }

    // A pause while the live render starts cancels the next play it queued, and only that one.
    void pauseDuringLiveRenderCancelsExactlyOneLaterPlay()
    {
        QVERIFY(openInput());
        QVERIFY(showPreview(1.0));
        panesReady();
        player->toggleIR(true);
        QVERIFY(settle());
        player->pause();
        player->queuePlay();
        player->queuedPlayMPVSlotLoaded(0);
        QVERIFY(!player->getIsPlaying());
        player->queuePlay();
        player->queuedPlayMPVSlotLoaded(0);
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

    void closeStopsTheWorkerBeforePendingRequests()
    {
        QVERIFY(openInput());
        player->close();
        QVERIFY(settle());
        const qint64 before = player->getInputTimestamp();
        // The worker is gone: the seek stays in the queue, unperformed.
        player->seek(2500);
        QVERIFY(!QTest::qWaitFor([this] { return player->isIdle(); }, 300));
        QCOMPARE(player->getInputTimestamp(), before);
    }
};

QTEST_MAIN(tst_VideoPlayer)
#include "tst_VideoPlayer.moc"
