#include "network/MMSHClient.h"

#include "tests/network/ChunkClient.h"
#include "tests/network/MadeUpAsf.h"
#include "tests/support/LogCapture.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace {

using namespace zel::test::madeup;
using zel::MMSHClient;
using zel::test::ChunkClient;
using zel::test::LogCapture;
namespace AsfObject = zel::AsfObject;

/// From an allocation of its exact size, so that a sanitizer sees what is read behind it.
bool walk(ChunkClient& client, const std::string& header)
{
    const auto bytes = std::make_unique<unsigned char[]>(header.size());
    std::copy(header.begin(), header.end(), bytes.get());
    MMSHClient::MMSFrame frame;
    frame.payload = bytes.get();
    frame.length = static_cast<unsigned>(header.size());
    return client.processHeader(&frame);
}

TEST(MMSHClientHeader, TakesWhatStandsInFrontOfTheDataObject)
{
    LogCapture log;
    ChunkClient client;
    client.setStreamDuration(17);
    EXPECT_FALSE(walk(client, asfHeader(fileProperties(3200, 0x1234567890) +
                                        streamHeader(AsfObject::AUDIO_MEDIA, 1) +
                                        streamHeader(AsfObject::VIDEO_MEDIA, 2))))
        << "the data object says a size that is not there";
    EXPECT_EQ(client.m_packetLength, 3200U);
    EXPECT_EQ(client.m_preroll, 0x1234567890U);
    EXPECT_EQ(client.m_streamCount, 2U);
    EXPECT_EQ(client.m_streamIds[0], 1U);
    EXPECT_EQ(client.m_streamIds[1], 2U);
    EXPECT_EQ(client.m_streamTypes[1], 1U);
    EXPECT_EQ(client.m_streamTypes[2], 2U);
    EXPECT_TRUE(client.m_hasAudio);
    EXPECT_TRUE(client.m_hasVideo);
    EXPECT_TRUE(log.contains("file object, packet length = 3200 (3200) / stream duration 17"));
    EXPECT_TRUE(log.contains("MMSHClient::processHeader error "));
}

TEST(MMSHClientHeader, WalkToTheEndSucceeds)
{
    ChunkClient client;
    const std::string header =
        guid(1) + std::string(14, 'h') + fileProperties(1000) + std::string(24, 'x');
    EXPECT_FALSE(walk(client, header)) << "name and size of an object count twice";
    EXPECT_EQ(client.m_packetLength, 0U);
    EXPECT_TRUE(walk(client, header + "x") == false && client.m_packetLength == 1000)
        << "one byte more lets the object in; the rest is an object without sense";
    const std::string padding = object(19, std::string(10, 'x'));
    EXPECT_TRUE(walk(client, guid(1) + std::string(14, 'h') + fileProperties(1000) + padding +
                                 std::string(25, '\0')))
        << "what is too short for a name and size is the end";
    EXPECT_EQ(client.m_packetLength, 1000U);
}

TEST(MMSHClientHeader, TypesOfStreams)
{
    ChunkClient client;
    walk(client, asfHeader(streamHeader(AsfObject::JFIF_MEDIA, 3) +
                           streamHeader(AsfObject::DEGRADABLE_JPEG_MEDIA, 4) +
                           streamHeader(AsfObject::COMMAND_MEDIA, 5) + streamHeader(25, 6)));
    EXPECT_EQ(client.m_streamCount, 4U);
    EXPECT_EQ(client.m_streamTypes[3], 2U);
    EXPECT_EQ(client.m_streamTypes[4], 2U);
    EXPECT_EQ(client.m_streamTypes[5], 3U);
    EXPECT_EQ(client.m_streamTypes[6], 0U);
    EXPECT_TRUE(client.m_hasVideo);
    EXPECT_FALSE(client.m_hasAudio);
}

TEST(MMSHClientHeader, FlagsBesideTheStreamNumberAreLeftOut)
{
    ChunkClient client;
    walk(client, asfHeader(streamHeader(AsfObject::AUDIO_MEDIA, 0x8000 | 0x80 | 9)));
    EXPECT_EQ(client.m_streamIds[0], 9U);
    EXPECT_EQ(client.m_streamTypes[9], 1U);
}

TEST(MMSHClientHeader, StreamListedTwiceTakesTheLaterType)
{
    ChunkClient client;
    walk(client, asfHeader(streamHeader(AsfObject::AUDIO_MEDIA, 2) +
                           streamHeader(AsfObject::VIDEO_MEDIA, 2)));
    EXPECT_EQ(client.m_streamCount, 1U);
    EXPECT_EQ(client.m_streamTypes[2], 2U);
}

TEST(MMSHClientHeader, StreamNumbersBeyondTheTablesAreListedOnly)
{
    ChunkClient client;
    walk(client,
         asfHeader(streamHeader(AsfObject::AUDIO_MEDIA, 23) +
                   streamHeader(AsfObject::VIDEO_MEDIA, 127) + bitrates({{127, 99}, {23, 98}})));
    EXPECT_EQ(client.m_streamCount, 2U);
    EXPECT_EQ(client.m_streamIds[0], 23U);
    EXPECT_EQ(client.m_streamIds[1], 127U);
    for (std::size_t i = 0; i < client.m_streamTypes.size(); ++i) {
        EXPECT_EQ(client.m_streamTypes[i], 0U);
        EXPECT_EQ(client.m_streamBitrates[i], 0U);
    }
}

TEST(MMSHClientHeader, MoreStreamsThanTheTablesHoldAreIgnored)
{
    ChunkClient client;
    std::string objects;
    for (unsigned i = 0; i < 40; ++i) {
        objects += streamHeader(AsfObject::AUDIO_MEDIA, i);
    }
    std::vector<std::pair<unsigned, unsigned>> rates;
    for (unsigned i = 100; i < 160; ++i) {
        rates.emplace_back(i, i);
    }
    walk(client, asfHeader(objects + bitrates(rates)));
    EXPECT_EQ(client.m_streamCount, 23U);
    EXPECT_EQ(client.m_streamIds[22], 22U);
    EXPECT_EQ(client.m_streamTypes[22], 1U);
}

TEST(MMSHClientHeader, BitratesComeWithTheirPlacesInTheHeader)
{
    ChunkClient client;
    const std::string header = asfHeader(streamHeader(AsfObject::AUDIO_MEDIA, 1) +
                                         bitrates({{1, 0xa1b2c3d4}, {2, 0x11223344}}));
    walk(client, header);
    EXPECT_EQ(client.m_streamBitrates[1], 0xa1b2c3d4U);
    EXPECT_EQ(header.substr(client.m_streamBitratePositions[1], 4), number(0xa1b2c3d4, 4));
    EXPECT_EQ(client.m_streamCount, 2U);
    EXPECT_EQ(client.m_streamIds[1], 2U) << "one that was not known joins the list";
    EXPECT_EQ(client.m_streamTypes[2], 2U);
    EXPECT_EQ(header.substr(client.m_streamBitratePositions[2], 4), number(0x11223344, 4));
}

TEST(MMSHClientHeader, CountOfBitratesBeyondTheChunkIsCutToWhatIsThere)
{
    ChunkClient client;
    std::string objects = bitrates({{1, 5}});
    objects.replace(24, 2, number(65535, 2));
    walk(client, asfHeader(objects));
    EXPECT_EQ(client.m_streamBitrates[1], 5U);
}

TEST(MMSHClientHeader, TotalPacketsOfADataObjectThatIsWhole)
{
    ChunkClient client;
    walk(client,
         asfHeader(object(AsfObject::DATA, std::string(16, 'd') + number(0x1234567890, 8) + "xx")));
    EXPECT_EQ(client.m_totalPackets, 0x34567890U) << "32 bits of it";
}

TEST(MMSHClientHeader, EachWalkBeginsAnew)
{
    ChunkClient client;
    walk(client, asfHeader(fileProperties(900) + streamHeader(AsfObject::AUDIO_MEDIA, 1)));
    walk(client, asfHeader(""));
    EXPECT_EQ(client.m_packetLength, 0U);
    EXPECT_EQ(client.m_streamCount, 0U);
}

TEST(MMSHClientHeader, SizesNearTheEndOfNumbersEndTheWalk)
{
    for (const std::uint64_t size :
         {0xffffffffffffffffULL, 0xffffffffffffffe8ULL, 0xffffffffffffff00ULL,
          0x8000000000000000ULL, 0x100000000ULL, 0xffffffffULL}) {
        ChunkClient client;
        EXPECT_FALSE(walk(client, asfHeader(object(19, "padding", size) + fileProperties(1000))));
        EXPECT_EQ(client.m_packetLength, 0U);
    }
}

TEST(MMSHClientHeader, ObjectsOfNoSizeMoveTheWalkOn)
{
    for (const std::uint64_t size : {0ULL, 1ULL, 24ULL}) {
        ChunkClient client;
        walk(client, asfHeader(object(19, "", size) + object(19, "", size) + fileProperties(1000)));
        EXPECT_EQ(client.m_packetLength, 1000U);
    }
}

TEST(MMSHClientHeader, AnyCutOfAHeaderIsSafe)
{
    const std::string whole = asfHeader(
        fileProperties(1000) + streamHeader(AsfObject::AUDIO_MEDIA, 1) + bitrates({{1, 2}}));
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        ChunkClient client(4096, 1024);
        walk(client, whole.substr(0, size));
        walk(client, guid(1) + std::string(14, 'h') +
                         object(AsfObject::STREAM_HEADER, std::string(size % 60, 'x'), 1));
        walk(client,
             guid(1) + std::string(14, 'h') +
                 object(AsfObject::STREAM_BITRATE_PROPERTIES, std::string(size % 30, 'x'), 1));
        walk(client, guid(1) + std::string(14, 'h') +
                         object(AsfObject::FILE_PROPERTIES, std::string(size % 90, 'x'), 1));
        walk(client, guid(1) + std::string(14, 'h') +
                         object(AsfObject::DATA, std::string(size % 30, 'x'), 1));
    }
}

} // namespace
