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

// A timeline's play order at one position, copied out under the timeline lock.
struct PlayOrder
{
    std::vector<TimeRange> ranges;
    std::vector<std::shared_ptr<Video>> videos;
    int index = 0;
    std::shared_ptr<Video> preview;
    std::shared_ptr<Video> input;
};

// Seeking, stepping, pausing and playing both panes on the input's axis: which
// file each pane opens at which position, the speeds that keep a slowed preview
// in step, and the play that waits until both panes are ready.
// It works on the player's state, to which it is a friend.
class TransportHandler
{
public:
    explicit TransportHandler(VideoPlayer &player);

    void requestSeek(TSType t, bool interrupt, bool initIR);
    void requestPlay();
    void loadVideo(int viewID, const std::string &path, qint64 position);
    void openVideoForView(int viewID, qint64 position, const std::shared_ptr<Video> &video);
    void handleSeek(TSType t, bool interrupt, bool initIR, bool pauseFirst);
    void lookAheadStopIR(int viewID, const PlayOrder &order);
    void setSpeeds();
    void handleNext();
    void handlePrev();
    void handleStep(bool forward);
    void pause();
    void handlePause(bool thenSeek);
    void queuedseekMPVSlotPaused(int mpvID);
    void handlePlay();
    void initTimelineForPlaying(qlonglong timePos);
    void queuePlay();
    void clearQueuedPlays();
    void queuedPlayMPVSlotSeeking(int mpvID, bool seeking);
    void queuedPlayMPVSlotLoaded(int mpvID);
    void executeQueuedPlay();
    void handleQueuedPlay();

private:
    VideoPlayer &player;
};

} // namespace videoplayer
