#include "playback/TVideoView.h"

#include "playback/VideoReader.h"

#include <QJsonDocument>
#include <QSize>

using videoio::VideoReader;

TVideoView::TVideoView(QObject *parent)
    : QObject(parent)
    , m_info{{QStringLiteral("resolution"), QSize()},
             {QStringLiteral("duration"), 0},
             {QStringLiteral("fps"), 30.0}}
    , m_reader(std::make_unique<VideoReader>())
{
    m_log.prefix = QStringLiteral("TVideoView ");
    m_thread.setObjectName(QStringLiteral("TVideoView reader"));
    m_reader->moveToThread(&m_thread);

    VideoReader *reader = m_reader.get();
    connect(reader, &VideoReader::videoInfo, this, &TVideoView::videoInfoUpdated, Qt::QueuedConnection);
    connect(reader, &VideoReader::readerError, this, &TVideoView::handleReadError, Qt::QueuedConnection);
    connect(reader, &VideoReader::frameAvailable, this, &TVideoView::handleFrameUpdate, Qt::QueuedConnection);

    connect(this, &TVideoView::open, reader, &VideoReader::open, Qt::QueuedConnection);
    connect(this, &TVideoView::updateVideoInfo, reader, &VideoReader::updateVideoInfo, Qt::QueuedConnection);
    connect(this, &TVideoView::first, reader, &VideoReader::first, Qt::QueuedConnection);
    connect(this, &TVideoView::stepBackward, reader, &VideoReader::prev, Qt::QueuedConnection);
    // Direct: the reader only records the newest position, and coalesces.
    connect(this, &TVideoView::seek, reader, &VideoReader::seek, Qt::DirectConnection);
    connect(this, &TVideoView::stepForward, reader, &VideoReader::next, Qt::QueuedConnection);
    connect(this, &TVideoView::last, reader, &VideoReader::last, Qt::QueuedConnection);
    connect(this, &TVideoView::reloadNoChange, reader, &VideoReader::reload, Qt::QueuedConnection);
    connect(this, &TVideoView::updateThumbnail, reader, &VideoReader::updateThumbnail, Qt::QueuedConnection);
    connect(this, &TVideoView::closeVideo, reader, &VideoReader::close, Qt::QueuedConnection);

    m_thread.start();
}

TVideoView::~TVideoView()
{
    m_thread.quit();
    m_thread.wait();
    close();
}

void TVideoView::setSource(const QString &path)
{
    reload(path, 0);
}

void TVideoView::reload(QString path, qlonglong timestamp)
{
    if (path.isEmpty()) {
        m_source.clear();
        return;
    }
    if (path == m_source) {
        m_source = path;
        emit reloadNoChange(path, timestamp);
        return;
    }
    m_log.log(QStringLiteral("Open videoPath ") + path);
    emit isOpenChanged();
    emit open(path, timestamp);
    m_source = path;
    emit sourceChanged();
}

void TVideoView::showNothing()
{
    m_source.clear();
    if (m_isReady) {
        m_isReady = false;
        emit isReadyChanged();
    }
}

void TVideoView::setVideoSink(QVideoSink *sink)
{
    {
        const QMutexLocker lock(&m_sinkMutex);
        if (m_videoSink == sink)
            return;
        m_videoSink = sink;
    }
    emit videoSinkChanged();
}

void TVideoView::setLooping(bool looping)
{
    m_looping = looping;
    QMetaObject::invokeMethod(m_reader.get(), "setLooping", Qt::QueuedConnection, Q_ARG(bool, looping));
    emit loopingChanged();
}

void TVideoView::videoInfoUpdated(QVariantMap info)
{
    m_info = info;
    if (!info.contains(QStringLiteral("reload"))) {
        m_log.log(QStringLiteral(" input video opened: ") + m_source + QLatin1Char(' ')
                  + QString::fromUtf8(QJsonDocument::fromVariant(info).toJson(QJsonDocument::Compact)));
    }
    emit infoChanged();
    m_isOpen = true;
    emit isOpenChanged();
}

void TVideoView::handleReadError(QString message)
{
    Q_UNUSED(message)
    const QString failed = m_source;
    close();
    m_log.log(QStringLiteral(" input video opened FAILED: ") + failed, ConsoleLogger::Warn);
}

void TVideoView::handleFrameUpdate(std::shared_ptr<QVideoFrame> qFrame, qlonglong timestamp, bool isEOF)
{
    if (!qFrame)
        return;
    {
        const QMutexLocker lock(&m_sinkMutex);
        if (m_videoSink)
            m_videoSink->setVideoFrame(*qFrame);
    }
    if (!m_isReady) {
        m_isReady = true;
        emit isReadyChanged();
    }
    m_timestamp = timestamp;
    emit timestampChanged();
    if (m_eof != isEOF) {
        m_eof = isEOF;
        emit eofChanged();
    }
}

void TVideoView::close()
{
    m_isOpen = false;
    emit isOpenChanged();
    m_info = {{QStringLiteral("size"), QSize()},
              {QStringLiteral("duration"), 0},
              {QStringLiteral("fps"), 30.0},
              {QStringLiteral("sar"), 1.0}};
    m_source.clear();
    emit closeVideo();
    emit timestampChanged();
    emit eofChanged();
    emit infoChanged();
}
