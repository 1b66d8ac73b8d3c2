#include "buffers/CircularMemoryHistoryBuffer.h"
#include "tests/buffers/StreamBytes.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WatchedThread.h"

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

using namespace zel::test;

namespace {

using Ring = std::unique_ptr<CircularMemoryHistoryBuffer>;

Ring makeRing(unsigned long long size, unsigned long long history)
{
    return Ring(CircularMemoryHistoryBuffer::create(size, history));
}

/// A ring of 100 bytes with a history of 20, whose reader has passed its end: 150 bytes written,
/// 140 of them read.
class WrappedRing : public testing::Test
{
protected:
    WrappedRing()
    {
        EXPECT_EQ(writeStream(*m_ring, 0, 90), 90);
        EXPECT_EQ(readBytes(*m_reader, 90), streamBytes(0, 90));
        EXPECT_EQ(writeStream(*m_ring, 90, 60), 60);
        EXPECT_EQ(readBytes(*m_reader, 50), streamBytes(90, 50));
    }

    Ring m_ring = makeRing(100, 20);
    CircularHistoryBufferReader* m_reader = m_ring->getReader();
};

} // namespace

TEST(CircularHistoryBufferTest, AFreshBufferIsEmptyAndActive)
{
    const Ring ring = makeRing(100, 20);
    EXPECT_EQ(ring->getBufferSize(), 100U);
    EXPECT_EQ(ring->getTotalBytesWritten(), 0U);
    EXPECT_EQ(ring->getAbsoluteOffset(), 0U);
    EXPECT_EQ(ring->availableToRead(), 0U);
    EXPECT_EQ(ring->availableToWrite(), 99U);
    EXPECT_FALSE(ring->isReleased());
    EXPECT_TRUE(ring->isActive());
    EXPECT_FALSE(ring->isOffsetInBuffer(1));
}

TEST(CircularHistoryBufferTest, BytesComeOutInTheOrderInWhichTheyWentIn)
{
    const Ring ring = makeRing(64, 8);
    CircularHistoryBufferReader* reader = ring->getReader();
    unsigned long long written = 0;
    unsigned long long read = 0;
    for (int round = 0; round < 500; ++round) {
        const long long n = writeStream(*ring, written, static_cast<unsigned>(round * 7 % 40));
        ASSERT_GE(n, 0);
        written += static_cast<unsigned long long>(n);
        const Bytes bytes = readBytes(*reader, static_cast<unsigned>(round * 5 % 30));
        ASSERT_EQ(bytes, streamBytes(read, bytes.size())) << "round " << round;
        read += bytes.size();
    }
    EXPECT_GT(read, 1000U);
    EXPECT_EQ(reader->getGlobalOffset(), read);
    EXPECT_EQ(reader->availableToRead(), written - read);
}

TEST(CircularHistoryBufferTest, FillingTheRingExactlyToItsEndCountsAsAWrap)
{
    const LogCapture log;
    const Ring ring = makeRing(100, 20);
    CircularHistoryBufferReader* reader = ring->getReader();
    ASSERT_EQ(writeStream(*ring, 0, 60), 60);
    ASSERT_EQ(readBytes(*reader, 60).size(), 60U);
    EXPECT_EQ(ring->getAbsoluteOffset(), 0U);
    ASSERT_EQ(writeStream(*ring, 60, 40), 40);
    EXPECT_EQ(ring->getAbsoluteOffset(), 100U);
    EXPECT_TRUE(log.contains("CircularHistoryBuffer::read : going back to 0 - 60 40 60"));
    // The position is 0 now, which is as far from the reader's 60 as the 40 bytes are long.
    EXPECT_EQ(ring->availableToRead(), 40U);
    EXPECT_EQ(readBytes(*reader, 40), streamBytes(60, 40));
    EXPECT_TRUE(log.contains("CircularHistoryBufferReader::read : going back to 0 - 40 100"));
    EXPECT_EQ(reader->getCurrentOffset(), 0U);
    EXPECT_EQ(reader->getGlobalOffset(), 100U);
}

TEST(CircularHistoryBufferTest, WithoutReadersTheBytesSoFarTakeRoomAway)
{
    const Ring ring = makeRing(100, 20);
    ASSERT_EQ(writeStream(*ring, 0, 10), 10);
    EXPECT_EQ(ring->availableToRead(), 10U);
    EXPECT_EQ(ring->availableToWrite(), 100U - 10 - 10 - 1);
    ASSERT_EQ(writeStream(*ring, 10, 30), 30);
    EXPECT_EQ(ring->availableToRead(), 40U);
    EXPECT_EQ(ring->availableToWrite(), 100U - 40 - 20 - 1);
}

TEST(CircularHistoryBufferTest, AFullBufferWithoutReadersHoldsItsWriterUntilAFlush)
{
    const Ring ring = makeRing(100, 20);
    ASSERT_EQ(writeStream(*ring, 0, 200), 99);
    long long result = -2;
    WatchedThread writer([&] { result = writeStream(*ring, 99, 10, true); });
    ASSERT_TRUE(writer.awaitSleep());
    ring->flush();
    writer.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(ring->getTotalBytesWritten(), 0U);
    EXPECT_EQ(ring->availableToWrite(), 99U);
}

TEST(CircularHistoryBufferTest, AFullBufferWithoutReadersHoldsItsWriterUntilARelease)
{
    const Ring ring = makeRing(100, 20);
    ASSERT_EQ(writeStream(*ring, 0, 99), 99);
    long long result = -2;
    WatchedThread writer([&] { result = writeStream(*ring, 99, 10, true); });
    ASSERT_TRUE(writer.awaitSleep());
    ring->release();
    writer.join();
    EXPECT_EQ(result, 0);
}

TEST(CircularHistoryBufferTest, AWriteWithoutRoomChangesNothingButTheFlagsItClears)
{
    const Ring ring = makeRing(100, 20);
    CircularHistoryBufferReader* reader = ring->getReader();
    ASSERT_EQ(writeStream(*ring, 0, 99), 99);
    ring->close();
    ASSERT_TRUE(reader->hasReachedEOF());
    EXPECT_EQ(writeStream(*ring, 99, 10), 0);
    EXPECT_FALSE(reader->hasReachedEOF());
    EXPECT_EQ(ring->getTotalBytesWritten(), 99U);
    EXPECT_EQ(ring->availableToRead(), 99U);
    EXPECT_EQ(readBytes(*reader, 99), streamBytes(0, 99));
}

TEST(CircularHistoryBufferTest, AReadWithoutATimeLimitSleepsAsLongAsItTakes)
{
    const Ring ring = makeRing(100, 20);
    CircularHistoryBufferReader* reader = ring->getReader();
    Bytes bytes(10);
    unsigned long long size = 10;
    long long result = -2;
    WatchedThread thread([&] { result = reader->read(bytes.data(), size, 10, 10, true, 0); });
    for (unsigned long long offset = 0; offset < 9; ++offset) {
        ASSERT_TRUE(thread.awaitSleep()) << "with " << offset << " bytes";
        ASSERT_EQ(writeStream(*ring, offset, 1), 1);
    }
    ASSERT_TRUE(thread.awaitSleep());
    ASSERT_EQ(writeStream(*ring, 9, 1), 1);
    thread.join();
    EXPECT_EQ(result, 10);
    EXPECT_EQ(bytes, streamBytes(0, 10));
}

TEST(CircularHistoryBufferTest, ATimeOutLeavesWhatIsThereUnreadAndACloseGivesIt)
{
    const Ring ring = makeRing(200, 20);
    CircularHistoryBufferReader* reader = ring->getReader();
    ASSERT_EQ(writeStream(*ring, 0, 60), 60);
    Bytes bytes(100);
    unsigned long long size = 100;
    EXPECT_EQ(reader->read(bytes.data(), size, 100, 100, true, 5), 0);
    EXPECT_EQ(size, 100U);
    EXPECT_EQ(reader->availableToRead(), 60U);
    EXPECT_EQ(reader->getGlobalOffset(), 0U);
    ring->close();
    EXPECT_EQ(reader->read(bytes.data(), size, 100, 100, true, 5), 60);
    EXPECT_EQ(size, 60U);
    bytes.resize(60);
    EXPECT_EQ(bytes, streamBytes(0, 60));
}

TEST(CircularHistoryBufferTest, ACloseWakesAReaderWithTheRest)
{
    const Ring ring = makeRing(200, 20);
    CircularHistoryBufferReader* reader = ring->getReader();
    ASSERT_EQ(writeStream(*ring, 0, 60), 60);
    Bytes bytes(100);
    unsigned long long size = 100;
    long long result = -2;
    WatchedThread thread([&] { result = reader->read(bytes.data(), size, 100, 100, true, 0); });
    ASSERT_TRUE(thread.awaitSleep());
    ring->close();
    thread.join();
    EXPECT_EQ(result, 60);
    EXPECT_EQ(size, 60U);
}

TEST(CircularHistoryBufferTest, AReadOfAClosedEmptyBufferGivesNothingAndKeepsTheSize)
{
    const Ring ring = makeRing(100, 20);
    CircularHistoryBufferReader* reader = ring->getReader();
    ASSERT_EQ(writeStream(*ring, 0, 10), 10);
    ring->close();
    ASSERT_EQ(readBytes(*reader, 10).size(), 10U);
    Bytes bytes(50);
    unsigned long long size = 50;
    EXPECT_EQ(reader->read(bytes.data(), size, 0, 0, true, 0), 0);
    EXPECT_EQ(size, 50U);
}

TEST_F(WrappedRing, ASeekToTheCurrentPositionSucceeds)
{
    EXPECT_TRUE(m_reader->seek(140));
    EXPECT_EQ(m_reader->getGlobalOffset(), 140U);
    EXPECT_EQ(readBytes(*m_reader, 10), streamBytes(140, 10));
    EXPECT_TRUE(m_reader->seek(150));
    EXPECT_EQ(m_reader->availableToRead(), 0U);
}

TEST_F(WrappedRing, ASeekToTheFirstByteThatIsNotThereYetFails)
{
    const LogCapture log;
    EXPECT_FALSE(m_reader->isOffsetInBuffer(150));
    EXPECT_TRUE(log.contains("CircularHistoryBufferReader::isOffsetInBuffer 150 false, current "
                             "m_absoluteReadPosition 140"));
    EXPECT_FALSE(m_reader->seek(150));
    EXPECT_TRUE(log.contains("CircularHistoryBufferReader::seek offset 150 not in buffer"));
    EXPECT_EQ(m_reader->getGlobalOffset(), 140U);
    EXPECT_TRUE(m_reader->seek(149));
    EXPECT_EQ(readBytes(*m_reader, 10), streamBytes(149, 1));
}

TEST_F(WrappedRing, ASeekBackReachesAsFarAsTheWriterPromised)
{
    EXPECT_EQ(m_ring->getHistoryStartOffset(), 50);
    EXPECT_EQ(m_ring->getGuaranteedHistoryStartOffset(), 120U);
    EXPECT_FALSE(m_reader->seek(119));
    EXPECT_EQ(m_reader->getGlobalOffset(), 140U);
    EXPECT_TRUE(m_reader->seek(120));
    EXPECT_EQ(m_reader->getCurrentOffset(), 20U);
    EXPECT_EQ(readBytes(*m_reader, 100), streamBytes(120, 30));
}

TEST_F(WrappedRing, TheByteOneWholeLapBehindCannotBeReadAgain)
{
    // Step by step back over what lies in the ring: each seek moves the guaranteed start, too.
    for (const unsigned offset : {120U, 100U, 80U, 60U, 51U}) {
        ASSERT_TRUE(m_reader->seek(offset)) << offset;
    }
    EXPECT_EQ(m_ring->getGuaranteedHistoryStartOffset(), 50U);
    EXPECT_FALSE(m_reader->seek(50)) << "its index is the write position's, so it reads as empty";
    EXPECT_EQ(m_reader->getGlobalOffset(), 51U);
    EXPECT_EQ(m_ring->availableToWrite(), 0U);
    EXPECT_EQ(readBytes(*m_reader, 200), streamBytes(51, 99));
}

TEST_F(WrappedRing, AfterAFlushAllReadersStandAtZeroUntilTheOffsetIsReset)
{
    CircularHistoryBufferReader* other = m_ring->getReader();
    m_ring->flush();
    EXPECT_EQ(m_reader->getGlobalOffset(), 0U);
    EXPECT_EQ(other->getGlobalOffset(), 0U);
    EXPECT_EQ(m_ring->getAbsoluteOffset(), 0U);
    m_ring->resetGlobalOffset(5000);
    EXPECT_EQ(m_reader->getGlobalOffset(), 5000U);
    EXPECT_EQ(other->getGlobalOffset(), 5000U);
    EXPECT_EQ(m_reader->availableToRead(), 0U);
    ASSERT_EQ(writeStream(*m_ring, 5000, 30), 30);
    EXPECT_EQ(readBytes(*m_reader, 100), streamBytes(5000, 30));
    EXPECT_EQ(readBytes(*other, 100), streamBytes(5000, 30));
}

TEST_F(WrappedRing, AReaderMadeAfterAWrapStartsWithTheCurrentLap)
{
    CircularHistoryBufferReader* late = m_ring->getReader();
    ASSERT_NE(late, nullptr);
    EXPECT_EQ(late->getCurrentOffset(), 0U);
    EXPECT_EQ(late->getGlobalOffset(), 100U);
    EXPECT_EQ(readBytes(*late, 100), streamBytes(100, 50));
}

TEST(CircularHistoryBufferTest, ABufferIsInactiveOnceEveryReaderWasReleased)
{
    const Ring ring = makeRing(100, 20);
    CircularHistoryBufferReader* first = ring->getReader();
    CircularHistoryBufferReader* second = ring->getReader();
    EXPECT_TRUE(ring->isActive());
    first->release();
    EXPECT_TRUE(first->isReleased());
    EXPECT_TRUE(ring->isActive());
    second->release();
    EXPECT_FALSE(ring->isActive());
    EXPECT_FALSE(ring->isReleased());
    EXPECT_TRUE(second->reset());
    EXPECT_TRUE(ring->isActive());
}
