#include "tests/support/MmsChunks.h"

#include <algorithm>
#include <stdexcept>

namespace zel::test::mms {

namespace {

constexpr std::size_t MostDataBytes = 0xffff;
constexpr std::uint8_t FirstHeaderFlag = 4;
constexpr std::uint8_t LastHeaderFlag = 8;

void appendNumber(std::string& bytes, std::uint64_t number, std::size_t size)
{
    for (std::size_t i = 0; i < size; ++i) {
        bytes += static_cast<char>(number >> (8 * i));
    }
}

std::uint16_t numberAt(const std::string& bytes, std::size_t offset)
{
    return static_cast<std::uint16_t>(static_cast<unsigned char>(bytes[offset]) |
                                      static_cast<unsigned char>(bytes[offset + 1]) << 8);
}

} // namespace

std::string chunk(std::uint16_t type, std::string_view data)
{
    if (data.size() > MostDataBytes) {
        throw std::length_error("too much for an MMS chunk");
    }
    std::string bytes;
    appendNumber(bytes, type, 2);
    appendNumber(bytes, data.size(), 2);
    bytes += data;
    return bytes;
}

std::string locatedChunk(std::uint16_t type, std::uint32_t location, std::uint8_t incarnation,
                         std::uint8_t flags, std::string_view payload)
{
    std::string data;
    appendNumber(data, location, 4);
    appendNumber(data, incarnation, 1);
    appendNumber(data, flags, 1);
    appendNumber(data, payload.size() + LocationBytes, 2);
    data += payload;
    return chunk(type, data);
}

std::string headerChunks(std::string_view header, std::uint8_t incarnation)
{
    std::string chunks;
    std::uint32_t location = 0;
    std::uint8_t flags = FirstHeaderFlag;
    do {
        const std::size_t size = std::min(header.size(), MostDataBytes - LocationBytes);
        if (size == header.size()) {
            flags |= LastHeaderFlag;
        }
        chunks += locatedChunk(HeaderType, location++, incarnation, flags, header.substr(0, size));
        header.remove_prefix(size);
        flags = 0;
    } while (!header.empty());
    return chunks;
}

std::string dataChunk(std::uint32_t number, std::string_view packet, std::uint8_t incarnation)
{
    // The flags of data count its chunks.
    return locatedChunk(DataType, number, incarnation, static_cast<std::uint8_t>(number), packet);
}

std::string metadataChunk(const std::vector<std::pair<std::string, std::string>>& pairs)
{
    std::string payload;
    for (const auto& [key, value] : pairs) {
        payload += key + '\0' + value + '\0';
    }
    return locatedChunk(MetadataType, 0, 0, 0, payload);
}

std::string endChunk(std::uint32_t reason)
{
    std::string data;
    appendNumber(data, reason, 4);
    return chunk(EndType, data);
}

std::vector<Chunk> takeChunks(std::string& body)
{
    std::vector<Chunk> chunks;
    std::size_t offset = 0;
    while (body.size() - offset >= ChunkHeadBytes) {
        const std::size_t size = numberAt(body, offset + 2);
        if (body.size() - offset - ChunkHeadBytes < size) {
            break;
        }
        chunks.push_back({numberAt(body, offset), body.substr(offset + ChunkHeadBytes, size)});
        offset += ChunkHeadBytes + size;
    }
    body.erase(0, offset);
    return chunks;
}

} // namespace zel::test::mms
