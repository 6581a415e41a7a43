// View nodes and their manager on real timelines; the playable nodes that
// ready a view's readers on numbered clips; the arithmetic between file time
// and the input's axis that they use (the rows that sit on a truncation, a
// rounding or a precision limit); and the player's request queue: every
// coalescing case as a table and its idleness. The panes are real MPVObjects
// that are never put in a window: their mpv never starts, and the commands they
// would send are read through the player's command observer.
#include "PlayerMedia.h"
#include "../timeline/TimelineFixture.h"

#include "playback/SyncMath.h"
#include "playback/VPReqQueue.h"
#include "playback/ViewNode.h"
#include "playback/ViewNodeManager.h"
#include "timeline/SyncView.h"
#include "videoio/Reader.h"
#include "videoio/VideoManager.h"

#include <QTemporaryDir>
#include <QTest>

#include <mutex>

using namespace videoplayer;
using namespace syncmath;

namespace {

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

} // namespace

class tst_ViewNode : public QObject
{
    Q_OBJECT

private:
    std::mutex timestampMutex;
    std::mutex infoMutex;
    playermedia::PaneCommands commands;
    std::unique_ptr<LogCapture> log;
    std::vector<std::shared_ptr<MPVObject>> panes;
    std::shared_ptr<Video> input;
    std::shared_ptr<Video> preview;
    // A 4 s clip at 25 fps with two previews rendered from it, as files:
    //   I(0,999) P(1000,2000) I(2001,2499) Q(2500,3000) I(3001,4000)
    // P is rendered at slow motion 2 (its file is 2 s long), Q at 1.
    QTemporaryDir dir;
    QString clip, p, q;

    std::unique_ptr<ViewNode> makeNode(int viewID, std::shared_ptr<MPVObject> mpv)
    {
        if (mpv) {
            commands.watch(*mpv);
            // Nodes only hold the use of a pane; the scene (here the test) owns it.
            panes.push_back(mpv);
        }
        return std::make_unique<ViewNode>(viewID, 0, QVariantMap{}, std::move(mpv), 1.0f, ViewNode::FrameRange{0, 0},
                                          0.0, 1.0, nullptr, nullptr, &timestampMutex, &infoMutex);
    }

private slots:
    void initTestCase()
    {
        clip = dir.filePath(QStringLiteral("input.mp4"));
        p = dir.filePath(QStringLiteral("p.mp4"));
        q = dir.filePath(QStringLiteral("q.mp4"));
        QVERIFY(playermedia::makeInput(clip));
        QVERIFY(playermedia::makePreview(clip, p, 1000, 1000, 2));
        QVERIFY(playermedia::makePreview(clip, q, 2500, 500, 1));
    }

    void init()
    {
        commands.clear();
        log = std::make_unique<LogCapture>();
        input = makeVideo(1, 0, 10000, "/in.mp4", 1.0, 10000);
        // A preview over 2000..3000 of the input, rendered at slow motion 2.
        preview = makeVideo(2, 2000, 1000, "/a.mp4", 2.0, 2000);
    }

    void cleanup()
    {
        log.reset();
        panes.clear();
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
        QVERIFY(commands.of().isEmpty());
        // A refused seek says why.
        QCOMPARE(log->count(QString(), ConsoleLogger::Warn), 1);
        // The input's node has no pane and takes any position.
        auto in = makeNode(-1, nullptr);
        QVERIFY(in->seekTo(-1));
        QCOMPARE(in->getTimestamp(), -1);
    }

    // The clamp before the start and the factor's fraction are the playable
    // node's rows below, through the same arithmetic.
    void syncViewRealignsWithoutMpv()
    {
        auto node = makeNode(0, std::make_shared<MPVObject>());
        node->currentVideo = preview;
        node->truthTS = 2300;
        node->SyncView();
        QCOMPARE(node->getTimestamp(), 600);
        QCOMPARE(node->mpvTS.load(), qint64(600));
        // The way back to truthTS leaves the factor out.
        QCOMPARE(node->truthTS.load(), qint64(2600));
        QVERIFY(commands.of().isEmpty());
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
        QStringList sent = commands.of();
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
        QCOMPARE(commands.of().value(0), sent);
        // Views the manager does not hold are refused without a command.
        commands.clear();
        for (int view : {-1, 5})
            manager.resetOne(view, true);
        QVERIFY(commands.of().isEmpty());
    }

    void setInfosCallsBackOnlyOnChangeInsideTheLock()
    {
        auto in = makeNode(-1, nullptr);
        auto left = makeNode(0, nullptr);
        int calls = 0;
        bool lockedDuringCall = false;
        const auto onInfo = [&] {
            ++calls;
            lockedDuringCall = !infoMutex.try_lock();
            if (!lockedDuringCall)
                infoMutex.unlock();
        };
        ViewNodeManager manager({{-1, in.get()}, {0, left.get()}}, &timestampMutex, &infoMutex, {}, {}, {}, onInfo, {},
                                {});
        manager.setInfos({{QVariantMap(), 0}});
        QCOMPARE(calls, 0); // empty and null maps are equal
        manager.setInfos({{QVariantMap{{"fps", 25.0}}, 0}, {QVariantMap{{"fps", 30.0}}, 7}});
        QCOMPARE(calls, 1);
        QVERIFY(lockedDuringCall);
        manager.setInfos({{QVariantMap{{"fps", 25.0}}, 0}});
        QCOMPARE(calls, 1);
        QCOMPARE(left->getInfo(), (QVariantMap{{"fps", 25.0}}));
    }

    void timestampsArePublishedTogetherOutsideTheLock()
    {
        auto in = makeNode(-1, nullptr);
        auto left = makeNode(0, nullptr);
        auto right = makeNode(1, nullptr);
        QList<QList<int>> seen;
        const auto snapshot = [&] { seen.append({in->getTimestamp(), left->getTimestamp(), right->getTimestamp()}); };
        ViewNodeManager manager({{-1, in.get()}, {0, left.get()}, {1, right.get()}}, &timestampMutex, &infoMutex,
                                snapshot, {}, snapshot, {}, snapshot, {});
        manager.setAllTimestamps(4200);
        QCOMPARE(seen, (QList<QList<int>>{{4200, 4200, 4200}, {4200, 4200, 4200}, {4200, 4200, 4200}}));
        seen.clear();
        manager.setTimestamps({{10, 0}, {20, 1}, {30, 9}});
        QCOMPARE(seen, (QList<QList<int>>{{4200, 10, 20}, {4200, 10, 20}}));
    }

    void updateInfoFromVideosTakesTheLockOnce()
    {
        auto in = makeNode(-1, nullptr);
        auto left = makeNode(0, nullptr);
        int calls = 0;
        ViewNodeManager manager({{-1, in.get()}, {0, left.get()}}, &timestampMutex, &infoMutex, {},
                                [&calls] { ++calls; }, {}, [&calls] { ++calls; }, {}, {});
        left->setInfo({{"kept", true}});
        manager.updateInfoFromVideos(); // no video yet: the info stays
        QCOMPARE(left->getInfo(), (QVariantMap{{"kept", true}}));
        calls = 0;
        in->currentVideo = input;
        left->currentVideo = preview;
        manager.updateInfoFromVideos(); // would deadlock if a node took the lock again
        QCOMPARE(calls, 2);
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
        QCOMPARE(shown->rData.videos.size(), 5u);
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
        QVERIFY(pReader->isPreviewReader() && !a.playNodes[0]->isPreviewReader());
        QCOMPARE(pReader->getInfo()["slowMoFactor"].toDouble(), factor);

        const PlayableNode &b = *sync.nodeB();
        QVERIFY(!b.currentVideo && b.videos.empty() && !right->currentVideo);
        QCOMPARE(b.videoTimestamp, TSType(0));
    }

    void previewReaderReplacesAPlainOneOfItsFile()
    {
        const auto shared = videoio::VideoManager::GetReader(clip);
        QVERIFY(!shared->isPreviewReader());
        const auto preview = videoio::VideoManager::GetPreviewReader(clip, 3.0);
        QVERIFY(preview != shared && preview->isPreviewReader());
        QCOMPARE(videoio::VideoManager::GetReader(clip), preview);
        QCOMPARE(videoio::VideoManager::GetPreviewReader(clip, 4.0), preview);
        QCOMPARE(preview->getInfo()["slowMoFactor"].toDouble(), 4.0);
    }

    void seekIsSinglePrecisionLoadIsDouble()
    {
        // Past about four and a half hours a float no longer holds every millisecond.
        const struct { qint64 ms; const char *seek, *load; } rows[] = {
            {1480, "1.480000", "1.480000"},
            {18000001, "18000.000000", "18000.001000"},
            {36000003, "36000.003906", "36000.003000"}};
        for (const auto &row : rows) {
            QCOMPARE(QString::asprintf("%f", seekSeconds(row.ms)), QLatin1String(row.seek));
            QCOMPARE(QString::asprintf("%f", loadSeconds(row.ms)), QLatin1String(row.load));
        }
    }

    void fileTimeAndInputAxis()
    {
        QCOMPARE(fileToInput(100, 3.0f, 1000), qint64(1033)); // truncates
        QCOMPARE(inputToFile(1033, 1000, 3.0f), qint64(99));
        // A distance, not a difference: before the start it is still positive.
        QCOMPARE(syncOnePosition(1500, 2000, 1.0f), qint64(500));
        QCOMPARE(syncOnePosition(2100, 2000, 1.5f), qint64(150)); // the factor's fraction is kept
    }

    void framesAndSteps()
    {
        QCOMPARE(timestepMs(29.97), qint64(33));
        // Past half a frame rounds up, below it rounds down.
        QCOMPARE(frameFromMs(1021, 25.0), 26);
        QCOMPARE(snapToFrameMs(1021, 25.0), 1040);
        QCOMPARE(frameFromMs(1019, 25.0), 25);
        QCOMPARE(snapToFrameMs(1019, 25.0), 1000);
        QCOMPARE(timestepMs(0.0), qint64(0)); // no rate
        QCOMPARE(frameRange(0, 1000, 40), Range(0, 960));
    }

    void coalescing_data()
    {
        QTest::addColumn<QVariantList>("script");
        QTest::addColumn<QList<QVariantMap>>("expected");

        QTest::newRow("seeks collapse to the newest time with the first flags")
            << QVariantList{seek(100, true, true), seek(200, false, false), seek(300, false, false)}
            << QList<QVariantMap>{seek(300, true, true)};
        QTest::newRow("a seek keeps its place among other requests")
            << QVariantList{seek(100), request(Play), seek(200)}
            << QList<QVariantMap>{seek(200), request(Play)};
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
        QTest::newRow("other types never merge")
            << QVariantList{request(Play), request(Play), request(Refresh), request(ShowBlack)}
            << QList<QVariantMap>{request(Play), request(Play), request(Refresh), request(ShowBlack)};
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
        QVERIFY(queue.idle());
        queue.push(request(Play));
        QVERIFY(!queue.idle());
        QVariantMap out;
        QVERIFY(queue.pop(out));
        // Empty, but the worker has not done it yet.
        QVERIFY(queue.empty());
        QVERIFY(!queue.idle());
        queue.finished();
        QVERIFY(queue.idle());
    }
};

QTEST_MAIN(tst_ViewNode)
#include "tst_ViewNode.moc"
