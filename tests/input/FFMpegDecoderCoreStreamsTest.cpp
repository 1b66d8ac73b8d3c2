#include "input/FFMpegDecoderCore.h"

#include "host/Records.h"
#include "tests/support/ClipPackets.h"
#include "tests/support/CoreReader.h"
#include "tests/support/FlvMedium.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MemorySource.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>

using zel::host::MediumRecord;
using zel::host::OutputStreamRecord;
using zel::test::audioOf;
using zel::test::clipPath;
using zel::test::FlvMedium;
using zel::test::LogCapture;
using zel::test::MemorySource;
using zel::test::readClipPackets;
using zel::test::readFile;
using zel::test::readSamples;
using zel::test::videoOf;

namespace {

class FFMpegDecoderCoreStreams : public testing::Test
{
protected:
    using Change = std::function<void(AVFormatContext&)>;

    /// Opens a clip, with a change to what the demuxer found before the core looks at it.
    int openChanged(const std::string& clip, const std::string& format, const Change& change)
    {
        m_source = std::make_unique<MemorySource>(readFile(clipPath(clip)));
        m_source->onSizeQuestion = [this, change] {
            if (core.m_formatContext) {
                change(*core.m_formatContext);
            }
        };
        return m_source->open(core, format);
    }

    int open(const std::string& clip) { return core.initWithUrl(clipPath(clip), ""); }

    bool wrote(LOGLEVEL level, const std::string& text) const
    {
        for (const LogCapture::Line& line : log.lines()) {
            if (line.level == level && line.text == text) {
                return true;
            }
        }
        return false;
    }

    bool warnedUnknown(int stream) const
    {
        return wrote(LOGLEVEL_WARN, "FFMpegDecoderCore::initFormatStreams streams[" +
                                        std::to_string(stream) + "] codec unknown");
    }

    LogCapture log;
    std::unique_ptr<MemorySource> m_source; // outlives the core
    FFMpegDecoderCore core;
};

AVCodecParameters& codecpar(AVFormatContext& context, unsigned int stream)
{
    return *context.streams[stream]->codecpar;
}

/// Makes a stream PCM of this kind.
void setSound(AVFormatContext& context, unsigned int stream, int64_t bitRate, int sampleRate,
              int channels)
{
    AVCodecParameters* sound = avcodec_parameters_alloc();
    sound->codec_type = AVMEDIA_TYPE_AUDIO;
    sound->codec_id = AV_CODEC_ID_PCM_S16LE;
    sound->bit_rate = bitRate;
    sound->sample_rate = sampleRate;
    av_channel_layout_default(&sound->ch_layout, channels);
    avcodec_parameters_copy(context.streams[stream]->codecpar, sound);
    avcodec_parameters_free(&sound);
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Streams without decoder.

TEST_F(FFMpegDecoderCoreStreams, UndecodableVideoIsWarnedAboutAndTheMediumPlaysAsAudio)
{
    for (const char* clip :
         {"undecodable_video.mkv", "undecodable_video.avi", "undecodable_video.mp4"}) {
        log.clear();
        FFMpegDecoderCore audioOnly;
        ASSERT_EQ(audioOnly.initWithUrl(clipPath(clip), ""), 0) << clip;
        EXPECT_EQ(audioOnly.m_videoStream, nullptr);
        EXPECT_EQ(audioOnly.m_videoStreamIndex, -1);
        EXPECT_EQ(audioOnly.m_audioStreamIndex, 1);
        EXPECT_TRUE(warnedUnknown(0)) << clip;
        EXPECT_FALSE(warnedUnknown(1)) << clip;
        const auto samples = readSamples(audioOnly);
        EXPECT_GT(samples.size(), 200u);
        EXPECT_TRUE(videoOf(samples).empty());
    }
}

TEST_F(FFMpegDecoderCoreStreams, UndecodableVideoIsChosenWhenItIsSkippedAnyway)
{
    for (const char* clip :
         {"undecodable_video.mkv", "undecodable_video.avi", "undecodable_video.mp4"}) {
        log.clear();
        FFMpegDecoderCore copying;
        copying.skipVideoDecoding();
        ASSERT_EQ(copying.initWithUrl(clipPath(clip), ""), 0) << clip;
        EXPECT_EQ(copying.m_videoStreamIndex, 0);
        EXPECT_EQ(copying.m_audioStreamIndex, 1);
        EXPECT_TRUE(wrote(LOGLEVEL_DEBUG, "FFMpegDecoderCore::initFormatStreams streams[0] codec "
                                          "unknown, but skipped anyway"));
        const auto packets = readClipPackets(clipPath(clip)).of(0);
        const auto video = videoOf(readSamples(copying));
        ASSERT_EQ(video.size(), packets.size()) << clip;
        EXPECT_EQ(video[7].size, packets[7].bytes.size());
    }
}

TEST_F(FFMpegDecoderCoreStreams, UndecodableAudioIsWarnedAboutAndTheMediumPlaysAsVideo)
{
    ASSERT_EQ(open("undecodable_audio.mkv"), 0);
    EXPECT_EQ(core.m_videoStreamIndex, 0);
    EXPECT_EQ(core.m_audioStream, nullptr);
    EXPECT_TRUE(warnedUnknown(1));
}

TEST_F(FFMpegDecoderCoreStreams, UndecodableAudioIsChosenWhenItIsSkippedAnyway)
{
    core.skipAudioDecoding();
    ASSERT_EQ(open("undecodable_audio.mkv"), 0);
    EXPECT_EQ(core.m_audioStreamIndex, 1);
    EXPECT_TRUE(wrote(LOGLEVEL_DEBUG, "FFMpegDecoderCore::initFormatStreams streams[1] codec "
                                      "unknown, but skipped anyway"));
    EXPECT_GT(audioOf(readSamples(core)).size(), 200u);
}

TEST_F(FFMpegDecoderCoreStreams, StreamOfTheOtherKindIsNotSkipped)
{
    core.skipVideoDecoding();
    ASSERT_EQ(open("undecodable_audio.mkv"), 0);
    EXPECT_EQ(core.m_videoStreamIndex, 0);
    EXPECT_EQ(core.m_audioStream, nullptr);
    EXPECT_TRUE(wrote(LOGLEVEL_WARN, "FFMpegDecoderCore::initFormatStreams streams[1] codec "
                                     "unknown, and not skipped"));
    EXPECT_FALSE(warnedUnknown(1));
}

TEST_F(FFMpegDecoderCoreStreams, MediumWithNothingToPlayIsAnError)
{
    EXPECT_EQ(open("undecodable_both.mkv"), static_cast<int>(0x80004005u));
    EXPECT_TRUE(
        wrote(LOGLEVEL_ERROR, "FFMpegDecoderCore::initFormatStreams: no video or audio found"));
    EXPECT_TRUE(warnedUnknown(0));
    EXPECT_TRUE(warnedUnknown(1));
    EXPECT_NE(core.m_formatContext, nullptr);
}

TEST_F(FFMpegDecoderCoreStreams, MediumWithNothingToDecodeCanStillBeCopied)
{
    core.skipVideoDecoding();
    ASSERT_EQ(open("undecodable_both.mkv"), 0);
    EXPECT_EQ(core.m_videoStreamIndex, 0);
    EXPECT_EQ(core.m_audioStream, nullptr);
}

TEST_F(FFMpegDecoderCoreStreams, TextOfSubtitlesAloneIsNothingToPlay)
{
    EXPECT_EQ(open("subtitles.srt"), FFMpegDecoderCore::NothingToPlay);
}

TEST_F(FFMpegDecoderCoreStreams, SubtitlesAreWarnedAboutAndPassedOver)
{
    ASSERT_EQ(open("subtitles.mkv"), 0);
    EXPECT_EQ(core.m_videoStreamIndex, 0);
    EXPECT_EQ(core.m_audioStreamIndex, 2);
    EXPECT_TRUE(warnedUnknown(1));
}

TEST_F(FFMpegDecoderCoreStreams, DecoderThatCannotBeOpenedIsAWarning)
{
    // This decoder refuses a stream without a size.
    ASSERT_EQ(openChanged("h264_aac.mkv", "matroska",
                          [](AVFormatContext& context) {
                              codecpar(context, 0).codec_id = AV_CODEC_ID_WMV2;
                              codecpar(context, 0).width = 0;
                              codecpar(context, 0).height = 0;
                          }),
              0);
    EXPECT_TRUE(
        wrote(LOGLEVEL_WARN, "FFMpegDecoderCore::initFormatStreams : could not open codec " +
                                 std::to_string(AV_CODEC_ID_WMV2) + " for stream 0"));
    EXPECT_TRUE(warnedUnknown(0));
    EXPECT_EQ(core.m_videoStream, nullptr);
    EXPECT_EQ(core.m_audioStreamIndex, 1);
}

TEST_F(FFMpegDecoderCoreStreams, OneGoodAudioStreamOfTwoIsEnough)
{
    ASSERT_EQ(openChanged("two_audio.ts", "mpegts",
                          [](AVFormatContext& context) {
                              codecpar(context, 2).codec_id = AV_CODEC_ID_NONE;
                          }),
              0);
    EXPECT_EQ(core.m_audioStreamIndex, 1);
}

TEST_F(FFMpegDecoderCoreStreams, CoverPictureIsPassedOver)
{
    for (const char* clip : {"mp3_cover.mp3", "m4a_cover.m4a"}) {
        for (const bool copies : {false, true}) {
            FFMpegDecoderCore music;
            if (copies) {
                music.skipVideoDecoding();
            }
            ASSERT_EQ(music.initWithUrl(clipPath(clip), ""), 0) << clip;
            EXPECT_EQ(music.m_videoStream, nullptr) << clip;
            EXPECT_EQ(music.m_audioStreamIndex, 0) << clip;
            const auto samples = readSamples(music);
            EXPECT_TRUE(videoOf(samples).empty()) << clip;
            EXPECT_GT(samples.size(), 200u);
        }
    }
    EXPECT_EQ(log.count("*** video stream chosen ***"), 0);
    EXPECT_EQ(log.count("codec unknown"), 0);
}

// ---------------------------------------------------------------------------------------------
// Data streams.

TEST_F(FFMpegDecoderCoreStreams, DataStreamIsNotedForMetadata)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 10; ++i) {
        medium.audio(40 * i).tag(18, 40 * i, std::string(40, 'x'));
    }
    MemorySource source(medium.bytes());
    ASSERT_EQ(source.open(core, "flv"), 0);
    ASSERT_GE(core.m_metadataStreamIndex, 0);
    const AVStream* stream = core.m_formatContext->streams[core.m_metadataStreamIndex];
    EXPECT_EQ(stream->codecpar->codec_type, AVMEDIA_TYPE_DATA);
    EXPECT_NE(stream->discard, AVDISCARD_ALL);
    const std::string line = "FFMpegDecoderCore::initFormatStreams: found metadata stream " +
                             std::to_string(core.m_metadataStreamIndex) + " 2";
    EXPECT_TRUE(wrote(LOGLEVEL_INFO, line));
    EXPECT_EQ(log.count(line), 1);
    core.close();

    log.clear();
    FFMpegDecoderCore copying;
    copying.skipAudioDecoding();
    MemorySource again(medium.bytes());
    ASSERT_EQ(again.open(copying, "flv"), 0);
    EXPECT_GE(copying.m_metadataStreamIndex, 0);
    EXPECT_EQ(log.count(line), 2); // once more where streams are chosen
    copying.close();
}

// ---------------------------------------------------------------------------------------------
// Which stream wins.

TEST_F(FFMpegDecoderCoreStreams, LargerVideoWins)
{
    ASSERT_EQ(open("two_videos.mkv"), 0);
    EXPECT_EQ(core.m_videoStreamIndex, 1);
    EXPECT_EQ(core.m_outWidth, 320u);
    EXPECT_EQ(core.m_outHeight, 240u);
    EXPECT_EQ(log.count(" *** video stream chosen ***"), 2);
    EXPECT_EQ(core.m_formatContext->streams[0]->discard, AVDISCARD_ALL);
    EXPECT_EQ(core.m_formatContext->streams[1]->discard, AVDISCARD_DEFAULT);
}

namespace {

struct Look
{
    int width;
    int height;
    AVRational rate;
    int64_t bitRate;
    int64_t duration;
};

struct Contest
{
    const char* why;
    Look first;
    Look second;
    int winner;
};

void PrintTo(const Contest& contest, std::ostream* out)
{
    *out << contest.why;
}

class FFMpegDecoderCoreVideoContest : public FFMpegDecoderCoreStreams,
                                      public testing::WithParamInterface<Contest>
{
};

} // namespace

TEST_P(FFMpegDecoderCoreVideoContest, IsDecidedByTheFirstDifferenceThatCounts)
{
    const Contest& contest = GetParam();
    ASSERT_EQ(openChanged("two_videos.mkv", "matroska",
                          [&contest](AVFormatContext& context) {
                              unsigned int stream = 0;
                              for (const Look& look : {contest.first, contest.second}) {
                                  codecpar(context, stream).width = look.width;
                                  codecpar(context, stream).height = look.height;
                                  codecpar(context, stream).bit_rate = look.bitRate;
                                  context.streams[stream]->r_frame_rate = look.rate;
                                  context.streams[stream]->duration = look.duration;
                                  ++stream;
                              }
                          }),
              0);
    EXPECT_EQ(core.m_videoStreamIndex, contest.winner);
}

INSTANTIATE_TEST_SUITE_P(
    Table, FFMpegDecoderCoreVideoContest,
    testing::Values(
        Contest{"wider", {320, 240, {25, 1}, 9, 9}, {322, 100, {50, 1}, 1, 1}, 1},
        Contest{"higher though less wide", {320, 240, {25, 1}, 9, 9}, {100, 242, {50, 1}, 1, 1}, 1},
        Contest{"less wide", {320, 240, {25, 1}, 1, 1}, {318, 240, {5, 1}, 9, 9}, 0},
        Contest{"less high", {320, 240, {25, 1}, 1, 1}, {320, 238, {5, 1}, 9, 9}, 0},
        Contest{"slower", {320, 240, {25, 1}, 9, 9}, {320, 240, {24, 1}, 1, 1}, 1},
        Contest{"faster", {320, 240, {25, 1}, 1, 1}, {320, 240, {26, 1}, 9, 9}, 0},
        Contest{"same period in other terms, larger bit rate",
                {320, 240, {25, 1}, 5, 9},
                {320, 240, {50, 2}, 6, 1},
                1},
        Contest{
            "rate of the first unknown", {320, 240, {0, 1}, 5, 9}, {320, 240, {60, 1}, 6, 1}, 1},
        Contest{
            "rate of the second unknown", {320, 240, {60, 1}, 5, 1}, {320, 240, {0, 1}, 4, 9}, 0},
        Contest{"smaller bit rate", {320, 240, {25, 1}, 5, 1}, {320, 240, {25, 1}, 4, 9}, 0},
        Contest{"longer", {320, 240, {25, 1}, 5, 8}, {320, 240, {25, 1}, 5, 9}, 1},
        Contest{"all equal", {320, 240, {25, 1}, 5, 9}, {320, 240, {25, 1}, 5, 9}, 0},
        Contest{"duration is signed",
                {320, 240, {25, 1}, 5, 1},
                {320, 240, {25, 1}, 5, AV_NOPTS_VALUE},
                0}));

TEST_F(FFMpegDecoderCoreStreams, AudioOfTheLargerBitRateWins)
{
    ASSERT_EQ(open("two_audio.ts"), 0);
    EXPECT_EQ(core.m_audioStreamIndex, 2);
    EXPECT_EQ(log.count(" *** audio stream chosen ***"), 2);
    EXPECT_EQ(core.m_formatContext->streams[1]->discard, AVDISCARD_ALL);
}

TEST_F(FFMpegDecoderCoreStreams, FirstGoodAudioOfAnAviStays)
{
    ASSERT_EQ(open("two_audio.avi"), 0);
    EXPECT_EQ(core.m_audioStreamIndex, 1);
    EXPECT_EQ(core.m_audioChannels, 1u);
}

TEST_F(FFMpegDecoderCoreStreams, FirstAudioOfAnAviWithoutBitRateIsNotGood)
{
    ASSERT_EQ(openChanged("two_audio.avi", "avi",
                          [](AVFormatContext& context) { codecpar(context, 1).bit_rate = 0; }),
              0);
    EXPECT_EQ(core.m_audioStreamIndex, 2);
}

namespace {

struct Sound
{
    int64_t bitRate;
    int sampleRate;
    int channels;
    int64_t duration;
};

struct AudioContest
{
    const char* why;
    Sound first;
    Sound second;
    int winner;
};

void PrintTo(const AudioContest& contest, std::ostream* out)
{
    *out << contest.why;
}

class FFMpegDecoderCoreAudioContest : public FFMpegDecoderCoreStreams,
                                      public testing::WithParamInterface<AudioContest>
{
};

} // namespace

TEST_P(FFMpegDecoderCoreAudioContest, IsDecidedByTheFirstDifferenceThatCounts)
{
    const AudioContest& contest = GetParam();
    ASSERT_EQ(openChanged("two_audio.ts", "mpegts",
                          [&contest](AVFormatContext& context) {
                              unsigned int stream = 1;
                              for (const Sound& sound : {contest.first, contest.second}) {
                                  setSound(context, stream, sound.bitRate, sound.sampleRate,
                                           sound.channels);
                                  context.streams[stream]->duration = sound.duration;
                                  ++stream;
                              }
                          }),
              0);
    EXPECT_EQ(core.m_audioStreamIndex, contest.winner);
}

INSTANTIATE_TEST_SUITE_P(
    Table, FFMpegDecoderCoreAudioContest,
    testing::Values(AudioContest{"larger bit rate", {64, 48000, 2, 9}, {65, 8000, 1, 1}, 2},
                    AudioContest{"smaller bit rate", {64, 8000, 1, 1}, {63, 48000, 2, 9}, 1},
                    AudioContest{"larger sample rate", {64, 44100, 2, 9}, {64, 48000, 1, 1}, 2},
                    AudioContest{"smaller sample rate", {64, 48000, 1, 1}, {64, 44100, 2, 9}, 1},
                    AudioContest{"more channels", {64, 48000, 2, 9}, {64, 48000, 6, 1}, 2},
                    AudioContest{"fewer channels", {64, 48000, 2, 1}, {64, 48000, 1, 9}, 1},
                    AudioContest{"longer", {64, 48000, 2, 8}, {64, 48000, 2, 9}, 2},
                    AudioContest{"all equal", {64, 48000, 2, 9}, {64, 48000, 2, 9}, 1}));

// ---------------------------------------------------------------------------------------------
// Number of channels.

TEST_F(FFMpegDecoderCoreStreams, EighteenChannelsAreAccepted)
{
    for (const char* clip : {"channels_18.mkv", "channels_18.wav"}) {
        FFMpegDecoderCore many;
        ASSERT_EQ(many.initWithUrl(clipPath(clip), ""), 0) << clip;
        EXPECT_EQ(many.m_audioChannels, 18u);
        EXPECT_EQ(many.m_audioFrameBits, 18u * 16u);
        const auto samples = readSamples(many);
        unsigned int bytes = 0;
        for (const auto& sample : samples) {
            bytes += sample.size;
        }
        EXPECT_EQ(bytes, 16000u * 18u * 2u) << clip;
    }
}

TEST_F(FFMpegDecoderCoreStreams, NineteenChannelsAreRefused)
{
    for (const char* clip : {"channels_19.mkv", "channels_19.wav"}) {
        log.clear();
        FFMpegDecoderCore tooMany;
        EXPECT_EQ(tooMany.initWithUrl(clipPath(clip), ""), FFMpegDecoderCore::NothingToPlay)
            << clip;
        EXPECT_EQ(tooMany.m_audioStream, nullptr);
        EXPECT_TRUE(wrote(LOGLEVEL_WARN, "FFMpegDecoderCore::initFormatStreams : audio stream - "
                                         "invalid channels value 19"));
        EXPECT_EQ(log.count(" *** audio stream chosen ***"), 0);
    }
}

TEST_F(FFMpegDecoderCoreStreams, MediumWhoseOnlyAudioIsRefusedFailsDespiteGoodVideo)
{
    EXPECT_EQ(open("channels_19_video.mkv"), FFMpegDecoderCore::NothingToPlay);
    EXPECT_EQ(core.m_videoStreamIndex, 0);
}

TEST_F(FFMpegDecoderCoreStreams, RefusedWinnerLeavesTheAudioThatWasChosenBefore)
{
    ASSERT_EQ(openChanged("two_audio.ts", "mpegts",
                          [](AVFormatContext& context) {
                              setSound(context, 1, 64000, 48000, 1);
                              setSound(context, 2, 64000, 48000, 19);
                          }),
              0);
    EXPECT_EQ(core.m_audioStreamIndex, 1);
    EXPECT_EQ(core.m_audioChannels, 1u);
}

// ---------------------------------------------------------------------------------------------
// Set-up of video.

TEST_F(FFMpegDecoderCoreStreams, VideoWithoutSizeCountsAs320By240)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 40; ++i) {
        medium.video(40 * i, true, "these are no pictures").audio(40 * i);
    }
    MemorySource source(medium.bytes());
    ASSERT_EQ(source.open(core, "flv"), 0);
    ASSERT_NE(core.m_videoStream, nullptr);
    EXPECT_EQ(core.m_videoStream->codecpar->width, 0);
    EXPECT_EQ(core.m_outWidth, 320u);
    EXPECT_EQ(core.m_outHeight, 240u);
    EXPECT_EQ(core.m_srcWidth, 320u);
    EXPECT_EQ(core.m_srcHeight, 240u);
    EXPECT_EQ(core.m_videoFrameSize, 320u * 240u * 2u);
    // The codec itself has that size now, which the description of the input tells.
    OutputStreamRecord record;
    core.getInputStreamDescription(&record);
    EXPECT_EQ(record.video.width, 320);
    EXPECT_EQ(record.video.height, 240);
    core.close();
}

TEST_F(FFMpegDecoderCoreStreams, VideoWithoutPixelFormatCountsAs320By240)
{
    core.skipVideoDecoding();
    ASSERT_EQ(openChanged("odd_175x143.avi", "avi",
                          [](AVFormatContext& context) {
                              codecpar(context, 0).codec_id = AV_CODEC_ID_NONE;
                              codecpar(context, 0).format = AV_PIX_FMT_NONE;
                          }),
              0);
    EXPECT_EQ(core.m_outWidth, 320u);
    EXPECT_EQ(core.m_outHeight, 240u);
    OutputStreamRecord record;
    core.getInputStreamDescription(&record);
    EXPECT_EQ(record.video.width, 320);
    EXPECT_EQ(record.video.height, 240);
}

TEST_F(FFMpegDecoderCoreStreams, SizeAndRateOfTheRawPicturesAreComputed)
{
    ASSERT_EQ(open("h264_444_175x143.mp4"), 0);
    EXPECT_EQ(core.m_outWidth, 175u);
    EXPECT_EQ(core.m_outHeight, 143u);
    EXPECT_EQ(core.m_outPixelFormat, 5);
    EXPECT_EQ(core.m_videoBitsPerPixel, 1u);
    EXPECT_EQ(core.m_videoFrameSize, (143u * 175u * 16u) >> 3);
    EXPECT_EQ(core.m_fps, 25.0);
    EXPECT_EQ(core.m_videoBitrate, 143u * 175u * 2u * 25u);
}

TEST_F(FFMpegDecoderCoreStreams, RawRateIsClippedTo32Bits)
{
    ASSERT_EQ(openChanged("flv1_mp3.flv", "flv",
                          [](AVFormatContext& context) {
                              for (unsigned int i = 0; i < context.nb_streams; ++i) {
                                  if (codecpar(context, i).codec_type == AVMEDIA_TYPE_VIDEO) {
                                      codecpar(context, i).width = 8000;
                                      codecpar(context, i).height = 8000;
                                      context.streams[i]->r_frame_rate = {120, 1};
                                  }
                              }
                          }),
              0);
    EXPECT_EQ(core.m_videoFrameSize, 128000000u);
    EXPECT_EQ(core.m_videoBitrate, 4294967295u);
}

TEST_F(FFMpegDecoderCoreStreams, CodecSetUpIsSentForMpeg4AndH264)
{
    for (const auto& [clip, sends] : {std::pair{"h264_aac.mp4", true},
                                      {"mpeg4_mp3.avi", true},
                                      {"flv1_mp3.flv", false},
                                      {"hevc_aac.mp4", false},
                                      {"mpeg2_mp2.mpg", false}}) {
        FFMpegDecoderCore any;
        ASSERT_EQ(any.initWithUrl(clipPath(clip), ""), 0);
        EXPECT_EQ(any.m_sendExtradata, sends) << clip;
    }
}

TEST_F(FFMpegDecoderCoreStreams, CodecSetUpIsSentForWmv3)
{
    core.skipVideoDecoding();
    ASSERT_EQ(openChanged("wmv2_wma2.asf", "asf",
                          [](AVFormatContext& context) {
                              for (unsigned int i = 0; i < context.nb_streams; ++i) {
                                  if (codecpar(context, i).codec_type == AVMEDIA_TYPE_VIDEO) {
                                      codecpar(context, i).codec_id = AV_CODEC_ID_WMV3;
                                  }
                              }
                          }),
              0);
    ASSERT_NE(core.m_videoStream, nullptr);
    EXPECT_TRUE(core.m_sendExtradata);
}

// ---------------------------------------------------------------------------------------------
// Frame rate.

namespace {

class FFMpegDecoderCoreFrameRate : public FFMpegDecoderCoreStreams
{
protected:
    void openWithRate(AVRational rate)
    {
        ASSERT_EQ(openChanged("h264_aac.mkv", "matroska",
                              [rate](AVFormatContext& context) {
                                  context.streams[0]->r_frame_rate = rate;
                              }),
                  0);
    }
};

} // namespace

TEST_F(FFMpegDecoderCoreFrameRate, OfUpToOneHundredAndTwentyIsFinal)
{
    openWithRate({120, 1});
    EXPECT_EQ(core.m_fps, 120.0);
    EXPECT_EQ(log.count("fps to"), 0);
}

TEST_F(FFMpegDecoderCoreFrameRate, MayBeAFraction)
{
    openWithRate({30000, 1001});
    EXPECT_EQ(core.m_fps, 30000.0 / 1001.0);
    EXPECT_EQ(log.count("fps to"), 0);
}

TEST_F(FFMpegDecoderCoreFrameRate, OfOneThousandIsCorrectedByTheTimeBaseOfTheCodec)
{
    openWithRate({1000, 1});
    EXPECT_EQ(core.m_fps, 25.0);
    EXPECT_TRUE(wrote(LOGLEVEL_WARN, "FFMpegDecoderCore::initFormatStreams Correcting fps to "
                                     "25.000000, r_frame_rate returned 1000.000000"));
    EXPECT_EQ(log.count("Default fps"), 0);
}

TEST_F(FFMpegDecoderCoreFrameRate, JustAboveTheLimitIsCorrected)
{
    openWithRate({12001, 100});
    EXPECT_EQ(core.m_fps, 25.0);
}

TEST_F(FFMpegDecoderCoreFrameRate, ThatIsUnknownIsCorrected)
{
    openWithRate({0, 0});
    EXPECT_EQ(core.m_fps, 25.0);
    EXPECT_TRUE(wrote(LOGLEVEL_WARN, "FFMpegDecoderCore::initFormatStreams Correcting fps to "
                                     "25.000000, r_frame_rate returned 0.000000"));
}

TEST_F(FFMpegDecoderCoreFrameRate, ThatIsNegativeIsCorrected)
{
    openWithRate({-25, 1});
    EXPECT_EQ(core.m_fps, 25.0);
    EXPECT_TRUE(wrote(LOGLEVEL_WARN, "FFMpegDecoderCore::initFormatStreams Correcting fps to "
                                     "25.000000, r_frame_rate returned -25.000000"));
}

TEST_F(FFMpegDecoderCoreFrameRate, IsThirtyWhenTheCodecsTimeBaseIsOfNoUseEither)
{
    // Its decoder knows no rate, so its time base is the container's: 1/1000.
    ASSERT_EQ(openChanged("av1.mkv", "matroska",
                          [](AVFormatContext& context) {
                              context.streams[0]->r_frame_rate = {1000, 1};
                          }),
              0);
    EXPECT_EQ(core.m_fps, 30.0);
    EXPECT_TRUE(wrote(LOGLEVEL_WARN, "FFMpegDecoderCore::initFormatStreams Correcting fps to "
                                     "500.000000, r_frame_rate returned 1000.000000"));
    EXPECT_TRUE(wrote(LOGLEVEL_WARN, "FFMpegDecoderCore::initFormatStreams Default fps to "
                                     "30.000000, fps was 500.000000"));
}

// ---------------------------------------------------------------------------------------------
// Probing, names.

TEST_F(FFMpegDecoderCoreStreams, NameOfTheTransportStreamDemuxerIsNoted)
{
    ASSERT_EQ(open("h264_aac.ts"), 0);
    EXPECT_TRUE(core.m_isMpegTs);
    FFMpegDecoderCore other;
    ASSERT_EQ(other.initWithUrl(clipPath("h264_aac.mp4"), ""), 0);
    EXPECT_FALSE(other.m_isMpegTs);
}

TEST_F(FFMpegDecoderCoreStreams, ProbingLosesNoPacket)
{
    // These demuxers' streams are decoded before they count as known.
    for (const char* clip : {"h264_aac.mp4", "mpeg4_bframes.mp4", "hevc_aac.mp4", "mpeg1_mp2.mpg",
                             "h264_infinite_gop.mp4", "aac.m4a"}) {
        FFMpegDecoderCore copying;
        copying.skipVideoDecoding();
        copying.skipAudioDecoding();
        ASSERT_EQ(copying.initWithUrl(clipPath(clip), ""), 0);
        copying.m_sendExtradata = false;
        const auto samples = readSamples(copying);
        const auto packets = readClipPackets(clipPath(clip));
        // Copied media are shifted until the first picture's decoding time is not negative; what
        // lies before 0 even then only primes the decoder.
        const auto video = packets.video();
        const double shift =
            video.empty()
                ? 0.0
                : std::max(0.0, -static_cast<double>(video[0].dts) * av_q2d(packets.videoTimeBase));
        std::size_t priming = 0;
        for (const auto& packet : packets.audio()) {
            const double time =
                static_cast<double>(packet.dts) * av_q2d(packets.audioTimeBase) + shift;
            priming += time < 0 ? 1 : 0;
        }
        EXPECT_EQ(videoOf(samples).size(), packets.video().size()) << clip;
        EXPECT_EQ(audioOf(samples).size(), packets.audio().size() - priming) << clip;
    }
}

TEST_F(FFMpegDecoderCoreStreams, NamesComeFromTheContainer)
{
    ASSERT_EQ(open("h264_aac.mp4"), 0);
    MediumRecord record;
    core.getMediumDescription(&record);
    EXPECT_EQ(record.title, "Test Film");
    EXPECT_EQ(record.artist, "The Makers");
    EXPECT_EQ(record.album, "First Reel");
}

TEST_F(FFMpegDecoderCoreStreams, NamesComeFromTheStreamWhereTheContainerHasNone)
{
    for (const char* clip : {"vorbis.ogg", "opus.ogg", "theora_vorbis.ogv"}) {
        FFMpegDecoderCore ogg;
        ASSERT_EQ(ogg.initWithUrl(clipPath(clip), ""), 0);
        MediumRecord record;
        ogg.getMediumDescription(&record);
        EXPECT_EQ(record.title, "Test Film") << clip;
        EXPECT_EQ(record.artist, "The Makers") << clip;
    }
}

TEST_F(FFMpegDecoderCoreStreams, NamesThatAreKnownAlreadyStay)
{
    core.updateMetadata({{"title", "Known"}});
    ASSERT_EQ(open("h264_aac.mp4"), 0);
    MediumRecord record;
    core.getMediumDescription(&record);
    EXPECT_EQ(record.title, "Known");
    EXPECT_EQ(record.artist, "The Makers");
}
