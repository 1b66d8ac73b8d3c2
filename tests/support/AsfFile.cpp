#include "tests/support/AsfFile.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace zel::test {

namespace {

using namespace std::string_view_literals;

// Names of objects and kinds of streams as they stand in a file.
constexpr auto HeaderObject = "\x30\x26\xb2\x75\x8e\x66\xcf\x11\xa6\xd9\x00\xaa\x00\x62\xce\x6c"sv;
constexpr auto DataObject = "\x36\x26\xb2\x75\x8e\x66\xcf\x11\xa6\xd9\x00\xaa\x00\x62\xce\x6c"sv;
constexpr auto FileProperties =
    "\xa1\xdc\xab\x8c\x47\xa9\xcf\x11\x8e\xe4\x00\xc0\x0c\x20\x53\x65"sv;
constexpr auto StreamProperties =
    "\x91\x07\xdc\xb7\xb7\xa9\xcf\x11\x8e\xe6\x00\xc0\x0c\x20\x53\x65"sv;
constexpr auto AudioMedia = "\x40\x9e\x69\xf8\x4d\x5b\xcf\x11\xa8\xfd\x00\x80\x5f\x5c\x44\x2b"sv;
constexpr auto VideoMedia = "\xc0\xef\x19\xbc\x4d\x5b\xcf\x11\xa8\xfd\x00\x80\x5f\x5c\x44\x2b"sv;

constexpr std::size_t ObjectHeadBytes = 24; ///< name and size
constexpr std::size_t HeaderHeadBytes = 30;
constexpr std::size_t DataHeadBytes = 50;

// Places in the file properties object.
constexpr std::size_t PlayDurationAt = 64;
constexpr std::size_t SendDurationAt = 72;
constexpr std::size_t PrerollAt = 80;
constexpr std::size_t FlagsAt = 88;
constexpr std::size_t PacketSizeAt = 92;
constexpr unsigned BroadcastFlag = 1;
constexpr unsigned SeekableFlag = 2;

/// Little-endian numbers, one behind the other.
class Numbers
{
public:
    explicit Numbers(std::string_view bytes) : m_bytes(bytes) {}

    std::uint64_t take(std::size_t size)
    {
        const std::string_view bytes = takeBytes(size);
        std::uint64_t number = 0;
        for (std::size_t i = size; i > 0; --i) {
            number = number << 8 | static_cast<unsigned char>(bytes[i - 1]);
        }
        return number;
    }
    /// A field whose size is one of four: 0, 1, 2 or 4 bytes.
    std::uint64_t takeOf(unsigned sizeCode)
    {
        constexpr std::size_t Sizes[] = {0, 1, 2, 4};
        return take(Sizes[sizeCode & 3]);
    }
    std::string_view takeBytes(std::uint64_t size)
    {
        if (size > m_bytes.size()) {
            throw std::runtime_error("an ASF field goes over its end");
        }
        const std::string_view bytes = m_bytes.substr(0, size);
        m_bytes.remove_prefix(size);
        return bytes;
    }

private:
    std::string_view m_bytes;
};

/// The fields of a packet in front of its payloads.
struct PacketHead
{
    bool hasSeveralPayloads = false;
    unsigned payloadFields = 0; ///< size codes of a payload's own fields
    AsfPacket packet;
};

PacketHead takePacketHead(Numbers& numbers)
{
    PacketHead head;
    auto flags = static_cast<unsigned>(numbers.take(1));
    if ((flags & 0x80) != 0) {
        numbers.takeBytes(flags & 0x0f); // error correction
        flags = static_cast<unsigned>(numbers.take(1));
    }
    head.hasSeveralPayloads = (flags & 1) != 0;
    head.payloadFields = static_cast<unsigned>(numbers.take(1));
    numbers.takeOf(flags >> 5); // the packet's size
    numbers.takeOf(flags >> 1); // sequence number
    head.packet.paddingBytes = numbers.takeOf(flags >> 3);
    head.packet.sendTimeMs = static_cast<std::uint32_t>(numbers.take(4));
    head.packet.durationMs = static_cast<std::uint32_t>(numbers.take(2));
    return head;
}

/// @param keyStream  the stream whose key frames count; every frame of it when it is no video,
///                   as some writers mark no frame of audio
AsfPacket parsePacket(std::string_view bytes, const AsfStream& keyStream)
{
    Numbers numbers(bytes);
    PacketHead head = takePacketHead(numbers);
    unsigned payloads = 1;
    unsigned sizeCode = 0;
    if (head.hasSeveralPayloads) {
        const auto flags = static_cast<unsigned>(numbers.take(1));
        payloads = flags & 0x3f;
        sizeCode = flags >> 6;
    }
    for (unsigned i = 0; i < payloads; ++i) {
        const auto stream = static_cast<unsigned>(numbers.take(1));
        numbers.takeOf(head.payloadFields >> 4); // number of the frame
        const std::uint64_t offsetInFrame = numbers.takeOf(head.payloadFields >> 2);
        const std::uint64_t extraBytes = numbers.takeOf(head.payloadFields);
        numbers.takeBytes(extraBytes);
        // One extra byte says that the payload holds whole frames, and the offset is a time.
        const bool frameBegins = extraBytes == 1 || offsetInFrame == 0;
        const bool isKey = (stream & 0x80) != 0 || !keyStream.isVideo;
        if (isKey && (stream & 0x7f) == keyStream.number && frameBegins) {
            head.packet.hasKeyFrame = true;
        }
        if (head.hasSeveralPayloads) {
            numbers.takeBytes(numbers.takeOf(sizeCode));
        }
    }
    numbers.takeBytes(head.packet.paddingBytes);
    return head.packet;
}

void require(bool holds)
{
    if (!holds) {
        throw std::runtime_error("no whole ASF file");
    }
}

void writeNumber(std::string& bytes, std::size_t offset, std::size_t size, std::uint64_t number)
{
    for (std::size_t i = 0; i < size; ++i) {
        bytes[offset + i] = static_cast<char>(number >> (8 * i));
    }
}

} // namespace

AsfFile AsfFile::read(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return AsfFile(std::move(bytes));
}

AsfFile::AsfFile(std::string bytes) : m_bytes(std::move(bytes))
{
    readHeader();
    readPackets();
}

std::string_view AsfFile::dataHead() const
{
    return view(m_headerBytes, DataHeadBytes);
}

std::string AsfFile::streamHeader(bool live) const
{
    std::string bytes(view(0, m_headerBytes + DataHeadBytes));
    if (live) {
        Numbers flagsOnly(view(m_propertiesOffset + FlagsAt, 4));
        const std::uint64_t flags = (flagsOnly.take(4) | BroadcastFlag) & ~SeekableFlag;
        writeNumber(bytes, m_propertiesOffset + FlagsAt, 4, flags);
        writeNumber(bytes, m_propertiesOffset + PlayDurationAt, 8, 0);
        writeNumber(bytes, m_propertiesOffset + SendDurationAt, 8, 0);
    }
    return bytes;
}

std::string_view AsfFile::packet(std::size_t number) const
{
    return view(m_headerBytes + DataHeadBytes + number * m_packetSize, m_packetSize);
}

std::size_t AsfFile::keyPacketAt(std::uint64_t timeMs) const
{
    std::size_t found = 0;
    for (std::size_t i = 0; i < m_packets.size(); ++i) {
        if (m_packets[i].hasKeyFrame && m_packets[i].sendTimeMs <= timeMs) {
            found = i;
        }
    }
    return found;
}

std::string_view AsfFile::view(std::size_t offset, std::size_t size) const
{
    require(offset <= m_bytes.size() && size <= m_bytes.size() - offset);
    return std::string_view(m_bytes).substr(offset, size);
}

void AsfFile::readHeader()
{
    Numbers numbers(view(0, HeaderHeadBytes));
    require(numbers.takeBytes(16) == HeaderObject);
    m_headerBytes = numbers.take(8);
    require(m_headerBytes >= HeaderHeadBytes && m_headerBytes <= m_bytes.size());

    for (std::size_t offset = HeaderHeadBytes; offset < m_headerBytes;) {
        Numbers head(view(offset, ObjectHeadBytes));
        const std::string_view name = head.takeBytes(16);
        const std::uint64_t size = head.take(8);
        require(size >= ObjectHeadBytes && size <= m_headerBytes - offset);
        if (name == FileProperties) {
            readFileProperties(offset);
        } else if (name == StreamProperties) {
            readStreamProperties(offset);
        }
        offset += size;
    }
    require(m_packetSize > 0);
}

void AsfFile::readFileProperties(std::size_t offset)
{
    constexpr std::uint64_t TicksPerMs = 10000;
    m_propertiesOffset = offset;
    m_packetSize = Numbers(view(offset + PacketSizeAt, 4)).take(4);
    m_prerollMs = Numbers(view(offset + PrerollAt, 8)).take(8);
    const std::uint64_t play = Numbers(view(offset + PlayDurationAt, 8)).take(8) / TicksPerMs;
    m_durationMs = play > m_prerollMs ? play - m_prerollMs : 0;
}

void AsfFile::readStreamProperties(std::size_t offset)
{
    constexpr std::size_t NumberAt = 72;
    const std::string_view kind = view(offset + ObjectHeadBytes, 16);
    AsfStream stream;
    stream.number = Numbers(view(offset + NumberAt, 2)).take(2) & 0x7f;
    stream.isAudio = kind == AudioMedia;
    stream.isVideo = kind == VideoMedia;
    m_streams.push_back(stream);
}

void AsfFile::readPackets()
{
    Numbers head(dataHead());
    require(head.takeBytes(16) == DataObject);
    const std::uint64_t size = head.take(8);
    const std::size_t rest = m_bytes.size() - m_headerBytes;
    require(size >= DataHeadBytes && size <= rest && !m_streams.empty());

    const auto isVideo = [](const AsfStream& stream) { return stream.isVideo; };
    const auto video = std::find_if(m_streams.begin(), m_streams.end(), isVideo);
    const AsfStream& keyStream = video == m_streams.end() ? m_streams.front() : *video;
    const std::size_t count = (size - DataHeadBytes) / m_packetSize;
    for (std::size_t i = 0; i < count; ++i) {
        m_packets.push_back(parsePacket(packet(i), keyStream));
    }
}

} // namespace zel::test
