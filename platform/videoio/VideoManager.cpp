#include "videoio/VideoManager.h"

#include "videoio/FFReader.h"

namespace videoio {

VideoManager &VideoManager::GetInstance()
{
    static VideoManager instance;
    return instance;
}

std::shared_ptr<Reader> VideoManager::GetReader(const QString &path)
{
    return GetInstance().sharedReader(path, false);
}

std::shared_ptr<Reader> VideoManager::GetPreviewReader(const QString &path, double slowMoFactor)
{
    std::shared_ptr<Reader> reader = GetInstance().sharedReader(path, true);
    reader->updateInfo({{QStringLiteral("slowMoFactor"), slowMoFactor}});
    return reader;
}

std::shared_ptr<Reader> VideoManager::GetNewReader(const QString &path)
{
    return std::make_shared<FFReader>(path);
}

std::shared_ptr<Reader> VideoManager::sharedReader(const QString &path, bool preview)
{
    // Any open reader serves a plain caller; a preview caller needs a preview reader.
    const auto serves = [preview](const std::shared_ptr<Reader> &reader) {
        return reader && reader->isOpen() && (!preview || reader->isPreviewReader());
    };
    {
        const QMutexLocker lock(&m_mutex);
        const auto it = m_readers.find(path);
        if (it != m_readers.end() && serves(it->second))
            return it->second;
    }
    // Opening is slow: it happens outside the lock, so that other files open
    // in parallel. Of two racing openers of one path, the first one stored wins
    // and both share it.
    auto fresh = std::make_shared<FFReader>(path, preview);
    const QMutexLocker lock(&m_mutex);
    auto &entry = m_readers[path];
    if (!serves(entry))
        entry = std::move(fresh);
    return entry;
}

void VideoManager::remove(const QString &path, bool closeReader)
{
    std::shared_ptr<Reader> reader;
    {
        const QMutexLocker lock(&m_mutex);
        const auto it = m_readers.find(path);
        if (it == m_readers.end())
            return;
        reader = std::move(it->second);
        m_readers.erase(it);
    }
    if (closeReader && reader)
        reader->close();
}

void VideoManager::removeAll()
{
    std::map<QString, std::shared_ptr<Reader>> readers;
    {
        const QMutexLocker lock(&m_mutex);
        readers.swap(m_readers);
    }
    for (const auto &[path, reader] : readers) {
        if (reader)
            reader->close();
    }
}

void VideoManager::updateVideoInfo(const QString &path, const QVariantMap &info)
{
    std::shared_ptr<Reader> reader;
    {
        const QMutexLocker lock(&m_mutex);
        const auto it = m_readers.find(path);
        if (it != m_readers.end())
            reader = it->second;
    }
    if (reader)
        reader->updateInfo(info);
}

int VideoManager::count() const
{
    const QMutexLocker lock(&m_mutex);
    return static_cast<int>(m_readers.size());
}

} // namespace videoio
