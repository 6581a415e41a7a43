#include "cloud/CloudPipeline.h"

#include "cloud/CloudEndpoints.h"
#include "cloud/TransferRegistry.h"
#include "plugin/HttpClientFactory.h"

#include "aiutils/Logger.h"

#include <QFileInfo>
#include <QUuid>

#include <chrono>
#include <filesystem>
#include <fstream>

using aiutils::Logger;
using nlohmann::json;

namespace {

// A download gathers 10 MiB before each write; the buffer is reserved once so
// that it never grows by doubling.
constexpr std::size_t kWriteBuffer = 10485760;
constexpr const char *kJson = "application/json";

bool isSuccess(int status)
{
    return status >= 200 && status < 300;
}

std::string stripFileScheme(QString path)
{
    return path.remove(QStringLiteral("file:")).toStdString();
}

// libstdc++ says only "stoi"; the log keeps the standard's words.
int partNumber(const std::string &key)
{
    try {
        return std::stoi(key);
    } catch (const std::out_of_range &) {
        throw std::out_of_range("stoi argument out of range");
    } catch (const std::invalid_argument &) {
        throw std::invalid_argument("invalid stoi argument");
    }
}

std::vector<int> intArray(const json &value)
{
    return value.get<std::vector<int>>();
}

} // namespace

CloudPipeline::CloudPipeline(uint uid, const QString &requestId, const QString &inputPath, const QString &authToken,
                             const QVariantMap &data, const QString &outputPath, const QString &chunkResultsJSON,
                             const QString &appVersion, bool freeTrial, std::shared_ptr<TransferRegistry> registry,
                             QObject *parent)
    : QObject(parent)
    , videoApiUrl(CloudEndpoints::videoApiUrl())
    , authToken(authToken.toStdString())
    , outputPath(outputPath)
    , inputPath(inputPath)
    , requestId(requestId.toStdString())
    , data(data)
    , uid(uid)
    , appVersion(appVersion)
    , freeTrial(freeTrial)
    , registry(std::move(registry))
{
    try {
        const json record = json::parse(chunkResultsJSON.toStdString());
        std::vector<Part> restored;
        for (const auto &[key, value] : record.items()) {
            std::string eTag = value.is_string() ? value.get<std::string>() : value.dump();
            if (eTag.size() >= 2 && eTag.front() == '"' && eTag.back() == '"')
                eTag = eTag.substr(1, eTag.size() - 2);
            restored.push_back({eTag, partNumber(key)});
        }
        parts = std::move(restored);
    } catch (const std::exception &error) {
        Logger::Log() << logPrefix << "JSON parsing error: " << error.what();
    }
}

void CloudPipeline::setAuth(const QString &token)
{
    authToken = token.toStdString();
}

std::string CloudPipeline::getRequestId() const
{
    return requestId;
}

void CloudPipeline::setRequestId(const std::string &id)
{
    requestId = id;
}

std::string CloudPipeline::videoUrl(const std::string &path) const
{
    return videoApiUrl + path;
}

qint64 CloudPipeline::fileSize(const QString &path)
{
    const QFileInfo info(path);
    if (!info.exists() || !info.isFile()) {
        Logger::Log() << "CloudPipeline:: " << "Error getting file size for file: " << path;
        return -1;
    }
    return info.size();
}

json CloudPipeline::describe(const QString &inputPath, const QVariantMap &data, bool freeTrial)
{
    const auto integer = [&](const char *key) { return data.value(key).toLongLong(); };
    const auto text = [&](const char *key) { return data.value(key).toString().toStdString(); };
    const std::string path = inputPath.toStdString();
    const size_t dot = path.rfind('.');
    json body = {
        {"source",
         {{"container", dot == std::string::npos ? path : path.substr(dot + 1)},
          {"size", fileSize(inputPath)},
          {"duration", integer("duration")},
          {"frameCount", integer("frameCount")},
          {"frameRate", integer("fps")},
          {"resolution", {{"width", integer("inputWidth")}, {"height", integer("inputHeight")}}}}},
        {"filters", json::parse(text("filtersStr"))},
        {"output",
         {{"resolution", {{"width", integer("outputWidth")}, {"height", integer("outputHeight")}}},
          {"frameRate", integer("outputFps")},
          {"audioBitrate", text("audioBitrate")},
          {"audioCodec", text("audioCodec")},
          {"audioTransfer", text("audioMode")},
          {"videoEncoder", text("videoEncoder")},
          {"videoProfile", text("videoProfile")},
          {"cropToFit", data.value("cropToFit").toBool()},
          {"container", text("outputExtension")}}},
        {"overrides", {{"isPaidDiffusion", !freeTrial}}}};
    if (data.value("dynamicBitrateOn").toBool())
        body["output"]["dynamicCompressionLevel"] = text("dynamicCompressionLevel");
    else
        body["output"]["videoBitrate"] = text("videoBitrate");
    return body;
}

bool CloudPipeline::create()
{
    try {
        Logger::Log() << logPrefix << "Cloud api initializing for " << inputPath;
        const json body = describe(inputPath, data, freeTrial);
        const auto result = CloudEndpoints::send({"POST", videoUrl("/video/"),
                                                  {{"x-desktop-app-version", appVersion.toStdString()}},
                                                  authToken, body.dump(), kJson, 5});
        if (result && isSuccess(result->status)) {
            const json answer = json::parse(result->body);
            const std::vector<int> cost = intArray(answer.at("estimates").at("cost"));
            const std::vector<int> time = intArray(answer.at("estimates").at("time"));
            requestId = answer.at("requestId").get<std::string>();
            emit costAvailable(cost, time, QString::fromStdString(requestId), uid);
            emit statusAvailable("accept", 0, "Uploading input", uid);
            return true;
        }
        if (!result) {
            emit errorHit(uid, "No response", "No response");
        } else if (result->body.empty()) {
            emit errorHit(uid, "Couldn't create request", "Response status: " + QString::number(result->status));
        } else {
            const json answer = json::parse(result->body);
            emit errorHit(uid, "Couldn't create request", QString::fromStdString(answer.at("message").get<std::string>()));
        }
    } catch (const std::exception &error) {
        Logger::Log() << logPrefix << "/CloudPipelien/video Exception occurred: " << error.what();
    }
    return false;
}

bool CloudPipeline::accept()
{
    if (requestId.empty()) {
        emit errorHit(uid, "No request ID found.", "");
        return false;
    }
    try {
        return acceptExchange();
    } catch (const std::exception &error) {
        Logger::Log() << logPrefix << "Failed to parse JSON: " << error.what();
        emit errorHit(uid, "Could not accept request", QString::fromUtf8(error.what()));
        return false;
    }
}

bool CloudPipeline::acceptExchange()
{
    const auto result = CloudEndpoints::send({"PATCH", videoUrl("/video/" + requestId + "/accept/"),
                                              {{"x-desktop-app-version", appVersion.toStdString()}}, authToken, "",
                                              kJson});
    if (!result) {
        emit errorHit(uid, "Could not accept request",
                      "Please try again, you can click 'retry' on options for your export.");
        return false;
    }
    const QString body = QString::fromStdString(result->body);
    if (isSuccess(result->status)) {
        const json answer = json::parse(result->body);
        uploadUrls = answer.at("urls").get<std::vector<std::string>>();
        if (uploadUrls.empty()) {
            emit errorHit(uid, "No urls given by cloud", QString::fromStdString(answer.dump(4)));
            return false;
        }
        accepted = true;
        emit acceptStatus(10, QString::fromStdString(requestId), uid);
        emit statusAvailable("upload", 0, "Uploading input", uid);
        return true;
    }
    if (result->status == 400) {
        const json answer = json::parse(result->body);
        if (answer.is_object() && answer.contains("uploadUrls")) {
            uploadUrls = answer.at("uploadUrls").get<std::vector<std::string>>();
            emit statusAvailable("upload", 0, "Uploading input", uid);
            return true;
        }
        if (answer.is_object() && answer.contains("message")) {
            if (answer.at("message") == "The request has already been accepted and is being processed.") {
                std::string status;
                getStatus(status);
            }
            return true;
        }
        emit errorHit(uid, "Could not upload input.", "Returned from cloud: " + QString::number(result->status));
        return false;
    }
    const json answer = json::parse(result->body, nullptr, false);
    if (result->body.empty())
        emit errorHit(uid, "Could not accept request", "{}");
    else if (answer.is_object() && answer.contains("message") && answer.at("message").is_string())
        emit errorHit(uid, QString::fromStdString(answer.at("message").get<std::string>()), body);
    else
        emit errorHit(uid, "Could not accept request", body);
    return false;
}

void CloudPipeline::upload()
{
    try {
        if (requestId.empty())
            return;
        if ((uploadUrls.empty() || !accepted) && !accept())
            return;
        const std::vector<Part> results = uploadChunks(uploadUrls);
        if (results.empty())
            return;
        emit statusAvailable("complete-upload", 0, "Upload complete.", uid);
        json uploadResults = json::array();
        for (const Part &part : results)
            uploadResults.push_back({{"eTag", part.eTag}, {"partNum", part.partNum}});
        const auto result = CloudEndpoints::send({"PATCH", videoUrl("/video/" + requestId + "/complete-upload/"),
                                                  {{"x-desktop-app-version", appVersion.toStdString()}}, authToken,
                                                  json{{"uploadResults", uploadResults}}.dump(), kJson});
        if (result && isSuccess(result->status)) {
            emit uploadSuccessful(uid);
            emit statusAvailable("processing", 0, "Processing", uid);
            return;
        }
        if (!result || result->body.empty()) {
            Logger::Log() << logPrefix << "Failed to connect: Response body is empty.";
            return;
        }
        const json answer = json::parse(result->body, nullptr, false);
        if (answer.is_object() && answer.contains("message"))
            emit errorHit(uid, "Error sending upload results.",
                          QString::fromStdString(answer.at("message").is_string() ? answer.at("message").get<std::string>()
                                                                                   : answer.at("message").dump()));
        else
            Logger::Log() << logPrefix << "Message not found in response body.";
    } catch (const std::exception &error) {
        Logger::Log() << logPrefix << "/upload Exception occurred: " << error.what();
    }
}

std::vector<CloudPipeline::Part> CloudPipeline::uploadChunks(const std::vector<std::string> &urls)
{
    if (requestId.empty())
        return {};
    const int first = static_cast<int>(parts.size());
    const int count = static_cast<int>(urls.size());
    emit statusAvailable("accept", 0, QStringLiteral("Uploaded chunk %1 / %2").arg(first).arg(count), uid);
    std::vector<Part> results;
    for (int i = first; i < count; ++i) {
        if (cancelled || (registry && registry->stopping()))
            return {};
        try {
            CloudEndpoints::StorageTarget target;
            if (!CloudEndpoints::splitStorageUrl(urls[i], target))
                continue;
            httplib::Client client("https://" + target.host + ":" + std::to_string(target.port));
            HttpClientFactory::trust(client, "https://");
            client.set_write_timeout(30);
            std::string bytes;
            readChunk(inputPath, i, static_cast<quint64>(count), bytes);
            std::optional<TransferRegistry::Lease> lease;
            if (registry)
                lease.emplace(*registry, client);
            // A provider streams the chunk from the one buffer: a string body would be copied twice.
            constexpr size_t kBlock = 1 << 20;
            const auto result = client.Put(
                target.path, {}, bytes.size(),
                [&](size_t offset, size_t length, httplib::DataSink &sink) {
                    if (registry && registry->stopping())
                        return false;
                    return sink.write(bytes.data() + offset, std::min(length, kBlock));
                },
                "application/octet-stream");
            if (!result) {
                emit errorHit(uid, "error uploading", "Error uploading files. Check your internet connection and retry.");
                continue;
            }
            if (!isSuccess(result->status)) {
                Logger::Log() << logPrefix << "Chunk upload failed with " << result->status << ": " << result->body;
                continue;
            }
            if (!result->has_header("ETag")) {
                Logger::Log() << logPrefix << "ETag not found in response headers.";
                continue;
            }
            const std::string eTag = result->get_header_value("ETag");
            results.push_back({eTag, i + 1});
            emit statusAvailable("accept", (i + 1) / count, QStringLiteral("Uploaded chunk %1 / %2").arg(i + 1).arg(count), uid);
            emit chunkUploaded(uid, i, QString::fromStdString(eTag));
        } catch (const std::exception &error) {
            Logger::Log() << logPrefix << "/upload chunk Exception occurred: " << error.what();
        }
    }
    parts.insert(parts.end(), results.begin(), results.end());
    return parts;
}

void CloudPipeline::readChunk(const QString &path, int index, quint64 count, std::string &bytes)
{
    bytes.clear();
    try {
        std::ifstream file(path.toStdString(), std::ios::binary | std::ios::ate);
        if (!file) {
            Logger::Log() << "Error opening file: " << path;
            return;
        }
        if (count == 0) {
            Logger::Log() << "Error: Number of chunks 'n' must be greater than zero.";
            return;
        }
        // Signed throughout: the last chunk of an uneven split can come out negative.
        const qint64 size = static_cast<qint64>(file.tellg());
        const qint64 n = static_cast<qint64>(count);
        if (size == 0) {
            Logger::Log() << "Error: File size is zero. Cannot split an empty file.";
            return;
        }
        if (index < 0 || index >= n) {
            Logger::Log() << "Error: Invalid chunk index.";
            return;
        }
        const qint64 base = size / n;
        const qint64 rest = size % n;
        const qint64 chunk = rest == 0 ? base : base + 1;
        const qint64 length = (rest == 0 || index < n - 1) ? chunk : base + rest + 1 - n;
        if (length <= 0) {
            Logger::Log() << "Error: Current chunk size is zero or negative. Cannot read zero bytes.";
            return;
        }
        const qint64 start = index * chunk;
        if (!file.seekg(start)) {
            Logger::Log() << "Error seeking to position " << start << " in file: " << path;
            return;
        }
        bytes.resize(static_cast<size_t>(length));
        if (!file.read(bytes.data(), length)) {
            Logger::Log() << "Error reading file: " << path;
            bytes.clear();
        }
    } catch (const std::exception &error) {
        Logger::Log() << "Error getting chunk data: " << error.what();
        bytes.clear();
    }
}

void CloudPipeline::getStatus(std::string &status)
{
    emit clearError(uid);
    status = "Error";
    try {
        const auto result = CloudEndpoints::send({"GET", videoUrl("/video/" + requestId + "/status/"),
                                                  {{"Content-Type", kJson}, {"x-desktop-app-version", appVersion.toStdString()}},
                                                  authToken, "", "", 5});
        if (!result || !isSuccess(result->status)) {
            Logger::Log() << logPrefix << "/getStatus: Failed to connect to cloud API: " << (result ? result->status : -1);
            ++statusRetries;
        } else {
            statusRetries = 0;
            const json answer = json::parse(result->body);
            const std::string cloudStatus = answer.at("status").get<std::string>();
            const std::string message = answer.at("message").get<std::string>();
            if (answer.contains("comparisonTool"))
                emit compareToolURLAvailable(uid, QString::fromStdString(answer.at("comparisonTool").get<std::string>()));
            const int progress = answer.at("progress").get<int>();
            status = cloudStatus;
            if (cloudStatus == "failed")
                emit errorHit(uid, QString::fromStdString(message), QString::fromStdString(answer.dump()));
            else if (message == "Waiting for source video")
                accept();
            else
                emit statusAvailable("processing", progress, QString::fromStdString(message), uid);
            if (answer.contains("estimates") && answer.at("estimates").is_object()
                && answer.at("estimates").contains("time") && answer.at("estimates").contains("cost"))
                emit costAvailable(intArray(answer.at("estimates").at("cost")), intArray(answer.at("estimates").at("time")),
                                   QString::fromStdString(requestId), uid);
            if (answer.contains("download") && answer.at("download").is_object() && answer.at("download").contains("url")) {
                const std::string url = answer.at("download").at("url").get<std::string>();
                status = "download";
                emit downloadAvailable(QString::fromStdString(url), uid);
                emit statusAvailable("download", 0, "Download available. Click to download.", uid);
                if (answer.contains("outputFileSizeMb"))
                    outputSizeBytes = answer.at("outputFileSizeMb").get<quint64>() << 20;
                downloadUrl = url;
                std::string metrics;
                getMetrics(metrics);
            }
        }
    } catch (const std::exception &error) {
        Logger::Log() << logPrefix << "/getStatus Exception occurred: " << error.what();
        ++statusRetries;
        status = "Error";
    }
    if (statusRetries != 0)
        Logger::Log() << logPrefix << "Num retry attempts " << statusRetries;
    if (statusRetries > 5) {
        Logger::Log() << logPrefix << "Maximum retries of " << 5 << " exceeded.";
        emit clientErrorHit(uid, "Connection error", "Error: failed to get status. Check your internet connection");
    }
}

void CloudPipeline::getMetrics(std::string &status)
{
    emit clearError(uid);
    try {
        const auto result = CloudEndpoints::send({"GET", videoUrl("/video/" + requestId + "/metrics/"),
                                                  {{"Content-Type", kJson}, {"x-desktop-app-version", appVersion.toStdString()}},
                                                  authToken, "", "", 5});
        if (result && isSuccess(result->status)) {
            Logger::Log() << logPrefix << "Metrics: " << result->body;
            status = "ok";
            return;
        }
        const QString text = "Error " + QString::number(result ? result->status : -1);
        emit errorHit(uid, text, text);
    } catch (const std::exception &error) {
        Logger::Log() << logPrefix << "/getMetrics Exception occurred: " << error.what();
        emit errorHit(uid, "Error " + QString::fromUtf8(error.what()), "Error " + QString::fromUtf8(error.what()));
    }
}

void CloudPipeline::cancel()
{
    Logger::Log() << logPrefix << "Cancelling " << requestId;
    cancelled = true;
    try {
        const auto result = CloudEndpoints::send({"DELETE", videoUrl("/video/" + requestId + "/"),
                                                  {{"x-desktop-app-version", appVersion.toStdString()}}, authToken, "",
                                                  kJson});
        if (result && isSuccess(result->status))
            emit statusAvailable("cancel", 0, "Cancelled.", uid);
        else if (result)
            Logger::Log() << logPrefix << "/video: Failed to connect to cloud API: " << result->status;
        else
            Logger::Log() << logPrefix << "/video No response";
    } catch (const std::exception &error) {
        Logger::Log() << logPrefix << "/cancel Exception occurred: " << error.what();
    }
}

void CloudPipeline::reserveTokens(int amount)
{
    try {
        const auto result = CloudEndpoints::send({"POST", CloudEndpoints::accountApiUrl(false) + "/v3/plutus/reserve",
                                                  {{"x-api-key", CloudEndpoints::apiKey(false)}}, authToken,
                                                  json{{"amount", amount}}.dump(), kJson, 5});
        if (result && isSuccess(result->status)) {
            const json answer = json::parse(result->body);
            emit accountDataAvailable(answer.at("available_credits").get<int>(), answer.at("reserved_credits").get<int>(),
                                      answer.at("total_credits").get<int>(), uid);
            return;
        }
        Logger::Log() << logPrefix << "/v3/plutus/reserve failed: " << (result ? result->body : std::string("no response"));
    } catch (const std::exception &error) {
        Logger::Log() << logPrefix << "/v3/plutus/reserve Exception occurred: " << error.what();
    }
}

void CloudPipeline::download()
{
    try {
        downloadExchange();
    } catch (const std::filesystem::filesystem_error &error) {
        const QString text = "DownloadError: Disk access error: " + QString::fromUtf8(error.what());
        emit errorHit(uid, text, text);
    } catch (const std::exception &error) {
        const QString text = "DownloadError: " + QString::fromUtf8(error.what());
        emit errorHit(uid, text, text);
    }
}

void CloudPipeline::downloadExchange()
{
    emit clearError(uid);
    if (downloadUrl.empty()) {
        std::string status;
        getStatus(status);
        if (downloadUrl.empty()) {
            emit errorHit(uid, "No download URL", "The cloud did not send a download URL");
            return;
        }
    }
    emit statusAvailable("downloading", 0, "Downloading...", uid);
    CloudEndpoints::StorageTarget target;
    if (!CloudEndpoints::splitStorageUrl(downloadUrl, target)) {
        Logger::Log() << logPrefix << "Invalid URL: " << downloadUrl;
        target = {};
    }
    const QString absolute = QFileInfo(outputPath).absoluteFilePath();
    const std::string finalPath = absolute.toStdString();
    // Into a file beside the result, renamed on success: an error body or a
    // dropped transfer must not replace an earlier complete file.
    const std::string temporary = finalPath + ".part-" + QUuid::createUuid().toString(QUuid::Id128).left(8).toStdString();
    std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
    if (!file) {
        emit errorHit(uid, "Unable to open the file to write ", "Unable to open the file to write: " + absolute);
        return;
    }
    const auto removeTemporary = [&] {
        file.close();
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
    };
    emit statusAvailable("download", 1, "Downloading...", uid);

    httplib::Client client("https://" + target.host + ":" + std::to_string(target.port));
    HttpClientFactory::trust(client, "https://");
    std::optional<TransferRegistry::Lease> lease;
    if (registry)
        lease.emplace(*registry, client);

    // The first job of the process sets the interval (in blocks) between progress reports.
    static std::atomic<qint64> reportInterval = 0;
    qint64 blocks = 0;
    auto lastReport = std::chrono::steady_clock::now();
    quint64 received = 0;
    std::string buffer;
    buffer.reserve(kWriteBuffer + CPPHTTPLIB_RECV_BUFSIZ);
    bool writeFailed = false;
    const auto result = client.Get(target.path, [&](const char *data, size_t length) {
        if (registry && registry->stopping())
            return false;
        buffer.append(data, length);
        received += length;
        if (buffer.size() >= kWriteBuffer) {
            if (!file.write(buffer.data(), static_cast<std::streamsize>(buffer.size()))) {
                writeFailed = true;
                emit errorHit(uid, "Error writing file.", "Error writing file.");
                return false;
            }
            buffer.clear();
        }
        if (outputSizeBytes != 0) {
            qint64 expected = 0;
            const qint64 interval = static_cast<qint64>((outputSizeBytes + 100 * length - 1) / (100 * length));
            reportInterval.compare_exchange_strong(expected, std::max<qint64>(1, interval));
            const auto now = std::chrono::steady_clock::now();
            if (++blocks == reportInterval && now - lastReport > std::chrono::seconds(2)) {
                emit statusAvailable("download", static_cast<int>(received * 100 / outputSizeBytes), "Downloading...", uid);
                lastReport = now;
                blocks = 0;
            }
        }
        return true;
    });
    if (writeFailed) {
        removeTemporary();
        return;
    }
    if (!result || !isSuccess(result->status)) {
        removeTemporary();
        const QString text = "DownloadError: Failed to download from cloud. "
                             + (result ? QString::number(result->status) : QStringLiteral("no response"));
        emit errorHit(uid, text, text);
        return;
    }
    file.write(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    file.close();
    std::error_code renameError;
    if (file.fail() || (std::filesystem::rename(temporary, finalPath, renameError), renameError)) {
        removeTemporary();
        emit errorHit(uid, "Couldn't write file to disk", "Couldn't write file to disk: " + absolute);
        return;
    }
    emit statusAvailable("downloaded", 0, "Downloaded. Click to view.", uid);
    emit downloadDone(uid, outputPath);
}
