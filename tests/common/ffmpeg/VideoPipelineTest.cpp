#include "common/ffmpeg/VideoPipeline.h"

#include "common/ffmpeg/VideoDecoder.h"
#include "tests/support/ClipPackets.h"
#include "tests/support/CoreReader.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MemorySource.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestFolders.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

using zel::av::CodecContext;
using zel::av::FormatContext;
using zel::av::Frame;
using zel::av::makeFrame;
using zel::av::makePacket;
using zel::av::Packet;
using zel::av::PacketReader;
using zel::av::VideoDecoder;
using zel::av::VideoPipeline;
using zel::test::ClipPacket;
using zel::test::ClipPackets;
using zel::test::clipPath;
using zel::test::LogCapture;
using zel::test::mediaFolder;
using zel::test::MemorySource;
using zel::test::readClipPackets;
using zel::test::readFile;
using zel::test::readSamples;
using zel::test::Sample;
using zel::test::TempFolder;
using zel::test::videoOf;
using zel::test::writeFile;
namespace DecodingMode = zel::streamer::DecodingMode;

namespace {

/// Whole and regular clips whose codec may be decoded by several threads.
constexpr const char* Regular[] = {
    "h264_aac.mp4",          "h264_aac.mov",        "h264_aac.mkv",         "h264_aac.flv",
    "h264_aac.ts",           "h264_faststart.mp4",  "h264_fragmented.mp4",  "h264_mp3.avi",
    "video_only.mp4",        "subtitles.mkv",       "two_videos.mkv",       "late_audio.mkv",
    "late_video.mkv",        "h264_open_gop.mp4",   "h264_slices.mp4",      "h264_cavlc.mp4",
    "h264_infinite_gop.mp4", "h264_bpyramid.mkv",   "h264_mbaff.ts",        "h264_60fps.mp4",
    "h264_vfr.mkv",          "h264_yuvj420p.mp4",   "h264_444_175x143.mp4", "h264_anamorphic.mp4",
    "mpeg4_mp3.avi",         "mpeg4_bframes.mp4",   "two_audio.avi",        "two_audio.ts",
    "odd_175x143.avi",       "mpeg2_interlaced.ts", "mpeg2_mp2.mpg",        "mpeg2_ac3.ts",
    "hevc_aac.mp4",          "hevc_eac3.ts",        "vp8_vorbis.webm",      "vp9_opus.webm",
    "undecodable_audio.mkv"};

constexpr int ThreadCounts[] = {2, 3, 4, 8};

/// The thread sanitizer starts a thread of its own with the first one of the program: makes that
/// happen, and waits until the first one is gone, which is a moment after it was joined.
bool startFirstThread()
{
    pid_t id = 0;
    std::thread([&id] { id = gettid(); }).join();
    while (std::filesystem::exists("/proc/self/task/" + std::to_string(id))) {
        std::this_thread::yield();
    }
    return true;
}

/// Threads of this process.
std::size_t threadCount()
{
    static const bool isStarted = startFirstThread();
    EXPECT_TRUE(isStarted);
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

/// Ends when there are so few threads again; ones that were joined are counted for a moment still.
void waitForThreads(std::size_t count)
{
    while (threadCount() > count) {
        std::this_thread::yield();
    }
}

std::string nameOf(const testing::TestParamInfo<const char*>& info)
{
    std::string name = info.param;
    std::replace_if(
        name.begin(), name.end(), [](char letter) { return std::isalnum(letter) == 0; }, '_');
    return name;
}

class VideoPipelineClip : public testing::TestWithParam<const char*>
{
protected:
    LogCapture log{LOGLEVEL_ERROR};
};

std::vector<Sample> play(const std::string& path, int threads)
{
    FFMpegDecoderCore core;
    core.m_decoderThreads = threads;
    if (core.initWithUrl(path, "") < 0) {
        return {};
    }
    return readSamples(core);
}

/// Fails the test unless both runs are the same but for what pictures show.
/// @return the places where that differs
std::vector<std::size_t> differentPictures(std::vector<Sample> actual,
                                           const std::vector<Sample>& expected,
                                           const std::string& what)
{
    std::vector<std::size_t> places;
    for (std::size_t i = 0; i < std::min(actual.size(), expected.size()); ++i) {
        if (actual[i].isVideo() && actual[i].hash != expected[i].hash) {
            actual[i].hash = expected[i].hash;
            places.push_back(i);
        }
    }
    expectSameSamples(actual, expected, what);
    return places;
}

/// The first key picture behind a place.
std::size_t keyBehind(const std::vector<Sample>& samples, std::size_t place)
{
    const auto key =
        std::find_if(samples.begin() + static_cast<std::ptrdiff_t>(place) + 1, samples.end(),
                     [](const Sample& sample) { return sample.isVideo() && sample.keyFrame; });
    return static_cast<std::size_t>(key - samples.begin());
}

/// The clip's video, read and decoded without a core.
class Track
{
public:
    explicit Track(const std::string& path)
    {
        AVFormatContext* raw = nullptr;
        EXPECT_GE(avformat_open_input(&raw, path.c_str(), nullptr, nullptr), 0);
        m_format.reset(raw);
        EXPECT_GE(avformat_find_stream_info(raw, nullptr), 0);
        index = av_find_best_stream(raw, AVMEDIA_TYPE_VIDEO, -1, -1, &decoder, 0);
        for (unsigned int i = 0; i < raw->nb_streams; ++i) {
            raw->streams[i]->discard =
                static_cast<int>(i) == index ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
        }
        reader = std::make_unique<PacketReader>(raw);
    }

    const AVStream* stream() const { return m_format->streams[index]; }

    CodecContext codec() const
    {
        CodecContext context(avcodec_alloc_context3(decoder));
        EXPECT_GE(avcodec_parameters_to_context(context.get(), stream()->codecpar), 0);
        context->pkt_timebase = stream()->time_base;
        EXPECT_GE(avcodec_open2(context.get(), decoder, nullptr), 0);
        return context;
    }

    /// Takes the next packet of the video stream.
    bool read(AVPacket* packet) const
    {
        while (reader->read(packet) == 0) {
            if (packet->stream_index == index) {
                return true;
            }
            av_packet_unref(packet); // read before the other streams were let go
        }
        return false;
    }

    int index = -1;
    const AVCodec* decoder = nullptr;
    std::unique_ptr<PacketReader> reader;

private:
    FormatContext m_format;
};

std::size_t hashOf(const AVFrame& frame)
{
    std::string bytes;
    for (int plane = 0; plane < 3 && frame.data[plane] != nullptr; ++plane) {
        const int height = plane == 0 ? frame.height : (frame.height + 1) / 2;
        const int width = plane == 0 ? frame.width : (frame.width + 1) / 2;
        for (int y = 0; y < height; ++y) {
            bytes.append(
                reinterpret_cast<const char*>(frame.data[plane] + static_cast<std::ptrdiff_t>(y) *
                                                                      frame.linesize[plane]),
                static_cast<std::size_t>(width));
        }
    }
    return std::hash<std::string>()(bytes);
}

/// For each packet the hash of its picture, 0 without one.
std::vector<std::size_t> decodeWithOneThread(const std::string& path)
{
    const Track track(path);
    VideoDecoder decoder;
    decoder.adopt(track.codec());
    const Packet packet = makePacket();
    const Frame picture = makeFrame();
    std::vector<std::size_t> hashes;
    while (track.read(packet.get())) {
        hashes.push_back(decoder.decode(*packet, picture.get()) ? hashOf(*picture) : 0);
        av_packet_unref(packet.get());
    }
    return hashes;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// The pipeline by itself.

TEST(VideoPipeline, IsForCodecsThatWereProvenToGiveTheSame)
{
    for (const AVCodecID codec : {AV_CODEC_ID_H264, AV_CODEC_ID_HEVC, AV_CODEC_ID_MPEG4,
                                  AV_CODEC_ID_VP8, AV_CODEC_ID_VP9, AV_CODEC_ID_MPEG2VIDEO}) {
        EXPECT_TRUE(VideoPipeline::isProven(codec));
    }
    for (const AVCodecID codec :
         {AV_CODEC_ID_AV1, AV_CODEC_ID_WMV2, AV_CODEC_ID_MPEG1VIDEO, AV_CODEC_ID_FLV1,
          AV_CODEC_ID_MJPEG, AV_CODEC_ID_THEORA, AV_CODEC_ID_NONE}) {
        EXPECT_FALSE(VideoPipeline::isProven(codec));
    }
}

TEST_P(VideoPipelineClip, AnswersForEachPacketLikeOneThreadAndIsNeverUnsure)
{
    const std::string path = clipPath(GetParam());
    const std::vector<std::size_t> expected = decodeWithOneThread(path);
    ASSERT_GT(expected.size(), 40u);
    for (const int threads : ThreadCounts) {
        const Track track(path);
        const CodecContext model = track.codec();
        model->has_b_frames = track.stream()->codecpar->video_delay;
        VideoPipeline pipeline(*model, track.stream(), threads);
        ASSERT_TRUE(pipeline.isOpen());
        const Packet packet = makePacket();
        const Frame picture = makeFrame();
        std::vector<std::size_t> hashes;
        while (track.read(packet.get())) {
            const auto answer = pipeline.decode(*packet, *track.reader, picture.get());
            ASSERT_NE(answer, VideoPipeline::Answer::Unsure)
                << threads << " threads, packet " << hashes.size();
            hashes.push_back(answer == VideoPipeline::Answer::Picture ? hashOf(*picture) : 0);
            av_packet_unref(packet.get());
        }
        ASSERT_EQ(hashes.size(), expected.size());
        for (std::size_t i = 0; i < hashes.size(); ++i) {
            ASSERT_EQ(hashes[i], expected[i]) << threads << " threads, packet " << i;
        }
    }
}

TEST_P(VideoPipelineClip, RetreatGoesOnLikeOneThread)
{
    const std::string path = clipPath(GetParam());
    const std::vector<std::size_t> expected = decodeWithOneThread(path);
    for (const std::size_t retreatAt :
         {std::size_t{1}, std::size_t{17}, std::size_t{26}, expected.size() - 3}) {
        const Track track(path);
        const CodecContext model = track.codec();
        model->has_b_frames = track.stream()->codecpar->video_delay;
        VideoPipeline pipeline(*model, track.stream(), 3);
        ASSERT_TRUE(pipeline.isOpen());
        VideoDecoder alone;
        const Packet packet = makePacket();
        const Frame picture = makeFrame();
        for (std::size_t i = 0; track.read(packet.get()); ++i) {
            bool hasPicture = false;
            if (i < retreatAt) {
                hasPicture = pipeline.decode(*packet, *track.reader, picture.get()) ==
                             VideoPipeline::Answer::Picture;
            } else {
                if (i == retreatAt) {
                    CodecContext context = pipeline.retreat();
                    ASSERT_NE(context, nullptr);
                    alone.adopt(std::move(context));
                }
                hasPicture = alone.decode(*packet, picture.get());
            }
            av_packet_unref(packet.get());
            ASSERT_EQ(hasPicture ? hashOf(*picture) : 0, expected[i])
                << "packet " << i << ", retreat at " << retreatAt;
        }
    }
}

TEST(VideoPipelineMedia, EmptyPacketMakesItUnsure)
{
    const Track track(clipPath("h264_aac.mp4"));
    const CodecContext model = track.codec();
    VideoPipeline pipeline(*model, track.stream(), 2);
    const Packet empty = makePacket();
    const Frame picture = makeFrame();
    EXPECT_EQ(pipeline.decode(*empty, *track.reader, picture.get()), VideoPipeline::Answer::Unsure);
}

TEST(VideoPipelineMedia, PacketThatWasSkippedByItsOwnerMakesItUnsure)
{
    const Track track(clipPath("h264_aac.mp4"));
    const CodecContext model = track.codec();
    model->has_b_frames = track.stream()->codecpar->video_delay;
    VideoPipeline pipeline(*model, track.stream(), 4);
    const Packet packet = makePacket();
    const Frame picture = makeFrame();
    ASSERT_TRUE(track.read(packet.get()));
    EXPECT_NE(pipeline.decode(*packet, *track.reader, picture.get()),
              VideoPipeline::Answer::Unsure);
    av_packet_unref(packet.get());
    ASSERT_TRUE(track.read(packet.get())); // fed already, and now never asked about
    av_packet_unref(packet.get());
    ASSERT_TRUE(track.read(packet.get()));
    EXPECT_EQ(pipeline.decode(*packet, *track.reader, picture.get()),
              VideoPipeline::Answer::Unsure);
}

TEST(VideoPipelineMedia, FlushedPipelineFeedsThePacketsThatWaitAnew)
{
    const std::string path = clipPath("mpeg4_mp3.avi");
    const std::vector<std::size_t> expected = decodeWithOneThread(path);
    const Track track(path);
    const CodecContext model = track.codec();
    VideoPipeline pipeline(*model, track.stream(), 4);
    const Packet packet = makePacket();
    const Frame picture = makeFrame();
    for (std::size_t i = 0; track.read(packet.get()); ++i) {
        if (i % 25 == 0) {
            pipeline.flush(); // in front of a key frame, which needs nothing from before
        }
        const auto answer = pipeline.decode(*packet, *track.reader, picture.get());
        av_packet_unref(packet.get());
        ASSERT_NE(answer, VideoPipeline::Answer::Unsure) << i;
        ASSERT_EQ(answer == VideoPipeline::Answer::Picture ? hashOf(*picture) : 0, expected[i])
            << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Clips, VideoPipelineClip, testing::ValuesIn(Regular), nameOf);

// ---------------------------------------------------------------------------------------------
// The pipeline in a core.

namespace {

class DecoderThreads : public VideoPipelineClip
{
};

/// Seeks and changes of mode in mid-stream, and a seek that fails for most.
std::vector<Sample> playAbout(const std::string& path, int threads)
{
    FFMpegDecoderCore core;
    core.m_decoderThreads = threads;
    EXPECT_EQ(core.initWithUrl(path, ""), 0);
    std::vector<Sample> all;
    const auto read = [&](std::size_t count) {
        const auto samples = readSamples(core, count);
        all.insert(all.end(), samples.begin(), samples.end());
    };
    read(31);
    core.setPosition(2000);
    read(25);
    core.setPosition(100);
    read(3);
    core.setPosition(1000000);
    read(20);
    core.setPosition(0);
    read(SIZE_MAX);
    core.setPosition(1000);
    read(17);
    core.setVideoDecodingMode(DecodingMode::KeyFramesOnly);
    read(40);
    core.setVideoDecodingMode(DecodingMode::All);
    read(60);
    core.setPosition(500);
    read(SIZE_MAX);
    return all;
}

constexpr std::size_t SamplesBeforeFlush = 47;

/// A flush in the middle of a group of pictures.
std::vector<Sample> playWithFlush(const std::string& path, int threads)
{
    FFMpegDecoderCore core;
    core.m_decoderThreads = threads;
    EXPECT_EQ(core.initWithUrl(path, ""), 0);
    std::vector<Sample> all = readSamples(core, SamplesBeforeFlush);
    core.flush(0);
    const auto rest = readSamples(core);
    all.insert(all.end(), rest.begin(), rest.end());
    return all;
}

} // namespace

TEST_P(DecoderThreads, ChangeNothingInWhatIsDelivered)
{
    const std::string path = clipPath(GetParam());
    const auto expected = play(path, 1);
    ASSERT_GT(videoOf(expected).size(), 40u);
    for (const int threads : ThreadCounts) {
        expectSameSamples(play(path, threads), expected, std::to_string(threads) + " threads");
    }
}

TEST_P(DecoderThreads, ChangeNothingAcrossAFlush)
{
    const std::string path = clipPath(GetParam());
    const auto expected = playWithFlush(path, 1);
    for (const int threads : ThreadCounts) {
        const std::string what = std::to_string(threads) + " threads";
        const auto different = differentPictures(playWithFlush(path, threads), expected, what);
        if (std::string(GetParam()) != "odd_175x143.avi") {
            EXPECT_TRUE(different.empty()) << what << ", sample " << different.at(0);
            continue;
        }
        // Beside the picture this decoder makes up, it refers to what stood in its memory before;
        // no second decoder has the same there. It ends with the next key frame.
        for (const std::size_t place : different) {
            EXPECT_LT(place, keyBehind(expected, SamplesBeforeFlush)) << what;
        }
    }
}

TEST_P(DecoderThreads, ChangeNothingAcrossSeeksAndModes)
{
    const std::string path = clipPath(GetParam());
    const auto expected = playAbout(path, 1);
    for (const int threads : ThreadCounts) {
        expectSameSamples(playAbout(path, threads), expected, std::to_string(threads) + " threads");
    }
}

TEST_P(DecoderThreads, AreAtWorkFromTheFirstPictureToTheLast)
{
    const std::size_t before = threadCount();
    FFMpegDecoderCore core;
    core.m_decoderThreads = 4;
    ASSERT_EQ(core.initWithUrl(clipPath(GetParam()), ""), 0);
    EXPECT_GE(threadCount(), before + 3);
    readSamples(core);
    EXPECT_GE(threadCount(), before + 3); // a retreat would have ended them
    core.close();
    waitForThreads(before);
}

INSTANTIATE_TEST_SUITE_P(Clips, DecoderThreads, testing::ValuesIn(Regular), nameOf);

namespace {

/// Threads that a core has while it plays, with four wanted.
std::size_t threadsOf(FFMpegDecoderCore& core, const std::function<int()>& open)
{
    const std::size_t before = threadCount();
    core.m_decoderThreads = 4;
    EXPECT_EQ(open(), 0);
    readSamples(core, 5);
    return threadCount() - before;
}

} // namespace

TEST(DecoderThreadsUse, NoneForMediaOfUnknownDuration)
{
    const LogCapture log(LOGLEVEL_ERROR);
    FFMpegDecoderCore core;
    EXPECT_EQ(threadsOf(core, [&] { return core.initWithUrl(clipPath("h264.h264"), ""); }), 0u);
}

TEST(DecoderThreadsUse, NoneForByteSources)
{
    const LogCapture log(LOGLEVEL_ERROR);
    MemorySource source(readFile(clipPath("h264_aac.mkv")));
    FFMpegDecoderCore core;
    EXPECT_EQ(threadsOf(core, [&] { return source.open(core, "matroska"); }), 0u);
    core.close();
}

TEST(DecoderThreadsUse, NoneForCodecsThatWereNotProven)
{
    const LogCapture log(LOGLEVEL_ERROR);
    for (const char* clip : {"wmv2_wma2.asf", "flv1_mp3.flv", "mpeg1_mp2.mpg", "mjpeg.avi",
                             "theora_vorbis.ogv", "gray.avi", "mp3_cbr.mp3"}) {
        FFMpegDecoderCore core;
        EXPECT_EQ(threadsOf(core, [&] { return core.initWithUrl(clipPath(clip), ""); }), 0u)
            << clip;
    }
}

TEST(DecoderThreadsUse, NoneForCopiedVideo)
{
    const LogCapture log(LOGLEVEL_ERROR);
    FFMpegDecoderCore core;
    core.skipVideoDecoding();
    EXPECT_EQ(threadsOf(core, [&] { return core.initWithUrl(clipPath("h264_aac.mp4"), ""); }), 0u);
}

TEST(DecoderThreadsUse, NoneWhereOneIsWanted)
{
    const LogCapture log(LOGLEVEL_ERROR);
    const std::size_t before = threadCount();
    FFMpegDecoderCore core;
    core.m_decoderThreads = 1;
    ASSERT_EQ(core.initWithUrl(clipPath("h264_aac.mp4"), ""), 0);
    readSamples(core, 5);
    EXPECT_EQ(threadCount(), before);
}

TEST(DecoderThreadsUse, EndWithAChangeOfMode)
{
    const LogCapture log(LOGLEVEL_ERROR);
    const std::size_t before = threadCount();
    FFMpegDecoderCore core;
    core.m_decoderThreads = 4;
    ASSERT_EQ(core.initWithUrl(clipPath("h264_aac.mp4"), ""), 0);
    readSamples(core, 30);
    EXPECT_GE(threadCount(), before + 3);
    core.setVideoDecodingMode(DecodingMode::KeyFramesOnly);
    readSamples(core, 80);
    waitForThreads(before);
}

TEST(DecoderThreadsUse, GoOnAfterASeek)
{
    const LogCapture log(LOGLEVEL_ERROR);
    const std::size_t before = threadCount();
    FFMpegDecoderCore core;
    core.m_decoderThreads = 4;
    ASSERT_EQ(core.initWithUrl(clipPath("h264_aac.mp4"), ""), 0);
    for (const unsigned long long target : {5000, 2000, 0, 11000, 7000}) {
        readSamples(core, 30);
        ASSERT_TRUE(core.setPosition(target));
        readSamples(core, 30);
        EXPECT_GE(threadCount(), before + 3) << target;
    }
}

// ---------------------------------------------------------------------------------------------
// Everything else that is made for the tests, and things that are broken.

TEST(DecoderThreadsElsewhere, AllOtherClipsAreTheSameWithAnyNumber)
{
    const LogCapture log(LOGLEVEL_ERROR);
    const std::set<std::string> done(std::begin(Regular), std::end(Regular));
    int played = 0;
    for (const auto& entry : std::filesystem::directory_iterator(mediaFolder())) {
        const std::string name = entry.path().filename().string();
        const bool isLarge = name.rfind("bench_", 0) == 0 || name.rfind("long_", 0) == 0;
        if (name[0] == '.' || isLarge || done.count(name) > 0) {
            continue;
        }
        const auto expected = play(entry.path().string(), 1);
        played += expected.empty() ? 0 : 1;
        // Perhaps in the middle of its last packet, of which a decoder makes up the rest.
        const bool isCut = name.rfind("half_", 0) == 0;
        for (const int threads : {2, 5}) {
            const std::string what = name + " with " + std::to_string(threads) + " threads";
            for (const std::size_t place :
                 differentPictures(play(entry.path().string(), threads), expected, what)) {
                EXPECT_TRUE(isCut && place + 10 > expected.size()) << what << ", sample " << place;
            }
        }
    }
    EXPECT_GT(played, 50);
}

namespace {

/// A copy with some bytes changed, none of them in the first or last part.
std::string damaged(const std::string& bytes, unsigned int seed, int count)
{
    std::string copy = bytes;
    std::mt19937 random(seed);
    std::uniform_int_distribution<std::size_t> place(bytes.size() / 10, bytes.size() * 8 / 10);
    for (int i = 0; i < count; ++i) {
        char& byte = copy[place(random)];
        byte = static_cast<char>(byte ^ static_cast<char>(1 + random() % 255));
    }
    return copy;
}

/// Stretches of time, in microseconds.
using Stretches = std::vector<std::pair<double, double>>;

/// Where pictures of a damaged copy may show something else: from each video packet that is not as
/// it was up to the next key frame, and what reordering holds back beyond it.
Stretches damagedStretches(const std::string& whole, const std::string& copy)
{
    constexpr double reorderedUs = 500000.0;
    const ClipPackets before = readClipPackets(whole);
    std::set<std::string> intact;
    for (const ClipPacket& packet : readClipPackets(copy).packets) {
        intact.insert(packet.bytes);
    }
    const double unit = av_q2d(before.videoTimeBase) * 1e6;
    const auto video = before.video();
    Stretches stretches;
    for (std::size_t i = 0; i < video.size(); ++i) {
        if (intact.count(video[i].bytes) > 0) {
            continue;
        }
        std::size_t key = i + 1;
        while (key < video.size() && !video[key].key) {
            ++key;
        }
        const auto timeOf = [&](std::size_t index) {
            const int64_t dts = video[index].dts;
            return static_cast<double>(dts != AV_NOPTS_VALUE ? dts : video[index].pts) * unit;
        };
        stretches.emplace_back(timeOf(i) - 1.0,
                               key < video.size() ? timeOf(key) + reorderedUs : 1e12);
    }
    return stretches;
}

class DamagedClip : public VideoPipelineClip
{
};

} // namespace

// What a decoder makes up for lost parts depends on what its memory held, and with several threads
// on how far the picture was that it copies from. So there, and only there, pixels may differ.
TEST_P(DamagedClip, DiffersInMadeUpPicturesAtMost)
{
    const TempFolder folder;
    const std::string bytes = readFile(clipPath(GetParam()));
    const std::string path = folder.path(GetParam());
    for (const auto& [seed, count] : {std::pair{1u, 1}, {2u, 3}, {3u, 20}, {4u, 200}}) {
        writeFile(path, damaged(bytes, seed, count));
        const auto expected = play(path, 1);
        const Stretches stretches = damagedStretches(clipPath(GetParam()), path);
        for (const int threads : {2, 4}) {
            const std::string what =
                std::to_string(count) + " bytes changed, " + std::to_string(threads) + " threads";
            for (const std::size_t place : differentPictures(play(path, threads), expected, what)) {
                const auto time = static_cast<double>(expected[place].timestampUs);
                EXPECT_TRUE(std::any_of(stretches.begin(), stretches.end(),
                                        [time](const auto& stretch) {
                                            return time >= stretch.first && time < stretch.second;
                                        }))
                    << what << ", sample " << place << " at " << time;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Clips, DamagedClip,
                         testing::Values("h264_aac.mp4", "h264_aac.ts", "h264_bpyramid.mkv",
                                         "h264_cavlc.mp4", "h264_slices.mp4",
                                         "h264_infinite_gop.mp4", "mpeg4_mp3.avi",
                                         "mpeg4_bframes.mp4", "mpeg2_mp2.mpg", "hevc_aac.mp4",
                                         "vp8_vorbis.webm", "vp9_opus.webm"),
                         nameOf);
