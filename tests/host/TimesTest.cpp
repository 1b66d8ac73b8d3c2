#include "host/Times.h"

#include <gtest/gtest.h>

namespace zel::host {

TEST(HostTimes, MillisecondsSecondsAndClockTimesAreRead)
{
    EXPECT_EQ(parseTime("0"), 0U);
    EXPECT_EQ(parseTime("1500"), 1500U);
    EXPECT_EQ(parseTime("1.5s"), 1500U);
    EXPECT_EQ(parseTime("2s"), 2000U);
    EXPECT_EQ(parseTime("1:30"), 90000U);
    EXPECT_EQ(parseTime("90:00"), 5400000U);
    EXPECT_EQ(parseTime("1:02:03.004"), 3723004U);
}

TEST(HostTimes, WhatIsNoTimeIsRefused)
{
    for (const char* text : {"", "s", "-1", "+1", "1.5", "1e3", " 1", "1 ", "1:60", "1:2:60",
                             "1:2:3:4", ":1", "1:", "1m", "0x10", "99999999999999999999"}) {
        EXPECT_EQ(parseTime(text), std::nullopt) << text;
    }
}

TEST(HostTimes, HoursAreWrittenOnlyWhenThereAreSome)
{
    EXPECT_EQ(formatTime(0), "0:00.000");
    EXPECT_EQ(formatTime(12340000), "0:12.340");
    EXPECT_EQ(formatTime(3723004999), "1:02:03.004");
    EXPECT_EQ(formatTime(-23219), "-0:00.023");
}

TEST(HostTimes, CountsHaveTheirThousandsApart)
{
    EXPECT_EQ(formatCount(0), "0");
    EXPECT_EQ(formatCount(999), "999");
    EXPECT_EQ(formatCount(1000), "1,000");
    EXPECT_EQ(formatCount(1234567), "1,234,567");
}

} // namespace zel::host
