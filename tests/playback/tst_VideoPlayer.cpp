// The player's handlers, driven through its slots as QML drives them, with two
// real MPVObject panes whose mpv cores are never started: every command they
// would send is recorded, so each branch of the player is reached
// deterministically and without a display.
#include "playback/MPVObject.h"
#include "playback/VideoPlayer.h"

#include <QSignalSpy>
#include <QtTest>

#include <algorithm>
#include <memory>
#include <mutex>

using videoplayer::VideoPlayer;

namespace {

constexpr int kInput = 1;
constexpr int kPreview = 2;
constexpr int kSet = 7;

// Every mpv command of both panes, as one text per command ("set speed 1.000000").
class CommandLog
{
public:
    void attach(MPVObject &pane, int view)
    {
        pane.player().setCommandObserver([this, view](const QStringList &words) {
            const std::lock_guard lock(mutex);
            lines[view].append(words.join(QLatin1Char(' ')));
        });
    }
    QStringList of(int view)
    {
        const std::lock_guard lock(mutex);
        return lines[view];
    }
    QStringList matching(int view, const QString &head)
    {
        QStringList found;
        for (const QString &line : of(view)) {
            if (line.startsWith(head))
                found.append(line);
        }
        return found;
    }
    void clear()
    {
        const std::lock_guard lock(mutex);
        lines[0].clear();
        lines[1].clear();
    }

private:
    std::mutex mutex;
    QStringList lines[2];
};

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
    CommandLog commands;

    bool settle()
    {
        return QTest::qWaitFor([this] { return player->isIdle(); }, 5000);
    }

    // An open 4 s input at 25 fps in both panes.
    bool openInput(const QVariantMap &info = inputInfo())
    {
        player->addInput(kInput, 0, QStringLiteral("/media/input.mp4"), 4000, 25.0, 1.0, true, info);
        return settle();
    }

    // A preview over 0..2000 ms of the input at `slowmotion` in set kSet, shown on the right.
    bool showPreview(double slowmotion, double framerate = 25.0)
    {
        player->addPreview(kSet, kPreview, 1, kInput, QStringLiteral("/media/preview.mp4"), 0, 2000, framerate,
                           slowmotion, 1.0, QVariantMap{});
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

    bool startPlaying()
    {
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
        commands.attach(*left, 0);
        commands.attach(*right, 1);
        player->setMPVObjects({left.get(), right.get()});
    }

    void cleanup()
    {
        player.reset();
        left.reset();
        right.reset();
    }

    void addInputLoadsBothPanesAndAnnouncesIt()
    {
        QSignalSpy opened(player.get(), &VideoPlayer::openedInput);
        player->addInput(kInput, 1200, QStringLiteral("/media/input.mp4"), 0, 25.0, 1.0, true, inputInfo());
        QVERIFY(opened.wait(5000));
        QCOMPARE(opened.first().at(0).toInt(), kInput);
        QVERIFY(player->getIsOpen());
        // A zero duration is taken from the info.
        QCOMPARE(player->getPreview(kInput)->duration, 4000);
        for (int view : {0, 1})
            QVERIFY(hasLoad(commands.of(view), QStringLiteral("/media/input.mp4"), QStringLiteral("1.200000")));
        QCOMPARE(player->getInputTimestamp(), 1200);

        // The same uid again keeps its record.
        const auto first = player->getPreview(kInput);
        player->addInput(kInput, 0, QStringLiteral("/media/input.mp4"), 4000, 25.0, 1.0, false, inputInfo());
        QVERIFY(opened.wait(5000));
        QCOMPARE(player->getPreview(kInput), first);
    }

    void idlePanesLoadNothingYetTheInputOpens()
    {
        player->setMPVIdle(true);
        QSignalSpy opened(player.get(), &VideoPlayer::openedInput);
        player->addInput(kInput, 0, QStringLiteral("/media/input.mp4"), 4000, 25.0, 1.0, true, inputInfo());
        QVERIFY(opened.wait(5000));
        QVERIFY(commands.matching(0, QStringLiteral("loadfile")).isEmpty());
        QVERIFY(commands.matching(1, QStringLiteral("loadfile")).isEmpty());
        QVERIFY(player->getIsOpen());
    }

    void rotationTurnsPaneByDifferenceOfCodes_data()
    {
        QTest::addColumn<int>("rotation");
        QTest::addColumn<int>("originalRotation");
        QTest::addColumn<QString>("command");
        QTest::newRow("none over none") << 3 << 3 << "set video-rotate 0";
        QTest::newRow("quarter cw over none") << 0 << 3 << "set video-rotate 90";
        QTest::newRow("half over none") << 1 << 3 << "set video-rotate 180";
        QTest::newRow("quarter ccw over none") << 2 << 3 << "set video-rotate 270";
        QTest::newRow("none over quarter cw") << 3 << 0 << "set video-rotate 270";
        QTest::newRow("half over quarter cw") << 1 << 0 << "set video-rotate 90";
        QTest::newRow("same turn twice") << 2 << 2 << "set video-rotate 0";
    }

    void rotationTurnsPaneByDifferenceOfCodes()
    {
        QFETCH(int, rotation);
        QFETCH(int, originalRotation);
        QFETCH(QString, command);
        QVERIFY(openInput(inputInfo(rotation, originalRotation)));
        for (int view : {0, 1}) {
            const QStringList sent = commands.matching(view, QStringLiteral("set video-rotate"));
            QVERIFY(!sent.isEmpty());
            QCOMPARE(sent.first(), command);
        }
    }

    void blackAndWhiteFilterIsSentOnlyOnChange()
    {
        QVariantMap info = inputInfo();
        info[QStringLiteral("isBlackAndWhite")] = false;
        QVERIFY(openInput(info));
        // Off while nothing was set sends nothing.
        QVERIFY(commands.matching(0, QStringLiteral("vf")).isEmpty());

        const QVariantMap on{{QStringLiteral("isBlackAndWhite"), true}};
        player->updateInfo(kInput, on);
        player->updateInfo(kInput, QVariantMap{});
        player->updateInfo(kInput, on);
        QVERIFY(settle());
        QCOMPARE(commands.matching(0, QStringLiteral("vf")),
                 QStringList{QStringLiteral("vf add format=yuv420p,extractplanes=y")});

        player->updateInfo(kInput, QVariantMap{{QStringLiteral("isBlackAndWhite"), false}});
        QVERIFY(settle());
        QCOMPARE(commands.matching(1, QStringLiteral("vf")),
                 (QStringList{QStringLiteral("vf add format=yuv420p,extractplanes=y"),
                              QStringLiteral("vf remove format=yuv420p,extractplanes=y")}));
    }

    void unequalSlowMotionSlowsTheOtherPane_data()
    {
        QTest::addColumn<double>("slowmotion");
        QTest::addColumn<qlonglong>("at");
        QTest::addColumn<QString>("leftSpeed");
        QTest::addColumn<QString>("rightSpeed");
        QTest::newRow("factor 2 against the input") << 2.0 << 500LL << "set speed 0.500000" << "set speed 1.000000";
        QTest::newRow("factor 4 against the input") << 4.0 << 500LL << "set speed 0.250000" << "set speed 1.000000";
        QTest::newRow("factor 1: equal") << 1.0 << 500LL << "set speed 1.000000" << "set speed 1.000000";
        QTest::newRow("past the preview: equal") << 2.0 << 3000LL << "set speed 1.000000" << "set speed 1.000000";
    }

    void unequalSlowMotionSlowsTheOtherPane()
    {
        QFETCH(double, slowmotion);
        QFETCH(qlonglong, at);
        QFETCH(QString, leftSpeed);
        QFETCH(QString, rightSpeed);
        QVERIFY(openInput());
        QVERIFY(showPreview(slowmotion));
        commands.clear();
        player->seek(at);
        QVERIFY(settle());
        QCOMPARE(commands.matching(0, QStringLiteral("set speed")).last(), leftSpeed);
        QCOMPARE(commands.matching(1, QStringLiteral("set speed")).last(), rightSpeed);
        if (at < 2000) {
            // The slowed preview is entered at its own file time.
            const qint64 fileTime = qint64(at * slowmotion);
            QVERIFY(commands.of(1).contains(seekText(fileTime)));
        }
    }

    void stepKeysWrapAtBothEnds_data()
    {
        QTest::addColumn<qlonglong>("from");
        QTest::addColumn<bool>("forward");
        QTest::addColumn<qlonglong>("expected");
        QTest::newRow("next inside") << 1000LL << true << 1040LL;
        QTest::newRow("next on the last frame wraps") << 3960LL << true << 0LL;
        QTest::newRow("prev inside") << 1000LL << false << 960LL;
        QTest::newRow("prev on the first frame wraps") << 0LL << false << 3960LL;
    }

    void stepKeysWrapAtBothEnds()
    {
        QFETCH(qlonglong, from);
        QFETCH(bool, forward);
        QFETCH(qlonglong, expected);
        QVERIFY(openInput());
        player->seek(from);
        QVERIFY(settle());
        forward ? player->next() : player->prev();
        QVERIFY(settle());
        QCOMPARE(player->getInputTimestamp(), expected);
    }

    void stepOverSlowMotionIsAFractionOfAFrame()
    {
        QVERIFY(openInput());
        QVERIFY(showPreview(2.0));
        player->seek(1000);
        QVERIFY(settle());
        player->next();
        QVERIFY(settle());
        QCOMPARE(player->getInputTimestamp(), 1020);
    }

    void pauseRealignsBothPanesOnceBothReportPaused()
    {
        QVERIFY(openInput());
        player->seek(1500);
        QVERIFY(settle());
        QVERIFY(startPlaying());
        QSignalSpy stops(player.get(), &VideoPlayer::stopIR);
        player->pause();
        QVERIFY(!player->getIsPlaying());
        QCOMPARE(stops.count(), 2);
        QCOMPARE(commands.of(0).last(), QStringLiteral("set pause yes"));
        commands.clear();
        player->queuedseekMPVSlotPaused(0);
        QVERIFY(settle());
        QVERIFY(commands.matching(0, QStringLiteral("seek")).isEmpty());
        player->queuedseekMPVSlotPaused(1);
        QVERIFY(settle());
        QVERIFY(commands.of(0).contains(seekText(1500)));
        QVERIFY(commands.of(1).contains(seekText(1500)));
    }

    void seekAfterPauseIsNotUndoneByTheLateRealign()
    {
        QVERIFY(openInput());
        player->seek(1500);
        QVERIFY(settle());
        QVERIFY(startPlaying());
        player->pause();
        player->seek(400);
        QVERIFY(settle());
        commands.clear();
        // mpv's pause reports arrive after the user's seek.
        player->queuedseekMPVSlotPaused(0);
        player->queuedseekMPVSlotPaused(1);
        QVERIFY(settle());
        QVERIFY(commands.matching(0, QStringLiteral("seek")).isEmpty());
        QCOMPARE(player->getInputTimestamp(), 400);
    }

    void inOutRangeLoopsAtTheLastFrameBeforeTheOutPoint_data()
    {
        QTest::addColumn<int>("view");
        QTest::addColumn<qlonglong>("timePos");
        QTest::addColumn<qlonglong>("loopTo"); // -1: no loop
        // Out point 1000, in point 200; the right pane shows a 25 fps preview.
        QTest::newRow("preview before the last frame") << 1 << 959LL << -1LL;
        QTest::newRow("preview on the last frame") << 1 << 960LL << 201LL;
        QTest::newRow("input one ms early") << 0 << 999LL << -1LL;
        QTest::newRow("input on the out point") << 0 << 1000LL << 200LL;
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
        player->seek(300);
        QVERIFY(settle());
        QVERIFY(startPlaying());
        commands.clear();
        player->mpvTimelineSync(view, timePos, false);
        QVERIFY(settle());
        if (loopTo < 0) {
            QVERIFY(player->getIsPlaying());
            QVERIFY(commands.matching(view, QStringLiteral("seek")).isEmpty());
        } else {
            QCOMPARE(player->getInputTimestamp(), loopTo);
            QVERIFY(commands.of(view).contains(seekText(loopTo)));
            QVERIFY(player->getIsPlaying());
        }
    }

    void crossingIntoTheNextStretchReseeksBothPanes()
    {
        QVERIFY(openInput());
        QVERIFY(showPreview(2.0));
        player->seek(1900);
        QVERIFY(settle());
        QVERIFY(startPlaying());
        commands.clear();
        // The right pane's file (slow motion 2) reaches the preview's end.
        player->mpvTimelineSync(1, 4000, false);
        QVERIFY(settle());
        // The preview's stretch ends at 2000 inclusive, so the input takes over at 2001.
        QCOMPARE(player->getInputTimestamp(), 2001);
        QVERIFY(hasLoad(commands.of(1), QStringLiteral("/media/input.mp4"), QStringLiteral("2.001000")));
        QVERIFY(!player->getIsPlaying());
        // The play waits for the panes, then resumes.
        panesReady();
        QVERIFY(player->getIsPlaying());
        QCOMPARE(commands.matching(1, QStringLiteral("set speed")).last(), QStringLiteral("set speed 1.000000"));
    }

    void loopingOnePreviewRestartsItsStretch_data()
    {
        QTest::addColumn<int>("loopingUID");
        QTest::addColumn<qlonglong>("expected");
        QTest::newRow("looping this preview") << kPreview << 0LL;
        QTest::newRow("looping another video advances") << 99 << 2001LL;
    }

    void loopingOnePreviewRestartsItsStretch()
    {
        QFETCH(int, loopingUID);
        QFETCH(qlonglong, expected);
        QVERIFY(openInput());
        QVERIFY(showPreview(1.0));
        player->toggleLoopingPreviews(true, loopingUID);
        player->seek(1900);
        QVERIFY(settle());
        QVERIFY(startPlaying());
        player->mpvTimelineSync(1, 2000, false);
        QVERIFY(settle());
        QCOMPARE(player->getInputTimestamp(), expected);
    }

    void queuedPlayStartsWhenTheLastFlagClears_data()
    {
        QTest::addColumn<QList<int>>("order"); // view*2 + (0 seeking done, 1 loaded)
        QTest::newRow("left load last") << QList<int>{2, 3, 1, 0};
        QTest::newRow("right seek last") << QList<int>{0, 1, 3, 2};
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
            const int view = order[i] / 2;
            if (order[i] % 2)
                player->queuedPlayMPVSlotLoaded(view);
            else
                player->queuedPlayMPVSlotSeeking(view, false);
        }
        QVERIFY(player->getIsPlaying());
    }

    void pauseDuringLiveRenderCancelsExactlyOneLaterRequest_data()
    {
        QTest::addColumn<bool>("viaReload");
        QTest::newRow("reload") << true;
        QTest::newRow("queued play") << false;
    }

    void pauseDuringLiveRenderCancelsExactlyOneLaterRequest()
    {
        QFETCH(bool, viaReload);
        QVERIFY(openInput());
        QVERIFY(showPreview(1.0));
        panesReady();
        player->toggleIR(true);
        QVERIFY(settle());
        player->pause();

        QStringList lines;
        std::mutex linesMutex;
        ConsoleLogger::setCaptureSink([&](const ConsoleLogger::Record &record) {
            const std::lock_guard lock(linesMutex);
            lines.append(record.message);
        });
        const auto count = [&](const QString &head) {
            const std::lock_guard lock(linesMutex);
            return int(std::count_if(lines.begin(), lines.end(), [&](const QString &l) { return l.startsWith(head); }));
        };
        if (viaReload) {
            player->reload(kPreview);
            player->reload(kPreview);
            QVERIFY(settle());
            QCOMPARE(count(QStringLiteral("Reload command NOTTTT queued: ")), 1);
            QCOMPARE(count(QStringLiteral("reloading video: ")), 1);
        } else {
            player->queuePlay();
            player->queuedPlayMPVSlotLoaded(0);
            QVERIFY(!player->getIsPlaying());
            player->queuePlay();
            player->queuedPlayMPVSlotLoaded(0);
            QVERIFY(player->getIsPlaying());
        }
        ConsoleLogger::setCaptureSink({});
    }

    void liveRenderAsksForTheRawStretchAfterThePreview_data()
    {
        QTest::addColumn<bool>("trim");
        QTest::addColumn<bool>("leftFilter");
        QTest::addColumn<QList<QList<qlonglong>>>("expected"); // view, mode, start, end
        QTest::newRow("whole stretch") << false << false << QList<QList<qlonglong>>{{1, 1, 2001, -1}};
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
        QCOMPARE(starts.count(), expected.size());
        for (int i = 0; i < expected.size(); ++i) {
            const QList<QVariant> &args = starts.at(i);
            QCOMPARE((QList<qlonglong>{args.at(0).toLongLong(), args.at(1).toLongLong(), args.at(2).toLongLong(),
                                       args.at(3).toLongLong()}),
                     expected.at(i));
        }
        // With an interrupt the UI learns which pane waits for the renderer.
        QCOMPARE(initiating.count(), 2);
        QCOMPARE(initiating.at(0).at(1).toBool(), leftFilter);
    }

    void previewRangesAndLookupsFollowTheSet()
    {
        QVERIFY(openInput());
        QVERIFY(showPreview(1.0));
        QCOMPARE(player->getPreviewRanges(kSet), (std::vector<QPoint>{QPoint(0, 2000)}));
        QVERIFY(player->previewExistsAtTimestampInPS(kSet, 2000));
        QVERIFY(!player->previewExistsAtTimestampInPS(kSet, 2001));
        QVERIFY(player->getPreviewRanges(42).empty());
        QVERIFY(player->getInfo(42).isEmpty());

        player->closePreview(kPreview);
        QVERIFY(settle());
        QVERIFY(!player->containsPreview(kPreview));
        QVERIFY(player->getPreviewRanges(kSet).empty());
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
