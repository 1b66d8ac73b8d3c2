#include "encoder/FFMpegEncoder.h"
#include "tests/encoder/ContainerBytes.h"
#include "tests/encoder/MadeUpMedium.h"
#include "tests/encoder/RawMedia.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <malloc.h>
#include <random>

/// Seeks in what goes through the stage, in all kinds of output.

using namespace zel::test;
namespace PacketType = zel::streamer::PacketType;
namespace fs = std::filesystem;

namespace {

constexpr unsigned long long SecondUs = 1000000;
constexpr int Seeks = 200;
constexpr int WarmUp = 50;

/// What the process holds.
struct Footprint
{
    std::size_t bytes = mallinfo2().uordblks;
    std::ptrdiff_t files = std::distance(fs::directory_iterator("/proc/self/fd"), {});
};

class FFMpegEncoderSeek : public testing::Test
{
protected:
    using Writer = std::function<void(FFMpegEncoder&, unsigned long long startUs)>;
    using Check =
        std::function<void(const std::vector<Delivered>& packets, unsigned long long startUs)>;

    /// Seeks forwards and backwards while a reader reads, and looks at what comes after each.
    void seekALot(OutputSession& session, const Writer& write, const Check& check)
    {
        StageRun run(session);
        ASSERT_NE(run.startResult(), 0);
        write(run.stage(), 0);
        run.soFar();
        std::minstd_rand random(11);
        Footprint before;
        for (int n = 0; n < Seeks; ++n) {
            const unsigned long long positionMs = random() % 600000;
            run.seek(positionMs);
            write(run.stage(), positionMs * 1000);
            SCOPED_TRACE(std::to_string(n) + ": " + std::to_string(positionMs));
            check(run.soFar(), positionMs * 1000);
            if (HasFatalFailure()) {
                return;
            }
            if (n == WarmUp) {
                before = Footprint();
            }
        }
        const Footprint after;
        EXPECT_EQ(after.files, before.files);
        // Five thousand bytes a seek would show.
        EXPECT_LT(after.bytes, before.bytes + (Seeks - WarmUp) * 5000UL);
    }

    LogCapture m_log{LOGLEVEL_ERROR};
    TempFolder m_folder;
    ScopedVariable m_tmpDir{"TMPDIR", m_folder.path()};
};

constexpr int WrittenPictures = 28;
constexpr unsigned long long WrittenUs = WrittenPictures * PeriodUs;

/// Pictures of 64 x 48 and stereo sound.
void writeRaw(FFMpegEncoder& stage, unsigned long long startUs)
{
    constexpr int SamplesAPicture = 1764;
    static const std::vector<std::string> moving = [] {
        std::vector<std::string> made;
        made.reserve(25);
        for (int n = 0; n < 25; ++n) {
            made.push_back(movingPicture(64, 48, n));
        }
        return made;
    }();
    static const std::string sound = bytesOf(tone(440.0, 44100, 2, SamplesAPicture));
    for (int n = 0; n < WrittenPictures; ++n) {
        const unsigned long long timestampUs =
            startUs + static_cast<unsigned long long>(n) * PeriodUs;
        stage.write(samplePacket(PacketType::Video, moving[static_cast<std::size_t>(n % 25)],
                                 timestampUs, PeriodUs));
        stage.write(samplePacket(PacketType::Audio, sound, timestampUs, PeriodUs));
    }
}

void writeCopied(FFMpegEncoder& stage, unsigned long long startUs)
{
    writeMadeUp(stage, startUs, startUs + WrittenUs);
}

/// @param roundedUs  a frame's time may be rounded down by so much
void expectFresh(const std::vector<Delivered>& packets, unsigned long long startUs,
                 unsigned long long roundedUs = 0)
{
    int stamped = 0;
    for (const Delivered& packet : packets) {
        if (packet.hasTimestamp()) {
            ++stamped;
            EXPECT_GE(packet.timestampUs + roundedUs, startUs);
            EXPECT_LE(packet.timestampUs, startUs + WrittenUs);
        }
    }
    EXPECT_GT(stamped, 0);
}

/// Fresh, and the tags are whole and begin with a key frame.
void expectFlv(const std::vector<Delivered>& packets, unsigned long long startUs)
{
    expectFresh(packets, startUs);
    const auto tags = flvTags(containerBytes(packets));
    ASSERT_GT(tags.size(), 50U);
    const auto video =
        std::find_if(tags.begin(), tags.end(), [](const FlvTag& tag) { return tag.type == 9; });
    ASSERT_NE(video, tags.end());
    EXPECT_TRUE(video->isKey);
    EXPECT_NEAR(static_cast<double>(video->timestampMs), static_cast<double>(startUs) / 1000.0,
                21.0);
    const auto audio =
        std::find_if(tags.begin(), tags.end(), [](const FlvTag& tag) { return tag.type == 8; });
    ASSERT_NE(audio, tags.end());
    EXPECT_NEAR(static_cast<double>(audio->timestampMs), static_cast<double>(video->timestampMs),
                40.0);
}

void expectTransportStream(const std::vector<Delivered>& packets, unsigned long long startUs)
{
    expectFresh(packets, startUs);
    const auto parts = tsPackets(containerBytes(packets));
    ASSERT_GT(parts.size(), 28U);
    EXPECT_EQ(parts[0].pid, DescriptionPid);
    EXPECT_EQ(parts[1].pid, TablePid);
    EXPECT_EQ(parts[2].pid, ProgramPid);
    const auto video = std::find_if(parts.begin(), parts.end(), [](const TSPacket& part) {
        return part.pid == FirstStreamPid + 1;
    });
    ASSERT_NE(video, parts.end());
    EXPECT_TRUE(video->beginsUnit);
    EXPECT_TRUE(video->isRandomAccess);
}

void expectMatroska(const std::vector<Delivered>& packets, unsigned long long startUs)
{
    expectFresh(packets, startUs);
    const auto blocks = clusterBlocks(containerBytes(packets));
    const auto video = std::find_if(blocks.begin(), blocks.end(),
                                    [](const Block& block) { return block.track == 2; });
    ASSERT_NE(video, blocks.end());
    EXPECT_TRUE(video->isKey);
    EXPECT_NEAR(static_cast<double>(video->timestampMs), static_cast<double>(startUs) / 1000.0,
                21.0);
}

void expectFile(const std::vector<Delivered>& packets, unsigned long long startUs)
{
    const auto told = notices(packets);
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].timestampUs, startUs);
    EXPECT_EQ(told[0].durationUs, SecondUs);
    const std::string name = "segment-0-" + std::to_string(startUs / (10 * SecondUs)) + ".ts";
    EXPECT_EQ(fs::path(told[0].bytes).filename(), name);
    const auto parts = tsPackets(readFile(told[0].bytes));
    ASSERT_GT(parts.size(), 25U);
    EXPECT_EQ(parts[0].pid, DescriptionPid);
}

/// What seekALot writes for expectFile.
template <class Write>
auto withACut(Write write)
{
    return [write](FFMpegEncoder& stage, unsigned long long startUs) {
        stage.write(cutAt(startUs + SecondUs));
        write(stage, startUs);
    };
}

void expectPackets(const std::vector<Delivered>& packets, unsigned long long startUs)
{
    expectFresh(packets, startUs, PeriodUs / 2);
    const auto video = deliveredOf(packets, PacketType::Video);
    ASSERT_GT(video.size(), 25U);
    EXPECT_TRUE(video[0].keyFrame);
    EXPECT_GT(deliveredOf(packets, PacketType::Audio).size(), 25U);
}

} // namespace

TEST_F(FFMpegEncoderSeek, CopiedStreamsInFlvGoOn)
{
    OutputSession session;
    copyMadeUp(session, "flv", "flv", "mp3");
    seekALot(session, &writeCopied, &expectFlv);
}

TEST_F(FFMpegEncoderSeek, CopiedStreamsInTransportStreamsGoOn)
{
    OutputSession session;
    copyMadeUp(session, "mpegts", "mpeg2", "mp2");
    seekALot(session, &writeCopied, &expectTransportStream);
}

TEST_F(FFMpegEncoderSeek, CopiedStreamsInMatroskaGoOn)
{
    OutputSession session;
    copyMadeUp(session, "matroska", "mpeg4", "mp3");
    seekALot(session, &writeCopied, &expectMatroska);
}

TEST_F(FFMpegEncoderSeek, EncodedStreamsInFlvGoOn)
{
    OutputSession session = multiplexedSession("flv", "flv", "mp3");
    seekALot(session, &writeRaw, &expectFlv);
}

TEST_F(FFMpegEncoderSeek, EncodedStreamsInTransportStreamsGoOn)
{
    OutputSession session = multiplexedSession("mpegts", "mpeg2video", "mp2");
    seekALot(session, &writeRaw, &expectTransportStream);
}

TEST_F(FFMpegEncoderSeek, EncodedStreamsInMatroskaGoOn)
{
    OutputSession session = multiplexedSession("matroska", "mpeg4", "ac3");
    seekALot(session, &writeRaw, &expectMatroska);
}

TEST_F(FFMpegEncoderSeek, CopiedStreamsInFilesGoOn)
{
    OutputSession session;
    copyMadeUp(session, "mpegts", "mpeg2", "mp2");
    session.options.set("MpegTSMethod", "segmented");
    seekALot(session, withACut(&writeCopied), &expectFile);
}

TEST_F(FFMpegEncoderSeek, EncodedStreamsInFilesGoOn)
{
    OutputSession session = multiplexedSession("mpegts", "mpeg2video", "mp2");
    session.options.set("MpegTSMethod", "segmented");
    seekALot(session, withACut(&writeRaw), &expectFile);
}

TEST_F(FFMpegEncoderSeek, CopiedPacketsGoOn)
{
    OutputSession session;
    copyMadeUp(session, "", "mpeg4", "mp3");
    session.request.output.multiplexed = false;
    seekALot(session, &writeCopied, &expectPackets);
}

TEST_F(FFMpegEncoderSeek, EncodedPacketsGoOn)
{
    OutputSession session = rawSession("mpeg4", "mp2");
    seekALot(session, &writeRaw, &expectPackets);
}

TEST_F(FFMpegEncoderSeek, CopiedPacketsOfRtpGoOn)
{
    OutputSession session;
    copyMadeUp(session, "", "mpeg4", "mp3");
    session.request.output.multiplexed = false;
    session.request.output.rtp = true;
    StageRun run(session, StageRun::Reader::TheTest);
    std::minstd_rand random(11);
    for (int n = 0; n < Seeks; ++n) {
        const unsigned long long positionMs = random() % 600000;
        run.seek(positionMs);
        writeMadeUp(run.stage(), positionMs * 1000, positionMs * 1000 + SecondUs);
        unsigned long long lastUs = 0;
        for (int packets = 0; packets < 67; ++packets) {
            const auto packet = run.next();
            ASSERT_TRUE(packet);
            EXPECT_GE(packet->timestampUs, std::max(lastUs, positionMs * 1000));
            lastUs = packet->timestampUs;
        }
    }
}

TEST_F(FFMpegEncoderSeek, EncodedPacketsOfRtpGoOn)
{
    OutputSession session = rawSession("mpeg4", "ac3");
    session.request.output.rtp = true;
    session.request.output.rtpPacketSize = 1000;
    StageRun run(session, StageRun::Reader::TheTest);
    std::minstd_rand random(11);
    for (int n = 0; n < Seeks; ++n) {
        const unsigned long long positionMs = random() % 600000;
        run.seek(positionMs);
        writeRaw(run.stage(), positionMs * 1000);
        // Both kinds come; a reader that waits in vain would wait for ever.
        bool hasVideo = false;
        bool hasAudio = false;
        while (!hasVideo || !hasAudio) {
            const auto packet = run.next();
            ASSERT_TRUE(packet);
            hasVideo = hasVideo || packet->type == PacketType::Video;
            hasAudio = hasAudio || packet->type == PacketType::Audio;
        }
    }
}

TEST_F(FFMpegEncoderSeek, NothingOfTheOldPositionComesBehindASeek)
{
    for (const char* format : {"flv", "matroska"}) {
        OutputSession session;
        copyMadeUp(session, format, "flv", "mp3");
        StageRun run(session, StageRun::Reader::TheTest);
        run.soFar();
        for (unsigned long long n = 0; n < 50; ++n) {
            run.write(madeUpVideo(n * MadeUpFrameUs, n == 0, std::string(50, 'o')));
            run.write(madeUpAudio(n * MadeUpFrameUs, std::string(50, 'o')));
        }
        run.seek(100000);
        writeCopied(run.stage(), 100 * SecondUs);
        const std::string bytes = containerBytes(run.soFar());
        EXPECT_EQ(bytes.find(std::string(10, 'o')), std::string::npos);
        EXPECT_NE(bytes.find(std::string(50, 'v')), std::string::npos);
    }
}

TEST_F(FFMpegEncoderSeek, FrameThatTheReaderHasNotBegunIsDroppedWhole)
{
    OutputSession session;
    copyMadeUp(session, "flv", "flv", "");
    StageRun run(session, StageRun::Reader::TheTest);
    run.soFar();
    run.write(madeUpVideo(0, true, std::string(200000, 'b')));
    run.seek(30000);
    run.write(madeUpVideo(30 * SecondUs, true));
    const auto tags = flvTags(containerBytes(run.soFar()));
    ASSERT_EQ(tags.size(), 1U);
    EXPECT_EQ(tags[0].timestampMs, 30000);
}

TEST_F(FFMpegEncoderSeek, NoTrailerAndNoHeaderComeWithASeek)
{
    OutputSession session;
    copyMadeUp(session, "flv", "h264", "mp3");
    session.input.stream.video.codecPrivateData = "0142001effe100046742001e01000368ce38";
    StageRun run(session, StageRun::Reader::TheTest);
    const std::string picture("\0\0\0\3\x65\x88\x84", 7);
    run.write(madeUpVideo(0, true, picture));
    run.write(madeUpAudio(0));
    run.soFar();
    run.seek(30000);
    EXPECT_TRUE(run.soFar().empty());
    run.write(madeUpVideo(30 * SecondUs, true, picture));
    run.write(madeUpAudio(30 * SecondUs));
    for (const FlvTag& tag : flvTags(containerBytes(run.soFar()))) {
        EXPECT_FALSE(tag.isSetUp);
        EXPECT_NE(tag.type, 18);
        EXPECT_GT(tag.body.size(), 5U); // the end of a sequence is no longer
    }
}

TEST_F(FFMpegEncoderSeek, CopiedH264BeginsAnewAndSoDoesItsAudio)
{
    OutputSession session;
    copyMadeUp(session, "flv", "h264", "mp3");
    session.input.stream.video.codecPrivateData = "0142001effe100046742001e01000368ce38";
    StageRun run(session, StageRun::Reader::TheTest);
    const std::string picture("\0\0\0\3\x65\x88\x84", 7);
    for (const unsigned long long positionMs : {0ULL, 60000ULL, 2000ULL}) {
        run.seek(positionMs);
        run.write(madeUpVideo(positionMs * 1000, true, picture));
        for (unsigned long long n = 0; n < 10; ++n) {
            run.write(madeUpAudio(positionMs * 1000 + 7000 + n * MadeUpAudioUs));
        }
        run.write(madeUpVideo(positionMs * 1000 + MadeUpFrameUs, false, picture));
        std::vector<FlvTag> tags = flvTags(containerBytes(run.soFar()));
        std::erase_if(tags, [](const FlvTag& tag) { return tag.type == 18 || tag.isSetUp; });
        ASSERT_GE(tags.size(), 2U);
        EXPECT_EQ(tags[0].type, 9);
        EXPECT_EQ(tags[0].timestampMs, 0);
        EXPECT_EQ(tags[1].type, 8);
        EXPECT_EQ(tags[1].timestampMs, 7);
    }
}

TEST_F(FFMpegEncoderSeek, CopiedStreamIsNotSqueezedWhenNothingWasEncodedYet)
{
    OutputSession session;
    copyMadeUp(session, "flv", "flv", "");
    session.inputAudio("raw");
    session.input.stream.audio.channels = 2;
    session.input.stream.audio.sampleRate = 44100;
    session.input.stream.audio.bitsPerSample = 16;
    session.requestAudio("mp3", 128000, 2, 44100);
    StageRun run(session);
    // So long without sound that pictures pass nevertheless.
    for (unsigned long long n = 0; n < 100; ++n) {
        run.write(madeUpVideo(60 * SecondUs + n * MadeUpFrameUs, n == 0));
    }
    run.seek(1000);
    const std::string sound = bytesOf(tone(440.0, 44100, 2, 1764));
    for (unsigned long long n = 0; n < 50; ++n) {
        run.write(madeUpVideo(SecondUs + n * MadeUpFrameUs, n == 0));
        run.write(samplePacket(PacketType::Audio, sound, SecondUs + n * MadeUpFrameUs));
    }
    std::vector<FlvTag> tags = flvTags(containerBytes(run.finish()));
    std::erase_if(tags, [](const FlvTag& tag) { return tag.type != 9; });
    ASSERT_EQ(tags.size(), 50U);
    for (std::size_t n = 1; n < tags.size(); ++n) {
        EXPECT_EQ(tags[n].timestampMs - tags[n - 1].timestampMs, 40);
    }
}

TEST_F(FFMpegEncoderSeek, WriterGoesOnWhileTheHostSeeks)
{
    OutputSession session;
    copyMadeUp(session, "flv", "flv", "mp3");
    StageRun run(session);
    std::string bytes =
        containerBytes(run.soFar()); // a header that nobody has read goes with the rest
    std::atomic<bool> isDone{false};
    std::thread writer([&run, &isDone] {
        for (unsigned long long second = 0; !isDone; ++second) {
            writeMadeUp(run.stage(), second * SecondUs, (second + 1) * SecondUs);
        }
    });
    for (unsigned long long n = 0; n < Seeks; ++n) {
        run.seek(n * 7919 % 100000);
    }
    isDone = true;
    writer.join();
    // Whatever came in between, the tags are whole up to the end.
    bytes += containerBytes(run.finish());
    EXPECT_FALSE(flvTags(bytes).empty());
}
