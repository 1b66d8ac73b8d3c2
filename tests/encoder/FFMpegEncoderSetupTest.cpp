#include "tests/encoder/RawMedia.h"
#include "tests/encoder/StageRun.h"
#include "tests/support/ClipPackets.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MediaReference.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestFolders.h"

#include <gtest/gtest.h>

#include <optional>
#include <regex>
#include <string>
#include <vector>

/// How a session of the encoder stage is set up, begun and ended.

using namespace zel::test;
namespace PacketType = zel::streamer::PacketType;

namespace {

constexpr int Accepted = 1;
constexpr int NotPossible = 2;
constexpr int Failed = -1;

/// A session's log, which is complete once its stage is gone.
class FFMpegEncoderSetup : public testing::Test
{
protected:
    std::string stageLog() const { return m_log.fileText("FFMpegEncoder.log"); }

    void expectLogged(const std::string& text) const
    {
        EXPECT_NE(stageLog().find(text), std::string::npos) << text << "\n" << stageLog();
    }

    void expectNotLogged(const std::string& text) const
    {
        EXPECT_EQ(stageLog().find(text), std::string::npos) << text << "\n" << stageLog();
    }

    void expectLoggedInOrder(const std::vector<std::string>& texts) const
    {
        const std::string log = stageLog();
        std::size_t position = 0;
        for (const std::string& text : texts) {
            position = log.find(text, position);
            ASSERT_NE(position, std::string::npos) << text << "\n" << log;
            position += text.size();
        }
    }

    LogCapture m_log;
};

using FFMpegEncoderSetupMedia = FFMpegEncoderSetup;

/// The numbers by which stages call themselves in their first lines.
std::vector<int> numbersOf(const std::string& log)
{
    const std::regex pattern("FFMpegEncoder<(\\d+)>::init\\(\\) \\s");
    std::vector<int> numbers;
    for (std::sregex_iterator at(log.begin(), log.end(), pattern), end; at != end; ++at) {
        numbers.push_back(std::stoi((*at)[1]));
    }
    return numbers;
}

} // namespace

TEST_F(FFMpegEncoderSetup, CodecNoneLeavesAStreamOutWithoutAWord)
{
    for (const char* none : {"none", "NONE", ""}) {
        OutputSession session = rawSession(none, "pcm_s16le");
        session.request.output.videoPresent = true;
        StageRun run(session, StageRun::Reader::TheTest);
        ASSERT_EQ(run.startResult(), Accepted);
        run.write(samplePacket(PacketType::Video, movingPicture(64, 48, 0), 0));
        run.write(samplePacket(PacketType::Audio, std::string(4096, '\1'), 0));
        const auto packets = run.finish();
        ASSERT_EQ(packets.size(), 1U);
        EXPECT_EQ(packets[0].type, PacketType::Audio);
    }
    expectNotLogged("addNewStream");
}

TEST_F(FFMpegEncoderSetup, RawPicturesAreNotEncodedAsH264)
{
    OutputSession session = rawSession("h264");
    EXPECT_EQ(initResult(session), NotPossible);
    expectLoggedInOrder({"::init() ", "::init() initFFMpegContext failed 2", "::init() done"});
    session = rawSession("h264");
    session.request.audio.codec = "none";
    session.request.output.audio.codec = "none";
    EXPECT_EQ(initResult(session), NotPossible);
}

TEST_F(FFMpegEncoderSetup, ACompressedStreamThatWouldNeedAnotherCodecHasNoProfile)
{
    OutputSession session = rawSession("wmv9");
    session.inputVideo("h264");
    EXPECT_EQ(initResult(session), Failed);
    expectLogged("::init : failed, could not compute profile");
    expectNotLogged("::init() done");
}

TEST_F(FFMpegEncoderSetup, MissingDescriptionsHaveNoProfile)
{
    OutputSession session = rawSession();
    FFMpegEncoder stage;
    EXPECT_EQ(stage.init(nullptr, nullptr, &session.request, nullptr, nullptr), Failed);
    EXPECT_EQ(stage.init(nullptr, &session.input, nullptr, nullptr, nullptr), Failed);
    EXPECT_EQ(stage.start(), 0);
    EXPECT_EQ(stage.init(nullptr, &session.input, &session.request, nullptr, nullptr), 0);
}

TEST_F(FFMpegEncoderSetup, BdliveOfTwoCopiedStreamsIsRefusedAtOnce)
{
    OutputSession session = copiedSession();
    session.requestFormat("bdlive");
    EXPECT_EQ(initResult(session), NotPossible);
    expectNotLogged("initFFMpegContext");
    expectNotLogged("::init() done");
}

TEST_F(FFMpegEncoderSetup, BdliveIsATransportStreamOtherwise)
{
    OutputSession session = multiplexedSession("bdlive", "mpeg2video", "mp2");
    EXPECT_EQ(initResult(session), 0);
    EXPECT_EQ(session.format(), "mpegts");
    session = copiedSession("h264", "raw");
    session.requestAudio("mp2", 128000);
    session.requestFormat("bdlive");
    EXPECT_EQ(initResult(session), 0);
    session = copiedSession();
    session.requestFormat("BDLive");
    EXPECT_EQ(initResult(session), 0);
}

TEST_F(FFMpegEncoderSetup, AnUnknownContainerIsRefused)
{
    OutputSession session = multiplexedSession("no such format");
    {
        StageRun run(session, StageRun::Reader::TheTest);
        EXPECT_EQ(run.initResult(), Failed);
        EXPECT_EQ(run.stage().start(), 0);
    }
    expectLoggedInOrder({"could not find output format no such format",
                         "::initFFMpegContext() init output context failed -1",
                         "::init() initFFMpegContext failed -1", "::init() done"});
}

TEST_F(FFMpegEncoderSetup, NoFormatAtAllIsTheNullContainer)
{
    OutputSession session = multiplexedSession("");
    StageRun run(session, StageRun::Reader::TheTest);
    ASSERT_EQ(run.startResult(), Accepted);
    run.write(samplePacket(PacketType::Video, movingPicture(64, 48, 0), 0));
    EXPECT_TRUE(run.finish().empty());
}

TEST_F(FFMpegEncoderSetup, NothingToEncodeIsNotPossible)
{
    OutputSession session = rawSession("none", "none");
    EXPECT_EQ(initResult(session), NotPossible);
    session = pictureSession("none");
    session.requestAudio("ac3", 128000); // the input has no audio
    EXPECT_EQ(initResult(session), NotPossible);
    session = rawSession("none");
    session.request.output.audioPresent = false;
    EXPECT_EQ(initResult(session), NotPossible);
}

TEST_F(FFMpegEncoderSetup, AStreamWithoutAnEncoderLeavesTheOther)
{
    OutputSession session = rawSession("mpeg4", "nosuch");
    {
        StageRun run(session, StageRun::Reader::TheTest);
        ASSERT_EQ(run.startResult(), Accepted);
        run.write(samplePacket(PacketType::Audio, std::string(40960, '\1'), 0));
        run.write(samplePacket(PacketType::Video, movingPicture(64, 48, 0), 0));
        const auto packets = run.finish();
        ASSERT_EQ(packets.size(), 1U);
        EXPECT_EQ(packets[0].type, PacketType::Video);
    }
    expectLogged("FFMpegEncoder::addNewStream : codec not found nosuch");
}

TEST_F(FFMpegEncoderSetup, AnEncoderThatDoesNotOpenLeavesTheOther)
{
    OutputSession session = rawSession("wmv2", "pcm_s16le");
    session.input.stream.video.width = 63; // wmv2 wants even ones
    {
        StageRun run(session, StageRun::Reader::TheTest);
        ASSERT_EQ(run.startResult(), Accepted);
        run.write(samplePacket(PacketType::Video, movingPicture(63, 48, 0), 0));
        run.write(samplePacket(PacketType::Audio, std::string(4096, '\1'), 0));
        const auto packets = run.finish();
        ASSERT_EQ(packets.size(), 1U);
        EXPECT_EQ(packets[0].type, PacketType::Audio);
    }
    expectLogged("FFMpegEncoder::addNewStream : avcodec_open failed wmv2 : -");
}

TEST_F(FFMpegEncoderSetup, TheLossOfBothStreamsIsNotPossible)
{
    OutputSession session = rawSession("nosuch", "nosuch either");
    EXPECT_EQ(initResult(session), NotPossible);
    expectLoggedInOrder({"codec not found nosuch either", "codec not found nosuch",
                         "::init() initFFMpegContext failed 2"});
}

TEST_F(FFMpegEncoderSetup, CallsInAnyOrderAnswerWhatTheyAlwaysAnswer)
{
    OutputSession session = rawSession();
    FFMpegEncoder stage;
    const auto init = [&] {
        return stage.init(&session.medium, &session.input, &session.request, &session.options,
                          nullptr);
    };
    EXPECT_EQ(stage.start(), 0);
    EXPECT_EQ(stage.stop(), Accepted);
    EXPECT_EQ(stage.close(), Accepted);
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(stage.start(), Accepted);
    EXPECT_EQ(stage.start(), Accepted);
    EXPECT_EQ(stage.stop(), Accepted);
    EXPECT_EQ(stage.stop(), Accepted);
    EXPECT_EQ(stage.start(), 0) << "a stage that is stopped stays so";
    EXPECT_EQ(stage.close(), Accepted);
    EXPECT_EQ(stage.close(), Accepted);
    EXPECT_EQ(stage.start(), 0);
    EXPECT_EQ(stage.stop(), Accepted);
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(stage.close(), Accepted);
    EXPECT_EQ(stage.start(), 0);
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(stage.start(), Accepted);
    EXPECT_EQ(stage.close(), Accepted);
    EXPECT_EQ(stage.stop(), Accepted);
}

TEST_F(FFMpegEncoderSetup, NothingCanBeReadBeforeASessionOrBehindIt)
{
    OutputSession session = rawSession("none", "pcm_s16le");
    StageRun run(session, StageRun::Reader::TheTest);
    run.write(samplePacket(PacketType::Audio, std::string(8192, '\1'), 0));
    EXPECT_TRUE(run.next().has_value());
    run.stage().stop();
    EXPECT_FALSE(run.next().has_value());
    run.stage().close();
    EXPECT_FALSE(run.next().has_value());
    FFMpegEncoder stage;
    PacketType::Enum type = PacketType::None;
    unsigned char* data = nullptr;
    unsigned int size = 0;
    unsigned long long timestamp = 0;
    unsigned long long duration = 0;
    void* context = nullptr;
    bool keyFrame = false;
    EXPECT_FALSE(stage.readFrame(type, data, size, timestamp, duration, context, keyFrame));
}

TEST_F(FFMpegEncoderSetup, ASecondInitBeginsASessionOfItsOwn)
{
    OutputSession first = rawSession("none", "pcm_s16le");
    OutputSession second = rawSession("none", "pcm_u8");
    StageRun run(first, StageRun::Reader::TheTest);
    run.write(samplePacket(PacketType::Audio, std::string(4096, '\1'), 5000));
    FFMpegEncoder& stage = run.stage();
    ASSERT_EQ(stage.init(&second.medium, &second.input, &second.request, &second.options, nullptr),
              0);
    EXPECT_EQ(describe(stage).audio.codec, "pcm_u8");
    ASSERT_EQ(stage.start(), Accepted);
    run.write(samplePacket(PacketType::Audio, std::string(4096, '\0'), 7000));
    const auto packets = run.finish();
    ASSERT_EQ(packets.size(), 1U) << "the first session's packet is gone";
    EXPECT_EQ(packets[0].timestampUs, 7000U);
    EXPECT_EQ(packets[0].bytes, std::string(2048, '\x80'));
}

TEST_F(FFMpegEncoderSetup, WhatAFailedSetUpLeavesIsNoSession)
{
    OutputSession good = rawSession("none", "pcm_s16le");
    OutputSession bad = rawSession("h264");
    StageRun run(good, StageRun::Reader::TheTest);
    FFMpegEncoder& stage = run.stage();
    EXPECT_EQ(stage.init(&bad.medium, &bad.input, &bad.request, nullptr, nullptr), NotPossible);
    EXPECT_EQ(stage.start(), 0);
    run.write(samplePacket(PacketType::Audio, std::string(4096, '\1'), 0));
    stage.resetPosition(0);
    EXPECT_FALSE(run.next().has_value());
}

TEST_F(FFMpegEncoderSetup, StagesOfAProcessAreCounted)
{
    OutputSession session = rawSession();
    initResult(session);
    initResult(session);
    const FFMpegEncoder unused;
    initResult(session);
    const std::vector<int> numbers = numbersOf(stageLog());
    ASSERT_EQ(numbers.size(), 3U) << stageLog();
    EXPECT_GE(numbers[0], 1);
    EXPECT_EQ(numbers[1], numbers[0] + 1);
    EXPECT_EQ(numbers[2], numbers[0] + 3);
}

TEST_F(FFMpegEncoderSetup, TheLogTellsASessionsLife)
{
    OutputSession session = rawSession();
    initResult(session);
    const std::string name = "FFMpegEncoder<" + std::to_string(numbersOf(stageLog()).at(0)) + ">";
    expectLoggedInOrder({name + "::init() ", "FFENC A:  codec = ", "FFENC A:rtp psz = 0",
                         "FFENC V:  codec = 12 (fallback? 0)", "FFENC V:  w = 64      h = 48",
                         "FFENC V:rtp psz = 0", name + "::init() done", name + "::stop() ",
                         name + "::close() "});
}

TEST_F(FFMpegEncoderSetup, CopiedStreamsHaveNoEncoderLines)
{
    OutputSession session = copiedSession();
    EXPECT_EQ(initResult(session), 0);
    expectNotLogged("FFENC");
}

TEST_F(FFMpegEncoderSetup, TheSmallestFallbackIsDescribedInItsOwnSize)
{
    OutputSession session = rawSession("mpeg4", "ac3");
    session.input.stream.video.width = 1280;
    session.input.stream.video.height = 720;
    session.requestAudio("ac3", 8000);
    session.options.set("fallbackStream", "1");
    session.options.set("lowVideoBitrate", "56000");
    {
        StageRun run(session, StageRun::Reader::TheTest);
        ASSERT_EQ(run.initResult(), 0);
        const auto record = describe(run.stage());
        EXPECT_EQ(record.video.width, 224);
        EXPECT_EQ(record.video.height, 120);
    }
    expectLogged("FFENC V:  codec = 12 (fallback? 1)");
}

TEST_F(FFMpegEncoderSetup, OnlyAnInputWithoutVideoIsAudioOnly)
{
    OutputSession both = rawSession();
    OutputSession audio = sampleSession("ac3", 128000);
    OutputSession video = pictureSession("mpeg4");
    EXPECT_FALSE(StageRun(both, StageRun::Reader::TheTest).stage().audioOnly());
    EXPECT_TRUE(StageRun(audio, StageRun::Reader::TheTest).stage().audioOnly());
    EXPECT_FALSE(StageRun(video, StageRun::Reader::TheTest).stage().audioOnly());
}

TEST_F(FFMpegEncoderSetup, RatesCannotBeChangedAtRunTime)
{
    FFMpegEncoder stage;
    unsigned int value = 0;
    EXPECT_EQ(stage.updateBitrate(1000), NotPossible);
    EXPECT_EQ(stage.getBitrate(value), NotPossible);
    EXPECT_EQ(stage.setPerformanceLevel(1), NotPossible);
    EXPECT_EQ(stage.getPerformanceLevel(value), NotPossible);
    EXPECT_EQ(stage.skipFrame(), NotPossible);
}

TEST_F(FFMpegEncoderSetup, TheHeaderIsTheFirstPacket)
{
    OutputSession session = multiplexedSession("matroska");
    StageRun run(session, StageRun::Reader::TheTest);
    const auto header = run.next();
    ASSERT_TRUE(header.has_value());
    EXPECT_EQ(header->type, PacketType::Multiplexed);
    EXPECT_EQ(header->timestampUs, 0U);
    EXPECT_EQ(header->durationUs, 0U);
    EXPECT_FALSE(header->keyFrame);
    EXPECT_EQ(header->bytes.substr(0, 4), "\x1A\x45\xDF\xA3");
}

TEST_F(FFMpegEncoderSetup, TheHeaderOfAnFlvIsReplacedAndItsDecodersSetUpBehindIt)
{
    OutputSession session = multiplexedSession("flv", "flv", "aac");
    StageRun run(session, StageRun::Reader::TheTest);
    const auto header = run.next();
    ASSERT_TRUE(header.has_value());
    EXPECT_EQ(header->bytes.substr(0, 3), "FLV");
    EXPECT_NE(header->bytes.find("onMetaData"), std::string::npos);
    const auto setUp = run.next();
    ASSERT_TRUE(setUp.has_value());
    EXPECT_EQ(setUp->type, PacketType::Multiplexed);
    EXPECT_EQ(setUp->bytes[0], 8) << "an audio tag";
    EXPECT_EQ(setUp->bytes.size(), 11U + 7U + 4U) << "of AAC's five bytes";
    EXPECT_TRUE(run.finish().size() <= 1) << "only the container's end";
}

/// A copied stream whose description came without its header. The header comes as a packet without
/// a time stamp.
TEST_F(FFMpegEncoderSetupMedia, ASetUpPacketStandsInForAHeaderThatIsMissing)
{
    const ClipPackets clip = readClipPackets(mediaFolder() + "/h264_aac.mp4");
    const auto pictures = clip.video();
    const TempFolder folder;
    for (const std::string format : {"flv", "mpegts"}) {
        OutputSession session = pictureSession("h264", 320, 240);
        session.inputVideo("h264");
        session.requestFormat(format.c_str());
        session.request.output.multiplexed = true;
        StageRun run(session);
        ASSERT_EQ(run.startResult(), Accepted);
        run.write(samplePacket(PacketType::Video, clip.videoExtradata,
                               zel::streamer::SamplePacket::NoTimestamp));
        for (std::size_t i = 0; i < 50; ++i) {
            run.write(samplePacket(PacketType::Video, pictures[i].bytes, i * PeriodUs, PeriodUs,
                                   pictures[i].key));
        }
        const std::string path = folder.path("a." + format);
        writeFile(path, containerBytes(run.finish()));
        const auto medium = probeMedium(path);
        ASSERT_TRUE(medium.has_value()) << format;
        EXPECT_EQ(medium->packets.size(), 50U) << format;
        const auto shown = referencePictures(path, 0);
        const auto expected = referencePictures(mediaFolder() + "/h264_aac.mp4", 0);
        ASSERT_EQ(shown.size(), 50U) << format;
        for (std::size_t i = 0; i < 40; ++i) {
            EXPECT_EQ(shown[i].md5, expected[i].md5) << format << " " << i;
        }
    }
}
