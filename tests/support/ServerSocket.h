#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

struct ssl_ctx_st;
struct ssl_st;

namespace zel::test {

/// Certificate and key of a TLS server, for any number of connections.
class ServerTls
{
public:
    /// PEM files. Throws std::runtime_error when they cannot be used.
    ServerTls(const std::string& certificate, const std::string& key);
    ~ServerTls();
    ServerTls(const ServerTls&) = delete;
    ServerTls& operator=(const ServerTls&) = delete;

    ssl_ctx_st* context() const { return m_context; }

private:
    ssl_ctx_st* m_context;
};

/// The server's end of a connection, plain or TLS. One thread uses it; `interrupt` may come from
/// another, while the owner keeps it from running beside `close` and `reset`.
class ServerSocket
{
public:
    /// @param socket  owned from here on
    /// @param tls     null for a plain connection; outlives this object
    /// @param taken   counts the bytes that the kernel takes
    ServerSocket(int socket, const ServerTls* tls, std::atomic<std::uint64_t>& taken);
    ~ServerSocket();
    ServerSocket(const ServerSocket&) = delete;
    ServerSocket& operator=(const ServerSocket&) = delete;

    /// @return false when the client wants no such connection
    bool handshake();
    /// Blocks until there is something.
    /// @return bytes read; 0 when the client has closed or is gone
    std::size_t receive(char* buffer, std::size_t size);
    /// Sends all. Blocks while the client does not read.
    /// @return false when the client is gone
    bool send(std::string_view bytes);
    /// Tells the client that nothing comes any more.
    void endSending();
    /// Passes over what the client sends until it closes.
    void waitUntilPeerCloses();
    void close();
    /// Closes with RST.
    void reset();
    /// Lets a blocked call return, and every later one.
    void interrupt();

private:
    bool sendPlain(std::string_view bytes);
    bool sendTls(std::string_view bytes);

    int m_socket;
    ssl_st* m_tls = nullptr; ///< owned
    std::atomic<std::uint64_t>& m_taken;
};

} // namespace zel::test
