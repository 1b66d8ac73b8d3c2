#include "common/ffmpeg/Deinterlacer.h"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace zel::av {
namespace {

struct Rows
{
    const uint8_t* a;
    const uint8_t* b;
    const uint8_t* c;
    const uint8_t* d;
    const uint8_t* e;
};

void filterRow(uint8_t* __restrict out, const Rows& rows, int width)
{
    const uint8_t* __restrict a = rows.a;
    const uint8_t* __restrict b = rows.b;
    const uint8_t* __restrict c = rows.c;
    const uint8_t* __restrict d = rows.d;
    const uint8_t* __restrict e = rows.e;
    for (int x = 0; x < width; ++x) {
        const int sum = (-a[x] + 4 * b[x] + 2 * c[x] + 4 * d[x] - e[x] + 4) >> 3;
        out[x] = static_cast<uint8_t>(std::clamp(sum, 0, 255));
    }
}

void deinterlacePlane(uint8_t* out, int outStride, const uint8_t* in, int inStride, int width,
                      int height)
{
    const auto row = [&](int y) { return in + static_cast<ptrdiff_t>(y) * inStride; };
    for (int y = 0; y < height; ++y) {
        uint8_t* target = out + static_cast<ptrdiff_t>(y) * outStride;
        if (y % 2 == 0) {
            std::memcpy(target, row(y), static_cast<std::size_t>(width));
            continue;
        }
        const bool isLast = y + 1 == height;
        filterRow(target,
                  {row(std::max(y - 2, 0)), row(y - 1), row(y), row(isLast ? y : y + 1),
                   row(isLast           ? y
                       : y + 2 < height ? y + 2
                                        : y)},
                  width);
    }
}

bool isSupported(AVPixelFormat format)
{
    switch (format) {
    case AV_PIX_FMT_YUV420P:
    case AV_PIX_FMT_YUV422P:
    case AV_PIX_FMT_YUV444P:
    case AV_PIX_FMT_YUV411P:
    case AV_PIX_FMT_GRAY8:
        return true;
    default:
        return false;
    }
}

} // namespace

int deinterlace(uint8_t* const planes[4], const int strides[4], const uint8_t* const source[4],
                const int sourceStrides[4], AVPixelFormat format, int width, int height)
{
    if (!isSupported(format) || width <= 0 || height <= 0 || width % 4 != 0 || height % 4 != 0) {
        return AVERROR(EINVAL);
    }
    int chromaX = 0;
    int chromaY = 0;
    av_pix_fmt_get_chroma_sub_sample(format, &chromaX, &chromaY);
    const int planeCount = av_pix_fmt_count_planes(format);
    for (int plane = 0; plane < planeCount; ++plane) {
        deinterlacePlane(planes[plane], strides[plane], source[plane], sourceStrides[plane],
                         plane == 0 ? width : width >> chromaX,
                         plane == 0 ? height : height >> chromaY);
    }
    return 0;
}

} // namespace zel::av
