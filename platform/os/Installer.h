#pragma once

#include <QString>
#include <QStringList>

namespace os {

// Starting a downloaded installer the way the platform installs software.
class Installer
{
public:
    // The arguments of MSIEXEC.exe for an installer named `fileName` (in its
    // working folder), logging verbosely to `logFile`. A name ending in "msp"
    // (case-sensitive) is a patch and reinstalls everything in place.
    static QStringList msiexecArguments(const QString &fileName, const QString &logFile);

    // Starts the installer at `path` detached, in its own folder. Windows runs
    // it through MSIEXEC.exe; elsewhere an ".AppImage" is made executable and
    // started, and anything else is opened with its default application.
    // False when it could not be started.
    static bool start(const QString &path, const QString &logFile);
};

} // namespace os
