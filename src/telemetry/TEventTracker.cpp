#include "telemetry/TEventTracker.h"

TEventTracker::TEventTracker(QObject *parent)
    : QObject(parent)
{
}
