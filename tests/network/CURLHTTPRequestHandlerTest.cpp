#include "network/CURLHTTPRequestHandler.h"

#include "tests/support/LogCapture.h"
#include "tests/support/LoopbackListener.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/ServedContent.h"
#include "tests/support/WatchedThread.h"

#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>
#include <string>

namespace {

using zel::CURLHTTPRequestHandler;
using zel::test::LogCapture;
using zel::test::ScriptedServer;
using zel::test::serveBytes;
using zel::test::ServeOptions;
using zel::test::ServerConnection;
using zel::test::ServerHeaders;
using zel::test::ServerRequest;
using zel::test::textContent;
using zel::test::WatchedThread;

/// A handler whose body and ends are kept.
class HandlerRun
{
public:
    HandlerRun()
    {
        handler.setWriteCallback([this](unsigned char* data, unsigned long long size) {
            const std::lock_guard guard(m_mutex);
            m_body.append(reinterpret_cast<char*>(data), size);
            m_changed.notify_all();
            return static_cast<long long>(size);
        });
        handler.setEndOfFileCallback([this] {
            const std::lock_guard guard(m_mutex);
            ++m_ends;
            m_changed.notify_all();
        });
    }
    ~HandlerRun() { handler.close(); }

    std::string body() const
    {
        const std::lock_guard guard(m_mutex);
        return m_body;
    }
    int ends() const
    {
        const std::lock_guard guard(m_mutex);
        return m_ends;
    }
    std::string awaitEnd(int count = 1)
    {
        std::unique_lock guard(m_mutex);
        m_changed.wait(guard, [&] { return m_ends >= count; });
        return m_body;
    }
    void awaitBytes(std::size_t count)
    {
        std::unique_lock guard(m_mutex);
        m_changed.wait(guard, [&] { return m_body.size() >= count; });
    }
    void clearBody()
    {
        const std::lock_guard guard(m_mutex);
        m_body.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_body;
    int m_ends = 0;

public:
    CURLHTTPRequestHandler handler{"agent/1"}; // last: its thread uses the others
};

std::string letters(std::size_t size)
{
    std::string text(size, 'a');
    for (std::size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>('a' + i % 26);
    }
    return text;
}

/// Serves by bytes and by time: a second is a thousand bytes.
zel::test::ServerScript serveBothWays(std::size_t size)
{
    ServeOptions options;
    options.timeToOffset = [](long long seconds) {
        return static_cast<std::uint64_t>(seconds) * 1000;
    };
    return serveBytes(textContent(letters(size)), options);
}

// -------------------------------------------------------------------------------------------------

TEST(CURLHTTPRequestHandler, DeliversTheBodyAndDescribesTheAnswer)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.respond(200, {{"Content-Type", "Video/X"}, {"X-Some", " a B "}}, "hello");
    });
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url("/x")));
    EXPECT_EQ(run.awaitEnd(), "hello");
    EXPECT_EQ(run.handler.getStatusCode(), 200);
    EXPECT_EQ(run.handler.getContentLength(), 5U);
    EXPECT_EQ(run.handler.getContentType(), "video/x");
    EXPECT_EQ(run.handler.getRawHeader("X-Some"), "a b");
    EXPECT_EQ(run.handler.getUrl(), server.url("/x"));
    EXPECT_EQ(server.requests().at(0).header("User-Agent"), "agent/1");
    EXPECT_FALSE(run.handler.canSeek());
}

TEST(CURLHTTPRequestHandler, RedirectLeavesTheFinalUrlAndTheFinalHeadersOnly)
{
    ScriptedServer server([](const ServerRequest& request, ServerConnection& connection) {
        if (request.target == "/final") {
            connection.respond(200, {{"X-Last", "yes"}}, "body");
        } else {
            connection.respond(302, {{"Location", "/final"}, {"X-Hop", "yes"}}, "moved");
        }
    });
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url("/first")));
    EXPECT_EQ(run.awaitEnd(), "body");
    EXPECT_EQ(run.handler.getUrl(), server.url("/final"));
    EXPECT_TRUE(run.handler.hasRawHeader("X-Last"));
    EXPECT_FALSE(run.handler.hasRawHeader("X-Hop"));
    EXPECT_FALSE(run.handler.hasRawHeader("Location"));
}

TEST(CURLHTTPRequestHandler, SeekToTheStartSendsNoRangeButKeepsTheSeconds)
{
    ScriptedServer server(serveBothWays(200000));
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url()));
    ASSERT_TRUE(run.handler.seek(1000, 90500));
    ASSERT_TRUE(run.handler.seek(0, -1));
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 3U);
    EXPECT_EQ(requests[1].header("Range"), "bytes=1000-199999");
    EXPECT_FALSE(requests[2].hasHeader("Range"));
    EXPECT_EQ(requests[2].header("Zel-Seek"), "seconds=90");
}

TEST(CURLHTTPRequestHandler, SeekByBytesAndTimeSendsBothInOneRequest)
{
    ScriptedServer server(serveBothWays(200000));
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url()));
    ASSERT_TRUE(run.handler.seek(5000, 90500));
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_NE(requests[1].head.find("Zel-Seek: seconds=90\r\nRange: bytes=5000-199999\r\n"),
              std::string::npos)
        << requests[1].head;
}

TEST(CURLHTTPRequestHandler, TimeIsNotSentToAServerThatDoesNotTakeIt)
{
    ScriptedServer server(serveBytes(textContent(letters(200000))));
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url()));
    ASSERT_TRUE(run.handler.seek(5000, 90500));
    EXPECT_FALSE(server.requests().at(1).hasHeader("Zel-Seek"));
}

TEST(CURLHTTPRequestHandler, RangeEndsAtMinusOneWhereTheLengthIsUnknown)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginChunks(200, {{"Accept-Ranges", "bytes"}});
        connection.chunk("body");
        connection.endChunks();
    });
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url()));
    ASSERT_TRUE(run.handler.seek(10, -1));
    EXPECT_EQ(server.requests().at(1).header("Range"), "bytes=10--1");
}

TEST(CURLHTTPRequestHandler, SeekDeliversFromTheNewPositionAndEndsTheOldTransferInSilence)
{
    const std::string content = letters(100000);
    ScriptedServer server([&](const ServerRequest& request, ServerConnection& connection) {
        if (request.hasHeader("Range")) {
            connection.respond(206, {{"Content-Range", "bytes 99990-99999/100000"}},
                               content.substr(99990));
            return;
        }
        connection.beginBody(200, {{"Accept-Ranges", "bytes"}}, content.size());
        connection.send(content.substr(0, 500));
        connection.waitUntilPeerCloses();
    });
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url()));
    run.awaitBytes(500);
    run.clearBody();
    ASSERT_TRUE(run.handler.seek(99990, -1));
    EXPECT_EQ(run.awaitEnd(), content.substr(99990));
    EXPECT_EQ(run.ends(), 1);
    EXPECT_EQ(run.handler.getStatusCode(), 206);
    EXPECT_EQ(run.handler.getContentLength(), 100000U) << "a part does not tell the whole length";
    EXPECT_TRUE(run.handler.canSeek()) << "the answer to a seek need not repeat it";
}

TEST(CURLHTTPRequestHandler, SeekTakesAWholeAnswerToo)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.respond(200, {{"Accept-Ranges", "bytes"}}, "body");
    });
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url()));
    EXPECT_TRUE(run.handler.seek(2, -1));
    EXPECT_EQ(run.handler.getStatusCode(), 200);
}

TEST(CURLHTTPRequestHandler, RefusedSeekDeliversNothingAndEndsTheTransfer)
{
    ScriptedServer server([](const ServerRequest& request, ServerConnection& connection) {
        if (request.hasHeader("Range")) {
            connection.beginBody(416, {}, 1000000);
            connection.send(letters(20000));
            connection.waitUntilPeerCloses();
            return;
        }
        connection.respond(200, {{"Accept-Ranges", "bytes"}}, "body");
    });
    LogCapture log;
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url()));
    ASSERT_EQ(run.awaitEnd(), "body");
    EXPECT_FALSE(run.handler.seek(2, -1));
    EXPECT_EQ(run.handler.getStatusCode(), 416);
    EXPECT_EQ(run.awaitEnd(2), "body");
    EXPECT_TRUE(log.contains("seek failed statusCode: 416"));
}

TEST(CURLHTTPRequestHandler, SeekWithoutASeekableServerFailsAndLeavesTheTransferAlone)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {}, 8);
        connection.send("four");
        connection.waitForMark("go");
        connection.send("more");
    });
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url()));
    EXPECT_FALSE(run.handler.seek(2, -1));
    server.mark("go");
    EXPECT_EQ(run.awaitEnd(), "fourmore");
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST(CURLHTTPRequestHandler, HeaderNamesMatchInAnyCase)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.respond(200, {{"X-MiXed", "v"}}, "");
    });
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url()));
    for (const char* name : {"x-mixed", "X-MIXED", "X-MiXed"}) {
        EXPECT_TRUE(run.handler.hasRawHeader(name)) << name;
        EXPECT_EQ(run.handler.getRawHeader(name), "v") << name;
    }
    EXPECT_FALSE(run.handler.hasRawHeader("X-Mixe"));
    EXPECT_EQ(run.handler.getRawHeader("X-Absent"), "");
}

TEST(CURLHTTPRequestHandler, RefusedOpenKeepsTheStatusAndStillDelivers)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.respond(404, {}, "no such thing");
    });
    LogCapture log;
    HandlerRun run;
    EXPECT_FALSE(run.handler.open(server.url()));
    EXPECT_EQ(run.handler.getStatusCode(), 404);
    EXPECT_TRUE(log.contains("::open failed statusCode: 404"));
    // Whatever came before the request was dropped is the begin of the body.
    const std::string body = run.awaitEnd();
    EXPECT_EQ(body, std::string("no such thing").substr(0, body.size()));
}

TEST(CURLHTTPRequestHandler, EndlessRefusedBodyDoesNotHoldOpen)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(500, {}, 1ULL << 40);
        while (connection.send(letters(65536))) {
        }
    });
    HandlerRun run;
    EXPECT_FALSE(run.handler.open(server.url()));
    EXPECT_LE(run.awaitEnd().size(), 65536U);
}

TEST(CURLHTTPRequestHandler, PartialContentIsNoAnswerToOpen)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.respond(206, {}, "part");
    });
    HandlerRun run;
    EXPECT_FALSE(run.handler.open(server.url()));
    EXPECT_EQ(run.handler.getStatusCode(), 206);
    EXPECT_EQ(run.handler.getContentLength(), 0U);
}

TEST(CURLHTTPRequestHandler, NobodyListeningFailsWithStatusZero)
{
    std::string url;
    {
        const ScriptedServer gone([](const ServerRequest&, ServerConnection&) {});
        url = gone.url();
    }
    HandlerRun run;
    EXPECT_FALSE(run.handler.open(url));
    EXPECT_EQ(run.handler.getStatusCode(), 0);
    EXPECT_EQ(run.awaitEnd(), "");
}

TEST(CURLHTTPRequestHandler, SilentServerTimesOut)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.waitUntilPeerCloses();
    });
    LogCapture log;
    HandlerRun run;
    run.handler.setTimeout(50);
    EXPECT_FALSE(run.handler.open(server.url()));
    EXPECT_EQ(run.handler.getStatusCode(), 0);
    EXPECT_TRUE(log.contains("::start timed out") || log.contains("read timeout after 50ms"));
}

TEST(CURLHTTPRequestHandler, BrokenTransferEndsLikeAWholeOne)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {}, 1000);
        connection.send("begin");
        connection.waitForMark("read");
        connection.reset();
    });
    LogCapture log;
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url()));
    run.awaitBytes(5);
    server.mark("read");
    EXPECT_EQ(run.awaitEnd(), "begin");
    EXPECT_EQ(run.ends(), 1);
    EXPECT_TRUE(log.contains("perform threw CUrlEasyException"));
}

TEST(CURLHTTPRequestHandler, InterimAnswersAreDropped)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.send("HTTP/1.1 103 Early Hints\r\nX-Early: yes\r\n\r\n"
                        "HTTP/1.1 200 OK\r\nX-Late: yes\r\nContent-Length: 4\r\n\r\nbody");
    });
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url()));
    EXPECT_EQ(run.awaitEnd(), "body");
    EXPECT_FALSE(run.handler.hasRawHeader("X-Early"));
    EXPECT_TRUE(run.handler.hasRawHeader("X-Late"));
}

TEST(CURLHTTPRequestHandler, TrailersChangeNothing)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.send("HTTP/1.1 200 OK\r\nX-Head: a\r\nTransfer-Encoding: chunked\r\n\r\n"
                        "4\r\nbody\r\n0\r\nX-Trailer: b\r\n\r\n");
    });
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url()));
    EXPECT_EQ(run.awaitEnd(), "body");
    EXPECT_EQ(run.handler.getRawHeader("X-Head"), "a");
    EXPECT_EQ(run.handler.getContentLength(), 0U);
}

TEST(CURLHTTPRequestHandler, FloodOfHeadersIsRefused)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.send("HTTP/1.1 200 OK\r\n");
        while (connection.send("X-Flood: " + std::string(1000, 'f') + "\r\n")) {
        }
    });
    HandlerRun run;
    EXPECT_FALSE(run.handler.open(server.url()));
    run.awaitEnd();
}

TEST(CURLHTTPRequestHandler, HeaderLineIsCutAtNul)
{
    class Reach : public CURLHTTPRequestHandler
    {
    public:
        using CURLHTTPRequestHandler::CURLHTTPRequestHandler;
        using CURLHTTPRequestHandler::headerCallback;
    };
    // Called by hand, for libcurl refuses such an answer.
    Reach handler("agent");
    handler.setWriteCallback(
        [](unsigned char*, unsigned long long size) { return static_cast<long long>(size); });
    std::string line("X-Cut: Kept\0lost\r\n", 18);
    EXPECT_EQ(handler.headerCallback(line.data(), 1, line.size()), line.size());
    EXPECT_EQ(handler.getRawHeader("X-Cut"), "kept");
}

TEST(CURLHTTPRequestHandler, WithoutASinkTheHeadersAreRefused)
{
    ScriptedServer server(serveBytes(textContent("body")));
    CURLHTTPRequestHandler handler("agent");
    EXPECT_FALSE(handler.open(server.url()));
    EXPECT_EQ(handler.getStatusCode(), 0);
}

TEST(CURLHTTPRequestHandler, RequestHeadersGoOutUntilTheyAreCleared)
{
    ScriptedServer server(serveBothWays(200000));
    HandlerRun run;
    run.handler.addRawHeader("Pragma", "one");
    run.handler.addRawHeader("Pragma", "two=2");
    ASSERT_TRUE(run.handler.open(server.url()));
    ASSERT_TRUE(run.handler.seek(1000, 2000));
    run.handler.clearRawHeaders();
    ASSERT_TRUE(run.handler.seek(0, -1));
    const auto requests = server.requests();
    EXPECT_NE(requests.at(0).head.find("Pragma: one\r\nPragma: two=2\r\n"), std::string::npos);
    EXPECT_NE(requests.at(1).head.find("Range: bytes=1000-199999\r\nPragma: one\r\n"),
              std::string::npos);
    EXPECT_FALSE(requests.at(2).hasHeader("Pragma"));
    EXPECT_FALSE(requests.at(2).hasHeader("Zel-Seek")) << "the position goes with the headers";
}

TEST(CURLHTTPRequestHandler, PostHasAnEmptyBody)
{
    ScriptedServer server(serveBytes(textContent("x")));
    HandlerRun run;
    run.handler.setPostRequest(true);
    EXPECT_TRUE(run.handler.isPostRequest());
    EXPECT_FALSE(run.handler.open(server.url()));
    EXPECT_EQ(run.handler.getStatusCode(), 405);
    const ServerRequest request = server.requests().at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.header("Content-Length"), "0");
    EXPECT_FALSE(request.hasHeader("Expect"));
}

TEST(CURLHTTPRequestHandler, SettingsAreReadBack)
{
    CURLHTTPRequestHandler handler("first");
    EXPECT_EQ(handler.getTimeout(), 30000U);
    EXPECT_EQ(handler.getHTTPVersion(), 1U);
    EXPECT_FALSE(handler.isPostRequest());
    EXPECT_FALSE(handler.canSeek());
    EXPECT_EQ(handler.getUserAgent(), "first");
    handler.setUserAgent("second");
    handler.setHTTPVersion(0);
    handler.setTimeout(7);
    EXPECT_EQ(handler.getUserAgent(), "second");
    EXPECT_EQ(handler.getHTTPVersion(), 0U);
    EXPECT_EQ(handler.getTimeout(), 7U);
    handler.setTimeSeekable(true);
    EXPECT_TRUE(handler.canSeek());
    handler.setTimeSeekable(false);
    handler.setByteSeekable(true);
    EXPECT_TRUE(handler.canSeek());
}

// -------------------------------------------------------------------------------------------------

TEST(CURLHTTPRequestHandlerClose, TwiceIsHarmless)
{
    ScriptedServer server(serveBytes(textContent("body")));
    HandlerRun run;
    run.handler.close();
    ASSERT_TRUE(run.handler.open(server.url()));
    run.handler.close();
    run.handler.close();
    EXPECT_EQ(run.ends(), 1);
}

TEST(CURLHTTPRequestHandlerClose, AbortFiresTheEndOfFile)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {}, 1000);
        connection.waitUntilPeerCloses();
    });
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url()));
    EXPECT_EQ(run.ends(), 0);
    run.handler.close();
    EXPECT_EQ(run.ends(), 1);
    server.waitUntilIdle();
}

TEST(CURLHTTPRequestHandlerClose, WakesAnOpenThatWaitsForHeaders)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.waitUntilPeerCloses();
    });
    HandlerRun run;
    bool opened = true;
    WatchedThread opener([&] { opened = run.handler.open(server.url()); });
    server.waitForRequests(1);
    run.handler.close();
    opener.join();
    EXPECT_FALSE(opened);
    server.waitUntilIdle();
}

TEST(CURLHTTPRequestHandlerClose, WakesASeekThatWaitsForHeaders)
{
    ScriptedServer server([](const ServerRequest& request, ServerConnection& connection) {
        if (request.hasHeader("Range")) {
            connection.waitUntilPeerCloses();
            return;
        }
        connection.respond(200, {{"Accept-Ranges", "bytes"}}, "body");
    });
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url()));
    bool found = true;
    WatchedThread seeker([&] { found = run.handler.seek(2, -1); });
    server.waitForRequests(2);
    run.handler.close();
    seeker.join();
    EXPECT_FALSE(found);
}

TEST(CURLHTTPRequestHandlerClose, InsideACallbackStopsTheTransferAndReturns)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {}, 1ULL << 40);
        while (connection.send(letters(65536))) {
        }
    });
    std::atomic<int> calls{0};
    {
        CURLHTTPRequestHandler handler("agent");
        handler.setWriteCallback([&](unsigned char*, unsigned long long size) {
            ++calls;
            handler.close();
            return static_cast<long long>(size);
        });
        handler.setEndOfFileCallback([&] {
            handler.setByteSeekable(true);
            EXPECT_FALSE(handler.seek(10, -1));
            EXPECT_FALSE(handler.open(server.url()));
            handler.close();
        });
        handler.open(server.url());
        server.waitUntilIdle();
    }
    EXPECT_EQ(calls, 1);
}

TEST(CURLHTTPRequestHandlerClose, LetsTheHandlerOpenAgain)
{
    ScriptedServer server(serveBytes(textContent("body")));
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url()));
    run.handler.close();
    run.clearBody();
    ASSERT_TRUE(run.handler.open(server.url()));
    EXPECT_EQ(run.awaitEnd(2), "body");
}

TEST(CURLHTTPRequestHandlerClose, AnOpenTransferIsReplacedByTheNextOpen)
{
    ScriptedServer server([](const ServerRequest& request, ServerConnection& connection) {
        if (request.target == "/endless") {
            connection.beginBody(200, {}, 1000);
            connection.waitUntilPeerCloses();
            return;
        }
        connection.respond(200, {}, "second");
    });
    HandlerRun run;
    ASSERT_TRUE(run.handler.open(server.url("/endless")));
    ASSERT_TRUE(run.handler.open(server.url("/second")));
    EXPECT_EQ(run.awaitEnd(2), "second");
}

/// Whatever the interleaving, a close that comes last leaves nothing running.
TEST(CURLHTTPRequestHandlerClose, RacesWithOpenAndSeek)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {{"Accept-Ranges", "bytes"}}, 1000);
        connection.send("x");
        connection.waitUntilPeerCloses();
    });
    for (int round = 0; round < 30; ++round) {
        HandlerRun run;
        std::atomic<bool> begun{false};
        WatchedThread user([&] {
            begun = true;
            run.handler.open(server.url());
            run.handler.seek(10, -1);
            run.handler.seek(20, -1);
        });
        while (!begun) {
        }
        for (int i = 0; i < round; ++i) {
            run.handler.canSeek();
            run.handler.getRawHeader("Accept-Ranges");
            run.handler.close();
        }
        user.join();
        run.handler.close();
        server.waitUntilIdle();
    }
}

} // namespace
