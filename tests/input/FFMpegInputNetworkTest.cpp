#include "input/FFMpegInput.h"

#include "tests/input/NetworkInputs.h"
#include "tests/support/CoreReader.h"
#include "tests/support/InputPlayer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MmsServer.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/ServedContent.h"
#include "tests/support/TempFolder.h"
#include "tests/support/WatchedThread.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

using zel::test::clipPath;
using zel::test::framesOf;
using zel::test::InputEvents;
using zel::test::InputPlayer;
using zel::test::LogCapture;
using zel::test::MmsServer;
using zel::test::openInput;
using zel::test::PlayedFrame;
using zel::test::samplesOf;
using zel::test::ScriptedServer;
using zel::test::serveBytes;
using zel::test::serveClip;
using zel::test::serveClipAndStall;
using zel::test::serveClipUntilGo;
using zel::test::ServeOptions;
using zel::test::ServerConnection;
using zel::test::ServerHeaders;
using zel::test::ServerRequest;
using zel::test::ServerScript;
using zel::test::textContent;
using zel::test::WatchedThread;
namespace ConnectionEvent = zel::ConnectionEvent;
namespace InputEvent = zel::streamer::InputEvent;
namespace PacketType = zel::streamer::PacketType;
namespace Result = zel::streamer::Result;

namespace {

constexpr int sizeQuery = 0x10000;

/// The input with what its demuxer and its client call.
class OpenInput : public FFMpegInput
{
public:
    using FFMpegInput::_MMSHMetadataCallback;
    using FFMpegInput::connectionEventCallback;
    using FFMpegInput::HTTPReadCallback;
    using FFMpegInput::HTTPSeekCallback;
};

void expectSameFrames(const std::vector<PlayedFrame>& actual,
                      const std::vector<PlayedFrame>& expected, bool withTimes)
{
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        ASSERT_EQ(actual[i].md5, expected[i].md5) << "frame " << i;
        ASSERT_EQ(actual[i].samples, expected[i].samples) << "frame " << i;
        if (withTimes) {
            ASSERT_EQ(actual[i].timestampUs, expected[i].timestampUs) << "frame " << i;
            ASSERT_EQ(actual[i].durationUs, expected[i].durationUs) << "frame " << i;
        }
    }
}

// -------------------------------------------------------------------------------------------------
// Routes.

TEST(FFMpegInputRoutes, ExtensionAndSchemeAreTakenInAnyCase)
{
    EXPECT_TRUE(FFMpegInput::isProgressiveDownloadSupported("http://", "MP4"));
    EXPECT_TRUE(FFMpegInput::isProgressiveDownloadSupported("HTTPS://", "Flv"));
    EXPECT_TRUE(FFMpegInput::isMMSHSupported("HTTP://", "WMV"));
}

TEST(FFMpegInputRoutes, ProgressiveDownloadTakesItsFormatsOnly)
{
    for (const char* extension : {"flv", "fla", "fll", "mp3", "mov", "mp4", "m4v", "aac", "3gp"}) {
        EXPECT_TRUE(FFMpegInput::isProgressiveDownloadSupported("http://", extension)) << extension;
    }
    for (const char* extension : {"mkv", "matroska", "wmv", "asf", "ts", "avi", ""}) {
        EXPECT_FALSE(FFMpegInput::isProgressiveDownloadSupported("http://", extension))
            << extension;
    }
    EXPECT_FALSE(FFMpegInput::isProgressiveDownloadSupported("", "mp4"));
    EXPECT_FALSE(FFMpegInput::isProgressiveDownloadSupported("ftp://", "mp4"));
}

TEST(FFMpegInputRoutes, MmsTakesWindowsMediaOnly)
{
    for (const char* extension : {"asf", "wma", "wmv"}) {
        EXPECT_TRUE(FFMpegInput::isMMSHSupported("https://", extension)) << extension;
        EXPECT_FALSE(FFMpegInput::isMMSHSupported("mms://", extension)) << extension;
    }
    EXPECT_FALSE(FFMpegInput::isMMSHSupported("http://", "mp4"));
}

TEST(FFMpegInputRoutes, MatroskaIsReadByFFmpegItself)
{
    LogCapture log;
    ScriptedServer server(serveClip("h264_aac.mkv"));
    const auto player = openInput(server.url("/a.mkv"));
    EXPECT_TRUE(log.waitFor("NOT using HTTPClient"));
    EXPECT_FALSE(log.contains("Using HTTPClient"));
    unsigned percent = 0;
    EXPECT_FALSE(player->input().getInputBufferStatus(percent));
}

TEST(FFMpegInputRoutes, WindowsMediaOfAPlainServerIsReadByFFmpegItself)
{
    LogCapture log;
    ScriptedServer server(serveClip("wmv2_wma2.asf"));
    const auto player = openInput(server.url("/a.asf"));
    EXPECT_TRUE(log.waitFor("Using MMSHClient"));
    EXPECT_TRUE(log.waitFor("FFMpegInput::open(): MMSH Client open failed"));
    EXPECT_TRUE(log.waitFor("NOT using HTTPClient"));
    EXPECT_FALSE(player->readAll().empty());
}

TEST(FFMpegInputRoutes, UnreachableDownloadIsFinal)
{
    LogCapture log;
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.respond(404, {}, "");
    });
    InputPlayer player(std::make_unique<FFMpegInput>());
    EXPECT_FALSE(player.open(server.url("/a.mp4")));
    EXPECT_EQ(player.error().code, 404);
    EXPECT_EQ(player.error().message, "FFMpeg input: URL could not be reached.");
    EXPECT_TRUE(log.waitFor("FFMpegInput::open(): HTTP Client open failed"));
    EXPECT_FALSE(log.contains("NOT using HTTPClient"));
}

TEST(FFMpegInputRoutes, DownloadOfWhatIsNoMediumCannotBeRendered)
{
    ScriptedServer server(serveClip("text.mp4"));
    InputPlayer player(std::make_unique<FFMpegInput>());
    EXPECT_FALSE(player.open(server.url("/a.mp4")));
    EXPECT_EQ(player.error().code, 2);
    EXPECT_EQ(player.error().message, "FFMpeg input: File could not be rendered.");
}

TEST(FFMpegInputRoutes, ServerMayForceTheFormat)
{
    LogCapture log;
    ServeOptions options;
    options.headers = {{"Zel-Force-Extension", "flv"}};
    ScriptedServer server(serveClip("h264_aac.flv", options));
    const auto player = openInput(server.url("/a.mp4"));
    EXPECT_TRUE(
        log.waitFor("FFMpegInput::open(): override extension using HTTP/MMSH header info flv"));
    EXPECT_FALSE(player->readAll().empty());
}

TEST(FFMpegInputRoutes, OpensAnotherMediumBehindAFailedOne)
{
    ScriptedServer server([](const ServerRequest& request, ServerConnection& connection) {
        if (request.target == "/no.mp4") {
            connection.respond(404, {}, "");
        } else {
            serveClip("h264_aac.mp4")(request, connection);
        }
    });
    InputPlayer player(std::make_unique<FFMpegInput>());
    EXPECT_FALSE(player.open(server.url("/no.mp4")));
    ASSERT_TRUE(player.open(server.url("/yes.mp4")));
    EXPECT_FALSE(player.readAll().empty());
    ASSERT_TRUE(player.open(clipPath("h264_aac.mp4"))) << "a file behind a download";
    unsigned percent = 0;
    EXPECT_FALSE(player.input().getInputBufferStatus(percent));
}

// -------------------------------------------------------------------------------------------------
// Descriptions.

TEST(FFMpegInputNetwork, DurationOfTheServerGoesBeforeTheDemuxers)
{
    ServeOptions options;
    options.headers = {{"Zel-Stream-Duration", "123456"}, {"Zel-Stream-ID", "78"}};
    ScriptedServer server(serveClip("h264_aac.mp4", options));
    const auto player = openInput(server.url("/a.mp4"));
    const auto medium = player->describeMedium();
    EXPECT_EQ(medium.durationMs, 123456U);
    EXPECT_STREQ(medium.properties.get("ZelStreamID"), "78");
}

TEST(FFMpegInputNetwork, WithoutADurationFromTheServerTheDemuxersStays)
{
    InputPlayer file(std::make_unique<FFMpegInput>());
    ASSERT_TRUE(file.open(clipPath("h264_aac.mp4")));
    ScriptedServer server(serveClip("h264_aac.mp4"));
    const auto player = openInput(server.url("/a.mp4"));
    EXPECT_EQ(player->describeMedium().durationMs, file.describeMedium().durationMs);
    EXPECT_EQ(player->describeMedium().properties.get("ZelStreamID"), nullptr);
}

TEST(FFMpegInputNetwork, UnseekableServerMakesTheMediumUnseekable)
{
    LogCapture log;
    ServeOptions options;
    options.ranges = false;
    ScriptedServer server(serveClip("h264_faststart.mp4", options));
    const auto player = openInput(server.url("/a.mp4"));
    EXPECT_EQ(player->describeMedium().seekable, false);
    EXPECT_EQ(player->input().setTimePosition(1000), Result::NotPossible);
    EXPECT_TRUE(log.waitFor("FFMpegInput::setPosition(): protocol is not seekable"));
    EXPECT_FALSE(player->readAll().empty()) << "nothing has moved";
}

TEST(FFMpegInputNetwork, FillLevelOfTheRingIsToldUntilAllHasArrived)
{
    ScriptedServer server(serveClipUntilGo("h264_aac.flv", 1));
    const auto player = openInput(server.url("/a.flv"));
    unsigned percent = 1000;
    EXPECT_TRUE(player->input().getInputBufferStatus(percent));
    EXPECT_LE(percent, 100U);
    server.mark("go");
    player->readAll();
    EXPECT_FALSE(player->input().getInputBufferStatus(percent));
}

// -------------------------------------------------------------------------------------------------
// What the demuxer asks for.

TEST(FFMpegInputNetwork, ProbingBehindTheEndIsAnsweredWithoutMoving)
{
    LogCapture log;
    ScriptedServer server(serveClip("h264_aac.flv"));
    OpenInput input;
    zel::host::MediumRecord medium(server.url("/a.flv"));
    ASSERT_TRUE(input.open(&medium, nullptr, nullptr));
    const auto length =
        static_cast<long long>(std::filesystem::file_size(clipPath("h264_aac.flv")));
    const std::size_t requests = server.requests().size();
    EXPECT_EQ(input.HTTPSeekCallback(length, SEEK_SET), length);
    EXPECT_EQ(input.HTTPSeekCallback(length + 5, SEEK_SET), length + 5);
    EXPECT_EQ(input.HTTPSeekCallback(0, sizeQuery), length);
    EXPECT_EQ(server.requests().size(), requests);
    EXPECT_TRUE(log.waitFor("HTTPClient::seek " + std::to_string(length) + " >= contentLength " +
                            std::to_string(length)));
}

/// A server of the system's own kind: makes the stream as it sends it, and seeks by time.
ServerScript serveTranscoded(const std::string& name)
{
    const std::string bytes = zel::test::readFile(clipPath(name));
    return [bytes](const ServerRequest&, ServerConnection& connection) {
        connection.beginChunks(200,
                               {{"Zel-Streaming", "transcoded"}, {"Accept-Zel-Seek", "seconds"}});
        connection.chunk(bytes);
        connection.endChunks();
    };
}

TEST(FFMpegInputNetwork, TranscodedStreamTellsAFakeSizeAndHasNoTail)
{
    LogCapture log;
    ScriptedServer server(serveTranscoded("h264_aac.flv"));
    OpenInput input;
    zel::host::MediumRecord medium(server.url("/a.flv"));
    ASSERT_TRUE(input.open(&medium, nullptr, nullptr));
    EXPECT_EQ(input.HTTPSeekCallback(0, sizeQuery), 0x7ffffffe);
    EXPECT_EQ(input.HTTPSeekCallback(0x7ffffbff, SEEK_SET), -1);
    EXPECT_TRUE(log.waitFor("tail requested"));
    input.stop();
    EXPECT_EQ(input.HTTPSeekCallback(0, sizeQuery), -1);
    unsigned char byte = 0;
    EXPECT_EQ(input.HTTPReadCallback(&byte, 1), -1);
}

TEST(FFMpegInputNetwork, SeekInATranscodedStreamSendsTheTime)
{
    ScriptedServer server(serveTranscoded("h264_aac.flv"));
    const auto player = openInput(server.url("/a.flv"));
    PlayedFrame frame;
    ASSERT_TRUE(player->readPicture(frame));
    player->input().setTimePosition(2500);
    bool timeSent = false;
    for (const ServerRequest& request : server.requests()) {
        timeSent = timeSent || request.header("Zel-Seek") == "seconds=2";
    }
    EXPECT_TRUE(timeSent);
}

TEST(FFMpegInputNetwork, StopEndsAReadThatWaitsForTheServer)
{
    ScriptedServer server(serveClipAndStall("h264_aac.flv"));
    const auto player = openInput(server.url("/a.flv"));
    WatchedThread reader([&] {
        for (PlayedFrame frame; player->read(frame);) {
        }
    });
    EXPECT_TRUE(reader.awaitSleep());
    player->input().stop();
    reader.join();
}

TEST(FFMpegInputNetwork, CloseEndsAReadThatWaitsForTheServer)
{
    ScriptedServer server(serveClipAndStall("h264_aac.flv"));
    const auto player = openInput(server.url("/a.flv"));
    WatchedThread reader([&] {
        for (PlayedFrame frame; player->read(frame);) {
        }
    });
    EXPECT_TRUE(reader.awaitSleep());
    player->input().close();
    reader.join();
    server.waitUntilIdle();
}

TEST(FFMpegInputNetwork, CloseEndsAnOpenThatWaitsForTheServer)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.waitUntilPeerCloses();
    });
    for (const char* path : {"/a.mp4", "/a.asf"}) {
        InputPlayer player(std::make_unique<FFMpegInput>());
        const std::size_t requests = server.requests().size();
        bool opened = true;
        WatchedThread opener([&] { opened = player.open(server.url(path)); });
        server.waitForRequests(requests + 1);
        player.input().close();
        opener.join();
        EXPECT_FALSE(opened);
    }
}

TEST(FFMpegInputNetwork, ResetPositionDropsWhatLiesInTheBuffer)
{
    LogCapture log;
    ScriptedServer server(serveClip("h264_aac.flv"));
    const auto player = openInput(server.url("/a.flv"));
    PlayedFrame first;
    ASSERT_TRUE(player->readPicture(first));
    unsigned percent = 0;
    while (player->input().getInputBufferStatus(percent)) {
        std::this_thread::yield(); // until all of it has arrived
    }
    EXPECT_EQ(player->input().resetPosition(0), Result::Done);
    EXPECT_TRUE(log.waitFor("Flushing network buffer. Initial r/w: "));
    EXPECT_TRUE(log.waitFor("FFMpegInput::resetPosition: flushed "));
    const auto rest = player->readAll();
    EXPECT_LT(framesOf(rest, PacketType::Video).size(), 20U) << "near the end of what had come";
}

// -------------------------------------------------------------------------------------------------
// Events.

TEST(FFMpegInputNetwork, EndOfTheTransferIsAnEvent)
{
    ScriptedServer server(serveClipUntilGo("h264_aac.flv", 1000));
    const auto player = openInput(server.url("/a.flv"));
    InputEvents events(player->input());
    server.mark("go");
    player->readAll();
    events.waitFor(1);
    EXPECT_EQ(events.soFar(), std::vector<int>{InputEvent::EndOfFileReceived});
}

TEST(FFMpegInputNetwork, EventDuringASeekDoesNotReachTheHost)
{
    LogCapture log;
    std::atomic<bool> isPlaying{false};
    const ServerScript serve = serveClip("large.mp4");
    ScriptedServer server([&](const ServerRequest& request, ServerConnection& connection) {
        if (isPlaying) {
            connection.mark("asked");
            connection.waitForMark("go");
        }
        serve(request, connection);
    });
    OpenInput input;
    zel::host::MediumRecord medium(server.url("/a.mp4"));
    ASSERT_TRUE(input.open(&medium, nullptr, nullptr));
    InputEvents events(input);
    isPlaying = true;
    // Further than the ring reaches, so that the server is asked.
    WatchedThread seeker([&] { input.setTimePosition(15000); });
    server.waitForMark("asked");
    input.connectionEventCallback(ConnectionEvent::END_OF_FILE_RECEIVED);
    // Asked here, for the answer that follows has an end of its own.
    EXPECT_TRUE(events.soFar().empty());
    server.mark("go");
    seeker.join();
    EXPECT_TRUE(log.waitFor(
        "FFMpegInput: END_OF_FILE_RECEIVED received while opening, ignore to prevent deadlock"));
}

TEST(FFMpegInputNetwork, UnknownEventIsAnErrorForAHostThatListens)
{
    OpenInput input;
    const auto unknown = static_cast<ConnectionEvent::ConnectionEvent>(7);
    EXPECT_NO_THROW(input.connectionEventCallback(unknown));
    const InputEvents events(input);
    EXPECT_THROW(input.connectionEventCallback(unknown), std::logic_error);
}

TEST(FFMpegInputNetwork, HostMayCallBackFromAnEvent)
{
    ScriptedServer server(serveClipUntilGo("h264_aac.flv", 1000));
    const auto player = openInput(server.url("/a.flv"));
    struct Host
    {
        InputPlayer& player;
        ScriptedServer& server;
    } host{*player, server};
    player->input().setInputEventCallback(
        [](InputEvent::Enum, int, int, void* data) {
            auto* called = static_cast<Host*>(data);
            called->player.describeMedium();
            unsigned percent = 0;
            called->player.input().getInputBufferStatus(percent);
            unsigned long long position = 0;
            called->player.input().getPosition(position);
            called->player.input().setTimePosition(0);
            EXPECT_FALSE(called->player.open(clipPath("h264_aac.mp4")));
            called->player.input().stop();
            called->player.input().close();
            called->server.mark("called");
        },
        &host);
    server.mark("go");
    server.waitForMark("called");
    PlayedFrame frame;
    EXPECT_FALSE(player->read(frame));
    player->input().close();
    ASSERT_TRUE(player->open(clipPath("h264_aac.mp4")));
    EXPECT_TRUE(player->readPicture(frame));
}

// -------------------------------------------------------------------------------------------------
// The same as from disk.

class HttpEquality : public testing::TestWithParam<const char*>
{
};

TEST_P(HttpEquality, FramesAndTimesAreThoseFromDisk)
{
    const std::string name = GetParam();
    ScriptedServer server(serveClip(name));
    const auto player = openInput(server.url("/" + name));
    const auto frames = player->readAll();
    InputPlayer file(std::make_unique<FFMpegInput>());
    ASSERT_TRUE(file.open(clipPath(name)));
    const bool generatedTimes = name.ends_with(".mp3");
    expectSameFrames(frames, file.readAll(), !generatedTimes);
}

INSTANTIATE_TEST_SUITE_P(Clips, HttpEquality,
                         testing::Values("h264_aac.mp4", "h264_faststart.mp4", "h264_aac.mov",
                                         "h264_aac.flv", "flv1_mp3.flv", "aac.m4a", "mp3_vbr.mp3",
                                         "mp3_cbr.mp3", "amr_wb.3gp", "h264_fragmented.mp4"),
                         [](const auto& test) {
                             std::string name = test.param;
                             std::replace(name.begin(), name.end(), '.', '_');
                             return name;
                         });

TEST(HttpEqualityWithoutRanges, FramesAreThoseFromDisk)
{
    for (const char* name : {"h264_faststart.mp4", "h264_aac.flv", "mp3_vbr.mp3"}) {
        ServeOptions options;
        options.ranges = false;
        ScriptedServer server(serveClip(name, options));
        const auto player = openInput(server.url(std::string("/") + name));
        InputPlayer file(std::make_unique<FFMpegInput>());
        ASSERT_TRUE(file.open(clipPath(name)));
        expectSameFrames(player->readAll(), file.readAll(), false);
    }
}

/// Fifty targets, in any order: the first picture behind each is the one from disk.
void expectSameSeeks(InputPlayer& player, InputPlayer& file, unsigned long long lengthMs)
{
    std::mt19937 random(4711);
    for (int i = 0; i < 50; ++i) {
        const unsigned long long targetMs = random() % lengthMs;
        ASSERT_EQ(player.input().setTimePosition(targetMs), file.input().setTimePosition(targetMs));
        PlayedFrame actual;
        PlayedFrame expected;
        ASSERT_EQ(player.readPicture(actual), file.readPicture(expected)) << targetMs;
        EXPECT_EQ(actual.md5, expected.md5) << "target " << targetMs << " ms";
        EXPECT_EQ(actual.timestampUs, expected.timestampUs) << "target " << targetMs << " ms";
    }
}

TEST(HttpSeeks, PicturesAreThoseFromDisk)
{
    for (const char* name : {"h264_aac.mp4", "h264_aac.flv", "large.mp4"}) {
        SCOPED_TRACE(name);
        ScriptedServer server(serveClip(name));
        const auto player = openInput(server.url(std::string("/") + name));
        InputPlayer file(std::make_unique<FFMpegInput>());
        ASSERT_TRUE(file.open(clipPath(name)));
        expectSameSeeks(*player, file, file.describeMedium().getDuration());
    }
}

TEST(MmsEquality, PicturesAndSamplesAreThoseFromDisk)
{
    const std::string path = clipPath("wmv2_wma2.asf");
    MmsServer server(zel::test::AsfFile::read(path));
    const auto player = openInput(server.url());
    InputPlayer file(std::make_unique<FFMpegInput>());
    ASSERT_TRUE(file.open(path));
    const auto frames = player->readAll();
    const auto expected = file.readAll();
    expectSameFrames(framesOf(frames, PacketType::Video), framesOf(expected, PacketType::Video),
                     false);
    EXPECT_EQ(samplesOf(frames), samplesOf(expected));
    EXPECT_EQ(server.plays().size(), 1U);
}

} // namespace
