#pragma once

#include <QString>

#include <cstddef>
#include <cstdint>

namespace videoio {

// File-level questions answered by FFmpeg without a decoder.
class FFReaderUtils
{
public:
    // Length of the file's video in milliseconds; 0 when it can't be read.
    static int64_t getDuration(const QString &path);

    // Number of frames of the first video stream from `seekPts` on, where
    // `seekPts` is a position in milliseconds from the stream's start (0 or
    // less counts them all). Counts packets, since containers' frame counts are
    // missing or wrong often enough. 0 when the file can't be read.
    static size_t countFrames(const QString &path, int64_t seekPts);

    // Writes `out` as the first `frame` frames (in display order) of `former`'s
    // video followed by all of `latter`'s, by stream copy. `frame` 0 keeps all
    // of `former`. Refuses, with false, inputs whose codec parameters differ,
    // since their packets can't share one stream. Video only: other streams are
    // left out. The cut is exact for streams without frame reordering.
    static bool concat(const QString &out, const QString &former, const QString &latter, size_t frame);

    // Whether the muxer of file extension `ext` ("mp4", "mkv", ".mov") can
    // store codec `codecId` (an AVCodecID).
    static bool isCodecUsableInContainer(int codecId, const QString &ext);
    // FFmpeg's short name of an AVCodecID ("h264"), "unknown_codec" for none.
    static QString getCodecName(int codecId);
};

} // namespace videoio
