#include "input/FFMpegInput.h"
#include "tests/support/InputPlayer.h"
#include "tests/support/RunProgram.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestFolders.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <ostream>
#include <random>
#include <string>

using namespace zel::test;

namespace {

/// What is damaged: a second of a clip, so that each of many plays takes little time.
struct Source
{
    const char* clip;
    const char* extension; ///< of the container that the second is copied into
};

constexpr std::array Sources = {
    Source{"h264_aac.mp4", "mp4"},          Source{"h264_aac.mp4", "mov"},
    Source{"h264_fragmented.mp4", "f.mp4"}, Source{"h264_aac.mkv", "mkv"},
    Source{"h264_aac.flv", "flv"},          Source{"h264_aac.ts", "ts"},
    Source{"mpeg2_ac3.ts", "ts"},           Source{"mpeg2_mp2.mpg", "vob"},
    Source{"mpeg4_mp3.avi", "avi"},         Source{"mjpeg.avi", "avi"},
    Source{"wmv2_wma2.asf", "asf"},         Source{"vp9_opus.webm", "webm"},
    Source{"hevc_aac.mp4", "mp4"},          Source{"theora_vorbis.ogv", "ogv"},
    Source{"mp3_cbr.mp3", "mp3"},           Source{"flac_16.flac", "flac"},
    Source{"wav_s24.wav", "wav"},           Source{"aac.aac", "aac"},
    Source{"alac_24.m4a", "m4a"},           Source{"palette.gif", "gif"},
};
constexpr int MutationsEach = 20;
static_assert(Sources.size() * MutationsEach >= 200);

void PrintTo(const Source& source, std::ostream* out)
{
    *out << source.clip << " as " << source.extension;
}

/// The damages, of which each has its turn.
class Mutator
{
public:
    explicit Mutator(unsigned int seed) : m_random(seed) {}

    std::string damage(std::string bytes, int turn)
    {
        switch (turn % 4) {
        case 0:
            flipBits(bytes, bytes.size());
            break;
        case 1:
            flipBits(bytes, std::min<std::size_t>(bytes.size(), 1024)); // where the tables stand
            break;
        case 2:
            swapBlocks(bytes);
            break;
        default:
            bytes.resize(below(bytes.size()));
            break;
        }
        return bytes;
    }

    std::size_t below(std::size_t limit)
    {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(m_random);
    }

private:
    void flipBits(std::string& bytes, std::size_t end)
    {
        for (std::size_t flips = 1 + below(24); flips > 0; --flips) {
            char& byte = bytes[below(end)];
            byte = static_cast<char>(byte ^ (1 << below(8)));
        }
    }

    void swapBlocks(std::string& bytes)
    {
        const std::size_t size = 1 + below(bytes.size() / 4);
        const std::size_t first = below(bytes.size() - 2 * size);
        const std::size_t second = first + size + below(bytes.size() - first - 2 * size);
        std::swap_ranges(bytes.begin() + static_cast<long>(first),
                         bytes.begin() + static_cast<long>(first + size),
                         bytes.begin() + static_cast<long>(second));
    }

    std::mt19937 m_random;
};

class Mutation : public testing::TestWithParam<Source>
{
protected:
    void SetUp() override
    {
        const std::string file = m_folder.path(std::string("whole.") + GetParam().extension);
        std::vector<std::string> words = {
            "ffmpeg", "-nostdin", "-v", "error", "-i",      mediaFolder() + "/" + GetParam().clip,
            "-t",     "1",        "-c", "copy",  "-fflags", "+bitexact"};
        if (std::string(GetParam().extension) == "f.mp4") {
            words.insert(words.end(), {"-movflags", "frag_keyframe+empty_moov"});
        }
        words.push_back(file);
        const ProgramResult made = runProgram(words);
        ASSERT_TRUE(made.succeeded()) << made.describe();
        m_whole = readFile(file);
        ASSERT_GT(m_whole.size(), 1000u);
    }

    /// Plays a medium three times over: from the start, and behind two seeks.
    /// @return whether it could be opened
    bool play(const std::string& bytes, int turn)
    {
        const std::string file = m_folder.path(std::string("damaged.") + GetParam().extension);
        writeFile(file, bytes);
        InputPlayer player(std::make_unique<FFMpegInput>());
        if (turn % 5 == 0) {
            player.input().skipVideoDecoding();
        }
        if (turn % 7 == 0) {
            player.input().skipAudioDecoding();
        }
        if (!player.open(file)) {
            return false;
        }
        player.describeMedium();
        player.describeOutput();
        for (PlayedFrame frame; player.read(frame);) {
        }
        for (const unsigned long long ms : {600ULL, 0ULL}) {
            player.input().setTimePosition(ms); // it may fail: reading must go on all the same
            for (PlayedFrame frame; player.read(frame);) {
            }
        }
        return true;
    }

    TempFolder m_folder;
    std::string m_whole;
};

} // namespace

TEST_P(Mutation, DamagedMediumPlaysToAnEndWithoutHarm)
{
    ASSERT_TRUE(play(m_whole, 1));
    Mutator mutator(20250);
    int opened = 0;
    for (int turn = 0; turn < MutationsEach; ++turn) {
        SCOPED_TRACE(turn);
        opened += play(mutator.damage(m_whole, turn), turn) ? 1 : 0;
    }
    // Damage that nothing survives would only test the first bytes.
    EXPECT_GE(opened, MutationsEach / 4);
}

INSTANTIATE_TEST_SUITE_P(Clips, Mutation, testing::ValuesIn(Sources),
                         [](const testing::TestParamInfo<Source>& instance) {
                             std::string name = std::string(instance.param.clip) + "_as_" +
                                                instance.param.extension;
                             std::replace(name.begin(), name.end(), '.', '_');
                             return name;
                         });
