#include "plugin/SimpleSamplePacket.h"

#include "tests/plugin/LiveArrays.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <vector>

using zel::streamer::SamplePacket;
using zel::streamer::SimpleSamplePacket;
using zel::test::liveArrays;
namespace PacketType = zel::streamer::PacketType;

namespace {

struct Release
{
    void operator()(SamplePacket* packet) const { packet->release(); }
};

/// A packet with one reference that ends with the scope.
template <class Packet>
using Owned = std::unique_ptr<Packet, Release>;

/// Tells when it dies.
class MortalPacket : public SimpleSamplePacket
{
public:
    explicit MortalPacket(bool& dead) : m_dead(dead) { m_dead = false; }
    MortalPacket(const MortalPacket&) = delete;
    MortalPacket& operator=(const MortalPacket&) = delete;
    ~MortalPacket() override { m_dead = true; }

    int referenceCount() const { return m_referenceCount; }

private:
    bool& m_dead;
};

/// Notes what setAndCopy hands to the virtual set.
class WatchedPacket : public SimpleSamplePacket
{
public:
    void set(PacketType::Enum type, unsigned char* data, int length, unsigned long long timestamp,
             unsigned long long duration, bool keyFrame) override
    {
        ++sets;
        lastData = data;
        lastLength = length;
        SimpleSamplePacket::set(type, data, length, timestamp, duration, keyFrame);
    }

    int sets = 0;
    const unsigned char* lastData = nullptr;
    int lastLength = 0;
};

std::vector<unsigned char> countingBytes(std::size_t size)
{
    std::vector<unsigned char> bytes(size);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(1));
    return bytes;
}

} // namespace

TEST(SimpleSamplePacket, NewPacketIsEmptyWithTypeNoneAndOneReference)
{
    bool dead = false;
    auto* packet = new MortalPacket(dead);
    EXPECT_EQ(packet->getType(), 2);
    EXPECT_EQ(packet->getBuffer(), nullptr);
    EXPECT_EQ(packet->getLength(), 0);
    EXPECT_EQ(packet->getTimestamp(), 0U);
    EXPECT_EQ(packet->getDuration(), 0U);
    EXPECT_FALSE(packet->isKeyFrame());
    EXPECT_EQ(packet->referenceCount(), 1);
    packet->release();
    EXPECT_TRUE(dead);
}

TEST(SimpleSamplePacket, SetAndCopyKeepsEveryArgument)
{
    const auto bytes = countingBytes(100);
    const Owned<SimpleSamplePacket> packet(new SimpleSamplePacket);
    packet->setAndCopy(PacketType::Video, bytes.data(), 100, 123456789012ULL, 40000, true);
    EXPECT_EQ(packet->getType(), PacketType::Video);
    ASSERT_EQ(packet->getLength(), 100);
    ASSERT_NE(packet->getBuffer(), bytes.data());
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), packet->getBuffer()));
    EXPECT_EQ(packet->getTimestamp(), 123456789012ULL);
    EXPECT_EQ(packet->getDuration(), 40000U);
    EXPECT_TRUE(packet->isKeyFrame());
}

TEST(SimpleSamplePacket, SetAndCopyPadsTheCopyWithZeros)
{
    const auto bytes = countingBytes(33);
    const Owned<SimpleSamplePacket> packet(new SimpleSamplePacket);
    packet->setAndCopy(PacketType::Audio, bytes.data(), 33, 0, 0, false);
    EXPECT_EQ(packet->getLength(), 33);
    for (int i = 0; i < SimpleSamplePacket::Padding; ++i) {
        EXPECT_EQ(packet->getBuffer()[33 + i], 0) << "padding byte " << i;
    }
}

TEST(SimpleSamplePacket, PaddingServesFFmpegsBitReaders)
{
    EXPECT_GE(SimpleSamplePacket::Padding, 64);
}

TEST(SimpleSamplePacket, SetAndCopyGoesThroughTheVirtualSet)
{
    const auto bytes = countingBytes(8);
    const Owned<WatchedPacket> packet(new WatchedPacket);
    packet->setAndCopy(PacketType::Audio, bytes.data(), 8, 1, 2, false);
    EXPECT_EQ(packet->sets, 1);
    EXPECT_EQ(packet->lastData, packet->getBuffer());
    EXPECT_EQ(packet->lastLength, 8);
    packet->setAndCopy(PacketType::Audio, nullptr, 5, 1, 2, false);
    EXPECT_EQ(packet->sets, 2);
    EXPECT_EQ(packet->lastData, nullptr);
}

TEST(SimpleSamplePacket, SetAndCopyOfNullGivesNoBufferAndTheGivenLength)
{
    const Owned<SimpleSamplePacket> packet(new SimpleSamplePacket);
    packet->setAndCopy(PacketType::Metadata, nullptr, 77, 9, 10, true);
    EXPECT_EQ(packet->getBuffer(), nullptr);
    EXPECT_EQ(packet->getLength(), 77);
    EXPECT_EQ(packet->getType(), PacketType::Metadata);
    EXPECT_EQ(packet->getTimestamp(), 9U);
    EXPECT_EQ(packet->getDuration(), 10U);
    EXPECT_TRUE(packet->isKeyFrame());
}

TEST(SimpleSamplePacket, SetAndCopyOfNothingGivesAPaddedBuffer)
{
    const unsigned char byte = 7;
    const Owned<SimpleSamplePacket> packet(new SimpleSamplePacket);
    packet->setAndCopy(PacketType::Audio, &byte, 0, 0, 0, false);
    ASSERT_NE(packet->getBuffer(), nullptr);
    EXPECT_EQ(packet->getLength(), 0);
    EXPECT_EQ(packet->getBuffer()[0], 0);
}

TEST(SimpleSamplePacket, SetAndCopyOfNegativeLengthReadsNothing)
{
    const unsigned char byte = 7;
    const Owned<SimpleSamplePacket> packet(new SimpleSamplePacket);
    packet->setAndCopy(PacketType::Audio, &byte, -1, 0, 0, false);
    ASSERT_NE(packet->getBuffer(), nullptr);
    EXPECT_EQ(packet->getBuffer()[0], 0);
}

TEST(SimpleSamplePacket, SetAndCopyTakesThePacketsOwnBytes)
{
    const auto bytes = countingBytes(64);
    const Owned<SimpleSamplePacket> packet(new SimpleSamplePacket);
    packet->setAndCopy(PacketType::Audio, bytes.data(), 64, 0, 0, false);
    packet->setAndCopy(PacketType::Audio, packet->getBuffer(), 64, 1, 0, false);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), packet->getBuffer()));
}

TEST(SimpleSamplePacket, SetTakesTheArrayWithoutACopy)
{
    auto* data = new unsigned char[4]{1, 2, 3, 4};
    const Owned<SimpleSamplePacket> packet(new SimpleSamplePacket);
    packet->set(PacketType::Multiplexed, data, 4, 5, 6, true);
    EXPECT_EQ(packet->getBuffer(), data);
    EXPECT_EQ(packet->getLength(), 4);
    EXPECT_EQ(packet->getType(), PacketType::Multiplexed);
    EXPECT_EQ(packet->getTimestamp(), 5U);
    EXPECT_EQ(packet->getDuration(), 6U);
    EXPECT_TRUE(packet->isKeyFrame());
}

TEST(SimpleSamplePacket, SetOnAFullPacketFreesTheOldBuffer)
{
    const Owned<SimpleSamplePacket> packet(new SimpleSamplePacket);
    packet->set(PacketType::Audio, new unsigned char[1000], 1000, 0, 0, false);
    const long long withOneBuffer = liveArrays();
    packet->set(PacketType::Audio, new unsigned char[1000], 1000, 0, 0, false);
    EXPECT_EQ(liveArrays(), withOneBuffer);
    packet->set(PacketType::None, nullptr, 0, 0, 0, false);
    EXPECT_LT(liveArrays(), withOneBuffer);
}

TEST(SimpleSamplePacket, ReleaseOfTheLastReferenceFreesBufferAndPacket)
{
    const long long before = liveArrays();
    bool dead = false;
    auto* packet = new MortalPacket(dead);
    packet->set(PacketType::Audio, new unsigned char[1000], 1000, 0, 0, false);
    EXPECT_GT(liveArrays(), before);
    packet->release();
    EXPECT_TRUE(dead);
    EXPECT_EQ(liveArrays(), before);
}

TEST(SimpleSamplePacket, EachRetainNeedsARelease)
{
    bool dead = false;
    auto* packet = new MortalPacket(dead);
    packet->retain();
    packet->retain();
    EXPECT_EQ(packet->referenceCount(), 3);
    packet->release();
    packet->release();
    EXPECT_FALSE(dead);
    EXPECT_EQ(packet->referenceCount(), 1);
    packet->release();
    EXPECT_TRUE(dead);
}

TEST(SimpleSamplePacket, TimesCanBeChangedThroughTheInterface)
{
    const Owned<SamplePacket> packet(new SimpleSamplePacket);
    packet->setTimestamp(SamplePacket::NoTimestamp);
    unsigned long long duration = 20000;
    packet->setDuration(duration);
    EXPECT_EQ(packet->getTimestamp(), 0x8000000000000000ULL);
    EXPECT_EQ(packet->getDuration(), 20000U);
}
