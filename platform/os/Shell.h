#pragma once

#include <QString>

namespace os {

// The desktop shell: showing a file in the file manager and opening a file
// with the application the user chose for it.
class Shell
{
public:
    // Opens a file manager window on the folder of `path` with the file
    // selected. Windows asks the shell directly; elsewhere the freedesktop
    // file-manager service is asked and, when no one answers, the folder is
    // opened instead. Returns at once.
    static void revealInFileManager(const QString &path);

    // Opens a local file with its default application. False when the desktop
    // refused.
    static bool openExternally(const QString &path);
};

} // namespace os
