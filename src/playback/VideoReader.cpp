#include "playback/VideoReader.h"

#include "videoio/Reader.h"
#include "videoio/ThumbnailStore.h"
#include "videoio/VideoManager.h"

namespace videoio {
namespace {

const QString kThumbnailScheme = QStringLiteral("image://thumbnail/");
// Thumbnail size: longest edge 380 pixels, no edge under 30 (see Reader).
constexpr float kThumbnailLongEdge = 380.0f;
constexpr int kThumbnailMinEdge = 30;

} // namespace

VideoReader::VideoReader(QObject *parent)
    : QObject(parent)
{
    log.prefix = QStringLiteral("VideoReader ");
}

VideoReader::~VideoReader() = default;

bool VideoReader::isReaderOpen() const
{
    return reader && reader->isOpen();
}

void VideoReader::open(QString filepath, qlonglong timestamp)
{
    const QMutexLocker lock(&mutex);
    // Not unique on purpose: extra connections only find no pending seek.
    connect(this, &VideoReader::seekReq, this, &VideoReader::doSeek, Qt::QueuedConnection);
    path = filepath;
    pendingSeek = -1;
    if (path.isEmpty()) {
        emit readerError(QStringLiteral("Unable to open empty path"));
        return;
    }
    if (isReaderOpen() && reader->getPath() != path)
        reader->close();
    reader = VideoManager::GetReader(path);
    load(timestamp);
}

void VideoReader::reload(QString filepath, qlonglong timestamp)
{
    const QMutexLocker lock(&mutex);
    path = filepath;
    pendingSeek = -1;
    if (isReaderOpen() && reader->getPath() != path)
        reader->close();
    // A new reader of its own: the file may have been rewritten.
    reader = VideoManager::GetNewReader(path);
    log.log(QStringLiteral("Reloading file, it has changed"));
    load(timestamp);
}

void VideoReader::load(qlonglong timestamp)
{
    if (!reader)
        return;
    if (reader->isOpen()) {
        reader->seek(timestamp, false);
        reader->setLooping(looping);
        emit videoInfo(reader->getInfo());
        deliverFrame();
    } else {
        log.log(QStringLiteral("Unable to open file at ") + path, ConsoleLogger::Critical);
        emit readerError(QStringLiteral("Unable to open file at ") + path);
    }
}

void VideoReader::deliverFrame()
{
    emit frameAvailable(reader->frame(), reader->position(), reader->isEOF());
}

void VideoReader::updateVideoInfo(QVariantMap info)
{
    const QMutexLocker lock(&mutex);
    if (!reader)
        return;
    const bool changed = reader->updateInfo(info);
    if (!reader->isOpen())
        load(0);
    QVariantMap current = reader->getInfo();
    // The key's presence tells the view that a known file was updated.
    current.insert(QStringLiteral("reload"), changed);
    emit videoInfo(current);
}

void VideoReader::first()
{
    const QMutexLocker lock(&mutex);
    if (!isReaderOpen())
        return;
    reader->first();
    deliverFrame();
}

void VideoReader::prev()
{
    const QMutexLocker lock(&mutex);
    if (!isReaderOpen())
        return;
    if (reader->position() == 0) {
        if (looping)
            reader->last();
    } else {
        reader->previous();
    }
    deliverFrame();
}

void VideoReader::seek(qlonglong ms)
{
    if (ms == pendingSeek.load())
        return;
    pendingSeek = ms;
    emit seekReq();
}

void VideoReader::doSeek()
{
    const qlonglong target = pendingSeek.exchange(-1);
    if (target < 0)
        return;
    const QMutexLocker lock(&mutex);
    if (!isReaderOpen())
        return;
    reader->seek(target, false);
    deliverFrame();
}

void VideoReader::next()
{
    const QMutexLocker lock(&mutex);
    if (!isReaderOpen())
        return;
    reader->next();
    if (reader->isEOF() && looping)
        reader->first();
    deliverFrame();
}

void VideoReader::last()
{
    const QMutexLocker lock(&mutex);
    if (!isReaderOpen())
        return;
    reader->last();
    deliverFrame();
}

void VideoReader::close()
{
    const QMutexLocker lock(&mutex);
    if (isReaderOpen()) {
        reader->close();
        reader.reset();
    }
}

void VideoReader::setLooping(bool value)
{
    const QMutexLocker lock(&mutex);
    looping = value;
    if (reader)
        reader->setLooping(value);
}

void VideoReader::updateThumbnail(QString uid, QString oldThumbnail, QString thumbnailPath, qlonglong timestamp)
{
    const QMutexLocker lock(&mutex);
    if (!reader)
        return;
    QString name = uid;
    if (timestamp >= 1)
        name = uid + QLatin1Char('_') + QString::number(timestamp);
    reader->updateInfo({{QStringLiteral("thumbnail"), kThumbnailScheme + name},
                        {QStringLiteral("startFrame"), timestamp},
                        {QStringLiteral("updateThumbnail"), true}});
    log.log(QStringLiteral("New thumbnailName for VideoReader::updateThumb: ") + kThumbnailScheme + name);

    QString oldName = oldThumbnail;
    oldName.remove(kThumbnailScheme);
    if (oldName.isEmpty())
        oldName = uid;
    ThumbnailStore::GetInstance().remove(oldName);
    ThumbnailStore::GetInstance().add(name, thumbnailPath,
                                      reader->thumbnail(kThumbnailLongEdge, kThumbnailMinEdge, timestamp));
    emit videoInfo(reader->getInfo());
}

} // namespace videoio
