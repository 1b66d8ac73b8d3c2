#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace zel::test {

/// A loopback port on which connecting never ends: its queue is full, and nobody empties it.
class FullBacklog
{
public:
    FullBacklog() : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        socklen_t size = sizeof m_address;
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(m_listener, reinterpret_cast<const sockaddr*>(&m_address), size) != 0 ||
            getsockname(m_listener, reinterpret_cast<sockaddr*>(&m_address), &size) != 0 ||
            listen(m_listener, 0) != 0) {
            throw std::runtime_error("no full backlog");
        }
        // What still connects takes a place in the queue.
        while (connectOne()) {
        }
    }
    ~FullBacklog()
    {
        for (const int client : m_clients) {
            close(client);
        }
        close(m_listener);
    }
    FullBacklog(const FullBacklog&) = delete;
    FullBacklog& operator=(const FullBacklog&) = delete;

    std::string url() const
    {
        return "http://127.0.0.1:" + std::to_string(ntohs(m_address.sin_port)) + "/";
    }

private:
    /// @return whether the connection came about. On loopback that is settled within the call.
    bool connectOne()
    {
        const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        m_clients.push_back(client);
        connect(client, reinterpret_cast<const sockaddr*>(&m_address), sizeof m_address);
        pollfd writable = {client, POLLOUT, 0};
        return poll(&writable, 1, 0) == 1;
    }

    int m_listener;
    sockaddr_in m_address = {};
    std::vector<int> m_clients;
};

} // namespace zel::test
