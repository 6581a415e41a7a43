#pragma once

#include <nlohmann/json.hpp>

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// Faults the control listener arms, matched against each call by name, by the
// call's occurrence number (counted per call, and per call and job) and by job.
struct Fault
{
    std::string call;       // "create", "accept", "chunk", "complete", "status", ...
    int occurrence = 0;     // 1-based; 0 matches every occurrence
    std::string job;        // empty matches every job
    std::string kind;       // status, drop, dropMidBody, malformed, truncated, delay, hold, noEtag
    int status = 500;       // for kind "status"
    std::string body;       // for kind "status"
    int delayMs = 0;        // for kind "delay"
};

class FaultTable
{
public:
    void add(const nlohmann::json &spec);  // throws nlohmann::json::exception on a bad spec
    void reset();

    // Counts this call and returns the fault armed for it, if any.
    std::optional<Fault> next(const std::string &call, const std::string &job);
    // The same, after waiting out a "delay" or "hold" fault.
    std::optional<Fault> arrive(const std::string &call, const std::string &job);

    // Blocks until release() or reset(); returns at once when stopping.
    void hold();
    void release();
    void stop();
    int heldCount() const;

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_released;
    std::vector<Fault> m_faults;
    std::map<std::string, int> m_counts;
    long m_generation = 0;
    int m_held = 0;
    bool m_stopping = false;
};

// Ends the connection a request came in on, from inside its handler: the
// client sees it drop without an answer.
void dropConnection(int remotePort);
