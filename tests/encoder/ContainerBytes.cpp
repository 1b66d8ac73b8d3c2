#include "tests/encoder/ContainerBytes.h"

#include <stdexcept>

namespace zel::test {

namespace {

/// Reads big-endian numbers one behind the other.
class ByteReader
{
public:
    explicit ByteReader(const std::string& bytes, std::size_t position = 0)
        : m_bytes(bytes), m_position(position)
    {
    }

    bool atEnd() const { return m_position >= m_bytes.size(); }

    uint64_t number(int count)
    {
        uint64_t value = 0;
        for (const char byte : text(static_cast<std::size_t>(count))) {
            value = value << 8 | static_cast<unsigned char>(byte);
        }
        return value;
    }

    std::string text(std::size_t count)
    {
        if (count > m_bytes.size() - m_position) {
            throw std::runtime_error("the bytes end early");
        }
        m_position += count;
        return m_bytes.substr(m_position - count, count);
    }

    /// A number of Matroska, whose first byte tells its length.
    /// @param marked  keep the mark of the length, as in identifiers
    uint64_t variable(bool marked)
    {
        const auto first = static_cast<unsigned int>(number(1));
        int more = 0;
        while (more < 8 && (first & (0x80U >> more)) == 0) {
            ++more;
        }
        const uint64_t head = marked ? first : first & (0x7FU >> more);
        return head << (8 * more) | number(more);
    }

private:
    const std::string& m_bytes;
    std::size_t m_position;
};

constexpr std::size_t FlvHeaderBytes = 13;
constexpr std::size_t TSPacketBytes = 188;

FlvTag readTag(ByteReader& reader)
{
    FlvTag tag;
    tag.type = static_cast<int>(reader.number(1));
    if (tag.type != 8 && tag.type != 9 && tag.type != 18) {
        throw std::runtime_error("no tag of FLV");
    }
    const std::size_t size = reader.number(3);
    const uint64_t low = reader.number(3);
    tag.timestampMs = static_cast<int32_t>(reader.number(1) << 24 | low);
    reader.number(3);
    tag.body = reader.text(size);
    if (reader.number(4) != size + 11) {
        throw std::runtime_error("a tag of FLV with a wrong length behind it");
    }
    const unsigned int kind = size > 0 ? static_cast<unsigned char>(tag.body[0]) : 0U;
    tag.isKey = tag.type == 9 && kind >> 4 == 1;
    const bool isAvc = tag.type == 9 && (kind & 15U) == 7;
    const bool isAac = tag.type == 8 && kind >> 4 == 10;
    tag.isSetUp = (isAvc || isAac) && size > 1 && tag.body[1] == 0;
    return tag;
}

} // namespace

std::vector<FlvTag> flvTags(const std::string& bytes)
{
    ByteReader reader(bytes, bytes.rfind("FLV\1", 0) == 0 ? FlvHeaderBytes : 0);
    std::vector<FlvTag> tags;
    while (!reader.atEnd()) {
        tags.push_back(readTag(reader));
    }
    return tags;
}

std::vector<TSPacket> tsPackets(const std::string& bytes)
{
    std::vector<TSPacket> packets;
    for (std::size_t at = 0; at < bytes.size(); at += TSPacketBytes) {
        const std::string raw = bytes.substr(at, TSPacketBytes);
        if (raw.size() < TSPacketBytes || raw[0] != 'G') {
            throw std::runtime_error("no packet of a transport stream");
        }
        const auto byteAt = [&raw](std::size_t i) { return static_cast<unsigned char>(raw[i]); };
        TSPacket packet;
        packet.pid = (byteAt(1) & 0x1F) << 8 | byteAt(2);
        packet.beginsUnit = (byteAt(1) & 0x40) != 0;
        std::size_t begin = 4;
        if ((byteAt(3) & 0x20) != 0) {
            packet.isRandomAccess = byteAt(4) > 0 && (byteAt(5) & 0x40) != 0;
            begin += 1U + byteAt(4);
        }
        packet.payload = raw.substr(begin);
        packets.push_back(packet);
    }
    return packets;
}

std::string elementaryBytes(const std::vector<TSPacket>& packets, int pid)
{
    constexpr std::size_t FixedHeaderBytes = 9;
    std::string bytes;
    for (const TSPacket& packet : packets) {
        if (packet.pid != pid) {
            continue;
        }
        const std::size_t header =
            packet.beginsUnit ? FixedHeaderBytes + static_cast<unsigned char>(packet.payload.at(8))
                              : 0;
        bytes += packet.payload.substr(header);
    }
    return bytes;
}

std::vector<Block> clusterBlocks(const std::string& bytes)
{
    constexpr uint64_t ClusterId = 0x1F43B675;
    constexpr uint64_t TimestampId = 0xE7;
    constexpr uint64_t BlockId = 0xA3;
    ByteReader reader(bytes);
    std::vector<Block> blocks;
    if (bytes.empty() || reader.variable(true) != ClusterId) {
        return blocks;
    }
    const std::string cluster = reader.text(reader.variable(false));
    ByteReader entries(cluster);
    int64_t clusterMs = 0;
    while (!entries.atEnd()) {
        const uint64_t id = entries.variable(true);
        const std::string body = entries.text(entries.variable(false));
        ByteReader entry(body);
        if (id == TimestampId) {
            clusterMs = static_cast<int64_t>(entry.number(static_cast<int>(body.size())));
        } else if (id == BlockId) {
            Block block;
            block.track = static_cast<int>(entry.variable(false));
            block.timestampMs = clusterMs + static_cast<int16_t>(entry.number(2));
            block.isKey = (entry.number(1) & 0x80) != 0;
            blocks.push_back(block);
        }
    }
    return blocks;
}

} // namespace zel::test
