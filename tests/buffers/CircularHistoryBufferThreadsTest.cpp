#include "buffers/CircularFileHistoryBuffer.h"
#include "buffers/CircularMemoryHistoryBuffer.h"
#include "tests/buffers/StreamBytes.h"
#include "tests/support/TempFolder.h"
#include "tests/support/WatchedThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace zel::test;

namespace {

constexpr unsigned long long ringSize = 4099;
constexpr unsigned long long historySize = 700;

using Ring = std::unique_ptr<CircularHistoryBuffer>;

class Dice
{
public:
    explicit Dice(unsigned seed) : m_random(seed) {}
    /// @return 0 to below - 1
    unsigned long long operator()(unsigned long long below)
    {
        return std::uniform_int_distribution<unsigned long long>(0, below - 1)(m_random);
    }

private:
    std::mt19937_64 m_random;
};

/// Asks all there is to ask, from a thread that does nothing else.
class Inquirer
{
public:
    Inquirer(CircularHistoryBuffer& ring, std::vector<CircularHistoryBufferReader*> readers)
        : m_ring(ring), m_readers(std::move(readers)), m_thread([this] {
              while (!m_stop) {
                  ask();
                  std::this_thread::yield();
              }
          })
    {
    }
    ~Inquirer()
    {
        m_stop = true;
        m_thread.join();
    }
    Inquirer(const Inquirer&) = delete;
    Inquirer& operator=(const Inquirer&) = delete;

private:
    void ask()
    {
        EXPECT_LT(m_ring.availableToRead(), ringSize);
        EXPECT_LT(m_ring.availableToWrite(), ringSize);
        EXPECT_LT(m_ring.getMinimumReadPosition(), ringSize);
        EXPECT_EQ(m_ring.getBufferSize(), ringSize);
        m_ring.isActive();
        m_ring.isReleased();
        m_ring.getTotalBytesWritten();
        m_ring.getAbsoluteOffset();
        m_ring.getHistoryStartOffset();
        m_ring.getGuaranteedHistoryStartOffset();
        m_ring.isOffsetInBuffer(m_ring.getAbsoluteMinimumReadPosition());
        for (CircularHistoryBufferReader* reader : m_readers) {
            EXPECT_LT(reader->availableToRead(), ringSize);
            EXPECT_LT(reader->getCurrentOffset(), ringSize);
            reader->hasReachedEOF();
            reader->isReleased();
            reader->isOffsetInBuffer(reader->getGlobalOffset());
            unsigned long long position = 0;
            unsigned long long start = 0;
            unsigned long long end = 0;
            reader->getBufferStatus(position, start, end);
            EXPECT_LT(end - position, ringSize);
        }
    }

    CircularHistoryBuffer& m_ring;
    std::vector<CircularHistoryBufferReader*> m_readers;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

/// Writes the stream from `start` to `end` in pieces of all sizes. Leaves early when the ring does
/// not take all of a piece.
void writeRange(CircularHistoryBuffer& ring, unsigned long long start, unsigned long long end,
                unsigned seed, std::atomic<bool>* closes = nullptr)
{
    Dice dice(seed);
    unsigned long long offset = start;
    while (offset < end) {
        const unsigned long long most = dice(8) == 0 ? 3 * ringSize : ringSize / 6;
        const unsigned long long size = std::min(end - offset, 1 + dice(most));
        if (writeStream(ring, offset, size, true) != static_cast<long long>(size)) {
            return;
        }
        offset += size;
        if (closes != nullptr && dice(16) == 0) {
            ring.close(); // the next write takes it back
        }
    }
}

/// Reads to the end of the stream, jumping about in what is held.
/// @return bytes read; 0 when one of them was wrong
unsigned long long readToEnd(CircularHistoryBufferReader& reader, unsigned long long end,
                             unsigned seed)
{
    Dice dice(seed);
    Bytes bytes(ringSize);
    unsigned long long read = 0;
    while (reader.getGlobalOffset() < end) {
        const unsigned long long position = reader.getGlobalOffset();
        if (dice(6) == 0) {
            const unsigned long long back = std::min(position, dice(historySize + 1));
            const unsigned long long target =
                dice(2) == 0 ? position - back : position + dice(reader.availableToRead() + 1);
            const bool done = reader.seek(target);
            if (reader.getGlobalOffset() != (done ? target : position)) {
                ADD_FAILURE() << "a seek to " << target << " went astray";
                return 0;
            }
            continue;
        }
        unsigned long long size = 1 + dice(ringSize / 4);
        const unsigned long long least =
            std::min<unsigned long long>(1 + dice(size), end - position);
        const int timeoutMs = dice(4) == 0 ? 1 : 0;
        const long long n = reader.read(bytes.data(), size, least, size, dice(4) != 0, timeoutMs);
        if (n < 0) {
            ADD_FAILURE() << "a read failed at " << position;
            return 0;
        }
        const auto length = static_cast<std::size_t>(n);
        if (Bytes(bytes.begin(), bytes.begin() + n) != streamBytes(position, length)) {
            ADD_FAILURE() << "wrong bytes behind " << position;
            return 0;
        }
        read += length;
    }
    return read;
}

class CircularHistoryBufferThreads : public testing::TestWithParam<unsigned>
{
protected:
    void run(CircularHistoryBuffer& ring, unsigned long long length, bool closes)
    {
        // The stream passes 4 GiB on its way.
        const unsigned long long start = (1ULL << 32U) - length / 2;
        ring.resetGlobalOffset(start);
        std::vector<CircularHistoryBufferReader*> readers;
        for (unsigned number = 0; number < GetParam(); ++number) {
            readers.push_back(ring.getReader());
        }
        ring.resetGlobalOffset(start);
        const Inquirer inquirer(ring, readers);
        std::vector<std::thread> threads;
        std::atomic<bool> flag{closes};
        threads.emplace_back(
            [&] { writeRange(ring, start, start + length, GetParam(), closes ? &flag : nullptr); });
        for (unsigned number = 0; number < readers.size(); ++number) {
            threads.emplace_back([&, number] {
                EXPECT_GE(readToEnd(*readers[number], start + length, 100 + number), 1U);
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(ring.getTotalBytesWritten(), length);
    }
};

} // namespace

TEST_P(CircularHistoryBufferThreads, EveryReaderGetsItsBytesAndFindsThemAgain)
{
    const Ring ring(CircularMemoryHistoryBuffer::create(ringSize, historySize));
    run(*ring, 300000, false);
}

TEST_P(CircularHistoryBufferThreads, EveryReaderGetsItsBytesWhileTheStreamEndsNowAndThen)
{
    const Ring ring(CircularMemoryHistoryBuffer::create(ringSize, historySize));
    run(*ring, 300000, true);
}

TEST_P(CircularHistoryBufferThreads, EveryReaderGetsItsBytesFromAFile)
{
    const TempFolder folder;
    const ScopedVariable variable("TMPDIR", folder.path());
    const Ring ring(CircularFileHistoryBuffer::create(ringSize, historySize));
    run(*ring, 60000, false);
}

/// As a client does for a seek by a new request: stop the writer, empty the ring, begin elsewhere.
/// The readers know nothing of it.
TEST_P(CircularHistoryBufferThreads, NoReadMixesTheBytesOfTwoRequests)
{
    const Ring ring(CircularMemoryHistoryBuffer::create(ringSize, historySize));
    std::vector<CircularHistoryBufferReader*> readers;
    for (unsigned number = 0; number < GetParam(); ++number) {
        readers.push_back(ring->getReader());
    }
    std::atomic<unsigned> request{0}; // odd while the ring is being emptied
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    std::vector<std::atomic<unsigned long long>> checked(readers.size());
    for (unsigned number = 0; number < readers.size(); ++number) {
        threads.emplace_back([&, number] {
            Dice dice(number);
            Bytes bytes(ringSize);
            while (!stop) {
                const unsigned before = request;
                unsigned long long size = 1 + dice(500);
                const long long n = readers[number]->read(bytes.data(), size, 1, size, true, 0);
                const unsigned long long end = readers[number]->getGlobalOffset();
                if (n <= 0 || before % 2 != 0 || before != request) {
                    continue;
                }
                ASSERT_EQ(Bytes(bytes.begin(), bytes.begin() + n), streamBytes(end - size, size));
                checked[number] += size;
            }
        });
    }
    Dice dice(77);
    for (int round = 0; round < 60; ++round) {
        const unsigned long long start = dice(3) * ((1ULL << 32U) - 3000) + dice(9999);
        ++request;
        ring->resetGlobalOffset(start);
        ++request;
        const auto before = checked[0].load();
        std::thread writer([&] { writeRange(*ring, start, start + (1ULL << 40U), 3); });
        while (checked[0] == before) {
            std::this_thread::yield();
        }
        // The flag of the flush sends the writer away from any wait for room. It looks at nothing
        // else, so a flush that meets it outside of one is repeated.
        std::atomic<bool> gone{false};
        std::thread joiner([&] {
            writer.join();
            gone = true;
        });
        ++request;
        while (!gone) {
            ring->reset();
            std::this_thread::yield();
        }
        joiner.join();
        ring->flush();
        ++request;
    }
    stop = true;
    ring->release();
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_P(CircularHistoryBufferThreads, ABufferCanBeDeletedWhileItsSleepersWakeUp)
{
    for (int round = 0; round < 100; ++round) {
        Ring ring(CircularMemoryHistoryBuffer::create(ringSize, historySize));
        std::vector<std::unique_ptr<WatchedThread>> threads;
        for (unsigned number = 0; number < GetParam(); ++number) {
            CircularHistoryBufferReader* reader = ring->getReader();
            threads.push_back(std::make_unique<WatchedThread>([reader] {
                Bytes bytes(10);
                unsigned long long size = 10;
                // More than ever fits.
                EXPECT_EQ(reader->read(bytes.data(), size, ringSize, 10, true, 0), 0);
            }));
        }
        threads.push_back(std::make_unique<WatchedThread>([buffer = ring.get()] {
            EXPECT_EQ(writeStream(*buffer, 0, 2 * ringSize, true),
                      static_cast<long long>(ringSize - 1));
        }));
        for (const auto& thread : threads) {
            EXPECT_TRUE(thread->awaitSleep());
        }
        ring.reset();
    }
}

TEST_P(CircularHistoryBufferThreads, AReleaseEndsAllCallsInWhateverTheyAre)
{
    for (unsigned round = 0; round < 100; ++round) {
        const Ring ring(CircularMemoryHistoryBuffer::create(ringSize, historySize));
        std::vector<CircularHistoryBufferReader*> readers;
        std::atomic<unsigned> busy{0};
        std::vector<std::thread> threads;
        for (unsigned number = 0; number < GetParam(); ++number) {
            readers.push_back(ring->getReader());
        }
        threads.emplace_back([&] { writeRange(*ring, 0, 1ULL << 40U, round); });
        for (unsigned number = 0; number < readers.size(); ++number) {
            threads.emplace_back([&, number] {
                CircularHistoryBufferReader& reader = *readers[number];
                Dice dice(number);
                Bytes bytes(ringSize);
                for (;;) {
                    unsigned long long size = 1 + dice(200);
                    const unsigned long long at = reader.getGlobalOffset();
                    if (reader.read(bytes.data(), size, 0, 0, true, 0) <= 0) {
                        break;
                    }
                    reader.seek(at + dice(200));
                    reader.availableToRead();
                    ++busy;
                }
            });
        }
        while (busy < round) {
            std::this_thread::yield();
        }
        ring->release();
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(ring->getReader(), nullptr);
    }
}

INSTANTIATE_TEST_SUITE_P(Readers, CircularHistoryBufferThreads, testing::Values(1U, 2U, 4U),
                         testing::PrintToStringParamName());
