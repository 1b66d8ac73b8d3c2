#include "encoder/EncoderSettings.h"

#include "tests/encoder/OutputSession.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

using namespace zel::test;

namespace {

/// A session that encodes raw pictures of a size.
OutputSession videoSession(int width = 720, int height = 576, int bitrate = 500000,
                           double frameRate = 25.0)
{
    OutputSession session;
    session.inputVideo("raw");
    session.input.stream.video.width = width;
    session.input.stream.video.height = height;
    session.requestVideo("mpeg4", bitrate, frameRate);
    session.requestFormat("matroska");
    return session;
}

/// A session that copies H.264, which alone has all of the options.
OutputSession h264Session()
{
    OutputSession session = videoSession();
    session.inputVideo("h264");
    session.requestVideo("h264", 500000);
    return session;
}

VideoEncoderSettings videoSettings(const OutputSession& session, bool fallback = false)
{
    return adjustVideoCodecValues(*session.profile(), fallback);
}

/// The settings of the low stream beside another, whose rates add up to 64000.
VideoEncoderSettings smallestFallback(int width, int height)
{
    OutputSession session = videoSession(width, height);
    session.options.set("fallbackStream", "1");
    session.options.set("lowVideoBitrate", "56000");
    session.inputAudio("raw");
    session.requestAudio("ac3", 8000);
    const auto profile = session.profile();
    EXPECT_EQ(profile->lowTotalBitrate(), 64000);
    return adjustVideoCodecValues(*profile, profile->fallbackStream());
}

std::string sizeOf(const VideoEncoderSettings& settings)
{
    return std::to_string(settings.width) + "x" + std::to_string(settings.height);
}

std::string fraction(const AVRational& value)
{
    return std::to_string(value.num) + "/" + std::to_string(value.den);
}

OutputSession audioSession(const char* codec = "aac", int bitrate = 128000, int channels = 2,
                           int sampleRate = 44100)
{
    OutputSession session;
    session.inputAudio("raw");
    session.requestAudio(codec, bitrate, channels, sampleRate);
    session.requestFormat("matroska");
    return session;
}

AudioEncoderSettings audioSettings(const OutputSession& session, AVCodecID codec = AV_CODEC_ID_AAC)
{
    return adjustAudioCodecValues(*session.profile(), codec);
}

/// The settings for a request of exactly this rate, past the profile's ladder.
AudioEncoderSettings amrSettings(AVCodecID codec, int bitrate)
{
    OutputSession session = audioSession("amr", 64000);
    const auto profile = session.profile();
    session.audio().bitrate = bitrate;
    return adjustAudioCodecValues(*profile, codec);
}

std::vector<std::string> textsOf(const std::vector<LogCapture::Line>& lines)
{
    std::vector<std::string> texts;
    for (const LogCapture::Line& line : lines) {
        EXPECT_EQ(line.level, LOGLEVEL_DEBUG) << line.text;
        texts.push_back(line.text);
    }
    return texts;
}

} // namespace

TEST(EncoderSettings, PictureSizeIsTheInputsAndNotTheRequests)
{
    OutputSession session = videoSession(720, 576);
    session.video().width = 320;
    session.video().height = 240;
    EXPECT_EQ(sizeOf(videoSettings(session)), "720x576");
}

TEST(EncoderSettings, VideoRateIsCutToThousands)
{
    EXPECT_EQ(videoSettings(videoSession(64, 48, 512999)).bitRate, 512000);
    EXPECT_EQ(videoSettings(videoSession(64, 48, 999)).bitRate, 0);
    EXPECT_EQ(videoSettings(videoSession(64, 48, 1000)).bitRate, 1000);
}

TEST(EncoderSettings, RTPTakesNineTenthsOfTheVideoRateAndCutsItAgain)
{
    OutputSession session = videoSession(64, 48, 512999);
    session.request.output.rtp = true;
    EXPECT_EQ(videoSettings(session).bitRate, 460000); // 460.8
    session = videoSession(64, 48, 1999);
    session.request.output.rtp = true;
    EXPECT_EQ(videoSettings(session).bitRate, 0);
}

TEST(EncoderSettings, SmallestFallbackShrinksThePictureToWholeMacroblocks)
{
    EXPECT_EQ(sizeOf(smallestFallback(640, 480)), "160x120");
    EXPECT_EQ(sizeOf(smallestFallback(1280, 720)), "224x120");
    EXPECT_EQ(sizeOf(smallestFallback(480, 640)), "160x224");
    EXPECT_EQ(sizeOf(smallestFallback(400, 400)), "160x160");
    EXPECT_EQ(sizeOf(smallestFallback(720, 576)), "160x120");
    EXPECT_EQ(sizeOf(smallestFallback(401, 400)), "128x120"); // 120.3
    EXPECT_EQ(sizeOf(smallestFallback(40, 4000)), "160x16000");
}

TEST(EncoderSettings, FallbackAtAnyOtherTotalKeepsTheInputsSize)
{
    for (const char* video : {"55999", "56001", "0", "400000"}) {
        OutputSession session = videoSession(640, 480);
        session.options.set("fallbackStream", "1");
        session.options.set("lowVideoBitrate", video);
        session.inputAudio("raw");
        session.requestAudio("ac3", 8000);
        EXPECT_EQ(sizeOf(videoSettings(session, true)), "640x480") << video;
    }
}

TEST(EncoderSettings, TheMainStreamKeepsTheInputsSizeAtTheSmallestTotal)
{
    OutputSession session = videoSession(640, 480);
    session.inputAudio("raw");
    session.requestAudio("ac3", 64000);
    const auto profile = session.profile();
    ASSERT_EQ(profile->lowTotalBitrate(), 64000);
    EXPECT_EQ(sizeOf(adjustVideoCodecValues(*profile, false)), "640x480");
}

TEST(EncoderSettings, TimeBaseIsTheNearestFractionOfTheRequestsPeriod)
{
    const auto timeBase = [](double frameRate) {
        return fraction(videoSettings(videoSession(64, 48, 500000, frameRate)).timeBase);
    };
    EXPECT_EQ(timeBase(25.0), "1/25");
    EXPECT_EQ(timeBase(12.5), "2/25");
    EXPECT_EQ(timeBase(29.97), "100/2997");
    EXPECT_EQ(timeBase(23.976), "125/2997");
    EXPECT_EQ(timeBase(0.0), "0/1");
    EXPECT_EQ(timeBase(-25.0), "0/1");
    EXPECT_EQ(fraction(videoSettings(videoSession()).sampleAspectRatio), "0/1");
}

TEST(EncoderSettings, ToleranceBelowTheBitsOfAFrameIsRaisedAboveThem)
{
    const auto tolerance = [](const char* option, double frameRate = 25.0) {
        OutputSession session = videoSession(64, 48, 500000, frameRate);
        session.options.set("videoBitrateTolerance", option);
        return videoSettings(session).bitRateTolerance;
    };
    EXPECT_EQ(tolerance("0"), 20001);
    EXPECT_EQ(tolerance("19999"), 20001);
    EXPECT_EQ(tolerance("20000"), 20000);
    EXPECT_EQ(tolerance("300000"), 300000);
    EXPECT_EQ(tolerance("16683", 29.97), 16684); // 16683.35
    EXPECT_EQ(tolerance("16684", 29.97), 16684);
    EXPECT_EQ(tolerance("-5"), 20001);
}

TEST(EncoderSettings, FallbackLeavesTheContextsOwnTolerance)
{
    OutputSession session = videoSession();
    session.options.set("videoBitrateTolerance", "300000");
    EXPECT_EQ(videoSettings(session, true).bitRateTolerance, 4000000);
    // Two frames a second of 10 Mbit/s.
    EXPECT_EQ(videoSettings(videoSession(64, 48, 10000000, 2.0), true).bitRateTolerance, 5000001);
}

TEST(EncoderSettings, ConstantBitratePinsTheVideoRate)
{
    OutputSession session = videoSession(64, 48, 500000, 12.5);
    session.options.set("videoBitrateTolerance", "100000");
    VideoEncoderSettings settings = videoSettings(session);
    EXPECT_EQ(settings.rcMaxRate, 0);
    EXPECT_EQ(settings.rcMinRate, 0);
    EXPECT_EQ(settings.rcBufferSize, 0);
    session.options.set("useConstantBitrate", "1");
    settings = videoSettings(session);
    EXPECT_EQ(settings.rcMaxRate, 500000);
    EXPECT_EQ(settings.rcMinRate, 500000);
    EXPECT_EQ(settings.rcBufferSize, 75000000);
    session.video().bitrate = 900000000;
    EXPECT_EQ(videoSettings(session).rcBufferSize, INT_MAX);
}

TEST(EncoderSettings, QuantiserValuesHaveDefaults)
{
    const VideoEncoderSettings settings = videoSettings(videoSession());
    EXPECT_EQ(settings.hasBFrames, 1);
    EXPECT_EQ(settings.qMin, 2);
    EXPECT_EQ(settings.qMax, 31);
    EXPECT_EQ(settings.maxQDiff, 3);
    EXPECT_FLOAT_EQ(settings.qCompress, 0.6F);
    EXPECT_FLOAT_EQ(settings.qBlur, 0.5F);
}

TEST(EncoderSettings, QuantiserOptionsReplaceTheDefaults)
{
    for (const bool isH264 : {false, true}) {
        OutputSession session = isH264 ? h264Session() : videoSession();
        session.options.set("encoderQMin", "5");
        session.options.set("encoderQMax", "17");
        session.options.set("encoderQDiffMax", "9");
        session.options.set("encoderQCompress", "0.25");
        session.options.set("encoderQBlur", "0.75");
        const VideoEncoderSettings settings = videoSettings(session);
        EXPECT_EQ(settings.qMin, 5);
        EXPECT_EQ(settings.qMax, 17);
        EXPECT_EQ(settings.maxQDiff, 9);
        EXPECT_FLOAT_EQ(settings.qCompress, 0.25F);
        EXPECT_FLOAT_EQ(settings.qBlur, 0.75F);
    }
}

TEST(EncoderSettings, OneKeyFrameASecond)
{
    const auto gop = [](double frameRate) {
        return videoSettings(videoSession(64, 48, 500000, frameRate)).gopSize;
    };
    EXPECT_EQ(gop(25.0), 25);
    EXPECT_EQ(gop(29.97), 30);
    EXPECT_EQ(gop(12.01), 13);
    EXPECT_EQ(gop(0.0), 0);
}

TEST(EncoderSettings, OnlyH264HasItsTable)
{
    const VideoEncoderSettings plain = videoSettings(videoSession());
    EXPECT_EQ(plain.flags2, 0U);
    EXPECT_EQ(plain.flags & 0x800U, 0U);
    EXPECT_EQ(plain.partitions, 0U);
    OutputSession session = videoSession();
    session.options.set("gopSize", "77");
    EXPECT_EQ(videoSettings(session).gopSize, 25);
}

TEST(EncoderSettings, H264HasATableOfItsOwn)
{
    const VideoEncoderSettings settings = videoSettings(h264Session());
    EXPECT_EQ(settings.flags2, 0x10U);
    EXPECT_EQ(settings.flags, 0x400800U);
    EXPECT_EQ(settings.partitions, 0x111U);
    EXPECT_EQ(settings.gopSize, 25);
    EXPECT_EQ(settings.keyIntMin, 25);
    EXPECT_EQ(settings.refs, 1);
    EXPECT_EQ(settings.meRange, 12);
    EXPECT_EQ(settings.meSubpelQuality, 5);
    EXPECT_FLOAT_EQ(settings.crf, 25.0F);
    EXPECT_EQ(settings.trellis, 0);
    EXPECT_EQ(settings.qMin, 3);
    EXPECT_EQ(settings.qMax, 30);
    EXPECT_EQ(settings.maxQDiff, 4);
    EXPECT_FLOAT_EQ(settings.qCompress, 0.6F);
    EXPECT_FLOAT_EQ(settings.qBlur, 0.5F);
}

TEST(EncoderSettings, H264OptionsReplaceItsTable)
{
    OutputSession session = h264Session();
    session.options.set("partitions", "819");
    session.options.set("gopSize", "250");
    session.options.set("keyIntMin", "13");
    session.options.set("refs", "4");
    session.options.set("motionEstimationRange", "16 pixels");
    session.options.set("motionEstimationQuality", "7");
    session.options.set("constantRateFactor", "21.5");
    const VideoEncoderSettings settings = videoSettings(session);
    EXPECT_EQ(settings.partitions, 0x333U);
    EXPECT_EQ(settings.gopSize, 250);
    EXPECT_EQ(settings.keyIntMin, 13);
    EXPECT_EQ(settings.refs, 4);
    EXPECT_EQ(settings.meRange, 16);
    EXPECT_EQ(settings.meSubpelQuality, 7);
    EXPECT_FLOAT_EQ(settings.crf, 21.5F);
}

TEST(EncoderSettings, H264OptionsWithoutANumberCountAsZero)
{
    OutputSession session = h264Session();
    session.options.set("gopSize", "often");
    session.options.set("refs", "");
    session.options.set("constantRateFactor", "good");
    const VideoEncoderSettings settings = videoSettings(session);
    EXPECT_EQ(settings.gopSize, 0);
    EXPECT_EQ(settings.refs, 0);
    EXPECT_FLOAT_EQ(settings.crf, 0.0F);
}

TEST(EncoderSettings, FallbackDecidesMacroblocksAndOutdoesTheRateFactor)
{
    EXPECT_EQ(videoSettings(videoSession()).mbDecision, 1);
    EXPECT_FLOAT_EQ(videoSettings(videoSession()).crf, 0.0F);
    EXPECT_EQ(videoSettings(videoSession(), true).mbDecision, 2);
    EXPECT_FLOAT_EQ(videoSettings(videoSession(), true).crf, 90.0F);
    OutputSession session = h264Session();
    session.options.set("constantRateFactor", "21.5");
    EXPECT_FLOAT_EQ(videoSettings(session, true).crf, 90.0F);
}

TEST(EncoderSettings, MotionEstimationIsTheProfiles)
{
    EXPECT_EQ(videoSettings(videoSession()).meMethod, 5);
    for (const auto& [name, id] : {std::pair("ZERO", 1), std::pair("umh", 8), std::pair("x", 5)}) {
        OutputSession session = videoSession();
        session.options.set("encoderMotionEstimationMethod", name);
        EXPECT_EQ(videoSettings(session).meMethod, id) << name;
    }
}

TEST(EncoderSettings, OnlyTransportStreamsKeepTheVideoHeaderInTheStream)
{
    for (const char* format : {"flv", "matroska", "avi", "mpeg", "null", ""}) {
        OutputSession session = videoSession();
        session.requestFormat(format);
        session.request.output.video.codec = "h263p"; // "mpeg" would take another
        EXPECT_EQ(videoSettings(session).flags, 0x400000U) << format;
    }
    OutputSession session = videoSession();
    session.requestFormat("mpegts");
    EXPECT_EQ(videoSettings(session).flags, 0U);
    session = h264Session();
    session.requestFormat("mpegts");
    EXPECT_EQ(videoSettings(session).flags, 0x800U);
}

TEST(EncoderSettings, PicturesAreEncodedInPlanes)
{
    EXPECT_EQ(videoSettings(videoSession()).pixelFormat, AV_PIX_FMT_YUV420P);
}

TEST(EncoderSettings, PayloadSizeIsForRTPAlone)
{
    OutputSession video = videoSession();
    OutputSession audio = audioSession();
    video.request.output.rtpPacketSize = 1200;
    audio.request.output.rtpPacketSize = 1200;
    EXPECT_EQ(videoSettings(video).rtpPayloadSize, 0);
    EXPECT_EQ(audioSettings(audio).rtpPayloadSize, 0);
    video.request.output.rtp = true;
    audio.request.output.rtp = true;
    EXPECT_EQ(videoSettings(video).rtpPayloadSize, 1200);
    EXPECT_EQ(audioSettings(audio).rtpPayloadSize, 1200);
}

TEST(EncoderSettings, VideoLinesComeInOrder)
{
    OutputSession session = videoSession(720, 576, 600000, 29.97);
    session.options.set("encoderQBlur", "0.25");
    session.request.output.rtp = true;
    session.request.output.rtpPacketSize = 1200;
    const VideoEncoderSettings settings = videoSettings(session);
    const LogCapture log;
    settings.log(12, false);
    const std::vector<std::string> expected = {
        "FFENC V:  codec = 12 (fallback? 0)",
        "FFENC V:  w = 720      h = 576",
        "FFENC V:  fps = 2997/100",
        "FFENC V:  bps = 540000    tol = 18019",
        "FFENC V:  aratio = 1/0",
        "FFENC V:  Qmin = 2  Qmax = 31   QDiff = 3",
        "FFENC V:  Qcomp = 0.600000  Qblur = 0.250000",
        "FFENC V:  flags = 0x400000",
        "FFENC V:  flags2 = 0x0",
        "FFENC V:  gop = 30",
        "FFENC V:  keyintmin = 25",
        "FFENC V:  partitions = 0x0",
        "FFENC V:  refs = 1",
        "FFENC V:  me_method = 0x5",
        "FFENC V:  me_range = 0",
        "FFENC V:  me_quality = 8",
        "FFENC V:  crf = 0.000000",
        "FFENC V:  pxfmt = 0",
        "FFENC V:rtp psz = 1200",
    };
    EXPECT_EQ(textsOf(log.lines()), expected);
}

TEST(EncoderSettings, VideoLinesTellAFallbackOfH264)
{
    OutputSession session = h264Session();
    session.options.set("encoderMotionEstimationMethod", "TESA");
    const VideoEncoderSettings settings = videoSettings(session, true);
    const LogCapture log;
    settings.log(27, true);
    for (const char* line :
         {"FFENC V:  codec = 27 (fallback? 1)", "FFENC V:  flags = 0x400800",
          "FFENC V:  flags2 = 0x10", "FFENC V:  partitions = 0x111", "FFENC V:  me_method = 0xA",
          "FFENC V:  me_range = 12", "FFENC V:  me_quality = 5", "FFENC V:  crf = 90.000000"}) {
        EXPECT_TRUE(log.contains(line)) << line;
    }
}

TEST(EncoderSettings, AudioLinesComeInOrder)
{
    OutputSession session = audioSession();
    session.options.set("audioBitrateTolerance", "77");
    const AudioEncoderSettings settings = audioSettings(session);
    const LogCapture log;
    settings.log(86018);
    const std::vector<std::string> expected = {
        "FFENC A:  codec = 86018",
        "FFENC A:     sr = 44100     ch = 2",
        "FFENC A:    bps = 128000    tol = 77",
        "FFENC A:  flags = 400000",
        "FFENC A:rtp psz = 0",
    };
    EXPECT_EQ(textsOf(log.lines()), expected);
}

TEST(EncoderSettings, LinesAreOfDebugLevel)
{
    const LogCapture log(LOGLEVEL_INFO);
    videoSettings(videoSession()).log(12, false);
    audioSettings(audioSession()).log(86018);
    EXPECT_TRUE(log.lines().empty());
}

TEST(EncoderSettings, AudioIsAsRequested)
{
    OutputSession session = audioSession("ac3", 192000, 6, 48000);
    session.options.set("audioBitrateTolerance", "12345");
    const AudioEncoderSettings settings = audioSettings(session, AV_CODEC_ID_AC3);
    EXPECT_EQ(settings.bitRate, 192000);
    EXPECT_EQ(settings.bitRateTolerance, 12345);
    EXPECT_EQ(settings.sampleRate, 48000);
    EXPECT_EQ(settings.channels, 6);
    EXPECT_EQ(settings.rcMaxRate, 0);
    EXPECT_EQ(settings.rcMinRate, 0);
    EXPECT_EQ(settings.rcBufferSize, 0);
}

TEST(EncoderSettings, SampleRateThatIsOpenIsTheInputs)
{
    OutputSession session = audioSession("ac3", 192000, 2, 0);
    session.input.stream.audio.sampleRate = 22050;
    EXPECT_EQ(audioSettings(session, AV_CODEC_ID_AC3).sampleRate, 22050);
}

TEST(EncoderSettings, ConstantBitratePinsTheAudioRate)
{
    OutputSession session = audioSession();
    session.options.set("useConstantBitrate", "1");
    const AudioEncoderSettings settings = audioSettings(session);
    EXPECT_EQ(settings.rcMaxRate, 128000);
    EXPECT_EQ(settings.rcMinRate, 128000);
    EXPECT_EQ(settings.rcBufferSize, 128000);
}

TEST(EncoderSettings, AudioHeaderStandsApartInEveryFormat)
{
    for (const char* format : {"mpegts", "flv", "matroska", ""}) {
        OutputSession session = audioSession();
        session.requestFormat(format);
        EXPECT_EQ(audioSettings(session).flags, 0x400000U) << format;
    }
}

TEST(EncoderSettings, NarrowBandAmrTakesTheHighestRateBelowTheRequest)
{
    const std::vector<int> rates = {4750, 5150, 5900, 6700, 7400, 7950, 10200, 12200};
    for (std::size_t i = 0; i < rates.size(); ++i) {
        const int below = i > 0 ? rates[i - 1] : 4750;
        EXPECT_EQ(amrSettings(AV_CODEC_ID_AMR_NB, rates[i]).bitRate, below) << rates[i];
        EXPECT_EQ(amrSettings(AV_CODEC_ID_AMR_NB, rates[i] + 1).bitRate, rates[i]);
    }
    EXPECT_EQ(amrSettings(AV_CODEC_ID_AMR_NB, 64000).bitRate, 12200);
    EXPECT_EQ(amrSettings(AV_CODEC_ID_AMR_NB, 0).bitRate, 4750);
    EXPECT_EQ(amrSettings(AV_CODEC_ID_AMR_NB, -1).bitRate, 4750);
}

TEST(EncoderSettings, WideBandAmrTakesTheHighestRateBelowTheRequest)
{
    const std::vector<int> rates = {6600, 8850, 12650, 14250, 15850, 18250, 19850, 23050, 23850};
    for (std::size_t i = 0; i < rates.size(); ++i) {
        const int below = i > 0 ? rates[i - 1] : 6600;
        EXPECT_EQ(amrSettings(AV_CODEC_ID_AMR_WB, rates[i]).bitRate, below) << rates[i];
        EXPECT_EQ(amrSettings(AV_CODEC_ID_AMR_WB, rates[i] + 1).bitRate, rates[i]);
    }
    EXPECT_EQ(amrSettings(AV_CODEC_ID_AMR_WB, 64000).bitRate, 23850);
    EXPECT_EQ(amrSettings(AV_CODEC_ID_AMR_WB, 0).bitRate, 6600);
}

TEST(EncoderSettings, AmrIsMonoAtItsOwnSampleRate)
{
    EXPECT_EQ(amrSettings(AV_CODEC_ID_AMR_NB, 12000).sampleRate, 8000);
    EXPECT_EQ(amrSettings(AV_CODEC_ID_AMR_NB, 12000).channels, 1);
    EXPECT_EQ(amrSettings(AV_CODEC_ID_AMR_WB, 12000).sampleRate, 16000);
    EXPECT_EQ(amrSettings(AV_CODEC_ID_AMR_WB, 12000).channels, 1);
}

TEST(EncoderSettings, AmrOfConstantRateIsPinnedToTheRequest)
{
    OutputSession session = audioSession("amr_nb", 12000);
    session.options.set("useConstantBitrate", "1");
    const AudioEncoderSettings settings = audioSettings(session, AV_CODEC_ID_AMR_NB);
    EXPECT_EQ(settings.bitRate, 10200);
    EXPECT_EQ(settings.rcMaxRate, 12000);
    EXPECT_EQ(settings.rcMinRate, 12000);
    EXPECT_EQ(settings.rcBufferSize, 12000);
}
