#pragma once

#include <QtGlobal>

#include <utility>

// The arithmetic between the two clocks of the player: file time, which mpv
// reports, and the input's time axis (truthTS), on which every pane is held.
// Pure functions, so the nodes and the player share one definition and tests
// can drive them by tables. The float/double and truncation choices are part
// of the behaviour: positions must come out to the same millisecond as before.
namespace syncmath {

// Seconds for an exact seek: milliseconds through a 32-bit float, divided in
// 32 bits. Past about four and a half hours whole milliseconds are lost; that
// is accepted and must stay so.
double seekSeconds(qint64 milliseconds);

// Seconds for the start position of a load, in double precision.
double loadSeconds(qint64 milliseconds);

// The frame a frame-accurate seek would ask for: (ms as float * fps) / 1000.
qint64 seekFrame(qint64 milliseconds, float framerate);

// File time -> input axis: (fileMs as float / slowMotion) + first as float,
// truncated. The position a pane reports and the third truthTS site use it.
qint64 fileToInput(qint64 fileMs, float slowMotion, qint64 rangeFirst);
float fileToInputF(qint64 fileMs, float slowMotion, qint64 rangeFirst);

// Input axis -> file time inside a preview: (ts - startOffset) * slowmotion in
// double, truncated toward zero.
qint64 inputToFile(qint64 ts, qint64 startOffset, double slowmotion);

// The realignment of a pane without mpv: the factor is truncated to an integer
// first (1.5 multiplies by 1) and a negative result becomes 0.
qint64 syncViewPosition(qint64 truthTS, qint64 startOffset, float slowMotion);

// Putting one pane on the input's time: |t - first| as float * slowMotion,
// truncated; 0 or below stays 0.
qint64 syncOnePosition(qint64 inputTs, qint64 rangeFirst, float slowMotion);

// A stretch is a pair of inclusive ends on the input's axis.
using Range = std::pair<qint64, qint64>;

bool contains(const Range &range, qint64 ts);

// truthTS outside its stretch falls back to the stretch's start.
qint64 clampToRangeStart(qint64 ts, const Range &range);

// Whole milliseconds per frame, rounded down: 29.97 fps gives 33.
qint64 timestepMs(double framerate);

// The first and last frame timestamps of a video on the input's axis:
// (startOffset, duration - timestep).
Range frameRange(qint64 startOffset, qint64 duration, qint64 timestep);

// round(ms / (1000 / fps)) truncated to int.
int frameFromMs(qint64 millisecond, double frameRate);
// The millisecond at which that frame starts, truncated to int.
int snapToFrameMs(qint64 millisecond, double frameRate);

// mpv's zoom is a power of two: log2 of the factor in 32 bits.
float zoomExponent(double zoom);

// Playback speeds of two panes with different slow-motion factors: the slower
// pane plays at 1.0 and the other is slowed to keep step.
struct Speeds
{
    double left = 1.0;
    double right = 1.0;
};
Speeds paneSpeeds(float leftSlowMotion, float rightSlowMotion);

// One frame step forward or back on the input's axis, wrapping at the first
// and last frame.
qint64 stepForward(qint64 ts, qint64 step, const Range &frames);
qint64 stepBackward(qint64 ts, qint64 step, const Range &frames);

} // namespace syncmath
