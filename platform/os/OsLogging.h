#pragma once

#include <QLoggingCategory>

// The OS layer's one logging category, "kutils.os".
Q_DECLARE_LOGGING_CATEGORY(lcOs)
