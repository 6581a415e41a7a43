#include "playback/InputPreviewHandler.h"

#include "playback/MPVObject.h"
#include "playback/SyncMath.h"
#include "playback/VideoPlayer.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <mutex>

namespace videoplayer {

namespace {

// Quarter turns to send to mpv: table[rotation + originalRotation * 4], which is
// (rotation - originalRotation) mod 4 over the codes 0 cw, 1 half, 2 ccw, 3 none.
constexpr std::array<int, 16> rotationTable {0, 1, 2, 3, 3, 0, 1, 2, 2, 3, 0, 1, 1, 2, 3, 0};

const QString kBlackAndWhiteFilter = QStringLiteral(" format=yuv420p,extractplanes=y");

} // namespace

InputPreviewHandler::InputPreviewHandler(VideoPlayer &owner)
    : player(owner)
{
}

void InputPreviewHandler::handleAddInput(const QVariantMap &request)
{
    player.isOpen = true;
    player.notify([this] { emit player.isOpenChanged(); });
    player.isPlaying = false;
    player.notify([this] { emit player.isPlayingChanged(); });

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

    std::shared_ptr<Video> video = player.findVideo(uid);
    if (!video) {
        if (duration == 0) {
            duration = inputInfo.value(QStringLiteral("duration")).toLongLong();
            player.log.log(QStringLiteral("[handleAddInput] Tried to first load input with 0 duration: ") + filepath
                               + QStringLiteral(". Filled in duration from inputInfo: ") + QString::number(duration),
                           ConsoleLogger::Warn);
        }
        video = Video::makeInput(nullptr, uid, filepath.toStdString(), duration, framerate, sar, inputInfo);
        if (!video) {
            player.log.log(QStringLiteral("Could not open input!!"), ConsoleLogger::Critical);
            return;
        }
        {
            const std::lock_guard lock(player.stateMutex);
            player.currentInput = video;
            player.videos[uid] = video;
        }
        applyFilters(0, video->info, false);
        applyFilters(1, video->info, false);
        player.log.log(QStringLiteral("About to open"));
    } else {
        player.setInput(video);
        if (video->duration == 0)
            video->duration = inputInfo.value(QStringLiteral("duration")).toLongLong();
        applyFilters(0, video->info, false);
        applyFilters(1, video->info, false);
    }

    player.inputNode->loadedPath = filepath.toStdString();
    player.inputNode->setTimestamp(static_cast<int>(timestamp));

    for (int view : {-1, 0, 1}) {
        ViewNode *n = player.node(view);
        auto timeline = std::make_shared<Timeline>();
        std::shared_ptr<Video> shown;
        {
            const std::lock_guard lock(player.timelineMutex);
            timeline->setInput(video);
            n->timeline = timeline;
            n->previewSetUID = -1;
            const RData &order = timeline->getRData(timestamp);
            if (order.index >= 0 && order.index < static_cast<int>(order.videos.size()))
                shown = order.videos[static_cast<size_t>(order.index)];
        }
        if (view == -1)
            continue;
        if (!player.isMPVIdle && shown)
            player.transport.loadVideo(view, shown->filepath, timestamp);
        else
            player.log.log(QStringLiteral("didnt open"));
    }

    player.inputNode->updateInfoFromVideo(video);
    const int timestep = Video::timestepFor(framerate);
    player.inputNode->frameRange = {0, static_cast<int>(video->duration) - timestep};
    player.log.log(QStringLiteral("Opened input path:") + filepath);

    player.viewNodeManager->resetAll();
    player.notify([this] {
        emit player.isOpenChanged();
        emit player.inputInfoChanged();
        emit player.leftInfoChanged();
        emit player.rightInfoChanged();
    });
    player.transport.handleSeek(timestamp, true, false, true);
    player.notify([this, uid, firstLoad] { emit player.openedInput(uid, firstLoad); });
}

void InputPreviewHandler::applyFilters(int viewID, const QVariantMap &info, bool reapply)
{
    if (!player.isPane(viewID))
        return;
    player.usePane(viewID, [&](MPVObject &pane) { applyFiltersTo(pane, viewID, info, reapply); });
}

void InputPreviewHandler::applyFiltersTo(MPVObject &pane, int viewID, const QVariantMap &info, bool reapply)
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
        if (player.blackAndWhiteSet[static_cast<size_t>(viewID)].exchange(wanted) != wanted)
            p->executeCommand(QStringLiteral("vf ") + (wanted ? QStringLiteral("add") : QStringLiteral("remove"))
                                  + kBlackAndWhiteFilter,
                              false);
    }
    if (info.value(QStringLiteral("isImageSequence")).toBool() && info.contains(QStringLiteral("fps"))) {
        const double fps = info.value(QStringLiteral("fps")).toDouble();
        p->executeCommand(QStringLiteral("set mf-fps ") + QString::asprintf("%f", fps), false);
        p->setFramerate(static_cast<float>(fps));
        if (reapply && !player.isMPVIdle) {
            std::shared_ptr<Video> shown;
            {
                const std::lock_guard lock(player.timelineMutex);
                shown = player.node(viewID)->currentVideo;
            }
            if (shown) {
                const TSType t = player.getInputTimestamp();
                const qint64 position
                    = shown == player.input() ? t : syncmath::inputToFile(t, shown->startOffset, shown->slowmotion);
                player.transport.loadVideo(viewID, shown->filepath, std::max<qint64>(0, position));
            }
        }
    }
}

void InputPreviewHandler::handleAddPreview(const QVariantMap &request)
{
    const bool wasPlaying = player.isPlaying;
    player.notify([this] { emit player.isPlayingChanged(); });

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
        player.log.log(QStringLiteral("~~~ handleAddPreview FAILED to add preview w/ psUID:%1 ").arg(psUID) + filepath,
                       ConsoleLogger::Warn);
        return;
    }
    {
        const std::lock_guard lock(player.stateMutex);
        player.videos[previewUID] = video;
    }
    {
        const std::lock_guard lock(player.timelineMutex);
        player.timelineManager.addPreview(video, psUID, player.input());
    }
    if (wasPlaying && !previewInfo.value(QStringLiteral("isTerminated")).toBool())
        player.initLiveRenderAtTS(player.getInputTimestamp(), false);
    if (isLiveRender) {
        if (player.irInitiating[0] || player.irInitiating[1])
            player.queuePlay();
        if (player.isPane(selectedView)) {
            player.irInitiating[static_cast<size_t>(selectedView)] = false;
            player.emitInitiating(selectedView, false, 1);
        }
    }
    player.transport.handleSeek(player.getInputTimestamp(), false, false, true);
}

void InputPreviewHandler::handleReload(const QVariantMap &request)
{
    const UID uid = request.value(QStringLiteral("uid")).toInt();
    const TSType newRangeX = request.value(QStringLiteral("newRangeX")).toLongLong();
    const TSType newRangeY = request.value(QStringLiteral("newRangeY")).toLongLong();
    const bool replaceFile = request.value(QStringLiteral("replaceFile")).toBool();
    const QString newFilepath = request.value(QStringLiteral("newFilepath")).toString();

    const auto video = player.getPreview(uid);
    if (!video) {
        player.log.log(QStringLiteral("reloading video: %1 not found").arg(uid), ConsoleLogger::Warn);
        return;
    }
    player.log.log(QStringLiteral("reloading video: %1").arg(uid));
    player.log.log(QStringLiteral("isReplacing with new file path?")
                   + (replaceFile ? QStringLiteral(" true ") : QStringLiteral(" false ")) + newFilepath);
    if (video->isGenerating)
        player.log.log(QStringLiteral(" is Generating? true"));

    const TSType end = player.inputEnd();
    if (newRangeX >= 0 && newRangeX <= end)
        video->startOffset = newRangeX;
    // -1 keeps a value; the duration follows from the start now in force.
    if (newRangeY >= 0 && newRangeY <= end)
        video->duration = newRangeY - video->startOffset;
    if (replaceFile)
        video->filepath = newFilepath.toStdString();

    {
        const std::lock_guard lock(player.timelineMutex);
        const PreviewSetUID set = player.timelineManager.deletePreview(uid);
        if (set == -1) {
            player.log.log(
                QStringLiteral("reloading video Could not find and remove preview in Timeline Manager: %1").arg(uid)
                    + QStringLiteral(" path: ") + QString::fromStdString(video->filepath),
                ConsoleLogger::Warn);
            return;
        }
        player.timelineManager.addPreview(video, set, player.input());
    }

    const TSType t = player.getInputTimestamp();
    bool reloaded = false;
    for (int view : {0, 1}) {
        ViewNode *n = player.node(view);
        bool showsIt = false;
        {
            const std::lock_guard lock(player.timelineMutex);
            showsIt = n->currentVideo == video;
        }
        if (!showsIt)
            continue;
        const qint64 position = syncmath::inputToFile(t, video->startOffset, video->slowmotion);
        player.transport.loadVideo(view, video->filepath, std::max<qint64>(0, position));
        reloaded = true;
    }
    if (reloaded && player.isPlaying) {
        player.resumeAfterReload = true;
        player.queuePlay();
        player.transport.handleSeek(t, player.cancelPendingPlay, false, true);
    } else if (video->startOffset <= t && t <= video->startOffset + video->duration) {
        player.transport.handleSeek(t, false, false, true);
    }
}

void InputPreviewHandler::handleUpdateInfo(UID uid, const QVariantMap &newInfo)
{
    const auto video = player.findVideo(uid);
    if (!video) {
        player.log.log(QStringLiteral("Could not update info: Found no video with videoUID as %1").arg(uid),
                       ConsoleLogger::Warn);
        return;
    }
    if (newInfo.isEmpty()) {
        player.log.log(QStringLiteral("Could not update info: newInfo is empty"), ConsoleLogger::Warn);
        return;
    }
    QVariantMap merged;
    {
        const std::lock_guard lock(player.infoMutex);
        video->applyInfo(newInfo);
        merged = video->info;
    }
    applyFilters(0, merged, true);
    applyFilters(1, merged, true);
    player.notify([this] { emit player.inputInfoChanged(); });
}

void InputPreviewHandler::handleSetPreviewSet(int viewID, PreviewSetUID psUID)
{
    player.log.log(QStringLiteral("~~~ Set view %1 psUID to %2").arg(viewID).arg(psUID));
    ViewNode *n = player.node(viewID);
    if (!player.isPane(viewID) || !n)
        return;
    const auto currentIn = player.input();
    {
        const std::lock_guard lock(player.timelineMutex);
        // A set's timeline goes back to the manager first; the first one under
        // an id wins, so this never replaces the set's own.
        if (n->previewSetUID != -1 && n->timeline)
            player.timelineManager.insertTimeline(n->previewSetUID, n->timeline);
        if (psUID == -1) {
            if (n->previewSetUID != -1) {
                const bool loneInput = n->timeline && n->timeline->getPreviewRanges().empty()
                    && n->timeline->input == currentIn && player.timelineManager.timelines.count(n->previewSetUID) == 0;
                if (!loneInput) {
                    auto timeline = std::make_shared<Timeline>();
                    timeline->setInput(currentIn);
                    n->timeline = timeline;
                }
            }
        } else {
            auto timeline = player.timelineManager.getTimeline(psUID);
            if (!timeline) {
                // A set with no preview yet: later previews must land in the timeline shown.
                timeline = std::make_shared<Timeline>();
                timeline->setInput(currentIn);
                player.timelineManager.insertTimeline(psUID, timeline);
            }
            n->timeline = timeline;
        }
    }
    if (player.isPlaying)
        player.queuePlay();
    player.transport.handleSeek(player.getInputTimestamp(), false, false, true);
    const std::lock_guard lock(player.timelineMutex);
    n->previewSetUID = psUID;
}

void InputPreviewHandler::handleClosePreview(UID previewUID)
{
    {
        const std::lock_guard lock(player.timelineMutex);
        player.timelineManager.deletePreview(previewUID);
    }
    const std::lock_guard lock(player.stateMutex);
    player.videos.erase(previewUID);
}

void InputPreviewHandler::handleResetView(int viewID)
{
    player.log.log(QStringLiteral("Reset view %1").arg(viewID));
    player.viewNodeManager->resetOne(viewID, true);
    // resetOne leaves the pane as it is: returning it to the input is done here.
    handleSetPreviewSet(viewID, -1);
}

} // namespace videoplayer
