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

// What the user does to the picture of both panes at once: crop, zoom, pan,
// mute and volume. Runs on the caller's thread.
// It works on the player's state, to which it is a friend.
class ViewOperations
{
public:
    explicit ViewOperations(VideoPlayer &player);

    QRect getTransposedROI(int x, int y, int w, int h);
    void setVideoCrop(int x, int y, int w, int h);
    void clearVideoCrop();
    void setVideoCropToView(int viewID, int x, int y, int w, int h);
    void clearVideoCropToView(int viewID);
    void moveMPVPan(QPointF pos);
    void setZoom(double zoom);
    void setMute(bool mute);
    void setMute(int mpvNo, bool mute);
    void setVolume(int volume);
    void showBlackFrame();

private:
    VideoPlayer &player;
};

} // namespace videoplayer
