#include "models/XModelDownloader.h"

#include "cloud/TransferRegistry.h"
#include "plugin/Configuration.h"
#include "plugin/HttpClientFactory.h"

#include "aiengine/ModelManager.h"
#include "aiutils/Logger.h"
#include "aiutils/kzutils.h"

#include <QJsonObject>

#include <httplib.h>

#include <cstring>

using aiutils::Logger;

namespace {

constexpr auto kLogPrefix = "XModelDownloader:: ";
// httplib's own 300 s would hold the UI thread, which joins the workers.
constexpr int kConnectTimeoutSeconds = 10;

// One attempt's body: sized once to the announced length, grown only when
// there is none.
struct Body
{
    QByteArray bytes;
    qsizetype filled = 0;
    bool sized = false;
    bool outOfMemory = false;

    bool size(const httplib::Response &response)
    {
        filled = 0;
        sized = response.has_header("Content-Length");
        try {
            bytes.resize(sized ? static_cast<qsizetype>(std::stoull(response.get_header_value("Content-Length"))) : 0);
        } catch (const std::bad_alloc &) {
            outOfMemory = true;
        } catch (const std::exception &) { // a length that is no number: grow as it comes
            sized = false;
            bytes.clear();
        }
        return !outOfMemory;
    }

    bool append(const char *data, size_t length)
    {
        const auto count = static_cast<qsizetype>(length);
        if (sized) {
            if (filled + count > bytes.size())
                return false;
            std::memcpy(bytes.data() + filled, data, length);
        } else {
            try {
                bytes.append(data, count);
            } catch (const std::bad_alloc &) {
                outOfMemory = true;
                return false;
            }
        }
        filled += count;
        return true;
    }
};

} // namespace

XModelDownloader::XModelDownloader(QObject *parent)
    : QObject(parent)
    , queue(std::make_unique<aiutils::BlockingQueueTemplate<std::queue<XModelFileInfo>, XModelFileInfo>>())
{
}

XModelDownloader::~XModelDownloader()
{
    stop();
}

bool XModelDownloader::isHostileFileName(const QString &fileName)
{
    return fileName.isEmpty() || fileName.contains(QLatin1Char('/')) || fileName.contains(QLatin1Char('\\'))
           || fileName.contains(QLatin1String(".."));
}

void XModelDownloader::start()
{
    running = true;
    clients = std::make_shared<TransferRegistry>();
    queue->reset();
    for (unsigned i = 0; i < workerCount; ++i)
        workers.emplace_back([this] { runWorker(); });
}

void XModelDownloader::addTask(const XModelFileInfo &info)
{
    queue->push(info);
}

void XModelDownloader::stop()
{
    running = false;
    queue->stop();
    queue->clear();
    if (clients)
        clients->stopAll();
    for (std::thread &worker : workers)
        worker.join();
    workers.clear();
}

void XModelDownloader::runWorker()
{
    HttpClientFactory::shieldThreadFromPipeSignal();
    try {
        XModelFileInfo info;
        while (running && queue->pop(info) && running && downloadModelFileAndVerify(info)) {
        }
    } catch (const std::exception &error) {
        // A proxy store that cannot be read, a catalogue of the wrong shape.
        Logger::Log() << kLogPrefix << "__!__ " << error.what();
        if (running)
            emit downloadFailed(QString::fromUtf8(error.what()));
    }
    running = false;
}

bool XModelDownloader::downloadModelFileAndVerify(const XModelFileInfo &info)
{
    // A copy: the UI thread may move the folders meanwhile.
    const aiengine::ModelManager manager = aiengine::ModelManager::GetInstance();
    if (isHostileFileName(info.fileName)) {
        Logger::Log() << kLogPrefix << "refused the file name " << info.fileName << " of " << info.modelId;
        emit downloadFailed(QStringLiteral("Invalid file name"));
        return false;
    }
    const std::string fileName = info.fileName.toStdString();
    if (manager.modelFileExists(manager.getModelInfo(info.modelId.toStdString()), fileName)) {
        emit downloadSucceeded();
        return true;
    }
    const QString host = Configuration::instance().modelHost;
    if (host.isEmpty()) {
        Logger::Log() << kLogPrefix << "no model host configured for " << info.fileName;
        emit downloadFailed(QStringLiteral("Model host not configured"));
        return false;
    }

    // A factory of its own reads the proxy store afresh for each file.
    const HttpClientFactory factory;
    const std::string url = host.toStdString() + "/" + fileName;
    const QJsonObject options{{QStringLiteral("password"), Configuration::instance().modelPassword}};
    Body body;
    QString error;
    bool verified = false;
    for (int attempt = 0; attempt < attemptCount && !verified; ++attempt) {
        int seenStatus = 0;
        body = Body();
        const auto handler = [&](const httplib::Response &response) {
            seenStatus = response.status;
            if (response.status >= 300 && response.status < 400)
                return true; // the factory follows it
            return response.status == 200 && body.size(response);
        };
        const auto receiver = [&](const char *data, size_t length) {
            if (seenStatus != 200)
                return running.load();
            return body.append(data, length) && running;
        };
        const httplib::Result result = factory.send(url, [&](httplib::Client &client, const std::string &path) {
            const TransferRegistry::Lease lease(*clients, client);
            client.set_connection_timeout(kConnectTimeoutSeconds, 0);
            return running ? client.Get(path, {{"Accept-Encoding", "Identity"}}, handler, receiver)
                           : httplib::Result(nullptr, httplib::Error::Canceled);
        });
        if (!running)
            return false;
        // A refusing handler leaves no response, only "Canceled": the status it saw is the news.
        if (body.outOfMemory)
            error = QStringLiteral("Not enough memory for the file");
        else if (seenStatus != 0 && seenStatus != 200)
            error = QString::number(seenStatus);
        else if (!result)
            error = QString::fromStdString(httplib::to_string(result.error()));
        else if (!(verified = aiutils::kzutils::verifyCompressedBuffer(
                       info.fileName, QByteArrayView(body.bytes.constData(), body.filled), options, true)))
            error = QStringLiteral("Failed to verify file");
        if (!verified)
            Logger::Log() << kLogPrefix << info.fileName << " attempt " << attempt + 1 << ": " << error;
    }
    if (!verified) {
        emit downloadFailed(error);
        return false;
    }

    const QString path = manager.getLocalDirPath() + QLatin1Char('/') + info.fileName;
    const QString written = aiutils::kzutils::bufferToFile(QByteArrayView(body.bytes.constData(), body.filled), path);
    if (!written.isEmpty()) {
        Logger::Log() << kLogPrefix << "could not write " << path << ": " << written;
        emit downloadFailed(QStringLiteral("Failed to write file"));
        return false;
    }
    emit downloadSucceeded();
    return true;
}
