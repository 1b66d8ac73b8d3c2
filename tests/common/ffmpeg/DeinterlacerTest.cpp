#include "common/ffmpeg/Deinterlacer.h"

#include "tests/support/CoreReader.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <array>
#include <random>
#include <vector>

using zel::av::deinterlace;
using zel::test::clipPath;

namespace {

/// A picture in memory of its own, with some bytes behind each row that belong to nobody.
struct Picture
{
    struct Plane
    {
        int width = 0;
        int height = 0;
        int stride = 0;
        std::vector<uint8_t> bytes;

        /// Place of a pixel in `bytes`.
        std::size_t placeOf(int x, int y) const
        {
            return static_cast<std::size_t>(y) * static_cast<std::size_t>(stride) +
                   static_cast<std::size_t>(x);
        }
        int at(int x, int y) const { return bytes[placeOf(x, y)]; }
    };

    Picture(AVPixelFormat pixelFormat, int pictureWidth, int pictureHeight, int slack = 0)
        : format(pixelFormat), width(pictureWidth), height(pictureHeight)
    {
        int chromaX = 0;
        int chromaY = 0;
        av_pix_fmt_get_chroma_sub_sample(format, &chromaX, &chromaY);
        planes.resize(static_cast<std::size_t>(av_pix_fmt_count_planes(format)));
        for (std::size_t i = 0; i < planes.size(); ++i) {
            Plane& plane = planes[i];
            plane.width = i == 0 ? width : AV_CEIL_RSHIFT(width, chromaX);
            plane.height = i == 0 ? height : AV_CEIL_RSHIFT(height, chromaY);
            plane.stride = plane.width + slack;
            plane.bytes.assign(plane.placeOf(0, plane.height), 0xA5);
            pointers[i] = plane.bytes.data();
            strides[i] = plane.stride;
        }
    }

    void randomise(unsigned int seed)
    {
        std::mt19937 random(seed);
        for (Plane& plane : planes) {
            std::generate(plane.bytes.begin(), plane.bytes.end(),
                          [&random] { return static_cast<uint8_t>(random()); });
        }
    }

    AVPixelFormat format;
    int width;
    int height;
    std::vector<Plane> planes;
    std::array<uint8_t*, 4> pointers = {};
    std::array<int, 4> strides = {};
};

int deinterlacePictures(Picture& target, const Picture& source)
{
    const std::array<const uint8_t*, 4> from = {source.pointers[0], source.pointers[1],
                                                source.pointers[2], source.pointers[3]};
    return deinterlace(target.pointers.data(), target.strides.data(), from.data(),
                       source.strides.data(), source.format, source.width, source.height);
}

/// The filter, written down pixel by pixel.
int expectedPixel(const Picture::Plane& plane, int x, int y)
{
    if (y % 2 == 0) {
        return plane.at(x, y);
    }
    const bool isLast = y == plane.height - 1;
    const int a = plane.at(x, y - 2 < 0 ? 0 : y - 2);
    const int b = plane.at(x, y - 1);
    const int c = plane.at(x, y);
    const int d = isLast ? c : plane.at(x, y + 1);
    const int e = isLast ? c : plane.at(x, y + 2);
    const int sum = -a + 4 * b + 2 * c + 4 * d - e + 4;
    const int value = sum >= 0 ? sum / 8 : -((-sum + 7) / 8);
    return std::min(255, std::max(0, value));
}

void expectDeinterlaced(const Picture& target, const Picture& source)
{
    for (std::size_t i = 0; i < source.planes.size(); ++i) {
        const Picture::Plane& plane = source.planes[i];
        int wrong = 0;
        for (int y = 0; y < plane.height; ++y) {
            for (int x = 0; x < plane.width; ++x) {
                wrong += target.planes[i].at(x, y) != expectedPixel(plane, x, y) ? 1 : 0;
            }
        }
        EXPECT_EQ(wrong, 0) << "plane " << i << " of " << av_get_pix_fmt_name(source.format);
    }
}

constexpr std::array Supported = {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUV422P, AV_PIX_FMT_YUV444P,
                                  AV_PIX_FMT_YUV411P, AV_PIX_FMT_GRAY8};

} // namespace

TEST(Deinterlacer, FiltersRandomPicturesOfAllFiveFormatsAsWrittenDown)
{
    unsigned int seed = 1;
    for (const AVPixelFormat format : Supported) {
        for (const auto& [width, height] : {std::pair{4, 4}, {8, 4}, {4, 8}, {64, 48}, {100, 36}}) {
            for (const int slack : {0, 13}) {
                Picture source(format, width, height, slack);
                source.randomise(seed++);
                Picture target(format, width, height, 5);
                ASSERT_EQ(deinterlacePictures(target, source), 0);
                expectDeinterlaced(target, source);
            }
        }
    }
}

TEST(Deinterlacer, ClipsAtBothEnds)
{
    Picture source(AV_PIX_FMT_GRAY8, 4, 4);
    // Row 1 of columns 0 and 1 would leave the range on either side.
    const std::array<std::array<uint8_t, 4>, 4> rows = {
        {{255, 0, 7, 9}, {255, 0, 1, 2}, {255, 0, 4, 4}, {0, 255, 3, 200}}};
    for (std::size_t y = 0; y < rows.size(); ++y) {
        std::copy(rows[y].begin(), rows[y].end(),
                  source.planes[0].bytes.begin() + static_cast<std::ptrdiff_t>(4 * y));
    }
    Picture target(AV_PIX_FMT_GRAY8, 4, 4);
    ASSERT_EQ(deinterlacePictures(target, source), 0);
    EXPECT_EQ(target.planes[0].at(0, 1), 255);
    EXPECT_EQ(target.planes[0].at(1, 1), 0);
    // (-7 + 4*7 + 2*1 + 4*4 - 3 + 4) >> 3, and the last row with itself below it.
    EXPECT_EQ(target.planes[0].at(2, 1), 5);
    EXPECT_EQ(target.planes[0].at(3, 3), (-2 + 4 * 4 + 2 * 200 + 4 * 200 - 200 + 4) >> 3);
}

TEST(Deinterlacer, WritesNothingBesideThePicture)
{
    Picture source(AV_PIX_FMT_YUV420P, 16, 8, 3);
    source.randomise(99);
    Picture target(AV_PIX_FMT_YUV420P, 16, 8, 9);
    ASSERT_EQ(deinterlacePictures(target, source), 0);
    for (const Picture::Plane& plane : target.planes) {
        for (int y = 0; y < plane.height; ++y) {
            for (int x = plane.width; x < plane.stride; ++x) {
                EXPECT_EQ(plane.at(x, y), 0xA5);
            }
        }
    }
}

TEST(Deinterlacer, RefusesOtherFormatsAndWritesNothing)
{
    for (const AVPixelFormat format :
         {AV_PIX_FMT_YUV410P, AV_PIX_FMT_YUV440P, AV_PIX_FMT_NV12, AV_PIX_FMT_YUYV422,
          AV_PIX_FMT_RGB24, AV_PIX_FMT_GRAY16LE, AV_PIX_FMT_YUV420P10LE, AV_PIX_FMT_YUVJ420P,
          AV_PIX_FMT_NONE}) {
        Picture source(AV_PIX_FMT_YUV444P, 16, 16);
        source.format = format;
        Picture target(AV_PIX_FMT_YUV444P, 16, 16);
        EXPECT_LT(deinterlacePictures(target, source), 0) << format;
        EXPECT_EQ(target.planes[0].bytes, Picture(AV_PIX_FMT_YUV444P, 16, 16).planes[0].bytes);
    }
}

TEST(Deinterlacer, RefusesSidesThatAreNoMultipleOfFour)
{
    for (const auto& [width, height] :
         {std::pair{16, 2}, {16, 6}, {16, 15}, {2, 16}, {6, 16}, {15, 16}, {0, 16}, {16, 0}}) {
        for (const AVPixelFormat format : Supported) {
            Picture source(format, 16, 16);
            source.width = width;
            source.height = height;
            Picture target(format, 16, 16);
            EXPECT_LT(deinterlacePictures(target, source), 0) << width << "x" << height;
            EXPECT_EQ(target.planes[0].bytes, Picture(format, 16, 16).planes[0].bytes);
        }
    }
}

namespace {

/// Decodes a clip past the code under test, and gives each interlaced picture to `check`.
template <class Check>
int forEachInterlacedPicture(const std::string& path, const Check& check)
{
    AVFormatContext* raw = nullptr;
    EXPECT_GE(avformat_open_input(&raw, path.c_str(), nullptr, nullptr), 0);
    const zel::av::FormatContext format(raw);
    EXPECT_GE(avformat_find_stream_info(raw, nullptr), 0);
    const AVCodec* decoder = nullptr;
    const int stream = av_find_best_stream(raw, AVMEDIA_TYPE_VIDEO, -1, -1, &decoder, 0);
    const zel::av::CodecContext codec(avcodec_alloc_context3(decoder));
    EXPECT_GE(avcodec_parameters_to_context(codec.get(), raw->streams[stream]->codecpar), 0);
    EXPECT_GE(avcodec_open2(codec.get(), decoder, nullptr), 0);
    const zel::av::Packet packet = zel::av::makePacket();
    const zel::av::Frame frame = zel::av::makeFrame();
    int count = 0;
    while (av_read_frame(raw, packet.get()) >= 0) {
        if (packet->stream_index == stream) {
            avcodec_send_packet(codec.get(), packet.get());
            while (avcodec_receive_frame(codec.get(), frame.get()) >= 0) {
                if (zel::av::isInterlaced(*frame)) {
                    check(*frame);
                    ++count;
                }
            }
        }
        av_packet_unref(packet.get());
    }
    return count;
}

Picture pictureOf(const AVFrame& frame)
{
    Picture picture(static_cast<AVPixelFormat>(frame.format), frame.width, frame.height);
    for (std::size_t i = 0; i < picture.planes.size(); ++i) {
        Picture::Plane& plane = picture.planes[i];
        for (int y = 0; y < plane.height; ++y) {
            std::copy_n(frame.data[i] + static_cast<std::ptrdiff_t>(y) * frame.linesize[i],
                        plane.width, plane.bytes.data() + plane.placeOf(0, y));
        }
    }
    return picture;
}

} // namespace

TEST(DeinterlacerMedia, CoreReplacesInterlacedPicturesByFilteredOnes)
{
    for (const char* clip : {"mpeg2_interlaced.ts", "h264_mbaff.ts"}) {
        FFMpegDecoderCore core;
        int done = 0;
        const int pictures = forEachInterlacedPicture(clipPath(clip), [&](AVFrame& frame) {
            const Picture source = pictureOf(frame);
            void* buffer = nullptr;
            core.deinterlacePicture(nullptr, &frame, &buffer);
            const zel::av::Memory<void> owner(buffer);
            ASSERT_NE(buffer, nullptr);
            ASSERT_EQ(frame.data[0], buffer);
            if (++done % 7 == 0) {
                expectDeinterlaced(pictureOf(frame), source);
            }
        });
        EXPECT_GT(pictures, 50) << clip;
    }
}

TEST(DeinterlacerMedia, CoreLeavesPicturesOfOtherFormatsAlone)
{
    const zel::av::Frame frame = zel::av::makeFrame();
    frame->format = AV_PIX_FMT_NV12;
    frame->width = 64;
    frame->height = 64;
    ASSERT_GE(av_frame_get_buffer(frame.get(), 0), 0);
    const uint8_t* plane = frame->data[0];
    int dummy = 0;
    void* buffer = &dummy;
    FFMpegDecoderCore core;
    core.deinterlacePicture(nullptr, frame.get(), &buffer);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(frame->data[0], plane);
}

namespace {

/// The packed picture that a core hands out for a frame.
std::string packed(const AVFrame& frame, int width, int height)
{
    const zel::av::Scaler scaler(
        sws_getContext(frame.width, frame.height, static_cast<AVPixelFormat>(frame.format), width,
                       height, AV_PIX_FMT_YUYV422, SWS_BILINEAR, nullptr, nullptr, nullptr));
    const std::size_t size = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 2;
    std::string bytes(size + 64, '\0');
    uint8_t* const planes[4] = {reinterpret_cast<uint8_t*>(bytes.data())};
    const int strides[4] = {width * 2};
    sws_scale(scaler.get(), frame.data, frame.linesize, 0, frame.height, planes, strides);
    bytes.resize(size);
    return bytes;
}

} // namespace

TEST(DeinterlacerMedia, PicturesThatACoreDeliversAreDeinterlacedWithoutAnySetting)
{
    std::vector<std::string> filtered;
    std::vector<std::string> untouched;
    forEachInterlacedPicture(clipPath("mpeg2_interlaced.ts"), [&](AVFrame& frame) {
        if (filtered.size() == 12) {
            return;
        }
        untouched.push_back(packed(frame, frame.width, frame.height));
        const Picture source = pictureOf(frame);
        Picture target(source.format, source.width, source.height);
        for (std::size_t i = 0; i < target.planes.size(); ++i) {
            Picture::Plane& plane = target.planes[i];
            for (int y = 0; y < plane.height; ++y) {
                for (int x = 0; x < plane.width; ++x) {
                    plane.bytes[plane.placeOf(x, y)] =
                        static_cast<uint8_t>(expectedPixel(source.planes[i], x, y));
                }
            }
        }
        const zel::av::Frame copy = zel::av::makeFrame();
        copy->format = frame.format;
        copy->width = frame.width;
        copy->height = frame.height;
        std::copy(target.pointers.begin(), target.pointers.end(), copy->data);
        std::copy(target.strides.begin(), target.strides.end(), copy->linesize);
        filtered.push_back(packed(*copy, frame.width, frame.height));
        std::fill_n(copy->data, 4, nullptr);
    });
    ASSERT_EQ(filtered.size(), 12u);
    FFMpegDecoderCore core;
    ASSERT_GE(core.initWithUrl(clipPath("mpeg2_interlaced.ts"), "ts"), 0);
    std::vector<std::string> delivered;
    while (delivered.size() < filtered.size()) {
        const auto sample = readSample(core, zel::test::Keep::Bytes);
        ASSERT_TRUE(sample);
        if (sample->isVideo()) {
            delivered.push_back(sample->bytes);
        }
    }
    for (std::size_t i = 0; i < filtered.size(); ++i) {
        EXPECT_TRUE(delivered[i] == filtered[i]) << "picture " << i;
        EXPECT_FALSE(delivered[i] == untouched[i]) << "picture " << i;
    }
}
