#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zel::test {

/// Name and value, in the order on the wire.
using ServerHeaders = std::vector<std::pair<std::string, std::string>>;

struct ServerRequest
{
    std::string method;
    std::string target; ///< path and query as they were sent
    unsigned version = 11;
    ServerHeaders headers;
    std::string head; ///< request line and header lines as they were sent, with the empty line
    std::string body;
    unsigned connection = 0; ///< counts from 0; the same for requests that share a connection

    /// The first header of this name in any case; empty without one.
    std::string header(std::string_view name) const;
    bool hasHeader(std::string_view name) const;
};

/// A script's end of the connection. Used on the connection's thread only.
///
/// A connection stays open for another request when the answer was a whole one by `respond`,
/// `beginBody` or `endChunks` and the client wants it. Behind anything else it is closed when the
/// script returns. Everything that sends answers false when the client has gone.
class ServerConnection
{
public:
    virtual ~ServerConnection() = default;

    /// A whole answer with its Content-Length. To a HEAD request only the head goes out.
    virtual bool respond(int status, const ServerHeaders& headers, std::string_view body) = 0;
    /// The head of an answer whose body is sent by `send`.
    virtual bool beginBody(int status, const ServerHeaders& headers, std::uint64_t length) = 0;
    /// The bytes as they are, whatever they are. Blocks while the client does not read.
    virtual bool send(std::string_view bytes) = 0;

    virtual bool beginChunks(int status, const ServerHeaders& headers) = 0;
    virtual bool chunk(std::string_view bytes) = 0;
    virtual bool endChunks() = 0;

    /// Ends the connection in order: what was sent still arrives.
    virtual void close() = 0;
    /// Ends the connection with RST: what the client has not read yet is lost.
    virtual void reset() = 0;
    /// Says nothing until the client goes away or the server ends.
    virtual void waitUntilPeerCloses() = 0;

    /// Marks are words that a script and its test tell each other, see `ScriptedServer::mark`.
    virtual void mark(const std::string& word) = 0;
    /// @return false when the server ends before the mark is set
    virtual bool waitForMark(const std::string& word) = 0;
};

using ServerScript = std::function<void(const ServerRequest&, ServerConnection&)>;

struct ServerOptions
{
    /// PEM files of a TLS server; plain without them.
    std::string certificate = {};
    std::string key = {};
    /// Bytes of each connection's send buffer in the kernel, so that a client that does not read
    /// is felt early; 0 leaves the system's.
    int sendBuffer = 0;
};

/// An HTTP/1.1 server on a free port of 127.0.0.1, each of whose answers is a script's. Every
/// connection has a thread of its own, on which the script runs. The end of the object ends all
/// connections at once, scripts that wait or send included.
///
///     ScriptedServer server([](const ServerRequest& request, ServerConnection& connection) {
///         connection.respond(200, {{"Content-Type", "text/plain"}}, request.target);
///     });
///     client.open(server.url("/x"));
class ScriptedServer
{
public:
    explicit ScriptedServer(ServerScript script, const ServerOptions& options = {});
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    int port() const;
    /// With the address 127.0.0.1.
    /// @param path  begins with a slash
    std::string url(const std::string& path = "/") const;

    /// All requests so far, in the order of their arrival.
    std::vector<ServerRequest> requests() const;
    /// Blocks until there have been this many requests, and returns all.
    std::vector<ServerRequest> waitForRequests(std::size_t count) const;

    /// Connections that have not ended on both sides.
    std::size_t connectionsOpen() const;
    /// All connections that there have been.
    std::size_t connectionsAccepted() const;
    /// Blocks until this many connections have come.
    void waitForConnections(std::size_t count) const;
    /// Blocks until the client has closed every connection, and their threads have ended.
    void waitUntilIdle();
    /// Bytes that the kernel has taken from scripts, of all connections, heads included.
    std::uint64_t bytesTaken() const;

    /// Sets a mark and wakes who waits for it. Marks stay set.
    void mark(const std::string& word);
    /// Blocks until a script has set the mark.
    void waitForMark(const std::string& word) const;

private:
    class Implementation;
    std::unique_ptr<Implementation> m_implementation;
};

} // namespace zel::test
