#include "videoio/InstantReader.h"

#include <QLoggingCategory>
#include <QSize>
#include <QVideoFrame>

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/pixdesc.h>
}

#include <atomic>
#include <cstring>

Q_LOGGING_CATEGORY(lcInstantReader, "kutils.videoio")

namespace videoio {
namespace {

// Unique in the process, so that a graph handed to every reader of a view
// is taken by the one reader that asked for it.
std::atomic<int> nextCounter{0};

std::shared_ptr<AVFrame> share(ff::FramePtr frame)
{
    return std::shared_ptr<AVFrame>(frame.release(), ff::FrameDeleter{});
}

} // namespace

InstantReader::InstantReader(const QString &path, int viewID, QObject *parent)
    : QObject(parent)
    , Reader(path, false)
    , m_viewID(viewID)
    , m_source(std::make_unique<FFReader>(path, false))
{
    qRegisterMetaType<videoio::FrameBuffer>("videoio::FrameBuffer");
    qRegisterMetaType<std::string>("std::string");
    // A render stops at the end of the file instead of wrapping to its start.
    m_source->setLooping(false);
}

InstantReader::~InstantReader() = default;

QVariantMap InstantReader::getInfo() const { return m_source->getInfo(); }
bool InstantReader::updateInfo(const QVariantMap &info) { return m_source->updateInfo(info); }
bool InstantReader::isEOF() const { return m_source->isEOF(); }
bool InstantReader::isOpen() const { return m_source->isOpen(); }
qlonglong InstantReader::position() const { return m_source->position(); }
bool InstantReader::first() { return m_source->first(); }
bool InstantReader::last() { return m_source->last(); }
bool InstantReader::seek(qlonglong ms, bool interrupt) { return m_source->seek(ms, interrupt); }
bool InstantReader::next() { return m_source->next(); }
bool InstantReader::previous() { return m_source->previous(); }
std::shared_ptr<QVideoFrame> InstantReader::frame() { return m_source->frame(); }
void InstantReader::setLooping(bool looping) { m_source->setLooping(looping); }
cv::Mat InstantReader::thumbnail(float longEdge, int minEdge, qlonglong ms)
{
    return m_source->thumbnail(longEdge, minEdge, ms);
}
bool InstantReader::isPreviewReader() const { return m_source->isPreviewReader(); }

void InstantReader::close()
{
    clearFrames();
    m_source->close();
}

std::string InstantReader::sourceArguments() const
{
    const QVariantMap info = m_source->getInfo();
    const QSize size = info.value(QStringLiteral("originalSize")).toSize();
    const AVRational aspect = av_d2q(info.value(QStringLiteral("sar"), 1.0).toDouble(), 10000);
    // Pictures carry their position in ms as their time.
    return QStringLiteral("video_size=%1x%2:pix_fmt=%3:time_base=1/1000:pixel_aspect=%4/%5")
        .arg(size.width())
        .arg(size.height())
        .arg(QLatin1String(av_get_pix_fmt_name(AV_PIX_FMT_RGB0)))
        .arg(aspect.num > 0 ? aspect.num : 1)
        .arg(aspect.den > 0 ? aspect.den : 1)
        .toStdString();
}

int InstantReader::requestFilterGraph(const std::string &filterDescription)
{
    const int counter = nextCounter.fetch_add(1);
    {
        const std::lock_guard lock(m_mutex);
        m_requested.insert(counter);
    }
    // The preview shows nothing new until the graph is in, so playback waits.
    emit setFilterInitStatus(m_viewID, true, true);
    emit initFilterGraph(filterDescription, sourceArguments(), counter, m_viewID);
    return counter;
}

void InstantReader::setFilterGraphOnReady(AVFilterContext *src, AVFilterContext *sink, AVFilterGraph *fg,
                                          int counter)
{
    {
        const std::lock_guard lock(m_mutex);
        if (!fg || m_requested.erase(counter) == 0)
            return;
        FilterGraphPtr graph(fg);
        if (counter < m_graphCounter) {
            qCDebug(lcInstantReader) << "Dropping filter graph" << counter << "older than" << m_graphCounter;
            return;
        }
        // A graph built for other pictures would fail on the first frame.
        if (!src || !sink || av_buffersink_get_w(sink) <= 0) {
            qCWarning(lcInstantReader) << "Filter graph" << counter << "of view" << m_viewID << "is incomplete";
            return;
        }
        m_graph = std::move(graph);
        m_graphSource = src;
        m_graphSink = sink;
        m_graphCounter = counter;
    }
    emit setFilterInitStatus(m_viewID, false, false);
}

bool InstantReader::hasFilterGraph() const
{
    const std::lock_guard lock(m_mutex);
    return m_graph != nullptr;
}

int InstantReader::filterGraphCounter() const
{
    const std::lock_guard lock(m_mutex);
    return m_graphCounter;
}

ff::FramePtr InstantReader::currentPicture()
{
    const std::shared_ptr<QVideoFrame> shown = m_source->frame();
    if (!shown)
        return {};
    QVideoFrame video = *shown;
    if (!video.map(QVideoFrame::ReadOnly))
        return {};
    ff::FramePtr picture = ff::makeFrame();
    if (!picture) {
        video.unmap();
        return {};
    }
    picture->width = video.width();
    picture->height = video.height();
    picture->format = AV_PIX_FMT_RGB0;
    picture->pts = m_source->position();
    const bool ok = av_frame_get_buffer(picture.get(), 0) >= 0;
    if (ok) {
        const int rowBytes = picture->width * 4;
        for (int y = 0; y < picture->height; ++y)
            std::memcpy(picture->data[0] + y * picture->linesize[0], video.bits(0) + y * video.bytesPerLine(0),
                        rowBytes);
    }
    video.unmap();
    return ok ? std::move(picture) : ff::FramePtr{};
}

bool InstantReader::filterPicture(AVFrame *picture, std::vector<std::shared_ptr<AVFrame>> &out)
{
    int r = av_buffersrc_add_frame_flags(m_graphSource, picture, 0);
    if (r < 0)
        return false;
    while (true) {
        ff::FramePtr filtered = ff::makeFrame();
        r = av_buffersink_get_frame(m_graphSink, filtered.get());
        if (r == AVERROR(EAGAIN) || r == AVERROR_EOF)
            return true;
        if (r < 0)
            return false;
        out.push_back(share(std::move(filtered)));
    }
}

int InstantReader::render(qlonglong startMs, int count)
{
    if (!hasFilterGraph()) {
        qCWarning(lcInstantReader) << "No filter graph to render view" << m_viewID << "of" << getFile();
        return 0;
    }
    FrameBuffer buffer = std::make_shared<std::vector<std::shared_ptr<AVFrame>>>();
    // One render at a time, so no other seek moves the source in between. The
    // status signals go out without the state lock, so that a receiver may
    // call back into the reader.
    const std::lock_guard renderLock(m_renderMutex);
    emit setSeekingStatus(m_viewID, true, false);
    const bool reached = m_source->seek(startMs, false);
    emit setSeekingStatus(m_viewID, false, false);
    if (!reached)
        return 0;
    {
        const std::lock_guard lock(m_mutex);
        if (!m_graph)
            return 0;
        for (int i = 0; i < count; ++i) {
            if (i > 0 && !m_source->next())
                break;
            ff::FramePtr picture = currentPicture();
            if (!picture || !filterPicture(picture.get(), *buffer)) {
                qCWarning(lcInstantReader) << "Filtering failed at" << m_source->position() << "ms of" << getFile();
                return 0;
            }
        }
        m_frames = buffer;
    }
    if (buffer->empty())
        return 0;
    const QPoint range(static_cast<int>(buffer->front()->pts), static_cast<int>(buffer->back()->pts));
    emit setRAMBufferRangeToUI(range, m_viewID);
    emit previewBufferReady(getPath(), buffer, range, m_viewID,
                            m_source->getInfo().value(QStringLiteral("fps"), 30.0).toDouble());
    return static_cast<int>(buffer->size());
}

FrameBuffer InstantReader::frames() const
{
    const std::lock_guard lock(m_mutex);
    return m_frames;
}

void InstantReader::clearFrames()
{
    const std::lock_guard lock(m_mutex);
    m_frames.reset();
}

} // namespace videoio
