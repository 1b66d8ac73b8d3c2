#include "tests/input/NetworkInputs.h"

#include "tests/support/CoreReader.h"
#include "tests/support/InputPlayer.h"
#include "tests/support/MmsChunks.h"
#include "tests/support/MmsServer.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

using zel::test::AsfFile;
using zel::test::clipPath;
using zel::test::InputEvents;
using zel::test::InputPlayer;
using zel::test::MmsFault;
using zel::test::MmsServer;
using zel::test::MmsServerOptions;
using zel::test::openInput;
using zel::test::picturesOf;
using zel::test::PlayedFrame;
using zel::test::playFile;
using zel::test::samplesOf;
namespace InputEvent = zel::streamer::InputEvent;
namespace PacketType = zel::streamer::PacketType;
namespace Result = zel::streamer::Result;
namespace mms = zel::test::mms;

namespace {

const char* const Clip = "wmv2_wma2.asf";

AsfFile clipFile()
{
    return AsfFile::read(clipPath(Clip));
}

/// The number that each picture has on disk, by its MD5; the pictures of the clip all differ.
std::map<std::string, int> numbersOf(const std::vector<PlayedFrame>& pictures)
{
    std::map<std::string, int> numbers;
    for (std::size_t i = 0; i < pictures.size(); ++i) {
        numbers[pictures[i].md5] = static_cast<int>(i);
    }
    return numbers;
}

/// As many pictures as there are, from the first one on.
void expectBeginOf(const std::vector<PlayedFrame>& pictures,
                   const std::vector<PlayedFrame>& expected)
{
    ASSERT_LE(pictures.size(), expected.size());
    for (std::size_t i = 0; i < pictures.size(); ++i) {
        ASSERT_EQ(pictures[i].md5, expected[i].md5) << "picture " << i;
    }
}

/// Three breaks in a clip, at places that the caller chooses.
MmsServerOptions breaksBehind(std::size_t packets)
{
    MmsServerOptions options;
    options.faults = {MmsFault::closeBehindPackets(packets), MmsFault::closeBehindPackets(packets),
                      MmsFault::closeBehindPackets(packets)};
    return options;
}

/// A server that breaks for good when the test says "go", with most of the clip sent.
MmsServerOptions breaksForGood()
{
    MmsServerOptions options;
    options.faults = {MmsFault::closeBehindPackets(160)};
    options.laterFault = MmsFault::refuse();
    options.stalls = {{150, "go"}};
    return options;
}

// -------------------------------------------------------------------------------------------------
// Breaks.

TEST(InputMmsRecovery, ThreeBreaksLeavePicturesAndSamplesAsFromDisk)
{
    // Packets of one size, so that the bytes that have come tell the place.
    MmsServerOptions options = breaksBehind(60);
    options.stripPadding = false;
    MmsServer server(clipFile(), options);
    const auto frames = openInput(server.url())->readAll();
    const auto expected = playFile(clipPath(Clip));
    EXPECT_EQ(server.plays().size(), 4U);
    EXPECT_EQ(picturesOf(frames).size(), picturesOf(expected).size());
    expectBeginOf(picturesOf(frames), picturesOf(expected));
    EXPECT_EQ(samplesOf(frames), samplesOf(expected));
}

TEST(InputMmsRecovery, ThreeBreaksOfAServerThatStripsPaddingLeaveThePicturesInOrder)
{
    const auto expected = picturesOf(playFile(clipPath(Clip)));
    const auto numbers = numbersOf(expected);
    for (const std::size_t packets : {std::size_t{31}, std::size_t{60}, std::size_t{75}}) {
        SCOPED_TRACE(packets);
        MmsServer server(clipFile(), breaksBehind(packets));
        const auto pictures = picturesOf(openInput(server.url())->readAll());
        EXPECT_EQ(server.plays().size(), 4U);
        // Each break brings a packet again, since padding does not count. A picture that comes
        // twice spoils those behind it, up to the next key frame, and at the end the demuxer leaves
        // out as many packets as came more than the file has.
        EXPECT_GE(pictures.size() + 3, expected.size());
        int former = -1;
        std::size_t right = 0;
        for (const PlayedFrame& picture : pictures) {
            const auto found = numbers.find(picture.md5);
            if (found != numbers.end()) {
                EXPECT_GE(found->second, former);
                former = found->second;
                ++right;
            }
        }
        EXPECT_GE(right + 3 * 25, expected.size()) << "a key frame comes every second";
        EXPECT_GE(former + 3, static_cast<int>(expected.size()) - 1);
    }
}

TEST(InputMmsRecovery, ResetsInMidPacketLeaveAllPicturesInOrder)
{
    MmsServerOptions options;
    options.stripPadding = false;
    options.faults = {MmsFault::resetBehindBytes(150001), MmsFault::resetBehindBytes(150002),
                      MmsFault::resetBehindBytes(150003)};
    MmsServer server(clipFile(), options);
    const auto pictures = picturesOf(openInput(server.url())->readAll());
    const auto expected = picturesOf(playFile(clipPath(Clip)));
    EXPECT_EQ(server.plays().size(), 4U);
    EXPECT_EQ(pictures.size(), expected.size());
    expectBeginOf(pictures, expected);
}

TEST(InputMmsRecovery, ServerThatStaysAwayIsToldOnce)
{
    MmsServer server(clipFile(), breaksForGood());
    const auto player = openInput(server.url());
    const InputEvents events(player->input());
    server.goOn("go");
    const auto pictures = picturesOf(player->readAll());
    events.waitFor(1);
    expectBeginOf(pictures, picturesOf(playFile(clipPath(Clip))));
    EXPECT_GT(pictures.size(), 50U) << "what had come";
    EXPECT_GT(server.plays().size(), 1U) << "it was asked again";
    player->input().close(); // no event can come behind it
    EXPECT_EQ(events.soFar(), std::vector<int>{InputEvent::BrokenStream});
}

TEST(InputMmsRecovery, HostMayCallBackFromABrokenStream)
{
    MmsServer server(clipFile(), breaksForGood());
    const auto player = openInput(server.url());
    struct Host
    {
        InputPlayer& player;
        MmsServer& server;
    } host{*player, server};
    player->input().setInputEventCallback(
        [](InputEvent::Enum, int, int, void* data) {
            auto* called = static_cast<Host*>(data);
            auto& input = called->player.input();
            called->player.describeMedium();
            unsigned percent = 0;
            input.getInputBufferStatus(percent);
            input.setTimePosition(1000);
            input.resetPosition(0);
            input.stop();
            input.close();
            called->server.http().mark("called");
        },
        &host);
    server.goOn("go");
    player->readAll();
    server.http().waitForMark("called");
    player->input().close();
    ASSERT_TRUE(player->open(clipPath("h264_aac.mp4")));
    PlayedFrame picture;
    EXPECT_TRUE(player->readPicture(picture));
}

// -------------------------------------------------------------------------------------------------
// Seeks.

class InputMmsSeeks : public testing::TestWithParam<bool>
{
};

TEST_P(InputMmsSeeks, PicturesBehindFiftyTargetsAreThoseFromDisk)
{
    MmsServerOptions options;
    options.tellLength = GetParam(); // with it the input seeks by bytes, otherwise by time
    MmsServer server(clipFile(), options);
    const auto player = openInput(server.url());
    const auto expected = picturesOf(playFile(clipPath(Clip)));
    const auto numbers = numbersOf(expected);
    std::mt19937 random(4711);
    for (int i = 0; i < 50; ++i) {
        const unsigned long long targetMs = random() % 5500;
        SCOPED_TRACE(targetMs);
        ASSERT_EQ(player->input().setTimePosition(targetMs), Result::Done);
        EXPECT_EQ(server.plays().back().timeMs, targetMs);
        const std::size_t plays = server.plays().size();
        int former = -1;
        for (int k = 0; k < 5; ++k) {
            PlayedFrame picture;
            ASSERT_TRUE(player->readPicture(picture)) << k;
            const auto found = numbers.find(picture.md5);
            ASSERT_NE(found, numbers.end()) << "picture " << k << " is not in the clip";
            EXPECT_TRUE(former < 0 || found->second == former + 1) << former;
            former = found->second;
            EXPECT_GE(picture.timestampUs, targetMs * 1000);
            // The server begins at a key frame up to a second before the target, and the whole
            // second of the target is the time that counts from there on.
            const auto diskMs =
                static_cast<double>(expected[static_cast<std::size_t>(former)].timestampUs / 1000);
            EXPECT_NEAR(diskMs, static_cast<double>(picture.timestampUs) / 1000, 1300);
        }
        EXPECT_EQ(server.plays().size(), plays) << "one request is one seek";
    }
}

TEST_P(InputMmsSeeks, WhatFollowsATargetIsThereToTheEnd)
{
    MmsServerOptions options;
    options.tellLength = GetParam();
    MmsServer server(clipFile(), options);
    const auto player = openInput(server.url());
    const auto expected = picturesOf(playFile(clipPath(Clip)));
    for (const unsigned long long targetMs : {5000, 1000, 3000}) {
        ASSERT_EQ(player->input().setTimePosition(targetMs), Result::Done);
        const auto rest = picturesOf(player->readAll());
        ASSERT_FALSE(rest.empty()) << targetMs;
        EXPECT_EQ(rest.back().md5, expected.back().md5) << targetMs;
        EXPECT_EQ(numbersOf(expected)[rest.front().md5] + rest.size(), expected.size());
    }
}

INSTANTIATE_TEST_SUITE_P(Lengths, InputMmsSeeks, testing::Bool(),
                         [](const auto& test) { return test.param ? "Told" : "Unknown"; });

TEST(InputMms, BroadcastPlaysAndCannotSeek)
{
    MmsServerOptions options;
    options.broadcast = true;
    MmsServer server(clipFile(), options);
    const auto player = openInput(server.url());
    EXPECT_EQ(player->describeMedium().seekable, false);
    EXPECT_EQ(player->input().setTimePosition(2000), Result::NotPossible);
    const auto pictures = picturesOf(player->readAll());
    const auto expected = picturesOf(playFile(clipPath(Clip)));
    EXPECT_EQ(pictures.size(), expected.size());
    expectBeginOf(pictures, expected);
    EXPECT_EQ(server.plays().size(), 1U);
}

// -------------------------------------------------------------------------------------------------
// Metadata.

TEST(InputMms, MetadataComesAsAFrameAtItsPlace)
{
    MmsServerOptions options;
    options.chunks = {{60, mms::metadataChunk({{"title", "First Song"}})},
                      {180, mms::metadataChunk({{"title", "Second Song"}})}};
    MmsServer server(clipFile(), options);
    const auto player = openInput(server.url());
    std::vector<std::string> metadata;
    std::vector<int> picturesBefore;
    int pictures = 0;
    for (;;) {
        PacketType::Enum type = PacketType::None;
        unsigned char* data = nullptr;
        unsigned int size = 0;
        unsigned long long timestamp = 0;
        unsigned long long duration = 1;
        void* context = nullptr;
        bool key = false;
        if (!player->input().readFrame(type, data, size, timestamp, duration, context, key)) {
            break;
        }
        if (type == PacketType::Metadata) {
            metadata.emplace_back(reinterpret_cast<const char*>(data), size);
            picturesBefore.push_back(pictures);
            EXPECT_EQ(duration, 0U);
        }
        pictures += type == PacketType::Video ? 1 : 0;
        player->input().freeFrame(data, context);
    }
    EXPECT_EQ(pictures, 150);
    ASSERT_EQ(metadata.size(), 2U);
    EXPECT_NE(metadata[0].find("First Song"), std::string::npos);
    EXPECT_NE(metadata[1].find("Second Song"), std::string::npos);
    // In the middle of the frames, about as far apart as the packets are: 120 of 245.
    EXPECT_GT(picturesBefore[0], 5);
    EXPECT_LT(picturesBefore[1], 149);
    EXPECT_NEAR(picturesBefore[1] - picturesBefore[0], 150 * 120 / 245, 30);
}

} // namespace
