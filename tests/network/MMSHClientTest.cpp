#include "network/MMSHClient.h"

#include "tests/network/ChunkClient.h"
#include "tests/network/MmshPlays.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WatchedThread.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using namespace zel::test::plays;
using zel::test::ChunkClient;
using zel::test::LogCapture;
using zel::test::ScriptedServer;
using zel::test::ServerHeaders;
using zel::test::WatchedThread;
using zel::test::madeup::dataChunk;
using zel::test::madeup::endChunk;
using zel::test::madeup::metadataChunk;

constexpr int sizeQuery = 0x10000;
const char* const clientId = "xClientGUID={c77e7400-738a-11d2-9add-0020af0a3278}";

class KeptError : public zel::streamer::Error
{
public:
    void setCode(int value) override { code = value; }
    void setMessage(const char* text) override { message = text; }

    int code = 0;
    std::string message;
};

// -------------------------------------------------------------------------------------------------
// Opening.

TEST(MMSHClient, OpenAsksInTheWordsOfTheProtocolAndTheRingHoldsAPlainFile)
{
    LogCapture log;
    ScriptedServer server(inTurn({whole(begin() + packets(0, 40) + endChunk())}));
    ChunkClient client;
    KeptError error;
    ASSERT_TRUE(client.open(server.url("/s.asf"), &error));
    EXPECT_EQ(error.code, 0);
    const auto request = server.requests().at(0);
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.target, "/s.asf");
    EXPECT_EQ(request.header("User-Agent"), "NSPlayer/4.1.0.3856");
    EXPECT_EQ(pragmas(request),
              (std::vector<std::string>{
                  "no-cache,stream-time=0,stream-offset=0:0,request-context=1,max-duration=0",
                  "xPlayStrm=1", clientId}));
    EXPECT_FALSE(request.hasHeader("Range"));
    EXPECT_EQ(client.getContentType(), "application/x-mms-framed");
    EXPECT_EQ(client.getUrl(), server.url("/s.asf"));
    const std::string all = header + paddedPackets(0, 40);
    EXPECT_EQ(client.take(all.size() + 1), all);
    client.awaitEvents(1);
    EXPECT_EQ(client.events().at(0), zel::ConnectionEvent::END_OF_FILE_RECEIVED);
    EXPECT_EQ(client.getContentLength(), 40000U);
    EXPECT_TRUE(log.contains("MMSHClient::open: succeeded -- seekable 1 - live 0 - timeout 30000"));
    EXPECT_TRUE(log.contains("MMSHClient::endOfFileCallback hasReachedEOF"));
}

TEST(MMSHClient, RefusedOpenSaysTheStatus)
{
    LogCapture log;
    ScriptedServer server(inTurn({refused(404)}));
    ChunkClient client;
    KeptError error;
    EXPECT_FALSE(client.open(server.url(), &error));
    EXPECT_EQ(error.code, 2);
    EXPECT_EQ(error.message, "MMSH: Server error 404");
    EXPECT_TRUE(log.contains("MMSHClient::open: server error 2"));
    EXPECT_FALSE(client.open(server.url(), nullptr));
    EXPECT_TRUE(client.events().empty());
}

TEST(MMSHClient, BareHeaderIsNoStream)
{
    ServerHeaders with = headers();
    with[0].second = "application/vnd.ms.wms-hdr.asfv1";
    ScriptedServer server(inTurn({whole(begin(), with)}));
    ChunkClient client;
    KeptError error;
    EXPECT_FALSE(client.open(server.url(), &error));
    EXPECT_EQ(error.code, 2);
    EXPECT_EQ(error.message, "");
    EXPECT_EQ(client.getByteAvailableToReadInBuffer(), 0U) << "nothing of it stays";
}

TEST(MMSHClient, ServerOfAnotherKindIsLeftAlone)
{
    LogCapture log;
    ServerHeaders without = headers();
    without.pop_back();
    ServerHeaders other = without;
    other.emplace_back("Supported", "something.else");
    ScriptedServer server(
        inTurn({holding(begin(), 1000000, without), holding(begin(), 1000000, other)}));
    ChunkClient client;
    KeptError error;
    EXPECT_FALSE(client.open(server.url(), &error));
    EXPECT_EQ(log.count("MMSHClient::open: server doesnt support MMSH commands"), 1);
    EXPECT_EQ(error.code, 0);
    EXPECT_FALSE(client.open(server.url(), &error));
    EXPECT_EQ(log.count("MMSHClient::open: server doesnt support MMSH commands"), 2);
    server.waitUntilIdle(); // neither transfer goes on
    EXPECT_TRUE(client.events().empty());
}

TEST(MMSHClient, HeaderThatNeverComesFailsOpen)
{
    LogCapture log;
    ScriptedServer server(inTurn({holding(metadataChunk({{"a", "b"}}))}));
    ChunkClient client;
    client.handlerTimeoutMs = 50;
    KeptError error;
    EXPECT_FALSE(client.open(server.url(), &error));
    EXPECT_EQ(error.code, 2);
    EXPECT_TRUE(log.contains("MMSHClient::open: header not received in time"));
    server.waitUntilIdle();
}

TEST(MMSHClient, TransferThatEndsWithoutAHeaderFailsOpenAtOnce)
{
    ScriptedServer server(inTurn({whole(packets(0, 3)), whole(begin())}));
    ChunkClient client;
    client.handlerTimeoutMs = 24 * 3600 * 1000;
    KeptError error;
    EXPECT_FALSE(client.open(server.url(), &error));
    EXPECT_EQ(error.code, 2);
    EXPECT_TRUE(client.open(server.url(), &error)) << "a header that came is not forgotten";
}

TEST(MMSHClient, FeaturesTellWhatTheServerCan)
{
    LogCapture log;
    ScriptedServer server(inTurn({holding(begin(), 1000000, headers("\"broadcast,playlist\""))}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_FALSE(client.m_seekable);
    EXPECT_TRUE(client.m_live);
    EXPECT_FALSE(client.canSeek());
    EXPECT_TRUE(log.contains("MMSHClient::open: succeeded -- seekable 0 - live 1 - timeout"));
}

TEST(MMSHClient, FeaturesAtTheBeginningOfPragmaLeaveTheDefaults)
{
    ServerHeaders with = headers();
    with[1].second = "features=\"broadcast\"";
    ServerHeaders none = headers();
    none[1].second = "no-cache";
    ScriptedServer server(
        inTurn({holding(begin(), 1000000, with), holding(begin(), 1000000, none)}));
    for (int i = 0; i < 2; ++i) {
        ChunkClient client;
        ASSERT_TRUE(client.open(server.url(), nullptr));
        EXPECT_TRUE(client.m_seekable);
        EXPECT_FALSE(client.m_live);
        EXPECT_TRUE(client.canSeek());
    }
}

TEST(MMSHClient, TakesTheStreamHeaders)
{
    LogCapture log;
    ServerHeaders with = headers();
    with.emplace_back("Zel-Stream-Duration", "90000");
    with.emplace_back("Zel-Stream-ID", "12");
    with.emplace_back("Zel-Force-Extension", "asf");
    with.emplace_back("Zel-Streaming", "direct");
    ScriptedServer server(inTurn({holding(begin(), 1000000, with)}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_EQ(client.getStreamDuration(), 90000);
    EXPECT_EQ(client.getStreamID(), 12);
    EXPECT_EQ(client.getCustomExtension(), "asf");
    EXPECT_EQ(client.getContentLength(), 1000000U);
    EXPECT_TRUE(log.contains("HTTPClient::open : Zel Streaming header direct"));
}

TEST(MMSHClient, OpensAnotherStreamWhileTheFirstStillRuns)
{
    ScriptedServer server(inTurn({holding(begin() + packets(0, 50) + metadataChunk({{"a", "b"}})),
                                  holding(begin() + packets(100, 50))}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url("/1"), nullptr));
    const std::string first = header + paddedPackets(0, 50);
    EXPECT_EQ(client.take(first.size()), first);
    ASSERT_TRUE(client.open(server.url("/2"), nullptr));
    EXPECT_EQ(pragmas(server.requests().at(1)).at(0),
              "no-cache,stream-time=0,stream-offset=0:0,request-context=1,max-duration=0");
    const std::string second = header + paddedPackets(100, 50);
    EXPECT_EQ(client.take(second.size()), second);
    EXPECT_TRUE(client.delivered.empty()) << "the first one's metadata went with it";
    EXPECT_TRUE(client.events().empty());
}

TEST(MMSHClient, CallsBeforeOpenAreHarmless)
{
    ChunkClient client;
    EXPECT_EQ(client.seek(0, SEEK_SET, -1), -1);
    EXPECT_EQ(client.seek(0, SEEK_SET, 1000), -1);
    EXPECT_FALSE(client.performMMSHSeek(0, -1));
    EXPECT_FALSE(client.canSeek());
    client.endOfFileCallback();
    EXPECT_EQ(client.events(), std::vector<int>{zel::ConnectionEvent::BROKEN_STREAM});
}

// -------------------------------------------------------------------------------------------------
// Seeking.

TEST(MMSHClient, SeekByTimeAsksTheServer)
{
    LogCapture log;
    ScriptedServer server(inTurn({holding(begin() + packets(0, 50), 5000000),
                                  holding(begin() + packets(200, 50), 5000000)}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.take(1000);
    EXPECT_EQ(client.seek(300000, SEEK_SET, 61500), 300000);
    const auto request = server.requests().at(1);
    EXPECT_EQ(pragmas(request),
              (std::vector<std::string>{"no-cache,stream-time=61500,stream-offset=0:0,"
                                        "request-context=2,max-duration=4294967295",
                                        "xPlayStrm=1", clientId}));
    EXPECT_EQ(request.header("Zel-Seek"), "seconds=61");
    EXPECT_EQ(request.header("Range"), "bytes=300000-4999999");
    const std::string expected = paddedPackets(200, 50);
    EXPECT_EQ(client.take(expected.size()), expected) << "without the header, which it has had";
    EXPECT_EQ(client.m_bytesReceived, 50000U);
    EXPECT_TRUE(log.contains("MMSHClient::seek : 300000 0 61500"));
    EXPECT_TRUE(log.contains("MMSHClient::seek - seeked with request"));
    EXPECT_TRUE(client.events().empty());
}

TEST(MMSHClient, SeekByBytesGoesOutAsATimeWhereTheDurationIsKnown)
{
    ScriptedServer server(inTurn({holding(begin() + packets(0, 10), 4000000)}));
    ChunkClient client;
    client.setStreamDuration(100000);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_EQ(client.seek(3000001, SEEK_SET, -1), 3000001);
    EXPECT_EQ(pragmas(server.requests().at(1)).at(0),
              "no-cache,stream-time=75000,stream-offset=0:0,request-context=2,max-duration=100000");
}

TEST(MMSHClient, SeekByBytesWithoutADurationNamesTheByte)
{
    ScriptedServer server(inTurn({holding(begin() + packets(0, 10), 4000000)}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_EQ(client.seek(3000001, SEEK_SET, -1), 3000001);
    EXPECT_EQ(pragmas(server.requests().at(1)).at(0),
              "no-cache,stream-time=0,stream-offset=4294967295:3000001,request-context=2,"
              "max-duration=4294967295");
    EXPECT_EQ(server.requests().at(1).header("Range"), "bytes=3000001-3999999");
}

TEST(MMSHClient, SeekByBytesWithoutALengthNamesTheByte)
{
    ScriptedServer server(inTurn({unmeasured(begin() + packets(0, 10), true)}));
    ChunkClient client;
    client.setStreamDuration(100000);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_EQ(client.getContentLength(), 0U);
    EXPECT_EQ(client.seek(3000000, SEEK_SET, -1), 3000000);
    EXPECT_EQ(pragmas(server.requests().at(1)).at(0),
              "no-cache,stream-time=0,stream-offset=4294967295:3000000,request-context=2,"
              "max-duration=100000");
}

TEST(MMSHClient, SeekByBytesWithinTheRingNeedsNoRequest)
{
    ScriptedServer server(inTurn({holding(begin() + packets(0, 100))}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    const std::string all = header + paddedPackets(0, 100);
    EXPECT_EQ(client.take(all.size()), all);
    EXPECT_EQ(client.seek(5000, SEEK_SET, -1), 5000);
    EXPECT_EQ(client.take(100), all.substr(5000, 100));
    EXPECT_EQ(client.seek(100, SEEK_CUR, -1), 5200);
    EXPECT_EQ(client.take(100), all.substr(5200, 100));
    EXPECT_EQ(client.seek(0, sizeQuery, 1000), 100000000);
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST(MMSHClient, SeekByTimeAsksEvenForWhatLiesInTheRing)
{
    ScriptedServer server(inTurn({holding(begin() + packets(0, 100))}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_EQ(client.seek(0, SEEK_SET, 0), 0);
    const auto request = server.requests().at(1);
    EXPECT_EQ(pragmas(request).at(0),
              "no-cache,stream-time=0,stream-offset=0:0,request-context=2,max-duration=4294967295");
    EXPECT_FALSE(request.hasHeader("Range"));
    EXPECT_FALSE(request.hasHeader("Zel-Seek"));
}

TEST(MMSHClient, SeekRelativeToTheReaderByTimeNamesTheSum)
{
    ScriptedServer server(inTurn({holding(begin() + packets(0, 100), 5000000)}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.take(700);
    EXPECT_EQ(client.seek(300, SEEK_CUR, 9000), 1000);
    EXPECT_EQ(server.requests().at(1).header("Range"), "bytes=1000-4999999");
}

TEST(MMSHClient, SeekIntoTheTailFailsAndLeavesTheStreamRunning)
{
    LogCapture log;
    ScriptedServer server(inTurn({[](const auto&, auto& connection) {
        connection.beginBody(200, headers(), 5000000);
        connection.send(begin() + packets(0, 10));
        connection.waitForMark("go on");
        connection.send(packets(10, 10));
        connection.waitUntilPeerCloses();
    }}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_EQ(client.seek(5000000 - 512, SEEK_SET, -1), -1);
    EXPECT_EQ(log.count(" - tail requested"), 1);
    EXPECT_EQ(client.seek(5000000 + 1, SEEK_SET, -1), -1);
    EXPECT_EQ(client.seek(-1, SEEK_SET, -1), -1);
    server.mark("go on");
    const std::string all = header + paddedPackets(0, 20);
    EXPECT_EQ(client.take(all.size()), all);
    EXPECT_EQ(server.requests().size(), 1U);
    EXPECT_EQ(client.seek(5000000 - 513, SEEK_SET, -1), 5000000 - 513);
    EXPECT_EQ(server.requests().size(), 2U);
}

TEST(MMSHClient, SeekOnAStreamThatCannotSeekAnswersTheOffsetAndDoesNothing)
{
    ScriptedServer server(
        inTurn({holding(begin() + packets(0, 30), 50000000, headers("\"broadcast\""))}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    const std::string all = header + paddedPackets(0, 30);
    EXPECT_EQ(client.take(100), all.substr(0, 100));
    EXPECT_EQ(client.seek(40000000, SEEK_SET, -1), 40000000);
    EXPECT_EQ(client.seek(0, SEEK_SET, 5000), 0);
    EXPECT_EQ(client.take(all.size() - 100), all.substr(100)) << "the reader stays where it was";
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST(MMSHClient, SeekBehindTheEndOfAnEndedStreamFails)
{
    ScriptedServer server(inTurn({whole(begin() + packets(0, 40) + endChunk()),
                                  unmeasured(begin() + packets(10, 20), true)}));
    ChunkClient client(200000, 20000);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.take(1000000);
    client.awaitEvents(1);
    EXPECT_EQ(client.getContentLength(), 40000U);
    EXPECT_EQ(client.seek(100000, SEEK_SET, -1), -1);
    EXPECT_EQ(server.requests().size(), 1U);
    EXPECT_EQ(client.seek(0, SEEK_SET, 1000), 0) << "back into it";
    const std::string expected = paddedPackets(10, 20);
    EXPECT_EQ(client.take(expected.size()), expected);
    EXPECT_GT(client.getContentLength(), 40000U) << "the handler's, as the end is not known now";
}

TEST(MMSHClient, RefusedSeekFailsWithoutAnEvent)
{
    LogCapture log;
    ScriptedServer server(inTurn(
        {holding(begin() + packets(0, 40)), refused(503), holding(begin() + packets(50, 10))}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_EQ(client.seek(0, SEEK_SET, 5000), -1);
    EXPECT_TRUE(log.contains("MMSHClient::seek : seek failed"));
    EXPECT_TRUE(client.events().empty());
    EXPECT_EQ(client.seek(0, SEEK_SET, 6000), 0);
    EXPECT_EQ(client.take(15000), paddedPackets(50, 10));
}

TEST(MMSHClient, NothingOfAChunkBeforeTheSeekIsLeftBehindIt)
{
    ScriptedServer server(inTurn(
        {holding(begin() + packets(0, 3).substr(0, 2500)), holding(begin() + packets(50, 10))}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.take(header.size() + 2 * 1500);
    EXPECT_EQ(client.seek(0, SEEK_SET, 5000), 0);
    EXPECT_EQ(client.take(15000), paddedPackets(50, 10));
}

TEST(MMSHClient, StreamThatEndsBeforeItsSeekIsDoneIsAnEventAllTheSame)
{
    ScriptedServer server(inTurn(
        {holding(begin() + packets(0, 40)), whole(begin() + packets(9, 1) + endChunk()), gone()}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_EQ(client.seek(0, SEEK_SET, 5000), 0);
    client.awaitEvents(1);
    EXPECT_EQ(client.events().at(0), zel::ConnectionEvent::END_OF_FILE_RECEIVED);
    EXPECT_EQ(client.take(100000), paddedPackets(9, 1));
}

TEST(MMSHClient, SeekToAServerThatHasGoneIsABrokenStream)
{
    ScriptedServer server(inTurn({holding(begin() + packets(0, 40)), gone()}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.seek(0, SEEK_SET, 5000);
    client.awaitEvents(1);
    EXPECT_EQ(client.events(), std::vector<int>{zel::ConnectionEvent::BROKEN_STREAM});
}

TEST(MMSHClient, MetadataBehindASeekComesWhenTheReaderHasPassedIt)
{
    ScriptedServer server(inTurn(
        {holding(begin() + packets(0, 10) + metadataChunk({{"n", "old"}}) + packets(10, 1)),
         holding(begin() + packets(50, 2) + metadataChunk({{"n", "new"}}) + packets(52, 2))}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.take(header.size() + 9 * 1500);
    ASSERT_EQ(client.seek(9000000, SEEK_SET, 5000), 9000000);
    EXPECT_EQ(client.take(2 * 1500), paddedPackets(50, 2));
    EXPECT_TRUE(client.delivered.empty());
    EXPECT_EQ(client.take(1500), paddedPackets(52, 1));
    ASSERT_EQ(client.delivered.size(), 1U);
    EXPECT_EQ(client.delivered[0][0].second, "new");
}

TEST(MMSHClient, SeeksInARowEachGetTheirPlace)
{
    std::vector<Play> answers;
    for (unsigned i = 0; i < 30; ++i) {
        answers.push_back(holding(begin() + packets(1000 * i, 200)));
    }
    ScriptedServer server(inTurn(answers));
    ChunkClient client(100000, 10000); // always full
    ASSERT_TRUE(client.open(server.url(), nullptr));
    for (unsigned i = 1; i < 30; ++i) {
        ASSERT_EQ(client.seek(i * 1000000LL, SEEK_SET, i * 1000), i * 1000000LL);
        ASSERT_EQ(client.take(3000), paddedPackets(1000 * i, 2));
    }
    EXPECT_TRUE(client.events().empty());
    EXPECT_EQ(pragmas(server.requests().at(29)).at(0),
              "no-cache,stream-time=29000,stream-offset=0:0,request-context=30,"
              "max-duration=4294967295");
}

// -------------------------------------------------------------------------------------------------
// The keep-alive loop.

TEST(MMSHClient, KeepAliveRequestsGoOutWhileTheStreamIsPaused)
{
    const Play keptAlive = [](const auto&, auto& connection) {
        connection.respond(200, {}, "no part of the stream");
    };
    ScriptedServer server(
        inTurn({holding(begin() + packets(0, 1)), keptAlive, keptAlive, keptAlive, refused(500)}));
    ChunkClient client;
    EXPECT_EQ(client.m_keepAliveWaitMs, 20000);
    client.m_keepAliveWaitMs = 1;
    ASSERT_TRUE(client.open(server.url("/s"), nullptr));
    client.m_receivedEOF = true;
    client.startKeepAlive();
    const auto requests = server.waitForRequests(5);
    for (std::size_t i = 1; i < 5; ++i) {
        EXPECT_EQ(requests[i].method, "POST");
        EXPECT_EQ(requests[i].target, "/s");
        EXPECT_EQ(requests[i].body, "");
        EXPECT_EQ(pragmas(requests[i]),
                  (std::vector<std::string>{"xKeepAliveInPause=1", clientId}));
    }
    const std::string all = header + paddedPackets(0, 1);
    EXPECT_EQ(client.take(all.size()), all);
    EXPECT_EQ(client.getByteAvailableToReadInBuffer(), 0U);
    client.close();
    EXPECT_EQ(server.requests().size(), 5U) << "a refusal ends the loop";
}

TEST(MMSHClient, KeepAliveEndsWhenTheStreamIsNotPaused)
{
    ScriptedServer server(inTurn({holding(begin())}));
    ChunkClient client;
    client.m_keepAliveWaitMs = 1;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.startKeepAlive();
    client.close();
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST(MMSHClient, CloseEndsAKeepAliveRequestUnderWay)
{
    ScriptedServer server(inTurn({holding(begin()), silent("asked")}));
    ChunkClient client;
    client.handlerTimeoutMs = 24 * 3600 * 1000;
    client.m_keepAliveWaitMs = 1;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.m_receivedEOF = true;
    client.startKeepAlive();
    server.waitForMark("asked");
    client.close();
}

TEST(MMSHClient, CloseEndsTheWaitOfKeepAlive)
{
    ScriptedServer server(inTurn({holding(begin())}));
    ChunkClient client;
    client.m_keepAliveWaitMs = 24 * 3600 * 1000;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.m_receivedEOF = true;
    client.startKeepAlive();
    client.close();
}

} // namespace
