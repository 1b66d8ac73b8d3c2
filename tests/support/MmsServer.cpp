#include "tests/support/MmsServer.h"

#include "tests/support/MmsChunks.h"

#include <algorithm>
#include <charconv>
#include <mutex>
#include <string_view>
#include <utility>

#include <boost/beast/core/string.hpp>

namespace zel::test {

namespace {

/// Written for a half of an offset that says nothing.
constexpr std::uint64_t NoOffset = 0xffffffff;

/// The items of all "Pragma" lines: "no-cache", "stream-time=0", ...
std::vector<std::string> pragmaItems(const ServerRequest& request)
{
    std::vector<std::string> items;
    for (const auto& [name, value] : request.headers) {
        if (!boost::beast::iequals(name, "Pragma")) {
            continue;
        }
        for (std::size_t begin = 0; begin <= value.size();) {
            const std::size_t end = std::min(value.find(',', begin), value.size());
            const std::size_t text = std::min(value.find_first_not_of(' ', begin), end);
            items.push_back(value.substr(text, end - text));
            begin = end + 1;
        }
    }
    return items;
}

std::uint64_t numberOf(std::string_view text)
{
    std::uint64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

/// "HIGH:LOW", two halves of 32 bits.
/// @return nothing for 0:0 and for an offset that is not told
std::optional<std::uint64_t> parseOffset(std::string_view text)
{
    const std::size_t colon = std::min(text.find(':'), text.size());
    const std::uint64_t high = numberOf(text.substr(0, colon));
    const std::uint64_t low = numberOf(text.substr(std::min(colon + 1, text.size())));
    if ((high == NoOffset && low == NoOffset) || (high == 0 && low == 0)) {
        return std::nullopt;
    }
    return high == NoOffset ? low : high << 32 | low;
}

/// @return nothing when the request wants no play
std::optional<MmsPlay> parsePlay(const ServerRequest& request)
{
    constexpr std::string_view Time = "stream-time=";
    constexpr std::string_view Offset = "stream-offset=";
    MmsPlay play;
    bool wanted = false;
    for (const std::string& item : pragmaItems(request)) {
        const std::string_view view = item;
        if (view == "xPlayStrm=1") {
            wanted = true;
        } else if (view.starts_with(Time)) {
            play.timeMs = numberOf(view.substr(Time.size()));
        } else if (view.starts_with(Offset)) {
            play.byteOffset = parseOffset(view.substr(Offset.size()));
        }
    }
    play.request = request;
    return wanted ? std::optional(play) : std::nullopt;
}

/// The body of a play: cut into pieces, and ended early where a fault says so.
class Body
{
public:
    Body(ServerConnection& connection, const std::vector<std::size_t>& pieces, std::uint64_t most)
        : m_connection(connection), m_pieces(pieces), m_left(most)
    {
    }

    /// @return false when the client is gone or the end has come
    bool send(std::string_view bytes)
    {
        bytes = bytes.substr(0, m_left);
        m_left -= bytes.size();
        while (!bytes.empty()) {
            const std::string_view piece = bytes.substr(0, nextPiece(bytes.size()));
            if (!m_connection.send(piece)) {
                return false;
            }
            bytes.remove_prefix(piece.size());
        }
        return m_left > 0;
    }

private:
    std::size_t nextPiece(std::size_t all)
    {
        return m_pieces.empty() ? all : m_pieces[m_next++ % m_pieces.size()];
    }

    ServerConnection& m_connection;
    const std::vector<std::size_t>& m_pieces;
    std::size_t m_next = 0;
    std::uint64_t m_left;
};

/// The mark by which a play tells that it waits for a word.
std::string stallMark(const std::string& word)
{
    return "stalled: " + word;
}

} // namespace

/// Holds everything that the scripts use, and the server that runs them.
class MmsServer::Implementation
{
public:
    Implementation(AsfFile file, MmsServerOptions options)
        : m_file(std::move(file)), m_options(std::move(options)),
          m_server([this](const ServerRequest& request,
                          ServerConnection& connection) { answer(request, connection); },
                   m_options.server)
    {
    }

    const AsfFile& file() const { return m_file; }
    ScriptedServer& server() { return m_server; }
    std::vector<MmsPlay> plays() const
    {
        const std::lock_guard guard(m_mutex);
        return m_plays;
    }

private:
    void answer(const ServerRequest& request, ServerConnection& connection)
    {
        if (request.method == "POST") {
            connection.respond(200, {}, "");
            return;
        }
        if (request.method != "GET") {
            connection.respond(405, {}, "");
            return;
        }
        std::optional<MmsPlay> play = parsePlay(request);
        if (!play || m_options.describeOnly) {
            connection.respond(200, headersOf("application/vnd.ms.wms-hdr.asfv1"), headerChunks(0));
            return;
        }
        play->firstPacket = firstPacketOf(*play);
        const std::size_t number = addPlay(*play);
        const MmsFault fault = faultOf(number);
        if (fault.kind == MmsFault::Kind::Refuse) {
            connection.respond(fault.status, {}, "");
            return;
        }
        const bool whole = sendHead(connection, play->firstPacket) &&
                           sendBody(connection, number, play->firstPacket, fault);
        if (!whole && fault.kind == MmsFault::Kind::Reset) {
            connection.reset();
        }
    }

    /// Like the servers that speak MMS, with version 1.0 and, as a rule, without a length: the
    /// connection's end is the body's.
    bool sendHead(ServerConnection& connection, std::size_t firstPacket) const
    {
        std::string head = "HTTP/1.0 200 OK\r\n";
        for (const auto& [name, value] : headersOf("application/x-mms-framed")) {
            head += name + ": " + value + "\r\n";
        }
        if (m_options.tellLength) {
            head += "Content-Length: " + std::to_string(bodyBytes(firstPacket)) + "\r\n";
        }
        return connection.send(head + "\r\n");
    }

    /// @return false when it has ended early
    bool sendBody(ServerConnection& connection, std::size_t number, std::size_t first,
                  const MmsFault& fault)
    {
        const auto incarnation = static_cast<std::uint8_t>(number);
        Body body(connection, m_options.pieces, fault.bytes);
        bool open = body.send(headerChunks(incarnation));
        for (std::size_t i = first; open && i < m_file.packetCount(); ++i) {
            open = i - first < fault.packets && sendChunks(body, i, i + 1) &&
                   stall(connection, i) &&
                   body.send(
                       mms::dataChunk(static_cast<std::uint32_t>(i), sentPacket(i), incarnation));
            change(number, [&](MmsPlay& play) { play.packetsSent += open ? 1 : 0; });
        }
        open = open && sendChunks(body, m_file.packetCount(), SIZE_MAX) &&
               m_file.packetCount() - first < fault.packets && body.send(mms::endChunk());
        change(number, [&](MmsPlay& play) { play.ended = open; });
        return open;
    }

    /// The chunks that belong in front of these packets.
    bool sendChunks(Body& body, std::size_t first, std::size_t end) const
    {
        const auto last = m_options.chunks.lower_bound(end);
        return std::all_of(m_options.chunks.lower_bound(first), last,
                           [&](const auto& chunk) { return body.send(chunk.second); });
    }

    bool stall(ServerConnection& connection, std::size_t packet) const
    {
        const auto found = m_options.stalls.find(packet);
        if (found == m_options.stalls.end()) {
            return true;
        }
        connection.mark(stallMark(found->second));
        return connection.waitForMark(found->second);
    }

    std::string headerChunks(std::uint8_t incarnation) const
    {
        return mms::headerChunks(m_file.streamHeader(m_options.broadcast), incarnation);
    }

    std::string_view sentPacket(std::size_t number) const
    {
        std::string_view packet = m_file.packet(number);
        if (m_options.stripPadding) {
            packet.remove_suffix(m_file.packets()[number].paddingBytes);
        }
        return packet;
    }

    std::uint64_t bodyBytes(std::size_t firstPacket) const
    {
        std::uint64_t bytes = headerChunks(0).size() + mms::endChunk().size();
        for (std::size_t i = firstPacket; i < m_file.packetCount(); ++i) {
            bytes += mms::ChunkHeadBytes + mms::LocationBytes + sentPacket(i).size();
        }
        const auto& chunks = m_options.chunks;
        std::for_each(chunks.lower_bound(firstPacket), chunks.end(),
                      [&](const auto& chunk) { bytes += chunk.second.size(); });
        return bytes;
    }

    ServerHeaders headersOf(const std::string& type) const
    {
        const std::string features = m_options.broadcast ? "broadcast" : "seekable,stridable";
        const std::string pragma = "no-cache, client-id=3141592653, features=\"" + features + "\"";
        ServerHeaders headers = {{"Content-Type", type},
                                 {"Cache-Control", "no-cache"},
                                 {"Pragma", m_options.pragma.value_or(pragma)}};
        if (!m_options.supported.empty()) {
            headers.emplace_back("Supported", m_options.supported);
        }
        headers.insert(headers.end(), m_options.headers.begin(), m_options.headers.end());
        return headers;
    }

    std::size_t firstPacketOf(const MmsPlay& play) const
    {
        if (m_options.broadcast) {
            return 0;
        }
        if (play.byteOffset) {
            const std::uint64_t packet = *play.byteOffset / m_file.packetSize();
            return std::min<std::uint64_t>(packet, m_file.packetCount());
        }
        return m_file.keyPacketAt(play.timeMs);
    }

    const MmsFault& faultOf(std::size_t play) const
    {
        return play < m_options.faults.size() ? m_options.faults[play] : m_options.laterFault;
    }

    std::size_t addPlay(const MmsPlay& play)
    {
        const std::lock_guard guard(m_mutex);
        m_plays.push_back(play);
        return m_plays.size() - 1;
    }

    template <typename Change>
    void change(std::size_t play, Change change)
    {
        const std::lock_guard guard(m_mutex);
        change(m_plays[play]);
    }

    const AsfFile m_file;
    const MmsServerOptions m_options;
    mutable std::mutex m_mutex;
    std::vector<MmsPlay> m_plays; ///< under the mutex
    ScriptedServer m_server;      ///< ends first
};

MmsServer::MmsServer(AsfFile file, MmsServerOptions options)
    : m_implementation(std::make_unique<Implementation>(std::move(file), std::move(options)))
{
}

MmsServer::~MmsServer() = default;

std::string MmsServer::url(const std::string& scheme, const std::string& path) const
{
    const int port = m_implementation->server().port();
    return scheme + "://127.0.0.1:" + std::to_string(port) + path;
}

const AsfFile& MmsServer::file() const
{
    return m_implementation->file();
}

std::vector<MmsPlay> MmsServer::plays() const
{
    return m_implementation->plays();
}

void MmsServer::waitForStall(const std::string& word) const
{
    m_implementation->server().waitForMark(stallMark(word));
}

void MmsServer::goOn(const std::string& word)
{
    m_implementation->server().mark(word);
}

ScriptedServer& MmsServer::http()
{
    return m_implementation->server();
}

} // namespace zel::test
