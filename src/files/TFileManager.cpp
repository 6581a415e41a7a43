#include "files/TFileManager.h"

TFileManager::TFileManager(QObject *parent)
    : QObject(parent)
{
}
