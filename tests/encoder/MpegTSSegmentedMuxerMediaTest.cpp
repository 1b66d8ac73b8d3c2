#include "tests/encoder/ContainerBytes.h"
#include "tests/encoder/MadeUpMedium.h"
#include "tests/encoder/ReadBack.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RunProgram.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestFolders.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

/// Media in files, as independent readers see them.

using namespace zel::test;
namespace PacketType = zel::streamer::PacketType;

namespace {

constexpr unsigned long long NoTimestamp = zel::streamer::SamplePacket::NoTimestamp;

/// A folder for temporary data of the test's own.
class MpegTSSegmentedMuxerMedia : public testing::Test
{
protected:
    struct Output
    {
        std::vector<Delivered> packets;
        std::vector<std::string> files; ///< the content of each file that a notice told of
    };

    /// @param cutsUs  when a file shall begin, as the host asks for it right before
    Output segment(OutputSession& session, const Feed& wanted,
                   const std::vector<unsigned long long>& cutsUs)
    {
        session.requestFormat("mpegts");
        session.options.set("MpegTSMethod", "segmented");
        Feed feed = wanted;
        FFMpegEncoder* stage = nullptr;
        std::size_t next = 0;
        feed.beforeWrite = [&](PacketType::Enum type, unsigned long long timestampUs, bool) {
            const bool isStamped = timestampUs != NoTimestamp;
            for (; type == PacketType::Video && isStamped && next < cutsUs.size() &&
                   cutsUs[next] <= timestampUs;
                 ++next) {
                stage->write(cutAt(cutsUs[next]));
            }
        };
        MediumFeed medium(mediaFolder() + "/h264_aac.mp4", feed);
        medium.describe(session);
        StageRun run(session);
        EXPECT_NE(run.startResult(), 0);
        stage = &run.stage();
        medium.writeTo(run.stage());
        Output output{run.finish(), {}};
        for (const Delivered& notice : notices(output.packets)) {
            output.files.push_back(readFile(notice.bytes));
        }
        return output;
    }

    static void copyAll(OutputSession& session, Feed& feed)
    {
        session.requestVideo("h264", 500000);
        session.requestAudio("aac", 128000);
        feed.copyAudio = true;
        feed.copyVideo = true;
    }

    /// A player opens each file for itself.
    void expectEachPlaysAlone(const std::vector<std::string>& files)
    {
        for (std::size_t i = 0; i < files.size(); ++i) {
            SCOPED_TRACE(i + 1);
            const std::string path = m_folder.path("alone.ts");
            writeFile(path, files[i]);
            const ProgramResult result =
                runProgram({"ffmpeg", "-v", "warning", "-i", path, "-f", "null", "-"});
            EXPECT_TRUE(result.succeeded()) << result.describe();
            EXPECT_EQ(result.err, "");
            const PlayedMedium played = readBack(path);
            ASSERT_TRUE(played.video.present());
            EXPECT_TRUE(played.audio.present());
            EXPECT_TRUE(played.video.keys.at(0));
            const auto packets = tsPackets(files[i]);
            EXPECT_EQ(packets[0].pid, DescriptionPid);
            EXPECT_EQ(packets[1].pid, TablePid);
            EXPECT_EQ(packets[2].pid, ProgramPid);
            // The first file may begin with sound from before the first picture.
            if (i > 0) {
                EXPECT_EQ(packets[3].pid, FirstStreamPid + 1);
                EXPECT_TRUE(packets[3].isRandomAccess);
            }
        }
    }

    PlayedMedium readTogether(const std::vector<std::string>& files)
    {
        std::string all;
        for (const std::string& file : files) {
            all += file;
        }
        writeFile(m_folder.path("together.ts"), all);
        return readBack(m_folder.path("together.ts"));
    }

    LogCapture m_log{LOGLEVEL_WARN};
    TempFolder m_folder;
    ScopedVariable m_tmpDir{"TMPDIR", m_folder.path()};
};

} // namespace

TEST_F(MpegTSSegmentedMuxerMedia, EachFileOfACopiedMediumPlaysAlone)
{
    OutputSession session;
    Feed feed;
    copyAll(session, feed);
    std::vector<unsigned long long> keysUs;
    feed.beforeWrite = [&keysUs](PacketType::Enum type, unsigned long long timestampUs, bool key) {
        if (type == PacketType::Video && key && timestampUs != NoTimestamp) {
            keysUs.push_back(timestampUs);
        }
    };
    OutputSession first;
    copyAll(first, feed);
    first.requestFormat("mpegts");
    ASSERT_FALSE(transcode(mediaFolder() + "/h264_aac.mp4", first, feed).empty());
    ASSERT_GT(keysUs.size(), 4U);
    keysUs.erase(keysUs.begin());

    const Output output = segment(session, feed, keysUs);
    ASSERT_EQ(output.files.size(), keysUs.size() + 1);
    expectEachPlaysAlone(output.files);
    const auto told = notices(output.packets);
    for (std::size_t i = 0; i < keysUs.size(); ++i) {
        EXPECT_EQ(told[i].timestampUs + told[i].durationUs, keysUs[i]);
    }
    const PlayedMedium medium = readBack(mediaFolder() + "/h264_aac.mp4");
    const PlayedMedium together = readTogether(output.files);
    EXPECT_EQ(together.video.payloads, medium.video.payloads);
    EXPECT_EQ(together.audio.payloads, medium.audio.payloads);
    EXPECT_NEAR(together.startOffsetMs(), medium.startOffsetMs(), 1.0);
}

TEST_F(MpegTSSegmentedMuxerMedia, FilesTogetherAreTheStreamThatIsNotCut)
{
    OutputSession whole;
    OutputSession cut;
    Feed feed;
    copyAll(whole, feed);
    copyAll(cut, feed);
    const Output single = segment(whole, feed, {});
    ASSERT_EQ(single.files.size(), 1U);
    const Output pieces = segment(cut, feed, {3000000, 3500000, 9000000});
    ASSERT_EQ(pieces.files.size(), 4U);
    const PlayedMedium one = readTogether(single.files);
    const PlayedMedium all = readTogether(pieces.files);
    EXPECT_EQ(all.video.payloads, one.video.payloads);
    EXPECT_EQ(all.audio.payloads, one.audio.payloads);
    EXPECT_EQ(all.video.shownMs, one.video.shownMs);
    EXPECT_EQ(all.video.sentMs, one.video.sentMs);
    // Several sounds share a packet, and a cut ends one, so readers round their times elsewhere.
    double worst = 0.0;
    for (std::size_t i = 0; i < one.audio.count(); ++i) {
        worst = std::max(worst, std::fabs(all.audio.shownMs[i] - one.audio.shownMs[i]));
    }
    EXPECT_LT(worst, 0.1);
}

TEST_F(MpegTSSegmentedMuxerMedia, EachFileOfAnEncodedMediumPlaysAlone)
{
    // The announced key frames are where a host cuts.
    std::vector<unsigned long long> keysUs;
    OutputSession first;
    first.requestVideo("mpeg2", 500000);
    first.requestAudio("mp2", 128000);
    const Output uncut = segment(first, {}, {});
    for (const Delivered& packet : deliveredOf(uncut.packets, PacketType::Metadata)) {
        keysUs.push_back(packet.timestampUs);
    }
    ASSERT_GT(keysUs.size(), 3U);

    OutputSession session;
    session.requestVideo("mpeg2", 500000);
    session.requestAudio("mp2", 128000);
    const Output output = segment(session, {}, keysUs);
    ASSERT_EQ(output.files.size(), keysUs.size() + 1);
    expectEachPlaysAlone(output.files);
    EXPECT_EQ(readTogether(output.files).video.count(), readTogether(uncut.files).video.count());
    EXPECT_EQ(readTogether(output.files).audio.payloads, readTogether(uncut.files).audio.payloads);
}
