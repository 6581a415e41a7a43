#pragma once

#include <QString>

namespace os {

// The installed desktop application as the system registry knows it. Plug-ins
// for host applications are installed by its "elevator.exe", which raises its
// own rights.
class AppRegistry
{
public:
    // Runs "elevator.exe" of the installed application with `argument` and
    // waits, without limit, for it to end. True when it ended with code 0.
    // Without a registry (any system but Windows) this logs "Could not find app
    // registry" and returns false, starting nothing.
    static bool installPlugin(const QString &argument);
};

} // namespace os
