#include "network/MMSHClient.h"

#include "tests/network/ChunkClient.h"
#include "tests/network/MadeUpAsf.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WatchedThread.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace {

using namespace zel::test::madeup;
using zel::MMSHClient;
using zel::test::ChunkClient;
using zel::test::LogCapture;
using zel::test::WatchedThread;

std::unique_ptr<MMSHClient::MMSFrame> frameOf(ChunkClient& client, std::string& bytes)
{
    return std::unique_ptr<MMSHClient::MMSFrame>(
        client.getMMSFrame(bytes.data(), static_cast<unsigned>(bytes.size())));
}

const std::string header1500 = asfHeader(fileProperties(1500));

// -------------------------------------------------------------------------------------------------
// One chunk.

TEST(MMSHClientChunks, DataChunkIsSeenWithItsExtraHeader)
{
    ChunkClient client;
    std::string bytes = dataChunk("payload", 0x01020304) + "rest";
    const auto frame = frameOf(client, bytes);
    ASSERT_NE(frame, nullptr);
    EXPECT_TRUE(frame->complete);
    EXPECT_EQ(frame->type, 0x4424U);
    EXPECT_EQ(frame->extraLength, 8U);
    EXPECT_EQ(frame->value, 0x01020304U);
    EXPECT_EQ(frame->length, 7U);
    const auto* begin = reinterpret_cast<const unsigned char*>(bytes.data());
    EXPECT_EQ(frame->raw, begin);
    EXPECT_EQ(frame->extraHeader, begin + 4);
    EXPECT_EQ(frame->payload, begin + 12);
}

TEST(MMSHClientChunks, EachTypeHasItsExtraHeader)
{
    ChunkClient client;
    const std::pair<const char*, unsigned> types[] = {{"$C", 4}, {"$D", 8}, {"$E", 4},
                                                      {"$H", 8}, {"$M", 0}, {"$X", 0}};
    for (const auto& [type, extra] : types) {
        std::string bytes = chunk(type, number(77, 4) + "abcdefgh");
        const auto frame = frameOf(client, bytes);
        ASSERT_NE(frame, nullptr) << type;
        EXPECT_EQ(frame->extraLength, extra) << type;
        EXPECT_EQ(frame->length, 12 - extra) << type;
        EXPECT_EQ(frame->value, type[1] == 'D' || type[1] == 'E' ? 77U : 0U) << type;
        EXPECT_TRUE(frame->complete) << type;
    }
}

TEST(MMSHClientChunks, ChunkIsCompleteWithItsLastByte)
{
    ChunkClient client;
    const std::string whole = dataChunk("payload");
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        std::string bytes = whole.substr(0, size);
        const auto frame = frameOf(client, bytes);
        EXPECT_EQ(frame != nullptr, size >= 12) << size;
        EXPECT_EQ(frame != nullptr && frame->complete, size == whole.size()) << size;
    }
}

TEST(MMSHClientChunks, ChunkTooShortForItsExtraHeaderHasNoPayload)
{
    ChunkClient client;
    for (unsigned length = 0; length < 8; ++length) {
        std::string bytes = chunk("$D", std::string(length, 'x'));
        const auto frame = frameOf(client, bytes);
        ASSERT_NE(frame, nullptr) << length;
        EXPECT_TRUE(frame->complete) << length;
        EXPECT_EQ(frame->length, 0U) << length;
        EXPECT_EQ(frame->extraLength, length);
    }
    client.feed(headerChunk(1500));
    client.takeAll();
    client.feed(chunk("$D", "abc") + dataChunk(packet(1, 1500)));
    EXPECT_EQ(client.takeAll(), packet(1, 1500)) << "what follows is found";
}

// -------------------------------------------------------------------------------------------------
// From chunks to the ring.

TEST(MMSHClientChunks, DataIsPaddedToThePacketLengthAndCountedWithoutIt)
{
    ChunkClient client;
    client.feed(headerChunk(header1500));
    EXPECT_EQ(client.takeAll(), header1500);
    EXPECT_EQ(client.m_bytesReceived, 0U);
    client.feed(dataChunk(packet(1, 1000)));
    EXPECT_EQ(client.getByteAvailableToReadInBuffer(), 1500U);
    EXPECT_EQ(client.takeAll(), packet(1, 1000) + std::string(500, '\0'));
    EXPECT_EQ(client.m_bytesReceived, 1000U);
}

TEST(MMSHClientChunks, PaddingMayBeAsLongAsTheLargestPacket)
{
    ChunkClient client;
    client.feed(headerChunk(65536));
    client.takeAll();
    client.feed(dataChunk("x"));
    EXPECT_EQ(client.takeAll(), padded("x", 65536));
    client.feed(headerChunk(65537));
    EXPECT_EQ(client.m_packetLength, 0U) << "no packet is so large";
}

TEST(MMSHClientChunks, PacketLongerThanTheirLengthIsStoredWithAWarning)
{
    LogCapture log;
    ChunkClient client;
    client.feed(headerChunk(1500));
    client.takeAll();
    client.feed(dataChunk(packet(1, 1501)));
    EXPECT_EQ(client.takeAll(), packet(1, 1501));
    EXPECT_EQ(client.m_bytesReceived, 1501U);
    EXPECT_TRUE(log.contains("MMSHClient::getHeader: frame->length(1501) > m_packetLength(1500)"));
}

TEST(MMSHClientChunks, WithoutAPacketLengthDataIsNeitherPaddedNorCounted)
{
    ChunkClient client;
    client.feed(dataChunk(packet(1, 1000)));
    EXPECT_EQ(client.takeAll(), packet(1, 1000));
    EXPECT_EQ(client.m_bytesReceived, 0U);
}

TEST(MMSHClientChunks, ChunkInThreePiecesIsHandledOnceWhenItIsComplete)
{
    LogCapture log;
    ChunkClient client;
    const std::string bytes = headerChunk(header1500);
    EXPECT_EQ(client.feed(bytes.substr(0, 3)), 3);
    EXPECT_EQ(client.feed(bytes.substr(3, 40)), 40);
    EXPECT_EQ(client.getByteAvailableToReadInBuffer(), 0U);
    EXPECT_EQ(log.count("processHeader failed"), 0);
    client.feed(bytes.substr(43));
    EXPECT_EQ(log.count("processHeader failed"), 1);
    EXPECT_EQ(client.takeAll(), header1500);
    EXPECT_EQ(client.m_pendingSize, 0U);
}

TEST(MMSHClientChunks, SecondHeaderIsWalkedButNotStored)
{
    ChunkClient client;
    client.feed(headerChunk(header1500));
    client.takeAll();
    client.feed(headerChunk(700) + dataChunk(packet(1, 600)));
    EXPECT_EQ(client.m_packetLength, 700U);
    EXPECT_EQ(client.takeAll(), padded(packet(1, 600), 700));
}

TEST(MMSHClientChunks, PayloadOfResetAndUnknownChunksIsStored)
{
    LogCapture log;
    ChunkClient client;
    client.feed(chunk("$C", "1234payload") + chunk("$C", "1234") + chunk("$X", "unknown"));
    EXPECT_EQ(client.takeAll(), "payloadunknown");
    EXPECT_EQ(log.count("MMSHClient::write : TODO: CHUNK_TYPE_RESET received"), 2);
    EXPECT_TRUE(log.contains("MMSHClient::write : CHUNK_TYPE unknown received 22564 7"));
}

TEST(MMSHClientChunks, PiecesOfAnySizeGiveTheSameStream)
{
    std::string body = headerChunk(header1500);
    std::string expected = header1500;
    for (unsigned i = 0; i < 500; ++i) {
        const std::string bytes = packet(i, 1 + i * 3 % 1500);
        body += dataChunk(bytes, i);
        expected += padded(bytes, 1500);
        if (i % 50 == 7) {
            body += metadataChunk({{"title", std::to_string(i)}});
        }
    }
    body += endChunk();
    for (const std::size_t piece : {1UL, 2UL, 7UL, 12UL, 1000UL, 4096UL, 16384UL, 1048576UL}) {
        ChunkClient client(4 * 1024 * 1024);
        for (std::size_t at = 0; at < body.size(); at += piece) {
            const std::string bytes = body.substr(at, piece);
            ASSERT_EQ(client.feed(bytes), static_cast<long long>(bytes.size()));
        }
        EXPECT_EQ(client.take(expected.size() + 1), expected) << piece;
        EXPECT_EQ(client.delivered.size(), 1U) << piece;
        EXPECT_EQ(client.getContentLength(), client.m_bytesReceived) << piece;
    }
}

TEST(MMSHClientChunks, EndChunkEndsTheStreamAndSaysItsLength)
{
    ChunkClient client;
    client.feed(headerChunk(header1500) + dataChunk(packet(1, 1000)));
    EXPECT_TRUE(client.events().empty());
    const std::string end = endChunk();
    client.feed(end.substr(0, 7));
    EXPECT_TRUE(client.events().empty()) << "it is not complete";
    EXPECT_EQ(client.feed(end.substr(7)), 1);
    EXPECT_EQ(client.events(), std::vector<int>{zel::ConnectionEvent::END_OF_FILE_RECEIVED});
    EXPECT_EQ(client.getContentLength(), 1000U);
    EXPECT_EQ(client.take(100000), header1500 + padded(packet(1, 1000), 1500));
    EXPECT_EQ(client.take(1), "");
    client.endOfFileCallback();
    EXPECT_EQ(client.events(), (std::vector<int>{0, 0})) << "the transfer's end follows";
}

TEST(MMSHClientChunks, NothingBehindTheEndChunkIsStored)
{
    ChunkClient client;
    client.feed(headerChunk(1500) + dataChunk(packet(1, 1500)));
    client.takeAll();
    const std::string late = dataChunk(packet(2, 1500));
    EXPECT_EQ(client.feed(late.substr(0, 700)), 700);
    const std::string body = late.substr(700) + endChunk() + late.substr(0, 20);
    EXPECT_EQ(client.feed(body), static_cast<long long>(body.size()));
    EXPECT_EQ(client.m_pendingSize, 0U);
    EXPECT_EQ(client.feed(late), static_cast<long long>(late.size()));
    EXPECT_EQ(client.take(10000), packet(2, 1500));
    EXPECT_EQ(client.take(1), "") << "the stream stays ended";
}

TEST(MMSHClientChunks, StoppedClientTakesNothing)
{
    ChunkClient client;
    client.close();
    EXPECT_EQ(client.feed(headerChunk(1500)), -1);
}

TEST(MMSHClientChunks, CloseFreesAWriterThatWaitsForRoom)
{
    ChunkClient client(64 * 1024, 16 * 1024);
    client.feed(headerChunk(1500));
    long long result = 0;
    WatchedThread writer([&] {
        for (unsigned i = 0; result >= 0; ++i) {
            result = client.feed(dataChunk(packet(i, 1500)));
        }
    });
    ASSERT_TRUE(writer.awaitSleep());
    client.close();
    writer.join();
    EXPECT_EQ(result, -1);
}

TEST(MMSHClientChunks, PacketLargerThanTheRingGoesThroughIt)
{
    ChunkClient client(4096, 1024);
    std::string got;
    WatchedThread reader([&] { got = client.take(60000 + 60000); });
    client.feed(dataChunk(packet(1, 60000)) + dataChunk(packet(2, 60000)));
    reader.join();
    EXPECT_EQ(got, packet(1, 60000) + packet(2, 60000));
}

// -------------------------------------------------------------------------------------------------
// Metadata.

TEST(MMSHClientChunks, MetadataComesWhenTheReaderHasPassedIt)
{
    LogCapture log;
    ChunkClient client;
    client.feed(dataChunk(packet(1, 100)) + metadataChunk({{"title", "A"}, {"by", "B"}}) +
                dataChunk(packet(2, 100)));
    EXPECT_TRUE(log.contains("Received new metadata title A"));
    EXPECT_TRUE(log.contains("MMSHClient::write : CHUNK_TYPE_METADATA received"));
    client.take(100);
    EXPECT_TRUE(client.delivered.empty()) << "the reader stands in front of it";
    client.take(1);
    ASSERT_EQ(client.delivered.size(), 1U);
    EXPECT_EQ(client.delivered[0],
              (std::vector<std::pair<std::string, std::string>>{{"by", "B"}, {"title", "A"}}));
    client.take(50);
    EXPECT_EQ(client.delivered.size(), 1U) << "once";
}

TEST(MMSHClientChunks, OfSeveralThatAreDueTheLastIsDelivered)
{
    ChunkClient client;
    client.feed(metadataChunk({{"n", "0"}}) + metadataChunk({{"n", "1"}}));
    EXPECT_EQ(client.waitingMetadata(), 1U) << "at one place the later one counts";
    client.feed(dataChunk("a") + metadataChunk({{"n", "2"}}) + dataChunk("b") +
                metadataChunk({{"n", "3"}}));
    client.take(2);
    ASSERT_EQ(client.delivered.size(), 1U);
    EXPECT_EQ(client.delivered[0][0].second, "2");
    EXPECT_EQ(client.waitingMetadata(), 1U);
}

TEST(MMSHClientChunks, LaterPairOfOneKeyReplacesTheEarlier)
{
    ChunkClient client;
    client.feed(metadataChunk({{"k", "old"}, {"k", "new"}, {"empty", ""}}) + dataChunk("x"));
    client.take(1);
    ASSERT_EQ(client.delivered.size(), 1U);
    EXPECT_EQ(client.delivered[0],
              (std::vector<std::pair<std::string, std::string>>{{"empty", ""}, {"k", "new"}}));
}

TEST(MMSHClientChunks, PairThatIsCutOffIsDropped)
{
    for (const std::string& tail : {std::string("key"), std::string("key\0val", 7)}) {
        ChunkClient client;
        client.feed(chunk("$M", std::string(8, 'm') + std::string("a\0b\0", 4) + tail) +
                    dataChunk("x"));
        client.take(1);
        ASSERT_EQ(client.delivered.size(), 1U);
        EXPECT_EQ(client.delivered[0],
                  (std::vector<std::pair<std::string, std::string>>{{"a", "b"}}));
    }
}

TEST(MMSHClientChunks, MetadataUnderEightBytesIsNone)
{
    ChunkClient client;
    client.feed(chunk("$M", "1234567") + dataChunk("x"));
    EXPECT_EQ(client.waitingMetadata(), 0U);
    client.take(1);
    EXPECT_TRUE(client.delivered.empty());
}

TEST(MMSHClientChunks, WaitingMetadataHasALimit)
{
    ChunkClient client;
    for (int i = 0; i < 10000; ++i) {
        client.feed(metadataChunk({{"n", std::to_string(i)}}) + dataChunk("x"));
    }
    EXPECT_LE(client.waitingMetadata(), 1000U);
    client.takeAll();
    ASSERT_EQ(client.delivered.size(), 1U);
    EXPECT_EQ(client.delivered[0][0].second, "9999") << "the latest are kept";

    std::string pairs(8, 'm');
    for (int i = 0; i < 8000; ++i) {
        pairs += std::to_string(i) + '\0' + '\0';
    }
    client.feed(chunk("$M", pairs) + dataChunk("x"));
    client.takeAll();
    ASSERT_EQ(client.delivered.size(), 2U);
    EXPECT_LE(client.delivered[1].size(), 1000U);
}

// -------------------------------------------------------------------------------------------------
// Ends of transfers, without a server.

TEST(MMSHClientChunks, EndAfter31999BytesIsBrokenWithoutRecovery)
{
    LogCapture log;
    ChunkClient client;
    client.feed(headerChunk(32000) + dataChunk(packet(1, 31999)));
    client.endOfFileCallback();
    EXPECT_EQ(client.events(), std::vector<int>{zel::ConnectionEvent::BROKEN_STREAM});
    EXPECT_TRUE(log.contains("MMSHClient::endOfFileCallback no data received"));
    EXPECT_FALSE(log.contains("recoverBrokenStreamThread"));
}

TEST(MMSHClientChunks, EndAfter32000BytesBeginsRecovery)
{
    LogCapture log;
    ChunkClient client;
    client.feed(headerChunk(header1500));
    for (unsigned i = 0; i < 32; ++i) {
        client.feed(dataChunk(packet(i, 1000)));
    }
    ASSERT_EQ(client.m_bytesReceived, 32000U);
    client.endOfFileCallback();
    client.awaitEvents(1);
    EXPECT_EQ(client.events(), std::vector<int>{zel::ConnectionEvent::BROKEN_STREAM});
    EXPECT_TRUE(log.contains("MMSHClient::endOfFileCallback: Broken stream detected"));
    for (const char* left : {"2", "1", "0"}) {
        EXPECT_EQ(log.count("MMSHClient::recoverBrokenStreamThread failed, " + std::string(left) +
                            " retries remaining"),
                  1);
    }
    EXPECT_EQ(client.take(1000000).size(), header1500.size() + 32 * 1500) << "the rest is there";
    EXPECT_EQ(client.take(1), "") << "and then the end";
}

TEST(MMSHClientChunks, EndWhileStoppedIsNone)
{
    LogCapture log;
    ChunkClient client;
    client.close();
    client.endOfFileCallback();
    EXPECT_TRUE(client.events().empty());
    EXPECT_TRUE(log.contains("MMSHClient::endOfFileCallback m_stopEvent"));
}

TEST(MMSHClientChunks, EndMeansNothingWhenItIsKnown)
{
    LogCapture log;
    ChunkClient client;
    client.m_receivedEOF = true;
    client.endOfFileCallback();
    EXPECT_TRUE(client.events().empty());
    EXPECT_TRUE(log.contains("MMSHClient::endOfFileCallback m_receivedEOF"));
}

} // namespace
