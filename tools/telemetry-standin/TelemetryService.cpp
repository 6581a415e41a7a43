#include "TelemetryService.h"

#include "ThrowawayCa.h"

#include <chrono>
#include <filesystem>
#include <iostream>

using nlohmann::json;

namespace {

// Keys and salt of the stand-in; the plugin reads them from the configuration.
// The '+' in the analytics keys keeps their encoding honest.
constexpr const char *writeKey = "c3RhbmRpbi13cml0ZS1rZXk6";
constexpr const char *developmentWriteKey = "c3RhbmRpbi1kZXZlbG9wbWVudDo=";
constexpr const char *projectKey = "standin+project";
constexpr const char *secret = "standin+secret";
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

void replyJson(httplib::Response &response, int status, const json &body)
{
    reply(response, status, body.dump());
}

bool authorised(const httplib::Request &request, const char *header, const std::string &expected)
{
    return request.get_header_value(header) == expected;
}

} // namespace

TelemetryService::TelemetryService(const std::string &workDir, int installerMiB)
    : m_workDir(workDir)
    , m_installerSize(size_t(installerMiB) << 20)
    , m_block(1 << 20, 'k')
{
}

TelemetryService::~TelemetryService()
{
    m_faults.stop();
    for (httplib::Server *server : {static_cast<httplib::Server *>(m_https.get()), &m_http, &m_control})
        if (server)
            server->stop();
    for (std::thread &thread : m_listeners)
        thread.join();
}

void TelemetryService::listen(httplib::Server &server, const std::string &name, const std::string &scheme)
{
    const int port = server.bind_to_any_port("127.0.0.1");
    if (port <= 0)
        throw std::runtime_error("cannot listen on 127.0.0.1");
    m_addresses[name] = scheme + "://127.0.0.1:" + std::to_string(port);
    m_listeners.emplace_back([&server] { server.listen_after_bind(); });
}

json TelemetryService::start()
{
    const std::string caDir = m_workDir + "/ca";
    std::filesystem::create_directories(caDir);
    const testca::Files ca = testca::makeThrowawayCa(caDir);
    m_https = std::make_unique<httplib::SSLServer>(ca.serverCert.c_str(), ca.serverKey.c_str());
    if (!m_https->is_valid())
        throw std::runtime_error("TLS server could not load its certificate");
    route(*m_https);
    route(m_http);
    routeControl();
    listen(*m_https, "https", "https");
    listen(m_http, "http", "http");
    listen(m_control, "control", "http");
    const std::string base = m_addresses["https"];
    std::string staging = base;
    staging.replace(staging.find("127.0.0.1"), 9, "localhost");
    return {
        {"eventCollectorUrl", base + "/v1/track"},
        {"segmentWriteKeyProduction", writeKey},
        {"segmentWriteKeyDevelopment", developmentWriteKey},
        {"amplitudeVardataUrl", base},
        {"amplitudeProfileUrl", base},
        {"amplitudeIdentifyUrl", base},
        {"amplitudeProjectKey", projectKey},
        {"amplitudeSecret", secret},
        {"appStateProduction", base},
        {"appStateStaging", staging},
        {"appStateApiKey", appStateKey},
        {"emailMacSalt", "standin-salt"},
        {"caBundle", ca.caCert},
    };
}

TelemetryService::Route TelemetryService::serve(const std::string &call, Route route)
{
    return [this, call, route = std::move(route)](const httplib::Request &request, httplib::Response &response) {
        json entry = {{"call", call}, {"method", request.method}, {"path", request.path}, {"body", request.body}};
        json headers = json::object(), params = json::object();
        for (const char *name : {"Authorization", "x-api-key", "Content-Type", "Host"})
            if (request.has_header(name))
                headers[name] = request.get_header_value(name);
        for (const auto &[key, value] : request.params)
            params[key] = value;
        entry["headers"] = headers;
        entry["params"] = params;
        {
            const std::lock_guard lock(m_mutex);
            m_log.push_back(std::move(entry));
        }

        const std::optional<Fault> fault = m_faults.arrive(call, {});
        const std::string kind = fault ? fault->kind : std::string();
        if (kind == "drop")
            return dropConnection(request.remote_port);
        if (kind == "status")
            return reply(response, fault->status, fault->body, fault->body.starts_with("{") ? "application/json" : "text/plain");
        if (kind == "malformed")
            return reply(response, 200, "{\"app_update\": [\"unclosed");
        if (kind == "trickle") {
            // A space every 200 ms for as long as the client listens.
            return response.set_chunked_content_provider("text/plain", [](size_t, httplib::DataSink &sink) {
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
                return sink.write(" ", 1);
            });
        }
        route(request, response);
        if (kind == "dropMidBody" && response.content_provider_) {
            // The declared length stays; the connection ends at half of it.
            const size_t half = response.content_length_ / 2;
            response.content_provider_ = [inner = response.content_provider_, half](size_t offset, size_t length,
                                                                                  httplib::DataSink &sink) {
                return offset < half && inner(offset, std::min(length, half - offset), sink);
            };
        }
    };
}

void TelemetryService::route(httplib::Server &server)
{
    server.Post("/v1/track", serve("event", [](const httplib::Request &request, httplib::Response &response) {
        if (!authorised(request, "Authorization", std::string("Basic ") + writeKey)
            && !authorised(request, "Authorization", std::string("Basic ") + developmentWriteKey))
            return reply(response, 401, R"({"error":"bad credential"})");
        const auto event = json::parse(request.body, nullptr, false);
        if (event.is_discarded() || !event.contains("event"))
            return reply(response, 400, R"({"error":"not an event"})");
        note("event " + event["event"].dump() + " from " + event.value("anonymousId", ""));
        reply(response, 200, R"({"success":true})");
    }));
    server.Get("/v1/vardata", serve("flags", [](const httplib::Request &request, httplib::Response &response) {
        if (!authorised(request, "Authorization", std::string("Api-Key ") + projectKey))
            return reply(response, 401, "{}");
        note("flags for " + request.get_param_value("device_id"));
        reply(response, 200, R"({"new-export-panel":{"key":"on"},"cloud-render":{"key":"off"}})");
    }));
    server.Get("/v1/userprofile", serve("profile", [](const httplib::Request &request, httplib::Response &response) {
        if (!authorised(request, "Authorization", std::string("Api-Key ") + secret)
            && !authorised(request, "Authorization", std::string("Api-Key ") + projectKey))
            return reply(response, 401, "{}");
        note("profile of " + request.get_param_value("device_id"));
        reply(response, 200, R"({"userData":{"amp_props":{"gp:id":"\"user-42\""}}})");
    }));
    server.Post("/identify", serve("identify", [](const httplib::Request &request, httplib::Response &response) {
        const bool ok = request.get_param_value("api_key") == projectKey;
        note("identify " + request.get_param_value("identification"));
        reply(response, ok ? 200 : 401, ok ? "success" : "invalid key", "text/plain");
    }));
    server.Get("/v2/app_state/unauthed", serve("check", [this](const httplib::Request &request, httplib::Response &response) {
        const std::string key = request.get_header_value("x-api-key");
        if (key != appStateKey && key != std::string("staging-") + appStateKey)
            return reply(response, 403, "{}");
        note("update check from " + request.get_param_value("os_type") + " " + request.get_param_value("user_email"));
        const json offer{
            {"app_version", "2.0.0"},
            {"is_owned", true},
            {"inapp_installer_url", m_addresses["https"].get<std::string>() + "/installers/setup-2.0.0.msi"},
        };
        replyJson(response, 200,
                  json{{"app_update",
                        {{"app_update_status", "update"}, {"app_update_versions", {offer}}, {"last_owned_compatible", offer}}}});
    }));
    server.Get(R"(/installers/(.+))", serve("installer", [this](const httplib::Request &request, httplib::Response &response) {
        const std::string name = request.matches[1];
        note("installer " + name);
        if (name.ends_with(".AppImage"))
            return reply(response, 200, "#!/bin/sh\ntouch \"$0.started\"\n", "application/octet-stream");
        response.set_content_provider(m_installerSize, "application/octet-stream",
                                      [this](size_t offset, size_t length, httplib::DataSink &sink) {
                                          const size_t at = offset % m_block.size();
                                          return sink.write(m_block.data() + at, std::min(length, m_block.size() - at));
                                      });
    }));
}

void TelemetryService::routeControl()
{
    m_control.Get("/log", [this](const httplib::Request &, httplib::Response &response) {
        const std::lock_guard lock(m_mutex);
        replyJson(response, 200, m_log);
    });
    m_control.Post("/reset", [this](const httplib::Request &, httplib::Response &response) {
        m_faults.reset();
        const std::lock_guard lock(m_mutex);
        m_log = json::array();
        replyJson(response, 200, json::object());
    });
    m_control.Post("/fault", [this](const httplib::Request &request, httplib::Response &response) {
        try {
            const json spec = json::parse(request.body);
            for (const json &one : spec.is_array() ? spec : json::array({spec}))
                m_faults.add(one);
            replyJson(response, 200, json::object());
        } catch (const json::exception &error) {
            replyJson(response, 400, json{{"message", error.what()}});
        }
    });
    m_control.Post("/release", [this](const httplib::Request &, httplib::Response &response) {
        m_faults.release();
        replyJson(response, 200, json::object());
    });
    m_control.Get("/held", [this](const httplib::Request &, httplib::Response &response) {
        replyJson(response, 200, json{{"held", m_faults.heldCount()}});
    });
}
