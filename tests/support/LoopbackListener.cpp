#include "tests/support/LoopbackListener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace zel::test {
namespace {

/// A socket that is bound to a free loopback port.
int boundSocket(std::string& port)
{
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (bind(socket, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("no loopback port");
    }
    port = std::to_string(ntohs(address.sin_port));
    return socket;
}

} // namespace

std::string unusedPort()
{
    std::string port;
    ::close(boundSocket(port));
    return port;
}

LoopbackListener::LoopbackListener(std::string answer) : m_answer(std::move(answer))
{
    listen();
}

LoopbackListener::LoopbackListener() : m_silent(true)
{
    listen();
}

void LoopbackListener::listen()
{
    m_socket = boundSocket(m_port);
    if (::listen(m_socket, 8) != 0) {
        throw std::runtime_error("cannot listen");
    }
    m_thread = std::thread([this] { run(); });
}

LoopbackListener::~LoopbackListener()
{
    shutdown(m_socket, SHUT_RDWR); // ends accept
    m_thread.join();
    ::close(m_socket);
}

void LoopbackListener::run()
{
    int connection = -1;
    while ((connection = accept(m_socket, nullptr, nullptr)) >= 0) {
        std::string first(4096, '\0');
        const ssize_t count = recv(connection, first.data(), first.size(), 0);
        first.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        {
            const std::lock_guard guard(m_mutex);
            m_heard.push_back(std::move(first));
        }
        m_changed.notify_all();
        if (m_silent) {
            m_open.push_back(connection);
            continue;
        }
        send(connection, m_answer.data(), m_answer.size(), MSG_NOSIGNAL);
        shutdown(connection, SHUT_RDWR);
        ::close(connection);
    }
    for (const int open : m_open) {
        ::close(open);
    }
}

std::vector<std::string> LoopbackListener::heard() const
{
    const std::lock_guard guard(m_mutex);
    return m_heard;
}

void LoopbackListener::waitForConnection()
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_heard.empty(); });
}

} // namespace zel::test
