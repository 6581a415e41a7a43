#pragma once

#include <QString>

// SMPTE timecode and frame arithmetic behind KUtils. Pure functions: the frame
// rate is passed on every call and never remembered.
namespace timecode {

QString msecToSmpte(int millisecond, double frameRate);
int smpteToMsec(const QString &timecode, double frameRate);
int msecToFrameCount(int millisecond, double frameRate);
int frameCountToMsec(int frameCount, double frameRate);
int msToFrameMs(int millisecond, double frameRate);
bool isValidSmpte(const QString &timecode);

// A rate is drop-frame exactly when its fractional part exceeds 0.9; this makes
// 23.976 drop-frame too, on purpose.
bool isDropFrameRate(double frameRate);

} // namespace timecode
