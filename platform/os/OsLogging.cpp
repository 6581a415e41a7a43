#include "os/OsLogging.h"

Q_LOGGING_CATEGORY(lcOs, "kutils.os")
