#pragma once

#include <mutex>
#include <set>

namespace httplib {
class Client;
}

// The HTTP clients that have a request in flight, so that a stop can break
// them: a content receiver runs only when bytes arrive, and a stalled
// transfer would otherwise wait out the read timeout.
class LiveClients
{
public:
    // Registers a client for the life of one request.
    class Lease
    {
    public:
        Lease(LiveClients &registry, httplib::Client &client);
        ~Lease();
        Lease(const Lease &) = delete;
        Lease &operator=(const Lease &) = delete;

    private:
        LiveClients &m_registry;
        httplib::Client &m_client;
    };

    void stopAll();

private:
    std::mutex m_mutex;
    std::set<httplib::Client *> m_clients;
};
