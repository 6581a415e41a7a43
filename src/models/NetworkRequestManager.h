#pragma once

#include "cloud/TransferRegistry.h"

#include <QObject>
#include <QVariantMap>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

// Fetches large files over HTTPS, in ranges when asked. One worker serves the
// queued requests in order; a chunked download fans out to four range threads
// that write into one file. Every signal comes from the worker, so a request's
// `requestFinished` is always its last.
class NetworkRequestManager : public QObject
{
    Q_OBJECT

public:
    static constexpr quint64 chunkSize = 268435456; // 256 MiB
    static constexpr int chunkThreadCount = 4;

    explicit NetworkRequestManager(QObject *parent = nullptr);
    ~NetworkRequestManager() override;

    Q_INVOKABLE int queueRequest(int type, QVariantMap params);

    // Ends the transfers under way and the worker; queued requests are dropped.
    void stop();

    // The ranges a file of `contentLength` bytes is fetched in, ends inclusive.
    static std::vector<std::pair<quint64, quint64>> chunkRanges(quint64 contentLength);

signals:
    void requestFinished(int requestId, QVariantMap params);
    void downloadProgress(int requestId, qulonglong progress, qulonglong total);
    void downloadFinished(int requestId, QString downloadPath);
    void downloadFailed(int requestId, QString downloadPath);

private:
    struct Request
    {
        QVariantMap params;
        int requestId = 0;
        int type = 0;
    };
    struct ChunkJob;

    void handleRequests();
    QVariantMap handleDownload(int requestId, const QVariantMap &params);
    QVariantMap handleCheckDownload(int requestId, const QVariantMap &params);
    QVariantMap handleChunkedDownload(int requestId, const QVariantMap &params);
    void runChunkThread(ChunkJob &job, int index);
    bool handleSingleChunkDownload(ChunkJob &job, std::pair<quint64, quint64> range, char *buffer);
    // Sleeps up to `ms`, or less when the manager stops; false when it stopped.
    bool pause(int ms);
    // One request through the shared factory (redirects followed there), its
    // client registered for `stop()`; nothing is sent once stopped.
    httplib::Result send(const std::string &url,
                         const std::function<httplib::Result(httplib::Client &, const std::string &)> &request);

    std::thread workerThread;
    std::atomic<bool> running{true};
    std::deque<Request> requestQueue;
    std::mutex queueMutex;
    std::condition_variable queueCondition;
    std::vector<std::thread> chunkThreads;
    std::atomic<int> lastRequestId{0};

    // Clients with a request in flight, stopped by `stop()`: a receiver runs
    // only when bytes arrive, so a stalled transfer would wait out the read timeout.
    TransferRegistry liveClients;
    std::mutex pauseMutex;
    std::condition_variable pauseCondition;
};
