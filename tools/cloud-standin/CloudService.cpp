#include "CloudService.h"

#include "ThrowawayCa.h"

#include <openssl/evp.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>

extern char **environ;

using nlohmann::json;
namespace fs = std::filesystem;

namespace {

constexpr const char *kJson = "application/json";
constexpr const char *kAlreadyAccepted = "The request has already been accepted and is being processed.";

void answer(httplib::Response &res, int status, const json &body)
{
    res.status = status;
    res.set_content(body.dump(), kJson);
}


std::string md5Hex(EVP_MD_CTX *ctx)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(ctx, digest, &length);
    std::string hex;
    char byte[3];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(byte, sizeof byte, "%02x", digest[i]);
        hex += byte;
    }
    return hex;
}

std::string unquoted(std::string text)
{
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"')
        return text.substr(1, text.size() - 2);
    return text;
}

bool runFfmpeg(const std::string &input, const std::string &filter, const std::string &output)
{
    std::vector<std::string> args{"ffmpeg", "-nostdin", "-y", "-loglevel", "error", "-i", input,
                                  "-vf", filter, output};
    std::vector<char *> argv;
    for (std::string &arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, "ffmpeg", nullptr, nullptr, argv.data(), environ) != 0)
        return false;
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Streams a file as the response body, one block per call.
void streamFile(httplib::Response &res, const std::string &path, const std::string &type)
{
    const auto size = fs::file_size(path);
    auto file = std::make_shared<std::ifstream>(path, std::ios::binary);
    res.set_content_provider(size, type, [file](size_t offset, size_t length, httplib::DataSink &sink) {
        std::vector<char> block(std::min<size_t>(length, 1 << 20));
        file->seekg(static_cast<std::streamoff>(offset));
        file->read(block.data(), static_cast<std::streamsize>(block.size()));
        return file->gcount() > 0 && sink.write(block.data(), static_cast<size_t>(file->gcount()));
    });
}

} // namespace

CloudService::CloudService(ServiceOptions options)
    : m_options(std::move(options))
{
}

CloudService::~CloudService()
{
    m_faults.stop();
    m_proxy.reset();
    for (httplib::Server *server : {static_cast<httplib::Server *>(m_video.get()), static_cast<httplib::Server *>(m_videoStaging.get()),
                                    static_cast<httplib::Server *>(m_account.get()), static_cast<httplib::Server *>(m_accountStaging.get()),
                                    static_cast<httplib::Server *>(m_storage.get()), static_cast<httplib::Server *>(m_files.get()),
                                    &m_control})
        if (server)
            server->stop();
    for (std::thread &thread : m_listeners)
        thread.join();
    std::vector<std::thread> renders;
    {
        std::lock_guard lock(m_mutex);
        renders.swap(m_renders);
    }
    for (std::thread &thread : renders)
        thread.join();
}

json CloudService::start()
{
    fs::create_directories(m_options.workDir);
    fs::create_directories(m_options.caDir);
    const testca::Files ca = testca::makeThrowawayCa(m_options.caDir);
    const auto makeServer = [&] {
        auto server = std::make_unique<httplib::SSLServer>(ca.serverCert.c_str(), ca.serverKey.c_str());
        if (!server->is_valid())
            throw std::runtime_error("TLS server could not load its certificate");
        return server;
    };
    m_video = makeServer();
    m_videoStaging = makeServer();
    m_account = makeServer();
    m_accountStaging = makeServer();
    m_storage = makeServer();
    routeVideo(*m_video, "video");
    routeVideo(*m_videoStaging, "videoStaging");
    routeAccount(*m_account, "account", false);
    routeAccount(*m_accountStaging, "accountStaging", true);
    routeStorage(*m_storage);
    routeControl(m_control);
    if (!m_options.filesDir.empty()) {
        m_files = makeServer();
        routeFiles(*m_files);
    }

    json ready = {{"caBundle", ca.caCert},
                  {"token", m_options.token},
                  {"apiKeyProduction", m_options.apiKeyProduction},
                  {"apiKeyStaging", m_options.apiKeyStaging}};
    const auto listen = [&](httplib::Server &server, const std::string &name, const std::string &scheme) {
        // httplib's default pool (8 here) would queue a ninth transfer behind the first eight.
        server.new_task_queue = [] { return new httplib::ThreadPool(32); };
        const int port = server.bind_to_any_port("127.0.0.1");
        if (port <= 0)
            throw std::runtime_error("cannot bind a loopback port");
        ready[name] = scheme + "://127.0.0.1:" + std::to_string(port);
        m_listeners.emplace_back([&server] { server.listen_after_bind(); });
        return port;
    };
    listen(*m_video, "video", "https");
    listen(*m_videoStaging, "videoStaging", "https");
    listen(*m_account, "account", "https");
    listen(*m_accountStaging, "accountStaging", "https");
    m_storagePort = listen(*m_storage, "storage", "https");
    listen(m_control, "control", "http");
    if (m_files)
        listen(*m_files, "files", "https");
    if (m_options.proxyPort >= 0) {
        m_proxy = std::make_unique<ConnectProxy>(
            [this](const std::string &target, const std::string &authorization) { return connectAnswer(target, authorization); });
        ready["proxy"] = "127.0.0.1:" + std::to_string(m_proxy->start(m_options.proxyPort));
    }
    return ready;
}

std::string CloudService::storageUrl() const
{
    return "https://127.0.0.1:" + std::to_string(m_storagePort);
}

std::string CloudService::partPath(const Job &job, int part) const
{
    return m_options.workDir + "/" + job.id + "/part-" + std::to_string(part);
}

CloudService::JobPtr CloudService::findJob(const std::string &id)
{
    std::lock_guard lock(m_mutex);
    const auto it = m_jobs.find(id);
    return it == m_jobs.end() ? nullptr : it->second;
}

bool CloudService::bearerOk(const httplib::Request &req, httplib::Response &res) const
{
    if (req.get_header_value("Authorization") == "Bearer " + m_options.token)
        return true;
    answer(res, 401, {{"message", "Unauthorized"}});
    return false;
}

void CloudService::serve(const std::string &server, const std::string &call, const httplib::Request &req,
                         httplib::Response &res, const JobPtr &job, const Route &route)
{
    json entry = {{"server", server}, {"call", call}, {"method", req.method}, {"path", req.path},
                  {"job", job ? job->id : std::string()}};
    json headers = json::object();
    for (const char *name : {"Authorization", "x-api-key", "Content-Type", "x-desktop-app-version", "Range", "Host",
                             "Accept-Encoding"})
        if (req.has_header(name))
            headers[name] = req.get_header_value(name);
    entry["headers"] = headers;
    entry["bodySize"] = req.body.empty() ? std::stoull("0" + req.get_header_value("Content-Length")) : req.body.size();
    if (!req.body.empty())
        entry["body"] = json::parse(req.body, nullptr, false).is_discarded() ? json(req.body) : json::parse(req.body);
    {
        std::lock_guard lock(m_mutex);
        entry["seq"] = m_log.size();
        m_log.push_back(entry);
    }

    const std::optional<Fault> fault = m_faults.arrive(call, job ? job->id : std::string());
    const std::string kind = fault ? fault->kind : std::string();
    if (kind == "status") {
        res.status = fault->status;
        // httplib would cut any body to the requested range, and answer 416 for
        // a range past it: a ranged call gets the status alone.
        if (req.ranges.empty() || !fault->body.empty())
            res.set_content(fault->body, fault->body.starts_with("<") ? "application/xml" : kJson);
        return;
    }
    if (kind == "ignoreRange") {
        // A server that does not do ranges: the whole file, 200. The request
        // object is the server's own and not const; only the handler sees it so.
        const_cast<httplib::Request &>(req).ranges.clear();
    }
    if (kind == "drop") {
        dropConnection(req.remote_port);
        return;
    }
    if (kind == "malformed") {
        res.set_content("{\"requestId\": [\"unclosed", kJson);
        return;
    }
    route(req, res, job);
    if (kind == "noEtag")
        res.headers.erase("ETag");
    if (kind == "truncated" && !res.body.empty())
        res.body.resize(res.body.size() / 2);
    if (kind == "dropMidBody") {
        if (!res.content_provider_) {
            auto body = std::make_shared<std::string>(std::move(res.body));
            res.body.clear();
            res.set_content_provider(body->size(), kJson,
                                     [body](size_t offset, size_t length, httplib::DataSink &sink) {
                                         return sink.write(body->data() + offset, std::min(length, body->size() - offset));
                                     });
        }
        // The declared length stays; the connection ends at half of it, or at
        // half of the one range asked for.
        size_t half = res.content_length_ / 2;
        if (req.ranges.size() == 1 && req.ranges[0].first >= 0 && req.ranges[0].second >= req.ranges[0].first)
            half = static_cast<size_t>(req.ranges[0].first + (req.ranges[0].second - req.ranges[0].first + 1) / 2);
        res.content_provider_ = [inner = res.content_provider_, half](size_t offset, size_t length,
                                                                      httplib::DataSink &sink) {
            if (offset >= half)
                return false;
            return inner(offset, std::min(length, half - offset), sink);
        };
    }
}

void CloudService::routeVideo(httplib::Server &server, const std::string &name)
{
    server.Post("/video/", [this, name](const httplib::Request &req, httplib::Response &res) {
        serve(name, "create", req, res, nullptr, [this](const auto &req, auto &res, const JobPtr &) {
            if (!bearerOk(req, res))
                return;
            const json body = json::parse(req.body, nullptr, false);
            if (body.is_discarded() || !body.contains("source") || !body.contains("output")) {
                answer(res, 400, {{"message", "The request body is not a video description."}});
                return;
            }
            auto job = std::make_shared<Job>();
            job->size = body.at("source").value("size", 0ull);
            job->request = body;
            const unsigned long long mib = (job->size >> 20) + 1;
            {
                std::lock_guard lock(m_mutex);
                job->id = "job-" + std::to_string(m_nextJob++);
                m_jobs[job->id] = job;
            }
            answer(res, 201, {{"requestId", job->id},
                              {"estimates", {{"cost", {mib, 2 * mib}}, {"time", {30 * mib, 60 * mib}}}}});
        });
    });
    const auto jobRoute = [this, &server, name](const char *method, const std::string &pattern, const std::string &call,
                                                Route route) {
        const auto handler = [this, name, call, route](const httplib::Request &req, httplib::Response &res) {
            const JobPtr job = findJob(req.matches[1]);
            serve(name, call, req, res, job, [this, route](const auto &req, auto &res, const JobPtr &job) {
                if (!bearerOk(req, res))
                    return;
                if (!job) {
                    answer(res, 404, {{"message", "No such request."}});
                    return;
                }
                route(req, res, job);
            });
        };
        if (std::string(method) == "PATCH")
            server.Patch(pattern, handler);
        else if (std::string(method) == "GET")
            server.Get(pattern, handler);
        else
            server.Delete(pattern, handler);
    };
    jobRoute("PATCH", R"(/video/([^/]+)/accept/)", "accept", [this](const auto &, auto &res, const JobPtr &job) {
        std::lock_guard lock(m_mutex);
        const bool first = job->status == "requested";
        if (first) {
            job->partCount = static_cast<int>(std::max(1ull, (job->size + m_options.chunkSize - 1) / m_options.chunkSize));
            job->status = "uploading";
        } else if (job->status != "uploading") {
            answer(res, 400, {{"message", job->status == "cancelled" ? "The request was cancelled." : kAlreadyAccepted}});
            return;
        }
        json urls = json::array();
        for (int part = 1; part <= job->partCount; ++part)
            urls.push_back(storageUrl() + "/upload/" + job->id + "/" + std::to_string(part) + "?signature=standin");
        // An accepted request that still waits for its parts answers 400 with the same URLs.
        answer(res, first ? 200 : 400, first ? json{{"urls", urls}} : json{{"uploadUrls", urls}});
    });
    jobRoute("PATCH", R"(/video/([^/]+)/complete-upload/)", "complete",
             [this](const auto &req, auto &res, const JobPtr &job) {
                 const json body = json::parse(req.body, nullptr, false);
                 std::unique_lock lock(m_mutex);
                 if (job->status != "uploading" || body.is_discarded() || !body.contains("uploadResults")) {
                     answer(res, 400, {{"message", "The upload cannot be completed."}});
                     return;
                 }
                 std::map<int, std::string> given;
                 for (const json &part : body.at("uploadResults"))
                     given[part.value("partNum", 0)] = unquoted(part.value("eTag", std::string()));
                 for (int part = 1; part <= job->partCount; ++part) {
                     const auto stored = job->parts.find(part);
                     if (stored == job->parts.end() || given[part] != stored->second) {
                         answer(res, 400, {{"message", "Part " + std::to_string(part) + " is missing or does not match its ETag."}});
                         return;
                     }
                 }
                 job->status = "processing";
                 job->message = "Rendering";
                 job->polls = 0;
                 lock.unlock();
                 finishUpload(job);
                 answer(res, 200, json::object());
             });
    jobRoute("GET", R"(/video/([^/]+)/status/)", "status", [this](const auto &, auto &res, const JobPtr &job) {
        std::lock_guard lock(m_mutex);
        json body = {{"status", job->status == "uploading" ? "requested" : job->status},
                     {"message", job->message}, {"progress", 0}};
        if (job->status == "processing") {
            ++job->polls;
            if (job->polls > m_options.pollsBeforeComplete && job->resultReady) {
                job->status = "complete";
                job->message = "Complete";
            } else {
                body["status"] = job->polls == 1 ? "preprocessing" : "processing";
                body["progress"] = std::min(99, job->polls * 30);
            }
        }
        if (job->status == "complete") {
            const auto size = fs::file_size(job->resultPath);
            body = {{"status", "complete"}, {"message", job->message}, {"progress", 100},
                    {"comparisonTool", storageUrl() + "/compare/" + job->id},
                    {"download", {{"url", storageUrl() + "/result/" + job->id + "/" + fs::path(job->resultPath).filename().string()}}},
                    {"outputFileSizeMb", (size + (1 << 20) - 1) >> 20}};
        }
        answer(res, 200, body);
    });
    jobRoute("GET", R"(/video/([^/]+)/metrics/)", "metrics", [](const auto &, auto &res, const JobPtr &job) {
        answer(res, 200, {{"requestId", job->id}, {"downloads", 1}});
    });
    jobRoute("DELETE", R"(/video/([^/]+)/)", "cancel", [this](const auto &, auto &res, const JobPtr &job) {
        std::lock_guard lock(m_mutex);
        job->status = "cancelled";
        job->message = "Cancelled";
        answer(res, 200, json::object());
    });
    server.Get("/video/history", [this, name](const httplib::Request &req, httplib::Response &res) {
        serve(name, "history", req, res, nullptr, [this](const auto &req, auto &res, const JobPtr &) {
            if (!bearerOk(req, res))
                return;
            json result = json::array();
            std::lock_guard lock(m_mutex);
            for (const auto &[id, job] : m_jobs)
                result.push_back({{"id", id}, {"status", job->status == "uploading" ? "requested" : job->status},
                                  {"filters", job->request.value("filters", json::array())},
                                  {"output", job->request.value("output", json::object())}});
            answer(res, 200, {{"result", result}});
        });
    });
    server.Get("/video/status/trials", [this, name](const httplib::Request &req, httplib::Response &res) {
        serve(name, "trials", req, res, nullptr, [this](const auto &req, auto &res, const JobPtr &) {
            if (bearerOk(req, res))
                answer(res, 200, {{"diffusion", {{"remaining", 2}, {"retryAfter", 3600}}}});
        });
    });
    server.Get("/video/status/", [this, name](const httplib::Request &req, httplib::Response &res) {
        serve(name, "cloudStatus", req, res, nullptr, [](const auto &, auto &res, const JobPtr &) {
            answer(res, 200, {{"isAvailable", true}, {"isFrameInterpolationSupported", true},
                              {"supportedModels", {"standin-enhance-1", "standin-interpolate-1"}}});
        });
    });
}

void CloudService::routeAccount(httplib::Server &server, const std::string &name, bool staging)
{
    const std::string key = staging ? m_options.apiKeyStaging : m_options.apiKeyProduction;
    const auto accountRoute = [this, name, key](const std::string &call, Route route) {
        return [this, name, key, call, route](const httplib::Request &req, httplib::Response &res) {
            serve(name, call, req, res, nullptr, [this, key, route](const auto &req, auto &res, const JobPtr &job) {
                if (req.get_header_value("x-api-key") != key) {
                    answer(res, 403, {{"errors", {{{"msg", "Invalid API key"}}}}, {"message", "Forbidden"}});
                    return;
                }
                if (bearerOk(req, res))
                    route(req, res, job);
            });
        };
    };
    const auto balance = [this] {
        return json{{"available_credits", m_available}, {"reserved_credits", m_reserved},
                    {"total_credits", m_available + m_reserved}};
    };
    server.Get("/v3/plutus/balance", accountRoute("balance", [this, balance](const auto &, auto &res, const JobPtr &) {
        std::lock_guard lock(m_mutex);
        answer(res, 200, balance());
    }));
    server.Get(R"(/v3/plutus/product/(.+))", accountRoute("product", [](const auto &, auto &res, const JobPtr &) {
        answer(res, 200, {{"price", "9.99"}, {"regular_price", "12.99"}});
    }));
    server.Post("/v3/plutus/reserve", accountRoute("reserve", [this, balance](const auto &req, auto &res, const JobPtr &) {
        const json body = json::parse(req.body, nullptr, false);
        const int amount = body.is_object() ? body.value("amount", 0) : 0;
        std::lock_guard lock(m_mutex);
        if (amount <= 0 || amount > m_available) {
            answer(res, 400, {{"errors", {{{"msg", "Not enough credits"}}}}, {"message", "Bad request"}});
            return;
        }
        m_available -= amount;
        m_reserved += amount;
        answer(res, 200, balance());
    }));
    server.Patch("/v3/auth/features", accountRoute("features", [](const auto &req, auto &res, const JobPtr &) {
        answer(res, 200, {{"token", "features:" + req.body}});
    }));
}

void CloudService::routeStorage(httplib::Server &server)
{
    server.set_payload_max_length(std::numeric_limits<size_t>::max());
    server.Put(R"(/upload/([^/]+)/(\d+))", [this](const httplib::Request &req, httplib::Response &res,
                                                   const httplib::ContentReader &reader) {
        const JobPtr job = findJob(req.matches[1]);
        const int part = std::stoi(req.matches[2]);
        serve("storage", "chunk", req, res, job, [this, &reader, part](const auto &, auto &res, const JobPtr &job) {
            if (!job || part < 1 || part > job->partCount) {
                res.status = 404;
                res.set_content("<Error><Code>NoSuchUpload</Code></Error>", "application/xml");
                return;
            }
            fs::create_directories(m_options.workDir + "/" + job->id);
            std::ofstream file(partPath(*job, part), std::ios::binary | std::ios::trunc);
            std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> md5(EVP_MD_CTX_new(), EVP_MD_CTX_free);
            EVP_DigestInit_ex(md5.get(), EVP_md5(), nullptr);
            reader([&](const char *data, size_t length) {
                EVP_DigestUpdate(md5.get(), data, length);
                file.write(data, static_cast<std::streamsize>(length));
                return file.good();
            });
            const std::string hex = md5Hex(md5.get());
            {
                std::lock_guard lock(m_mutex);
                job->parts[part] = hex;
            }
            res.set_header("ETag", "\"" + hex + "\"");
            res.status = 200;
        });
    });
    server.Get(R"(/result/([^/]+)/.+)", [this](const httplib::Request &req, httplib::Response &res) {
        const JobPtr job = findJob(req.matches[1]);
        serve("storage", "result", req, res, job, [](const auto &, auto &res, const JobPtr &job) {
            if (!job || !job->resultReady) {
                res.status = 404;
                res.set_content("<Error><Code>NoSuchKey</Code></Error>", "application/xml");
                return;
            }
            streamFile(res, job->resultPath, "application/octet-stream");
        });
    });
}

void CloudService::finishUpload(const JobPtr &job)
{
    std::lock_guard lock(m_mutex);
    m_renders.emplace_back([this, job] {
        const std::string dir = m_options.workDir + "/" + job->id;
        const std::string container = job->request.at("source").value("container", std::string("bin"));
        const std::string input = dir + "/input." + container;
        {
            std::ofstream joined(input, std::ios::binary | std::ios::trunc);
            for (int part = 1; part <= job->partCount; ++part)
                joined << std::ifstream(partPath(*job, part), std::ios::binary).rdbuf();
            for (int part = 1; part <= job->partCount; ++part)
                fs::remove(partPath(*job, part));
        }
        std::string result = input;
        bool ok = true;
        if (!m_options.resultFile.empty()) {
            result = dir + "/result" + fs::path(m_options.resultFile).extension().string();
            std::error_code error;
            ok = fs::copy_file(m_options.resultFile, result, fs::copy_options::overwrite_existing, error);
        } else if (!m_options.renderFilter.empty()) {
            const std::string output = job->request.at("output").value("container", container);
            result = dir + "/result." + output;
            ok = runFfmpeg(input, m_options.renderFilter, result);
        }
        std::lock_guard lock(m_mutex);
        job->resultPath = result;
        if (ok) {
            job->resultReady = true;
        } else {
            job->status = "failed";
            job->message = "The render failed.";
        }
    });
}

void CloudService::routeFiles(httplib::Server &server)
{
    // GET routes take HEAD as well: the length and ETag come without the body.
    server.Get(R"(/(.+))", [this](const httplib::Request &req, httplib::Response &res) {
        serve("files", "file", req, res, nullptr, [this](const auto &req, auto &res, const JobPtr &) {
            const std::string name = req.matches[1];
            const fs::path path = fs::path(m_options.filesDir) / name;
            std::error_code error;
            if (name.find("..") != std::string::npos || !fs::is_regular_file(path, error)) {
                res.status = 404;
                if (req.ranges.empty())
                    res.set_content("<Error><Code>NoSuchKey</Code></Error>", "application/xml");
                return;
            }
            const auto size = fs::file_size(path, error);
            const auto stamp = fs::last_write_time(path, error).time_since_epoch().count();
            res.set_header("ETag", "\"" + std::to_string(size) + "-" + std::to_string(stamp) + "\"");
            streamFile(res, path.string(), "application/octet-stream");
        });
    });
}

std::optional<std::string> CloudService::connectAnswer(const std::string &target, const std::string &authorization)
{
    json entry = {{"server", "proxy"}, {"call", "connect"}, {"method", "CONNECT"}, {"path", target}, {"job", ""}};
    entry["headers"] = authorization.empty() ? json::object() : json{{"Proxy-Authorization", authorization}};
    {
        std::lock_guard lock(m_mutex);
        entry["seq"] = m_log.size();
        m_log.push_back(entry);
    }
    const std::optional<Fault> fault = m_faults.arrive("connect", {});
    const std::string kind = fault ? fault->kind : std::string();
    if (kind == "drop")
        return std::string();
    // A proxy's refusal is its whole answer: the body, when given, is written as it is.
    if (kind == "status")
        return fault->body.empty() ? "HTTP/1.1 " + std::to_string(fault->status) + " Refused\r\nConnection: close\r\n\r\n"
                                   : fault->body;
    return std::nullopt;
}

void CloudService::routeControl(httplib::Server &server)
{
    server.Get("/log", [this](const httplib::Request &, httplib::Response &res) {
        std::lock_guard lock(m_mutex);
        answer(res, 200, m_log);
    });
    server.Post("/reset", [this](const httplib::Request &, httplib::Response &res) {
        m_faults.reset();
        std::lock_guard lock(m_mutex);
        m_log = json::array();
        answer(res, 200, json::object());
    });
    server.Post("/fault", [this](const httplib::Request &req, httplib::Response &res) {
        try {
            const json spec = json::parse(req.body);
            for (const json &one : spec.is_array() ? spec : json::array({spec}))
                m_faults.add(one);
            answer(res, 200, json::object());
        } catch (const json::exception &error) {
            answer(res, 400, {{"message", error.what()}});
        }
    });
    server.Post("/release", [this](const httplib::Request &, httplib::Response &res) {
        m_faults.release();
        answer(res, 200, json::object());
    });
    server.Get("/held", [this](const httplib::Request &, httplib::Response &res) {
        answer(res, 200, {{"held", m_faults.heldCount()}});
    });
    server.Post(R"(/job/([^/]+))", [this](const httplib::Request &req, httplib::Response &res) {
        const JobPtr job = findJob(req.matches[1]);
        const json body = json::parse(req.body, nullptr, false);
        if (!job || !body.is_object()) {
            answer(res, 404, {{"message", "No such request."}});
            return;
        }
        std::lock_guard lock(m_mutex);
        job->status = body.value("status", job->status);
        job->message = body.value("message", job->message);
        answer(res, 200, json::object());
    });
}
