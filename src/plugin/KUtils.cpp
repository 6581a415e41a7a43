#include "plugin/KUtils.h"

#include "plugin/Timecode.h"

KUtils::KUtils(QObject *parent)
    : QObject(parent)
{
}

QString KUtils::convertMsecToSmpte(int millisecond, double frameRate)
{
    return timecode::msecToSmpte(millisecond, frameRate);
}

int KUtils::convertSmpteTomsec(QString timecode, double frameRate)
{
    return timecode::smpteToMsec(timecode, frameRate);
}

int KUtils::convertMsecToFrameCount(int millisecond, double frameRate)
{
    return timecode::msecToFrameCount(millisecond, frameRate);
}

int KUtils::convertFrameCountToMsec(int frameCount, double frameRate)
{
    return timecode::frameCountToMsec(frameCount, frameRate);
}

int KUtils::convertMsToFrameMs(int millisecond, double frameRate)
{
    return timecode::msToFrameMs(millisecond, frameRate);
}

bool KUtils::isValidSmpteTimecode(QString timecode)
{
    return timecode::isValidSmpte(timecode);
}
