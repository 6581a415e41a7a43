#pragma once

#include <QMutex>
#include <QString>
#include <QVariantMap>

#include <map>
#include <memory>

namespace videoio {

class Reader;

// The process-wide table of readers, one shared reader per path, so that the
// info fetchers, the frame views and the file manager meet on one open file.
class VideoManager
{
public:
    static VideoManager &GetInstance();

    // The shared reader of `path`, opened on first use. A reader of the table
    // that was closed meanwhile is replaced by a fresh one. Never null: ask the
    // reader's isOpen() whether the file could be read.
    static std::shared_ptr<Reader> GetReader(const QString &path);
    // A reader of its own for `path` that no other caller shares; it decodes the
    // file afresh, so a file rewritten on disk is seen as it is now.
    static std::shared_ptr<Reader> GetNewReader(const QString &path);
    // The shared reader of a rendered preview: isPreviewReader() holds and its
    // info map carries `slowMoFactor`, so that stretch ends fall on the input's
    // axis. A plain reader of the table for that path gives way to it (its
    // holders keep theirs); a preview reader takes the newest factor.
    static std::shared_ptr<Reader> GetPreviewReader(const QString &path, double slowMoFactor);

    // Drops `path` from the table. With `closeReader` the reader's file is also
    // closed at once, even though others may still hold the reader: this is what
    // a caller wants before it deletes or replaces the file.
    void remove(const QString &path, bool closeReader);
    // Closes and drops every reader of the table.
    void removeAll();
    // Merges `info` into the info map of the shared reader of `path`, if any.
    void updateVideoInfo(const QString &path, const QVariantMap &info);

    // Number of readers in the table (for tests and diagnostics).
    int count() const;

private:
    VideoManager() = default;
    std::shared_ptr<Reader> sharedReader(const QString &path, bool preview);

    mutable QMutex m_mutex;
    std::map<QString, std::shared_ptr<Reader>> m_readers;
};

} // namespace videoio
