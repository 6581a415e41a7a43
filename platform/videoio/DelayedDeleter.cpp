#include "videoio/DelayedDeleter.h"

#include "videoio/FileUseRegistry.h"
#include "videoio/ImageSequence.h"
#include "videoio/Reader.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

Q_DECLARE_LOGGING_CATEGORY(lcReader)

namespace videoio {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kRetryEvery = std::chrono::seconds(1);
constexpr int kMaxRetries = 60;

// One worker for the process: it sleeps until the earliest due removal.
class DeletionQueue
{
public:
    static DeletionQueue &instance()
    {
        static DeletionQueue queue;
        return queue;
    }

    void add(const QString &path, Clock::time_point due)
    {
        {
            const std::lock_guard lock(m_mutex);
            m_jobs.push_back({path, due, 0});
        }
        m_wake.notify_one();
    }

    ~DeletionQueue()
    {
        {
            const std::lock_guard lock(m_mutex);
            m_running = false;
        }
        m_wake.notify_one();
        m_thread.join();
    }

private:
    struct Job
    {
        QString path;
        Clock::time_point due;
        int retries;
    };

    DeletionQueue()
        : m_thread([this] { run(); })
    {
    }

    void run()
    {
        std::unique_lock lock(m_mutex);
        while (m_running) {
            if (m_jobs.empty()) {
                m_wake.wait(lock);
                continue;
            }
            auto soonest = std::min_element(m_jobs.begin(), m_jobs.end(),
                                            [](const Job &a, const Job &b) { return a.due < b.due; });
            if (soonest->due > Clock::now()) {
                // A copy: add() may grow the vector while we wait.
                const Clock::time_point due = soonest->due;
                m_wake.wait_until(lock, due);
                continue;
            }
            Job job = *soonest;
            m_jobs.erase(soonest);
            lock.unlock();
            const bool busy = FileUseRegistry::inUse(job.path);
            if (!busy)
                DelayedDeleter::DeleteNow(job.path);
            lock.lock();
            if (busy) {
                if (++job.retries > kMaxRetries) {
                    qCWarning(lcReader) << "Gave up deleting, still open:" << job.path;
                    continue;
                }
                job.due = Clock::now() + kRetryEvery;
                m_jobs.push_back(job);
            }
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::vector<Job> m_jobs;
    bool m_running = true;
    std::thread m_thread;
};

} // namespace

bool DelayedDeleter::DeleteNow(const QString &path)
{
    if (path.isEmpty())
        return false;
    if (Reader::IsImageSequence(path)) {
        bool removed = true;
        for (const QString &file : ImageSequence::files(path))
            removed = QFile::remove(file) && removed;
        return removed;
    }
    const QFileInfo info(path);
    if (!info.exists() && !info.isSymLink())
        return true;
    const bool removed = info.isDir() && !info.isSymLink() ? QDir(path).removeRecursively() : QFile::remove(path);
    if (!removed)
        qCWarning(lcReader) << "Unable to delete" << path;
    return removed;
}

void DelayedDeleter::DeleteLater(const QString &path, int seconds)
{
    if (path.isEmpty())
        return;
    DeletionQueue::instance().add(path, Clock::now() + std::chrono::seconds(std::max(0, seconds)));
}

} // namespace videoio
