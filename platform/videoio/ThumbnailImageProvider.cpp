#include "videoio/ThumbnailImageProvider.h"

#include "videoio/ThumbnailStore.h"

namespace videoio {

ThumbnailImageProvider::ThumbnailImageProvider()
    : QQuickImageProvider(QQuickImageProvider::Image)
{
}

QImage ThumbnailImageProvider::requestImage(const QString &id, QSize *size, const QSize &requestedSize)
{
    // QML may add "?t=..." to force a refresh of a name it shows already.
    const QString name = id.section(QLatin1Char('?'), 0, 0);
    QImage image = ThumbnailStore::GetInstance().image(name);
    if (size)
        *size = image.size();
    if (!image.isNull() && requestedSize.isValid() && !requestedSize.isEmpty())
        image = image.scaled(requestedSize, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    return image;
}

} // namespace videoio
