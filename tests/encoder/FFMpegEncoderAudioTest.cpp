#include "tests/encoder/RawMedia.h"
#include "tests/encoder/StageRun.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MediaReference.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

/// Raw samples: width, channels, rate, frames and their times.

using namespace zel::test;
using zel::streamer::SamplePacket;
namespace PacketType = zel::streamer::PacketType;

namespace {

using Samples = std::vector<int16_t>;

constexpr int ChunkSamples = 1024; ///< of an encoder that takes frames of any size

/// A session that delivers the samples as the encoder was given them.
OutputSession plainSession(int inChannels = 2, int bits = 16, int outChannels = 2)
{
    OutputSession session = sampleSession("pcm_s16le", 128000, inChannels, 44100, outChannels);
    session.input.stream.audio.bitsPerSample = bits;
    return session;
}

SamplePacket* samplesAt(const std::string& bytes, unsigned long long timestampUs,
                        unsigned long long durationUs = 0)
{
    return samplePacket(PacketType::Audio, bytes, timestampUs, durationUs);
}

SamplePacket* samplesAt(const Samples& samples, unsigned long long timestampUs)
{
    return samplesAt(bytesOf(samples), timestampUs);
}

std::vector<Delivered> encoded(OutputSession& session, const std::string& bytes)
{
    StageRun run(session);
    EXPECT_EQ(run.startResult(), 1);
    run.write(samplesAt(bytes, 0));
    return run.finish();
}

/// What the encoder got of one packet of the session's samples.
Samples taken(OutputSession& session, const std::string& bytes)
{
    return samplesOf(joinedBytes(encoded(session, bytes), PacketType::Audio));
}

/// Values that go through the whole range.
int16_t valueAt(int index)
{
    return static_cast<int16_t>(index * 7919 - 32768);
}

/// Samples of a number of channels, all of them different.
Samples spread(int channels, int samples)
{
    Samples all;
    for (int i = 0; i < channels * samples; ++i) {
        all.push_back(valueAt(i));
    }
    return all;
}

int16_t limited(double value)
{
    return static_cast<int16_t>(std::clamp(value, -32768.0, 32767.0));
}

/// One frame of samples on two channels, by the rules for more of them.
std::pair<int16_t, int16_t> mixed(const int16_t* s, int channels)
{
    switch (channels) {
    case 5:
        return {limited(s[1] + 0.5 * s[4]), limited(s[2] + 0.5 * s[4])};
    case 6:
        return {limited(0.8 * s[0] + 0.5 * s[4] + 0.5 * (s[2] + s[3])),
                limited(0.8 * s[1] + 0.5 * s[5] + 0.5 * (s[2] + s[3]))};
    default:
        return {s[1], s[2]};
    }
}

Samples mixedDown(const Samples& samples, int channels)
{
    Samples result;
    for (std::size_t i = 0; i < samples.size(); i += static_cast<std::size_t>(channels)) {
        const auto [left, right] = mixed(samples.data() + i, channels);
        result.push_back(left);
        result.push_back(right);
    }
    return result;
}

std::vector<std::string> framesOf(const std::vector<Delivered>& packets)
{
    std::vector<std::string> frames(packets.size());
    std::transform(packets.begin(), packets.end(), frames.begin(),
                   [](const Delivered& packet) { return packet.bytes; });
    return frames;
}

unsigned long long microseconds(long long samples, int sampleRate)
{
    return static_cast<unsigned long long>(
        std::llround(static_cast<double>(samples) * 1000000 / sampleRate));
}

/// The times of an audio stream, in seconds.
std::vector<double> packetTimes(const std::string& path)
{
    const auto medium = probeMedium(path);
    std::vector<double> times;
    if (medium && !medium->streams.empty()) {
        const ProbedStream& stream = medium->streams[0];
        for (const ProbedPacket& packet : medium->packets) {
            times.push_back(static_cast<double>(packet.pts.value_or(-1)) * stream.timeBaseNum /
                            stream.timeBaseDen);
        }
    }
    return times;
}

} // namespace

TEST(FFMpegEncoderAudio, SixteenBitsPassAsTheyAre)
{
    OutputSession session = plainSession();
    const Samples samples = spread(2, 3 * ChunkSamples);
    EXPECT_EQ(taken(session, bytesOf(samples)), samples);
}

TEST(FFMpegEncoderAudio, EightBitsAreUnsignedAndGrowUpwards)
{
    OutputSession session = plainSession(2, 8);
    std::string bytes;
    Samples expected;
    for (int i = 0; i < 2 * ChunkSamples; ++i) {
        bytes += static_cast<char>(i);
        expected.push_back(static_cast<int16_t>((i % 256 - 128) * 256));
    }
    EXPECT_EQ(taken(session, bytes), expected);
}

TEST(FFMpegEncoderAudio, OfWiderSamplesTheTwoUpperBytesCount)
{
    for (const int bits : {24, 32}) {
        OutputSession session = plainSession(2, bits);
        const Samples expected = spread(2, 2 * ChunkSamples);
        std::string bytes;
        for (const int16_t sample : expected) {
            bytes += std::string(static_cast<std::size_t>(bits / 8 - 2), '\xEE');
            bytes += static_cast<char>(sample & 0xFF);
            bytes += static_cast<char>(sample >> 8);
        }
        EXPECT_EQ(taken(session, bytes), expected) << bits;
    }
}

TEST(FFMpegEncoderAudio, AnUnknownWidthIsDroppedWithAWarning)
{
    for (const int bits : {0, 12, 20, 64, -16}) {
        for (const int channels : {2, 6}) {
            LogCapture log;
            OutputSession session = plainSession(channels, bits);
            StageRun run(session, StageRun::Reader::TheTest);
            log.makeCurrent();
            run.write(samplesAt(std::string(65536, '\1'), 0));
            EXPECT_TRUE(run.finish().empty());
            const std::string end = ">::encodeAudioPacket : unknown bitsPerSample value ";
            EXPECT_EQ(log.count(end + std::to_string(bits)), 1) << bits;
            EXPECT_EQ(log.count("FFMpegEncoder<"), 2) << "this line and the end's";
        }
    }
}

TEST(FFMpegEncoderAudio, OneChannelPassesAsItIs)
{
    OutputSession session = plainSession(1, 16, 1);
    const Samples samples = spread(1, 2 * ChunkSamples);
    EXPECT_EQ(taken(session, bytesOf(samples)), samples);
}

TEST(FFMpegEncoderAudio, MoreChannelsAreMixedToTwo)
{
    for (int channels = 3; channels <= 6; ++channels) {
        OutputSession session = plainSession(channels);
        const Samples samples = spread(channels, ChunkSamples);
        EXPECT_EQ(taken(session, bytesOf(samples)), mixedDown(samples, channels)) << channels;
    }
}

TEST(FFMpegEncoderAudio, MixedSamplesAreLimited)
{
    for (const int16_t extreme : {int16_t{32767}, int16_t{-32768}}) {
        for (const int channels : {5, 6}) {
            OutputSession session = plainSession(channels);
            const Samples samples(static_cast<std::size_t>(channels * ChunkSamples), extreme);
            EXPECT_EQ(taken(session, bytesOf(samples)), Samples(2UL * ChunkSamples, extreme));
        }
    }
}

TEST(FFMpegEncoderAudio, MoreChannelsAreReadAsSixteenBitsWhateverTheWidth)
{
    for (const int bits : {8, 24, 32}) {
        OutputSession session = plainSession(6, bits);
        const Samples samples = spread(6, ChunkSamples);
        EXPECT_EQ(taken(session, bytesOf(samples)), mixedDown(samples, 6)) << bits;
    }
}

TEST(FFMpegEncoderAudio, AnUnknownNumberOfChannelsIsDroppedWithAWarning)
{
    for (const int channels : {-1, 0, 7, 8, 1000}) {
        LogCapture log;
        OutputSession session = plainSession(channels);
        StageRun run(session, StageRun::Reader::TheTest);
        log.makeCurrent();
        run.write(samplesAt(std::string(65536, '\1'), 0));
        EXPECT_TRUE(run.finish().empty());
        EXPECT_EQ(log.count("FFMpegEncoder::encodeAudioPacket : unknown channels value " +
                            std::to_string(channels)),
                  1);
    }
}

TEST(FFMpegEncoderAudio, AnotherRateAloneIsResampled)
{
    for (const int rate : {22050, 48000, 8000}) {
        OutputSession session = sampleSession("pcm_s16le", 128000, 2, 44100, 2, rate);
        const Samples samples = taken(session, bytesOf(tone(1000.0, 44100, 2, 88200)));
        EXPECT_NEAR(static_cast<double>(samples.size()) / 2, 2.0 * rate, ChunkSamples + 50);
        EXPECT_NEAR(frequencyOf(samples, rate, 2), 1000.0, 5.0) << rate;
    }
}

TEST(FFMpegEncoderAudio, AnotherNumberOfChannelsAloneIsResampled)
{
    for (const auto& [in, out] : {std::pair(1, 2), std::pair(2, 1), std::pair(2, 6)}) {
        OutputSession session = plainSession(in, 16, out);
        const Samples samples = taken(session, bytesOf(tone(1000.0, 44100, in, 44100)));
        EXPECT_NEAR(static_cast<double>(samples.size()) / out, 44100.0, ChunkSamples + 50);
        EXPECT_NEAR(frequencyOf(samples, 44100, out), 1000.0, 5.0) << in << " to " << out;
    }
}

TEST(FFMpegEncoderAudio, ChannelsThatAreMixedFirstAreResampledAsTwo)
{
    OutputSession session = plainSession(6, 16, 1);
    const Samples samples = taken(session, bytesOf(tone(1000.0, 44100, 6, 44100)));
    EXPECT_NEAR(static_cast<double>(samples.size()), 44100.0, ChunkSamples + 50);
    EXPECT_NEAR(frequencyOf(samples, 44100), 1000.0, 5.0);
}

TEST(FFMpegEncoderAudio, NothingIsLostOfALargePacketThatGrowsALot)
{
    // 2000 hertz become 48 times as much.
    OutputSession session = sampleSession("pcm_s16le", 128000, 2, 2000, 2, 96000);
    const Samples samples = taken(session, bytesOf(tone(300.0, 2000, 2, 2000 * 12)));
    EXPECT_NEAR(static_cast<double>(samples.size()) / 2, 96000.0 * 12, 2 * ChunkSamples);
}

TEST(FFMpegEncoderAudio, ChannelsThatCannotBeMadeAreDroppedWithAWarning)
{
    LogCapture log;
    OutputSession session = sampleSession("pcm_s16le", 128000, 1, 22050, 6, 44100);
    StageRun run(session, StageRun::Reader::TheTest);
    log.makeCurrent();
    run.write(samplesAt(std::string(65536, '\1'), 0));
    EXPECT_TRUE(run.finish().empty());
    EXPECT_EQ(log.count("Audio Encoder: Unsupported format: channels=1, sampleRate=22050"), 1);
}

TEST(FFMpegEncoderAudio, LessThanAFrameWaitsForTheRest)
{
    OutputSession session = sampleSession("mp2", 128000, 2, 44100, 2, 44100);
    const Samples samples = tone(1000.0, 44100, 2, 1152);
    {
        StageRun run(session, StageRun::Reader::TheTest);
        run.write(samplesAt(Samples(samples.begin(), samples.end() - 2), 1000));
        EXPECT_TRUE(run.finish().empty());
    }
    StageRun run(session, StageRun::Reader::TheTest);
    run.write(samplesAt(Samples(samples.begin(), samples.end() - 2), 1000));
    run.write(samplesAt(Samples(samples.end() - 2, samples.end()), 2000));
    const auto packets = run.finish();
    ASSERT_EQ(packets.size(), 1U);
    EXPECT_EQ(packets[0].timestampUs, 2000U);
    EXPECT_EQ(packets[0].durationUs, 0U);
    EXPECT_TRUE(packets[0].keyFrame);
}

TEST(FFMpegEncoderAudio, AnEncoderWithoutAFrameSizeGetsFramesAllTheSame)
{
    OutputSession session = plainSession();
    const auto packets = encoded(session, bytesOf(spread(2, 3 * ChunkSamples + 7)));
    ASSERT_EQ(packets.size(), 3U);
    for (const Delivered& packet : packets) {
        EXPECT_EQ(packet.bytes.size(), ChunkSamples * 4U);
    }
}

TEST(FFMpegEncoderAudio, AllFramesOfAPacketCarryItsTime)
{
    OutputSession session = plainSession();
    StageRun run(session, StageRun::Reader::TheTest);
    run.write(samplesAt(spread(2, 2 * ChunkSamples), 7000));
    run.write(samplesAt(spread(2, 3 * ChunkSamples), 5000));
    std::vector<unsigned long long> times;
    for (const Delivered& packet : run.finish()) {
        times.push_back(packet.timestampUs);
    }
    EXPECT_EQ(times, (std::vector<unsigned long long>{7000, 7000, 5000, 5000, 5000}));
}

TEST(FFMpegEncoderAudio, APacketWithoutATimeFollowsTheOneBefore)
{
    OutputSession session = plainSession();
    StageRun run(session, StageRun::Reader::TheTest);
    const std::string bytes = bytesOf(spread(2, ChunkSamples));
    run.write(samplesAt(bytes, 5000, 23000));
    run.write(samplesAt(bytes, SamplePacket::NoTimestamp, 24000));
    run.write(samplesAt(bytes, SamplePacket::NoTimestamp, 24000));
    std::vector<unsigned long long> times;
    for (const Delivered& packet : run.finish()) {
        times.push_back(packet.timestampUs);
    }
    EXPECT_EQ(times, (std::vector<unsigned long long>{5000, 28000, 52000}));
}

TEST(FFMpegEncoderAudio, TooLargeFramesAreCutWithAWarning)
{
    // tta wants 46080 samples at once, 184320 bytes.
    LogCapture log;
    OutputSession session = sampleSession("tta", 128000, 2, 44100, 2, 44100);
    session.request.output.rtp = true;
    StageRun run(session, StageRun::Reader::TheTest);
    ASSERT_EQ(run.startResult(), 1);
    log.makeCurrent();
    const std::string warning = ">: encodedPacketSize > MAX_AUDIO_PACKET_SIZE (184320 / 131072)";
    run.write(samplesAt(tone(1000.0, 44100, 2, 46079), 0));
    EXPECT_EQ(log.count(warning), 0);
    run.write(samplesAt(tone(1000.0, 44100, 2, 1), 0));
    EXPECT_EQ(log.count("encodeAudioPacket<"), 1);
    EXPECT_EQ(log.count(warning), 1);
    // 13312 are left.
    run.write(samplesAt(tone(1000.0, 44100, 2, 46080 - 13312), 0));
    EXPECT_EQ(log.count(warning), 2);
    const auto packets = run.finish();
    ASSERT_EQ(packets.size(), 2U);
    EXPECT_EQ(packets[0].durationUs, microseconds(32768, 44100));
    EXPECT_EQ(packets[1].timestampUs, microseconds(32768, 44100));
}

TEST(FFMpegEncoderAudio, FramesThatFitAreNotCut)
{
    LogCapture log;
    OutputSession session = sampleSession("tta", 128000, 1, 44100, 1, 44100);
    session.request.output.rtp = true;
    StageRun run(session, StageRun::Reader::TheTest);
    log.makeCurrent();
    run.write(samplesAt(tone(1000.0, 44100, 1, 46080), 0));
    const auto packets = run.finish();
    ASSERT_EQ(packets.size(), 1U);
    EXPECT_EQ(packets[0].durationUs, microseconds(46080, 44100));
    EXPECT_EQ(log.count("MAX_AUDIO_PACKET_SIZE"), 0);
}

TEST(FFMpegEncoderAudio, RTPTimesCountSamples)
{
    struct Case
    {
        const char* codec;
        int bitrate;
        int rate;
        int frameSamples;
        std::size_t held; ///< frames that the encoder holds back at most
    };
    for (const Case& test :
         {Case{"mp2", 128000, 44100, 1152, 0}, Case{"aac", 128000, 44100, 1024, 1},
          Case{"mp3", 128000, 44100, 1152, 3}, Case{"amr_nb", 12000, 8000, 160, 0},
          Case{"amr", 24000, 16000, 320, 0}, Case{"ac3", 128000, 48000, 1536, 0}}) {
        const int channels = test.rate <= 16000 ? 1 : 2;
        OutputSession session =
            sampleSession(test.codec, test.bitrate, channels, test.rate, channels, test.rate);
        session.request.output.rtp = true;
        StageRun run(session, StageRun::Reader::TheTest);
        ASSERT_EQ(run.startResult(), 1) << test.codec;
        constexpr std::size_t Frames = 40;
        for (std::size_t i = 0; i < Frames; ++i) {
            run.write(samplesAt(tone(500.0, test.rate, channels, test.frameSamples,
                                     static_cast<int>(i) * test.frameSamples),
                                1000000 * i));
        }
        const auto packets = run.finish();
        ASSERT_GE(packets.size(), Frames - test.held) << test.codec;
        for (std::size_t i = 0; i < packets.size(); ++i) {
            EXPECT_EQ(packets[i].type, PacketType::Audio);
            EXPECT_EQ(packets[i].timestampUs,
                      microseconds(static_cast<long long>(i) * test.frameSamples, test.rate));
            EXPECT_EQ(packets[i].durationUs, microseconds(test.frameSamples, test.rate));
            EXPECT_TRUE(packets[i].keyFrame);
        }
    }
}

TEST(FFMpegEncoderAudio, ASeekDropsWhatWaitsAndCountsOn)
{
    OutputSession session = sampleSession("mp2", 128000, 2, 44100, 2, 44100);
    session.request.output.rtp = true;
    StageRun run(session, StageRun::Reader::TheTest);
    run.write(samplesAt(tone(1000.0, 44100, 2, 1152 + 600), 0));
    ASSERT_TRUE(run.next().has_value());
    run.stage().resetPosition(60000);
    run.write(samplesAt(tone(1000.0, 44100, 2, 600), 60000000));
    run.write(samplesAt(tone(1000.0, 44100, 2, 552), 60010000));
    const auto packets = run.finish();
    ASSERT_EQ(packets.size(), 1U);
    EXPECT_EQ(packets[0].timestampUs, microseconds(1152, 44100));
}

TEST(FFMpegEncoderAudio, EveryCodecSoundsAsItWasGiven)
{
    struct Case
    {
        const char* codec;
        AVCodecID id;
        int bitrate;
        int rate;
        int channels;
    };
    for (const Case& test : {Case{"aac", AV_CODEC_ID_AAC, 128000, 44100, 2},
                             Case{"mp3", AV_CODEC_ID_MP3, 128000, 44100, 2},
                             Case{"mp2", AV_CODEC_ID_MP2, 128000, 44100, 2},
                             Case{"ac3", AV_CODEC_ID_AC3, 192000, 48000, 2},
                             Case{"wma", AV_CODEC_ID_WMAV2, 128000, 44100, 2},
                             Case{"wmav1", AV_CODEC_ID_WMAV1, 128000, 44100, 2},
                             Case{"flac", AV_CODEC_ID_FLAC, 128000, 44100, 2},
                             Case{"amr_nb", AV_CODEC_ID_AMR_NB, 12000, 8000, 1},
                             Case{"amr", AV_CODEC_ID_AMR_WB, 24000, 16000, 1}}) {
        // The input is of another rate, so that all of the way is walked.
        OutputSession session =
            sampleSession(test.codec, test.bitrate, 2, 32000, test.channels, test.rate);
        StageRun run(session, StageRun::Reader::TheTest);
        ASSERT_EQ(run.startResult(), 1) << test.codec;
        const auto record = describe(run.stage());
        run.write(samplesAt(tone(600.0, 32000, 2, 64000), 0));
        const auto samples =
            decodeSamples(test.id, bytesOfHexText(record.audio.getCodecPrivateData()),
                          test.channels, test.rate, framesOf(run.finish()));
        EXPECT_NEAR(static_cast<double>(samples.size()) / test.channels, 2.0 * test.rate,
                    0.2 * test.rate)
            << test.codec;
        EXPECT_NEAR(frequencyOf(samples, test.rate, test.channels), 600.0, 5.0) << test.codec;
    }
}

TEST(FFMpegEncoderAudio, BehindASeekTheContainersTimeIsTheMediumsButInTransportStreams)
{
    const TempFolder folder;
    for (const std::string format : {"matroska", "mpegts"}) {
        OutputSession session = sampleSession("mp2", 128000, 2, 48000, 2, 48000);
        session.requestFormat(format.c_str());
        session.request.output.multiplexed = true;
        StageRun run(session, StageRun::Reader::TheTest);
        ASSERT_EQ(run.startResult(), 1) << format;
        const Samples frame = tone(1000.0, 48000, 2, 1152);
        for (unsigned int i = 0; i < 20; ++i) {
            run.write(samplesAt(frame, 24000ULL * i));
        }
        const std::string before = containerBytes(run.soFar());
        run.stage().resetPosition(60000);
        for (unsigned int i = 0; i < 20; ++i) {
            run.write(samplesAt(frame, 60000000 + 24000ULL * i));
        }
        const std::string path = folder.path("a." + format);
        writeFile(path, before + containerBytes(run.finish()));
        const std::vector<double> times = packetTimes(path);
        ASSERT_GE(times.size(), 20U) << format;
        const double first = times[times.size() - 20];
        const double begin = format == "mpegts" ? times.front() : 60.0;
        EXPECT_NEAR(first, begin, 0.6) << format;
        EXPECT_NEAR(times.back() - first, 19 * 0.024, 0.002) << format;
    }
}
