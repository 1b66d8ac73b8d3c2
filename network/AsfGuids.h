#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace zel {

/// A GUID as its four fields. In an ASF file the first three stand in little-endian order.
struct _GUID
{
    std::uint32_t data1;
    std::uint16_t data2;
    std::uint16_t data3;
    std::uint8_t data4[8];
};

constexpr std::size_t asfGuidBytes = 16;

/// The rows of the table that somebody asks for.
namespace AsfObject {
enum Row
{
    NONE = 0,
    DATA = 2,
    FILE_PROPERTIES = 7,
    STREAM_HEADER = 8,
    STREAM_BITRATE_PROPERTIES = 17,
    AUDIO_MEDIA = 20,
    VIDEO_MEDIA = 21,
    COMMAND_MEDIA = 22,
    JFIF_MEDIA = 23,
    DEGRADABLE_JPEG_MEDIA = 24
};
} // namespace AsfObject

struct AsfGuid
{
    const char* name;
    _GUID guid;
};

/// The objects and values of ASF headers. Row 0 stands for all that is not in the table.
extern const std::array<AsfGuid, 37> asfGuids;

/// @param p  16 bytes as they stand in a file
/// @return the row of the table; 0 when they are in none
int get_guid(const unsigned char* p);

bool IsGuidEqual(_GUID a, _GUID b);
void CopyGuid(_GUID& to, _GUID from);

} // namespace zel
