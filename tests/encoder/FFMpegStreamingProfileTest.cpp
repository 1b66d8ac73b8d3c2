#include "encoder/FFMpegStreamingProfile.h"

#include "plugin/RTPSamplePackets.h"
#include "plugin/SimpleSamplePacket.h"
#include "tests/encoder/OutputSession.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

using namespace zel::streamer;
using zel::test::OutputSession;

namespace {

static_assert(!std::is_polymorphic_v<FFMpegStreamingProfile>);

/// A raw input of both kinds and a plain request for both.
OutputSession rawSession()
{
    OutputSession session;
    session.inputAudio("raw");
    session.inputVideo("raw");
    session.requestAudio("ac3", 128000);
    session.requestVideo("mpeg4", 500000);
    session.requestFormat("mkv");
    return session;
}

std::unique_ptr<FFMpegStreamingProfile> withOption(OutputSession& session, const char* key,
                                                   const char* value)
{
    session.options.set(key, value);
    return session.profile();
}

struct OptionCase
{
    const char* text;
    double expected;
};

/// Each text in turn as the option's value.
template <class Value>
void expectOption(const char* key, Value (FFMpegStreamingProfile::*accessor)() const,
                  const std::vector<OptionCase>& cases)
{
    for (const OptionCase& option : cases) {
        OutputSession session = rawSession();
        const auto profile = withOption(session, key, option.text);
        ASSERT_NE(profile, nullptr);
        EXPECT_EQ((*profile.*accessor)(), static_cast<Value>(option.expected))
            << key << "=" << option.text;
    }
}

const std::vector<OptionCase> oneTo31 = {
    {"1", 1},   {"2", 2},  {"30", 30},  {"31", 31},
    {"32", 0},  {"40", 0}, {"0", 0},    {"-1", 0},
    {"-31", 0}, {"", 0},   {"many", 0}, {" 7 ", 7},
    {"8x", 8},  {"+9", 9}, {"3.9", 3},  {"99999999999999999999", 0},
};

const std::vector<OptionCase> zeroToOne = {
    {"0", 0},      {"0.25", 0.25}, {"1", 1},     {"1.0", 1},  {"1.01", 0}, {"2", 0},
    {"-0.01", 0},  {"-1", 0},      {"nan", 0},   {"inf", 0},  {"", 0},     {"half", 0},
    {"0.5s", 0.5}, {"5e-1", 0.5},  {"1e300", 0}, {"-inf", 0},
};

const std::vector<OptionCase> flags = {
    {"1", 1}, {"0", 0}, {"2", 1}, {"-1", 1}, {"true", 0}, {"", 0}, {"4294967296", 1},
};

const std::vector<OptionCase> integers = {
    {"0", 0},
    {"4000", 4000},
    {"-5", -5},
    {"", 0},
    {"x", 0},
    {"12 000", 12},
    {"2147483647", 2147483647},
    {"2147483648", 2147483647},
    {"-99999999999999999999", -2147483648.0},
};

/// The class of packets for one audio codec of the output.
const std::type_info& packetClass(const char* codec, const char* latm, PacketType::Enum type)
{
    OutputSession session = rawSession();
    session.options.set("audioUseLATM", latm);
    session.requestAudio(codec, 64000);
    SimpleSamplePacket* packet = session.profile()->getSamplePacket(type);
    const std::type_info& result = typeid(*packet);
    EXPECT_EQ(packet->getLength(), 0);
    EXPECT_EQ(packet->getBuffer(), nullptr);
    EXPECT_EQ(packet->getType(), PacketType::None);
    packet->release();
    return result;
}

} // namespace

TEST(FFMpegStreamingProfile, EmptyOptionMapGivesTheDefaults)
{
    const OutputSession session = rawSession();
    const auto profile = session.profile();
    ASSERT_NE(profile, nullptr);
    EXPECT_EQ(profile->options(), &session.options);
    EXPECT_EQ(profile->medium(), &session.medium);
    EXPECT_EQ(profile->inputStream(), &session.input.stream);
    EXPECT_EQ(profile->outputStream(), &session.request.output);
    EXPECT_TRUE(profile->audioUseLATM());
    EXPECT_EQ(profile->maxDelay(), 1.0F);
    EXPECT_EQ(profile->preload(), 0.5F);
    EXPECT_FALSE(profile->fallbackStream());
    EXPECT_EQ(profile->lowTotalBitrate(), 128000);
    EXPECT_EQ(profile->sessionID(), 0);
    EXPECT_EQ(profile->qMin(), 0);
    EXPECT_EQ(profile->qMax(), 0);
    EXPECT_EQ(profile->qDiffMax(), 0);
    EXPECT_EQ(profile->qCompress(), 0.0F);
    EXPECT_EQ(profile->qBlur(), 0.0F);
    EXPECT_EQ(profile->motionEstimationMethod(), 5);
    EXPECT_EQ(profile->videoBitrateTolerance(), 0);
    EXPECT_EQ(profile->audioBitrateTolerance(), 0);
    EXPECT_FALSE(profile->useConstantBitrate());
    EXPECT_TRUE(profile->sameFrameRate());
    EXPECT_FALSE(profile->audioPassthrough());
    EXPECT_FALSE(profile->videoPassthrough());
}

TEST(FFMpegStreamingProfile, MissingOptionMapGivesTheDefaults)
{
    const OutputSession session = rawSession();
    const std::unique_ptr<FFMpegStreamingProfile> profile(FFMpegStreamingProfile::createProfile(
        nullptr, &session.medium, &session.input, &session.request));
    ASSERT_NE(profile, nullptr);
    EXPECT_EQ(profile->options(), nullptr);
    EXPECT_TRUE(profile->audioUseLATM());
    EXPECT_EQ(profile->maxDelay(), 1.0F);
    EXPECT_EQ(profile->motionEstimationMethod(), 5);
    EXPECT_EQ(profile->lowTotalBitrate(), 128000);
}

TEST(FFMpegStreamingProfile, CompressedVideoOfTheRequestedCodecIsCopied)
{
    OutputSession session = rawSession();
    session.inputVideo("h264");
    session.requestVideo("h264", 500000);
    const auto profile = session.profile();
    ASSERT_NE(profile, nullptr);
    EXPECT_TRUE(profile->videoPassthrough());
    EXPECT_FALSE(profile->audioPassthrough());
    EXPECT_STREQ(session.video().getCodec(), "h264Empty");
}

TEST(FFMpegStreamingProfile, CompressedVideoOfAnotherCodecGivesNoProfile)
{
    OutputSession session = rawSession();
    session.inputVideo("h264");
    session.requestVideo("wmv9", 500000);
    EXPECT_EQ(session.profile(), nullptr);
    EXPECT_STREQ(session.video().getCodec(), "wmv9") << "a refused request is left as it was";
}

TEST(FFMpegStreamingProfile, CompressedAudioOfTheRequestedCodecIsCopied)
{
    OutputSession session = rawSession();
    session.inputAudio("AAC");
    session.requestAudio("aac", 128000, 0, 0);
    const auto profile = session.profile();
    ASSERT_NE(profile, nullptr);
    EXPECT_TRUE(profile->audioPassthrough());
    EXPECT_FALSE(profile->videoPassthrough());
    EXPECT_EQ(session.audio().sampleRate, 0) << "copied audio is not adjusted";
    EXPECT_EQ(session.audio().channels, 0);
}

TEST(FFMpegStreamingProfile, CompressedAudioOfAnotherCodecGivesNoProfile)
{
    OutputSession session = rawSession();
    session.inputAudio("mp3");
    session.requestAudio("aac", 128000);
    EXPECT_EQ(session.profile(), nullptr);
}

TEST(FFMpegStreamingProfile, RequestedCodecsAreComparedAsTheHostNamesThem)
{
    OutputSession session = rawSession();
    session.inputVideo("wmv9");
    session.requestVideo("wmv2", 500000); // the same to FFmpeg
    EXPECT_EQ(session.profile(), nullptr);
}

TEST(FFMpegStreamingProfile, RawInputIsEncodedToAnyCodec)
{
    for (const char* codec : {"h264", "wmv9", "raw", "RAW", "none", ""}) {
        OutputSession session = rawSession();
        session.inputVideo("Raw");
        session.inputAudio("RAW");
        session.requestVideo(codec, 500000);
        session.requestAudio(codec, 64000);
        const auto profile = session.profile();
        ASSERT_NE(profile, nullptr) << codec;
        EXPECT_FALSE(profile->videoPassthrough()) << codec;
        EXPECT_FALSE(profile->audioPassthrough()) << codec;
    }
}

TEST(FFMpegStreamingProfile, AbsentInputStreamIsNoMismatch)
{
    OutputSession session = rawSession();
    session.inputVideo("h264");
    session.inputAudio("mp3");
    session.input.stream.videoPresent = false;
    session.input.stream.audioPresent = false;
    const auto profile = session.profile();
    ASSERT_NE(profile, nullptr);
    EXPECT_FALSE(profile->videoPassthrough());
    EXPECT_FALSE(profile->audioPassthrough());
}

TEST(FFMpegStreamingProfile, FlagsAreTrueForAnyNumberButZero)
{
    expectOption("audioUseLATM", &FFMpegStreamingProfile::audioUseLATM, flags);
    expectOption("fallbackStream", &FFMpegStreamingProfile::fallbackStream, flags);
    expectOption("useConstantBitrate", &FFMpegStreamingProfile::useConstantBitrate, flags);
}

TEST(FFMpegStreamingProfile, IntegersAreTakenAsFarAsTheyCanBeRead)
{
    expectOption("sessionID", &FFMpegStreamingProfile::sessionID, integers);
    expectOption("videoBitrateTolerance", &FFMpegStreamingProfile::videoBitrateTolerance, integers);
    expectOption("audioBitrateTolerance", &FFMpegStreamingProfile::audioBitrateTolerance, integers);
    expectOption("videoAudioBitrateTolerance", &FFMpegStreamingProfile::audioBitrateTolerance,
                 integers);
}

TEST(FFMpegStreamingProfile, QuantiserLimitsOutOfRangeCountAsUnset)
{
    expectOption("encoderQMin", &FFMpegStreamingProfile::qMin, oneTo31);
    expectOption("encoderQMax", &FFMpegStreamingProfile::qMax, oneTo31);
}

TEST(FFMpegStreamingProfile, QuantiserDifferenceBelowThreeCountsAsUnset)
{
    expectOption("encoderQDiffMax", &FFMpegStreamingProfile::qDiffMax,
                 {{"2", 0}, {"1", 0}, {"3", 3}, {"4", 4}, {"31", 31}, {"32", 0}, {"-3", 0}});
}

TEST(FFMpegStreamingProfile, QuantiserCurveOutOfRangeCountsAsUnset)
{
    expectOption("encoderQCompress", &FFMpegStreamingProfile::qCompress, zeroToOne);
    expectOption("encoderQBlur", &FFMpegStreamingProfile::qBlur, zeroToOne);
}

TEST(FFMpegStreamingProfile, EachMotionEstimationNameHasItsNumber)
{
    expectOption("encoderMotionEstimationMethod", &FFMpegStreamingProfile::motionEstimationMethod,
                 {{"default", 5},
                  {"ZERO", 1},
                  {"FULL", 2},
                  {"LOG", 3},
                  {"PHODS", 4},
                  {"EPZS", 5},
                  {"HEX", 7},
                  {"UMH", 8},
                  {"ITER", 9},
                  {"TESA", 10},
                  {"zero", 1},
                  {"Hex", 7},
                  {"", 5},
                  {"10", 5},
                  {"HEXA", 5},
                  {"HE", 5},
                  {" UMH", 5},
                  {"DEFAULT", 5}});
}

TEST(FFMpegStreamingProfile, DelaysAreTakenAsTheyStand)
{
    const std::vector<OptionCase> delays = {{"0", 0}, {"0.7", 0.7}, {"12", 12},   {"-1.5", -1.5},
                                            {"", 0},  {"soon", 0},  {"2.5s", 2.5}};
    expectOption("encoderPreload", &FFMpegStreamingProfile::preload, delays);
    expectOption("encoderMaxDelay", &FFMpegStreamingProfile::maxDelay, delays);
    expectOption("encoderMaxDelay", &FFMpegStreamingProfile::maxDelay,
                 {{"1e300", std::numeric_limits<float>::max()}});
}

TEST(FFMpegStreamingProfile, MaximumDelayIsShorterForFlv)
{
    for (const char* format : {"flv", "FLV"}) {
        OutputSession session = rawSession();
        session.requestFormat(format);
        EXPECT_EQ(session.profile()->maxDelay(), 0.5F) << format;
        EXPECT_EQ(withOption(session, "encoderMaxDelay", "0.8")->maxDelay(), 0.8F) << format;
    }
    for (const char* format : {"fla", "mpegts", "bdlive", ""}) {
        OutputSession session = rawSession();
        session.requestFormat(format);
        EXPECT_EQ(session.profile()->maxDelay(), 1.0F) << format;
    }
}

TEST(FFMpegStreamingProfile, AudioToleranceBesideVideoReplacesTheOther)
{
    OutputSession session = rawSession();
    session.options.set("audioBitrateTolerance", "1000");
    session.options.set("videoAudioBitrateTolerance", "2000");
    EXPECT_EQ(session.profile()->audioBitrateTolerance(), 2000);
    session.request.output.videoPresent = false;
    EXPECT_EQ(session.profile()->audioBitrateTolerance(), 1000);
}

TEST(FFMpegStreamingProfile, LowTotalBitrateIsLowVideoPlusSettledAudio)
{
    OutputSession session = rawSession();
    session.requestAudio("ac3", 100000); // the ladder makes it 96000
    session.options.set("lowVideoBitrate", "64000");
    EXPECT_EQ(session.profile()->lowTotalBitrate(), 96000) << "not a fallback stream";
    EXPECT_EQ(withOption(session, "fallbackStream", "1")->lowTotalBitrate(), 160000);
    session.options.values.erase("lowVideoBitrate");
    EXPECT_EQ(session.profile()->lowTotalBitrate(), 96000) << "no such option";
    EXPECT_EQ(withOption(session, "lowVideoBitrate", "none")->lowTotalBitrate(), 96000);
    EXPECT_EQ(withOption(session, "lowVideoBitrate", "2147483647")->lowTotalBitrate(), 2147483647);
}

TEST(FFMpegStreamingProfile, LowTotalBitrateTakesCopiedAudioAsItIs)
{
    OutputSession session = rawSession();
    session.inputAudio("aac");
    session.requestAudio("aac", 131072);
    EXPECT_EQ(session.profile()->lowTotalBitrate(), 131072);
}

TEST(FFMpegStreamingProfile, CodecsTakeTheirEncodersNames)
{
    struct Row
    {
        const char* asked;
        const char* expected;
    };
    const Row rows[] = {
        {"wmv9", "wmv2"},
        {"WMV", "wmv2"},
        {"wmv8", "wmv2"},
        {"wmv7", "wmv2"},
        {"wma", "wmav2"},
        {"mp3", "libmp3lame"},
        {"amr", "libopencore_amrwb"},
        {"libamr", "libopencore_amrwb"},
        {"amr_nb", "libopencore_amrnb"},
        {"mpeg2", "mpeg2video"},
        {"svq", "flv"},
        {"H264", "h264Empty"},
        {"aac", "aac"},
        {"Mpeg4", "Mpeg4"},
        {"none", "none"},
        {"", ""},
    };
    for (const Row& row : rows) {
        OutputSession session = rawSession();
        session.requestAudio(row.asked, 64000);
        session.requestVideo(row.asked, 500000);
        ASSERT_NE(session.profile(), nullptr);
        EXPECT_STREQ(session.video().getCodec(), row.expected) << row.asked;
        session.request.output.videoPresent = true; // "mpeg2" without video changes the audio
        session.requestAudio(row.asked, 64000);
        session.requestVideo(row.asked, 500000);
        ASSERT_NE(session.profile(), nullptr);
        EXPECT_STREQ(session.audio().getCodec(), row.expected) << row.asked;
    }
}

TEST(FFMpegStreamingProfile, MkvBecomesMatroska)
{
    for (const char* format : {"mkv", "MKV"}) {
        OutputSession session = rawSession();
        session.requestFormat(format);
        ASSERT_NE(session.profile(), nullptr);
        EXPECT_EQ(session.format(), "matroska");
    }
}

TEST(FFMpegStreamingProfile, BdliveBecomesMpegtsAndTheRequestKeepsIt)
{
    OutputSession session = rawSession();
    session.requestFormat("BDLive");
    ASSERT_NE(session.profile(), nullptr);
    EXPECT_EQ(session.format(), "mpegts");
    EXPECT_STREQ(session.request.getFormat(), "BDLive");
    EXPECT_EQ(session.audio().sampleRate, 48000) << "the new name counts for the audio";
    EXPECT_EQ(session.audio().channels, 2);
}

TEST(FFMpegStreamingProfile, OtherFormatsStay)
{
    for (const char* format : {"flv", "FLA", "dvd", "mpegts", "asf", "matroska", "mp3", ""}) {
        OutputSession session = rawSession();
        session.requestFormat(format);
        ASSERT_NE(session.profile(), nullptr);
        EXPECT_EQ(session.format(), format);
    }
}

TEST(FFMpegStreamingProfile, MpegWithVideoRunsOnItsOwnCodecsAt24Frames)
{
    for (const char* format : {"mpeg", "MPEG"}) {
        OutputSession session = rawSession();
        session.requestFormat(format);
        session.requestAudio("mp3", 128000);
        session.requestVideo("h264", 500000, 29.97);
        ASSERT_NE(session.profile(), nullptr);
        EXPECT_EQ(session.format(), format);
        EXPECT_STREQ(session.audio().getCodec(), "mp2");
        EXPECT_STREQ(session.video().getCodec(), "mpeg1video");
        EXPECT_EQ(session.video().getFrameRate(), 24.0);
    }
}

TEST(FFMpegStreamingProfile, MpegWithoutVideoBecomesMp3)
{
    OutputSession session = rawSession();
    session.requestFormat("mpeg");
    session.requestAudio("mp3", 128000);
    session.requestVideo("mpeg4", 500000, 29.97);
    session.request.output.videoPresent = false;
    ASSERT_NE(session.profile(), nullptr);
    EXPECT_EQ(session.format(), "mp3");
    EXPECT_STREQ(session.audio().getCodec(), "libmp3lame");
    EXPECT_STREQ(session.video().getCodec(), "none");
    EXPECT_EQ(session.video().getFrameRate(), 29.97);
}

TEST(FFMpegStreamingProfile, MpegWithoutVideoAndWithoutMp3StaysMpeg)
{
    OutputSession session = rawSession();
    session.requestFormat("mpeg");
    session.requestAudio("aac", 128000);
    session.request.output.videoPresent = false;
    ASSERT_NE(session.profile(), nullptr);
    EXPECT_EQ(session.format(), "mpeg");
    EXPECT_STREQ(session.audio().getCodec(), "mp2");
    EXPECT_STREQ(session.video().getCodec(), "mpeg1video");
    EXPECT_EQ(session.audio().sampleRate, 0) << "no longer set up as aac";
}

TEST(FFMpegStreamingProfile, Mpeg2CodecWithoutVideoMakesTheAudioMp2)
{
    OutputSession session = rawSession();
    session.requestVideo("mpeg2", 500000);
    session.requestAudio("mp3", 128000);
    session.request.output.videoPresent = false;
    ASSERT_NE(session.profile(), nullptr);
    EXPECT_STREQ(session.audio().getCodec(), "mp2");
    EXPECT_STREQ(session.video().getCodec(), "mpeg2video");
}

TEST(FFMpegStreamingProfile, Mpeg2CodecWithVideoLeavesTheAudio)
{
    OutputSession session = rawSession();
    session.requestVideo("mpeg2", 500000);
    session.requestAudio("mp3", 128000);
    ASSERT_NE(session.profile(), nullptr);
    EXPECT_STREQ(session.audio().getCodec(), "libmp3lame");
}

TEST(FFMpegStreamingProfile, NamesAreFixedForCopiedStreamsToo)
{
    OutputSession session = rawSession();
    session.inputAudio("mp3");
    session.inputVideo("wmv9");
    session.requestAudio("mp3", 128000);
    session.requestVideo("wmv9", 500000, 29.97);
    session.requestFormat("mkv");
    ASSERT_NE(session.profile(), nullptr);
    EXPECT_STREQ(session.audio().getCodec(), "libmp3lame");
    EXPECT_STREQ(session.video().getCodec(), "wmv2");
    EXPECT_EQ(session.format(), "matroska");
}

namespace {

/// What is asked for with open channels and rate, and what comes of it. Rate 0: left open.
struct LadderRow
{
    int asked;
    int bitrate;
    int channels;
    int sampleRate;
    int aacBitrate;
    int aacSampleRate;
    int aacRTPBitrate;
};

/// Both edges of every step.
const LadderRow ladder[] = {
    {2147483647, 320000, 2, 0, 192000, 44100, 192000},
    {320000, 320000, 2, 0, 192000, 44100, 192000},
    {319999, 192000, 2, 0, 192000, 44100, 192000},
    {192000, 192000, 2, 0, 192000, 44100, 192000},
    {191999, 160000, 2, 0, 160000, 44100, 160000},
    {160000, 160000, 2, 0, 160000, 44100, 160000},
    {159999, 128000, 2, 0, 128000, 44100, 120000},
    {128000, 128000, 2, 0, 128000, 44100, 120000},
    {127999, 96000, 2, 0, 96000, 44100, 90000},
    {96000, 96000, 2, 0, 96000, 44100, 90000},
    {95999, 80000, 2, 0, 80000, 44100, 76000},
    {80000, 80000, 2, 0, 80000, 44100, 76000},
    {79999, 64000, 2, 0, 64000, 44100, 58000},
    {64000, 64000, 2, 0, 64000, 44100, 58000},
    {63999, 40000, 2, 32000, 40000, 32000, 36000},
    {40000, 40000, 2, 32000, 40000, 32000, 36000},
    {39999, 32000, 1, 44100, 32000, 16000, 30000},
    {32000, 32000, 1, 44100, 32000, 16000, 30000},
    {31999, 20000, 1, 44100, 20000, 16000, 18000},
    {20000, 20000, 1, 44100, 20000, 16000, 18000},
    {19999, 16000, 1, 16000, 16000, 16000, 14000},
    {16000, 16000, 1, 16000, 16000, 16000, 14000},
    {15999, 12000, 1, 16000, 12000, 16000, 10000},
    {12000, 12000, 1, 16000, 12000, 16000, 10000},
    {11999, 8000, 1, 8000, 8000, 8000, 8000},
    {1, 8000, 1, 8000, 8000, 8000, 8000},
    {0, 8000, 1, 8000, 8000, 8000, 8000},
    {-2147483647 - 1, 8000, 1, 8000, 8000, 8000, 8000},
};

void expectAudio(const char* codec, const char* format, bool rtp, int asked, int bitrate,
                 int channels, int sampleRate)
{
    SCOPED_TRACE(std::string(codec) + " in " + format + (rtp ? " over RTP" : "") + " at " +
                 std::to_string(asked));
    OutputSession session = rawSession();
    session.requestAudio(codec, asked);
    session.requestFormat(format);
    session.request.output.rtp = rtp;
    ASSERT_NE(session.profile(), nullptr);
    EXPECT_EQ(session.audio().bitrate, bitrate);
    EXPECT_EQ(session.audio().channels, channels);
    EXPECT_EQ(session.audio().sampleRate, sampleRate);
}

} // namespace

TEST(FFMpegStreamingProfile, AudioIsForcedOntoTheLadder)
{
    for (const LadderRow& row : ladder) {
        expectAudio("ac3", "mkv", false, row.asked, row.bitrate, row.channels, row.sampleRate);
        expectAudio("ac3", "mkv", true, row.asked, row.bitrate, row.channels, row.sampleRate);
        expectAudio("", "", false, row.asked, row.bitrate, row.channels, row.sampleRate);
    }
}

TEST(FFMpegStreamingProfile, AacHasRatesOfItsOwnOnTheLadder)
{
    for (const LadderRow& row : ladder) {
        expectAudio("aac", "mkv", false, row.asked, row.aacBitrate, row.channels,
                    row.aacSampleRate);
        expectAudio("AAC", "mkv", false, row.asked, row.aacBitrate, row.channels,
                    row.aacSampleRate);
    }
}

TEST(FFMpegStreamingProfile, AacOverRTPHasBitratesOfItsOwnOnTheLadder)
{
    for (const LadderRow& row : ladder) {
        expectAudio("aac", "mkv", true, row.asked, row.aacRTPBitrate, row.channels,
                    row.aacSampleRate);
    }
}

TEST(FFMpegStreamingProfile, LameGoesNoLowerThan16000)
{
    expectAudio("mp3", "mkv", false, 16000, 16000, 1, 16000);
    expectAudio("libmp3lame", "mkv", false, 15000, 16000, 1, 22050);
    expectAudio("mp3", "mkv", false, 12000, 16000, 1, 22050);
    expectAudio("mp3", "mkv", true, 8000, 16000, 1, 22050);
    expectAudio("LIBMP3LAME", "mkv", false, 0, 16000, 1, 22050);
}

TEST(FFMpegStreamingProfile, FlvTakesThreeSampleRates)
{
    for (const char* format : {"flv", "FLV", "fla"}) {
        expectAudio("ac3", format, false, 40000, 40000, 2, 44100); // 32000 on the ladder
        expectAudio("ac3", format, false, 128000, 128000, 2, 44100);
        expectAudio("ac3", format, false, 8000, 8000, 1, 44100);
        expectAudio("mp3", format, false, 8000, 16000, 1, 22050);
        expectAudio("aac", format, false, 20000, 20000, 1, 44100);
    }
}

TEST(FFMpegStreamingProfile, DvdAndTransportStreamsRunAt48000InStereo)
{
    for (const char* format : {"dvd", "DVD", "mpegts", "bdlive"}) {
        expectAudio("ac3", format, false, 8000, 8000, 2, 48000);
        expectAudio("aac", format, false, 128000, 128000, 2, 48000);
        expectAudio("mp3", format, false, 8000, 16000, 2, 48000);
    }
}

TEST(FFMpegStreamingProfile, RequestedChannelsAndRateBeatEveryRule)
{
    struct Row
    {
        const char* codec;
        const char* format;
        int bitrate;
        int expectedBitrate;
    };
    const Row rows[] = {
        {"ac3", "mkv", 20000, 20000},    {"aac", "mkv", 320000, 192000},
        {"mp3", "mkv", 8000, 16000},     {"ac3", "flv", 40000, 40000},
        {"ac3", "fla", 128000, 128000},  {"ac3", "dvd", 128000, 128000},
        {"aac", "bdlive", 64000, 64000},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.codec) + " in " + row.format);
        OutputSession both = rawSession();
        both.requestFormat(row.format);
        both.requestAudio(row.codec, row.bitrate, 6, 32000);
        ASSERT_NE(both.profile(), nullptr);
        EXPECT_EQ(both.audio().bitrate, row.expectedBitrate);
        EXPECT_EQ(both.audio().channels, 6);
        EXPECT_EQ(both.audio().sampleRate, 32000);
    }
}

TEST(FFMpegStreamingProfile, RequestedChannelsAloneLeaveTheRateToTheRules)
{
    OutputSession session = rawSession();
    session.requestAudio("ac3", 20000, 2, 0);
    ASSERT_NE(session.profile(), nullptr);
    EXPECT_EQ(session.audio().bitrate, 20000);
    EXPECT_EQ(session.audio().channels, 2);
    EXPECT_EQ(session.audio().sampleRate, 44100);
}

TEST(FFMpegStreamingProfile, RequestedRateAloneLeavesTheChannelsToTheRules)
{
    OutputSession session = rawSession();
    session.requestAudio("ac3", 20000, 0, 22050);
    ASSERT_NE(session.profile(), nullptr);
    EXPECT_EQ(session.audio().channels, 1);
    EXPECT_EQ(session.audio().sampleRate, 22050);
}

TEST(FFMpegStreamingProfile, NegativeChannelsAndRateCountAsOpen)
{
    OutputSession session = rawSession();
    session.requestFormat("dvd");
    session.requestAudio("ac3", 20000, -1, -44100);
    ASSERT_NE(session.profile(), nullptr);
    EXPECT_EQ(session.audio().channels, 2);
    EXPECT_EQ(session.audio().sampleRate, 48000);
}

TEST(FFMpegStreamingProfile, CopiedAudioKeepsItsValues)
{
    OutputSession session = rawSession();
    session.inputAudio("aac");
    session.requestAudio("aac", 131072, 0, 0);
    session.requestFormat("mpegts");
    session.request.output.rtp = true;
    ASSERT_NE(session.profile(), nullptr);
    EXPECT_EQ(session.audio().bitrate, 131072);
    EXPECT_EQ(session.audio().channels, 0);
    EXPECT_EQ(session.audio().sampleRate, 0);
}

TEST(FFMpegStreamingProfile, OldMpegCodecsAlwaysRunAt24Frames)
{
    for (const char* codec : {"mpeg1video", "mpeg2video", "mpeg2", "MPEG1VIDEO"}) {
        for (const double rate : {0.0, 15.0, 24.0, 25.0, 29.97, 30.0, 60.0}) {
            OutputSession session = rawSession();
            session.requestVideo(codec, 500000, rate);
            ASSERT_NE(session.profile(), nullptr);
            EXPECT_EQ(session.video().getFrameRate(), 24.0) << codec << " at " << rate;
        }
    }
}

TEST(FFMpegStreamingProfile, OtherCodecsKeepTheirFrameRate)
{
    for (const char* codec : {"mpeg4", "flv", "h263", "mjpeg"}) {
        for (const double rate : {0.0, 15.0, 29.97, 60.0}) {
            OutputSession session = rawSession();
            session.requestVideo(codec, 500000, rate);
            ASSERT_NE(session.profile(), nullptr);
            EXPECT_EQ(session.video().getFrameRate(), rate) << codec;
        }
    }
}

TEST(FFMpegStreamingProfile, CopiedVideoKeepsItsFrameRate)
{
    OutputSession session = rawSession();
    session.inputVideo("mpeg2video", 29.97);
    session.requestVideo("mpeg2video", 500000, 29.97);
    const auto profile = session.profile();
    ASSERT_NE(profile, nullptr);
    EXPECT_TRUE(profile->videoPassthrough());
    EXPECT_EQ(session.video().getFrameRate(), 29.97);
    EXPECT_FALSE(profile->sameFrameRate()) << "only encoding asks for it";
}

TEST(FFMpegStreamingProfile, FrameRatesAgreeToAThousandth)
{
    struct Row
    {
        double input;
        double output;
        bool same;
    };
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Row rows[] = {
        {25.0, 25.0, true},
        {25.0, 25.0009, true},
        {25.0, 25.001, false},
        {25.0, 24.9999, false},
        {29.97, 29.9703, true},
        {29.97, 30.0, false},
        {24000.0 / 1001, 23.976, true},
        {0.0, 0.0, true},
        {nan, nan, false},
        {1e300, 1e300, true},
        {1e300, 25.0, false},
    };
    for (const Row& row : rows) {
        OutputSession session = rawSession();
        session.inputVideo("raw", row.input);
        session.requestVideo("mpeg4", 500000, row.output);
        EXPECT_EQ(session.profile()->sameFrameRate(), row.same) << row.input << " " << row.output;
    }
}

TEST(FFMpegStreamingProfile, FrameRateOfOldMpegCodecsIsComparedAsSettled)
{
    OutputSession session = rawSession();
    session.inputVideo("raw", 24.0);
    session.requestVideo("mpeg1video", 500000, 25.0);
    EXPECT_TRUE(session.profile()->sameFrameRate());
    session.inputVideo("raw", 25.0);
    EXPECT_FALSE(session.profile()->sameFrameRate());
}

TEST(FFMpegStreamingProfile, WithoutOutputVideoFrameRatesNeverAgree)
{
    OutputSession session = rawSession();
    session.request.output.videoPresent = false;
    EXPECT_FALSE(session.profile()->sameFrameRate());
}

TEST(FFMpegStreamingProfile, PacketsSuitTheOutputsAudioCodec)
{
    const auto audio = PacketType::Audio;
    EXPECT_EQ(packetClass("amr", "1", audio), typeid(AMRSamplePacket));
    EXPECT_EQ(packetClass("amr_nb", "1", audio), typeid(AMRSamplePacket));
    EXPECT_EQ(packetClass("LIBOPENCORE_AMRNB", "1", audio), typeid(AMRSamplePacket));
    EXPECT_EQ(packetClass("aac", "1", audio), typeid(MP4ALATMSamplePacket));
    EXPECT_EQ(packetClass("Aac", "1", audio), typeid(MP4ALATMSamplePacket));
    EXPECT_EQ(packetClass("aac", "0", audio), typeid(MP4AGENSamplePacket));
    EXPECT_EQ(packetClass("mp3", "1", audio), typeid(SimpleSamplePacket));
    EXPECT_EQ(packetClass("", "1", audio), typeid(SimpleSamplePacket));
}

TEST(FFMpegStreamingProfile, PacketsOfOtherTypesArePlain)
{
    for (const auto type : {PacketType::Video, PacketType::None, PacketType::Multiplexed,
                            PacketType::Notice, PacketType::Metadata}) {
        EXPECT_EQ(packetClass("aac", "1", type), typeid(SimpleSamplePacket)) << type;
        EXPECT_EQ(packetClass("amr", "1", type), typeid(SimpleSamplePacket)) << type;
    }
}

TEST(FFMpegStreamingProfile, SetUpDataGoesIntoTheOutput)
{
    OutputSession session = rawSession();
    const auto profile = session.profile();
    profile->setAudioFormatConfig("1210");
    profile->setVideoFormatConfig("000001b0");
    EXPECT_STREQ(session.audio().getCodecPrivateData(), "1210");
    EXPECT_STREQ(session.video().getCodecPrivateData(), "000001b0");
    profile->setAudioFormatConfig(nullptr);
    profile->setVideoFormatConfig(nullptr);
    EXPECT_STREQ(session.audio().getCodecPrivateData(), "");
    EXPECT_STREQ(session.video().getCodecPrivateData(), "");
}

TEST(FFMpegStreamingProfile, VocabularyIsTheBorders)
{
    using Profile = FFMpegStreamingProfile;
    const CStdStr<char> unknown("Theora");
    EXPECT_STREQ(Profile::zelCodecToFFMpegCodec("mp3", false), "libmp3lame");
    EXPECT_STREQ(Profile::zelCodecToFFMpegCodec("mp3", true), "mp3");
    EXPECT_STREQ(Profile::zelCodecToFFMpegCodec(CStdStr<char>("H264"), false), "h264Empty");
    EXPECT_EQ(Profile::zelCodecToFFMpegCodec(unknown, false), unknown.c_str());
    EXPECT_STREQ(Profile::FFMpegCodecToZelCodec("wmv3"), "wmv9");
    EXPECT_STREQ(Profile::FFMpegCodecToZelCodec(CStdStr<char>("wmav2")), "wma");
    EXPECT_EQ(Profile::FFMpegCodecToZelCodec(unknown), unknown.c_str());
    EXPECT_STREQ(Profile::FFMpegFormatToZelFormat("mov,mp4,m4a,3gp,3g2,mj2"), "mov");
    EXPECT_STREQ(Profile::FFMpegFormatToZelFormat(CStdStr<char>("asf_o")), "asf");
    EXPECT_STREQ(Profile::FFMpegFormatToZelFormat("MOV"), "MOV");
    EXPECT_EQ(Profile::zelToFFmpegPixelFormat(VideoPixelFormat::YUYV422), AV_PIX_FMT_YUYV422);
    EXPECT_EQ(Profile::FFmpegToZelPixelFormat(AV_PIX_FMT_BGRA), VideoPixelFormat::BGRA);
    EXPECT_EQ(Profile::getBitsPerPixels(VideoPixelFormat::YUV420P), 12);
    EXPECT_THROW(Profile::FFmpegToZelPixelFormat(AV_PIX_FMT_NV12), std::logic_error);
}

namespace {

/// Hands out records and texts that are missing.
class Gaps : public OutputStreamDescription,
             public InputStreamDescription,
             public RequestedStreamDescription
{
public:
    AudioPacketDescription* audioRecord = nullptr;
    VideoPacketDescription* videoRecord = nullptr;
    OutputStreamDescription* stream = this;

    bool isMultiplexed() const override { return false; }
    const char* getFormat() const override { return nullptr; }
    int getBitrate() const override { return 0; }
    bool hasAudio() const override { return true; }
    bool hasVideo() const override { return true; }
    void setProperty(const char*, const char*) override {}
    void setMultiplexed(bool) override {}
    void setFormat(const char*) override {}
    bool isRTP() const override { return true; }
    int getRTPPacketSize() const override { return 0; }
    AudioPacketDescription* getAudio() const override { return audioRecord; }
    VideoPacketDescription* getVideo() const override { return videoRecord; }
    void copyTo(OutputStreamDescription*) const override {}
    OutputStreamDescription* getStreamDescription() const override { return stream; }
    OutputStreamDescription* getOutputDescription() const override { return stream; }
};

/// Answers null for its texts.
class NamelessAudio : public zel::host::AudioRecord
{
public:
    const char* getCodec() const override { return nullptr; }
};

class NamelessVideo : public zel::host::VideoRecord
{
public:
    const char* getCodec() const override { return nullptr; }
};

std::unique_ptr<FFMpegStreamingProfile> profileOf(const InputStreamDescription* input,
                                                  const RequestedStreamDescription* requested)
{
    return std::unique_ptr<FFMpegStreamingProfile>(
        FFMpegStreamingProfile::createProfile(nullptr, nullptr, input, requested));
}

} // namespace

TEST(FFMpegStreamingProfile, MissingDescriptionsGiveNoProfile)
{
    const OutputSession session = rawSession();
    Gaps gaps;
    EXPECT_EQ(profileOf(nullptr, nullptr), nullptr);
    EXPECT_EQ(profileOf(&session.input, nullptr), nullptr);
    EXPECT_EQ(profileOf(nullptr, &session.request), nullptr);
    gaps.stream = nullptr;
    EXPECT_EQ(profileOf(&gaps, &session.request), nullptr);
    EXPECT_EQ(profileOf(&session.input, &gaps), nullptr);
}

TEST(FFMpegStreamingProfile, MissingRecordsCountAsAbsentStreams)
{
    Gaps gaps;
    const auto profile = profileOf(&gaps, &gaps);
    ASSERT_NE(profile, nullptr);
    EXPECT_EQ(profile->medium(), nullptr);
    EXPECT_FALSE(profile->audioPassthrough());
    EXPECT_FALSE(profile->videoPassthrough());
    EXPECT_FALSE(profile->sameFrameRate());
    EXPECT_EQ(profile->lowTotalBitrate(), 0);
    profile->setAudioFormatConfig("00");
    profile->setVideoFormatConfig("00");
    SimpleSamplePacket* packet = profile->getSamplePacket(PacketType::Audio);
    EXPECT_EQ(typeid(*packet), typeid(SimpleSamplePacket));
    packet->release();
}

TEST(FFMpegStreamingProfile, CompressedInputWithoutRequestedRecordGivesNoProfile)
{
    OutputSession session = rawSession();
    session.inputVideo("h264");
    Gaps gaps;
    EXPECT_EQ(profileOf(&session.input, &gaps), nullptr);
}

TEST(FFMpegStreamingProfile, MissingTextsCountAsEmpty)
{
    NamelessAudio audio;
    NamelessVideo video;
    Gaps gaps;
    gaps.audioRecord = &audio;
    gaps.videoRecord = &video;
    const auto profile = profileOf(&gaps, &gaps);
    ASSERT_NE(profile, nullptr);
    EXPECT_TRUE(profile->audioPassthrough()) << "both codecs are the empty name";
    EXPECT_TRUE(profile->videoPassthrough());

    const OutputSession session = rawSession();
    const auto encoding = profileOf(&session.input, &gaps);
    ASSERT_NE(encoding, nullptr);
    EXPECT_FALSE(encoding->audioPassthrough());
    EXPECT_EQ(audio.bitrate, 8000);
    EXPECT_EQ(audio.codec, std::nullopt) << "nothing to rename";
}

namespace {

/// Texts of a record that vanish at the next call of a getter or setter of it, however early the
/// border allows.
class FleetingText
{
public:
    const char* give(const char* text)
    {
        vanish();
        m_given = text;
        return m_given.c_str();
    }

    void vanish() { std::fill(m_given.begin(), m_given.end(), '#'); }

private:
    std::string m_given;
};

class FleetingAudio : public zel::host::AudioRecord
{
public:
    const char* getCodec() const override { return m_text.give(AudioRecord::getCodec()); }
    void setCodec(const char* name) override
    {
        m_text.vanish();
        AudioRecord::setCodec(name);
    }
    const char* getCodecPrivateData() const override
    {
        return m_text.give(AudioRecord::getCodecPrivateData());
    }
    void setCodecPrivateData(const char* text) override
    {
        m_text.vanish();
        AudioRecord::setCodecPrivateData(text);
    }

private:
    mutable FleetingText m_text;
};

class FleetingVideo : public zel::host::VideoRecord
{
public:
    const char* getCodec() const override { return m_text.give(VideoRecord::getCodec()); }
    void setCodec(const char* name) override
    {
        m_text.vanish();
        VideoRecord::setCodec(name);
    }

private:
    mutable FleetingText m_text;
};

class FleetingStream : public Gaps
{
public:
    std::string format;

    const char* getFormat() const override { return m_text.give(format.c_str()); }
    void setFormat(const char* name) override
    {
        m_text.vanish();
        format = name;
    }

private:
    mutable FleetingText m_text;
};

} // namespace

TEST(FFMpegStreamingProfile, TextsOfRecordsAreTakenBeforeTheRecordChanges)
{
    FleetingAudio audio;
    audio.codec = "Vorbis of some length, so that it lies on the heap";
    audio.codecPrivateData = "0011223344556677";
    FleetingVideo video;
    video.codec = "h264";
    FleetingStream request;
    request.format = "bdlive";
    request.audioRecord = &audio;
    request.videoRecord = &video;
    const OutputSession session = rawSession();
    const auto profile = profileOf(&session.input, &request);
    ASSERT_NE(profile, nullptr);
    EXPECT_EQ(audio.codec, "Vorbis of some length, so that it lies on the heap");
    EXPECT_EQ(video.codec, "h264Empty");
    EXPECT_EQ(request.format, "mpegts");

    profile->setAudioFormatConfig(audio.getCodecPrivateData());
    EXPECT_EQ(audio.codecPrivateData, "0011223344556677");
}

TEST(FFMpegStreamingProfile, OneRecordMayServeAsInputAndRequest)
{
    FleetingAudio audio;
    audio.codec = "aac";
    FleetingVideo video;
    video.codec = "h264";
    FleetingStream stream;
    stream.audioRecord = &audio;
    stream.videoRecord = &video;
    const auto profile = profileOf(&stream, &stream);
    ASSERT_NE(profile, nullptr);
    EXPECT_TRUE(profile->audioPassthrough());
    EXPECT_TRUE(profile->videoPassthrough());
}
