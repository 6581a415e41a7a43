#pragma once

#include <QDateTime>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

#include <array>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

class CloudPipeline;
class CloudTransfer;
class TransferRegistry;

// The client of the cloud rendering service for QML: a table of jobs, one
// worker that serves queued requests, and eight transfer threads.
class CloudAPI : public QObject
{
    Q_OBJECT
    Q_PROPERTY(int trialsAvailable READ getTrialsAvailable NOTIFY trialsAvailableChanged)
    Q_PROPERTY(QDateTime trialRetryTime READ getTrialRetryTime NOTIFY trialRetryTimeChanged)
    Q_PROPERTY(QString appVersion MEMBER appVersion)
    Q_PROPERTY(bool cloudEnabled READ isCloudEnabled WRITE setCloudEnabled)

public:
    explicit CloudAPI(QObject *parent = nullptr);
    ~CloudAPI() override;

    int getTrialsAvailable() const { return trialsAvailable; }
    QDateTime getTrialRetryTime() const;
    bool isCloudEnabled() const { return cloudEnabled; }
    void setCloudEnabled(bool enabled);

    // The job under uid, kept alive for as long as the caller holds it.
    std::shared_ptr<CloudPipeline> pipeline(uint uid) const;

public slots:
    void run(QString filepath, QVariantMap data, uint uid);
    void accept(uint uid);
    void getStatus(uint uid);
    void download(uint uid);
    void runAndAccept(QString filepath, QVariantMap data, uint uid);
    void loadExport(uint cloudUid, QString status, QString filepath, QString authToken, QString requestId,
                    QVariantMap data, QString outputPath, QString chunkResultsJSON);
    void upload(uint uid);
    void remove(uint uid);
    void resume(uint uid, QString status);
    void checkTokens(QString authToken);
    void checkProductPrice(QString authToken, QString productId);
    void getHistory(QString authToken);

    void cancel(uint uid);
    void reserveTokens(int amount, uint uid);
    std::vector<int> getEstimates(QString authToken, QString filepath, QVariantMap data, bool isFreeTrial);
    std::vector<int> getEstimates(QString authToken, QString filepath, QVariantMap data);
    void checkFreeTrials(QString authToken);
    QVariantList getCloudStatus();
    QStringList getSupportedModels();
    void setAuth(QString authToken, bool checkFeature);
    void setAuth(QString authToken);
    void registerExport(uint cloudUid, QString requestId, QString filepath, QString authToken, QVariantMap data,
                        QString outputPath, QString chunkResultsJSON, bool freeTrial);
    void registerExport(uint cloudUid, QString requestId, QString filepath, QString authToken, QVariantMap data,
                        QString outputPath, QString chunkResultsJSON);
    void reset();

signals:
    void costAvailable(std::vector<int> cost, std::vector<int> time, QString requestId, uint uid);
    void accountDataAvailable(int available_credits, int reserved_credits, int total_credits, uint uid);
    void accountFeaturesAvailable(QString token);
    void productPriceAvailable(std::vector<QString> costs, QString productId);
    void acceptStatus(int status, QString requestId, uint uid);
    void downloadAvailable(QString url, uint uid);
    void statusAvailable(QString status, int progress, QString message, uint uid);
    void downloadDone(uint uid, QString output);
    void uploadSuccessful(uint uid);
    void clearError(uint uid);
    void errorHit(uint uid, QString errorMessage, QString errorDetails);
    void clientErrorHit(uint uid, QString errorMessage, QString errorDetails);
    void preRequestErrorHit(QString errorMessage, QString errorDetails);
    void compareToolURLAvailable(uint uid, QString compareURL);
    void chunkUploaded(uint uid, int chunkIndex, QString eTag);
    void trialsAvailableChanged(int trialsAvailable);
    void trialRetryTimeChanged(QDateTime trialRetryTime);
    void historyAvailable(QVariantMap history);

private:
    void queueRequest(QVariantMap request);
    void handleRequests();
    void dispatch(const QVariantMap &request);
    void handleRun(const QVariantMap &request);
    void handleAccept(const QVariantMap &request);
    void handleGetStatus(const QVariantMap &request);
    void handleDownload(const QVariantMap &request);
    void handleRunAndAccept(const QVariantMap &request);
    void handleLoadExport(const QVariantMap &request);
    void handleUpload(const QVariantMap &request);
    void handleRemove(const QVariantMap &request);
    void handleResume(const QVariantMap &request);
    void handleCheckTokens(const QVariantMap &request);
    void handleCheckProductPrice(const QVariantMap &request);
    void handleGetHistory(const QVariantMap &request);
    void storePipeline(uint uid, std::shared_ptr<CloudPipeline> pipeline);
    void _setupSignals(CloudPipeline *pipeline);
    CloudTransfer &nextTransferFor(uint uid);
    std::shared_ptr<CloudPipeline> pipelineOrLog(uint uid) const;

    std::atomic<int> trialsAvailable = 0;
    QDateTime trialRetryTime;
    mutable std::mutex trialMutex;
    const std::string logPrefix = "CloudAPI:: ";
    std::string videoApiUrl;
    std::thread workerThread;
    std::atomic<bool> running = false;
    std::deque<QVariantMap> requestQueue;
    std::mutex queueMutex;
    std::condition_variable queueCondition;
    std::array<std::string, 3> apiKeys;
    std::atomic<bool> authReady = false;
    mutable std::mutex pipelinesMutex;  // short: never held during HTTP
    std::unordered_map<uint, std::shared_ptr<CloudPipeline>> pipelines;
    std::mutex pendingMutex;
    std::unordered_set<uint> pendingStatusUids;
    std::shared_ptr<TransferRegistry> registry;
    std::array<std::unique_ptr<CloudTransfer>, 8> transfers;
    std::atomic<uint> nextTransfer = 0;
    QString appVersion;
    std::atomic<bool> cloudEnabled = true;
    QSet<QString> activeCloudStates;
    QSet<QString> closedCloudStates;
};
