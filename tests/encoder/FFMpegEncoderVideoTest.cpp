#include "plugin/Vocabulary.h"
#include "tests/encoder/RawMedia.h"
#include "tests/encoder/StageRun.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <string>
#include <vector>

/// Raw pictures: what the encoder gets to see of them, and when.

using namespace zel::test;
using zel::streamer::SamplePacket;
namespace PacketType = zel::streamer::PacketType;
namespace VideoPixelFormat = zel::streamer::VideoPixelFormat;

namespace {

constexpr VideoPixelFormat::Enum AllFormats[] = {
    VideoPixelFormat::RGB24, VideoPixelFormat::BGR24,   VideoPixelFormat::BGRA,
    VideoPixelFormat::RGBA,  VideoPixelFormat::YUV420P, VideoPixelFormat::YUYV422};
constexpr VideoPixelFormat::Enum ColourFormats[] = {VideoPixelFormat::RGB24,
                                                    VideoPixelFormat::BGR24, VideoPixelFormat::BGRA,
                                                    VideoPixelFormat::RGBA};

/// A session whose packets are the planes that the encoder was given.
OutputSession planeSession(VideoPixelFormat::Enum format, int width, int height)
{
    OutputSession session = pictureSession("rawvideo", width, height);
    session.input.stream.video.pixelFormat = format;
    session.input.stream.video.bitsPerPixel = zel::streamer::getBitsPerPixels(format);
    return session;
}

SamplePacket* pictureAt(const std::string& picture, unsigned long long timestampUs)
{
    return samplePacket(PacketType::Video, picture, timestampUs, PeriodUs);
}

/// Encodes one picture.
std::string encodedPicture(OutputSession& session, const std::string& picture)
{
    StageRun run(session, StageRun::Reader::TheTest);
    run.write(pictureAt(picture, 0));
    const auto packets = run.finish();
    return packets.size() == 1 ? packets[0].bytes : "";
}

struct Colour
{
    std::array<unsigned char, 4> rgba;
    std::array<unsigned char, 3> yuv;
};

/// Red and green above, blue and white below.
constexpr Colour Quarters[] = {{{255, 0, 0, 255}, {81, 90, 240}},
                               {{0, 255, 0, 255}, {145, 54, 34}},
                               {{0, 0, 255, 255}, {41, 240, 110}},
                               {{255, 255, 255, 255}, {235, 128, 128}}};

std::string bytesOfPixel(VideoPixelFormat::Enum format, const Colour& colour, int x)
{
    const auto& c = colour.rgba;
    const auto text = [](std::initializer_list<unsigned char> bytes) {
        return std::string(bytes.begin(), bytes.end());
    };
    switch (format) {
    case VideoPixelFormat::RGB24:
        return text({c[0], c[1], c[2]});
    case VideoPixelFormat::BGR24:
        return text({c[2], c[1], c[0]});
    case VideoPixelFormat::BGRA:
        return text({c[2], c[1], c[0], c[3]});
    case VideoPixelFormat::RGBA:
        return text({c[0], c[1], c[2], c[3]});
    default:
        return text({colour.yuv[0], colour.yuv[x % 2 == 0 ? 1 : 2]});
    }
}

const Colour& colourAt(int x, int y, int size)
{
    return Quarters[(y < size / 2 ? 0 : 2) + (x < size / 2 ? 0 : 1)];
}

std::string fourColours(VideoPixelFormat::Enum format, int size)
{
    std::string picture;
    if (format != VideoPixelFormat::YUV420P) {
        for (int i = 0; i < size * size; ++i) {
            picture += bytesOfPixel(format, colourAt(i % size, i / size, size), i % size);
        }
        return picture;
    }
    for (std::size_t plane = 0; plane < 3; ++plane) {
        const int side = plane == 0 ? size : size / 2;
        for (int i = 0; i < side * side; ++i) {
            const Colour& colour = colourAt(i % side, i / side, side);
            picture += static_cast<char>(colour.yuv[plane]);
        }
    }
    return picture;
}

/// The planes at a place of a square picture.
std::array<int, 3> planesAt(const std::string& planes, int size, int x, int y)
{
    const auto at = [&planes](int index) {
        return static_cast<int>(
            static_cast<unsigned char>(planes.at(static_cast<std::size_t>(index))));
    };
    const int chroma = (y / 2) * (size / 2) + x / 2;
    return {at(y * size + x), at(size * size + chroma), at(size * size * 5 / 4 + chroma)};
}

void expectColour(const std::array<int, 3>& found, const Colour& colour, const std::string& what)
{
    for (std::size_t plane = 0; plane < 3; ++plane) {
        EXPECT_NEAR(found[plane], colour.yuv[plane], 2) << what << " plane " << plane;
    }
}

void expectFourColours(const std::string& planes, int size, const std::string& what)
{
    const int near = size / 4;
    const int far = size * 3 / 4;
    expectColour(planesAt(planes, size, near, near), Quarters[0], what + " red");
    expectColour(planesAt(planes, size, far, near), Quarters[1], what + " green");
    expectColour(planesAt(planes, size, near, far), Quarters[2], what + " blue");
    expectColour(planesAt(planes, size, far, far), Quarters[3], what + " white");
}

/// What the stage makes of a picture that stands upside down.
std::string turned(VideoPixelFormat::Enum format, const std::string& picture, int width, int height)
{
    const std::size_t pixelBytes = format <= VideoPixelFormat::BGR24 ? 3 : 4;
    const std::size_t rowBytes = pixelBytes * static_cast<std::size_t>(width);
    std::string result;
    for (int row = height - 1; row >= 0; --row) {
        std::string bytes = picture.substr(static_cast<std::size_t>(row) * rowBytes, rowBytes);
        const bool isFromUpperHalf = row < height / 2;
        for (std::size_t at = 0; pixelBytes == 4 && isFromUpperHalf && at < rowBytes; at += 4) {
            bytes =
                bytes.substr(0, at) + bytes[at + 3] + bytes.substr(at, 3) + bytes.substr(at + 4);
        }
        result += bytes;
    }
    return result;
}

std::string nameOf(VideoPixelFormat::Enum format)
{
    return "format " + std::to_string(static_cast<int>(format));
}

/// The numbers of the packets that are key frames.
std::vector<std::size_t> keyFrames(const std::vector<Delivered>& packets)
{
    std::vector<std::size_t> numbers;
    for (std::size_t i = 0; i < packets.size(); ++i) {
        if (packets[i].keyFrame) {
            numbers.push_back(i);
        }
    }
    return numbers;
}

std::vector<std::size_t> firstNumbers(std::size_t count)
{
    std::vector<std::size_t> numbers(count);
    for (std::size_t i = 0; i < count; ++i) {
        numbers[i] = i;
    }
    return numbers;
}

std::vector<unsigned long long> timestampsOf(const std::vector<Delivered>& packets)
{
    std::vector<unsigned long long> timestamps(packets.size());
    std::transform(packets.begin(), packets.end(), timestamps.begin(),
                   [](const Delivered& packet) { return packet.timestampUs; });
    return timestamps;
}

using Times = std::vector<unsigned long long>;

/// Pictures at these times through a session that delivers every picture that is encoded.
Times timesOut(OutputSession& session, const Times& times)
{
    const std::string picture = movingPicture(16, 16, 0);
    StageRun run(session, StageRun::Reader::TheTest);
    for (const unsigned long long time : times) {
        run.write(pictureAt(picture, time));
    }
    return timestampsOf(run.finish());
}

OutputSession smallSession()
{
    return planeSession(VideoPixelFormat::YUV420P, 16, 16);
}

} // namespace

TEST(FFMpegEncoderVideo, ColoursOfEveryFormatArriveWhereTheyStand)
{
    for (const auto format : AllFormats) {
        OutputSession session = planeSession(format, 32, 32);
        const std::string planes = encodedPicture(session, fourColours(format, 32));
        ASSERT_EQ(planes.size(), 32U * 32 * 3 / 2) << nameOf(format);
        expectFourColours(planes, 32, nameOf(format));
    }
}

TEST(FFMpegEncoderVideo, ColoursOfTheSmallestFallbackArriveWhereTheyStand)
{
    for (const auto format : AllFormats) {
        OutputSession session = planeSession(format, 320, 320);
        session.options.set("fallbackStream", "1");
        session.options.set("lowVideoBitrate", "56000"); // and 8000 for what has no audio
        const std::string planes = encodedPicture(session, fourColours(format, 320));
        ASSERT_EQ(planes.size(), 160U * 160 * 3 / 2) << nameOf(format);
        expectFourColours(planes, 160, nameOf(format));
    }
}

TEST(FFMpegEncoderVideo, PlanesOfTheSizeAreNotTouched)
{
    for (const auto& [width, height] : {std::pair(64, 48), std::pair(1, 1), std::pair(3, 5),
                                        std::pair(175, 143), std::pair(17, 18)}) {
        OutputSession session = planeSession(VideoPixelFormat::YUV420P, width, height);
        const std::string picture = noisePicture(VideoPixelFormat::YUV420P, width, height);
        EXPECT_TRUE(encodedPicture(session, picture) == picture) << width << "x" << height;
    }
}

TEST(FFMpegEncoderVideo, WithoutABitDepthAColourPictureStandsUpsideDown)
{
    for (const auto format : ColourFormats) {
        for (const auto& [width, height] :
             {std::pair(32, 32), std::pair(34, 31), std::pair(50, 19), std::pair(8, 1),
              std::pair(8, 2), std::pair(8, 3), std::pair(33, 31), std::pair(1, 40)}) {
            const std::string picture = noisePicture(format, width, height);
            OutputSession standing = planeSession(format, width, height);
            OutputSession lying = planeSession(format, width, height);
            lying.input.stream.video.bitsPerPixel = 0;
            const std::string expected =
                encodedPicture(standing, turned(format, picture, width, height));
            const std::string found = encodedPicture(lying, picture);
            ASSERT_EQ(found.size(), expected.size());
            // The library makes the last chroma of an odd row with a pixel of the next one.
            const std::size_t compared =
                width % 2 == 0 ? expected.size() : static_cast<std::size_t>(width * height);
            ASSERT_GT(compared, 0U);
            EXPECT_TRUE(found.substr(0, compared) == expected.substr(0, compared))
                << nameOf(format) << " " << width << "x" << height;
        }
    }
}

TEST(FFMpegEncoderVideo, WhatComesFromTheUpperHalfHasItsBytesRotated)
{
    // Two rows of one colour each; alpha tells whether the bytes moved on.
    OutputSession session = planeSession(VideoPixelFormat::BGRA, 32, 32);
    session.input.stream.video.bitsPerPixel = 0;
    std::string upper;
    std::string lower;
    for (int i = 0; i < 32 * 16; ++i) {
        upper += std::string("\x00\xff\xff\x00", 4); // becomes 0, 0, 255, 255 below: red
        lower += std::string("\xff\x00\x00\xff", 4); // stays blue above
    }
    const std::string planes = encodedPicture(session, upper + lower);
    ASSERT_EQ(planes.size(), 32U * 32 * 3 / 2);
    expectColour(planesAt(planes, 32, 16, 8), Quarters[2], "above");
    expectColour(planesAt(planes, 32, 16, 24), Quarters[0], "below");
}

TEST(FFMpegEncoderVideo, PlanarAndPackedPicturesAreNeverTurned)
{
    for (const auto format : {VideoPixelFormat::YUV420P, VideoPixelFormat::YUYV422}) {
        OutputSession session = planeSession(format, 32, 32);
        session.input.stream.video.bitsPerPixel = 0;
        expectFourColours(encodedPicture(session, fourColours(format, 32)), 32, nameOf(format));
    }
}

TEST(FFMpegEncoderVideo, AShortPictureIsDroppedWithAWarning)
{
    LogCapture log;
    for (const auto format : AllFormats) {
        OutputSession session = planeSession(format, 50, 20);
        const std::string picture = noisePicture(format, 50, 20);
        StageRun run(session, StageRun::Reader::TheTest);
        log.makeCurrent();
        run.write(pictureAt(picture.substr(1), 0));
        run.write(pictureAt("", PeriodUs));
        run.write(samplePacket(PacketType::Video, "", 2 * PeriodUs));
        run.write(pictureAt(picture, 3 * PeriodUs));
        run.write(pictureAt(picture + "more", 4 * PeriodUs));
        const auto packets = run.finish();
        ASSERT_EQ(packets.size(), 2U) << nameOf(format);
        EXPECT_EQ(packets[0].timestampUs, 0U) << "the first that counts";
        EXPECT_TRUE(packets[0].bytes == packets[1].bytes) << nameOf(format);
    }
    EXPECT_TRUE(log.contains("FFMpegEncoder::encodeVideoPacket : dropping raw packet, too short"));
}

TEST(FFMpegEncoderVideo, APictureOfAnUnknownFormatIsDropped)
{
    for (const int format : {-1, 6, 1000}) {
        OutputSession session = planeSession(VideoPixelFormat::RGB24, 16, 16);
        StageRun run(session, StageRun::Reader::TheTest);
        session.input.stream.video.pixelFormat = static_cast<VideoPixelFormat::Enum>(format);
        run.write(pictureAt(std::string(2000, '\1'), 0));
        EXPECT_TRUE(run.finish().empty()) << format;
    }
}

TEST(FFMpegEncoderVideo, APictureWithoutATimeStampIsDroppedWithAWarning)
{
    LogCapture log;
    OutputSession session = smallSession();
    StageRun run(session, StageRun::Reader::TheTest);
    log.makeCurrent();
    run.write(pictureAt(movingPicture(16, 16, 0), SamplePacket::NoTimestamp));
    EXPECT_TRUE(run.finish().empty());
    EXPECT_EQ(log.count("FFMpegEncoder::encodeVideoPacket : dropping raw packet without"), 1);
}

TEST(FFMpegEncoderVideo, AnInputThatChangesItsShapeIsScaledAnew)
{
    OutputSession session = planeSession(VideoPixelFormat::RGB24, 32, 32);
    StageRun run(session, StageRun::Reader::TheTest);
    run.write(pictureAt(fourColours(VideoPixelFormat::RGB24, 32), 0));
    session.input.stream.video.pixelFormat = VideoPixelFormat::YUYV422;
    session.input.stream.video.width = 64;
    session.input.stream.video.height = 64;
    run.write(pictureAt(fourColours(VideoPixelFormat::YUYV422, 64), PeriodUs));
    const auto packets = run.finish();
    ASSERT_EQ(packets.size(), 2U);
    expectFourColours(packets[0].bytes, 32, "before");
    expectFourColours(packets[1].bytes, 32, "behind");
}

TEST(FFMpegEncoderVideo, AnInputWithoutASizeIsAnErrorAndNoMore)
{
    LogCapture log;
    OutputSession session = smallSession();
    StageRun run(session, StageRun::Reader::TheTest);
    log.makeCurrent();
    session.input.stream.video.width = 0;
    run.write(pictureAt(movingPicture(16, 16, 0), 0));
    session.input.stream.video.width = 16;
    run.write(pictureAt(movingPicture(16, 16, 0), PeriodUs));
    EXPECT_EQ(run.finish().size(), 1U);
    EXPECT_EQ(log.count("FFMpegEncoder::encodeVideoPacket : m_swsContext failed to init"), 1);
}

TEST(FFMpegEncoderVideo, EveryCodecShowsWhatItWasGiven)
{
    for (const char* word : {"wmv7", "wmv8", "wmv1", "mpeg1video", "mpeg2", "svq", "mpeg4", "mjpeg",
                             "h263", "h263p"}) {
        OutputSession session = pictureSession(word);
        session.requestVideo(word, 1500000, 25.0);
        StageRun run(session, StageRun::Reader::TheTest);
        ASSERT_EQ(run.startResult(), 1) << word;
        zel::host::OutputStreamRecord record;
        run.stage().getOutputStreamDescription(&record);
        const double periodUs = 1000000.0 / session.video().getFrameRate(); // 24 for some
        for (int i = 0; i < 20; ++i) {
            run.write(pictureAt(movingPicture(176, 144, i),
                                static_cast<unsigned long long>(std::llround(i * periodUs))));
        }
        std::vector<std::string> frames;
        for (const Delivered& packet : run.finish()) {
            frames.push_back(packet.bytes);
        }
        ASSERT_EQ(frames.size(), 20U) << word;
        const auto* encoder = avcodec_find_encoder_by_name(session.video().getCodec());
        const auto shown = decodePictures(
            encoder->id, bytesOfHexText(record.video.getCodecPrivateData()), 176, 144, frames);
        ASSERT_EQ(shown.size(), frames.size()) << word;
        for (std::size_t i = 0; i < frames.size(); ++i) {
            EXPECT_GT(likeness(shown[i], movingPicture(176, 144, static_cast<int>(i))), 24.0)
                << word << " " << i;
        }
    }
}

TEST(FFMpegEncoderVideo, PicturesOfOddAndTinySizesAreEncoded)
{
    for (const char* word : {"mpeg4", "svq", "mjpeg", "mpeg2"}) {
        for (const auto& [width, height] :
             {std::pair(175, 143), std::pair(17, 16), std::pair(16, 17), std::pair(20, 3)}) {
            OutputSession session = pictureSession(word, width, height);
            const std::string picture = movingPicture(width, height, 0);
            zel::host::OutputStreamRecord record;
            StageRun run(session, StageRun::Reader::TheTest);
            ASSERT_EQ(run.startResult(), 1) << word << " " << width << "x" << height;
            run.stage().getOutputStreamDescription(&record);
            run.write(pictureAt(picture, 0));
            const auto packets = run.finish();
            ASSERT_EQ(packets.size(), 1U) << word << " " << width << "x" << height;
            const auto* encoder = avcodec_find_encoder_by_name(session.video().getCodec());
            const auto shown =
                decodePictures(encoder->id, bytesOfHexText(record.video.getCodecPrivateData()),
                               width, height, {packets[0].bytes});
            ASSERT_EQ(shown.size(), 1U);
            EXPECT_GT(likeness(shown[0], picture), 20.0) << word << " " << width << "x" << height;
        }
    }
}

TEST(FFMpegEncoderVideo, TheFirstElevenPicturesAndOneEachSecondAreKeyFrames)
{
    OutputSession session = pictureSession("mpeg4");
    StageRun run(session, StageRun::Reader::TheTest);
    for (unsigned int i = 0; i < 80; ++i) {
        run.write(pictureAt(movingPicture(176, 144, 0), i * PeriodUs));
    }
    const auto packets = run.finish();
    ASSERT_EQ(packets.size(), 80U);
    std::vector<std::size_t> expected = firstNumbers(11);
    expected.insert(expected.end(), {25, 50, 75});
    EXPECT_EQ(keyFrames(packets), expected);
}

TEST(FFMpegEncoderVideo, DroppedPicturesCountForTheKeyFrames)
{
    // Each picture comes twice, and its duplicate is dropped.
    OutputSession session = pictureSession("mpeg4");
    session.input.stream.video.frameRate = 50.0;
    const std::string picture = movingPicture(176, 144, 0);
    StageRun run(session, StageRun::Reader::TheTest);
    for (unsigned int i = 0; i < 60; ++i) {
        run.write(pictureAt(picture, i * PeriodUs));
        run.write(pictureAt(picture, i * PeriodUs + 10000));
    }
    const auto packets = run.finish();
    EXPECT_EQ(packets.size(), 60U);
    EXPECT_EQ(keyFrames(packets), (std::vector<std::size_t>{0, 1, 2, 3, 4, 5, 25, 50}));
}

TEST(FFMpegEncoderVideo, ASeekIsFollowedByElevenKeyFrames)
{
    LogCapture log;
    OutputSession session = pictureSession("mpeg4");
    const std::string picture = movingPicture(176, 144, 0);
    StageRun run(session, StageRun::Reader::TheTest);
    for (unsigned int i = 0; i < 13; ++i) {
        run.write(pictureAt(picture, i * PeriodUs));
        ASSERT_EQ(run.soFar().size(), 1U);
    }
    run.stage().resetPosition(10000);
    log.makeCurrent();
    run.write(pictureAt(picture, 9860000));
    run.write(pictureAt(picture, 9900000));
    for (unsigned int i = 0; i < 12; ++i) {
        run.write(pictureAt(picture, 10000000 + i * PeriodUs));
    }
    const auto packets = run.finish();
    ASSERT_EQ(packets.size(), 12U);
    EXPECT_EQ(keyFrames(packets), firstNumbers(11));
    EXPECT_EQ(packets[0].timestampUs, 10000000U);
    EXPECT_TRUE(log.contains("FFMpegEncoder::encodeVideoPacket : dropping raw packet, below seek "
                             "offset 9900000 < 10000000"));
    EXPECT_EQ(log.count("below seek offset"), 2);
}

TEST(FFMpegEncoderVideo, APictureThatIsDroppedBelowTheSeekSpendsNoKeyFrame)
{
    // The frame counter stood at 13; the multiple of 25 comes 12 counted pictures later.
    OutputSession session = pictureSession("mpeg4");
    const std::string picture = movingPicture(176, 144, 0);
    StageRun run(session, StageRun::Reader::TheTest);
    for (unsigned int i = 0; i < 13; ++i) {
        run.write(pictureAt(picture, i * PeriodUs));
        ASSERT_EQ(run.soFar().size(), 1U);
    }
    run.stage().resetPosition(10000);
    for (unsigned int i = 0; i < 7; ++i) {
        run.write(pictureAt(picture, 9000000 + i * PeriodUs));
    }
    for (unsigned int i = 0; i < 20; ++i) {
        run.write(pictureAt(picture, 10000000 + i * PeriodUs));
    }
    std::vector<std::size_t> expected = firstNumbers(11);
    expected.push_back(12);
    EXPECT_EQ(keyFrames(run.finish()), expected);
}

TEST(FFMpegEncoderVideo, TimesCountFromTheFirstPictureInWholePeriods)
{
    OutputSession session = smallSession();
    EXPECT_EQ(timesOut(session, {5000000, 5040000, 5079000, 5125000, 5400000}),
              (Times{0, 40000, 80000, 120000, 400000}));
}

TEST(FFMpegEncoderVideo, AnotherFrameRateLosesDuplicates)
{
    OutputSession session = smallSession();
    session.input.stream.video.frameRate = 50.0;
    EXPECT_EQ(timesOut(session, {0, 40000, 50000, 80000, 90000, 95000, 120000}),
              (Times{0, 40000, 80000, 120000}));
}

TEST(FFMpegEncoderVideo, TheSameFrameRateKeepsDuplicatesOnePeriodLater)
{
    OutputSession session = smallSession();
    EXPECT_EQ(timesOut(session, {0, 40000, 45000, 120000}), (Times{0, 40000, 80000, 120000}));
    // Only the picture before counts, not one that would be overtaken.
    EXPECT_EQ(timesOut(session, {0, 40000, 45000, 50000}), (Times{0, 40000, 80000, 40000}));
}

TEST(FFMpegEncoderVideo, TwoFirstPicturesBothPass)
{
    for (const double frameRate : {25.0, 50.0}) {
        OutputSession session = smallSession();
        session.input.stream.video.frameRate = frameRate;
        EXPECT_EQ(timesOut(session, {0, 0, 5000}), (Times{0, 0, 0}));
    }
}

TEST(FFMpegEncoderVideo, PicturesAloneCountFromTheFirstBehindASeekToo)
{
    OutputSession session = smallSession();
    const std::string picture = movingPicture(16, 16, 0);
    StageRun run(session, StageRun::Reader::TheTest);
    run.write(pictureAt(picture, 5000000));
    ASSERT_EQ(run.soFar().size(), 1U);
    run.stage().resetPosition(10000);
    run.write(pictureAt(picture, 10000000));
    EXPECT_EQ(timestampsOf(run.finish()), Times{5000000});
}

TEST(FFMpegEncoderVideo, BesideSamplesPicturesCountFromZeroBehindASeek)
{
    OutputSession session = smallSession();
    session.input.stream.audio = sampleSession("pcm_s16le", 128000).input.stream.audio;
    session.requestAudio("pcm_s16le", 128000);
    const std::string picture = movingPicture(16, 16, 0);
    StageRun run(session, StageRun::Reader::TheTest);
    run.write(pictureAt(picture, 5000000));
    ASSERT_EQ(run.soFar().size(), 1U);
    run.write(samplePacket(PacketType::Audio, std::string(4096, '\0'), 5000000));
    ASSERT_EQ(run.soFar().size(), 1U);
    run.stage().resetPosition(10000);
    run.write(pictureAt(picture, 10000000));
    EXPECT_EQ(timestampsOf(run.finish()), Times{10000000});
}

TEST(FFMpegEncoderVideo, ASeekBackIsEncodedLikeASeekForward)
{
    OutputSession session = pictureSession("mpeg4");
    const std::string picture = movingPicture(176, 144, 0);
    StageRun run(session, StageRun::Reader::TheTest);
    for (unsigned int i = 0; i < 30; ++i) {
        run.write(pictureAt(picture, i * PeriodUs));
        ASSERT_EQ(run.soFar().size(), 1U);
    }
    run.stage().resetPosition(200);
    for (unsigned int i = 5; i < 10; ++i) {
        run.write(pictureAt(picture, i * PeriodUs));
    }
    EXPECT_EQ(timestampsOf(run.finish()), (Times{200000, 240000, 280000, 320000, 360000}));
}

TEST(FFMpegEncoderVideo, RTPTimesRunOnBehindASeek)
{
    OutputSession session = pictureSession("svq");
    session.request.output.rtp = true;
    session.request.output.rtpPacketSize = 1000;
    const std::string picture = movingPicture(176, 144, 0);
    StageRun run(session, StageRun::Reader::TheTest);
    for (const unsigned long long time : {7000000, 7040000, 7080000}) {
        run.write(pictureAt(picture, time));
        const auto packet = run.next();
        ASSERT_TRUE(packet.has_value());
        EXPECT_EQ(packet->timestampUs, time - 7000000);
        EXPECT_EQ(packet->durationUs, PeriodUs);
    }
    run.stage().resetPosition(60000);
    // The first picture behind the seek takes the last one's time, and so the place behind it.
    for (const unsigned long long time : {60000000, 60040000, 60080000}) {
        run.write(pictureAt(picture, time));
    }
    EXPECT_EQ(timestampsOf(run.finish()), (Times{80000, 120000, 160000}));
}
