#include "tests/input/DeliveryRules.h"
#include "tests/support/InputPlayer.h"
#include "tests/support/MediaReference.h"
#include "tests/support/TestFolders.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <ostream>
#include <random>
#include <string>
#include <vector>

using namespace zel::test;

namespace {

constexpr int Targets = 50;

/// A clip whose groups of pictures are at most GroupMs long.
///
/// A seek goes to the next key frame. Behind the last one it falls back to any packet, and no whole
/// picture can be made from there; so the random targets lie before the last key frame.
struct SeekCase
{
    const char* clip;
    unsigned int lastKeyMs; ///< a little before the last key frame, from the start of the medium
    int decoderThreads;
    bool startsAnywhere = false; ///< the decoder shows grey where it has not seen a key frame
};
constexpr unsigned long long GroupMs = 1050;

void PrintTo(const SeekCase& value, std::ostream* out)
{
    *out << value.clip;
}

class SeekCorrectness : public testing::TestWithParam<SeekCase>
{
protected:
    void SetUp() override
    {
        const std::string path = mediaFolder() + "/" + GetParam().clip;
        const auto medium = probeMedium(path);
        ASSERT_TRUE(medium) << path;
        const Selection selection = firstStreams(*medium);
        const std::vector<ReferencePicture> reference = referencePictures(path, selection.video);
        const std::vector<ExpectedFrame> expected = expectedDelivery(*medium, selection);
        m_frameCount = expected.size();
        for (const ExpectedFrame& frame : expected) {
            if (frame.isVideo) {
                ASSERT_LT(frame.picture, reference.size());
                m_pictures[frame.timestampUs] = reference[frame.picture].md5;
            }
        }
        m_startUs = static_cast<unsigned long long>(medium->startS * 1000000.0);
        ASSERT_TRUE(m_player.open(path, GetParam().decoderThreads));
    }

    /// Expects the very picture that ffmpeg has at that time.
    void expectReference(const PlayedFrame& picture)
    {
        const auto same = m_pictures.find(picture.timestampUs);
        ASSERT_NE(same, m_pictures.end()) << "at " << picture.timestampUs << " us";
        EXPECT_EQ(picture.md5, same->second) << "at " << picture.timestampUs << " us";
    }

    std::size_t m_frameCount = 0; ///< of all kinds, when the medium is read through
    /// MD5 of each picture by the time at which it is delivered.
    std::map<unsigned long long, std::string> m_pictures;
    unsigned long long m_startUs = 0;
    InputPlayer m_player;
};

} // namespace

TEST_P(SeekCorrectness, FirstPictureIsTheCommandLinesAtOrAfterTheTarget)
{
    std::mt19937 random(4711);
    std::uniform_int_distribution<unsigned int> targets(0, GetParam().lastKeyMs);
    for (int i = 0; i < Targets; ++i) {
        const unsigned long long targetMs = targets(random);
        SCOPED_TRACE("to " + std::to_string(targetMs) + " ms");
        ASSERT_EQ(m_player.input().setTimePosition(targetMs), 0);

        PlayedFrame frame;
        while (m_player.read(frame) && !frame.isVideo()) {
            ASSERT_GE(frame.timestampUs, targetMs * 1000);
        }
        ASSERT_TRUE(frame.isVideo());
        EXPECT_GE(frame.timestampUs, targetMs * 1000);
        EXPECT_LE(frame.timestampUs, m_startUs + (targetMs + 2 * GroupMs) * 1000);
        expectReference(frame);

        // Reading goes on with the pictures that follow.
        for (unsigned int more = targets(random) % 5; more > 0; --more) {
            ASSERT_TRUE(m_player.readPicture(frame));
            expectReference(frame);
        }
    }
}

TEST_P(SeekCorrectness, BehindTheLastKeyFrameItFailsAndReadingGoesOnOrNoWrongPictureComes)
{
    constexpr std::size_t Before = 30;
    const unsigned long long targetMs = GetParam().lastKeyMs + GroupMs / 2;
    PlayedFrame frame;
    for (std::size_t i = 0; i < Before; ++i) {
        ASSERT_TRUE(m_player.read(frame));
    }
    const bool done = m_player.input().setTimePosition(targetMs) == 0;
    std::size_t frames = Before;
    while (m_player.read(frame)) {
        ++frames;
        ASSERT_TRUE(!done || frame.timestampUs >= targetMs * 1000) << frame.timestampUs;
        if (frame.isVideo() && !(done && GetParam().startsAnywhere)) {
            expectReference(frame);
        }
    }
    EXPECT_TRUE(done || frames == m_frameCount) << frames << " of " << m_frameCount;
    // The medium is still good for another seek.
    ASSERT_EQ(m_player.input().setTimePosition(GetParam().lastKeyMs / 2), 0);
    ASSERT_TRUE(m_player.readPicture(frame));
    expectReference(frame);
}

INSTANTIATE_TEST_SUITE_P(
    Clips, SeekCorrectness,
    testing::Values(SeekCase{"h264_aac.mp4", 10900, 1}, SeekCase{"h264_aac.mp4", 10900, 3},
                    SeekCase{"h264_aac.mkv", 10900, 1}, SeekCase{"h264_aac.mkv", 10900, 3},
                    SeekCase{"h264_aac.ts", 10900, 1}, SeekCase{"h264_aac.ts", 10900, 3},
                    SeekCase{"h264_aac.flv", 10900, 2}, SeekCase{"mpeg4_mp3.avi", 4900, 2, true},
                    SeekCase{"wmv2_wma2.asf", 4900, 2}, SeekCase{"vp9_opus.webm", 2900, 2},
                    SeekCase{"mpeg2_mp2.mpg", 5200, 2}),
    [](const testing::TestParamInfo<SeekCase>& instance) {
        std::string name = instance.param.clip;
        std::replace(name.begin(), name.end(), '.', '_');
        return name + "_" + std::to_string(instance.param.decoderThreads) + "_threads";
    });
