#pragma once

#include "tests/support/AsfFile.h"
#include "tests/support/ScriptedServer.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zel::test {

/// How a play goes wrong.
struct MmsFault
{
    enum class Kind
    {
        None,
        Close, ///< the connection ends in order, but without an end chunk
        Reset, ///< it ends with RST: what the client has not read yet may be lost
        Refuse ///< nothing but a status
    };
    static constexpr std::uint64_t Never = std::numeric_limits<std::uint64_t>::max();

    Kind kind = Kind::None;
    std::uint64_t packets = Never; ///< that this play has sent before
    std::uint64_t bytes = Never;   ///< of the body, sent before
    int status = 0;

    static MmsFault closeBehindPackets(std::uint64_t count) { return {Kind::Close, count}; }
    static MmsFault closeBehindBytes(std::uint64_t count) { return {Kind::Close, Never, count}; }
    static MmsFault resetBehindPackets(std::uint64_t count) { return {Kind::Reset, count}; }
    static MmsFault resetBehindBytes(std::uint64_t count) { return {Kind::Reset, Never, count}; }
    static MmsFault refuse(int status = 503) { return {Kind::Refuse, Never, Never, status}; }
};

struct MmsServerOptions
{
    /// Not seekable, live: every play begins at the file's first packet, whatever is asked for,
    /// and the header tells no duration.
    bool broadcast = false;
    /// Sends packets without their padding, as servers do; clients fill them up with zeros.
    bool stripPadding = true;
    /// A play has a Content-Length.
    bool tellLength = false;
    /// Plays are answered by a description, as by a server that has lost the request's lines.
    bool describeOnly = false;

    /// Sent with every answer to GET.
    ServerHeaders headers = {};
    /// "Supported" of such an answer; it is left out when empty.
    std::string supported = "com.microsoft.wm.srvppair, com.microsoft.wm.sswitch, "
                            "com.microsoft.wm.predstrm, com.microsoft.wm.startupprofile";
    /// "Pragma" of such an answer, instead of the one that tells the features.
    std::optional<std::string> pragma = {};

    /// Bytes that go out before the packet of this number in the file, see `mms::metadataChunk`;
    /// those behind the last packet go out before the end chunk.
    std::multimap<std::size_t, std::string> chunks = {};
    /// The packet of this number in the file waits for the word, see `MmsServer::goOn`.
    std::map<std::size_t, std::string> stalls = {};
    /// Of the first plays, one each.
    std::vector<MmsFault> faults = {};
    /// Of all later plays.
    MmsFault laterFault = {};
    /// Sizes of writes, in turn, over and over; each chunk is one write without them. Small ones
    /// leave the server apart, as Nagle's algorithm is off.
    std::vector<std::size_t> pieces = {};

    /// Of the HTTP server beneath.
    ServerOptions server = {};
};

/// What a client has asked for by "xPlayStrm=1", and got: settled when its connection has ended,
/// see `ScriptedServer::waitUntilIdle`.
struct MmsPlay
{
    std::uint64_t timeMs = 0;                ///< stream-time
    std::optional<std::uint64_t> byteOffset; ///< stream-offset; no offset is 0:0
    std::size_t firstPacket = 0;             ///< number in the file
    std::size_t packetsSent = 0;             ///< taken by the kernel
    bool ended = false;                      ///< its end chunk was sent
    ServerRequest request;
};

/// A server of one ASF file by MMS over HTTP, at any path.
///
/// A GET without "xPlayStrm=1" in a "Pragma" line is answered by the stream's header. With it come
/// header, packets and end chunk, and the connection's end. "stream-time=N" begins at
/// `AsfFile::keyPacketAt`, "stream-offset=4294967295:N" at the packet that holds byte N, counted
/// without header and with all padding. A POST, by which clients keep a connection alive, gets an
/// empty answer.
class MmsServer
{
public:
    explicit MmsServer(AsfFile file, MmsServerOptions options = {});
    ~MmsServer();
    MmsServer(const MmsServer&) = delete;
    MmsServer& operator=(const MmsServer&) = delete;

    /// @param scheme  "http" or "mmsh"
    std::string url(const std::string& scheme = "http",
                    const std::string& path = "/clip.asf") const;
    const AsfFile& file() const;
    /// Plays so far, refused ones included, in the order of their arrival.
    std::vector<MmsPlay> plays() const;

    /// Blocks until a play has come to the stall of this word.
    void waitForStall(const std::string& word) const;
    /// Ends the stall of this word, now and for later plays.
    void goOn(const std::string& word);

    /// The server beneath: requests, connections, port.
    ScriptedServer& http();

private:
    class Implementation;
    std::unique_ptr<Implementation> m_implementation;
};

} // namespace zel::test
