#pragma once

#include "timeline/ConsoleLogger.h"

#include <QPoint>
#include <QRect>
#include <QSize>
#include <QVariantMap>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

// Identifiers are minted by the QML side; -1 means none.
using UID = std::int32_t;
using PreviewSetUID = std::int32_t;
// Milliseconds, both as a position and as a length.
using TSType = std::int64_t;
// A stretch of time, first and last millisecond, both inclusive.
using TimeRange = std::pair<TSType, TSType>;

// One input or one preview. Always shared: the player's table, every timeline
// that shows it and requests in flight hold the same record, and identity is
// the identity of that record.
class Video
{
public:
    Video(UID uid, TSType duration, TSType startOffset, std::string filepath, QVariantMap info);
    Video(UID uid, TSType duration, TSType startOffset, std::string filepath, double framerate, double sar,
          double slowmotion);

    // (startOffset, time of the last frame): info's duration minus one timestep.
    QPoint range() const;

    // The record of an input for an add-input request. A known input keeps its
    // record and only gets a duration when it holds none.
    static std::shared_ptr<Video> makeInput(const std::shared_ptr<Video> &known, UID uid, std::string filepath,
                                            TSType duration, double framerate, double sar, QVariantMap inputInfo);
    // The record of a preview for an add-preview request.
    static std::shared_ptr<Video> makePreview(UID uid, std::string filepath, TSType startOffset, TSType duration,
                                              double framerate, double slowmotion, double sar, bool isGenerating,
                                              QVariantMap previewInfo);

    // Whole milliseconds that fit in one frame: floor, never rounded.
    static int timestepFor(double framerate);

    // `current` with the keys of `changes` merged in, in the fixed order of
    // rotation, flags, frame rate, colour override, colour codes.
    static QVariantMap mergedInfo(QVariantMap current, const QVariantMap &changes);
    // Merges into this record's own `info`.
    void applyInfo(const QVariantMap &changes);

    UID uid = -1;
    TSType duration = 0;
    TSType startOffset = 0;
    double framerate = 0;
    double sar = 1.0;
    double slowmotion = 1.0;
    std::string filepath;
    bool isGenerating = true;
    QVariantMap info;
    ConsoleLogger log;
};

// A rectangle in displayed coordinates brought back to the stored picture of a
// video with `rotation` (codes of cv::rotate, 3 meaning none) and `originalSize`.
QRect getTransposedROI(int x, int y, int w, int h, int rotation, QSize originalSize);
// The same with the rotation and original size read from a video-info map.
QRect getTransposedROI(int x, int y, int w, int h, const QVariantMap &info);
