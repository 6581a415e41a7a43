#include "timeline/Video.h"

#include <cmath>
#include <limits>

namespace {

const QString kPrefix = QStringLiteral("Video ===---");

QString pathText(const std::string &path)
{
    return QString::fromStdString(path);
}

} // namespace

Video::Video(UID uid, TSType duration, TSType startOffset, std::string filepath, QVariantMap info)
    : uid(uid)
    , duration(duration)
    , startOffset(startOffset)
    , filepath(std::move(filepath))
    , info(std::move(info))
{
    log.prefix = kPrefix;
    log.log(QStringLiteral("~~~ Created video w/ filepath ") + pathText(this->filepath), ConsoleLogger::Info);
}

Video::Video(UID uid, TSType duration, TSType startOffset, std::string filepath, double framerate, double sar,
             double slowmotion)
    : uid(uid)
    , duration(duration)
    , startOffset(startOffset)
    , framerate(framerate)
    , sar(sar)
    , slowmotion(slowmotion)
    , filepath(std::move(filepath))
{
    log.prefix = kPrefix;
    log.log(QStringLiteral("~~~ Created video w/ filepath ") + pathText(this->filepath) + QStringLiteral(" & SAR = ")
                + QString::number(sar),
            ConsoleLogger::Info);
}

QPoint Video::range() const
{
    // The last frame starts one timestep before the end: that is what the
    // player reports for an input, not its end.
    const int last = int(info.value(QStringLiteral("duration")).toDouble())
                     - int(info.value(QStringLiteral("timestep")).toDouble());
    return QPoint(int(startOffset), last);
}

int Video::timestepFor(double framerate)
{
    const double step = std::floor(1000.0 / framerate);
    // An unknown or absurd rate has no frame length to speak of.
    if (!std::isfinite(step) || step < 0 || step > double(std::numeric_limits<int>::max()))
        return 0;
    return int(step);
}

std::shared_ptr<Video> Video::makeInput(const std::shared_ptr<Video> &known, UID uid, std::string filepath,
                                        TSType duration, double framerate, double sar, QVariantMap inputInfo)
{
    inputInfo[QStringLiteral("sar")] = sar;
    inputInfo[QStringLiteral("timestep")] = timestepFor(framerate);
    const TSType wanted = duration != 0 ? duration : TSType(inputInfo.value(QStringLiteral("duration")).toLongLong());

    if (known) {
        if (known->duration == 0)
            known->duration = wanted;
        return known;
    }
    auto video = std::make_shared<Video>(uid, wanted, 0, std::move(filepath), std::move(inputInfo));
    video->framerate = framerate;
    video->sar = sar;
    video->isGenerating = false;
    return video;
}

std::shared_ptr<Video> Video::makePreview(UID uid, std::string filepath, TSType startOffset, TSType duration,
                                          double framerate, double slowmotion, double sar, bool isGenerating,
                                          QVariantMap previewInfo)
{
    // For a preview "still being rendered" and "is an image sequence" are one
    // flag: renders write frame sequences until they are done.
    previewInfo[QStringLiteral("fps")] = framerate;
    previewInfo[QStringLiteral("isImageSequence")] = isGenerating;
    auto video = std::make_shared<Video>(uid, duration, startOffset, std::move(filepath), std::move(previewInfo));
    video->framerate = framerate;
    video->slowmotion = slowmotion;
    video->sar = sar;
    video->isGenerating = isGenerating;
    return video;
}

QVariantMap Video::mergedInfo(QVariantMap current, const QVariantMap &changes)
{
    if (changes.contains(QStringLiteral("rotation"))) {
        const int rotation = changes.value(QStringLiteral("rotation")).toInt();
        current[QStringLiteral("rotation")] = rotation;
        const QSize original = current.value(QStringLiteral("originalSize")).toSize();
        const double aspect = current.value(QStringLiteral("sar")).toDouble();
        double width = 0;
        double height = 0;
        if (rotation == 0 || rotation == 2) {
            // A quarter turn: the aspect factor stays with the stored width,
            // which now stands upright.
            height = aspect * original.width();
            width = original.height();
        } else {
            height = original.height();
            width = aspect * original.width();
        }
        current[QStringLiteral("width")] = width;
        current[QStringLiteral("height")] = height;
        const QSize shown{static_cast<int>(width), static_cast<int>(height)};
        current[QStringLiteral("adjustedSize")] = shown;
        current[QStringLiteral("resolution")] = shown;
        current[QStringLiteral("size")] = shown;
    }

    for (const QString key : {QStringLiteral("isBlackAndWhite"), QStringLiteral("isTelecined")}) {
        if (changes.contains(key))
            current[key] = changes.value(key).toBool();
    }

    if (changes.contains(QStringLiteral("fps"))) {
        const double newRate = changes.value(QStringLiteral("fps")).toDouble();
        // A rate of zero or less counts no frames; such a change is ignored.
        if (newRate > 0) {
            const double oldRate = current.value(QStringLiteral("fps"), 30.0).toDouble();
            // The frame count stays; `length` is computed from the already
            // changed duration, so it only equals it when the rate is unchanged.
            const double duration = oldRate * current.value(QStringLiteral("duration")).toDouble() / newRate;
            current[QStringLiteral("duration")] = duration;
            current[QStringLiteral("length")] = oldRate * duration / newRate;
            current[QStringLiteral("fps")] = newRate;
        }
    }

    if (changes.contains(QStringLiteral("overrideInputColorspace")))
        current[QStringLiteral("overrideInputColorspace")] =
            changes.value(QStringLiteral("overrideInputColorspace")).toBool() ? 1 : 0;

    for (const QString key : {QStringLiteral("colorPrimaries"), QStringLiteral("colorSpace"),
                              QStringLiteral("colorTrc"), QStringLiteral("colorRange")}) {
        if (changes.contains(key))
            current[key] = changes.value(key).toInt();
    }
    return current;
}

void Video::applyInfo(const QVariantMap &changes)
{
    if (changes.contains(QStringLiteral("fps")) && !(changes.value(QStringLiteral("fps")).toDouble() > 0))
        log.log(QStringLiteral("Ignored a frame rate change to ") + changes.value(QStringLiteral("fps")).toString()
                    + QStringLiteral(" for ") + pathText(filepath),
                ConsoleLogger::Warn);
    info = mergedInfo(std::move(info), changes);
}

QRect getTransposedROI(int x, int y, int w, int h, int rotation, QSize originalSize)
{
    const int W = originalSize.width();
    const int H = originalSize.height();
    if (rotation % 2 != 0) {
        if (rotation == 1)
            return QRect(W - x - w, H - y - h, w, h);
        return QRect(x, y, w, h);
    }
    if (rotation == 0)
        return QRect(y, H - x - w, h, w);
    return QRect(W - y - h, x, h, w);
}

QRect getTransposedROI(int x, int y, int w, int h, const QVariantMap &info)
{
    return getTransposedROI(x, y, w, h, info.value(QStringLiteral("rotation")).toInt(),
                            info.value(QStringLiteral("originalSize")).toSize());
}
