#include "ConnectProxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <stdexcept>

namespace {

sockaddr_in loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

bool sendAll(int fd, const std::string &data)
{
    return ::send(fd, data.data(), data.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(data.size());
}

// The value of header `name` in a request head, matched without regard to case.
std::string headerValue(const std::string &head, const std::string &name)
{
    size_t start = head.find("\r\n");
    while (start != std::string::npos && start + 2 < head.size()) {
        const size_t end = head.find("\r\n", start + 2);
        const std::string line = head.substr(start + 2, end - start - 2);
        const size_t colon = line.find(':');
        if (colon == name.size()
            && std::equal(name.begin(), name.end(), line.begin(), [](char a, char b) { return std::tolower(a) == std::tolower(b); }))
            return line.substr(line.find_first_not_of(' ', colon + 1));
        start = end;
    }
    return {};
}

} // namespace

ConnectProxy::ConnectProxy(Decide decide)
    : m_decide(std::move(decide))
{
}

ConnectProxy::~ConnectProxy()
{
    m_stopping = true;
    if (m_listener >= 0)
        ::shutdown(m_listener, SHUT_RDWR);
    if (m_acceptor.joinable())
        m_acceptor.join();
    {
        const std::lock_guard lock(m_mutex);
        for (const int fd : m_sockets)
            ::shutdown(fd, SHUT_RDWR);
    }
    for (Tunnel &tunnel : m_tunnels)
        tunnel.thread.join();
    if (m_listener >= 0)
        ::close(m_listener);
}

int ConnectProxy::start(int port)
{
    m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int reuse = 1;
    ::setsockopt(m_listener, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    sockaddr_in address = loopback(port);
    socklen_t length = sizeof address;
    if (m_listener < 0 || ::bind(m_listener, reinterpret_cast<sockaddr *>(&address), length) != 0
        || ::listen(m_listener, 64) != 0 || ::getsockname(m_listener, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        throw std::runtime_error("the proxy cannot listen on 127.0.0.1:" + std::to_string(port));
    m_acceptor = std::thread([this] { accept(); });
    return ntohs(address.sin_port);
}

void ConnectProxy::accept()
{
    while (!m_stopping) {
        const int client = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            return;
        }
        // Ended tunnels are joined here, so that a long run does not pile them up.
        m_tunnels.remove_if([](Tunnel &tunnel) {
            if (!*tunnel.done)
                return false;
            tunnel.thread.join();
            return true;
        });
        const std::lock_guard lock(m_mutex);
        m_sockets.push_back(client);
        auto done = std::make_shared<std::atomic<bool>>(false);
        m_tunnels.push_back({std::thread([this, client, done] {
                                 serve(client);
                                 *done = true;
                             }),
                             done});
    }
}

void ConnectProxy::serve(int client)
{
    std::string head;
    char block[4096];
    while (head.find("\r\n\r\n") == std::string::npos && head.size() < 65536) {
        const ssize_t n = ::recv(client, block, sizeof block, 0);
        if (n <= 0)
            break;
        head.append(block, static_cast<size_t>(n));
    }
    // "CONNECT host:port HTTP/1.1"
    const size_t first = head.find(' '), second = head.find(' ', first + 1);
    const bool isConnect = head.starts_with("CONNECT ") && second != std::string::npos;
    const std::string target = isConnect ? head.substr(first + 1, second - first - 1) : std::string();
    const size_t colon = target.rfind(':');
    const std::string host = target.substr(0, colon);
    const int port = colon == std::string::npos ? 0 : std::atoi(target.c_str() + colon + 1);
    if (!isConnect || (host != "127.0.0.1" && host != "localhost") || port <= 0) {
        sendAll(client, "HTTP/1.1 403 Forbidden\r\nConnection: close\r\n\r\n");
    } else if (const auto canned = m_decide(target, headerValue(head, "Proxy-Authorization"))) {
        sendAll(client, *canned);
    } else {
        const int upstream = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = loopback(port);
        if (upstream >= 0 && ::connect(upstream, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            relay(client, upstream);
        else
            sendAll(client, "HTTP/1.1 502 Bad Gateway\r\nConnection: close\r\n\r\n");
        if (upstream >= 0)
            ::close(upstream);
    }
    const std::lock_guard lock(m_mutex);
    std::erase(m_sockets, client);
    ::close(client);
}

void ConnectProxy::relay(int client, int upstream)
{
    if (!sendAll(client, "HTTP/1.1 200 Connection established\r\n\r\n"))
        return;
    pollfd fds[2] = {{client, POLLIN, 0}, {upstream, POLLIN, 0}};
    std::string block(65536, '\0');
    // The short poll lets a stopping proxy end its tunnels.
    for (bool open = true; open && !m_stopping;) {
        if (::poll(fds, 2, 200) < 0 && errno != EINTR)
            return;
        for (int i = 0; i < 2 && open; ++i) {
            if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR)))
                continue;
            const ssize_t n = ::recv(fds[i].fd, block.data(), block.size(), 0);
            open = n > 0 && sendAll(fds[1 - i].fd, block.substr(0, static_cast<size_t>(n)));
        }
    }
}
