#include "tests/input/DeliveryRules.h"
#include "tests/support/InputPlayer.h"
#include "tests/support/MediaReference.h"
#include "tests/support/TestFolders.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

using namespace zel::test;
namespace PacketType = zel::streamer::PacketType;

namespace {

std::string clipPath(const std::string& name)
{
    return mediaFolder() + "/" + name;
}

/// A test name from a clip's name.
std::string nameOf(std::string clip)
{
    for (char& c : clip) {
        c = std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
    }
    return clip;
}

/// A clip with pictures, and the number of decoder threads.
using VideoCase = std::tuple<const char*, int>;

/// The built library against the ffmpeg command line.
class Correctness : public testing::TestWithParam<VideoCase>
{
protected:
    void SetUp() override
    {
        m_path = clipPath(std::get<0>(GetParam()));
        const auto probed = probeMedium(m_path);
        ASSERT_TRUE(probed) << m_path;
        m_medium = *probed;
        m_selection = firstStreams(m_medium);
        ASSERT_GE(m_selection.video, 0);
        ASSERT_TRUE(m_player.open(m_path, std::get<1>(GetParam())));
    }

    std::string m_path;
    ProbedMedium m_medium;
    Selection m_selection;
    InputPlayer m_player;
};

/// A clip whose first audio stream is compared.
struct AudioCase
{
    const char* clip;
    const char* decoder; ///< ffmpeg's name; empty for its own choice
    int bits;            ///< of the delivered samples
    /// Some packets lie before time 0: the library's decoder never sees them.
    bool primed = false;
    /// What the decoder holds back to the end, which the library does not ask for.
    std::size_t heldBytes = 0;
};

void PrintTo(const AudioCase& value, std::ostream* out)
{
    *out << value.clip;
}

/// Clips whose pictures consist of two fields: the library delivers them deinterlaced.
class InterlacedCorrectness : public Correctness
{
protected:
    /// Makes each odd line from itself and the two above and below it: weights -1, 4, 2, 4, -1.
    /// Beyond the edges stand the first line, and the last one itself.
    static void deinterlacePlane(unsigned char* plane, std::size_t width, std::size_t height)
    {
        const std::vector<unsigned char> source(plane, plane + width * height);
        for (std::size_t y = 1; y < height; y += 2) {
            const unsigned char* line = source.data() + y * width;
            const unsigned char* lines[] = {
                y < 2 ? source.data() : line - 2 * width,
                line - width,
                line,
                y + 1 < height ? line + width : line,
                y + 2 < height ? line + 2 * width : line,
            };
            for (std::size_t x = 0; x < width; ++x) {
                const int sum = -lines[0][x] + 4 * lines[1][x] + 2 * lines[2][x] + 4 * lines[3][x] -
                                lines[4][x];
                plane[y * width + x] =
                    static_cast<unsigned char>(std::clamp((sum + 4) >> 3, 0, 255));
            }
        }
    }

    static void deinterlace(std::string& pictures, std::size_t width, std::size_t height)
    {
        auto* plane = reinterpret_cast<unsigned char*>(pictures.data());
        const auto* end = plane + pictures.size();
        while (plane < end) {
            deinterlacePlane(plane, width, height);
            plane += width * height;
            for (int chroma = 0; chroma < 2; ++chroma) {
                deinterlacePlane(plane, width / 2, height / 2);
                plane += (width / 2) * (height / 2);
            }
        }
    }
};

class AudioCorrectness : public testing::TestWithParam<AudioCase>
{
};

/// Expects all frames in their order, at the times of their packets.
void expectDelivery(const std::vector<PlayedFrame>& frames,
                    const std::vector<ExpectedFrame>& expected)
{
    ASSERT_EQ(frames.size(), expected.size());
    for (std::size_t i = 0; i < frames.size(); ++i) {
        ASSERT_EQ(frames[i].isVideo(), expected[i].isVideo) << "frame " << i;
        ASSERT_EQ(frames[i].timestampUs, expected[i].timestampUs) << "frame " << i;
        ASSERT_EQ(frames[i].durationUs, expected[i].durationUs) << "frame " << i;
    }
}

} // namespace

TEST_P(Correctness, PicturesAreBitForBitThoseOfTheCommandLine)
{
    const std::vector<ReferencePicture> reference = referencePictures(m_path, m_selection.video);
    const auto& stream = m_medium.streams[static_cast<std::size_t>(m_selection.video)];
    const auto held = static_cast<std::size_t>(stream.decoderDelay);
    ASSERT_GT(reference.size(), held + 20);

    const auto pictures = framesOf(m_player.readAll(), PacketType::Video);

    // What the decoder still holds at the end is not asked for.
    ASSERT_EQ(pictures.size(), reference.size() - held);
    for (std::size_t i = 0; i < pictures.size(); ++i) {
        ASSERT_EQ(pictures[i].size, static_cast<unsigned int>(reference[i].size))
            << "picture " << i;
        ASSERT_EQ(pictures[i].md5, reference[i].md5) << "picture " << i;
    }
}

TEST_P(Correctness, FramesComeInTheOrderAndAtTheTimesOfTheirPackets)
{
    const std::vector<ExpectedFrame> expected = expectedDelivery(m_medium, m_selection);
    ASSERT_GT(expected.size(), 40u);

    const std::vector<PlayedFrame> frames = m_player.readAll();

    expectDelivery(frames, expected);
}

TEST_P(InterlacedCorrectness, PicturesAreThoseOfTheCommandLineWithOddLinesMadeAnew)
{
    const auto& stream = m_medium.streams[static_cast<std::size_t>(m_selection.video)];
    const auto width = static_cast<std::size_t>(stream.width);
    const auto height = static_cast<std::size_t>(stream.height);
    std::string planes = referencePlanes(m_path, m_selection.video);
    ASSERT_FALSE(planes.empty());
    ASSERT_EQ(planes.size() % (width * height * 3 / 2), 0u);
    deinterlace(planes, width, height);
    const std::vector<ReferencePicture> reference =
        scalePlanes(planes, stream.width, stream.height);

    const auto pictures = framesOf(m_player.readAll(), PacketType::Video);

    ASSERT_EQ(pictures.size(), reference.size() - static_cast<std::size_t>(stream.decoderDelay));
    for (std::size_t i = 0; i < pictures.size(); ++i) {
        ASSERT_EQ(pictures[i].md5, reference[i].md5) << "picture " << i;
    }
}

TEST_P(InterlacedCorrectness, FramesComeInTheOrderAndAtTheTimesOfTheirPackets)
{
    expectDelivery(m_player.readAll(), expectedDelivery(m_medium, m_selection));
}

TEST_P(AudioCorrectness, SamplesAreThoseOfTheCommandLine)
{
    const std::string path = clipPath(GetParam().clip);
    const auto medium = probeMedium(path);
    ASSERT_TRUE(medium) << path;
    const Selection selection = firstStreams(*medium);
    const std::string reference = referenceSamples(path, selection.audio, GetParam().decoder,
                                                   GetParam().bits, GetParam().primed);
    InputPlayer player;
    ASSERT_TRUE(player.open(path));
    EXPECT_EQ(player.describeOutput().audio.bitsPerSample, GetParam().bits);

    std::string samples;
    for (const PlayedFrame& frame : player.readAll()) {
        ASSERT_TRUE(frame.isAudio());
        samples += frame.samples;
    }

    ASSERT_EQ(samples.size() + GetParam().heldBytes, reference.size());
    const auto differs = std::mismatch(samples.begin(), samples.end(), reference.begin());
    EXPECT_TRUE(differs.first == samples.end())
        << "from byte " << differs.first - samples.begin() << " of " << samples.size();
}

TEST_P(AudioCorrectness, FramesComeAtTheTimesOfTheirPackets)
{
    const std::string path = clipPath(GetParam().clip);
    const auto medium = probeMedium(path);
    ASSERT_TRUE(medium) << path;
    InputPlayer player;
    ASSERT_TRUE(player.open(path));
    expectDelivery(player.readAll(), expectedDelivery(*medium, firstStreams(*medium)));
}

INSTANTIATE_TEST_SUITE_P(
    Clips, Correctness,
    testing::Combine(testing::Values("h264_aac.mp4", "h264_aac.ts", "h264_aac.mkv", "mpeg2_mp2.mpg",
                                     "mpeg4_mp3.avi", "wmv2_wma2.asf", "h264_aac.flv",
                                     "h264_mp3.avi", "mpeg1_mp2.mpg", "mpeg4_bframes.mp4",
                                     "late_video.mp4", "late_video.mkv", "late_audio.mkv",
                                     "h264_bpyramid.mkv", "h264_open_gop.mp4", "h264_vfr.mkv",
                                     "h264_444_175x143.mp4", "odd_175x143.avi", "hevc_aac.mp4",
                                     "vp9_opus.webm", "vp8_vorbis.webm", "mjpeg.avi",
                                     "flv1_mp3.flv"),
                     testing::Values(1, 2, 5)),
    [](const testing::TestParamInfo<VideoCase>& instance) {
        return nameOf(std::get<0>(instance.param)) + "_" +
               std::to_string(std::get<1>(instance.param)) + "_threads";
    });

INSTANTIATE_TEST_SUITE_P(Clips, InterlacedCorrectness,
                         testing::Combine(testing::Values("mpeg2_interlaced.ts", "h264_mbaff.ts"),
                                          testing::Values(1, 2)),
                         [](const testing::TestParamInfo<VideoCase>& instance) {
                             return nameOf(std::get<0>(instance.param)) + "_" +
                                    std::to_string(std::get<1>(instance.param)) + "_threads";
                         });

INSTANTIATE_TEST_SUITE_P(
    Clips, AudioCorrectness,
    testing::Values(AudioCase{"wav_u8.wav", "", 8}, AudioCase{"wav_s16.wav", "", 16},
                    // 24 bits stand in the upper three bytes of 32.
                    AudioCase{"wav_s24.wav", "", 32}, AudioCase{"wav_s32.wav", "", 32},
                    AudioCase{"wav_f32.wav", "", 32}, AudioCase{"wav_f64.wav", "", 16},
                    AudioCase{"wav_mono_8k.wav", "", 16}, AudioCase{"flac_16.flac", "", 16},
                    AudioCase{"flac_24.flac", "", 32}, AudioCase{"alac_24.m4a", "", 16},
                    // The decoders for integers, not those for floats.
                    AudioCase{"mp3_cbr.mp3", "mp3", 16}, AudioCase{"mp3_vbr.mp3", "mp3", 16},
                    AudioCase{"mp3_no_header.mp3", "mp3", 16},
                    AudioCase{"mp3_cover.mp3", "mp3", 16}, AudioCase{"mp2.mp2", "mp2", 16},
                    AudioCase{"ac3_51.ac3", "", 16}, AudioCase{"aac.aac", "", 16},
                    AudioCase{"aac.m4a", "", 16, true}, AudioCase{"aac_51.m4a", "", 16, true},
                    AudioCase{"vorbis.ogg", "", 16, true}, AudioCase{"opus.ogg", "", 16, true},
                    // A block of 2048 samples waits for the next packet.
                    AudioCase{"wma2.wma", "", 16, false, 8192}, AudioCase{"amr_nb.amr", "", 16},
                    AudioCase{"channels_18.wav", "", 16}),
    [](const testing::TestParamInfo<AudioCase>& instance) { return nameOf(instance.param.clip); });
