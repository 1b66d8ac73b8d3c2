#include "tests/encoder/RTPReceiver.h"
#include "tests/encoder/RawMedia.h"
#include "tests/encoder/StageRun.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

/// What leaves the stage for the wire, and what receivers make of it.

using namespace zel::test;
namespace PacketType = zel::streamer::PacketType;

namespace {

constexpr int Width = 352;
constexpr int Height = 288;
constexpr std::size_t PayloadBytes = 1000;

OutputSession rtpPictures(const char* codec, int bitrate = 900000)
{
    OutputSession session = pictureSession(codec, Width, Height);
    session.requestVideo(codec, bitrate);
    session.request.output.rtp = true;
    session.request.output.rtpPacketSize = static_cast<int>(PayloadBytes);
    return session;
}

OutputSession rtpSamples(const char* codec, int bitrate, int channels, int rate)
{
    OutputSession session = sampleSession(codec, bitrate, channels, rate, channels, rate);
    session.request.output.rtp = true;
    session.request.output.rtpPacketSize = static_cast<int>(PayloadBytes);
    return session;
}

/// A picture that takes many bytes, though it can be told from others.
std::string busyPicture(int index)
{
    std::string picture = movingPicture(Width, Height, index);
    unsigned int noise = 12345;
    for (std::size_t i = 0; i < static_cast<std::size_t>(Width) * Height; ++i) {
        noise = noise * 1103515245U + 12345U;
        picture[i] =
            static_cast<char>(static_cast<unsigned char>(picture[i]) / 2 + 40 + (noise >> 16) % 24);
    }
    return picture;
}

/// The slices of each picture.
using Slices = std::vector<std::vector<Delivered>>;

struct SlicedStream
{
    AVCodecID codec = AV_CODEC_ID_NONE;
    std::string setUp;
    Slices frames;
};

SlicedStream sliced(OutputSession session, int pictures)
{
    StageRun run(session);
    EXPECT_EQ(run.startResult(), 1);
    SlicedStream stream;
    const auto record = describe(run.stage());
    stream.setUp = bytesOfHexText(record.video.getCodecPrivateData());
    const double periodUs = 1000000.0 / session.video().getFrameRate();
    for (int i = 0; i < pictures; ++i) {
        run.write(samplePacket(PacketType::Video, busyPicture(i),
                               static_cast<unsigned long long>(std::llround(i * periodUs))));
    }
    for (const Delivered& packet : run.finish()) {
        if (stream.frames.empty() || stream.frames.back()[0].timestampUs != packet.timestampUs) {
            stream.frames.emplace_back();
        }
        stream.frames.back().push_back(packet);
    }
    stream.codec = avcodec_find_encoder_by_name(session.video().getCodec())->id;
    return stream;
}

std::string joined(const std::vector<Delivered>& slices)
{
    return joinedBytes(slices, PacketType::Video);
}

std::vector<std::string> joinedFrames(const SlicedStream& stream)
{
    std::vector<std::string> frames(stream.frames.size());
    std::transform(stream.frames.begin(), stream.frames.end(), frames.begin(), joined);
    return frames;
}

/// Whether a group of blocks of H.263 begins here.
bool isGroup(const std::string& bytes, std::size_t at)
{
    const auto third = static_cast<unsigned char>(bytes[at + 2]);
    return bytes[at] == 0 && bytes[at + 1] == 0 && (third & 0x80) != 0 && (third & 0x7C) != 0;
}

unsigned int ticksOf(const Delivered& packet, int clock)
{
    return static_cast<unsigned int>(
        std::llround(static_cast<double>(packet.timestampUs) * clock / 1000000));
}

/// Two seconds of a tone through the stage, as payloads.
std::vector<RTPPayload> tonePayloads(OutputSession& session, int channels, int rate)
{
    StageRun run(session);
    EXPECT_EQ(run.startResult(), 1);
    run.write(samplePacket(PacketType::Audio, bytesOf(tone(600.0, rate, channels, 2 * rate)), 0));
    std::vector<RTPPayload> payloads;
    for (const Delivered& packet : run.finish()) {
        payloads.push_back({packet.bytes, ticksOf(packet, rate), true});
    }
    return payloads;
}

void expectSteadyTimes(const std::vector<ReceivedFrame>& frames, int frameSamples)
{
    for (std::size_t i = 0; i < frames.size(); ++i) {
        EXPECT_NEAR(static_cast<double>(frames[i].pts),
                    static_cast<double>(i) * static_cast<double>(frameSamples), 1.0);
    }
}

void expectTone(const std::vector<int16_t>& samples, int channels, int rate)
{
    EXPECT_NEAR(static_cast<double>(samples.size()) / channels, 2.0 * rate, 0.1 * rate);
    EXPECT_NEAR(frequencyOf(samples, rate, channels), 600.0, 5.0);
}

std::vector<std::string> bytesOfFrames(const std::vector<ReceivedFrame>& frames)
{
    std::vector<std::string> bytes(frames.size());
    std::transform(frames.begin(), frames.end(), bytes.begin(),
                   [](const ReceivedFrame& frame) { return frame.bytes; });
    return bytes;
}

/// A speech frame as its table of contents says, without what follows it.
std::string speechFrame(const std::string& bytes, const std::array<std::size_t, 16>& sizes)
{
    const auto kind = (static_cast<unsigned char>(bytes[0]) >> 3) & 0x0F;
    return bytes.substr(0, 1 + sizes[static_cast<std::size_t>(kind)]);
}

constexpr std::array<std::size_t, 16> NarrowSizes = {12, 13, 15, 17, 19, 20, 26, 31,
                                                     5,  0,  0,  0,  0,  0,  0,  0};
constexpr std::array<std::size_t, 16> WideSizes = {17, 23, 32, 36, 40, 46, 50, 58,
                                                   60, 5,  0,  0,  0,  0,  0,  0};

} // namespace

TEST(FFMpegEncoderRTP, TheSlicesOfAPictureMakeItUp)
{
    for (const char* codec :
         {"mpeg4", "h263", "h263p", "mpeg1video", "mpeg2", "svq", "wmv2", "mjpeg"}) {
        const SlicedStream stream = sliced(rtpPictures(codec), 15);
        ASSERT_EQ(stream.frames.size(), 15U) << codec;
        const auto shown =
            decodePictures(stream.codec, stream.setUp, Width, Height, joinedFrames(stream));
        ASSERT_EQ(shown.size(), 15U) << codec;
        for (int i = 0; i < 15; ++i) {
            EXPECT_GT(likeness(shown[static_cast<std::size_t>(i)], busyPicture(i)), 22.0)
                << codec << " " << i;
        }
    }
}

TEST(FFMpegEncoderRTP, SlicesFitThePayload)
{
    for (const char* codec : {"mpeg4", "mpeg1video", "mpeg2"}) {
        std::size_t most = 0;
        for (const auto& frame : sliced(rtpPictures(codec), 15).frames) {
            most = std::max(most, frame.size());
            for (const Delivered& slice : frame) {
                EXPECT_LE(slice.bytes.size(), PayloadBytes) << codec;
            }
        }
        EXPECT_GT(most, 3U) << codec;
    }
}

TEST(FFMpegEncoderRTP, OnlyAGroupOfBlocksThatIsLongerItselfExceedsThePayload)
{
    for (const char* codec : {"h263", "h263p"}) {
        std::size_t most = 0;
        for (const auto& frame : sliced(rtpPictures(codec), 15).frames) {
            most = std::max(most, frame.size());
            for (const Delivered& slice : frame) {
                for (std::size_t at = 1;
                     slice.bytes.size() > PayloadBytes && at + 3 < slice.bytes.size(); ++at) {
                    ASSERT_FALSE(isGroup(slice.bytes, at)) << codec << " at " << at;
                }
            }
        }
        EXPECT_GT(most, 3U) << codec;
    }
}

TEST(FFMpegEncoderRTP, SlicesAreFilled)
{
    // Two neighbours that fit one packet together would be one.
    for (const char* codec : {"mpeg4", "mpeg1video", "mpeg2"}) {
        for (const auto& frame : sliced(rtpPictures(codec), 15).frames) {
            for (std::size_t i = 1; i < frame.size(); ++i) {
                EXPECT_GT(frame[i - 1].bytes.size() + frame[i].bytes.size(), PayloadBytes) << codec;
            }
        }
    }
}

TEST(FFMpegEncoderRTP, ACodecWithoutMarksGivesWholePictures)
{
    for (const char* codec : {"svq", "wmv2", "mjpeg"}) {
        for (const auto& frame : sliced(rtpPictures(codec, 5000000), 15).frames) {
            EXPECT_EQ(frame.size(), 1U) << codec;
            EXPECT_GT(frame[0].bytes.size(), PayloadBytes) << codec;
        }
    }
}

TEST(FFMpegEncoderRTP, AllSlicesOfAPictureHaveItsTimeAndKeyFlag)
{
    const SlicedStream stream = sliced(rtpPictures("mpeg4"), 15);
    ASSERT_EQ(stream.frames.size(), 15U);
    for (std::size_t i = 0; i < stream.frames.size(); ++i) {
        for (const Delivered& slice : stream.frames[i]) {
            EXPECT_EQ(slice.type, PacketType::Video);
            EXPECT_EQ(slice.timestampUs, i * PeriodUs);
            EXPECT_EQ(slice.durationUs, PeriodUs);
            EXPECT_EQ(slice.keyFrame, i < 11) << i;
        }
    }
}

TEST(FFMpegEncoderRTP, ADurationIsCutToWholeMicroseconds)
{
    OutputSession session = rtpPictures("svq");
    session.requestVideo("svq", 900000, 30.0);
    const SlicedStream stream = sliced(session, 2);
    ASSERT_EQ(stream.frames.size(), 2U);
    EXPECT_EQ(stream.frames[0][0].durationUs, 33333U);
}

TEST(FFMpegEncoderRTP, Mpeg4ComesTogetherAtAReceiver)
{
    const SlicedStream stream = sliced(rtpPictures("mpeg4", 300000), 12);
    std::vector<RTPPayload> payloads;
    for (const auto& frame : stream.frames) {
        for (std::size_t i = 0; i < frame.size(); ++i) {
            payloads.push_back({frame[i].bytes, ticksOf(frame[i], 90000), i + 1 == frame.size()});
        }
    }
    ASSERT_GT(payloads.size(), 12U);
    std::string config;
    for (const char byte : stream.setUp) {
        constexpr char Digits[] = "0123456789abcdef";
        config += Digits[static_cast<unsigned char>(byte) >> 4];
        config += Digits[static_cast<unsigned char>(byte) & 15];
    }
    const ReceivedStream received =
        receiveRTP("video", "MP4V-ES/90000", "profile-level-id=1;config=" + config, payloads);
    EXPECT_EQ(received.codec, "mpeg4");
    EXPECT_EQ(received.setUp, stream.setUp);
    // A receiver that does not parse hands out what it got, and the parts have their frame's time.
    std::vector<std::string> frames;
    int64_t lastPts = -1;
    for (const ReceivedFrame& part : received.frames) {
        if (part.pts != lastPts) {
            frames.emplace_back();
        }
        frames.back() += part.bytes;
        lastPts = part.pts;
    }
    EXPECT_EQ(frames, joinedFrames(stream));
}

TEST(FFMpegEncoderRTP, AacComesTogetherAtAReceiverOfTheGenericPayload)
{
    OutputSession session = rtpSamples("aac", 128000, 2, 44100);
    session.options.set("audioUseLATM", "0");
    const auto payloads = tonePayloads(session, 2, 44100);
    const std::string config = session.audio().getCodecPrivateData();
    const ReceivedStream received =
        receiveRTP("audio", "mpeg4-generic/44100/2",
                   "streamtype=5;profile-level-id=1;mode=AAC-hbr;sizelength=13;indexlength=3;"
                   "indexdeltalength=3;config=" +
                       config,
                   payloads);
    EXPECT_EQ(received.codec, "aac");
    ASSERT_EQ(received.frames.size(), payloads.size());
    expectSteadyTimes(received.frames, 1024);
    expectTone(
        decodeSamples(AV_CODEC_ID_AAC, received.setUp, 2, 44100, bytesOfFrames(received.frames)), 2,
        44100);
}

TEST(FFMpegEncoderRTP, AacComesTogetherAtAReceiverOfTheLatmPayload)
{
    OutputSession session = rtpSamples("aac", 128000, 2, 44100);
    const auto payloads = tonePayloads(session, 2, 44100);
    ASSERT_EQ(session.audio().codecPrivateData->substr(0, 4), "1210");
    // A mux config of one programme and one layer around 0x1210.
    const ReceivedStream received =
        receiveRTP("audio", "MP4A-LATM/44100/2",
                   "profile-level-id=15;cpresent=0;config=400024203fc0", payloads);
    EXPECT_EQ(received.codec, "aac");
    ASSERT_EQ(received.frames.size(), payloads.size());
    expectSteadyTimes(received.frames, 1024);
    expectTone(
        decodeSamples(AV_CODEC_ID_AAC, received.setUp, 2, 44100, bytesOfFrames(received.frames)), 2,
        44100);
}

TEST(FFMpegEncoderRTP, SpeechComesTogetherAtAReceiver)
{
    struct Case
    {
        const char* codec;
        const char* encoding;
        AVCodecID id;
        int bitrate;
        int rate;
        const std::array<std::size_t, 16>& sizes;
    };
    for (const Case& test :
         {Case{"amr_nb", "AMR/8000/1", AV_CODEC_ID_AMR_NB, 12000, 8000, NarrowSizes},
          Case{"amr", "AMR-WB/16000/1", AV_CODEC_ID_AMR_WB, 32000, 16000, WideSizes}}) {
        OutputSession session = rtpSamples(test.codec, test.bitrate, 1, test.rate);
        const auto payloads = tonePayloads(session, 1, test.rate);
        EXPECT_EQ(payloads.size(), 100U) << test.codec;
        const ReceivedStream received =
            receiveRTP("audio", test.encoding, "octet-align=1", payloads);
        ASSERT_EQ(received.frames.size(), payloads.size()) << test.codec;
        expectSteadyTimes(received.frames, test.rate / 50);
        std::vector<std::string> frames;
        for (const ReceivedFrame& frame : received.frames) {
            frames.push_back(speechFrame(frame.bytes, test.sizes));
        }
        expectTone(decodeSamples(test.id, "", 1, test.rate, frames), 1, test.rate);
    }
}

TEST(FFMpegEncoderRTP, OtherAudioIsNotWrapped)
{
    OutputSession session = rtpSamples("mp2", 128000, 2, 44100);
    std::vector<std::string> frames;
    for (const RTPPayload& payload : tonePayloads(session, 2, 44100)) {
        frames.push_back(payload.bytes);
    }
    expectTone(decodeSamples(AV_CODEC_ID_MP2, "", 2, 44100, frames), 2, 44100);
}

TEST(FFMpegEncoderRTP, PicturesAndSamplesThatWaitLeaveInTheOrderOfTime)
{
    OutputSession session = rtpPictures("svq");
    session.input.stream.audio = sampleSession("mp2", 128000).input.stream.audio;
    session.requestAudio("mp2", 128000, 2, 44100);
    StageRun run(session, StageRun::Reader::TheTest);
    for (unsigned int i = 0; i < 5; ++i) {
        run.write(samplePacket(PacketType::Video, busyPicture(0), i * PeriodUs));
    }
    run.write(samplePacket(PacketType::Audio, bytesOf(tone(600.0, 44100, 2, 1152 * 6)), 0));
    const auto packets = run.finish();
    ASSERT_EQ(packets.size(), 11U);
    EXPECT_TRUE(std::is_sorted(packets.begin(), packets.end(),
                               [](const Delivered& left, const Delivered& right) {
                                   return left.timestampUs < right.timestampUs;
                               }));
    EXPECT_EQ(deliveredOf(packets, PacketType::Audio).size(), 6U);
}

/// In a process of its own, for the lines are counted for the whole process.
TEST(FFMpegEncoderRTPDeathTest, TheFirstTwoHundredSlicesOfAProcessAreLogged)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto logSlices = [] {
        LogCapture log;
        OutputSession session = pictureSession("svq", 16, 16);
        session.request.output.rtp = true;
        session.request.output.rtpPacketSize = static_cast<int>(PayloadBytes);
        StageRun run(session, StageRun::Reader::TheTest);
        log.makeCurrent();
        for (unsigned int i = 0; i < 250; ++i) {
            run.write(samplePacket(PacketType::Video, movingPicture(16, 16, 0), i * PeriodUs));
        }
        const bool isCounted = log.count("RTP Video Callback ") == 200;
        const bool hasLines = log.count("RTP Video Callback 1 : 0 - 40000 - 1 - ") == 1 &&
                              log.count("RTP Video Callback 13 : 480000 - 40000 - 0 - ") == 1;
        std::_Exit(isCounted && hasLines ? 0 : 1);
    };
    EXPECT_EXIT(logSlices(), testing::ExitedWithCode(0), "");
}
