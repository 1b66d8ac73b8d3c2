#include "tests/encoder/ContainerBytes.h"
#include "tests/encoder/ReadBack.h"
#include "tests/encoder/StageRun.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RunProgram.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestFolders.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>

/// Media through the stage, and what independent readers make of the result.

using namespace zel::test;
namespace PacketType = zel::streamer::PacketType;

namespace {

/// Times of the containers are rounded to milliseconds, once on each side.
constexpr double RoundingMs = 1.1;
/// Nobody hears less between sound and picture.
constexpr double AudibleMs = 40.0;

const char* const Containers[] = {"flv", "mpegts", "matroska"};

/// A clip and how the border calls what is in it; empty for a stream that is left out.
struct Clip
{
    const char* name;
    const char* video;
    const char* audio;

    std::string path() const { return name[0] == '/' ? name : mediaFolder() + "/" + name; }
};

/// What readers remark upon that is no fault of the output.
bool isHarmless(const std::string& complaint)
{
    // The header's array has no end mark on purpose; navigation packets of DVD have no time; WMA
    // tells no channel layout.
    const char* const harmless[] = {"Missing AMF_END_OF_OBJECT",
                                    "start time for stream 0 is not set in estimate_timings",
                                    "Guessed Channel Layout"};
    return std::any_of(std::begin(harmless), std::end(harmless), [&complaint](const char* part) {
        return complaint.find(part) != std::string::npos;
    });
}

/// The packet of a stream from which on another one has its packets.
std::size_t indexOf(const PlayedStream& stream, const std::string& payload)
{
    const auto found = std::find(stream.payloads.begin(), stream.payloads.end(), payload);
    return static_cast<std::size_t>(found - stream.payloads.begin());
}

/// When a stream was begun and over, as the stage was told.
struct Fed
{
    unsigned long long firstUs = ~0ULL;
    unsigned long long lastUs = 0;
    int count = 0;

    void note(unsigned long long timestampUs)
    {
        firstUs = std::min(firstUs, timestampUs);
        lastUs = std::max(lastUs, timestampUs);
        ++count;
    }
    double lengthMs() const { return static_cast<double>(lastUs - firstUs) / 1000.0; }
};

class FFMpegEncoderMedia : public testing::Test
{
protected:
    /// Runs a clip through the stage and keeps the bytes in a file.
    /// @param sampleRate  of the output; 0 leaves it to the session
    /// @return its path; empty when the stage refused
    std::string run(const Clip& clip, const std::string& format, Feed feed, int sampleRate = 0)
    {
        OutputSession session;
        session.requestFormat(format.c_str());
        if (*clip.video != '\0') {
            session.requestVideo(clip.video, 500000);
            session.request.video.frameRate.reset();
        }
        if (*clip.audio != '\0') {
            session.requestAudio(clip.audio, 128000, 0, sampleRate);
        }
        m_video = Fed();
        m_audio = Fed();
        feed.beforeWrite = [this](PacketType::Enum type, unsigned long long timestampUs, bool) {
            if (timestampUs != zel::streamer::SamplePacket::NoTimestamp) {
                (type == PacketType::Video ? m_video : m_audio).note(timestampUs);
            }
        };
        m_packets = transcode(clip.path(), session, feed);
        if (m_packets.empty()) {
            return "";
        }
        std::string path = m_folder.path("output." + format);
        writeFile(path, containerBytes(m_packets));
        return path;
    }

    std::string copy(const Clip& clip, const std::string& format, unsigned long long startMs = 0)
    {
        Feed feed;
        feed.copyAudio = *clip.audio != '\0';
        feed.copyVideo = *clip.video != '\0';
        feed.startMs = startMs;
        return run(clip, format, feed);
    }

    static void expectNoComplaint(const std::string& path)
    {
        const ProgramResult result =
            runProgram({"ffmpeg", "-v", "warning", "-i", path, "-f", "null", "-"});
        EXPECT_TRUE(result.succeeded()) << result.describe();
        std::istringstream lines(result.err);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_TRUE(isHarmless(line)) << path << ": " << line;
        }
    }

    /// Which packets of the medium a copied stream has; none where one of its own is not there.
    static std::vector<std::size_t> sources(const PlayedStream& medium, const PlayedStream& output)
    {
        std::vector<std::size_t> indices;
        auto from = medium.payloads.begin();
        for (const std::string& payload : output.payloads) {
            const auto found = std::find(from, medium.payloads.end(), payload);
            if (found == medium.payloads.end()) {
                return {};
            }
            indices.push_back(static_cast<std::size_t>(found - medium.payloads.begin()));
            from = found + 1;
        }
        return indices;
    }

    /// A copied stream is the medium's, byte for byte and at the same distances.
    /// @param missing  packets that may be left out
    static void expectTheMediumsOwn(const PlayedStream& medium, const PlayedStream& output,
                                    std::size_t missing = 0, double toleranceMs = RoundingMs)
    {
        EXPECT_EQ(output.codec, medium.codec);
        const auto indices = sources(medium, output);
        ASSERT_FALSE(indices.empty());
        EXPECT_LE(medium.count() - output.count(), missing);
        EXPECT_EQ(indices.back(), medium.count() - 1);
        double worst = 0.0;
        for (std::size_t i = 0; i < output.count(); ++i) {
            const double wanted = medium.shownMs[indices[i]] - medium.shownMs[indices[0]];
            worst = std::max(worst, std::fabs(output.shownMs[i] - output.shownMs[0] - wanted));
        }
        EXPECT_LE(worst, toleranceMs);
        EXPECT_NEAR(output.endMs - output.shownMs[0], medium.endMs - medium.shownMs[indices[0]],
                    AudibleMs);
    }

    /// Sound and picture of two copied streams lie as in the medium, at the beginning and at the
    /// end.
    static void expectTheMediumsDistance(const PlayedMedium& medium, const PlayedMedium& output)
    {
        const auto distances = [](const PlayedMedium& played, std::size_t video,
                                  std::size_t audio) {
            return std::pair(played.audio.shownMs[audio] - played.video.shownMs[video],
                             played.audio.shownMs.back() - played.video.shownMs.back());
        };
        const auto wanted = distances(medium, indexOf(medium.video, output.video.payloads[0]),
                                      indexOf(medium.audio, output.audio.payloads[0]));
        const auto found = distances(output, 0, 0);
        EXPECT_LT(std::fabs(found.first - wanted.first), AudibleMs);
        EXPECT_LT(std::fabs(found.second - wanted.second), AudibleMs);
        // Nor do they drift apart, by whatever they are off.
        EXPECT_NEAR(found.second - wanted.second, found.first - wanted.first, 2 * RoundingMs);
    }

    LogCapture m_log{LOGLEVEL_ERROR};
    TempFolder m_folder;
    Fed m_video;
    Fed m_audio;
    std::vector<Delivered> m_packets;
};

} // namespace

TEST_F(FFMpegEncoderMedia, CopiedStreamsAreTheMediumsOwn)
{
    for (const char* name : {"h264_aac.mp4", "h264_aac.mkv", "h264_aac.ts"}) {
        const Clip clip{name, "h264", "aac"};
        const PlayedMedium medium = readBack(clip.path());
        for (const char* format : Containers) {
            SCOPED_TRACE(std::string(name) + " to " + format);
            const std::string path = copy(clip, format);
            ASSERT_FALSE(path.empty());
            expectNoComplaint(path);
            const PlayedMedium output = readBack(path);
            expectTheMediumsOwn(medium.video, output.video);
            expectTheMediumsOwn(medium.audio, output.audio);
            expectTheMediumsDistance(medium, output);
        }
    }
}

TEST_F(FFMpegEncoderMedia, CopiedStreamsThatBeginApartStayApart)
{
    for (const char* name : {"late_audio.mkv", "late_video.mkv", "late_video.mp4"}) {
        const Clip clip{name, "h264", "aac"};
        const PlayedMedium medium = readBack(clip.path());
        for (const char* format : Containers) {
            SCOPED_TRACE(std::string(name) + " to " + format);
            const std::string path = copy(clip, format);
            ASSERT_FALSE(path.empty());
            expectNoComplaint(path);
            const PlayedMedium output = readBack(path);
            expectTheMediumsOwn(medium.video, output.video);
            // The input leaves the packet out that only wakes the decoder up.
            expectTheMediumsOwn(medium.audio, output.audio, 1);
            expectTheMediumsDistance(medium, output);
        }
    }
}

TEST_F(FFMpegEncoderMedia, CopiesASingleStream)
{
    for (const Clip& clip : {Clip{"video_only.mp4", "h264", ""}, Clip{"aac.m4a", "", "aac"}}) {
        const PlayedMedium medium = readBack(clip.path());
        for (const char* format : Containers) {
            SCOPED_TRACE(std::string(clip.name) + " to " + format);
            const std::string path = copy(clip, format);
            ASSERT_FALSE(path.empty());
            expectNoComplaint(path);
            const PlayedMedium output = readBack(path);
            const bool isVideo = *clip.video != '\0';
            EXPECT_EQ(output.video.present(), isVideo);
            EXPECT_EQ(output.audio.present(), !isVideo);
            expectTheMediumsOwn(isVideo ? medium.video : medium.audio,
                                isVideo ? output.video : output.audio, 1);
        }
    }
}

TEST_F(FFMpegEncoderMedia, CopiedPicturesKeepTheirOrderAndTimes)
{
    const Clip clips[] = {{"h264_bpyramid.mkv", "h264", ""},     {"h264_open_gop.mp4", "h264", ""},
                          {"h264_mbaff.ts", "h264", ""},         {"h264_60fps.mp4", "h264", ""},
                          {"h264_infinite_gop.mp4", "h264", ""}, {"h264_slices.mp4", "h264", ""},
                          {"h264_cavlc.mp4", "h264", ""},        {"mpeg4_bframes.mp4", "mpeg4", ""},
                          {"mpeg2_interlaced.ts", "mpeg2", ""},  {"mpeg2_mp2.mpg", "mpeg2", ""},
                          {"mpeg1_mp2.mpg", "mpeg1video", ""}};
    for (const Clip& clip : clips) {
        const PlayedMedium medium = readBack(clip.path());
        for (const std::string format : {"mpegts", "matroska"}) {
            SCOPED_TRACE(std::string(clip.name) + " to " + format);
            const std::string path = copy(clip, format);
            ASSERT_FALSE(path.empty());
            expectNoComplaint(path);
            expectTheMediumsOwn(medium.video, readBack(path).video);
        }
    }
}

TEST_F(FFMpegEncoderMedia, CopiedPicturesAtUnevenDistancesAreOffByAFrameAtMost)
{
    // The stage knows when pictures are decoded, not when they are shown, and so cannot know how
    // long those before them last.
    const Clip clip{"h264_vfr.mkv", "h264", ""};
    const PlayedMedium medium = readBack(clip.path());
    for (const char* format : Containers) {
        SCOPED_TRACE(format);
        const std::string path = copy(clip, format);
        ASSERT_FALSE(path.empty());
        expectTheMediumsOwn(medium.video, readBack(path).video, 0, 1000.0 / 30.0 + 2 * RoundingMs);
    }
}

TEST_F(FFMpegEncoderMedia, CopiesOlderCodecs)
{
    struct Case
    {
        Clip clip;
        std::vector<std::string> formats;
    };
    const Case cases[] = {
        {{"flv1_mp3.flv", "flv", "mp3"}, {"flv", "matroska"}},
        {{"mpeg4_mp3.avi", "mpeg4", "mp3"}, {"mpegts", "matroska"}},
        {{"mpeg2_interlaced.ts", "mpeg2", "mp2"}, {"mpegts", "matroska"}},
        {{"mpeg2_mp2.mpg", "mpeg2", "mp2"}, {"mpegts", "matroska", "dvd"}},
        {{"mpeg2_ac3.ts", "mpeg2", "ac3"}, {"mpegts", "matroska"}},
        {{"mpeg1_mp2.mpg", "mpeg1video", "mp2"}, {"mpegts", "matroska", "mpeg"}},
    };
    for (const auto& [clip, formats] : cases) {
        const PlayedMedium medium = readBack(clip.path());
        for (const std::string& format : formats) {
            SCOPED_TRACE(std::string(clip.name) + " to " + format);
            const std::string path = copy(clip, format);
            ASSERT_FALSE(path.empty());
            expectNoComplaint(path);
            const PlayedMedium output = readBack(path);
            if (format == "mpeg" || format == "dvd") {
                // Such a packet holds several frames under one time.
                EXPECT_EQ(output.video.payloads, medium.video.payloads);
                EXPECT_EQ(output.audio.payloads, medium.audio.payloads);
                continue;
            }
            expectTheMediumsOwn(medium.video, output.video);
            expectTheMediumsOwn(medium.audio, output.audio);
            expectTheMediumsDistance(medium, output);
        }
    }
}

TEST_F(FFMpegEncoderMedia, CopiesPicturesWithoutTimesOfPresentation)
{
    const Clip clip{"h264_mp3.avi", "h264", "mp3"};
    PlayedMedium medium = readBack(clip.path());
    for (const char* format : Containers) {
        SCOPED_TRACE(format);
        const std::string path = copy(clip, format);
        ASSERT_FALSE(path.empty());
        expectNoComplaint(path);
        const PlayedMedium output = readBack(path);
        // Without reordering pictures are shown when they are decoded.
        medium.video.shownMs = medium.video.sentMs;
        medium.video.endMs = medium.video.sentMs.back() + 40.0;
        expectTheMediumsOwn(medium.video, output.video);
        expectTheMediumsOwn(medium.audio, output.audio);
    }
}

TEST_F(FFMpegEncoderMedia, EncodedStreamsEndWithTheirInput)
{
    struct Case
    {
        Clip clip;
        const char* format;
        int frameSamples; ///< of the audio encoder
        double sampleRate;
        double frameRate; ///< of the output
    };
    const Case cases[] = {
        {{"h264_aac.mp4", "flv", "mp3"}, "flv", 1152, 44100.0, 25.0},
        {{"h264_aac.mp4", "mpeg2", "mp2"}, "mpegts", 1152, 48000.0, 24.0},
        {{"h264_aac.mp4", "mpeg4", "mp3"}, "matroska", 1152, 44100.0, 25.0},
        {{"mpeg4_mp3.avi", "mpeg4", "aac"}, "matroska", 1024, 44100.0, 25.0},
        {{"mpeg2_mp2.mpg", "wmv8", "wma"}, "asf", 2048, 44100.0, 25.0},
        {{"flv1_mp3.flv", "mpeg4", "ac3"}, "matroska", 1536, 44100.0, 25.0},
        {{"h264_vfr.mkv", "flv", "mp3"}, "flv", 1152, 44100.0, 30.0},
        {{"h264_aac.ts", "flv", "mp3"}, "flv", 1152, 44100.0, 25.0},
        {{"wmv2_wma2.asf", "flv", "mp3"}, "flv", 1152, 44100.0, 25.0},
        {{"vp8_vorbis.webm", "mpeg4", "mp3"}, "matroska", 1152, 44100.0, 25.0},
        {{"late_audio.mkv", "mpeg4", "mp3"}, "matroska", 1152, 44100.0, 25.0},
        {{"late_video.mkv", "mpeg2", "mp2"}, "mpegts", 1152, 48000.0, 24.0},
        {{"late_video.mkv", "flv", "mp3"}, "flv", 1152, 44100.0, 25.0},
    };
    for (const Case& expected : cases) {
        SCOPED_TRACE(std::string(expected.clip.name) + " to " + expected.format);
        const std::string path = run(expected.clip, expected.format, {});
        ASSERT_FALSE(path.empty());
        expectNoComplaint(path);
        const PlayedMedium output = readBack(path);
        const double frameMs = 1000.0 / expected.frameRate;
        EXPECT_NEAR(output.video.showing().back(), m_video.lengthMs(), frameMs + RoundingMs);
        // Of what came last the encoder has less than two frames, and the stage less than one.
        const double audioMs = output.audio.endMs - output.audio.startMs();
        const double audioFrameMs = expected.frameSamples * 1000.0 / expected.sampleRate;
        EXPECT_LE(audioMs, m_audio.lengthMs() + 2 * audioFrameMs);
        EXPECT_GE(audioMs, m_audio.lengthMs() - 3 * audioFrameMs);
        const double wanted =
            (static_cast<double>(m_audio.firstUs) - static_cast<double>(m_video.firstUs)) / 1000.0;
        EXPECT_LT(std::fabs(output.startOffsetMs() - wanted), AudibleMs);
    }
}

TEST_F(FFMpegEncoderMedia, EncodesProgramStreams)
{
    for (const std::string format : {"mpeg", "dvd"}) {
        SCOPED_TRACE(format);
        const Clip clip{"mpeg4_mp3.avi", format == "mpeg" ? "mpeg1video" : "mpeg2", "mp2"};
        const std::string path = run(clip, format, {});
        ASSERT_FALSE(path.empty());
        expectNoComplaint(path);
        const PlayedMedium output = readBack(path);
        // At 24 pictures a second.
        EXPECT_NEAR(static_cast<double>(output.video.count()), m_video.lengthMs() * 0.024, 2.0);
        const double audioMs = static_cast<double>(output.audio.count()) * 1152000.0 /
                               (format == "mpeg" ? 44100.0 : 48000.0);
        EXPECT_NEAR(audioMs, m_audio.lengthMs(), 3 * 26.2);
    }
}

TEST_F(FFMpegEncoderMedia, EncodesASingleStream)
{
    const std::string video = run({"video_only.mp4", "flv", ""}, "flv", {});
    ASSERT_FALSE(video.empty());
    expectNoComplaint(video);
    EXPECT_NEAR(readBack(video).video.showing().back(), m_video.lengthMs(), 40.0 + RoundingMs);
    const std::string audio = run({"aac.m4a", "", "mp3"}, "flv", {});
    ASSERT_FALSE(audio.empty());
    expectNoComplaint(audio);
    EXPECT_NEAR(readBack(audio).audio.endMs, m_audio.lengthMs(), 3 * 26.2);
}

TEST_F(FFMpegEncoderMedia, CopiedAudioLiesRightBesideEncodedVideo)
{
    for (const char* name : {"h264_aac.ts", "late_audio.mkv", "late_video.mkv"}) {
        const Clip clip{name, "flv", "aac"};
        const PlayedMedium medium = readBack(clip.path());
        for (const char* format : {"flv", "matroska"}) {
            SCOPED_TRACE(std::string(name) + " to " + format);
            Feed feed;
            feed.copyAudio = true;
            const std::string path = run(clip, format, feed);
            ASSERT_FALSE(path.empty());
            expectNoComplaint(path);
            const PlayedMedium output = readBack(path);
            // The input leaves audio out while its video decoder has no picture yet.
            const bool isLate = name == std::string("late_video.mkv");
            expectTheMediumsOwn(medium.audio, output.audio, isLate ? 6 : 0);
            EXPECT_LT(std::fabs(output.startOffsetMs() - medium.startOffsetMs()), AudibleMs);
        }
    }
}

TEST_F(FFMpegEncoderMedia, EncodedAudioLiesRightBesideCopiedVideo)
{
    for (const char* name : {"h264_aac.ts", "late_audio.mkv", "late_video.mkv"}) {
        const Clip clip{name, "h264", "mp3"};
        const PlayedMedium medium = readBack(clip.path());
        for (const char* format : Containers) {
            SCOPED_TRACE(std::string(name) + " to " + format);
            Feed feed;
            feed.copyVideo = true;
            const std::string path = run(clip, format, feed);
            ASSERT_FALSE(path.empty());
            expectNoComplaint(path);
            const PlayedMedium output = readBack(path);
            expectTheMediumsOwn(medium.video, output.video);
            EXPECT_LT(std::fabs(output.startOffsetMs() - medium.startOffsetMs()), AudibleMs);
        }
    }
}

TEST_F(FFMpegEncoderMedia, StartsInTheMiddleOfAMedium)
{
    constexpr unsigned long long StartMs = 7000;
    const Clip clip{"h264_aac.mp4", "h264", "aac"};
    const PlayedMedium medium = readBack(clip.path());
    for (const char* format : Containers) {
        SCOPED_TRACE(format);
        const std::string path = copy(clip, format, StartMs);
        ASSERT_FALSE(path.empty());
        expectNoComplaint(path);
        const PlayedMedium output = readBack(path);
        EXPECT_LT(output.video.count(), medium.video.count() / 2);
        EXPECT_TRUE(output.video.keys.at(0));
        expectTheMediumsOwn(medium.video, output.video, medium.video.count());
        expectTheMediumsOwn(medium.audio, output.audio, medium.audio.count());
        expectTheMediumsDistance(medium, output);
    }
    Feed feed;
    feed.startMs = StartMs;
    const std::string path = run({"h264_aac.mp4", "flv", "mp3"}, "flv", feed);
    ASSERT_FALSE(path.empty());
    expectNoComplaint(path);
    EXPECT_LT(std::fabs(readBack(path).startOffsetMs()), AudibleMs);
}

TEST_F(FFMpegEncoderMedia, EveryAnnouncementStandsInFrontOfItsKeyFrame)
{
    for (const bool copied : {true, false}) {
        SCOPED_TRACE(copied ? "copied" : "encoded");
        const Clip clip{"h264_aac.mp4", copied ? "h264" : "flv", copied ? "aac" : "mp3"};
        Feed feed;
        feed.copyVideo = copied;
        feed.copyAudio = copied;
        ASSERT_FALSE(run(clip, "flv", feed).empty());
        int announced = 0;
        for (std::size_t i = 0; i + 1 < m_packets.size(); ++i) {
            if (m_packets[i].type != PacketType::Metadata) {
                continue;
            }
            ++announced;
            const FlvTag tag = flvTags(m_packets[i + 1].bytes).at(0);
            EXPECT_TRUE(tag.isKey);
            EXPECT_EQ(m_packets[i + 1].timestampUs, m_packets[i].timestampUs);
        }
        EXPECT_GE(announced, 4);
    }
}

TEST_F(FFMpegEncoderMedia, TenMinutesDoNotDrift)
{
    const std::string path = m_folder.path("ten_minutes.mp4");
    const ProgramResult made = runProgram({"ffmpeg",
                                           "-v",
                                           "error",
                                           "-stream_loop",
                                           "-1",
                                           "-i",
                                           mediaFolder() + "/h264_aac.mp4",
                                           "-f",
                                           "lavfi",
                                           "-i",
                                           "aevalsrc=sin(440*2*PI*t):s=16000:c=mono",
                                           "-map",
                                           "0:v",
                                           "-map",
                                           "1:a",
                                           "-t",
                                           "600",
                                           "-c:v",
                                           "copy",
                                           "-c:a",
                                           "aac",
                                           "-aac_coder",
                                           "fast",
                                           path});
    ASSERT_TRUE(made.succeeded()) << made.describe();
    const PlayedMedium medium = readBack(path);
    ASSERT_GT(medium.video.count(), 14900U);
    for (const char* format : Containers) {
        SCOPED_TRACE(format);
        const std::string copied = copy({path.c_str(), "h264", "aac"}, format);
        ASSERT_FALSE(copied.empty());
        const PlayedMedium output = readBack(copied);
        expectTheMediumsOwn(medium.video, output.video);
        expectTheMediumsOwn(medium.audio, output.audio, 1);
        expectTheMediumsDistance(medium, output);
    }

    Feed feed;
    feed.copyVideo = true;
    constexpr int SampleRate = 16000;
    const std::string encoded = run({path.c_str(), "h264", "mp3"}, "matroska", feed, SampleRate);
    ASSERT_FALSE(encoded.empty());
    const PlayedMedium output = readBack(encoded);
    expectTheMediumsOwn(medium.video, output.video);
    EXPECT_LT(std::fabs(output.startOffsetMs() - medium.startOffsetMs()), AudibleMs);
    const double frameMs = 576 * 1000.0 / SampleRate;
    const auto heard = output.audio.showing();
    EXPECT_NEAR(heard.back(), static_cast<double>(heard.size() - 1) * frameMs, RoundingMs);
    EXPECT_NEAR(heard.back(), m_audio.lengthMs(), 4 * frameMs);
}
