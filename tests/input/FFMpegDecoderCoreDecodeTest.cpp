#include "input/FFMpegDecoderCore.h"

#include "host/Records.h"
#include "plugin/SimpleSamplePacket.h"
#include "tests/support/ClipPackets.h"
#include "tests/support/CoreReader.h"
#include "tests/support/FlvMedium.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MemorySource.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

using zel::host::OutputStreamRecord;
using zel::streamer::SamplePacket;
using zel::streamer::SimpleSamplePacket;
using zel::test::audioOf;
using zel::test::ClipPacket;
using zel::test::ClipPackets;
using zel::test::clipPath;
using zel::test::FlvMedium;
using zel::test::Keep;
using zel::test::LogCapture;
using zel::test::MemorySource;
using zel::test::readClipPackets;
using zel::test::readFile;
using zel::test::readSample;
using zel::test::readSamples;
using zel::test::Sample;
using zel::test::timesOf;
using zel::test::videoOf;
namespace DecodingMode = zel::streamer::DecodingMode;
namespace PacketType = zel::streamer::PacketType;

namespace {

using Times = std::vector<unsigned long long>;

/// A core on media whose packets a test writes itself. Pictures are those of a clip: 25 a second,
/// a key frame first and then every 25th.
class FFMpegDecoderCoreDecode : public testing::Test
{
protected:
    enum Kind
    {
        Live,
        WithDuration
    };

    void open(const FlvMedium& medium, Kind kind)
    {
        m_source = std::make_unique<MemorySource>(medium.bytes());
        m_source->canSeek = kind == WithDuration;
        ASSERT_EQ(m_source->open(core, "flv"), 0);
        ASSERT_EQ(core.needToStartAtZero(), kind == Live);
    }

    const std::string& picture(std::size_t index)
    {
        if (m_pictures.empty()) {
            m_pictures = readClipPackets(clipPath("flv1_mp3.flv")).video();
        }
        return m_pictures[index].bytes;
    }
    const std::string& keyPicture() { return picture(0); }

    bool wrote(LOGLEVEL level, const std::string& text) const
    {
        for (const LogCapture::Line& line : log.lines()) {
            if (line.level == level && line.text == text) {
                return true;
            }
        }
        return false;
    }

    LogCapture log;
    std::unique_ptr<MemorySource> m_source; // outlives the core
    std::vector<ClipPacket> m_pictures;
    FFMpegDecoderCore core;
};

Times steps(unsigned long long firstMs, unsigned long long stepMs, std::size_t count)
{
    Times times;
    for (std::size_t i = 0; i < count; ++i) {
        times.push_back((firstMs + stepMs * i) * 1000);
    }
    return times;
}

} // namespace

TEST_F(FFMpegDecoderCoreDecode, ClosedCoreDeliversNothing)
{
    EXPECT_FALSE(readSample(core));
    ASSERT_EQ(core.initWithUrl(clipPath("h264_aac.mp4"), ""), 0);
    EXPECT_TRUE(readSample(core));
    core.close();
    EXPECT_FALSE(readSample(core));
    PacketType::Enum type = PacketType::None;
    unsigned long long timestamp = 0;
    unsigned long long duration = 0;
    EXPECT_FALSE(core.skipPacket(type, timestamp, duration));
}

// ---------------------------------------------------------------------------------------------
// Start of the stamps.

TEST_F(FFMpegDecoderCoreDecode, LiveMediumStartsAtZeroEachStreamOnItsOwnBase)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 20; ++i) {
        medium.video(5000 + 40 * i, i == 0, picture(i)).audio(5070 + 40 * i);
    }
    open(medium, Live);
    const auto samples = readSamples(core);
    EXPECT_EQ(timesOf(videoOf(samples)), steps(0, 40, 20));
    EXPECT_EQ(timesOf(audioOf(samples)), steps(0, 40, 20));
}

TEST_F(FFMpegDecoderCoreDecode, MediumOfKnownDurationKeepsItsStamps)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 20; ++i) {
        medium.video(5000 + 40 * i, i == 0, picture(i)).audio(5070 + 40 * i);
    }
    open(medium, WithDuration);
    const auto samples = readSamples(core);
    EXPECT_EQ(timesOf(videoOf(samples)), steps(5000, 40, 20));
    EXPECT_EQ(timesOf(audioOf(samples)), steps(5070, 40, 20));
}

TEST_F(FFMpegDecoderCoreDecode, PositionIsTheStampOfTheLastSample)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 5; ++i) {
        medium.video(5000 + 40 * i, i == 0, picture(i));
    }
    open(medium, WithDuration);
    unsigned long long ms = 1;
    core.getPosition(ms);
    EXPECT_EQ(ms, 0u);
    while (const auto sample = readSample(core)) {
        EXPECT_EQ(core.m_position, sample->timestampUs);
        core.getPosition(ms);
        EXPECT_EQ(ms, sample->timestampUs / 1000);
    }
    EXPECT_EQ(ms, 5160u);
}

TEST_F(FFMpegDecoderCoreDecode, PacketsWithTwoNegativeStampsAreSkipped)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 10; ++i) {
        const uint32_t time = FlvMedium::before(100) + 40 * i;
        medium.video(time, true, keyPicture()).audio(time);
    }
    open(medium, WithDuration);
    const auto samples = readSamples(core);
    EXPECT_EQ(timesOf(videoOf(samples)), steps(20, 40, 7));
    EXPECT_EQ(timesOf(audioOf(samples)), steps(20, 40, 7));
    EXPECT_EQ(log.count("FFMpegDecoderCore::decodeFromMedium - Skipping encoded packet with "
                        "negative timestamps - "),
              6);
    EXPECT_TRUE(wrote(LOGLEVEL_DEBUG, "FFMpegDecoderCore::decodeFromMedium - Skipping encoded "
                                      "packet with negative timestamps - 1 -100 -100"));
}

namespace {

/// H.264 without reordering in its mp4 form: the set-up and the packets.
ClipPackets plainH264()
{
    return readClipPackets(clipPath("h264_cavlc.mp4"));
}

} // namespace

TEST_F(FFMpegDecoderCoreDecode, PresentationTimeStandsInForANegativeDecodingTime)
{
    const ClipPackets clip = plainH264();
    const auto video = clip.video();
    FlvMedium medium;
    medium.avcSetUp(clip.videoExtradata);
    medium.avc(FlvMedium::before(40), true, 70, video[0].bytes);
    for (uint32_t i = 1; i < 6; ++i) {
        medium.avc(40 * i, false, 0, video[i].bytes);
    }
    open(medium, WithDuration);
    EXPECT_EQ(timesOf(readSamples(core)), (Times{30000, 40000, 80000, 120000, 160000, 200000}));
    EXPECT_EQ(log.count("negative timestamps"), 0);
}

TEST_F(FFMpegDecoderCoreDecode, DecodingTimeIsTakenWhenBothAreThere)
{
    const ClipPackets clip = plainH264();
    const auto video = clip.video();
    FlvMedium medium;
    medium.avcSetUp(clip.videoExtradata);
    for (uint32_t i = 0; i < 6; ++i) {
        medium.avc(1000 + 40 * i, i == 0, 25, video[i].bytes);
    }
    open(medium, WithDuration);
    EXPECT_EQ(timesOf(readSamples(core)), steps(1000, 40, 6));
}

TEST_F(FFMpegDecoderCoreDecode, VideoWithoutAnyStampIsDropped)
{
    const ClipPackets clip = plainH264();
    const auto video = clip.video();
    FlvMedium medium;
    medium.avcSetUp(clip.videoExtradata);
    for (uint32_t i = 0; i < 10; ++i) {
        // More than a quarter of an hour between the two counts as no stamp at all.
        medium.avc(40 * i, i == 0, i % 3 == 2 ? 1000000 : 0, video[i].bytes);
    }
    open(medium, WithDuration);
    EXPECT_EQ(timesOf(readSamples(core)),
              (Times{0, 40000, 120000, 160000, 240000, 280000, 360000}));
}

// ---------------------------------------------------------------------------------------------
// Late packets.

TEST_F(FFMpegDecoderCoreDecode, SixLateVideoPacketsMoveTheStart)
{
    FlvMedium medium;
    medium.video(2000, true, keyPicture()).video(2040, true, keyPicture());
    for (uint32_t i = 0; i < 10; ++i) {
        medium.video(500 + 40 * i, true, keyPicture());
    }
    open(medium, WithDuration);
    // The sixth moves the start, but is itself still dropped.
    EXPECT_EQ(timesOf(readSamples(core)),
              (Times{2000000, 2040000, 740000, 780000, 820000, 860000}));
    EXPECT_EQ(log.count("FFMpegDecoderCore::decodeFromMedium - skipping encoded video packet - "),
              6);
    EXPECT_TRUE(wrote(LOGLEVEL_WARN, "FFMpegDecoderCore::decodeFromMedium - skipping encoded video "
                                     "packet - 1 500 2000"));
    EXPECT_TRUE(wrote(LOGLEVEL_WARN, "FFMpegDecoderCore::decodeFromMedium - skipping encoded video "
                                     "packet - 1 700 2000"));
    EXPECT_EQ(core.m_firstVideoTime, 700);
}

TEST_F(FFMpegDecoderCoreDecode, GoodPictureForgivesLateVideoPackets)
{
    FlvMedium medium;
    medium.video(2000, true, keyPicture());
    for (uint32_t round = 0; round < 3; ++round) {
        for (uint32_t i = 0; i < 5; ++i) {
            medium.video(500 + 40 * i, true, keyPicture());
        }
        medium.video(2040 + 40 * round, true, keyPicture());
    }
    open(medium, WithDuration);
    EXPECT_EQ(timesOf(readSamples(core)), steps(2000, 40, 4));
    EXPECT_EQ(core.m_firstVideoTime, 2000);
}

TEST_F(FFMpegDecoderCoreDecode, MoreThanFiveLateAudioPacketsMoveTheStart)
{
    FlvMedium medium;
    medium.audio(2000).audio(2040);
    for (uint32_t i = 0; i < 10; ++i) {
        medium.audio(500 + 40 * i);
    }
    open(medium, WithDuration);
    const auto samples = readSamples(core);
    ASSERT_EQ(samples.size(), 6u);
    EXPECT_EQ(log.count("FFMpegDecoderCore::decodeFromMedium - skipping encoded audio packet - "),
              6);
    EXPECT_TRUE(wrote(LOGLEVEL_WARN, "FFMpegDecoderCore::decodeFromMedium - skipping encoded audio "
                                     "packet - 0 500 2000"));
    EXPECT_EQ(core.m_firstAudioTime, 700);
    // Heard on where it was, since audio never goes back.
    EXPECT_EQ(timesOf(samples), steps(2000, 40, 6));
}

TEST_F(FFMpegDecoderCoreDecode, GoodAudioForgivesLatePackets)
{
    FlvMedium medium;
    medium.audio(2000);
    for (uint32_t round = 0; round < 3; ++round) {
        for (uint32_t i = 0; i < 5; ++i) {
            medium.audio(500 + 40 * i);
        }
        medium.audio(2040 + 40 * round);
    }
    open(medium, WithDuration);
    EXPECT_EQ(timesOf(readSamples(core)), steps(2000, 40, 4));
    EXPECT_EQ(core.m_firstAudioTime, 2000);
}

TEST_F(FFMpegDecoderCoreDecode, AudioNeverGoesBack)
{
    FlvMedium medium;
    for (const uint32_t time : {0, 40, 80, 60, 200, 240}) {
        medium.audio(time);
    }
    open(medium, WithDuration);
    EXPECT_EQ(timesOf(readSamples(core)), (Times{0, 40000, 80000, 120000, 200000, 240000}));
}

// ---------------------------------------------------------------------------------------------
// Jumps.

TEST_F(FFMpegDecoderCoreDecode, JumpDropsThePictureAndWaitsForTheNextKeyFrame)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 60; ++i) {
        medium.video(40 * i + (i >= 10 ? 5000 : 0), i % 25 == 0, picture(i));
    }
    open(medium, WithDuration);
    core.m_dropTimestampJumps = true;
    Times expected = steps(0, 40, 10);
    const Times behind = steps(6000, 40, 35); // from the 25th on
    expected.insert(expected.end(), behind.begin(), behind.end());
    const auto samples = readSamples(core);
    EXPECT_EQ(timesOf(samples), expected);
    EXPECT_TRUE(samples[10].keyFrame);
    EXPECT_TRUE(
        wrote(LOGLEVEL_WARN, "FFMpegDecoderCore::decodeFromMedium - skipping dec 1 - 5400000"));
    EXPECT_EQ(log.count("FFMpegDecoderCore::decodeFromMedium - skipping decoded video packet, wait "
                        "for keyframe - "),
              14);
    EXPECT_TRUE(wrote(LOGLEVEL_DEBUG, "FFMpegDecoderCore::decodeFromMedium - skipping decoded "
                                      "video packet, wait for keyframe - 5440000 0 0"));
    EXPECT_TRUE(wrote(LOGLEVEL_DEBUG, "FFMpegDecoderCore::decodeFromMedium - skipping decoded "
                                      "video packet, wait for keyframe - 5960000 0 13"));
    EXPECT_FALSE(core.m_waitForKeyframe);
    EXPECT_FALSE(core.m_videoFailing);
}

TEST_F(FFMpegDecoderCoreDecode, AfterThirtyRefusedPicturesAnyPictureIsTaken)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 45; ++i) {
        // No key frame but the first.
        medium.video(40 * i + (i >= 5 ? 5000 : 0), i == 0,
                     i == 0 ? keyPicture() : picture(1 + (i - 1) % 24));
    }
    open(medium, WithDuration);
    core.m_dropTimestampJumps = true;
    const auto samples = readSamples(core);
    // Five, one that jumps, thirty that are refused, and the rest.
    ASSERT_EQ(samples.size(), 45u - 31u);
    EXPECT_EQ(samples[4].timestampUs, 160000u);
    EXPECT_EQ(samples[5].timestampUs, (36u * 40 + 5000) * 1000);
    EXPECT_FALSE(samples[5].keyFrame);
    EXPECT_EQ(log.count("wait for keyframe - "), 30);
    EXPECT_TRUE(log.contains("wait for keyframe - 6400000 0 29"));
}

TEST_F(FFMpegDecoderCoreDecode, TenFramePeriodsAreNoJump)
{
    for (const auto& [second, jumps] :
         {std::pair{2400u, false}, {2401u, true}, {1600u, false}, {1599u, true}}) {
        FlvMedium medium;
        for (uint32_t i = 0; i <= 50; ++i) {
            medium.video(40 * i, true, keyPicture());
        }
        medium.video(second, true, keyPicture());
        MemorySource source(medium.bytes());
        FFMpegDecoderCore jumpy;
        ASSERT_EQ(source.open(jumpy, "flv"), 0);
        ASSERT_EQ(jumpy.m_fps, 25.0);
        jumpy.m_dropTimestampJumps = true;
        EXPECT_EQ(readSamples(jumpy).size(), jumps ? 51u : 52u) << second;
    }
}

TEST_F(FFMpegDecoderCoreDecode, JumpIsForgottenOncePicturesWereDropped)
{
    FlvMedium medium;
    medium.video(0, true, keyPicture()).video(9000, true, keyPicture());
    medium.video(100, true, keyPicture()).video(140, true, keyPicture());
    open(medium, WithDuration);
    core.m_fps = 25.0;
    core.m_dropTimestampJumps = true;
    EXPECT_EQ(timesOf(readSamples(core)), (Times{0, 100000, 140000}));
}

TEST_F(FFMpegDecoderCoreDecode, JumpsPassWhereNobodyAskedToDropThem)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 20; ++i) {
        medium.video(40 * i + (i >= 10 ? 3600000 : 0), i == 0, picture(i));
    }
    open(medium, WithDuration);
    EXPECT_EQ(readSamples(core).size(), 20u);
}

TEST_F(FFMpegDecoderCoreDecode, CopiedVideoDoesNotWaitForAKeyFrame)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 20; ++i) {
        medium.video(40 * i + (i >= 10 ? 5000 : 0), i == 0, picture(i));
    }
    core.skipVideoDecoding();
    open(medium, WithDuration);
    core.m_fps = 25.0;
    core.m_dropTimestampJumps = true;
    EXPECT_EQ(readSamples(core).size(), 19u);
    EXPECT_EQ(log.count("wait for keyframe"), 0);
}

TEST_F(FFMpegDecoderCoreDecode, AudioIsHeldBackWhileVideoWaitsForAKeyFrame)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 30; ++i) {
        const uint32_t time = 40 * i + (i >= 10 ? 5000 : 0);
        medium.video(time, i % 25 == 0, picture(i)).audio(time);
    }
    open(medium, WithDuration);
    core.m_dropTimestampJumps = true;
    OutputStreamRecord record;
    core.getOutputStreamDescription(&record); // promises video
    const auto samples = readSamples(core);
    Times expected = steps(0, 40, 11);
    expected.back() = 5400000; // beside the dropped picture: nothing is known to fail yet
    const Times behind = steps(6000, 40, 5);
    expected.insert(expected.end(), behind.begin(), behind.end());
    EXPECT_EQ(timesOf(audioOf(samples)), expected);
}

// ---------------------------------------------------------------------------------------------
// Video that fails.

namespace {

/// Twelve packets of rubbish, then twelve pictures; audio beside each.
FlvMedium failingMedium(const std::vector<ClipPacket>& pictures)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 24; ++i) {
        const bool isGood = i >= 12;
        medium.video(40 * i, true, isGood ? pictures[i - 12].bytes : "this is no picture at all");
        medium.audio(40 * i);
    }
    return medium;
}

} // namespace

TEST_F(FFMpegDecoderCoreDecode, AudioIsHeldBackWhilePromisedVideoFails)
{
    keyPicture();
    open(failingMedium(m_pictures), WithDuration);
    OutputStreamRecord record;
    core.getOutputStreamDescription(&record);
    const auto samples = readSamples(core);
    EXPECT_EQ(timesOf(videoOf(samples)), steps(480, 40, 12));
    EXPECT_EQ(timesOf(audioOf(samples)), steps(480, 40, 12));
    EXPECT_EQ(log.count("FFMpegDecoderCore::decodeFromMedium - Skipping audio packet, video "
                        "decoding is failing - 0 "),
              12);
    EXPECT_TRUE(wrote(LOGLEVEL_DEBUG,
                      "FFMpegDecoderCore::decodeFromMedium - Skipping audio packet, "
                      "video decoding is failing - 0 440 440"));
    EXPECT_TRUE(wrote(LOGLEVEL_WARN, "FFMpegDecoderCore::decodeFromMedium - Video decoding failed "
                                     "on packet - 1 440 440"));
    EXPECT_EQ(log.count("Video decoding failed on packet - 1 "), 12);
}

TEST_F(FFMpegDecoderCoreDecode, AudioGoesOnWhenNobodyWasPromisedVideo)
{
    keyPicture();
    open(failingMedium(m_pictures), WithDuration);
    const auto samples = readSamples(core);
    EXPECT_EQ(timesOf(videoOf(samples)), steps(480, 40, 12));
    EXPECT_EQ(timesOf(audioOf(samples)), steps(0, 40, 24));
}

TEST_F(FFMpegDecoderCoreDecode, LiveVideoStartsAtZeroWithItsFirstPicture)
{
    keyPicture();
    open(failingMedium(m_pictures), Live);
    EXPECT_EQ(timesOf(videoOf(readSamples(core))), steps(0, 40, 12));
}

TEST_F(FFMpegDecoderCoreDecode, BrokenPictureInBetweenHoldsNoAudioBack)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 20; ++i) {
        medium.video(40 * i, true, i % 3 == 2 ? "this is no picture at all" : keyPicture());
        medium.audio(40 * i);
    }
    open(medium, Live);
    OutputStreamRecord record;
    core.getOutputStreamDescription(&record);
    const auto samples = readSamples(core);
    EXPECT_EQ(videoOf(samples).size(), 14u);
    EXPECT_EQ(timesOf(audioOf(samples)), steps(0, 40, 20));
    EXPECT_EQ(core.m_firstVideoTime, 0);
}

// ---------------------------------------------------------------------------------------------
// Audio that changes.

namespace {

class FFMpegDecoderCoreAudioChange
    : public FFMpegDecoderCoreDecode,
      public testing::WithParamInterface<std::tuple<const char*, unsigned int, unsigned int>>
{
};

} // namespace

TEST_P(FFMpegDecoderCoreAudioChange, IsANoticeWithoutDataAndThenDecodes)
{
    const auto& [clip, channels, sampleRate] = GetParam();
    ASSERT_EQ(core.initWithUrl(clipPath(clip), ""), 0);
    unsigned char untouched = 0;
    int notices = 0;
    std::size_t audioBehind = 0;
    bool keyFrame = false;
    unsigned long long position = 0;
    while (true) {
        PacketType::Enum type = PacketType::None;
        unsigned char* data = &untouched;
        unsigned int size = 4711;
        unsigned long long timestamp = 0;
        unsigned long long duration = 0;
        void* context = &untouched;
        if (!core.decodeFromMedium(type, data, size, timestamp, duration, context, keyFrame)) {
            break;
        }
        if (type == PacketType::Notice) {
            ++notices;
            EXPECT_EQ(data, &untouched);
            EXPECT_EQ(size, 4711u);
            EXPECT_EQ(core.m_position, position);
            OutputStreamRecord record;
            core.getOutputStreamDescription(&record);
            EXPECT_EQ(record.audio.channels, static_cast<int>(channels));
            EXPECT_EQ(record.audio.sampleRate, static_cast<int>(sampleRate));
            EXPECT_EQ(record.audio.sampleSize, static_cast<int>(16 * channels));
            EXPECT_EQ(record.audio.bitrate, static_cast<int>(16 * channels * sampleRate));
            continue;
        }
        const std::unique_ptr<unsigned char[]> owner(data);
        position = core.m_position;
        audioBehind += notices > 0 && type == PacketType::Audio ? 1 : 0;
    }
    EXPECT_EQ(notices, 1);
    EXPECT_GT(audioBehind, 100u);
    EXPECT_EQ(log.count("FFMpegDecoderCore::decodeFromMedium - Audio stream changed - "), 1);
    EXPECT_TRUE(
        wrote(LOGLEVEL_INFO, "FFMpegDecoderCore::decodeFromMedium - Audio stream changed - " +
                                 std::to_string(channels) + " channels @ " +
                                 std::to_string(sampleRate) + "Hz"));
}

INSTANTIATE_TEST_SUITE_P(Clips, FFMpegDecoderCoreAudioChange,
                         testing::Values(std::tuple{"channel_change_mp2.ts", 2u, 48000u},
                                         std::tuple{"channel_change_ac3.ts", 2u, 48000u},
                                         std::tuple{"rate_change_mp2.ts", 2u, 44100u}));

// ---------------------------------------------------------------------------------------------
// Copied streams.

TEST_F(FFMpegDecoderCoreDecode, CopiedVideoBeginsWithTheSetUpOfItsCodec)
{
    for (const char* clip : {"h264_aac.mp4", "mpeg4_mp3.avi", "h264_aac.flv"}) {
        FFMpegDecoderCore copying;
        copying.skipVideoDecoding();
        ASSERT_EQ(copying.initWithUrl(clipPath(clip), ""), 0);
        const auto first = readSample(copying, Keep::Bytes);
        ASSERT_TRUE(first);
        EXPECT_TRUE(first->isVideo());
        EXPECT_EQ(first->timestampUs, SamplePacket::NoTimestamp);
        EXPECT_EQ(first->durationUs, 0u);
        EXPECT_TRUE(first->bytes == readClipPackets(clipPath(clip)).videoExtradata) << clip;
        EXPECT_FALSE(copying.m_sendExtradata);
        const auto video = videoOf(readSamples(copying, 8, Keep::Bytes));
        ASSERT_FALSE(video.empty());
        EXPECT_NE(video[0].timestampUs, SamplePacket::NoTimestamp);
        EXPECT_TRUE(video[0].keyFrame);
    }
}

TEST_F(FFMpegDecoderCoreDecode, DecodedVideoHasNoSetUpInFront)
{
    ASSERT_EQ(core.initWithUrl(clipPath("h264_aac.mp4"), ""), 0);
    EXPECT_TRUE(core.m_sendExtradata);
    for (const auto& picture : videoOf(readSamples(core, 10))) {
        EXPECT_NE(picture.timestampUs, SamplePacket::NoTimestamp);
    }
}

TEST_F(FFMpegDecoderCoreDecode, MissingSetUpLeavesTheCallersValuesAlone)
{
    m_source = std::make_unique<MemorySource>(readFile(clipPath("h264_aac.mkv")));
    m_source->onSizeQuestion = [this] {
        if (core.m_formatContext) {
            AVCodecParameters* codec = core.m_formatContext->streams[0]->codecpar;
            av_freep(&codec->extradata);
            codec->extradata_size = 0;
        }
    };
    core.skipVideoDecoding();
    ASSERT_EQ(m_source->open(core, "matroska"), 0);
    ASSERT_TRUE(core.m_sendExtradata);
    PacketType::Enum type = PacketType::Multiplexed;
    unsigned char mine = 0;
    unsigned char* data = &mine;
    unsigned int size = 1;
    unsigned long long timestamp = 22;
    unsigned long long duration = 33;
    void* context = &mine;
    bool keyFrame = true;
    ASSERT_TRUE(core.decodeFromMedium(type, data, size, timestamp, duration, context, keyFrame));
    EXPECT_EQ(type, PacketType::Multiplexed);
    EXPECT_EQ(data, &mine);
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(timestamp, 22u);
    EXPECT_EQ(duration, 33u);
    EXPECT_EQ(context, &mine);
    EXPECT_TRUE(keyFrame);
    EXPECT_EQ(core.m_position, 22u);
    EXPECT_FALSE(core.m_sendExtradata);
    EXPECT_EQ(videoOf(readSamples(core)).size(), 300u);
}

TEST_F(FFMpegDecoderCoreDecode, CopiedPacketsAreThoseOfTheMedium)
{
    for (const char* clip : {"mpeg4_mp3.avi", "flv1_mp3.flv", "h264_aac.mkv", "mpeg2_ac3.ts"}) {
        FFMpegDecoderCore copying;
        copying.skipVideoDecoding();
        copying.skipAudioDecoding();
        ASSERT_EQ(copying.initWithUrl(clipPath(clip), ""), 0);
        copying.m_sendExtradata = false;
        const auto samples = readSamples(copying, SIZE_MAX, Keep::Bytes);
        const ClipPackets packets = readClipPackets(clipPath(clip));
        for (const bool isVideo : {true, false}) {
            const auto mine = isVideo ? videoOf(samples) : audioOf(samples);
            const auto theirs = isVideo ? packets.video() : packets.audio();
            ASSERT_EQ(mine.size(), theirs.size()) << clip;
            for (std::size_t i = 0; i < mine.size(); ++i) {
                ASSERT_TRUE(mine[i].bytes == theirs[i].bytes) << clip << " " << i;
                if (isVideo) {
                    ASSERT_EQ(mine[i].keyFrame, theirs[i].key) << clip << " " << i;
                }
            }
        }
    }
}

TEST_F(FFMpegDecoderCoreDecode, CopiedReorderedVideoIsStampedByRisingDecodingTimes)
{
    // mp4 has decoding times below 0 here, Matroska none at all for the first pictures.
    for (const char* clip : {"h264_aac.mp4", "h264_aac.mkv", "h264_open_gop.mp4",
                             "h264_bpyramid.mkv", "mpeg4_bframes.mp4", "hevc_aac.mp4"}) {
        FFMpegDecoderCore copying;
        copying.skipVideoDecoding();
        ASSERT_EQ(copying.initWithUrl(clipPath(clip), ""), 0);
        copying.m_sendExtradata = false;
        const auto video = videoOf(readSamples(copying));
        ASSERT_EQ(video.size(), readClipPackets(clipPath(clip)).video().size()) << clip;
        for (std::size_t i = 0; i < video.size(); ++i) {
            // The conversion cuts, so it may be one microsecond short.
            ASSERT_LE(video[i].timestampUs, 40000 * i) << clip;
            ASSERT_GE(video[i].timestampUs + 1, 40000 * i) << clip;
        }
    }
}

TEST_F(FFMpegDecoderCoreDecode, AudioBesideCopiedVideoIsShiftedWithIt)
{
    // Two frames of reordering are 80 ms; the priming of the audio lies 1024 samples before 0.
    core.skipVideoDecoding();
    ASSERT_EQ(core.initWithUrl(clipPath("h264_aac.mp4"), ""), 0);
    const auto audio = audioOf(readSamples(core));
    ASSERT_FALSE(audio.empty());
    EXPECT_NEAR(static_cast<double>(audio[0].timestampUs), 80000 - 1024 * 1e6 / 44100, 50.0);
    FFMpegDecoderCore decoding;
    ASSERT_EQ(decoding.initWithUrl(clipPath("h264_aac.mp4"), ""), 0);
    EXPECT_EQ(audioOf(readSamples(decoding))[0].timestampUs, 0u);
}

TEST_F(FFMpegDecoderCoreDecode, CopiedVideoIsMovedByAThousandthOfTheStart)
{
    core.skipVideoDecoding();
    core.skipAudioDecoding();
    ASSERT_EQ(core.initWithUrl(clipPath("mpeg2_ac3.ts"), ""), 0);
    const ClipPackets clip = readClipPackets(clipPath("mpeg2_ac3.ts"));
    ASSERT_GT(clip.startTimeUs, 1000000);
    const auto samples = readSamples(core);
    const auto video = videoOf(samples);
    const auto packets = clip.video();
    const auto offset = static_cast<unsigned long long>(1.0 / 90000 * 1000.0 *
                                                        static_cast<double>(clip.startTimeUs));
    ASSERT_GT(offset, 10000u);
    ASSERT_EQ(video.size(), packets.size());
    for (std::size_t i = 0; i < video.size(); ++i) {
        ASSERT_EQ(video[i].timestampUs,
                  static_cast<unsigned long long>(static_cast<double>(packets[i].dts) *
                                                  (1.0 / 90000) * 1e6) -
                      offset);
        ASSERT_EQ(video[i].durationUs, 40000u);
    }
    const auto audio = audioOf(samples);
    EXPECT_EQ(audio[0].timestampUs,
              static_cast<unsigned long long>(static_cast<double>(clip.audio()[0].dts) *
                                              (1.0 / 90000) * 1e6));
}

TEST_F(FFMpegDecoderCoreDecode, CopiedVideoBeforeThatOffsetIsAtZero)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 10; ++i) {
        medium.video(20000 + 40 * i, i == 0, picture(i));
    }
    m_source = std::make_unique<MemorySource>(medium.bytes());
    m_source->onSizeQuestion = [this] {
        if (core.m_formatContext) {
            core.m_formatContext->start_time = 20'100'000;
        }
    };
    core.skipVideoDecoding();
    ASSERT_EQ(m_source->open(core, "flv"), 0);
    // In milliseconds a thousandth of the start's thousandfold is the start itself.
    EXPECT_EQ(timesOf(readSamples(core)),
              (Times{0, 0, 0, 20000, 60000, 100000, 140000, 180000, 220000, 260000}));
}

TEST_F(FFMpegDecoderCoreDecode, CopiedAudioIsConvertedToMicroseconds)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 5; ++i) {
        medium.audio(700 + 40 * i);
    }
    core.skipAudioDecoding();
    open(medium, WithDuration);
    const auto samples = readSamples(core);
    EXPECT_EQ(timesOf(samples), steps(700, 40, 5));
    EXPECT_EQ(samples[0].durationUs, 40000u);
    EXPECT_EQ(samples[0].size, 1764u * 4);
}

TEST_F(FFMpegDecoderCoreDecode, CopiedAudioStaysRawWhereStampsAreNotBelieved)
{
    for (const bool generates : {true, false}) {
        FlvMedium medium;
        for (uint32_t i = 0; i < 5; ++i) {
            medium.audio(700 + 40 * i);
        }
        MemorySource source(medium.bytes());
        FFMpegDecoderCore copying;
        copying.skipAudioDecoding();
        ASSERT_EQ(source.open(copying, "flv"), 0);
        (generates ? copying.m_generateTimestamps : copying.m_ignorePacketTime) = true;
        const auto samples = readSamples(copying);
        EXPECT_EQ(timesOf(samples), (Times{700, 740, 780, 820, 860}));
        EXPECT_EQ(samples[0].durationUs, 40u);
    }
}

// ---------------------------------------------------------------------------------------------
// Stamps of decoded samples.

TEST_F(FFMpegDecoderCoreDecode, GeneratedStampsOfPicturesCountFrames)
{
    MemorySource source(readFile(clipPath("wmv2_wma2.asf")));
    ASSERT_EQ(source.open(core, "asf"), 0);
    ASSERT_TRUE(core.m_generateTimestamps);
    const auto samples = readSamples(core);
    const auto video = videoOf(samples);
    ASSERT_EQ(video.size(), 150u);
    for (std::size_t i = 0; i < video.size(); ++i) {
        EXPECT_EQ(video[i].timestampUs,
                  static_cast<unsigned long long>(1 / core.m_fps * static_cast<double>(i) * 1e6));
        EXPECT_EQ(video[i].durationUs, static_cast<unsigned long long>(1e6 / core.m_fps));
    }
    core.close();
}

TEST_F(FFMpegDecoderCoreDecode, GeneratedStampsOfAudioCountSamples)
{
    for (const auto& [clip, format] :
         {std::pair{"wmv2_wma2.asf", "asf"}, {"mp3_cbr.mp3", "mp3"}, {"mp3_vbr.mp3", "mp3"}}) {
        MemorySource source(readFile(clipPath(clip)));
        FFMpegDecoderCore counting;
        ASSERT_EQ(source.open(counting, format), 0);
        unsigned long long next = 0;
        const auto audio = audioOf(readSamples(counting));
        EXPECT_GT(audio.size(), 100u);
        for (const auto& sample : audio) {
            ASSERT_EQ(sample.timestampUs, next) << clip;
            ASSERT_EQ(sample.durationUs, static_cast<unsigned long long>(sample.size * 1000000.0 *
                                                                         0.5 / (44100.0 * 2)))
                << clip;
            next += sample.durationUs;
        }
        counting.close();
    }
}

TEST_F(FFMpegDecoderCoreDecode, CountedAudioTakesTwoBytesASampleWhateverItsWidth)
{
    for (const auto& [clip, factor] :
         {std::pair{"wav_s32.wav", 2.0}, {"wav_s16.wav", 1.0}, {"wav_u8.wav", 0.5}}) {
        FFMpegDecoderCore counting;
        ASSERT_EQ(counting.initWithUrl(clipPath(clip), ""), 0);
        counting.m_ignorePacketTime = true;
        const auto samples = readSamples(counting);
        const Sample& last = samples.back();
        EXPECT_NEAR(static_cast<double>(last.timestampUs + last.durationUs), 4e6 * factor, 500.0)
            << clip;
    }
}

TEST_F(FFMpegDecoderCoreDecode, PicturesWithoutBelievedStampsCountInTheCodecsTimeBase)
{
    ASSERT_EQ(core.initWithUrl(clipPath("h264_cavlc.mp4"), ""), 0);
    core.m_ignorePacketTime = true;
    const auto video = videoOf(readSamples(core));
    ASSERT_EQ(video.size(), 100u);
    for (std::size_t i = 0; i < video.size(); ++i) {
        // Fields of 1/50 s, and the duration in milliseconds.
        EXPECT_EQ(video[i].timestampUs, 20000 * i);
        EXPECT_EQ(video[i].durationUs, 20u);
    }
}

TEST_F(FFMpegDecoderCoreDecode, DurationOfAudioIsThatOfThePacket)
{
    ASSERT_EQ(core.initWithUrl(clipPath("wav_s16.wav"), ""), 0);
    const auto samples = readSamples(core);
    unsigned long long sum = 0;
    for (const auto& sample : samples) {
        sum += sample.durationUs;
    }
    EXPECT_NEAR(static_cast<double>(sum), 4e6, 500.0);
}

TEST_F(FFMpegDecoderCoreDecode, SamplesBeforeTheSeekTargetAreDiscarded)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 10; ++i) {
        medium.video(40 * i, i == 0, picture(i)).audio(40 * i);
    }
    open(medium, WithDuration);
    core.m_streamOffset = 200000;
    const auto samples = readSamples(core);
    EXPECT_EQ(timesOf(videoOf(samples)), steps(200, 40, 5));
    EXPECT_EQ(timesOf(audioOf(samples)), steps(200, 40, 5));
    EXPECT_TRUE(wrote(LOGLEVEL_DEBUG, "FFMpegDecoderCore::decodeVideoPacket : timestamp out of "
                                      "range compared to stream offset, discard 160000 200000"));
    EXPECT_TRUE(wrote(LOGLEVEL_DEBUG, "FFMpegDecoderCore::decodeAudioPacket : timestamp out of "
                                      "range compared to stream offset, discard 160000 200000"));
}

// ---------------------------------------------------------------------------------------------
// Decoding mode.

TEST_F(FFMpegDecoderCoreDecode, KeyFrameModeDecodesKeyFramesAlone)
{
    for (const char* clip : {"flv1_mp3.flv", "h264_aac.mp4", "mpeg2_mp2.mpg"}) {
        FFMpegDecoderCore keys;
        ASSERT_EQ(keys.initWithUrl(clipPath(clip), ""), 0);
        ASSERT_TRUE(keys.setVideoDecodingMode(DecodingMode::KeyFramesOnly));
        const auto samples = readSamples(keys);
        const auto packets = readClipPackets(clipPath(clip)).video();
        const auto keyPackets = static_cast<std::size_t>(std::count_if(
            packets.begin(), packets.end(), [](const ClipPacket& packet) { return packet.key; }));
        const auto video = videoOf(samples);
        EXPECT_LE(video.size(), keyPackets) << clip;
        // What a decoder keeps back for reordering does not come out at the end.
        EXPECT_GE(video.size(), keyPackets - 2) << clip;
        for (const auto& picture : video) {
            EXPECT_TRUE(picture.keyFrame) << clip;
        }
        EXPECT_GT(audioOf(samples).size(), 100u);
    }
}

TEST_F(FFMpegDecoderCoreDecode, NoVideoIsDecodedInModeNone)
{
    ASSERT_EQ(core.initWithUrl(clipPath("h264_aac.mp4"), ""), 0);
    ASSERT_TRUE(core.setVideoDecodingMode(DecodingMode::None));
    const auto samples = readSamples(core);
    EXPECT_TRUE(videoOf(samples).empty());
    EXPECT_GT(audioOf(samples).size(), 500u);
}

TEST_F(FFMpegDecoderCoreDecode, ChangeOfModeActsAtOnce)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 75; ++i) {
        medium.video(40 * i, i % 25 == 0, picture(i));
    }
    open(medium, WithDuration);
    EXPECT_EQ(timesOf(readSamples(core, 5)), steps(0, 40, 5));
    core.setVideoDecodingMode(DecodingMode::KeyFramesOnly);
    EXPECT_EQ(timesOf(readSamples(core, 1)), (Times{1000000}));
    core.setVideoDecodingMode(DecodingMode::All);
    EXPECT_EQ(timesOf(readSamples(core, 2)), (Times{1040000, 1080000}));
    core.setVideoDecodingMode(DecodingMode::None);
    EXPECT_TRUE(readSamples(core).empty());
}

TEST_F(FFMpegDecoderCoreDecode, ModeNeedsAVideoStream)
{
    EXPECT_FALSE(core.setVideoDecodingMode(DecodingMode::All));
    ASSERT_EQ(core.initWithUrl(clipPath("mp3_cbr.mp3"), ""), 0);
    EXPECT_FALSE(core.setVideoDecodingMode(DecodingMode::None));
    EXPECT_EQ(core.m_decodingMode, DecodingMode::All);
}

// ---------------------------------------------------------------------------------------------
// Audio formats.

namespace {

struct AudioFormat
{
    const char* clip;
    unsigned int bits;
};

class FFMpegDecoderCoreAudioFormat : public testing::TestWithParam<AudioFormat>
{
};

void PrintTo(const AudioFormat& format, std::ostream* out)
{
    *out << format.clip;
}

} // namespace

TEST_P(FFMpegDecoderCoreAudioFormat, TellsItsWidthAndDeliversSamplesOfIt)
{
    const LogCapture log;
    const AudioFormat& format = GetParam();
    FFMpegDecoderCore core;
    ASSERT_EQ(core.initWithUrl(clipPath(format.clip), ""), 0);
    OutputStreamRecord record;
    core.getOutputStreamDescription(&record);
    EXPECT_EQ(core.m_audioBits, format.bits);
    EXPECT_EQ(record.audio.bitsPerSample, static_cast<int>(format.bits));
    const unsigned int frameBits = format.bits * core.m_audioChannels;
    EXPECT_EQ(record.audio.sampleSize, static_cast<int>(frameBits));
    EXPECT_EQ(record.audio.bitrate, static_cast<int>(frameBits * core.m_audioSampleRate));
    double seconds = 0.0;
    for (const auto& sample : audioOf(readSamples(core))) {
        ASSERT_EQ(sample.size % (frameBits / 8), 0u);
        seconds += sample.size * 8.0 / frameBits / core.m_audioSampleRate;
    }
    EXPECT_NEAR(seconds, static_cast<double>(core.m_duration) / 1000, 0.15);
}

INSTANTIATE_TEST_SUITE_P(
    Table, FFMpegDecoderCoreAudioFormat,
    testing::Values(AudioFormat{"wav_u8.wav", 8}, AudioFormat{"wav_s16.wav", 16},
                    AudioFormat{"wav_s24.wav", 32}, AudioFormat{"wav_s32.wav", 32},
                    AudioFormat{"wav_f32.wav", 32}, AudioFormat{"wav_f64.wav", 16},
                    AudioFormat{"wav_mono_8k.wav", 16}, AudioFormat{"flac_16.flac", 16},
                    AudioFormat{"flac_24.flac", 32}, AudioFormat{"alac_24.m4a", 16},
                    AudioFormat{"aac.m4a", 16}, AudioFormat{"aac_51.m4a", 16},
                    AudioFormat{"ac3_51.ac3", 16}, AudioFormat{"mp3_cbr.mp3", 16},
                    AudioFormat{"mp2.mp2", 16}, AudioFormat{"vorbis.ogg", 16},
                    AudioFormat{"opus.ogg", 16}, AudioFormat{"wma2.wma", 16},
                    AudioFormat{"amr_nb.amr", 16}, AudioFormat{"amr_wb.3gp", 16}));

namespace {

std::string allBytes(const std::string& clip)
{
    FFMpegDecoderCore core;
    EXPECT_EQ(core.initWithUrl(clipPath(clip), ""), 0);
    std::string bytes;
    for (const auto& sample : readSamples(core, SIZE_MAX, Keep::Bytes)) {
        bytes += sample.bytes;
    }
    return bytes;
}

/// The samples of a wave file as they stand in it.
std::string waveBytes(const std::string& clip)
{
    std::string bytes;
    for (const ClipPacket& packet : readClipPackets(clipPath(clip)).audio()) {
        bytes += packet.bytes;
    }
    return bytes;
}

template <class Number>
std::vector<Number> numbers(const std::string& bytes)
{
    std::vector<Number> values(bytes.size() / sizeof(Number));
    std::memcpy(values.data(), bytes.data(), values.size() * sizeof(Number));
    return values;
}

} // namespace

TEST_F(FFMpegDecoderCoreDecode, IntegerSamplesArriveAsTheyAre)
{
    for (const char* clip : {"wav_u8.wav", "wav_s16.wav", "wav_s32.wav", "channels_18.wav"}) {
        EXPECT_TRUE(allBytes(clip) == waveBytes(clip)) << clip;
    }
}

TEST_F(FFMpegDecoderCoreDecode, SamplesOf24BitsStandInTheUpperBytes)
{
    const std::string narrow = waveBytes("wav_s24.wav");
    std::string expected;
    for (std::size_t i = 0; i + 2 < narrow.size(); i += 3) {
        expected += '\0';
        expected.append(narrow, i, 3);
    }
    EXPECT_TRUE(allBytes("wav_s24.wav") == expected);
}

TEST_F(FFMpegDecoderCoreDecode, FloatSamplesFillTheRangeOf32Bits)
{
    const auto floats = numbers<float>(waveBytes("wav_f32.wav"));
    const auto samples = numbers<int32_t>(allBytes("wav_f32.wav"));
    ASSERT_EQ(samples.size(), floats.size());
    for (std::size_t i = 0; i < samples.size(); ++i) {
        ASSERT_EQ(samples[i], std::llrint(static_cast<double>(floats[i]) * 2147483648.0)) << i;
    }
}

TEST_F(FFMpegDecoderCoreDecode, DoubleSamplesAreRoundedTo16Bits)
{
    const auto doubles = numbers<double>(waveBytes("wav_f64.wav"));
    const auto samples = numbers<int16_t>(allBytes("wav_f64.wav"));
    ASSERT_EQ(samples.size(), doubles.size());
    for (std::size_t i = 0; i < samples.size(); ++i) {
        ASSERT_EQ(samples[i], std::lrint(doubles[i] * 32768.0)) << i;
    }
}

TEST_F(FFMpegDecoderCoreDecode, FirstAudioNotesItsFrameSize)
{
    ASSERT_EQ(core.initWithUrl(clipPath("aac.m4a"), ""), 0);
    EXPECT_EQ(core.m_audioFrameSamples, 0u);
    readSamples(core, 1);
    EXPECT_EQ(core.m_audioFrameSamples, 1024u / 2);
}

// ---------------------------------------------------------------------------------------------
// Plain bytes.

TEST_F(FFMpegDecoderCoreDecode, EmptyPacketGivesNothingAndEndsNothing)
{
    ASSERT_EQ(core.initWithUrl(clipPath("flv1_mp3.flv"), ""), 0);
    unsigned char* data = nullptr;
    unsigned int size = 0;
    unsigned long long timestamp = 0;
    unsigned long long duration = 0;
    void* context = nullptr;
    bool keyFrame = false;
    const unsigned char nothing = 0;
    EXPECT_FALSE(
        core.decodeVideoPacket(&nothing, 0, data, size, timestamp, duration, context, keyFrame));
    EXPECT_FALSE(core.decodeAudioPacket(&nothing, 0, data, size, timestamp, duration, context));
    EXPECT_FALSE(
        core.decodeVideoPacket(nullptr, 7, data, size, timestamp, duration, context, keyFrame));
    EXPECT_EQ(data, nullptr);
    const auto samples = readSamples(core);
    EXPECT_EQ(videoOf(samples).size(), 100u);
    EXPECT_GT(audioOf(samples).size(), 150u);
}

TEST_F(FFMpegDecoderCoreDecode, BytesOfAPictureDecodeLikeThePacket)
{
    ASSERT_EQ(core.initWithUrl(clipPath("flv1_mp3.flv"), ""), 0);
    FFMpegDecoderCore reading;
    ASSERT_EQ(reading.initWithUrl(clipPath("flv1_mp3.flv"), ""), 0);
    const auto expected = videoOf(readSamples(reading));
    const auto packets = readClipPackets(clipPath("flv1_mp3.flv")).video();
    for (std::size_t i = 0; i < 30; ++i) {
        unsigned char* data = nullptr;
        unsigned int size = 0;
        auto timestamp = static_cast<unsigned long long>(packets[i].dts);
        auto duration = static_cast<unsigned long long>(packets[i].duration);
        void* context = &size;
        bool keyFrame = !packets[i].key;
        ASSERT_TRUE(
            core.decodeVideoPacket(reinterpret_cast<const unsigned char*>(packets[i].bytes.data()),
                                   static_cast<unsigned int>(packets[i].bytes.size()), data, size,
                                   timestamp, duration, context, keyFrame));
        const std::unique_ptr<unsigned char[]> owner(data);
        EXPECT_EQ(size, expected[i].size);
        EXPECT_EQ(timestamp, expected[i].timestampUs);
        EXPECT_EQ(keyFrame, packets[i].key);
        EXPECT_EQ(
            std::hash<std::string_view>()(std::string_view(reinterpret_cast<char*>(data), size)),
            expected[i].hash);
    }
}

// ---------------------------------------------------------------------------------------------
// Packets that somebody else demuxed.

namespace {

/// A packet that counts its releases and is freed by the test.
class CountedPacket : public SimpleSamplePacket
{
public:
    int releases = 0;

    void release() override { ++releases; }
};

struct Outcome
{
    bool done = false;
    PacketType::Enum type = PacketType::None;
    unsigned char* data = nullptr;
    unsigned int size = 0;
    unsigned long long timestamp = 0;
    unsigned long long duration = 0;
    void* context = nullptr;
    bool keyFrame = false;
};

Outcome decodePacket(FFMpegDecoderCore& core, SamplePacket* packet, unsigned long long timestamp,
                     unsigned long long duration)
{
    Outcome outcome;
    outcome.timestamp = timestamp;
    outcome.duration = duration;
    outcome.context = &outcome;
    outcome.done =
        core.decodePacket(packet, outcome.type, outcome.data, outcome.size, outcome.timestamp,
                          outcome.duration, outcome.context, outcome.keyFrame);
    return outcome;
}

} // namespace

TEST_F(FFMpegDecoderCoreDecode, NoPacketGivesNothing)
{
    const Outcome outcome = decodePacket(core, nullptr, 1, 2);
    EXPECT_FALSE(outcome.done);
    EXPECT_EQ(outcome.context, nullptr);
    EXPECT_EQ(core.m_position, 0u);
}

TEST_F(FFMpegDecoderCoreDecode, PacketsWithoutAStreamPassThroughAndStayAlive)
{
    for (const auto type : {PacketType::Audio, PacketType::Video}) {
        CountedPacket packet;
        const unsigned char bytes[] = {1, 2, 3};
        packet.setAndCopy(type, bytes, 3, 0, 0, true);
        const Outcome outcome = decodePacket(core, &packet, 12345, 678);
        EXPECT_TRUE(outcome.done);
        EXPECT_EQ(outcome.type, type);
        EXPECT_EQ(outcome.context, &packet);
        EXPECT_EQ(outcome.data, packet.getBuffer());
        EXPECT_EQ(outcome.size, 3u);
        EXPECT_EQ(outcome.timestamp, 12345u);
        EXPECT_EQ(outcome.duration, 678u);
        EXPECT_TRUE(outcome.keyFrame);
        EXPECT_EQ(packet.releases, 0);
        EXPECT_EQ(core.m_position, 12345u);
    }
}

TEST_F(FFMpegDecoderCoreDecode, PacketsOfOtherTypesStayWithTheCaller)
{
    for (const auto type :
         {PacketType::None, PacketType::Multiplexed, PacketType::Notice, PacketType::Metadata}) {
        CountedPacket packet;
        packet.set(type, nullptr, 0, 0, 0, false);
        const Outcome outcome = decodePacket(core, &packet, 9, 9);
        EXPECT_FALSE(outcome.done);
        EXPECT_EQ(outcome.type, type);
        EXPECT_EQ(outcome.context, nullptr);
        EXPECT_EQ(packet.releases, 0);
    }
}

TEST_F(FFMpegDecoderCoreDecode, PacketsWithAStreamAreDecodedAndReleased)
{
    ASSERT_EQ(core.initWithUrl(clipPath("flv1_mp3.flv"), ""), 0);
    const ClipPackets clip = readClipPackets(clipPath("flv1_mp3.flv"));
    int delivered = 0;
    for (const bool isVideo : {true, false}) {
        const ClipPacket source = isVideo ? clip.video()[0] : clip.audio()[0];
        for (int i = 0; i < 3; ++i) {
            CountedPacket packet;
            packet.setAndCopy(isVideo ? PacketType::Video : PacketType::Audio,
                              reinterpret_cast<const unsigned char*>(source.bytes.data()),
                              static_cast<int>(source.bytes.size()), 0, 0, true);
            const Outcome outcome =
                decodePacket(core, &packet, 40 + static_cast<unsigned long long>(i), 40);
            EXPECT_EQ(packet.releases, 1);
            EXPECT_EQ(outcome.context, nullptr);
            EXPECT_EQ(core.m_position, 40u + static_cast<unsigned int>(i));
            if (outcome.done) {
                ++delivered;
                EXPECT_NE(outcome.data, packet.getBuffer());
                EXPECT_EQ(outcome.timestamp, 40000u + 1000u * static_cast<unsigned int>(i));
                delete[] outcome.data;
            }
        }
    }
    EXPECT_GE(delivered, 5); // the first audio frame may only prime the decoder
}

TEST_F(FFMpegDecoderCoreDecode, BrokenPacketIsReleasedToo)
{
    ASSERT_EQ(core.initWithUrl(clipPath("flv1_mp3.flv"), ""), 0);
    CountedPacket packet;
    const unsigned char rubbish[20] = {9, 9, 9};
    packet.setAndCopy(PacketType::Video, rubbish, 20, 0, 0, true);
    EXPECT_FALSE(decodePacket(core, &packet, 0, 0).done);
    EXPECT_EQ(packet.releases, 1);
    CountedPacket empty;
    empty.set(PacketType::Video, nullptr, -5, 0, 0, false);
    EXPECT_FALSE(decodePacket(core, &empty, 0, 0).done);
    EXPECT_EQ(empty.releases, 1);
}

TEST_F(FFMpegDecoderCoreDecode, RawVideoIsRescaledWhereThatIsAllThatIsWanted)
{
    core.m_rescaleOnly = true;
    core.m_srcHeight = 8;
    ASSERT_TRUE(
        core.allocRescalingContext(8, 8, AV_PIX_FMT_RGB24, 4, 4, AV_PIX_FMT_RGB24, SWS_BILINEAR));
    CountedPacket packet;
    const std::vector<unsigned char> grey(std::size_t{8} * 8 * 3, 100);
    packet.setAndCopy(PacketType::Video, grey.data(), static_cast<int>(grey.size()), 0, 0, true);
    const Outcome outcome = decodePacket(core, &packet, 5, 6);
    ASSERT_TRUE(outcome.done);
    EXPECT_EQ(outcome.size, 4u * 4u * 3u);
    EXPECT_TRUE(std::all_of(outcome.data, outcome.data + outcome.size,
                            [](unsigned char value) { return value == 100; }));
    EXPECT_EQ(packet.releases, 1);
    delete[] outcome.data;
}

// ---------------------------------------------------------------------------------------------
// Skipping packets, scalers.

TEST_F(FFMpegDecoderCoreDecode, SkippedPacketsTellTypeAndTimeInTheBaseOfTheirStream)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 3; ++i) {
        medium.video(5000 + 40 * i, i == 0, picture(i)).audio(5010 + 40 * i);
    }
    open(medium, WithDuration);
    for (uint32_t i = 0; i < 3; ++i) {
        PacketType::Enum type = PacketType::None;
        unsigned long long timestamp = 0;
        unsigned long long duration = 1;
        ASSERT_TRUE(core.skipPacket(type, timestamp, duration));
        EXPECT_EQ(type, PacketType::Video);
        EXPECT_EQ(timestamp, 5000u + 40 * i);
        EXPECT_EQ(core.m_position, timestamp);
        ASSERT_TRUE(core.skipPacket(type, timestamp, duration));
        EXPECT_EQ(type, PacketType::Audio);
        EXPECT_EQ(timestamp, 5010u + 40 * i);
        EXPECT_EQ(duration, 40u);
        EXPECT_EQ(core.m_position, timestamp);
        EXPECT_EQ(core.m_prevAudioTime, static_cast<int64_t>(timestamp));
        EXPECT_EQ(core.m_prevVideoTime, AV_NOPTS_VALUE);
    }
    PacketType::Enum type = PacketType::None;
    unsigned long long timestamp = 0;
    unsigned long long duration = 0;
    EXPECT_FALSE(core.skipPacket(type, timestamp, duration));
}

TEST_F(FFMpegDecoderCoreDecode, SkippingAPacketWithNegativeStampsIsRefused)
{
    FlvMedium medium;
    medium.audio(FlvMedium::before(50)).audio(FlvMedium::before(10)).audio(30).audio(70);
    open(medium, WithDuration);
    PacketType::Enum type = PacketType::None;
    unsigned long long timestamp = 1;
    unsigned long long duration = 1;
    EXPECT_FALSE(core.skipPacket(type, timestamp, duration));
    EXPECT_FALSE(core.skipPacket(type, timestamp, duration));
    EXPECT_EQ(timestamp, 1u);
    EXPECT_TRUE(core.skipPacket(type, timestamp, duration));
    EXPECT_EQ(timestamp, 30u);
    EXPECT_TRUE(
        wrote(LOGLEVEL_DEBUG, "Skipping encoded packet with negative timestamps - 0 -50 -50"));
}

TEST_F(FFMpegDecoderCoreDecode, ReadingGoesOnBehindSkippedPackets)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 10; ++i) {
        medium.audio(40 * i);
    }
    open(medium, WithDuration);
    PacketType::Enum type = PacketType::None;
    unsigned long long timestamp = 0;
    unsigned long long duration = 0;
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(core.skipPacket(type, timestamp, duration));
    }
    EXPECT_EQ(timesOf(readSamples(core)), steps(160, 40, 6));
}

TEST_F(FFMpegDecoderCoreDecode, ScalerIsRefusedWithoutFormatOrSize)
{
    EXPECT_FALSE(core.allocRescalingContext(16, 16, AV_PIX_FMT_NONE, 16, 16, AV_PIX_FMT_YUYV422,
                                            SWS_BILINEAR));
    EXPECT_FALSE(core.allocRescalingContext(16, 16, AV_PIX_FMT_YUV420P, 16, 16, AV_PIX_FMT_NONE,
                                            SWS_BILINEAR));
    EXPECT_FALSE(core.allocRescalingContext(0, 16, AV_PIX_FMT_YUV420P, 16, 16, AV_PIX_FMT_YUYV422,
                                            SWS_BILINEAR));
    EXPECT_TRUE(wrote(LOGLEVEL_ERROR, "Failed to sws_getContext"));
    EXPECT_EQ(core.m_swsContext, nullptr);
}

TEST_F(FFMpegDecoderCoreDecode, ScalerHasBuffersOfBothSizes)
{
    ASSERT_TRUE(core.allocRescalingContext(64, 48, AV_PIX_FMT_YUV420P, 32, 24, AV_PIX_FMT_YUYV422,
                                           SWS_BILINEAR));
    EXPECT_EQ(core.m_sourceBufferSize, 64u * 48 * 3 / 2);
    EXPECT_EQ(core.m_scaledBufferSize, 32u * 24 * 2);
    EXPECT_EQ(core.m_sourceFrame->data[0], core.m_sourceBuffer.get());
    EXPECT_EQ(core.m_scaledFrame->data[0], core.m_scaledBuffer.get());
    core.freeRescalingContext();
    EXPECT_EQ(core.m_swsContext, nullptr);
    EXPECT_EQ(core.m_sourceFrame, nullptr);
    EXPECT_EQ(core.m_sourceBuffer, nullptr);
    EXPECT_EQ(core.m_sourceBufferSize, 0u);
    EXPECT_EQ(core.m_scaledFrame, nullptr);
    EXPECT_EQ(core.m_scaledBuffer, nullptr);
    EXPECT_EQ(core.m_scaledBufferSize, 0u);
}

TEST_F(FFMpegDecoderCoreDecode, StampsConvertInDoublesAndTruncate)
{
    EXPECT_EQ(streamTimeToUs(1, {1, 1000}), 1000u);
    EXPECT_EQ(streamTimeToUs(1, {1, 90000}), 11u);
    EXPECT_EQ(streamTimeToUs(3, {1001, 30000}), 100100u);
    EXPECT_EQ(streamTimeToUs(static_cast<unsigned long long>(-5LL), {1, 1000}),
              static_cast<unsigned long long>(-5000LL));
    EXPECT_EQ(streamTimeToUs(10'000'000'000'000ULL, {1, 1}), 10'000'000'000'000'000'000ULL);
}
