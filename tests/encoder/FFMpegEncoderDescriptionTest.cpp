#include "tests/encoder/RawMedia.h"
#include "tests/encoder/StageRun.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <string>

/// What the host is told of a session.

using namespace zel::test;

TEST(FFMpegEncoderDescription, ElementaryOutputIsDescribedByItsEncoders)
{
    OutputSession session = rawSession("wmv", "wma");
    session.requestVideo("wmv", 456789);
    session.requestAudio("wma", 97000, 0, 22050);
    StageRun run(session, StageRun::Reader::TheTest);
    ASSERT_EQ(run.initResult(), 0);
    const auto record = describe(run.stage());
    EXPECT_EQ(record.multiplexed, false);
    EXPECT_EQ(record.video.codec, "wmv8");
    EXPECT_EQ(record.video.bitrate, 456000);
    EXPECT_EQ(record.video.width, 64);
    EXPECT_EQ(record.video.height, 48);
    EXPECT_EQ(record.video.encoded, true);
    EXPECT_DOUBLE_EQ(record.video.getFrameRate(), 0.04) << "the period of a frame";
    EXPECT_EQ(record.audio.codec, "wma");
    EXPECT_EQ(record.audio.bitrate, 96000);
    EXPECT_EQ(record.audio.channels, 2);
    EXPECT_EQ(record.audio.sampleRate, 22050);
    EXPECT_EQ(record.audio.getCodecPrivateData(), std::string("000000000100") + "00000000");
    EXPECT_EQ(session.video().codec, "wmv2") << "the session's own record keeps FFmpeg's name";
}

TEST(FFMpegEncoderDescription, MultiplexedOutputIsDescribedAsTheSessionIs)
{
    OutputSession session = multiplexedSession("matroska", "wmv", "mp3");
    session.request.output.properties.set("kept", "word");
    StageRun run(session, StageRun::Reader::TheTest);
    ASSERT_EQ(run.initResult(), 0);
    const auto record = describe(run.stage());
    EXPECT_EQ(record.multiplexed, true);
    EXPECT_EQ(record.format, "matroska");
    EXPECT_EQ(record.video.codec, "wmv2");
    EXPECT_EQ(record.audio.codec, "libmp3lame");
    EXPECT_DOUBLE_EQ(record.video.getFrameRate(), 25.0);
    EXPECT_FALSE(record.video.encoded.has_value());
    EXPECT_EQ(record.video.bitrate, 400000);
    EXPECT_EQ(record.properties.values.at("kept"), "word");
    EXPECT_EQ(record.properties.values.count("basePath"), 0U);
}

TEST(FFMpegEncoderDescription, TheDescriptionOutlivesTheOutputButNotTheSession)
{
    OutputSession session = rawSession();
    StageRun run(session, StageRun::Reader::TheTest);
    run.stage().stop();
    EXPECT_EQ(describe(run.stage()).video.codec, "mpeg4");
    run.stage().close();
    EXPECT_FALSE(describe(run.stage()).video.codec.has_value());
    run.stage().getOutputStreamDescription(nullptr);
}

TEST(FFMpegEncoderDescription, RTPIsDescribedWithItsRateAndHeader)
{
    OutputSession session = rawSession("mpeg4", "aac");
    session.request.output.rtp = true;
    session.request.output.rtpPacketSize = 1000;
    StageRun run(session, StageRun::Reader::TheTest);
    ASSERT_EQ(run.initResult(), 0);
    const auto record = describe(run.stage());
    EXPECT_EQ(record.video.bitrate, 360000);
    EXPECT_EQ(record.audio.bitrate, 120000);
    EXPECT_EQ(std::string(record.video.getCodecPrivateData()).substr(0, 8), "000001b0");
}

TEST(FFMpegEncoderDescription, MultiplexedRTPTellsTheVideoHeaderAllTheSame)
{
    OutputSession session = multiplexedSession("matroska");
    session.request.output.rtp = true;
    session.request.output.rtpPacketSize = 1000;
    StageRun run(session, StageRun::Reader::TheTest);
    session.video().codecPrivateData.reset();
    EXPECT_EQ(bytesOfHexText(describe(run.stage()).video.getCodecPrivateData()).substr(0, 4),
              std::string("\0\0\1\xb0", 4));
}

TEST(FFMpegEncoderDescription, AnEncoderWithoutHeaderHasAnEmptyOne)
{
    OutputSession session = rawSession("mjpeg", "mp2");
    session.video().codecPrivateData = "left over";
    session.audio().codecPrivateData = "left over";
    EXPECT_EQ(initResult(session), 0);
    EXPECT_EQ(session.video().codecPrivateData, "");
    EXPECT_EQ(session.audio().codecPrivateData, "");
}

TEST(FFMpegEncoderDescription, TheEncodersHeadersStandInTheSession)
{
    OutputSession session = rawSession("mpeg4", "aac");
    session.requestAudio("aac", 128000, 2, 44100);
    EXPECT_EQ(initResult(session), 0);
    EXPECT_EQ(session.audio().codecPrivateData, "121056e500");
    EXPECT_EQ(bytesOfHexText(*session.video().codecPrivateData).substr(0, 4),
              std::string("\0\0\1\xb0", 4));
    session = multiplexedSession("mpegts", "mpeg4", "aac");
    EXPECT_EQ(initResult(session), 0);
    EXPECT_EQ(session.video().codecPrivateData, "") << "in the stream itself";
    EXPECT_NE(session.audio().codecPrivateData, "");
}

TEST(FFMpegEncoderDescription, CopiedStreamsHaveTheHeadersOfTheInput)
{
    OutputSession session = copiedSession("mpeg4", "aac");
    session.input.stream.video.codecPrivateData = "000001B0f5";
    session.input.stream.audio.codecPrivateData = "1190";
    StageRun run(session, StageRun::Reader::TheTest);
    ASSERT_EQ(run.initResult(), 0);
    const auto record = describe(run.stage());
    EXPECT_EQ(record.video.codecPrivateData, "000001b0f5");
    EXPECT_EQ(record.audio.codecPrivateData, "1190");
    EXPECT_EQ(session.audio().codecPrivateData, "121056e500") << "the encoder's";
}

TEST(FFMpegEncoderDescription, AHeaderTextIsReadByPairsOfDigits)
{
    const auto header = [](const char* text) {
        OutputSession session = copiedSession();
        session.input.stream.video.codecPrivateData = text;
        StageRun run(session, StageRun::Reader::TheTest);
        return std::string(describe(run.stage()).video.getCodecPrivateData());
    };
    EXPECT_EQ(header("0164001FFF"), "0164001fff");
    EXPECT_EQ(header("01642"), "0164") << "a digit without its pair";
    EXPECT_EQ(header("4gzz 7-1"), "040007ff");
    EXPECT_EQ(header(""), "");
}

TEST(FFMpegEncoderDescription, EncodedStreamsKeepTheirOwnHeaders)
{
    OutputSession session = rawSession("mpeg4", "aac");
    session.requestAudio("aac", 128000, 2, 44100);
    session.input.stream.audio.codecPrivateData = "1190";
    StageRun run(session, StageRun::Reader::TheTest);
    EXPECT_EQ(describe(run.stage()).audio.codecPrivateData, "121056e500");
}

TEST(FFMpegEncoderDescription, SegmentsAreForTransportStreamsOfExactlyThatMethod)
{
    const TempFolder files;
    const ScopedVariable ownFolder("TMPDIR", files.path());
    const auto basePath = [](const char* format, const char* method) {
        OutputSession session = multiplexedSession(format, "mpeg2video", "mp2");
        session.options.set("MpegTSMethod", method);
        session.options.set("sessionID", "42");
        StageRun run(session, StageRun::Reader::TheTest);
        EXPECT_EQ(run.initResult(), 0);
        const auto record = describe(run.stage());
        const char* path = record.properties.get("basePath");
        return std::string(path != nullptr ? path : "none");
    };
    const std::string segmented = basePath("mpegts", "segmented");
    EXPECT_EQ(segmented.find(files.path()), 0U) << segmented;
    EXPECT_NE(segmented.find("segment-42"), std::string::npos) << segmented;
    EXPECT_EQ(basePath("matroska", "segmented"), "none");
    EXPECT_EQ(basePath("mpegts", "Segmented"), "none");
    EXPECT_EQ(basePath("mpegts", ""), "none");
    EXPECT_EQ(basePath("MPEGTS", "segmented"), "none");
}
