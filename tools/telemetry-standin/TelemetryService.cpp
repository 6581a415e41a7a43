#include "TelemetryService.h"

#include "ThrowawayCa.h"

#include <filesystem>
#include <iostream>
#include <mutex>

namespace {

// Keys and salt of the stand-in; the plugin reads them from the configuration.
constexpr const char *writeKey = "c3RhbmRpbi13cml0ZS1rZXk6";
constexpr const char *projectKey = "standin-project";
constexpr const char *secret = "standin-secret";
constexpr const char *appStateKey = "standin-app-state";

std::mutex outputMutex;

// One line on standard output per request, so a caller can follow along.
void note(const std::string &line)
{
    const std::lock_guard lock(outputMutex);
    std::cout << line << std::endl;
}

void reply(httplib::Response &response, int status, const std::string &body, const char *type = "application/json")
{
    response.status = status;
    response.set_content(body, type);
}

bool authorised(const httplib::Request &request, const char *header, const std::string &expected)
{
    return request.get_header_value(header) == expected;
}

} // namespace

TelemetryService::TelemetryService(const std::string &workDir, int installerMiB)
    : workDir(workDir)
    , installerSize(size_t(installerMiB) << 20)
    , block(1 << 20, 'k')
{
}

TelemetryService::~TelemetryService()
{
    if (server)
        server->stop();
    if (thread.joinable())
        thread.join();
}

nlohmann::json TelemetryService::start()
{
    const std::string caDir = workDir + "/ca";
    std::filesystem::create_directories(caDir);
    const testca::Files ca = testca::makeThrowawayCa(caDir);
    server = std::make_unique<httplib::SSLServer>(ca.serverCert.c_str(), ca.serverKey.c_str());
    route();
    const int port = server->bind_to_any_port("127.0.0.1");
    if (port <= 0)
        throw std::runtime_error("cannot listen on 127.0.0.1");
    base = "https://127.0.0.1:" + std::to_string(port);
    thread = std::thread([this] { server->listen_after_bind(); });
    return {
        {"eventCollectorUrl", base + "/v1/track"},
        {"segmentWriteKeyProduction", writeKey},
        {"segmentWriteKeyDevelopment", writeKey},
        {"amplitudeVardataUrl", base},
        {"amplitudeProfileUrl", base},
        {"amplitudeIdentifyUrl", base},
        {"amplitudeProjectKey", projectKey},
        {"amplitudeSecret", secret},
        {"appStateProduction", base},
        {"appStateStaging", base},
        {"appStateApiKey", appStateKey},
        {"emailMacSalt", "standin-salt"},
        {"caBundle", ca.caCert},
    };
}

void TelemetryService::route()
{
    server->Post("/v1/track", [](const httplib::Request &request, httplib::Response &response) {
        if (!authorised(request, "Authorization", std::string("Basic ") + writeKey))
            return reply(response, 401, R"({"error":"bad credential"})");
        const auto event = nlohmann::json::parse(request.body, nullptr, false);
        if (event.is_discarded() || !event.contains("event"))
            return reply(response, 400, R"({"error":"not an event"})");
        note("event " + event["event"].dump() + " from " + event.value("anonymousId", ""));
        reply(response, 200, R"({"success":true})");
    });
    server->Get("/v1/vardata", [](const httplib::Request &request, httplib::Response &response) {
        if (!authorised(request, "Authorization", std::string("Api-Key ") + projectKey))
            return reply(response, 401, "{}");
        note("flags for " + request.get_param_value("device_id"));
        reply(response, 200, R"({"new-export-panel":{"key":"on"},"cloud-render":{"key":"off"}})");
    });
    server->Get("/v1/userprofile", [](const httplib::Request &request, httplib::Response &response) {
        if (!authorised(request, "Authorization", std::string("Api-Key ") + secret)
            && !authorised(request, "Authorization", std::string("Api-Key ") + projectKey))
            return reply(response, 401, "{}");
        note("profile of " + request.get_param_value("device_id"));
        reply(response, 200, R"({"userData":{"amp_props":{"gp:id":"\"user-42\""}}})");
    });
    server->Post("/identify", [](const httplib::Request &request, httplib::Response &response) {
        const bool ok = request.get_param_value("api_key") == projectKey;
        note("identify " + request.get_param_value("identification"));
        reply(response, ok ? 200 : 401, ok ? "success" : "invalid key", "text/plain");
    });
    server->Get("/v2/app_state/unauthed", [this](const httplib::Request &request, httplib::Response &response) {
        const std::string key = request.get_header_value("x-api-key");
        if (key != appStateKey && key != std::string("staging-") + appStateKey)
            return reply(response, 403, "{}");
        note("update check from " + request.get_param_value("os_type") + " " + request.get_param_value("user_email"));
        const nlohmann::json offer{
            {"app_version", "2.0.0"},
            {"is_owned", true},
            {"inapp_installer_url", base + "/installers/setup-2.0.0.msi"},
        };
        const nlohmann::json answer{{"app_update",
                                     {{"app_update_status", "update"},
                                      {"app_update_versions", {offer}},
                                      {"last_owned_compatible", offer}}}};
        reply(response, 200, answer.dump());
    });
    server->Get(R"(/installers/(.+))", [this](const httplib::Request &request, httplib::Response &response) {
        note("installer " + std::string(request.matches[1]));
        response.set_content_provider(installerSize, "application/octet-stream",
                                      [this](size_t offset, size_t length, httplib::DataSink &sink) {
                                          const size_t at = offset % block.size();
                                          return sink.write(block.data() + at, std::min(length, block.size() - at));
                                      });
    });
}
