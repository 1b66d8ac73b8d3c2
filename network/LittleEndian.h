#pragma once

#include <cstdint>

/// Numbers as MMS and ASF write them. The bytes must be there.
namespace zel {

inline std::uint16_t littleEndian16(const unsigned char* p)
{
    return static_cast<std::uint16_t>(p[0] | p[1] << 8);
}

inline std::uint32_t littleEndian32(const unsigned char* p)
{
    return littleEndian16(p) | static_cast<std::uint32_t>(littleEndian16(p + 2)) << 16;
}

inline std::uint64_t littleEndian64(const unsigned char* p)
{
    return littleEndian32(p) | static_cast<std::uint64_t>(littleEndian32(p + 4)) << 32;
}

} // namespace zel
