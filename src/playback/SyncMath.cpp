#include "playback/SyncMath.h"

#include <cmath>
#include <cstdlib>

namespace syncmath {

double seekSeconds(qint64 milliseconds)
{
    const float seconds = static_cast<float>(milliseconds) / 1000.0f;
    return static_cast<double>(seconds);
}

double loadSeconds(qint64 milliseconds)
{
    return static_cast<double>(milliseconds) / 1000.0;
}

qint64 seekFrame(qint64 milliseconds, float framerate)
{
    return static_cast<qint64>((static_cast<float>(milliseconds) * framerate) / 1000.0);
}

float fileToInputF(qint64 fileMs, float slowMotion, qint64 rangeFirst)
{
    return static_cast<float>(fileMs) / slowMotion + static_cast<float>(rangeFirst);
}

qint64 fileToInput(qint64 fileMs, float slowMotion, qint64 rangeFirst)
{
    return static_cast<qint64>(fileToInputF(fileMs, slowMotion, rangeFirst));
}

qint64 inputToFile(qint64 ts, qint64 startOffset, double slowmotion)
{
    return static_cast<qint64>(static_cast<double>(ts - startOffset) * slowmotion);
}

qint64 syncViewPosition(qint64 truthTS, qint64 startOffset, float slowMotion)
{
    const qint64 position = (truthTS - startOffset) * static_cast<qint64>(slowMotion);
    return position < 0 ? 0 : position;
}

qint64 syncOnePosition(qint64 inputTs, qint64 rangeFirst, float slowMotion)
{
    const qint64 distance = std::llabs(inputTs - rangeFirst);
    const auto position = static_cast<qint64>(static_cast<float>(distance) * slowMotion);
    return position <= 0 ? 0 : position;
}

bool contains(const Range &range, qint64 ts)
{
    return range.first <= ts && ts <= range.second;
}

qint64 clampToRangeStart(qint64 ts, const Range &range)
{
    return contains(range, ts) ? ts : range.first;
}

qint64 timestepMs(double framerate)
{
    if (!(framerate > 0.0))
        return 0;
    return static_cast<qint64>(std::floor(1000.0 / framerate));
}

Range frameRange(qint64 startOffset, qint64 duration, qint64 timestep)
{
    return {startOffset, duration - timestep};
}

int frameFromMs(qint64 millisecond, double frameRate)
{
    return static_cast<int>(std::round(static_cast<double>(millisecond) / (1000.0 / frameRate)));
}

int snapToFrameMs(qint64 millisecond, double frameRate)
{
    return static_cast<int>(frameFromMs(millisecond, frameRate) * (1000.0 / frameRate));
}

float zoomExponent(double zoom)
{
    return log2f(static_cast<float>(zoom));
}

Speeds paneSpeeds(float leftSlowMotion, float rightSlowMotion)
{
    if (leftSlowMotion == rightSlowMotion)
        return {};
    const bool leftIsSlow = leftSlowMotion > rightSlowMotion;
    const float slow = leftIsSlow ? leftSlowMotion : rightSlowMotion;
    const float fast = leftIsSlow ? rightSlowMotion : leftSlowMotion;
    const double fastSpeed = 1.0 / (static_cast<double>(slow) / static_cast<double>(fast));
    return leftIsSlow ? Speeds{1.0, fastSpeed} : Speeds{fastSpeed, 1.0};
}

qint64 stepForward(qint64 ts, qint64 step, const Range &frames)
{
    const qint64 next = ts + step;
    return next > frames.second ? frames.first : next;
}

qint64 stepBackward(qint64 ts, qint64 step, const Range &frames)
{
    const qint64 previous = ts - step;
    return previous < frames.first ? frames.second : previous;
}

} // namespace syncmath
