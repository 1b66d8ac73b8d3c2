#include "host/CutPlanner.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace zel::host {

namespace {

using Times = std::vector<unsigned long long>;

/// Time of the nth frame as an input gives it: cut to microseconds.
unsigned long long timeAt(unsigned long long n, double rate)
{
    return static_cast<unsigned long long>(static_cast<double>(n) * 1e6 / rate);
}

/// Cuts of `count` frames from `first` on, in microseconds.
Times cutsOf(CutPlanner& planner, unsigned long long first, unsigned long long count, double rate,
             unsigned long long keyEvery = 0)
{
    Times cuts;
    for (unsigned long long n = first; n < first + count; ++n) {
        const bool isKey = keyEvery > 0 && n % keyEvery == 0;
        const auto duration = static_cast<unsigned long long>(1e6 / rate);
        if (const auto cut = planner.plan(timeAt(n, rate), duration, isKey)) {
            cuts.push_back(*cut);
        }
    }
    return cuts;
}

/// The frames that begin segments; the cuts are asked for half a frame early.
Times framesOf(const Times& cuts, double rate)
{
    Times frames;
    for (const auto cut : cuts) {
        frames.push_back(static_cast<unsigned long long>(
            std::ceil(static_cast<double>(cut) * rate / 1e6 - 1e-3)));
    }
    return frames;
}

} // namespace

TEST(HostCutPlanner, CopiedVideoIsCutAtTheKeyFrameThatEndsTheClip)
{
    CutPlanner planner(2000);
    EXPECT_EQ(cutsOf(planner, 0, 200, 25, 25), (Times{2000000, 4000000, 6000000}));
}

TEST(HostCutPlanner, ASegmentOfCopiedVideoIsNeverShorterThanTheClip)
{
    CutPlanner planner(2000);
    // Key frames 0.8 s apart: 2.4, 4.8, 7.2.
    EXPECT_EQ(cutsOf(planner, 0, 200, 25, 20), (Times{2400000, 4800000, 7200000}));
}

TEST(HostCutPlanner, ARoundedTimeStampStillEndsTheClip)
{
    CutPlanner planner(2000);
    EXPECT_FALSE(planner.plan(0, 33333, true));
    EXPECT_EQ(planner.plan(1999998, 33333, true), 1999998U);
}

TEST(HostCutPlanner, CopiedVideoWithoutFurtherKeyFramesIsNotCut)
{
    CutPlanner planner(1000);
    EXPECT_EQ(cutsOf(planner, 0, 500, 25, 1000), Times{});
}

TEST(HostCutPlanner, TimesThatBeginAnywhereCountFromTheFirst)
{
    CutPlanner planner(2000);
    // From frame 250 on, at 10 s.
    EXPECT_EQ(cutsOf(planner, 250, 120, 25, 25), (Times{12000000, 14000000}));
}

TEST(HostCutPlanner, EncodedVideoIsCutAtForcedKeyFramesHalfAFrameEarly)
{
    CutPlanner planner(2000, 25, 25);
    EXPECT_EQ(cutsOf(planner, 0, 160, 25), (Times{1980000, 3980000, 5980000}));
}

TEST(HostCutPlanner, ABrokenRateIsRoundedUpToTheDistanceOfKeyFrames)
{
    CutPlanner planner(2000, 29.97, 29.97);
    const Times cuts = cutsOf(planner, 0, 200, 29.97);
    ASSERT_EQ(cuts.size(), 3U);
    for (size_t i = 0; i < cuts.size(); ++i) {
        const auto frame = timeAt((i + 1) * 60, 29.97);
        EXPECT_LT(cuts[i], frame);
        EXPECT_GT(cuts[i], frame - 33367);
    }
}

TEST(HostCutPlanner, AForcedKeyFrameThatTheStageLeavesOutIsNoCut)
{
    // 30 become 24 a second. Pictures 0, 24, 48 and so on are forced, but number 48 falls on 38.4
    // where 47 fell on 37.6, so the stage leaves it out. The encoder counts what it gets: after 24
    // pictures, of which number 24 was the first, comes number 54.
    CutPlanner planner(1000, 30, 24);
    EXPECT_EQ(framesOf(cutsOf(planner, 0, 130, 30), 30), (Times{54, 96}));
}

TEST(HostCutPlanner, TheEncodersOwnKeyFramesServeWhereNoForcedOneIsLeft)
{
    // 25 become 10 a second, and every tenth picture is one that is left out: 10 falls on 4.0 where
    // 9 fell on 3.6. Encoded are 0, 2, 4, 7, 9 and so on; the last forced one behind the start is
    // number 9, the fifth, and then every tenth of the encoded ones.
    CutPlanner planner(2000, 25, 10);
    EXPECT_EQ(framesOf(cutsOf(planner, 0, 160, 25), 25), (Times{59, 109, 159}));
}

TEST(HostCutPlanner, TwoPicturesAtTheVeryStartAreOneForTheEncoder)
{
    // 60 become 15 a second: number 1 falls on 0.25, which is the start again. Were it counted, the
    // encoder's own key frames would seem to come one picture early.
    CutPlanner planner(500, 60, 15);
    EXPECT_EQ(framesOf(cutsOf(planner, 0, 130, 60), 60), (Times{30, 75}));
}

TEST(HostCutPlanner, AfterASeekAClipBeginsAnew)
{
    CutPlanner copied(2000);
    EXPECT_EQ(cutsOf(copied, 0, 60, 25, 25), Times{2000000});
    copied.restart();
    EXPECT_EQ(cutsOf(copied, 1000, 60, 25, 25), Times{42000000});
}

TEST(HostCutPlanner, TheStageCountsPicturesOnAcrossASeek)
{
    CutPlanner planner(1000, 25, 25);
    EXPECT_EQ(cutsOf(planner, 0, 10, 25), Times{});
    planner.restart();
    // 10 were written before: the 41st behind the seek is the 51st of all, number 50.
    EXPECT_EQ(cutsOf(planner, 1000, 60, 25), Times{timeAt(1040, 25) - 20000});
}

} // namespace zel::host
