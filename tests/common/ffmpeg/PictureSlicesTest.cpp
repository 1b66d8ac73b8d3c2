#include "common/ffmpeg/PictureSlices.h"

#include "common/ffmpeg/EncoderNames.h"
#include "common/ffmpeg/Handles.h"
#include "common/ffmpeg/PictureEncoder.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

using zel::av::CodecContext;
using zel::av::findEncoder;
using zel::av::Frame;
using zel::av::makeFrame;
using zel::av::makePacket;
using zel::av::makePicture;
using zel::av::Packet;
using zel::av::PictureEncoder;
using zel::av::slicePayloadOption;
using zel::av::slicePicture;

namespace {

using Bytes = std::vector<unsigned char>;
using Piece = std::span<const unsigned char>;

const int Payload = 1000;

Bytes joined(const std::vector<Bytes>& parts)
{
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

/// A unit of so many bytes that begins with these and has no mark inside.
Bytes unit(Bytes begin, std::size_t size)
{
    begin.resize(size, 0x55);
    return begin;
}

std::vector<std::size_t> sizes(const std::vector<Piece>& pieces)
{
    std::vector<std::size_t> sizes;
    sizes.reserve(pieces.size());
    for (const Piece& piece : pieces) {
        sizes.push_back(piece.size());
    }
    return sizes;
}

/// A detailed picture that moves from frame to frame.
void draw(AVFrame& picture, int frame)
{
    for (int y = 0; y < picture.height; ++y) {
        for (int x = 0; x < picture.width; ++x) {
            const int value = (x + 3 * frame) * (y + frame) % 97 + (x * x + y) % 61 + 20;
            picture.data[0][y * picture.linesize[0] + x] = static_cast<uint8_t>(value);
        }
    }
    for (int plane = 1; plane < 3; ++plane) {
        for (int y = 0; y < picture.height / 2; ++y) {
            for (int x = 0; x < picture.width / 2; ++x) {
                picture.data[plane][y * picture.linesize[plane] + x] =
                    static_cast<uint8_t>(100 + (x + plane * y + frame) % 50);
            }
        }
    }
}

/// An encoder of 352x288 with slices for this payload.
CodecContext openEncoder(const std::string& name, int payloadSize)
{
    const AVCodec* codec = findEncoder(name.c_str());
    CodecContext encoder(avcodec_alloc_context3(codec));
    encoder->width = 352;
    encoder->height = 288;
    encoder->pix_fmt = codec->id == AV_CODEC_ID_MJPEG ? AV_PIX_FMT_YUVJ420P : AV_PIX_FMT_YUV420P;
    encoder->time_base = {1, 25};
    encoder->gop_size = 12;
    encoder->bit_rate = 2000000;
    encoder->thread_count = 1;
    encoder->flags |= AV_CODEC_FLAG_LOW_DELAY;
    encoder->strict_std_compliance = FF_COMPLIANCE_UNOFFICIAL;
    const int option = slicePayloadOption(codec->id, payloadSize);
    if (option > 0) {
        EXPECT_GE(av_opt_set_int(encoder->priv_data, "ps", option, 0), 0) << name;
    }
    EXPECT_GE(avcodec_open2(encoder.get(), codec, nullptr), 0) << name;
    return encoder;
}

std::vector<Bytes> encodePictures(const std::string& name, int count, int payloadSize)
{
    const CodecContext context = openEncoder(name, payloadSize);
    PictureEncoder encoder(*context);
    std::vector<Bytes> pictures;
    for (int n = 0; n < count; ++n) {
        const Frame picture = makePicture(*context);
        draw(*picture, n);
        picture->pts = n;
        const AVPacket* packet = encoder.encode(*picture);
        if (packet == nullptr) {
            ADD_FAILURE() << name << ": no packet";
            break;
        }
        pictures.emplace_back(packet->data, packet->data + packet->size);
    }
    return pictures;
}

/// The luminance of one picture, decoded on its own; empty when nothing comes out.
Bytes decodeLuminance(AVCodecID codec, const std::vector<Piece>& pieces)
{
    const CodecContext decoder(avcodec_alloc_context3(avcodec_find_decoder(codec)));
    decoder->flags |= AV_CODEC_FLAG_LOW_DELAY;
    decoder->thread_count = 1;
    decoder->width = 352;
    decoder->height = 288;
    EXPECT_GE(avcodec_open2(decoder.get(), nullptr, nullptr), 0);
    const std::size_t size =
        std::accumulate(pieces.begin(), pieces.end(), std::size_t{0},
                        [](std::size_t sum, const Piece& piece) { return sum + piece.size(); });
    const Packet packet = makePacket();
    EXPECT_GE(av_new_packet(packet.get(), static_cast<int>(size)), 0);
    unsigned char* at = packet->data;
    for (const Piece& piece : pieces) {
        at = std::copy(piece.begin(), piece.end(), at);
    }
    avcodec_send_packet(decoder.get(), packet.get());
    avcodec_send_packet(decoder.get(), nullptr);
    const Frame frame = makeFrame();
    if (avcodec_receive_frame(decoder.get(), frame.get()) < 0) {
        return {};
    }
    Bytes luminance;
    for (int y = 0; y < frame->height; ++y) {
        const uint8_t* row = frame->data[0] + std::ptrdiff_t{y} * frame->linesize[0];
        luminance.insert(luminance.end(), row, row + frame->width);
    }
    return luminance;
}

/// Whether rows are the same in two pictures of 352x288.
bool sameRows(const Bytes& a, const Bytes& b, int first, int end)
{
    return std::equal(a.begin() + 352 * std::ptrdiff_t{first},
                      a.begin() + 352 * std::ptrdiff_t{end},
                      b.begin() + 352 * std::ptrdiff_t{first});
}

class EncodedSlices : public testing::TestWithParam<std::string>
{
};

} // namespace

TEST(PictureSlices, OptionIsForCodecsWithMarksAlone)
{
    for (const AVCodecID codec : {AV_CODEC_ID_MPEG4, AV_CODEC_ID_H263, AV_CODEC_ID_H263P,
                                  AV_CODEC_ID_MPEG1VIDEO, AV_CODEC_ID_MPEG2VIDEO}) {
        EXPECT_EQ(slicePayloadOption(codec, 1000), 872);
    }
    for (const AVCodecID codec :
         {AV_CODEC_ID_FLV1, AV_CODEC_ID_WMV1, AV_CODEC_ID_WMV2, AV_CODEC_ID_MSMPEG4V2,
          AV_CODEC_ID_MJPEG, AV_CODEC_ID_H264, AV_CODEC_ID_NONE}) {
        EXPECT_EQ(slicePayloadOption(codec, 1000), 0);
    }
}

TEST(PictureSlices, OptionIsNeverBelowNone)
{
    EXPECT_EQ(slicePayloadOption(AV_CODEC_ID_MPEG4, 128), 0);
    EXPECT_EQ(slicePayloadOption(AV_CODEC_ID_MPEG4, 0), 0);
    EXPECT_EQ(slicePayloadOption(AV_CODEC_ID_MPEG4, -1000), 0);
}

TEST(PictureSlices, WithoutAPictureThereAreNoPieces)
{
    EXPECT_TRUE(slicePicture(AV_CODEC_ID_MPEG4, {}, 1000).empty());
}

TEST(PictureSlices, PictureThatFitsIsOnePiece)
{
    const Bytes picture =
        joined({unit({0, 0, 1, 0xB6}, 500), unit({0, 0, 0x80}, 300), unit({0, 0, 0x80}, 200)});
    const auto pieces = slicePicture(AV_CODEC_ID_MPEG4, picture, 1000);
    ASSERT_EQ(sizes(pieces), (std::vector<std::size_t>{1000}));
    EXPECT_EQ(pieces[0].data(), picture.data());
}

TEST(PictureSlices, WholeUnitsAreFilledUpToThePayload)
{
    const Bytes picture =
        joined({unit({0, 0, 1, 0xB6}, 400), unit({0, 0, 0x80}, 300), unit({0, 0, 0x80}, 300),
                unit({0, 0, 0x80}, 900), unit({0, 0, 0x80}, 100), unit({0, 0, 0x80}, 50)});
    EXPECT_EQ(sizes(slicePicture(AV_CODEC_ID_MPEG4, picture, 1000)),
              (std::vector<std::size_t>{1000, 1000, 50}));
}

TEST(PictureSlices, UnitAboveThePayloadStaysWholeAndAlone)
{
    const Bytes picture =
        joined({unit({0, 0, 1, 0xB6}, 400), unit({0, 0, 0x80}, 2500), unit({0, 0, 0x80}, 300)});
    EXPECT_EQ(sizes(slicePicture(AV_CODEC_ID_MPEG4, picture, 1000)),
              (std::vector<std::size_t>{400, 2500, 300}));
}

TEST(PictureSlices, Mpeg4MarksHaveSixteenToTwentyTwoZeroBits)
{
    for (const int third : {0x80, 0x40, 0x20, 0x10, 0x08, 0x04, 0x02, 0xFF}) {
        const Bytes picture = joined(
            {unit({0, 0, 1, 0xB6}, 600), unit({0, 0, static_cast<unsigned char>(third)}, 600)});
        EXPECT_EQ(slicePicture(AV_CODEC_ID_MPEG4, picture, 1000).size(), 2U) << third;
    }
    const Bytes picture = joined({unit({0, 0, 1, 0xB6}, 600), unit({0, 0, 1, 0xB2}, 600)});
    EXPECT_EQ(slicePicture(AV_CODEC_ID_MPEG4, picture, 1000).size(), 1U);
}

TEST(PictureSlices, ZeroesInMpeg4HeadersAreNoMark)
{
    const Bytes picture = joined({unit({0, 0, 1, 0x20, 0, 0, 0x48}, 600), unit({0, 0, 0x48}, 600),
                                  unit({0, 0, 1, 0xB6}, 600), unit({0, 0, 0x48}, 600)});
    EXPECT_EQ(sizes(slicePicture(AV_CODEC_ID_MPEG4, picture, 1000)),
              (std::vector<std::size_t>{1800, 600}));
}

TEST(PictureSlices, H263CutsAtGroupsAndNotAtThePicture)
{
    for (const AVCodecID codec : {AV_CODEC_ID_H263, AV_CODEC_ID_H263P}) {
        // Group numbers 1 and 31 stand in the five bits behind the one bit.
        const Bytes picture =
            joined({unit({0, 0, 0x80, 0x02}, 600), unit({0, 0, 0x84}, 600), unit({0, 0, 0xFC}, 600),
                    unit({0, 0, 0x83}, 600), unit({0, 0, 0x7C}, 600)});
        EXPECT_EQ(sizes(slicePicture(codec, picture, 1000)),
                  (std::vector<std::size_t>{600, 600, 1800}));
    }
}

TEST(PictureSlices, MpegCutsAtAllSlicesBehindTheFirst)
{
    for (const AVCodecID codec : {AV_CODEC_ID_MPEG1VIDEO, AV_CODEC_ID_MPEG2VIDEO}) {
        const Bytes picture = joined(
            {unit({0, 0, 1, 0xB3}, 200), unit({0, 0, 1, 0xB8}, 200), unit({0, 0, 1, 0x00}, 100),
             unit({0, 0, 1, 0xB5}, 100), unit({0, 0, 1, 0x01}, 600), unit({0, 0, 1, 0x01}, 600),
             unit({0, 0, 1, 0x02}, 600), unit({0, 0, 1, 0xAF}, 600), unit({0, 0, 1, 0xB2}, 600)});
        EXPECT_EQ(sizes(slicePicture(codec, picture, 1000)),
                  (std::vector<std::size_t>{1200, 600, 600, 1200}));
    }
}

TEST(PictureSlices, SecondFieldBeginsWithItsHeaders)
{
    const Bytes picture = joined({unit({0, 0, 1, 0x00}, 100), unit({0, 0, 1, 0x01}, 600),
                                  unit({0, 0, 1, 0x02}, 600), unit({0, 0, 1, 0x00}, 100),
                                  unit({0, 0, 1, 0x01}, 600), unit({0, 0, 1, 0x02}, 600)});
    // The headers of the second field are in the piece in front of its first slice, not apart.
    const auto pieces = slicePicture(AV_CODEC_ID_MPEG2VIDEO, picture, 700);
    EXPECT_EQ(sizes(pieces), (std::vector<std::size_t>{700, 1300, 600}));
}

TEST(PictureSlices, CodecWithoutMarksGivesOnePiece)
{
    const Bytes picture = joined({unit({0, 0, 1, 0xB6}, 600), unit({0, 0, 0x80}, 600)});
    for (const AVCodecID codec : {AV_CODEC_ID_FLV1, AV_CODEC_ID_WMV2, AV_CODEC_ID_MJPEG}) {
        EXPECT_EQ(sizes(slicePicture(codec, picture, 1000)), (std::vector<std::size_t>{1200}));
    }
}

TEST(PictureSlices, PayloadOfNothingGivesOnePiece)
{
    const Bytes picture = joined({unit({0, 0, 1, 0xB6}, 600), unit({0, 0, 0x80}, 600)});
    EXPECT_EQ(slicePicture(AV_CODEC_ID_MPEG4, picture, 0).size(), 1U);
    EXPECT_EQ(slicePicture(AV_CODEC_ID_MPEG4, picture, -1).size(), 1U);
}

TEST(PictureSlices, MarkCutOffAtTheEndIsNone)
{
    for (const std::size_t rest : {1U, 2U, 3U}) {
        Bytes picture = unit({0, 0, 1, 0xB6}, 1200);
        const Bytes mark = {0, 0, 0x80};
        picture.insert(picture.end(), mark.begin(), mark.begin() + std::ptrdiff_t(rest));
        EXPECT_EQ(slicePicture(AV_CODEC_ID_MPEG4, picture, 1000).size(), 1U) << rest;
    }
}

TEST_P(EncodedSlices, ArePiecesThatMakeUpThePicture)
{
    const AVCodecID codec = findEncoder(GetParam().c_str())->id;
    int cut = 0;
    for (const Bytes& picture : encodePictures(GetParam(), 25, Payload)) {
        const auto pieces = slicePicture(codec, picture, Payload);
        const unsigned char* at = picture.data();
        for (const Piece& piece : pieces) {
            EXPECT_EQ(piece.data(), at);
            EXPECT_FALSE(piece.empty());
            at += piece.size();
        }
        EXPECT_EQ(at, picture.data() + picture.size());
        cut += pieces.size() > 1 ? 1 : 0;
    }
    EXPECT_GE(cut, 10);
}

TEST_P(EncodedSlices, AreAboveThePayloadOnlyWhereTheyCannotBeCut)
{
    const AVCodecID codec = findEncoder(GetParam().c_str())->id;
    for (const Bytes& picture : encodePictures(GetParam(), 25, Payload)) {
        for (const Piece& piece : slicePicture(codec, picture, Payload)) {
            // Without the headers of the picture, every mark in it is a place to cut.
            const std::size_t units = slicePicture(codec, piece, 1).size();
            EXPECT_TRUE(piece.size() <= Payload || units == 1) << piece.size() << ", " << units;
        }
    }
}

TEST_P(EncodedSlices, AreDecodedBesideALostOne)
{
    const AVCodecID codec = findEncoder(GetParam().c_str())->id;
    const Bytes picture = encodePictures(GetParam(), 1, Payload).at(0);
    std::vector<Piece> pieces = slicePicture(codec, picture, Payload);
    ASSERT_GT(pieces.size(), 4U);
    const Bytes whole = decodeLuminance(codec, pieces);
    ASSERT_EQ(whole.size(), 352U * 288U);
    pieces.erase(pieces.begin() + std::ptrdiff_t(pieces.size() / 2));
    const Bytes damaged = decodeLuminance(codec, pieces);
    ASSERT_EQ(damaged.size(), whole.size());
    EXPECT_TRUE(sameRows(damaged, whole, 0, 64));
    EXPECT_TRUE(sameRows(damaged, whole, 224, 288));
    EXPECT_FALSE(sameRows(damaged, whole, 64, 224));
}

INSTANTIATE_TEST_SUITE_P(Codecs, EncodedSlices,
                         testing::Values("mpeg4", "h263", "h263p", "mpeg1video", "mpeg2video"),
                         [](const auto& codec) { return codec.param; });
