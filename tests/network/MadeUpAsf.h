#pragma once

#include "network/AsfGuids.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// ASF headers and chunks made by hand, hostile ones included.
namespace zel::test::madeup {

inline std::string number(std::uint64_t value, std::size_t bytes)
{
    std::string text;
    for (std::size_t i = 0; i < bytes; ++i) {
        text += static_cast<char>(value >> (8 * i) & 0xff);
    }
    return text;
}

inline std::string guid(int row)
{
    const _GUID& value = asfGuids.at(static_cast<std::size_t>(row)).guid;
    return number(value.data1, 4) + number(value.data2, 2) + number(value.data3, 2) +
           std::string(reinterpret_cast<const char*>(value.data4), sizeof value.data4);
}

/// @param claimed  the size that it says of itself
inline std::string object(int row, std::string_view data, std::uint64_t claimed)
{
    return guid(row) + number(claimed, 8) + std::string(data);
}

inline std::string object(int row, std::string_view data)
{
    return object(row, data, 24 + data.size());
}

inline std::string fileProperties(unsigned packetLength, std::uint64_t preroll = 3000)
{
    return object(AsfObject::FILE_PROPERTIES, std::string(56, 'p') + number(preroll, 8) +
                                                  number(2, 4) + number(packetLength, 4) +
                                                  number(packetLength, 4) + number(64000, 4));
}

inline std::string streamHeader(int mediaRow, unsigned streamNumber)
{
    return object(AsfObject::STREAM_HEADER,
                  guid(mediaRow) + std::string(32, 's') + number(streamNumber, 2) + number(0, 4));
}

/// Pairs of stream number and bit rate.
inline std::string bitrates(const std::vector<std::pair<unsigned, unsigned>>& rates)
{
    std::string data = number(rates.size(), 2);
    for (const auto& [stream, rate] : rates) {
        data += number(stream, 2) + number(rate, 4);
    }
    return object(AsfObject::STREAM_BITRATE_PROPERTIES, data);
}

/// The beginning of the data object, which says the size of the whole.
inline std::string dataHead()
{
    return object(AsfObject::DATA, std::string(26, 'd'), 50 + 1000000);
}

/// The payload of a header chunk.
inline std::string asfHeader(std::string_view objects)
{
    return guid(1) + number(30 + objects.size(), 8) + number(3, 4) + "\x01\x02" +
           std::string(objects) + dataHead();
}

inline std::string chunk(std::string_view type, std::string_view rest)
{
    return std::string(type) + number(rest.size(), 2) + std::string(rest);
}

inline std::string dataChunk(std::string_view payload, unsigned place = 0)
{
    return chunk("$D", number(place, 4) + std::string(4, 'e') + std::string(payload));
}

inline std::string headerChunk(std::string_view payload)
{
    return chunk("$H", std::string(8, 'e') + std::string(payload));
}

/// Of packets of this size.
inline std::string headerChunk(unsigned packetLength)
{
    return headerChunk(asfHeader(fileProperties(packetLength)));
}

inline std::string endChunk()
{
    return chunk("$E", number(0, 4));
}

inline std::string metadataChunk(const std::vector<std::pair<std::string, std::string>>& pairs)
{
    std::string rest(8, 'm');
    for (const auto& [key, value] : pairs) {
        rest += key + '\0' + value + '\0';
    }
    return chunk("$M", rest);
}

/// The bytes of a packet without its padding; they tell their number and are never zero.
inline std::string packet(unsigned place, std::size_t size)
{
    std::string bytes(size, ' ');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(1 + (place * 131 + i * 7) % 255);
    }
    return bytes;
}

/// What a reader gets of it.
inline std::string padded(std::string bytes, std::size_t packetLength)
{
    bytes.resize(packetLength, '\0');
    return bytes;
}

} // namespace zel::test::madeup
