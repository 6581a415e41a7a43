#pragma once

#include "playback/MPVObject.h"
#include "playback/PaneSlot.h"
#include "playback/VideoPlayerContext.h"
#include "timeline/ConsoleLogger.h"
#include "timeline/Video.h"

#include <QPoint>
#include <QVariantMap>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

// Plays one clip by itself in one mpv pane: no timelines, no queue, no thread
// of its own. The clip loops for ever, or within the in/out range.
class IsolatedPlayer : public VideoPlayerContext
{
    Q_OBJECT
    Q_PROPERTY(std::vector<MPVObject *> m_mpvs READ getMPVObjects WRITE setMPVObjects)

public:
    explicit IsolatedPlayer(QObject *parent = nullptr);

    std::vector<MPVObject *> getMPVObjects() const;
    qlonglong getInputTimestamp() override;

public slots:
    void setMPVObjects(const std::vector<MPVObject *> &mpvObjects);
    void pause() override;
    void play() override;
    void seek(TSType requestedTimestamp, bool interrupt, bool initIR) override;
    void seek(TSType requestedTimestamp, bool interrupt);
    void seek(TSType requestedTimestamp);
    void next() override;
    void prev() override;
    void jumpToStart();
    void jumpToEnd();
    void adjustInOutRange(bool trimOn, QPoint range) override;
    void addInput(UID uid, TSType timestamp, QString filepath, TSType duration, double framerate, double sar,
                  bool firstLoad, QVariantMap inputInfo) override;
    void mpvTimelineSync(int mpvID, qlonglong timePos, bool isEOF);
    void closePlayer();

private:
    // Frames of a numbered sequence are shown at the rate its info names.
    void applyImageSequenceRate(bool reload);
    QPoint frames() const;

    PaneSlot mpv;
    std::atomic<bool> trimOn{false};
    QPoint inOutRange{-1, -1};
    std::mutex mutex;
    qint64 inputTimestamp = 0;
    qint64 lastPosition = 0;
    std::shared_ptr<Video> video;
    QVariantMap inputInfo;
    ConsoleLogger log;
};
