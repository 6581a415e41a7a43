#include "plugin/Timecode.h"

#include <QLoggingCategory>
#include <QStringList>

#include <cmath>
#include <limits>

Q_LOGGING_CATEGORY(lcTimecode, "kutils.utils")

namespace timecode {
namespace {

// Results outside int (absurd rates or times) saturate instead of being
// undefined; NaN (a rate of 0) reads as 0.
int saturate(double value)
{
    if (std::isnan(value))
        return 0;
    if (value >= double(std::numeric_limits<int>::max()))
        return std::numeric_limits<int>::max();
    if (value <= double(std::numeric_limits<int>::min()))
        return std::numeric_limits<int>::min();
    return int(value);
}

int nominalRate(double frameRate)
{
    return saturate(std::round(frameRate));
}

// The fields of a timecode text: ":" everywhere, or ":" then one ";" before the
// frames. Whatever follows a second ";" is dropped.
QStringList splitFields(const QString &text, bool *dropFrame = nullptr)
{
    const bool hasSemicolon = text.contains(u';');
    if (dropFrame)
        *dropFrame = hasSemicolon;
    if (!hasSemicolon)
        return text.split(u':', Qt::KeepEmptyParts);
    const QStringList pieces = text.split(u';', Qt::KeepEmptyParts);
    QStringList fields = pieces.at(0).split(u':', Qt::KeepEmptyParts);
    fields.append(pieces.at(1));
    return fields;
}

// The single-precision product is part of the contract: past 2^24 frames it
// drops whole frames, and every result's rounding depends on it.
double singlePrecisionMsec(int frameCount, double frameRate)
{
    const float product = float(frameCount) * 1000.0f;
    return double(product) / frameRate;
}

} // namespace

bool isDropFrameRate(double frameRate)
{
    return frameRate - std::floor(frameRate) > 0.9;
}

QString msecToSmpte(int millisecond, double frameRate)
{
    if (millisecond < 0)
        millisecond = 0;
    if (frameRate <= 0)
        frameRate = 30.0;
    const bool drop = isDropFrameRate(frameRate);
    const int totalFrames = saturate(double(millisecond) * frameRate / 1000.0 + 0.5);
    // A positive rate under 0.5 rounds to 0; one frame a second keeps the
    // divisions defined.
    const qint64 nominal = std::max(1, nominalRate(frameRate));

    qint64 n = totalFrames;
    if (drop) {
        const qint64 droppedPerMinute = nominal / 15;
        const qint64 framesPerMinute = nominal * 60;
        const qint64 framesPerTenMinutes = nominal * 600;
        const qint64 framesPerDay = nominal * 86400;
        const qint64 tens = totalFrames / framesPerTenMinutes;
        const qint64 rest = totalFrames % framesPerTenMinutes;
        // Only the total frames wrap at a day; the first term does not, so runs
        // past 24 hours wrap in this odd way on purpose.
        n = droppedPerMinute * tens * 9 + totalFrames % framesPerDay;
        if (rest >= framesPerMinute)
            n += (rest / (framesPerMinute - droppedPerMinute / 2)) * droppedPerMinute;
        // The divisor above is one too large (1799 at 29.97); this lifts a frame
        // that landed on a dropped label to the first label that exists.
        if (n % framesPerMinute < droppedPerMinute && n % framesPerTenMinutes >= droppedPerMinute)
            n += droppedPerMinute - n % framesPerMinute;
    }

    const qint64 frames = n % nominal;
    const qint64 secondsTotal = n / nominal;
    const qint64 seconds = secondsTotal % 60;
    const qint64 minutesTotal = secondsTotal / 60;
    const qint64 minutes = minutesTotal % 60;
    const qint64 hours = minutesTotal / 60;
    return QStringLiteral("%1:%2:%3%4%5")
        .arg(hours, 2, 10, QLatin1Char('0'))
        .arg(minutes, 2, 10, QLatin1Char('0'))
        .arg(seconds, 2, 10, QLatin1Char('0'))
        .arg(drop ? QLatin1Char(';') : QLatin1Char(':'))
        .arg(frames, 2, 10, QLatin1Char('0'));
}

int smpteToMsec(const QString &text, double frameRate)
{
    bool dropFrame = false;
    const QStringList fields = splitFields(text, &dropFrame);
    if (fields.size() != 4) {
        qCWarning(lcTimecode).noquote() << "Failed to convert time code to milliseconds for time code: " + text;
        return 0;
    }
    // A field that is not a number reads as 0.
    const qint64 hours = fields[0].toInt(nullptr, 10);
    const qint64 minutes = fields[1].toInt(nullptr, 10);
    const qint64 seconds = fields[2].toInt(nullptr, 10);
    const qint64 frameField = fields[3].toInt(nullptr, 10);

    const qint64 nominal = nominalRate(frameRate);
    qint64 frames = ((hours * 60 + minutes) * 60 + seconds) * nominal + frameField;
    if (dropFrame) {
        const qint64 droppedPerMinute = nominal / 15;
        qint64 dropped = ((hours * 6 + minutes / 10) * 9 + minutes % 10) * droppedPerMinute;
        // A label that does not exist reads as the first one that does.
        if (minutes % 10 > 0 && seconds == 0 && frameField < droppedPerMinute)
            dropped += frameField - droppedPerMinute;
        frames -= dropped;
    }
    if (frameRate == 0)
        return 0;
    return saturate(std::trunc(singlePrecisionMsec(saturate(double(frames)), frameRate)));
}

int msecToFrameCount(int millisecond, double frameRate)
{
    return saturate(std::round(double(millisecond) * frameRate / 1000.0));
}

int frameCountToMsec(int frameCount, double frameRate)
{
    if (frameRate == 0)
        return 0;
    return saturate(std::round(singlePrecisionMsec(frameCount, frameRate)));
}

int msToFrameMs(int millisecond, double frameRate)
{
    return frameCountToMsec(msecToFrameCount(millisecond, frameRate), frameRate);
}

bool isValidSmpte(const QString &text)
{
    const QStringList fields = splitFields(text);
    if (fields.size() != 4)
        return false;
    for (const QString &field : fields) {
        if (field.isEmpty() || field.size() > 4)
            return false;
    }
    return true;
}

} // namespace timecode
