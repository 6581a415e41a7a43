#include "telemetry/TelemetryLogging.h"

Q_LOGGING_CATEGORY(lcTelemetry, "kutils.telemetry")
