#pragma once

#include "timeline/Video.h"

#include <QObject>
#include <QPoint>
#include <QString>
#include <QVariantMap>

#include <atomic>

// What every player offers QML whatever it plays: whether it plays, where the
// input stands, and the transport. The two-pane player and the single-clip
// player both derive from it, so QML can drive either through one face.
class VideoPlayerContext : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool isPlaying READ getIsPlaying NOTIFY isPlayingChanged)
    Q_PROPERTY(qlonglong inputTimestamp READ getInputTimestamp NOTIFY inputTimestampChanged)

public:
    explicit VideoPlayerContext(QObject *parent = nullptr);

    virtual void addInput(UID uid, TSType timestamp, QString filepath, TSType duration, double framerate, double sar,
                          bool firstLoad, QVariantMap inputInfo) = 0;
    virtual void play() = 0;
    virtual void pause() = 0;
    virtual void seek(TSType requestedTimestamp, bool interrupt, bool initIR) = 0;
    virtual void next() = 0;
    virtual void prev() = 0;
    virtual void adjustInOutRange(bool trimOn, QPoint range) = 0;
    virtual qlonglong getInputTimestamp() = 0;

    bool getIsPlaying() const;

signals:
    void isPlayingChanged();
    void inputTimestampChanged();

protected:
    std::atomic<bool> isPlaying{false};
};
