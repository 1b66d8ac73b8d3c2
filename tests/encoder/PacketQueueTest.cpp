#include "encoder/PacketQueue.h"

#include "common/utils/Clock.h"
#include "tests/plugin/Slots.h"
#include "tests/support/CountedPacket.h"
#include "tests/support/WatchedThread.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <thread>
#include <time.h>
#include <vector>

using zel::streamer::InterleavedPacketQueue;
using zel::streamer::PacketQueue;
using zel::streamer::SamplePacket;
using zel::test::CountedPacket;
using zel::test::PacketPtr;
using zel::test::WatchedThread;
namespace PacketType = zel::streamer::PacketType;

namespace {

constexpr unsigned int plenty = 1000000;

long long nowNs()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

PacketPtr take(PacketQueue& queue, bool wait = false)
{
    return PacketPtr(queue.getNextPacket(wait));
}

/// The time stamps of all packets, taken until there is none.
std::vector<unsigned long long> takeAll(PacketQueue& queue)
{
    std::vector<unsigned long long> timestamps;
    while (const PacketPtr packet = take(queue)) {
        timestamps.push_back(packet->getTimestamp());
    }
    return timestamps;
}

/// Lets a test act when the room is looked at, on the pusher's thread.
class ObservedQueue : public PacketQueue
{
public:
    using PacketQueue::m_stoppedFlag;
    using PacketQueue::PacketQueue;

    unsigned int getPacketSize() override
    {
        if (onLook) {
            onLook();
        }
        return PacketQueue::getPacketSize();
    }

    std::function<void()> onLook; ///< set before other threads come
};

/// Makes the protected slots visible.
class OpenQueue : public PacketQueue
{
public:
    using PacketQueue::_pop;
    using PacketQueue::_push;
};

class PacketQueueTest : public testing::Test
{
protected:
    ~PacketQueueTest() override { EXPECT_EQ(live, 0); }

    /// A new packet with one reference.
    SamplePacket* audio(unsigned long long timestamp = 0, int length = 1)
    {
        return CountedPacket::make(live, PacketType::Audio, timestamp, length);
    }

    std::atomic<int> live{0};
};

/// What both kinds of queue have in common.
template <class Queue>
class EitherPacketQueueTest : public PacketQueueTest
{
protected:
    /// Every queue is flushed at its end: the one that is in order does not release by itself.
    struct Flushed : Queue
    {
        using Queue::Queue;
        ~Flushed() override { this->flush(); }
    };
};

using BothQueues = testing::Types<PacketQueue, InterleavedPacketQueue>;
TYPED_TEST_SUITE(EitherPacketQueueTest, BothQueues);

class InterleavedPacketQueueTest : public PacketQueueTest
{
};

} // namespace

TYPED_TEST(EitherPacketQueueTest, OnePacketMayGoOverTheByteLimitAndTheNextWaitsUntilItIsTaken)
{
    typename TestFixture::Flushed queue(1000, 1000000);
    EXPECT_EQ(queue.push(this->audio(1, 2000000)), 1);
    EXPECT_EQ(queue.getByteSize(), 2000000U);

    WatchedThread pusher([&] { queue.push(this->audio(2, 2000000)); });
    ASSERT_TRUE(pusher.awaitSleep());
    EXPECT_EQ(queue.getPacketSize(), 1U);

    EXPECT_EQ(take(queue)->getTimestamp(), 1U);
    EXPECT_EQ(take(queue, true)->getTimestamp(), 2U);
    pusher.join();
    EXPECT_EQ(queue.getByteSize(), 0U);
}

TYPED_TEST(EitherPacketQueueTest, ByteLimitLooksPastThePacketLimit)
{
    typename TestFixture::Flushed queue(1, 21);
    queue.stop(); // so that a packet without room is released at once
    for (unsigned long long timestamp = 1; timestamp <= 3; ++timestamp) {
        queue.push(this->audio(timestamp, 10));
    }
    EXPECT_EQ(queue.getPacketSize(), 3U);
    queue.push(this->audio(4, 0));
    EXPECT_EQ(queue.getPacketSize(), 3U);
    EXPECT_EQ(this->live, 3);
}

TYPED_TEST(EitherPacketQueueTest, QueueIsFullAtExactlyTheByteLimit)
{
    typename TestFixture::Flushed queue(1000, 20);
    queue.stop();
    queue.push(this->audio(1, 19));
    queue.push(this->audio(2, 1));
    queue.push(this->audio(3, 1));
    EXPECT_EQ(queue.getPacketSize(), 2U);
    EXPECT_EQ(queue.getByteSize(), 20U);
}

TYPED_TEST(EitherPacketQueueTest, PacketLimitHoldsWhenThereIsNoByteLimit)
{
    typename TestFixture::Flushed queue(2, 0);
    queue.stop();
    for (unsigned long long timestamp = 1; timestamp <= 3; ++timestamp) {
        queue.push(this->audio(timestamp, 1000000000));
    }
    EXPECT_EQ(queue.getPacketSize(), 2U);
    EXPECT_EQ(queue.getByteSize(), 2000000000U);
}

TYPED_TEST(EitherPacketQueueTest, NullIsNotPushed)
{
    typename TestFixture::Flushed queue(0, 0);
    EXPECT_EQ(queue.push(nullptr), 0);
    EXPECT_EQ(queue.getPacketSize(), 0U);
    EXPECT_EQ(queue.getNextPacket(false), nullptr);
}

TYPED_TEST(EitherPacketQueueTest, LimitsCanBeChanged)
{
    typename TestFixture::Flushed queue(1, 2);
    EXPECT_EQ(queue.getMaxPacketSize(), 1U);
    EXPECT_EQ(queue.getMaxByteSize(), 2U);
    queue.push(this->audio(1, 2));

    WatchedThread pusher([&] {
        queue.push(this->audio(2));
        queue.push(this->audio(3));
    });
    ASSERT_TRUE(pusher.awaitSleep());
    EXPECT_EQ(queue.getPacketSize(), 1U);
    queue.setMaxByteSize(0);
    queue.setMaxPacketSize(3);
    pusher.join();
    EXPECT_EQ(queue.getPacketSize(), 3U);
    EXPECT_EQ(queue.getMaxPacketSize(), 3U);
    EXPECT_EQ(queue.getMaxByteSize(), 0U);
}

TYPED_TEST(EitherPacketQueueTest, LengthBelowZeroDoesNotFillTheQueue)
{
    typename TestFixture::Flushed queue(1000, 10);
    queue.push(this->audio(1, -5));
    EXPECT_EQ(queue.getByteSize(), 0U);
    EXPECT_NE(take(queue), nullptr);
    EXPECT_EQ(queue.getByteSize(), 0U);
}

TYPED_TEST(EitherPacketQueueTest, EmptyQueueAnswersNullAtOnceWithoutWaiting)
{
    typename TestFixture::Flushed queue(plenty, 0);
    EXPECT_EQ(queue.getNextPacket(false), nullptr);
    queue.push(this->audio());
    EXPECT_NE(take(queue), nullptr);
    EXPECT_EQ(queue.getNextPacket(false), nullptr);
}

TYPED_TEST(EitherPacketQueueTest, GetNextPacketOnStoppedQueueIsNullAtOnce)
{
    typename TestFixture::Flushed queue(plenty, 0);
    queue.push(this->audio());
    queue.stop();
    EXPECT_EQ(queue.getNextPacket(true), nullptr);
    EXPECT_EQ(queue.getNextPacket(false), nullptr);
    EXPECT_EQ(queue.getPacketSize(), 1U);
}

TYPED_TEST(EitherPacketQueueTest, StopWakesAllWaitingReadersWithNull)
{
    typename TestFixture::Flushed queue(plenty, 0);
    std::vector<SamplePacket*> taken(3, this->audio());
    SamplePacket* const untouched = taken[0];
    {
        WatchedThread first([&] { taken[0] = queue.getNextPacket(true); });
        WatchedThread second([&] { taken[1] = queue.getNextPacket(true); });
        WatchedThread third([&] { taken[2] = queue.getNextPacket(true); });
        EXPECT_TRUE(first.awaitSleep());
        EXPECT_TRUE(second.awaitSleep());
        EXPECT_TRUE(third.awaitSleep());
        queue.stop();
    }
    EXPECT_EQ(taken, std::vector<SamplePacket*>(3, nullptr));
    untouched->release();
}

TYPED_TEST(EitherPacketQueueTest, ResetQueueWithNothingInItMakesReadersWaitAgain)
{
    typename TestFixture::Flushed queue(plenty, 0);
    queue.stop();
    queue.reset();
    EXPECT_EQ(queue.getNextPacket(false), nullptr);

    PacketPtr taken;
    WatchedThread reader([&] { taken = take(queue, true); });
    EXPECT_TRUE(reader.awaitSleep());
    queue.push(this->audio(7));
    reader.join();
    ASSERT_NE(taken, nullptr);
    EXPECT_EQ(taken->getTimestamp(), 7U);
}

TYPED_TEST(EitherPacketQueueTest, ResetQueueGivesWhatItHeldWhenItWasStopped)
{
    typename TestFixture::Flushed queue(plenty, 0);
    queue.push(this->audio(1));
    queue.stop();
    queue.push(this->audio(2));
    queue.reset();
    EXPECT_EQ(take(queue, true)->getTimestamp(), 1U);
    EXPECT_EQ(take(queue, true)->getTimestamp(), 2U);
    EXPECT_EQ(queue.getNextPacket(false), nullptr);
}

TYPED_TEST(EitherPacketQueueTest, StopEndsTheWaitOfPushersAndReleasesTheirPackets)
{
    typename TestFixture::Flushed queue(1, 0);
    queue.push(this->audio());
    std::atomic<int> results{0};
    {
        WatchedThread first([&] { results += queue.push(this->audio()); });
        WatchedThread second([&] { results += queue.push(this->audio()); });
        EXPECT_TRUE(first.awaitSleep());
        EXPECT_TRUE(second.awaitSleep());
        queue.stop();
    }
    EXPECT_EQ(results, 2);
    EXPECT_EQ(queue.getPacketSize(), 1U);
    EXPECT_EQ(this->live, 1);
}

TYPED_TEST(EitherPacketQueueTest, FlushOnRunningQueueLeavesItRunningAndEmpty)
{
    typename TestFixture::Flushed queue(plenty, 0);
    queue.push(this->audio(1, 100));
    queue.push(this->audio(2, 100));
    queue.flush();
    EXPECT_EQ(this->live, 0);
    EXPECT_EQ(queue.getPacketSize(), 0U);
    EXPECT_EQ(queue.getByteSize(), 0U);
    EXPECT_EQ(queue.getNextPacket(false), nullptr);

    queue.push(this->audio(3, 10));
    EXPECT_EQ(queue.getByteSize(), 10U);
    EXPECT_EQ(take(queue, true)->getTimestamp(), 3U);
}

TYPED_TEST(EitherPacketQueueTest, FlushForgetsTheBytesOfAPacketThatShrankInTheQueue)
{
    typename TestFixture::Flushed queue(plenty, 0);
    CountedPacket* packet = CountedPacket::make(this->live, PacketType::Audio, 1, 10);
    queue.push(packet);
    packet->set(PacketType::Audio, nullptr, 4, 1, 0, false);
    queue.flush();
    EXPECT_EQ(queue.getByteSize(), 0U);
}

TYPED_TEST(EitherPacketQueueTest, FlushOnStoppedQueueLeavesItStopped)
{
    typename TestFixture::Flushed queue(plenty, 0);
    queue.stop();
    queue.push(this->audio());
    queue.flush();
    EXPECT_EQ(this->live, 0);
    queue.push(this->audio());
    EXPECT_EQ(queue.getNextPacket(true), nullptr);
    EXPECT_EQ(this->live, 1);
}

TYPED_TEST(EitherPacketQueueTest, FlushReleasesThePacketOfAWaitingPusher)
{
    typename TestFixture::Flushed queue(1, 0);
    queue.push(this->audio());
    WatchedThread pusher([&] { queue.push(this->audio()); });
    EXPECT_TRUE(pusher.awaitSleep());
    queue.flush();
    pusher.join();
    EXPECT_EQ(queue.getPacketSize(), 0U);
    EXPECT_EQ(this->live, 0);
}

TYPED_TEST(EitherPacketQueueTest, StopInTheMiddleOfAFlushIsNotUndone)
{
    typename TestFixture::Flushed queue(plenty, 0);
    auto packet = std::make_unique<CountedPacket>(this->live);
    std::unique_ptr<WatchedThread> stopper;
    packet->atTheEnd = [&] {
        stopper = std::make_unique<WatchedThread>([&] { queue.stop(); });
        stopper->awaitSleep(); // it has to wait for the flush
    };
    queue.push(packet.release());
    queue.flush();
    stopper->join();
    queue.push(this->audio());
    EXPECT_EQ(queue.getNextPacket(true), nullptr);
}

TYPED_TEST(EitherPacketQueueTest, ResetInTheMiddleOfAFlushLeavesAnEmptyQueueToWaitAt)
{
    typename TestFixture::Flushed queue(plenty, 0);
    auto packet = std::make_unique<CountedPacket>(this->live);
    packet->atTheEnd = [&queue] { queue.reset(); };
    queue.push(packet.release());
    queue.push(this->audio());
    queue.stop();
    queue.flush();

    PacketPtr taken;
    WatchedThread reader([&] { taken = take(queue, true); });
    EXPECT_TRUE(reader.awaitSleep());
    queue.push(this->audio(5));
    reader.join();
    ASSERT_NE(taken, nullptr);
    EXPECT_EQ(taken->getTimestamp(), 5U);
}

TYPED_TEST(EitherPacketQueueTest, WaitingReaderStaysAsleep)
{
    typename TestFixture::Flushed queue(plenty, 0);
    PacketPtr taken;
    WatchedThread reader([&] { taken = take(queue, true); });
    ASSERT_TRUE(reader.awaitSleep());
    const long before = reader.sleeps();
    // Time for twenty looks at the poll rate of pushers.
    PCondMutex event;
    const bool never = false;
    event.timedWait(never, zel::absoluteTimeAfter(100));
    const long after = reader.sleeps();
    queue.push(this->audio());
    reader.join();
    EXPECT_NE(before, -1);
    EXPECT_LE(after - before, 3); // a wake-up may be spurious
}

TYPED_TEST(EitherPacketQueueTest, NoPacketIsLostBetweenManyPushersAndTakers)
{
    constexpr int pusherCount = 4;
    constexpr unsigned long long packetsEach = 400;
    for (const unsigned int maxBytes : {0U, 150U}) {
        typename TestFixture::Flushed queue(16, maxBytes);
        std::vector<std::thread> pushers;
        for (unsigned long long pusher = 0; pusher < pusherCount; ++pusher) {
            pushers.emplace_back([&, pusher] {
                for (unsigned long long number = 0; number < packetsEach; ++number) {
                    queue.push(this->audio(pusher * packetsEach + number, 10));
                }
            });
        }
        std::vector<std::atomic<int>> seen(pusherCount * packetsEach);
        std::atomic<unsigned long long> taken{0};
        constexpr int takerCount = 3;
        std::vector<std::thread> takers;
        takers.reserve(takerCount);
        for (int taker = 0; taker < takerCount; ++taker) {
            takers.emplace_back([&, wait = taker != 0] {
                while (taken < seen.size()) {
                    if (const PacketPtr packet = take(queue, wait)) {
                        ++seen[packet->getTimestamp()];
                        if (++taken == seen.size()) {
                            queue.stop(); // lets the other takers go
                        }
                    }
                }
            });
        }
        for (std::thread& thread : pushers) {
            thread.join();
        }
        for (std::thread& thread : takers) {
            thread.join();
        }
        for (const std::atomic<int>& count : seen) {
            ASSERT_EQ(count, 1);
        }
        EXPECT_EQ(queue.getPacketSize(), 0U);
        EXPECT_EQ(queue.getByteSize(), 0U);
        EXPECT_EQ(this->live, 0);
    }
}

TYPED_TEST(EitherPacketQueueTest, NoPacketIsLeakedAndNobodyHangsWhateverIsCalledWhen)
{
    constexpr int pusherCount = 3;
    constexpr int packetsEach = 5000;
    typename TestFixture::Flushed queue(3, 0);
    std::atomic<int> pushersLeft{pusherCount};
    std::atomic<bool> done{false};

    std::vector<std::thread> threads;
    threads.reserve(pusherCount + 4);
    for (int pusher = 0; pusher < pusherCount; ++pusher) {
        threads.emplace_back([&] {
            for (int number = 0; number < packetsEach; ++number) {
                EXPECT_EQ(queue.push(this->audio(static_cast<unsigned long long>(number))), 1);
            }
            --pushersLeft;
        });
    }
    for (int taker = 0; taker < 2; ++taker) {
        threads.emplace_back([&] {
            while (!done) {
                take(queue, true);
            }
        });
    }
    threads.emplace_back([&] {
        while (pushersLeft > 0) {
            queue.flush();
            std::this_thread::yield();
        }
    });
    threads.emplace_back([&] {
        while (pushersLeft > 0) {
            queue.stop();
            std::this_thread::yield();
            queue.reset();
            std::this_thread::yield();
        }
        done = true;
        queue.stop();
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(static_cast<int>(queue.getPacketSize()), this->live);
    EXPECT_EQ(queue.getByteSize(), queue.getPacketSize());
}

TEST_F(PacketQueueTest, GivesPacketsInTheOrderOfTheirPush)
{
    PacketQueue queue(plenty, 0);
    for (const unsigned long long timestamp : {30, 10, 20}) {
        queue.push(audio(timestamp));
    }
    EXPECT_EQ(takeAll(queue), (std::vector<unsigned long long>{30, 10, 20}));
}

TEST_F(PacketQueueTest, KeepsTheOrderFromOneThreadToAnother)
{
    constexpr unsigned long long count = 3000;
    PacketQueue queue(50, 0);
    WatchedThread pusher([&] {
        for (unsigned long long number = 0; number < count; ++number) {
            queue.push(audio(number));
        }
    });
    for (unsigned long long number = 0; number < count; ++number) {
        const PacketPtr packet = take(queue, true);
        ASSERT_NE(packet, nullptr);
        ASSERT_EQ(packet->getTimestamp(), number);
    }
}

TEST_F(PacketQueueTest, The501stPushLooksForRoomInStepsOfFiveMilliseconds)
{
    std::vector<long long> looks;
    std::atomic<bool> watching{false};
    std::thread::id pusherId;
    std::atomic<unsigned int> lookCount{0};
    ObservedQueue queue(500, 0);
    queue.onLook = [&] {
        if (watching && std::this_thread::get_id() == pusherId) {
            looks.push_back(nowNs());
            ++lookCount;
        }
    };
    for (unsigned long long number = 0; number < 500; ++number) {
        queue.push(audio(number));
    }

    WatchedThread pusher([&] {
        pusherId = std::this_thread::get_id();
        watching = true;
        queue.push(audio(500));
        watching = false;
    });
    while (lookCount < 6) {
        ASSERT_FALSE(pusher.ended());
        std::this_thread::yield();
    }
    EXPECT_EQ(take(queue)->getTimestamp(), 0U);
    pusher.join();
    EXPECT_EQ(queue.PacketQueue::getPacketSize(), 500U);
    for (std::size_t look = 1; look < looks.size(); ++look) {
        // The deadline is rounded down to a microsecond.
        EXPECT_GE(looks[look] - looks[look - 1], 4990000);
    }
}

TEST_F(PacketQueueTest, FlushWaitsForThePusherWithoutHoldingWhatThePusherNeeds)
{
    ObservedQueue queue(plenty, 0);
    std::thread::id pusherId;
    std::atomic<bool> lookedOnce{false};
    queue.onLook = [&] {
        if (std::this_thread::get_id() == pusherId && !lookedOnce.exchange(true)) {
            // There is room, so what comes next is the insertion. Flush is under way by then.
            while (!queue.m_stoppedFlag) {
                std::this_thread::yield();
            }
        }
    };
    WatchedThread pusher([&] {
        pusherId = std::this_thread::get_id();
        queue.push(audio());
    });
    while (!lookedOnce) {
        std::this_thread::yield();
    }
    queue.flush();
    pusher.join();
    EXPECT_EQ(live, 0);
    EXPECT_FALSE(queue.m_stoppedFlag);
}

TEST_F(PacketQueueTest, DestructorReleasesWhatIsHeld)
{
    {
        PacketQueue queue(plenty, 0);
        queue.push(audio());
        queue.push(audio());
        EXPECT_EQ(live, 2);
    }
    EXPECT_EQ(live, 0);
}

TEST_F(PacketQueueTest, SlotsFollowTheDestructorInTheirOrder)
{
    EXPECT_EQ(zel::test::slotOf(&PacketQueue::getPacketSize), 2);
    EXPECT_EQ(zel::test::slotOf(&OpenQueue::_push), 3);
    EXPECT_EQ(zel::test::slotOf(&OpenQueue::_pop), 4);
}

TEST_F(InterleavedPacketQueueTest, GivesPacketsInTheOrderOfTheirTimeStamps)
{
    InterleavedPacketQueue queue(plenty, 0);
    for (const unsigned long long timestamp : {30, 10, 20}) {
        queue.push(audio(timestamp));
    }
    EXPECT_EQ(takeAll(queue), (std::vector<unsigned long long>{10, 20, 30}));
}

TEST_F(InterleavedPacketQueueTest, EqualTimeStampsKeepTheOrderOfArrivalAndTheirValue)
{
    InterleavedPacketQueue queue(plenty, 0);
    const std::vector<SamplePacket*> arrivals = {audio(10), audio(10), audio(11)};
    for (SamplePacket* packet : arrivals) {
        queue.push(packet);
    }
    const std::vector<unsigned long long> timestamps = {10, 10, 11};
    for (std::size_t number = 0; number < arrivals.size(); ++number) {
        const PacketPtr packet = take(queue);
        EXPECT_EQ(packet.get(), arrivals[number]);
        EXPECT_EQ(packet->getTimestamp(), timestamps[number]);
    }
}

TEST_F(InterleavedPacketQueueTest, EqualTimeStampsKeepTheirOrderWhenSomeAreTakenMeanwhile)
{
    InterleavedPacketQueue queue(plenty, 0);
    std::vector<SamplePacket*> arrivals;
    for (int i = 0; i < 6; ++i) {
        arrivals.push_back(audio(10));
    }
    queue.push(arrivals[0]);
    queue.push(arrivals[1]);
    queue.push(audio(11));
    queue.push(arrivals[2]);
    EXPECT_EQ(take(queue).get(), arrivals[0]);
    queue.push(arrivals[3]); // its key would be free again
    EXPECT_EQ(take(queue).get(), arrivals[1]);
    queue.push(arrivals[4]);
    EXPECT_EQ(take(queue)->getTimestamp(), 11U);
    for (std::size_t number = 2; number < 5; ++number) {
        EXPECT_EQ(take(queue).get(), arrivals[number]) << number;
    }
    queue.push(audio(20));
    queue.push(arrivals[5]); // nothing of its time waits any more
    EXPECT_EQ(take(queue).get(), arrivals[5]);
    queue.flush();
}

TEST_F(InterleavedPacketQueueTest, RaisedKeyPushesALaterTimeStampBack)
{
    InterleavedPacketQueue queue(plenty, 0);
    // Keys 10, 11 and 12: the packet of 11 finds its place taken.
    SamplePacket* const first = audio(10);
    SamplePacket* const second = audio(10);
    SamplePacket* const third = audio(11);
    SamplePacket* const fourth = audio(12);
    for (SamplePacket* packet : {first, second, fourth, third}) {
        queue.push(packet);
    }
    for (const SamplePacket* expected : {first, second, fourth, third}) {
        EXPECT_EQ(take(queue).get(), expected);
    }
}

TEST_F(InterleavedPacketQueueTest, EndPacketThatComesFirstIsTakenLast)
{
    InterleavedPacketQueue queue(plenty, 0);
    queue.push(CountedPacket::make(live, PacketType::None, 5));
    queue.push(audio(30));
    queue.push(audio(SamplePacket::NoTimestamp - 1));
    queue.push(audio(10));
    EXPECT_EQ(takeAll(queue),
              (std::vector<unsigned long long>{10, 30, SamplePacket::NoTimestamp - 1,
                                               SamplePacket::NoTimestamp}));
}

TEST_F(InterleavedPacketQueueTest, HighestTimeStampTwiceIsNoEndlessSearch)
{
    constexpr unsigned long long highest = std::numeric_limits<unsigned long long>::max();
    InterleavedPacketQueue queue(plenty, 0);
    queue.push(audio(highest));
    queue.push(audio(highest));
    EXPECT_EQ(takeAll(queue), (std::vector<unsigned long long>{highest, highest}));
}

TEST_F(InterleavedPacketQueueTest, DestructorLeavesWhatIsHeldToTheOwnersFlush)
{
    SamplePacket* const packet = audio();
    {
        InterleavedPacketQueue queue(plenty, 0);
        queue.push(packet);
    }
    EXPECT_EQ(live, 1);
    packet->release();
}

TEST_F(InterleavedPacketQueueTest, IsInOrderWhateverThreadsPushed)
{
    constexpr unsigned long long packetsEach = 1000;
    InterleavedPacketQueue queue(plenty, 0);
    std::vector<std::thread> pushers;
    for (unsigned long long pusher = 0; pusher < 4; ++pusher) {
        pushers.emplace_back([&, pusher] {
            for (unsigned long long number = packetsEach; number > 0; --number) {
                queue.push(audio(number * 100 + pusher));
            }
        });
    }
    for (std::thread& thread : pushers) {
        thread.join();
    }
    const std::vector<unsigned long long> timestamps = takeAll(queue);
    ASSERT_EQ(timestamps.size(), 4 * packetsEach);
    for (std::size_t number = 0; number < timestamps.size(); ++number) {
        ASSERT_EQ(timestamps[number], (number / 4 + 1) * 100 + number % 4);
    }
}
