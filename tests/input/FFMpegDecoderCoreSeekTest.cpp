#include "input/FFMpegDecoderCore.h"

#include "tests/support/CoreReader.h"
#include "tests/support/FlvMedium.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MemorySource.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using zel::test::audioOf;
using zel::test::clipPath;
using zel::test::FlvMedium;
using zel::test::LogCapture;
using zel::test::MemorySource;
using zel::test::readFile;
using zel::test::readSamples;
using zel::test::Sample;
using zel::test::timesOf;
using zel::test::videoOf;

namespace {

using Times = std::vector<unsigned long long>;

class FFMpegDecoderCoreSeek : public testing::Test
{
protected:
    int open(const std::string& clip) { return core.initWithUrl(clipPath(clip), ""); }

    void open(const FlvMedium& medium)
    {
        m_source = std::make_unique<MemorySource>(medium.bytes());
        ASSERT_EQ(m_source->open(core, "flv"), 0);
    }

    bool wrote(LOGLEVEL level, const std::string& text) const
    {
        for (const LogCapture::Line& line : log.lines()) {
            if (line.level == level && line.text == text) {
                return true;
            }
        }
        return false;
    }

    int lineOf(const std::string& text) const
    {
        const auto lines = log.lines();
        for (std::size_t i = 0; i < lines.size(); ++i) {
            if (lines[i].text.find(text) != std::string::npos) {
                return static_cast<int>(i);
            }
        }
        return -1;
    }

    LogCapture log;
    std::unique_ptr<MemorySource> m_source; // outlives the core
    FFMpegDecoderCore core;
};

/// What a failed seek must not touch.
struct State
{
    unsigned long long streamOffset;
    int64_t firstAudio;
    int64_t prevAudio;
    int64_t firstVideo;
    int64_t prevVideo;
    unsigned long long lastAudio;
    unsigned long long nextAudio;
    unsigned long long frames;
    unsigned long long position;
    bool audioPending;
    bool videoPending;

    bool operator==(const State&) const = default;
};

State stateOf(const FFMpegDecoderCore& core)
{
    return {core.m_streamOffset,       core.m_firstAudioTime,  core.m_prevAudioTime,
            core.m_firstVideoTime,     core.m_prevVideoTime,   core.m_lastAudioTimestamp,
            core.m_nextAudioTimestamp, core.m_frameCounter,    core.m_position,
            core.m_audioSeekPending,   core.m_videoSeekPending};
}

/// Audio of 40 ms each from one time on.
void addAudio(FlvMedium& medium, uint32_t fromMs, int count)
{
    for (int i = 0; i < count; ++i) {
        medium.audio(fromMs + 40 * static_cast<uint32_t>(i));
    }
}

} // namespace

TEST_F(FFMpegDecoderCoreSeek, NeedsAnOpenMedium)
{
    EXPECT_FALSE(core.setPosition(0));
    core.flush(0);
    ASSERT_EQ(open("h264_aac.mp4"), 0);
    core.close();
    EXPECT_FALSE(core.setPosition(0));
    core.flush(0);
}

TEST_F(FFMpegDecoderCoreSeek, SuccessSetsTargetAndForgetsTimes)
{
    ASSERT_EQ(open("h264_60fps.mp4"), 0);
    readSamples(core, 20);
    const unsigned long long position = core.m_position;
    ASSERT_GT(position, 0u);
    ASSERT_TRUE(core.setPosition(2900));
    EXPECT_EQ(stateOf(core), (State{2900000, AV_NOPTS_VALUE, AV_NOPTS_VALUE, AV_NOPTS_VALUE,
                                    AV_NOPTS_VALUE, 0, 2900000, 120, position, true, true}));
    EXPECT_TRUE(
        wrote(LOGLEVEL_DEBUG, "FFMpegDecoderCore::setPosition(): 2900 - duration is " +
                                  std::to_string(core.m_duration) + " - file_size is " +
                                  std::to_string(readFile(clipPath("h264_60fps.mp4")).size())));
}

TEST_F(FFMpegDecoderCoreSeek, PendingMarksGoWithTheFirstGoodSamples)
{
    ASSERT_EQ(open("h264_aac.mp4"), 0);
    ASSERT_TRUE(core.setPosition(3000));
    while (core.m_videoSeekPending || core.m_audioSeekPending) {
        const bool videoWasPending = core.m_videoSeekPending;
        const auto sample = readSamples(core, 1);
        ASSERT_EQ(sample.size(), 1u);
        EXPECT_EQ(sample[0].isVideo(), videoWasPending && !core.m_videoSeekPending);
    }
}

TEST_F(FFMpegDecoderCoreSeek, NothingBeforeTheTargetIsDelivered)
{
    for (const char* clip : {"h264_aac.mp4", "h264_aac.mkv", "mpeg4_mp3.avi", "wmv2_wma2.asf",
                             "vp9_opus.webm", "wav_s16.wav", "aac.m4a"}) {
        FFMpegDecoderCore any;
        ASSERT_EQ(any.initWithUrl(clipPath(clip), ""), 0);
        ASSERT_TRUE(any.setPosition(2500)) << clip;
        const auto samples = readSamples(any);
        ASSERT_GT(samples.size(), 10u) << clip;
        for (const Sample& sample : samples) {
            ASSERT_GE(sample.timestampUs, 2500000u) << clip;
        }
        EXPECT_LT(samples[0].timestampUs, 4000000u) << clip;
    }
}

TEST_F(FFMpegDecoderCoreSeek, StartCanBeReachedAgainFromAnywhere)
{
    for (const char* clip : {"h264_aac.mp4", "h264_aac.mkv", "mpeg4_mp3.avi", "wav_s16.wav",
                             "aac.aac", "flac_16.flac"}) {
        FFMpegDecoderCore any;
        ASSERT_EQ(any.initWithUrl(clipPath(clip), ""), 0);
        const auto all = readSamples(any); // to the end
        for (const std::size_t count : {std::size_t{50}, all.size(), all.size()}) {
            ASSERT_TRUE(any.setPosition(0)) << clip;
            auto again = readSamples(any, count);
            ASSERT_EQ(again.size(), std::min(count, all.size())) << clip;
            for (std::size_t i = 0; i < again.size(); ++i) {
                if (again[i].isAudio()) {
                    again[i].hash = all[i].hash; // some decoders add noise of their own
                }
                ASSERT_EQ(again[i], all[i]) << clip << ", sample " << i;
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// The window for audio.

TEST_F(FFMpegDecoderCoreSeek, AudioBeforeTheTargetIsDropped)
{
    FlvMedium medium;
    addAudio(medium, 9920, 5); // the third is the target
    open(medium);
    core.flush(10000);
    EXPECT_EQ(timesOf(readSamples(core)), (Times{10000000, 10040000, 10080000}));
    EXPECT_FALSE(core.m_audioSeekPending);
    EXPECT_EQ(log.count("FFMpegDecoderCore::decodeFromMedium : skip dec audio packet out of seek "
                        "range, "),
              2);
}

TEST_F(FFMpegDecoderCoreSeek, AudioBehindTheWindowIsDroppedSixTimesAtMost)
{
    FlvMedium medium;
    addAudio(medium, 16001, 10);
    open(medium);
    core.flush(10000);
    const Times times = timesOf(readSamples(core));
    ASSERT_EQ(times.size(), 4u);
    EXPECT_EQ(times[0], 16241000u);
    EXPECT_FALSE(core.m_audioSeekPending);
    EXPECT_EQ(log.count("skip dec audio packet out of seek range, "), 6);
    EXPECT_TRUE(wrote(LOGLEVEL_WARN, "FFMpegDecoderCore::decodeFromMedium : skip dec audio packet "
                                     "out of seek range, 16001000 <|> 10000000"));
}

TEST_F(FFMpegDecoderCoreSeek, BothEndsOfTheWindowBelongToIt)
{
    for (const uint32_t first : {10000u, 16000u}) {
        FlvMedium medium;
        addAudio(medium, first, 3);
        MemorySource source(medium.bytes());
        FFMpegDecoderCore any;
        ASSERT_EQ(source.open(any, "flv"), 0);
        any.flush(10000);
        EXPECT_EQ(readSamples(any).size(), 3u) << first;
        any.close();
    }
    EXPECT_EQ(log.count("out of seek range"), 0);
}

TEST_F(FFMpegDecoderCoreSeek, GivenUpSearchStillDeliversNothingBeforeTheTarget)
{
    FlvMedium medium;
    addAudio(medium, 9600, 12); // ten before the target
    open(medium);
    core.flush(10000);
    EXPECT_EQ(timesOf(readSamples(core)), (Times{10000000, 10040000}));
    EXPECT_EQ(log.count("out of seek range"), 6);
}

TEST_F(FFMpegDecoderCoreSeek, SeekIsFollowedByAudioOfTheWindow)
{
    ASSERT_EQ(open("h264_aac.mkv"), 0);
    ASSERT_TRUE(core.setPosition(10000));
    const auto audio = audioOf(readSamples(core));
    ASSERT_FALSE(audio.empty());
    EXPECT_GE(audio[0].timestampUs, 10000000u);
    EXPECT_LE(audio[0].timestampUs, 10100000u);
    for (const Sample& sample : audio) {
        EXPECT_GE(sample.timestampUs, 10000000u);
        EXPECT_LE(sample.timestampUs, 16000000u);
    }
}

// ---------------------------------------------------------------------------------------------
// Seeks by bytes.

TEST_F(FFMpegDecoderCoreSeek, StartOfAMediumSoughtByBytesIsSizeOverDuration)
{
    const std::string bytes = readFile(clipPath("mp3_cbr.mp3"));
    MemorySource source(bytes);
    ASSERT_EQ(source.open(core, "mp3"), 0);
    ASSERT_TRUE(core.m_seekByBytes);
    readSamples(core, 30);
    ASSERT_TRUE(core.setPosition(0));
    EXPECT_TRUE(
        wrote(LOGLEVEL_DEBUG, "FFMpegDecoderCore::setPosition(): av_seek_frame (bytepos = " +
                                  std::to_string(bytes.size() / core.m_duration) +
                                  ", flag=AVSEEK_FLAG_BYTE)"));
    EXPECT_EQ(core.m_streamOffset, 0u);
    EXPECT_EQ(core.m_frameCounter, 0u);
    EXPECT_EQ(core.m_nextAudioTimestamp, 0u);
    EXPECT_EQ(readSamples(core, 1).at(0).timestampUs, 0u);
    core.close();
}

TEST_F(FFMpegDecoderCoreSeek, ByteSeekGoesToThePartOfTheFile)
{
    const std::string bytes = readFile(clipPath("mp3_cbr.mp3"));
    MemorySource source(bytes);
    ASSERT_EQ(source.open(core, "mp3"), 0);
    ASSERT_TRUE(core.setPosition(3000));
    const unsigned long long position = bytes.size() * 3000 / core.m_duration;
    EXPECT_TRUE(
        wrote(LOGLEVEL_DEBUG, "FFMpegDecoderCore::setPosition(): av_seek_frame (bytepos = " +
                                  std::to_string(position) + ", flag=AVSEEK_FLAG_BYTE)"));
    EXPECT_EQ(avio_tell(core.m_formatContext->pb), static_cast<int64_t>(position));
    // Generated stamps go on from the target.
    const auto samples = readSamples(core);
    EXPECT_EQ(samples.at(0).timestampUs, 3000000u);
    EXPECT_NEAR(static_cast<double>(samples.back().timestampUs), 6e6, 200000.0);
    core.close();
}

TEST_F(FFMpegDecoderCoreSeek, FrameCounterFollowsTheTargetInWholeSeconds)
{
    MemorySource source(readFile(clipPath("wmv2_wma2.asf")));
    ASSERT_EQ(source.open(core, "asf"), 0);
    ASSERT_TRUE(core.setPosition(2700));
    EXPECT_EQ(core.m_frameCounter, static_cast<unsigned long long>(2 * core.m_fps));
    EXPECT_EQ(core.m_nextAudioTimestamp, 2700000u);
    core.close();
}

TEST_F(FFMpegDecoderCoreSeek, ByteSeekNeedsDurationAndSize)
{
    MemorySource source(readFile(clipPath("mp3_cbr.mp3")));
    ASSERT_EQ(source.open(core, "mp3"), 0);
    core.m_duration = 0;
    core.setPosition(3000);
    EXPECT_EQ(log.count("AVSEEK_FLAG_BYTE"), 0);
    core.close();

    MemorySource stream(readFile(clipPath("mp3_cbr.mp3")));
    stream.canSeek = false;
    FFMpegDecoderCore endless;
    ASSERT_EQ(stream.open(endless, "mp3"), 0);
    endless.m_duration = 6000;
    endless.setPosition(3000);
    EXPECT_EQ(log.count("AVSEEK_FLAG_BYTE"), 0);
    endless.close();
}

TEST_F(FFMpegDecoderCoreSeek, OtherMediaAreSoughtByTime)
{
    ASSERT_EQ(open("mp3_cbr.mp3"), 0); // by itself, not as a byte source
    ASSERT_FALSE(core.m_seekByBytes);
    ASSERT_TRUE(core.setPosition(3000));
    EXPECT_EQ(log.count("AVSEEK_FLAG_BYTE"), 0);
}

// ---------------------------------------------------------------------------------------------
// Seeks that fail.

TEST_F(FFMpegDecoderCoreSeek, FailedByteSeekTriesNothingElse)
{
    ASSERT_EQ(open("h264_aac.mp4"), 0);
    core.m_seekByBytes = true; // which this demuxer refuses
    const auto first = readSamples(core, 30);
    const State before = stateOf(core);
    EXPECT_FALSE(core.setPosition(3000));
    EXPECT_EQ(stateOf(core), before);
    const std::string text =
        "FFMpegDecoderCore::setPosition(): av_seek_frame (bytepos = " +
        std::to_string(readFile(clipPath("h264_aac.mp4")).size() * 3000 / core.m_duration) +
        ", flag=AVSEEK_FLAG_BYTE)";
    EXPECT_TRUE(wrote(LOGLEVEL_DEBUG, text));
    EXPECT_TRUE(wrote(LOGLEVEL_ERROR, text));
    EXPECT_TRUE(wrote(LOGLEVEL_WARN, "FFMpegDecoderCore::setPosition(): seeking failed, do not "
                                     "reset timestamps"));
    EXPECT_EQ(log.count("timepos"), 0);

    FFMpegDecoderCore undisturbed;
    ASSERT_EQ(undisturbed.initWithUrl(clipPath("h264_aac.mp4"), ""), 0);
    auto all = readSamples(undisturbed);
    all.erase(all.begin(), all.begin() + 30);
    expectSameSamples(readSamples(core), all, "after a failed byte seek");
}

TEST_F(FFMpegDecoderCoreSeek, FailedTimeSeekIsTriedForAnyFrameAndTold)
{
    ASSERT_EQ(open("h264_aac.mp4"), 0);
    readSamples(core, 30);
    const State before = stateOf(core);
    EXPECT_FALSE(core.setPosition(1000000));
    EXPECT_EQ(stateOf(core), before);
    const std::string start = "FFMpegDecoderCore::setPosition(): ";
    EXPECT_TRUE(
        wrote(LOGLEVEL_DEBUG, start + "av_seek_frame (timepos = 1000000000, flag=0) failed!"));
    EXPECT_TRUE(wrote(LOGLEVEL_DEBUG, start + "trying with flag=AVSEEK_FLAG_ANY"));
    EXPECT_TRUE(wrote(LOGLEVEL_DEBUG, start + "av_seek_frame (timepos = 1000000000, "
                                              "flag=AVSEEK_FLAG_ANY) failed!"));
    EXPECT_TRUE(wrote(LOGLEVEL_WARN, start + "seeking failed, do not reset timestamps"));
    EXPECT_LT(lineOf("flag=0) failed!"), lineOf("trying with"));
    EXPECT_LT(lineOf("trying with"), lineOf("flag=AVSEEK_FLAG_ANY) failed!"));
    EXPECT_LT(lineOf("flag=AVSEEK_FLAG_ANY) failed!"), lineOf("seeking failed"));
}

namespace {

class FFMpegDecoderCoreFailedSeek : public testing::TestWithParam<const char*>
{
};

} // namespace

TEST_P(FFMpegDecoderCoreFailedSeek, DecodingGoesOnWhereItWas)
{
    const LogCapture log(LOGLEVEL_ERROR);
    const std::string clip = GetParam();
    FFMpegDecoderCore undisturbed;
    ASSERT_EQ(undisturbed.initWithUrl(clipPath(clip), ""), 0);
    const auto all = readSamples(undisturbed);
    for (const int threads : {1, 2, 4}) {
        FFMpegDecoderCore core;
        core.m_decoderThreads = threads;
        ASSERT_EQ(core.initWithUrl(clipPath(clip), ""), 0);
        std::vector<Sample> samples;
        for (const std::size_t count : {std::size_t{0}, std::size_t{1}, std::size_t{7},
                                        std::size_t{40}, all.size() / 3, all.size()}) {
            const auto more = readSamples(core, count);
            samples.insert(samples.end(), more.begin(), more.end());
            const State before = stateOf(core);
            EXPECT_FALSE(core.setPosition(1000000));
            EXPECT_EQ(stateOf(core), before);
            EXPECT_FALSE(core.setPosition(2000000));
        }
        const auto more = readSamples(core);
        samples.insert(samples.end(), more.begin(), more.end());
        expectSameSamples(samples, all, clip + " with " + std::to_string(threads) + " threads");
    }
}

INSTANTIATE_TEST_SUITE_P(Clips, FFMpegDecoderCoreFailedSeek,
                         testing::Values("h264_aac.mp4", "h264_aac.mkv", "h264_aac.flv",
                                         "mpeg4_mp3.avi", "mp3_cbr.mp3", "aac.aac", "aac.m4a",
                                         "vp9_opus.webm", "h264_infinite_gop.mp4",
                                         "h264_bpyramid.mkv", "h264_fragmented.mp4",
                                         "late_video.mkv", "two_audio.avi", "vp8_vorbis.webm"));

TEST_F(FFMpegDecoderCoreSeek, FailureRightBehindASeekLeavesItsTarget)
{
    for (const char* clip : {"h264_aac.mp4", "h264_aac.mkv", "mpeg4_mp3.avi", "mp3_cbr.mp3"}) {
        FFMpegDecoderCore undisturbed;
        ASSERT_EQ(undisturbed.initWithUrl(clipPath(clip), ""), 0);
        ASSERT_TRUE(undisturbed.setPosition(2000));
        FFMpegDecoderCore disturbed;
        ASSERT_EQ(disturbed.initWithUrl(clipPath(clip), ""), 0);
        readSamples(disturbed, 100);
        ASSERT_TRUE(disturbed.setPosition(2000));
        ASSERT_FALSE(disturbed.setPosition(1000000));
        EXPECT_EQ(timesOf(readSamples(disturbed)), timesOf(readSamples(undisturbed))) << clip;
    }
}

TEST_F(FFMpegDecoderCoreSeek, TargetBeyondAllNumbersIsHarmless)
{
    for (const char* clip : {"h264_aac.mp4", "h264_aac.ts", "mp3_cbr.mp3"}) {
        for (const bool byBytes : {false, true}) {
            FFMpegDecoderCore any;
            ASSERT_EQ(any.initWithUrl(clipPath(clip), ""), 0);
            any.m_seekByBytes = byBytes;
            any.setPosition(~0ULL);
            any.setPosition(1ULL << 63);
            any.setPosition(0x7fffffffffffffffULL / 1000 + 1);
            readSamples(any, 5);
            any.m_duration = ~0ULL;
            any.setPosition(1000);
            readSamples(any, 5);
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Flush.

TEST_F(FFMpegDecoderCoreSeek, FlushSetsTheTargetAndForgetsTimes)
{
    ASSERT_EQ(open("flv1_mp3.flv"), 0);
    readSamples(core, 20);
    const State before = stateOf(core);
    core.flush(3000);
    EXPECT_EQ(stateOf(core),
              (State{3000000, AV_NOPTS_VALUE, AV_NOPTS_VALUE, AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0,
                     before.nextAudio, before.frames, before.position, true, true}));
    EXPECT_TRUE(
        wrote(LOGLEVEL_DEBUG, "FFMpegDecoderCore::flush(): reset to position 3000 3000000 " +
                                  std::to_string(before.position)));
}

TEST_F(FFMpegDecoderCoreSeek, FlushDoesNotMoveTheMedium)
{
    FlvMedium medium;
    addAudio(medium, 0, 20);
    open(medium);
    EXPECT_EQ(readSamples(core, 5).size(), 5u);
    core.flush(0);
    const auto samples = readSamples(core);
    EXPECT_EQ(samples.size(), 15u);
    EXPECT_EQ(samples.at(0).timestampUs, 200000u);
}

TEST_F(FFMpegDecoderCoreSeek, LiveMediumStartsAtZeroAgainAfterAFlush)
{
    FlvMedium medium;
    addAudio(medium, 5000, 20);
    m_source = std::make_unique<MemorySource>(medium.bytes());
    m_source->canSeek = false;
    ASSERT_EQ(m_source->open(core, "flv"), 0);
    EXPECT_EQ(timesOf(readSamples(core, 2)), (Times{0, 40000}));
    core.flush(0);
    EXPECT_EQ(timesOf(readSamples(core, 2)), (Times{0, 40000}));
}

TEST_F(FFMpegDecoderCoreSeek, PicturesBeforeTheTargetOfAFlushAreDropped)
{
    ASSERT_EQ(open("h264_aac.mp4"), 0);
    core.flush(2000);
    const auto video = videoOf(readSamples(core));
    ASSERT_FALSE(video.empty());
    EXPECT_EQ(video[0].timestampUs, 2000000u);
}
