#include "encoder/AVPacketSync.h"

#include "common/utils/Clock.h"
#include "tests/support/CountedPacket.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WatchedThread.h"

#include <atomic>
#include <cstddef>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using zel::streamer::AVPacketSync;
using zel::streamer::SamplePacket;
using zel::test::CountedPacket;
using zel::test::LogCapture;
using zel::test::PacketPtr;
using zel::test::WatchedThread;
namespace PacketType = zel::streamer::PacketType;

namespace {

const std::string videoWarning = "[AVPacketSync::pop] VIDEO reached limit.";
const std::string audioWarning = "[AVPacketSync::pop] AUDIO reached limit.";

class AVPacketSyncTest : public testing::Test
{
protected:
    ~AVPacketSyncTest() override { EXPECT_EQ(live, 0); }

    SamplePacket* audio(unsigned long long timestamp)
    {
        return CountedPacket::make(live, PacketType::Audio, timestamp);
    }
    SamplePacket* video(unsigned long long timestamp)
    {
        return CountedPacket::make(live, PacketType::Video, timestamp);
    }

    std::atomic<int> live{0};
};

PacketPtr pop(AVPacketSync& sync)
{
    return PacketPtr(sync.pop());
}

/// Waits until more than `ms` have passed since `startMs`.
void letPass(unsigned long long startMs, unsigned long long ms)
{
    PCondMutex event;
    const bool never = false;
    while (zel::uptimeMs() - startMs <= ms) {
        event.timedWait(never, zel::absoluteTimeAfter(50));
    }
}

/// What flushOne gives until there is nothing.
std::vector<unsigned long long> flushAll(AVPacketSync& sync)
{
    std::vector<unsigned long long> timestamps;
    while (const PacketPtr packet = PacketPtr(sync.flushOne())) {
        timestamps.push_back(packet->getTimestamp());
    }
    return timestamps;
}

} // namespace

TEST_F(AVPacketSyncTest, RoomIsTwiceTheSumOfTheLimits)
{
    const AVPacketSync sync(50, 200);
    EXPECT_EQ(sync.getMaxPacketSize(), 500U);
    EXPECT_EQ(sync.getMaxByteSize(), 0U);
}

TEST_F(AVPacketSyncTest, NothingPassesUntilBothStreamsHaveAPacket)
{
    AVPacketSync sync(50, 200);
    EXPECT_EQ(sync.pop(), nullptr);
    sync.push(video(10));
    sync.push(video(20));
    EXPECT_EQ(sync.pop(), nullptr);
    sync.push(audio(15));
    EXPECT_EQ(pop(sync)->getTimestamp(), 10U);
    EXPECT_EQ(pop(sync)->getTimestamp(), 15U);
    EXPECT_EQ(sync.pop(), nullptr);
    sync.push(audio(30));
    EXPECT_EQ(pop(sync)->getTimestamp(), 20U);
    EXPECT_EQ(sync.pop(), nullptr);
    EXPECT_EQ(sync.getPacketSize(), 1U);
    sync.reset();
}

TEST_F(AVPacketSyncTest, The51stVideoPacketWithoutAudioLetsOnePass)
{
    const LogCapture log;
    AVPacketSync sync(50, 200);
    for (unsigned long long number = 0; number < 50; ++number) {
        sync.push(video(number));
        ASSERT_EQ(sync.pop(), nullptr);
    }
    EXPECT_EQ(log.count(videoWarning), 0);
    sync.push(video(50));
    EXPECT_EQ(pop(sync)->getTimestamp(), 0U);
    EXPECT_EQ(sync.pop(), nullptr);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].level, LOGLEVEL_WARN);
    EXPECT_EQ(log.lines()[0].text,
              "[AVPacketSync::pop] VIDEO reached limit. numVideoPackets 51  maxVideoPackets 50  "
              "numAudioPackets 0");
    sync.reset();
}

TEST_F(AVPacketSyncTest, The201stAudioPacketWithoutVideoLetsOnePass)
{
    const LogCapture log;
    AVPacketSync sync(50, 200);
    for (unsigned long long number = 0; number < 200; ++number) {
        sync.push(audio(number));
        ASSERT_EQ(sync.pop(), nullptr);
    }
    sync.push(audio(200));
    EXPECT_EQ(pop(sync)->getTimestamp(), 0U);
    EXPECT_EQ(sync.pop(), nullptr);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].level, LOGLEVEL_WARN);
    EXPECT_EQ(log.lines()[0].text,
              "[AVPacketSync::pop] AUDIO reached limit. numAudioPackets 201  maxAudioPackets 200  "
              "numVideoPackets 0");
    sync.reset();
}

TEST_F(AVPacketSyncTest, WarnsOncePerSecondOfEitherStream)
{
    const LogCapture log;
    AVPacketSync sync(2, 2);
    for (unsigned long long number = 0; number < 3; ++number) {
        sync.push(video(number));
        sync.push(audio(10 + number));
    }
    const unsigned long long start = zel::uptimeMs();
    pop(sync); // both are over their limits
    EXPECT_EQ(log.count(videoWarning), 1);
    EXPECT_EQ(log.count(audioWarning), 0);
    letPass(start, 500);
    pop(sync);
    pop(sync);
    sync.push(video(20));
    const int videoCount = log.count(videoWarning);
    const int audioCount = log.count(audioWarning);
    if (zel::uptimeMs() - start <= 1000) { // not on a machine that was busy elsewhere
        EXPECT_EQ(videoCount, 1);
        EXPECT_EQ(audioCount, 0);
    }
    letPass(zel::uptimeMs(), 1000);
    pop(sync); // three packets of audio wait and one of video
    EXPECT_EQ(log.count(videoWarning), videoCount);
    EXPECT_EQ(log.count(audioWarning), audioCount + 1);
    sync.reset();
}

TEST_F(AVPacketSyncTest, OverTheLimitTheEarliestPacketLeavesOfWhicheverStream)
{
    AVPacketSync sync(2, 10);
    for (const unsigned long long timestamp : {20, 30, 40}) {
        sync.push(video(timestamp));
    }
    sync.push(audio(10));
    EXPECT_EQ(pop(sync)->getTimestamp(), 10U);
    // Audio was counted down: video alone is over its limit, then within it.
    EXPECT_EQ(pop(sync)->getTimestamp(), 20U);
    EXPECT_EQ(sync.pop(), nullptr);
    sync.reset();
}

TEST_F(AVPacketSyncTest, FlushOneGivesEverythingInOrder)
{
    const LogCapture log;
    AVPacketSync sync(50, 200);
    for (const unsigned long long timestamp : {10, 40, 50, 60}) {
        sync.push(video(timestamp));
    }
    for (const unsigned long long timestamp : {5, 45}) {
        sync.push(audio(timestamp));
    }
    EXPECT_EQ(flushAll(sync), (std::vector<unsigned long long>{5, 10, 40, 45, 50, 60}));
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].level, LOGLEVEL_DEBUG);
    EXPECT_EQ(log.lines()[0].text, "[AVPacketSync::flush] DONE");

    // The counts are right behind it.
    sync.push(video(70));
    EXPECT_EQ(sync.pop(), nullptr);
    sync.push(audio(80));
    EXPECT_EQ(pop(sync)->getTimestamp(), 70U);
    sync.reset();
}

TEST_F(AVPacketSyncTest, ResetReleasesEverythingAndCountsFromZero)
{
    AVPacketSync sync(3, 200);
    for (unsigned long long number = 0; number < 3; ++number) {
        sync.push(video(number));
    }
    sync.push(audio(0));
    sync.reset();
    EXPECT_EQ(live, 0);
    EXPECT_EQ(sync.getPacketSize(), 0U);
    for (unsigned long long number = 0; number < 3; ++number) {
        sync.push(video(number));
        EXPECT_EQ(sync.pop(), nullptr);
    }
    sync.reset();
}

TEST_F(AVPacketSyncTest, NullIsNeitherPushedNorCounted)
{
    AVPacketSync sync(50, 200);
    EXPECT_EQ(sync.push(nullptr), 0);
    EXPECT_EQ(sync.push(audio(1)), 1);
    EXPECT_EQ(sync.push(nullptr), 0);
    EXPECT_EQ(sync.pop(), nullptr);
    EXPECT_EQ(flushAll(sync), std::vector<unsigned long long>{1});
}

TEST_F(AVPacketSyncTest, OtherPacketsCountForNeitherStream)
{
    AVPacketSync sync(10, 10);
    for (unsigned long long number = 0; number < 4; ++number) {
        sync.push(CountedPacket::make(live, PacketType::Metadata, number));
    }
    EXPECT_EQ(sync.pop(), nullptr);
    sync.push(audio(20));
    sync.push(video(30));
    EXPECT_EQ(pop(sync)->getType(), PacketType::Metadata);
    EXPECT_EQ(flushAll(sync), (std::vector<unsigned long long>{1, 2, 3, 20, 30}));
}

TEST_F(AVPacketSyncTest, TwoWritersAreMergedInOrder)
{
    constexpr unsigned long long count = 5000;
    AVPacketSync sync(count, count);
    std::vector<unsigned long long> timestamps;
    {
        WatchedThread videoWriter([&] {
            for (unsigned long long number = 0; number < count; ++number) {
                sync.push(video(number * 40));
            }
        });
        WatchedThread audioWriter([&] {
            for (unsigned long long number = 0; number < count; ++number) {
                sync.push(audio(number * 40 + 7));
            }
        });
        while (!videoWriter.ended() || !audioWriter.ended()) {
            if (const PacketPtr packet = pop(sync)) {
                timestamps.push_back(packet->getTimestamp());
            }
        }
    }
    for (const unsigned long long rest : flushAll(sync)) {
        timestamps.push_back(rest);
    }
    ASSERT_EQ(timestamps.size(), 2 * count);
    for (std::size_t number = 0; number < timestamps.size(); ++number) {
        ASSERT_EQ(timestamps[number], number / 2 * 40 + number % 2 * 7);
    }
}

TEST_F(AVPacketSyncTest, NoPacketIsLeakedWhenResetComesAtAnyMoment)
{
    constexpr unsigned long long count = 5000;
    AVPacketSync sync(5, 5);
    const auto writeAll = [&](auto make) {
        for (unsigned long long number = 0; number < count; ++number) {
            sync.push(make(number));
            while (pop(sync)) {
            }
        }
    };
    WatchedThread videoWriter([&] { writeAll([this](auto number) { return video(number); }); });
    WatchedThread audioWriter([&] { writeAll([this](auto number) { return audio(number); }); });
    while (!videoWriter.ended() || !audioWriter.ended()) {
        sync.reset();
        if (const PacketPtr packet = PacketPtr(sync.flushOne())) {
            EXPECT_LT(packet->getTimestamp(), count);
        }
    }
    videoWriter.join();
    audioWriter.join();
    sync.reset();
    EXPECT_EQ(live, 0);
    EXPECT_EQ(sync.getPacketSize(), 0U);
}
