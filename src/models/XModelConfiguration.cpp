#include "models/XModelConfiguration.h"

XModelConfiguration::XModelConfiguration(QObject *parent)
    : QObject(parent)
{
}
