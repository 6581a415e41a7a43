#pragma once

#include <QObject>

// Shows one video file frame by frame in a QVideoSink, without mpv.
class TVideoView : public QObject
{
    Q_OBJECT

public:
    explicit TVideoView(QObject *parent = nullptr);
};
