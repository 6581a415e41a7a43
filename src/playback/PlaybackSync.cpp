#include "playback/PlaybackSync.h"

#include "playback/MPVObject.h"
#include "playback/SyncMath.h"
#include "playback/VideoPlayer.h"

#include <algorithm>
#include <cmath>
#include <mutex>

namespace videoplayer {

PlaybackSync::PlaybackSync(VideoPlayer &owner)
    : player(owner)
{
}

void PlaybackSync::updateInputTimestamp(qlonglong)
{
    const qint64 t = std::min(player.leftNode->truthTS.load(), player.rightNode->truthTS.load());
    player.inputNode->setTimestamp(static_cast<int>(t));
}

void PlaybackSync::mpvTimelineSync(int mpvID, qlonglong timePos, bool isEOF)
{
    if (!player.isPlaying || !player.isPane(mpvID))
        return;
    if (mpvID == 1)
        updateInputTimestamp(timePos);

    ViewNode *n = player.node(mpvID);
    std::shared_ptr<Video> video;
    std::shared_ptr<Video> nextVideo;
    TimeRange range;
    TimeRange nextRange;
    int nextIndex = 0;
    std::size_t count = 0;
    {
        const std::lock_guard lock(player.timelineMutex);
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
    const auto currentIn = player.input();
    const double frameMs = 1000.0 / video->framerate;
    const bool isInput = video == currentIn;
    const float pos = syncmath::fileToInputF(timePos, n->slowMotion, video->startOffset);
    const TSType end = player.inputEnd();
    const QPoint inOut = player.getInOutRange();
    const bool trim = player.trimOn && inOut.x() >= 0 && inOut.y() >= 0;
    const TSType loopTarget = inOut.x() + (isInput ? 0 : 1);

    // 1. The in/out range: a report well past the out point comes from a seek
    // beyond it and does not loop.
    if (trim && pos < static_cast<float>(inOut.y() + 1.5 * frameMs)) {
        const TSType limit = std::min<TSType>(isInput ? inOut.y() : inOut.y() - static_cast<TSType>(frameMs), end);
        if (pos >= static_cast<float>(limit)) {
            player.transport.requestSeek(loopTarget, false, false);
            player.transport.requestPlay();
            return;
        }
    }
    // 2. Within the stretch.
    if (!isEOF && pos < static_cast<float>(range.second)) {
        n->mpvTS = timePos;
        n->truthTS = syncmath::clampToRangeStart(static_cast<qint64>(pos), range);
        player.log.log(QStringLiteral("truthTS updated 2 :%1").arg(n->truthTS.load()));
        holdFrameLock(mpvID, *video, pos, currentIn ? currentIn->framerate : video->framerate);
        return;
    }
    // 3. Looping one preview.
    if (player.loopingPreviews && player.loopingUID != -1 && player.loopingUID == video->uid) {
        player.queuePlay();
        player.transport.requestSeek(range.first, false, false);
        return;
    }
    // 4. End of the input.
    if (pos >= static_cast<float>(end))
        player.viewAtEnd[static_cast<std::size_t>(mpvID)] = true;
    // 5. A timeline of one video: restart once both panes have ended.
    if (count == 1) {
        if (player.viewAtEnd[0] == player.viewAtEnd[1]) {
            player.queuePlay();
            player.transport.requestSeek(range.first, false, false);
        }
        return;
    }
    // 6. Several videos. A report on another file than the stretch's comes
    // from before a load that is under way.
    std::string playing;
    if (!player.usePane(mpvID, [&playing](MPVObject &pane) { playing = pane.getCurrentPlayingVideoPath(); })
        || playing != video->filepath)
        return;
    if (player.irEnabled && nextVideo == currentIn) {
        // Live render has not produced what follows yet.
        const bool nearLoopPoint = (trim && inOut.y() - pos <= frameMs) || (end - pos < frameMs);
        if (nearLoopPoint) {
            player.transport.requestSeek(std::max<TSType>(0, loopTarget), false, false);
            player.transport.requestPlay();
            return;
        }
        player.forEachPane([](MPVObject &pane) { pane.pause(); });
        player.transport.requestSeek(player.getInputTimestamp(), false, false);
        player.emitInitiating(mpvID, true, 0);
        return;
    }
    player.log.log(QStringLiteral("Time to Loading next video at %1").arg(static_cast<double>(pos)));
    player.frameLock.reset();
    {
        const std::lock_guard lock(player.timelineMutex);
        n->playbackIndex = nextIndex;
        n->currentVideo = nextVideo;
        n->currentRange = nextRange;
    }
    n->truthTS = nextRange.first;
    player.log.log((nextIndex == 0 ? QStringLiteral("Loading next video in timeline after looping: ")
                                   : QStringLiteral("Loading next video in timeline: "))
                   + QString::fromStdString(nextVideo->filepath));
    player.log.log(QStringLiteral("truthTS updated 1 :%1").arg(n->truthTS.load()));
    if (player.viewAtEnd[0] == player.viewAtEnd[1]) {
        player.queuePlay();
        player.transport.requestSeek(nextRange.first, false, false);
    }
}

void PlaybackSync::holdFrameLock(int mpvID, const Video &video, float inputPos, double inputFramerate)
{
    double reportedAt = 0;
    std::string playing;
    player.usePane(mpvID, [&](MPVObject &pane) {
        reportedAt = pane.reportTime();
        playing = pane.getCurrentPlayingVideoPath();
    });
    // A report from the file before a load, or a pane never started, says
    // nothing about where the pane's frames stand.
    if (playing != video.filepath || reportedAt <= 0 || !(video.framerate > 0) || !(inputFramerate > 0))
        return;
    bool followerHeard = true;
    player.usePane(FrameLock::kFollower, [&](MPVObject &pane) { followerHeard = !pane.player().isMuted(); });
    const ViewNode *n = player.node(mpvID);
    const double factor = n->slowMotion > 0 ? n->slowMotion : 1.0;
    const double rate = player.baseSpeed[static_cast<size_t>(mpvID)] / factor;
    const double frameMs = std::min(1000.0 / inputFramerate, 1000.0 / video.framerate / factor);
    const FrameLock::Action action = player.frameLock.report(mpvID, inputPos, reportedAt, rate, frameMs, followerHeard);
    const double base = player.baseSpeed[FrameLock::kFollower];
    switch (action.kind) {
    case FrameLock::Action::None:
        return;
    case FrameLock::Action::Trim:
        player.log.log(
            [&] { return QStringLiteral("frame lock: right pane at %1 of its speed").arg(action.speedFactor); });
        player.frameLock.carryOut(action, [&] {
            player.usePane(FrameLock::kFollower,
                           [&](MPVObject &pane) { pane.player().setSpeedProperty(base * action.speedFactor); });
        });
        return;
    case FrameLock::Action::Reseek: {
        ViewNode *follower = player.node(FrameLock::kFollower);
        std::shared_ptr<Video> shown;
        TimeRange range;
        {
            const std::lock_guard lock(player.timelineMutex);
            const auto index = static_cast<std::size_t>(follower->playbackIndex);
            if (index >= follower->playbackVideos.size() || index >= follower->playbackRanges.size())
                return;
            shown = follower->playbackVideos[index];
            range = follower->playbackRanges[index];
        }
        const auto target = static_cast<qint64>(action.targetInputMs);
        // Across a boundary the player's own switch realigns the panes.
        if (!shown || target < range.first || target >= range.second)
            return;
        const qint64 fileMs
            = shown == player.input() ? target : syncmath::inputToFile(target, shown->startOffset, shown->slowmotion);
        player.log.log(
            QStringLiteral("frame lock: right pane off by more than two frames, re-seeking it to %1").arg(target));
        player.frameLock.carryOut(action, [&] {
            player.usePane(FrameLock::kFollower, [&](MPVObject &pane) {
                pane.player().setSpeedProperty(base);
                pane.seek(fileMs);
            });
        });
        return;
    }
    }
}

void PlaybackSync::toggleIR(bool value)
{
    player.log.log(QStringLiteral("[03/20] toggle IR to") + (value ? QStringLiteral("true") : QStringLiteral("false")));
    player.irEnabled = value;
    if (value && player.isOpen)
        player.transport.requestSeek(player.getInputTimestamp(), true, true);
}

void PlaybackSync::initLiveRenderAtTS(qlonglong timestamp, bool interrupt)
{
    const PlayOrder orders[2]
        = {player.orderAt(player.leftNode.get(), timestamp), player.orderAt(player.rightNode.get(), timestamp)};
    player.cancelPendingPlay = false;
    player.queuePlay();
    player.irInitiating[0] = false;
    player.irInitiating[1] = false;
    const auto currentIn = player.input();
    const QPoint inOut = player.getInOutRange();
    const bool trim = player.trimOn && inOut.x() >= 0 && inOut.y() >= 0;

    for (int view : {0, 1}) {
        const PlayOrder &order = orders[view];
        if (!order.preview) {
            if (player.filterEnabled[static_cast<std::size_t>(view)]) {
                player.notify([this, view] { emit player.startIR(view, 0, -1, -1); });
                player.irInitiating[static_cast<std::size_t>(view)] = true;
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
            player.notify([this, view, start, stop] { emit player.startIR(view, 1, start, stop); });
            break;
        }
    }
    for (int view : {0, 1}) {
        if (interrupt)
            player.emitInitiating(view, player.irInitiating[static_cast<std::size_t>(view)], 1);
        else
            player.irInitiating[static_cast<std::size_t>(view)] = false;
    }
}

void PlaybackSync::initLiveRenderAtTS(qlonglong timestamp)
{
    initLiveRenderAtTS(timestamp, true);
}

void PlaybackSync::setIRInitStatus(int viewID, bool value)
{
    if (player.isPane(viewID))
        player.irInitiating[static_cast<std::size_t>(viewID)] = value;
}

void PlaybackSync::setFilterEnabledStatus(int viewID, bool value)
{
    if (!player.isPane(viewID))
        return;
    player.filterEnabled[static_cast<std::size_t>(viewID)] = value;
    if (value)
        return;
    player.irInitiating[static_cast<std::size_t>(viewID)] = false;
    player.notify([this, viewID] { emit player.stopIR(viewID); });
    player.emitInitiating(viewID, false, 1);
}

void PlaybackSync::restartIROnFilterChanged(int viewID)
{
    if (!player.isPane(viewID))
        return;
    if (player.filterEnabled[static_cast<std::size_t>(viewID)])
        player.notify([this, viewID] { emit player.stopIR(viewID); });
    const auto currentIn = player.input();
    if (!currentIn || !(currentIn->framerate > 0))
        return;
    const qlonglong t = player.getInputTimestamp();
    const auto stop = static_cast<qlonglong>(static_cast<double>(t) + 20000.0 / currentIn->framerate);
    player.notify([this, viewID, t, stop] {
        emit player.startIR(viewID, 0, t, stop);
        emit player.isInitiatingIRChanged(viewID, true, 0);
    });
}

} // namespace videoplayer
