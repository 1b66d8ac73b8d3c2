#include "tests/encoder/ReadBack.h"
#include "tests/encoder/StageRun.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RunProgram.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestFolders.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <sstream>

/// Seeks in a medium that goes through the stage, and what a player shows of it.

using namespace zel::test;

namespace {

/// Frames that ffprobe can decode, and what it complains about.
struct Decoded
{
    long long video = 0;
    long long audio = 0;
    std::string complaints;
};

Decoded decodeAll(const std::string& path)
{
    const auto count = [&path](const std::string& stream, std::string& complaints) {
        const ProgramResult result =
            runProgram({"ffprobe", "-v", "error", "-count_frames", "-select_streams", stream,
                        "-show_entries", "stream=nb_read_frames", "-of", "csv=p=0", path});
        std::istringstream lines(result.err);
        for (std::string line; std::getline(lines, line);) {
            // The header's array has no end mark on purpose.
            const bool isHarmless = line.find("Missing AMF_END_OF_OBJECT") != std::string::npos;
            complaints += isHarmless ? "" : line + "\n";
        }
        return std::atoll(result.out.c_str());
    };
    Decoded decoded;
    decoded.video = count("v:0", decoded.complaints);
    decoded.audio = count("a:0", decoded.complaints);
    return decoded;
}

/// What is encoded in a container, which all players of it know.
struct Codecs
{
    const char* format;
    const char* video;
    const char* audio;
};

class FFMpegEncoderSeekMedia : public testing::Test
{
protected:
    /// Seeks while a reader reads, and lets a player have a look at all that it got.
    void expectPlayable(const Codecs& codecs, bool copied, int seeks, std::size_t packets)
    {
        SCOPED_TRACE(codecs.format);
        OutputSession session;
        session.requestFormat(codecs.format);
        session.requestVideo(codecs.video, 500000);
        session.requestAudio(codecs.audio, 128000);
        Feed feed;
        feed.copyAudio = copied;
        feed.copyVideo = copied;
        MediumFeed medium(mediaFolder() + "/h264_aac.mp4", feed);
        medium.describe(session);
        StageRun run(session);
        ASSERT_NE(run.startResult(), 0);
        const std::string path = m_folder.path("output");
        std::ofstream file(path, std::ios::binary);
        file << containerBytes(
            run.soFar()); // a header that nobody has read goes with the first seek
        std::minstd_rand random(7);
        int goneOn = 0;
        for (int n = 0; n < seeks; ++n) {
            const unsigned long long positionMs = random() % 10000;
            medium.seek(positionMs);
            run.seek(positionMs);
            medium.writeTo(run.stage(), packets);
            const std::string bytes = containerBytes(run.soFar());
            goneOn += bytes.empty() ? 0 : 1;
            file << bytes;
        }
        file << containerBytes(run.finish());
        file.close();
        EXPECT_EQ(goneOn, seeks);
        // Time stamps jump; but every frame is there, and can be decoded.
        const PlayedMedium played = readBack(path);
        const Decoded decoded = decodeAll(path);
        EXPECT_GT(decoded.video, seeks * 10);
        EXPECT_GT(decoded.audio, seeks * 10);
        EXPECT_EQ(static_cast<std::size_t>(decoded.video), played.video.count());
        EXPECT_EQ(static_cast<std::size_t>(decoded.audio), played.audio.count());
        EXPECT_EQ(decoded.complaints, "");
    }

    LogCapture m_log{LOGLEVEL_ERROR};
    TempFolder m_folder;
};

} // namespace

TEST_F(FFMpegEncoderSeekMedia, CopiedMediumPlaysOnAfterEachOfTwoHundredSeeks)
{
    for (const char* format : {"flv", "mpegts", "matroska"}) {
        expectPlayable({format, "h264", "aac"}, true, 200, 110);
    }
}

TEST_F(FFMpegEncoderSeekMedia, EncodedMediumPlaysOnAfterEachSeek)
{
    for (const Codecs& codecs : {Codecs{"flv", "flv", "mp3"}, Codecs{"mpegts", "mpeg2", "mp2"},
                                 Codecs{"matroska", "mpeg4", "ac3"}}) {
        expectPlayable(codecs, false, 20, 110);
    }
}
