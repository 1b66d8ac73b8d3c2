#include "common/utils/CBBLog.h"
#include "network/AsfGuids.h"
#include "network/LittleEndian.h"
#include "network/MMSHClient.h"

#include <algorithm>

namespace zel {

namespace {

/// The preamble of the header object, in front of the objects in it.
constexpr unsigned int preambleBytes = 30;
/// Name and size of an object.
constexpr unsigned int objectHeadBytes = 24;
constexpr unsigned int largestPacket = 65536;
constexpr unsigned int streamNumberMask = 127;
constexpr unsigned int bitrateBytes = 6;

enum StreamType : unsigned int
{
    STREAM_OTHER = 0,
    STREAM_AUDIO = 1,
    STREAM_VIDEO = 2,
    STREAM_COMMAND = 3
};

} // namespace

bool MMSHClient::processHeader(MMSFrame* frame)
{
    m_packetLength = 0;
    m_totalPackets = 0;
    m_streamCount = 0;
    const unsigned char* const header = frame->payload;
    const unsigned int length = frame->length;
    unsigned int cursor = preambleBytes;
    while (cursor + objectHeadBytes < length) {
        const int object = get_guid(header + cursor);
        const std::uint64_t size = littleEndian64(header + cursor + asfGuidBytes);
        const unsigned int begin = cursor + objectHeadBytes;
        const unsigned int left = length - begin;
        // Kept: the name and size of the object count twice, so that walks mostly end at the last
        // object, which is the one that says a size beyond its chunk anyway.
        if (size >= left) {
            CBBLog::debug("MMSHClient::processHeader error %d >= %d",
                          static_cast<int>(begin + size), static_cast<int>(length));
            return false;
        }
        const unsigned char* const data = header + begin;
        if (object == AsfObject::FILE_PROPERTIES) {
            takeFileProperties(data, left);
        } else if (object == AsfObject::STREAM_HEADER) {
            takeStreamHeader(data, left);
        } else if (object == AsfObject::STREAM_BITRATE_PROPERTIES) {
            takeBitrates(data, left, begin);
        } else if (object == AsfObject::DATA && left >= 20) {
            m_totalPackets = littleEndian32(data + 16);
        }
        cursor = size > objectHeadBytes ? cursor + static_cast<unsigned int>(size) : begin;
    }
    return true;
}

/// All three: what is behind the object's head, up to the end of the chunk.
void MMSHClient::takeFileProperties(const unsigned char* data, std::size_t size)
{
    if (size < 76) {
        return;
    }
    const unsigned int packetLength = littleEndian32(data + 68);
    m_packetLength = packetLength <= largestPacket ? packetLength : 0;
    m_preroll = littleEndian64(data + 56);
    CBBLog::debug("file object, packet length = %d (%d) / stream duration %u",
                  static_cast<int>(m_packetLength), static_cast<int>(littleEndian32(data + 72)),
                  static_cast<unsigned int>(m_streamDuration.load()));
}

void MMSHClient::takeStreamHeader(const unsigned char* data, std::size_t size)
{
    if (size < 50) {
        return;
    }
    unsigned int type = STREAM_OTHER;
    switch (get_guid(data)) {
    case AsfObject::AUDIO_MEDIA:
        type = STREAM_AUDIO;
        m_hasAudio = true;
        break;
    case AsfObject::VIDEO_MEDIA:
    case AsfObject::JFIF_MEDIA:
    case AsfObject::DEGRADABLE_JPEG_MEDIA:
        type = STREAM_VIDEO;
        m_hasVideo = true;
        break;
    case AsfObject::COMMAND_MEDIA:
        type = STREAM_COMMAND;
        break;
    default:
        break;
    }
    listStream(littleEndian16(data + 48) & streamNumberMask, type);
}

/// @param position  of the data within the header
void MMSHClient::takeBitrates(const unsigned char* data, std::size_t size, unsigned int position)
{
    if (size < 2) {
        return;
    }
    const unsigned int count = std::min<unsigned int>(
        littleEndian16(data), static_cast<unsigned int>((size - 2) / bitrateBytes));
    for (unsigned int i = 0; i < count; ++i) {
        const unsigned int at = 2 + bitrateBytes * i;
        const unsigned int id = littleEndian16(data + at);
        if (!isListed(id) && !listStream(id, STREAM_VIDEO)) {
            continue;
        }
        if (id < streamSlots) {
            m_streamBitrates[id] = littleEndian32(data + at + 2);
            m_streamBitratePositions[id] = position + at + 2;
        }
    }
}

bool MMSHClient::isListed(unsigned int id) const
{
    const auto* const end = m_streamIds.data() + m_streamCount;
    return std::find(m_streamIds.data(), end, id) != end;
}

/// Numbers go up to 127; those beyond the tables are listed, and that is all.
/// @return false when the list is full
bool MMSHClient::listStream(unsigned int id, unsigned int type)
{
    if (m_streamCount >= streamSlots) {
        return false;
    }
    if (!isListed(id)) {
        m_streamIds[m_streamCount] = id;
        ++m_streamCount;
    }
    if (id < streamSlots) {
        m_streamTypes[id] = type;
    }
    return true;
}

} // namespace zel
