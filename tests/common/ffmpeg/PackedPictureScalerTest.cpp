#include "common/ffmpeg/PackedPictureScaler.h"

extern "C" {
#include <libavutil/imgutils.h>
}

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <span>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

using zel::av::Frame;
using zel::av::PackedPictureScaler;
using Shape = PackedPictureScaler::Shape;

namespace {

constexpr AVPixelFormat Formats[] = {AV_PIX_FMT_RGB24, AV_PIX_FMT_BGR24,   AV_PIX_FMT_BGRA,
                                     AV_PIX_FMT_RGBA,  AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUYV422};

/// Memory whose end touches a page that nobody may read.
class FencedMemory
{
public:
    explicit FencedMemory(std::size_t size) : m_size(size)
    {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        m_mappedSize = (size + page - 1) / page * page + page;
        void* mapped =
            mmap(nullptr, m_mappedSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped == MAP_FAILED) {
            throw std::bad_alloc();
        }
        m_mapped = static_cast<unsigned char*>(mapped);
        mprotect(m_mapped + m_mappedSize - page, page, PROT_NONE);
        m_begin = m_mapped + m_mappedSize - page - size;
    }
    ~FencedMemory() { munmap(m_mapped, m_mappedSize); }
    FencedMemory(const FencedMemory&) = delete;
    FencedMemory& operator=(const FencedMemory&) = delete;

    std::span<unsigned char> bytes() { return {m_begin, m_size}; }

private:
    std::size_t m_size;
    std::size_t m_mappedSize;
    unsigned char* m_mapped;
    unsigned char* m_begin;
};

void fillWithNoise(std::span<unsigned char> bytes, unsigned int seed)
{
    std::mt19937 random(seed);
    std::generate(bytes.begin(), bytes.end(),
                  [&random] { return static_cast<unsigned char>(random()); });
}

std::size_t sizeOf(const Shape& shape)
{
    return static_cast<std::size_t>(
        av_image_get_buffer_size(shape.format, shape.width, shape.height, 1));
}

Frame makeOutput(const Shape& shape)
{
    Frame frame = zel::av::makeFrame();
    frame->format = shape.format;
    frame->width = shape.width;
    frame->height = shape.height;
    EXPECT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
    return frame;
}

std::string planesOf(const AVFrame& frame)
{
    const auto format = static_cast<AVPixelFormat>(frame.format);
    const int size = av_image_get_buffer_size(format, frame.width, frame.height, 1);
    std::string planes(static_cast<std::size_t>(size), '\0');
    av_image_copy_to_buffer(reinterpret_cast<uint8_t*>(planes.data()), size, frame.data,
                            frame.linesize, format, frame.width, frame.height, 1);
    return planes;
}

/// What one call of the library makes of the whole picture, with room behind it.
std::string scaledAtOnce(const Shape& from, std::span<const unsigned char> picture, bool bottomUp,
                         const Shape& to)
{
    std::vector<unsigned char> padded(picture.begin(), picture.end());
    padded.resize(padded.size() + 4096);
    const zel::av::Scaler scaler(sws_getContext(from.width, from.height, from.format, to.width,
                                                to.height, to.format, SWS_BILINEAR, nullptr,
                                                nullptr, nullptr));
    unsigned char* planes[4];
    int strides[4];
    av_image_fill_arrays(planes, strides, padded.data(), from.format, from.width, from.height, 1);
    if (bottomUp) {
        planes[0] += static_cast<std::ptrdiff_t>(strides[0]) * (from.height - 1);
        strides[0] = -strides[0];
    }
    const Frame frame = makeOutput(to);
    sws_scale(scaler.get(), planes, strides, 0, from.height, frame->data, frame->linesize);
    return planesOf(*frame);
}

/// The library leaves the last row of chroma of such a picture as it was; it is that of the
/// picture's last row.
bool isLastChromaLeftOut(const Shape& from, const Shape& to)
{
    return from.format == AV_PIX_FMT_YUYV422 && from.height % 2 != 0 && from.width == to.width &&
           from.height == to.height;
}

void drawLastChroma(const Shape& from, std::span<const unsigned char> picture, bool bottomUp,
                    std::string& planes)
{
    const int halfWidth = (from.width + 1) / 2;
    const int halfHeight = (from.height + 1) / 2;
    const auto pairs = static_cast<std::size_t>(halfWidth);
    const std::size_t lumaSize =
        static_cast<std::size_t>(from.width) * static_cast<std::size_t>(from.height);
    const std::size_t chromaSize = pairs * static_cast<std::size_t>(halfHeight);
    const auto lastRow = bottomUp ? picture.first(pairs * 4) : picture.last(pairs * 4);
    for (std::size_t i = 0; i < pairs; ++i) {
        planes[lumaSize + chromaSize - pairs + i] = static_cast<char>(lastRow[4 * i + 1]);
        planes[lumaSize + 2 * chromaSize - pairs + i] = static_cast<char>(lastRow[4 * i + 3]);
    }
}

std::string nameOf(const Shape& from, const Shape& to, bool bottomUp)
{
    return std::string(av_get_pix_fmt_name(from.format)) + " " + std::to_string(from.width) + "x" +
           std::to_string(from.height) + " to " + std::to_string(to.width) + "x" +
           std::to_string(to.height) + (bottomUp ? " bottom up" : "");
}

/// Scales two pictures one after the other, as a stream has them.
void expectSameAsAtOnce(const Shape& from, const Shape& to, bool bottomUp)
{
    const auto scaler = PackedPictureScaler::create(from, to);
    ASSERT_NE(scaler, nullptr) << nameOf(from, to, bottomUp);
    EXPECT_EQ(scaler->sourceBytes(), sizeOf(from));
    const Frame frame = makeOutput(to);
    FencedMemory picture(sizeOf(from));
    for (const unsigned int seed : {1U, 2U}) {
        fillWithNoise(picture.bytes(), seed);
        ASSERT_TRUE(scaler->scale(picture.bytes(), bottomUp, *frame));
        std::string expected = scaledAtOnce(from, picture.bytes(), bottomUp, to);
        if (isLastChromaLeftOut(from, to)) {
            drawLastChroma(from, picture.bytes(), bottomUp, expected);
        }
        ASSERT_TRUE(planesOf(*frame) == expected) << nameOf(from, to, bottomUp);
    }
}

bool isPlanar(AVPixelFormat format)
{
    return format == AV_PIX_FMT_YUV420P;
}

} // namespace

TEST(PackedPictureScaler, EveryHeightComesOutAsInOneCall)
{
    for (const AVPixelFormat format : Formats) {
        for (int height = 1; height <= 40; ++height) {
            expectSameAsAtOnce({format, 50, height}, {AV_PIX_FMT_YUV420P, 50, height}, false);
        }
    }
}

TEST(PackedPictureScaler, EveryHeightComesOutBottomUpAsInOneCall)
{
    for (const AVPixelFormat format : Formats) {
        for (int height = 1; height <= 40 && !isPlanar(format); ++height) {
            expectSameAsAtOnce({format, 50, height}, {AV_PIX_FMT_YUV420P, 50, height}, true);
        }
    }
}

TEST(PackedPictureScaler, SmallerAndLargerPicturesComeOutAsInOneCall)
{
    for (const AVPixelFormat format : Formats) {
        for (const int height : {1, 2, 3, 15, 16, 17, 18, 19, 31, 33, 40}) {
            for (const bool bottomUp : {false, true}) {
                if (bottomUp && isPlanar(format)) {
                    continue;
                }
                const Shape from{format, 50, height};
                expectSameAsAtOnce(from, {AV_PIX_FMT_YUV420P, 160, 120}, bottomUp);
                expectSameAsAtOnce(from, {AV_PIX_FMT_YUV420P, 32, 16}, bottomUp);
                expectSameAsAtOnce(from, {AV_PIX_FMT_YUV420P, 50, 2 * height}, bottomUp);
                expectSameAsAtOnce(from, {AV_PIX_FMT_YUV420P, 100, height}, bottomUp);
            }
        }
    }
}

TEST(PackedPictureScaler, PicturesOfUsualSizesComeOutAsInOneCall)
{
    for (const AVPixelFormat format : Formats) {
        for (const bool bottomUp : {false, true}) {
            if (bottomUp && isPlanar(format)) {
                continue;
            }
            expectSameAsAtOnce({format, 640, 480}, {AV_PIX_FMT_YUV420P, 640, 480}, bottomUp);
            expectSameAsAtOnce({format, 640, 480}, {AV_PIX_FMT_YUV420P, 160, 120}, bottomUp);
            expectSameAsAtOnce({format, 322, 240}, {AV_PIX_FMT_YUV420P, 640, 480}, bottomUp);
        }
    }
}

TEST(PackedPictureScaler, NothingIsReadBehindAPictureOfAnyWidth)
{
    for (const AVPixelFormat format : Formats) {
        for (const int width : {1, 2, 3, 7, 15, 16, 17, 31, 33, 63, 65, 127, 175, 321, 322, 323}) {
            for (const int height : {1, 2, 17, 36}) {
                expectSameAsAtOnce({format, width, height}, {AV_PIX_FMT_YUV420P, width, height},
                                   false);
                expectSameAsAtOnce({format, width, height}, {AV_PIX_FMT_YUV420P, 160, 120}, false);
                if (!isPlanar(format)) {
                    expectSameAsAtOnce({format, width, height}, {AV_PIX_FMT_YUV420P, width, height},
                                       true);
                }
            }
        }
    }
}

TEST(PackedPictureScaler, BytesBehindThePictureDoNotCount)
{
    const Shape to{AV_PIX_FMT_YUV420P, 322, 36};
    for (const AVPixelFormat format : Formats) {
        const Shape from{format, 322, 36};
        for (const std::size_t surplus : {1U, 63U, 64U, 65U, 1000U}) {
            const auto scaler = PackedPictureScaler::create(from, to);
            ASSERT_NE(scaler, nullptr);
            FencedMemory memory(sizeOf(from) + surplus);
            fillWithNoise(memory.bytes(), 3);
            const Frame frame = makeOutput(to);
            ASSERT_TRUE(scaler->scale(memory.bytes(), false, *frame));
            EXPECT_TRUE(planesOf(*frame) ==
                        scaledAtOnce(from, memory.bytes().first(sizeOf(from)), false, to))
                << av_get_pix_fmt_name(format) << " " << surplus;
        }
    }
}

TEST(PackedPictureScaler, AShortPictureIsRefused)
{
    for (const AVPixelFormat format : Formats) {
        const Shape from{format, 50, 20};
        const Shape to{AV_PIX_FMT_YUV420P, 50, 20};
        const auto scaler = PackedPictureScaler::create(from, to);
        ASSERT_NE(scaler, nullptr);
        FencedMemory picture(sizeOf(from));
        const Frame frame = makeOutput(to);
        EXPECT_FALSE(scaler->scale(picture.bytes().first(sizeOf(from) - 1), false, *frame));
        EXPECT_FALSE(scaler->scale({}, false, *frame));
        EXPECT_TRUE(scaler->scale(picture.bytes(), false, *frame));
    }
}

TEST(PackedPictureScaler, AFrameOfAnotherSizeIsRefused)
{
    const Shape from{AV_PIX_FMT_RGB24, 50, 20};
    const auto scaler = PackedPictureScaler::create(from, {AV_PIX_FMT_YUV420P, 50, 20});
    ASSERT_NE(scaler, nullptr);
    FencedMemory picture(sizeOf(from));
    EXPECT_FALSE(scaler->scale(picture.bytes(), false, *makeOutput({AV_PIX_FMT_YUV420P, 50, 18})));
    EXPECT_FALSE(scaler->scale(picture.bytes(), false, *makeOutput({AV_PIX_FMT_YUV420P, 48, 20})));
}

TEST(PackedPictureScaler, ShapesThatAreNoPicturesHaveNoScaler)
{
    const Shape good{AV_PIX_FMT_YUV420P, 50, 20};
    EXPECT_EQ(PackedPictureScaler::create({AV_PIX_FMT_RGB24, 0, 20}, good), nullptr);
    EXPECT_EQ(PackedPictureScaler::create({AV_PIX_FMT_RGB24, 50, 0}, good), nullptr);
    EXPECT_EQ(PackedPictureScaler::create({AV_PIX_FMT_RGB24, -50, 20}, good), nullptr);
    EXPECT_EQ(PackedPictureScaler::create({AV_PIX_FMT_RGB24, 50, -20}, good), nullptr);
    EXPECT_EQ(PackedPictureScaler::create({AV_PIX_FMT_NONE, 50, 20}, good), nullptr);
    EXPECT_EQ(PackedPictureScaler::create(good, {AV_PIX_FMT_YUV420P, 0, 20}), nullptr);
    EXPECT_EQ(PackedPictureScaler::create(good, {AV_PIX_FMT_YUV420P, 50, -1}), nullptr);
    EXPECT_EQ(PackedPictureScaler::create({AV_PIX_FMT_RGB24, 100000, 100000}, good), nullptr);
}
