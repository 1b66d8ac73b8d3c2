#pragma once

#include "plugin/BitTools.h"
#include "plugin/SimpleSamplePacket.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <memory>

/// Packets that turn an audio frame into an RTP payload while they copy it.

namespace zel::streamer {

/// An octet-aligned AMR payload of one frame:
///
///     0xF0 | table of contents, no further frame | speech bytes | one byte of tail
class AMRSamplePacket : public SimpleSamplePacket
{
public:
    /// Null data gives no buffer and the length that was passed; a frame without a byte gives an
    /// empty packet.
    /// @param data  a frame that begins with its table-of-contents byte
    void setAndCopy(PacketType::Enum type, const unsigned char* data, int length,
                    unsigned long long timestamp, unsigned long long duration,
                    bool keyFrame) override
    {
        if (!data) {
            set(type, nullptr, length, timestamp, duration, keyFrame);
            return;
        }
        if (length < 1 || length > std::numeric_limits<int>::max() - 2) {
            set(type, nullptr, 0, timestamp, duration, keyFrame);
            return;
        }
        // Kept: the payload is one byte longer than what is written to it. The packetiser sends
        // that tail along, and receivers take the frame's size from its table of contents.
        const std::size_t size = static_cast<std::size_t>(length) + 2;
        auto payload = std::make_unique<unsigned char[]>(size);
        payload[0] = noModeRequest;
        payload[1] = data[0] & lastFrame;
        std::copy_n(data + 1, length - 1, payload.get() + 2);
        set(type, payload.release(), length + 2, timestamp, duration, keyFrame);
    }

private:
    static constexpr unsigned char noModeRequest = 0xF0;
    static constexpr unsigned char lastFrame = 0x7F;
};

/// An AAC payload after RFC 3640, mode AAC-hbr, of one frame:
///
///     0x00 0x10 (16 bits of headers) | 13 bits frame size, 3 bits index 0 | frame
class MP4AGENSamplePacket : public SimpleSamplePacket
{
public:
    /// A frame without a byte or one that 13 bits cannot count gives an empty packet, with the
    /// times set.
    void setAndCopy(PacketType::Enum type, const unsigned char* data, int length,
                    unsigned long long timestamp, unsigned long long duration,
                    bool keyFrame) override
    {
        if (!data || length < 1 || length > maxFrameSize) {
            set(type, nullptr, 0, timestamp, duration, keyFrame);
            return;
        }
        auto payload = std::make_unique<unsigned char[]>(static_cast<std::size_t>(length) + 4);
        payload[0] = 0x00;
        payload[1] = 0x10;
        payload[2] = static_cast<unsigned char>((length * 8) >> 8);
        payload[3] = static_cast<unsigned char>(length * 8);
        std::copy_n(data, length, payload.get() + 4);
        set(type, payload.release(), length + 4, timestamp, duration, keyFrame);
    }

private:
    static constexpr int maxFrameSize = 8191;
};

/// An AAC payload in LATM form:
///
///     0xFF for each full 255 bytes | the rest, one byte below 255 | frame
class MP4ALATMSamplePacket : public SimpleSamplePacket
{
public:
    /// Null data gives no buffer and the length that was passed; a negative length an empty packet.
    void setAndCopy(PacketType::Enum type, const unsigned char* data, int length,
                    unsigned long long timestamp, unsigned long long duration,
                    bool keyFrame) override
    {
        if (!data) {
            set(type, nullptr, length, timestamp, duration, keyFrame);
            return;
        }
        if (length < 0 || length > std::numeric_limits<int>::max() - length / 255 - 1) {
            set(type, nullptr, 0, timestamp, duration, keyFrame);
            return;
        }
        const int headerSize = length / 255 + 1;
        const int size = headerSize + length;
        auto payload = std::make_unique<unsigned char[]>(
            static_cast<std::size_t>(std::max(size, usualBufferSize)));
        unsigned long position = 0;
        for (int i = 1; i < headerSize; ++i) {
            writeBits(payload.get(), 0xFFUL, 8, position);
            position += 8;
        }
        writeBits(payload.get(), static_cast<unsigned long>(length % 255), 8, position);
        position += 8;
        writeBits(payload.get(), data, static_cast<unsigned long>(length) * 8, position);
        set(type, payload.release(), size, timestamp, duration, keyFrame);
    }

private:
    /// Frames stay far below it; a larger one gets the room it needs.
    static constexpr int usualBufferSize = 10240;
};

} // namespace zel::streamer
