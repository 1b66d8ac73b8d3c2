#include "network/HTTPClient.h"

#include "tests/support/LogCapture.h"
#include "tests/support/PositionBytes.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/ServedContent.h"
#include "tests/support/WatchedThread.h"

#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <vector>

namespace {

using zel::HTTPClient;
using zel::test::LogCapture;
using zel::test::positionContent;
using zel::test::ScriptedServer;
using zel::test::serveBytes;
using zel::test::ServeOptions;
using zel::test::ServerConnection;
using zel::test::ServerRequest;
using zel::test::ServerScript;
using zel::test::WatchedThread;
namespace positionBytes = zel::test::positionBytes;

constexpr unsigned KiB = 1024;
constexpr unsigned MiB = 1024 * 1024;
constexpr int sizeQuery = 0x10000;
constexpr int noLimit = 0;

class KeptError : public zel::streamer::Error
{
public:
    void setCode(int value) override { code = value; }
    void setMessage(const char* text) override { message = text; }

    int code = 0;
    std::string message;
};

/// The connection events of a client, in their order.
class Events
{
public:
    explicit Events(HTTPClient& client)
    {
        client.m_connectionEventData = this;
        client.m_connectionEventCallback = &Events::happened;
    }

    std::vector<int> all() const
    {
        const std::lock_guard guard(m_mutex);
        return m_events;
    }
    void await(std::size_t count)
    {
        std::unique_lock guard(m_mutex);
        m_changed.wait(guard, [&] { return m_events.size() >= count; });
    }

private:
    static void happened(zel::ConnectionEvent::ConnectionEvent event, void* data)
    {
        auto* events = static_cast<Events*>(data);
        const std::lock_guard guard(events->m_mutex);
        events->m_events.push_back(event);
        events->m_changed.notify_all();
    }

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<int> m_events;
};

/// Reads exactly this many bytes and says where they are from; fails the test otherwise.
void expectBytes(HTTPClient& client, unsigned long long offset, unsigned size)
{
    std::string bytes(size, '\x5a');
    ASSERT_EQ(client.read(bytes.data(), size, noLimit), static_cast<int>(size));
    EXPECT_EQ(positionBytes::firstWrong(offset, bytes.data(), size), std::nullopt);
}

/// Sends the first bytes of a long content at once, and goes on when the test says "go".
ServerScript serveInTwoParts(unsigned long long first, unsigned long long size,
                             const zel::test::ServerHeaders& headers)
{
    return [=](const ServerRequest& request, ServerConnection& connection) {
        unsigned long long begin = 0;
        if (const auto range = zel::test::parseRange(request.header("Range"), size)) {
            begin = range->first;
            connection.beginBody(206, headers, size - begin);
        } else {
            connection.beginBody(200, headers, size);
        }
        for (unsigned long long offset = begin; offset < size;) {
            const unsigned long long end = offset < first && begin == 0 ? first : size;
            const auto length =
                static_cast<std::size_t>(std::min<unsigned long long>(end - offset, 65536));
            if (begin == 0 && offset == first) {
                connection.mark("first part sent");
                if (!connection.waitForMark("go")) {
                    return;
                }
            }
            if (!connection.send(positionBytes::make(offset, length))) {
                return;
            }
            offset += length;
        }
    };
}

const zel::test::ServerHeaders withRanges = {{"Accept-Ranges", "bytes"}};

void awaitBuffered(HTTPClient& client, unsigned long long bytes)
{
    while (client.getByteAvailableToReadInBuffer() < bytes) {
        std::this_thread::yield();
    }
}

// -------------------------------------------------------------------------------------------------

TEST(HTTPClient, ReadsTheResourceAndThenItsRest)
{
    ScriptedServer server(serveBytes(positionContent(100000)));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url("/x"), nullptr));
    EXPECT_EQ(client.getContentLength(), 100000U);
    EXPECT_EQ(client.getUrl(), server.url("/x"));
    EXPECT_TRUE(client.canSeek());
    expectBytes(client, 0, 60000);
    std::string rest(60000, '\x5a');
    EXPECT_EQ(client.read(rest.data(), rest.size(), noLimit), 40000);
    EXPECT_EQ(positionBytes::firstWrong(60000, rest.data(), 40000), std::nullopt);
    EXPECT_EQ(rest.substr(40000), std::string(20000, '\0')) << "what was not filled is cleared";
    EXPECT_EQ(client.read(rest.data(), rest.size(), noLimit), 0);
    EXPECT_EQ(server.requests().at(0).header("User-Agent"), "Mozilla/4.0");
}

TEST(HTTPClient, ReadThatTimesOutLeavesWhatIsThere)
{
    ScriptedServer server(serveInTwoParts(100, 200, {}));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    awaitBuffered(client, 100);
    std::string bytes(200, '\x5a');
    EXPECT_EQ(client.read(bytes.data(), 200, 1), 0);
    server.mark("go");
    expectBytes(client, 0, 200);
}

TEST(HTTPClient, RefusedOpenSaysTheStatus)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.respond(403, {}, "no");
    });
    LogCapture log;
    HTTPClient client(MiB, 256 * KiB);
    KeptError error;
    EXPECT_FALSE(client.open(server.url(), &error));
    EXPECT_EQ(error.code, 2);
    EXPECT_EQ(error.message, "HTTP: Server error 403");
    EXPECT_TRUE(log.contains("HTTPClient::open: server error 2"));
    EXPECT_FALSE(client.open(server.url(), nullptr));
}

TEST(HTTPClient, OpensAgainAfterARefusalWithoutItsBody)
{
    ScriptedServer server([](const ServerRequest& request, ServerConnection& connection) {
        if (request.target == "/no") {
            connection.respond(403, {}, "not these bytes");
        } else {
            serveBytes(positionContent(1000))(request, connection);
        }
    });
    HTTPClient client(MiB, 256 * KiB);
    EXPECT_FALSE(client.open(server.url("/no"), nullptr));
    ASSERT_TRUE(client.open(server.url("/yes"), nullptr));
    expectBytes(client, 0, 1000);
}

TEST(HTTPClient, OpensAnotherResourceWhileTheFirstStillFillsTheRing)
{
    ScriptedServer server(serveBytes(positionContent(64 * MiB)));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url("/1"), nullptr));
    expectBytes(client, 0, 300 * KiB);
    ASSERT_TRUE(client.open(server.url("/2"), nullptr));
    expectBytes(client, 0, 300 * KiB);
}

TEST(HTTPClient, RedirectGivesTheFinalUrl)
{
    ScriptedServer server([](const ServerRequest& request, ServerConnection& connection) {
        if (request.target == "/final") {
            connection.respond(200, {{"Content-Type", "audio/x"}}, "body");
        } else {
            connection.respond(301, {{"Location", "/final"}}, "");
        }
    });
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url("/first"), nullptr));
    EXPECT_EQ(client.getUrl(), server.url("/final"));
    EXPECT_EQ(client.getContentType(), "audio/x");
}

TEST(HTTPClient, TakesTheStreamHeaders)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.respond(200,
                           {{"Zel-Stream-Duration", "1234"},
                            {"Zel-Stream-ID", "77"},
                            {"Zel-Force-Extension", "FLV"},
                            {"Zel-Streaming", "transcoded"}},
                           "body");
    });
    LogCapture log;
    HTTPClient client(MiB, 256 * KiB);
    EXPECT_EQ(client.getStreamDuration(), -1);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_EQ(client.getStreamDuration(), 1234);
    EXPECT_EQ(client.getStreamID(), 77);
    EXPECT_EQ(client.getCustomExtension(), "flv");
    EXPECT_TRUE(client.isZelTranscoding());
    EXPECT_TRUE(log.contains("HTTPClient::open : Zel Streaming header transcoded"));
    client.setStreamDuration(5);
    EXPECT_EQ(client.getStreamDuration(), 5);
}

TEST(HTTPClient, StreamDurationOfZeroMeansUnknown)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.respond(200, {{"Zel-Stream-Duration", "0"}}, "body");
    });
    HTTPClient client(MiB, 256 * KiB);
    client.setStreamDuration(9);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_EQ(client.getStreamDuration(), -1);
    EXPECT_EQ(client.getStreamID(), 0);
    EXPECT_EQ(client.getCustomExtension(), "");
    EXPECT_FALSE(client.isZelTranscoding());
}

TEST(HTTPClient, DirectInUpperCaseCountsAsDirect)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.respond(200, {{"Zel-Streaming", "DIRECT"}}, "body");
    });
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_FALSE(client.isZelTranscoding());
}

TEST(HTTPClient, FullRingHoldsTheServer)
{
    zel::test::ServerOptions options;
    options.sendBuffer = 65536;
    ScriptedServer server(serveBytes(positionContent(1ULL << 40)), options);
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    awaitBuffered(client, 768 * KiB - 1);
    unsigned percent = 0;
    ASSERT_TRUE(client.getBufferStatus(percent));
    EXPECT_EQ(percent, 99U) << "one byte tells a full ring from an empty one";
    expectBytes(client, 0, 512 * KiB);
    expectBytes(client, 512 * KiB, 4 * MiB);
    EXPECT_LT(server.bytesTaken(), 64U * MiB) << "the kernel holds some, but not a terabyte";
}

TEST(HTTPClient, ReadsMoreAtOnceThanTheRingHolds)
{
    ScriptedServer server(serveBytes(positionContent(10 * MiB)));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    expectBytes(client, 0, 7 * MiB);
    std::string rest(7 * MiB, ' ');
    EXPECT_EQ(client.read(rest.data(), rest.size(), noLimit), static_cast<int>(3 * MiB));
    EXPECT_EQ(positionBytes::firstWrong(7 * MiB, rest.data(), 3 * MiB), std::nullopt);
}

TEST(HTTPClient, EndOfTransferIsAnEventWithItsData)
{
    ScriptedServer server(serveInTwoParts(1000, 2000, {}));
    HTTPClient client(MiB, 256 * KiB);
    Events events(client);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_TRUE(events.all().empty());
    server.mark("go");
    events.await(1);
    EXPECT_EQ(events.all(), std::vector<int>{zel::ConnectionEvent::END_OF_FILE_RECEIVED});
    unsigned percent = 0;
    EXPECT_FALSE(client.getBufferStatus(percent)) << "at the end the level says nothing";
    expectBytes(client, 0, 2000);
}

TEST(HTTPClient, BrokenTransferLooksLikeAnEnd)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {}, 100000);
        connection.send(positionBytes::make(0, 500));
        connection.close();
    });
    HTTPClient client(MiB, 256 * KiB);
    Events events(client);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    std::string bytes(1000, ' ');
    EXPECT_EQ(client.read(bytes.data(), 1000, noLimit), 500);
    EXPECT_EQ(client.read(bytes.data(), 1000, noLimit), 0);
    events.await(1);
    EXPECT_EQ(events.all().front(), zel::ConnectionEvent::END_OF_FILE_RECEIVED);
}

TEST(HTTPClient, CloseIsNoEvent)
{
    ScriptedServer server(serveInTwoParts(1000, 2000, {}));
    HTTPClient client(MiB, 256 * KiB);
    Events events(client);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.close();
    server.mark("go");
    server.waitUntilIdle();
    EXPECT_TRUE(events.all().empty());
}

TEST(HTTPClient, EverythingRefusesAfterClose)
{
    ScriptedServer server(serveBytes(positionContent(1000)));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_TRUE(client.close());
    EXPECT_TRUE(client.close());
    char byte = 0;
    unsigned char written = 0;
    unsigned percent = 0;
    EXPECT_EQ(client.read(&byte, 1, noLimit), -1);
    EXPECT_EQ(client.write(&written, 1), -1);
    EXPECT_EQ(client.seek(0, SEEK_SET, -1), -1);
    EXPECT_EQ(client.seek(0, sizeQuery, -1), -1);
    EXPECT_FALSE(client.getBufferStatus(percent));
    EXPECT_EQ(client.getByteAvailableToReadInBuffer(), 0U);
    EXPECT_EQ(client.getCurrentBufferReadPosition(), 0U);
    EXPECT_FALSE(client.canSeek());
    client.preventSeeking();
    EXPECT_FALSE(client.open(server.url(), nullptr));
}

TEST(HTTPClient, CallsBeforeOpenAreHarmless)
{
    HTTPClient client(MiB, 256 * KiB);
    EXPECT_EQ(client.seek(0, SEEK_SET, -1), -1);
    EXPECT_FALSE(client.canSeek());
    client.preventSeeking();
    client.endOfFileCallback();
    char byte = 0;
    EXPECT_EQ(client.read(&byte, 1, noLimit), 0) << "the end has been told";
}

TEST(HTTPClient, CloseInsideTheEventCallbackReturns)
{
    ScriptedServer server(serveInTwoParts(1000, 2000, {}));
    HTTPClient client(MiB, 256 * KiB);
    struct Call
    {
        HTTPClient& client;
        std::mutex mutex;
        std::condition_variable changed;
        bool closed = false;
    } call{client, {}, {}, false};
    client.m_connectionEventData = &call;
    client.m_connectionEventCallback = [](zel::ConnectionEvent::ConnectionEvent, void* data) {
        auto* called = static_cast<Call*>(data);
        called->client.close();
        const std::lock_guard guard(called->mutex);
        called->closed = true;
        called->changed.notify_all();
    };
    ASSERT_TRUE(client.open(server.url(), nullptr));
    server.mark("go");
    std::unique_lock guard(call.mutex);
    call.changed.wait(guard, [&] { return call.closed; });
    char byte = 0;
    EXPECT_EQ(client.read(&byte, 1, noLimit), -1);
}

TEST(HTTPClient, DataReadyCallbackTakesTheBodyInPlaceOfTheRing)
{
    ScriptedServer server(serveInTwoParts(1000, 2000, {}));
    HTTPClient client(MiB, 256 * KiB);
    std::mutex mutex;
    std::condition_variable changed;
    std::string body;
    client.setDataReadyCallback([&](unsigned char* data, unsigned long long size) {
        const std::lock_guard guard(mutex);
        body.append(reinterpret_cast<char*>(data), size);
        changed.notify_all();
        return static_cast<long long>(size);
    });
    ASSERT_TRUE(client.open(server.url(), nullptr));
    {
        std::unique_lock guard(mutex);
        changed.wait(guard, [&] { return body.size() >= 1000; });
        EXPECT_EQ(body, positionBytes::make(0, 1000));
    }
    EXPECT_EQ(client.getByteAvailableToReadInBuffer(), 0U);
    char byte = 0;
    EXPECT_EQ(client.read(&byte, 1, 1), 0);
}

TEST(HTTPClient, StatusLinesStandInTheDebugLog)
{
    LogCapture log;
    ScriptedServer server(serveInTwoParts(MiB / 2, MiB, {}));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    awaitBuffered(client, MiB / 2);
    EXPECT_EQ(log.count("HTTPClient:: data received"), 1);
    EXPECT_EQ(log.count("HTTPClient : buffer size "), 1) << "not one for each piece";
    EXPECT_TRUE(log.contains("% full), total downloaded: "));
}

// -------------------------------------------------------------------------------------------------

TEST(HTTPClientSeek, SizeQueryAnswersTheLengthAndMovesNothing)
{
    ScriptedServer server(serveBytes(positionContent(5000)));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    expectBytes(client, 0, 100);
    EXPECT_EQ(client.seek(0, sizeQuery, -1), 5000);
    expectBytes(client, 100, 100);
}

TEST(HTTPClientSeek, SizeQueryAnswersZeroWhenTheLengthIsUnknown)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginChunks(200, {});
        connection.chunk("body");
        connection.endChunks();
    });
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_EQ(client.seek(0, sizeQuery, -1), 0);
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST(HTTPClientSeek, FromTheEndIsARequestForTheAbsoluteOffset)
{
    ScriptedServer server(serveBytes(positionContent(5000)));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    awaitBuffered(client, 5000);
    EXPECT_EQ(client.seek(1000, SEEK_END, -1), 1000);
    EXPECT_EQ(server.requests().at(1).header("Range"), "bytes=1000-4999");
    expectBytes(client, 1000, 4000);
}

TEST(HTTPClientSeek, BackwardsStaysInTheHistory)
{
    ScriptedServer server(serveBytes(positionContent(8 * MiB)));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    expectBytes(client, 0, 3 * MiB);
    EXPECT_EQ(client.seek(-200 * static_cast<int>(KiB), SEEK_CUR, -1), 3 * MiB - 200 * KiB);
    expectBytes(client, 3 * MiB - 200 * KiB, 300 * KiB);
    EXPECT_EQ(server.requests().size(), 1U);
    EXPECT_EQ(client.seek(MiB, SEEK_SET, -1), MiB) << "behind the history only a request helps";
    EXPECT_EQ(server.requests().size(), 2U);
    expectBytes(client, MiB, 300 * KiB);
}

TEST(HTTPClientSeek, SlightlyAheadWaitsForTheBytes)
{
    ScriptedServer server(serveInTwoParts(10 * KiB, 4 * MiB, withRanges));
    HTTPClient client(8 * MiB, MiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    awaitBuffered(client, 10 * KiB);
    long long position = 0;
    WatchedThread seeker([&] { position = client.seek(510 * KiB, SEEK_SET, -1); });
    EXPECT_TRUE(seeker.awaitSleep());
    server.mark("go");
    seeker.join();
    EXPECT_EQ(position, 510 * KiB);
    expectBytes(client, 510 * KiB, 100 * KiB);
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST(HTTPClientSeek, AheadOfATransferThatEndsIsARequest)
{
    ScriptedServer server([](const ServerRequest& request, ServerConnection& connection) {
        if (request.hasHeader("Range")) {
            serveBytes(positionContent(4 * MiB))(request, connection);
            return;
        }
        connection.beginBody(200, withRanges, 4 * MiB);
        connection.send(positionBytes::make(0, 10 * KiB));
        connection.waitForMark("break");
        connection.close();
    });
    HTTPClient client(8 * MiB, MiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    awaitBuffered(client, 10 * KiB);
    long long position = 0;
    WatchedThread seeker([&] { position = client.seek(510 * KiB, SEEK_SET, -1); });
    EXPECT_TRUE(seeker.awaitSleep());
    server.mark("break");
    seeker.join();
    EXPECT_EQ(position, 510 * KiB);
    expectBytes(client, 510 * KiB, 100 * KiB);
    EXPECT_EQ(server.requests().size(), 2U);
}

TEST(HTTPClientSeek, FarAheadIsARequestAtOnce)
{
    ScriptedServer server(serveInTwoParts(10 * KiB, 8 * MiB, withRanges));
    HTTPClient client(8 * MiB, MiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    awaitBuffered(client, 10 * KiB);
    EXPECT_EQ(client.seek(10 * KiB + 2 * MiB, SEEK_SET, -1), 10 * KiB + 2 * MiB);
    EXPECT_EQ(server.requests().size(), 2U);
    expectBytes(client, 10 * KiB + 2 * MiB, MiB);
}

TEST(HTTPClientSeek, WithoutASeekableServerWaitsTenTimesAsFar)
{
    LogCapture log;
    ScriptedServer server(serveInTwoParts(10 * KiB, 20 * MiB, {}));
    HTTPClient client(12 * MiB, MiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    awaitBuffered(client, 10 * KiB);
    EXPECT_EQ(client.seek(10 * KiB + 11 * MiB, SEEK_SET, -1), -1);
    EXPECT_TRUE(log.contains("HTTPClient::seek : seek failed"));
    long long position = 0;
    WatchedThread seeker([&] { position = client.seek(10 * KiB + 5 * MiB, SEEK_SET, -1); });
    EXPECT_TRUE(seeker.awaitSleep());
    server.mark("go");
    seeker.join();
    EXPECT_EQ(position, 10 * KiB + 5 * MiB);
    expectBytes(client, 10 * KiB + 5 * MiB, MiB);
}

TEST(HTTPClientSeek, SlightlyAheadOfAFullRingIsARequest)
{
    ScriptedServer server(serveBytes(positionContent(64 * MiB)));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    awaitBuffered(client, 768 * KiB - 1);
    EXPECT_EQ(client.seek(MiB, SEEK_SET, -1), MiB);
    EXPECT_EQ(server.requests().size(), 2U);
    expectBytes(client, MiB, MiB);
}

TEST(HTTPClientSeek, WithoutASeekableServerPassesOverAFullRing)
{
    ServeOptions options;
    options.ranges = false;
    ScriptedServer server(serveBytes(positionContent(64 * MiB), options));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    awaitBuffered(client, 768 * KiB - 1);
    EXPECT_EQ(client.seek(5 * MiB, SEEK_SET, -1), 5 * MiB);
    EXPECT_EQ(server.requests().size(), 1U);
    expectBytes(client, 5 * MiB, MiB);
}

TEST(HTTPClientSeek, BehindTheEndOfAnUnseekableStreamFailsAndMovesNothing)
{
    ServeOptions options;
    options.ranges = false;
    ScriptedServer server(serveBytes(positionContent(2 * MiB), options));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_EQ(client.seek(5 * MiB, SEEK_SET, -1), -1);
    expectBytes(client, 0, MiB);
}

TEST(HTTPClientSeek, TranscodedStreamAsksTheServerForATimeEvenInsideTheRing)
{
    ServeOptions options;
    options.timeToOffset = [](long long seconds) {
        return static_cast<std::uint64_t>(seconds) * 100;
    };
    options.headers = {{"Zel-Streaming", "yes"}};
    ScriptedServer server(serveBytes(positionContent(100000), options));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    awaitBuffered(client, 100000);
    EXPECT_EQ(client.seek(5000, SEEK_SET, -1), 5000);
    EXPECT_EQ(server.requests().size(), 1U) << "bytes alone are found in the ring";
    EXPECT_EQ(client.seek(5000, SEEK_SET, 30000), 5000);
    ASSERT_EQ(server.requests().size(), 2U);
    EXPECT_EQ(server.requests().at(1).header("Zel-Seek"), "seconds=30");
}

TEST(HTTPClientSeek, DirectStreamIsServedByTheRingInSpiteOfATime)
{
    ServeOptions options;
    options.headers = {{"Zel-Streaming", "direct"}};
    ScriptedServer server(serveBytes(positionContent(100000), options));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    awaitBuffered(client, 100000);
    EXPECT_EQ(client.seek(5000, SEEK_SET, 30000), 5000);
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST(HTTPClientSeek, EndOfTheReplacedTransferIsNoEvent)
{
    ScriptedServer server(serveInTwoParts(10 * KiB, 64 * MiB, withRanges));
    HTTPClient client(8 * MiB, MiB);
    Events events(client);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(client.seek((i % 2 + 1) * 3 * MiB, SEEK_SET, -1), (i % 2 + 1) * 3 * MiB);
    }
    EXPECT_TRUE(events.all().empty());
}

TEST(HTTPClientSeek, PreventedSeekFailsOutsideTheRing)
{
    LogCapture log;
    ScriptedServer server(serveBytes(positionContent(64 * MiB)));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.preventSeeking();
    EXPECT_FALSE(client.canSeek());
    EXPECT_EQ(client.seek(40 * MiB, SEEK_SET, -1), -1);
    EXPECT_TRUE(log.contains("HTTPClient::seek : seek failed"));
    awaitBuffered(client, 10000);
    EXPECT_EQ(client.seek(10000, SEEK_SET, -1), 10000);
    expectBytes(client, 10000, 1000);
}

TEST(HTTPClientSeek, NegativeTargetFailsAndMovesNothing)
{
    ScriptedServer server(serveBytes(positionContent(100000)));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    expectBytes(client, 0, 1000);
    EXPECT_EQ(client.seek(-1, SEEK_SET, -1), -1);
    EXPECT_EQ(client.seek(-2000, SEEK_CUR, -1), -1);
    expectBytes(client, 1000, 1000);
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST(HTTPClientSeek, RefusedRequestLeavesAnEmptyEndedStreamThatCanSeekAgain)
{
    std::atomic<bool> refuse{true};
    ScriptedServer server([&](const ServerRequest& request, ServerConnection& connection) {
        if (request.hasHeader("Range") && refuse) {
            connection.respond(503, {}, "not these bytes");
            return;
        }
        serveBytes(positionContent(8 * MiB))(request, connection);
    });
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_EQ(client.seek(5 * MiB, SEEK_SET, -1), -1);
    char byte = 0;
    EXPECT_EQ(client.read(&byte, 1, noLimit), 0);
    refuse = false;
    EXPECT_EQ(client.seek(6 * MiB, SEEK_SET, -1), 6 * MiB);
    expectBytes(client, 6 * MiB, MiB);
}

TEST(HTTPClientSeek, BeyondFourGiBIsNeverWaitedFor)
{
    constexpr unsigned long long far = (5ULL << 30) + 12345;
    ScriptedServer server(serveBytes(positionContent(6ULL << 30)));
    HTTPClient client(MiB, 256 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_EQ(client.seek(far, SEEK_SET, -1), static_cast<long long>(far));
    expectBytes(client, far, 2 * MiB);
    EXPECT_EQ(client.seek(-100, SEEK_CUR, -1), static_cast<long long>(far + 2 * MiB - 100));
    EXPECT_EQ(server.requests().size(), 2U) << "what the ring holds is found there";
    const long long ahead = static_cast<long long>(far) + 4 * MiB;
    EXPECT_EQ(client.seek(ahead, SEEK_SET, -1), ahead);
    EXPECT_EQ(server.requests().size(), 3U);
    expectBytes(client, far + 4 * MiB, MiB);
}

TEST(HTTPClientSeek, ChunkLargerThanTheRingEndsWithTheReset)
{
    ScriptedServer server(serveBytes(positionContent(256 * MiB)));
    HTTPClient client(4000, 1000);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    for (int i = 1; i <= 50; ++i) {
        ASSERT_EQ(client.seek(i * 3 * MiB, SEEK_SET, -1), i * 3 * MiB);
        expectBytes(client, i * 3 * MiB, 2500);
    }
}

} // namespace
