#pragma once

#include "aiutils/BlockingQueueTemplate.h"

#include <QObject>
#include <QString>

#include <atomic>
#include <memory>
#include <queue>
#include <thread>
#include <vector>

class TransferRegistry;

// One model file to fetch.
struct XModelFileInfo
{
    QString modelId;
    QString fileName;
};

// Fetches model files from the model host with three threads, verifies each
// one in memory, and only then writes it to the model folder: a bad download
// never reaches the disk. Both signals come from the worker threads.
class XModelDownloader : public QObject
{
    Q_OBJECT

public:
    static constexpr unsigned workerCount = 3;
    static constexpr int attemptCount = 3;

    explicit XModelDownloader(QObject *parent = nullptr);
    ~XModelDownloader() override;

    void start();
    void addTask(const XModelFileInfo &info);
    // Ends the transfers at their next block and joins the workers; queued
    // tasks are dropped. Never from a worker: it joins them.
    void stop();

    // Names that would leave the model folder.
    static bool isHostileFileName(const QString &fileName);

signals:
    void downloadSucceeded();
    void downloadFailed(QString errorMessage);

private:
    void runWorker();
    bool downloadModelFileAndVerify(const XModelFileInfo &info);

    std::atomic<bool> running{false};
    std::unique_ptr<aiutils::BlockingQueueTemplate<std::queue<XModelFileInfo>, XModelFileInfo>> queue;
    std::vector<std::thread> workers;
    // Broken by `stop`, so a stalled transfer does not hold the join; one per batch.
    std::shared_ptr<TransferRegistry> clients;
};
