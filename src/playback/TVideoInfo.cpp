#include "playback/TVideoInfo.h"

TVideoInfo::TVideoInfo(QObject *parent)
    : QObject(parent)
{
}
