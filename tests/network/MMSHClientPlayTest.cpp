// The client against a server of real files.

#include "network/MMSHClient.h"

#include "tests/network/ChunkClient.h"
#include "tests/support/MmsChunks.h"
#include "tests/support/MmsServer.h"
#include "tests/support/TestFolders.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>

namespace {

using zel::test::AsfFile;
using zel::test::ChunkClient;
using zel::test::mediaFolder;
using zel::test::MmsFault;
using zel::test::MmsServer;
using zel::test::MmsServerOptions;

AsfFile clip(const std::string& name = "wmv2_wma2.asf")
{
    return AsfFile::read(mediaFolder() + "/" + name);
}

std::string packets(const AsfFile& file, std::size_t first, std::size_t count)
{
    std::string bytes;
    for (std::size_t i = first; i < first + count; ++i) {
        bytes += file.packet(i);
    }
    return bytes;
}

std::string packetsFrom(const AsfFile& file, std::size_t first)
{
    return packets(file, first, file.packetCount() - first);
}

/// To the end of the stream.
std::string readAll(ChunkClient& client)
{
    std::string all;
    for (;;) {
        const std::string bytes = client.take(50000);
        all += bytes;
        if (bytes.size() < 50000) {
            return all;
        }
    }
}

TEST(MMSHClientPlay, WholeClipIsTheFileItself)
{
    for (const char* name : {"wmv2_wma2.asf", "wma2.wma", "wmv1_wma1.wmv"}) {
        MmsServer server(clip(name));
        ChunkClient client(400000, 50000); // less than the file, so that it wraps
        ASSERT_TRUE(client.open(server.url(), nullptr));
        const AsfFile& file = server.file();
        EXPECT_TRUE(readAll(client) == file.streamHeader() + packetsFrom(file, 0)) << name;
        EXPECT_EQ(client.m_packetLength, file.packetSize());
        EXPECT_EQ(client.m_streamCount, file.streams().size());
    }
}

TEST(MMSHClientPlay, PiecesOnTheWireMakeNoDifference)
{
    const std::vector<std::vector<std::size_t>> sizes = {{7, 1, 3000}, {1000}, {1, 65536}};
    for (const auto& pieces : sizes) {
        MmsServerOptions options;
        options.pieces = pieces;
        MmsServer server(clip("wma2.wma"), options);
        ChunkClient client;
        ASSERT_TRUE(client.open(server.url(), nullptr));
        const AsfFile& file = server.file();
        EXPECT_TRUE(readAll(client) == file.streamHeader() + packetsFrom(file, 0));
    }
}

TEST(MMSHClientPlay, SeekByTimeGoesOnAtTheServersPacket)
{
    MmsServer server(clip());
    const AsfFile& file = server.file();
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.take(10000);
    for (const unsigned timeMs : {4000U, 1000U, 0U, 7000U}) {
        ASSERT_EQ(client.seek(1000, SEEK_SET, timeMs), 1000);
        const std::size_t first = file.keyPacketAt(timeMs);
        EXPECT_EQ(server.plays().back().timeMs, timeMs);
        EXPECT_TRUE(client.take(3 * file.packetSize()) == packets(file, first, 3)) << timeMs;
    }
    EXPECT_TRUE(readAll(client) == packetsFrom(file, file.keyPacketAt(7000) + 3));
}

TEST(MMSHClientPlay, SeekByBytesBecomesATimeWhereDurationAndLengthAreKnown)
{
    MmsServerOptions options;
    options.tellLength = true;
    MmsServer server(clip(), options);
    const AsfFile& file = server.file();
    ChunkClient client(100000, 10000);
    client.setStreamDuration(static_cast<int>(file.durationMs()));
    ASSERT_TRUE(client.open(server.url(), nullptr));
    const auto length = static_cast<long long>(client.getContentLength());
    ASSERT_GT(length, 100000);
    const long long middle = length / 2;
    ASSERT_EQ(client.seek(middle, SEEK_SET, -1), middle);
    const auto timeMs = server.plays().back().timeMs;
    EXPECT_NEAR(static_cast<double>(timeMs), static_cast<double>(file.durationMs()) / 2, 2);
    const std::size_t first = file.keyPacketAt(timeMs);
    EXPECT_TRUE(client.take(2 * file.packetSize()) == packets(file, first, 2));
}

TEST(MMSHClientPlay, BrokenStreamGoesOnAtThePacketOfTheByte)
{
    MmsServerOptions options;
    options.faults = {MmsFault::closeBehindPackets(40), MmsFault::closeBehindBytes(30000),
                      MmsFault::closeBehindPackets(5)};
    MmsServer server(clip(), options);
    const AsfFile& file = server.file();
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    const std::string all = readAll(client);
    client.awaitEvents(1);
    EXPECT_EQ(client.events().at(0), zel::ConnectionEvent::END_OF_FILE_RECEIVED);
    server.http().waitUntilIdle();
    std::string expected = file.streamHeader();
    const auto plays = server.plays();
    ASSERT_EQ(plays.size(), 4U);
    for (const auto& play : plays) {
        // The byte is counted without padding, and lies a little before the place of the break.
        EXPECT_EQ(play.byteOffset.has_value(), play.firstPacket != 0);
        expected += packets(file, play.firstPacket, play.packetsSent);
    }
    EXPECT_EQ(all.size(), expected.size());
    EXPECT_TRUE(all == expected);
    EXPECT_TRUE(plays.back().ended);
}

TEST(MMSHClientPlay, ServerThatStaysAwayIsABrokenStream)
{
    MmsServerOptions options;
    options.faults = {MmsFault::closeBehindPackets(40)};
    options.laterFault = MmsFault::refuse();
    MmsServer server(clip(), options);
    const AsfFile& file = server.file();
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_TRUE(readAll(client) == file.streamHeader() + packets(file, 0, 40));
    client.awaitEvents(1);
    EXPECT_EQ(client.events(), std::vector<int>{zel::ConnectionEvent::BROKEN_STREAM});
    EXPECT_EQ(server.plays().size(), 4U);
}

TEST(MMSHClientPlay, BroadcastCannotBeSought)
{
    MmsServerOptions options;
    options.broadcast = true;
    MmsServer server(clip(), options);
    const AsfFile& file = server.file();
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_TRUE(client.m_live);
    EXPECT_FALSE(client.canSeek());
    EXPECT_EQ(client.seek(0, SEEK_SET, 5000), 0);
    EXPECT_TRUE(readAll(client) == file.streamHeader(true) + packetsFrom(file, 0));
    EXPECT_EQ(server.plays().size(), 1U);
}

TEST(MMSHClientPlay, DescriptionIsNoStream)
{
    MmsServerOptions options;
    options.describeOnly = true;
    MmsServer server(clip(), options);
    ChunkClient client;
    EXPECT_FALSE(client.open(server.url(), nullptr));
}

TEST(MMSHClientPlay, MetadataComesWithThePacketBehindIt)
{
    MmsServerOptions options;
    options.chunks = {{10, zel::test::mms::metadataChunk({{"title", "ten"}})},
                      {20, zel::test::mms::metadataChunk({{"title", "twenty"}})}};
    MmsServer server(clip(), options);
    const AsfFile& file = server.file();
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.take(file.streamHeader().size() + 10 * file.packetSize());
    EXPECT_TRUE(client.delivered.empty());
    client.take(10 * file.packetSize());
    ASSERT_EQ(client.delivered.size(), 1U);
    EXPECT_EQ(client.delivered[0].at(0).second, "ten");
    readAll(client);
    ASSERT_EQ(client.delivered.size(), 2U);
    EXPECT_EQ(client.delivered[1].at(0).second, "twenty");
}

} // namespace
