#include "FaultTable.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

void FaultTable::add(const nlohmann::json &spec)
{
    Fault fault;
    fault.call = spec.at("call").get<std::string>();
    fault.kind = spec.at("kind").get<std::string>();
    fault.occurrence = spec.value("occurrence", 0);
    fault.job = spec.value("job", std::string());
    fault.status = spec.value("status", fault.kind == "429" ? 429 : 500);
    fault.body = spec.value("body", std::string());
    fault.delayMs = spec.value("delayMs", 0);
    if (fault.kind == "429")
        fault.kind = "status";
    std::lock_guard lock(m_mutex);
    m_faults.push_back(std::move(fault));
}

void FaultTable::reset()
{
    std::lock_guard lock(m_mutex);
    m_faults.clear();
    m_counts.clear();
    ++m_generation;
    m_released.notify_all();
}

std::optional<Fault> FaultTable::next(const std::string &call, const std::string &job)
{
    std::lock_guard lock(m_mutex);
    const int byCall = ++m_counts[call];
    const int byJob = job.empty() ? 0 : ++m_counts[call + "/" + job];
    for (const Fault &fault : m_faults) {
        if (fault.call != call || (!fault.job.empty() && fault.job != job))
            continue;
        const int seen = fault.job.empty() ? byCall : byJob;
        if (fault.occurrence == 0 || fault.occurrence == seen)
            return fault;
    }
    return std::nullopt;
}

std::optional<Fault> FaultTable::arrive(const std::string &call, const std::string &job)
{
    const std::optional<Fault> fault = next(call, job);
    if (fault && fault->kind == "delay")
        std::this_thread::sleep_for(std::chrono::milliseconds(fault->delayMs));
    if (fault && fault->kind == "hold")
        hold();
    return fault;
}

void FaultTable::hold()
{
    std::unique_lock lock(m_mutex);
    const long generation = m_generation;
    ++m_held;
    m_released.wait(lock, [&] { return m_generation != generation || m_stopping; });
    --m_held;
}

void FaultTable::release()
{
    std::lock_guard lock(m_mutex);
    ++m_generation;
    m_released.notify_all();
}

void FaultTable::stop()
{
    std::lock_guard lock(m_mutex);
    m_stopping = true;
    m_released.notify_all();
}

int FaultTable::heldCount() const
{
    std::lock_guard lock(m_mutex);
    return m_held;
}

// httplib gives a handler no access to its socket; the connection is the one
// whose peer port is the request's remote port.
void dropConnection(int remotePort)
{
    DIR *fds = opendir("/proc/self/fd");
    if (!fds)
        return;
    while (const dirent *entry = readdir(fds)) {
        const int fd = std::atoi(entry->d_name);
        struct stat info {};
        if (fd <= 2 || fstat(fd, &info) != 0 || !S_ISSOCK(info.st_mode))
            continue;
        sockaddr_storage peer {};
        socklen_t length = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &length) != 0 || peer.ss_family != AF_INET)
            continue;
        if (ntohs(reinterpret_cast<sockaddr_in *>(&peer)->sin_port) == remotePort)
            shutdown(fd, SHUT_RDWR);
    }
    closedir(fds);
}
