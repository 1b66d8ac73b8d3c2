#include "input/FFMpegInput.h"

#include "common/utils/Clock.h"
#include "host/Records.h"
#include "input/FFMpegDecoderCore.h"
#include "plugin/MetadataPacket.h"
#include "tests/support/CoreReader.h"
#include "tests/support/FlvMedium.h"
#include "tests/support/LogCapture.h"
#include "tests/support/LoopbackListener.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

using zel::host::ErrorRecord;
using zel::host::MediumRecord;
using zel::host::OutputStreamRecord;
using zel::streamer::MetadataPacket;
using zel::test::audioOf;
using zel::test::clipPath;
using zel::test::FlvMedium;
using zel::test::LogCapture;
using zel::test::LoopbackListener;
using zel::test::readSample;
using zel::test::readSamples;
using zel::test::Sample;
using zel::test::TempFolder;
using zel::test::unusedPort;
using zel::test::videoOf;
using zel::test::writeFile;
namespace DecodingMode = zel::streamer::DecodingMode;
namespace InputEvent = zel::streamer::InputEvent;
namespace PacketType = zel::streamer::PacketType;

namespace {

std::optional<Sample> readFrame(FFMpegInput& input)
{
    Sample sample;
    unsigned char* data = nullptr;
    void* context = nullptr;
    if (!input.readFrame(sample.type, data, sample.size, sample.timestampUs, sample.durationUs,
                         context, sample.keyFrame)) {
        return std::nullopt;
    }
    if (data != nullptr) {
        sample.bytes.assign(reinterpret_cast<const char*>(data), sample.size);
        sample.hash = std::hash<std::string_view>()(sample.bytes);
        if (sample.type != PacketType::Metadata) {
            sample.bytes.clear();
        }
    }
    input.freeFrame(data, context);
    return sample;
}

std::vector<Sample> readFrames(FFMpegInput& input, std::size_t most = SIZE_MAX)
{
    std::vector<Sample> samples;
    while (samples.size() < most) {
        auto sample = readFrame(input);
        if (!sample) {
            break;
        }
        samples.push_back(std::move(*sample));
    }
    return samples;
}

class FFMpegInputTest : public testing::Test
{
protected:
    bool open(const std::string& url) { return input->open(new_(url), &error, nullptr); }
    bool openClip(const std::string& name) { return open(clipPath(name)); }

    /// A record that lives as long as the test.
    MediumRecord* new_(const std::string& url)
    {
        records.push_back(std::make_unique<MediumRecord>(url));
        return records.back().get();
    }

    /// The input's own log, which is whole once the input is gone.
    std::string logText()
    {
        input.reset();
        return log.fileText("FFMpegInput.log");
    }

    static bool contains(const std::string& text, const std::string& part)
    {
        return text.find(part) != std::string::npos;
    }

    LogCapture log;
    std::vector<std::unique_ptr<MediumRecord>> records;
    ErrorRecord error;
    std::unique_ptr<FFMpegInput> input = std::make_unique<FFMpegInput>();
};

using FFMpegInputMedia = FFMpegInputTest;

constexpr const char* CannotRender = "FFMpeg input: File could not be rendered.";

} // namespace

// ---------------------------------------------------------------------------------------------
// Opening.

TEST_F(FFMpegInputMedia, LocalFileIsOpenedWithoutAClient)
{
    ASSERT_TRUE(openClip("h264_aac.mp4"));
    EXPECT_FALSE(error.code);
    unsigned int percent = 77;
    EXPECT_FALSE(input->getInputBufferStatus(percent));
    const std::string text = logText();
    EXPECT_TRUE(contains(text, "NOT using HTTPClient"));
    EXPECT_TRUE(contains(text, "FFMpegInput::open(" + clipPath("h264_aac.mp4") + ")"));
    EXPECT_FALSE(contains(text, "Init() failed"));
}

TEST_F(FFMpegInputTest, MissingFileIsAnErrorOfCodeTwo)
{
    EXPECT_FALSE(open("/no/such/file.mp4"));
    EXPECT_EQ(error.code, 2);
    EXPECT_EQ(error.message, CannotRender);
    EXPECT_FALSE(readFrame(*input));
    const std::string text = logText();
    EXPECT_TRUE(contains(text, "FFMpegInput::open(): Init() failed -2"));
    EXPECT_TRUE(contains(text, "NOT using HTTPClient"));
}

TEST_F(FFMpegInputTest, ErrorRecordMayBeMissing)
{
    EXPECT_FALSE(input->open(new_("/no/such/file.mp4"), nullptr, nullptr));
}

TEST_F(FFMpegInputTest, UrlMayBeNull)
{
    class Nameless : public MediumRecord
    {
    public:
        const char* getUrl() const override { return nullptr; }
        const char* getExtension() const override { return nullptr; }
        const char* getProtocol() const override { return nullptr; }
        zel::streamer::MapGeneric* getProperties() const override { return nullptr; }
    };
    const Nameless medium;
    EXPECT_FALSE(input->open(&medium, &error, nullptr));
    EXPECT_EQ(error.code, 2);
    EXPECT_TRUE(contains(logText(), "FFMpegInput::open()\n"));
}

TEST_F(FFMpegInputMedia, EveryKindOfRubbishIsAnErrorOfCodeTwo)
{
    for (const char* clip : {"empty.mp4", "text.mp4", "noise.mp4", "folder.mp4", "subtitles.srt",
                             "header_h264_aac.mkv", "undecodable_both.mkv", "channels_19.wav"}) {
        FFMpegInput any;
        ErrorRecord why;
        EXPECT_FALSE(any.open(new_(clipPath(clip)), &why, nullptr)) << clip;
        EXPECT_EQ(why.code, 2) << clip;
        EXPECT_EQ(why.message, CannotRender) << clip;
        EXPECT_FALSE(readFrame(any)) << clip;
        EXPECT_EQ(any.close(), 1);
    }
}

TEST_F(FFMpegInputMedia, StreamThatMustNotBeTranscodedFailsAtOnce)
{
    // The very file, under a name with the query word.
    const TempFolder folder;
    const std::string path = folder.path("clip.mp4?a=b&skipTranscoding=1");
    std::filesystem::copy_file(clipPath("h264_aac.mp4"), path);
    EXPECT_FALSE(open(path));
    EXPECT_EQ(error.code, 2);
    EXPECT_EQ(error.message, CannotRender);
    const std::string text = logText();
    EXPECT_TRUE(contains(text, "FFMpegInput failed to open skipTranscoding stream"));
    EXPECT_TRUE(contains(text, "FFMpegInput::open(): Init() failed -1"));
    EXPECT_FALSE(contains(text, "NOT using HTTPClient"));
}

TEST_F(FFMpegInputTest, QueryWordAtTheVeryStartDoesNotCount)
{
    EXPECT_FALSE(open("skipTranscoding=1"));
    const std::string text = logText();
    EXPECT_FALSE(contains(text, "skipTranscoding stream"));
    EXPECT_TRUE(contains(text, "NOT using HTTPClient"));
}

TEST_F(FFMpegInputTest, OtherValuesOfTheQueryWordDoNotCount)
{
    EXPECT_FALSE(open("/no/such/file?skipTranscoding=0"));
    EXPECT_FALSE(contains(logText(), "skipTranscoding stream"));
}

TEST_F(FFMpegInputMedia, CanBeOpenedAgainAfterAFailure)
{
    EXPECT_FALSE(open("/no/such/file.mp4"));
    ASSERT_TRUE(openClip("flv1_mp3.flv"));
    EXPECT_EQ(readFrames(*input, 10).size(), 10u);
    EXPECT_EQ(input->close(), 1);
    ASSERT_TRUE(openClip("mp3_cbr.mp3"));
    EXPECT_EQ(audioOf(readFrames(*input, 10)).size(), 10u);
}

TEST_F(FFMpegInputMedia, OpenWithoutACloseBetweenReplacesTheMedium)
{
    ASSERT_TRUE(openClip("flv1_mp3.flv"));
    readFrames(*input, 3);
    ASSERT_TRUE(openClip("mp3_cbr.mp3"));
    EXPECT_TRUE(videoOf(readFrames(*input)).empty());
}

TEST_F(FFMpegInputMedia, FailedOpenLeavesNothingOfTheMediumBefore)
{
    ASSERT_TRUE(openClip("flv1_mp3.flv"));
    EXPECT_FALSE(open("/no/such/file.mp4"));
    EXPECT_FALSE(readFrame(*input));
    EXPECT_FALSE(input->isSeekable());
}

TEST_F(FFMpegInputMedia, UpdateOfTheMediumIsCloseAndOpen)
{
    ASSERT_TRUE(openClip("flv1_mp3.flv"));
    readFrames(*input, 3);
    EXPECT_TRUE(input->updateMedium(new_(clipPath("mp3_cbr.mp3")), &error, nullptr));
    EXPECT_EQ(audioOf(readFrames(*input, 5)).size(), 5u);
    EXPECT_FALSE(input->updateMedium(new_("/no/such/file"), &error, nullptr));
    EXPECT_EQ(error.code, 2);
    EXPECT_FALSE(readFrame(*input));
}

TEST_F(FFMpegInputMedia, UpdateOfTheMediumCallsBothWithItsOwnArguments)
{
    class Watched : public FFMpegInput
    {
    public:
        std::vector<std::string> calls;
        std::vector<const void*> arguments;

        bool open(const zel::streamer::MediumDescription* medium, zel::streamer::Error* error,
                  zel::streamer::EncoderEngine* engine) override
        {
            calls.emplace_back("open");
            arguments = {medium, error, engine};
            return FFMpegInput::open(medium, error, engine);
        }
        int close() override
        {
            calls.emplace_back("close");
            return FFMpegInput::close();
        }
    };
    Watched watched;
    ASSERT_TRUE(watched.open(new_(clipPath("flv1_mp3.flv")), &error, nullptr));
    watched.calls.clear();
    int handle = 0; // opaque to the plug-in
    auto* engine = reinterpret_cast<zel::streamer::EncoderEngine*>(&handle);
    const MediumRecord* next = new_(clipPath("mp3_cbr.mp3"));
    EXPECT_TRUE(watched.updateMedium(next, &error, engine));
    EXPECT_EQ(watched.calls, (std::vector<std::string>{"close", "open"}));
    EXPECT_EQ(watched.arguments,
              (std::vector<const void*>{static_cast<const zel::streamer::MediumDescription*>(next),
                                        static_cast<zel::streamer::Error*>(&error), engine}));
}

TEST_F(FFMpegInputMedia, CloseStopsThroughTheVirtualOperation)
{
    class Watched : public FFMpegInput
    {
    public:
        int stops = 0;

        int stop() override
        {
            ++stops;
            return FFMpegInput::stop();
        }
    };
    Watched watched;
    watched.close();
    EXPECT_EQ(watched.stops, 1);
}

TEST_F(FFMpegInputMedia, ClosedObjectKeepsItsSkips)
{
    EXPECT_TRUE(input->skipVideoDecoding());
    ASSERT_TRUE(openClip("flv1_mp3.flv"));
    input->close();
    ASSERT_TRUE(openClip("flv1_mp3.flv"));
    OutputStreamRecord record;
    input->getOutputStreamDescription(&record);
    EXPECT_EQ(record.video.codec, "flv");
    EXPECT_EQ(record.audio.codec, "raw");
}

TEST_F(FFMpegInputMedia, SkipsBeforeOpenAreAppliedToTheNewCore)
{
    EXPECT_TRUE(input->skipVideoDecoding());
    EXPECT_TRUE(input->skipAudioDecoding());
    ASSERT_TRUE(openClip("undecodable_both.mkv"));
    OutputStreamRecord record;
    input->getOutputStreamDescription(&record);
    const auto samples = readFrames(*input);
    EXPECT_EQ(videoOf(samples).size(), 300u);
    EXPECT_GT(audioOf(samples).size(), 500u);
}

TEST_F(FFMpegInputMedia, SkipsAfterOpenReachTheCore)
{
    ASSERT_TRUE(openClip("flv1_mp3.flv"));
    EXPECT_TRUE(input->skipAudioDecoding());
    EXPECT_TRUE(input->skipVideoDecoding());
    OutputStreamRecord record;
    input->getOutputStreamDescription(&record);
    EXPECT_EQ(record.audio.codec, "mp3");
    EXPECT_EQ(record.video.codec, "flv");
}

// ---------------------------------------------------------------------------------------------
// Life and death.

TEST_F(FFMpegInputTest, AnswersOfTheFixedQueriesHold)
{
    EXPECT_FALSE(input->isSingleInstance());
    EXPECT_EQ(input->getCPULoadFactor(), 0);
    EXPECT_EQ(input->start(), 1);
    EXPECT_EQ(input->pause(), 1);
    EXPECT_EQ(input->resume(), 1);
    EXPECT_EQ(input->stop(), 1);
    EXPECT_EQ(input->close(), 1);
    EXPECT_EQ(input->setBytePosition(0), 2);
}

TEST_F(FFMpegInputTest, QueriesBeforeOpenWriteNothing)
{
    MediumRecord medium;
    OutputStreamRecord record;
    unsigned int percent = 77;
    unsigned long long position = 77;
    input->getMediumDescription(&medium);
    input->getInputStreamDescription(&record);
    input->getOutputStreamDescription(&record);
    EXPECT_FALSE(medium.durationMs);
    EXPECT_FALSE(record.multiplexed);
    EXPECT_FALSE(input->isSeekable());
    EXPECT_FALSE(input->getInputBufferStatus(percent));
    EXPECT_EQ(percent, 77u);
    EXPECT_EQ(input->getPosition(position), 2);
    EXPECT_EQ(position, 77u);
    EXPECT_EQ(input->setTimePosition(1000), 2);
    EXPECT_EQ(input->resetPosition(1000), 2);
    EXPECT_FALSE(input->setVideoDecodingMode(DecodingMode::All));
    EXPECT_TRUE(input->skipAudioDecoding());
    EXPECT_TRUE(input->skipVideoDecoding());
    input->start();
    EXPECT_FALSE(readFrame(*input));
    input->setInputEventCallback(nullptr, nullptr);
}

TEST_F(FFMpegInputMedia, QueriesAfterCloseWriteNothing)
{
    ASSERT_TRUE(openClip("h264_aac.mp4"));
    readFrames(*input, 3);
    input->close();
    MediumRecord medium;
    OutputStreamRecord record;
    unsigned long long position = 77;
    input->getMediumDescription(&medium);
    input->getInputStreamDescription(&record);
    input->getOutputStreamDescription(&record);
    EXPECT_FALSE(medium.durationMs);
    EXPECT_FALSE(record.multiplexed);
    EXPECT_FALSE(input->isSeekable());
    EXPECT_EQ(input->getPosition(position), 2);
    EXPECT_EQ(input->setTimePosition(1000), 2);
    EXPECT_EQ(input->resetPosition(1000), 2);
    EXPECT_FALSE(input->setVideoDecodingMode(DecodingMode::All));
    input->start();
    EXPECT_FALSE(readFrame(*input));
    EXPECT_EQ(input->close(), 1);
}

TEST_F(FFMpegInputMedia, QueriesTellTheOpenMedium)
{
    ASSERT_TRUE(openClip("h264_aac.mp4"));
    MediumRecord medium;
    OutputStreamRecord in;
    OutputStreamRecord out;
    input->getMediumDescription(&medium);
    input->getInputStreamDescription(&in);
    input->getOutputStreamDescription(&out);
    EXPECT_EQ(medium.durationMs, 12000u);
    EXPECT_EQ(medium.live, false);
    EXPECT_EQ(medium.title, "Test Film");
    EXPECT_EQ(in.multiplexed, true);
    EXPECT_EQ(in.format, "mov");
    EXPECT_EQ(in.video.codec, "h264");
    EXPECT_EQ(out.multiplexed, false);
    EXPECT_EQ(out.video.codec, "raw");
    EXPECT_TRUE(input->isSeekable());
    EXPECT_TRUE(input->setVideoDecodingMode(DecodingMode::KeyFramesOnly));
}

TEST_F(FFMpegInputMedia, MediumOfUnknownDurationIsLiveAndNotSeekable)
{
    ASSERT_TRUE(openClip("mjpeg.mjpeg"));
    MediumRecord medium;
    input->getMediumDescription(&medium);
    EXPECT_EQ(medium.live, true);
    EXPECT_FALSE(input->isSeekable());
    EXPECT_EQ(readFrame(*input)->timestampUs, 0u);
}

TEST_F(FFMpegInputMedia, CanBeDestroyedInAnyState)
{
    // new; failed; open; started; read; stopped; closed
    for (int state = 0; state < 7; ++state) {
        auto any = std::make_unique<FFMpegInput>();
        if (state == 1) {
            any->open(new_("/no/such/file"), nullptr, nullptr);
        }
        if (state >= 2) {
            ASSERT_TRUE(any->open(new_(clipPath("h264_aac.mp4")), nullptr, nullptr));
        }
        if (state >= 3) {
            any->start();
        }
        if (state >= 4) {
            EXPECT_EQ(readFrames(*any, 5).size(), 5u);
        }
        if (state >= 5) {
            any->stop();
        }
        if (state >= 6) {
            any->close();
        }
        any.reset();
    }
}

TEST_F(FFMpegInputMedia, OpenItselfLeavesTheObjectRunning)
{
    ASSERT_TRUE(openClip("flv1_mp3.flv"));
    EXPECT_TRUE(readFrame(*input)); // without start
}

TEST_F(FFMpegInputMedia, StoppedInputDeliversNothingUntilItIsStarted)
{
    ASSERT_TRUE(openClip("flv1_mp3.flv"));
    const auto all = readFrames(*input);
    ASSERT_TRUE(openClip("flv1_mp3.flv"));
    auto samples = readFrames(*input, 10);
    input->stop();
    EXPECT_FALSE(readFrame(*input));
    EXPECT_FALSE(readFrame(*input));
    input->start();
    const auto rest = readFrames(*input);
    samples.insert(samples.end(), rest.begin(), rest.end());
    expectSameSamples(samples, all, "across a stop");
}

TEST_F(FFMpegInputTest, CloseDuringAnOpenEndsIt)
{
    LoopbackListener listener;
    bool opened = true;
    std::thread opener([&] { opened = open("http://127.0.0.1:" + listener.port() + "/a.mkv"); });
    listener.waitForConnection();
    EXPECT_EQ(input->close(), 1);
    opener.join();
    EXPECT_FALSE(opened);
    EXPECT_EQ(error.code, 2);
    EXPECT_FALSE(readFrame(*input));
}

// ---------------------------------------------------------------------------------------------
// Reading.

TEST_F(FFMpegInputMedia, FramesAreThoseOfTheCore)
{
    FFMpegDecoderCore core;
    ASSERT_EQ(core.initWithUrl(clipPath("h264_aac.mp4"), "mp4"), 0);
    const auto expected = readSamples(core);
    ASSERT_TRUE(openClip("h264_aac.mp4"));
    expectSameSamples(readFrames(*input), expected, "frames of the input");
    EXPECT_FALSE(readFrame(*input));
}

TEST_F(FFMpegInputMedia, PositionFollowsTheFrames)
{
    ASSERT_TRUE(openClip("flv1_mp3.flv"));
    unsigned long long position = 77;
    EXPECT_EQ(input->getPosition(position), 0);
    EXPECT_EQ(position, 0u);
    while (const auto frame = readFrame(*input)) {
        EXPECT_EQ(input->getPosition(position), 0);
        EXPECT_EQ(position, frame->timestampUs / 1000);
    }
    EXPECT_GT(position, 3900u); // stays after the end
}

TEST_F(FFMpegInputMedia, CallWithNothingToDeliverLeavesNoOldFrameBehind)
{
    // Copied H.264 without a set-up in its container: the first call has nothing.
    ASSERT_TRUE(openClip("mp3_cbr.mp3"));
    PacketType::Enum type = PacketType::Video;
    unsigned char mine = 0;
    unsigned char* data = &mine;
    unsigned int size = 7;
    unsigned long long timestamp = 0;
    unsigned long long duration = 0;
    void* context = &mine;
    bool keyFrame = false;
    ASSERT_TRUE(input->readFrame(type, data, size, timestamp, duration, context, keyFrame));
    EXPECT_EQ(type, PacketType::Audio);
    EXPECT_NE(data, &mine);
    EXPECT_EQ(context, nullptr);
    input->freeFrame(data, context);
}

TEST_F(FFMpegInputTest, NothingIsFreedForNoFrame)
{
    input->freeFrame(nullptr, nullptr);
    input->freeFrame(nullptr, &error);
    input->freeFrame(new unsigned char[3], nullptr);
}

TEST_F(FFMpegInputMedia, SignOfLifeIsLoggedOnceAndAgainAfterASeek)
{
    constexpr unsigned long long intervalMs = 30001;
    const unsigned long long start = zel::uptimeMs();
    ASSERT_GE(start, intervalMs) << "the machine has just started";
    ASSERT_TRUE(openClip("flv1_mp3.flv"));
    const auto first = readFrame(*input);
    readFrames(*input, 50);
    ASSERT_EQ(input->setTimePosition(2000), 0);
    readFrames(*input, 20);
    ASSERT_EQ(input->resetPosition(0), 0);
    readFrames(*input, 20);
    const unsigned long long intervals = (zel::uptimeMs() - start) / intervalMs;
    const std::string text = logText();
    unsigned long long count = 0;
    for (std::size_t at = 0;
         (at = text.find("FFMpegInput : read timestamp ", at)) != std::string::npos; ++at) {
        ++count;
    }
    EXPECT_GE(count, 3u);
    EXPECT_LE(count, 3u + intervals);
    EXPECT_TRUE(contains(text, "FFMpegInput : read timestamp " +
                                   std::to_string(first->timestampUs / 1000) + " (ms)"));
}

// ---------------------------------------------------------------------------------------------
// Seeking.

TEST_F(FFMpegInputMedia, SeekOnALocalFileNeedsNoClient)
{
    ASSERT_TRUE(openClip("h264_aac.mp4"));
    EXPECT_EQ(input->setTimePosition(5000), 0);
    const auto frame = readFrame(*input);
    ASSERT_TRUE(frame);
    EXPECT_GE(frame->timestampUs, 5000000u);
    EXPECT_LE(frame->timestampUs, 5100000u);
    const std::string text = logText();
    EXPECT_TRUE(contains(text, "FFMpegInput::setPosition(): 5000ms"));
    EXPECT_TRUE(contains(text, "FFMpegInput::setPosition(): done"));
}

TEST_F(FFMpegInputMedia, FailedSeekIsToldAndReadingGoesOn)
{
    FFMpegDecoderCore core;
    ASSERT_EQ(core.initWithUrl(clipPath("h264_aac.mp4"), "mp4"), 0);
    const auto expected = readSamples(core);
    ASSERT_TRUE(openClip("h264_aac.mp4"));
    auto samples = readFrames(*input, 33);
    EXPECT_EQ(input->setTimePosition(5000000), -1);
    const auto rest = readFrames(*input);
    samples.insert(samples.end(), rest.begin(), rest.end());
    expectSameSamples(samples, expected, "after a failed seek");
    EXPECT_TRUE(contains(logText(), "FFMpegInput::setPosition : setPosition failed!"));
}

TEST_F(FFMpegInputMedia, SeekToTheEndEndsTheStream)
{
    ASSERT_TRUE(openClip("wav_s16.wav"));
    EXPECT_EQ(input->setTimePosition(100000), 0);
    EXPECT_FALSE(readFrame(*input));
    EXPECT_EQ(input->setTimePosition(0), 0);
    EXPECT_TRUE(readFrame(*input));
}

TEST_F(FFMpegInputMedia, ResetOfThePositionOnlyFlushesTheCore)
{
    const TempFolder folder;
    FlvMedium medium;
    for (uint32_t i = 0; i < 40; ++i) {
        medium.audio(40 * i);
    }
    writeFile(folder.path("a.flv"), medium.bytes());
    ASSERT_TRUE(open(folder.path("a.flv")));
    EXPECT_EQ(readFrames(*input, 5).size(), 5u);
    EXPECT_EQ(input->resetPosition(400), 0);
    // The medium has not moved; what lies before the new position is dropped.
    const auto frame = readFrame(*input);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->timestampUs, 400000u);
    const std::string text = logText();
    EXPECT_TRUE(contains(text, "FFMpegInput::resetPosition(): 400ms"));
    EXPECT_TRUE(contains(text, "FFMpegInput::resetPosition(): done"));
    EXPECT_TRUE(contains(text, "FFMpegDecoderCore::flush(): reset to position 400 400000 "));
    EXPECT_FALSE(contains(text, "av_seek_frame"));
}

TEST_F(FFMpegInputMedia, SeekWorksOnAStoppedInput)
{
    ASSERT_TRUE(openClip("h264_aac.mp4"));
    input->stop();
    EXPECT_EQ(input->setTimePosition(3000), 0);
    EXPECT_FALSE(readFrame(*input));
    input->start();
    EXPECT_GE(readFrame(*input)->timestampUs, 3000000u);
}

// ---------------------------------------------------------------------------------------------
// Metadata.

namespace {

std::string songCommand(const std::string& title, const std::string& artist)
{
    std::string song = "TYPE=SNG|TITLE ";
    song.append(title).append("|ARTIST ").append(artist);
    std::string bytes;
    for (const std::string& text : {std::string("TEXT"), song}) {
        for (const char letter : text) {
            bytes += letter;
            bytes += '\0';
        }
        bytes += std::string(2, '\0');
    }
    return bytes;
}

/// Audio of ten seconds with songs announced at these packets.
std::string songMedium(const std::vector<std::pair<uint32_t, std::string>>& songs)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 250; ++i) {
        for (const auto& [at, title] : songs) {
            if (at == i) {
                medium.tag(18, 40 * i, songCommand(title, "Singer"));
            }
        }
        medium.audio(40 * i);
    }
    return medium.bytes();
}

MetadataPacket::Table tableOf(const std::string& bytes)
{
    auto* packet = new MetadataPacket(bytes.data(), static_cast<unsigned int>(bytes.size()));
    MetadataPacket::Table table = packet->getAllMetadata();
    packet->release();
    return table;
}

void ignoreEvent(InputEvent::Enum /*event*/, int /*first*/, int /*second*/, void* /*data*/) {}

using Table = MetadataPacket::Table;

} // namespace

TEST_F(FFMpegInputMedia, MetadataChangeGivesOneFrameAtThePositionOfTheLast)
{
    const TempFolder folder;
    writeFile(folder.path("a.flv"), songMedium({{0, "Zero"}, {10, "Ten"}}));
    ASSERT_TRUE(open(folder.path("a.flv")));
    input->setInputEventCallback(&ignoreEvent, nullptr);
    std::vector<Sample> frames = readFrames(*input);
    ASSERT_EQ(frames.size(), 252u);
    // The command stands in front of a packet, so it is found when that packet is read, and told
    // in the next call.
    EXPECT_TRUE(frames[0].isAudio());
    EXPECT_EQ(frames[1].type, PacketType::Metadata);
    EXPECT_EQ(tableOf(frames[1].bytes), (Table{{"title", "Zero"}, {"artist", "Singer"}}));
    EXPECT_EQ(frames[1].timestampUs, 0u);
    EXPECT_EQ(frames[1].durationUs, 0u);
    EXPECT_EQ(frames[11].timestampUs, 400000u);
    EXPECT_EQ(frames[12].type, PacketType::Metadata);
    EXPECT_EQ(frames[12].timestampUs, 400000u);
    EXPECT_EQ(tableOf(frames[12].bytes), (Table{{"title", "Ten"}, {"artist", "Singer"}}));
    EXPECT_TRUE(frames[13].isAudio());
    EXPECT_EQ(frames[13].timestampUs, 440000u);
    EXPECT_TRUE(contains(logText(), "[FFMpegInput::readFrame] m_metadataChanged"));
}

TEST_F(FFMpegInputMedia, TwoChangesBeforeTheNextReadGiveOneFrameWithTheNewestTable)
{
    const TempFolder folder;
    writeFile(folder.path("a.flv"), songMedium({{10, "First"}, {10, "Second"}}));
    ASSERT_TRUE(open(folder.path("a.flv")));
    input->setInputEventCallback(&ignoreEvent, nullptr);
    std::vector<Sample> metadata;
    for (const Sample& frame : readFrames(*input)) {
        if (frame.type == PacketType::Metadata) {
            metadata.push_back(frame);
        }
    }
    ASSERT_EQ(metadata.size(), 1u);
    EXPECT_EQ(tableOf(metadata[0].bytes), (Table{{"title", "Second"}, {"artist", "Singer"}}));
}

TEST_F(FFMpegInputMedia, MetadataFrameLeavesTheKeyFlagAlone)
{
    const TempFolder folder;
    writeFile(folder.path("a.flv"), songMedium({{0, "Zero"}}));
    for (const bool mine : {true, false}) {
        FFMpegInput any;
        ASSERT_TRUE(any.open(new_(folder.path("a.flv")), &error, nullptr));
        any.setInputEventCallback(&ignoreEvent, nullptr);
        readFrame(any);
        PacketType::Enum type = PacketType::None;
        unsigned char* data = nullptr;
        unsigned int size = 0;
        unsigned long long timestamp = 1;
        unsigned long long duration = 1;
        int dummy = 0;
        void* context = &dummy;
        bool keyFrame = mine;
        ASSERT_TRUE(any.readFrame(type, data, size, timestamp, duration, context, keyFrame));
        EXPECT_EQ(type, PacketType::Metadata);
        EXPECT_EQ(keyFrame, mine);
        EXPECT_EQ(context, nullptr);
        any.freeFrame(data, context);
    }
}

TEST_F(FFMpegInputMedia, StoppedInputKeepsItsMetadataToItself)
{
    const TempFolder folder;
    writeFile(folder.path("a.flv"), songMedium({{0, "Zero"}}));
    ASSERT_TRUE(open(folder.path("a.flv")));
    input->setInputEventCallback(&ignoreEvent, nullptr);
    ASSERT_TRUE(readFrame(*input)->isAudio()); // the change is waiting now
    input->stop();
    EXPECT_FALSE(readFrame(*input));
    input->start();
    EXPECT_EQ(readFrame(*input)->type, PacketType::Metadata);
    EXPECT_TRUE(readFrame(*input)->isAudio());
}

TEST_F(FFMpegInputMedia, ChangesAreOnlyToldToAHostThatAskedAfterOpen)
{
    const TempFolder folder;
    writeFile(folder.path("a.flv"), songMedium({{0, "Zero"}, {10, "Ten"}}));
    input->setInputEventCallback(&ignoreEvent, nullptr); // too early: there is no core to connect
    ASSERT_TRUE(open(folder.path("a.flv")));
    EXPECT_EQ(audioOf(readFrames(*input)).size(), 250u);
    ASSERT_TRUE(open(folder.path("a.flv")));
    EXPECT_EQ(readFrames(*input).size(), 250u);
    // Asking with no callback connects the core as well.
    ASSERT_TRUE(open(folder.path("a.flv")));
    input->setInputEventCallback(nullptr, nullptr);
    EXPECT_EQ(readFrames(*input).size(), 252u);
}

// ---------------------------------------------------------------------------------------------
// Formats and durations.

TEST_F(FFMpegInputTest, ExtensionsHaveTheirFormats)
{
    for (const auto& [extension, format] : {std::pair{"cgi", "mjpeg"},
                                            {"mkv", "matroska"},
                                            {"fla", "flv"},
                                            {"flv", "flv"},
                                            {"mp4", "mov"},
                                            {"mov", "mov"},
                                            {"m4v", "mov"},
                                            {"aac", "mov"},
                                            {"3gp", "mov"},
                                            {"m4a", "mov"},
                                            {"wma", "asf"},
                                            {"wmv", "asf"},
                                            {"CGI", "mjpeg"},
                                            {"Mp4", "mov"},
                                            {"WMV", "asf"}}) {
        EXPECT_STREQ(FFMpegInput::getFFMpegFormatFromExtension(extension), format) << extension;
    }
    EXPECT_EQ(log.count("FFMpegInput -- retrieving format for extension WMV"), 1);
}

TEST_F(FFMpegInputTest, OtherExtensionsStandForThemselves)
{
    for (const char* extension : {"mp3", "MP3", "ts", "avi", "", "mp", "mp44", "asf"}) {
        EXPECT_EQ(FFMpegInput::getFFMpegFormatFromExtension(extension), extension);
    }
    EXPECT_EQ(FFMpegInput::getFFMpegFormatFromExtension(nullptr), nullptr);
}

namespace {

class FFMpegInputDuration : public FFMpegInputTest
{
protected:
    /// What a host sees as the duration, and whether the catalogue's was taken.
    unsigned long long durationOf(const std::string& path, const std::string& extension,
                                  std::optional<unsigned long long> catalogueMs,
                                  const std::string& mediaType = "")
    {
        MediumRecord* medium = new_(path);
        medium->extension = extension;
        medium->durationMs = catalogueMs;
        if (!mediaType.empty()) {
            medium->properties.set("mediatype", mediaType.c_str());
        }
        FFMpegInput any;
        EXPECT_TRUE(any.open(medium, &error, nullptr)) << path;
        live.emplace();
        any.getMediumDescription(&*live);
        seekable = any.isSeekable();
        return live->durationMs.value_or(~0ULL);
    }

    bool useMediumDuration(unsigned long long coreMs, unsigned long long catalogueMs,
                           const std::string& mediaType)
    {
        FFMpegDecoderCore core;
        core.m_duration = coreMs;
        MediumRecord medium("http://host/a.mp3");
        medium.durationMs = catalogueMs;
        if (!mediaType.empty()) {
            medium.properties.set("mediatype", mediaType.c_str());
        }
        return input->useMediumDuration(&core, &medium);
    }

    std::optional<MediumRecord> live;
    bool seekable = false;
};

} // namespace

TEST_F(FFMpegInputDuration, UnknownDurationIsTakenFromTheCatalogue)
{
    EXPECT_EQ(durationOf(clipPath("mjpeg.mjpeg"), "mjpeg", 4321), 4321u);
    EXPECT_EQ(live->live, false);
    EXPECT_TRUE(seekable);
    EXPECT_TRUE(contains(logText(), "FFMpegInput::open(): override duration using medium info "
                                    "4321"));
}

TEST_F(FFMpegInputDuration, UnknownDurationStaysUnknownWithoutTheCatalogue)
{
    EXPECT_EQ(durationOf(clipPath("mjpeg.mjpeg"), "mjpeg", 0), 0u);
    EXPECT_EQ(live->live, true);
    EXPECT_FALSE(seekable);
    EXPECT_FALSE(contains(logText(), "override duration"));
}

TEST_F(FFMpegInputDuration, OfLocalFilesOnlyMp3TrustsTheCatalogue)
{
    EXPECT_EQ(durationOf(clipPath("mp3_no_header.mp3"), "mp3", 9999), 9999u);
    EXPECT_EQ(durationOf(clipPath("mp3_no_header.mp3"), "MP3", 9999), 9999u);
    EXPECT_EQ(durationOf(clipPath("h264_aac.mp4"), "mp4", 9999), 12000u);
    EXPECT_EQ(durationOf(clipPath("wav_s16.wav"), "wav", 9999), 4000u);
    // The extension of the catalogue counts, not the file's.
    EXPECT_EQ(durationOf(clipPath("wav_s16.wav"), "mp3", 9999), 9999u);
    EXPECT_NE(durationOf(clipPath("mp3_no_header.mp3"), "", 9999), 9999u);
}

TEST_F(FFMpegInputDuration, Mp3WithoutCatalogueKeepsItsOwn)
{
    const unsigned long long own = durationOf(clipPath("mp3_cbr.mp3"), "mp3", std::nullopt);
    EXPECT_NEAR(static_cast<double>(own), 6000.0, 100.0);
    EXPECT_EQ(durationOf(clipPath("mp3_cbr.mp3"), "mp3", 0, "audio.web"), own);
}

TEST_F(FFMpegInputDuration, OfOtherMediaTheCatalogueOnlyFillsAGap)
{
    EXPECT_TRUE(useMediumDuration(0, 5000, ""));
    EXPECT_TRUE(useMediumDuration(1ULL << 63, 5000, ""));
    EXPECT_FALSE(useMediumDuration(7000, 5000, ""));
    EXPECT_FALSE(useMediumDuration(7000, 5000, "video.web"));
}

TEST_F(FFMpegInputDuration, WebMediumWithoutDurationCountsAsLive)
{
    EXPECT_TRUE(useMediumDuration(0, 0, "video.web"));
    EXPECT_TRUE(useMediumDuration(7000, 0, "video.web.and.more"));
    EXPECT_FALSE(useMediumDuration(7000, 0, ".web"));
    EXPECT_FALSE(useMediumDuration(7000, 0, "web"));
    EXPECT_FALSE(useMediumDuration(7000, 0, "video.WEB"));
    EXPECT_FALSE(useMediumDuration(7000, 0, ""));
}

// ---------------------------------------------------------------------------------------------
// Properties.

TEST_F(FFMpegInputMedia, NumberOfDecoderThreadsIsAPropertyAndChangesNothing)
{
    std::vector<Sample> expected;
    for (const char* threads : {"", "1", "2", "5", "-3", "none", "0", "99999999999"}) {
        MediumRecord* medium = new_(clipPath("h264_aac.mp4"));
        if (*threads != '\0') {
            medium->properties.set("decoderThreads", threads);
        }
        FFMpegInput any;
        ASSERT_TRUE(any.open(medium, &error, nullptr)) << threads;
        const auto samples = readFrames(any, 200);
        if (expected.empty()) {
            expected = samples;
        }
        expectSameSamples(samples, expected, std::string("decoderThreads ") + threads);
    }
}

TEST_F(FFMpegInputMedia, AllInputsShareOneLogThatEndsWithTheLast)
{
    auto other = std::make_unique<FFMpegInput>();
    EXPECT_FALSE(open("/no/such/first"));
    EXPECT_FALSE(other->open(new_("/no/such/second"), &error, nullptr));
    input.reset();
    EXPECT_FALSE(other->open(new_("/no/such/third"), &error, nullptr));
    other.reset();
    const std::string text = log.fileText("FFMpegInput.log");
    EXPECT_TRUE(contains(text, "FFMpegInput::open(/no/such/first)"));
    EXPECT_TRUE(contains(text, "FFMpegInput::open(/no/such/second)"));
    EXPECT_TRUE(contains(text, "FFMpegInput::open(/no/such/third)"));
}
