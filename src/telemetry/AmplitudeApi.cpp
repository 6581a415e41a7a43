#include "telemetry/AmplitudeApi.h"

AmplitudeApi::AmplitudeApi(QObject *parent)
    : QObject(parent)
{
}
