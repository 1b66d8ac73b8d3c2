#include "tests/support/LinkProxy.h"

#include "tests/support/LinkConnection.h"

#include <future>
#include <mutex>
#include <thread>
#include <utility>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>

namespace zel::test {

namespace {

namespace asio = boost::asio;
using boost::system::error_code;
using tcp = asio::ip::tcp;

} // namespace

class LinkProxy::Implementation
{
public:
    Implementation(int serverPort, std::vector<LinkRules> first, LinkRules later)
        : m_serverPort(serverPort), m_first(std::move(first)), m_later(later), m_place(m_context),
          m_acceptor(m_context), m_work(asio::make_work_guard(m_context))
    {
        m_place.open(tcp::v4());
        m_place.set_option(asio::socket_base::reuse_address(true));
        m_place.bind({asio::ip::address_v4::loopback(), 0});
        m_port = m_place.local_endpoint().port();
        comeUp();
        m_thread = std::thread([this] { m_context.run(); });
    }

    ~Implementation()
    {
        command([this] {
            m_acceptor.close();
            for (const auto& connection : m_connections) {
                connection->reset();
            }
        });
        m_work.reset();
        m_thread.join();
    }

    /// Runs something on the proxy's thread, and returns when it is done.
    template <typename Work>
    void command(Work work)
    {
        std::promise<void> done;
        asio::post(m_context, [&] {
            work();
            done.set_value();
        });
        done.get_future().wait();
    }

    /// The following run on the proxy's thread.
    void comeUp()
    {
        if (m_acceptor.is_open()) {
            return;
        }
        m_acceptor.open(tcp::v4());
        m_acceptor.set_option(asio::socket_base::reuse_address(true));
        m_acceptor.bind(m_place.local_endpoint());
        m_acceptor.listen();
        accept();
    }
    void goDown() { m_acceptor.close(); }
    /// To every connection, also when that ends it.
    template <typename Action>
    void toAll(Action action)
    {
        for (const auto& connection : m_connections) {
            action(*connection);
        }
    }

    int port() const { return m_port; }

    LinkProgress m_progress;
    LinkCommands m_commands; ///< on the proxy's thread

private:
    void accept()
    {
        m_acceptor.async_accept([this](const error_code& error, tcp::socket client) {
            if (!error) {
                add(std::move(client));
            }
            if (error != asio::error::operation_aborted && m_acceptor.is_open()) {
                accept();
            }
        });
    }

    void add(tcp::socket client)
    {
        std::erase_if(m_connections, [](const auto& connection) { return connection->isOver(); });
        const std::size_t number = m_accepted++;
        const LinkRules& rules = number < m_first.size() ? m_first[number] : m_later;
        m_progress.update([&] {
            m_progress.counts.emplace_back();
            ++m_progress.open;
        });
        m_connections.push_back(std::make_shared<LinkConnection>(std::move(client), rules,
                                                                 m_commands, m_progress, number));
        m_connections.back()->start(m_serverPort);
    }

    const int m_serverPort;
    const std::vector<LinkRules> m_first;
    const LinkRules m_later;
    int m_port = 0;
    asio::io_context m_context;
    tcp::socket m_place; ///< never listens: keeps the port while the proxy is down
    tcp::acceptor m_acceptor;
    std::vector<std::shared_ptr<LinkConnection>> m_connections;
    std::size_t m_accepted = 0;
    asio::executor_work_guard<asio::io_context::executor_type> m_work;
    std::thread m_thread;
};

LinkProxy::LinkProxy(int serverPort, std::vector<LinkRules> first, LinkRules later)
    : m_implementation(std::make_unique<Implementation>(serverPort, std::move(first), later))
{
}

LinkProxy::~LinkProxy() = default;

int LinkProxy::port() const
{
    return m_implementation->port();
}

std::string LinkProxy::url(const std::string& path, const std::string& scheme) const
{
    return scheme + "://127.0.0.1:" + std::to_string(port()) + path;
}

void LinkProxy::stall()
{
    m_implementation->command([this] { m_implementation->m_commands.stalled = true; });
}

void LinkProxy::goOn()
{
    m_implementation->command([this] {
        m_implementation->m_commands.stalled = false;
        m_implementation->toAll([](LinkConnection& connection) { connection.goOn(); });
    });
}

void LinkProxy::cut(LinkCut how)
{
    m_implementation->command([this, how] {
        m_implementation->toAll([how](LinkConnection& connection) { connection.cut(how); });
    });
}

void LinkProxy::setPace(LinkPace toClient, LinkPace toServer)
{
    m_implementation->command([&] {
        m_implementation->m_commands.toClient = toClient;
        m_implementation->m_commands.toServer = toServer;
    });
}

void LinkProxy::goDown()
{
    m_implementation->command([this] { m_implementation->goDown(); });
}

void LinkProxy::comeUp()
{
    m_implementation->command([this] { m_implementation->comeUp(); });
}

std::uint64_t LinkProxy::bytesToClient(std::size_t connection) const
{
    const LinkProgress& progress = m_implementation->m_progress;
    const std::lock_guard guard(progress.mutex);
    return progress.counts.at(connection).toClient;
}

std::uint64_t LinkProxy::bytesToServer(std::size_t connection) const
{
    const LinkProgress& progress = m_implementation->m_progress;
    const std::lock_guard guard(progress.mutex);
    return progress.counts.at(connection).toServer;
}

std::size_t LinkProxy::connectionsAccepted() const
{
    const LinkProgress& progress = m_implementation->m_progress;
    const std::lock_guard guard(progress.mutex);
    return progress.counts.size();
}

std::size_t LinkProxy::connectionsOpen() const
{
    const LinkProgress& progress = m_implementation->m_progress;
    const std::lock_guard guard(progress.mutex);
    return progress.open;
}

void LinkProxy::waitForConnections(std::size_t accepted) const
{
    const LinkProgress& progress = m_implementation->m_progress;
    progress.waitUntil([&] { return progress.counts.size() >= accepted; });
}

void LinkProxy::waitForBytesToClient(std::size_t connection, std::uint64_t count) const
{
    const LinkProgress& progress = m_implementation->m_progress;
    progress.waitUntil([&] {
        return progress.counts.size() > connection && progress.counts[connection].toClient >= count;
    });
}

void LinkProxy::waitForBytesToServer(std::size_t connection, std::uint64_t count) const
{
    const LinkProgress& progress = m_implementation->m_progress;
    progress.waitUntil([&] {
        return progress.counts.size() > connection && progress.counts[connection].toServer >= count;
    });
}

void LinkProxy::waitForStalls(std::size_t count) const
{
    const LinkProgress& progress = m_implementation->m_progress;
    progress.waitUntil([&] { return progress.stalls >= count; });
}

void LinkProxy::waitForCuts(std::size_t count) const
{
    const LinkProgress& progress = m_implementation->m_progress;
    progress.waitUntil([&] { return progress.cuts >= count; });
}

void LinkProxy::waitUntilIdle() const
{
    const LinkProgress& progress = m_implementation->m_progress;
    progress.waitUntil([&] { return progress.open == 0; });
}

} // namespace zel::test
