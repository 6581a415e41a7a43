#include "playback/TransportHandler.h"

#include "playback/MPVObject.h"
#include "playback/SyncMath.h"
#include "playback/VideoPlayer.h"

#include <algorithm>
#include <cmath>
#include <mutex>

namespace videoplayer {

namespace {

QString speedCommand(double speed)
{
    return QStringLiteral("set speed ") + QString::asprintf("%f", speed);
}

} // namespace

TransportHandler::TransportHandler(VideoPlayer &owner)
    : player(owner)
{
}

void TransportHandler::requestSeek(TSType t, bool interrupt, bool initIR)
{
    // The pause half of a seek acts at once, so that position reports arriving
    // before the worker performs the seek find the player stopped.
    if (player.isPlaying)
        handlePause(false);
    player.seekRequested = true;
    player.push({{QStringLiteral("type"), Seek},
                 {QStringLiteral("timestamp"), qlonglong(t)},
                 {QStringLiteral("interrupt"), interrupt},
                 {QStringLiteral("initIR"), initIR}});
}

void TransportHandler::requestPlay()
{
    player.push({{QStringLiteral("type"), Play}});
}

void TransportHandler::loadVideo(int viewID, const std::string &path, qint64 position)
{
    if (viewID == -1 || player.isMPVIdle)
        return;
    player.usePane(viewID, [&](MPVObject &pane) {
        player.log.log(QStringLiteral("loading video ") + QString::fromStdString(path)
                       + QStringLiteral(" MPV %1").arg(viewID));
        player.viewLoading[static_cast<size_t>(viewID)] = true;
        pane.load(path, position);
    });
}

void TransportHandler::openVideoForView(int viewID, qint64 position, const std::shared_ptr<Video> &video)
{
    player.log.log(
        QStringLiteral("Trying to open video for view %1 to timestamp: %2 for video ").arg(viewID).arg(position)
        + (video ? QString::fromStdString(video->filepath) : QString()));
    if (!video)
        return;
    ViewNode *n = player.node(viewID);
    bool alreadyOpen = false;
    {
        const std::lock_guard lock(player.timelineMutex);
        alreadyOpen = n->loadedPath == video->filepath && n->currentVideo
            && n->currentVideo->startOffset + n->currentVideo->duration == video->startOffset + video->duration;
    }
    if (alreadyOpen) {
        player.log.log(QStringLiteral("Not opening, this video is already open."));
        n->seekTo(position);
    } else {
        player.log.log(QStringLiteral("Set view %1 framerate to %2").arg(viewID).arg(video->framerate));
        const bool isInput = video == player.input();
        QVariantMap filters;
        if (isInput) {
            const std::lock_guard lock(player.infoMutex);
            filters = video->info;
        } else {
            filters = player.defaultFilterInfo;
            filters[QStringLiteral("fps")] = video->framerate;
            filters[QStringLiteral("isImageSequence")] = video->isGenerating;
        }
        player.inputs.applyFilters(viewID, filters, false);
        loadVideo(viewID, video->filepath, position);
        if (isInput) {
            QRect crop;
            {
                const std::lock_guard lock(player.stateMutex);
                crop = player.videoCrop;
            }
            player.setVideoCropToView(viewID, crop.x(), crop.y(), crop.width(), crop.height());
        } else {
            player.clearVideoCropToView(viewID);
        }
        n->updateInfoFromVideo(video);
        n->seekTo(position);
        player.log.log(QStringLiteral("Opened id %1 for preview filepath:").arg(viewID)
                       + QString::fromStdString(video->filepath));
        const std::lock_guard lock(player.timelineMutex);
        n->loadedPath = video->filepath;
    }
    {
        const std::lock_guard lock(player.timelineMutex);
        n->currentVideo = video;
    }
    QVariantMap info = n->getInfo();
    info[QStringLiteral("sar")] = n->sar;
    info[QStringLiteral("framerate")] = n->framerate;
    n->setInfo(info);
}

void TransportHandler::handleSeek(TSType t, bool interrupt, bool initIR, bool pauseFirst)
{
    if (player.isPlaying && pauseFirst)
        handlePause(false);
    if (interrupt) {
        player.queuedPlay = false;
        for (int view : {0, 1}) {
            player.irInitiating[static_cast<size_t>(view)] = false;
            player.emitInitiating(view, player.irInitiating[static_cast<size_t>(view)], 1);
        }
    }
    player.viewAtEnd[0] = false;
    player.viewAtEnd[1] = false;
    if (!player.isOpen)
        return;

    const PlayOrder orders[2] = {player.orderAt(player.leftNode.get(), t), player.orderAt(player.rightNode.get(), t)};
    player.inputNode->seekTo(t);
    for (int view : {0, 1}) {
        const PlayOrder &order = orders[view];
        const QString side = view == 0 ? QStringLiteral("left") : QStringLiteral("right");
        if (!order.preview) {
            player.log.log(QStringLiteral("No %1 preview found").arg(side));
            openVideoForView(view, t, order.input);
            if (initIR) {
                player.notify([this, view] { emit player.stopIR(view); });
                player.emitInitiating(view, false, 1);
            }
            continue;
        }
        const qint64 position = syncmath::inputToFile(t, order.preview->startOffset, order.preview->slowmotion);
        player.log.log(QStringLiteral("found and seeked %1 video to %2 %3").arg(side).arg(t).arg(position));
        openVideoForView(view, position, order.preview);
        if (!order.preview->isGenerating && initIR)
            lookAheadStopIR(view, order);
    }
    setSpeeds();
}

void TransportHandler::lookAheadStopIR(int viewID, const PlayOrder &order)
{
    const int count = static_cast<int>(order.videos.size());
    if (count == 0)
        return;
    const auto currentIn = player.input();
    for (int step = 1; step < count; ++step) {
        const auto &video = order.videos[static_cast<size_t>((order.index + step) % count)];
        if (!video || video->isGenerating)
            return;
        if (video == currentIn) {
            player.notify([this, viewID] { emit player.stopIR(viewID); });
            player.emitInitiating(viewID, false, 1);
            return;
        }
    }
}

void TransportHandler::setSpeeds()
{
    const float leftFactor = player.leftNode->slowMotion;
    const float rightFactor = player.rightNode->slowMotion;
    // "set speed" replaces any trim of the frame lock, whose lines start anew.
    player.frameLock.reset();
    // Sent without waiting: a core busy with an exact seek would hold the
    // worker, and with it the next seek of a burst, until that seek is done.
    if (leftFactor == rightFactor) {
        player.forEachPane([](MPVObject &pane) { pane.executeCommand(speedCommand(1.0), true); });
        player.baseSpeed[0] = 1.0;
        player.baseSpeed[1] = 1.0;
        return;
    }
    // The pane with the greater factor runs at normal speed; the other is
    // slowed so that both advance equally on the input's axis.
    const bool leftIsSlow = leftFactor > rightFactor;
    ViewNode *slowNode = leftIsSlow ? player.leftNode.get() : player.rightNode.get();
    ViewNode *fastNode = leftIsSlow ? player.rightNode.get() : player.leftNode.get();
    const syncmath::Speeds speeds = syncmath::paneSpeeds(leftFactor, rightFactor);
    slowNode->mpv.use([](MPVObject &pane) { pane.executeCommand(speedCommand(1.0), true); });
    const double fastSpeed = leftIsSlow ? speeds.right : speeds.left;
    player.baseSpeed[leftIsSlow ? 0 : 1] = 1.0;
    player.baseSpeed[leftIsSlow ? 1 : 0] = fastSpeed;
    fastNode->mpv.use([fastSpeed](MPVObject &pane) { pane.executeCommand(speedCommand(fastSpeed), true); });
    player.log.log(QStringLiteral("_$$_ slowNode: %1").arg(slowNode->getTimestamp()));
    player.log.log(QStringLiteral("_$$_ fastNode: %1").arg(fastNode->getTimestamp()));
}

void TransportHandler::handleNext()
{
    handleStep(true);
}

void TransportHandler::handlePrev()
{
    handleStep(false);
}

void TransportHandler::handleStep(bool forward)
{
    if (!player.isOpen)
        return;
    // One frame of the slower pane, so a slow-motion preview steps through
    // each of its own frames.
    const qint64 timestep = player.inputNode->getInfo().value(QStringLiteral("timestep")).toLongLong();
    const float factor = std::max(player.leftNode->slowMotion, player.rightNode->slowMotion);
    const auto step = static_cast<qint64>(static_cast<float>(timestep) / factor);
    const auto frames = player.inputNode->frameRange;
    const syncmath::Range range {frames.first, frames.second};
    const qint64 target = forward ? syncmath::stepForward(player.getInputTimestamp(), step, range)
                                  : syncmath::stepBackward(player.getInputTimestamp(), step, range);
    handleSeek(target, true, false, true);
    if (player.isPlaying && player.requests.empty())
        handlePlay();
}

void TransportHandler::pause()
{
    if (player.irEnabled)
        player.cancelPendingPlay = true;
    player.resumeAfterReload = false;
    player.notify([this] {
        emit player.stopIR(0);
        emit player.stopIR(1);
    });
    handlePause(true);
}

void TransportHandler::handlePause(bool thenSeek)
{
    if (!player.isPlaying)
        return;
    player.isPlaying = false;
    // A reload that interrupts play resumes it; the UI must not see it stop.
    if (!(player.resumeAfterReload && !player.cancelPendingPlay))
        player.notify([this] { emit player.isPlayingChanged(); });
    player.forEachPane([](MPVObject &pane) { pane.pause(); });
    if (thenSeek)
        player.queuedSeek = true;
    player.frameLock.reset();
    player.leftNode->timelineSyncEnabled = false;
    player.rightNode->timelineSyncEnabled = false;
}

void TransportHandler::queuedseekMPVSlotPaused(int mpvID)
{
    if (!player.isPane(mpvID))
        return;
    player.viewPaused[static_cast<size_t>(mpvID)] = true;
    if (!player.queuedSeek || !player.viewPaused[0] || !player.viewPaused[1])
        return;
    // Both panes stopped where mpv happened to be: put them back on one frame.
    requestSeek(player.getInputTimestamp(), true, false);
    player.queuedSeek = false;
    player.viewPaused[0] = false;
    player.viewPaused[1] = false;
}

void TransportHandler::handlePlay()
{
    if (!player.irEnabled) {
        if (player.irInitiating[0] || player.irInitiating[1] || !player.isOpen)
            return;
        initTimelineForPlaying(player.getInputTimestamp());
        for (int view : {1, 0})
            player.usePane(view, [](MPVObject &pane) { pane.play(); });
        player.isPlaying = true;
        player.notify([this] { emit player.isPlayingChanged(); });
        return;
    }
    player.initLiveRenderAtTS(player.getInputTimestamp(), true);
    if (!player.viewSeeking[0] && !player.viewSeeking[1])
        handleQueuedPlay();
}

void TransportHandler::initTimelineForPlaying(qlonglong timePos)
{
    const std::lock_guard lock(player.timelineMutex);
    player.leftNode->initTimelineForPlaying(timePos);
    player.rightNode->initTimelineForPlaying(timePos);
}

void TransportHandler::queuePlay()
{
    if (player.cancelPendingPlay.exchange(false)) {
        player.notify([this] { emit player.isPlayingChanged(); });
        return;
    }
    player.queuedPlay = true;
}

void TransportHandler::clearQueuedPlays()
{
    player.queuedPlay = false;
}

void TransportHandler::queuedPlayMPVSlotSeeking(int mpvID, bool seeking)
{
    if (!player.isPane(mpvID))
        return;
    player.viewSeeking[static_cast<size_t>(mpvID)] = seeking;
    if (player.queuedPlay)
        executeQueuedPlay();
}

void TransportHandler::queuedPlayMPVSlotLoaded(int mpvID)
{
    if (!player.isPane(mpvID))
        return;
    player.viewLoading[static_cast<size_t>(mpvID)] = false;
    if (player.queuedPlay)
        executeQueuedPlay();
}

void TransportHandler::executeQueuedPlay()
{
    if (player.viewSeeking[0] || player.viewSeeking[1] || player.viewLoading[0] || player.viewLoading[1]
        || player.isPlaying || player.seekRequested)
        return;
    handleQueuedPlay();
    player.queuedPlay = false;
}

void TransportHandler::handleQueuedPlay()
{
    if (player.cancelPendingPlay.exchange(false)) {
        player.notify([this] { emit player.isPlayingChanged(); });
        return;
    }
    if (player.viewSeeking[0] || player.viewSeeking[1] || player.irInitiating[0] || player.irInitiating[1]
        || !player.isOpen)
        return;
    initTimelineForPlaying(player.getInputTimestamp());
    for (int view : {1, 0})
        player.usePane(view, [](MPVObject &pane) { pane.play(); });
    player.isPlaying = true;
    player.emitInitiating(0, false, 1);
    player.emitInitiating(1, false, 1);
    // The play that ends a reload is the one notification it holds back.
    if (!player.resumeAfterReload.exchange(false))
        player.notify([this] { emit player.isPlayingChanged(); });
}

} // namespace videoplayer
