#pragma once

#include "plugin/SamplePacket.h"

#include <algorithm>
#include <cstddef>
#include <memory>

namespace zel::streamer {

/// The plain packet: bytes in an array of its own, with type, times and key flag.
///
/// Whoever makes one holds its first reference. It can be refilled while it is held, which frees
/// the old bytes. Not safe for two threads at once.
class SimpleSamplePacket : public SamplePacket
{
public:
    /// Zero bytes behind every copy that setAndCopy makes, for readers that run past the end:
    /// FFmpeg's bit readers ask for AV_INPUT_BUFFER_PADDING_SIZE.
    static constexpr int Padding = 64;

    SimpleSamplePacket() = default;
    SimpleSamplePacket(const SimpleSamplePacket&) = delete;
    SimpleSamplePacket& operator=(const SimpleSamplePacket&) = delete;
    ~SimpleSamplePacket() override { delete[] m_buffer; }

    void release() override
    {
        if (--m_referenceCount <= 0) {
            delete this;
        }
    }
    void retain() override { ++m_referenceCount; }
    unsigned long long getTimestamp() const override { return m_timestamp; }
    void setTimestamp(const unsigned long long& timestampUs) override { m_timestamp = timestampUs; }
    unsigned long long getDuration() const override { return m_duration; }
    void setDuration(unsigned long long& durationUs) override { m_duration = durationUs; }
    PacketType::Enum getType() const override { return m_type; }
    unsigned char* getBuffer() const override { return m_buffer; }
    int getLength() const override { return m_length; }
    bool isKeyFrame() const override { return m_keyFrame; }

    /// Fills the packet with a padded copy. Null data gives a packet without a buffer and with the
    /// length that was passed.
    /// @param length  bytes in data; a negative one copies nothing
    virtual void setAndCopy(PacketType::Enum type, const unsigned char* data, int length,
                            unsigned long long timestamp, unsigned long long duration,
                            bool keyFrame)
    {
        std::unique_ptr<unsigned char[]> copy;
        if (data) {
            copy = copyPadded(data, length);
        }
        set(type, copy.release(), length, timestamp, duration, keyFrame);
    }

    /// Fills the packet without a copy.
    /// @param data  an array made by new[], the packet's own from here on; may be null
    virtual void set(PacketType::Enum type, unsigned char* data, int length,
                     unsigned long long timestamp, unsigned long long duration, bool keyFrame)
    {
        if (data != m_buffer) {
            delete[] m_buffer;
        }
        m_type = type;
        m_buffer = data;
        m_length = length;
        m_timestamp = timestamp;
        m_duration = duration;
        m_keyFrame = keyFrame;
    }

protected:
    /// A new array with the bytes and Padding zeros behind them.
    static std::unique_ptr<unsigned char[]> copyPadded(const unsigned char* data, int length)
    {
        const std::size_t size = static_cast<std::size_t>(std::max(length, 0));
        auto copy = std::make_unique_for_overwrite<unsigned char[]>(size + Padding);
        std::copy_n(data, size, copy.get());
        std::fill_n(copy.get() + size, Padding, static_cast<unsigned char>(0));
        return copy;
    }

    PacketType::Enum m_type = PacketType::None;
    unsigned char* m_buffer = nullptr; ///< owned, made by new[]; null when empty
    int m_length = 0;                  ///< bytes in m_buffer without the padding
    unsigned long long m_timestamp = 0;
    unsigned long long m_duration = 0;
    bool m_keyFrame = false;
    int m_referenceCount = 1;
};

} // namespace zel::streamer
