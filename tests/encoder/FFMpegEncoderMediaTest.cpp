#include "tests/encoder/StageRun.h"
#include "tests/support/MediaReference.h"
#include "tests/support/RunProgram.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestFolders.h"

#include <gtest/gtest.h>

#include <sstream>

/// Media through the stage, and what independent readers make of the result.

using namespace zel::test;
namespace PacketType = zel::streamer::PacketType;

namespace {

/// Keeps the bytes in a file and asks ffmpeg to decode all of it.
class FFMpegEncoderMedia : public testing::Test
{
protected:
    std::string keep(const std::vector<Delivered>& packets, const std::string& name)
    {
        const std::string path = m_folder.path(name);
        writeFile(path, containerBytes(packets));
        return path;
    }

    static void expectNoComplaint(const std::string& path)
    {
        const ProgramResult result =
            runProgram({"ffmpeg", "-v", "warning", "-i", path, "-f", "null", "-"});
        EXPECT_TRUE(result.succeeded()) << result.describe();
        EXPECT_EQ(withoutArrayEnd(result.err), "") << path;
    }

    /// The header's array has no end mark on purpose, which one reader remarks upon.
    static std::string withoutArrayEnd(const std::string& complaints)
    {
        std::istringstream lines(complaints);
        std::string kept;
        for (std::string line; std::getline(lines, line);) {
            if (line.find("Missing AMF_END_OF_OBJECT") == std::string::npos) {
                kept += line + "\n";
            }
        }
        return kept;
    }

    TempFolder m_folder;
};

} // namespace

TEST_F(FFMpegEncoderMedia, EncodesRawStreamsIntoFlv)
{
    OutputSession session;
    session.requestFormat("flv");
    session.requestVideo("flv", 500000);
    session.requestAudio("mp3", 128000);
    const auto packets = transcode(mediaFolder() + "/h264_aac.mp4", session);
    ASSERT_FALSE(packets.empty());
    const std::string path = keep(packets, "a.flv");
    expectNoComplaint(path);
}

TEST_F(FFMpegEncoderMedia, CopiesH264AndAac)
{
    for (const std::string format : {"flv", "mpegts", "matroska"}) {
        OutputSession session;
        session.requestFormat(format.c_str());
        session.requestVideo("h264", 500000);
        session.requestAudio("aac", 128000, 2);
        Feed feed;
        feed.copyAudio = true;
        feed.copyVideo = true;
        const auto packets = transcode(mediaFolder() + "/h264_aac.mp4", session, feed);
        ASSERT_FALSE(packets.empty());
        expectNoComplaint(keep(packets, "a." + format));
    }
}
