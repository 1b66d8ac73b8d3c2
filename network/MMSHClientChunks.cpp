#include "common/utils/CBBLog.h"
#include "network/LittleEndian.h"
#include "network/MMSHClient.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace zel {

namespace {

enum ChunkType : unsigned int
{
    CHUNK_TYPE_RESET = 0x4324,      ///< "$C"
    CHUNK_TYPE_DATA = 0x4424,       ///< "$D"
    CHUNK_TYPE_END = 0x4524,        ///< "$E"
    CHUNK_TYPE_ASF_HEADER = 0x4824, ///< "$H"
    CHUNK_TYPE_METADATA = 0x4D24    ///< "$M"
};

constexpr unsigned int headBytes = 4;
constexpr std::size_t metadataHeadBytes = 8;
/// What a server may make us keep: pairs of one chunk, and chunks that no reader has passed.
constexpr std::size_t pairsLimit = 1000;
constexpr std::size_t waitingLimit = 100;

constexpr std::array<unsigned char, 4096> zeros{};

unsigned int extraBytes(unsigned int type)
{
    switch (type) {
    case CHUNK_TYPE_RESET:
    case CHUNK_TYPE_END:
        return 4;
    case CHUNK_TYPE_DATA:
    case CHUNK_TYPE_ASF_HEADER:
        return 8;
    default:
        return 0;
    }
}

} // namespace

// -------------------------------------------------------------------------------------------------
// Chunks.

MMSHClient::MMSFrame* MMSHClient::getMMSFrame(char* data, unsigned int size)
{
    MMSFrame frame;
    const bool found = parseFrame(reinterpret_cast<const unsigned char*>(data), size, frame);
    return found ? new MMSFrame(frame) : nullptr;
}

/// Type, length of extra header and payload together, extra header, payload.
/// @return false when the bytes do not reach behind the extra header
bool MMSHClient::parseFrame(const unsigned char* data, std::size_t size, MMSFrame& frame)
{
    if (size < headBytes) {
        return false;
    }
    const unsigned int bytes = littleEndian16(data + 2);
    frame.type = littleEndian16(data);
    // A chunk without room for its extra header is taken as far as it goes.
    frame.extraLength = std::min(extraBytes(frame.type), bytes);
    if (size < headBytes + frame.extraLength) {
        return false;
    }
    frame.raw = data;
    frame.extraHeader = data + headBytes;
    frame.payload = frame.extraHeader + frame.extraLength;
    frame.length = bytes - frame.extraLength;
    frame.complete = headBytes + bytes <= size;
    const bool hasValue = frame.type == CHUNK_TYPE_DATA || frame.type == CHUNK_TYPE_END;
    frame.value = hasValue && frame.extraLength >= 4 ? littleEndian32(frame.extraHeader) : 0;
    return true;
}

long long MMSHClient::write(unsigned char* data, unsigned long long size)
{
    if (m_stopped) {
        return -1;
    }
    PReadGuard guard(m_lock);
    if (m_buffer == nullptr) {
        return -1;
    }
    m_dataReceived = true;
    if (m_endSeen) {
        return static_cast<long long>(size);
    }
    const bool continued = m_pendingSize != 0;
    const unsigned char* bytes = data;
    std::size_t count = size;
    if (continued) {
        keepPending(data, size);
        bytes = m_pending.data();
        count = std::exchange(m_pendingSize, 0);
    }
    MMSFrame frame;
    while (parseFrame(bytes, count, frame) && frame.complete) {
        if (frame.type == CHUNK_TYPE_END) {
            // What follows it is dropped, up to the next request.
            m_endSeen = true;
            CBBLog::info("MMSHClient::write : EOF reached");
            const bool first = !m_reader->hasReachedEOF();
            if (first) {
                endStream();
            }
            guard.unlock();
            if (first) {
                endOfFileCallback();
            }
            return static_cast<long long>(size);
        }
        if (!handleChunk(frame) || m_stopped) {
            return -1;
        }
        const std::size_t used = headBytes + frame.extraLength + frame.length;
        bytes += used;
        count -= used;
    }
    logBufferStatus(size);
    if (continued) {
        std::memmove(m_pending.data(), bytes, count);
        m_pendingSize = count;
    } else {
        keepPending(bytes, count);
    }
    return static_cast<long long>(size);
}

/// Behind what waits already.
void MMSHClient::keepPending(const unsigned char* data, std::size_t size)
{
    if (m_pending.size() < m_pendingSize + size) {
        m_pending.resize(m_pendingSize + size);
    }
    std::copy_n(data, size, m_pending.data() + m_pendingSize);
    m_pendingSize += size;
}

/// @return false when the ring did not take it
bool MMSHClient::handleChunk(MMSFrame& frame)
{
    switch (frame.type) {
    case CHUNK_TYPE_DATA:
        break;
    case CHUNK_TYPE_ASF_HEADER:
        if (processHeader(&frame)) {
            CBBLog::info("MMSHClient::write : ASF header processed");
        } else {
            CBBLog::warn("MMSHClient::write : processHeader failed");
        }
        break;
    case CHUNK_TYPE_METADATA:
        CBBLog::info("MMSHClient::write : CHUNK_TYPE_METADATA received");
        processMetadata(&frame);
        break;
    case CHUNK_TYPE_RESET:
        CBBLog::info("MMSHClient::write : TODO: CHUNK_TYPE_RESET received");
        break;
    default:
        CBBLog::info("MMSHClient::write : CHUNK_TYPE unknown received %d %d",
                     static_cast<int>(frame.type), static_cast<int>(frame.length));
        break;
    }
    if (!storeChunk(frame)) {
        return false;
    }
    if (frame.type == CHUNK_TYPE_ASF_HEADER) {
        // Also one that cannot be walked to its end: that does not stop the stream.
        m_headerEvent.signal(m_headerHandled);
    }
    return true;
}

bool MMSHClient::storeChunk(const MMSFrame& frame)
{
    const bool isHeader = frame.type == CHUNK_TYPE_ASF_HEADER;
    if (frame.length == 0 || frame.type == CHUNK_TYPE_METADATA || (isHeader && m_headerWritten)) {
        return true;
    }
    if (!storeWhole(frame.payload, frame.length)) {
        return false;
    }
    if (isHeader) {
        m_headerWritten = true;
    }
    if (frame.type != CHUNK_TYPE_DATA || m_packetLength == 0) {
        return true;
    }
    m_bytesReceived += frame.length;
    if (frame.length > m_packetLength) {
        CBBLog::warn("MMSHClient::getHeader: frame->length(%d) > m_packetLength(%d)",
                     static_cast<int>(frame.length), static_cast<int>(m_packetLength));
        return true;
    }
    // The server strips what the packets are filled up with; a demuxer expects one size.
    return pad(m_packetLength - frame.length);
}

bool MMSHClient::storeWhole(const unsigned char* data, unsigned int size)
{
    return storeInRing(data, size) == static_cast<int>(size);
}

bool MMSHClient::pad(unsigned int size)
{
    while (size > 0) {
        const unsigned int piece = std::min(size, static_cast<unsigned int>(zeros.size()));
        if (!storeWhole(zeros.data(), piece)) {
            return false;
        }
        size -= piece;
    }
    return true;
}

void MMSHClient::endStream()
{
    m_contentLength = m_bytesReceived.load();
    m_buffer->close();
    CBBLog::info("MMSHClient::write : EOF reached %lld",
                 static_cast<long long>(m_contentLength.load()));
}

// -------------------------------------------------------------------------------------------------
// Metadata.

/// Pairs of texts, each with its NUL, behind eight bytes that nobody needs. A pair that is cut off
/// ends the list.
/// @return false when there is no room for any
bool MMSHClient::processMetadata(MMSFrame* frame)
{
    if (frame->length < metadataHeadBytes) {
        return false;
    }
    const char* at = reinterpret_cast<const char*>(frame->payload) + metadataHeadBytes;
    const char* const end = reinterpret_cast<const char*>(frame->payload) + frame->length;
    std::map<CStdStr<char>, CStdStr<char>> pairs;
    while (pairs.size() < pairsLimit) {
        const char* const keyEnd = std::find(at, end, '\0');
        if (keyEnd == end) {
            break;
        }
        const char* const valueEnd = std::find(keyEnd + 1, end, '\0');
        if (valueEnd == end) {
            break;
        }
        CBBLog::debug("Received new metadata %s %s", at, keyEnd + 1);
        pairs[at] = keyEnd + 1;
        at = valueEnd + 1;
    }
    // It is due when the reader has passed what is in the ring by now.
    const unsigned long long due = m_streamStart + m_buffer->getTotalBytesWritten();
    PMutexGuard guard(m_metadataLock);
    m_metadata[due] = std::move(pairs);
    if (m_metadata.size() > waitingLimit) {
        m_metadata.erase(m_metadata.begin()); // the next one would take its place anyway
    }
    return true;
}

} // namespace zel
