#pragma once

#include "timeline/ConsoleLogger.h"
#include "timeline/Video.h"

#include <memory>
#include <vector>

namespace videoio {
class Reader;
}

namespace videoplayer {

class ViewNode;

// One view's place on its timeline while the two views play in step: the
// stretch in play, the video that owns it, and how far the view has got on the
// input's axis and inside the file.
class PlayableNode
{
public:
    PlayableNode(ViewNode *view, TSType timelineTimestamp);

    // Puts the view on the current video at timelineTimestamp, with the view's
    // own arithmetic: the slow-motion factor is truncated to an integer, and
    // the position carried back to the timeline leaves the factor out.
    void sync();

    ViewNode *view;
    TSType timelineTimestamp;
    TSType videoTimestamp = 0;
    std::shared_ptr<Video> currentVideo;
    // The reader of each stretch, parallel to `videos` and `ranges`.
    std::vector<std::shared_ptr<videoio::Reader>> playNodes;
    std::vector<std::shared_ptr<Video>> videos;
    std::vector<TimeRange> ranges;
    int index = 0;
    bool paused = true;
    bool playing = false;
    bool ended = false;
    ConsoleLogger log;
};

} // namespace videoplayer
