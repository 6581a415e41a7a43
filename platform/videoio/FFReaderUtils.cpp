#include "videoio/FFReaderUtils.h"

#include "videoio/FFHandles.h"

#include <QFileInfo>
#include <QLoggingCategory>

#include <algorithm>
#include <cstring>
#include <vector>

Q_DECLARE_LOGGING_CATEGORY(lcReader)

namespace videoio {
namespace {

struct VideoInput
{
    ff::InputPtr input;
    int stream = -1;

    AVStream *video() const { return input->streams[stream]; }
};

VideoInput openVideo(const QString &path)
{
    VideoInput v;
    if (!QFileInfo(path).isFile())
        return v;
    v.input = ff::openInput(path.toUtf8().constData());
    if (!v.input)
        return v;
    v.stream = av_find_best_stream(v.input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (v.stream < 0) {
        v.input.reset();
        return v;
    }
    for (unsigned i = 0; i < v.input->nb_streams; ++i) {
        if (static_cast<int>(i) != v.stream)
            v.input->streams[i]->discard = AVDISCARD_ALL;
    }
    return v;
}

bool sameCodecParameters(const AVCodecParameters *a, const AVCodecParameters *b)
{
    // The extra data holds the decoder set-up (SPS/PPS); one stream has one.
    return a->codec_id == b->codec_id && a->width == b->width && a->height == b->height
        && a->format == b->format && a->extradata_size == b->extradata_size
        && (a->extradata_size == 0 || std::memcmp(a->extradata, b->extradata, a->extradata_size) == 0);
}


// Every packet of the video stream, in file order.
std::vector<ff::PacketPtr> readAll(const VideoInput &v)
{
    std::vector<ff::PacketPtr> packets;
    for (;;) {
        ff::PacketPtr packet = ff::makePacket();
        if (av_read_frame(v.input.get(), packet.get()) < 0)
            break;
        if (packet->stream_index == v.stream)
            packets.push_back(std::move(packet));
    }
    return packets;
}

} // namespace

int64_t FFReaderUtils::getDuration(const QString &path)
{
    const VideoInput v = openVideo(path);
    if (!v.input)
        return 0;
    const AVStream *stream = v.video();
    if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0)
        return av_rescale_q(stream->duration, stream->time_base, AVRational{1, 1000});
    if (v.input->duration != AV_NOPTS_VALUE && v.input->duration > 0)
        return av_rescale_q(v.input->duration, AV_TIME_BASE_Q, AVRational{1, 1000});
    return 0;
}

size_t FFReaderUtils::countFrames(const QString &path, int64_t seekPts)
{
    const VideoInput v = openVideo(path);
    if (!v.input)
        return 0;
    const AVStream *stream = v.video();
    const int64_t start = stream->start_time == AV_NOPTS_VALUE ? 0 : stream->start_time;
    const int64_t from = seekPts > 0 ? start + av_rescale_q(seekPts, AVRational{1, 1000}, stream->time_base)
                                     : INT64_MIN;
    ff::PacketPtr packet = ff::makePacket();
    size_t count = 0;
    while (av_read_frame(v.input.get(), packet.get()) >= 0) {
        if (packet->stream_index == v.stream) {
            const int64_t pts = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
            if (from == INT64_MIN || (pts != AV_NOPTS_VALUE && pts >= from))
                ++count;
        }
        av_packet_unref(packet.get());
    }
    return count;
}

bool FFReaderUtils::concat(const QString &out, const QString &former, const QString &latter, size_t frame)
{
    const VideoInput first = openVideo(former);
    const VideoInput second = openVideo(latter);
    if (!first.input || !second.input) {
        qCWarning(lcReader) << "concat: unable to open" << former << "or" << latter;
        return false;
    }
    if (!sameCodecParameters(first.video()->codecpar, second.video()->codecpar)) {
        qCWarning(lcReader) << "concat: codec parameters differ between" << former << "and" << latter;
        return false;
    }

    std::vector<ff::PacketPtr> head = readAll(first);
    std::vector<ff::PacketPtr> tail = readAll(second);
    if (head.empty() || tail.empty())
        return false;

    // The cut lies before the picture number `frame` in display order.
    if (frame > 0 && frame < head.size()) {
        std::vector<int64_t> times;
        for (const auto &p : head)
            times.push_back(p->pts != AV_NOPTS_VALUE ? p->pts : p->dts);
        std::nth_element(times.begin(), times.begin() + static_cast<long>(frame), times.end());
        const int64_t cut = times[frame];
        std::erase_if(head, [cut](const ff::PacketPtr &p) {
            return (p->pts != AV_NOPTS_VALUE ? p->pts : p->dts) >= cut;
        });
    }

    AVFormatContext *raw = nullptr;
    const QByteArray outName = out.toUtf8();
    if (avformat_alloc_output_context2(&raw, nullptr, nullptr, outName.constData()) < 0 || !raw) {
        qCWarning(lcReader) << "concat: no muxer for" << out;
        return false;
    }
    ff::OutputPtr output(raw);
    AVStream *stream = avformat_new_stream(raw, nullptr);
    if (!stream || avcodec_parameters_copy(stream->codecpar, first.video()->codecpar) < 0)
        return false;
    stream->codecpar->codec_tag = 0;
    stream->time_base = first.video()->time_base;
    stream->sample_aspect_ratio = first.video()->sample_aspect_ratio;
    if (!(raw->oformat->flags & AVFMT_NOFILE) && avio_open(&raw->pb, outName.constData(), AVIO_FLAG_WRITE) < 0) {
        qCWarning(lcReader) << "concat: unable to write" << out;
        return false;
    }
    if (avformat_write_header(raw, nullptr) < 0)
        return false;

    // Both parts in the former's time base; the latter follows the former's
    // last picture, and its decode times never step back behind the former's.
    const AVRational base = first.video()->time_base;
    const AVRational rate = av_guess_frame_rate(first.input.get(), first.video(), nullptr);
    const int64_t frameDuration = rate.num > 0 && rate.den > 0
        ? std::max<int64_t>(1, av_rescale_q(1, av_inv_q(rate), base)) : 1;
    int64_t headEnd = AV_NOPTS_VALUE;
    int64_t headLastDts = AV_NOPTS_VALUE;
    for (const auto &p : head) {
        const int64_t pts = p->pts != AV_NOPTS_VALUE ? p->pts : p->dts;
        headEnd = std::max(headEnd == AV_NOPTS_VALUE ? pts : headEnd, pts + (p->duration > 0 ? p->duration : frameDuration));
        if (p->dts != AV_NOPTS_VALUE)
            headLastDts = std::max(headLastDts == AV_NOPTS_VALUE ? p->dts : headLastDts, p->dts);
    }
    for (const auto &p : tail)
        av_packet_rescale_ts(p.get(), second.video()->time_base, base);
    int64_t tailStart = INT64_MAX;
    int64_t tailFirstDts = INT64_MAX;
    for (const auto &p : tail) {
        tailStart = std::min(tailStart, p->pts != AV_NOPTS_VALUE ? p->pts : p->dts);
        if (p->dts != AV_NOPTS_VALUE)
            tailFirstDts = std::min(tailFirstDts, p->dts);
    }
    int64_t shift = headEnd - tailStart;
    if (headLastDts != AV_NOPTS_VALUE && tailFirstDts != INT64_MAX && tailFirstDts + shift <= headLastDts)
        shift = headLastDts + 1 - tailFirstDts;

    bool ok = true;
    const auto write = [&](AVPacket *p, int64_t offset) {
        if (p->pts != AV_NOPTS_VALUE)
            p->pts += offset;
        if (p->dts != AV_NOPTS_VALUE)
            p->dts += offset;
        p->stream_index = 0;
        p->pos = -1;
        av_packet_rescale_ts(p, base, stream->time_base);
        ok = av_interleaved_write_frame(raw, p) >= 0 && ok;
    };
    for (const auto &p : head)
        write(p.get(), 0);
    for (const auto &p : tail)
        write(p.get(), shift);
    ok = av_write_trailer(raw) >= 0 && ok;
    if (!ok)
        qCWarning(lcReader) << "concat: writing failed for" << out;
    return ok;
}

bool FFReaderUtils::isCodecUsableInContainer(int codecId, const QString &ext)
{
    QString suffix = ext.trimmed();
    if (suffix.startsWith(QLatin1Char('.')))
        suffix.remove(0, 1);
    if (suffix.isEmpty())
        return false;
    const QByteArray name = QByteArrayLiteral("file.") + suffix.toUtf8();
    const AVOutputFormat *format = av_guess_format(nullptr, name.constData(), nullptr);
    if (!format)
        return false;
    return avformat_query_codec(format, static_cast<AVCodecID>(codecId), FF_COMPLIANCE_NORMAL) == 1;
}

QString FFReaderUtils::getCodecName(int codecId)
{
    return QString::fromUtf8(avcodec_get_name(static_cast<AVCodecID>(codecId)));
}

} // namespace videoio
