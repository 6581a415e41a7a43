#include "videoio/InstantReader.h"

#include <QLoggingCategory>
#include <QSize>

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/pixdesc.h>
}

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>

Q_LOGGING_CATEGORY(lcInstantReader, "kutils.videoio")

namespace videoio {
namespace {

// Unique in the process, so that a graph handed to every reader of a view
// is taken by the one reader that asked for it.
std::atomic<int> nextCounter{0};

constexpr AVRational kMs{1, 1000};

} // namespace

struct InstantReader::InstalledGraph
{
    FilterGraphPtr graph;
    AVFilterContext *source = nullptr;
    AVFilterContext *sink = nullptr;
    int counter = -1;
    std::string chain;
    bool spent = false;  // flushed: takes no more pictures
};

// Chunks handed on whose last holder hasn't let go yet.
struct InstantReader::InFlight
{
    std::mutex mutex;
    std::condition_variable released;
    int count = 0;
};

// One window through one graph: positions of the pictures fed and the
// filtered pictures, both waiting to be cut into chunks.
class InstantReader::WindowRun
{
public:
    WindowRun(InstantReader &reader, InstalledGraph &graph, int tag, const std::function<bool()> &stop)
        : m_reader(reader), m_graph(graph), m_tag(tag), m_stop(stop)
        , m_sinkBase(av_buffersink_get_time_base(graph.sink))
    {
    }

    // Feeds one picture (null flushes the graph) and collects what comes out.
    bool feed(ff::FramePtr picture)
    {
        if (picture)
            m_sources.push_back(picture->pts);
        const int r = av_buffersrc_add_frame_flags(m_graph.source, picture.get(), 0);
        if (r < 0)
            return false;
        while (true) {
            ff::FramePtr filtered = ff::makeFrame();
            const int got = av_buffersink_get_frame(m_graph.sink, filtered.get());
            if (got == AVERROR(EAGAIN) || got == AVERROR_EOF)
                return true;
            if (got < 0)
                return false;
            filtered->pts = av_rescale_q(filtered->pts, m_sinkBase, kMs);
            m_sinks.push_back(std::move(filtered));
        }
    }

    // Cuts full chunks while at least two pictures stay behind them, so the
    // window never ends on a lone one, and while a filtered picture beyond the
    // chunk tells how long its last one lasts.
    bool cutFullChunks()
    {
        while (int(m_sources.size()) >= kChunkPictures + 2 && int(m_sinks.size()) >= kChunkPictures + 1) {
            if (!cut(kChunkPictures, m_sources[kChunkPictures], false))
                return false;
        }
        return true;
    }

    // After the flush: the rest of the window, `end` being the end of its last
    // picture. Twenty-one pictures go as nineteen and two.
    bool cutRest(qlonglong end)
    {
        while (!m_sources.empty()) {
            const int left = int(m_sources.size());
            const int count = left == kChunkPictures + 1 ? kChunkPictures - 1 : std::min(kChunkPictures, left);
            const bool last = count == left;
            if (!cut(count, last ? end : m_sources[count], last))
                return false;
        }
        return true;
    }

    int chunks() const { return m_chunks; }
    bool stopped() const { return m_stopped; }

private:
    bool cut(int count, qlonglong end, bool lastOfWindow)
    {
        const qlonglong first = m_sources.front();
        const qlonglong lastStart = m_sources[count - 1];
        const QPoint range(int(first), int(end - 1));
        m_sources.erase(m_sources.begin(), m_sources.begin() + count);
        // The filtered pictures follow the source pictures one for one; what a
        // filter adds or drops falls to the window's last chunk.
        const int taken = lastOfWindow ? int(m_sinks.size()) : std::min(count, int(m_sinks.size()));
        if (taken == 0) {
            qCWarning(lcInstantReader) << "The filter gave no picture for" << range << "of" << m_reader.getFile();
            return true;
        }

        PreviewChunk chunk;
        chunk.chain = m_graph.chain;
        chunk.tag = m_tag;
        const qlonglong sinkFirst = m_sinks.front()->pts;
        const qlonglong sinkLast = m_sinks[taken - 1]->pts;
        if (taken < int(m_sinks.size())) {
            chunk.durationMs = m_sinks[taken]->pts - sinkFirst;
        } else {
            // The last picture lasts as long as its source picture, stretched
            // as the filter stretched the chunk.
            const double stretch = (taken > 1 && lastStart > first)
                ? double(sinkLast - sinkFirst) / double(lastStart - first) : 1.0;
            chunk.durationMs = sinkLast - sinkFirst + std::llround((end - lastStart) * stretch);
        }
        chunk.durationMs = std::max<qlonglong>(chunk.durationMs, sinkLast - sinkFirst + 1);
        chunk.slowMoFactor = double(chunk.durationMs) / double(end - first);

        FrameBuffer buffer = m_reader.newBuffer(m_stop, &m_stopped);
        if (!buffer)
            return false;
        buffer->reserve(taken);
        for (int i = 0; i < taken; ++i) {
            ff::FramePtr picture = std::move(m_sinks.front());
            m_sinks.pop_front();
            picture->pts -= sinkFirst;
            buffer->push_back(std::shared_ptr<AVFrame>(picture.release(), ff::FrameDeleter{}));
        }
        m_reader.handOn(buffer, range, chunk);
        ++m_chunks;
        return true;
    }

    InstantReader &m_reader;
    InstalledGraph &m_graph;
    const int m_tag;
    const std::function<bool()> &m_stop;
    const AVRational m_sinkBase;
    std::deque<qlonglong> m_sources;
    std::deque<ff::FramePtr> m_sinks;
    int m_chunks = 0;
    bool m_stopped = false;
};

InstantReader::InstantReader(const QString &path, int viewID, QObject *parent)
    : QObject(parent)
    , Reader(path, false)
    , m_viewID(viewID)
    , m_source(std::make_unique<FFReader>(path, false))
    , m_inFlight(std::make_shared<InFlight>())
{
    qRegisterMetaType<videoio::FrameBuffer>("videoio::FrameBuffer");
    qRegisterMetaType<videoio::PreviewChunk>("videoio::PreviewChunk");
    qRegisterMetaType<std::string>("std::string");
    // A render stops at the end of the file instead of wrapping to its start.
    m_source->setLooping(false);

    // After opening, the reader stands on the first picture: the graph takes
    // the decoder's pictures as they are.
    const ff::FramePtr picture = m_source->decodedFrame();
    if (!picture)
        return;
    const AVRational aspect = av_d2q(m_source->getInfo().value(QStringLiteral("sar"), 1.0).toDouble(), 10000);
    const char *format = av_get_pix_fmt_name(static_cast<AVPixelFormat>(picture->format));
    m_sourceArguments = QStringLiteral("video_size=%1x%2:pix_fmt=%3:time_base=1/1000:pixel_aspect=%4/%5")
                            .arg(picture->width)
                            .arg(picture->height)
                            .arg(QLatin1String(format ? format : "none"))
                            .arg(aspect.num > 0 ? aspect.num : 1)
                            .arg(aspect.den > 0 ? aspect.den : 1)
                            .toStdString();
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

int InstantReader::requestFilterGraph(const std::string &filterDescription)
{
    const int counter = nextCounter.fetch_add(1);
    {
        const std::lock_guard lock(m_mutex);
        m_requested.emplace(counter, filterDescription);
    }
    // The preview shows nothing new until the graph is in, so playback waits.
    emit setFilterInitStatus(m_viewID, true, true);
    emit initFilterGraph(filterDescription, m_sourceArguments, counter, m_viewID);
    return counter;
}

void InstantReader::setFilterGraphOnReady(AVFilterContext *src, AVFilterContext *sink, AVFilterGraph *fg,
                                          int counter)
{
    auto graph = std::make_shared<InstalledGraph>();
    {
        const std::lock_guard lock(m_mutex);
        const auto request = m_requested.find(counter);
        if (!fg || request == m_requested.end())
            return;
        graph->graph.reset(fg);
        graph->chain = request->second;
        m_requested.erase(request);
    }
    // A graph built for other pictures would fail on the first frame.
    if (!src || !sink || av_buffersink_get_w(sink) <= 0) {
        qCWarning(lcInstantReader) << "Filter graph" << counter << "of view" << m_viewID << "is incomplete";
        return;
    }
    graph->source = src;
    graph->sink = sink;
    graph->counter = counter;
    install(std::move(graph));
}

void InstantReader::adoptFilterGraph(FilterGraphWorker::Graph built, const std::string &chain)
{
    auto graph = std::make_shared<InstalledGraph>();
    graph->graph = std::move(built.graph);
    graph->source = built.source;
    graph->sink = built.sink;
    graph->counter = nextCounter.fetch_add(1);
    graph->chain = chain;
    if (graph->graph)
        install(std::move(graph));
}

bool InstantReader::install(std::shared_ptr<InstalledGraph> graph)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_graph && graph->counter < m_graph->counter) {
            qCDebug(lcInstantReader) << "Dropping filter graph" << graph->counter << "older than"
                                     << m_graph->counter;
            return false;
        }
        // A render still running keeps the graph it started with.
        m_graph = std::move(graph);
    }
    emit setFilterInitStatus(m_viewID, false, false);
    return true;
}

bool InstantReader::hasRequest(int counter) const
{
    const std::lock_guard lock(m_mutex);
    return m_requested.count(counter) > 0;
}

std::string InstantReader::requestedChain(int counter) const
{
    const std::lock_guard lock(m_mutex);
    const auto request = m_requested.find(counter);
    return request == m_requested.end() ? std::string() : request->second;
}

void InstantReader::dropRequest(int counter)
{
    const std::lock_guard lock(m_mutex);
    m_requested.erase(counter);
}

bool InstantReader::hasFilterGraph() const
{
    const std::lock_guard lock(m_mutex);
    return m_graph != nullptr;
}

int InstantReader::filterGraphCounter() const
{
    const std::lock_guard lock(m_mutex);
    return m_graph ? m_graph->counter : -1;
}

std::string InstantReader::filterChain() const
{
    const std::lock_guard lock(m_mutex);
    return m_graph ? m_graph->chain : std::string();
}

FrameBuffer InstantReader::newBuffer(const std::function<bool()> &stop, bool *stopped)
{
    std::unique_lock lock(m_inFlight->mutex);
    // The receivers' own pace: nothing wakes us for a stop, so look now and then.
    while (m_inFlight->count >= kBuffersInFlight) {
        if (stop()) {
            *stopped = true;
            return {};
        }
        m_inFlight->released.wait_for(lock, std::chrono::milliseconds(20));
    }
    ++m_inFlight->count;
    const std::shared_ptr<InFlight> flight = m_inFlight;
    return FrameBuffer(new std::vector<std::shared_ptr<AVFrame>>, [flight](std::vector<std::shared_ptr<AVFrame>> *v) {
        delete v;
        {
            const std::lock_guard lock(flight->mutex);
            --flight->count;
        }
        flight->released.notify_all();
    });
}

void InstantReader::handOn(const FrameBuffer &buffer, QPoint range, const PreviewChunk &chunk)
{
    {
        const std::lock_guard lock(m_mutex);
        m_frames = buffer;
    }
    emit setRAMBufferRangeToUI(range, m_viewID);
    emit previewBufferReady(getPath(), buffer, range, m_viewID,
                            m_source->getInfo().value(QStringLiteral("fps"), 30.0).toDouble(), chunk);
}

InstantReader::RenderResult InstantReader::render(qlonglong startMs, qlonglong endMs, int tag,
                                                  const std::function<bool()> &stop)
{
    const std::lock_guard renderLock(m_renderMutex);
    std::shared_ptr<InstalledGraph> graph;
    {
        const std::lock_guard lock(m_mutex);
        graph = m_graph;
    }
    RenderResult result;
    if (!graph || graph->spent) {
        qCWarning(lcInstantReader) << "No filter graph to render view" << m_viewID << "of" << getFile();
        result.error = QStringLiteral("no filter graph");
        return result;
    }

    // The status signals go out without a lock, so that a receiver may call
    // back into the reader. Standing on the window's first picture already
    // (the window after the last one), the decoder just goes on.
    emit setSeekingStatus(m_viewID, true, false);
    bool reached = m_source->seek(startMs, false);
    // The picture shown at startMs may begin before it: the window holds only
    // pictures positioned inside it.
    if (reached && m_source->position() < startMs)
        reached = m_source->next();
    // The file's last picture alone would make a lone-picture preview: such a
    // window reaches back one picture, so the last frame can be re-rendered.
    if (reached && (endMs < 0 || endMs >= m_source->position() + m_source->frameDurationMs())
        && standsOnLastPicture())
        reached = m_source->previous();
    emit setSeekingStatus(m_viewID, false, false);
    if (!reached || (endMs >= 0 && m_source->position() > endMs)) {
        result.error = QStringLiteral("no picture between %1 and %2 ms").arg(startMs).arg(endMs);
        qCWarning(lcInstantReader).noquote() << "Render of view" << m_viewID << "of" << getFile() << ":" << result.error;
        return result;
    }

    WindowRun run(*this, *graph, tag, stop);
    graph->spent = true;
    qlonglong lastStart = 0;
    while (true) {
        if (stop()) {
            result.stopped = true;
            break;
        }
        ff::FramePtr picture = m_source->decodedFrame();
        lastStart = picture ? picture->pts : 0;
        if (!picture || !run.feed(std::move(picture)) || !run.cutFullChunks()) {
            if (run.stopped())
                break;
            result.error = QStringLiteral("filtering failed at %1 ms").arg(m_source->position());
            break;
        }
        ++result.pictures;
        if (!m_source->next() || (endMs >= 0 && m_source->position() > endMs))
            break;
    }
    if (result.error.isEmpty() && !result.stopped) {
        if (result.pictures == 1)
            result.error = QStringLiteral("a window of one picture makes no preview");
        else if ((!run.feed(nullptr) || !run.cutRest(lastStart + std::llround(m_source->frameDurationMs())))
                 && !run.stopped())
            result.error = QStringLiteral("flushing the filter failed");
    }
    result.chunks = run.chunks();
    result.stopped = result.stopped || run.stopped();
    if (!result.error.isEmpty())
        qCWarning(lcInstantReader).noquote() << "Render of view" << m_viewID << "of" << getFile() << ":"
                                             << result.error;

    // The flushed graph is spent; the next window of the chain gets a fresh
    // one now, unless a newer chain came in meanwhile.
    std::string error;
    FilterGraphWorker::Graph fresh = FilterGraphWorker::build(graph->chain, m_sourceArguments, &error);
    if (fresh.graph) {
        auto next = std::make_shared<InstalledGraph>();
        next->graph = std::move(fresh.graph);
        next->source = fresh.source;
        next->sink = fresh.sink;
        next->counter = graph->counter;
        next->chain = graph->chain;
        const std::lock_guard lock(m_mutex);
        if (m_graph == graph)
            m_graph = std::move(next);
    }
    return result;
}

bool InstantReader::standsOnLastPicture()
{
    const qlonglong at = m_source->position();
    const double frame = m_source->frameDurationMs();
    // The duration is an estimate: only a picture near it is worth a probe.
    if (at <= 0 || at + 2 * frame <= m_source->getInfo().value(QStringLiteral("duration")).toLongLong())
        return false;
    if (!m_source->next())
        return true;
    m_source->previous();
    return false;
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
