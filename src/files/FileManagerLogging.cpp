#include "files/FileManagerLogging.h"

Q_LOGGING_CATEGORY(lcFileManager, "kutils.files")
