#pragma once

#include <QHash>
#include <QMutex>
#include <QString>

namespace videoio {

// Counts the readers that hold each file open, so that deletion can wait for
// the last one to let go.
class FileUseRegistry
{
public:
    static void acquire(const QString &path);
    static void release(const QString &path);
    static bool inUse(const QString &path);

private:
    static QString key(const QString &path);
    static QMutex s_mutex;
    static QHash<QString, int> s_users;
};

} // namespace videoio
