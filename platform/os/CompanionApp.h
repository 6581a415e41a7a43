#pragma once

#include <QString>

namespace os {

// The companion application "Korvel Video", installed in a folder of that name
// beside the application's own folder.
class CompanionApp
{
public:
    // The program's path, or an empty text when it is not installed.
    // `applicationDir` is the folder of the running application.
    static QString executablePath(const QString &applicationDir);

    // Starts the program detached, with no arguments. False when it is not
    // installed or could not be started.
    static bool start(const QString &applicationDir);
};

} // namespace os
