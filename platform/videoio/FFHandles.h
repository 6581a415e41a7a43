#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

#include <memory>

// Owners of FFmpeg's native handles, so that every early return frees them.
namespace videoio::ff {

struct InputDeleter
{
    void operator()(AVFormatContext *c) const { avformat_close_input(&c); }
};
struct OutputDeleter
{
    void operator()(AVFormatContext *c) const
    {
        if (c && c->pb && !(c->oformat->flags & AVFMT_NOFILE))
            avio_closep(&c->pb);
        avformat_free_context(c);
    }
};
struct CodecDeleter
{
    void operator()(AVCodecContext *c) const { avcodec_free_context(&c); }
};
struct FrameDeleter
{
    void operator()(AVFrame *f) const { av_frame_free(&f); }
};
struct PacketDeleter
{
    void operator()(AVPacket *p) const { av_packet_free(&p); }
};
struct SwsDeleter
{
    void operator()(SwsContext *c) const { sws_freeContext(c); }
};

using InputPtr = std::unique_ptr<AVFormatContext, InputDeleter>;
using OutputPtr = std::unique_ptr<AVFormatContext, OutputDeleter>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using SwsPtr = std::unique_ptr<SwsContext, SwsDeleter>;

inline FramePtr makeFrame() { return FramePtr(av_frame_alloc()); }
inline PacketPtr makePacket() { return PacketPtr(av_packet_alloc()); }

// Opens `url` for reading, `format` forcing a demuxer when not null.
// Returns null (and the FFmpeg error in `error`) on failure.
inline InputPtr openInput(const char *url, const AVInputFormat *format = nullptr,
                          AVDictionary **options = nullptr, int *error = nullptr)
{
    AVFormatContext *raw = nullptr;
    const int r = avformat_open_input(&raw, url, format, options);
    if (error)
        *error = r;
    if (r < 0)
        return {};
    InputPtr input(raw);
    if (avformat_find_stream_info(raw, nullptr) < 0)
        return {};
    return input;
}

} // namespace videoio::ff
