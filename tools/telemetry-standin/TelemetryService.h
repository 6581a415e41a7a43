#pragma once

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <string>
#include <thread>

// The usage-event collector, the analytics services and the application-state
// service in one HTTPS server on 127.0.0.1, with a throwaway CA. It offers one
// update whose installer is `installerMiB` of filler bytes.
class TelemetryService
{
public:
    TelemetryService(const std::string &workDir, int installerMiB);
    ~TelemetryService();

    // Listens, and returns the configuration keys that point the plugin here.
    nlohmann::json start();

private:
    void route();

    std::string workDir;
    size_t installerSize;
    std::string block;
    std::unique_ptr<httplib::SSLServer> server;
    std::string base;
    std::thread thread;
};
