#pragma once

#include <QQuickImageProvider>

namespace videoio {

// Serves "image://thumbnail/<name>" from the ThumbnailStore. A host installs
// it once: engine.addImageProvider("thumbnail", new ThumbnailImageProvider);
class ThumbnailImageProvider : public QQuickImageProvider
{
public:
    ThumbnailImageProvider();

    QImage requestImage(const QString &id, QSize *size, const QSize &requestedSize) override;
};

} // namespace videoio
