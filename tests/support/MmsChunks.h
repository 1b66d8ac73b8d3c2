#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// The chunks in which MMS over HTTP travels. All numbers are little-endian:
///
///     | 2: type | 2: size of what follows | data |
///
/// Data of header, data and metadata chunks begins with 8 bytes: location 32 bits, incarnation of
/// the play 8, flags 8, once more the size 16.

namespace zel::test::mms {

constexpr std::uint16_t ResetType = 0x4324;    ///< $C
constexpr std::uint16_t DataType = 0x4424;     ///< $D
constexpr std::uint16_t EndType = 0x4524;      ///< $E
constexpr std::uint16_t HeaderType = 0x4824;   ///< $H
constexpr std::uint16_t MetadataType = 0x4d24; ///< $M

constexpr std::size_t ChunkHeadBytes = 4;
constexpr std::size_t LocationBytes = 8;

/// Any chunk. Throws std::length_error when the data is above 65535 bytes.
std::string chunk(std::uint16_t type, std::string_view data);
/// A chunk whose data begins with the 8 bytes.
std::string locatedChunk(std::uint16_t type, std::uint32_t location, std::uint8_t incarnation,
                         std::uint8_t flags, std::string_view payload);

/// The header of a stream in as few chunks as can hold it. Its first one has flag 4, its last 8.
std::string headerChunks(std::string_view header, std::uint8_t incarnation = 0);
/// @param packet  its bytes, with or without padding
std::string dataChunk(std::uint32_t number, std::string_view packet, std::uint8_t incarnation = 0);
/// Pairs of key and value.
std::string metadataChunk(const std::vector<std::pair<std::string, std::string>>& pairs);
/// @param reason  0 at the medium's end
std::string endChunk(std::uint32_t reason = 0);

/// A chunk as it is found in a body.
struct Chunk
{
    std::uint16_t type = 0;
    std::string data; ///< with the 8 bytes
};

/// The whole chunks from a body's begin on. What is left over stays in `body`.
std::vector<Chunk> takeChunks(std::string& body);

} // namespace zel::test::mms
