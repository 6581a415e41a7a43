#include "models/NetworkRequestManager.h"

NetworkRequestManager::NetworkRequestManager(QObject *parent)
    : QObject(parent)
{
}
