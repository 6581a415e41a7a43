#include "playback/ViewNode.h"

#include "playback/MPVObject.h"
#include "playback/SyncMath.h"

#include <QElapsedTimer>

namespace videoplayer {

ViewNode::ViewNode(int id, int initialTimestamp, QVariantMap initialInfo, std::shared_ptr<MPVObject> mpvObject,
                   float slowMotionFactor, FrameRange frames, double rate, double aspect, Callback onTimestamp,
                   Callback onInfo, std::mutex *tsMutex, std::mutex *infMutex, QObject *parent)
    : QObject(parent)
    , viewID(id)
    , slowMotion(slowMotionFactor)
    , frameRange(frames)
    , framerate(rate)
    , sar(aspect)
    , timestampChanged(std::move(onTimestamp))
    , infoChanged(std::move(onInfo))
    , timestamp(initialTimestamp)
    , info(std::move(initialInfo))
    , timestampMutex(tsMutex)
    , infoMutex(infMutex)
{
    log.prefix = QStringLiteral("ViewNode <>===---");
    mpv.attach(mpvObject.get());
}

void ViewNode::logTruth(int site)
{
    log.log(QStringLiteral("truthTS updated %1 :%2").arg(site).arg(truthTS.load()));
}

bool ViewNode::seekTo(qint64 position)
{
    if (viewID == -1) {
        setTimestamp(static_cast<int>(position));
        return true;
    }
    if (!mpv) {
        log.log(QStringLiteral("Cannot seekTo, MPV isn't valid!"), ConsoleLogger::Warn);
        return false;
    }
    if (position < 0) {
        log.log(QStringLiteral("cannot seekTo, Invalid seek timestamp (< 0)"), ConsoleLogger::Warn);
        return false;
    }
    mpv.use([position](MPVObject &pane) { pane.seek(position); });
    setTimestamp(static_cast<int>(position));
    mpvTS = position;
    truthTS = syncmath::fileToInput(position, slowMotion, frameRange.first);
    logTruth(3);
    return true;
}

void ViewNode::setTimestamp(int value)
{
    {
        const std::lock_guard lock(*timestampMutex);
        timestamp = value;
    }
    if (timestampChanged)
        timestampChanged();
}

void ViewNode::setInfo(const QVariantMap &value)
{
    {
        const std::lock_guard lock(*infoMutex);
        info = value;
    }
    if (infoChanged)
        infoChanged();
}

int ViewNode::getTimestamp() const
{
    const std::lock_guard lock(*timestampMutex);
    return timestamp;
}

QVariantMap ViewNode::getInfo() const
{
    const std::lock_guard lock(*infoMutex);
    return info;
}

void ViewNode::takeVideoFields(const std::shared_ptr<Video> &video)
{
    const QPoint range = video->range();
    frameRange = {range.x(), range.y()};
    framerate = video->framerate;
    sar = video->sar;
    slowMotion = static_cast<float>(video->slowmotion);
}

void ViewNode::updateInfoFromVideo(const std::shared_ptr<Video> &video)
{
    QElapsedTimer timer;
    timer.start();
    if (!video) {
        log.log(QStringLiteral("->->-> Failed updateInfoFromVideo in ViewNode in \t"), ConsoleLogger::Critical);
        return;
    }
    setInfo(video->info);
    takeVideoFields(video);
    log.log(QStringLiteral("->->-> Finished updateInfoFromVideo in ViewNode in \t%1ms.").arg(timer.elapsed()));
}

void ViewNode::SyncView()
{
    updateInfoFromVideo(currentVideo);
    if (!currentVideo)
        return;
    const int before = getTimestamp();
    const qint64 position = syncmath::syncViewPosition(truthTS, currentVideo->startOffset, slowMotion);
    setTimestamp(static_cast<int>(position));
    mpvTS = position;
    log.log(QStringLiteral("SyncView moved timestamp %1->%2").arg(before).arg(position));
    // The slow-motion factor is left out here on purpose.
    truthTS = currentVideo->startOffset + mpvTS;
}

void ViewNode::initTimelineForPlaying(qlonglong timePos)
{
    if (!timeline)
        return;
    const RData &order = timeline->getRData(timePos);
    playbackVideos = order.videos;
    playbackRanges = order.ranges;
    playbackIndex = order.index < static_cast<int>(playbackVideos.size()) ? order.index : 0;
    if (playbackVideos.empty())
        return;
    currentVideo = playbackVideos[static_cast<size_t>(playbackIndex)];
    if (static_cast<size_t>(playbackIndex) < playbackRanges.size())
        currentRange = playbackRanges[static_cast<size_t>(playbackIndex)];
}

void ViewNode::mpvTimelineSync(qlonglong timePos, bool isEOF)
{
    if (!timelineSyncEnabled)
        return;
    const auto count = playbackVideos.size();
    if (count == 0 || playbackRanges.size() != count || playbackIndex < 0 || static_cast<size_t>(playbackIndex) >= count)
        return;
    const TimeRange range = playbackRanges[static_cast<size_t>(playbackIndex)];
    const std::shared_ptr<Video> video = playbackVideos[static_cast<size_t>(playbackIndex)];
    const float position = syncmath::fileToInputF(timePos, slowMotion, video->range().x());
    const bool leaving = isEOF || position >= static_cast<float>(range.second);

    if (leaving && count > 1) {
        // A load that is still in flight reports on the old file: stale.
        std::string playing;
        if (!mpv.use([&playing](MPVObject &pane) { playing = pane.getCurrentPlayingVideoPath(); })
            || playing != video->filepath)
            return;
        playbackIndex = static_cast<int>((static_cast<size_t>(playbackIndex) + 1) % count);
        const TimeRange next = playbackRanges[static_cast<size_t>(playbackIndex)];
        const std::shared_ptr<Video> nextVideo = playbackVideos[static_cast<size_t>(playbackIndex)];
        currentRange = next;
        currentVideo = nextVideo;
        log.log(QStringLiteral("Time to Loading next video"));
        log.log((playbackIndex == 0 ? QStringLiteral("Loading next video in timeline after looping: ")
                                    : QStringLiteral("Loading next video in timeline: "))
                + QString::fromStdString(nextVideo->filepath));
        mpv.use([&](MPVObject &pane) { pane.load(nextVideo->filepath, next.first - nextVideo->range().x()); });
        updateInfoFromVideo(nextVideo);
        truthTS = next.first;
        return;
    }
    mpvTS = timePos;
    truthTS = syncmath::clampToRangeStart(static_cast<qint64>(position), range);
}

} // namespace videoplayer
