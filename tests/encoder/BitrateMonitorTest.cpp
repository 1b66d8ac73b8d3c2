#include "encoder/BitrateMonitor.h"

#include "common/utils/Clock.h"
#include "plugin/SimpleSamplePacket.h"
#include "tests/plugin/Slots.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using namespace zel::streamer;
using zel::test::LogCapture;
using zel::test::slotOf;

namespace {

constexpr unsigned long long second = 1000000; ///< in time stamps
constexpr auto noPacket = static_cast<PacketType::Enum>(-1);

std::vector<std::string> textsOf(const LogCapture& log)
{
    std::vector<std::string> texts;
    for (const LogCapture::Line& line : log.lines()) {
        EXPECT_EQ(line.level, LOGLEVEL_DEBUG);
        texts.push_back(line.text);
    }
    return texts;
}

using Texts = std::vector<std::string>;

std::string num(unsigned long long value)
{
    return std::to_string(value);
}

/// The two lines at the end of an interval.
Texts ratesOf(const std::string& name, unsigned long long bytes, unsigned long long kbps,
              unsigned long long totalBytes, unsigned long long totalKbps)
{
    return {"BitrateMonitor::[" + name + "] - current size: " + num(bytes) + " current bitrate " +
            num(kbps) + "kbps     total size: " + num(totalBytes) + " total bitrate " +
            num(totalKbps) + "kbps"};
}

Texts linesOf(const std::string& name, Texts rates, unsigned timeMs, unsigned lastMs,
              unsigned totalMs)
{
    rates.push_back("BitrateMonitor::[" + name + "] - current time: " + num(timeMs) +
                    "ms last interval " + num(lastMs) + "ms total interval " + num(totalMs) +
                    "ms ");
    return rates;
}

std::string endLine(const std::string& name, unsigned long long bytes, unsigned long long kbps)
{
    return "BitrateMonitor::[" + name + "]  - received EOF ---\ttotal size: " + num(bytes) +
           " total bitrate " + num(kbps);
}

/// What a monitor that goes by time stamps has counted, seen in its line at the end.
Texts endOf(BitrateMonitor& monitor, LogCapture& log)
{
    log.clear();
    monitor.write(0, second, PacketType::None);
    return textsOf(log);
}

} // namespace

TEST(BitrateMonitor, OperationsHaveTheirSlots)
{
    using Write = void (BitrateMonitor::*)(const unsigned long long&, const unsigned long long&,
                                           PacketType::Enum);
    EXPECT_EQ(slotOf(static_cast<Write>(&BitrateMonitor::write)), 2);
    EXPECT_EQ(slotOf(&BitrateMonitor::reset), 3);
    EXPECT_EQ(slotOf(&ReadWriteBitrateMonitor::reset), 3);
    EXPECT_EQ(slotOf(&ReadWriteBitrateMonitor::read), 4);
    static_assert(std::has_virtual_destructor_v<BitrateMonitor>);
}

TEST(BitrateMonitor, MillionBytesInTenSecondsAre781Kbps)
{
    LogCapture log;
    BitrateMonitor monitor("Stage", true, 10000);
    monitor.write(400000, 1 * second, PacketType::Video);
    monitor.write(300000, 6 * second, PacketType::Audio);
    EXPECT_EQ(textsOf(log), Texts());
    monitor.write(300000, 11 * second, PacketType::Multiplexed);
    EXPECT_EQ(textsOf(log),
              linesOf("Stage", ratesOf("Stage", 1000000, 781, 1000000, 781), 11000, 10000, 10000));
}

TEST(BitrateMonitor, LinesAtTheEndOfAnIntervalAreExactlyThese)
{
    LogCapture log;
    BitrateMonitor monitor("FFMpegEncoder", true, 10000);
    monitor.write(0, 1 * second, PacketType::Video);
    monitor.write(1000000, 11 * second, PacketType::Video);
    const Texts expected = {
        "BitrateMonitor::[FFMpegEncoder] - current size: 1000000 current bitrate 781kbps     "
        "total size: 1000000 total bitrate 781kbps",
        "BitrateMonitor::[FFMpegEncoder] - current time: 11000ms last interval 10000ms total "
        "interval 10000ms "};
    EXPECT_EQ(textsOf(log), expected);
    log.clear();
    monitor.write(0, 12 * second, PacketType::None);
    EXPECT_EQ(textsOf(log), Texts{"BitrateMonitor::[FFMpegEncoder]  - received EOF ---\ttotal "
                                  "size: 1000000 total bitrate 781"});
}

TEST(BitrateMonitor, EachIntervalBeginsAnewAndTheTotalGoesOn)
{
    LogCapture log;
    BitrateMonitor monitor("M", true, 10000);
    monitor.write(0, 1 * second, PacketType::Video);
    monitor.write(1000000, 11 * second, PacketType::Video);
    log.clear();
    monitor.write(250000, 20 * second, PacketType::Video);
    EXPECT_EQ(textsOf(log), Texts()) << "9 seconds into the second interval";
    monitor.write(250000, 21 * second + 999, PacketType::Video); // not a whole millisecond
    EXPECT_EQ(textsOf(log),
              linesOf("M", ratesOf("M", 500000, 390, 1500000, 585), 21000, 10000, 20000));
}

TEST(BitrateMonitor, RatesAreOfWholeSecondsRoundedDownAtEachStep)
{
    LogCapture log;
    BitrateMonitor monitor("M", true, 2000);
    monitor.write(0, 1 * second, PacketType::Video);
    // 2047 / 2 is 1023, times 8 is 8184, divided by 1024 is 7.
    monitor.write(2047, 3 * second + 900000, PacketType::Video);
    EXPECT_EQ(textsOf(log), linesOf("M", ratesOf("M", 2047, 7, 2047, 7), 3900, 2900, 2900));
}

TEST(BitrateMonitor, IntervalOfZeroCountsAndLogsNoRates)
{
    LogCapture log;
    BitrateMonitor monitor("M", true, 0);
    monitor.write(1000, 1 * second, PacketType::Video);
    monitor.write(1000, 100 * second, PacketType::Video);
    monitor.write(1000, 1000 * second, PacketType::Video);
    EXPECT_EQ(textsOf(log), Texts());
    EXPECT_EQ(endOf(monitor, log), Texts{endLine("M", 3000, 0)});
}

TEST(BitrateMonitor, IntervalBelowASecondKeepsTheOldRates)
{
    LogCapture log;
    BitrateMonitor monitor("M", true, 500);
    monitor.write(0, 1 * second, PacketType::Video);
    monitor.write(128000, 1 * second + 500000, PacketType::Video);
    EXPECT_EQ(textsOf(log), linesOf("M", ratesOf("M", 128000, 0, 128000, 0), 1500, 500, 500));
    log.clear();
    monitor.write(128000, 2 * second, PacketType::Video); // one second since the start
    EXPECT_EQ(textsOf(log), linesOf("M", ratesOf("M", 128000, 0, 256000, 2000), 2000, 500, 1000));
    log.clear();
    monitor.reset();
    monitor.write(0, 1 * second, PacketType::Video);
    monitor.write(5, 1 * second + 500000, PacketType::Video);
    EXPECT_EQ(textsOf(log), linesOf("M", ratesOf("M", 5, 0, 5, 0), 1500, 500, 500));
}

TEST(BitrateMonitor, RateOfAnIntervalIsNotCarriedIntoTheNext)
{
    LogCapture log;
    BitrateMonitor monitor("M", true, 500);
    monitor.write(0, 1 * second, PacketType::Video);
    monitor.write(128000, 2 * second, PacketType::Video);
    EXPECT_EQ(textsOf(log),
              linesOf("M", ratesOf("M", 128000, 1000, 128000, 1000), 2000, 1000, 1000));
    log.clear();
    monitor.write(1, 2 * second + 500000, PacketType::Video);
    EXPECT_EQ(textsOf(log), linesOf("M", ratesOf("M", 1, 0, 128001, 1000), 2500, 500, 1500));
}

TEST(BitrateMonitor, EndLineShowsTheRateAsLastComputed)
{
    LogCapture log;
    BitrateMonitor monitor("M", true, 10000);
    monitor.write(0, 1 * second, PacketType::Video);
    monitor.write(1000000, 11 * second, PacketType::Video);
    log.clear();
    monitor.write(9000000, 15 * second, PacketType::Video);
    monitor.write(7, 100 * second, PacketType::None);
    EXPECT_EQ(textsOf(log), Texts{endLine("M", 10000007, 781)});
}

TEST(BitrateMonitor, PacketWithoutTimestampCountsItsBytesAndMovesNoClock)
{
    LogCapture log;
    BitrateMonitor monitor("M", true, 10000);
    monitor.write(10, SamplePacket::NoTimestamp, PacketType::Video);
    monitor.write(20, 1 * second, PacketType::Video);
    monitor.write(30, SamplePacket::NoTimestamp, PacketType::Video);
    monitor.write(40, 10 * second, PacketType::Video);
    monitor.write(40, SamplePacket::NoTimestamp, PacketType::None);
    EXPECT_EQ(textsOf(log), Texts());
    monitor.write(1024000, 11 * second, PacketType::Video);
    EXPECT_EQ(textsOf(log),
              linesOf("M", ratesOf("M", 1024140, 800, 1024140, 800), 11000, 10000, 10000));
}

TEST(BitrateMonitor, NoticesCountTheirBytesAndBeginNoInterval)
{
    LogCapture log;
    BitrateMonitor monitor("M", true, 10000);
    monitor.write(1, 1 * second, PacketType::Notice);
    monitor.write(2, 2 * second, noPacket);
    monitor.write(4, 5 * second, PacketType::Metadata); // here it begins
    monitor.write(8, 100 * second, PacketType::Notice);
    monitor.write(16, 100 * second, noPacket);
    monitor.write(32, 14 * second, PacketType::Video);
    EXPECT_EQ(textsOf(log), Texts());
    monitor.write(64, 15 * second, PacketType::Video);
    EXPECT_EQ(textsOf(log), linesOf("M", ratesOf("M", 127, 0, 127, 0), 15000, 10000, 10000));
}

TEST(BitrateMonitor, FirstTimeThatIsNotZeroIsTheStart)
{
    LogCapture log;
    BitrateMonitor monitor("M", true, 10000);
    monitor.write(1, 0, PacketType::Video);
    monitor.write(1, 999, PacketType::Video); // still millisecond 0
    monitor.write(1, 20 * second, PacketType::Video);
    EXPECT_EQ(textsOf(log), Texts());
    monitor.write(1, 30 * second, PacketType::Video);
    EXPECT_EQ(textsOf(log), linesOf("M", ratesOf("M", 4, 0, 4, 0), 30000, 10000, 10000));
}

TEST(BitrateMonitor, ResetBeginsAnew)
{
    LogCapture log;
    BitrateMonitor monitor("M", true, 10000);
    monitor.write(5, 1 * second, PacketType::Video);
    monitor.write(1000000, 11 * second, PacketType::Video);
    monitor.reset();
    EXPECT_EQ(endOf(monitor, log), Texts{endLine("M", 0, 0)});
    log.clear();
    monitor.write(1, 100 * second, PacketType::Video);
    monitor.write(1, 109 * second, PacketType::Video);
    EXPECT_EQ(textsOf(log), Texts());
    monitor.write(1, 110 * second, PacketType::Video);
    EXPECT_EQ(textsOf(log), linesOf("M", ratesOf("M", 3, 0, 3, 0), 110000, 10000, 10000));
}

TEST(BitrateMonitor, SamplePacketIsCountedByItsLengthTimeAndType)
{
    LogCapture log;
    BitrateMonitor monitor("M", true, 10000);
    const std::vector<unsigned char> bytes(2000);
    SimpleSamplePacket* packet = new SimpleSamplePacket();
    packet->setAndCopy(PacketType::Video, bytes.data(), 1000, 1 * second, 0, true);
    monitor.write(packet);
    packet->setAndCopy(PacketType::Video, bytes.data(), 2000, 11 * second, 0, true);
    monitor.write(packet);
    EXPECT_EQ(textsOf(log), linesOf("M", ratesOf("M", 3000, 2, 3000, 2), 11000, 10000, 10000));
    log.clear();
    packet->setAndCopy(PacketType::None, bytes.data(), 1, 11 * second, 0, true);
    monitor.write(packet);
    EXPECT_EQ(textsOf(log), Texts{endLine("M", 3001, 2)});
    packet->release();
}

TEST(BitrateMonitor, NullPacketDoesNothing)
{
    LogCapture log;
    BitrateMonitor monitor("M", true, 10000);
    monitor.write(nullptr);
    EXPECT_EQ(endOf(monitor, log), Texts{endLine("M", 0, 0)});
}

TEST(BitrateMonitor, PacketOfNegativeLengthCountsNothing)
{
    LogCapture log;
    BitrateMonitor monitor("M", true, 10000);
    SimpleSamplePacket* packet = new SimpleSamplePacket();
    packet->setAndCopy(PacketType::Video, nullptr, -1000, 1 * second, 0, true);
    monitor.write(packet);
    packet->release();
    EXPECT_EQ(endOf(monitor, log), Texts{endLine("M", 0, 0)});
}

TEST(BitrateMonitor, WithoutTimestampsTheClockCounts)
{
    LogCapture log;
    BitrateMonitor monitor("M", false, 1);
    monitor.write(100, SamplePacket::NoTimestamp, PacketType::Video);
    EXPECT_EQ(textsOf(log), Texts());
    const unsigned long long start = zel::uptimeMs();
    while (zel::uptimeMs() == start) {
        std::this_thread::yield();
    }
    monitor.write(11, 0, PacketType::Video);
    EXPECT_EQ(log.count("BitrateMonitor::[M] - current size: 111 current bitrate "), 1);
    EXPECT_EQ(log.count("BitrateMonitor::[M] - current time: "), 1);
    log.clear();
    monitor.write(0, SamplePacket::NoTimestamp, PacketType::None);
    EXPECT_EQ(log.count("received EOF ---\ttotal size: 111 total bitrate "), 1);
}

TEST(BitrateMonitor, LogsNothingBelowDebugLevelAndCountsOn)
{
    LogCapture log(LOGLEVEL_INFO);
    ReadWriteBitrateMonitor monitor("M", true, 10000);
    monitor.write(0, 1 * second, PacketType::Video);
    monitor.write(1000000, 11 * second, PacketType::Video);
    monitor.write(0, 11 * second, PacketType::None);
    monitor.read(1000000);
    EXPECT_EQ(textsOf(log), Texts());

    LogCapture debugLog;
    EXPECT_EQ(endOf(monitor, debugLog), Texts{endLine("M", 1000000, 781)});
}

TEST(ReadWriteBitrateMonitor, ReadClockIsTheTimeOfWriting)
{
    LogCapture log;
    ReadWriteBitrateMonitor monitor("Ring", true, 10000);
    monitor.write(500000, 1 * second, PacketType::Video);
    monitor.write(500000, 8 * second, PacketType::Video);
    monitor.write(500000, 10 * second, PacketType::Video);
    monitor.read(500000);
    monitor.read(500000);
    EXPECT_EQ(textsOf(log), Texts());
    monitor.write(9, 11 * second, PacketType::Video);
    log.clear();
    monitor.read(500000); // written at 10 s
    EXPECT_EQ(textsOf(log), Texts());
    monitor.read(9);
    const Texts expected = {
        "BitrateMonitor::[Ring - read] - current size: 1500009 current bitrate 1171kbps     total "
        "size: 1500009 total bitrate 1171kbps",
        "BitrateMonitor::[Ring - read] - current time: 11000ms last interval 10000ms total "
        "interval 10000ms "};
    EXPECT_EQ(textsOf(log), expected);
}

TEST(ReadWriteBitrateMonitor, PartOfAWriteLeavesTheRestPending)
{
    LogCapture log;
    ReadWriteBitrateMonitor monitor("M", true, 10000);
    monitor.write(100, 1 * second, PacketType::Video);
    monitor.write(1, 11 * second, PacketType::Video);
    log.clear();
    monitor.read(60);
    monitor.read(39);
    monitor.read(1);
    EXPECT_EQ(textsOf(log), Texts()) << "all of it was written at 1 s";
    monitor.read(1);
    EXPECT_EQ(textsOf(log),
              linesOf("M - read", ratesOf("M - read", 101, 0, 101, 0), 11000, 10000, 10000));
}

TEST(ReadWriteBitrateMonitor, ReadAcrossWritesTakesTheTimeOfTheLast)
{
    LogCapture log;
    ReadWriteBitrateMonitor monitor("M", true, 10000);
    monitor.write(10, 1 * second, PacketType::Video);
    monitor.write(10, 2 * second, PacketType::Video);
    monitor.write(10, 3 * second, PacketType::Video);
    monitor.write(10, 12 * second, PacketType::Video);
    log.clear();
    monitor.read(25); // ends within the write at 3 s, where the read side begins
    monitor.read(6);
    EXPECT_EQ(textsOf(log), Texts()) << "9 seconds since then";
    monitor.write(10, 13 * second, PacketType::Video);
    monitor.read(10);
    EXPECT_EQ(textsOf(log),
              linesOf("M - read", ratesOf("M - read", 41, 0, 41, 0), 13000, 10000, 10000));
}

TEST(ReadWriteBitrateMonitor, ReadOfMoreThanIsPendingCountsItAllAndEmptiesTheList)
{
    LogCapture log;
    ReadWriteBitrateMonitor monitor("M", true, 10000);
    monitor.write(100, 1 * second, PacketType::Video);
    monitor.read(1000);
    monitor.write(50, 11 * second, PacketType::Video);
    log.clear();
    monitor.read(1); // nothing of the first write is left in front of the second
    EXPECT_EQ(textsOf(log),
              linesOf("M - read", ratesOf("M - read", 1001, 0, 1001, 0), 11000, 10000, 10000));
}

TEST(ReadWriteBitrateMonitor, ReadOfNothingMovesNoClock)
{
    LogCapture log;
    ReadWriteBitrateMonitor monitor("M", true, 10000);
    monitor.write(100, 1 * second, PacketType::Video);
    monitor.read(100);
    monitor.write(100, 20 * second, PacketType::Video);
    log.clear();
    monitor.read(0);
    EXPECT_EQ(textsOf(log), Texts());
    monitor.read(100);
    EXPECT_EQ(textsOf(log),
              linesOf("M - read", ratesOf("M - read", 200, 0, 200, 0), 20000, 19000, 19000));
}

TEST(ReadWriteBitrateMonitor, EachReadIntervalBeginsAnewAndTheTotalGoesOn)
{
    LogCapture log;
    ReadWriteBitrateMonitor monitor("M", true, 10000);
    monitor.write(1, 1 * second, PacketType::Video);
    monitor.write(1000000, 11 * second, PacketType::Video);
    monitor.write(500000, 21 * second, PacketType::Video);
    monitor.read(1);
    log.clear();
    monitor.read(1000000);
    EXPECT_EQ(textsOf(log), linesOf("M - read", ratesOf("M - read", 1000001, 781, 1000001, 781),
                                    11000, 10000, 10000));
    log.clear();
    monitor.read(500000);
    EXPECT_EQ(textsOf(log), linesOf("M - read", ratesOf("M - read", 500000, 390, 1500001, 585),
                                    21000, 10000, 20000));
}

TEST(ReadWriteBitrateMonitor, RateOfAReadIntervalIsNotCarriedIntoTheNext)
{
    LogCapture log;
    ReadWriteBitrateMonitor monitor("M", true, 500);
    monitor.write(1, 1 * second, PacketType::Video);
    monitor.write(128000, 2 * second, PacketType::Video);
    monitor.write(1, 2 * second + 500000, PacketType::Video);
    monitor.read(1);
    log.clear();
    monitor.read(128000);
    EXPECT_EQ(textsOf(log), linesOf("M - read", ratesOf("M - read", 128001, 1000, 128001, 1000),
                                    2000, 1000, 1000));
    log.clear();
    monitor.read(1);
    EXPECT_EQ(textsOf(log),
              linesOf("M - read", ratesOf("M - read", 1, 0, 128002, 1000), 2500, 500, 1500));
}

TEST(ReadWriteBitrateMonitor, PendingWritesKeepTheLow32BitsOfTheirSize)
{
    LogCapture log;
    ReadWriteBitrateMonitor monitor("M", true, 10000);
    monitor.write((1ULL << 32) + 10, 1 * second, PacketType::Video);
    monitor.write(5, 11 * second, PacketType::Video);
    log.clear();
    monitor.read(10);
    EXPECT_EQ(textsOf(log), Texts());
    monitor.read(1);
    EXPECT_EQ(textsOf(log),
              linesOf("M - read", ratesOf("M - read", 11, 0, 11, 0), 11000, 10000, 10000));
}

TEST(ReadWriteBitrateMonitor, WriteWithoutTimestampIsPendingAtTheLastTimeSeen)
{
    LogCapture log;
    ReadWriteBitrateMonitor monitor("M", true, 10000);
    monitor.write(10, 1 * second, PacketType::Video);
    monitor.write(10, 11 * second, PacketType::Video);
    monitor.write(10, SamplePacket::NoTimestamp, PacketType::Video);
    monitor.write(10, 20 * second, PacketType::Video);
    monitor.read(20);
    log.clear();
    monitor.read(10);
    EXPECT_EQ(textsOf(log), Texts()) << "still at 11 s";
    monitor.write(10, 21 * second, PacketType::Video);
    log.clear();
    monitor.read(20);
    EXPECT_EQ(textsOf(log),
              linesOf("M - read", ratesOf("M - read", 50, 0, 50, 0), 21000, 10000, 10000));
}

TEST(ReadWriteBitrateMonitor, SamplePacketIsPendingToo)
{
    LogCapture log;
    ReadWriteBitrateMonitor monitor("M", true, 10000);
    const std::vector<unsigned char> bytes(10);
    SimpleSamplePacket* packet = new SimpleSamplePacket();
    packet->setAndCopy(PacketType::Video, bytes.data(), 10, 1 * second, 0, true);
    monitor.write(packet);
    packet->setAndCopy(PacketType::Video, bytes.data(), 10, 11 * second, 0, true);
    monitor.write(packet);
    packet->release();
    monitor.read(10);
    log.clear();
    monitor.read(10);
    EXPECT_EQ(textsOf(log),
              linesOf("M - read", ratesOf("M - read", 20, 0, 20, 0), 11000, 10000, 10000));
}

TEST(ReadWriteBitrateMonitor, IntervalOfZeroLogsNoRatesOnEitherSide)
{
    LogCapture log;
    ReadWriteBitrateMonitor monitor("M", true, 0);
    monitor.write(10, 1 * second, PacketType::Video);
    monitor.write(10, 100 * second, PacketType::Video);
    monitor.read(10);
    monitor.read(10);
    EXPECT_EQ(textsOf(log), Texts());
}

TEST(ReadWriteBitrateMonitor, ResetForgetsBothSides)
{
    LogCapture log;
    ReadWriteBitrateMonitor monitor("M", true, 10000);
    monitor.write(10, 1 * second, PacketType::Video);
    monitor.write(10, 2 * second, PacketType::Video);
    monitor.read(5);
    BitrateMonitor& base = monitor;
    base.reset();
    EXPECT_EQ(endOf(monitor, log), Texts{endLine("M", 0, 0)});
    monitor.reset();
    log.clear();
    monitor.read(7); // nothing is pending
    monitor.write(10, 100 * second, PacketType::Video);
    monitor.write(10, 110 * second, PacketType::Video);
    log.clear();
    monitor.read(10);
    EXPECT_EQ(textsOf(log), Texts());
    monitor.read(10);
    EXPECT_EQ(textsOf(log),
              linesOf("M - read", ratesOf("M - read", 27, 0, 27, 0), 110000, 10000, 10000));
}

TEST(BitrateMonitorThreads, NoByteIsLostBetweenThreads)
{
    constexpr int writers = 3;
    constexpr int packets = 2000;
    LogCapture log;
    ReadWriteBitrateMonitor monitor("M", false, 0);
    std::vector<std::thread> threads;
    threads.reserve(writers + 1);
    for (int i = 0; i < writers; ++i) {
        threads.emplace_back([&monitor] {
            for (int packet = 0; packet < packets; ++packet) {
                monitor.write(7, 0, PacketType::Video);
            }
        });
    }
    threads.emplace_back([&monitor] {
        for (int packet = 0; packet < packets; ++packet) {
            monitor.read(5);
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    monitor.write(0, 0, PacketType::None);
    EXPECT_EQ(textsOf(log), Texts{endLine("M", 7ULL * writers * packets, 0)});
}
