#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

/// A content whose every byte is a hash of its place. Any stretch can be made anywhere without
/// the rest, and a byte that arrives at a wrong place is seen.
namespace zel::test::positionBytes {

/// Bytes 8 * index to 8 * index + 7, the lowest first.
inline std::uint64_t word(std::uint64_t index)
{
    std::uint64_t hash = index + 0x9e3779b97f4a7c15ULL;
    hash = (hash ^ (hash >> 30)) * 0xbf58476d1ce4e5b9ULL;
    hash = (hash ^ (hash >> 27)) * 0x94d049bb133111ebULL;
    return hash ^ (hash >> 31);
}

inline unsigned char at(std::uint64_t offset)
{
    return static_cast<unsigned char>(word(offset / 8) >> (8 * (offset % 8)));
}

/// Writes the bytes from offset on.
inline void fill(std::uint64_t offset, void* buffer, std::size_t size)
{
    auto* out = static_cast<unsigned char*>(buffer);
    std::size_t done = 0;
    while (done < size) {
        if ((offset + done) % 8 == 0 && size - done >= 8) {
            const std::uint64_t eight = word((offset + done) / 8);
            for (unsigned i = 0; i < 8; ++i) {
                out[done + i] = static_cast<unsigned char>(eight >> (8 * i));
            }
            done += 8;
        } else {
            out[done] = at(offset + done);
            ++done;
        }
    }
}

inline std::string make(std::uint64_t offset, std::size_t size)
{
    std::string bytes(size, '\0');
    fill(offset, bytes.data(), size);
    return bytes;
}

/// @return the first place, from the content's begin, that holds a wrong byte; nothing when all
///         size bytes are those from offset on
inline std::optional<std::uint64_t> firstWrong(std::uint64_t offset, const void* bytes,
                                               std::size_t size)
{
    const auto* in = static_cast<const unsigned char*>(bytes);
    constexpr std::size_t Piece = 4096;
    unsigned char right[Piece];
    for (std::size_t done = 0; done < size; done += Piece) {
        const std::size_t count = size - done < Piece ? size - done : Piece;
        fill(offset + done, right, count);
        if (std::memcmp(right, in + done, count) == 0) {
            continue;
        }
        std::size_t i = 0;
        while (right[i] == in[done + i]) {
            ++i;
        }
        return offset + done + i;
    }
    return std::nullopt;
}

} // namespace zel::test::positionBytes
