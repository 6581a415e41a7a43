#pragma once

#include "videoio/FFReader.h"
#include "videoio/FilterGraphWorker.h"

#include <QObject>
#include <QPoint>

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace videoio {

// Filtered pictures of one render, in display order, shared without copies.
using FrameBuffer = std::shared_ptr<std::vector<std::shared_ptr<AVFrame>>>;

// A reader of one view that renders a live preview: it decodes pictures (as
// RGB0, the pictures an FFReader shows), runs them through a filter graph and
// hands the filtered pictures on as a preview buffer.
//
// The graph is built elsewhere: requestFilterGraph() emits initFilterGraph with
// the chain, the buffer-source arguments of this reader's pictures and a
// counter that is unique in the process; the builder answers through
// setFilterGraphOnReady(). A graph whose counter this reader never asked for
// belongs to another reader and is left alone; one of ours that is older than
// the installed graph is freed at once.
//
// The Reader interface (info, seeking, the shown frame, thumbnails) is that of
// an FFReader of the same file. Every call is thread-safe.
class InstantReader : public QObject, public Reader
{
    Q_OBJECT
public:
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
    // The buffer-source arguments that describe this reader's pictures.
    std::string sourceArguments() const;

    // Asks for a graph of `filterDescription` (FFmpeg filter syntax, empty for
    // none): reports that the filter is initialising and emits initFilterGraph.
    // Returns the counter of the request.
    int requestFilterGraph(const std::string &filterDescription);
    // Takes over `fg` when `counter` is the answer to one of our requests.
    void setFilterGraphOnReady(AVFilterContext *src, AVFilterContext *sink, AVFilterGraph *fg, int counter);
    bool hasFilterGraph() const;
    // Counter of the installed graph, -1 for none.
    int filterGraphCounter() const;

    // Filters up to `count` pictures from the one shown at `startMs` on, keeps
    // them as the RAM buffer, tells the UI their range (positions of the first
    // and last picture in ms) and emits them as a preview buffer. Returns the
    // number of filtered pictures; 0 without a graph or on a failure.
    int render(qlonglong startMs, int count);
    // The RAM buffer of the last render.
    FrameBuffer frames() const;
    // Drops the RAM buffer; the graph stays.
    void clearFrames();

signals:
    // `range` holds the positions in ms of the first and last picture, `fps`
    // the file's frame rate.
    void previewBufferReady(QString path, videoio::FrameBuffer frames, QPoint range, int viewID, double fps);
    void setRAMBufferRangeToUI(QPoint range, int viewID);
    void setFilterInitStatus(int viewID, bool status, bool shouldPause);
    void setSeekingStatus(int viewID, bool status, bool shouldPause);
    void initFilterGraph(std::string filterDescription, std::string sourceArguments, int counter, int viewID);

private:
    // Copies the shown picture into a frame the graph accepts.
    ff::FramePtr currentPicture();
    bool filterPicture(AVFrame *picture, std::vector<std::shared_ptr<AVFrame>> &out);

    const int m_viewID;
    const std::unique_ptr<FFReader> m_source;

    std::mutex m_renderMutex;
    mutable std::mutex m_mutex;  // the graph and the RAM buffer
    std::set<int> m_requested;  // counters asked for and not answered yet
    FilterGraphPtr m_graph;
    AVFilterContext *m_graphSource = nullptr;
    AVFilterContext *m_graphSink = nullptr;
    int m_graphCounter = -1;
    FrameBuffer m_frames;
};

} // namespace videoio

Q_DECLARE_METATYPE(videoio::FrameBuffer)
