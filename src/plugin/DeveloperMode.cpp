#include "plugin/DeveloperMode.h"

#include <QByteArray>
#include <QtGlobal>

namespace kutils {

bool developerModeInEnvironment()
{
    // Byte for byte: "true", "11" or "1 " do not count.
    return qgetenv("KVID_DEVELOPER_MODE") == QByteArrayLiteral("1");
}

namespace {
// Read by the static initialiser, before any thread of the library exists, so
// every later read needs no lock.
const bool developerModeAtLoad = developerModeInEnvironment();
} // namespace

bool isDeveloperMode()
{
    return developerModeAtLoad;
}

} // namespace kutils
