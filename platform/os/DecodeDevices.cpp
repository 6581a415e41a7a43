#include "os/DecodeDevices.h"

#include <QDir>
#include <QFileInfo>

namespace os {

bool DecodeDevices::present()
{
    static const bool found = [] {
        if (QFileInfo::exists(QStringLiteral("/dev/nvidiactl")))
            return true;
        // Device nodes are neither files nor folders to QDir.
        const QDir dri(QStringLiteral("/dev/dri"));
        return !dri.entryList({QStringLiteral("renderD*")}, QDir::System).isEmpty();
    }();
    return found;
}

} // namespace os
