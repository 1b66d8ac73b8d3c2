#pragma once

#include "common/utils/StdString.h"
#include "plugin/SamplePacket.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <utility>

namespace zel::streamer {

/// A table of keys and values, and the block of bytes in which it passes a queue or the host.
///
/// A block is a row of entries without a count; it ends where its length says:
///
///     key | 0 | value | 0 | 0 | key | 0 | value | 0 | 0 ...
///
/// Whoever makes a packet holds its first reference. Not safe for two threads at once.
class MetadataPacket : public SamplePacket
{
public:
    using Table = std::map<CStdStr<char>, CStdStr<char>>;

    /// One row, encoded to the buffer.
    MetadataPacket(const CStdStr<char>& key, const CStdStr<char>& value)
    {
        m_metadata[key] = value;
        encodeTable();
    }

    /// All rows, encoded to the buffer.
    explicit MetadataPacket(const Table& metadata) : m_metadata(metadata) { encodeTable(); }

    /// Reads a block of any origin. Keeps no buffer.
    /// @param data  size bytes; may be null
    MetadataPacket(const char* data, unsigned int size) { parse(data, size); }

    MetadataPacket(const MetadataPacket&) = delete;
    MetadataPacket& operator=(const MetadataPacket&) = delete;
    ~MetadataPacket() override { delete[] m_buffer; }

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

    /// @return the value, empty when there is no such key
    CStdStr<char> getMetadata(const CStdStr<char>& key) const
    {
        const auto row = m_metadata.find(key);
        return row == m_metadata.end() ? CStdStr<char>() : row->second;
    }

    Table getAllMetadata() const { return m_metadata; }

    /// Hands the buffer to the caller, who frees it with delete[]; the packet has none afterwards.
    unsigned char* detachBuffer()
    {
        m_length = 0;
        return std::exchange(m_buffer, nullptr);
    }

    /// Puts an entry in front of a block; an empty key or value changes nothing. A NUL would end
    /// the entry early, so a key or value counts up to its first.
    /// @param buffer  an array made by new[], or null; replaced by a new one
    /// @param length  bytes in buffer
    static void encodeMetadata(unsigned char*& buffer, int& length, const CStdStr<char>& key,
                               const CStdStr<char>& value)
    {
        const std::size_t keySize = std::strlen(key.c_str());
        const std::size_t valueSize = std::strlen(value.c_str());
        if (keySize == 0 || valueSize == 0) {
            return;
        }
        const std::size_t oldSize = buffer ? static_cast<std::size_t>(std::max(length, 0)) : 0;
        const std::size_t entrySize = keySize + valueSize + 3;
        if (entrySize + oldSize > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
            return;
        }
        // The array begins as zeros, so the terminators stand already.
        auto block = std::make_unique<unsigned char[]>(entrySize + oldSize);
        std::copy_n(key.c_str(), keySize, block.get());
        std::copy_n(value.c_str(), valueSize, block.get() + keySize + 1);
        std::copy_n(buffer, oldSize, block.get() + entrySize);
        delete[] buffer;
        buffer = block.release();
        length = static_cast<int>(entrySize + oldSize);
    }

private:
    void encodeTable()
    {
        for (const auto& [key, value] : m_metadata) {
            encodeMetadata(m_buffer, m_length, key, value);
        }
    }

    /// A block that does not end in a NUL is read up to its end, never beyond.
    void parse(const char* data, std::size_t size)
    {
        const auto textAt = [data, size](std::size_t position) {
            const char* end = std::find(data + position, data + size, '\0');
            return CStdStr<char>(std::string(data + position, end));
        };
        if (!data) {
            return;
        }
        std::size_t position = 0;
        while (position < size) {
            const CStdStr<char> key = textAt(position);
            position += key.size() + 1;
            if (position >= size) {
                return;
            }
            const CStdStr<char> value = textAt(position);
            position += value.size() + 2;
            m_metadata[key] = value;
        }
    }

    PacketType::Enum m_type = PacketType::Metadata;
    unsigned char* m_buffer = nullptr; ///< owned, made by new[]
    int m_length = 0;
    unsigned long long m_timestamp = 0;
    unsigned long long m_duration = 0;
    bool m_keyFrame = false;
    int m_referenceCount = 1;
    Table m_metadata;
};

} // namespace zel::streamer
