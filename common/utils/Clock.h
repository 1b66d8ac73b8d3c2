#pragma once

#include <sys/time.h>
#include <time.h>

/// The two clocks of the system. Any thread.
///
/// Deadlines travel as wall-clock times, since that is what the owners of timers store; waiting is
/// done on the monotonic clock, so that setting the machine's clock neither ends nor prolongs a
/// wait that has begun.
namespace zel {

/// Milliseconds since an arbitrary start, never set back.
unsigned long long uptimeMs();

/// `now` plus `ms` milliseconds, for `ms` of 0 and more. Apart from the carry of one second
/// everything is plain addition, so `now` must be a normal time.
timespec addMilliseconds(const timeval& now, int ms);

/// The wall-clock time in `ms` milliseconds: the deadline of every timed wait.
timespec absoluteTimeAfter(int ms);

/// The monotonic time that is as far from now as the wall-clock time `absolute` is; now when that
/// has passed.
timespec monotonicDeadline(const timespec& absolute);

} // namespace zel
