#pragma once

#include <QObject>
#include <QVariantMap>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

class CloudAPI;

// One thread that moves one job's file at a time, so that long uploads and
// downloads never hold up the cloud worker.
class CloudTransfer : public QObject
{
    Q_OBJECT

public:
    explicit CloudTransfer(CloudAPI *owner);
    ~CloudTransfer() override;

    void upload(uint uid);
    void download(uint uid);

private:
    void queue(int type, uint uid);
    void handleRequests();
    void handleUpload(uint uid);
    void handleDownload(uint uid);

    const std::string logPrefix = "CloudTransfer:: ";
    std::thread workerThread;
    std::atomic<bool> running = true;
    std::deque<QVariantMap> requestQueue;
    std::mutex queueMutex;
    std::condition_variable queueCondition;
    CloudAPI *owner;
};
