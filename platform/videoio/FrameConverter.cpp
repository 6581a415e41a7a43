#include "videoio/FrameConverter.h"

#include <QVideoFrame>
#include <QVideoFrameFormat>

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace videoio {
namespace {

// The deprecated full-range "J" formats stand for their plain twins plus a range.
AVPixelFormat withoutJ(AVPixelFormat format)
{
    switch (format) {
    case AV_PIX_FMT_YUVJ420P: return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ422P: return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P: return AV_PIX_FMT_YUV444P;
    case AV_PIX_FMT_YUVJ440P: return AV_PIX_FMT_YUV440P;
    case AV_PIX_FMT_YUVJ411P: return AV_PIX_FMT_YUV411P;
    default: return format;
    }
}

} // namespace

int FrameConverter::sourceMatrix(const AVFrame *frame)
{
    switch (frame->colorspace) {
    case AVCOL_SPC_BT709: return SWS_CS_ITU709;
    case AVCOL_SPC_FCC: return SWS_CS_FCC;
    case AVCOL_SPC_BT470BG:
    case AVCOL_SPC_SMPTE170M: return SWS_CS_ITU601;
    case AVCOL_SPC_SMPTE240M: return SWS_CS_SMPTE240M;
    case AVCOL_SPC_BT2020_NCL:
    case AVCOL_SPC_BT2020_CL: return SWS_CS_BT2020;
    default: return frame->height >= 720 ? SWS_CS_ITU709 : SWS_CS_ITU601;
    }
}

bool FrameConverter::isFullRange(const AVFrame *frame)
{
    const auto format = static_cast<AVPixelFormat>(frame->format);
    return frame->color_range == AVCOL_RANGE_JPEG || withoutJ(format) != format;
}

bool FrameConverter::convert(const AVFrame *frame, uint8_t *dst, int dstStride, int dstWidth,
                             int dstHeight, AVPixelFormat dstFormat)
{
    if (!frame || !dst || frame->width <= 0 || frame->height <= 0 || dstWidth <= 0 || dstHeight <= 0)
        return false;
    const auto srcFormat = static_cast<AVPixelFormat>(frame->format);
    const bool scaling = dstWidth != frame->width || dstHeight != frame->height;
    const int flags = (scaling ? SWS_AREA : SWS_POINT) | SWS_ACCURATE_RND | SWS_BITEXACT | SWS_FULL_CHR_H_INT;
    SwsContext *sws = sws_getCachedContext(m_sws.release(), frame->width, frame->height, withoutJ(srcFormat),
                                           dstWidth, dstHeight, dstFormat, flags, nullptr, nullptr, nullptr);
    m_sws.reset(sws);
    if (!sws)
        return false;

    const AVPixFmtDescriptor *desc = av_pix_fmt_desc_get(srcFormat);
    if (desc && !(desc->flags & AV_PIX_FMT_FLAG_RGB)) {
        const int *table = sws_getCoefficients(sourceMatrix(frame));
        sws_setColorspaceDetails(sws, table, isFullRange(frame) ? 1 : 0,
                                 sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, 1 << 16, 1 << 16);
    }
    uint8_t *planes[4] = {dst, nullptr, nullptr, nullptr};
    const int strides[4] = {dstStride, 0, 0, 0};
    return sws_scale(sws, frame->data, frame->linesize, 0, frame->height, planes, strides) == dstHeight;
}

std::shared_ptr<QVideoFrame> FrameConverter::toVideoFrame(const AVFrame *frame)
{
    if (!frame)
        return {};
    const QVideoFrameFormat format(QSize(frame->width, frame->height), QVideoFrameFormat::Format_RGBX8888);
    auto video = std::make_shared<QVideoFrame>(format);
    if (!video->isValid() || !video->map(QVideoFrame::WriteOnly))
        return {};
    const bool ok = convert(frame, video->bits(0), video->bytesPerLine(0), frame->width, frame->height,
                            AV_PIX_FMT_RGB0);
    video->unmap();
    if (!ok)
        return {};
    return video;
}

cv::Mat FrameConverter::toBgr(const AVFrame *frame, int width, int height)
{
    cv::Mat image(height, width, CV_8UC3);
    if (!convert(frame, image.data, static_cast<int>(image.step[0]), width, height, AV_PIX_FMT_BGR24))
        return {};
    return image;
}

} // namespace videoio
