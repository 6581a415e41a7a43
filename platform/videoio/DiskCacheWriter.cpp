#include "videoio/DiskCacheWriter.h"

#include "videoio/FFHandles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QTimer>

extern "C" {
#include <libavutil/error.h>
}

#include <algorithm>

Q_LOGGING_CATEGORY(lcDiskCache, "kutils.videoio")

namespace videoio {
namespace {

QString errorText(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return QString::fromUtf8(text);
}

// Sends `frame` (null to flush) and writes every packet the encoder gives,
// counting the key packets in `keys`; the encoder makes key pictures only,
// so the packet out is the picture in and lasts `duration` ms: the file's
// length then ends with its last picture's.
int encode(AVCodecContext *encoder, const AVFrame *frame, AVFormatContext *output, AVStream *stream,
           AVPacket *packet, int64_t duration, int *keys)
{
    int r = avcodec_send_frame(encoder, frame);
    if (r < 0)
        return r;
    while (true) {
        r = avcodec_receive_packet(encoder, packet);
        if (r == AVERROR(EAGAIN) || r == AVERROR_EOF)
            return 0;
        if (r < 0)
            return r;
        if (duration > 0)
            packet->duration = duration;
        av_packet_rescale_ts(packet, encoder->time_base, stream->time_base);
        packet->stream_index = stream->index;
        // Writing takes the packet and blanks it.
        if (packet->flags & AV_PKT_FLAG_KEY)
            ++*keys;
        r = av_interleaved_write_frame(output, packet);
        if (r < 0)
            return r;
    }
}

// The matrix a player assumes for untagged pictures: BT.709 from HD up.
AVColorSpace shownColorSpace(const AVFrame &picture)
{
    if (picture.colorspace != AVCOL_SPC_UNSPECIFIED)
        return picture.colorspace;
    return picture.width >= 1280 || picture.height > 576 ? AVCOL_SPC_BT709 : AVCOL_SPC_BT470BG;
}

// Lossless and intra-only, so any frame of a file can be shown at once:
// utvideo writes a 1080p picture in about a third of ffv1's time (in files
// three times as large), but it takes 8-bit formats of limited range only and
// its files always name their matrix, BT.601 or BT.709; ffv1 takes the rest.
QString losslessEncoderFor(const AVFrame &picture)
{
    const AVColorSpace matrix = shownColorSpace(picture);
    const bool named = matrix == AVCOL_SPC_BT709 || matrix == AVCOL_SPC_BT470BG || matrix == AVCOL_SPC_SMPTE170M;
    const AVCodec *fast = avcodec_find_encoder_by_name("utvideo");
    for (const AVPixelFormat *f = fast ? fast->pix_fmts : nullptr; f && *f != AV_PIX_FMT_NONE; ++f) {
        if (*f == picture.format && named && picture.color_range != AVCOL_RANGE_JPEG)
            return QStringLiteral("utvideo");
    }
    return QStringLiteral("ffv1");
}

} // namespace

DiskCacheWriter::DiskCacheWriter(int viewID, const QVariantMap &options, const QString &folder,
                                 std::vector<QPoint> *cachedRanges, QObject *parent)
    : QObject(parent)
    , m_viewID(viewID)
    , m_encoder(options.value(QStringLiteral("encoder")).toString())
    , m_extension(options.value(QStringLiteral("extension"), QStringLiteral("mkv")).toString())
    , m_folder(folder.isEmpty() ? QDir::temp().filePath(QStringLiteral("kutils-live-cache")) : folder)
    , m_cachedRanges(cachedRanges)
    , m_idle(new QTimer(this))
{
    qRegisterMetaType<videoio::FrameBuffer>("videoio::FrameBuffer");
    // A kept encoder holds its packet buffer: let it go once no chunk came
    // for a while, and keep it across the windows of a filter being tuned.
    m_idle->setSingleShot(true);
    m_idle->setInterval(kEncoderIdleMs);
    connect(m_idle, &QTimer::timeout, this, [this] { m_open.reset(); });
}

void DiskCacheWriter::onAddtoCacheQueue(QString path, videoio::FrameBuffer frames, QPoint range, int viewID,
                                        double fps, videoio::PreviewChunk chunk)
{
    if (viewID != m_viewID) {
        qCWarning(lcDiskCache) << "Disk cache of view" << m_viewID << "refused a buffer of view" << viewID;
        return;
    }
    if (!frames || frames->empty()) {
        emit cacheError(path, QStringLiteral("empty preview buffer"), AVERROR(EINVAL));
        return;
    }
    const auto done = std::find_if(m_written.begin(), m_written.end(), [&](const Written &w) {
        return w.range == range && w.chain == chunk.chain;
    });
    if (done != m_written.end() && QFileInfo::exists(done->file)) {
        emit cacheReadyToLoad(done->file, range, m_viewID);
        emit chunkCached(done->file, range, m_viewID, chunk);
        return;
    }
    if (!QDir().mkpath(m_folder)) {
        emit cacheError(path, QStringLiteral("cannot create cache folder %1").arg(m_folder), AVERROR(EACCES));
        return;
    }
    const QString file = QDir(m_folder).filePath(QStringLiteral("%1_v%2_%3-%4_%5.%6")
                                                     .arg(QFileInfo(path).completeBaseName())
                                                     .arg(m_viewID)
                                                     .arg(range.x())
                                                     .arg(range.y())
                                                     .arg(m_fileCount++)
                                                     .arg(m_extension));
    QString error;
    const int r = write(file, *frames, fps, chunk, &error);
    m_idle->start();
    if (r < 0) {
        QFile::remove(file);
        emit cacheError(path, error, r);
        return;
    }
    m_written.push_back({range, chunk.chain, file});
    if (m_cachedRanges)
        m_cachedRanges->push_back(range);
    emit cacheReadyToLoad(file, range, m_viewID);
    emit chunkCached(file, range, m_viewID, chunk);
}

void DiskCacheWriter::onClearcachedRangeReqAndHistory(int viewID)
{
    if (viewID != m_viewID && viewID != -1)
        return;
    m_written.clear();
    if (m_cachedRanges)
        m_cachedRanges->clear();
}

bool DiskCacheWriter::OpenEncoder::fits(const AVFrame &frame) const
{
    // The colours decide the encoder and the matrix its files name.
    return context->width == frame.width && context->height == frame.height
        && av_cmp_q(context->sample_aspect_ratio, frame.sample_aspect_ratio) == 0 && source == frame.format
        && matrix == shownColorSpace(frame) && range == frame.color_range;
}

int DiskCacheWriter::openEncoder(const AVFrame &first, AVRational rate, bool globalHeader, QString *error)
{
    const auto fail = [error](const QString &why, int code) {
        *error = QStringLiteral("%1: %2").arg(why, errorText(code));
        return code;
    };
    m_open.reset();
    const auto sourceFormat = static_cast<AVPixelFormat>(first.format);
    const QString name = m_encoder.isEmpty() ? losslessEncoderFor(first) : m_encoder;
    const AVCodec *codec = avcodec_find_encoder_by_name(name.toUtf8().constData());
    if (!codec || codec->type != AVMEDIA_TYPE_VIDEO)
        return fail(QStringLiteral("no video encoder \"%1\"").arg(name), AVERROR_ENCODER_NOT_FOUND);
    auto open = std::make_unique<OpenEncoder>();
    open->context.reset(avcodec_alloc_context3(codec));
    AVCodecContext *encoder = open->context.get();
    if (!encoder)
        return fail(QStringLiteral("no encoder context"), AVERROR(ENOMEM));

    open->source = sourceFormat;
    open->matrix = shownColorSpace(first);
    open->range = first.color_range;
    encoder->width = first.width;
    encoder->height = first.height;
    encoder->pix_fmt = codec->pix_fmts ? avcodec_find_best_pix_fmt_of_list(codec->pix_fmts, sourceFormat, 0, nullptr)
                                       : sourceFormat;
    // Pictures carry their time in ms; each file states its own rate.
    encoder->time_base = AVRational{1, 1000};
    encoder->framerate = rate;
    encoder->sample_aspect_ratio = first.sample_aspect_ratio;
    // A file that names its matrix must name the one the source is shown with.
    if (name == QLatin1String("utvideo"))
        encoder->colorspace = open->matrix;
    encoder->gop_size = 1;
    if (globalHeader)
        encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    // Slices let the encoder use every core; a lossless 1080p picture is
    // otherwise slower to write than to decode and filter.
    encoder->thread_count = 0;
    AVDictionary *encoderOptions = nullptr;
    if (name == QLatin1String("ffv1")) {
        av_dict_set(&encoderOptions, "level", "3", 0);
        av_dict_set(&encoderOptions, "slices", "4", 0);
    }
    const int r = avcodec_open2(encoder, codec, &encoderOptions);
    av_dict_free(&encoderOptions);
    if (r < 0)
        return fail(QStringLiteral("encoder \"%1\" does not open").arg(name), r);
    m_open = std::move(open);
    return 0;
}

int DiskCacheWriter::write(const QString &file, const std::vector<std::shared_ptr<AVFrame>> &frames, double fps,
                           const PreviewChunk &chunk, QString *error)
{
    const auto fail = [this, error](const QString &why, int code) {
        // An encoder that failed halfway may hold pictures of this file.
        m_open.reset();
        *error = QStringLiteral("%1: %2").arg(why, errorText(code));
        return code;
    };
    const AVFrame *first = frames.front().get();
    const QByteArray fileName = file.toUtf8();

    AVFormatContext *rawOutput = nullptr;
    int r = avformat_alloc_output_context2(&rawOutput, nullptr, nullptr, fileName.constData());
    ff::OutputPtr output(rawOutput);
    if (r < 0 || !output)
        return fail(QStringLiteral("no muxer for %1").arg(file), r < 0 ? r : AVERROR_MUXER_NOT_FOUND);

    // Players read the rate; a slowed chain makes a slower one.
    const AVRational rate = av_d2q((fps > 0 ? fps : 30.0) / (chunk.slowMoFactor > 0 ? chunk.slowMoFactor : 1.0),
                                   1001000);
    if (!m_open || !m_open->fits(*first)) {
        r = openEncoder(*first, rate, output->oformat->flags & AVFMT_GLOBALHEADER, error);
        if (r < 0)
            return r;
    }
    AVCodecContext *encoder = m_open->context.get();
    AVStream *stream = avformat_new_stream(output.get(), nullptr);
    if (!stream)
        return fail(QStringLiteral("no stream"), AVERROR(ENOMEM));
    r = avcodec_parameters_from_context(stream->codecpar, encoder);
    if (r < 0)
        return fail(QStringLiteral("encoder parameters"), r);
    stream->time_base = encoder->time_base;
    stream->avg_frame_rate = rate;

    if (!(output->oformat->flags & AVFMT_NOFILE)) {
        r = avio_open(&output->pb, fileName.constData(), AVIO_FLAG_WRITE);
        if (r < 0)
            return fail(QStringLiteral("cannot open %1").arg(file), r);
    }
    r = avformat_write_header(output.get(), nullptr);
    if (r < 0)
        return fail(QStringLiteral("cannot write the header of %1").arg(file), r);

    ff::PacketPtr packet = ff::makePacket();
    int64_t index = 0;
    int keys = 0;
    const auto durationOf = [&](size_t i) {
        const int64_t end = i + 1 < frames.size() ? frames[i + 1]->pts : chunk.durationMs;
        return std::max<int64_t>(1, end - frames[i]->pts);
    };
    for (const std::shared_ptr<AVFrame> &frame : frames) {
        const AVFrame *picture = frame.get();
        ff::FramePtr shared;
        if (frame->format == encoder->pix_fmt && frame->width == encoder->width
            && frame->height == encoder->height) {
            // The encoder takes the filter's own picture: a new reference, no copy.
            shared.reset(av_frame_clone(frame.get()));
            if (!shared)
                return fail(QStringLiteral("picture %1").arg(index), AVERROR(ENOMEM));
            picture = shared.get();
        } else {
            picture = m_open->convert(*frame, &r);
            if (!picture)
                return fail(QStringLiteral("no conversion for picture %1").arg(index), r);
        }
        r = encode(encoder, picture, output.get(), stream, packet.get(), durationOf(index++), &keys);
        if (r < 0)
            return fail(QStringLiteral("encoding picture %1").arg(index - 1), r);
    }
    // An encoder that gave a key packet for every picture holds nothing of
    // this file and serves the next one: opening one per file is costly, as
    // ffv1 starts its slice threads and takes a worst-case packet buffer
    // (hundreds of MB at 1080p) each time, faulted in page by page. Any other
    // is flushed into this file, after which it takes no more pictures.
    if (keys < int(frames.size())) {
        r = encode(encoder, nullptr, output.get(), stream, packet.get(), 0, &keys);
        m_open.reset();
        if (r < 0)
            return fail(QStringLiteral("flushing the encoder"), r);
    }
    r = av_write_trailer(output.get());
    if (r < 0)
        return fail(QStringLiteral("cannot finish %1").arg(file), r);
    return 0;
}

const AVFrame *DiskCacheWriter::OpenEncoder::convert(const AVFrame &frame, int *error)
{
    *error = AVERROR(EINVAL);
    if (!converted) {
        converted = ff::makeFrame();
        if (!converted) {
            *error = AVERROR(ENOMEM);
            return nullptr;
        }
        converted->width = context->width;
        converted->height = context->height;
        converted->format = context->pix_fmt;
        *error = av_frame_get_buffer(converted.get(), 0);
        if (*error < 0) {
            converted.reset();
            return nullptr;
        }
    }
    // Every other picture goes to the first one's size and the encoder's format.
    sws.reset(sws_getCachedContext(sws.release(), frame.width, frame.height, static_cast<AVPixelFormat>(frame.format),
                                   context->width, context->height, context->pix_fmt,
                                   SWS_BICUBIC | SWS_ACCURATE_RND | SWS_BITEXACT, nullptr, nullptr, nullptr));
    if (!sws)
        return nullptr;
    *error = av_frame_make_writable(converted.get());
    if (*error < 0)
        return nullptr;
    sws_scale(sws.get(), frame.data, frame.linesize, 0, frame.height, converted->data, converted->linesize);
    converted->pts = frame.pts;
    return converted.get();
}

} // namespace videoio

