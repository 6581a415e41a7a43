#include "timeline/TimelineManager.h"

namespace {

QString pathOf(const std::shared_ptr<Video> &video)
{
    return video ? QString::fromStdString(video->filepath) : QString();
}

QString managerLine(const QString &text)
{
    return QStringLiteral("[Timeline Manager] ") + text;
}

} // namespace

TimelineManager::TimelineManager() = default;

void TimelineManager::addPreview(std::shared_ptr<Video> video, PreviewSetUID psUID, std::shared_ptr<Video> input)
{
    std::shared_ptr<videoplayer::Timeline> timeline = getTimeline(psUID);
    if (!timeline) {
        // Not an error: this is how every preview set begins.
        log.log(managerLine(QStringLiteral("Adding Previews to INVALID timeline of psUID not found: %1 with video %2")
                                .arg(psUID)
                                .arg(pathOf(video))),
                ConsoleLogger::Warn);
        timeline = std::make_shared<videoplayer::Timeline>();
        timeline->setInput(std::move(input));
        timelines.emplace(psUID, timeline);
        timeline->addVideo(std::move(video));
        return;
    }
    log.log(managerLine(QStringLiteral("Adding Previews to valid timeline of psUID: %1 with video %2 VIDEO UID: %3")
                            .arg(psUID)
                            .arg(pathOf(video))
                            .arg(video ? video->uid : -1)),
            ConsoleLogger::Debug);
    timeline->addVideo(std::move(video));
}

std::shared_ptr<videoplayer::Timeline> TimelineManager::getTimeline(PreviewSetUID psUID)
{
    const auto found = timelines.find(psUID);
    if (found == timelines.end()) {
        log.log(managerLine(QStringLiteral("! Retrieving but Could not find timeline with psUID: %1").arg(psUID)),
                ConsoleLogger::Warn);
        return nullptr;
    }
    log.log(managerLine(QStringLiteral("Retrieving and Found with psUID: %1 with %2 videos")
                            .arg(psUID)
                            .arg(found->second->rData.videos.size())),
            ConsoleLogger::Debug);
    return found->second;
}

void TimelineManager::insertTimeline(PreviewSetUID psUID, std::shared_ptr<videoplayer::Timeline> timeline)
{
    if (!timeline) {
        log.log(managerLine(QStringLiteral("Inserting timeline but no timeline given with psUID: %1").arg(psUID)),
                ConsoleLogger::Warn);
        return;
    }
    const auto found = timelines.find(psUID);
    if (found != timelines.end()) {
        log.log(managerLine(QStringLiteral("Inserting timeline but timeline already found with psUID: %1 with %2 videos")
                                .arg(psUID)
                                .arg(found->second->rData.videos.size())),
                ConsoleLogger::Debug);
        return;
    }
    timelines.emplace(psUID, std::move(timeline));
}

void TimelineManager::deleteTimeline(PreviewSetUID psUID)
{
    const auto found = timelines.find(psUID);
    if (found == timelines.end()) {
        log.log(managerLine(QStringLiteral("Deleting timeline but timeline NOT FOUND with psUID: %1").arg(psUID)),
                ConsoleLogger::Debug);
        return;
    }
    log.log(managerLine(QStringLiteral("Deleting timeline found with psUID: %1 with video %2 videos")
                            .arg(psUID)
                            .arg(found->second->rData.videos.size())),
            ConsoleLogger::Debug);
    // A view that still shows it keeps it alive.
    timelines.erase(found);
}

PreviewSetUID TimelineManager::deletePreview(UID uid)
{
    // Only what stands in the run counts: a preview that was never placed, or
    // was lost by a clear, is not found here although its timeline's maps know it.
    for (const auto &[psUID, timeline] : timelines) {
        for (const std::shared_ptr<Video> &video : timeline->getVideos()) {
            if (video && video->uid == uid) {
                timeline->deletePreview(uid);
                return psUID;
            }
        }
    }
    log.log(managerLine(QStringLiteral("Deleting preview but no timeline shows uid: %1").arg(uid)),
            ConsoleLogger::Debug);
    return -1;
}
