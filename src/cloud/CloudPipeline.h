#pragma once

#include <QObject>
#include <QString>
#include <QVariantMap>

#include <nlohmann/json.hpp>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

class TransferRegistry;

// One job of the rendering service: one input file and one cloud request.
// Its operations run on the cloud worker, on a transfer thread or on the
// caller's thread, and report by signal; none lets an exception out.
class CloudPipeline : public QObject
{
    Q_OBJECT

public:
    struct Part
    {
        std::string eTag;
        int partNum = 0;
    };

    CloudPipeline(uint uid, const QString &requestId, const QString &inputPath, const QString &authToken,
                  const QVariantMap &data, const QString &outputPath, const QString &chunkResultsJSON,
                  const QString &appVersion, bool freeTrial, std::shared_ptr<TransferRegistry> registry,
                  QObject *parent = nullptr);

    bool create();
    bool accept();
    void upload();
    std::vector<Part> uploadChunks(const std::vector<std::string> &urls);
    void getStatus(std::string &status);
    void getMetrics(std::string &status);
    void download();
    void cancel();
    void reserveTokens(int amount);

    void setAuth(const QString &token);
    std::string getRequestId() const;
    void setRequestId(const std::string &id);
    const std::vector<Part> &getParts() const { return parts; }
    quint64 getOutputSizeBytes() const { return outputSizeBytes; }

    static qint64 fileSize(const QString &path);
    static void readChunk(const QString &path, int index, quint64 count, std::string &bytes);
    // The create and estimate body: the job's description from QML's map.
    static nlohmann::json describe(const QString &inputPath, const QVariantMap &data, bool freeTrial);

signals:
    void costAvailable(std::vector<int> cost, std::vector<int> time, QString requestId, uint uid);
    void accountDataAvailable(int available_credits, int reserved_credits, int total_credits, uint uid);
    void acceptStatus(int status, QString requestId, uint uid);
    void downloadAvailable(QString url, uint uid);
    void statusAvailable(QString status, int progress, QString message, uint uid);
    void compareToolURLAvailable(uint uid, QString compareURL);
    void downloadDone(uint uid, QString output);
    void uploadSuccessful(uint uid);
    void clearError(uint uid);
    void errorHit(uint uid, QString errorMessage, QString errorDetails);
    void chunkUploaded(uint uid, int chunkIndex, QString eTag);
    void clientErrorHit(uint uid, QString errorMessage, QString errorDetails);

private:
    bool acceptExchange();
    void downloadExchange();
    std::string videoUrl(const std::string &path) const;

    const std::string logPrefix = "CloudPipeline:: ";
    std::string videoApiUrl;
    std::string authToken;
    QString outputPath;
    std::string downloadUrl;
    QString inputPath;
    std::string requestId;
    quint64 outputSizeBytes = 0;
    QVariantMap data;
    std::vector<std::string> uploadUrls;
    uint uid = 0;
    std::vector<Part> parts;
    int statusRetries = 0;
    bool accepted = false;
    std::atomic<bool> cancelled = false;
    QString appVersion;
    bool freeTrial = false;
    std::shared_ptr<TransferRegistry> registry;
};
