#include "common/utils/Clock.h"

namespace zel {

namespace {

constexpr long long nanosecondsPerSecond = 1000000000LL;

long long toNanoseconds(const timespec& time)
{
    return time.tv_sec * nanosecondsPerSecond + time.tv_nsec;
}

timespec clockNow(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return now;
}

} // namespace

unsigned long long uptimeMs()
{
    return static_cast<unsigned long long>(toNanoseconds(clockNow(CLOCK_MONOTONIC)) / 1000000);
}

timespec addMilliseconds(const timeval& now, int ms)
{
    timespec result = {};
    result.tv_sec = now.tv_sec + ms / 1000;
    result.tv_nsec = now.tv_usec * 1000L + (ms % 1000) * 1000000L;
    if (result.tv_nsec > 999999999L) {
        result.tv_nsec -= nanosecondsPerSecond;
        ++result.tv_sec;
    }
    return result;
}

timespec absoluteTimeAfter(int ms)
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    return addMilliseconds(now, ms);
}

timespec monotonicDeadline(const timespec& absolute)
{
    // A due time from outside may be anything; bounded seconds keep the sums in range.
    constexpr time_t farSeconds = 4000000000LL;
    timespec bounded = absolute;
    if (bounded.tv_sec > farSeconds) {
        bounded.tv_sec = farSeconds;
    }
    long long remaining = 0;
    if (bounded.tv_sec >= 0) {
        remaining = toNanoseconds(bounded) - toNanoseconds(clockNow(CLOCK_REALTIME));
    }
    if (remaining < 0) {
        remaining = 0;
    }
    const long long deadline = toNanoseconds(clockNow(CLOCK_MONOTONIC)) + remaining;
    timespec result = {};
    result.tv_sec = deadline / nanosecondsPerSecond;
    result.tv_nsec = deadline % nanosecondsPerSecond;
    return result;
}

} // namespace zel
