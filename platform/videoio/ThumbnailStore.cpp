#include "videoio/ThumbnailStore.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcReader)

namespace videoio {

ThumbnailStore &ThumbnailStore::GetInstance()
{
    static ThumbnailStore instance;
    return instance;
}

QImage ThumbnailStore::toImage(const cv::Mat &image)
{
    if (image.empty() || image.depth() != CV_8U)
        return {};
    QImage::Format format = QImage::Format_Invalid;
    switch (image.channels()) {
    case 1: format = QImage::Format_Grayscale8; break;
    case 3: format = QImage::Format_BGR888; break;
    case 4: format = QImage::Format_ARGB32; break;  // BGRA in memory on little-endian
    default: return {};
    }
    const QImage view(image.data, image.cols, image.rows, static_cast<qsizetype>(image.step[0]), format);
    return view.copy();
}

std::pair<bool, QString> ThumbnailStore::add(const QString &name, const QString &folder, const cv::Mat &image)
{
    const QImage picture = toImage(image);
    if (name.isEmpty() || picture.isNull()) {
        qCWarning(lcReader) << "Thumbnail not stored, empty name or picture:" << name;
        return {false, QString()};
    }
    QString path;
    if (!folder.isEmpty() && QDir().mkpath(folder)) {
        path = QDir(folder).filePath(name + QStringLiteral(".jpg"));
        if (!picture.save(path, "JPG", 90)) {
            qCWarning(lcReader) << "Thumbnail could not be written to" << path;
            path.clear();
        }
    }
    const QMutexLocker lock(&m_mutex);
    m_entries.insert(name, Entry{picture, path});
    return {true, path};
}

void ThumbnailStore::remove(const QString &name)
{
    Entry entry;
    {
        const QMutexLocker lock(&m_mutex);
        entry = m_entries.take(name);
    }
    if (!entry.path.isEmpty())
        QFile::remove(entry.path);
}

void ThumbnailStore::removeAll()
{
    QHash<QString, Entry> entries;
    {
        const QMutexLocker lock(&m_mutex);
        entries.swap(m_entries);
    }
    for (const Entry &entry : std::as_const(entries)) {
        if (!entry.path.isEmpty())
            QFile::remove(entry.path);
    }
}

QImage ThumbnailStore::image(const QString &name) const
{
    const QMutexLocker lock(&m_mutex);
    return m_entries.value(name).image;
}

QString ThumbnailStore::filePath(const QString &name) const
{
    const QMutexLocker lock(&m_mutex);
    return m_entries.value(name).path;
}

} // namespace videoio
