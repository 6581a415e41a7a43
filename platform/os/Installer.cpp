#include "os/Installer.h"

#include "os/OsLogging.h"
#include "os/Shell.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>

namespace os {

QStringList Installer::msiexecArguments(const QString &fileName, const QString &logFile)
{
    if (fileName.endsWith(QLatin1String("msp")))
        return {QStringLiteral("/p"), fileName, QStringLiteral("/l*v"), logFile, QStringLiteral("/qr"),
                QStringLiteral("REINSTALL=ALL"), QStringLiteral("REINSTALLMODE=omus")};
    return {QStringLiteral("/i"), fileName, QStringLiteral("/l*v"), logFile};
}

bool Installer::start(const QString &path, const QString &logFile)
{
    const QFileInfo installer(path);
#ifdef Q_OS_WIN
    return QProcess::startDetached(QStringLiteral("MSIEXEC.exe"), msiexecArguments(installer.fileName(), logFile),
                                   installer.absolutePath());
#else
    Q_UNUSED(logFile);
    if (!installer.fileName().endsWith(QLatin1String(".AppImage"), Qt::CaseInsensitive))
        return Shell::openExternally(installer.absoluteFilePath());
    QFile file(installer.absoluteFilePath());
    if (!file.setPermissions(file.permissions() | QFile::ExeOwner | QFile::ExeUser)) {
        qCWarning(lcOs) << "Cannot make" << path << "executable:" << file.errorString();
        return false;
    }
    return QProcess::startDetached(installer.absoluteFilePath(), {}, installer.absolutePath());
#endif
}

} // namespace os
