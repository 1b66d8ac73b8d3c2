// close() ends everything, whatever is under way. Servers here go on saying nothing until the
// client goes away, and the client's own limits are days away: a close that waits for anything but
// itself does not come back.

#include "network/HTTPClient.h"

#include "tests/network/FullBacklog.h"
#include "tests/network/LibraryDetours.h"
#include "tests/network/PatientClient.h"
#include "tests/support/LoopbackListener.h"
#include "tests/support/PositionBytes.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/ServedContent.h"
#include "tests/support/Tasks.h"
#include "tests/support/WatchedThread.h"

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using namespace zel::test;

namespace {

constexpr unsigned KiB = 1024;
constexpr unsigned RingBytes = 64 * KiB;
constexpr unsigned HistoryBytes = 16 * KiB;
constexpr std::uint64_t ContentBytes = 1ULL << 30;
constexpr int Rounds = Sanitized ? 20 : 50;

const ServerHeaders WithRanges = {{"Accept-Ranges", "bytes"}};

using Random = std::mt19937_64;

std::uint64_t below(Random& random, std::uint64_t limit)
{
    return std::uniform_int_distribution<std::uint64_t>(0, limit - 1)(random);
}

/// Lets a little time pass, so that what follows comes at another moment in every round.
void dawdle(std::uint64_t steps)
{
    std::atomic<std::uint64_t> done{0};
    while (++done < steps) {
    }
}

/// One way of being busy when the close comes.
struct Scene
{
    /// On the test's thread, before the call.
    std::function<void(zel::HTTPClient&)> prepare = [](zel::HTTPClient&) {};
    /// What the close interrupts, on a thread of its own. Checks its own result.
    std::function<void(zel::HTTPClient&)> call = [](zel::HTTPClient&) {};
    /// Blocks until the call is where it can get no further.
    std::function<void(zel::HTTPClient&)> awaitStall = [](zel::HTTPClient&) {};
    /// Whether the call sleeps there.
    bool sleeps = true;
    /// Blocks until the other side knows that the client has gone.
    std::function<void()> awaitEnd = [] {};
};

/// Closes in the middle of the scene, in every other round anywhere before it, and proves that the
/// call ends and no thread stays.
void closeInEveryRound(const Scene& scene, int rounds = Rounds)
{
    const std::size_t tasks = taskCount();
    for (int round = 0; round < rounds; ++round) {
        PatientClient client(RingBytes, HistoryBytes);
        scene.prepare(client);
        WatchedThread caller([&] { scene.call(client); });
        if (round % 2 == 0) {
            scene.awaitStall(client);
            if (scene.sleeps) {
                caller.awaitSleep();
            }
        } else {
            dawdle(static_cast<std::uint64_t>(round) * 10000);
        }
        EXPECT_TRUE(client.close());
        caller.join();
        scene.awaitEnd();
        awaitTaskCount(tasks);
    }
}

void expectNoOpen(zel::HTTPClient& client, const std::string& url)
{
    EXPECT_FALSE(client.open(url, nullptr));
}

/// A server and the requests that it had before the present round.
class StallingServer
{
public:
    explicit StallingServer(ServerScript script) : m_server(std::move(script)) {}

    std::string url(const std::string& path = "/") const { return m_server.url(path); }
    /// Blocks until this many requests have come in this round.
    void awaitRequests(std::size_t count) const { m_server.waitForRequests(m_before + count); }
    void awaitEnd()
    {
        m_server.waitUntilIdle();
        m_before = m_server.requests().size();
    }

private:
    ScriptedServer m_server;
    std::size_t m_before = 0;
};

/// A scene in which opening gets stuck behind this many requests.
void closeWhileOpening(ServerScript script, std::size_t requests)
{
    StallingServer server(std::move(script));
    Scene scene;
    scene.call = [&](zel::HTTPClient& client) { expectNoOpen(client, server.url()); };
    scene.awaitStall = [&](zel::HTTPClient&) { server.awaitRequests(requests); };
    scene.awaitEnd = [&] { server.awaitEnd(); };
    closeInEveryRound(scene);
}

/// Sends some of a long body and then nothing any more; a range is not answered at all.
void sendSome(const ServerRequest& request, ServerConnection& connection)
{
    if (!request.hasHeader("Range")) {
        connection.beginBody(200, WithRanges, ContentBytes);
        connection.send(positionBytes::make(0, 1000));
    }
    connection.waitUntilPeerCloses();
}

void awaitBuffered(zel::HTTPClient& client, std::uint64_t bytes)
{
    while (client.getByteAvailableToReadInBuffer() < bytes) {
        std::this_thread::yield();
    }
}

/// A scene whose client has opened the server.
Scene openedScene(StallingServer& server)
{
    Scene scene;
    scene.prepare = [&](zel::HTTPClient& client) {
        ASSERT_TRUE(client.open(server.url(), nullptr));
    };
    scene.awaitEnd = [&] { server.awaitEnd(); };
    return scene;
}

} // namespace

// -------------------------------------------------------------------------------------------------
// While opening.

TEST(HTTPClientClose, EndsAnOpenWhoseServerIsSilent)
{
    closeWhileOpening([](const ServerRequest&,
                         ServerConnection& connection) { connection.waitUntilPeerCloses(); },
                      1);
}

TEST(HTTPClientClose, EndsAnOpenInTheMiddleOfTheHeaders)
{
    closeWhileOpening(
        [](const ServerRequest&, ServerConnection& connection) {
            connection.send("HTTP/1.1 200 OK\r\nContent-Type: video/mp4\r\nContent-Le");
            connection.waitUntilPeerCloses();
        },
        1);
}

TEST(HTTPClientClose, EndsAnOpenWhoseHeadersNeverEnd)
{
    closeWhileOpening(
        [](const ServerRequest&, ServerConnection& connection) {
            connection.send("HTTP/1.1 100 Continue\r\n\r\n");
            while (connection.send("HTTP/1.1 103 Early Hints\r\nLink: </x>\r\n\r\n")) {
                std::this_thread::yield();
            }
        },
        1);
}

TEST(HTTPClientClose, EndsAnOpenWhileARedirectIsUnderWay)
{
    closeWhileOpening(
        [](const ServerRequest& request, ServerConnection& connection) {
            if (request.target == "/") {
                connection.respond(302, {{"Location", "/next"}}, "moved");
            } else {
                connection.waitUntilPeerCloses();
            }
        },
        2);
}

TEST(HTTPClientClose, EndsAnOpenWhoseRedirectNeverEnds)
{
    closeWhileOpening(
        [](const ServerRequest&, ServerConnection& connection) {
            connection.beginBody(302, {{"Location", "/next"}}, 1000);
            connection.send("some of it");
            connection.waitUntilPeerCloses();
        },
        1);
}

TEST(HTTPClientClose, EndsAnOpenWhoseRefusalNeverEnds)
{
    // The open may be back before the close.
    closeWhileOpening(
        [](const ServerRequest&, ServerConnection& connection) {
            connection.beginBody(404, {}, 1000);
            connection.send("some of it");
            connection.waitUntilPeerCloses();
        },
        1);
}

TEST(HTTPClientClose, EndsAnOpenWhileTheNameResolves)
{
    const std::string name = "stalled.invalid";
    const std::size_t tasks = taskCount();
    for (int round = 0; round < Rounds; ++round) {
        {
            const EndlessLookUp lookUp(name);
            PatientClient client(RingBytes, HistoryBytes);
            WatchedThread caller([&] { expectNoOpen(client, "http://" + name + "/"); });
            const bool inTheMiddle = round % 2 == 0;
            if (inTheMiddle) {
                lookUp.awaitBegin();
                caller.awaitSleep();
            } else {
                dawdle(static_cast<std::uint64_t>(round) * 10000);
            }
            EXPECT_TRUE(client.close());
            caller.join();
            EXPECT_TRUE(lookUp.begun() || !inTheMiddle) << "the close waited for it";
        }
        awaitTaskCount(tasks);
    }
}

TEST(HTTPClientClose, EndsAnOpenWithinTheTlsHandshake)
{
    for (int round = 0; round < 5; ++round) {
        const std::size_t tasks = taskCount();
        {
            LoopbackListener listener; // keeps its connections until its own end
            Scene scene;
            scene.call = [&](zel::HTTPClient& client) {
                expectNoOpen(client, "https://127.0.0.1:" + listener.port() + "/");
            };
            scene.awaitStall = [&](zel::HTTPClient&) { listener.waitForConnection(); };
            closeInEveryRound(scene, 6);
        }
        awaitTaskCount(tasks);
    }
}

TEST(HTTPClientClose, EndsAnOpenThatCannotConnect)
{
    const FullBacklog backlog;
    Scene scene;
    scene.call = [&](zel::HTTPClient& client) { expectNoOpen(client, backlog.url()); };
    closeInEveryRound(scene);
}

// -------------------------------------------------------------------------------------------------
// With the stream open.

TEST(HTTPClientClose, EndsATransferThatFillsTheRing)
{
    StallingServer server(serveBytes(positionContent(ContentBytes)));
    Scene scene = openedScene(server);
    scene.awaitStall = [](zel::HTTPClient& client) {
        awaitBuffered(client, RingBytes - HistoryBytes - 1);
    };
    closeInEveryRound(scene);
}

TEST(HTTPClientClose, EndsATransferThatIsRead)
{
    StallingServer server(serveBytes(positionContent(ContentBytes)));
    Scene scene = openedScene(server);
    std::atomic<std::uint64_t> taken{0};
    scene.call = [&](zel::HTTPClient& client) {
        std::string bytes(5000, '\0');
        int count = 0;
        std::uint64_t position = 0;
        while ((count = client.read(bytes.data(), bytes.size(), NoLimit)) > 0) {
            const auto got = static_cast<std::size_t>(count);
            EXPECT_EQ(positionBytes::firstWrong(position, bytes.data(), got), std::nullopt);
            position += got;
            taken = position;
        }
        EXPECT_EQ(count, -1);
        taken = 0;
    };
    scene.sleeps = false;
    scene.awaitStall = [&](zel::HTTPClient&) {
        while (taken < 3 * RingBytes) {
            std::this_thread::yield();
        }
    };
    closeInEveryRound(scene);
}

TEST(HTTPClientClose, EndsABlockedRead)
{
    StallingServer server(sendSome);
    Scene scene = openedScene(server);
    scene.call = [](zel::HTTPClient& client) {
        std::string bytes(5000, '\0');
        EXPECT_EQ(client.read(bytes.data(), bytes.size(), NoLimit), -1);
    };
    closeInEveryRound(scene);
}

TEST(HTTPClientClose, EndsASeekThatWaitsForTheBytes)
{
    StallingServer server(sendSome);
    Scene scene = openedScene(server);
    scene.call = [](zel::HTTPClient& client) { EXPECT_EQ(client.seek(30000, SEEK_SET, -1), -1); };
    closeInEveryRound(scene);
}

TEST(HTTPClientClose, EndsASeekThatWaitsForTheHeaders)
{
    StallingServer server(sendSome);
    Scene scene = openedScene(server);
    scene.call = [](zel::HTTPClient& client) {
        EXPECT_EQ(client.seek(ContentBytes / 2, SEEK_SET, -1), -1);
    };
    scene.awaitStall = [&](zel::HTTPClient&) { server.awaitRequests(2); };
    closeInEveryRound(scene);
}

/// The old transfer sleeps in a full ring when the seek comes, and the new one has no room either.
TEST(HTTPClientClose, EndsSeeksAmongFullRings)
{
    StallingServer server(serveBytes(positionContent(ContentBytes)));
    Scene scene = openedScene(server);
    scene.call = [](zel::HTTPClient& client) {
        std::string bytes(1000, '\0');
        for (std::uint64_t i = 1;; ++i) {
            const std::uint64_t target = (i * 7654321 * 11) % (ContentBytes - 2000);
            const auto offset = static_cast<long long>(target);
            if (client.seek(offset, SEEK_SET, -1) != offset) {
                return;
            }
            const int count = client.read(bytes.data(), bytes.size(), NoLimit);
            if (count < 0) {
                return;
            }
            ASSERT_EQ(count, 1000);
            ASSERT_EQ(positionBytes::firstWrong(target, bytes.data(), bytes.size()), std::nullopt);
        }
    };
    Random random(3);
    scene.awaitStall = [&](zel::HTTPClient&) {
        server.awaitRequests(2 + below(random, Sanitized ? 4 : 20));
    };
    scene.sleeps = false;
    closeInEveryRound(scene);
}

TEST(HTTPClientClose, SeveralAtOnceAreOne)
{
    StallingServer server(sendSome);
    const std::size_t tasks = taskCount();
    for (int round = 0; round < Rounds; ++round) {
        auto client = std::make_unique<PatientClient>(RingBytes, HistoryBytes);
        ASSERT_TRUE(client->open(server.url(), nullptr));
        WatchedThread reader([&] {
            std::string bytes(5000, '\0');
            EXPECT_EQ(client->read(bytes.data(), bytes.size(), NoLimit), -1);
        });
        if (round % 2 == 0) {
            reader.awaitSleep();
        }
        {
            std::vector<std::unique_ptr<WatchedThread>> closers;
            for (int i = 0; i < 3; ++i) {
                closers.push_back(std::make_unique<WatchedThread>([&] {
                    EXPECT_TRUE(client->close());
                    EXPECT_TRUE(client->close());
                }));
            }
        }
        reader.join();
        client.reset();
        server.awaitEnd();
        awaitTaskCount(tasks);
    }
}

TEST(HTTPClientClose, TheDestructorAloneEndsATransfer)
{
    StallingServer server(serveBytes(positionContent(ContentBytes)));
    const std::size_t tasks = taskCount();
    for (int round = 0; round < Rounds; ++round) {
        {
            PatientClient client(RingBytes, HistoryBytes);
            ASSERT_TRUE(client.open(server.url(), nullptr));
            if (round % 2 == 0) {
                awaitBuffered(client, RingBytes - HistoryBytes - 1);
            }
        }
        server.awaitEnd();
        awaitTaskCount(tasks);
    }
}

// -------------------------------------------------------------------------------------------------
// All at once.

namespace {

/// Answers as the path says: some serve, some say nothing, some break off.
void answerAnyhow(const ServerRequest& request, ServerConnection& connection)
{
    static const ServerScript Serve = serveBytes(positionContent(ContentBytes));
    if (request.target == "/serve") {
        Serve(request, connection);
    } else if (request.target == "/refuse") {
        connection.respond(404, {}, std::string(5000, 'x'));
    } else if (request.target == "/redirect") {
        connection.respond(302, {{"Location", "/serve"}}, "");
    } else if (request.target == "/break") {
        connection.beginBody(200, WithRanges, ContentBytes);
        connection.send(positionBytes::make(0, 20000));
        connection.reset();
    } else {
        connection.waitUntilPeerCloses();
    }
}

/// Calls what any thread may call until the client is closed, and a little longer.
void askEverything(zel::HTTPClient& client, const std::atomic<bool>& closed)
{
    for (bool last = false; !last; std::this_thread::yield()) {
        last = closed;
        unsigned percent = 0;
        client.getBufferStatus(percent);
        EXPECT_LE(percent, 100U);
        EXPECT_LT(client.getByteAvailableToReadInBuffer(), RingBytes);
        EXPECT_LE(client.getCurrentBufferReadPosition(), RingBytes);
        client.canSeek();
        client.getContentLength();
        client.getContentType();
        client.getCustomExtension();
        client.getStreamDuration();
        client.getStreamID();
        client.isZelTranscoding();
        client.getUrl();
    }
}

/// A demuxer that moves about. With `check`, nobody else moves the stream, and every byte has to
/// be that of its place.
void readAndSeek(zel::HTTPClient& client, Random random, bool check,
                 const std::atomic<bool>& closed)
{
    std::optional<std::uint64_t> position;
    std::string bytes(20000, '\0');
    for (bool last = false; !last;) {
        last = closed;
        const std::uint64_t choice = below(random, 10);
        if (choice < 6) {
            const std::size_t size = 1 + below(random, bytes.size());
            const int count =
                client.read(bytes.data(), size, static_cast<int>(1 + below(random, 20)));
            ASSERT_LE(count, static_cast<int>(size));
            if (count > 0 && check && position) {
                const auto got = static_cast<std::size_t>(count);
                ASSERT_EQ(positionBytes::firstWrong(*position, bytes.data(), got), std::nullopt);
                *position += got;
            }
            continue;
        }
        if (choice == 6) {
            client.seek(0, 0x10000, -1);
            continue;
        }
        const std::uint64_t target =
            choice == 7 && position ? *position + below(random, 30000) : below(random, 1 << 29);
        const long long result = client.seek(static_cast<long long>(target), SEEK_SET, -1);
        if (result >= 0) {
            ASSERT_EQ(result, static_cast<long long>(target));
            position = target;
        } else {
            position.reset();
        }
    }
}

void runEverything(bool openAgain)
{
    ScriptedServer server(answerAnyhow);
    const std::vector<std::string> paths = {"/serve",  "/serve", "/redirect",
                                            "/refuse", "/break", "/silent"};
    const std::size_t tasks = taskCount();
    const unsigned rounds = Sanitized ? 10 : 40;
    for (unsigned round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        Random random(round);
        PatientClient client(RingBytes, HistoryBytes);
        ASSERT_TRUE(client.open(server.url("/serve"), nullptr));
        std::atomic<bool> closed{false};
        const std::size_t requests = server.requests().size();
        {
            WatchedThread demuxer([&] { readAndSeek(client, Random(round), !openAgain, closed); });
            WatchedThread asking([&] { askEverything(client, closed); });
            WatchedThread owner([&, seeded = Random(round + 1000)]() mutable {
                while (openAgain && !closed) {
                    client.open(server.url(paths[below(seeded, paths.size())]), nullptr);
                }
            });
            if (!openAgain) {
                server.waitForRequests(requests + below(random, 10));
            } // else each may hold the other up until the close
            dawdle(below(random, 3000000));
            WatchedThread second([&] {
                if (round % 2 == 0) {
                    client.close();
                }
            });
            client.close();
            closed = true;
        }
        EXPECT_FALSE(client.open(server.url("/serve"), nullptr));
        server.waitUntilIdle();
        awaitTaskCount(tasks);
    }
}

} // namespace

TEST(HTTPClientClose, EndsReadsSeeksAndQuestionsInAnyOrder)
{
    runEverything(false);
}

TEST(HTTPClientClose, EndsReadsSeeksQuestionsAndOpensInAnyOrder)
{
    runEverything(true);
}
