#pragma once

#include "timeline/Timeline.h"
#include "timeline/Video.h"

#include <QPointF>
#include <QRect>
#include <QVariantMap>

#include <memory>
#include <string>
#include <vector>

class MPVObject;

namespace videoplayer {

class VideoPlayer;

// Following mpv's position reports while both panes play: the input's clock,
// the switch from one stretch of a timeline to the next, looping, the frame
// lock, and the requests to the live renderer.
// It works on the player's state, to which it is a friend.
class PlaybackSync
{
public:
    explicit PlaybackSync(VideoPlayer &player);

    void updateInputTimestamp(qlonglong);
    void mpvTimelineSync(int mpvID, qlonglong timePos, bool isEOF);
    void holdFrameLock(int mpvID, const Video &video, float inputPos, double inputFramerate);
    void toggleIR(bool value);
    void initLiveRenderAtTS(qlonglong timestamp, bool interrupt);
    void initLiveRenderAtTS(qlonglong timestamp);
    void setIRInitStatus(int viewID, bool value);
    void setFilterEnabledStatus(int viewID, bool value);
    void restartIROnFilterChanged(int viewID);

private:
    VideoPlayer &player;
};

} // namespace videoplayer
