#include "tests/support/InputPlayer.h"
#include "tests/support/TestFolders.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>

using namespace zel::test;

namespace {

constexpr double Tolerance = 0.05;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool IsSizeMeaningful = false; // freed memory stays resident for a while
#else
constexpr bool IsSizeMeaningful = true;
#endif

/// Bytes of this process that are in memory.
double residentBytes()
{
    std::ifstream file("/proc/self/statm");
    double pages = 0;
    double resident = 0;
    file >> pages >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

void expectNoGrowth(double before, double after)
{
    ASSERT_GT(before, 1 << 20);
    EXPECT_NEAR(after, before, before * Tolerance)
        << before / (1 << 20) << " MiB became " << after / (1 << 20) << " MiB";
}

class Memory : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!IsSizeMeaningful) {
            GTEST_SKIP() << "the sanitizer keeps freed memory";
        }
    }
};
class LongMemory : public Memory
{
};

/// Reads to the end. The frames are given back one by one.
/// @return their number
int readToEnd(InputPlayer& player)
{
    int frames = 0;
    for (PlayedFrame frame; player.read(frame);) {
        ++frames;
    }
    return frames;
}

} // namespace

TEST_F(Memory, StaysWhenAMediumIsPlayedOverAndOver)
{
    constexpr int WarmUp = 10;
    constexpr int Rounds = 50;
    InputPlayer player;
    ASSERT_TRUE(player.open(mediaFolder() + "/h264_aac.mp4"));
    const int frames = readToEnd(player);
    ASSERT_GT(frames, 700);
    double before = 0;
    for (int round = 0; round < Rounds; ++round) {
        ASSERT_EQ(player.input().setTimePosition(0), 0);
        ASSERT_EQ(readToEnd(player), frames);
        before = round == WarmUp ? residentBytes() : before;
    }
    expectNoGrowth(before, residentBytes());
}

TEST_F(Memory, StaysWhenMediaAreOpenedOverAndOver)
{
    constexpr int WarmUp = 20;
    constexpr int Rounds = 120;
    const char* const clips[] = {"h264_aac.mp4", "mpeg2_mp2.mpg",        "vp9_opus.webm",
                                 "h264_aac.ts",  "undecodable_both.mkv", "mp3_cover.mp3"};
    InputPlayer player;
    double before = 0;
    for (int round = 0; round < Rounds; ++round) {
        for (const char* clip : clips) {
            if (player.open(mediaFolder() + "/" + clip)) {
                PlayedFrame frame;
                for (int i = 0; i < 20; ++i) {
                    ASSERT_TRUE(player.read(frame));
                }
            }
            player.input().close();
        }
        before = round == WarmUp ? residentBytes() : before;
    }
    expectNoGrowth(before, residentBytes());
}

TEST_F(LongMemory, HalfAnHourEndsAtTheSizeOfTheFirstMinute)
{
    constexpr unsigned long long MinuteUs = 60000000;
    InputPlayer player;
    ASSERT_TRUE(player.open(mediaFolder() + "/long_30min.mp4"));
    double before = 0;
    unsigned long long lastUs = 0;
    for (PlayedFrame frame; player.read(frame);) {
        lastUs = frame.timestampUs;
        if (before == 0 && lastUs >= MinuteUs) {
            before = residentBytes();
        }
    }
    EXPECT_GT(lastUs, 29 * MinuteUs);
    expectNoGrowth(before, residentBytes());
}
