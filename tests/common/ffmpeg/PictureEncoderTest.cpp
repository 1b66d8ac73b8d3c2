#include "common/ffmpeg/PictureEncoder.h"

#include "common/ffmpeg/EncoderNames.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

using zel::av::CodecContext;
using zel::av::findEncoder;
using zel::av::Frame;
using zel::av::makeFrame;
using zel::av::makePicture;
using zel::av::PictureEncoder;
using zel::av::renewIfShared;

namespace {

struct Video
{
    std::string encoder;
    AVPixelFormat format = AV_PIX_FMT_YUV420P;
};

void PrintTo(const Video& video, std::ostream* out)
{
    *out << video.encoder;
}

/// 176x144, 25 pictures a second, key frame every 12.
CodecContext open(const Video& video, int flags = AV_CODEC_FLAG_LOW_DELAY)
{
    const AVCodec* codec = findEncoder(video.encoder.c_str());
    CodecContext encoder(avcodec_alloc_context3(codec));
    encoder->width = 176;
    encoder->height = 144;
    encoder->pix_fmt = video.format;
    encoder->time_base = {1, 25};
    encoder->gop_size = 12;
    encoder->bit_rate = 1000000;
    encoder->thread_count = 1;
    encoder->flags |= flags;
    encoder->strict_std_compliance = FF_COMPLIANCE_UNOFFICIAL;
    EXPECT_GE(avcodec_open2(encoder.get(), codec, nullptr), 0) << video.encoder;
    return encoder;
}

void draw(AVFrame& picture, int number)
{
    for (int plane = 0; plane < 3; ++plane) {
        const int height = plane == 0 ? picture.height : picture.height / 2;
        for (int y = 0; y < height; ++y) {
            std::memset(picture.data[plane] + std::ptrdiff_t{y} * picture.linesize[plane],
                        (10 * number + y) % 200 + 20,
                        static_cast<std::size_t>(picture.linesize[plane]));
        }
    }
    picture.pts = number;
    picture.pict_type = AV_PICTURE_TYPE_NONE;
}

class PictureCodecs : public testing::TestWithParam<Video>
{
};

} // namespace

TEST_P(PictureCodecs, GiveOnePacketAPictureWithItsTime)
{
    const CodecContext context = open(GetParam());
    PictureEncoder encoder(*context);
    const Frame picture = makePicture(*context);
    for (int n = 0; n < 30; ++n) {
        ASSERT_TRUE(renewIfShared(*picture));
        draw(*picture, n);
        const AVPacket* packet = encoder.encode(*picture);
        ASSERT_NE(packet, nullptr) << n;
        EXPECT_EQ(packet->pts, n);
        EXPECT_GT(packet->size, 0);
    }
}

TEST_P(PictureCodecs, MakeKeyFramesWhereTheyAreAskedTo)
{
    const CodecContext context = open(GetParam());
    PictureEncoder encoder(*context);
    const Frame picture = makePicture(*context);
    for (int n = 0; n < 11; ++n) {
        ASSERT_TRUE(renewIfShared(*picture));
        draw(*picture, n);
        const bool isWanted = n == 0 || n == 3 || n == 4 || n == 7;
        picture->pict_type = isWanted ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
        const AVPacket* packet = encoder.encode(*picture);
        ASSERT_NE(packet, nullptr);
        const bool isKey = (packet->flags & AV_PKT_FLAG_KEY) != 0;
        EXPECT_EQ(isKey, isWanted || GetParam().encoder == "mjpeg") << n;
    }
}

TEST_P(PictureCodecs, GiveWhatADecoderTakes)
{
    const CodecContext context = open(GetParam());
    PictureEncoder encoder(*context);
    const CodecContext decoder(avcodec_alloc_context3(avcodec_find_decoder(context->codec_id)));
    decoder->width = context->width;
    decoder->height = context->height;
    decoder->thread_count = 1;
    decoder->flags |= AV_CODEC_FLAG_LOW_DELAY;
    if (context->extradata_size > 0) {
        decoder->extradata = static_cast<uint8_t*>(av_mallocz(
            static_cast<std::size_t>(context->extradata_size) + AV_INPUT_BUFFER_PADDING_SIZE));
        decoder->extradata_size = context->extradata_size;
        std::memcpy(decoder->extradata, context->extradata,
                    static_cast<std::size_t>(context->extradata_size));
    }
    ASSERT_GE(avcodec_open2(decoder.get(), nullptr, nullptr), 0);
    const Frame picture = makePicture(*context);
    const Frame decoded = makeFrame();
    int pictures = 0;
    for (int n = 0; n < 15; ++n) {
        ASSERT_TRUE(renewIfShared(*picture));
        draw(*picture, n);
        const AVPacket* packet = encoder.encode(*picture);
        ASSERT_NE(packet, nullptr);
        ASSERT_GE(avcodec_send_packet(decoder.get(), packet), 0);
        if (avcodec_receive_frame(decoder.get(), decoded.get()) >= 0) {
            EXPECT_EQ(decoded->width, 176);
            // Line 100 of this picture, or of the one before it where the decoder holds one back.
            const int value = decoded->data[0][100 * decoded->linesize[0] + 80];
            EXPECT_NEAR(value, (10 * pictures + 100) % 200 + 20, 12) << n;
            ++pictures;
        }
    }
    EXPECT_GE(pictures, 14);
}

INSTANTIATE_TEST_SUITE_P(Codecs, PictureCodecs,
                         testing::Values(Video{"mpeg4"}, Video{"mpeg1video"}, Video{"mpeg2video"},
                                         Video{"h263"}, Video{"h263p"}, Video{"flv"}, Video{"wmv1"},
                                         Video{"wmv2"}, Video{"mjpeg", AV_PIX_FMT_YUVJ420P}),
                         [](const auto& video) { return video.param.encoder; });

TEST(PictureEncoder, TimeThatDoesNotGrowIsRefusedAndTheNextOneIsNot)
{
    const CodecContext context = open({"mpeg4"});
    PictureEncoder encoder(*context);
    const auto encode = [&](int64_t pts) {
        const Frame picture = makePicture(*context);
        draw(*picture, 1);
        picture->pts = pts;
        return encoder.encode(*picture);
    };
    EXPECT_NE(encode(5), nullptr);
    EXPECT_EQ(encode(5), nullptr);
    EXPECT_EQ(encode(4), nullptr);
    const AVPacket* packet = encode(6);
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(packet->pts, 6);
}

TEST(PictureEncoder, PictureOfAWrongSizeIsRefused)
{
    const CodecContext context = open({"mpeg4"});
    PictureEncoder encoder(*context);
    const Frame empty = makeFrame();
    EXPECT_EQ(encoder.encode(*empty), nullptr);
    const Frame picture = makePicture(*context);
    draw(*picture, 0);
    EXPECT_NE(encoder.encode(*picture), nullptr);
}

TEST(PictureEncoder, EncoderThatBuffersGivesThePacketOfThePictureBefore)
{
    const CodecContext context = open({"mpeg2video"}, 0);
    PictureEncoder encoder(*context);
    std::vector<int64_t> times;
    for (int n = 0; n < 5; ++n) {
        const Frame picture = makePicture(*context);
        draw(*picture, n);
        const AVPacket* packet = encoder.encode(*picture);
        times.push_back(packet == nullptr ? -1 : packet->pts);
    }
    EXPECT_EQ(times, (std::vector<int64_t>{-1, 0, 1, 2, 3}));
}

TEST(PictureEncoder, PacketsThatWaitInTheEncoderComeFirst)
{
    const CodecContext context = open({"mpeg4"});
    PictureEncoder encoder(*context);
    std::vector<int64_t> times;
    for (int n = 0; n < 5; ++n) {
        const Frame picture = makePicture(*context);
        draw(*picture, n);
        if (n < 2) {
            // Past the object under test, and nobody takes the packets.
            ASSERT_GE(avcodec_send_frame(context.get(), picture.get()), 0);
            continue;
        }
        const AVPacket* packet = encoder.encode(*picture);
        ASSERT_NE(packet, nullptr);
        times.push_back(packet->pts);
    }
    EXPECT_EQ(times, (std::vector<int64_t>{0, 1, 2}));
}

TEST(Pictures, HaveTheSizeAndFormatOfTheEncoder)
{
    const CodecContext context = open({"mjpeg", AV_PIX_FMT_YUVJ420P});
    const Frame picture = makePicture(*context);
    ASSERT_NE(picture, nullptr);
    EXPECT_EQ(picture->width, 176);
    EXPECT_EQ(picture->height, 144);
    EXPECT_EQ(picture->format, AV_PIX_FMT_YUVJ420P);
    EXPECT_GE(picture->linesize[0], 176);
    EXPECT_NE(picture->data[2], nullptr);
    EXPECT_GT(av_frame_is_writable(picture.get()), 0);
}

TEST(Pictures, WithoutASizeThereIsNone)
{
    const CodecContext context(avcodec_alloc_context3(nullptr));
    context->pix_fmt = AV_PIX_FMT_YUV420P;
    EXPECT_EQ(makePicture(*context), nullptr);
    context->width = 176;
    context->height = 144;
    context->pix_fmt = AV_PIX_FMT_NONE;
    EXPECT_EQ(makePicture(*context), nullptr);
}

TEST(Pictures, NobodyElseHasStayAsTheyAre)
{
    const CodecContext context = open({"mpeg4"});
    const Frame picture = makePicture(*context);
    draw(*picture, 3);
    const uint8_t* memory = picture->data[0];
    EXPECT_TRUE(renewIfShared(*picture));
    EXPECT_EQ(picture->data[0], memory);
    EXPECT_EQ(picture->data[0][0], 50);
}

TEST(Pictures, SomebodyHoldsGetNewMemoryAndKeepTheirTime)
{
    const CodecContext context = open({"mpeg4"});
    const Frame picture = makePicture(*context);
    draw(*picture, 3);
    picture->pict_type = AV_PICTURE_TYPE_I;
    const Frame held(av_frame_clone(picture.get()));
    const uint8_t* memory = picture->data[0];
    ASSERT_TRUE(renewIfShared(*picture));
    EXPECT_NE(picture->data[0], memory);
    EXPECT_GT(av_frame_is_writable(picture.get()), 0);
    EXPECT_EQ(picture->pts, 3);
    EXPECT_EQ(picture->pict_type, AV_PICTURE_TYPE_I);
    EXPECT_EQ(picture->width, 176);
    EXPECT_EQ(picture->height, 144);
    EXPECT_EQ(picture->format, AV_PIX_FMT_YUV420P);
    draw(*picture, 9);
    EXPECT_EQ(held->data[0][0], 50);
}
