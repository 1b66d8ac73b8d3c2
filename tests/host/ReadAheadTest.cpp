#include "host/ReadAhead.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

using zel::host::Frame;
using zel::host::ReadAhead;
namespace PacketType = zel::streamer::PacketType;

namespace {

/// An input of numbered frames. A frame's number travels as its time stamp.
class NumberedInput
{
public:
    explicit NumberedInput(unsigned int count) : m_count(count) {}

    ReadAhead::Read reader()
    {
        return [this](Frame& frame) {
            if (m_next >= m_count) {
                return false;
            }
            frame.timestampUs = m_next++;
            frame.type = frame.timestampUs == m_notice ? PacketType::Notice : PacketType::Video;
            frame.size = m_frameBytes;
            ++m_alive;
            return true;
        };
    }
    ReadAhead::Release releaser()
    {
        return [this](Frame&) { --m_alive; };
    }

    std::atomic<unsigned long long> m_next{0};
    std::atomic<int> m_alive{0};
    unsigned long long m_notice = ~0ULL;
    unsigned int m_frameBytes = 100;

private:
    const unsigned int m_count;
};

} // namespace

TEST(ReadAhead, FramesComeInOrderUpToTheEnd)
{
    NumberedInput input(500);
    ReadAhead frames(input.reader(), input.releaser());
    Frame frame;
    for (unsigned int i = 0; i < 500; ++i) {
        ASSERT_TRUE(frames.next(frame));
        EXPECT_EQ(frame.timestampUs, i);
    }
    EXPECT_FALSE(frames.next(frame));
    EXPECT_FALSE(frames.next(frame));
}

TEST(ReadAhead, ReadsNoFurtherThanItsLimits)
{
    NumberedInput input(5000);
    input.m_frameBytes = 4 << 20;
    ReadAhead frames(input.reader(), input.releaser());
    Frame frame;
    ASSERT_TRUE(frames.next(frame));
    frames.halt();
    EXPECT_LE(input.m_next, 1 + 4U + 1);
}

TEST(ReadAhead, NothingIsReadBehindANoticeThatNobodyHasTaken)
{
    NumberedInput input(50);
    input.m_notice = 3;
    ReadAhead frames(input.reader(), input.releaser());
    Frame frame;
    for (unsigned int i = 0; i < 3; ++i) {
        ASSERT_TRUE(frames.next(frame));
        EXPECT_LE(input.m_next, 4U);
    }
    ASSERT_TRUE(frames.next(frame));
    EXPECT_EQ(frame.type, PacketType::Notice);
    ASSERT_TRUE(frames.next(frame));
    EXPECT_EQ(frame.timestampUs, 4U);
}

TEST(ReadAhead, HaltedFramesGoOnWhereTheyWere)
{
    NumberedInput input(200);
    ReadAhead frames(input.reader(), input.releaser());
    Frame frame;
    for (unsigned int i = 0; i < 200; ++i) {
        ASSERT_TRUE(frames.next(frame));
        EXPECT_EQ(frame.timestampUs, i);
        if (i % 7 == 0) {
            frames.halt();
        }
    }
    EXPECT_FALSE(frames.next(frame));
}

TEST(ReadAhead, DroppedFramesAreGivenBackAndReadingBeginsAnew)
{
    NumberedInput input(100);
    ReadAhead frames(input.reader(), input.releaser());
    Frame frame;
    while (frames.next(frame)) {
        --input.m_alive;
    }
    frames.halt();
    frames.drop();
    input.m_next = 40;
    ASSERT_TRUE(frames.next(frame));
    --input.m_alive;
    EXPECT_EQ(frame.timestampUs, 40U);
    frames.halt();
    frames.drop();
    EXPECT_EQ(input.m_alive, 0);
}

TEST(ReadAhead, AFailedReadIsThrownBehindTheFramesBeforeIt)
{
    int reads = 0;
    ReadAhead frames(
        [&reads](Frame&) {
            if (++reads > 2) {
                throw std::runtime_error("broken");
            }
            return true;
        },
        [](Frame&) {});
    Frame frame;
    EXPECT_TRUE(frames.next(frame));
    EXPECT_TRUE(frames.next(frame));
    EXPECT_THROW(frames.next(frame), std::runtime_error);
}
