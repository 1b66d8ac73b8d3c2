#pragma once

#include "buffers/CircularHistoryBuffer.h"
#include "buffers/CircularHistoryBufferReader.h"

#include <vector>

namespace zel::test {

using Bytes = std::vector<unsigned char>;

/// The byte at a stream offset: content that tells where it belongs, for streams of any length.
inline unsigned char streamByte(unsigned long long offset)
{
    unsigned long long mixed = offset * 0x9E3779B97F4A7C15ULL;
    mixed ^= mixed >> 29U;
    return static_cast<unsigned char>((mixed * 0xBF58476D1CE4E5B9ULL) >> 56U);
}

inline Bytes streamBytes(unsigned long long offset, unsigned long long size)
{
    Bytes bytes(size);
    for (unsigned char& byte : bytes) {
        byte = streamByte(offset++);
    }
    return bytes;
}

/// Writes the `size` bytes of the stream that follow `offset`.
inline long long writeStream(CircularHistoryBuffer& buffer, unsigned long long offset,
                             unsigned long long size, bool blocking = false)
{
    return buffer.write(streamBytes(offset, size).data(), size, blocking);
}

/// Reads at most `size` bytes that are there. A failure gives no bytes.
inline Bytes readBytes(CircularHistoryBufferReader& reader, unsigned long long size)
{
    Bytes bytes(size + 1);
    const long long n = reader.read(bytes.data(), size, 0, 0, false, 0);
    bytes.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return bytes;
}

} // namespace zel::test
