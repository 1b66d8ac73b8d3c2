#include "common/utils/Locks.h"

#include "common/utils/Clock.h"

#include <atomic>
#include <cerrno>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

/// Tries the mutex on another thread, where a recursive one is not free either.
bool isFree(PMutex& mutex)
{
    bool result = false;
    std::thread([&mutex, &result] {
        if (mutex.tryLock()) {
            result = true;
            mutex.unlock();
        }
    }).join();
    return result;
}

} // namespace

TEST(Locks, GuardHoldsTheMutexForItsScope)
{
    PMutex mutex;
    {
        PMutexGuard guard(mutex);
        EXPECT_FALSE(isFree(mutex));
        guard.unlock();
        EXPECT_TRUE(isFree(mutex));
        guard.lock();
        EXPECT_FALSE(isFree(mutex));
    }
    EXPECT_TRUE(isFree(mutex));
}

TEST(Locks, GuardThatIsUnlockedDoesNotUnlockAgain)
{
    PMutex mutex;
    PCondMutex event;
    bool locked = false;
    bool released = false;
    std::thread other;
    {
        PMutexGuard guard(mutex);
        guard.unlock();
        other = std::thread([&] {
            PMutexGuard theirs(mutex);
            event.signal(locked);
            event.wait(released);
        });
        event.wait(locked);
    }
    EXPECT_FALSE(isFree(mutex));
    event.signal(released);
    other.join();
}

TEST(Locks, RecursiveMutexIsFreeAfterTheLastUnlock)
{
    PMutex mutex(PMutex::Recursive);
    {
        PMutexGuard outer(mutex);
        [&mutex] { PMutexGuard inner(mutex); }();
        EXPECT_FALSE(isFree(mutex));
    }
    EXPECT_TRUE(isFree(mutex));
}

TEST(Locks, SignalBeforeAWaitLetsTheWaitReturnAtOnce)
{
    PCondMutex event;
    bool signalled = false;
    event.signal(signalled);
    event.wait(signalled);
    EXPECT_TRUE(signalled);
    EXPECT_EQ(event.timedWait(signalled, timespec()), 0);
}

TEST(Locks, ResetAfterASignalBlocksTheNextWait)
{
    PCondMutex event;
    bool signalled = false;
    event.signal(signalled);
    event.reset(signalled);
    EXPECT_FALSE(signalled);
    EXPECT_EQ(event.timedWait(signalled, zel::absoluteTimeAfter(5)), ETIMEDOUT);
}

TEST(Locks, SignalWakesEveryWaiter)
{
    PCondMutex event;
    bool signalled = false;
    std::vector<std::thread> waiters;
    waiters.reserve(4);
    for (int i = 0; i < 4; ++i) {
        waiters.emplace_back([&event, &signalled] { event.wait(signalled); });
    }
    std::thread timed([&event, &signalled] {
        EXPECT_EQ(event.timedWait(signalled, zel::absoluteTimeAfter(2000000000)), 0);
    });
    event.signal(signalled);
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    timed.join();
}

TEST(Locks, EventTakesAnAtomicFlagToo)
{
    PCondMutex event;
    std::atomic<bool> signalled = false;
    std::thread waiter([&event, &signalled] { event.wait(signalled); });
    event.signal(signalled);
    waiter.join();
    event.reset(signalled);
    EXPECT_EQ(event.timedWait(signalled, zel::absoluteTimeAfter(1)), ETIMEDOUT);
}

TEST(Locks, NotifiedWaiterSeesWhatWasPutUnderTheLock)
{
    PQueueCondMutex<int> queue;
    int taken = 0;
    std::thread reader([&queue, &taken] {
        PMutexGuard guard(queue);
        while (queue.items.empty()) {
            queue.wait();
        }
        taken = queue.items.front();
    });
    {
        PMutexGuard guard(queue);
        queue.items.push_back(42);
        queue.notifyOne();
    }
    reader.join();
    EXPECT_EQ(taken, 42);
}

TEST(Locks, ContainersAreGuardedByTheirOwnLock)
{
    PVectorCondMutex<char> bytes;
    PMapCondMutex<unsigned long long, int> map;
    {
        PMutexGuard guard(bytes);
        bytes.items.push_back('a');
        EXPECT_FALSE(isFree(bytes));
    }
    PMutexGuard guard(map);
    map.items[7] = 1;
    EXPECT_FALSE(isFree(map));
    EXPECT_EQ(map.items.size(), 1U);
}

TEST(Locks, ConditionWaitPassesTheTimeOutOn)
{
    PMutex mutex;
    PCondition condition(mutex);
    PMutexGuard guard(mutex);
    const unsigned long long start = zel::uptimeMs();
    int result = 0;
    while (result == 0) { // spurious wake-ups aside
        result = condition.wait(20);
    }
    EXPECT_EQ(result, ETIMEDOUT);
    EXPECT_GE(zel::uptimeMs() - start + 1, 20U);
}

TEST(Locks, ConditionWaitBelowOneMillisecondHasNoLimit)
{
    PMutex mutex;
    PCondition condition(mutex);
    for (const int ms : {0, -5}) {
        bool waiting = false;
        bool go = false;
        int result = -1;
        std::thread waiter([&] {
            PMutexGuard guard(mutex);
            waiting = true;
            while (!go) {
                result = condition.wait(ms);
                if (result != 0) {
                    return;
                }
            }
        });
        for (bool ready = false; !ready; std::this_thread::yield()) {
            PMutexGuard guard(mutex);
            ready = waiting;
        }
        {
            PMutexGuard guard(mutex);
            go = true;
            condition.signal();
        }
        waiter.join();
        EXPECT_EQ(result, 0);
    }
}

TEST(Locks, TwoConditionsOnOneMutexWakeIndependently)
{
    PMutex mutex;
    struct Side
    {
        explicit Side(PMutex& shared) : condition(shared) {}
        PCondition condition;
        bool waiting = false;
        bool go = false;
        int wakeUps = 0;
    };
    Side left(mutex);
    Side right(mutex);
    const auto waitOn = [&mutex](Side& side) {
        PMutexGuard guard(mutex);
        side.waiting = true;
        while (!side.go) {
            side.condition.wait(0);
            ++side.wakeUps;
        }
    };
    std::thread leftThread(waitOn, std::ref(left));
    std::thread rightThread(waitOn, std::ref(right));
    for (bool ready = false; !ready; std::this_thread::yield()) {
        PMutexGuard guard(mutex);
        ready = left.waiting && right.waiting;
    }
    {
        PMutexGuard guard(mutex);
        left.go = true;
        left.condition.broadcast();
    }
    leftThread.join();
    {
        PMutexGuard guard(mutex);
        EXPECT_EQ(right.wakeUps, 0);
        right.go = true;
        right.condition.signal();
    }
    rightThread.join();
    EXPECT_EQ(left.wakeUps, 1);
    EXPECT_EQ(right.wakeUps, 1);
}

TEST(Locks, ReadSideIsGrantedAgainWhileAWriterWaits)
{
    PReadWriteLock lock;
    std::atomic<bool> written = false;
    std::thread writer;
    {
        PReadGuard outer(lock);
        ASSERT_TRUE(outer.locked());
        std::atomic<bool> started = false;
        writer = std::thread([&] {
            started = true;
            PWriteGuard guard(lock);
            written = true;
        });
        while (!started) {
            std::this_thread::yield();
        }
        for (int i = 0; i < 1000; ++i) {
            [&lock] { PReadGuard inner(lock); }();
            std::this_thread::yield();
        }
        EXPECT_FALSE(written);
    }
    writer.join();
    EXPECT_TRUE(written);
}

TEST(Locks, GuardThatCouldNotLockDoesNotUnlock)
{
    PReadWriteLock lock;
    {
        PWriteGuard outer(lock);
        ASSERT_TRUE(outer.locked());
        [&lock] {
            PWriteGuard inner(lock);
            EXPECT_FALSE(inner.locked());
        }();
        [&lock] {
            PReadGuard reader(lock);
            EXPECT_FALSE(reader.locked());
        }();
        // Still held: another thread's read side has to wait until the outer scope ends.
        std::atomic<bool> read = false;
        std::thread reader([&lock, &read] {
            PReadGuard guard(lock);
            read = true;
        });
        for (int i = 0; i < 1000; ++i) {
            std::this_thread::yield();
        }
        EXPECT_FALSE(read);
        outer.unlock();
        reader.join();
        EXPECT_TRUE(read);
    }
    PWriteGuard last(lock);
    EXPECT_TRUE(last.locked());
}

TEST(Locks, CancelledTimerEndsAWaitThatHasNoDueTime)
{
    PWaitableTimer timer;
    bool due = true;
    std::thread waiter([&timer, &due] { due = timer.waitUntilDue(); });
    timer.cancel();
    waiter.join();
    EXPECT_FALSE(due);
    EXPECT_FALSE(timer.waitUntilDue());
}

TEST(Locks, CancelledTimerEndsAWaitForAFarDueTime)
{
    PWaitableTimer timer;
    timer.arm(zel::absoluteTimeAfter(2000000000));
    bool due = true;
    std::thread waiter([&timer, &due] { due = timer.waitUntilDue(); });
    timer.cancel();
    waiter.join();
    EXPECT_FALSE(due);
}

TEST(Locks, ArmedTimerEndsTheWaitAtItsDueTimeAndIsNotArmedAnyMore)
{
    PWaitableTimer timer;
    timer.arm(zel::absoluteTimeAfter(2));
    EXPECT_TRUE(timer.waitUntilDue());
    PMutexGuard guard(timer);
    EXPECT_FALSE(timer.armed);
    EXPECT_FALSE(timer.cancelled);
}

TEST(Locks, ArmingATimerEndsAWaitWithoutADueTime)
{
    PWaitableTimer timer;
    bool due = false;
    std::thread waiter([&timer, &due] { due = timer.waitUntilDue(); });
    timer.arm(zel::absoluteTimeAfter(1));
    waiter.join();
    EXPECT_TRUE(due);
}

TEST(Locks, RestartedTimerWaitsAgain)
{
    PWaitableTimer timer;
    timer.arm(zel::absoluteTimeAfter(2000000000));
    timer.cancel();
    EXPECT_FALSE(timer.waitUntilDue());
    timer.restart();
    {
        PMutexGuard guard(timer);
        EXPECT_FALSE(timer.armed);
        EXPECT_FALSE(timer.cancelled);
    }
    timer.arm(zel::absoluteTimeAfter(1));
    EXPECT_TRUE(timer.waitUntilDue());
}
