#include "playback/VideoPlayer.h"

#include "playback/MPVObject.h"
#include "playback/SyncMath.h"

#include <QThread>

#include <algorithm>
#include <cmath>
#include <mutex>

namespace videoplayer {

VideoPlayer::VideoPlayer(QObject *parent)
    : VideoPlayerContext(parent)
{
    // The worker only waits on the queue until the first request, so it can
    // start before the rest of the player is built.
    worker = std::thread([this] { runWorker(); });

    log.prefix = QStringLiteral("VideoPlayer ===---");
    defaultFilterInfo = {{QStringLiteral("rotation"), 3},
                         {QStringLiteral("originalRotation"), 3},
                         {QStringLiteral("isBlackAndWhite"), QStringLiteral("false")}};

    const auto makeNode = [this](int viewID) {
        return std::make_unique<ViewNode>(viewID, 0, QVariantMap{}, nullptr, 1.0f, ViewNode::FrameRange{0, 0}, 0.0,
                                          1.0, nullptr, nullptr, &timestampMutex, &infoMutex);
    };
    inputNode = makeNode(-1);
    leftNode = makeNode(0);
    rightNode = makeNode(1);
    views.insert(-1, inputNode.get());
    views.insert(0, leftNode.get());
    views.insert(1, rightNode.get());
    const auto emitter = [this](void (VideoPlayer::*signal)()) {
        return [this, signal] { notify([this, signal] { emit(this->*signal)(); }); };
    };
    viewNodeManager = std::make_unique<ViewNodeManager>(
        views, &timestampMutex, &infoMutex, emitter(&VideoPlayer::inputTimestampChanged),
        emitter(&VideoPlayer::inputInfoChanged), emitter(&VideoPlayer::leftTimestampChanged),
        emitter(&VideoPlayer::leftInfoChanged), emitter(&VideoPlayer::rightTimestampChanged),
        emitter(&VideoPlayer::rightInfoChanged));
}

VideoPlayer::~VideoPlayer()
{
    workerRunning = false;
    requests.stop();
    if (worker.joinable())
        worker.join();
}

// ---- worker ---------------------------------------------------------------

void VideoPlayer::runWorker()
{
    QVariantMap request;
    while (workerRunning) {
        if (!requests.pop(request))
            break;
        perform(request);
        requests.finished();
    }
}

void VideoPlayer::push(QVariantMap request)
{
    requests.push(request);
}

bool VideoPlayer::isIdle() const
{
    return requests.idle();
}

void VideoPlayer::perform(const QVariantMap &request)
{
    const int type = request.value(QStringLiteral("type")).toInt();
    log.log(QStringLiteral("Incoming request: %1 %2").arg(type).arg(requestName(type)));
    const auto value = [&request](const char *key) { return request.value(QLatin1String(key)); };
    switch (type) {
    case AddInput:
        inputs.handleAddInput(request);
        break;
    case Seek:
        seekRequested = false;
        transport.handleSeek(value("timestamp").toLongLong(), value("interrupt").toBool(), value("initIR").toBool(), true);
        // The panes may have reported the end of their seek before the worker
        // got here; then nothing else would start a waiting play.
        if (queuedPlay)
            transport.executeQueuedPlay();
        break;
    case Prev:
        transport.handlePrev();
        break;
    case Next:
        transport.handleNext();
        break;
    case Play:
        transport.handlePlay();
        break;
    case Pause:
        transport.handlePause(true);
        break;
    case Reload:
        inputs.handleReload(request);
        break;
    case UpdateInfo:
        inputs.handleUpdateInfo(value("uid").toInt(), value("newInfo").toMap());
        break;
    case ShowBlack:
    case Refresh:
    case UpdateThumbnail:
        break;
    case AddPreview:
        inputs.handleAddPreview(request);
        break;
    case CloseInput:
        log.log(QStringLiteral("Handling close input for uid = %1").arg(value("uid").toInt()));
        break;
    case ClosePreview: {
        // Read and left alone: closing by set and source has no effect here.
        [[maybe_unused]] const int psUID = value("psUID").toInt();
        [[maybe_unused]] const int previewUID = value("previewUID").toInt();
        [[maybe_unused]] const int sourceUID = value("sourceUID").toInt();
        break;
    }
    case ClosePreviewByUID:
        inputs.handleClosePreview(value("previewUID").toInt());
        break;
    case ResetView:
        inputs.handleResetView(value("viewID").toInt());
        break;
    case SetPreviewSet:
        inputs.handleSetPreviewSet(value("viewID").toInt(), value("psUID").toInt());
        break;
    case Close:
        workerRunning = false;
        break;
    case RemovePreviewSet: {
        const std::lock_guard lock(timelineMutex);
        timelineManager.deleteTimeline(value("psUID").toInt());
        break;
    }
    case ClearTimeline: {
        const std::lock_guard lock(timelineMutex);
        if (const auto timeline = timelineManager.getTimeline(value("psUID").toInt()))
            timeline->clear();
        break;
    }
    default:
        log.log(QStringLiteral("Invalid player request type"), ConsoleLogger::Warn);
        break;
    }
}

// ---- small accessors ------------------------------------------------------

void VideoPlayer::notify(std::function<void()> emitter)
{
    if (QThread::currentThread() == thread())
        emitter();
    else
        QMetaObject::invokeMethod(this, std::move(emitter), Qt::QueuedConnection);
}

void VideoPlayer::emitInitiating(int viewID, bool value, int mode)
{
    notify([this, viewID, value, mode] { emit isInitiatingIRChanged(viewID, value, mode); });
}

bool VideoPlayer::isPane(int viewID)
{
    return viewID == 0 || viewID == 1;
}

ViewNode *VideoPlayer::node(int viewID) const
{
    return views.value(viewID);
}

bool VideoPlayer::usePane(int viewID, const std::function<void(MPVObject &)> &use) const
{
    const ViewNode *n = node(viewID);
    return n && n->mpv.use(use);
}

std::shared_ptr<Video> VideoPlayer::input() const
{
    const std::lock_guard lock(stateMutex);
    return currentInput;
}

void VideoPlayer::setInput(std::shared_ptr<Video> video)
{
    const std::lock_guard lock(stateMutex);
    currentInput = std::move(video);
}

std::shared_ptr<Video> VideoPlayer::findVideo(UID uid) const
{
    const std::lock_guard lock(stateMutex);
    const auto found = videos.find(uid);
    return found == videos.end() ? nullptr : found->second;
}

QPoint VideoPlayer::getInOutRange() const
{
    const std::lock_guard lock(stateMutex);
    return inOutRange;
}

TSType VideoPlayer::inputEnd() const
{
    const auto video = input();
    return video ? video->startOffset + video->duration : 0;
}

std::shared_ptr<Timeline> VideoPlayer::timelineOf(ViewNode *n)
{
    const std::lock_guard lock(timelineMutex);
    return n->timeline;
}

void VideoPlayer::setTimelineOf(ViewNode *n, std::shared_ptr<Timeline> timeline)
{
    const std::lock_guard lock(timelineMutex);
    n->timeline = std::move(timeline);
}

PlayOrder VideoPlayer::orderAt(ViewNode *n, TSType t)
{
    PlayOrder order;
    const std::lock_guard lock(timelineMutex);
    if (!n->timeline)
        return order;
    const RData &data = n->timeline->getRData(t);
    order.ranges = data.ranges;
    order.videos = data.videos;
    order.index = data.index;
    order.preview = n->timeline->getPreviewAt(t);
    order.input = n->timeline->input;
    return order;
}

// ---- properties -----------------------------------------------------------

std::vector<MPVObject *> VideoPlayer::getMPVObjects() const
{
    // The panes still alive: a pane the scene destroyed has left its node.
    std::vector<MPVObject *> panes;
    for (const ViewNode *n : {leftNode.get(), rightNode.get()}) {
        if (const MPVObject *held = n->mpv.held())
            panes.push_back(const_cast<MPVObject *>(held));
    }
    return panes;
}

void VideoPlayer::setMPVObjects(const std::vector<MPVObject *> &mpvObjects)
{
    for (int i = 0; i < static_cast<int>(mpvObjects.size()) && i < 2; ++i) {
        MPVObject *item = mpvObjects[static_cast<size_t>(i)];
        if (!item)
            continue;
        // The scene owns its items; the nodes only share the use of them.
        node(i)->mpv.attach(item);
        item->setMPVID(i);
        blackAndWhiteSet[static_cast<size_t>(i)] = false;
        connect(item, &MPVObject::timePosFullChanged, this, &VideoPlayer::mpvTimelineSync);
        connect(item, &MPVObject::seekingChanged, this, &VideoPlayer::queuedPlayMPVSlotSeeking);
        connect(item, &MPVObject::fileLoaded, this, &VideoPlayer::queuedPlayMPVSlotLoaded);
        connect(item, &MPVObject::paused, this, &VideoPlayer::queuedseekMPVSlotPaused);
    }
}

bool VideoPlayer::getIsOpen() const
{
    return isOpen;
}

bool VideoPlayer::getIsMPVIdle() const
{
    return isMPVIdle;
}

QVariantMap VideoPlayer::getInputInfo() const
{
    return inputNode->getInfo();
}

qlonglong VideoPlayer::getLeftTimestamp() const
{
    return leftNode->getTimestamp();
}

qlonglong VideoPlayer::getRightTimestamp() const
{
    return rightNode->getTimestamp();
}

QVariantMap VideoPlayer::getLeftInfo() const
{
    return leftNode->getInfo();
}

QVariantMap VideoPlayer::getRightInfo() const
{
    return rightNode->getInfo();
}

qlonglong VideoPlayer::getInputTimestamp()
{
    return inputNode->getTimestamp();
}

qint64 VideoPlayer::truthTS(int viewID) const
{
    const ViewNode *n = node(viewID);
    return n ? n->truthTS.load() : 0;
}

// ---- queueing slots -------------------------------------------------------

void VideoPlayer::seek(TSType requestedTimestamp, bool interrupt, bool initIR)
{
    // A seek asked for after a pause supersedes the realigning seek that waits
    // for both panes to report paused; that one would carry the old position
    // and could land after this one.
    queuedSeek = false;
    push({{QStringLiteral("type"), Seek},
          {QStringLiteral("timestamp"), qlonglong(requestedTimestamp)},
          {QStringLiteral("interrupt"), interrupt},
          {QStringLiteral("initIR"), initIR}});
}

void VideoPlayer::seek(TSType requestedTimestamp, bool interrupt)
{
    seek(requestedTimestamp, interrupt, true);
}

void VideoPlayer::seek(TSType requestedTimestamp)
{
    seek(requestedTimestamp, true, true);
}

void VideoPlayer::next()
{
    push({{QStringLiteral("type"), Next}});
}

void VideoPlayer::prev()
{
    push({{QStringLiteral("type"), Prev}});
}

void VideoPlayer::play()
{
    push({{QStringLiteral("type"), Play}});
}

void VideoPlayer::close()
{
    log.log(QStringLiteral("close called!"));
    // The panes stop following their timelines before the queue runs dry.
    {
        const std::lock_guard lock(timelineMutex);
        for (ViewNode *n : {leftNode.get(), rightNode.get()}) {
            if (n->timeline)
                n->timeline->clear();
        }
    }
    push({{QStringLiteral("type"), Close}});
}

void VideoPlayer::refresh()
{
    push({{QStringLiteral("type"), Refresh}});
}

void VideoPlayer::showNothing()
{
}

void VideoPlayer::addInput(UID uid, TSType timestamp, QString filepath, TSType duration, double framerate, double sar,
                           bool firstLoad, QVariantMap inputInfo)
{
    push({{QStringLiteral("type"), AddInput},
          {QStringLiteral("uid"), uid},
          {QStringLiteral("timestamp"), qlonglong(timestamp)},
          {QStringLiteral("filepath"), filepath},
          {QStringLiteral("duration"), qlonglong(duration)},
          {QStringLiteral("framerate"), framerate},
          {QStringLiteral("sar"), sar},
          {QStringLiteral("firstLoad"), firstLoad},
          {QStringLiteral("inputInfo"), inputInfo}});
}

void VideoPlayer::closeInput(UID uid)
{
    push({{QStringLiteral("type"), CloseInput}, {QStringLiteral("uid"), uid}});
}

void VideoPlayer::resetViewToInput(int viewID)
{
    push({{QStringLiteral("type"), ResetView}, {QStringLiteral("viewID"), viewID}});
}

void VideoPlayer::addPreview(PreviewSetUID psUID, UID previewUID, int selectedView, UID inputUID, QString filepath,
                             TSType startOffset, TSType duration, double framerate, double slowmotion, double sar,
                             QVariantMap previewInfo, bool isGenerating, bool isLiveRender)
{
    push({{QStringLiteral("type"), AddPreview},
          {QStringLiteral("psUID"), psUID},
          {QStringLiteral("previewUID"), previewUID},
          {QStringLiteral("selectedView"), selectedView},
          {QStringLiteral("inputUID"), inputUID},
          {QStringLiteral("filepath"), filepath},
          {QStringLiteral("startOffset"), qlonglong(startOffset)},
          {QStringLiteral("duration"), qlonglong(duration)},
          {QStringLiteral("framerate"), framerate},
          {QStringLiteral("slowmotion"), slowmotion},
          {QStringLiteral("sar"), sar},
          {QStringLiteral("previewInfo"), previewInfo},
          {QStringLiteral("isGenerating"), isGenerating},
          {QStringLiteral("isLiveRender"), isLiveRender}});
}

void VideoPlayer::addPreview(PreviewSetUID psUID, UID previewUID, int selectedView, UID inputUID, QString filepath,
                             TSType startOffset, TSType duration, double framerate, double slowmotion, double sar,
                             QVariantMap previewInfo, bool isGenerating)
{
    addPreview(psUID, previewUID, selectedView, inputUID, filepath, startOffset, duration, framerate, slowmotion, sar,
               previewInfo, isGenerating, false);
}

void VideoPlayer::addPreview(PreviewSetUID psUID, UID previewUID, int selectedView, UID inputUID, QString filepath,
                             TSType startOffset, TSType duration, double framerate, double slowmotion, double sar,
                             QVariantMap previewInfo)
{
    addPreview(psUID, previewUID, selectedView, inputUID, filepath, startOffset, duration, framerate, slowmotion, sar,
               previewInfo, false, false);
}

void VideoPlayer::closePreview(UID sourceUID, UID previewUID, PreviewSetUID psUID)
{
    push({{QStringLiteral("type"), ClosePreview},
          {QStringLiteral("psUID"), psUID},
          {QStringLiteral("previewUID"), previewUID},
          {QStringLiteral("sourceUID"), sourceUID}});
}

void VideoPlayer::closePreview(UID previewUID)
{
    push({{QStringLiteral("type"), ClosePreviewByUID}, {QStringLiteral("previewUID"), previewUID}});
}

void VideoPlayer::reload(UID videoUID, TSType newRangeX, TSType newRangeY, bool replaceFile, QString newFilepath)
{
    if (cancelPendingPlay) {
        // The user paused while live render ran: this reload must not restart play.
        cancelPendingPlay = false;
        notify([this] { emit isPlayingChanged(); });
        log.log(QStringLiteral("Reload command NOTTTT queued: %1").arg(videoUID));
        return;
    }
    push({{QStringLiteral("type"), Reload},
          {QStringLiteral("uid"), videoUID},
          {QStringLiteral("newRangeX"), qlonglong(newRangeX)},
          {QStringLiteral("newRangeY"), qlonglong(newRangeY)},
          {QStringLiteral("replaceFile"), replaceFile},
          {QStringLiteral("newFilepath"), newFilepath}});
}

void VideoPlayer::reload(UID videoUID, TSType newRangeX, TSType newRangeY, bool replaceFile)
{
    reload(videoUID, newRangeX, newRangeY, replaceFile, QString());
}

void VideoPlayer::reload(UID videoUID, TSType newRangeX, TSType newRangeY)
{
    reload(videoUID, newRangeX, newRangeY, false, QString());
}

void VideoPlayer::reload(UID videoUID, TSType newRangeX)
{
    reload(videoUID, newRangeX, -1, false, QString());
}

void VideoPlayer::reload(UID videoUID)
{
    reload(videoUID, -1, -1, false, QString());
}

void VideoPlayer::clearTimeline(PreviewSetUID psUID)
{
    log.log(QStringLiteral("clear timeline with psUID: %1").arg(psUID));
    push({{QStringLiteral("type"), ClearTimeline}, {QStringLiteral("psUID"), psUID}});
}

void VideoPlayer::updateInfo(UID videoUID, QVariantMap info)
{
    push({{QStringLiteral("type"), UpdateInfo}, {QStringLiteral("uid"), videoUID}, {QStringLiteral("newInfo"), info}});
}

void VideoPlayer::setPreviewSet(int viewID, PreviewSetUID psUID)
{
    push({{QStringLiteral("type"), SetPreviewSet}, {QStringLiteral("viewID"), viewID}, {QStringLiteral("psUID"), psUID}});
}

void VideoPlayer::removePreviewSet(PreviewSetUID psUID)
{
    push({{QStringLiteral("type"), RemovePreviewSet}, {QStringLiteral("psUID"), psUID}});
}

void VideoPlayer::updateThumbnail(UID uid, QString oldThumbnail, QString thumbnailPath, TSType timestamp)
{
    push({{QStringLiteral("type"), UpdateThumbnail},
          {QStringLiteral("uid"), uid},
          {QStringLiteral("oldThumbnail"), oldThumbnail},
          {QStringLiteral("thumbnailPath"), thumbnailPath},
          {QStringLiteral("timestamp"), qlonglong(timestamp)}});
}

// ---- input and preview handlers (worker) ----------------------------------

// ---- opening and seeking (worker) -----------------------------------------

// ---- pause and play -------------------------------------------------------

// ---- following time (caller's thread) -------------------------------------

// ---- live render ----------------------------------------------------------

// ---- slots carried out by the helpers ------------------------------------

void VideoPlayer::pause() { transport.pause(); }
void VideoPlayer::queuedseekMPVSlotPaused(int mpvID) { transport.queuedseekMPVSlotPaused(mpvID); }
void VideoPlayer::initTimelineForPlaying(qlonglong timePos) { transport.initTimelineForPlaying(timePos); }
void VideoPlayer::queuePlay() { transport.queuePlay(); }
void VideoPlayer::clearQueuedPlays() { transport.clearQueuedPlays(); }
void VideoPlayer::queuedPlayMPVSlotSeeking(int mpvID, bool seeking) { transport.queuedPlayMPVSlotSeeking(mpvID, seeking); }
void VideoPlayer::queuedPlayMPVSlotLoaded(int mpvID) { transport.queuedPlayMPVSlotLoaded(mpvID); }
void VideoPlayer::executeQueuedPlay() { transport.executeQueuedPlay(); }
void VideoPlayer::updateInputTimestamp(qlonglong pos) { sync.updateInputTimestamp(pos); }
void VideoPlayer::mpvTimelineSync(int mpvID, qlonglong timePos, bool isEOF) { sync.mpvTimelineSync(mpvID, timePos, isEOF); }
void VideoPlayer::toggleIR(bool value) { sync.toggleIR(value); }
void VideoPlayer::initLiveRenderAtTS(qlonglong timestamp, bool interrupt) { sync.initLiveRenderAtTS(timestamp, interrupt); }
void VideoPlayer::initLiveRenderAtTS(qlonglong timestamp) { sync.initLiveRenderAtTS(timestamp); }
void VideoPlayer::setIRInitStatus(int viewID, bool value) { sync.setIRInitStatus(viewID, value); }
void VideoPlayer::setFilterEnabledStatus(int viewID, bool value) { sync.setFilterEnabledStatus(viewID, value); }
void VideoPlayer::restartIROnFilterChanged(int viewID) { sync.restartIROnFilterChanged(viewID); }
QRect VideoPlayer::getTransposedROI(int x, int y, int w, int h) { return viewOps.getTransposedROI(x, y, w, h); }
void VideoPlayer::setVideoCrop(int x, int y, int w, int h) { viewOps.setVideoCrop(x, y, w, h); }
void VideoPlayer::clearVideoCrop() { viewOps.clearVideoCrop(); }
void VideoPlayer::setVideoCropToView(int viewID, int x, int y, int w, int h) { viewOps.setVideoCropToView(viewID, x, y, w, h); }
void VideoPlayer::clearVideoCropToView(int viewID) { viewOps.clearVideoCropToView(viewID); }
void VideoPlayer::moveMPVPan(QPointF pos) { viewOps.moveMPVPan(pos); }
void VideoPlayer::setZoom(double zoom) { viewOps.setZoom(zoom); }
void VideoPlayer::setMute(bool mute) { viewOps.setMute(mute); }
void VideoPlayer::setMute(int mpvNo, bool mute) { viewOps.setMute(mpvNo, mute); }
void VideoPlayer::setVolume(int volume) { viewOps.setVolume(volume); }
void VideoPlayer::showBlackFrame() { viewOps.showBlackFrame(); }

// ---- queries and direct slots ---------------------------------------------

bool VideoPlayer::containsPreview(UID uid)
{
    return findVideo(uid) != nullptr;
}

std::shared_ptr<Video> VideoPlayer::getPreview(UID uid)
{
    return findVideo(uid);
}

std::vector<QPoint> VideoPlayer::getPreviewRanges(int previewSetUID)
{
    const std::lock_guard lock(timelineMutex);
    const auto found = timelineManager.timelines.find(previewSetUID);
    if (found == timelineManager.timelines.end() || !found->second)
        return {};
    return found->second->getPreviewRanges();
}

bool VideoPlayer::previewExistsAtTimestampInPS(int previewSetUID, TSType ts)
{
    const auto ranges = getPreviewRanges(previewSetUID);
    return std::any_of(ranges.begin(), ranges.end(),
                       [ts](const QPoint &range) { return range.x() <= ts && ts <= range.y(); });
}

QVariantMap VideoPlayer::getInfo(UID videoUID)
{
    const auto video = findVideo(videoUID);
    if (!video) {
        log.log(QStringLiteral("Could not getInfo: cannot find video for videoUID %1").arg(videoUID),
                ConsoleLogger::Warn);
        return {};
    }
    const std::lock_guard lock(infoMutex);
    return video->info;
}

void VideoPlayer::forEachPane(const std::function<void(MPVObject &)> &apply) const
{
    for (int view : {0, 1})
        usePane(view, apply);
}

void VideoPlayer::setMPVIdle(bool isIdle)
{
    isMPVIdle = isIdle;
    notify([this] { emit isMPVIdleChanged(); });
}

void VideoPlayer::resetTimeline(int viewID)
{
    ViewNode *n = node(viewID);
    if (!n)
        return;
    const std::lock_guard lock(timelineMutex);
    if (n->timeline)
        n->timeline->clear();
}

void VideoPlayer::adjustInOutRange(bool trim, QPoint range)
{
    const std::lock_guard lock(stateMutex);
    trimOn = trim;
    inOutRange = range;
}

void VideoPlayer::toggleLoopingPreviews(bool value, int uid)
{
    loopingPreviews = value;
    loopingUID = uid;
}

void VideoPlayer::toggleLoopingPreviews(bool value)
{
    toggleLoopingPreviews(value, -1);
}

TSType VideoPlayer::endFrameForPreview(UID)
{
    return -1;
}

int VideoPlayer::snapToFrameMsFromMs(TSType millisecond, double frameRate)
{
    return syncmath::snapToFrameMs(millisecond, frameRate);
}

int VideoPlayer::getFrameFromMs(TSType millisecond, double frameRate)
{
    return syncmath::frameFromMs(millisecond, frameRate);
}

QVariantMap VideoPlayer::getDevInfo()
{
    return requests.devInfo();
}

} // namespace videoplayer
