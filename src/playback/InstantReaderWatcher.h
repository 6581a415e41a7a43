#pragma once

#include "timeline/ConsoleLogger.h"
#include "videoio/InstantReader.h"

#include <QHash>
#include <QSet>
#include <QObject>
#include <QPoint>
#include <QThread>
#include <QVariantMap>

#include <array>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

class TFileManager;

namespace videoio {
class DiskCacheWriter;
class FilterGraphWorker;
class Reader;
} // namespace videoio

namespace videoplayer {

// Stands between the live-render readers of the two panes and the player:
// derives a view's filter chain from the UI's filter state, renders windows
// of the input through it on a thread per view, hands ready graphs to the
// readers, writes the rendered chunks to a cache folder of its own and tells
// QML what is ready to lay on the timeline. Readers are closed and file
// durations measured on worker threads, never on the UI's.
//
// Views 0 and 1 are set up (cache writer, graph builder, their threads and
// the graph, close and render loops) on first use, from the watcher's thread.
// Every signal QML sees leaves from the watcher's thread.
class InstantReaderWatcher : public QObject
{
    Q_OBJECT

public:
    explicit InstantReaderWatcher(QObject *parent = nullptr);
    ~InstantReaderWatcher() override;

    // The last watcher constructed; null once it is gone.
    static InstantReaderWatcher *instance();

    // Renders the pictures positioned in startTS..endTS (endTS -1: to the
    // end) of `path` through the view's chain, in chunks that arrive as
    // previewReadyToInject. Stops the view's earlier render. Returns at once:
    // true means accepted, and what then cannot be rendered (a missing file, a
    // start past its end, a chain that doesn't build) ends in renderFailed
    // later. False, with renderFailed, for a start below 0 or an end before
    // the start.
    Q_INVOKABLE bool startRender(int viewID, QString path, qlonglong startTS, qlonglong endTS);
    Q_INVOKABLE void stopRender(int viewID);

    // The cache folder of this watcher, removed when it goes.
    QString cacheFolder() const { return m_cacheFolder; }

signals:
    void fileDurationUpdate(int uid, qlonglong duration, QVariantMap processInfo);
    void previewReadyToInject(QString filename, QPoint range, int view, QVariantMap processInfo);
    void clearDiskCachedRangeRecord(int viewID);
    void setRAMBufferRangeToUI(QPoint range, int viewID);
    void updateFilterInitStatus(int viewID, bool status, bool shouldPause);
    void updateSeekingStatus(int viewID, bool status, bool shouldPause);
    void renderFailed(int viewID, QString message);

public slots:
    void queueDurationCheck(int viewID, int uid, QString filePath, QVariantMap processInfo);
    void handleFileDurationReqQueue(int viewID);
    QString setProcessInfo(QVariantMap filterState, int viewID, bool onDisableIR);
    QString setProcessInfo(QVariantMap filterState, int viewID);
    void clearDiskCachedRecord(int viewID);
    void addToWatchList(std::shared_ptr<videoio::Reader> reader, int viewID);
    void clearWatchList();
    void clearWatchListatViewID(int viewID);
    void clearWatchListRAM(int viewID);
    void clearWatchListRAM();
    void onPreviewCachedToDisk(QString filename, QPoint range, int view);
    void cacheError(QString path, QString message, int ret);
    void cacheError(QString path, QString message);
    void onFilterGraphReady(AVFilterContext *src, AVFilterContext *sink, AVFilterGraph *fg, int counter, int viewID);
    void processFilterGraphQueue(int viewID);
    void processCloseRequests(int viewID);
    void enqueueCloseRequest(std::shared_ptr<videoio::InstantReader> reader, int viewID);
    void handleSeekingStatusChanged(int viewID, bool status, bool shouldPause);
    void handleFilterInitStatusChanged(int viewID, bool status, bool shouldPause);
    void resetIR(int viewID);
    void testH264reorderError();

private:
    struct DurationRequest
    {
        int uid;
        QString path;
        QVariantMap processInfo;
    };
    struct FilterGraphReady
    {
        AVFilterContext *src;
        AVFilterContext *sink;
        AVFilterGraph *fg;
        int counter;
        int viewID;
    };
    struct RenderRequest
    {
        QString path;
        std::string chain;
        qlonglong start;
        qlonglong end;
        int generation;
    };
    struct View
    {
        std::mutex durationMutex;
        std::condition_variable durationWake;
        std::deque<DurationRequest> fileDurationRequests;
        std::thread fileDurationThread;

        std::mutex graphMutex;
        std::condition_variable graphWake;
        std::vector<FilterGraphReady> filterGraphQueue;
        std::thread graphLoop;

        std::mutex closeMutex;
        std::condition_variable closeWake;
        std::deque<std::shared_ptr<videoio::InstantReader>> closeRequests;
        std::thread closeLoop;

        std::mutex renderMutex;
        std::condition_variable renderWake;
        std::optional<RenderRequest> renderRequest;
        std::thread renderThread;
        // A render and the chunks it made count while this is their generation.
        std::atomic<int> generation{0};

        // The UI appends while the graph loop walks: copies are taken under it.
        std::mutex listMutex;
        std::vector<std::shared_ptr<videoio::InstantReader>> watchList;

        QThread diskCacheThread;
        QThread filterGraphThread;
        videoio::DiskCacheWriter *diskCacheWriter = nullptr;  // deleted by its thread's finished
        std::unique_ptr<videoio::FilterGraphWorker> filterGraphWorker;
        bool setUp = false;

        std::atomic<bool> seekingStatus{false};
        std::atomic<bool> filterInitStatus{false};
    };

    View *view(int viewID, const char *caller);
    // The view whose loop calls, or null (logged) from any other thread.
    View *ownLoopView(int viewID, const char *loop);
    View &setUpView(int viewID);
    void renderLoop(int viewID);
    void runRender(int viewID, const RenderRequest &request);
    // The view's reader of the request's file, open, with a graph of its
    // chain; null with `error` set when the request cannot be rendered.
    std::shared_ptr<videoio::InstantReader> prepareReader(int viewID, const RenderRequest &request, QString *error);
    void onChunkCached(QString file, QPoint range, int viewID, videoio::PreviewChunk chunk);
    // Stops the view's render: a picture in hand is its last.
    void stopView(View &v);
    void fail(int viewID, const QString &message);
    std::vector<std::shared_ptr<videoio::InstantReader>> watchListCopy(View &v);
    void log(const QString &message, int level = ConsoleLogger::Info) const;

    std::atomic<bool> m_running{true};
    std::unique_ptr<TFileManager> m_files;
    std::array<std::unique_ptr<View>, 2> m_views;
    QHash<int, QVariantMap> m_processInfo;
    QSet<QString> m_announced;  // chunk files QML was told of
    const QString m_cacheFolder;
    ConsoleLogger m_log;
};

} // namespace videoplayer
