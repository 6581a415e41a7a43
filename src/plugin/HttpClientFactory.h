#pragma once

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <functional>
#include <memory>
#include <string>

// Makes the cpp-httplib clients of the cloud and model downloads: redirects
// followed, the proxy of the store "proxy.json" applied, and the server checked
// against the system's authorities plus the configured caBundle.
class HttpClientFactory
{
public:
    // Reads the store in the default model folder.
    HttpClientFactory();
    // Reads the store at storePath. Throws what the JSON library and the file
    // system throw for a store that cannot be read.
    explicit HttpClientFactory(const std::string &storePath);

    // The process-wide instance, made on first use.
    static HttpClientFactory &instance();

    std::shared_ptr<httplib::Client> makeClient(const std::string &url) const;

    // One request through a factory client. `call` gets a client for the URL's
    // origin and the URL's path; redirects to another host or port are followed
    // here, through this factory, at most 20 hops, since the client httplib makes
    // for them would not trust caBundle. When a proxy is configured its CONNECT
    // is tried first with bounded timeouts: an answer that would hang httplib
    // fails the call as no response.
    using Call = std::function<httplib::Result(httplib::Client &client, const std::string &path)>;
    httplib::Result send(const std::string &url, const Call &call) const;

    // Server verification against the system store plus caBundle, with a store
    // of the client's own: its TLS context frees the store, so none is shared.
    static void trust(httplib::Client &client, const std::string &url);

    // Blocks SIGPIPE in the calling thread, for threads that live to make
    // requests: a refused upload then fails with EPIPE whatever handler the
    // application installed.
    static void shieldThreadFromPipeSignal();

    bool proxyEnabled() const { return enabled; }

private:
    void readStore(const std::string &path);
    bool proxyAnswersSanely(const std::string &host, int port) const;

    nlohmann::json settings = nlohmann::json::object();
    bool enabled = false;
};
