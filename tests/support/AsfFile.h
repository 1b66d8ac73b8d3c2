#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zel::test {

/// One data packet of an ASF file. All are of one size; what the payloads leave is padding.
struct AsfPacket
{
    std::uint32_t sendTimeMs = 0; ///< when a server sends it, from 0
    std::uint32_t durationMs = 0;
    std::size_t paddingBytes = 0; ///< at the packet's end
    /// A key frame of the first video stream begins in it; without video any frame of the first
    /// stream.
    bool hasKeyFrame = false;
};

struct AsfStream
{
    unsigned number = 0; ///< 1 to 127
    bool isAudio = false;
    bool isVideo = false;
};

/// An ASF file in memory, taken apart as far as a server of it needs.
///
///     | header object | data object: 50 bytes, packet, packet, ... | indexes |
class AsfFile
{
public:
    /// Throws std::runtime_error when the file cannot be read or is no ASF file.
    static AsfFile read(const std::string& path);
    /// The same with the bytes of a file.
    explicit AsfFile(std::string bytes);

    std::string_view header() const { return view(0, m_headerBytes); }
    /// The 50 bytes of the data object that stand before its packets.
    std::string_view dataHead() const;
    /// Both, with which a stream begins. When it is live, the file properties say so and tell no
    /// duration.
    std::string streamHeader(bool live = false) const;

    std::size_t packetSize() const { return m_packetSize; }
    std::size_t packetCount() const { return m_packets.size(); }
    const std::vector<AsfPacket>& packets() const { return m_packets; }
    /// The bytes of a packet, with its padding.
    std::string_view packet(std::size_t number) const;
    /// The last packet with a key frame that is sent at this time or earlier; the first packet
    /// when there is none.
    std::size_t keyPacketAt(std::uint64_t timeMs) const;

    const std::vector<AsfStream>& streams() const { return m_streams; }
    std::uint64_t prerollMs() const { return m_prerollMs; }
    /// Of play, without the preroll.
    std::uint64_t durationMs() const { return m_durationMs; }

private:
    std::string_view view(std::size_t offset, std::size_t size) const;
    void readHeader();
    void readFileProperties(std::size_t offset);
    void readStreamProperties(std::size_t offset);
    void readPackets();

    std::string m_bytes;
    std::size_t m_headerBytes = 0;
    std::size_t m_propertiesOffset = 0; ///< of the file properties object
    std::size_t m_packetSize = 0;
    std::uint64_t m_prerollMs = 0;
    std::uint64_t m_durationMs = 0;
    std::vector<AsfStream> m_streams;
    std::vector<AsfPacket> m_packets;
};

} // namespace zel::test
