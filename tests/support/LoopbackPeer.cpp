#include "tests/support/LoopbackPeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace zel::test {

LoopbackPeer::LoopbackPeer() : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (m_listener < 0 ||
        bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(m_listener, 1) != 0) {
        throw std::runtime_error("no loopback socket");
    }
}

LoopbackPeer::~LoopbackPeer()
{
    hangUp();
    ::close(m_listener);
}

std::string LoopbackPeer::url() const
{
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size);
    return "tcp://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
}

bool LoopbackPeer::accept()
{
    hangUp();
    m_connection = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
    return m_connection >= 0;
}

bool LoopbackPeer::send(const std::string& bytes)
{
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count =
            ::send(m_connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

void LoopbackPeer::hangUp()
{
    if (m_connection >= 0) {
        ::close(m_connection);
    }
    m_connection = -1;
}

} // namespace zel::test
