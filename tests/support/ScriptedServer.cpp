#include "tests/support/ScriptedServer.h"

#include "tests/support/ServerSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <limits>
#include <list>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <boost/asio/buffer.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/fields.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>

namespace zel::test {

namespace {

namespace http = boost::beast::http;

constexpr std::size_t MostHeadBytes = 1 << 20;

/// A client that goes away while something is sent to it is no reason to die.
void keepBrokenPipesQuiet()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

std::string headText(int status, const ServerHeaders& headers)
{
    http::response_header<> head;
    head.version(11);
    head.result(static_cast<unsigned>(status));
    for (const auto& [name, value] : headers) {
        head.insert(name, value);
    }
    std::ostringstream text;
    text << head;
    return text.str();
}

bool sameName(std::string_view a, std::string_view b)
{
    return boost::beast::iequals({a.data(), a.size()}, {b.data(), b.size()});
}

/// What the connections of a server share; under the mutex, or fixed from the start.
struct Shared
{
    ServerScript script;
    std::unique_ptr<ServerTls> tls;
    std::atomic<std::uint64_t> bytesTaken{0};

    std::mutex mutex;
    std::condition_variable changed;
    bool ending = false;
    std::vector<ServerRequest> requests;
    std::set<std::string> marks;
};

class Connection : public ServerConnection
{
public:
    Connection(Shared& shared, int socket, unsigned number)
        : m_shared(shared), m_socket(socket, shared.tls.get(), shared.bytesTaken), m_number(number)
    {
    }
    ~Connection() override
    {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

    void start()
    {
        m_thread = std::thread([this] { run(); });
    }
    /// Under the shared mutex.
    bool ended() const { return m_ended; }
    /// Under the shared mutex.
    void interrupt() { m_socket.interrupt(); }

    bool respond(int status, const ServerHeaders& headers, std::string_view body) override
    {
        std::string bytes = wholeHead(status, headers, body.size());
        if (!m_headOnly) {
            bytes += body;
        }
        m_answer = Answer::Whole;
        return sendBytes(bytes);
    }

    bool beginBody(int status, const ServerHeaders& headers, std::uint64_t length) override
    {
        m_bodyLeft = m_headOnly ? 0 : length;
        m_answer = Answer::Counted;
        return sendBytes(wholeHead(status, headers, length));
    }

    bool send(std::string_view bytes) override
    {
        if (m_answer == Answer::Counted && m_bodyLeft >= bytes.size()) {
            m_bodyLeft -= bytes.size();
        } else {
            m_answer = Answer::Raw;
        }
        return sendBytes(bytes);
    }

    bool beginChunks(int status, const ServerHeaders& headers) override
    {
        m_answer = Answer::Raw;
        ServerHeaders all = withConnection(headers);
        all.emplace_back("Transfer-Encoding", "chunked");
        return sendBytes(headText(status, all));
    }

    bool chunk(std::string_view bytes) override
    {
        std::ostringstream text;
        text << std::hex << bytes.size() << "\r\n" << bytes << "\r\n";
        return bytes.empty() || sendBytes(text.str());
    }

    bool endChunks() override
    {
        m_answer = Answer::Whole;
        return sendBytes("0\r\n\r\n");
    }

    void close() override
    {
        m_closed = true;
        m_socket.endSending();
    }

    void reset() override
    {
        m_closed = true;
        const std::lock_guard guard(m_shared.mutex);
        m_socket.reset();
    }

    void waitUntilPeerCloses() override
    {
        m_answer = Answer::Raw;
        m_socket.waitUntilPeerCloses();
    }

    void mark(const std::string& word) override
    {
        const std::lock_guard guard(m_shared.mutex);
        m_shared.marks.insert(word);
        m_shared.changed.notify_all();
    }

    bool waitForMark(const std::string& word) override
    {
        std::unique_lock lock(m_shared.mutex);
        m_shared.changed.wait(lock,
                              [&] { return m_shared.ending || m_shared.marks.contains(word); });
        return !m_shared.ending;
    }

private:
    /// How the current answer was sent.
    enum class Answer
    {
        Raw,
        Counted,
        Whole
    };

    void run()
    {
        keepBrokenPipesQuiet();
        if (m_socket.handshake()) {
            serve();
            if (!m_closed) {
                m_socket.endSending();
            }
            // Closing while the client still sends would take back what it has not read yet.
            m_socket.waitUntilPeerCloses();
        }
        const std::lock_guard guard(m_shared.mutex);
        m_socket.close();
        m_ended = true;
        m_shared.changed.notify_all();
    }

    void serve()
    {
        ServerRequest request;
        bool more = true;
        while (more && readRequest(request)) {
            {
                const std::lock_guard guard(m_shared.mutex);
                m_shared.requests.push_back(request);
                m_shared.changed.notify_all();
            }
            m_answer = Answer::Raw;
            m_headOnly = request.method == "HEAD";
            m_shared.script(request, *this);
            const bool whole =
                m_answer == Answer::Whole || (m_answer == Answer::Counted && m_bodyLeft == 0);
            more = whole && m_keepAlive && !m_closed;
        }
    }

    /// @return false when the client sends no further request, or something else
    bool readRequest(ServerRequest& request)
    {
        std::size_t headEnd = 0;
        while ((headEnd = m_received.find("\r\n\r\n")) == std::string::npos) {
            if (m_received.size() > MostHeadBytes || !readMore()) {
                return false;
            }
        }
        request = {};
        request.head = m_received.substr(0, headEnd + 4);
        request.connection = m_number;
        http::request_parser<http::string_body> parser;
        parser.eager(true);
        parser.header_limit(MostHeadBytes);
        parser.body_limit(std::numeric_limits<std::uint64_t>::max());
        while (!parser.is_done()) {
            boost::beast::error_code error;
            const std::size_t used = parser.put(boost::asio::buffer(m_received), error);
            m_received.erase(0, used);
            if (error && error != http::error::need_more) {
                return false;
            }
            // Within a body the parser takes nothing from nothing, and says no word of it.
            const bool wantsMore = error || used == 0;
            if (wantsMore && !parser.is_done() && !readMore()) {
                return false;
            }
        }
        const auto& message = parser.get();
        request.method = std::string(message.method_string());
        request.target = std::string(message.target());
        request.version = message.version();
        for (const auto& field : message) {
            request.headers.emplace_back(field.name_string(), field.value());
        }
        request.body = message.body();
        m_keepAlive = message.keep_alive();
        return true;
    }

    bool readMore()
    {
        std::array<char, 16384> bytes;
        const std::size_t count = m_socket.receive(bytes.data(), bytes.size());
        m_received.append(bytes.data(), count);
        return count > 0;
    }

    bool sendBytes(std::string_view bytes) { return !m_closed && m_socket.send(bytes); }

    ServerHeaders withConnection(const ServerHeaders& headers) const
    {
        ServerHeaders all = headers;
        if (!m_keepAlive) {
            all.emplace_back("Connection", "close");
        }
        return all;
    }

    std::string wholeHead(int status, const ServerHeaders& headers, std::uint64_t length) const
    {
        ServerHeaders all = withConnection(headers);
        all.emplace_back("Content-Length", std::to_string(length));
        return headText(status, all);
    }

    Shared& m_shared;
    ServerSocket m_socket;
    const unsigned m_number;
    std::string m_received; ///< that no request has taken yet
    bool m_keepAlive = false;
    bool m_headOnly = false;
    bool m_closed = false;
    Answer m_answer = Answer::Raw;
    std::uint64_t m_bodyLeft = 0; ///< of a counted answer
    bool m_ended = false;         ///< under the shared mutex
    std::thread m_thread;
};

} // namespace

std::string ServerRequest::header(std::string_view name) const
{
    const auto found = std::find_if(headers.begin(), headers.end(), [&](const auto& header) {
        return sameName(header.first, name);
    });
    return found == headers.end() ? std::string() : found->second;
}

bool ServerRequest::hasHeader(std::string_view name) const
{
    return std::any_of(headers.begin(), headers.end(),
                       [&](const auto& header) { return sameName(header.first, name); });
}

class ScriptedServer::Implementation
{
public:
    Implementation(ServerScript script, const ServerOptions& options)
    {
        m_shared.script = std::move(script);
        if (!options.certificate.empty()) {
            m_shared.tls = std::make_unique<ServerTls>(options.certificate, options.key);
        }
        listen(options.sendBuffer);
        m_thread = std::thread([this] { run(); });
    }

    ~Implementation()
    {
        {
            const std::lock_guard guard(m_shared.mutex);
            m_shared.ending = true;
            for (const auto& connection : m_connections) {
                connection->interrupt();
            }
            m_shared.changed.notify_all();
        }
        shutdown(m_listener, SHUT_RDWR); // ends accept
        m_thread.join();
        ::close(m_listener);
        m_connections.clear();
    }

    void waitUntilIdle()
    {
        std::list<std::unique_ptr<Connection>> ended;
        std::unique_lock lock(m_shared.mutex);
        m_shared.changed.wait(lock, [this] { return countOpen() == 0; });
        ended.swap(m_connections);
        lock.unlock();
    }

    std::size_t countOpen() const
    {
        return static_cast<std::size_t>(
            std::count_if(m_connections.begin(), m_connections.end(),
                          [](const auto& connection) { return !connection->ended(); }));
    }

    /// The functions of the server that holds this take its mutex.
    Shared m_shared;
    int m_port = 0;
    std::list<std::unique_ptr<Connection>> m_connections; ///< under the mutex
    unsigned m_accepted = 0;                              ///< under the mutex

private:
    void listen(int sendBuffer)
    {
        m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (sendBuffer > 0) {
            // Connections inherit it.
            setsockopt(m_listener, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
        }
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (bind(m_listener, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
            getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
            ::listen(m_listener, SOMAXCONN) != 0) {
            throw std::runtime_error("no loopback server");
        }
        m_port = ntohs(address.sin_port);
    }

    void run()
    {
        int socket = -1;
        while ((socket = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0) {
            std::list<std::unique_ptr<Connection>> ended;
            const std::lock_guard guard(m_shared.mutex);
            if (m_shared.ending) {
                ::close(socket);
                return;
            }
            const auto isEnded = [](const auto& connection) { return connection->ended(); };
            for (auto next = m_connections.begin(); next != m_connections.end();) {
                const auto connection = next++;
                if (isEnded(*connection)) {
                    ended.splice(ended.end(), m_connections, connection);
                }
            }
            m_connections.push_back(std::make_unique<Connection>(m_shared, socket, m_accepted++));
            m_connections.back()->start();
            m_shared.changed.notify_all();
        }
    }

    int m_listener = -1;
    std::thread m_thread;
};

ScriptedServer::ScriptedServer(ServerScript script, const ServerOptions& options)
    : m_implementation(std::make_unique<Implementation>(std::move(script), options))
{
}

ScriptedServer::~ScriptedServer() = default;

int ScriptedServer::port() const
{
    return m_implementation->m_port;
}

std::string ScriptedServer::url(const std::string& path) const
{
    const std::string scheme = m_implementation->m_shared.tls ? "https" : "http";
    return scheme + "://127.0.0.1:" + std::to_string(port()) + path;
}

std::vector<ServerRequest> ScriptedServer::requests() const
{
    const std::lock_guard guard(m_implementation->m_shared.mutex);
    return m_implementation->m_shared.requests;
}

std::vector<ServerRequest> ScriptedServer::waitForRequests(std::size_t count) const
{
    Shared& shared = m_implementation->m_shared;
    std::unique_lock lock(shared.mutex);
    shared.changed.wait(lock, [&] { return shared.requests.size() >= count; });
    return shared.requests;
}

std::size_t ScriptedServer::connectionsOpen() const
{
    const std::lock_guard guard(m_implementation->m_shared.mutex);
    return m_implementation->countOpen();
}

std::size_t ScriptedServer::connectionsAccepted() const
{
    const std::lock_guard guard(m_implementation->m_shared.mutex);
    return m_implementation->m_accepted;
}

void ScriptedServer::waitForConnections(std::size_t count) const
{
    std::unique_lock lock(m_implementation->m_shared.mutex);
    m_implementation->m_shared.changed.wait(lock,
                                            [&] { return m_implementation->m_accepted >= count; });
}

void ScriptedServer::waitUntilIdle()
{
    m_implementation->waitUntilIdle();
}

std::uint64_t ScriptedServer::bytesTaken() const
{
    return m_implementation->m_shared.bytesTaken;
}

void ScriptedServer::mark(const std::string& word)
{
    const std::lock_guard guard(m_implementation->m_shared.mutex);
    m_implementation->m_shared.marks.insert(word);
    m_implementation->m_shared.changed.notify_all();
}

void ScriptedServer::waitForMark(const std::string& word) const
{
    Shared& shared = m_implementation->m_shared;
    std::unique_lock lock(shared.mutex);
    shared.changed.wait(lock, [&] { return shared.marks.contains(word); });
}

} // namespace zel::test
