#include "encoder/BasicMuxer.h"

#include "encoder/FFMpegStreamingProfile.h"
#include "tests/encoder/ContainerBytes.h"
#include "tests/encoder/MadeUpMedium.h"
#include "tests/encoder/ReadBack.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

/// The muxer that writes into the stage's queue, mostly by what comes out of a stage.

using namespace zel::test;
namespace PacketType = zel::streamer::PacketType;

namespace {

constexpr unsigned long long SecondUs = 1000000;

class BasicMuxerTest : public testing::Test
{
protected:
    /// What libavformat makes of the container's bytes.
    PlayedMedium readBackOf(const std::vector<Delivered>& packets)
    {
        const std::string path = m_folder.path("output");
        writeFile(path, containerBytes(packets));
        return readBack(path);
    }

    LogCapture m_log{LOGLEVEL_WARN};
    TempFolder m_folder;
    OutputSession m_session;
};

/// A unit of H.264 as FLV and MP4 have it.
std::string lengthPrefixed(const std::string& unit)
{
    return std::string("\0\0\0", 3) + static_cast<char>(unit.size()) + unit;
}

/// Time stamps of the announced key frames.
std::vector<unsigned long long> announced(const std::vector<Delivered>& packets)
{
    std::vector<unsigned long long> times;
    for (const Delivered& packet : deliveredOf(packets, PacketType::Metadata)) {
        if (packet.action() == "ADD_KEYFRAME") {
            times.push_back(packet.timestampUs);
        }
    }
    return times;
}

/// What comes right behind each announcement, which must be container bytes.
std::vector<Delivered> behindAnnouncements(const std::vector<Delivered>& packets)
{
    std::vector<Delivered> found;
    for (std::size_t i = 0; i + 1 < packets.size(); ++i) {
        if (packets[i].type == PacketType::Metadata && packets[i].action() == "ADD_KEYFRAME") {
            EXPECT_EQ(packets[i + 1].type, PacketType::Multiplexed);
            EXPECT_EQ(packets[i + 1].timestampUs, packets[i].timestampUs);
            found.push_back(packets[i + 1]);
        }
    }
    return found;
}

/// The muxer, open to tests. The stage belongs to no session.
class OpenMuxer : public BasicMuxer
{
public:
    explicit OpenMuxer(FFMpegStreamingProfile& profile) : BasicMuxer(&stage(), &profile) {}

    using BasicMuxer::muxSyncedPacket;

    int64_t maxDelay()
    {
        const PMutexGuard guard(m_contextLock);
        return m_outputContext->max_delay;
    }

private:
    static FFMpegEncoder& stage()
    {
        static FFMpegEncoder stage;
        return stage;
    }
};

} // namespace

TEST_F(BasicMuxerTest, VideoAlonePassesWithoutDelay)
{
    copyMadeUp(m_session, "flv", "flv", "");
    StageRun run(m_session, StageRun::Reader::TheTest);
    run.soFar();
    for (unsigned long long n = 0; n < 3; ++n) {
        run.write(madeUpVideo(n * MadeUpFrameUs));
        const auto packets = run.soFar();
        ASSERT_EQ(packets.size(), 1U);
        EXPECT_EQ(flvTags(packets[0].bytes).at(0).timestampMs, static_cast<int64_t>(n * 40));
    }
}

TEST_F(BasicMuxerTest, AudioAlonePassesWithoutDelay)
{
    copyMadeUp(m_session, "flv", "", "mp3");
    StageRun run(m_session, StageRun::Reader::TheTest);
    run.soFar();
    for (unsigned long long n = 0; n < 3; ++n) {
        run.write(madeUpAudio(n * MadeUpAudioUs));
        const auto packets = run.soFar();
        ASSERT_EQ(packets.size(), 1U);
        EXPECT_EQ(flvTags(packets[0].bytes).at(0).timestampMs, static_cast<int64_t>(n * 24));
    }
}

TEST_F(BasicMuxerTest, StreamThatTheMediumLacksIsNotWaitedFor)
{
    copyMadeUp(m_session, "flv", "flv", "mp3");
    m_session.input.stream.audio.codec.reset();
    StageRun run(m_session, StageRun::Reader::TheTest);
    run.soFar();
    run.write(madeUpVideo(0));
    EXPECT_EQ(run.soFar().size(), 1U);
}

TEST_F(BasicMuxerTest, HoldsFiftyVideoPacketsUntilAudioComes)
{
    copyMadeUp(m_session, "flv", "flv", "mp3");
    StageRun run(m_session, StageRun::Reader::TheTest);
    m_log.makeCurrent();
    // Every announcement shows that its key frame got through the merge.
    for (unsigned long long n = 0; n < 50; ++n) {
        run.write(madeUpVideo(SecondUs + n * 2 * SecondUs, true));
    }
    EXPECT_TRUE(announced(run.soFar()).empty());
    EXPECT_EQ(m_log.count("[AVPacketSync::pop]"), 0);

    // The first gets through now, and is not announced as the first of its stream; then the second.
    run.write(madeUpVideo(101 * SecondUs, true));
    EXPECT_TRUE(announced(run.soFar()).empty());
    EXPECT_EQ(m_log.count("[AVPacketSync::pop] VIDEO reached limit. numVideoPackets 51  "
                          "maxVideoPackets 50  numAudioPackets 0"),
              1);
    run.write(madeUpVideo(103 * SecondUs, true));
    EXPECT_EQ(announced(run.soFar()), (std::vector<unsigned long long>{3 * SecondUs}));
}

TEST_F(BasicMuxerTest, WarnsOfTheLimitAtMostOnceASecond)
{
    using Clock = std::chrono::steady_clock;
    copyMadeUp(m_session, "flv", "flv", "mp3");
    StageRun run(m_session);
    m_log.makeCurrent();
    const Clock::time_point begin = Clock::now();
    for (unsigned long long n = 0; n < 500; ++n) {
        run.write(madeUpVideo(n * MadeUpFrameUs));
    }
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count();
    EXPECT_GE(m_log.count("VIDEO reached limit"), 1);
    EXPECT_LE(m_log.count("VIDEO reached limit"), seconds + 1);
}

TEST_F(BasicMuxerTest, HoldsTwoHundredAudioPacketsUntilVideoComes)
{
    copyMadeUp(m_session, "flv", "flv", "mp3");
    StageRun run(m_session, StageRun::Reader::TheTest);
    m_log.makeCurrent();
    for (unsigned long long n = 0; n < 200; ++n) {
        run.write(madeUpAudio(n * MadeUpAudioUs));
    }
    EXPECT_EQ(m_log.count("[AVPacketSync::pop]"), 0);
    run.write(madeUpAudio(200 * MadeUpAudioUs));
    EXPECT_EQ(m_log.count("[AVPacketSync::pop] AUDIO reached limit. numAudioPackets 201  "
                          "maxAudioPackets 200  numVideoPackets 0"),
              1);
}

TEST_F(BasicMuxerTest, StreamsLeaveInTimeOrder)
{
    copyMadeUp(m_session, "flv", "flv", "mp3");
    StageRun run(m_session);
    // All of the one, then all of the other, within what is held.
    for (unsigned long long n = 0; n < 40; ++n) {
        run.write(madeUpVideo(n * MadeUpFrameUs, n == 0));
    }
    for (unsigned long long n = 0; n < 66; ++n) {
        run.write(madeUpAudio(n * MadeUpAudioUs));
    }
    const auto tags = flvTags(containerBytes(run.finish()));
    ASSERT_EQ(tags.size(), 1U + 40U + 66U);
    EXPECT_TRUE(std::is_sorted(tags.begin(), tags.end(), [](const FlvTag& a, const FlvTag& b) {
        return a.timestampMs < b.timestampMs;
    }));
}

TEST_F(BasicMuxerTest, EndLetsAllThatIsHeldOutAheadOfTheTrailer)
{
    copyMadeUp(m_session, "flv", "h264", "mp3");
    m_session.input.stream.video.codecPrivateData = "0142001effe100046742001e01000368ce38";
    StageRun run(m_session, StageRun::Reader::TheTest);
    run.soFar();
    for (unsigned long long n = 0; n < 30; ++n) {
        run.write(madeUpVideo(n * MadeUpFrameUs, n == 0, lengthPrefixed("\x65\x88\x84")));
    }
    EXPECT_TRUE(run.soFar().empty());
    const auto tags = flvTags(containerBytes(run.finish()));
    ASSERT_EQ(tags.size(), 31U);
    for (std::size_t n = 0; n < 30; ++n) {
        EXPECT_EQ(tags[n].timestampMs, static_cast<int64_t>(n * 40));
        EXPECT_EQ(tags[n].body.substr(5), lengthPrefixed("\x65\x88\x84"));
    }
    constexpr char EndOfSequence = 2;
    EXPECT_EQ(tags[30].body.at(1), EndOfSequence);
}

TEST_F(BasicMuxerTest, EndLetsBothStreamsOutInTimeOrder)
{
    copyMadeUp(m_session, "flv", "flv", "mp3");
    StageRun run(m_session);
    for (unsigned long long n = 0; n < 10; ++n) {
        run.write(madeUpVideo(2 * SecondUs + n * MadeUpFrameUs));
    }
    for (unsigned long long n = 0; n < 40; ++n) {
        run.write(madeUpAudio(2 * SecondUs + n * MadeUpAudioUs));
    }
    const auto tags = flvTags(containerBytes(run.finish()));
    ASSERT_EQ(tags.size(), 1U + 10U + 40U);
    EXPECT_EQ(
        std::count_if(tags.begin(), tags.end(), [](const FlvTag& tag) { return tag.type == 9; }),
        10);
    EXPECT_TRUE(std::is_sorted(tags.begin(), tags.end(), [](const FlvTag& a, const FlvTag& b) {
        return a.timestampMs < b.timestampMs;
    }));
    EXPECT_EQ(tags.back().timestampMs, 39 * 24);
}

TEST_F(BasicMuxerTest, PacketsBehindTheEndAreDropped)
{
    copyMadeUp(m_session, "flv", "flv", "mp3");
    StageRun run(m_session, StageRun::Reader::TheTest);
    writeMadeUp(run.stage(), 0, SecondUs);
    run.finish();
    writeMadeUp(run.stage(), SecondUs, 2 * SecondUs);
    EXPECT_TRUE(run.soFar().empty());
    // Nor is there a second end to the container.
    EXPECT_TRUE(run.finish().empty());
}

TEST_F(BasicMuxerTest, PacketsAheadOfTheHeaderAreDropped)
{
    copyMadeUp(m_session, "flv", "flv", "mp3");
    FFMpegEncoder stage;
    ASSERT_EQ(stage.init(&m_session.medium, &m_session.input, &m_session.request,
                         &m_session.options, nullptr),
              0);
    // Before start the stage lets nobody in: its writers wait, or are turned away when it stops.
    std::thread writer([&stage] { writeMadeUp(stage, 0, SecondUs); });
    stage.stop();
    writer.join();
    stage.close();
}

TEST_F(BasicMuxerTest, HeaderComesFirstAndAlone)
{
    struct Case
    {
        const char* format;
        const char* video;
        std::string begin;
    };
    const Case cases[] = {{"flv", "flv", std::string("FLV\1\5\0\0\0\x9\0\0\0\0\x12", 14)},
                          {"mkv", "mpeg4", "\x1A\x45\xDF\xA3"},
                          {"asf", "wmv8", "\x30\x26\xB2\x75\x8E\x66\xCF\x11"}};
    for (const Case& expected : cases) {
        OutputSession session;
        copyMadeUp(session, expected.format, expected.video, "mp3");
        StageRun run(session, StageRun::Reader::TheTest);
        auto packets = run.soFar();
        ASSERT_EQ(packets.size(), 1U) << expected.format;
        EXPECT_EQ(packets[0].type, PacketType::Multiplexed);
        EXPECT_EQ(packets[0].bytes.substr(0, expected.begin.size()), expected.begin);
        EXPECT_EQ(packets[0].timestampUs, 0U);
        EXPECT_EQ(packets[0].durationUs, 0U);
        EXPECT_FALSE(packets[0].keyFrame);
    }
}

TEST_F(BasicMuxerTest, FormatsWithoutAHeaderBeginWithTheirFirstFrame)
{
    copyMadeUp(m_session, "mpegts", "mpeg2", "");
    StageRun run(m_session, StageRun::Reader::TheTest);
    EXPECT_TRUE(run.soFar().empty());
    run.write(madeUpVideo(5 * SecondUs, true));
    const auto packets = run.soFar();
    ASSERT_FALSE(packets.empty());
    EXPECT_EQ(packets[0].timestampUs, 5 * SecondUs);
    EXPECT_EQ(tsPackets(packets[0].bytes).front().pid, DescriptionPid);
}

TEST_F(BasicMuxerTest, KeyFrameNineTenthsOfASecondLaterIsNotAnnounced)
{
    copyMadeUp(m_session, "flv", "flv", "");
    StageRun run(m_session);
    const unsigned long long start = 5 * SecondUs;
    for (int n = 0; n <= 5; ++n) {
        run.write(madeUpVideo(start + static_cast<unsigned long long>(n) * 900000, true));
    }
    // The distance counts from the last announced one, and from the first, which is not announced.
    EXPECT_EQ(announced(run.finish()),
              (std::vector<unsigned long long>{start + 1800000, start + 3600000}));
}

TEST_F(BasicMuxerTest, KeyFrameExactlyASecondLaterIsNotAnnounced)
{
    for (const unsigned long long distanceUs : {SecondUs, SecondUs + 1}) {
        OutputSession session;
        copyMadeUp(session, "flv", "flv", "");
        StageRun run(session);
        run.write(madeUpVideo(5 * SecondUs, true));
        run.write(madeUpVideo(5 * SecondUs + distanceUs, true));
        EXPECT_EQ(announced(run.finish()).size(), distanceUs > SecondUs ? 1U : 0U);
    }
}

TEST_F(BasicMuxerTest, FirstKeyFrameIsAnnouncedOnlyLongBehindTheFirstPicture)
{
    copyMadeUp(m_session, "flv", "flv", "");
    StageRun run(m_session);
    run.write(madeUpVideo(5 * SecondUs));
    run.write(madeUpVideo(6 * SecondUs + MadeUpFrameUs, true));
    EXPECT_EQ(announced(run.finish()),
              (std::vector<unsigned long long>{6 * SecondUs + MadeUpFrameUs}));
}

TEST_F(BasicMuxerTest, StreamThatBeginsAtZeroCountsFromItsSecondPicture)
{
    for (const unsigned long long keyUs :
         {SecondUs + MadeUpFrameUs, SecondUs + MadeUpFrameUs + 1}) {
        OutputSession session;
        copyMadeUp(session, "flv", "flv", "");
        StageRun run(session);
        run.write(madeUpVideo(0, true));
        run.write(madeUpVideo(MadeUpFrameUs));
        run.write(madeUpVideo(keyUs, true));
        EXPECT_EQ(announced(run.finish()).size(), keyUs > SecondUs + MadeUpFrameUs ? 1U : 0U);
    }
}

TEST_F(BasicMuxerTest, AudioIsNeverAnnounced)
{
    copyMadeUp(m_session, "flv", "", "mp3");
    StageRun run(m_session);
    for (unsigned long long n = 1; n < 10; ++n) {
        run.write(madeUpAudio(n * 2 * SecondUs));
    }
    EXPECT_TRUE(announced(run.finish()).empty());
}

TEST_F(BasicMuxerTest, AnnouncementStandsInFrontOfItsKeyFrameInFlv)
{
    copyMadeUp(m_session, "flv", "flv", "mp3");
    StageRun run(m_session);
    writeMadeUp(run.stage(), 0, 10 * SecondUs, 30);
    const auto packets = behindAnnouncements(run.finish());
    ASSERT_EQ(packets.size(), 8U);
    for (const Delivered& packet : packets) {
        const FlvTag tag = flvTags(packet.bytes).at(0);
        EXPECT_EQ(tag.type, 9);
        EXPECT_TRUE(tag.isKey);
        EXPECT_EQ(tag.timestampMs, static_cast<int64_t>(packet.timestampUs / 1000));
    }
}

TEST_F(BasicMuxerTest, AnnouncementStandsInFrontOfItsKeyFrameInTransportStreams)
{
    copyMadeUp(m_session, "mpegts", "mpeg2", "mp2");
    StageRun run(m_session);
    writeMadeUp(run.stage(), 0, 10 * SecondUs, 30);
    const auto packets = behindAnnouncements(run.finish());
    ASSERT_EQ(packets.size(), 8U);
    for (const Delivered& packet : packets) {
        const auto parts = tsPackets(packet.bytes);
        const auto media = std::find_if(parts.begin(), parts.end(), [](const TSPacket& part) {
            return part.pid >= FirstStreamPid && part.pid < ProgramPid;
        });
        ASSERT_NE(media, parts.end());
        EXPECT_EQ(media->pid, FirstStreamPid + 1); // audio is the first stream
        EXPECT_TRUE(media->beginsUnit);
        EXPECT_TRUE(media->isRandomAccess);
    }
}

TEST_F(BasicMuxerTest, AnnouncementStandsInFrontOfItsKeyFrameInMatroska)
{
    copyMadeUp(m_session, "matroska", "mpeg4", "mp3");
    StageRun run(m_session);
    writeMadeUp(run.stage(), 0, 10 * SecondUs, 30);
    const auto packets = behindAnnouncements(run.finish());
    ASSERT_EQ(packets.size(), 8U);
    for (const Delivered& packet : packets) {
        // The container keeps one audio frame back, which nothing gets out of it.
        const auto blocks = clusterBlocks(packet.bytes);
        const auto video = std::find_if(blocks.begin(), blocks.end(),
                                        [](const Block& block) { return block.track == 2; });
        ASSERT_NE(video, blocks.end());
        EXPECT_LE(video - blocks.begin(), 1);
        EXPECT_TRUE(video->isKey);
        EXPECT_EQ(video->timestampMs, static_cast<int64_t>(packet.timestampUs / 1000));
    }
}

TEST_F(BasicMuxerTest, AudioOfAnEarlierTimeDoesNotGetBetweenAnnouncementAndKeyFrame)
{
    // Encoded audio lies behind the samples that it is made of; here 30 ms.
    copyMadeUp(m_session, "flv", "flv", "mp3");
    StageRun run(m_session);
    for (unsigned long long n = 0; n < 100; ++n) {
        const unsigned long long videoUs = SecondUs + n * MadeUpFrameUs;
        run.write(madeUpVideo(videoUs, n % 30 == 0));
        run.write(madeUpAudio(videoUs + 1000));
        run.write(madeUpAudio(videoUs - 30000));
    }
    const auto packets = behindAnnouncements(run.finish());
    ASSERT_EQ(packets.size(), 3U);
    for (const Delivered& packet : packets) {
        EXPECT_TRUE(flvTags(packet.bytes).at(0).isKey);
    }
}

TEST_F(BasicMuxerTest, BytePacketsCarryTheTimeOfTheFirstVideoInThem)
{
    copyMadeUp(m_session, "flv", "flv", "mp3");
    StageRun run(m_session);
    writeMadeUp(run.stage(), 3 * SecondUs, 4 * SecondUs, 1000);
    auto packets = deliveredOf(run.finish(), PacketType::Multiplexed);
    packets.erase(packets.begin());
    int stamped = 0;
    for (const Delivered& packet : packets) {
        EXPECT_EQ(packet.durationUs, 0U);
        EXPECT_FALSE(packet.keyFrame);
        if (packet.hasTimestamp()) {
            EXPECT_EQ(packet.timestampUs % MadeUpFrameUs, 0U); // never an audio packet's
            ++stamped;
        }
    }
    EXPECT_EQ(stamped, 25);
    EXPECT_GT(packets.size(), 25U);
}

TEST_F(BasicMuxerTest, BytePacketsOfAudioAloneCarryItsTime)
{
    copyMadeUp(m_session, "flv", "", "mp3");
    StageRun run(m_session);
    for (unsigned long long n = 0; n < 10; ++n) {
        run.write(madeUpAudio(3 * SecondUs + n * MadeUpAudioUs));
    }
    const auto packets = deliveredOf(run.finish(), PacketType::Multiplexed);
    ASSERT_EQ(packets.size(), 11U);
    for (std::size_t n = 1; n < packets.size(); ++n) {
        EXPECT_EQ(packets[n].timestampUs, 3 * SecondUs + (n - 1) * MadeUpAudioUs);
    }
}

TEST_F(BasicMuxerTest, FrameThatFillsSeveralBytePacketsCarriesItsTimeOnce)
{
    copyMadeUp(m_session, "flv", "flv", "");
    StageRun run(m_session, StageRun::Reader::TheTest);
    run.soFar();
    run.write(madeUpVideo(3 * SecondUs, true, std::string(200000, 'x')));
    const auto packets = run.soFar();
    ASSERT_GE(packets.size(), 4U);
    EXPECT_EQ(packets[0].timestampUs, 3 * SecondUs);
    for (std::size_t n = 0; n < packets.size(); ++n) {
        EXPECT_LE(packets[n].bytes.size(), 65536U);
        EXPECT_EQ(packets[n].hasTimestamp(), n == 0);
    }
}

TEST_F(BasicMuxerTest, EmptyFormatPassesWithoutBytes)
{
    copyMadeUp(m_session, "", "mpeg4", "mp3");
    StageRun run(m_session);
    ASSERT_EQ(run.initResult(), 0);
    ASSERT_NE(run.startResult(), 0);
    writeMadeUp(run.stage(), 0, 4 * SecondUs, 30);
    const auto packets = run.finish();
    EXPECT_TRUE(deliveredOf(packets, PacketType::Multiplexed).empty());
    EXPECT_FALSE(announced(packets).empty());
}

TEST_F(BasicMuxerTest, RtpPassesTheEmptyFormatAsPackets)
{
    copyMadeUp(m_session, "", "mpeg4", "mp3");
    m_session.request.output.multiplexed = false;
    m_session.request.output.rtp = true;
    StageRun run(m_session);
    writeMadeUp(run.stage(), 0, SecondUs);
    const auto packets = run.finish();
    EXPECT_EQ(deliveredOf(packets, PacketType::Video).size(), 25U);
    EXPECT_EQ(deliveredOf(packets, PacketType::Audio).size(), 42U);
    EXPECT_EQ(packets.size(), 67U);
}

TEST_F(BasicMuxerTest, OutputThatIsNotMultiplexedLeavesAsPacketsInTimeOrder)
{
    copyMadeUp(m_session, "", "mpeg4", "mp3");
    m_session.request.output.multiplexed = false;
    StageRun run(m_session);
    for (unsigned long long n = 0; n < 25; ++n) {
        run.write(madeUpVideo(n * MadeUpFrameUs, n == 0));
    }
    for (unsigned long long n = 0; n < 42; ++n) {
        run.write(madeUpAudio(n * MadeUpAudioUs));
    }
    auto packets = run.finish();
    std::erase_if(packets,
                  [](const Delivered& packet) { return packet.type == PacketType::Metadata; });
    ASSERT_EQ(packets.size(), 67U);
    EXPECT_TRUE(
        std::is_sorted(packets.begin(), packets.end(), [](const Delivered& a, const Delivered& b) {
            return a.timestampUs < b.timestampUs;
        }));
    EXPECT_EQ(deliveredOf(packets, PacketType::Video).at(3).bytes, std::string(50, 'v'));
    EXPECT_TRUE(deliveredOf(packets, PacketType::Video).at(0).keyFrame);
    EXPECT_FALSE(deliveredOf(packets, PacketType::Video).at(1).keyFrame);
    EXPECT_EQ(deliveredOf(packets, PacketType::Audio).at(3).timestampUs, 3 * MadeUpAudioUs);
}

TEST_F(BasicMuxerTest, UnknownFormatFailsTheSetUp)
{
    copyMadeUp(m_session, "nosuchformat", "flv", "mp3");
    {
        StageRun run(m_session);
        EXPECT_EQ(run.initResult(), -1);
        EXPECT_EQ(run.stage().start(), 0);
    }
    const std::string text = m_log.fileText("FFMpegEncoder.log");
    EXPECT_NE(text.find("FFMpegEncoder::initFFMpegContext() could not find output format "
                        "nosuchformat"),
              std::string::npos);
    EXPECT_NE(text.find("initFFMpegContext() init output context failed -1"), std::string::npos);
}

TEST_F(BasicMuxerTest, FormatThatRefusesItsStreamsDoesNotStart)
{
    copyMadeUp(m_session, "flv", "mpeg4", "mp3");
    {
        StageRun run(m_session);
        EXPECT_EQ(run.initResult(), 0);
        EXPECT_EQ(run.startResult(), 0);
    }
    EXPECT_NE(m_log.fileText("FFMpegEncoder.log").find("avformat_write_header returned -"),
              std::string::npos);
}

TEST_F(BasicMuxerTest, DurationOfTheMediumStandsInTheContainer)
{
    for (const char* format : {"flv", "matroska"}) {
        OutputSession session;
        copyMadeUp(session, format, "flv", "mp3");
        session.medium.durationMs = 6543;
        StageRun run(session);
        writeMadeUp(run.stage(), 0, 2 * SecondUs);
        EXPECT_DOUBLE_EQ(readBackOf(run.finish()).durationMs, 6543.0) << format;
    }
}

TEST_F(BasicMuxerTest, MaxDelayIsTheOptionsOrTheFormatsOwn)
{
    struct Case
    {
        const char* format;
        const char* option; ///< null for none
        int64_t expectedUs;
    };
    const Case cases[] = {{"flv", nullptr, 500000},     {"flv", "0", 700000},
                          {"flv", "2.5", 2500000},      {"flv", "-1", 700000},
                          {"mpegts", nullptr, 1000000}, {"mpegts", "0", 1000000},
                          {"mpegts", "0.25", 250000}};
    for (const Case& expected : cases) {
        OutputSession session;
        copyMadeUp(session, expected.format, "flv", "mp3");
        if (expected.option != nullptr) {
            session.options.set("encoderMaxDelay", expected.option);
        }
        const auto profile = session.profile();
        OpenMuxer muxer(*profile);
        ASSERT_EQ(muxer.initOutputContext(), 0);
        EXPECT_EQ(muxer.maxDelay(), expected.expectedUs)
            << expected.format << " " << (expected.option != nullptr ? expected.option : "");
    }
}

TEST_F(BasicMuxerTest, PacketOfAnotherKindIsLoggedAndReleased)
{
    copyMadeUp(m_session, "flv", "flv", "mp3");
    const auto profile = m_session.profile();
    OpenMuxer muxer(*profile);
    ASSERT_EQ(muxer.initOutputContext(), 0);
    auto* packet = new MuxerPacket;
    packet->setAndCopy(PacketType::Notice, nullptr, 0, 7000, 99, false);
    muxer.muxSyncedPacket(packet);
    EXPECT_EQ(m_log.count("[BasicMuxer::muxSyncedPacket] unsupported packet type! 4 99 7000"), 1);
}

TEST_F(BasicMuxerTest, PacketsWithoutAContainerAreLogged)
{
    copyMadeUp(m_session, "flv", "flv", "mp3");
    const auto profile = m_session.profile();
    OpenMuxer muxer(*profile);
    for (const PacketType::Enum type : {PacketType::Video, PacketType::Audio}) {
        auto* packet = new MuxerPacket;
        packet->setAndCopy(type, nullptr, 0, 0, 0, false);
        muxer.muxSyncedPacket(packet);
    }
    EXPECT_EQ(
        m_log.count("[BasicMuxer::_writeVideoPacket] !m_outputContext || !m_outputContext->pb"), 1);
    EXPECT_EQ(
        m_log.count("[BasicMuxer::_writeAudioPacket] !m_outputContext || !m_outputContext->pb"), 1);
}

TEST_F(BasicMuxerTest, RefusedVideoPacketIsLoggedAndTheStreamGoesOn)
{
    copyMadeUp(m_session, "mpegts", "h264", "");
    StageRun run(m_session, StageRun::Reader::TheTest);
    m_log.makeCurrent();
    run.write(madeUpVideo(0, true, "no start code"));
    EXPECT_TRUE(run.soFar().empty());
    EXPECT_EQ(m_log.count("[BasicMuxer::_writeVideoPacket] : av_write_frame returned -"), 1);
    const std::string picture("\0\0\0\1\x65\x88\x84\0\x10", 9);
    run.write(madeUpVideo(MadeUpFrameUs, true, picture));
    EXPECT_FALSE(run.soFar().empty());
}

TEST_F(BasicMuxerTest, RefusedAudioPacketIsLoggedAndTheStreamGoesOn)
{
    copyMadeUp(m_session, "flv", "", "aac");
    StageRun run(m_session, StageRun::Reader::TheTest);
    m_log.makeCurrent();
    run.soFar();
    // The header of a frame that no decoder knows.
    run.write(madeUpAudio(0, std::string("\xFF\xF1") + std::string(9, '\xFF')));
    EXPECT_TRUE(run.soFar().empty());
    EXPECT_EQ(m_log.count("[BasicMuxer::_writeAudioPacket] : av_write_frame returned -"), 1);
    run.write(madeUpAudio(MadeUpAudioUs));
    EXPECT_FALSE(run.soFar().empty());
}

TEST_F(BasicMuxerTest, FramesOfEqualTimesAreNotRefused)
{
    copyMadeUp(m_session, "mpegts", "mpeg2", "");
    StageRun run(m_session);
    m_log.makeCurrent();
    for (int n = 0; n < 5; ++n) {
        run.write(madeUpVideo(SecondUs, n == 0));
    }
    const auto packets = run.finish();
    EXPECT_EQ(m_log.count("av_write_frame returned"), 0);
    int pictures = 0;
    for (const TSPacket& packet : tsPackets(containerBytes(packets))) {
        pictures += packet.pid == FirstStreamPid && packet.beginsUnit ? 1 : 0;
    }
    EXPECT_EQ(pictures, 5);
}

TEST_F(BasicMuxerTest, SetUpOfVideoThatComesLateIsUsedForTheContainer)
{
    copyMadeUp(m_session, "flv", "h264", "");
    StageRun run(m_session);
    const std::string setUp("\1\x42\0\x1E\xFF\xE1\0\4\x67\x42\0\x1E\1\0\3\x68\xCE\x38", 18);
    run.write(samplePacket(PacketType::Video, setUp, zel::streamer::SamplePacket::NoTimestamp));
    run.write(madeUpVideo(0, true, lengthPrefixed("\x65\x88\x84")));
    const auto tags = flvTags(containerBytes(run.finish()));
    const auto found = std::find_if(tags.begin(), tags.end(), [](const FlvTag& tag) {
        return tag.isSetUp && tag.body.size() > 5;
    });
    ASSERT_NE(found, tags.end());
    EXPECT_EQ(found->body.substr(5), setUp);
    EXPECT_TRUE((found + 1)->isKey);
}
