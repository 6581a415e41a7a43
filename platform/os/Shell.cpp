#include "os/Shell.h"

#include "os/OsLogging.h"

#include <QDesktopServices>
#include <QDir>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QUrl>

#ifdef Q_OS_WIN
#include <memory>
#include <shlobj.h>
#include <windows.h>
#else
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#endif

namespace os {

namespace {
#ifdef Q_OS_WIN
struct ItemListFree
{
    void operator()(ITEMIDLIST *list) const { ILFree(list); }
};
#else
void openFolderOf(const QString &path)
{
    QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(path).absolutePath()));
}
#endif
} // namespace

void Shell::revealInFileManager(const QString &path)
{
#ifdef Q_OS_WIN
    const std::wstring nativePath = QDir::toNativeSeparators(QFileInfo(path).absoluteFilePath()).toStdWString();
    const std::unique_ptr<ITEMIDLIST, ItemListFree> items(ILCreateFromPathW(nativePath.c_str()));
    if (!items) {
        qCWarning(lcOs) << "Cannot make a shell item of" << path;
        return;
    }
    const HRESULT result = SHOpenFolderAndSelectItems(items.get(), 0, nullptr, 0);
    if (FAILED(result))
        qCWarning(lcOs) << "Cannot show" << path << "in the shell, error" << Qt::hex << ulong(result);
#else
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        openFolderOf(path);
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(QFileInfo(path).absoluteFilePath()).toString()} << QString();
    // Asked asynchronously: a file manager that starts on demand may take a
    // while, and the caller is the QML thread.
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 5000));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher, [path](QDBusPendingCallWatcher *self) {
        if (self->isError()) {
            qCDebug(lcOs) << "No file manager service:" << self->error().message() << "- opening the folder";
            openFolderOf(path);
        }
        self->deleteLater();
    });
#endif
}

bool Shell::openExternally(const QString &path)
{
    return QDesktopServices::openUrl(QUrl::fromLocalFile(path));
}

} // namespace os
