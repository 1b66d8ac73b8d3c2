#pragma once

extern "C" {
#include <libavutil/pixfmt.h>
}

#include <cstdint>

namespace zel::av {

/// Fills the second field of a picture in from its surroundings.
///
/// Rows 0, 2, 4, ... are copied. Each other row y becomes, pixel by pixel,
/// clip((-a + 4b + 2c + 4d - e + 4) >> 3) over the rows y-2 ... y+2. Above the top stands row 0;
/// below the bottom the last row itself.
///
/// @param planes, strides  the destination, as large as the source
/// @return 0, or a negative number with nothing written when the format is none of planar 4:2:0,
///         4:2:2, 4:4:4, 4:1:1 and grey with 8 bits, or a side is no multiple of 4
int deinterlace(uint8_t* const planes[4], const int strides[4], const uint8_t* const source[4],
                const int sourceStrides[4], AVPixelFormat format, int width, int height);

} // namespace zel::av
