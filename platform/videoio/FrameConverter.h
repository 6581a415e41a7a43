#pragma once

#include "videoio/FFHandles.h"

#include <opencv2/core/mat.hpp>

#include <memory>

class QVideoFrame;

namespace videoio {

// Turns decoded pictures into packed RGB, for the screen and for thumbnails.
//
// swscale's fast unscaled YUV-to-RGB paths write whole blocks of 8 pixels and
// so run past the end of a row whose width is not a multiple of 8, past the
// end of the buffer on the last row. We always ask for the accurate, bit-exact
// paths, which write exactly the width asked for, so a conversion can go
// straight into a tightly packed buffer such as a QVideoFrame's.
class FrameConverter
{
public:
    // Scales and converts `frame` into one packed plane at `dst`.
    bool convert(const AVFrame *frame, uint8_t *dst, int dstStride, int dstWidth, int dstHeight,
                 AVPixelFormat dstFormat);

    // The picture as an RGBX frame of its stored size, the one copy it makes.
    std::shared_ptr<QVideoFrame> toVideoFrame(const AVFrame *frame);
    // The picture scaled to `width` x `height`, as 8-bit BGR.
    cv::Mat toBgr(const AVFrame *frame, int width, int height);

    // The YUV matrix of a frame: its own when it names one, BT.709 for untagged
    // HD pictures (720 lines and more), BT.601 for smaller ones, as players do.
    static int sourceMatrix(const AVFrame *frame);
    // Whether the frame uses the full 0-255 range.
    static bool isFullRange(const AVFrame *frame);

private:
    ff::SwsPtr m_sws;
};

} // namespace videoio
