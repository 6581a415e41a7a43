#pragma once

#include "playback/FrameLock.h"
#include "playback/InputPreviewHandler.h"
#include "playback/MPVObject.h"
#include "playback/PlaybackSync.h"
#include "playback/TransportHandler.h"
#include "playback/VPReqQueue.h"
#include "playback/VideoPlayerContext.h"
#include "playback/ViewNode.h"
#include "playback/ViewNodeManager.h"
#include "playback/ViewOperations.h"
#include "timeline/ConsoleLogger.h"
#include "timeline/TimelineManager.h"
#include "timeline/VideoCoorelationManager.h"

#include <QHash>
#include <QPoint>
#include <QPointF>
#include <QRect>
#include <QVariantMap>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

namespace videoplayer {

// One input beside rendered previews in two mpv panes held on one clock, the
// input's time axis (truthTS). Slots pack requests for one worker thread that
// performs them in order; what must act at once (pause, the queued-play
// slots, the sync of mpv's position reports) runs on the caller's thread. The
// flags are atomics with no lock over a whole state change: a stale mpv report
// is recognised by its file path, not prevented.
class VideoPlayer : public VideoPlayerContext
{
    Q_OBJECT
    Q_PROPERTY(std::vector<MPVObject *> m_mpvs READ getMPVObjects WRITE setMPVObjects)
    Q_PROPERTY(bool isOpen READ getIsOpen NOTIFY isOpenChanged)
    Q_PROPERTY(bool isMPVIdle READ getIsMPVIdle WRITE setMPVIdle NOTIFY isMPVIdleChanged)
    Q_PROPERTY(QVariantMap inputInfo READ getInputInfo NOTIFY inputInfoChanged)
    Q_PROPERTY(qlonglong leftTimestamp READ getLeftTimestamp NOTIFY leftTimestampChanged)
    Q_PROPERTY(qlonglong rightTimestamp READ getRightTimestamp NOTIFY rightTimestampChanged)
    Q_PROPERTY(QVariantMap leftInfo READ getLeftInfo NOTIFY leftInfoChanged)
    Q_PROPERTY(QVariantMap rightInfo READ getRightInfo NOTIFY rightInfoChanged)

public:
    explicit VideoPlayer(QObject *parent = nullptr);
    ~VideoPlayer() override;

    std::vector<MPVObject *> getMPVObjects() const;
    void setMPVObjects(const std::vector<MPVObject *> &mpvObjects);
    bool getIsOpen() const;
    bool getIsMPVIdle() const;
    QVariantMap getInputInfo() const;
    qlonglong getLeftTimestamp() const;
    qlonglong getRightTimestamp() const;
    QVariantMap getLeftInfo() const;
    QVariantMap getRightInfo() const;
    qlonglong getInputTimestamp() override;

    // For tools and tests: no request is waiting and none is being performed.
    bool isIdle() const;
    // For tools and tests: the input-axis position a pane stands on.
    qint64 truthTS(int viewID) const;

signals:
    void isOpenChanged();
    void isInitiatingIRChanged(int viewID, bool value, int IRInitMode);
    void isInitiatingIRChanged(int viewID, bool value);
    void leftTimestampChanged();
    void rightTimestampChanged();
    void inputInfoChanged();
    void leftInfoChanged();
    void rightInfoChanged();
    void openedInput(int uid, bool firstLoad);
    // Default arguments, not overloads: the shorter forms are clones of this
    // one, so that a QML handler receives all four arguments.
    void startIR(int viewID, int IRInitMode = 0, qlonglong startTS = -1, qlonglong endTS = -1);
    void stopIR(int viewID);
    void isMPVIdleChanged();

public slots:
    void pause() override;
    void play() override;
    void seek(TSType requestedTimestamp, bool interrupt, bool initIR) override;
    void seek(TSType requestedTimestamp, bool interrupt);
    void seek(TSType requestedTimestamp);
    void next() override;
    void prev() override;
    void close();
    void refresh();
    void showNothing();
    void queuePlay();
    void queuedPlayMPVSlotSeeking(int mpvID, bool seeking);
    void queuedPlayMPVSlotLoaded(int mpvID);
    void queuedseekMPVSlotPaused(int mpvID);
    void executeQueuedPlay();
    void clearQueuedPlays();
    void updateInputTimestamp(qlonglong pos);
    void toggleLoopingPreviews(bool value, int uid);
    void toggleLoopingPreviews(bool value);
    void adjustInOutRange(bool trimOn, QPoint range) override;
    void addInput(UID uid, TSType timestamp, QString filepath, TSType duration, double framerate, double sar,
                  bool firstLoad, QVariantMap inputInfo) override;
    void closeInput(UID uid);
    void resetViewToInput(int viewID);
    void addPreview(PreviewSetUID psUID, UID previewUID, int selectedView, UID inputUID, QString filepath,
                    TSType startOffset, TSType duration, double framerate, double slowmotion, double sar,
                    QVariantMap previewInfo, bool isGenerating, bool isLiveRender);
    void addPreview(PreviewSetUID psUID, UID previewUID, int selectedView, UID inputUID, QString filepath,
                    TSType startOffset, TSType duration, double framerate, double slowmotion, double sar,
                    QVariantMap previewInfo, bool isGenerating);
    void addPreview(PreviewSetUID psUID, UID previewUID, int selectedView, UID inputUID, QString filepath,
                    TSType startOffset, TSType duration, double framerate, double slowmotion, double sar,
                    QVariantMap previewInfo);
    void closePreview(UID sourceUID, UID previewUID, PreviewSetUID psUID);
    void closePreview(UID previewUID);
    bool containsPreview(UID uid);
    std::shared_ptr<Video> getPreview(UID uid);
    void reload(UID videoUID, TSType newRangeX, TSType newRangeY, bool replaceFile, QString newFilepath);
    void reload(UID videoUID, TSType newRangeX, TSType newRangeY, bool replaceFile);
    void reload(UID videoUID, TSType newRangeX, TSType newRangeY);
    void reload(UID videoUID, TSType newRangeX);
    void reload(UID videoUID);
    std::vector<QPoint> getPreviewRanges(int previewSetUID);
    bool previewExistsAtTimestampInPS(int previewSetUID, TSType ts);
    void clearTimeline(PreviewSetUID psUID);
    void updateInfo(UID videoUID, QVariantMap info);
    QVariantMap getInfo(UID videoUID);
    void setVideoCrop(int x, int y, int w, int h);
    QRect getTransposedROI(int x, int y, int w, int h);
    void clearVideoCrop();
    void setVideoCropToView(int viewID, int x, int y, int w, int h);
    void clearVideoCropToView(int viewID);
    void moveMPVPan(QPointF pos);
    void setZoom(double zoom);
    void setMute(bool mute);
    void setMute(int mpvNo, bool mute);
    void setVolume(int volume);
    void setMPVIdle(bool isIdle);
    void setPreviewSet(int viewID, PreviewSetUID psUID);
    void resetTimeline(int viewID);
    void removePreviewSet(PreviewSetUID psUID);
    void initTimelineForPlaying(qlonglong timePos);
    void mpvTimelineSync(int mpvID, qlonglong timePos, bool isEOF);
    void toggleIR(bool value);
    void setIRInitStatus(int viewID, bool value);
    void setFilterEnabledStatus(int viewID, bool value);
    void restartIROnFilterChanged(int viewID);
    void initLiveRenderAtTS(qlonglong timestamp, bool interrupt);
    void initLiveRenderAtTS(qlonglong timestamp);
    void showBlackFrame();
    void updateThumbnail(UID uid, QString oldThumbnail, QString thumbnailPath, TSType timestamp);
    TSType endFrameForPreview(UID previewUID);
    int snapToFrameMsFromMs(TSType millisecond, double frameRate);
    int getFrameFromMs(TSType millisecond, double frameRate);
    QVariantMap getDevInfo();

private:
    friend class InputPreviewHandler;
    friend class TransportHandler;
    friend class PlaybackSync;
    friend class ViewOperations;

    using ViewFlags = std::array<std::atomic<bool>, 2>;

    void runWorker();
    void perform(const QVariantMap &request);
    void push(QVariantMap request);

    PlayOrder orderAt(ViewNode *node, TSType t);
    std::shared_ptr<Timeline> timelineOf(ViewNode *node);
    void setTimelineOf(ViewNode *node, std::shared_ptr<Timeline> timeline);
    std::shared_ptr<Video> input() const;
    void setInput(std::shared_ptr<Video> video);
    std::shared_ptr<Video> findVideo(UID uid) const;
    QPoint getInOutRange() const;
    // Calls reach a pane only through its node's slot, under the lock that the
    // pane's teardown takes; false when the view has no pane (any more).
    bool usePane(int viewID, const std::function<void(MPVObject &)> &use) const;
    void forEachPane(const std::function<void(MPVObject &)> &apply) const;
    ViewNode *node(int viewID) const;
    static bool isPane(int viewID);
    TSType inputEnd() const;
    // Signals reach QML on the player's own thread, whichever thread emits.
    void notify(std::function<void()> emitter);
    void emitInitiating(int viewID, bool value, int mode);

    std::atomic<bool> workerRunning{true};
    std::atomic<bool> isOpen{false};
    std::atomic<bool> resumeAfterReload{false};
    std::atomic<bool> isMPVIdle{false};
    std::atomic<bool> cancelPendingPlay{false};
    std::atomic<bool> queuedPlay{false};
    std::atomic<bool> queuedSeek{false};
    std::atomic<bool> loopingPreviews{false};
    std::atomic<bool> trimOn{false};
    std::atomic<bool> irEnabled{false};
    std::atomic<int> loopingUID{-1};
    // A seek asked for on the caller's thread that the worker has not done yet:
    // a waiting play must not start on the panes' reports of an older seek.
    std::atomic<bool> seekRequested{false};

    ViewFlags viewAtEnd{};
    ViewFlags viewSeeking{};
    ViewFlags viewLoading{};
    ViewFlags viewPaused{};
    ViewFlags filterEnabled{};
    ViewFlags irInitiating{};
    ViewFlags blackAndWhiteSet{};

    QPoint inOutRange{-1, -1};
    QRect videoCrop;
    std::shared_ptr<Video> currentInput;
    std::unordered_map<UID, std::shared_ptr<Video>> videos;
    TimelineManager timelineManager;
    VideoCoorelationManager correlation;
    QVariantMap defaultFilterInfo;

    // Node fields published to QML.
    std::mutex timestampMutex;
    std::mutex infoMutex;
    // currentInput, videos, the in/out range and the crop.
    mutable std::mutex stateMutex;
    // Timelines and the play order of the panes: the worker edits them while
    // the position reports of mpv read them on the QML thread.
    std::mutex timelineMutex;
    // Only the worker's own start and the destructor's join.
    std::mutex workerMutex;

    std::unique_ptr<ViewNode> inputNode;
    std::unique_ptr<ViewNode> leftNode;
    std::unique_ptr<ViewNode> rightNode;
    QHash<int, ViewNode *> views;
    std::unique_ptr<ViewNodeManager> viewNodeManager;

    FrameLock frameLock;
    // The speeds the last seek set, before any trim of the frame lock.
    std::array<std::atomic<double>, 2> baseSpeed{1.0, 1.0};

    // The player's work by the design's seams; each works on the state above.
    InputPreviewHandler inputs{*this};
    TransportHandler transport{*this};
    PlaybackSync sync{*this};
    ViewOperations viewOps{*this};

    VPReqQueue requests;
    std::thread worker;
    ConsoleLogger log;
};

} // namespace videoplayer
