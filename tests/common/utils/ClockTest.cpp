#include "common/utils/Clock.h"

#include <gtest/gtest.h>

namespace {

timespec after(time_t seconds, suseconds_t microseconds, int ms)
{
    timeval now = {};
    now.tv_sec = seconds;
    now.tv_usec = microseconds;
    return zel::addMilliseconds(now, ms);
}

double secondsOf(const timespec& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double monotonicNow()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return secondsOf(now);
}

} // namespace

TEST(Clock, FifteenHundredMillisecondsAreOneSecondAndFiveHundredMillionNanoseconds)
{
    const timespec result = after(1000, 0, 1500);
    EXPECT_EQ(result.tv_sec, 1001);
    EXPECT_EQ(result.tv_nsec, 500000000);
}

TEST(Clock, FifteenHundredMillisecondsCarryASecond)
{
    const timespec result = after(1000, 600001, 1500);
    EXPECT_EQ(result.tv_sec, 1002);
    EXPECT_EQ(result.tv_nsec, 100001000);
}

TEST(Clock, CarryBeginsAboveTheLastNanosecondOfASecond)
{
    const timespec full = after(1000, 500000, 500);
    EXPECT_EQ(full.tv_sec, 1001);
    EXPECT_EQ(full.tv_nsec, 0);
    const timespec last = after(1000, 499999, 500);
    EXPECT_EQ(last.tv_sec, 1000);
    EXPECT_EQ(last.tv_nsec, 999999000);
}

TEST(Clock, LongestTimeKeepsItsMilliseconds)
{
    const timespec result = after(0, 0, 2147483647);
    EXPECT_EQ(result.tv_sec, 2147483);
    EXPECT_EQ(result.tv_nsec, 647000000);
}

TEST(Clock, AbsoluteTimeCountsFromTheWallClock)
{
    timeval before = {};
    gettimeofday(&before, nullptr);
    const double due = secondsOf(zel::absoluteTimeAfter(1500));
    timeval behind = {};
    gettimeofday(&behind, nullptr);
    EXPECT_GE(due, secondsOf(zel::addMilliseconds(before, 1500)));
    EXPECT_LE(due, secondsOf(zel::addMilliseconds(behind, 1500)));
}

TEST(Clock, MonotonicDeadlineIsAsFarAwayAsTheWallClockTime)
{
    constexpr double slewing = 0.05;
    const double before = monotonicNow();
    const double due = secondsOf(zel::monotonicDeadline(zel::absoluteTimeAfter(10000)));
    const double behind = monotonicNow();
    EXPECT_GE(due, before + 10 - slewing);
    EXPECT_LE(due, behind + 10 + slewing);
}

TEST(Clock, MonotonicDeadlineOfAPassedTimeIsNow)
{
    const double before = monotonicNow();
    timespec past = {};
    past.tv_sec = -5;
    const double due = secondsOf(zel::monotonicDeadline(past));
    EXPECT_GE(due, before);
    EXPECT_LE(due, monotonicNow());
    past.tv_sec = 1;
    const double dueLongAgo = secondsOf(zel::monotonicDeadline(past));
    EXPECT_LE(dueLongAgo, monotonicNow());
}

TEST(Clock, MonotonicDeadlineOfAFarTimeDoesNotWrap)
{
    timespec far = {};
    far.tv_sec = 9000000000000000000LL;
    far.tv_nsec = 999999999;
    const timespec due = zel::monotonicDeadline(far);
    EXPECT_GT(due.tv_sec, 1000000000);
    EXPECT_GE(due.tv_nsec, 0);
    EXPECT_LT(due.tv_nsec, 1000000000);
}

TEST(Clock, UptimeNeverRunsBackwards)
{
    unsigned long long last = zel::uptimeMs();
    const double start = monotonicNow();
    EXPECT_LE(static_cast<double>(last), start * 1000);
    for (int i = 0; i < 10000; ++i) {
        const unsigned long long now = zel::uptimeMs();
        ASSERT_GE(now, last);
        last = now;
    }
    EXPECT_GE(static_cast<double>(zel::uptimeMs()) + 1, start * 1000);
}
