#include "cloud/TransferRegistry.h"

TransferRegistry::Lease::Lease(TransferRegistry &registry, httplib::Client &client)
    : m_registry(registry)
    , m_client(client)
{
    std::lock_guard lock(m_registry.m_mutex);
    m_registry.m_clients.insert(&m_client);
    // A client made after stopAll() would otherwise run its request to the end.
    if (m_registry.m_stopping)
        m_client.stop();
}

TransferRegistry::Lease::~Lease()
{
    std::lock_guard lock(m_registry.m_mutex);
    m_registry.m_clients.erase(&m_client);
}

void TransferRegistry::stopAll()
{
    std::lock_guard lock(m_mutex);
    m_stopping = true;
    for (httplib::Client *client : m_clients)
        client->stop();
}
