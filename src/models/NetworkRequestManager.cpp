#include "models/NetworkRequestManager.h"

#include "models/NetworkRequestTypes.h"
#include "plugin/HttpClientFactory.h"

#include "aiutils/Logger.h"

#include <httplib.h>

#include <QFile>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>

using aiutils::Logger;

namespace {

constexpr auto kLogPrefix = "NetworkRequestManager:: ";
constexpr quint64 kAlignment = 4096;

// A file descriptor closed at scope exit, unless `close()` reported on it first.
class Fd
{
public:
    explicit Fd(int fd)
        : m_fd(fd)
    {
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    ~Fd()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    // A delayed write error (NFS, a full quota) shows only here.
    bool close()
    {
        const int fd = std::exchange(m_fd, -1);
        return fd >= 0 && ::close(fd) == 0;
    }

private:
    int m_fd;
};

bool writeAllAt(int fd, const char *data, quint64 length, quint64 offset)
{
    while (length > 0) {
        const ssize_t written = ::pwrite(fd, data, length, static_cast<off_t>(offset));
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        data += written;
        length -= static_cast<quint64>(written);
        offset += static_cast<quint64>(written);
    }
    return true;
}

// A length given as text (what `CheckDownload` returns) or as a number.
std::optional<quint64> lengthOf(const QVariant &value)
{
    bool ok = false;
    quint64 length = 0;
    if (value.typeId() == QMetaType::QString || value.typeId() == QMetaType::QByteArray) {
        length = value.toString().trimmed().toULongLong(&ok);
    } else if (value.typeId() == QMetaType::Double || value.typeId() == QMetaType::Float) {
        const double number = value.toDouble();
        ok = number >= 0 && number == static_cast<double>(static_cast<quint64>(number));
        length = static_cast<quint64>(number);
    } else if (value.canConvert<qlonglong>() && value.isValid()) {
        const qlonglong number = value.toLongLong(&ok);
        ok = ok && number >= 0;
        length = static_cast<quint64>(number);
    }
    return ok ? std::optional(length) : std::nullopt;
}

httplib::Headers requestHeaders()
{
    // No "Host": httplib sends the authority of each hop itself, where a hand-set
    // one would go out verbatim to every host a redirect leads to.
    return {{"Accept", "*/*"}, {"Connection", "close"}};
}

std::string urlOf(const QVariantMap &params)
{
    return params.value(QStringLiteral("domain")).toString().toStdString()
           + params.value(QStringLiteral("clientResource")).toString().toStdString();
}

struct FreeDeleter
{
    void operator()(char *data) const { std::free(data); }
};

} // namespace

struct NetworkRequestManager::ChunkJob
{
    std::string url;
    QString downloadPath;
    std::vector<std::pair<quint64, quint64>> ranges;
    size_t nextIndex = 0;
    std::mutex mutex; // the claim of a range, and separately each file write
    std::atomic<bool> failed{false};
    std::atomic<quint64> counter{0};
    std::mutex finishedMutex;
    std::condition_variable finishedCondition;
    std::array<bool, chunkThreadCount> finished{};
};

NetworkRequestManager::NetworkRequestManager(QObject *parent)
    : QObject(parent)
{
    workerThread = std::thread([this] { handleRequests(); });
}

NetworkRequestManager::~NetworkRequestManager()
{
    stop();
    if (workerThread.joinable())
        workerThread.join();
    // The worker joins the range threads of its download; these are left only
    // when it ended early.
    for (std::thread &thread : chunkThreads)
        if (thread.joinable())
            thread.join();
}

void NetworkRequestManager::stop()
{
    {
        const std::lock_guard lock(queueMutex);
        running = false;
        requestQueue.clear();
    }
    queueCondition.notify_all();
    {
        const std::lock_guard lock(pauseMutex);
    }
    pauseCondition.notify_all();
    liveClients.stopAll();
}

int NetworkRequestManager::queueRequest(int type, QVariantMap params)
{
    const int requestId = ++lastRequestId;
    {
        // Under the lock, or a push between the worker's test and its wait is never seen.
        const std::lock_guard lock(queueMutex);
        requestQueue.push_back({std::move(params), requestId, type});
    }
    queueCondition.notify_one();
    return requestId;
}

std::vector<std::pair<quint64, quint64>> NetworkRequestManager::chunkRanges(quint64 contentLength)
{
    std::vector<std::pair<quint64, quint64>> ranges;
    for (quint64 start = 0; start < contentLength; start += chunkSize)
        ranges.emplace_back(start, std::min(start + chunkSize - 1, contentLength - 1));
    return ranges;
}

httplib::Result NetworkRequestManager::send(
    const std::string &url, const std::function<httplib::Result(httplib::Client &, const std::string &)> &request)
{
    return HttpClientFactory::instance().send(url, [&](httplib::Client &client, const std::string &path) {
        const TransferRegistry::Lease lease(liveClients, client);
        return running ? request(client, path) : httplib::Result(nullptr, httplib::Error::Canceled);
    });
}

bool NetworkRequestManager::pause(int ms)
{
    std::unique_lock lock(pauseMutex);
    return !pauseCondition.wait_for(lock, std::chrono::milliseconds(ms), [this] { return !running; });
}

void NetworkRequestManager::handleRequests()
{
    HttpClientFactory::shieldThreadFromPipeSignal();
    while (running) {
        Request request;
        {
            std::unique_lock lock(queueMutex);
            queueCondition.wait(lock, [this] { return !requestQueue.empty() || !running; });
            if (!running)
                return;
            request = requestQueue.front();
            requestQueue.pop_front();
        }
        QVariantMap result;
        try {
            switch (request.type) {
            case NetworkRequest::Download:
                result = handleDownload(request.requestId, request.params);
                break;
            case NetworkRequest::CheckDownload:
                result = handleCheckDownload(request.requestId, request.params);
                break;
            case NetworkRequest::ChunkedDownload:
                result = handleChunkedDownload(request.requestId, request.params);
                break;
            default:
                Logger::Log() << kLogPrefix << "unknown request type " << request.type << " of request "
                              << request.requestId;
            }
        } catch (const std::exception &error) {
            // Nothing may leave the worker; the request still ends with its signal.
            Logger::Log() << kLogPrefix << "request " << request.requestId << " failed: " << error.what();
            result.clear();
        }
        emit requestFinished(request.requestId, result);
    }
}

QVariantMap NetworkRequestManager::handleCheckDownload(int, const QVariantMap &params)
{
    QVariantMap result;
    try {
        const httplib::Result response = send(urlOf(params), [](httplib::Client &client, const std::string &path) {
            return client.Head(path, requestHeaders());
        });
        if (response && response->status == 200) {
            result[QStringLiteral("eTag")] = QString::fromStdString(response->get_header_value("ETag"));
            result[QStringLiteral("contentLength")] = QString::fromStdString(response->get_header_value("Content-Length"));
        } else if (!response) {
            Logger::Log() << kLogPrefix << "no response";
        }
    } catch (const std::exception &error) {
        Logger::Log() << kLogPrefix << "Error checking ETags: " << error.what();
        result.clear();
    }
    return result;
}

QVariantMap NetworkRequestManager::handleDownload(int requestId, const QVariantMap &params)
{
    QVariantMap result;
    const QString downloadPath = params.value(QStringLiteral("downloadPath")).toString();
    try {
        Fd file(::open(QFile::encodeName(downloadPath).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!file.valid()) {
            Logger::Log() << kLogPrefix << "Error: Unable to open the file for writing: " << downloadPath;
            return result;
        }
        const quint64 total = lengthOf(params.value(QStringLiteral("contentLength"))).value_or(0);
        quint64 counter = 0;
        int seenStatus = 0;
        bool writeFailed = false;
        auto lastEmission = std::chrono::steady_clock::now();
        const auto handler = [&](const httplib::Response &response) {
            seenStatus = response.status;
            // A redirect is followed by the factory; any other answer but 200 is
            // refused here, so an error page never becomes the file.
            return response.status == 200 || (response.status >= 300 && response.status < 400);
        };
        const auto receiver = [&](const char *data, size_t length) {
            if (!running)
                return false;
            if (seenStatus != 200)
                return true;
            if (!writeAllAt(file.get(), data, length, counter)) {
                writeFailed = true;
                return false;
            }
            counter += length;
            const auto now = std::chrono::steady_clock::now();
            if (now - lastEmission > std::chrono::seconds(1)) {
                lastEmission = now;
                emit downloadProgress(requestId, counter, total);
            }
            return true;
        };
        const httplib::Result response = send(urlOf(params), [&](httplib::Client &client, const std::string &path) {
            return client.Get(path, requestHeaders(), handler, receiver);
        });
        const bool closed = file.close();
        if (writeFailed || !closed) {
            Logger::Log() << kLogPrefix << "DownloadError: Disk access error: " << downloadPath << ": "
                          << std::strerror(errno);
        } else if (response && response->status == 200) {
            result[QStringLiteral("eTag")] = QString::fromStdString(response->get_header_value("ETag"));
            emit downloadFinished(requestId, downloadPath);
            return result;
        } else if (seenStatus != 0) {
            Logger::Log() << kLogPrefix << "download of " << downloadPath << " answered " << seenStatus;
        } else {
            Logger::Log() << kLogPrefix << "no response";
        }
        result[QStringLiteral("eTag")] = QString();
    } catch (const std::filesystem::filesystem_error &error) {
        Logger::Log() << kLogPrefix << "DownloadError: Disk access error: " << error.what();
        result.clear();
    } catch (const std::exception &error) {
        Logger::Log() << kLogPrefix << "Error downloading model: " << error.what();
        result.clear();
    }
    return result;
}

QVariantMap NetworkRequestManager::handleChunkedDownload(int requestId, const QVariantMap &params)
{
    QVariantMap result;
    const QString downloadPath = params.value(QStringLiteral("downloadPath")).toString();
    const std::optional<quint64> contentLength = lengthOf(params.value(QStringLiteral("contentLength")));
    if (!contentLength) {
        Logger::Log() << kLogPrefix << "no usable contentLength for " << downloadPath << ": "
                      << params.value(QStringLiteral("contentLength")).toString();
        emit downloadFailed(requestId, downloadPath);
        return result;
    }
    {
        // The file gets its full length first, so that ranges land anywhere in it.
        Fd file(::open(QFile::encodeName(downloadPath).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        const char zero = 0;
        const bool sized = file.valid() && (*contentLength == 0 || writeAllAt(file.get(), &zero, 1, *contentLength - 1));
        if (!sized || !file.close()) {
            Logger::Log() << kLogPrefix << "Error: Unable to open the file for writing: " << downloadPath << ": "
                          << std::strerror(errno);
            emit downloadFailed(requestId, downloadPath);
            return result;
        }
    }

    const auto started = std::chrono::steady_clock::now();
    ChunkJob job;
    job.url = urlOf(params);
    job.downloadPath = downloadPath;
    job.ranges = chunkRanges(*contentLength);
    chunkThreads.clear();
    try {
        for (int index = 0; index < chunkThreadCount; ++index)
            chunkThreads.emplace_back([this, &job, index] { runChunkThread(job, index); });
    } catch (const std::system_error &error) {
        // The threads that did start share `job`: they end before it does.
        Logger::Log() << kLogPrefix << "cannot start the range threads: " << error.what();
        job.failed = true;
        for (std::thread &thread : chunkThreads)
            thread.join();
        chunkThreads.clear();
        emit downloadFailed(requestId, downloadPath);
        return result;
    }

    // Only the first thread's end stops the reports; the join waits for the rest.
    auto lastEmission = std::chrono::steady_clock::now();
    {
        std::unique_lock lock(job.finishedMutex);
        while (!job.finishedCondition.wait_until(lock, lastEmission + std::chrono::seconds(1),
                                                 [&job] { return job.finished[0]; })) {
            lastEmission = std::chrono::steady_clock::now();
            lock.unlock();
            emit downloadProgress(requestId, job.counter.load(), *contentLength);
            lock.lock();
        }
    }
    for (std::thread &thread : chunkThreads)
        thread.join();
    chunkThreads.clear();
    Logger::Log() << kLogPrefix << "TIME TAKEN: "
                  << std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    if (!job.failed && running) {
        emit downloadFinished(requestId, downloadPath);
        result[QStringLiteral("eTag")] = params.value(QStringLiteral("eTag"));
    } else {
        emit downloadFailed(requestId, downloadPath);
    }
    return result;
}

void NetworkRequestManager::runChunkThread(ChunkJob &job, int index)
{
    HttpClientFactory::shieldThreadFromPipeSignal();
    // One buffer of a whole range per thread, reused for every range it takes:
    // httplib would grow a body by doubling, to twice the range and more.
    std::unique_ptr<char, FreeDeleter> buffer;
    while (!job.failed && running) {
        std::pair<quint64, quint64> range;
        {
            const std::lock_guard lock(job.mutex);
            if (job.nextIndex >= job.ranges.size())
                break;
            range = job.ranges[job.nextIndex++];
            job.counter += chunkSize;
        }
        try {
            if (!buffer) {
                // Ranges are claimed in order, so a thread's first is its largest.
                const quint64 size = (range.second - range.first + 1 + kAlignment - 1) / kAlignment * kAlignment;
                buffer.reset(static_cast<char *>(std::aligned_alloc(kAlignment, size)));
                if (!buffer)
                    throw std::bad_alloc();
            }
            if (!handleSingleChunkDownload(job, range, buffer.get()))
                job.failed = true;
        } catch (const std::exception &error) {
            Logger::Log() << kLogPrefix << "failed to download range: " << range.first << "-" << range.second << " "
                          << error.what();
            job.failed = true;
        }
    }
    {
        const std::lock_guard lock(job.finishedMutex);
        job.finished[static_cast<size_t>(index)] = true;
    }
    job.finishedCondition.notify_all();
}

bool NetworkRequestManager::handleSingleChunkDownload(ChunkJob &job, std::pair<quint64, quint64> range, char *buffer)
{
    const quint64 expected = range.second - range.first + 1;
    httplib::Headers headers = requestHeaders();
    headers.emplace("Range", "bytes=" + std::to_string(range.first) + "-" + std::to_string(range.second));
    const auto describe = [&] { return std::to_string(range.first) + "-" + std::to_string(range.second); };

    for (int attempt = 0; attempt < 4 && running; ++attempt) {
        int seenStatus = 0;
        quint64 received = 0;
        bool overrun = false;
        const auto handler = [&](const httplib::Response &response) {
            seenStatus = response.status;
            return response.status == 200 || response.status == 206 || (response.status >= 300 && response.status < 400);
        };
        const auto receiver = [&](const char *data, size_t length) {
            if (!running)
                return false;
            if (seenStatus != 200 && seenStatus != 206)
                return true;
            // A server that ignored Range sends the whole file: stop at the
            // first byte past the range rather than take the file in.
            if (received + length > expected) {
                overrun = true;
                return false;
            }
            std::memcpy(buffer + received, data, length);
            received += length;
            return true;
        };
        const httplib::Result response = send(job.url, [&](httplib::Client &client, const std::string &path) {
            return client.Get(path, headers, handler, receiver);
        });
        if (!running)
            return false;
        if (seenStatus == 429) {
            Logger::Log() << kLogPrefix << "getting rate limited on range: " << describe()
                          << " Current attempt: " << attempt + 1;
            if (attempt < 3 && !pause(1000 << (2 * attempt)))
                return false;
            continue;
        }
        if (!response || (seenStatus != 200 && seenStatus != 206) || received != expected) {
            Logger::Log() << kLogPrefix << "failed to download range: " << describe() << " Current attempt: "
                          << attempt + 1 << " (status " << seenStatus << ", "
                          << (overrun ? std::string("body longer than the range")
                                      : response ? std::to_string(received) + " bytes"
                                                 : httplib::to_string(response.error()))
                          << ")";
            continue;
        }

        const std::lock_guard lock(job.mutex);
        const QByteArray path = QFile::encodeName(job.downloadPath);
        // Whole pages straight to the disk, past the page cache; a file system
        // that refuses O_DIRECT gets buffered writes. The unaligned tail always
        // goes through a plain descriptor.
        Fd direct(::open(path.constData(), O_WRONLY | O_DIRECT | O_CLOEXEC));
        Fd plain(::open(path.constData(), O_WRONLY | O_CLOEXEC));
        if (!plain.valid()) {
            Logger::Log() << kLogPrefix << "failed to open file to write chunk";
            continue;
        }
        const quint64 aligned = direct.valid() ? expected / kAlignment * kAlignment : 0;
        const bool written = (aligned == 0 || writeAllAt(direct.get(), buffer, aligned, range.first))
                             && writeAllAt(plain.get(), buffer + aligned, expected - aligned, range.first + aligned);
        const int writeError = errno;
        const bool closed = (!direct.valid() || direct.close()) && plain.close();
        if (!written || !closed) {
            // A full disk does not get better by fetching the range again.
            Logger::Log() << kLogPrefix << "failed to write chunk " << describe() << ": "
                          << std::strerror(written ? errno : writeError);
            return false;
        }
        return true;
    }
    return false;
}
