#pragma once

#include "timeline/ConsoleLogger.h"
#include "timeline/Timeline.h"

#include <memory>
#include <unordered_map>

// One timeline per preview set, for the player's request handlers.
class TimelineManager
{
public:
    TimelineManager();

    // A set that has no timeline yet gets one over `input`; otherwise `input` is not read.
    void addPreview(std::shared_ptr<Video> video, PreviewSetUID psUID, std::shared_ptr<Video> input);
    std::shared_ptr<videoplayer::Timeline> getTimeline(PreviewSetUID psUID);
    // The first timeline under a key wins.
    void insertTimeline(PreviewSetUID psUID, std::shared_ptr<videoplayer::Timeline> timeline);
    void deleteTimeline(PreviewSetUID psUID);
    // The set whose timeline held the preview, or -1.
    PreviewSetUID deletePreview(UID uid);

    std::unordered_map<PreviewSetUID, std::shared_ptr<videoplayer::Timeline>> timelines;
    ConsoleLogger log;
};
