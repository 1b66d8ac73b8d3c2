// What a reader gets from a request that runs on a thread of its own.

#include "network/cURLRequest.h"

#include "tests/network/LocalRequest.h"
#include "tests/support/LogCapture.h"
#include "tests/support/LoopbackListener.h"
#include "tests/support/PositionBytes.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/WatchedThread.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace zel::test;

namespace {

constexpr int longMs = 600000;

/// @return what getData() gives; "end" when it answers -1
std::string taken(zel::cURL::AsyncRequest& request, unsigned long size, unsigned long position,
                  bool waitForAll)
{
    std::vector<unsigned char> bytes(size);
    const long count = request.getData(bytes.data(), size, position, waitForAll);
    return count < 0 ? "end" : std::string(bytes.begin(), bytes.begin() + count);
}

/// Sends the one part, then waits for the mark "go", then sends the other.
ServerScript inTwoParts(const std::string& first, const std::string& second)
{
    return [first, second](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {}, first.size() + second.size());
        connection.send(first);
        if (connection.waitForMark("go")) {
            connection.send(second);
        }
    };
}

/// Announces ten bytes, sends five and no more.
void falter(const ServerRequest&, ServerConnection& connection)
{
    connection.beginBody(200, {}, 10);
    connection.send("12345");
    connection.waitUntilPeerCloses();
}

/// Reads a whole body as it comes.
std::string readToEnd(zel::cURL::AsyncRequest& request, unsigned long pieceBytes, bool waitForAll)
{
    std::string body;
    for (;;) {
        std::vector<unsigned char> bytes(pieceBytes);
        const long count = request.getData(bytes.data(), pieceBytes, body.size(), waitForAll);
        if (count <= 0) {
            EXPECT_EQ(count, -1);
            return body;
        }
        body.append(bytes.begin(), bytes.begin() + count);
    }
}

} // namespace

TEST(cURLAsyncRequest, DeliversTheWholeBodyPieceByPiece)
{
    const std::string body = positionBytes::make(0, 1000000);
    ScriptedServer server(answering(body));
    LocalAsyncRequest request(server.url(), 65536UL);
    request.start();
    EXPECT_TRUE(readToEnd(request, 10007, false) == body);
}

TEST(cURLAsyncRequest, DataAtThePresentPositionIsCopiedFromTheFront)
{
    const std::string body = positionBytes::make(0, 300);
    ScriptedServer server(answering(body));
    LocalAsyncRequest request(server.url(), 65536UL);
    request.start();
    EXPECT_EQ(taken(request, 100, 0, true), body.substr(0, 100));
    EXPECT_EQ(taken(request, 50, 100, true), body.substr(100, 50));
}

TEST(cURLAsyncRequest, DataBeforeThePresentPositionIsGone)
{
    const std::string body = positionBytes::make(0, 300);
    ScriptedServer server(answering(body));
    LocalAsyncRequest request(server.url(), 65536UL);
    request.start();
    EXPECT_EQ(taken(request, 101, 0, true), body.substr(0, 101));
    EXPECT_EQ(taken(request, 50, 100, true), "end");
    EXPECT_EQ(taken(request, 50, 101, true), body.substr(101, 50));
}

TEST(cURLAsyncRequest, PositionAheadDropsWhatLiesBefore)
{
    const std::string body = positionBytes::make(0, 1000000);
    ScriptedServer server(answering(body));
    LocalAsyncRequest request(server.url(), 32768UL);
    request.start();
    EXPECT_EQ(taken(request, 10, 0, true), body.substr(0, 10));
    EXPECT_TRUE(taken(request, 1000, 700001, true) == body.substr(700001, 1000));
    EXPECT_EQ(taken(request, 1, 701000, true), "end");
}

TEST(cURLAsyncRequest, PositionBehindTheEndOfTheBodyIsNeverReached)
{
    ScriptedServer server(answering("12345"));
    LocalAsyncRequest request(server.url(), 65536UL);
    request.start();
    EXPECT_EQ(taken(request, 1, 6, false), "end");
}

TEST(cURLAsyncRequest, ReaderGetsWhatIsThereUnlessItWaitsForAll)
{
    ScriptedServer server(inTwoParts("12345", "67890"));
    LocalAsyncRequest request(server.url(), 65536UL);
    request.start();
    EXPECT_EQ(taken(request, 100, 0, false), "12345");
    server.mark("go");
    EXPECT_EQ(taken(request, 100, 5, false), "67890");
}

TEST(cURLAsyncRequest, ReaderThatWaitsForAllSleepsUntilAllIsThere)
{
    ScriptedServer server(inTwoParts("12345", "67890"));
    LocalAsyncRequest request(server.url(), 65536UL);
    request.start();
    std::string got;
    WatchedThread reader([&] { got = taken(request, 8, 0, true); });
    EXPECT_TRUE(reader.awaitSleep());
    server.mark("go");
    reader.join();
    EXPECT_EQ(got, "12345678");
}

TEST(cURLAsyncRequest, ReaderThatWaitsForMoreThanTheBodyGetsTheRestAndThenTheEnd)
{
    ScriptedServer server(answering("12345"));
    LocalAsyncRequest request(server.url(), 65536UL);
    request.start();
    EXPECT_EQ(taken(request, 100, 0, true), "12345");
    EXPECT_EQ(taken(request, 100, 5, true), "end");
    EXPECT_EQ(taken(request, 100, 5, false), "end");
}

TEST(cURLAsyncRequest, EndOfTheTransferWakesAWaitingReader)
{
    ScriptedServer server(inTwoParts("", ""));
    LocalAsyncRequest request(server.url(), 65536UL);
    request.start();
    WatchedThread reader([&] { EXPECT_EQ(taken(request, 1, 0, false), "end"); });
    EXPECT_TRUE(reader.awaitSleep() || reader.ended());
    server.mark("go");
    reader.join();
}

TEST(cURLAsyncRequest, FailedTransferIsLoggedAndEndsForTheReader)
{
    LogCapture log;
    LocalAsyncRequest request("http://127.0.0.1:" + unusedPort() + "/", 65536UL);
    request.start();
    EXPECT_EQ(taken(request, 1, 0, false), "end");
    EXPECT_FALSE(request.waitForHeaders(longMs));
    EXPECT_TRUE(log.contains(std::string("AsyncRequest::performThread : perform threw exception ") +
                             curl_easy_strerror(CURLE_COULDNT_CONNECT)));
}

TEST(cURLAsyncRequest, FullBufferHoldsTheTransferUntilSomebodyReads)
{
    constexpr unsigned long limit = 50000;
    const std::string body = positionBytes::make(0, 8 << 20);
    ServerOptions options;
    options.sendBuffer = 16384;
    ScriptedServer server(answering(body), options);
    LocalAsyncRequest request(server.url(), limit);
    request.start();
    std::string got;
    std::vector<unsigned char> bytes(body.size());
    long largest = 0;
    long count = 0;
    while ((count = request.getData(bytes.data(), bytes.size(), got.size(), false)) > 0) {
        largest = std::max(largest, count);
        got.append(bytes.begin(), bytes.begin() + count);
    }
    EXPECT_TRUE(got == body);
    EXPECT_LT(largest, static_cast<long>(limit));
}

TEST(cURLAsyncRequest, ChunkLargerThanTheBufferIsTakenWhenTheBufferIsEmpty)
{
    const std::string body = positionBytes::make(0, 100000);
    ScriptedServer server(answering(body));
    for (const unsigned long limit : {0UL, 1UL, 100UL}) {
        LocalAsyncRequest request(server.url(), limit);
        request.start();
        EXPECT_TRUE(readToEnd(request, 1000, false) == body);
    }
}

TEST(cURLAsyncRequest, ReaderMayWaitForMoreThanTheBufferHolds)
{
    const std::string body = positionBytes::make(0, 1000000);
    ScriptedServer server(answering(body));
    LocalAsyncRequest request(server.url(), 20000UL);
    request.start();
    EXPECT_TRUE(readToEnd(request, 300000, true) == body);
}

TEST(cURLAsyncRequest, ReaderGetsWhatAFullBufferHeldBackAtOnce)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {}, 20);
        connection.send("12345");
        connection.waitForMark("more");
        connection.send("67890");
        connection.waitUntilPeerCloses();
    });
    LocalAsyncRequest request(server.url(), 6UL);
    request.start();
    EXPECT_EQ(taken(request, 1, 0, true), "1");
    server.mark("more");
    letTimePass(200); // so that the rest mostly stands in front of the buffer by now
    EXPECT_EQ(taken(request, 9, 1, true), "234567890");
}

TEST(cURLAsyncRequest, AbortWakesAWaitingReader)
{
    ScriptedServer server(falter);
    LocalAsyncRequest request(server.url(), 65536UL);
    request.start();
    WatchedThread reader([&] { EXPECT_EQ(taken(request, 10, 0, true), "end"); });
    EXPECT_TRUE(reader.awaitSleep());
    request.abort();
    reader.join();
}

TEST(cURLAsyncRequest, AbortWakesAReaderOnItsWayToAPositionAhead)
{
    ScriptedServer server(falter);
    LocalAsyncRequest request(server.url(), 65536UL);
    request.start();
    WatchedThread reader([&] { EXPECT_EQ(taken(request, 10, 7, false), "end"); });
    EXPECT_TRUE(reader.awaitSleep());
    request.abort();
    reader.join();
}

TEST(cURLAsyncRequest, AbortedRequestGivesNothingMore)
{
    ScriptedServer server(falter);
    LocalAsyncRequest request(server.url(), 65536UL);
    request.start();
    EXPECT_EQ(taken(request, 2, 0, true), "12");
    request.abort();
    EXPECT_EQ(taken(request, 1, 2, false), "end");
    request.abort();
}

TEST(cURLAsyncRequest, AbortLetsATransferInFrontOfAFullBufferGo)
{
    const std::string body = positionBytes::make(0, 4 << 20);
    ScriptedServer server(answering(body));
    LocalAsyncRequest request(server.url(), 30000UL);
    request.start();
    EXPECT_EQ(taken(request, 1, 0, true), body.substr(0, 1));
    request.abort();
    server.waitUntilIdle();
}

TEST(cURLAsyncRequest, AbortEndsATransferWhoseServerNeverAnswers)
{
    LoopbackListener silent;
    LocalAsyncRequest request("http://127.0.0.1:" + silent.port() + "/", 65536UL);
    request.start();
    silent.waitForConnection();
    request.abort();
}

TEST(cURLAsyncRequest, DestructorEndsTheTransfer)
{
    ScriptedServer server(falter);
    {
        LocalAsyncRequest request(server.url(), 65536UL);
        request.start();
        server.waitForRequests(1);
    }
    server.waitUntilIdle();
}

TEST(cURLAsyncRequest, RequestThatNeverStartedCanBeAbortedAndDestroyed)
{
    LocalAsyncRequest request("http://127.0.0.1/", 65536UL);
    request.abort();
    EXPECT_EQ(taken(request, 1, 0, false), "end");
}

TEST(cURLAsyncRequest, ReaderThatComesBeforeTheStartWaitsForTheTransfer)
{
    ScriptedServer server(answering("12345"));
    LocalAsyncRequest request(server.url(), 65536UL);
    std::string got;
    WatchedThread reader([&] { got = taken(request, 5, 0, true); });
    EXPECT_TRUE(reader.awaitSleep());
    request.start();
    reader.join();
    EXPECT_EQ(got, "12345");
}

TEST(cURLAsyncRequest, AbortWakesAReaderThatCameBeforeTheStart)
{
    LocalAsyncRequest request("http://127.0.0.1/", 65536UL);
    WatchedThread reader([&] { EXPECT_EQ(taken(request, 5, 0, true), "end"); });
    EXPECT_TRUE(reader.awaitSleep());
    request.abort();
    reader.join();
}

TEST(cURLAsyncRequest, StartsAnewFromPositionZeroAfterItsEndAndAfterAnAbort)
{
    ScriptedServer server(answering("12345"));
    LocalAsyncRequest request(server.url(), 65536UL);
    for (int round = 0; round < 3; ++round) {
        request.start();
        EXPECT_EQ(taken(request, 3, 0, true), "123");
        if (round == 1) {
            request.abort();
        }
    }
    request.start();
    EXPECT_EQ(readToEnd(request, 3, true), "12345");
    request.start();
    EXPECT_EQ(readToEnd(request, 100, false), "12345");
}

TEST(cURLAsyncRequest, StartEndsAnOlderTransfer)
{
    ScriptedServer server(falter);
    LocalAsyncRequest request(server.url(), 65536UL);
    request.start();
    EXPECT_EQ(taken(request, 2, 0, true), "12");
    request.start();
    EXPECT_EQ(taken(request, 5, 0, true), "12345");
    EXPECT_EQ(server.requests().size(), 2U);
}

TEST(cURLAsyncRequest, PauseChangesNothing)
{
    ScriptedServer server(answering("12345"));
    LocalAsyncRequest request(server.url(), 65536UL);
    request.start();
    request.pause();
    EXPECT_EQ(readToEnd(request, 100, false), "12345");
}

TEST(cURLAsyncRequest, HeadersOfTheFinalResponseAreKept)
{
    ScriptedServer server([](const ServerRequest& request, ServerConnection& connection) {
        if (request.target == "/") {
            connection.respond(302, {{"Location", "/end"}, {"X-Hop", "1"}}, "");
        } else {
            connection.send("HTTP/1.1 103 Early Hints\r\nLink: </style.css>\r\n\r\n"
                            "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nX-Final: Yes\r\n\r\nok");
            connection.close();
        }
    });
    LocalAsyncRequest request(server.url(), 65536UL);
    request.start();
    EXPECT_TRUE(request.waitForHeaders(longMs));
    EXPECT_EQ(request.getHeaders(), "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nX-Final: Yes\r\n\r\n");
    EXPECT_EQ(readToEnd(request, 100, false), "ok");
}

TEST(cURLAsyncRequest, HeadersAreThereBeforeTheBodyEnds)
{
    ScriptedServer server(falter);
    LocalAsyncRequest request(server.url(), 65536UL);
    request.start();
    EXPECT_TRUE(request.waitForHeaders(longMs));
}

TEST(cURLAsyncRequest, RefusedRedirectLeavesNoHeaders)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.respond(302, {{"Location", "/end"}}, "");
    });
    LocalAsyncRequest request(server.url(), 65536UL);
    request.setRedirect(false);
    request.start();
    EXPECT_FALSE(request.waitForHeaders(longMs));
    EXPECT_EQ(request.getHeaders(), "");
}

TEST(cURLAsyncRequest, AbortMeetsReaderAndTransferAtAnyMoment)
{
    const std::string body = positionBytes::make(0, 1 << 20);
    ScriptedServer server(answering(body));
    for (unsigned long round = 0; round < 40; ++round) {
        const std::size_t before = server.connectionsAccepted();
        LocalAsyncRequest request(server.url(), 30000UL);
        request.start();
        std::string got;
        WatchedThread reader([&] { got = readToEnd(request, 997, round % 2 == 0); });
        if (round % 4 > 1) { // otherwise often before it connects
            server.waitForConnections(before + 1);
        }
        request.abort();
        reader.join();
        EXPECT_TRUE(got == body.substr(0, got.size()));
    }
}
