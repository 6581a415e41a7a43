#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// An HTTP CONNECT proxy on 127.0.0.1 that tunnels to loopback ports only.
// Before each tunnel it asks `decide` with the target and the
// Proxy-Authorization header: an answer given is written as it is, in place
// of the tunnel, and the connection closed.
class ConnectProxy
{
public:
    using Decide = std::function<std::optional<std::string>(const std::string &target, const std::string &authorization)>;

    explicit ConnectProxy(Decide decide);
    ~ConnectProxy();
    ConnectProxy(const ConnectProxy &) = delete;
    ConnectProxy &operator=(const ConnectProxy &) = delete;

    // Listens on `port` (0: any free one) and returns the port.
    int start(int port);

private:
    struct Tunnel
    {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };

    void accept();
    void serve(int client);
    void relay(int client, int upstream);

    Decide m_decide;
    int m_listener = -1;
    std::atomic<bool> m_stopping = false;
    std::thread m_acceptor;
    std::mutex m_mutex; // m_sockets
    std::list<Tunnel> m_tunnels; // the acceptor's, and the destructor's once it has ended
    std::vector<int> m_sockets;
};
