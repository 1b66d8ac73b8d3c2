#include "encoder/MuxerPacket.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <limits>
#include <memory>

namespace PacketType = zel::streamer::PacketType;

namespace {

struct Release
{
    void operator()(MuxerPacket* packet) const { packet->release(); }
};

using MuxerPacketPtr = std::unique_ptr<MuxerPacket, Release>;

} // namespace

TEST(MuxerPacket, KeepsThePresentationTimeInPlaceOfTheDuration)
{
    const std::array<unsigned char, 3> data = {1, 2, 3};
    const MuxerPacketPtr packet(new MuxerPacket);
    EXPECT_EQ(packet->getPts(), 0);
    packet->setAndCopy(PacketType::Video, data.data(), 3, 40000, 3600, true);
    EXPECT_EQ(packet->getPts(), 3600);
    EXPECT_EQ(packet->getDuration(), 0U);
    EXPECT_EQ(packet->getTimestamp(), 40000U);
    EXPECT_EQ(packet->getType(), PacketType::Video);
    EXPECT_TRUE(packet->isKeyFrame());
    ASSERT_EQ(packet->getLength(), 3);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), packet->getBuffer()));
    EXPECT_NE(packet->getBuffer(), data.data());
}

TEST(MuxerPacket, PresentationTimeMayBeNegative)
{
    const MuxerPacketPtr packet(new MuxerPacket);
    for (const long long pts : {-1LL, -3003LL, std::numeric_limits<long long>::min()}) {
        packet->setAndCopy(PacketType::Audio, nullptr, 0, 0, static_cast<unsigned long long>(pts),
                           false);
        EXPECT_EQ(packet->getPts(), pts);
    }
}

TEST(MuxerPacket, PresentationTimeIsKeptWhenFilledThroughTheBase)
{
    const MuxerPacketPtr packet(new MuxerPacket);
    zel::streamer::SimpleSamplePacket* base = packet.get();
    base->setAndCopy(PacketType::Audio, nullptr, 0, 7, 1024, false);
    EXPECT_EQ(packet->getPts(), 1024);
    EXPECT_EQ(base->getDuration(), 0U);
    base->setAndCopy(PacketType::Audio, nullptr, 0, 8, 2048, false);
    EXPECT_EQ(packet->getPts(), 2048);
}
