#pragma once

#include <QLoggingCategory>

// The Qt log channel of the file manager and child processes.
Q_DECLARE_LOGGING_CATEGORY(lcFileManager)
