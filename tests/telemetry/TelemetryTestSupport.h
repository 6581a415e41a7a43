#pragma once

#include <httplib.h>

#include "ThrowawayCa.h"
#include "../support/StandInProcess.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <condition_variable>
#include <mutex>
#include <thread>

// An HTTP or HTTPS server on 127.0.0.1 in a thread of its own. It keeps every
// request, and a handler can hold its answer until the test releases it.
class LoopbackServer
{
public:
    using Handler = std::function<void(const httplib::Request &, httplib::Response &)>;

    explicit LoopbackServer(const testca::Files *tls = nullptr)
        : server(tls ? std::make_unique<httplib::SSLServer>(tls->serverCert.c_str(), tls->serverKey.c_str())
                     : std::make_unique<httplib::Server>())
        , scheme(tls ? "https" : "http")
    {
        // Bound before the thread starts: early connections wait in the backlog.
        port = server->bind_to_any_port("127.0.0.1");
        thread = std::thread([this] { server->listen_after_bind(); });
    }
    ~LoopbackServer()
    {
        release();
        server->stop();
        thread.join();
    }

    QString base(const char *host = "127.0.0.1") const
    {
        return QStringLiteral("%1://%2:%3").arg(QLatin1String(scheme), QLatin1String(host)).arg(port);
    }

    void on(const char *method, const std::string &path, Handler handler)
    {
        auto recorded = [this, handler](const httplib::Request &request, httplib::Response &response) {
            locked([&] { log.push_back(request); });
            handler(request, response);
        };
        std::string_view(method) == "POST" ? server->Post(path, recorded) : server->Get(path, recorded);
    }

    std::vector<httplib::Request> requests()
    {
        const std::lock_guard lock(mutex);
        return log;
    }
    void clear()
    {
        locked([this] { log.clear(), released = false; });
    }
    // For handlers: waits until the test calls release(), ten seconds at most.
    void hold()
    {
        std::unique_lock lock(mutex);
        wake.wait_for(lock, std::chrono::seconds(10), [this] { return released; });
    }
    void release()
    {
        locked([this] { released = true; });
        wake.notify_all();
    }

private:
    template<typename F> void locked(F &&work)
    {
        const std::lock_guard lock(mutex);
        work();
    }

    std::unique_ptr<httplib::Server> server;
    const char *scheme;
    int port = 0;
    std::thread thread;
    std::mutex mutex;
    std::condition_variable wake;
    bool released = false;
    std::vector<httplib::Request> log;
};

inline QString qs(const std::string &text) { return QString::fromStdString(text); }

inline LoopbackServer::Handler answer(std::string body, int status = 200, const char *type = "application/json")
{
    return [=](const httplib::Request &, httplib::Response &response) {
        response.status = status;
        response.set_content(body, type);
    };
}
