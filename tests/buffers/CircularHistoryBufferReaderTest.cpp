#include "buffers/CircularHistoryBufferReader.h"
#include "buffers/CircularMemoryHistoryBuffer.h"
#include "tests/buffers/StreamBytes.h"
#include "tests/support/WatchedThread.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

using namespace zel::test;

namespace {

/// A ring of 100 bytes with a history of 20, and one reader.
class CircularHistoryBufferReaderTest : public testing::Test
{
protected:
    std::unique_ptr<CircularMemoryHistoryBuffer> m_ring{
        CircularMemoryHistoryBuffer::create(100, 20)};
    CircularHistoryBufferReader* m_reader = m_ring->getReader();
    unsigned long long m_size = 0;
    Bytes m_bytes = Bytes(200);
};

/// Handles that fail when they are told to.
class BrittleHandle : public BufferHandle
{
public:
    explicit BrittleHandle(const int& successes) : m_successes(successes) {}

    void close() override {}
    long long seek(unsigned long long offset) override
    {
        m_offset = offset;
        return static_cast<long long>(offset);
    }
    long long write(const char*, unsigned long long n) override { return move(n); }
    long long read(char*, unsigned long long n) override { return move(n); }
    unsigned long long getOffset() override { return m_offset; }

private:
    long long move(unsigned long long n)
    {
        if (m_moves++ >= m_successes) {
            return -1;
        }
        m_offset += n;
        return static_cast<long long>(n);
    }

    const int& m_successes; ///< moves that succeed
    int m_moves = 0;
    unsigned long long m_offset = 0;
};

/// A ring of 100 bytes on such handles. They hold no bytes.
class BrittleRing : public CircularHistoryBuffer
{
public:
    BrittleRing() : CircularHistoryBuffer(100, 0) { m_handle = new BrittleHandle(writes); }

    BufferHandle* getBufferReaderHandle() override { return new BrittleHandle(reads); }
    unsigned long long writerIndex() ZEL_NO_THREAD_SAFETY_ANALYSIS { return m_handle->getOffset(); }
    bool progressed() const { return m_readProgressFlag; }
    void forgetProgress() { m_readProgress.reset(m_readProgressFlag); }

    int writes = 1000;
    int reads = 1000;
};

} // namespace

TEST_F(CircularHistoryBufferReaderTest, TheMinimumSaysWhenACallReturnsAndTheMaximumWhatItTakes)
{
    ASSERT_EQ(writeStream(*m_ring, 0, 60), 60);
    m_size = 7;
    EXPECT_EQ(m_reader->read(m_bytes.data(), m_size, 50, 30, true, 0), 30);
    EXPECT_EQ(m_size, 30U);
    EXPECT_EQ(m_reader->read(m_bytes.data(), m_size, 10, 80, true, 0), 30);
    EXPECT_EQ(m_size, 30U);
}

TEST_F(CircularHistoryBufferReaderTest, WithoutLimitsTheSizeIsBoth)
{
    ASSERT_EQ(writeStream(*m_ring, 0, 60), 60);
    m_size = 25;
    EXPECT_EQ(m_reader->read(m_bytes.data(), m_size, 0, 0, true, 0), 25);
    m_size = 0;
    EXPECT_EQ(m_reader->read(m_bytes.data(), m_size, 0, 0, true, 0), 0);
}

TEST_F(CircularHistoryBufferReaderTest, ReadingIntoNothingFails)
{
    ASSERT_EQ(writeStream(*m_ring, 0, 60), 60);
    m_size = 10;
    EXPECT_EQ(m_reader->read(nullptr, m_size, 0, 0, true, 0), -1);
    EXPECT_EQ(m_reader->availableToRead(), 60U);
}

TEST_F(CircularHistoryBufferReaderTest, ATimeOutIsNoFailureAndComesNotBeforeItsTime)
{
    m_size = 10;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(m_reader->read(m_bytes.data(), m_size, 0, 0, true, 30), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(29));
    EXPECT_EQ(m_size, 10U);
}

TEST_F(CircularHistoryBufferReaderTest, AReleaseWakesTheReaderItIsMeantForAndNoOther)
{
    CircularHistoryBufferReader* other = m_ring->getReader();
    long long result = -2;
    long long otherResult = -2;
    unsigned long long otherSize = 10;
    Bytes otherBytes(10);
    m_size = 10;
    WatchedThread thread([&] { result = m_reader->read(m_bytes.data(), m_size, 0, 0, true, 0); });
    WatchedThread otherThread(
        [&] { otherResult = other->read(otherBytes.data(), otherSize, 0, 0, true, 0); });
    ASSERT_TRUE(thread.awaitSleep());
    ASSERT_TRUE(otherThread.awaitSleep());
    m_reader->release();
    thread.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(m_reader->read(m_bytes.data(), m_size, 0, 0, true, 0), -1);
    EXPECT_FALSE(m_reader->seek(0));
    EXPECT_EQ(m_reader->getGlobalOffset(), 0U);
    ASSERT_TRUE(otherThread.awaitSleep());
    ASSERT_EQ(writeStream(*m_ring, 0, 10), 10);
    otherThread.join();
    EXPECT_EQ(otherResult, 10);
}

TEST_F(CircularHistoryBufferReaderTest, AResetGoesBackToTheStartWhileThatIsHeld)
{
    m_ring->resetGlobalOffset(700);
    ASSERT_EQ(writeStream(*m_ring, 700, 60), 60);
    ASSERT_EQ(readBytes(*m_reader, 15), streamBytes(700, 15));
    m_reader->release();
    EXPECT_TRUE(m_reader->reset());
    EXPECT_FALSE(m_reader->isReleased());
    EXPECT_EQ(m_reader->getGlobalOffset(), 700U);
    EXPECT_EQ(readBytes(*m_reader, 60), streamBytes(700, 60));
    ASSERT_EQ(writeStream(*m_ring, 760, 70), 70);
    ASSERT_EQ(readBytes(*m_reader, 70), streamBytes(760, 70));
    EXPECT_FALSE(m_reader->reset());
    EXPECT_EQ(m_reader->getGlobalOffset(), 830U);
}

TEST_F(CircularHistoryBufferReaderTest, AReaderThatWasRunOverWhileReleasedFindsNothingOfItsPast)
{
    CircularHistoryBufferReader* other = m_ring->getReader();
    ASSERT_EQ(writeStream(*m_ring, 0, 90), 90);
    ASSERT_EQ(readBytes(*other, 90).size(), 90U);
    m_reader->release();
    ASSERT_EQ(writeStream(*m_ring, 90, 79), 79);
    ASSERT_EQ(readBytes(*other, 79), streamBytes(90, 79));
    EXPECT_FALSE(m_reader->reset());
    EXPECT_FALSE(m_reader->seek(30));
}

TEST_F(CircularHistoryBufferReaderTest, AWriterStaysBehindAReaderOfTheLapBefore)
{
    CircularHistoryBufferReader* fast = m_ring->getReader();
    ASSERT_EQ(writeStream(*m_ring, 0, 90), 90);
    ASSERT_EQ(readBytes(*m_reader, 80), streamBytes(0, 80));
    ASSERT_EQ(readBytes(*fast, 90).size(), 90U);
    ASSERT_EQ(writeStream(*m_ring, 90, 20), 20);
    ASSERT_EQ(readBytes(*fast, 20).size(), 20U);
    // The fast reader has the smaller index, 10 against 80.
    EXPECT_EQ(m_ring->getMinimumReadPosition(), 10U);
    EXPECT_EQ(m_ring->availableToRead(), 30U);
    EXPECT_EQ(m_ring->availableToWrite(), 100U - 30 - 20 - 1);
    EXPECT_EQ(writeStream(*m_ring, 110, 100), 49);
    EXPECT_EQ(readBytes(*m_reader, 100), streamBytes(80, 79));
}

TEST_F(CircularHistoryBufferReaderTest, ALateReaderSeeksBehindWhereItStarted)
{
    ASSERT_EQ(writeStream(*m_ring, 0, 90), 90);
    ASSERT_EQ(readBytes(*m_reader, 90).size(), 90U);
    ASSERT_EQ(writeStream(*m_ring, 90, 20), 20);
    CircularHistoryBufferReader* late = m_ring->getReader();
    ASSERT_EQ(late->getGlobalOffset(), 100U);
    EXPECT_TRUE(late->seek(75));
    EXPECT_EQ(late->getCurrentOffset(), 75U);
    EXPECT_EQ(readBytes(*late, 100), streamBytes(75, 35));
}

TEST_F(CircularHistoryBufferReaderTest, SeeksGoRightAfterAFlushWithoutAnOffset)
{
    m_ring->resetGlobalOffset(12345);
    m_ring->flush();
    ASSERT_EQ(writeStream(*m_ring, 0, 60), 60);
    EXPECT_TRUE(m_reader->seek(33));
    EXPECT_EQ(readBytes(*m_reader, 100), streamBytes(33, 27));
}

TEST_F(CircularHistoryBufferReaderTest, PositionsGoBeyondFourGiB)
{
    const unsigned long long start = (1ULL << 32U) - 50;
    m_ring->resetGlobalOffset(start);
    for (unsigned long long offset = start; offset < start + 1000; offset += 50) {
        ASSERT_EQ(writeStream(*m_ring, offset, 50), 50);
        ASSERT_EQ(readBytes(*m_reader, 50), streamBytes(offset, 50));
    }
    EXPECT_EQ(m_reader->getGlobalOffset(), start + 1000);
    EXPECT_TRUE(m_reader->seek(start + 980));
    EXPECT_FALSE(m_reader->seek(start + 980 - (1ULL << 32U)));
    EXPECT_EQ(readBytes(*m_reader, 50), streamBytes(start + 980, 20));
}

TEST_F(CircularHistoryBufferReaderTest, ASeekAheadMakesRoomForAWriterThatSleeps)
{
    ASSERT_EQ(writeStream(*m_ring, 0, 99), 99);
    long long result = -2;
    WatchedThread writer([&] { result = writeStream(*m_ring, 99, 30, true); });
    ASSERT_TRUE(writer.awaitSleep());
    // Without that both would wait for ever, the reader for the 10 bytes and the writer for room.
    EXPECT_TRUE(m_reader->seek(95));
    m_size = 10;
    EXPECT_EQ(m_reader->read(m_bytes.data(), m_size, 0, 0, true, 0), 10);
    writer.join();
    EXPECT_EQ(result, 30);
    m_bytes.resize(10);
    EXPECT_EQ(m_bytes, streamBytes(95, 10));
}

TEST_F(CircularHistoryBufferReaderTest, AWriterThatWasHeldByAReleasedReaderGoesOn)
{
    CircularHistoryBufferReader* fast = m_ring->getReader();
    ASSERT_EQ(writeStream(*m_ring, 0, 99), 99);
    ASSERT_EQ(readBytes(*fast, 99).size(), 99U);
    long long result = -2;
    WatchedThread writer([&] { result = writeStream(*m_ring, 99, 30, true); });
    ASSERT_TRUE(writer.awaitSleep());
    m_reader->release();
    writer.join();
    EXPECT_EQ(result, 30);
}

TEST_F(CircularHistoryBufferReaderTest, ABlockedWriterHandsOutWhatFitsBeforeItSleeps)
{
    long long result = -2;
    WatchedThread writer([&] { result = writeStream(*m_ring, 0, 500, true); });
    unsigned long long read = 0;
    while (read < 500) {
        m_size = 1;
        const long long n = m_reader->read(m_bytes.data(), m_size, 1, 13, true, 0);
        ASSERT_GT(n, 0);
        ASSERT_EQ(Bytes(m_bytes.begin(), m_bytes.begin() + n), streamBytes(read, m_size));
        read += m_size;
    }
    writer.join();
    EXPECT_EQ(result, 500);
}

TEST_F(CircularHistoryBufferReaderTest, AFlushSendsAWriterAwayWithTheSizeOfItsFirstPart)
{
    ASSERT_EQ(writeStream(*m_ring, 0, 30), 30);
    long long result = -2;
    WatchedThread writer([&] { result = writeStream(*m_ring, 30, 500, true); });
    ASSERT_TRUE(writer.awaitSleep());
    m_ring->flush();
    writer.join();
    EXPECT_EQ(result, 100 - 30 - 20 - 1);
}

TEST_F(CircularHistoryBufferReaderTest, AReleaseSendsAWriterAwayWithTheSizeOfItsFirstPart)
{
    long long result = -2;
    WatchedThread writer([&] { result = writeStream(*m_ring, 0, 500, true); });
    ASSERT_TRUE(writer.awaitSleep());
    m_ring->release();
    writer.join();
    // 99 bytes into the fresh ring, of which 20 count as history from then on.
    EXPECT_EQ(result, 99);
    EXPECT_EQ(m_ring->getTotalBytesWritten(), 0U);
}

TEST_F(CircularHistoryBufferReaderTest, AReaderSleepsOnThroughAFlush)
{
    long long result = -2;
    m_size = 10;
    WatchedThread thread([&] { result = m_reader->read(m_bytes.data(), m_size, 0, 0, true, 0); });
    ASSERT_TRUE(thread.awaitSleep());
    ASSERT_EQ(writeStream(*m_ring, 0, 9), 9);
    ASSERT_TRUE(thread.awaitSleep());
    m_ring->flush();
    m_ring->resetGlobalOffset(300);
    ASSERT_EQ(writeStream(*m_ring, 300, 9), 9);
    ASSERT_TRUE(thread.awaitSleep());
    ASSERT_EQ(writeStream(*m_ring, 309, 1), 1);
    thread.join();
    EXPECT_EQ(result, 10);
    m_bytes.resize(10);
    EXPECT_EQ(m_bytes, streamBytes(300, 10));
}

TEST_F(CircularHistoryBufferReaderTest, ACloseBesideASleepingWriterStaysWhenAllTheRestFits)
{
    ASSERT_EQ(writeStream(*m_ring, 0, 99), 99);
    long long result = -2;
    WatchedThread writer([&] { result = writeStream(*m_ring, 99, 10, true); });
    ASSERT_TRUE(writer.awaitSleep());
    m_ring->close();
    ASSERT_EQ(readBytes(*m_reader, 50).size(), 50U);
    writer.join();
    EXPECT_EQ(result, 10);
    EXPECT_TRUE(m_reader->hasReachedEOF());
}

TEST_F(CircularHistoryBufferReaderTest, ACloseBesideASleepingWriterIsTakenBackByAnotherPart)
{
    ASSERT_EQ(writeStream(*m_ring, 0, 99), 99);
    WatchedThread writer([&] { writeStream(*m_ring, 99, 60, true); });
    ASSERT_TRUE(writer.awaitSleep());
    m_ring->close();
    ASSERT_TRUE(m_reader->hasReachedEOF());
    ASSERT_EQ(readBytes(*m_reader, 50).size(), 50U);
    ASSERT_TRUE(writer.awaitSleep());
    EXPECT_FALSE(m_reader->hasReachedEOF());
    m_ring->flush();
}

TEST_F(CircularHistoryBufferReaderTest, TheCallsOfADeadReaderFail)
{
    ASSERT_EQ(writeStream(*m_ring, 0, 50), 50);
    m_ring->release();
    EXPECT_TRUE(m_ring->isReleased());
    EXPECT_FALSE(m_ring->isActive());
    EXPECT_EQ(m_ring->getReader(), nullptr);
    EXPECT_EQ(writeStream(*m_ring, 50, 10, true), 0);
    m_size = 10;
    EXPECT_EQ(m_reader->read(m_bytes.data(), m_size, 0, 0, true, 0), -1);
    EXPECT_EQ(m_reader->availableToRead(), 0U);
    EXPECT_EQ(m_reader->getCurrentOffset(), 0U);
    EXPECT_EQ(m_reader->getGlobalOffset(), 0U);
    EXPECT_FALSE(m_reader->seek(0));
    EXPECT_TRUE(m_reader->isReleased());
    m_reader->release();
    EXPECT_FALSE(m_reader->reset());
    m_ring->release();
}

TEST_F(CircularHistoryBufferReaderTest, TheStatusTellsPositionHistoryAndEnd)
{
    m_ring->resetGlobalOffset(1000);
    ASSERT_EQ(writeStream(*m_ring, 1000, 60), 60);
    ASSERT_EQ(readBytes(*m_reader, 25).size(), 25U);
    unsigned long long position = 0;
    unsigned long long start = 0;
    unsigned long long end = 0;
    m_reader->getBufferStatus(position, start, end);
    EXPECT_EQ(position, 1025U);
    EXPECT_EQ(start, 1000U);
    EXPECT_EQ(end, 1060U);
}

TEST(CircularHistoryBufferStorage, AFailedWriteLeavesThePositions)
{
    BrittleRing ring;
    CircularHistoryBufferReader* reader = ring.getReader();
    ring.writes = 1;
    ASSERT_EQ(writeStream(ring, 0, 60), 60);
    EXPECT_EQ(writeStream(ring, 60, 10), -1);
    EXPECT_EQ(ring.getTotalBytesWritten(), 60U);
    EXPECT_EQ(reader->availableToRead(), 60U);
}

TEST(CircularHistoryBufferStorage, AFailureBehindTheEndOfTheRingLeavesTheHandleAtItsStart)
{
    BrittleRing ring;
    CircularHistoryBufferReader* reader = ring.getReader();
    ASSERT_EQ(writeStream(ring, 0, 60), 60);
    ASSERT_EQ(readBytes(*reader, 60).size(), 60U);
    ring.writes = 2;
    EXPECT_EQ(writeStream(ring, 60, 70), -1);
    EXPECT_EQ(ring.writerIndex(), 0U);
    EXPECT_EQ(ring.getTotalBytesWritten(), 60U);
}

TEST(CircularHistoryBufferStorage, AFailureInTheMiddleOfABlockedWriteIsAFailure)
{
    BrittleRing ring;
    CircularHistoryBufferReader* reader = ring.getReader();
    ring.writes = 1;
    long long result = -2;
    WatchedThread writer([&] { result = writeStream(ring, 0, 150, true); });
    ASSERT_TRUE(writer.awaitSleep());
    ASSERT_EQ(readBytes(*reader, 90).size(), 90U);
    writer.join();
    EXPECT_EQ(result, -1);
}

TEST(CircularHistoryBufferStorage, AFailedReadLeavesThePosition)
{
    BrittleRing ring;
    CircularHistoryBufferReader* reader = ring.getReader();
    ASSERT_EQ(writeStream(ring, 0, 60), 60);
    ring.reads = 0;
    Bytes bytes(10);
    unsigned long long size = 10;
    EXPECT_EQ(reader->read(bytes.data(), size, 0, 0, false, 0), -1);
    EXPECT_EQ(reader->getGlobalOffset(), 0U);
    EXPECT_EQ(reader->availableToRead(), 60U);
}

TEST(CircularHistoryBufferStorage, ReadsFlushesAndClosesAreProgress)
{
    BrittleRing ring;
    CircularHistoryBufferReader* reader = ring.getReader();
    ASSERT_EQ(writeStream(ring, 0, 60), 60);
    EXPECT_TRUE(reader->seek(10));
    EXPECT_FALSE(ring.progressed());
    readBytes(*reader, 10);
    EXPECT_TRUE(ring.progressed());
    ring.forgetProgress();
    ring.flush();
    EXPECT_TRUE(ring.progressed());
    ring.forgetProgress();
    ring.close();
    EXPECT_TRUE(ring.progressed());
}
