#include "tests/input/NetworkInputs.h"
#include "tests/support/CoreReader.h"
#include "tests/support/LinkProxy.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MmsServer.h"
#include "tests/support/WatchedThread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

using zel::test::AsfFile;
using zel::test::clipPath;
using zel::test::InputPlayer;
using zel::test::LinkCut;
using zel::test::LinkProxy;
using zel::test::LinkRules;
using zel::test::LogCapture;
using zel::test::MmsServer;
using zel::test::openInput;
using zel::test::picturesOf;
using zel::test::PlayedFrame;
using zel::test::playFile;
using zel::test::samplesOf;
using zel::test::ScriptedServer;
using zel::test::serveClip;
using zel::test::WatchedThread;
namespace Result = zel::streamer::Result;

namespace {

/// A clip on the server that belongs to its kind.
class ClipServer
{
public:
    explicit ClipServer(const std::string& name) : m_path("/" + name)
    {
        if (isMms()) {
            m_mms = std::make_unique<MmsServer>(AsfFile::read(clipPath(name)));
        } else {
            m_http = std::make_unique<ScriptedServer>(serveClip(name));
        }
    }

    bool isMms() const { return m_path.ends_with(".asf"); }
    int port() { return isMms() ? m_mms->http().port() : m_http->port(); }
    std::string url() { return isMms() ? m_mms->url() : m_http->url(m_path); }
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
    std::unique_ptr<MmsServer> m_mms;
    std::unique_ptr<ScriptedServer> m_http;
};

std::vector<std::string> md5sOf(const std::vector<PlayedFrame>& frames)
{
    std::vector<std::string> all;
    for (const PlayedFrame& picture : picturesOf(frames)) {
        all.push_back(picture.md5);
    }
    return all;
}

void expectAsFromDisk(const std::vector<PlayedFrame>& frames, const std::string& name)
{
    const auto expected = playFile(clipPath(name));
    EXPECT_EQ(md5sOf(frames), md5sOf(expected));
    EXPECT_TRUE(samplesOf(frames) == samplesOf(expected)) << "other samples";
}

std::string nameOf(LinkCut how)
{
    return how == LinkCut::Close ? "Close" : how == LinkCut::Reset ? "Reset" : "Drop";
}

std::string withoutDots(std::string name)
{
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
}

// -------------------------------------------------------------------------------------------------
// Cuts.

class InputLinkCuts : public testing::TestWithParam<std::tuple<const char*, LinkCut>>
{
};

TEST_P(InputLinkCuts, NeitherHangNorSpoilTheInput)
{
    const auto [clip, how] = GetParam();
    const std::string name = clip;
    ClipServer server(name);
    const std::uint64_t size = std::filesystem::file_size(clipPath(name));
    InputPlayer player(zel::test::makeLibraryInput());
    for (const std::uint64_t bytes : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{120},
                                      std::uint64_t{4000}, size / 10, size / 2, size - size / 8}) {
        SCOPED_TRACE(std::to_string(bytes) + " bytes");
        LinkRules rules;
        rules.toClient.cutBehind = bytes;
        rules.toClient.cut = how;
        LinkProxy link(server.port(), {rules});
        WatchedThread reader([&] {
            if (player.open(link.url(server.path()))) {
                player.readAll();
            }
        });
        link.waitForCuts(1);
        // Without a word from the server, and behind a break that is not worth a new request, the
        // reader waits until its host has had enough.
        if (how == LinkCut::Drop || server.isMms()) {
            reader.awaitSleep();
            player.input().close();
        }
        reader.join();
    }
    ASSERT_TRUE(player.open(server.url())) << "the same input, another connection";
    expectAsFromDisk(player.readAll(), name);
}

INSTANTIATE_TEST_SUITE_P(Clips, InputLinkCuts,
                         testing::Combine(testing::Values("h264_aac.mp4", "h264_aac.flv",
                                                          "mp3_vbr.mp3", "wmv2_wma2.asf"),
                                          testing::Values(LinkCut::Close, LinkCut::Reset,
                                                          LinkCut::Drop)),
                         [](const auto& test) {
                             return withoutDots(std::get<0>(test.param)) + "_" +
                                    nameOf(std::get<1>(test.param));
                         });

TEST(InputLinkTrouble, MmsGoesOnBehindACutOfTheLink)
{
    // Packets of one size, so that the bytes that have come tell the place.
    zel::test::MmsServerOptions options;
    options.stripPadding = false;
    MmsServer server(AsfFile::read(clipPath("wmv2_wma2.asf")), options);
    for (const LinkCut how : {LinkCut::Close, LinkCut::Reset}) {
        SCOPED_TRACE(nameOf(how));
        LinkRules rules;
        rules.toClient.cutBehind = 300000;
        rules.toClient.cut = how;
        LinkProxy link(server.http().port(), {rules});
        expectAsFromDisk(openInput(link.url("/clip.asf"))->readAll(), "wmv2_wma2.asf");
        EXPECT_EQ(link.connectionsAccepted(), 2U);
    }
}

// -------------------------------------------------------------------------------------------------
// Slow links and stalls.

class InputSlowLink : public testing::TestWithParam<const char*>
{
};

TEST_P(InputSlowLink, FramesAreThoseFromDisk)
{
    const std::string name = GetParam();
    ClipServer server(name);
    LinkRules rules;
    rules.toClient.pace = {std::chrono::milliseconds(5), 3000000};
    rules.toServer.pace = {std::chrono::milliseconds(5), 100000};
    LinkProxy link(server.port(), {}, rules);
    expectAsFromDisk(openInput(link.url(server.path()))->readAll(), name);
}

TEST_P(InputSlowLink, StallsDelayFramesAndNoMore)
{
    const std::string name = GetParam();
    ClipServer server(name);
    const std::uint64_t size = std::filesystem::file_size(clipPath(name));
    for (const std::uint64_t bytes : {std::uint64_t{60}, std::uint64_t{3000}, size / 2}) {
        SCOPED_TRACE(std::to_string(bytes) + " bytes");
        LinkRules rules;
        rules.toClient.stallBehind = bytes;
        LinkProxy link(server.port(), {rules});
        std::vector<PlayedFrame> frames;
        WatchedThread reader([&] { frames = openInput(link.url(server.path()))->readAll(); });
        link.waitForStalls(1);
        reader.awaitSleep();
        link.goOn();
        reader.join();
        expectAsFromDisk(frames, name);
    }
}

TEST_P(InputSlowLink, StopEndsAReadThatStandsStill)
{
    const std::string name = GetParam();
    ClipServer server(name);
    LinkRules rules;
    rules.toClient.pace.bytesPerSecond = 1000000;
    LinkProxy link(server.port(), {}, rules);
    const auto player = openInput(link.url(server.path()));
    link.stall();
    WatchedThread reader([&] { player->readAll(); });
    reader.awaitSleep();
    player->input().stop();
    reader.join();
    PlayedFrame frame;
    EXPECT_FALSE(player->read(frame));
}

INSTANTIATE_TEST_SUITE_P(Clips, InputSlowLink,
                         testing::Values("h264_aac.mp4", "h264_aac.flv", "mp3_vbr.mp3",
                                         "wmv2_wma2.asf"),
                         [](const auto& test) { return withoutDots(test.param); });

TEST(InputLinkTrouble, CloseEndsASeekThatStandsStill)
{
    const LogCapture log;
    // Further than the ring reaches, so that the server is asked; MMS asks it always.
    for (const auto& [name, targetMs] :
         std::map<std::string, unsigned long long>{{"large.mp4", 15000}, {"wmv2_wma2.asf", 4000}}) {
        SCOPED_TRACE(name);
        ClipServer server(name);
        LinkProxy link(server.port());
        const auto player = openInput(link.url(server.path()));
        const std::size_t connections = link.connectionsAccepted();
        link.stall();
        bool delivered = true;
        WatchedThread seeker([&, target = targetMs] {
            PlayedFrame picture;
            // Where there is an index, it is the first read that asks the server.
            delivered = player->input().setTimePosition(target) == Result::Done &&
                        player->readPicture(picture);
        });
        link.waitForConnections(connections + 1);
        seeker.awaitSleep();
        player->input().close();
        seeker.join();
        EXPECT_FALSE(delivered);
        link.goOn();
        ASSERT_TRUE(player->open(server.url()));
        PlayedFrame picture;
        EXPECT_TRUE(player->readPicture(picture));
    }
    EXPECT_FALSE(log.contains("timed out"));
}

TEST(InputLinkTrouble, SeekWithTheLinkDownFailsAndALaterOneSucceeds)
{
    for (const auto& [name, targetMs] :
         std::map<std::string, unsigned long long>{{"large.mp4", 9500}, {"wmv2_wma2.asf", 4000}}) {
        SCOPED_TRACE(name);
        ClipServer server(name);
        LinkRules rules;
        rules.toClient.pace.bytesPerSecond = 1000000; // the target has not come by itself
        LinkProxy link(server.port(), {}, rules);
        const auto player = openInput(link.url(server.path()));
        PlayedFrame picture;
        link.goDown();
        link.cut(LinkCut::Reset);
        EXPECT_FALSE(player->input().setTimePosition(targetMs) == Result::Done &&
                     player->readPicture(picture));
        link.comeUp();
        EXPECT_EQ(player->input().setTimePosition(targetMs), Result::Done);
        ASSERT_TRUE(player->readPicture(picture));
        EXPECT_GE(picture.timestampUs, targetMs * 1000);
    }
}

} // namespace
