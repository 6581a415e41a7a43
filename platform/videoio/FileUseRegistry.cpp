#include "videoio/FileUseRegistry.h"

#include <QFileInfo>

namespace videoio {

QMutex FileUseRegistry::s_mutex;
QHash<QString, int> FileUseRegistry::s_users;

QString FileUseRegistry::key(const QString &path)
{
    // Readers and deleters may spell one file differently ("a/../b", relative).
    return QFileInfo(path).absoluteFilePath();
}

void FileUseRegistry::acquire(const QString &path)
{
    const QMutexLocker lock(&s_mutex);
    ++s_users[key(path)];
}

void FileUseRegistry::release(const QString &path)
{
    const QMutexLocker lock(&s_mutex);
    const auto it = s_users.find(key(path));
    if (it != s_users.end() && --it.value() <= 0)
        s_users.erase(it);
}

bool FileUseRegistry::inUse(const QString &path)
{
    const QMutexLocker lock(&s_mutex);
    return s_users.contains(key(path));
}

} // namespace videoio
