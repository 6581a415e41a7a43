#include "telemetry/TUpdateChecker.h"

TUpdateChecker::TUpdateChecker(QObject *parent)
    : QObject(parent)
{
}
