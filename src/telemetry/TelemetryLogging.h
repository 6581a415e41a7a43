#pragma once

#include <QLoggingCategory>

// The telemetry and update subsystem's logging category, "kutils.telemetry".
Q_DECLARE_LOGGING_CATEGORY(lcTelemetry)
