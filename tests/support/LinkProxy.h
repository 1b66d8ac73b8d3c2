#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace zel::test {

/// How a connection through the proxy ends.
enum class LinkCut
{
    Close, ///< in order: what has passed arrives
    Reset, ///< RST to both sides: what has passed and was not yet taken may be lost
    Drop   ///< nothing passes any more and nobody is told, as with a pulled cable
};

struct LinkPace
{
    std::chrono::milliseconds delay{0}; ///< every byte, and the end, comes this late
    std::uint64_t bytesPerSecond = 0;   ///< at most; 0 is as fast as can be
};

/// One direction of a connection. Bytes are counted as they are handed to the receiving side's
/// socket; exactly so many pass before a stall or a cut.
struct LinkWay
{
    static constexpr std::uint64_t Never = std::numeric_limits<std::uint64_t>::max();

    LinkPace pace = {};
    std::uint64_t stallBehind = Never; ///< this direction stands still, until `LinkProxy::goOn`
    std::uint64_t cutBehind = Never;   ///< the connection ends, both directions of it
    LinkCut cut = LinkCut::Reset;
};

struct LinkRules
{
    LinkWay toClient = {};
    LinkWay toServer = {};
};

/// A link that misbehaves when it is told to: a TCP proxy on a free port of 127.0.0.1, in front of
/// a server on another. One thread of its own moves all bytes. Commands have taken effect when they
/// return; the end of the object ends all connections with RST. Any thread may call.
///
///     client --- toServer --> LinkProxy --- toServer --> server
///            <-- toClient ---           <-- toClient ---
///
/// While a direction stands still, up to a megabyte of it waits in the proxy, then the sender's
/// window fills up. A side's orderly end passes like a byte.
class LinkProxy
{
public:
    /// @param first  rules of the first connections, one each
    /// @param later  rules of all others
    explicit LinkProxy(int serverPort, std::vector<LinkRules> first = {}, LinkRules later = {});
    ~LinkProxy();
    LinkProxy(const LinkProxy&) = delete;
    LinkProxy& operator=(const LinkProxy&) = delete;

    int port() const;
    /// @param path  begins with a slash
    std::string url(const std::string& path = "/", const std::string& scheme = "http") const;

    /// Both directions of all connections stand still, later ones included. No byte passes
    /// before `goOn`.
    void stall();
    /// Ends all stalls, those by a byte count included.
    void goOn();
    /// Ends all connections that there are, dropped ones included.
    void cut(LinkCut how);
    /// The pace of all connections from here on, instead of their rules'.
    void setPace(LinkPace toClient, LinkPace toServer);
    /// Connections are refused until `comeUp`. Those that there are go on.
    void goDown();
    void comeUp();

    /// Connections count from 0, in the order in which they came.
    std::uint64_t bytesToClient(std::size_t connection) const;
    std::uint64_t bytesToServer(std::size_t connection) const;
    std::size_t connectionsAccepted() const;
    /// Those that neither side nor a cut has ended. Dropped ones are open.
    std::size_t connectionsOpen() const;

    /// These block until it is so.
    void waitForConnections(std::size_t accepted) const;
    void waitForBytesToClient(std::size_t connection, std::uint64_t count) const;
    void waitForBytesToServer(std::size_t connection, std::uint64_t count) const;
    /// Directions that came to a stall by their byte count, of all connections so far.
    void waitForStalls(std::size_t count) const;
    /// Connections that were cut by a byte count or by command, so far.
    void waitForCuts(std::size_t count) const;
    void waitUntilIdle() const;

private:
    class Implementation;
    std::unique_ptr<Implementation> m_implementation;
};

} // namespace zel::test
