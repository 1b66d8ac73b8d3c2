#include "host/PlayStatistics.h"

#include <gtest/gtest.h>

namespace zel::host {

namespace {

void add(KindStatistics& kind, unsigned long long timestampUs, unsigned long long durationUs)
{
    Frame frame;
    frame.type = streamer::PacketType::Video;
    frame.timestampUs = timestampUs;
    frame.durationUs = durationUs;
    kind.add(frame, true);
}

} // namespace

TEST(PlayStatistics, ListOfGapsEndsButTheirCountGoesOn)
{
    KindStatistics kind;
    for (unsigned long long n = 0; n < 1000; ++n) {
        add(kind, n * 1000000, 40000);
    }
    EXPECT_EQ(kind.gapCount, 999U);
    EXPECT_EQ(kind.gaps.size(), 100U);
}

TEST(PlayStatistics, NoGapIsSeenAcrossAJump)
{
    KindStatistics kind;
    add(kind, 0, 40000);
    kind.jump();
    add(kind, 9000000, 40000);
    EXPECT_EQ(kind.gapCount, 0U);
    EXPECT_EQ(kind.stepsBack, 0U);
}

TEST(PlayStatistics, MissingPictureAtSixtyASecondIsAGap)
{
    KindStatistics kind;
    add(kind, 0, 16667);
    add(kind, 33333, 16667);
    ASSERT_EQ(kind.gapCount, 1U);
    EXPECT_EQ(kind.gaps[0].atUs, 16667);
    EXPECT_EQ(kind.gaps[0].lengthUs, 16666);
}

} // namespace zel::host
