// How a request is aborted, and when it gives up by itself.

#include "network/cURLRequest.h"

#include "common/utils/Clock.h"
#include "tests/network/FullBacklog.h"
#include "tests/network/LibraryDetours.h"
#include "tests/network/LocalRequest.h"
#include "tests/support/LogCapture.h"
#include "tests/support/LoopbackListener.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/WatchedThread.h"

#include <atomic>
#include <future>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

using namespace zel::test;
using zel::cURL::Request;

namespace {

/// A transfer on a thread of its own, on which only an event or a wake-up ends a poll: without
/// the wake-up an abort of a silent transfer would never be noticed.
class Transfer
{
public:
    explicit Transfer(Request& request)
        : m_thread([this, &request] {
              // libcurl's one timer of its own that would end a poll soon.
              request.setOption(CURLOPT_HAPPY_EYEBALLS_TIMEOUT_MS, 3600000);
              const EndlessPolls polls;
              m_end = performed(request);
          })
    {
    }

    void awaitSleep() const { EXPECT_TRUE(m_thread.awaitSleep()); }
    bool ended() const { return m_thread.ended(); }
    CURLcode end()
    {
        m_thread.join();
        return m_end;
    }

private:
    CURLcode m_end = CURLE_OK;
    WatchedThread m_thread;
};

/// Sends the beginning of an answer, and nothing more.
ServerScript falteringAfter(const std::string& beginning)
{
    return [beginning](const ServerRequest&, ServerConnection& connection) {
        connection.send(beginning);
        connection.waitUntilPeerCloses();
    };
}

constexpr const char* partOfBody = "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n12345";

/// Makes `taken` ready at the first call.
Request::Callback takingOnce(std::promise<void>& taken)
{
    return [&taken, first = true](void*, unsigned long size, unsigned long count) mutable {
        if (first) {
            taken.set_value();
        }
        first = false;
        return size * count;
    };
}

} // namespace

TEST(cURLRequestEnds, AbortWhileANameIsLookedUp)
{
    const EndlessLookUp lookUp("never.invalid");
    LocalRequest request("http://never.invalid/");
    Transfer transfer(request);
    lookUp.awaitBegin();
    transfer.awaitSleep();
    request.abort();
    EXPECT_EQ(transfer.end(), CURLE_ABORTED_BY_CALLBACK);
}

TEST(cURLRequestEnds, AbortWhileConnecting)
{
    const FullBacklog full;
    LocalRequest request(full.url());
    Transfer transfer(request);
    transfer.awaitSleep();
    request.abort();
    EXPECT_EQ(transfer.end(), CURLE_ABORTED_BY_CALLBACK);
}

TEST(cURLRequestEnds, AbortWhileTheServerNeverAnswers)
{
    LoopbackListener silent;
    LocalRequest request("http://127.0.0.1:" + silent.port() + "/");
    Transfer transfer(request);
    silent.waitForConnection();
    transfer.awaitSleep();
    request.abort();
    EXPECT_EQ(transfer.end(), CURLE_ABORTED_BY_CALLBACK);
}

TEST(cURLRequestEnds, AbortAmidTheHeaders)
{
    ScriptedServer server(falteringAfter("HTTP/1.1 200 OK\r\nContent-Le"));
    LocalRequest request(server.url());
    std::promise<void> taken;
    request.setHeaderCallback(takingOnce(taken));
    Transfer transfer(request);
    taken.get_future().wait();
    transfer.awaitSleep();
    request.abort();
    EXPECT_EQ(transfer.end(), CURLE_ABORTED_BY_CALLBACK);
}

TEST(cURLRequestEnds, AbortAmidTheBody)
{
    ScriptedServer server(falteringAfter(partOfBody));
    LocalRequest request(server.url());
    std::promise<void> taken;
    request.setWriteCallback(takingOnce(taken));
    Transfer transfer(request);
    taken.get_future().wait();
    transfer.awaitSleep();
    request.abort();
    EXPECT_EQ(transfer.end(), CURLE_ABORTED_BY_CALLBACK);
}

TEST(cURLRequestEnds, AbortWhileTheWriteCallbackBlocksCountsOnceItIsLetGo)
{
    ScriptedServer server(falteringAfter(partOfBody));
    LocalRequest request(server.url());
    std::promise<void> inside;
    std::promise<void> letGo;
    request.setWriteCallback([&](void*, unsigned long size, unsigned long count) {
        inside.set_value();
        letGo.get_future().wait();
        return size * count;
    });
    Transfer transfer(request);
    inside.get_future().wait();
    request.abort();
    EXPECT_FALSE(transfer.ended());
    letGo.set_value();
    EXPECT_EQ(transfer.end(), CURLE_ABORTED_BY_CALLBACK);
}

TEST(cURLRequestEnds, AbortFromTheWriteCallback)
{
    ScriptedServer server(falteringAfter(partOfBody));
    LocalRequest request(server.url());
    request.setWriteCallback([&](void*, unsigned long size, unsigned long count) {
        request.abort();
        return size * count;
    });
    EXPECT_EQ(performed(request), CURLE_ABORTED_BY_CALLBACK);
}

TEST(cURLRequestEnds, AbortBeforeTheTransferKeepsItFromConnecting)
{
    ScriptedServer server(falteringAfter(""));
    LocalRequest request(server.url());
    request.abort();
    EXPECT_EQ(performed(request), CURLE_ABORTED_BY_CALLBACK);
    EXPECT_EQ(performed(request), CURLE_ABORTED_BY_CALLBACK);
    EXPECT_EQ(server.connectionsAccepted(), 0U);
}

TEST(cURLRequestEnds, AbortBeforeTheTransferKeepsItFromLookingTheNameUp)
{
    const EndlessLookUp lookUp("never.invalid");
    LocalRequest request("http://never.invalid/");
    request.abort();
    EXPECT_EQ(performed(request), CURLE_ABORTED_BY_CALLBACK);
    EXPECT_FALSE(lookUp.begun());
}

TEST(cURLRequestEnds, AbortAtAnyMomentEndsTheTransfer)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginChunks(200, {});
        while (connection.chunk("more and more")) {
        }
    });
    for (int round = 0; round < 50; ++round) {
        const std::size_t before = server.connectionsAccepted();
        LocalRequest request(server.url());
        request.setEmptyWriteCallback();
        Transfer transfer(request);
        if (round % 2 != 0) { // otherwise often before it connects
            server.waitForConnections(before + 1);
        }
        request.abort();
        EXPECT_EQ(transfer.end(), CURLE_ABORTED_BY_CALLBACK);
    }
}

TEST(cURLRequestEnds, SilentBodyEndsByReadTimeoutWithTheInfoLine)
{
    LogCapture log;
    ScriptedServer server(falteringAfter(partOfBody));
    LocalRequest request(server.url());
    CStdStr<char> text;
    request.setWriteCallback(request.getStringWriter(text));
    request.setReadTimeout(150);
    const unsigned long long before = zel::uptimeMs();
    EXPECT_EQ(performed(request), CURLE_ABORTED_BY_CALLBACK);
    EXPECT_GE(zel::uptimeMs() - before, 150U);
    EXPECT_EQ(text, "12345");
    EXPECT_EQ(log.count("cURL::Request read timeout after 150ms"), 1);
    for (const LogCapture::Line& line : log.lines()) {
        EXPECT_EQ(line.level, LOGLEVEL_INFO) << line.text;
    }
}

TEST(cURLRequestEnds, ServerThatNeverAnswersEndsByReadTimeout)
{
    LogCapture log;
    LoopbackListener silent;
    LocalRequest request("http://127.0.0.1:" + silent.port() + "/");
    request.setReadTimeout(100);
    EXPECT_EQ(performed(request), CURLE_ABORTED_BY_CALLBACK);
    EXPECT_EQ(log.count("cURL::Request read timeout after 100ms"), 1);
}

TEST(cURLRequestEnds, ReadTimeoutCountsAnewForEachTransfer)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.respond(200, {}, "12345");
    });
    LocalRequest request(server.url());
    request.setEmptyWriteCallback();
    request.setReadTimeout(500);
    EXPECT_EQ(performed(request), CURLE_OK);
    letTimePass(700);
    EXPECT_EQ(performed(request), CURLE_OK);
}

TEST(cURLRequestEnds, NoPollIsLongerThanTheReadTimeoutNorBusy)
{
    ScriptedServer server(falteringAfter(partOfBody));
    LocalRequest request(server.url());
    request.setEmptyWriteCallback();
    request.setReadTimeout(70);
    const RecordedPolls polls;
    EXPECT_EQ(performed(request), CURLE_ABORTED_BY_CALLBACK);
    ASSERT_FALSE(polls.timeoutsMs().empty());
    for (const int timeoutMs : polls.timeoutsMs()) {
        EXPECT_GE(timeoutMs, 1);
        EXPECT_LE(timeoutMs, 70);
    }
}

TEST(cURLRequestEnds, PollsLastASecondWithoutAReadTimeoutAndWithALongOne)
{
    for (const unsigned timeoutMs : {0U, 3000000000U}) {
        ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
            connection.respond(200, {}, "12345");
        });
        LocalRequest request(server.url());
        request.setEmptyWriteCallback();
        request.setReadTimeout(timeoutMs);
        const RecordedPolls polls;
        EXPECT_EQ(performed(request), CURLE_OK);
        for (const int ms : polls.timeoutsMs()) {
            EXPECT_EQ(ms, 1000);
        }
    }
}

TEST(cURLRequestEnds, SlowButSteadyBodyNeverTripsTheReadTimeout)
{
    constexpr int gapMs = 400;
    constexpr int pieces = 8;
    constexpr unsigned timeoutMs = 2500; // less than all gaps, and far more than one
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {}, pieces);
        for (int piece = 0; piece < pieces; ++piece) {
            letTimePass(gapMs);
            connection.send("x");
        }
    });
    LocalRequest request(server.url());
    request.setEmptyWriteCallback();
    request.setReadTimeout(timeoutMs);
    const unsigned long long before = zel::uptimeMs();
    EXPECT_EQ(performed(request), CURLE_OK);
    EXPECT_GT(zel::uptimeMs() - before, timeoutMs);
}

TEST(cURLRequestEnds, TimeInTheWriteCallbackDoesNotCountAsSilence)
{
    LogCapture log;
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {}, 2);
        connection.send("1");
        connection.waitForMark("taken");
        connection.send("2");
    });
    LocalRequest request(server.url());
    request.setReadTimeout(800);
    request.setWriteCallback([&](void*, unsigned long size, unsigned long count) {
        letTimePass(1000);
        server.mark("taken");
        return size * count;
    });
    EXPECT_EQ(performed(request), CURLE_OK);
    EXPECT_EQ(log.count("read timeout"), 0);
}

TEST(cURLRequestEnds, ConnectionThatNeverComesAboutEndsByConnectTimeout)
{
    const FullBacklog full;
    LocalRequest request(full.url());
    request.setConnectTimeout(100);
    EXPECT_EQ(performed(request), CURLE_OPERATION_TIMEDOUT);
}

TEST(cURLRequestEnds, ServerThatGoesAwayAmidTheBodyIsAFailure)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {}, 10);
        connection.send("12345");
        connection.close();
    });
    LocalRequest request(server.url());
    request.setEmptyWriteCallback();
    EXPECT_EQ(performed(request), CURLE_PARTIAL_FILE);
}

TEST(cURLRequestEnds, ManyRequestsBeginAndEndAtOnce)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.respond(200, {}, "12345");
    });
    std::vector<std::unique_ptr<WatchedThread>> threads;
    std::atomic<int> good{0};
    for (int i = 0; i < 8; ++i) {
        threads.push_back(std::make_unique<WatchedThread>([&] {
            LocalRequest request(server.url());
            request.setEmptyWriteCallback();
            good += performed(request) == CURLE_OK ? 1 : 0;
        }));
    }
    threads.clear();
    EXPECT_EQ(good, 8);
}
