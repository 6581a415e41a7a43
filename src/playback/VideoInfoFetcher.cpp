#include "playback/VideoInfoFetcher.h"

#include "videoio/Reader.h"
#include "videoio/ThumbnailStore.h"
#include "videoio/VideoManager.h"

#include <QElapsedTimer>
#include <QJsonDocument>

namespace videoio {
namespace {

QString toText(const QVariantMap &map)
{
    return QString::fromUtf8(QJsonDocument::fromVariant(map).toJson(QJsonDocument::Compact));
}

} // namespace

VideoInfoFetcher::VideoInfoFetcher(QString path, QString uid, QString thumbnailPath, QVariantMap info)
    : path(std::move(path))
    , uid(std::move(uid))
    , thumbnailPath(std::move(thumbnailPath))
    , info(std::move(info))
{
    log.prefix = QStringLiteral("VideoInfoFetcher ");
}

void VideoInfoFetcher::run()
{
    QElapsedTimer timer;
    timer.start();
    const std::shared_ptr<Reader> reader = VideoManager::GetReader(path);
    if (!reader || !reader->isOpen()) {
        log.log(QStringLiteral("Unable to open file at ") + path, ConsoleLogger::Critical);
        emit readerError(path, QStringLiteral("Unable to open file at ") + path);
        // A reader that failed must not stay in the table.
        VideoManager::GetInstance().remove(path, false);
        return;
    }
    if (!info.isEmpty()) {
        log.log(QStringLiteral("Updating info to ") + toText(info));
        QVariantMap remembered = info;
        // The reader measured the real file; a remembered size must not win.
        remembered.remove(QStringLiteral("resolution"));
        reader->updateInfo(remembered);
    }

    QVariantMap result = reader->getInfo();
    result.insert(QStringLiteral("uid"), uid);
    // "3" keeps this first thumbnail apart from the uid_timestamp ones of TVideoView.
    const QString name = uid + QStringLiteral("3");
    result.insert(QStringLiteral("thumbnail"), QStringLiteral("image://thumbnail/") + name);
    // Thumbnail size: longest edge 380 pixels, no edge under 30 (see Reader).
    const auto [stored, diskPath] =
        ThumbnailStore::GetInstance().add(name, thumbnailPath, reader->thumbnail(380.0f, 30, 0));
    result.insert(QStringLiteral("thumbnailDiskLocation"), stored ? diskPath : QString());

    log.log(QStringLiteral("Generated thumbnail with name: ") + result.value(QStringLiteral("thumbnail")).toString());
    log.log(path + QStringLiteral(" loaded in ") + QString::number(timer.elapsed()) + QStringLiteral(" ms"));
    emit videoInfoAvailable(path, result);
}

} // namespace videoio
