#include "tests/support/LinkConnection.h"

#include <algorithm>
#include <array>
#include <utility>

#include <boost/asio/buffer.hpp>

namespace zel::test {

namespace {

namespace asio = boost::asio;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;
using tcp = asio::ip::tcp;

constexpr std::size_t ReadBytes = 65536;
/// That wait in one direction.
constexpr std::size_t MostWaitingBytes = 1 << 20;
/// What a limited rate lets go at once: the bytes of this part of a second.
constexpr std::uint64_t RateSteps = 50;

} // namespace

LinkDirection::LinkDirection(LinkConnection& connection, tcp::socket& from, tcp::socket& to,
                             LinkWay rules, const std::optional<LinkPace>& pace,
                             std::uint64_t LinkProgress::Count::*count)
    : m_connection(connection), m_from(from), m_to(to), m_rules(rules), m_pace(pace),
      m_count(count), m_timer(from.get_executor())
{
}

void LinkDirection::run()
{
    deliver();
    if (m_connection.isLive()) {
        waitForInput();
    }
}

void LinkDirection::close()
{
    m_closing = true;
    m_pieces.clear();
    m_waitingBytes = 0;
    error_code ignored;
    m_to.shutdown(tcp::socket::shutdown_send, ignored);
    m_endPassed = m_ended;
}

void LinkDirection::waitForInput()
{
    if (m_waitsForInput || m_ended || m_waitingBytes >= MostWaitingBytes) {
        return;
    }
    m_waitsForInput = true;
    m_from.async_wait(tcp::socket::wait_read,
                      [this, self = m_connection.shared_from_this()](const error_code&) {
                          m_waitsForInput = false;
                          if (m_connection.isLive()) {
                              takeInput();
                          }
                      });
}

void LinkDirection::takeInput()
{
    std::array<char, ReadBytes> bytes;
    error_code error;
    const std::size_t size = m_from.read_some(asio::buffer(bytes), error);
    if (error == asio::error::eof) {
        m_ended = true;
    } else if (error && error != asio::error::would_block) {
        m_connection.reset();
        return;
    }
    if (m_closing) {
        m_endPassed = m_ended;
        m_connection.endIfBothSidesHave();
    } else if (size > 0 || m_ended) {
        m_pieces.push_back({Clock::now() + pace().delay, std::string(bytes.data(), size)});
        m_waitingBytes += size;
    }
    if (m_connection.isLive()) {
        run();
    }
}

void LinkDirection::deliver()
{
    while (m_connection.isLive() && deliverOnce()) {
    }
}

/// @return false when nothing more can be done now
bool LinkDirection::deliverOnce()
{
    if (isHeld() || m_pieces.empty()) {
        return false;
    }
    Piece& piece = m_pieces.front();
    const Clock::time_point time = std::max(piece.due, m_nextSend);
    if (Clock::now() < time) {
        waitUntil(time);
        return false;
    }
    if (piece.bytes.empty()) {
        passEnd();
        return false;
    }
    error_code error;
    const auto all = asio::buffer(piece.bytes) + piece.done;
    const std::size_t size = m_to.write_some(asio::buffer(all, sizeToSend(piece)), error);
    if (error == asio::error::would_block) {
        waitForRoom();
        return false;
    }
    if (error) {
        m_connection.reset();
        return false;
    }
    piece.done += size;
    if (piece.done == piece.bytes.size()) {
        m_pieces.pop_front();
    }
    countPassed(size);
    return true;
}

/// Whether bytes must not pass. Carries out what a byte count asks for.
bool LinkDirection::isHeld()
{
    if (m_closing) {
        return true;
    }
    if (m_passed >= m_rules.cutBehind) {
        m_connection.cut(m_rules.cut);
        return true;
    }
    if (m_passed >= m_rules.stallBehind) {
        m_rules.stallBehind = LinkWay::Never;
        m_stalled = true;
        LinkProgress& progress = m_connection.progress();
        progress.update([&] { ++progress.stalls; });
    }
    return m_stalled || m_connection.commands().stalled;
}

void LinkDirection::waitForRoom()
{
    if (m_waitsForRoom) {
        return;
    }
    m_waitsForRoom = true;
    m_to.async_wait(tcp::socket::wait_write,
                    [this, self = m_connection.shared_from_this()](const error_code&) {
                        m_waitsForRoom = false;
                        if (m_connection.isLive()) {
                            run();
                        }
                    });
}

void LinkDirection::waitUntil(Clock::time_point time)
{
    m_timer.expires_at(time);
    m_timer.async_wait([this, self = m_connection.shared_from_this()](const error_code& error) {
        if (!error && m_connection.isLive()) {
            run();
        }
    });
}

void LinkDirection::passEnd()
{
    m_pieces.clear();
    error_code ignored;
    m_to.shutdown(tcp::socket::shutdown_send, ignored);
    m_endPassed = true;
    m_connection.endIfBothSidesHave();
}

std::size_t LinkDirection::sizeToSend(const Piece& piece) const
{
    std::uint64_t size = piece.bytes.size() - piece.done;
    size = std::min(size, m_rules.cutBehind - m_passed);
    if (m_rules.stallBehind != LinkWay::Never) {
        size = std::min(size, m_rules.stallBehind - m_passed);
    }
    const std::uint64_t rate = pace().bytesPerSecond;
    if (rate > 0) {
        size = std::min(size, std::max<std::uint64_t>(rate / RateSteps, 1));
    }
    return size;
}

void LinkDirection::countPassed(std::size_t size)
{
    m_waitingBytes -= size;
    m_passed += size;
    const std::uint64_t rate = pace().bytesPerSecond;
    if (rate > 0) {
        const std::chrono::duration<double> time(static_cast<double>(size) /
                                                 static_cast<double>(rate));
        m_nextSend = Clock::now() + std::chrono::duration_cast<Clock::duration>(time);
    } else {
        m_nextSend = {};
    }
    m_connection.progress().update([&] { m_connection.count().*m_count = m_passed; });
}

LinkConnection::LinkConnection(tcp::socket client, const LinkRules& rules,
                               const LinkCommands& commands, LinkProgress& progress,
                               std::size_t number)
    : m_client(std::move(client)), m_server(m_client.get_executor()), m_commands(commands),
      m_progress(progress), m_number(number),
      m_toClient(*this, m_server, m_client, rules.toClient, commands.toClient,
                 &LinkProgress::Count::toClient),
      m_toServer(*this, m_client, m_server, rules.toServer, commands.toServer,
                 &LinkProgress::Count::toServer)
{
}

void LinkConnection::start(int serverPort)
{
    const auto port = static_cast<std::uint16_t>(serverPort);
    m_server.async_connect({asio::ip::address_v4::loopback(), port},
                           [self = shared_from_this()](const error_code& error) {
                               if (error) {
                                   self->reset();
                               } else {
                                   self->connected();
                               }
                           });
}

void LinkConnection::run()
{
    if (m_connected && isLive()) {
        m_toClient.run();
    }
    if (m_connected && isLive()) {
        m_toServer.run();
    }
}

void LinkConnection::goOn()
{
    m_toClient.goOn();
    m_toServer.goOn();
    run();
}

void LinkConnection::cut(LinkCut how)
{
    if (m_over) {
        return;
    }
    m_progress.update([this] { ++m_progress.cuts; });
    m_dropped = how == LinkCut::Drop;
    if (how == LinkCut::Close && m_connected) {
        m_toClient.close();
        m_toServer.close();
        endIfBothSidesHave();
        run();
    } else if (how != LinkCut::Drop) {
        reset();
    }
}

void LinkConnection::reset()
{
    error_code ignored;
    m_client.set_option(tcp::socket::linger(true, 0), ignored);
    m_server.set_option(tcp::socket::linger(true, 0), ignored);
    end();
}

void LinkConnection::endIfBothSidesHave()
{
    if (m_toClient.endHasPassed() && m_toServer.endHasPassed()) {
        end();
    }
}

void LinkConnection::connected()
{
    m_connected = true;
    const tcp::no_delay atOnce(true);
    for (tcp::socket* socket : {&m_client, &m_server}) {
        error_code ignored;
        socket->set_option(atOnce, ignored);
        socket->non_blocking(true, ignored);
    }
    run();
}

void LinkConnection::end()
{
    if (m_over) {
        return;
    }
    m_over = true;
    error_code ignored;
    m_client.close(ignored);
    m_server.close(ignored);
    m_toClient.cancelTimer();
    m_toServer.cancelTimer();
    m_progress.update([this] { --m_progress.open; });
}

} // namespace zel::test
