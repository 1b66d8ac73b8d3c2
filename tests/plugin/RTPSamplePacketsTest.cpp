#include "plugin/RTPSamplePackets.h"

#include "tests/plugin/LiveArrays.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <numeric>
#include <vector>

using namespace zel::streamer;
using zel::test::liveArrays;

namespace {

using Bytes = std::vector<unsigned char>;

struct Release
{
    void operator()(SamplePacket* packet) const { packet->release(); }
};

Bytes frameOf(int length)
{
    Bytes frame(static_cast<std::size_t>(length));
    std::iota(frame.begin(), frame.end(), static_cast<unsigned char>(0x81));
    return frame;
}

template <class Packet>
std::unique_ptr<Packet, Release> packed(const Bytes& frame)
{
    std::unique_ptr<Packet, Release> packet(new Packet);
    packet->setAndCopy(PacketType::Audio, frame.data(), static_cast<int>(frame.size()), 1000, 20000,
                       true);
    return packet;
}

Bytes payloadOf(const SamplePacket& packet)
{
    return {packet.getBuffer(), packet.getBuffer() + packet.getLength()};
}

/// The fields that every variant stores, whatever it makes of the bytes.
void expectScalars(const SamplePacket& packet)
{
    EXPECT_EQ(packet.getType(), PacketType::Audio);
    EXPECT_EQ(packet.getTimestamp(), 1000U);
    EXPECT_EQ(packet.getDuration(), 20000U);
    EXPECT_TRUE(packet.isKeyFrame());
}

template <class Packet>
class RTPSamplePackets : public testing::Test
{
};

using Variants = testing::Types<AMRSamplePacket, MP4AGENSamplePacket, MP4ALATMSamplePacket>;

} // namespace

TYPED_TEST_SUITE(RTPSamplePackets, Variants);

TYPED_TEST(RTPSamplePackets, AddNoField)
{
    EXPECT_EQ(sizeof(TypeParam), sizeof(SimpleSamplePacket));
}

TYPED_TEST(RTPSamplePackets, SetAndCopyIsReachedThroughTheBase)
{
    const Bytes frame = frameOf(10);
    SimpleSamplePacket* packet = new TypeParam;
    packet->setAndCopy(PacketType::Audio, frame.data(), 10, 1000, 20000, true);
    EXPECT_GT(packet->getLength(), 10);
    expectScalars(*packet);
    packet->release();
}

TYPED_TEST(RTPSamplePackets, NullDataGivesNoBuffer)
{
    auto packet = packed<TypeParam>(frameOf(10));
    packet->setAndCopy(PacketType::Audio, nullptr, 0, 1000, 20000, true);
    EXPECT_EQ(packet->getBuffer(), nullptr);
    EXPECT_EQ(packet->getLength(), 0);
    expectScalars(*packet);
}

TYPED_TEST(RTPSamplePackets, NegativeLengthGivesAnEmptyPacket)
{
    const Bytes frame = frameOf(10);
    auto packet = packed<TypeParam>(frame);
    for (const int length : {-1, std::numeric_limits<int>::min()}) {
        packet->setAndCopy(PacketType::Audio, frame.data(), length, 1000, 20000, true);
        EXPECT_EQ(packet->getBuffer(), nullptr);
        EXPECT_EQ(packet->getLength(), 0);
        expectScalars(*packet);
    }
}

TYPED_TEST(RTPSamplePackets, RefillFreesTheOldBuffer)
{
    const Bytes frame = frameOf(100);
    auto packet = packed<TypeParam>(frame);
    const long long once = liveArrays();
    packet->setAndCopy(PacketType::Audio, frame.data(), 100, 0, 0, false);
    EXPECT_EQ(liveArrays(), once);
}

TYPED_TEST(RTPSamplePackets, FrameMayBeThePacketsOwnBytes)
{
    auto packet = packed<TypeParam>(frameOf(50));
    const Bytes first = payloadOf(*packet);
    const auto expected = packed<TypeParam>(first);
    packet->setAndCopy(PacketType::Audio, packet->getBuffer(), packet->getLength(), 1000, 20000,
                       true);
    // The tail byte of an AMR payload has no meaning.
    const int compared = packet->getLength() - 1;
    ASSERT_EQ(packet->getLength(), expected->getLength());
    EXPECT_TRUE(
        std::equal(packet->getBuffer(), packet->getBuffer() + compared, expected->getBuffer()));
}

TEST(AMRSamplePacket, FrameFollowsModeRequestAndItsTableOfContents)
{
    const auto packet = packed<AMRSamplePacket>({0xBC, 0x11, 0x22, 0x33});
    ASSERT_EQ(packet->getLength(), 6);
    Bytes payload = payloadOf(*packet);
    payload.pop_back();
    EXPECT_EQ(payload, (Bytes{0xF0, 0x3C, 0x11, 0x22, 0x33}));
    expectScalars(*packet);
}

TEST(AMRSamplePacket, FrameOfOneByteIsItsTableOfContents)
{
    const auto packet = packed<AMRSamplePacket>({0x7C});
    ASSERT_EQ(packet->getLength(), 3);
    EXPECT_EQ(packet->getBuffer()[0], 0xF0);
    EXPECT_EQ(packet->getBuffer()[1], 0x7C);
}

TEST(AMRSamplePacket, FrameWithoutAByteGivesAnEmptyPacket)
{
    const unsigned char nothing = 0;
    auto packet = packed<AMRSamplePacket>(frameOf(3));
    packet->setAndCopy(PacketType::Audio, &nothing, 0, 1000, 20000, true);
    EXPECT_EQ(packet->getBuffer(), nullptr);
    EXPECT_EQ(packet->getLength(), 0);
}

TEST(MP4AGENSamplePacket, FrameFollowsItsHeader)
{
    const auto packet = packed<MP4AGENSamplePacket>({0xDE, 0xAD, 0xBE});
    EXPECT_EQ(payloadOf(*packet), (Bytes{0x00, 0x10, 0x00, 0x18, 0xDE, 0xAD, 0xBE}));
    expectScalars(*packet);
}

TEST(MP4AGENSamplePacket, SizeOfALongerFrameFillsBothBytes)
{
    const Bytes frame = frameOf(371);
    const auto packet = packed<MP4AGENSamplePacket>(frame);
    ASSERT_EQ(packet->getLength(), 375);
    EXPECT_EQ(packet->getBuffer()[2], 0x0B);
    EXPECT_EQ(packet->getBuffer()[3], 0x98);
    EXPECT_TRUE(std::equal(frame.begin(), frame.end(), packet->getBuffer() + 4));
}

TEST(MP4AGENSamplePacket, FrameOf8191BytesPassesAndOneOf8192GivesAnEmptyPacket)
{
    const Bytes frame = frameOf(8191);
    const auto largest = packed<MP4AGENSamplePacket>(frame);
    ASSERT_EQ(largest->getLength(), 8195);
    EXPECT_EQ(largest->getBuffer()[2], 0xFF);
    EXPECT_EQ(largest->getBuffer()[3], 0xF8);
    EXPECT_TRUE(std::equal(frame.begin(), frame.end(), largest->getBuffer() + 4));

    const auto tooLarge = packed<MP4AGENSamplePacket>(frameOf(8192));
    EXPECT_EQ(tooLarge->getBuffer(), nullptr);
    EXPECT_EQ(tooLarge->getLength(), 0);
    expectScalars(*tooLarge);
}

TEST(MP4AGENSamplePacket, FrameWithoutAByteGivesAnEmptyPacket)
{
    const unsigned char nothing = 0;
    auto packet = packed<MP4AGENSamplePacket>(frameOf(3));
    packet->setAndCopy(PacketType::Audio, &nothing, 0, 1000, 20000, true);
    EXPECT_EQ(packet->getBuffer(), nullptr);
    EXPECT_EQ(packet->getLength(), 0);
    expectScalars(*packet);
}

TEST(MP4ALATMSamplePacket, FrameOf254BytesStartsWithOneLengthByte)
{
    const Bytes frame = frameOf(254);
    const auto packet = packed<MP4ALATMSamplePacket>(frame);
    ASSERT_EQ(packet->getLength(), 255);
    EXPECT_EQ(packet->getBuffer()[0], 0xFE);
    EXPECT_TRUE(std::equal(frame.begin(), frame.end(), packet->getBuffer() + 1));
    expectScalars(*packet);
}

TEST(MP4ALATMSamplePacket, FrameOf255BytesStartsWithFFAndZero)
{
    const Bytes frame = frameOf(255);
    const auto packet = packed<MP4ALATMSamplePacket>(frame);
    ASSERT_EQ(packet->getLength(), 257);
    EXPECT_EQ(packet->getBuffer()[0], 0xFF);
    EXPECT_EQ(packet->getBuffer()[1], 0x00);
    EXPECT_TRUE(std::equal(frame.begin(), frame.end(), packet->getBuffer() + 2));
}

TEST(MP4ALATMSamplePacket, FrameOf600BytesHasTwoFullLengthBytesAndTheRest)
{
    const Bytes frame = frameOf(600);
    const auto packet = packed<MP4ALATMSamplePacket>(frame);
    ASSERT_EQ(packet->getLength(), 603);
    EXPECT_EQ(packet->getBuffer()[0], 0xFF);
    EXPECT_EQ(packet->getBuffer()[1], 0xFF);
    EXPECT_EQ(packet->getBuffer()[2], 90);
    EXPECT_TRUE(std::equal(frame.begin(), frame.end(), packet->getBuffer() + 3));
}

TEST(MP4ALATMSamplePacket, FrameWithoutAByteIsOneLengthByte)
{
    const unsigned char nothing = 9;
    auto packet = packed<MP4ALATMSamplePacket>(frameOf(3));
    packet->setAndCopy(PacketType::Audio, &nothing, 0, 1000, 20000, true);
    EXPECT_EQ(payloadOf(*packet), Bytes{0x00});
}

TEST(MP4ALATMSamplePacket, FrameBeyondTheUsualBufferGetsTheRoomItNeeds)
{
    // 10199 bytes and 40 of length are the last to fit into 10240; the next ones need more.
    for (const int length : {10199, 10200, 10240, 100000}) {
        const Bytes frame = frameOf(length);
        const auto packet = packed<MP4ALATMSamplePacket>(frame);
        const int header = length / 255 + 1;
        ASSERT_EQ(packet->getLength(), header + length);
        EXPECT_EQ(packet->getBuffer()[header - 2], 0xFF);
        EXPECT_EQ(packet->getBuffer()[header - 1], length % 255);
        EXPECT_TRUE(std::equal(frame.begin(), frame.end(), packet->getBuffer() + header));
    }
}
