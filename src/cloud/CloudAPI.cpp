#include "cloud/CloudAPI.h"

#include "cloud/CloudEndpoints.h"
#include "cloud/CloudPipeline.h"
#include "cloud/CloudTransfer.h"
#include "cloud/TransferRegistry.h"
#include "plugin/Configuration.h"

#include "plugin/HttpClientFactory.h"

#include "aiutils/Logger.h"

#include <nlohmann/json.hpp>

using aiutils::Logger;
using nlohmann::json;

namespace {

enum RequestType {
    Run = 0,
    Accept = 1,
    GetStatus = 2,
    Download = 3,
    RunAndAccept = 4,
    LoadExport = 5,
    Upload = 6,
    Remove = 7,
    Resume = 8,
    CheckTokens = 9,
    CheckProductPrice = 10,
    GetHistory = 11,
};

constexpr uint kNoJob = 0xffffffff;
constexpr const char *kJson = "application/json";
// The worker's wait while a request stands before any token has come.
constexpr auto kAuthWait = std::chrono::milliseconds(200);

bool isSuccess(int status)
{
    return status >= 200 && status < 300;
}

QString withoutFileScheme(QString path)
{
    return path.remove(QStringLiteral("file:"));
}

bool isRunning(const std::string &word)
{
    return word == "processing" || word == "initializing" || word == "preprocessing" || word == "postprocessing";
}

bool endsTheJob(const QString &status)
{
    return status == "cancel" || status == "error" || status == "downloaded";
}

} // namespace

CloudAPI::CloudAPI(QObject *parent)
    : QObject(parent)
    , trialRetryTime(QDateTime::currentDateTime())
    , registry(std::make_shared<TransferRegistry>())
{
    qRegisterMetaType<std::vector<int>>("std::vector<int>");
    qRegisterMetaType<std::vector<QString>>("std::vector<QString>");
    const Configuration &config = Configuration::instance();
    apiKeys = {config.cloudUnusedKey.toStdString(), config.cloudApiKeyProduction.toStdString(),
               config.cloudApiKeyStaging.toStdString()};
    activeCloudStates = {"initializing", "preprocessing", "processing", "postprocessing", "complete"};
    closedCloudStates = {"requested", "cancelled", "failed"};
    videoApiUrl = CloudEndpoints::videoApiUrl();
    if (CloudEndpoints::developerMode())
        Logger::Log() << logPrefix << "SET TO STAGING";
    for (auto &transfer : transfers)
        transfer = std::make_unique<CloudTransfer>(this);
    running = true;
    workerThread = std::thread(&CloudAPI::handleRequests, this);
}

CloudAPI::~CloudAPI()
{
    {
        std::lock_guard lock(queueMutex);
        running = false;
    }
    queueCondition.notify_all();
    // Transfers in flight end at their next block instead of at their last.
    registry->stopAll();
    workerThread.join();
    for (auto &transfer : transfers)
        transfer.reset();
}

QDateTime CloudAPI::getTrialRetryTime() const
{
    std::lock_guard lock(trialMutex);
    return trialRetryTime;
}

void CloudAPI::setCloudEnabled(bool enabled)
{
    {
        std::lock_guard lock(queueMutex);
        cloudEnabled = enabled;
    }
    queueCondition.notify_all();
}

std::shared_ptr<CloudPipeline> CloudAPI::pipeline(uint uid) const
{
    std::lock_guard lock(pipelinesMutex);
    const auto it = pipelines.find(uid);
    return it == pipelines.end() ? nullptr : it->second;
}

std::shared_ptr<CloudPipeline> CloudAPI::pipelineOrLog(uint uid) const
{
    auto found = pipeline(uid);
    if (!found)
        Logger::Log() << logPrefix << "Could not find UID " << uid;
    return found;
}

// ---- queueing slots

void CloudAPI::queueRequest(QVariantMap request)
{
    {
        std::lock_guard lock(queueMutex);
        requestQueue.push_back(std::move(request));
    }
    queueCondition.notify_all();
}

void CloudAPI::run(QString filepath, QVariantMap data, uint uid)
{
    queueRequest({{"type", Run}, {"filepath", filepath}, {"data", data}, {"uid", uid}});
}

void CloudAPI::accept(uint uid)
{
    if (!pipeline(uid)) {
        Logger::Log() << "CloudAPI::Could not find UID " << uid;
        return;
    }
    queueRequest({{"type", Accept}, {"uid", uid}});
}

void CloudAPI::getStatus(uint uid)
{
    {
        std::lock_guard lock(pendingMutex);
        if (!pendingStatusUids.insert(uid).second)
            return;
    }
    queueRequest({{"type", GetStatus}, {"uid", uid}});
}

void CloudAPI::download(uint uid)
{
    queueRequest({{"type", Download}, {"uid", uid}});
}

void CloudAPI::runAndAccept(QString filepath, QVariantMap data, uint uid)
{
    queueRequest({{"type", RunAndAccept}, {"filepath", filepath}, {"data", data}, {"uid", uid}});
}

void CloudAPI::loadExport(uint cloudUid, QString status, QString filepath, QString authToken, QString requestId,
                          QVariantMap data, QString outputPath, QString chunkResultsJSON)
{
    queueRequest({{"type", LoadExport}, {"uid", cloudUid}, {"status", status}, {"filepath", withoutFileScheme(filepath)},
                  {"authToken", authToken}, {"requestId", requestId}, {"data", data}, {"outputPath", outputPath},
                  {"chunkData", chunkResultsJSON}});
}

void CloudAPI::upload(uint uid)
{
    queueRequest({{"type", Upload}, {"uid", uid}});
}

void CloudAPI::remove(uint uid)
{
    queueRequest({{"type", Remove}, {"uid", uid}});
}

void CloudAPI::resume(uint uid, QString status)
{
    queueRequest({{"type", Resume}, {"uid", uid}, {"status", status}});
}

void CloudAPI::checkTokens(QString authToken)
{
    queueRequest({{"type", CheckTokens}, {"authToken", authToken}});
}

void CloudAPI::checkProductPrice(QString authToken, QString productId)
{
    queueRequest({{"type", CheckProductPrice}, {"authToken", authToken}, {"productId", productId}});
}

void CloudAPI::getHistory(QString authToken)
{
    queueRequest({{"type", GetHistory}, {"authToken", authToken}});
}

void CloudAPI::reset()
{
    std::deque<QVariantMap> empty;
    std::lock_guard lock(queueMutex);
    requestQueue.swap(empty);
}

// ---- the worker

void CloudAPI::handleRequests()
{
    HttpClientFactory::shieldThreadFromPipeSignal();
    bool quiet = false;
    while (running) {
        QVariantMap request;
        {
            std::unique_lock lock(queueMutex);
            if (!quiet)
                Logger::Log() << logPrefix << "Thread is alive, " << requestQueue.size() << " requests.";
            quiet = false;
            queueCondition.wait(lock, [this] { return !running || (!requestQueue.empty() && cloudEnabled); });
            if (!running)
                break;
            if (!authReady) {
                // Only a price check goes ahead of the token; the rest waits for setAuth.
                if (requestQueue.front().value("type").toInt() != CheckProductPrice) {
                    quiet = !queueCondition.wait_for(lock, kAuthWait, [this] {
                        return !running || authReady || requestQueue.empty()
                            || requestQueue.front().value("type").toInt() == CheckProductPrice;
                    });
                    continue;
                }
            }
            request = requestQueue.front();
            requestQueue.pop_front();
        }
        // The handler runs without the lock: it may queue follow-ups, and a
        // reset() meanwhile cannot take the record from under it.
        try {
            dispatch(request);
        } catch (const std::exception &error) {
            Logger::Log() << logPrefix << "Exception occurred: " << error.what();
        }
    }
}

void CloudAPI::dispatch(const QVariantMap &request)
{
    switch (request.value("type").toInt()) {
    case Run: handleRun(request); break;
    case Accept: handleAccept(request); break;
    case GetStatus: handleGetStatus(request); break;
    case Download: handleDownload(request); break;
    case RunAndAccept: handleRunAndAccept(request); break;
    case LoadExport: handleLoadExport(request); break;
    case Upload: handleUpload(request); break;
    case Remove: handleRemove(request); break;
    case Resume: handleResume(request); break;
    case CheckTokens: handleCheckTokens(request); break;
    case CheckProductPrice: handleCheckProductPrice(request); break;
    case GetHistory: handleGetHistory(request); break;
    default: break;
    }
}

void CloudAPI::handleRun(const QVariantMap &request)
{
    if (const auto job = pipelineOrLog(request.value("uid").toUInt()))
        job->create();
}

void CloudAPI::handleAccept(const QVariantMap &request)
{
    const uint uid = request.value("uid").toUInt();
    const auto job = pipelineOrLog(uid);
    if (!job)
        return;
    if (job->accept())
        upload(uid);
    else
        Logger::Log() << logPrefix << "Did not accept successfully";
}

void CloudAPI::handleGetStatus(const QVariantMap &request)
{
    const uint uid = request.value("uid").toUInt();
    if (const auto job = pipelineOrLog(uid)) {
        std::string status;
        job->getStatus(status);
    }
    std::lock_guard lock(pendingMutex);
    pendingStatusUids.erase(uid);
}

CloudTransfer &CloudAPI::nextTransferFor(uint uid)
{
    const uint turn = nextTransfer.fetch_add(1);
    Logger::Log() << logPrefix << "Transfer " << (turn & 7) << " takes " << uid;
    return *transfers[turn & 7];
}

void CloudAPI::handleDownload(const QVariantMap &request)
{
    const uint uid = request.value("uid").toUInt();
    if (!pipelineOrLog(uid))
        return;
    Logger::Log() << logPrefix << "About to download";
    nextTransferFor(uid).download(uid);
    Logger::Log() << logPrefix << "Released to download";
}

void CloudAPI::handleUpload(const QVariantMap &request)
{
    const uint uid = request.value("uid").toUInt();
    if (pipelineOrLog(uid))
        nextTransferFor(uid).upload(uid);
}

void CloudAPI::handleRunAndAccept(const QVariantMap &request)
{
    const uint uid = request.value("uid").toUInt();
    if (const auto job = pipelineOrLog(uid); job && job->create())
        accept(uid);
}

void CloudAPI::storePipeline(uint uid, std::shared_ptr<CloudPipeline> job)
{
    _setupSignals(job.get());
    std::shared_ptr<CloudPipeline> replaced;
    std::lock_guard lock(pipelinesMutex);
    replaced = std::exchange(pipelines[uid], std::move(job));
}

void CloudAPI::handleLoadExport(const QVariantMap &request)
{
    const uint uid = request.value("uid").toUInt();
    const QString status = request.value("status").toString();
    const QString filepath = withoutFileScheme(request.value("filepath").toString());
    const QString requestId = request.value("requestId").toString();
    auto job = std::make_shared<CloudPipeline>(uid, requestId, filepath, request.value("authToken").toString(),
                                               request.value("data").toMap(),
                                               withoutFileScheme(request.value("outputPath").toString()),
                                               request.value("chunkData").toString(), appVersion, false, registry);
    job->setRequestId(requestId.toStdString());
    storePipeline(uid, job);
    if (endsTheJob(status))
        return;
    if (status == "runAndAccept") {
        if (requestId.isEmpty())
            runAndAccept(filepath, request.value("data").toMap(), uid);
        else
            accept(uid);
        return;
    }
    std::string word;
    job->getStatus(word);
    if (isRunning(word)) {
        Logger::Log() << logPrefix << uid << " resuming from getStatus";
        getStatus(uid);
    } else if (word == "requested") {
        accept(uid);
    }
}

void CloudAPI::handleRemove(const QVariantMap &request)
{
    std::shared_ptr<CloudPipeline> removed;
    std::lock_guard lock(pipelinesMutex);
    if (const auto it = pipelines.find(request.value("uid").toUInt()); it != pipelines.end()) {
        removed = std::move(it->second);
        pipelines.erase(it);
    }
}

void CloudAPI::handleResume(const QVariantMap &request)
{
    const uint uid = request.value("uid").toUInt();
    const QString status = request.value("status").toString();
    const auto job = pipeline(uid);
    if (!job) {
        emit errorHit(uid, "Could not register export.", "");
        return;
    }
    if (endsTheJob(status) || job->getRequestId().empty())
        return;
    emit clearError(uid);
    if (status == "runAndAccept") {
        job->accept();
        job->upload();
        return;
    }
    std::string word;
    job->getStatus(word);
    Logger::Log() << logPrefix << "Got status";
    if (isRunning(word))
        getStatus(uid);
}

void CloudAPI::_setupSignals(CloudPipeline *job)
{
    connect(job, &CloudPipeline::costAvailable, this, &CloudAPI::costAvailable);
    connect(job, &CloudPipeline::accountDataAvailable, this, &CloudAPI::accountDataAvailable);
    connect(job, &CloudPipeline::acceptStatus, this, &CloudAPI::acceptStatus);
    connect(job, &CloudPipeline::downloadAvailable, this, &CloudAPI::downloadAvailable);
    connect(job, &CloudPipeline::statusAvailable, this, &CloudAPI::statusAvailable);
    connect(job, &CloudPipeline::compareToolURLAvailable, this, &CloudAPI::compareToolURLAvailable);
    connect(job, &CloudPipeline::downloadDone, this, &CloudAPI::downloadDone);
    connect(job, &CloudPipeline::uploadSuccessful, this, &CloudAPI::uploadSuccessful);
    connect(job, &CloudPipeline::clearError, this, &CloudAPI::clearError);
    connect(job, &CloudPipeline::errorHit, this, &CloudAPI::errorHit);
    connect(job, &CloudPipeline::chunkUploaded, this, &CloudAPI::chunkUploaded);
    connect(job, &CloudPipeline::clientErrorHit, this, &CloudAPI::clientErrorHit);
}

// ---- slots that work on the calling thread

void CloudAPI::registerExport(uint cloudUid, QString requestId, QString filepath, QString authToken, QVariantMap data,
                              QString outputPath, QString chunkResultsJSON, bool freeTrial)
{
    storePipeline(cloudUid, std::make_shared<CloudPipeline>(cloudUid, requestId, withoutFileScheme(filepath), authToken,
                                                            data, withoutFileScheme(outputPath), chunkResultsJSON,
                                                            appVersion, freeTrial, registry));
}

void CloudAPI::registerExport(uint cloudUid, QString requestId, QString filepath, QString authToken, QVariantMap data,
                              QString outputPath, QString chunkResultsJSON)
{
    registerExport(cloudUid, requestId, filepath, authToken, data, outputPath, chunkResultsJSON, false);
}

void CloudAPI::cancel(uint uid)
{
    if (const auto job = pipeline(uid))
        job->cancel();
    else
        Logger::Log() << logPrefix << "Could not find UID " << uid;
}

void CloudAPI::reserveTokens(int amount, uint uid)
{
    if (const auto job = pipeline(uid))
        job->reserveTokens(amount);
    else
        Logger::Log() << logPrefix << "Could not find UID " << uid;
}

std::vector<int> CloudAPI::getEstimates(QString authToken, QString filepath, QVariantMap data)
{
    return getEstimates(authToken, filepath, data, false);
}

std::vector<int> CloudAPI::getEstimates(QString authToken, QString filepath, QVariantMap data, bool isFreeTrial)
{
    try {
        filepath = withoutFileScheme(filepath);
        if (CloudPipeline::fileSize(filepath) == -1) {
            emit preRequestErrorHit("Could not read the file size", "File size reported as -1");
            return {0, 0};
        }
        const json body = CloudPipeline::describe(filepath, data, isFreeTrial);
        const auto result = CloudEndpoints::send({"POST", videoApiUrl + "/video/",
                                                  {{"x-desktop-app-version", appVersion.toStdString()}},
                                                  authToken.toStdString(), body.dump(), kJson});
        if (!result) {
            emit preRequestErrorHit("No response from Cloud", "The cloud failed to respond. It may be down right now.");
            return {0, 0};
        }
        if (!isSuccess(result->status)) {
            if (!result->body.empty())
                emit preRequestErrorHit("The cloud can not process this file.", QString::fromStdString(result->body));
            return {0, 0};
        }
        const json answer = json::parse(result->body);
        Logger::Log() << logPrefix << "Estimate made for " << answer.value("requestId", std::string());
        // Cost from the first element, time from the second: the service's order.
        return {answer.at("estimates").at("cost").at(0).get<int>(), answer.at("estimates").at("time").at(1).get<int>()};
    } catch (const std::exception &error) {
        Logger::Log() << logPrefix << "/run Exception occurred: " << error.what();
        emit preRequestErrorHit("No response from Cloud", QString::fromUtf8(error.what()));
        return {0, 0};
    }
}

void CloudAPI::checkFreeTrials(QString authToken)
{
    if (!authReady)
        return;
    const auto result = CloudEndpoints::send({"GET", videoApiUrl + "/video/status/trials",
                                              {{"Content-Type", kJson}, {"x-desktop-app-version", appVersion.toStdString()}},
                                              authToken.toStdString(), "", "", 2, 5});
    Logger::Log() << logPrefix << "/video/status/trials " << (result ? result->status : -1);
    if (!result || result->body.empty())
        return;
    json answer;
    try {
        answer = json::parse(result->body);
    } catch (const std::exception &error) {
        Logger::Log() << logPrefix << "JSON parse error: " << error.what();
        return;
    }
    try {
        if (!answer.is_object() || !answer.contains("diffusion") || !answer.at("diffusion").is_object()
            || !answer.at("diffusion").contains("remaining"))
            return;
        const int remaining = answer.at("diffusion").at("remaining").get<int>();
        const QDateTime retry = QDateTime::currentDateTime().addSecs(answer.at("diffusion").at("retryAfter").get<int>());
        if (trialsAvailable.exchange(remaining) != remaining)
            emit trialsAvailableChanged(remaining);
        bool changed = false;
        {
            std::lock_guard lock(trialMutex);
            changed = retry != trialRetryTime;
            trialRetryTime = retry;
        }
        if (changed)
            emit trialRetryTimeChanged(retry);
    } catch (const std::exception &) {
        Logger::Log() << logPrefix << "Couldn't find allowedTrials in /video/status/trials";
    }
}

QVariantList CloudAPI::getCloudStatus()
{
    const auto result = CloudEndpoints::send({"GET", videoApiUrl + "/video/status/", {}, "", "", "", 2, 5});
    if (!result)
        return {false, false};
    return {result->body.find("\"isAvailable\":true") != std::string::npos,
            result->body.find("\"isFrameInterpolationSupported\":true") != std::string::npos};
}

QStringList CloudAPI::getSupportedModels()
{
    try {
        // The short timeouts apply to this very call: it runs on the QML thread.
        const auto result = CloudEndpoints::send({"GET", videoApiUrl + "/video/status/", {}, "", "", "", 2, 5});
        if (!result || result->body.empty())
            return {QString()};
        QStringList models;
        for (const std::string &model : json::parse(result->body).at("supportedModels").get<std::vector<std::string>>())
            models << QString::fromStdString(model);
        return models;
    } catch (const std::exception &error) {
        Logger::Log() << logPrefix << "/getSupportedModels error " << error.what();
        return {};
    }
}

void CloudAPI::setAuth(QString authToken)
{
    setAuth(authToken, true);
}

void CloudAPI::setAuth(QString authToken, bool checkFeature)
{
    if (authReady || !cloudEnabled)
        return;
    {
        std::lock_guard lock(pipelinesMutex);
        for (const auto &[uid, job] : pipelines)
            job->setAuth(authToken);
    }
    {
        std::lock_guard lock(queueMutex);
        authReady = true;
    }
    if (checkFeature) {
        try {
            const auto result = CloudEndpoints::send({"PATCH", CloudEndpoints::accountApiUrl(false) + "/v3/auth/features",
                                                      {{"x-api-key", apiKeys[1]}}, authToken.toStdString(),
                                                      authToken.toStdString(), kJson, 2, 5});
            if (result && result->status == 200) {
                const json answer = json::parse(result->body);
                if (answer.is_object() && !answer.empty() && answer.contains("token"))
                    emit accountFeaturesAvailable(QString::fromStdString(answer.at("token").get<std::string>()));
            } else {
                Logger::Log() << logPrefix << "/v3/auth/features failed: " << (result ? result->status : -1);
            }
        } catch (const std::exception &error) {
            Logger::Log() << logPrefix << "/v3/auth/features Exception occurred: " << error.what();
        }
    }
    queueCondition.notify_all();
}

// ---- account handlers on the worker

void CloudAPI::handleCheckTokens(const QVariantMap &request)
{
    if (!authReady)
        return;
    const QString authToken = request.value("authToken").toString();
    checkFreeTrials(authToken);
    const bool staging = CloudEndpoints::developerMode();
    const auto result = CloudEndpoints::send({"GET", CloudEndpoints::accountApiUrl(staging) + "/v3/plutus/balance",
                                              {{"x-api-key", apiKeys[staging ? 2 : 1]}}, authToken.toStdString(), "",
                                              "", 2, 5});
    if (!result || result->status != 200) {
        Logger::Log() << logPrefix << "/v3/plutus/balance failed: " << (result ? result->body : std::string("no response"));
        emit accountDataAvailable(0, 0, 0, kNoJob);
        return;
    }
    const json answer = json::parse(result->body);
    emit accountDataAvailable(answer.at("available_credits").get<int>(), answer.at("reserved_credits").get<int>(),
                              answer.at("total_credits").get<int>(), kNoJob);
}

void CloudAPI::handleCheckProductPrice(const QVariantMap &request)
{
    const QString productId = request.value("productId").toString();
    const auto result = CloudEndpoints::send({"GET", CloudEndpoints::accountApiUrl(false) + "/v3/plutus/product/" + productId.toStdString(),
                                              {{"x-api-key", apiKeys[1]}}, request.value("authToken").toString().toStdString(),
                                              "", "", 2, 5});
    if (!result || result->status != 200) {
        Logger::Log() << logPrefix << "/v3/plutus/product failed: " << (result ? result->body : std::string("no response"));
        return;
    }
    const json answer = json::parse(result->body);
    emit productPriceAvailable({QString::fromStdString(answer.at("price").get<std::string>()),
                                QString::fromStdString(answer.at("regular_price").get<std::string>())},
                               productId);
}

void CloudAPI::handleGetHistory(const QVariantMap &request)
{
    QVariantMap history;
    try {
        const auto result = CloudEndpoints::send({"GET", videoApiUrl + "/video/history",
                                                  {{"Content-Type", kJson}, {"x-desktop-app-version", appVersion.toStdString()}},
                                                  request.value("authToken").toString().toStdString(), "", ""});
        if (!result || !isSuccess(result->status)) {
            Logger::Log() << logPrefix << "/video/history failed: " << (result ? result->status : -1);
        } else {
            const json answer = json::parse(result->body);
            for (const json &element : answer.at("result")) {
                if (!activeCloudStates.contains(QString::fromStdString(element.at("status").get<std::string>())))
                    continue;
                QStringList filters;
                for (const json &filter : element.at("filters")) {
                    if (filter.contains("fps"))
                        filters << "FrameInterpolationFilter";
                    else if (filter.at("model").get<std::string>().starts_with("thm"))
                        filters << "MotionDeblurFilter";
                    else
                        filters << (filters.contains("EnhancementFilter") ? "SecondEnhancementFilter" : "EnhancementFilter");
                }
                const json &output = element.at("output");
                history.insert(QString::fromStdString(element.at("id").get<std::string>()),
                               QVariantMap{{"filters", filters},
                                           {"container", QString::fromStdString(output.at("container").get<std::string>())},
                                           {"outputWidth", output.at("resolution").at("width").get<int>()},
                                           {"outputHeight", output.at("resolution").at("height").get<int>()},
                                           {"outputFps", output.at("frameRate").get<qint64>()}});
            }
        }
    } catch (const std::exception &error) {
        Logger::Log() << logPrefix << "/video/history Exception occurred: " << error.what();
    }
    emit historyAvailable(history);
}
