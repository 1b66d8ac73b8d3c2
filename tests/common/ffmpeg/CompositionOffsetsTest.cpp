#include "common/ffmpeg/CompositionOffsets.h"

#include "common/ffmpeg/Handles.h"
#include "tests/common/ffmpeg/H264Headers.h"
#include "tests/support/ClipPackets.h"
#include "tests/support/MediaReference.h"
#include "tests/support/TestFolders.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

using zel::av::CodecContext;
using zel::av::CompositionOffsets;
using zel::av::Frame;
using zel::av::makeFrame;
using zel::av::makePacket;
using zel::av::Packet;
using zel::test::ClipPacket;
using zel::test::ClipPackets;
using zel::test::H264Headers;
using zel::test::ProbedMedium;
using zel::test::ProbedPacket;

namespace {

struct ParametersDeleter
{
    void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
};

/// A stream of which no more than codec and set-up data are known.
std::unique_ptr<CompositionOffsets> offsetsFor(AVCodecID codec, const std::string& setUp)
{
    const std::unique_ptr<AVCodecParameters, ParametersDeleter> parameters(
        avcodec_parameters_alloc());
    parameters->codec_type = AVMEDIA_TYPE_VIDEO;
    parameters->codec_id = codec;
    if (!setUp.empty()) {
        parameters->extradata =
            static_cast<uint8_t*>(av_mallocz(setUp.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        parameters->extradata_size = static_cast<int>(setUp.size());
        std::memcpy(parameters->extradata, setUp.data(), setUp.size());
    }
    return CompositionOffsets::create(*parameters);
}

/// Keeps the library's complaints about broken data off the screen.
class QuietLibrary
{
public:
    QuietLibrary() { av_log_set_level(AV_LOG_QUIET); }
    ~QuietLibrary() { av_log_set_level(m_level); }
    QuietLibrary(const QuietLibrary&) = delete;
    QuietLibrary& operator=(const QuietLibrary&) = delete;

private:
    int m_level = av_log_get_level();
};

double nextOf(CompositionOffsets& offsets, const std::string& packet)
{
    // In memory of its very size, so that the sanitizer sees any step beyond it.
    const std::vector<unsigned char> bytes(packet.begin(), packet.end());
    return offsets.next(bytes.data(), static_cast<int>(bytes.size()));
}

/// A packet and the frames between its decoding and its presentation, where they are known.
struct KnownPacket
{
    std::string bytes;
    bool isKey = false;
    std::optional<double> offset;
    int64_t dts = 0; ///< the next three in units of the stream
    int64_t pts = 0;
};

struct KnownStream
{
    AVCodecID codec = AV_CODEC_ID_NONE;
    std::string setUp;
    double frameDuration = 0.0;
    std::vector<KnownPacket> packets;
};

/// The packets of a clip with the times that ffprobe tells.
KnownStream readClip(const std::string& name, double framesPerSecond)
{
    const std::string path = zel::test::mediaFolder() + "/" + name;
    const std::optional<ProbedMedium> medium = zel::test::probeMedium(path);
    const ClipPackets clip = zel::test::readClipPackets(path);
    KnownStream known;
    known.codec = clip.videoCodec;
    known.setUp = clip.videoExtradata;
    known.frameDuration = clip.videoTimeBase.den / framesPerSecond / clip.videoTimeBase.num;
    std::vector<ProbedPacket> probed;
    std::copy_if(medium->packets.begin(), medium->packets.end(), std::back_inserter(probed),
                 [&clip](const ProbedPacket& one) { return one.stream == clip.videoStream; });
    const std::vector<ClipPacket> packets = clip.video();
    EXPECT_EQ(probed.size(), packets.size());
    for (std::size_t n = 0; n < std::min(probed.size(), packets.size()); ++n) {
        KnownPacket packet{packets[n].bytes, probed[n].isKey, std::nullopt,
                           probed[n].dts.value_or(0), probed[n].pts.value_or(0)};
        if (probed[n].pts && probed[n].dts) {
            packet.offset =
                static_cast<double>(*probed[n].pts - *probed[n].dts) / known.frameDuration;
        }
        known.packets.push_back(std::move(packet));
    }
    return known;
}

/// Compares all that are known, from one packet on.
void expectKnownOffsets(CompositionOffsets& offsets, const KnownStream& stream, std::size_t from)
{
    std::size_t known = 0;
    for (std::size_t n = from; n < stream.packets.size(); ++n) {
        const double offset = nextOf(offsets, stream.packets[n].bytes);
        if (stream.packets[n].offset) {
            ++known;
            // Containers with a coarse clock round both times.
            ASSERT_NEAR(offset, *stream.packets[n].offset, 0.05)
                << "packet " << n << " from " << from;
        }
    }
    EXPECT_GE(known + 10, stream.packets.size() - from);
}

/// Whether pictures get ever later times in the order in which they are to be shown.
bool timesGrow(CompositionOffsets& offsets, const KnownStream& stream, std::size_t from)
{
    std::map<int64_t, double> times;
    for (std::size_t n = from; n < stream.packets.size(); ++n) {
        times[stream.packets[n].pts] =
            static_cast<double>(stream.packets[n].dts) +
            nextOf(offsets, stream.packets[n].bytes) * stream.frameDuration;
    }
    return std::is_sorted(times.begin(), times.end(),
                          [](const auto& a, const auto& b) { return a.second <= b.second; });
}

struct Clip
{
    std::string name;
    double framesPerSecond = 25.0;
};

void PrintTo(const Clip& clip, std::ostream* out)
{
    *out << clip.name;
}

std::string nameOf(const testing::TestParamInfo<Clip>& clip)
{
    std::string name = clip.param.name;
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
}

class OffsetsOfClip : public testing::TestWithParam<Clip>
{
};

class OffsetsBehindSeek : public testing::TestWithParam<Clip>
{
};

/// What an encoder of the library makes of a moving picture, with the encoder's own times.
KnownStream encode(const std::string& encoder, AVRational rate,
                   const std::vector<std::pair<std::string, std::string>>& options, int pictures,
                   int64_t flags = 0)
{
    KnownStream stream;
    const AVCodec* codec = avcodec_find_encoder_by_name(encoder.c_str());
    const CodecContext context(avcodec_alloc_context3(codec));
    context->width = 64;
    context->height = 48;
    context->pix_fmt = AV_PIX_FMT_YUV420P;
    context->time_base = av_inv_q(rate);
    context->framerate = rate;
    context->thread_count = 1;
    context->flags |= static_cast<int>(flags);
    for (const auto& [key, value] : options) {
        EXPECT_GE(av_opt_set(context.get(), key.c_str(), value.c_str(), AV_OPT_SEARCH_CHILDREN), 0)
            << key;
    }
    EXPECT_GE(avcodec_open2(context.get(), codec, nullptr), 0) << encoder;
    stream.codec = codec->id;
    stream.setUp.assign(reinterpret_cast<const char*>(context->extradata),
                        static_cast<std::size_t>(context->extradata_size));
    stream.frameDuration = 1.0;
    const Packet packet = makePacket();
    for (int n = 0; n <= pictures; ++n) {
        const Frame frame = makeFrame();
        frame->format = context->pix_fmt;
        frame->width = context->width;
        frame->height = context->height;
        frame->pts = n;
        EXPECT_GE(av_frame_get_buffer(frame.get(), 0), 0);
        for (int plane = 0; plane < 3; ++plane) {
            for (int y = 0; y < (plane == 0 ? 48 : 24); ++y) {
                for (int x = 0; x < (plane == 0 ? 64 : 32); ++x) {
                    frame->data[plane][y * frame->linesize[plane] + x] =
                        static_cast<uint8_t>((x + n) * 3 + y * 2);
                }
            }
        }
        EXPECT_GE(avcodec_send_frame(context.get(), n < pictures ? frame.get() : nullptr), 0);
        while (avcodec_receive_packet(context.get(), packet.get()) >= 0) {
            stream.packets.push_back({std::string(reinterpret_cast<const char*>(packet->data),
                                                  static_cast<std::size_t>(packet->size)),
                                      (packet->flags & AV_PKT_FLAG_KEY) != 0,
                                      static_cast<double>(packet->pts - packet->dts), packet->dts,
                                      packet->pts});
        }
    }
    return stream;
}

/// I0 P3 B1 B2 P6 B4 B5 in H.264, in single fields or in frames.
std::vector<std::string> h264Pictures(const H264Headers& headers, bool singleFields,
                                      bool bothInOnePacket)
{
    struct Coded
    {
        char type;
        int number;
        int frameNumber;
    };
    std::vector<std::string> packets;
    for (const Coded& one : {Coded{'I', 0, 0}, Coded{'P', 3, 1}, Coded{'B', 1, 2}, Coded{'B', 2, 2},
                             Coded{'P', 6, 2}, Coded{'B', 4, 3}, Coded{'B', 5, 3}}) {
        H264Headers::Slice slice;
        slice.type = one.type;
        slice.orderCount = 2 * one.number;
        slice.frameNumber = one.frameNumber;
        slice.isReference = one.type != 'B';
        slice.isInstantRefresh = one.type == 'I';
        slice.isField = singleFields || bothInOnePacket;
        packets.push_back(headers.slice(slice));
        if (slice.isField) {
            slice.type = one.type == 'I' ? 'P' : one.type;
            slice.isInstantRefresh = false;
            slice.isBottom = true;
            slice.orderCount += 1;
            const std::string second = headers.slice(slice);
            if (bothInOnePacket) {
                packets.back() += second;
            } else {
                packets.push_back(second);
            }
        }
    }
    return packets;
}

std::vector<double> offsetsOf(CompositionOffsets& offsets, const std::vector<std::string>& packets)
{
    std::vector<double> found;
    found.reserve(packets.size());
    for (const std::string& packet : packets) {
        found.push_back(nextOf(offsets, packet));
    }
    return found;
}

} // namespace

TEST_P(OffsetsOfClip, AreThoseOfTheContainer)
{
    const KnownStream stream = readClip(GetParam().name, GetParam().framesPerSecond);
    ASSERT_GT(stream.packets.size(), 40U);
    const auto offsets = offsetsFor(stream.codec, stream.setUp);
    ASSERT_NE(offsets, nullptr);
    expectKnownOffsets(*offsets, stream, 0);
}

TEST_P(OffsetsOfClip, AreTheSameAgainAfterGoingBack)
{
    const KnownStream stream = readClip(GetParam().name, GetParam().framesPerSecond);
    const auto offsets = offsetsFor(stream.codec, stream.setUp);
    std::vector<std::string> packets;
    for (const KnownPacket& packet : stream.packets) {
        packets.push_back(packet.bytes);
    }
    const std::vector<double> first = offsetsOf(*offsets, packets);
    offsets->reset();
    const std::vector<double> second = offsetsOf(*offsets, packets);
    // Where nothing marks the beginning, pictures are expected that lead a key frame elsewhere.
    const bool isMarked = stream.codec != AV_CODEC_ID_MPEG4 || first[0] == 0.0;
    if (isMarked) {
        EXPECT_EQ(second, first);
    } else {
        EXPECT_EQ(std::vector<double>(second.begin() + 40, second.end()),
                  std::vector<double>(first.begin() + 40, first.end()));
    }
}

TEST_P(OffsetsBehindSeek, AreExactFromAnyKeyFrameOn)
{
    const KnownStream stream = readClip(GetParam().name, GetParam().framesPerSecond);
    const auto offsets = offsetsFor(stream.codec, stream.setUp);
    expectKnownOffsets(*offsets, stream, 0);
    for (std::size_t n = 1; n < stream.packets.size(); ++n) {
        if (stream.packets[n].isKey) {
            offsets->reset();
            expectKnownOffsets(*offsets, stream, n);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Media, OffsetsOfClip,
    testing::Values(Clip{"h264_aac.mp4"}, Clip{"h264_aac.mkv"}, Clip{"h264_aac.flv"},
                    Clip{"h264_aac.ts"}, Clip{"h264_bpyramid.mkv"}, Clip{"h264_open_gop.mp4"},
                    Clip{"h264_mbaff.ts"}, Clip{"h264_slices.mp4"}, Clip{"h264_cavlc.mp4"},
                    Clip{"h264_60fps.mp4", 60.0}, Clip{"h264_infinite_gop.mp4"},
                    Clip{"mpeg2_mp2.mpg"}, Clip{"mpeg2_ac3.ts"}, Clip{"mpeg2_interlaced.ts"},
                    Clip{"mpeg1_mp2.mpg"}, Clip{"mpeg4_bframes.mp4"}, Clip{"mpeg4_mp3.avi"}),
    nameOf);

// Without the open groups: their key frames do not say how many pictures lead them.
INSTANTIATE_TEST_SUITE_P(Media, OffsetsBehindSeek,
                         testing::Values(Clip{"h264_aac.mp4"}, Clip{"h264_aac.ts"},
                                         Clip{"h264_bpyramid.mkv"}, Clip{"h264_mbaff.ts"},
                                         Clip{"mpeg2_mp2.mpg"}, Clip{"mpeg2_ac3.ts"},
                                         Clip{"mpeg2_interlaced.ts"}, Clip{"mpeg1_mp2.mpg"},
                                         Clip{"mpeg4_bframes.mp4"}, Clip{"mpeg4_mp3.avi"}),
                         nameOf);

TEST(CompositionOffsetsMedia, OpenGroupsEnteredAtAKeyFrameBecomeExact)
{
    const KnownStream stream = readClip("h264_open_gop.mp4", 25.0);
    for (std::size_t key = 1; key < stream.packets.size(); ++key) {
        if (!stream.packets[key].isKey || key + 60 > stream.packets.size()) {
            continue;
        }
        const auto offsets = offsetsFor(stream.codec, stream.setUp);
        for (std::size_t n = key; n < stream.packets.size(); ++n) {
            const double offset = nextOf(*offsets, stream.packets[n].bytes);
            ASSERT_NEAR(offset, stream.packets[n].offset.value_or(offset), 4.0);
            if (n >= key + 40) {
                ASSERT_NEAR(offset, stream.packets[n].offset.value_or(offset), 0.05)
                    << key << ", " << n;
            }
        }
    }
}

TEST(CompositionOffsetsMedia, TimesOfOpenGroupsGrowFromAnyKeyFrameOn)
{
    const KnownStream stream = readClip("h264_open_gop.mp4", 25.0);
    int entered = 0;
    for (std::size_t key = 0; key < stream.packets.size(); ++key) {
        if (stream.packets[key].isKey) {
            const auto offsets = offsetsFor(stream.codec, stream.setUp);
            EXPECT_TRUE(timesGrow(*offsets, stream, key)) << key;
            ++entered;
        }
    }
    EXPECT_GE(entered, 5);
}

TEST(CompositionOffsetsMedia, EntryAtAnyPacketIsExactSoon)
{
    for (const std::string name : {"h264_aac.mp4", "h264_bpyramid.mkv", "mpeg2_ac3.ts",
                                   "mpeg1_mp2.mpg", "mpeg4_bframes.mp4"}) {
        const KnownStream stream = readClip(name, 25.0);
        const auto offsets = offsetsFor(stream.codec, stream.setUp);
        for (const KnownPacket& packet : stream.packets) {
            nextOf(*offsets, packet.bytes);
        }
        for (std::size_t from = 0; from + 80 < stream.packets.size(); from += 7) {
            offsets->reset();
            for (std::size_t n = from; n < from + 80; ++n) {
                const double offset = nextOf(*offsets, stream.packets[n].bytes);
                if (n >= from + 75) {
                    ASSERT_NEAR(offset, stream.packets[n].offset.value_or(offset), 0.05)
                        << name << ", " << from << ", " << n;
                }
            }
        }
    }
}

TEST(CompositionOffsetsMedia, PicturesAtUnevenDistancesKeepTheirOrder)
{
    const KnownStream stream = readClip("h264_vfr.mkv", 24.0);
    const auto offsets = offsetsFor(stream.codec, stream.setUp);
    EXPECT_TRUE(timesGrow(*offsets, stream, 2)); // the first two have no decoding time
}

TEST(CompositionOffsets, EncodersTimesAreFoundAgain)
{
    const std::string noCut = "1000000000";
    const std::vector<KnownStream> streams = {
        encode("mpeg4", {25, 1}, {{"bf", "2"}, {"g", "12"}}, 80),
        encode("mpeg4", {25, 1}, {{"bf", "2"}, {"g", "12"}, {"sc_threshold", noCut}}, 80,
               AV_CODEC_FLAG_CLOSED_GOP),
        encode("mpeg4", {30000, 1001}, {{"bf", "1"}, {"g", "15"}}, 80),
        encode("mpeg4", {24000, 1001}, {{"bf", "3"}, {"g", "24"}}, 80),
        encode("mpeg4", {15, 1}, {{"bf", "2"}, {"g", "15"}}, 80),
        encode("mpeg4", {50, 1}, {{"bf", "4"}, {"g", "25"}}, 80),
        encode("mpeg4", {25, 1}, {{"bf", "0"}}, 40),
        encode("mpeg4", {25, 1}, {{"bf", "2"}}, 40, AV_CODEC_FLAG_GLOBAL_HEADER),
        encode("mpeg2video", {25, 1}, {{"bf", "3"}, {"g", "12"}}, 80),
        encode("mpeg2video", {30000, 1001}, {{"bf", "2"}, {"g", "15"}, {"sc_threshold", noCut}}, 80,
               AV_CODEC_FLAG_CLOSED_GOP),
        encode("mpeg2video", {25, 1}, {{"bf", "0"}, {"g", "12"}}, 40),
        encode("mpeg2video", {25, 1}, {{"bf", "0"}, {"g", "12"}, {"strict", "-1"}}, 40,
               AV_CODEC_FLAG_LOW_DELAY),
        encode("mpeg1video", {25, 1}, {{"bf", "2"}, {"g", "1500"}}, 1200),
        encode("libx264", {25, 1}, {{"bf", "0"}}, 40),
        encode("libx264", {25, 1}, {{"bf", "3"}, {"g", "10"}}, 80),
        encode("libx264", {25, 1}, {{"bf", "3"}, {"g", "10"}}, 80, AV_CODEC_FLAG_GLOBAL_HEADER),
        encode("libx264", {25, 1},
               {{"bf", "7"}, {"g", "1000"}, {"refs", "8"}, {"x264-params", "b-pyramid=strict"}},
               900),
        encode("libx264", {25, 1}, {{"bf", "2"}, {"x264-params", "open-gop=1:b-pyramid=none"}}, 80),
        encode("libx264", {25, 1}, {{"bf", "2"}, {"x264-params", "intra-refresh=1:keyint=20"}}, 80),
        encode("libx264", {25, 1}, {{"bf", "2"}, {"x264-params", "tff=1"}}, 80,
               AV_CODEC_FLAG_INTERLACED_DCT | AV_CODEC_FLAG_INTERLACED_ME),
        encode("libx264", {25, 1}, {{"tune", "zerolatency"}}, 40),
    };
    for (std::size_t n = 0; n < streams.size(); ++n) {
        SCOPED_TRACE("stream " + std::to_string(n));
        ASSERT_GT(streams[n].packets.size(), 30U);
        const auto offsets = offsetsFor(streams[n].codec, streams[n].setUp);
        ASSERT_NE(offsets, nullptr);
        expectKnownOffsets(*offsets, streams[n], 0);
    }
}

TEST(CompositionOffsets, SetUpDataAreNotNeededWhereTheStreamHasThem)
{
    for (const std::string encoder : {"libx264", "mpeg4", "mpeg2video"}) {
        const KnownStream stream = encode(encoder, {25, 1}, {{"bf", "2"}, {"g", "12"}}, 60);
        const auto offsets = offsetsFor(stream.codec, "");
        expectKnownOffsets(*offsets, stream, 0);
    }
}

TEST(CompositionOffsets, OtherCodecsHaveNone)
{
    for (const AVCodecID codec :
         {AV_CODEC_ID_FLV1, AV_CODEC_ID_H263, AV_CODEC_ID_WMV1, AV_CODEC_ID_WMV2, AV_CODEC_ID_WMV3,
          AV_CODEC_ID_MJPEG, AV_CODEC_ID_VP8, AV_CODEC_ID_MP3, AV_CODEC_ID_NONE}) {
        EXPECT_EQ(offsetsFor(codec, ""), nullptr) << avcodec_get_name(codec);
    }
}

TEST(CompositionOffsets, FieldsInPacketsOfTheirOwnAreHalfFrames)
{
    const H264Headers headers({true, 1, false});
    const auto offsets = offsetsFor(AV_CODEC_ID_H264, headers.setUp());
    EXPECT_EQ(offsetsOf(*offsets, h264Pictures(headers, true, false)),
              (std::vector<double>{1, 1, 3, 3, 0, 0, 0, 0, 3, 3, 0, 0, 0, 0}));
}

TEST(CompositionOffsets, TwoFieldsInAPacketAreAFrame)
{
    const H264Headers headers({true, 1, false});
    const auto offsets = offsetsFor(AV_CODEC_ID_H264, headers.setUp());
    EXPECT_EQ(offsetsOf(*offsets, h264Pictures(headers, false, true)),
              (std::vector<double>{1, 3, 0, 0, 3, 0, 0}));
}

TEST(CompositionOffsets, UnitsBehindTheirLengthsAreReadToo)
{
    for (const bool fields : {false, true}) {
        const H264Headers headers({fields, 1, true});
        const auto offsets = offsetsFor(AV_CODEC_ID_H264, headers.setUpData());
        EXPECT_EQ(offsetsOf(*offsets, h264Pictures(headers, false, fields)),
                  (std::vector<double>{1, 3, 0, 0, 3, 0, 0}));
        // An opening in mid-stream is found in this form as well.
        EXPECT_EQ(offsetsOf(*offsets, h264Pictures(headers, false, fields)),
                  (std::vector<double>{1, 3, 0, 0, 3, 0, 0}));
    }
}

TEST(CompositionOffsets, StreamThatDoesNotDeclareItsReorderingIsFollowed)
{
    const H264Headers headers({false, -1, false});
    const auto offsets = offsetsFor(AV_CODEC_ID_H264, headers.setUp());
    EXPECT_EQ(offsetsOf(*offsets, h264Pictures(headers, false, false)),
              (std::vector<double>{0, 3, 0, 0, 3, 0, 0}));
    EXPECT_EQ(offsetsOf(*offsets, h264Pictures(headers, false, false)),
              (std::vector<double>{1, 3, 0, 0, 3, 0, 0}));
}

TEST(CompositionOffsets, PacketsWithoutAPictureCountNothing)
{
    const H264Headers headers({false, 1, false});
    const auto offsets = offsetsFor(AV_CODEC_ID_H264, "");
    EXPECT_EQ(offsets->next(nullptr, 100), 0.0);
    const unsigned char byte = 0;
    EXPECT_EQ(offsets->next(&byte, 0), 0.0);
    EXPECT_EQ(offsets->next(&byte, -1), 0.0);
    EXPECT_EQ(nextOf(*offsets, std::string("\0", 1)), 0.0);
    EXPECT_EQ(nextOf(*offsets, headers.setUp()), 0.0); // the parameters come on their own
    std::vector<std::string> pictures = h264Pictures(headers, false, false);
    pictures.insert(pictures.begin() + 2, headers.setUp());
    EXPECT_EQ(offsetsOf(*offsets, pictures), (std::vector<double>{1, 3, 0, 0, 0, 3, 0, 0}));
}

TEST(CompositionOffsets, BrokenPacketsDoNoHarm)
{
    const QuietLibrary quiet;
    unsigned int state = 99;
    const auto random = [&state](unsigned int below) {
        state = state * 1664525U + 1013904223U;
        return (state >> 8) % below;
    };
    for (const std::string encoder : {"libx264", "mpeg4", "mpeg2video", "mpeg1video"}) {
        const KnownStream stream = encode(encoder, {25, 1}, {{"bf", "2"}, {"g", "12"}}, 60);
        for (int round = 0; round < 30; ++round) {
            const auto offsets = offsetsFor(stream.codec, stream.setUp);
            for (const KnownPacket& packet : stream.packets) {
                std::string bytes = packet.bytes;
                for (unsigned int flips = random(4); flips > 0; --flips) {
                    // Headers stand in front.
                    const auto at = std::min<std::size_t>(random(48), bytes.size() - 1);
                    bytes[at] = static_cast<char>(random(256));
                }
                if (random(8) == 0) {
                    bytes.resize(1 + random(static_cast<unsigned int>(bytes.size())));
                }
                const double offset = nextOf(*offsets, bytes);
                ASSERT_TRUE(offset >= 0.0 && offset <= 64.0) << offset;
            }
        }
    }
}
