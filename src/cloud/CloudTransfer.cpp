#include "cloud/CloudTransfer.h"

#include "cloud/CloudAPI.h"
#include "cloud/CloudPipeline.h"

#include "plugin/HttpClientFactory.h"

#include "aiutils/Logger.h"

using aiutils::Logger;

CloudTransfer::CloudTransfer(CloudAPI *owner)
    : owner(owner)
{
    workerThread = std::thread(&CloudTransfer::handleRequests, this);
}

CloudTransfer::~CloudTransfer()
{
    {
        std::lock_guard lock(queueMutex);
        running = false;
    }
    queueCondition.notify_all();
    // Joined, not detached: the pipeline a transfer works on dies with the owner.
    // The owner has stopped every live client first, so this returns promptly.
    workerThread.join();
}

void CloudTransfer::upload(uint uid)
{
    queue(0, uid);
}

void CloudTransfer::download(uint uid)
{
    queue(1, uid);
}

void CloudTransfer::queue(int type, uint uid)
{
    {
        std::lock_guard lock(queueMutex);
        requestQueue.push_back({{"type", type}, {"uid", uid}});
    }
    queueCondition.notify_one();
}

void CloudTransfer::handleRequests()
{
    HttpClientFactory::shieldThreadFromPipeSignal();
    while (running) {
        QVariantMap request;
        {
            std::unique_lock lock(queueMutex);
            queueCondition.wait(lock, [this] { return !running || !requestQueue.empty(); });
            if (!running)
                return;
            request = requestQueue.front();
            requestQueue.pop_front();
        }
        // The transfer runs without the lock, so that queueing never waits behind it.
        try {
            const uint uid = request.value("uid").toUInt();
            switch (request.value("type").toInt()) {
            case 0:
                handleUpload(uid);
                break;
            case 1:
                handleDownload(uid);
                break;
            default:
                break;
            }
        } catch (const std::exception &error) {
            Logger::Log() << logPrefix << "Exception occurred: " << error.what();
        }
    }
}

void CloudTransfer::handleUpload(uint uid)
{
    if (const auto pipeline = owner->pipeline(uid))
        pipeline->upload();
}

void CloudTransfer::handleDownload(uint uid)
{
    if (const auto pipeline = owner->pipeline(uid))
        pipeline->download();
}
