#include "plugin/HttpClientFactory.h"

#include "plugin/Configuration.h"

#include "aiengine/ModelManager.h"
#include "aiutils/Logger.h"

#include <openssl/x509.h>

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>

using aiutils::Logger;

namespace {

constexpr int kMaxRedirects = 20;
constexpr int kProbeTimeoutMs = 5000;

struct Origin
{
    std::string origin;  // scheme, host and port
    std::string path;    // from the first "/" after the host, query included
    std::string host;
    int port = 0;
};

bool splitUrl(const std::string &url, Origin &out)
{
    static const std::regex pattern(R"(^(https?)://([^/:]+)(:(\d+))?(/.*)?$)");
    std::smatch match;
    if (!std::regex_match(url, match, pattern))
        return false;
    out.host = match[2];
    out.port = match[4].matched ? std::stoi(match[4]) : (match[1] == "https" ? 443 : 80);
    out.origin = std::string(match[1]) + "://" + out.host + (match[4].matched ? ":" + std::string(match[4]) : "");
    out.path = match[5].matched ? std::string(match[5]) : "/";
    return true;
}

// A socket with both directions bounded, closed on scope exit.
class ProbeSocket
{
public:
    ProbeSocket(const std::string &host, int port)
    {
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        addrinfo *found = nullptr;
        if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
            return;
        for (addrinfo *at = found; at && m_fd < 0; at = at->ai_next) {
            m_fd = ::socket(at->ai_family, at->ai_socktype | SOCK_NONBLOCK, at->ai_protocol);
            if (m_fd < 0)
                continue;
            if (::connect(m_fd, at->ai_addr, at->ai_addrlen) != 0 && !(errno == EINPROGRESS && waitFor(POLLOUT))) {
                ::close(m_fd);
                m_fd = -1;
            }
        }
        freeaddrinfo(found);
    }
    ~ProbeSocket()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    bool valid() const { return m_fd >= 0; }

    bool sendAll(const std::string &text)
    {
        for (size_t sent = 0; sent < text.size();) {
            if (!waitFor(POLLOUT))
                return false;
            const ssize_t n = ::send(m_fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            if (n <= 0)
                return false;
            sent += static_cast<size_t>(n);
        }
        return true;
    }

    // Reads up to the end of the head of an answer, or what came in the time.
    std::string readHead()
    {
        std::string head;
        char block[1024];
        while (head.find("\r\n\r\n") == std::string::npos && head.size() < 16384 && waitFor(POLLIN)) {
            const ssize_t n = ::recv(m_fd, block, sizeof block, 0);
            if (n <= 0)
                break;
            head.append(block, static_cast<size_t>(n));
        }
        return head;
    }

private:
    bool waitFor(short events)
    {
        pollfd entry{m_fd, events, 0};
        if (::poll(&entry, 1, kProbeTimeoutMs) != 1)
            return false;
        if (events == POLLOUT) {
            int error = 0;
            socklen_t length = sizeof error;
            getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &length);
            return error == 0;
        }
        return true;
    }

    int m_fd = -1;
};

std::string lower(std::string text)
{
    for (char &c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

} // namespace

HttpClientFactory::HttpClientFactory()
{
    readStore(aiengine::ModelManager::GetInstance().getModelDirPath().toStdString() + "/proxy.json");
}

HttpClientFactory::HttpClientFactory(const std::string &storePath)
{
    readStore(storePath);
}

void HttpClientFactory::readStore(const std::string &path)
{
    if (!std::filesystem::exists(path)) {
        Logger::Log() << " INFO: " << "No proxy detected";
        return;
    }
    std::ifstream file(path);
    settings = nlohmann::json::parse(file);
    enabled = settings.value("enabled", false);
    const auto field = [this](const char *key) { return settings.contains(key) ? settings[key].dump() : "null"; };
    Logger::Log() << " INFO: " << "Proxy Settings: " << enabled << " hostname: " << field("hostname")
                  << " port: " << field("port") << " username: " << field("username")
                  << " JSON: " << settings.dump();
}

HttpClientFactory &HttpClientFactory::instance()
{
    static HttpClientFactory shared;
    return shared;
}

void HttpClientFactory::trust(httplib::Client &client, const std::string &url)
{
    // OpenSSL writes with plain send(): a server that answers and closes before
    // taking the whole body (a refused upload) would end the application with
    // SIGPIPE. An application that handles the signal itself keeps its handler.
    static const bool pipeSignalHandled = [] {
        struct sigaction current {};
        if (sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL)
            std::signal(SIGPIPE, SIG_IGN);
        return true;
    }();
    Q_UNUSED(pipeSignalHandled);
    if (!url.starts_with("https://"))
        return;
    client.enable_server_certificate_verification(true);
    X509_STORE *store = X509_STORE_new();
    X509_STORE_set_default_paths(store);
    const QString bundle = Configuration::instance().caBundle;
    if (!bundle.isEmpty() && X509_STORE_load_file(store, bundle.toLocal8Bit().constData()) != 1)
        Logger::Log() << "__!__ Could not read the certificate bundle " << bundle;
    client.set_ca_cert_store(store);
}

std::shared_ptr<httplib::Client> HttpClientFactory::makeClient(const std::string &url) const
{
    auto client = std::make_shared<httplib::Client>(url);
    trust(*client, url);
    client->set_follow_location(true);
    if (!enabled)
        return client;
    client->set_proxy(settings.at("hostname").get<std::string>(), settings.at("port").get<int>());
    if (settings.contains("username") && !settings["username"].is_null()
        && !settings["username"].get<std::string>().empty())
        client->set_proxy_basic_auth(settings.at("username").get<std::string>(),
                                     settings.at("password").get<std::string>());
    return client;
}

bool HttpClientFactory::proxyAnswersSanely(const std::string &host, int port) const
{
    const std::string proxy = settings.at("hostname").get<std::string>() + ":" + std::to_string(settings.at("port").get<int>());
    ProbeSocket socket(settings.at("hostname").get<std::string>(), settings.at("port").get<int>());
    const std::string target = host + ":" + std::to_string(port);
    std::string request = "CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\n";
    if (settings.contains("username") && settings["username"].is_string() && !settings["username"].get<std::string>().empty())
        request += "Proxy-Authorization: Basic "
                   + QByteArray::fromStdString(settings["username"].get<std::string>() + ":"
                                               + settings.value("password", std::string()))
                         .toBase64()
                         .toStdString()
                   + "\r\n";
    request += "\r\n";
    const std::string head = socket.valid() && socket.sendAll(request) ? socket.readHead() : std::string();
    const std::string statusLine = head.substr(0, head.find("\r\n"));
    if (statusLine.empty()) {
        Logger::Log() << "__!__ The proxy " << proxy << " did not answer CONNECT";
        return false;
    }
    // httplib waits for ever on a CONNECT answer that closes the connection, and
    // on an HTTP/1.0 one whose reason is not the one it looks for.
    const std::string lowered = lower(head);
    const bool closes = lowered.find("\r\nconnection: close") != std::string::npos;
    const bool oldStyle = statusLine.starts_with("HTTP/1.0") && statusLine.find("Connection established") == std::string::npos;
    if (closes || oldStyle) {
        Logger::Log() << "__!__ The proxy " << proxy << " answered CONNECT with \"" << statusLine << "\"";
        return false;
    }
    return true;
}

void HttpClientFactory::shieldThreadFromPipeSignal()
{
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
}

httplib::Result HttpClientFactory::send(const std::string &url, const Call &call) const
{
    std::string next = url;
    for (int hop = 0; hop <= kMaxRedirects; ++hop) {
        Origin target;
        if (!splitUrl(next, target)) {
            Logger::Log() << "Invalid URL: " << next;
            return httplib::Result(nullptr, httplib::Error::Connection);
        }
        if (enabled && next.starts_with("https://") && !proxyAnswersSanely(target.host, target.port))
            return httplib::Result(nullptr, httplib::Error::Connection);
        const std::shared_ptr<httplib::Client> client = makeClient(target.origin);
        client->set_follow_location(false);
        httplib::Result result = call(*client, target.path);
        if (!result || result->status < 300 || result->status >= 400 || !result->has_header("Location"))
            return result;
        const std::string location = result->get_header_value("Location");
        next = location.starts_with("http://") || location.starts_with("https://") ? location : target.origin + location;
    }
    Logger::Log() << "__!__ More than " << kMaxRedirects << " redirects from " << url;
    return httplib::Result(nullptr, httplib::Error::Connection);
}
