#pragma once

#include "videoio/FFReader.h"
#include "videoio/FilterGraphWorker.h"

#include <QObject>
#include <QPoint>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace videoio {

// Filtered pictures of one chunk, in display order, shared without copies.
using FrameBuffer = std::shared_ptr<std::vector<std::shared_ptr<AVFrame>>>;

// What a chunk's file needs beyond its pictures, passed on unchanged.
struct PreviewChunk
{
    std::string chain;           // the filter chain that made the pictures
    int tag = 0;                 // the render's tag, handed back as given
    qlonglong durationMs = 0;    // the file's length; pictures carry their ms from 0 as pts
    double slowMoFactor = 1.0;   // durationMs / the length of the range on the input
};

// A reader of one view that renders a live preview: it decodes pictures,
// feeds the decoder's own frames to a filter graph and hands the filtered
// pictures on in chunks, each a preview buffer of its own.
//
// Graphs come two ways. requestFilterGraph() emits initFilterGraph with the
// chain, the buffer-source arguments of this reader's pictures and a counter
// that is unique in the process; the builder answers through
// setFilterGraphOnReady(). A graph whose counter this reader never asked for
// belongs to another reader and is left alone; one of ours that is older than
// the installed graph is freed at once. adoptFilterGraph() installs a graph
// the caller built itself.
//
// The Reader interface (info, seeking, the shown frame, thumbnails) is that of
// an FFReader of the same file. Every call is thread-safe, and none waits for
// a render.
class InstantReader : public QObject, public Reader
{
    Q_OBJECT
public:
    // Most pictures in one chunk, and most chunks handed on and not yet let go
    // of by their receivers: the render waits beyond that, so memory stays flat
    // however long the window.
    static constexpr int kChunkPictures = 20;
    static constexpr int kBuffersInFlight = 3;

    InstantReader(const QString &path, int viewID, QObject *parent = nullptr);
    ~InstantReader() override;

    QVariantMap getInfo() const override;
    bool updateInfo(const QVariantMap &info) override;
    bool isEOF() const override;
    bool isOpen() const override;
    qlonglong position() const override;
    bool first() override;
    bool last() override;
    bool seek(qlonglong ms, bool interrupt) override;
    bool next() override;
    bool previous() override;
    std::shared_ptr<QVideoFrame> frame() override;
    void setLooping(bool looping) override;
    cv::Mat thumbnail(float longEdge, int minEdge, qlonglong ms) override;
    void close() override;
    bool isPreviewReader() const override;

    int viewID() const { return m_viewID; }
    // The buffer-source arguments that describe the decoder's pictures.
    std::string sourceArguments() const { return m_sourceArguments; }

    // Asks for a graph of `filterDescription` (FFmpeg filter syntax, empty for
    // none): reports that the filter is initialising and emits initFilterGraph.
    // Returns the counter of the request.
    int requestFilterGraph(const std::string &filterDescription);
    // Takes over `fg` when `counter` is the answer to one of our requests.
    void setFilterGraphOnReady(AVFilterContext *src, AVFilterContext *sink, AVFilterGraph *fg, int counter);
    // Whether `counter` is a request of ours not answered yet, and its chain.
    bool hasRequest(int counter) const;
    std::string requestedChain(int counter) const;
    // Forgets an unanswered request, whose answer will never come.
    void dropRequest(int counter);
    // Installs a graph of `chain` built by the caller as the newest one.
    void adoptFilterGraph(FilterGraphWorker::Graph graph, const std::string &chain);
    bool hasFilterGraph() const;
    // Counter of the installed graph, -1 for none.
    int filterGraphCounter() const;
    std::string filterChain() const;

    struct RenderResult
    {
        int pictures = 0;  // source pictures of the window
        int chunks = 0;
        bool stopped = false;
        QString error;     // empty on success and on a stop
    };
    // Renders the window of every picture positioned in startMs..endMs (endMs
    // -1: to the end of the file; one that would hold only the file's last
    // picture starts a picture earlier) through one graph, flushed at the end so
    // that pictures a filter holds back come out in this window. Emits one
    // previewBufferReady per chunk of at most kChunkPictures source pictures,
    // never of one alone; the range of a chunk is its first picture's position
    // to its last picture's end - 1, so the chunks tile the window. `stop` is
    // asked before every picture. A window that follows the last one decodes
    // on without a seek. A fresh graph of the same chain is built before
    // returning, so the next window needn't wait for one.
    RenderResult render(qlonglong startMs, qlonglong endMs, int tag, const std::function<bool()> &stop);
    // The RAM buffer: the last chunk rendered.
    FrameBuffer frames() const;
    // Drops the RAM buffer; the graph stays.
    void clearFrames();

signals:
    // `range` holds the first picture's position and the last one's end - 1 on
    // the file's axis, `fps` the file's frame rate.
    void previewBufferReady(QString path, videoio::FrameBuffer frames, QPoint range, int viewID, double fps,
                            videoio::PreviewChunk chunk);
    void setRAMBufferRangeToUI(QPoint range, int viewID);
    void setFilterInitStatus(int viewID, bool status, bool shouldPause);
    void setSeekingStatus(int viewID, bool status, bool shouldPause);
    void initFilterGraph(std::string filterDescription, std::string sourceArguments, int counter, int viewID);

private:
    struct InstalledGraph;
    struct InFlight;
    class WindowRun;

    bool install(std::shared_ptr<InstalledGraph> graph);
    // An empty chunk buffer once fewer than kBuffersInFlight are out; null
    // (and `stopped` set) when `stop` says so first.
    FrameBuffer newBuffer(const std::function<bool()> &stop, bool *stopped);
    void handOn(const FrameBuffer &buffer, QPoint range, const PreviewChunk &chunk);
    // Whether the source stands on the file's last picture; it stays there.
    bool standsOnLastPicture();

    const int m_viewID;
    const std::unique_ptr<FFReader> m_source;
    std::string m_sourceArguments;
    const std::shared_ptr<InFlight> m_inFlight;

    std::mutex m_renderMutex;  // one render at a time; nothing else takes it
    mutable std::mutex m_mutex;  // the graph, the requests and the RAM buffer
    std::map<int, std::string> m_requested;  // counters asked for and not answered yet
    std::shared_ptr<InstalledGraph> m_graph;
    FrameBuffer m_frames;
};

} // namespace videoio

Q_DECLARE_METATYPE(videoio::FrameBuffer)
Q_DECLARE_METATYPE(videoio::PreviewChunk)
