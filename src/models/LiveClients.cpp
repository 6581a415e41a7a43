#include "models/LiveClients.h"

#include <httplib.h>

LiveClients::Lease::Lease(LiveClients &registry, httplib::Client &client)
    : m_registry(registry)
    , m_client(client)
{
    const std::lock_guard lock(m_registry.m_mutex);
    m_registry.m_clients.insert(&m_client);
}

LiveClients::Lease::~Lease()
{
    const std::lock_guard lock(m_registry.m_mutex);
    m_registry.m_clients.erase(&m_client);
}

void LiveClients::stopAll()
{
    // Under the lock, so no client is freed while it is being stopped.
    const std::lock_guard lock(m_mutex);
    for (httplib::Client *client : m_clients)
        client->stop();
}
