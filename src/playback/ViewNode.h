#pragma once

#include "playback/PaneSlot.h"
#include "timeline/ConsoleLogger.h"
#include "timeline/Timeline.h"
#include "timeline/Video.h"

#include <QObject>
#include <QVariantMap>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

class MPVObject;

namespace videoplayer {

class ViewNodeManager;

// One logical pane: one mpv, one timeline, the video of that timeline in play,
// and the two clocks. mpv reports file time; truthTS is the position on the
// input's axis, the single clock of the player. View -1 is the input and has
// no mpv: it only carries time and information for the UI.
class ViewNode : public QObject
{
    Q_OBJECT

public:
    using Callback = std::function<void()>;
    using FrameRange = std::pair<int, int>;

    ViewNode(int viewID, int timestamp, QVariantMap info, std::shared_ptr<MPVObject> mpv, float slowMotion,
             FrameRange frameRange, double framerate, double sar, Callback timestampChanged, Callback infoChanged,
             std::mutex *timestampMutex, std::mutex *infoMutex, QObject *parent = nullptr);

    // Puts the pane at `position` milliseconds of its file. False, with a
    // warning, for a pane without mpv or a negative position.
    bool seekTo(qint64 position);
    void setTimestamp(int value);
    void setInfo(const QVariantMap &value);
    int getTimestamp() const;
    QVariantMap getInfo() const;
    void updateInfoFromVideo(const std::shared_ptr<Video> &video);
    // Realigns the pane's position on its current video after the input clock
    // moved, without commanding mpv.
    void SyncView();

    const int viewID;
    // The pane is the scene's; the node only holds the use of it.
    PaneSlot mpv;
    std::shared_ptr<Timeline> timeline;
    // Written by the worker and by the event slots; a stale value is accepted
    // and repaired at the next report, atomics only keep the access defined.
    std::atomic<qint64> truthTS{0};
    std::atomic<qint64> mpvTS{0};
    std::shared_ptr<Video> currentVideo;
    TimeRange currentRange{0, 0};
    std::vector<std::shared_ptr<Video>> playbackVideos;
    std::vector<TimeRange> playbackRanges;
    int playbackIndex = 0;
    std::atomic<bool> timelineSyncEnabled{false};
    float slowMotion = 1.0f;
    FrameRange frameRange{0, 0};
    double framerate = 0.0;
    double sar = 1.0;
    Callback timestampChanged;
    Callback infoChanged;
    std::string loadedPath;
    int previewSetUID = -1;
    ConsoleLogger log;

public slots:
    void initTimelineForPlaying(qlonglong timePos);
    // The single-pane form of following a timeline while mpv plays.
    void mpvTimelineSync(qlonglong timePos, bool isEOF);

private:
    friend class ViewNodeManager;
    // Fills everything that follows from `video`; `info` is stored as is, the
    // caller holding the info mutex and calling back itself.
    void takeVideoFields(const std::shared_ptr<Video> &video);
    void logTruth(int site);

    int timestamp = 0;
    QVariantMap info;
    std::mutex *timestampMutex;
    std::mutex *infoMutex;
};

} // namespace videoplayer
