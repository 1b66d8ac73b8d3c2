#include "network/MMSHClient.h"

#include "tests/network/ChunkClient.h"
#include "tests/network/MmshPlays.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WatchedThread.h"

#include <condition_variable>
#include <cstdio>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <vector>

namespace {

using namespace zel::test::plays;
using zel::test::ChunkClient;
using zel::test::LogCapture;
using zel::test::ScriptedServer;
using zel::test::WatchedThread;
using zel::test::madeup::endChunk;

constexpr int ended = zel::ConnectionEvent::END_OF_FILE_RECEIVED;
constexpr int broken = zel::ConnectionEvent::BROKEN_STREAM;
constexpr unsigned aDayMs = 24 * 3600 * 1000;

class Latch
{
public:
    void open()
    {
        const std::lock_guard guard(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    void pass()
    {
        std::unique_lock guard(m_mutex);
        m_changed.wait(guard, [&] { return m_open; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
};

// -------------------------------------------------------------------------------------------------
// Breaks.

TEST(MMSHClientRecovery, StreamThatBreaksThreeTimesComesBackEachTime)
{
    ScriptedServer server(
        inTurn({breaking(begin() + packets(0, 40)), breaking(begin() + packets(40, 5)),
                breaking(begin() + packets(45, 7)), whole(begin() + packets(52, 8) + endChunk())}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    const std::string all = header + paddedPackets(0, 60);
    EXPECT_EQ(client.take(all.size() + 1), all);
    client.awaitEvents(1);
    EXPECT_EQ(client.events().at(0), ended);
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 4U);
    EXPECT_EQ(pragmas(requests[1]).at(0),
              "no-cache,stream-time=0,stream-offset=4294967295:40000,request-context=2,"
              "max-duration=4294967295");
    EXPECT_EQ(pragmas(requests[3]).at(0),
              "no-cache,stream-time=0,stream-offset=4294967295:52000,request-context=4,"
              "max-duration=4294967295");
    EXPECT_EQ(pragmas(requests[3]).size(), 3U);
}

TEST(MMSHClientRecovery, ChunkCutByTheBreakIsAskedForAgain)
{
    const std::string cut = packets(0, 41).substr(0, packets(0, 40).size() + 777);
    ScriptedServer server(
        inTurn({breaking(begin() + cut), whole(begin() + packets(40, 2) + endChunk())}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    const std::string all = header + paddedPackets(0, 42);
    EXPECT_EQ(client.take(all.size() + 1), all);
}

TEST(MMSHClientRecovery, FailedAttemptsInBetweenAreForgotten)
{
    LogCapture log;
    ScriptedServer server(inTurn({breaking(begin() + packets(0, 40)), refused(503), refused(503),
                                  breaking(begin() + packets(40, 1)), refused(503), refused(503),
                                  whole(begin() + packets(41, 1) + endChunk())}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    const std::string all = header + paddedPackets(0, 42);
    EXPECT_EQ(client.take(all.size() + 1), all);
    EXPECT_EQ(log.count("recoverBrokenStreamThread failed, 2 retries remaining"), 2);
    EXPECT_EQ(log.count("recoverBrokenStreamThread failed, 1 retries remaining"), 2);
    EXPECT_EQ(log.count("recoverBrokenStreamThread failed, 0 retries remaining"), 0);
}

TEST(MMSHClientRecovery, ServerThatRefusesIsABrokenStreamOnce)
{
    ScriptedServer server(inTurn({breaking(begin() + packets(0, 40)), refused(503)}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    const std::string all = header + paddedPackets(0, 40);
    EXPECT_EQ(client.take(all.size() + 1), all) << "readers get the rest and then the end";
    EXPECT_EQ(client.take(1), "");
    client.awaitEvents(1);
    client.close();
    EXPECT_EQ(client.events(), std::vector<int>{broken});
    EXPECT_EQ(server.requests().size(), 4U);
}

TEST(MMSHClientRecovery, ServerThatGoesAwayWithoutAWordIsABrokenStreamOnce)
{
    LogCapture log;
    ScriptedServer server(inTurn({breaking(begin() + packets(0, 40)), gone()}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.awaitEvents(1);
    client.close();
    EXPECT_EQ(client.events(), std::vector<int>{broken});
    EXPECT_EQ(log.count(" retries remaining"), 3);
}

TEST(MMSHClientRecovery, AnswersThatBringNothingMoreCountAsFailures)
{
    LogCapture log;
    ScriptedServer server(inTurn({breaking(begin() + packets(0, 40)), breaking(begin())}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.awaitEvents(1);
    client.close();
    EXPECT_EQ(client.events(), std::vector<int>{broken});
    EXPECT_EQ(server.requests().size(), 4U);
}

TEST(MMSHClientRecovery, StreamThatCannotSeekIsNotAskedForAgain)
{
    ScriptedServer server(
        inTurn({breaking(begin() + packets(0, 40), 1000000, headers("\"broadcast\""))}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.awaitEvents(1);
    EXPECT_EQ(client.events(), std::vector<int>{broken});
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST(MMSHClientRecovery, LittleDataIsNotAskedForAgain)
{
    ScriptedServer server(inTurn({breaking(begin() + packets(0, 31))}));
    ChunkClient client;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.awaitEvents(1);
    EXPECT_EQ(client.events(), std::vector<int>{broken});
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST(MMSHClientRecovery, BreakWhileTheRecoveryThreadIsStillBusyIsNotLost)
{
    ScriptedServer server(inTurn({breaking(begin() + packets(0, 40)), refused(503), refused(503),
                                  refused(503), breaking(begin() + packets(100, 50)),
                                  whole(begin() + packets(150, 5) + endChunk())}));
    ChunkClient client;
    LogCapture log;
    Latch reported;
    Latch goOn;
    client.onEvent = [&](int event) {
        if (event == broken) {
            reported.open();
            goOn.pass();
        }
    };
    ASSERT_TRUE(client.open(server.url(), nullptr));
    reported.pass(); // the thread stands in the callback
    ASSERT_EQ(client.seek(0, SEEK_SET, 100000), 0);
    ASSERT_TRUE(log.waitFor("MMSHClient::endOfFileCallback: Broken stream detected"));
    const std::string first = paddedPackets(100, 50);
    EXPECT_EQ(client.take(first.size()), first);
    goOn.open();
    EXPECT_EQ(client.take(5 * 1500), paddedPackets(150, 5));
    client.awaitEvents(2);
    EXPECT_EQ(client.events().at(0), broken);
    EXPECT_EQ(client.events().at(1), ended);
}

TEST(MMSHClientRecovery, SeekTakesTheStreamOverFromRecovery)
{
    ScriptedServer server(inTurn({breaking(begin() + packets(0, 40)), silent("recovering"),
                                  whole(begin() + packets(300, 4) + endChunk())}));
    ChunkClient client;
    client.handlerTimeoutMs = aDayMs;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    server.waitForMark("recovering");
    ASSERT_EQ(client.seek(0, SEEK_SET, 7000), 0);
    EXPECT_EQ(client.take(100000), paddedPackets(300, 4));
    client.awaitEvents(1);
    EXPECT_EQ(client.events().at(0), ended);
    EXPECT_EQ(server.requests().size(), 3U);
}

TEST(MMSHClientRecovery, OpenTakesTheClientOverFromRecovery)
{
    ScriptedServer server(inTurn({breaking(begin() + packets(0, 40)), silent("recovering"),
                                  whole(begin() + packets(300, 4) + endChunk())}));
    ChunkClient client;
    client.handlerTimeoutMs = aDayMs;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    server.waitForMark("recovering");
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_EQ(client.take(100000), header + paddedPackets(300, 4));
    client.awaitEvents(1);
    EXPECT_EQ(client.events().at(0), ended);
}

TEST(MMSHClientRecovery, SeeksAndBreaksAtOnceLeaveTheStreamOfTheLastSeek)
{
    const Play breaks = [](const auto& request, auto& connection) {
        // The time in the request chooses the packets; a resumed stream has none.
        unsigned time = 0;
        std::sscanf(pragmas(request).at(0).c_str(), "no-cache,stream-time=%u", &time);
        connection.beginBody(200, headers(), 100000000);
        connection.send(begin() + packets(time, 40));
        if (time == 999) {
            connection.waitUntilPeerCloses();
        }
        connection.close();
    };
    ScriptedServer server(inTurn({breaks}));
    for (int round = 0; round < 5; ++round) {
        ChunkClient client;
        ASSERT_TRUE(client.open(server.url(), nullptr));
        for (unsigned i = 1; i < 20; ++i) {
            ASSERT_EQ(client.seek(0, SEEK_SET, i), 0);
        }
        ASSERT_EQ(client.seek(0, SEEK_SET, 999), 0);
        ASSERT_EQ(client.take(40 * 1500), paddedPackets(999, 40));
    }
}

TEST(MMSHClientRecovery, OpenEndsASeekUnderWay)
{
    ScriptedServer server(inTurn(
        {holding(begin() + packets(0, 2)), silent("seeking"), holding(begin() + packets(300, 4))}));
    ChunkClient client;
    client.handlerTimeoutMs = aDayMs;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    long long position = 0;
    WatchedThread seeker([&] { position = client.seek(0, SEEK_SET, 1000); });
    server.waitForMark("seeking");
    ASSERT_TRUE(client.open(server.url(), nullptr));
    seeker.join();
    EXPECT_EQ(position, -1);
    const std::string all = header + paddedPackets(300, 4);
    EXPECT_EQ(client.take(all.size()), all);
    EXPECT_TRUE(client.events().empty());
}

TEST(MMSHClientRecovery, SeeksAmongOpensLeaveAWholeStream)
{
    ScriptedServer server(inTurn({breaking(begin() + packets(0, 40))}));
    for (int round = 0; round < 10; ++round) {
        ChunkClient client;
        ASSERT_TRUE(client.open(server.url(), nullptr));
        WatchedThread seeker([&] {
            for (unsigned i = 1; i < 20; ++i) {
                client.seek(0, SEEK_SET, i);
            }
        });
        for (int i = 0; i < 10; ++i) {
            ASSERT_TRUE(client.open(server.url(), nullptr));
        }
        seeker.join();
        ASSERT_TRUE(client.open(server.url(), nullptr));
        const std::string all = header + paddedPackets(0, 40);
        ASSERT_EQ(client.take(all.size()), all);
    }
}

// -------------------------------------------------------------------------------------------------
// Closing at every stage.

TEST(MMSHClientRecovery, CloseWhileOpenWaitsForTheAnswer)
{
    ScriptedServer server(inTurn({silent("asked")}));
    ChunkClient client;
    client.handlerTimeoutMs = aDayMs;
    bool opened = true;
    WatchedThread opener([&] { opened = client.open(server.url(), nullptr); });
    server.waitForMark("asked");
    client.close();
    opener.join();
    EXPECT_FALSE(opened);
    EXPECT_TRUE(client.events().empty());
}

TEST(MMSHClientRecovery, CloseWhileOpenWaitsForTheHeader)
{
    ScriptedServer server(inTurn({holding(packets(0, 2))}));
    ChunkClient client;
    client.handlerTimeoutMs = aDayMs;
    bool opened = true;
    WatchedThread opener([&] { opened = client.open(server.url(), nullptr); });
    while (client.getByteAvailableToReadInBuffer() < 2000) { // the answer is there
        std::this_thread::yield();
    }
    ASSERT_TRUE(opener.awaitSleep());
    client.close();
    opener.join();
    EXPECT_FALSE(opened);
    EXPECT_TRUE(client.events().empty());
}

TEST(MMSHClientRecovery, CloseWhileASeekWaitsForTheAnswer)
{
    ScriptedServer server(inTurn({holding(begin() + packets(0, 2)), silent("seeking")}));
    ChunkClient client;
    client.handlerTimeoutMs = aDayMs;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    long long position = 0;
    WatchedThread seeker([&] { position = client.seek(0, SEEK_SET, 1000); });
    server.waitForMark("seeking");
    client.close();
    seeker.join();
    EXPECT_EQ(position, -1);
    EXPECT_TRUE(client.events().empty());
}

TEST(MMSHClientRecovery, CloseWhileRecoveryWaitsForTheAnswer)
{
    ScriptedServer server(inTurn({breaking(begin() + packets(0, 40)), silent("recovering")}));
    ChunkClient client;
    client.handlerTimeoutMs = aDayMs;
    ASSERT_TRUE(client.open(server.url(), nullptr));
    server.waitForMark("recovering");
    client.close();
    EXPECT_TRUE(client.events().empty());
    EXPECT_EQ(server.requests().size(), 2U);
}

TEST(MMSHClientRecovery, CloseFreesAReaderAndATransferThatWaits)
{
    for (const unsigned count : {2U, 2000U}) { // too little for the reader, too much for the ring
        ScriptedServer server(inTurn({holding(begin() + packets(0, count))}));
        ChunkClient client(200000, 20000);
        ASSERT_TRUE(client.open(server.url(), nullptr));
        int result = 0;
        std::string bytes(count == 2 ? 100000 : 1, ' ');
        WatchedThread reader([&] {
            do {
                result = client.read(bytes.data(), bytes.size(), 0);
            } while (result > 0 && count == 2);
        });
        if (count == 2) {
            ASSERT_TRUE(reader.awaitSleep());
        } else {
            while (client.getByteAvailableToReadInBuffer() < 200000 - 20000 - 2) {
                std::this_thread::yield();
            }
        }
        client.close();
        reader.join();
        EXPECT_TRUE(client.events().empty());
    }
}

TEST(MMSHClientRecovery, CloseInsideTheEventOfRecoveryReturns)
{
    ScriptedServer server(inTurn({breaking(begin() + packets(0, 40)), refused(503)}));
    ChunkClient client;
    client.onEvent = [&](int) { client.close(); };
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.awaitEvents(1);
    char byte = 0;
    EXPECT_EQ(client.read(&byte, 1, 0), -1);
    client.close();
    EXPECT_EQ(client.events(), std::vector<int>{broken});
}

TEST(MMSHClientRecovery, CloseInsideTheEventOfTheEndReturns)
{
    ScriptedServer server(inTurn({whole(begin() + packets(0, 40) + endChunk())}));
    ChunkClient client;
    client.onEvent = [&](int) { client.close(); };
    ASSERT_TRUE(client.open(server.url(), nullptr) || true);
    client.awaitEvents(1);
    client.close();
    EXPECT_EQ(client.events(), std::vector<int>{ended}) << "the transfer's own end comes after it";
}

TEST(MMSHClientRecovery, CloseInsideBothEventsAtOnceReturns)
{
    // The recovery thread stands in its callback while the transfer thread of a later seek comes
    // to its own: each of them closes the client.
    ScriptedServer server(inTurn({breaking(begin() + packets(0, 40)), refused(503), refused(503),
                                  refused(503), whole(begin() + packets(7, 1) + endChunk())}));
    ChunkClient client;
    Latch reported;
    Latch bothThere;
    client.onEvent = [&](int event) {
        if (event == broken) {
            reported.open();
            bothThere.pass();
        } else {
            bothThere.open();
        }
        client.close();
    };
    ASSERT_TRUE(client.open(server.url(), nullptr));
    reported.pass();
    client.seek(0, SEEK_SET, 7000);
    client.awaitEvents(2);
    client.close();
}

TEST(MMSHClientRecovery, CloseInsideTheMetadataCallbackReturns)
{
    ScriptedServer server(inTurn(
        {holding(begin() + zel::test::madeup::metadataChunk({{"a", "b"}}) + packets(0, 2))}));
    ChunkClient client;
    bool called = false;
    client.setMetadataCallback([&](const auto&) {
        called = true;
        client.close();
    });
    ASSERT_TRUE(client.open(server.url(), nullptr));
    client.take(header.size() + 1500);
    EXPECT_TRUE(called);
    char byte = 0;
    EXPECT_EQ(client.read(&byte, 1, 0), -1);
}

TEST(MMSHClientRecovery, CloseAtAnyMomentOfABreakEnds)
{
    ScriptedServer server(inTurn({breaking(begin() + packets(0, 40))}));
    for (int round = 0; round < 30; ++round) {
        ChunkClient client;
        ASSERT_TRUE(client.open(server.url(), nullptr));
        for (int i = 0; i < round; ++i) {
            std::this_thread::yield();
        }
    }
}

} // namespace
