#pragma once

#include "timeline/ConsoleLogger.h"

#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QThread>
#include <QVariantMap>
#include <QVideoFrame>
#include <QVideoSink>

#include <memory>

namespace videoio {
class VideoReader;
}

// Shows one video file frame by frame in a QVideoSink, without mpv. The file
// work happens on a thread of its own, in a videoio::VideoReader.
class TVideoView : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString source READ source WRITE setSource NOTIFY sourceChanged)
    Q_PROPERTY(QVideoSink *videoSink READ videoSink WRITE setVideoSink NOTIFY videoSinkChanged)
    Q_PROPERTY(bool isReady READ isReady NOTIFY isReadyChanged)
    Q_PROPERTY(QVariantMap info READ info NOTIFY infoChanged)
    Q_PROPERTY(qlonglong timestamp READ timestamp NOTIFY timestampChanged)
    Q_PROPERTY(bool eof READ eof NOTIFY eofChanged)
    Q_PROPERTY(bool isOpen READ isOpen NOTIFY isOpenChanged)
    Q_PROPERTY(bool looping READ looping WRITE setLooping NOTIFY loopingChanged)

public:
    explicit TVideoView(QObject *parent = nullptr);
    ~TVideoView() override;

    QString source() const { return m_source; }
    void setSource(const QString &path);
    QVideoSink *videoSink() const { return m_videoSink; }
    void setVideoSink(QVideoSink *sink);
    bool isReady() const { return m_isReady; }
    QVariantMap info() const { return m_info; }
    qlonglong timestamp() const { return m_timestamp; }
    bool eof() const { return m_eof; }
    bool isOpen() const { return m_isOpen; }
    bool looping() const { return m_looping; }
    void setLooping(bool looping);

    Q_INVOKABLE void reload(QString path, qlonglong timestamp);
    Q_INVOKABLE void showNothing();

    // The reader behind the view, for tests that must hold its thread.
    videoio::VideoReader *videoReader() const { return m_reader.get(); }

signals:
    void sourceChanged();
    void videoSinkChanged();
    void isReadyChanged();
    void infoChanged();
    void timestampChanged();
    void eofChanged();
    void isOpenChanged();
    void loopingChanged();
    void open(QString filepath, qlonglong timestamp);
    void updateVideoInfo(QVariantMap info);
    void first();
    void stepBackward();
    void seek(qlonglong ms);
    void stepForward();
    void last();
    void reloadNoChange(QString path, qlonglong timestamp);
    void updateThumbnail(QString uid, QString oldThumbnail, QString thumbnailPath, qlonglong timestamp);
    void closeVideo();

public slots:
    void videoInfoUpdated(QVariantMap info);
    void handleReadError(QString message);
    void handleFrameUpdate(std::shared_ptr<QVideoFrame> qFrame, qlonglong timestamp, bool isEOF);
    void close();

private:
    QString m_source;
    QPointer<QVideoSink> m_videoSink;
    bool m_isReady = false;
    QVariantMap m_info;
    qlonglong m_timestamp = 0;
    bool m_eof = true;
    bool m_isOpen = false;
    bool m_looping = true;
    QMutex m_sinkMutex;
    ConsoleLogger m_log;
    QThread m_thread;
    std::unique_ptr<videoio::VideoReader> m_reader;
};
