#include "playback/VideoPlayer.h"

#include "playback/MPVObject.h"
#include "playback/SyncMath.h"

#include <QThread>

#include <algorithm>
#include <cmath>
#include <mutex>

namespace videoplayer {

namespace {

// Quarter turns to send to mpv: table[rotation + originalRotation * 4], which is
// (rotation - originalRotation) mod 4 over the codes 0 cw, 1 half, 2 ccw, 3 none.
constexpr std::array<int, 16> rotationTable{0, 1, 2, 3, 3, 0, 1, 2, 2, 3, 0, 1, 1, 2, 3, 0};

const QString kBlackAndWhiteFilter = QStringLiteral(" format=yuv420p,extractplanes=y");

QString speedCommand(double speed)
{
    return QStringLiteral("set speed ") + QString::asprintf("%f", speed);
}

QString pathText(const std::string &path)
{
    return QString::fromStdString(path);
}

} // namespace

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
        handleAddInput(request);
        break;
    case Seek:
        seekRequested = false;
        handleSeek(value("timestamp").toLongLong(), value("interrupt").toBool(), value("initIR").toBool(), true);
        // The panes may have reported the end of their seek before the worker
        // got here; then nothing else would start a waiting play.
        if (queuedPlay)
            executeQueuedPlay();
        break;
    case Prev:
        handlePrev();
        break;
    case Next:
        handleNext();
        break;
    case Play:
        handlePlay();
        break;
    case Pause:
        handlePause(true);
        break;
    case Reload:
        handleReload(request);
        break;
    case UpdateInfo:
        handleUpdateInfo(value("uid").toInt(), value("newInfo").toMap());
        break;
    case ShowBlack:
    case Refresh:
    case UpdateThumbnail:
        break;
    case AddPreview:
        handleAddPreview(request);
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
        handleClosePreview(value("previewUID").toInt());
        break;
    case ResetView:
        handleResetView(value("viewID").toInt());
        break;
    case SetPreviewSet:
        handleSetPreviewSet(value("viewID").toInt(), value("psUID").toInt());
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

VideoPlayer::Order VideoPlayer::orderAt(ViewNode *n, TSType t)
{
    Order order;
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

void VideoPlayer::requestSeek(TSType t, bool interrupt, bool initIR)
{
    // The pause half of a seek acts at once, so that position reports arriving
    // before the worker performs the seek find the player stopped.
    if (isPlaying)
        handlePause(false);
    seekRequested = true;
    push({{QStringLiteral("type"), Seek},
          {QStringLiteral("timestamp"), qlonglong(t)},
          {QStringLiteral("interrupt"), interrupt},
          {QStringLiteral("initIR"), initIR}});
}

void VideoPlayer::requestPlay()
{
    push({{QStringLiteral("type"), Play}});
}

// ---- input and preview handlers (worker) ----------------------------------

void VideoPlayer::handleAddInput(const QVariantMap &request)
{
    isOpen = true;
    notify([this] { emit isOpenChanged(); });
    isPlaying = false;
    notify([this] { emit isPlayingChanged(); });

    const UID uid = request.value(QStringLiteral("uid")).toInt();
    const TSType timestamp = request.value(QStringLiteral("timestamp")).toLongLong();
    const QString filepath = request.value(QStringLiteral("filepath")).toString();
    TSType duration = request.value(QStringLiteral("duration")).toLongLong();
    const double framerate = request.value(QStringLiteral("framerate")).toDouble();
    const double sar = request.value(QStringLiteral("sar")).toDouble();
    const bool firstLoad = request.value(QStringLiteral("firstLoad")).toBool();
    QVariantMap inputInfo = request.value(QStringLiteral("inputInfo")).toMap();
    inputInfo[QStringLiteral("sar")] = sar;
    inputInfo[QStringLiteral("timestep")] = Video::timestepFor(framerate);

    std::shared_ptr<Video> video = findVideo(uid);
    if (!video) {
        if (duration == 0) {
            duration = inputInfo.value(QStringLiteral("duration")).toLongLong();
            log.log(QStringLiteral("[handleAddInput] Tried to first load input with 0 duration: ") + filepath
                        + QStringLiteral(". Filled in duration from inputInfo: ") + QString::number(duration),
                    ConsoleLogger::Warn);
        }
        video = Video::makeInput(nullptr, uid, filepath.toStdString(), duration, framerate, sar, inputInfo);
        if (!video) {
            log.log(QStringLiteral("Could not open input!!"), ConsoleLogger::Critical);
            return;
        }
        {
            const std::lock_guard lock(stateMutex);
            currentInput = video;
            videos[uid] = video;
        }
        applyFilters(0, video->info, false);
        applyFilters(1, video->info, false);
        log.log(QStringLiteral("About to open"));
    } else {
        setInput(video);
        if (video->duration == 0)
            video->duration = inputInfo.value(QStringLiteral("duration")).toLongLong();
        applyFilters(0, video->info, false);
        applyFilters(1, video->info, false);
    }

    inputNode->loadedPath = filepath.toStdString();
    inputNode->setTimestamp(static_cast<int>(timestamp));

    for (int view : {-1, 0, 1}) {
        ViewNode *n = node(view);
        auto timeline = std::make_shared<Timeline>();
        std::shared_ptr<Video> shown;
        {
            const std::lock_guard lock(timelineMutex);
            timeline->setInput(video);
            n->timeline = timeline;
            n->previewSetUID = -1;
            const RData &order = timeline->getRData(timestamp);
            if (order.index >= 0 && order.index < static_cast<int>(order.videos.size()))
                shown = order.videos[static_cast<size_t>(order.index)];
        }
        if (view == -1)
            continue;
        if (!isMPVIdle && shown)
            loadVideo(view, shown->filepath, timestamp);
        else
            log.log(QStringLiteral("didnt open"));
    }

    inputNode->updateInfoFromVideo(video);
    const int timestep = Video::timestepFor(framerate);
    inputNode->frameRange = {0, static_cast<int>(video->duration) - timestep};
    log.log(QStringLiteral("Opened input path:") + filepath);

    viewNodeManager->resetAll();
    notify([this] {
        emit isOpenChanged();
        emit inputInfoChanged();
        emit leftInfoChanged();
        emit rightInfoChanged();
    });
    handleSeek(timestamp, true, false, true);
    notify([this, uid, firstLoad] { emit openedInput(uid, firstLoad); });
}

void VideoPlayer::applyFilters(int viewID, const QVariantMap &info, bool reapply)
{
    if (!isPane(viewID))
        return;
    usePane(viewID, [&](MPVObject &pane) { applyFiltersTo(pane, viewID, info, reapply); });
}

void VideoPlayer::applyFiltersTo(MPVObject &pane, int viewID, const QVariantMap &info, bool reapply)
{
    MPVObject *p = &pane;
    if (info.contains(QStringLiteral("rotation"))) {
        const int rotation = info.value(QStringLiteral("rotation")).toInt() & 3;
        const int original = info.value(QStringLiteral("originalRotation"), 3).toInt() & 3;
        const int turns = rotationTable[static_cast<size_t>(rotation + original * 4)];
        p->executeCommand(QStringLiteral("set video-rotate %1").arg(turns * 90), false);
    }
    if (info.contains(QStringLiteral("isBlackAndWhite"))) {
        const bool wanted = info.value(QStringLiteral("isBlackAndWhite")).toBool();
        // mpv keeps a filter until it is removed, so only a change is sent.
        if (blackAndWhiteSet[static_cast<size_t>(viewID)].exchange(wanted) != wanted)
            p->executeCommand(QStringLiteral("vf ") + (wanted ? QStringLiteral("add") : QStringLiteral("remove"))
                                  + kBlackAndWhiteFilter,
                              false);
    }
    if (info.value(QStringLiteral("isImageSequence")).toBool() && info.contains(QStringLiteral("fps"))) {
        const double fps = info.value(QStringLiteral("fps")).toDouble();
        p->executeCommand(QStringLiteral("set mf-fps ") + QString::asprintf("%f", fps), false);
        p->setFramerate(static_cast<float>(fps));
        if (reapply && !isMPVIdle) {
            std::shared_ptr<Video> shown;
            {
                const std::lock_guard lock(timelineMutex);
                shown = node(viewID)->currentVideo;
            }
            if (shown) {
                const TSType t = getInputTimestamp();
                const qint64 position =
                    shown == input() ? t : syncmath::inputToFile(t, shown->startOffset, shown->slowmotion);
                loadVideo(viewID, shown->filepath, std::max<qint64>(0, position));
            }
        }
    }
}

void VideoPlayer::handleAddPreview(const QVariantMap &request)
{
    const bool wasPlaying = isPlaying;
    notify([this] { emit isPlayingChanged(); });

    const auto value = [&request](const char *key) { return request.value(QLatin1String(key)); };
    const PreviewSetUID psUID = value("psUID").toInt();
    const UID previewUID = value("previewUID").toInt();
    const int selectedView = value("selectedView").toInt();
    const QString filepath = value("filepath").toString();
    const QVariantMap previewInfo = value("previewInfo").toMap();
    const bool isLiveRender = value("isLiveRender").toBool();

    const auto video = Video::makePreview(previewUID, filepath.toStdString(), value("startOffset").toLongLong(),
                                          value("duration").toLongLong(), value("framerate").toDouble(),
                                          value("slowmotion").toDouble(), value("sar").toDouble(),
                                          value("isGenerating").toBool(), previewInfo);
    if (!video) {
        log.log(QStringLiteral("~~~ handleAddPreview FAILED to add preview w/ psUID:%1 ").arg(psUID) + filepath,
                ConsoleLogger::Warn);
        return;
    }
    {
        const std::lock_guard lock(stateMutex);
        videos[previewUID] = video;
    }
    {
        const std::lock_guard lock(timelineMutex);
        timelineManager.addPreview(video, psUID, input());
    }
    if (wasPlaying && !previewInfo.value(QStringLiteral("isTerminated")).toBool())
        initLiveRenderAtTS(getInputTimestamp(), false);
    if (isLiveRender) {
        if (irInitiating[0] || irInitiating[1])
            queuePlay();
        if (isPane(selectedView)) {
            irInitiating[static_cast<size_t>(selectedView)] = false;
            emitInitiating(selectedView, false, 1);
        }
    }
    handleSeek(getInputTimestamp(), false, false, true);
}

void VideoPlayer::handleReload(const QVariantMap &request)
{
    const UID uid = request.value(QStringLiteral("uid")).toInt();
    const TSType newRangeX = request.value(QStringLiteral("newRangeX")).toLongLong();
    const TSType newRangeY = request.value(QStringLiteral("newRangeY")).toLongLong();
    const bool replaceFile = request.value(QStringLiteral("replaceFile")).toBool();
    const QString newFilepath = request.value(QStringLiteral("newFilepath")).toString();

    const auto video = getPreview(uid);
    if (!video) {
        log.log(QStringLiteral("reloading video: %1 not found").arg(uid), ConsoleLogger::Warn);
        return;
    }
    log.log(QStringLiteral("reloading video: %1").arg(uid));
    log.log(QStringLiteral("isReplacing with new file path?") + (replaceFile ? QStringLiteral(" true ") : QStringLiteral(" false "))
            + newFilepath);
    if (video->isGenerating)
        log.log(QStringLiteral(" is Generating? true"));

    const TSType end = inputEnd();
    if (newRangeX >= 0 && newRangeX <= end)
        video->startOffset = newRangeX;
    // -1 keeps a value; the duration follows from the start now in force.
    if (newRangeY >= 0 && newRangeY <= end)
        video->duration = newRangeY - video->startOffset;
    if (replaceFile)
        video->filepath = newFilepath.toStdString();

    {
        const std::lock_guard lock(timelineMutex);
        const PreviewSetUID set = timelineManager.deletePreview(uid);
        if (set == -1) {
            log.log(QStringLiteral("reloading video Could not find and remove preview in Timeline Manager: %1").arg(uid)
                        + QStringLiteral(" path: ") + pathText(video->filepath),
                    ConsoleLogger::Warn);
            return;
        }
        timelineManager.addPreview(video, set, input());
    }

    const TSType t = getInputTimestamp();
    bool reloaded = false;
    for (int view : {0, 1}) {
        ViewNode *n = node(view);
        bool showsIt = false;
        {
            const std::lock_guard lock(timelineMutex);
            showsIt = n->currentVideo == video;
        }
        if (!showsIt)
            continue;
        const qint64 position = syncmath::inputToFile(t, video->startOffset, video->slowmotion);
        loadVideo(view, video->filepath, std::max<qint64>(0, position));
        reloaded = true;
    }
    if (reloaded && isPlaying) {
        resumeAfterReload = true;
        queuePlay();
        handleSeek(t, cancelPendingPlay, false, true);
    } else if (video->startOffset <= t && t <= video->startOffset + video->duration) {
        handleSeek(t, false, false, true);
    }
}

void VideoPlayer::handleUpdateInfo(UID uid, const QVariantMap &newInfo)
{
    const auto video = findVideo(uid);
    if (!video) {
        log.log(QStringLiteral("Could not update info: Found no video with videoUID as %1").arg(uid),
                ConsoleLogger::Warn);
        return;
    }
    if (newInfo.isEmpty()) {
        log.log(QStringLiteral("Could not update info: newInfo is empty"), ConsoleLogger::Warn);
        return;
    }
    QVariantMap merged;
    {
        const std::lock_guard lock(infoMutex);
        video->applyInfo(newInfo);
        merged = video->info;
    }
    applyFilters(0, merged, true);
    applyFilters(1, merged, true);
    notify([this] { emit inputInfoChanged(); });
}

void VideoPlayer::handleSetPreviewSet(int viewID, PreviewSetUID psUID)
{
    log.log(QStringLiteral("~~~ Set view %1 psUID to %2").arg(viewID).arg(psUID));
    ViewNode *n = node(viewID);
    if (!isPane(viewID) || !n)
        return;
    const auto currentIn = input();
    {
        const std::lock_guard lock(timelineMutex);
        // A set's timeline goes back to the manager first; the first one under
        // an id wins, so this never replaces the set's own.
        if (n->previewSetUID != -1 && n->timeline)
            timelineManager.insertTimeline(n->previewSetUID, n->timeline);
        if (psUID == -1) {
            if (n->previewSetUID != -1) {
                const bool loneInput = n->timeline && n->timeline->getPreviewRanges().empty()
                                       && n->timeline->input == currentIn
                                       && timelineManager.timelines.count(n->previewSetUID) == 0;
                if (!loneInput) {
                    auto timeline = std::make_shared<Timeline>();
                    timeline->setInput(currentIn);
                    n->timeline = timeline;
                }
            }
        } else {
            auto timeline = timelineManager.getTimeline(psUID);
            if (!timeline) {
                // A set with no preview yet: later previews must land in the timeline shown.
                timeline = std::make_shared<Timeline>();
                timeline->setInput(currentIn);
                timelineManager.insertTimeline(psUID, timeline);
            }
            n->timeline = timeline;
        }
    }
    if (isPlaying)
        queuePlay();
    handleSeek(getInputTimestamp(), false, false, true);
    const std::lock_guard lock(timelineMutex);
    n->previewSetUID = psUID;
}

void VideoPlayer::handleClosePreview(UID previewUID)
{
    {
        const std::lock_guard lock(timelineMutex);
        timelineManager.deletePreview(previewUID);
    }
    const std::lock_guard lock(stateMutex);
    videos.erase(previewUID);
}

void VideoPlayer::handleResetView(int viewID)
{
    log.log(QStringLiteral("Reset view %1").arg(viewID));
    viewNodeManager->resetOne(viewID, true);
    // resetOne leaves the pane as it is: returning it to the input is done here.
    handleSetPreviewSet(viewID, -1);
}

// ---- opening and seeking (worker) -----------------------------------------

void VideoPlayer::loadVideo(int viewID, const std::string &path, qint64 position)
{
    if (viewID == -1 || isMPVIdle)
        return;
    usePane(viewID, [&](MPVObject &pane) {
        log.log(QStringLiteral("loading video ") + pathText(path) + QStringLiteral(" MPV %1").arg(viewID));
        viewLoading[static_cast<size_t>(viewID)] = true;
        pane.load(path, position);
    });
}

void VideoPlayer::openVideoForView(int viewID, qint64 position, const std::shared_ptr<Video> &video)
{
    log.log(QStringLiteral("Trying to open video for view %1 to timestamp: %2 for video ").arg(viewID).arg(position)
            + (video ? pathText(video->filepath) : QString()));
    if (!video)
        return;
    ViewNode *n = node(viewID);
    bool alreadyOpen = false;
    {
        const std::lock_guard lock(timelineMutex);
        alreadyOpen = n->loadedPath == video->filepath && n->currentVideo
                      && n->currentVideo->startOffset + n->currentVideo->duration
                             == video->startOffset + video->duration;
    }
    if (alreadyOpen) {
        log.log(QStringLiteral("Not opening, this video is already open."));
        n->seekTo(position);
    } else {
        log.log(QStringLiteral("Set view %1 framerate to %2").arg(viewID).arg(video->framerate));
        const bool isInput = video == input();
        QVariantMap filters;
        if (isInput) {
            const std::lock_guard lock(infoMutex);
            filters = video->info;
        } else {
            filters = defaultFilterInfo;
            filters[QStringLiteral("fps")] = video->framerate;
            filters[QStringLiteral("isImageSequence")] = video->isGenerating;
        }
        applyFilters(viewID, filters, false);
        loadVideo(viewID, video->filepath, position);
        if (isInput) {
            QRect crop;
            {
                const std::lock_guard lock(stateMutex);
                crop = videoCrop;
            }
            setVideoCropToView(viewID, crop.x(), crop.y(), crop.width(), crop.height());
        } else {
            clearVideoCropToView(viewID);
        }
        n->updateInfoFromVideo(video);
        n->seekTo(position);
        log.log(QStringLiteral("Opened id %1 for preview filepath:").arg(viewID) + pathText(video->filepath));
        const std::lock_guard lock(timelineMutex);
        n->loadedPath = video->filepath;
    }
    {
        const std::lock_guard lock(timelineMutex);
        n->currentVideo = video;
    }
    QVariantMap info = n->getInfo();
    info[QStringLiteral("sar")] = n->sar;
    info[QStringLiteral("framerate")] = n->framerate;
    n->setInfo(info);
}

void VideoPlayer::handleSeek(TSType t, bool interrupt, bool initIR, bool pauseFirst)
{
    if (isPlaying && pauseFirst)
        handlePause(false);
    if (interrupt) {
        queuedPlay = false;
        for (int view : {0, 1}) {
            irInitiating[static_cast<size_t>(view)] = false;
            emitInitiating(view, irInitiating[static_cast<size_t>(view)], 1);
        }
    }
    viewAtEnd[0] = false;
    viewAtEnd[1] = false;
    if (!isOpen)
        return;

    const Order orders[2] = {orderAt(leftNode.get(), t), orderAt(rightNode.get(), t)};
    inputNode->seekTo(t);
    for (int view : {0, 1}) {
        const Order &order = orders[view];
        const QString side = view == 0 ? QStringLiteral("left") : QStringLiteral("right");
        if (!order.preview) {
            log.log(QStringLiteral("No %1 preview found").arg(side));
            openVideoForView(view, t, order.input);
            if (initIR) {
                notify([this, view] { emit stopIR(view); });
                emitInitiating(view, false, 1);
            }
            continue;
        }
        const qint64 position = syncmath::inputToFile(t, order.preview->startOffset, order.preview->slowmotion);
        log.log(QStringLiteral("found and seeked %1 video to %2 %3").arg(side).arg(t).arg(position));
        openVideoForView(view, position, order.preview);
        if (!order.preview->isGenerating && initIR)
            lookAheadStopIR(view, order);
    }
    setSpeeds();
}

void VideoPlayer::lookAheadStopIR(int viewID, const Order &order)
{
    const int count = static_cast<int>(order.videos.size());
    if (count == 0)
        return;
    const auto currentIn = input();
    for (int step = 1; step < count; ++step) {
        const auto &video = order.videos[static_cast<size_t>((order.index + step) % count)];
        if (!video || video->isGenerating)
            return;
        if (video == currentIn) {
            notify([this, viewID] { emit stopIR(viewID); });
            emitInitiating(viewID, false, 1);
            return;
        }
    }
}

void VideoPlayer::setSpeeds()
{
    const float leftFactor = leftNode->slowMotion;
    const float rightFactor = rightNode->slowMotion;
    // Sent without waiting: a core busy with an exact seek would hold the
    // worker, and with it the next seek of a burst, until that seek is done.
    if (leftFactor == rightFactor) {
        forEachPane([](MPVObject &pane) { pane.executeCommand(speedCommand(1.0), true); });
        return;
    }
    // The pane with the greater factor runs at normal speed; the other is
    // slowed so that both advance equally on the input's axis.
    const bool leftIsSlow = leftFactor > rightFactor;
    ViewNode *slowNode = leftIsSlow ? leftNode.get() : rightNode.get();
    ViewNode *fastNode = leftIsSlow ? rightNode.get() : leftNode.get();
    const syncmath::Speeds speeds = syncmath::paneSpeeds(leftFactor, rightFactor);
    slowNode->mpv.use([](MPVObject &pane) { pane.executeCommand(speedCommand(1.0), true); });
    const double fastSpeed = leftIsSlow ? speeds.right : speeds.left;
    fastNode->mpv.use([fastSpeed](MPVObject &pane) { pane.executeCommand(speedCommand(fastSpeed), true); });
    log.log(QStringLiteral("_$$_ slowNode: %1").arg(slowNode->getTimestamp()));
    log.log(QStringLiteral("_$$_ fastNode: %1").arg(fastNode->getTimestamp()));
}

void VideoPlayer::handleNext()
{
    handleStep(true);
}

void VideoPlayer::handlePrev()
{
    handleStep(false);
}

void VideoPlayer::handleStep(bool forward)
{
    if (!isOpen)
        return;
    // One frame of the slower pane, so a slow-motion preview steps through
    // each of its own frames.
    const qint64 timestep = inputNode->getInfo().value(QStringLiteral("timestep")).toLongLong();
    const float factor = std::max(leftNode->slowMotion, rightNode->slowMotion);
    const auto step = static_cast<qint64>(static_cast<float>(timestep) / factor);
    const auto frames = inputNode->frameRange;
    const syncmath::Range range{frames.first, frames.second};
    const qint64 target = forward ? syncmath::stepForward(getInputTimestamp(), step, range)
                                  : syncmath::stepBackward(getInputTimestamp(), step, range);
    handleSeek(target, true, false, true);
    if (isPlaying && requests.empty())
        handlePlay();
}

// ---- pause and play -------------------------------------------------------

void VideoPlayer::pause()
{
    if (irEnabled)
        cancelPendingPlay = true;
    resumeAfterReload = false;
    notify([this] {
        emit stopIR(0);
        emit stopIR(1);
    });
    handlePause(true);
}

void VideoPlayer::handlePause(bool thenSeek)
{
    if (!isPlaying)
        return;
    isPlaying = false;
    // A reload that interrupts play resumes it; the UI must not see it stop.
    if (!(resumeAfterReload && !cancelPendingPlay))
        notify([this] { emit isPlayingChanged(); });
    forEachPane([](MPVObject &pane) { pane.pause(); });
    if (thenSeek)
        queuedSeek = true;
    leftNode->timelineSyncEnabled = false;
    rightNode->timelineSyncEnabled = false;
}

void VideoPlayer::queuedseekMPVSlotPaused(int mpvID)
{
    if (!isPane(mpvID))
        return;
    viewPaused[static_cast<size_t>(mpvID)] = true;
    if (!queuedSeek || !viewPaused[0] || !viewPaused[1])
        return;
    // Both panes stopped where mpv happened to be: put them back on one frame.
    requestSeek(getInputTimestamp(), true, false);
    queuedSeek = false;
    viewPaused[0] = false;
    viewPaused[1] = false;
}

void VideoPlayer::handlePlay()
{
    if (!irEnabled) {
        if (irInitiating[0] || irInitiating[1] || !isOpen)
            return;
        initTimelineForPlaying(getInputTimestamp());
        for (int view : {1, 0})
            usePane(view, [](MPVObject &pane) { pane.play(); });
        isPlaying = true;
        notify([this] { emit isPlayingChanged(); });
        return;
    }
    initLiveRenderAtTS(getInputTimestamp(), true);
    if (!viewSeeking[0] && !viewSeeking[1])
        handleQueuedPlay();
}

void VideoPlayer::initTimelineForPlaying(qlonglong timePos)
{
    const std::lock_guard lock(timelineMutex);
    leftNode->initTimelineForPlaying(timePos);
    rightNode->initTimelineForPlaying(timePos);
}

void VideoPlayer::queuePlay()
{
    if (cancelPendingPlay.exchange(false)) {
        notify([this] { emit isPlayingChanged(); });
        return;
    }
    queuedPlay = true;
}

void VideoPlayer::clearQueuedPlays()
{
    queuedPlay = false;
}

void VideoPlayer::queuedPlayMPVSlotSeeking(int mpvID, bool seeking)
{
    if (!isPane(mpvID))
        return;
    viewSeeking[static_cast<size_t>(mpvID)] = seeking;
    if (queuedPlay)
        executeQueuedPlay();
}

void VideoPlayer::queuedPlayMPVSlotLoaded(int mpvID)
{
    if (!isPane(mpvID))
        return;
    viewLoading[static_cast<size_t>(mpvID)] = false;
    if (queuedPlay)
        executeQueuedPlay();
}

void VideoPlayer::executeQueuedPlay()
{
    if (viewSeeking[0] || viewSeeking[1] || viewLoading[0] || viewLoading[1] || isPlaying || seekRequested)
        return;
    handleQueuedPlay();
    queuedPlay = false;
}

void VideoPlayer::handleQueuedPlay()
{
    if (cancelPendingPlay.exchange(false)) {
        notify([this] { emit isPlayingChanged(); });
        return;
    }
    if (viewSeeking[0] || viewSeeking[1] || irInitiating[0] || irInitiating[1] || !isOpen)
        return;
    initTimelineForPlaying(getInputTimestamp());
    for (int view : {1, 0})
        usePane(view, [](MPVObject &pane) { pane.play(); });
    isPlaying = true;
    emitInitiating(0, false, 1);
    emitInitiating(1, false, 1);
    // The play that ends a reload is the one notification it holds back.
    if (!resumeAfterReload.exchange(false))
        notify([this] { emit isPlayingChanged(); });
}

// ---- following time (caller's thread) -------------------------------------

void VideoPlayer::updateInputTimestamp(qlonglong)
{
    const qint64 t = std::min(leftNode->truthTS.load(), rightNode->truthTS.load());
    inputNode->setTimestamp(static_cast<int>(t));
}

void VideoPlayer::mpvTimelineSync(int mpvID, qlonglong timePos, bool isEOF)
{
    if (!isPlaying || !isPane(mpvID))
        return;
    if (mpvID == 1)
        updateInputTimestamp(timePos);

    ViewNode *n = node(mpvID);
    std::shared_ptr<Video> video;
    std::shared_ptr<Video> nextVideo;
    TimeRange range;
    TimeRange nextRange;
    int nextIndex = 0;
    std::size_t count = 0;
    {
        const std::lock_guard lock(timelineMutex);
        count = n->playbackVideos.size();
        if (count == 0 || n->playbackRanges.size() != count || n->playbackIndex < 0
            || static_cast<std::size_t>(n->playbackIndex) >= count)
            return;
        video = n->playbackVideos[static_cast<std::size_t>(n->playbackIndex)];
        range = n->playbackRanges[static_cast<std::size_t>(n->playbackIndex)];
        nextIndex = static_cast<int>((static_cast<std::size_t>(n->playbackIndex) + 1) % count);
        nextVideo = n->playbackVideos[static_cast<std::size_t>(nextIndex)];
        nextRange = n->playbackRanges[static_cast<std::size_t>(nextIndex)];
    }
    if (!video || !nextVideo)
        return;
    const auto currentIn = input();
    const double frameMs = 1000.0 / video->framerate;
    const bool isInput = video == currentIn;
    const float pos = syncmath::fileToInputF(timePos, n->slowMotion, video->startOffset);
    const TSType end = inputEnd();
    const QPoint inOut = getInOutRange();
    const bool trim = trimOn && inOut.x() >= 0 && inOut.y() >= 0;
    const TSType loopTarget = inOut.x() + (isInput ? 0 : 1);

    // 1. The in/out range: a report well past the out point comes from a seek
    // beyond it and does not loop.
    if (trim && pos < static_cast<float>(inOut.y() + 1.5 * frameMs)) {
        const TSType limit = std::min<TSType>(isInput ? inOut.y() : inOut.y() - static_cast<TSType>(frameMs), end);
        if (pos >= static_cast<float>(limit)) {
            requestSeek(loopTarget, false, false);
            requestPlay();
            return;
        }
    }
    // 2. Within the stretch.
    if (!isEOF && pos < static_cast<float>(range.second)) {
        n->mpvTS = timePos;
        n->truthTS = syncmath::clampToRangeStart(static_cast<qint64>(pos), range);
        log.log(QStringLiteral("truthTS updated 2 :%1").arg(n->truthTS.load()));
        return;
    }
    // 3. Looping one preview.
    if (loopingPreviews && loopingUID != -1 && loopingUID == video->uid) {
        queuePlay();
        requestSeek(range.first, false, false);
        return;
    }
    // 4. End of the input.
    if (pos >= static_cast<float>(end))
        viewAtEnd[static_cast<std::size_t>(mpvID)] = true;
    // 5. A timeline of one video: restart once both panes have ended.
    if (count == 1) {
        if (viewAtEnd[0] == viewAtEnd[1]) {
            queuePlay();
            requestSeek(range.first, false, false);
        }
        return;
    }
    // 6. Several videos. A report on another file than the stretch's comes
    // from before a load that is under way.
    std::string playing;
    if (!usePane(mpvID, [&playing](MPVObject &pane) { playing = pane.getCurrentPlayingVideoPath(); })
        || playing != video->filepath)
        return;
    if (irEnabled && nextVideo == currentIn) {
        // Live render has not produced what follows yet.
        const bool nearLoopPoint = (trim && inOut.y() - pos <= frameMs) || (end - pos < frameMs);
        if (nearLoopPoint) {
            requestSeek(std::max<TSType>(0, loopTarget), false, false);
            requestPlay();
            return;
        }
        forEachPane([](MPVObject &pane) { pane.pause(); });
        requestSeek(getInputTimestamp(), false, false);
        emitInitiating(mpvID, true, 0);
        return;
    }
    log.log(QStringLiteral("Time to Loading next video at %1").arg(static_cast<double>(pos)));
    {
        const std::lock_guard lock(timelineMutex);
        n->playbackIndex = nextIndex;
        n->currentVideo = nextVideo;
        n->currentRange = nextRange;
    }
    n->truthTS = nextRange.first;
    log.log((nextIndex == 0 ? QStringLiteral("Loading next video in timeline after looping: ")
                            : QStringLiteral("Loading next video in timeline: "))
            + pathText(nextVideo->filepath));
    log.log(QStringLiteral("truthTS updated 1 :%1").arg(n->truthTS.load()));
    if (viewAtEnd[0] == viewAtEnd[1]) {
        queuePlay();
        requestSeek(nextRange.first, false, false);
    }
}

// ---- live render ----------------------------------------------------------

void VideoPlayer::toggleIR(bool value)
{
    log.log(QStringLiteral("[03/20] toggle IR to") + (value ? QStringLiteral("true") : QStringLiteral("false")));
    irEnabled = value;
    if (value && isOpen)
        requestSeek(getInputTimestamp(), true, true);
}

void VideoPlayer::initLiveRenderAtTS(qlonglong timestamp, bool interrupt)
{
    const Order orders[2] = {orderAt(leftNode.get(), timestamp), orderAt(rightNode.get(), timestamp)};
    cancelPendingPlay = false;
    queuePlay();
    irInitiating[0] = false;
    irInitiating[1] = false;
    const auto currentIn = input();
    const QPoint inOut = getInOutRange();
    const bool trim = trimOn && inOut.x() >= 0 && inOut.y() >= 0;

    for (int view : {0, 1}) {
        const Order &order = orders[view];
        if (!order.preview) {
            if (filterEnabled[static_cast<std::size_t>(view)]) {
                notify([this, view] { emit startIR(view, 0, -1, -1); });
                irInitiating[static_cast<std::size_t>(view)] = true;
            }
            continue;
        }
        if (order.preview->isGenerating)
            continue;
        // Render ahead: the first raw stretch after the preview now showing,
        // unless a render already runs before it.
        const int count = static_cast<int>(order.videos.size());
        for (int step = 1; step < count; ++step) {
            const auto index = static_cast<std::size_t>((order.index + step) % count);
            const auto &video = order.videos[index];
            if (!video || video->isGenerating)
                break;
            if (video != currentIn)
                continue;
            const TimeRange &stretch = order.ranges[index];
            qlonglong start = stretch.first;
            qlonglong stop = -1;
            if (trim) {
                if (stretch.first < inOut.y()) {
                    stop = inOut.y();
                } else if (stretch.second > inOut.x()) {
                    start = inOut.x();
                    stop = stretch.second;
                } else {
                    continue;
                }
            }
            notify([this, view, start, stop] { emit startIR(view, 1, start, stop); });
            break;
        }
    }
    for (int view : {0, 1}) {
        if (interrupt)
            emitInitiating(view, irInitiating[static_cast<std::size_t>(view)], 1);
        else
            irInitiating[static_cast<std::size_t>(view)] = false;
    }
}

void VideoPlayer::initLiveRenderAtTS(qlonglong timestamp)
{
    initLiveRenderAtTS(timestamp, true);
}

void VideoPlayer::setIRInitStatus(int viewID, bool value)
{
    if (isPane(viewID))
        irInitiating[static_cast<std::size_t>(viewID)] = value;
}

void VideoPlayer::setFilterEnabledStatus(int viewID, bool value)
{
    if (!isPane(viewID))
        return;
    filterEnabled[static_cast<std::size_t>(viewID)] = value;
    if (value)
        return;
    irInitiating[static_cast<std::size_t>(viewID)] = false;
    notify([this, viewID] { emit stopIR(viewID); });
    emitInitiating(viewID, false, 1);
}

void VideoPlayer::restartIROnFilterChanged(int viewID)
{
    if (!isPane(viewID))
        return;
    if (filterEnabled[static_cast<std::size_t>(viewID)])
        notify([this, viewID] { emit stopIR(viewID); });
    const auto currentIn = input();
    if (!currentIn || !(currentIn->framerate > 0))
        return;
    const qlonglong t = getInputTimestamp();
    const auto stop = static_cast<qlonglong>(static_cast<double>(t) + 20000.0 / currentIn->framerate);
    notify([this, viewID, t, stop] {
        emit startIR(viewID, 0, t, stop);
        emit isInitiatingIRChanged(viewID, true, 0);
    });
}

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

QRect VideoPlayer::getTransposedROI(int x, int y, int w, int h)
{
    const auto video = input();
    if (!video)
        return QRect(x, y, w, h);
    QVariantMap info;
    {
        const std::lock_guard lock(infoMutex);
        info = video->info;
    }
    return ::getTransposedROI(x, y, w, h, info);
}

void VideoPlayer::setVideoCrop(int x, int y, int w, int h)
{
    if (!isOpen)
        return;
    const QRect crop = getTransposedROI(x, y, w, h);
    {
        const std::lock_guard lock(stateMutex);
        if (crop == videoCrop)
            return;
        videoCrop = crop;
    }
    for (int view : {0, 1})
        setVideoCropToView(view, crop.x(), crop.y(), crop.width(), crop.height());
}

void VideoPlayer::clearVideoCrop()
{
    {
        const std::lock_guard lock(stateMutex);
        videoCrop = QRect();
    }
    for (int view : {0, 1})
        clearVideoCropToView(view);
}

void VideoPlayer::setVideoCropToView(int viewID, int x, int y, int w, int h)
{
    usePane(viewID, [=](MPVObject &pane) { pane.setCrop(x, y, w, h); });
}

void VideoPlayer::clearVideoCropToView(int viewID)
{
    usePane(viewID, [](MPVObject &pane) { pane.clearCrop(); });
}

void VideoPlayer::forEachPane(const std::function<void(MPVObject &)> &apply) const
{
    for (int view : {0, 1})
        usePane(view, apply);
}

void VideoPlayer::moveMPVPan(QPointF pos)
{
    forEachPane([pos](MPVObject &pane) { pane.movePan(pos); });
}

void VideoPlayer::setZoom(double zoom)
{
    forEachPane([zoom](MPVObject &pane) { pane.setZoom(zoom); });
}

void VideoPlayer::setMute(bool mute)
{
    for (int view : {0, 1})
        setMute(view, mute);
}

void VideoPlayer::setMute(int mpvNo, bool mute)
{
    usePane(mpvNo, [mute](MPVObject &pane) { pane.setMute(mute); });
}

void VideoPlayer::setVolume(int volume)
{
    forEachPane([volume](MPVObject &pane) { pane.setVolume(volume); });
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

void VideoPlayer::showBlackFrame()
{
    forEachPane([](MPVObject &pane) { pane.load(QStringLiteral("."), 0); });
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
