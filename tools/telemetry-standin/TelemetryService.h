#pragma once

#include "FaultTable.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

// The usage-event collector, the analytics services and the application-state
// service on 127.0.0.1, over HTTPS with a throwaway CA and over plain HTTP on a
// second port. It offers one update whose installer is `installerMiB` of
// filler bytes; an installer named *.AppImage is a script that leaves
// "<itself>.started" beside itself when run.
//
// A plain-HTTP control listener arms faults per call ("event", "flags",
// "profile", "identify", "check", "installer"), releases held calls, and serves
// the request log.
class TelemetryService
{
public:
    TelemetryService(const std::string &workDir, int installerMiB);
    ~TelemetryService();

    // Listens, and returns the configuration keys that point the plugin here.
    nlohmann::json start();
    // The listeners' addresses: "https", "http" and "control".
    const nlohmann::json &addresses() const { return m_addresses; }

private:
    using Route = std::function<void(const httplib::Request &, httplib::Response &)>;

    void route(httplib::Server &server);
    void routeControl();
    // Logs the call, applies its fault, and runs the route unless the fault answers.
    Route serve(const std::string &call, Route route);
    void listen(httplib::Server &server, const std::string &name, const std::string &scheme);

    std::string m_workDir;
    size_t m_installerSize;
    std::string m_block;
    FaultTable m_faults;
    std::unique_ptr<httplib::SSLServer> m_https;
    httplib::Server m_http, m_control;
    nlohmann::json m_addresses = nlohmann::json::object();
    std::vector<std::thread> m_listeners;
    std::mutex m_mutex; // m_log
    nlohmann::json m_log = nlohmann::json::array();
};
