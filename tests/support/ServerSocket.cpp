#include "tests/support/ServerSocket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace zel::test {

namespace {

/// So that the count of what the kernel took is no more than this behind.
constexpr std::size_t SendPieceBytes = 16384;

} // namespace

ServerTls::ServerTls(const std::string& certificate, const std::string& key)
    : m_context(SSL_CTX_new(TLS_server_method()))
{
    if (m_context == nullptr ||
        SSL_CTX_use_certificate_chain_file(m_context, certificate.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(m_context, key.c_str(), SSL_FILETYPE_PEM) != 1) {
        SSL_CTX_free(m_context);
        throw std::runtime_error("no use of " + certificate + " and " + key);
    }
}

ServerTls::~ServerTls()
{
    SSL_CTX_free(m_context);
}

ServerSocket::ServerSocket(int socket, const ServerTls* tls, std::atomic<std::uint64_t>& taken)
    : m_socket(socket), m_taken(taken)
{
    const int on = 1;
    setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (tls != nullptr) {
        m_tls = SSL_new(tls->context());
        SSL_set_fd(m_tls, m_socket);
    }
}

ServerSocket::~ServerSocket()
{
    SSL_free(m_tls);
    close();
}

bool ServerSocket::handshake()
{
    return m_tls == nullptr || SSL_accept(m_tls) == 1;
}

std::size_t ServerSocket::receive(char* buffer, std::size_t size)
{
    if (m_socket < 0) {
        return 0;
    }
    if (m_tls != nullptr) {
        const int count = SSL_read(m_tls, buffer, static_cast<int>(size));
        return count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    ssize_t count = 0;
    do {
        count = recv(m_socket, buffer, size, 0);
    } while (count < 0 && errno == EINTR);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

bool ServerSocket::send(std::string_view bytes)
{
    if (m_socket < 0) {
        return false;
    }
    return m_tls != nullptr ? sendTls(bytes) : sendPlain(bytes);
}

bool ServerSocket::sendPlain(std::string_view bytes)
{
    while (!bytes.empty()) {
        const std::size_t piece = std::min(bytes.size(), SendPieceBytes);
        // A blocking call tells of its bytes only when all are gone.
        const ssize_t count = ::send(m_socket, bytes.data(), piece, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count > 0) {
            m_taken += static_cast<std::uint64_t>(count);
            bytes.remove_prefix(static_cast<std::size_t>(count));
            continue;
        }
        if (errno != EAGAIN && errno != EINTR) {
            return false;
        }
        pollfd writable = {m_socket, POLLOUT, 0};
        poll(&writable, 1, -1);
    }
    return true;
}

bool ServerSocket::sendTls(std::string_view bytes)
{
    while (!bytes.empty()) {
        const std::size_t piece = std::min(bytes.size(), SendPieceBytes);
        if (SSL_write(m_tls, bytes.data(), static_cast<int>(piece)) <= 0) {
            return false;
        }
        m_taken += piece;
        bytes.remove_prefix(piece);
    }
    return true;
}

void ServerSocket::endSending()
{
    if (m_socket < 0) {
        return;
    }
    if (m_tls != nullptr && SSL_is_init_finished(m_tls) == 1) {
        SSL_shutdown(m_tls);
    }
    shutdown(m_socket, SHUT_WR);
}

void ServerSocket::waitUntilPeerCloses()
{
    if (m_socket < 0) {
        return;
    }
    char ignored[4096];
    ssize_t count = 0;
    do {
        count = recv(m_socket, ignored, sizeof ignored, 0);
    } while (count > 0 || (count < 0 && errno == EINTR));
}

void ServerSocket::close()
{
    if (m_socket >= 0) {
        ::close(m_socket);
    }
    m_socket = -1;
}

void ServerSocket::reset()
{
    if (m_socket < 0) {
        return;
    }
    const linger atOnce = {1, 0};
    setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    close();
}

void ServerSocket::interrupt()
{
    if (m_socket >= 0) {
        shutdown(m_socket, SHUT_RDWR);
    }
}

} // namespace zel::test
