// The misbehaving link between curl and a server that knows nothing of it.

#include "tests/support/LinkProxy.h"
#include "tests/support/PositionBytes.h"
#include "tests/support/RunProgram.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/ServedContent.h"

#include <chrono>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace zel::test;
using namespace std::chrono_literals;

namespace {

// Exit codes of curl.
constexpr int NoConnection = 7;
constexpr int PartialBody = 18;
constexpr int ReceiveError = 56;

constexpr std::size_t BodyBytes = 3000000;

ServerScript serveBody()
{
    return serveBytes(positionContent(BodyBytes));
}

/// Writes head and body of the answer.
ProgramResult curl(const LinkProxy& proxy, const std::vector<std::string>& words = {})
{
    std::vector<std::string> all = {"curl", "--silent", "--include", "--noproxy", "*"};
    all.insert(all.end(), words.begin(), words.end());
    all.push_back(proxy.url());
    return runProgram(all);
}

std::future<ProgramResult> curlBeside(const LinkProxy& proxy)
{
    return std::async(std::launch::async, [&proxy] { return curl(proxy); });
}

/// Whether the answer has come whole and right.
bool isWhole(const ProgramResult& result)
{
    const std::size_t head = result.out.find("\r\n\r\n");
    return result.succeeded() && head != std::string::npos &&
           result.out.substr(head + 4) == positionBytes::make(0, BodyBytes);
}

/// Gives the proxy's thread the time to see what its sockets hold.
void letProxyLook(LinkProxy& proxy)
{
    for (int i = 0; i < 10; ++i) {
        proxy.comeUp(); // is up already
    }
}

LinkRules cutToClient(std::uint64_t bytes, LinkCut how)
{
    return {.toClient = {.cutBehind = bytes, .cut = how}};
}

} // namespace

TEST(LinkProxy, PassesEverythingBothWays)
{
    ScriptedServer server([](const ServerRequest& request, ServerConnection& connection) {
        connection.respond(200, {}, request.body);
    });
    LinkProxy proxy(server.port());
    std::string text;
    for (int i = 0; i < 15000; ++i) {
        text += std::to_string(i) + ",";
    }
    for (std::size_t i = 0; i < 2; ++i) {
        const ProgramResult result = curl(proxy, {"--data-binary", text, "-H", "Expect:"});
        EXPECT_TRUE(result.out.starts_with("HTTP/1.1 200 OK\r\n")) << result.describe();
        EXPECT_TRUE(result.out.ends_with("\r\n\r\n" + text));
        proxy.waitUntilIdle();
        EXPECT_EQ(proxy.bytesToServer(i), server.requests().at(i).head.size() + text.size());
        EXPECT_EQ(proxy.bytesToClient(i), result.out.size());
    }
    EXPECT_EQ(proxy.connectionsAccepted(), 2U);
    EXPECT_EQ(proxy.connectionsOpen(), 0U);
}

TEST(LinkProxy, PassesALongAnswerUnchanged)
{
    ScriptedServer server(serveBody());
    LinkProxy proxy(server.port());
    EXPECT_TRUE(isWhole(curl(proxy)));
}

TEST(LinkProxy, PassesAnOrderlyEndOfTheServer)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.send("HTTP/1.0 200 OK\r\n\r\nuntil the end");
    });
    LinkProxy proxy(server.port());
    const ProgramResult result = curl(proxy);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "HTTP/1.0 200 OK\r\n\r\nuntil the end");
}

TEST(LinkProxy, PassesAResetOfTheServer)
{
    ScriptedServer server(
        [](const ServerRequest&, ServerConnection& connection) { connection.reset(); });
    LinkProxy proxy(server.port());
    EXPECT_EQ(curl(proxy).exitCode, ReceiveError);
    proxy.waitUntilIdle();
}

TEST(LinkProxy, ResetsTheClientWhenThereIsNoServer)
{
    LinkProxy noServer(0);
    noServer.goDown();
    LinkProxy proxy(noServer.port());
    // It may come before curl looks whether it is connected.
    EXPECT_THAT(curl(proxy).exitCode, testing::AnyOf(NoConnection, ReceiveError));
    proxy.waitUntilIdle();
    EXPECT_EQ(proxy.connectionsAccepted(), 1U);
}

TEST(LinkProxy, ClosesBehindExactlySoManyBytes)
{
    ScriptedServer server(serveBody());
    LinkProxy proxy(server.port(), {cutToClient(100001, LinkCut::Close)});
    const ProgramResult result = curl(proxy);
    EXPECT_EQ(result.exitCode, PartialBody);
    EXPECT_EQ(result.out.size(), 100001U);
    EXPECT_EQ(proxy.bytesToClient(0), 100001U);
    server.waitUntilIdle(); // the server is told as well
    proxy.waitUntilIdle();
    EXPECT_TRUE(isWhole(curl(proxy))); // a later connection has no such rule
}

TEST(LinkProxy, ResetsBehindExactlySoManyBytes)
{
    ScriptedServer server(serveBody());
    LinkProxy proxy(server.port(), {}, cutToClient(100001, LinkCut::Reset));
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(curl(proxy).exitCode, ReceiveError);
        EXPECT_EQ(proxy.bytesToClient(i), 100001U);
    }
    server.waitUntilIdle();
}

TEST(LinkProxy, CutsOnTheWayToTheServer)
{
    ScriptedServer server(serveBody());
    LinkProxy proxy(server.port(), {{.toServer = {.cutBehind = 10}}});
    EXPECT_EQ(curl(proxy).exitCode, ReceiveError);
    EXPECT_EQ(proxy.bytesToServer(0), 10U);
    server.waitUntilIdle();
    EXPECT_TRUE(server.requests().empty());
}

TEST(LinkProxy, TellsNobodyWhenItDropsAConnection)
{
    ScriptedServer server(serveBody());
    LinkProxy proxy(server.port(), {cutToClient(5000, LinkCut::Drop)});
    auto result = curlBeside(proxy);
    proxy.waitForCuts(1);
    proxy.goOn(); // brings nothing back
    letProxyLook(proxy);
    EXPECT_EQ(proxy.bytesToClient(0), 5000U);
    EXPECT_EQ(proxy.connectionsOpen(), 1U);
    EXPECT_EQ(server.connectionsOpen(), 1U);
    proxy.cut(LinkCut::Reset);
    EXPECT_EQ(result.get().exitCode, ReceiveError);
    server.waitUntilIdle();
}

TEST(LinkProxy, StandsStillBehindExactlySoManyBytesUntilItMayGoOn)
{
    ScriptedServer server(serveBody());
    LinkProxy proxy(server.port(), {{.toClient = {.stallBehind = 70000}}});
    auto result = curlBeside(proxy);
    proxy.waitForStalls(1);
    letProxyLook(proxy);
    EXPECT_EQ(proxy.bytesToClient(0), 70000U);
    proxy.goOn();
    EXPECT_TRUE(isWhole(result.get()));
}

TEST(LinkProxy, CommandStopsEveryByteUntilItMayGoOn)
{
    const std::string half = positionBytes::make(0, BodyBytes / 2);
    ScriptedServer server([&](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {}, BodyBytes);
        connection.send(half);
        connection.waitForMark("go on");
        connection.send(positionBytes::make(half.size(), BodyBytes - half.size()).substr(0, 1000));
        connection.mark("sent");
        connection.send(positionBytes::make(half.size(), BodyBytes - half.size()).substr(1000));
    });
    LinkProxy proxy(server.port());
    auto result = curlBeside(proxy);
    proxy.waitForBytesToClient(0, half.size());
    proxy.stall();
    const std::uint64_t before = proxy.bytesToClient(0);
    server.mark("go on");
    server.waitForMark("sent");
    letProxyLook(proxy);
    EXPECT_EQ(proxy.bytesToClient(0), before);
    proxy.goOn();
    EXPECT_TRUE(isWhole(result.get()));
}

TEST(LinkProxy, CommandStopsLaterConnectionsToo)
{
    ScriptedServer server(serveBody());
    LinkProxy proxy(server.port());
    proxy.stall();
    auto result = curlBeside(proxy);
    proxy.waitForConnections(1);
    server.waitForConnections(1);
    letProxyLook(proxy);
    EXPECT_EQ(proxy.bytesToServer(0), 0U);
    proxy.goOn();
    EXPECT_TRUE(isWhole(result.get()));
}

TEST(LinkProxy, CommandCutsWhatStandsStill)
{
    ScriptedServer server(serveBody());
    LinkProxy proxy(server.port(), {}, {.toClient = {.stallBehind = 5000}});
    for (const auto& [how, exitCode] :
         {std::pair(LinkCut::Close, PartialBody), std::pair(LinkCut::Reset, ReceiveError)}) {
        const std::size_t number = proxy.connectionsAccepted();
        auto result = curlBeside(proxy);
        proxy.waitForStalls(number + 1);
        proxy.cut(how);
        EXPECT_EQ(result.get().exitCode, exitCode);
        EXPECT_EQ(proxy.bytesToClient(number), 5000U);
        server.waitUntilIdle();
        proxy.waitUntilIdle();
    }
}

TEST(LinkProxy, IsNoFasterThanItsRate)
{
    ScriptedServer server(serveBytes(positionContent(60000)));
    LinkProxy proxy(server.port(), {{.toClient = {.pace = {.bytesPerSecond = 200000}}}});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(curl(proxy).exitCode, 0);
    // All but the last step has to be waited for.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 280ms);
}

TEST(LinkProxy, IsAsLateAsItsDelayInBothDirections)
{
    ScriptedServer server(serveBytes(textContent("text")));
    LinkProxy proxy(server.port());
    proxy.setPace({.delay = 60ms}, {.delay = 70ms});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(curl(proxy).out.ends_with("text"));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 130ms);
}

TEST(LinkProxy, DelayLeavesALongAnswerUnchanged)
{
    ScriptedServer server(serveBody());
    LinkProxy proxy(server.port(), {{.toClient = {.pace = {.delay = 20ms}},
                                     .toServer = {.pace = {.delay = 20ms}}}});
    EXPECT_TRUE(isWhole(curl(proxy)));
}

TEST(LinkProxy, RefusesConnectionsWhileItIsDown)
{
    ScriptedServer server(serveBody());
    LinkProxy proxy(server.port());
    const int port = proxy.port();
    proxy.goDown();
    EXPECT_EQ(curl(proxy).exitCode, NoConnection);
    EXPECT_EQ(proxy.connectionsAccepted(), 0U);
    proxy.comeUp();
    EXPECT_EQ(proxy.port(), port);
    EXPECT_TRUE(isWhole(curl(proxy)));
}

TEST(LinkProxy, EndsWithItsConnections)
{
    ScriptedServer server(serveBody());
    std::future<ProgramResult> result;
    {
        LinkProxy proxy(server.port(), {cutToClient(5000, LinkCut::Drop)});
        result = std::async(std::launch::async, [url = proxy.url()] {
            return runProgram({"curl", "--silent", "--noproxy", "*", url});
        });
        proxy.waitForCuts(1);
    }
    EXPECT_EQ(result.get().exitCode, ReceiveError);
    server.waitUntilIdle();
}
