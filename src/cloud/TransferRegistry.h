#pragma once

#include <httplib.h>

#include <atomic>
#include <mutex>
#include <set>

// The clients that move files right now, so that tearing down the cloud client
// can stop them mid-body instead of waiting for a transfer to end. Content
// providers and receivers also look at stopping() once per block.
class TransferRegistry
{
public:
    // Keeps a client listed for its scope.
    class Lease
    {
    public:
        Lease(TransferRegistry &registry, httplib::Client &client);
        ~Lease();
        Lease(const Lease &) = delete;
        Lease &operator=(const Lease &) = delete;

    private:
        TransferRegistry &m_registry;
        httplib::Client &m_client;
    };

    bool stopping() const { return m_stopping; }
    // Sets the flag and stops every listed client.
    void stopAll();

private:
    std::atomic<bool> m_stopping = false;
    std::mutex m_mutex;
    std::set<httplib::Client *> m_clients;
};
