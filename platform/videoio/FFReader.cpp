#include "videoio/FFReader.h"

#include "videoio/FileUseRegistry.h"
#include "videoio/ImageSequence.h"

#include <QFileInfo>
#include <QLoggingCategory>
#include <QSize>
#include <QVideoFrame>

#include <opencv2/core.hpp>

extern "C" {
#include <libavutil/display.h>
}

#include <algorithm>
#include <cmath>

Q_LOGGING_CATEGORY(lcReader, "kutils.videoio")

namespace videoio {
namespace {

constexpr int kNoSerial = -1;

// The rotation code of the display matrix: the quarter turns clockwise that
// show the picture upright, 0 a quarter turn clockwise, 1 a half turn, 2 a
// quarter turn counter-clockwise, 3 none (the codes of cv::rotate, plus one).
int rotationCode(const AVStream *stream)
{
    size_t size = 0;
    const uint8_t *matrix = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    if (!matrix || size < 9 * sizeof(int32_t))
        return 3;
    // The matrix turns counter-clockwise by this angle; showing undoes it.
    double clockwise = -av_display_rotation_get(reinterpret_cast<const int32_t *>(matrix));
    if (std::isnan(clockwise))
        return 3;
    clockwise = std::fmod(clockwise, 360.0);
    if (clockwise < 0)
        clockwise += 360.0;
    switch (static_cast<int>(std::lround(clockwise / 90.0)) % 4) {
    case 1: return 0;
    case 2: return 1;
    case 3: return 2;
    default: return 3;
    }
}

bool swapsSides(int rotation)
{
    return rotation == 0 || rotation == 2;
}

} // namespace

FFReader::FFReader(const QString &path, bool previewReader)
    : Reader(path, previewReader)
    , m_packet(ff::makePacket())
{
    const std::lock_guard lock(m_mutex);
    if (!open()) {
        qCWarning(lcReader) << "Unable to open video" << path;
        closeLocked();
    }
}

FFReader::~FFReader()
{
    const std::lock_guard lock(m_mutex);
    closeLocked();
}

bool FFReader::open()
{
    const QString path = getPath();
    if (path.isEmpty())
        return false;

    AVDictionary *options = nullptr;
    const AVInputFormat *format = nullptr;
    if (IsImageSequence(path)) {
        const int start = ImageSequence::startNumber(path);
        if (start < 0)
            return false;
        format = av_find_input_format("image2");
        av_dict_set_int(&options, "start_number", start, 0);
        // Pictures carry no rate: give them the one the info map assumes.
        av_dict_set(&options, "framerate", "30", 0);
    } else if (!QFileInfo(path).isFile()) {
        return false;
    }
    m_input = ff::openInput(path.toUtf8().constData(), format, &options);
    av_dict_free(&options);
    if (!m_input)
        return false;

    const AVCodec *codec = nullptr;
    m_stream = av_find_best_stream(m_input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (m_stream < 0 || !codec)
        return false;
    for (unsigned i = 0; i < m_input->nb_streams; ++i) {
        if (static_cast<int>(i) != m_stream)
            m_input->streams[i]->discard = AVDISCARD_ALL;
    }
    AVStream *stream = m_input->streams[m_stream];
    m_timeBase = stream->time_base;

    m_decoder.reset(avcodec_alloc_context3(codec));
    if (!m_decoder || avcodec_parameters_to_context(m_decoder.get(), stream->codecpar) < 0)
        return false;
    m_decoder->pkt_timebase = m_timeBase;
    m_decoder->thread_count = 0;
    if (avcodec_open2(m_decoder.get(), codec, nullptr) < 0)
        return false;

    const AVRational rate = av_guess_frame_rate(m_input.get(), stream, nullptr);
    const double fps = (rate.num > 0 && rate.den > 0) ? av_q2d(rate) : 30.0;
    m_frameDuration = std::max<int64_t>(1, std::llround(1.0 / fps / av_q2d(m_timeBase)));
    m_canByteSeek = !(m_input->iformat->flags & AVFMT_NO_BYTE_SEEK) && !format;

    // The first picture defines position 0; a stream that starts inside a GOP
    // is read from its first key packet.
    m_startPts = INT64_MIN;
    m_waitForKey = true;
    ff::FramePtr first = decodeNext();
    if (!first)
        return false;
    m_startPts = first->pts;
    setCurrent(std::move(first));

    int64_t durationPts = 0;
    if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0)
        durationPts = stream->duration;
    else if (m_input->duration != AV_NOPTS_VALUE && m_input->duration > 0)
        durationPts = av_rescale_q(m_input->duration, AV_TIME_BASE_Q, m_timeBase);
    m_lastPts = m_startPts + std::max<int64_t>(0, durationPts - m_frameDuration);

    m_info = describe();
    m_info.insert(QStringLiteral("fps"), fps);
    m_info.insert(QStringLiteral("timestep"), static_cast<qlonglong>(std::floor(1000.0 / fps)));
    m_info.insert(QStringLiteral("duration"),
                  static_cast<qlonglong>(std::llround(durationPts * av_q2d(m_timeBase) * 1000.0)));

    FileUseRegistry::acquire(path);
    m_registered = true;
    return true;
}

QVariantMap FFReader::describe() const
{
    const AVStream *stream = m_input->streams[m_stream];
    const AVCodecParameters *par = stream->codecpar;
    const AVRational guessed = av_guess_sample_aspect_ratio(m_input.get(), const_cast<AVStream *>(stream), nullptr);
    const double sar = (guessed.num > 0 && guessed.den > 0) ? av_q2d(guessed) : 1.0;
    const int rotation = rotationCode(stream);

    // The aspect factor stays on the stored width's side, also when a quarter
    // turn puts that side upright: the player's rotation arithmetic does the same.
    double width = sar * par->width;
    double height = par->height;
    if (swapsSides(rotation)) {
        height = sar * par->width;
        width = par->height;
    }
    const QSize size(static_cast<int>(width), static_cast<int>(height));

    QVariantMap info{
        {QStringLiteral("size"), size},
        {QStringLiteral("resolution"), size},
        {QStringLiteral("originalSize"), QSize(par->width, par->height)},
        {QStringLiteral("width"), width},
        {QStringLiteral("height"), height},
        {QStringLiteral("rotation"), rotation},
        {QStringLiteral("originalRotation"), rotation},
        {QStringLiteral("sar"), sar},
        {QStringLiteral("isImageSequence"), IsImageSequence(getPath())},
        {QStringLiteral("colorPrimaries"), static_cast<int>(par->color_primaries)},
        {QStringLiteral("colorSpace"), static_cast<int>(par->color_space)},
        {QStringLiteral("colorTrc"), static_cast<int>(par->color_trc)},
        {QStringLiteral("colorRange"), static_cast<int>(par->color_range)},
        {QStringLiteral("codecId"), static_cast<int>(par->codec_id)},
    };
    if (m_previewReader)
        info.insert(QStringLiteral("slowMoFactor"), 1.0);
    return info;
}

void FFReader::closeLocked()
{
    if (m_registered) {
        FileUseRegistry::release(getPath());
        m_registered = false;
    }
    m_lookahead.reset();
    m_current.reset();
    m_currentVideo.reset();
    m_decoder.reset();
    m_input.reset();
    m_currentPts = AV_NOPTS_VALUE;
}

bool FFReader::receive(AVFrame *out)
{
    int failures = 0;
    for (;;) {
        int r = avcodec_receive_frame(m_decoder.get(), out);
        if (r == 0)
            return true;
        if (r == AVERROR_EOF)
            return false;
        if (r != AVERROR(EAGAIN)) {
            // A damaged picture; the stream may go on after it.
            if (++failures > 32)
                return false;
            continue;
        }
        if (m_demuxEnded)
            return false;
        r = av_read_frame(m_input.get(), m_packet.get());
        if (r < 0) {
            m_demuxEnded = true;
            avcodec_send_packet(m_decoder.get(), nullptr);
            continue;
        }
        if (m_packet->stream_index != m_stream) {
            av_packet_unref(m_packet.get());
            continue;
        }
        if (m_waitForKey) {
            if (!(m_packet->flags & AV_PKT_FLAG_KEY)) {
                av_packet_unref(m_packet.get());
                continue;
            }
            m_waitForKey = false;
            m_minPts = m_packet->pts;
        }
        // A packet the decoder refuses is damaged; the next may be fine.
        avcodec_send_packet(m_decoder.get(), m_packet.get());
        av_packet_unref(m_packet.get());
    }
}

ff::FramePtr FFReader::decodeNext()
{
    if (m_lookahead)
        return std::move(m_lookahead);
    for (;;) {
        ff::FramePtr frame = ff::makeFrame();
        if (!receive(frame.get()))
            return {};
        int64_t pts = frame->best_effort_timestamp;
        if (pts == AV_NOPTS_VALUE)
            pts = frame->pts;
        if (pts == AV_NOPTS_VALUE)
            pts = m_currentPts == AV_NOPTS_VALUE ? 0 : m_currentPts + m_frameDuration;
        // Leading pictures of an open GOP refer to the GOP before the key
        // packet we started at; pictures before the first are edit-list pre-roll.
        if (m_minPts != AV_NOPTS_VALUE && pts < m_minPts)
            continue;
        if (pts < m_startPts)
            continue;
        frame->pts = pts;
        return frame;
    }
}

bool FFReader::seekDemuxer(int64_t target, bool rewind)
{
    const int64_t ts = std::max(target, m_startPts);
    const int r = rewind ? av_seek_frame(m_input.get(), -1, 0, AVSEEK_FLAG_BYTE)
                         : avformat_seek_file(m_input.get(), m_stream, INT64_MIN, ts, ts, 0);
    avcodec_flush_buffers(m_decoder.get());
    m_demuxEnded = false;
    m_waitForKey = true;
    m_minPts = AV_NOPTS_VALUE;
    m_lookahead.reset();
    return r >= 0;
}

bool FFReader::seekToPts(int64_t target, int serial)
{
    if (!m_input)
        return false;
    target = std::max(target, m_startPts);
    const auto interrupted = [&] { return serial != kNoSerial && m_seekSerial.load() != serial; };

    // Close ahead of the current picture, decoding on is cheaper than a seek.
    const int64_t oneSecond = std::max<int64_t>(1, m_timeBase.den / std::max(1, m_timeBase.num));
    if (m_current && target >= m_currentPts && target - m_currentPts <= oneSecond) {
        m_eof = false;
        if (m_lookahead && m_lookahead->pts > target)
            return true;
        while (ff::FramePtr frame = decodeNext()) {
            if (frame->pts > target) {
                m_lookahead = std::move(frame);
                break;
            }
            setCurrent(std::move(frame));
            if (interrupted())
                return false;
        }
        return true;
    }

    int64_t margin = 0;
    bool triedBytes = false;
    for (;;) {
        const bool fromStart = target - margin <= m_startPts;
        // Some demuxers don't reach the first packet by timestamp (Matroska
        // lands on a later cue): rewinding the bytes is the last resort.
        const bool byBytes = fromStart && triedBytes;
        seekDemuxer(target - margin, byBytes);
        ff::FramePtr best = decodeNext();
        const bool lastResort = byBytes || (fromStart && !m_canByteSeek);
        if (!best && lastResort)
            return false;
        if (!best || (!lastResort && best->pts > target)) {
            if (fromStart)
                triedBytes = true;
            else
                margin = margin == 0 ? oneSecond : margin * 2;
            continue;
        }
        while (!interrupted()) {
            ff::FramePtr frame = decodeNext();
            if (!frame)
                break;
            if (frame->pts > target) {
                m_lookahead = std::move(frame);
                break;
            }
            best = std::move(frame);
        }
        setCurrent(std::move(best));
        m_eof = false;
        return !interrupted();
    }
}

void FFReader::setCurrent(ff::FramePtr frame)
{
    m_current = std::move(frame);
    m_currentPts = m_current ? m_current->pts : AV_NOPTS_VALUE;
    m_currentVideo.reset();
}

int64_t FFReader::toPts(qlonglong ms) const
{
    // Half a millisecond of slack, so that a position read back from
    // position() (rounded) finds its own picture again.
    return m_startPts + static_cast<int64_t>(std::floor((ms + 0.5) / 1000.0 / av_q2d(m_timeBase)));
}

qlonglong FFReader::toMs(int64_t pts) const
{
    return std::llround((pts - m_startPts) * av_q2d(m_timeBase) * 1000.0);
}

QVariantMap FFReader::getInfo() const
{
    const std::lock_guard lock(m_mutex);
    return m_info;
}

bool FFReader::updateInfo(const QVariantMap &info)
{
    const std::lock_guard lock(m_mutex);
    bool changed = false;
    for (auto it = info.cbegin(); it != info.cend(); ++it) {
        auto current = m_info.find(it.key());
        if (current == m_info.end() || current.value() != it.value()) {
            m_info.insert(it.key(), it.value());
            changed = true;
        }
    }
    return changed;
}

bool FFReader::isEOF() const
{
    const std::lock_guard lock(m_mutex);
    return m_eof;
}

bool FFReader::isOpen() const
{
    const std::lock_guard lock(m_mutex);
    return m_input != nullptr;
}

qlonglong FFReader::position() const
{
    const std::lock_guard lock(m_mutex);
    return m_current ? toMs(m_currentPts) : 0;
}

bool FFReader::first()
{
    const std::lock_guard lock(m_mutex);
    if (m_current && m_currentPts == m_startPts) {
        m_eof = false;
        return true;
    }
    return seekToPts(m_startPts, kNoSerial);
}

bool FFReader::last()
{
    const std::lock_guard lock(m_mutex);
    if (!m_input || !seekToPts(m_lastPts, kNoSerial))
        return false;
    // The duration is only an estimate: the true last picture is the one
    // after which the decoder runs dry.
    while (ff::FramePtr frame = decodeNext())
        setCurrent(std::move(frame));
    m_eof = true;
    return true;
}

bool FFReader::seek(qlonglong ms, bool interrupt)
{
    const int serial = ++m_seekSerial;
    const std::lock_guard lock(m_mutex);
    if (!m_input)
        return false;
    const int64_t target = toPts(ms);
    if (m_current && target == m_currentPts) {
        m_eof = false;
        return true;
    }
    return seekToPts(target, interrupt ? serial : kNoSerial);
}

bool FFReader::next()
{
    const std::lock_guard lock(m_mutex);
    if (!m_input)
        return false;
    ff::FramePtr frame = decodeNext();
    if (!frame) {
        m_eof = true;
        return false;
    }
    setCurrent(std::move(frame));
    m_eof = false;
    return true;
}

bool FFReader::previous()
{
    const std::lock_guard lock(m_mutex);
    if (!m_input || !m_current || m_currentPts <= m_startPts)
        return false;
    return seekToPts(m_currentPts - 1, kNoSerial);
}

std::shared_ptr<QVideoFrame> FFReader::frame()
{
    const std::lock_guard lock(m_mutex);
    if (!m_currentVideo && m_current) {
        m_currentVideo = m_converter.toVideoFrame(m_current.get());
        if (m_currentVideo) {
            const qlonglong ms = toMs(m_currentPts);
            m_currentVideo->setStartTime(ms * 1000);
            m_currentVideo->setEndTime(
                (ms + std::llround(m_frameDuration * av_q2d(m_timeBase) * 1000.0)) * 1000);
        }
    }
    return m_currentVideo;
}

void FFReader::setLooping(bool looping)
{
    const std::lock_guard lock(m_mutex);
    m_looping = looping;
}

cv::Mat FFReader::thumbnail(float longEdge, int minEdge, qlonglong ms)
{
    const std::lock_guard lock(m_mutex);
    if (!m_input || !m_current || longEdge < 1.0f)
        return {};

    ff::FramePtr picture;
    if (toMs(m_currentPts) == ms) {
        picture.reset(av_frame_clone(m_current.get()));
    } else {
        // Borrow the decoder and put it back where the caller left it.
        const int64_t saved = m_currentPts;
        const bool savedEof = m_eof;
        if (seekToPts(toPts(ms), kNoSerial))
            picture.reset(av_frame_clone(m_current.get()));
        seekToPts(saved, kNoSerial);
        m_eof = savedEof;
    }
    if (!picture)
        return {};

    const double sar = m_info.value(QStringLiteral("sar"), 1.0).toDouble();
    const int rotation = m_info.value(QStringLiteral("originalRotation"), 3).toInt();
    const double shownWidth = picture->width * (sar > 0 ? sar : 1.0);
    const double shownHeight = picture->height;
    const double scale = std::min(1.0, longEdge / std::max(shownWidth, shownHeight));
    const auto edge = [&](double side) {
        const int scaled = static_cast<int>(std::lround(side * scale));
        const int floor = std::min(minEdge, static_cast<int>(std::lround(side)));
        return std::max({1, scaled, floor});
    };
    cv::Mat image = m_converter.toBgr(picture.get(), edge(shownWidth), edge(shownHeight));
    if (image.empty() || rotation == 3)
        return image;
    cv::Mat upright;
    cv::rotate(image, upright, rotation);  // our codes are cv::RotateFlags
    return upright;
}

void FFReader::close()
{
    const std::lock_guard lock(m_mutex);
    closeLocked();
}

bool FFReader::isPreviewReader() const
{
    return m_previewReader;
}

ff::FramePtr FFReader::decodedFrame() const
{
    const std::lock_guard lock(m_mutex);
    if (!m_current)
        return {};
    ff::FramePtr picture(av_frame_clone(m_current.get()));
    if (picture)
        picture->pts = toMs(m_currentPts);
    return picture;
}

double FFReader::frameDurationMs() const
{
    const std::lock_guard lock(m_mutex);
    return m_frameDuration * av_q2d(m_timeBase) * 1000.0;
}

} // namespace videoio
