#pragma once

#include <QHash>
#include <QImage>
#include <QMutex>
#include <QString>

#include <opencv2/core/mat.hpp>

#include <utility>

namespace videoio {

// Keeps the thumbnails of the session by name: in memory for the
// "image://thumbnail/<name>" provider, and as a JPEG file on disk for callers
// that want a path.
class ThumbnailStore
{
public:
    static ThumbnailStore &GetInstance();

    // Stores `image` (8-bit, 1, 3 (BGR) or 4 (BGRA) channels) under `name`,
    // replacing an earlier one of that name, and writes it as
    // `folder`/`name`.jpg. Returns whether the image was taken, and the file's
    // path; the path is empty when `folder` is empty or the file could not be
    // written (the image then lives in memory only).
    std::pair<bool, QString> add(const QString &name, const QString &folder, const cv::Mat &image);
    // Forgets `name` and deletes the file that add() wrote for it.
    void remove(const QString &name);
    // Forgets every thumbnail and deletes their files.
    void removeAll();

    // The thumbnail of `name`, null when there is none.
    QImage image(const QString &name) const;
    // Where add() wrote `name`, empty when it wrote nothing.
    QString filePath(const QString &name) const;

    // Converts an 8-bit OpenCV image to a QImage that owns its pixels.
    static QImage toImage(const cv::Mat &image);

private:
    ThumbnailStore() = default;

    struct Entry
    {
        QImage image;
        QString path;
    };
    mutable QMutex m_mutex;
    QHash<QString, Entry> m_entries;
};

} // namespace videoio
