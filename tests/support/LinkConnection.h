#pragma once

#include "tests/support/LinkProxy.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

/// The inside of `LinkProxy`: one connection through it.

namespace zel::test {

/// What the proxy's thread and its callers share; all under the mutex.
struct LinkProgress
{
    struct Count
    {
        std::uint64_t toClient = 0;
        std::uint64_t toServer = 0;
    };

    template <typename Change>
    void update(Change change)
    {
        const std::lock_guard guard(mutex);
        change();
        changed.notify_all();
    }
    template <typename Condition>
    void waitUntil(Condition condition) const
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, condition);
    }

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<Count> counts; ///< by connection
    std::size_t open = 0;
    std::size_t stalls = 0;
    std::size_t cuts = 0;
};

/// What commands change; on the proxy's thread.
struct LinkCommands
{
    bool stalled = false;
    std::optional<LinkPace> toClient;
    std::optional<LinkPace> toServer;
};

class LinkConnection;

/// One direction of a connection. No read or write is ever pending: sockets are asked whether they
/// are ready, and then read and written without blocking, so that a stall or a cut is exact. On the
/// proxy's thread.
class LinkDirection
{
public:
    LinkDirection(LinkConnection& connection, boost::asio::ip::tcp::socket& from,
                  boost::asio::ip::tcp::socket& to, LinkWay rules,
                  const std::optional<LinkPace>& pace, std::uint64_t LinkProgress::Count::*count);

    /// Does what can be done now, and sees to it that it is called again.
    void run();
    /// Ends a stall by the byte count.
    void goOn() { m_stalled = false; }
    /// What still comes is thrown away; the receiver is told the end.
    void close();
    void cancelTimer() { m_timer.cancel(); }
    bool endHasPassed() const { return m_endPassed; }

private:
    /// Bytes on their way; none stand for the sender's end.
    struct Piece
    {
        std::chrono::steady_clock::time_point due;
        std::string bytes;
        std::size_t done = 0;
    };

    void waitForInput();
    void takeInput();
    void deliver();
    bool deliverOnce();
    bool isHeld();
    void waitForRoom();
    void waitUntil(std::chrono::steady_clock::time_point time);
    void passEnd();
    std::size_t sizeToSend(const Piece& piece) const;
    void countPassed(std::size_t size);
    LinkPace pace() const { return m_pace.value_or(m_rules.pace); }

    LinkConnection& m_connection;
    boost::asio::ip::tcp::socket& m_from;
    boost::asio::ip::tcp::socket& m_to;
    LinkWay m_rules;
    const std::optional<LinkPace>& m_pace;
    std::uint64_t LinkProgress::Count::*m_count;
    boost::asio::steady_timer m_timer;
    std::deque<Piece> m_pieces;
    std::size_t m_waitingBytes = 0;
    std::uint64_t m_passed = 0;
    std::chrono::steady_clock::time_point m_nextSend;
    bool m_waitsForInput = false;
    bool m_waitsForRoom = false;
    bool m_stalled = false;
    bool m_closing = false;
    bool m_ended = false;     ///< the sender's end has been read
    bool m_endPassed = false; ///< and the receiver told
};

/// Two sockets and the directions between them. Its handlers keep it alive. On the proxy's thread.
class LinkConnection : public std::enable_shared_from_this<LinkConnection>
{
public:
    /// @param client  the accepted side
    /// @param number  of the connection, among all counted in `progress`
    LinkConnection(boost::asio::ip::tcp::socket client, const LinkRules& rules,
                   const LinkCommands& commands, LinkProgress& progress, std::size_t number);

    /// Connects to the server. Without one the client gets RST.
    void start(int serverPort);
    /// Lets both directions do what they can.
    void run();
    /// Ends stalls by a byte count.
    void goOn();
    void cut(LinkCut how);
    /// Both sides get RST.
    void reset();
    void endIfBothSidesHave();

    /// Bytes may pass, now or behind a stall.
    bool isLive() const { return !m_over && !m_dropped; }
    bool isOver() const { return m_over; }
    const LinkCommands& commands() const { return m_commands; }
    LinkProgress& progress() { return m_progress; }
    /// Under the mutex of the progress.
    LinkProgress::Count& count() { return m_progress.counts[m_number]; }

private:
    void connected();
    void end();

    boost::asio::ip::tcp::socket m_client;
    boost::asio::ip::tcp::socket m_server;
    const LinkCommands& m_commands;
    LinkProgress& m_progress;
    const std::size_t m_number;
    LinkDirection m_toClient;
    LinkDirection m_toServer;
    bool m_connected = false;
    bool m_dropped = false;
    bool m_over = false;
};

} // namespace zel::test
