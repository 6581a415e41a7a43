#pragma once

#include "ConnectProxy.h"
#include "FaultTable.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct ServiceOptions
{
    std::string workDir;          // parts, joined inputs and results
    std::string caDir;            // where the throwaway CA is written
    unsigned long long chunkSize = 8ull << 20;
    std::string renderFilter;     // ffmpeg -vf of the result; empty: the upload itself
    std::string resultFile;       // a given result instead
    std::string token = "standin-token";
    std::string apiKeyProduction = "standin-key-production";
    std::string apiKeyStaging = "standin-key-staging";
    int pollsBeforeComplete = 2;  // status answers that still say "processing"
    std::string filesDir;         // served read-only by the model host; empty: no model host
    int proxyPort = -1;           // the CONNECT proxy's port, 0: any; below 0: no proxy
};

// The rendering service on loopback: video API and account API (each with a
// staging listener), storage, and a plain-HTTP control listener that arms
// faults, releases held calls, and serves the request log. With a files folder
// it is also the model host: GET and HEAD of the files in it, ranges included
// (call "file"). It can also be the client's CONNECT proxy (call "connect").
class CloudService
{
public:
    explicit CloudService(ServiceOptions options);
    ~CloudService();

    // Starts every listener and returns the ready line's JSON.
    nlohmann::json start();

private:
    struct Job
    {
        std::string id;
        std::string status = "requested";
        std::string message = "Waiting for source video";
        unsigned long long size = 0;
        int partCount = 0;
        std::map<int, std::string> parts;  // part number -> MD5 hex
        int polls = 0;
        std::string resultPath;
        std::atomic<bool> resultReady = false;
        nlohmann::json request;
    };
    using JobPtr = std::shared_ptr<Job>;

    using Route = std::function<void(const httplib::Request &, httplib::Response &, const JobPtr &)>;

    void routeVideo(httplib::Server &server, const std::string &name);
    void routeAccount(httplib::Server &server, const std::string &name, bool staging);
    void routeStorage(httplib::Server &server);
    void routeControl(httplib::Server &server);
    void routeFiles(httplib::Server &server);
    std::optional<std::string> connectAnswer(const std::string &target, const std::string &authorization);

    // Logs the call, applies its fault, and runs the route unless the fault answers.
    void serve(const std::string &server, const std::string &call, const httplib::Request &req,
               httplib::Response &res, const JobPtr &job, const Route &route);
    bool bearerOk(const httplib::Request &req, httplib::Response &res) const;
    JobPtr findJob(const std::string &id);
    void finishUpload(const JobPtr &job);
    std::string storageUrl() const;
    std::string partPath(const Job &job, int part) const;

    ServiceOptions m_options;
    FaultTable m_faults;
    std::unique_ptr<httplib::SSLServer> m_video, m_videoStaging, m_account, m_accountStaging, m_storage, m_files;
    httplib::Server m_control;
    std::vector<std::thread> m_listeners;
    std::vector<std::thread> m_renders;
    int m_storagePort = 0;
    std::unique_ptr<ConnectProxy> m_proxy;

    std::mutex m_mutex;  // jobs, log, account
    std::map<std::string, JobPtr> m_jobs;
    int m_nextJob = 1;
    nlohmann::json m_log = nlohmann::json::array();
    int m_available = 1000, m_reserved = 0;
};
