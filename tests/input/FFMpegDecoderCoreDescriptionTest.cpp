#include "input/FFMpegDecoderCore.h"

#include "host/Records.h"
#include "tests/support/ClipPackets.h"
#include "tests/support/CoreReader.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MemorySource.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using zel::host::MediumRecord;
using zel::host::OutputStreamRecord;
using zel::test::clipPath;
using zel::test::LogCapture;
using zel::test::MemorySource;
using zel::test::readFile;
using zel::test::readSamples;

namespace {

class FFMpegDecoderCoreDescription : public testing::Test
{
protected:
    int open(const std::string& clip) { return core.initWithUrl(clipPath(clip), ""); }

    LogCapture log;
    FFMpegDecoderCore core;
};

/// Notes the order in which a description is written.
class OrderedVideo : public zel::host::VideoRecord
{
public:
    std::vector<std::string> order;

    void setCodec(const char* name) override
    {
        order.emplace_back("codec");
        VideoRecord::setCodec(name);
    }
    void setFrameRate(double rate) override
    {
        order.emplace_back("rate");
        VideoRecord::setFrameRate(rate);
    }
    void setWidth(int pixels) override
    {
        order.emplace_back("width");
        VideoRecord::setWidth(pixels);
    }
    void setHeight(int pixels) override
    {
        order.emplace_back("height");
        VideoRecord::setHeight(pixels);
    }
    void setBitrate(int value) override
    {
        order.emplace_back("bitrate");
        VideoRecord::setBitrate(value);
    }
    void setSampleSize(int sizeBytes) override
    {
        order.emplace_back("size");
        VideoRecord::setSampleSize(sizeBytes);
    }
    void setFixedSizeSamples(bool fixed) override
    {
        order.emplace_back("fixed");
        VideoRecord::setFixedSizeSamples(fixed);
    }
    void setTemporalCompression(bool compressed) override
    {
        order.emplace_back("temporal");
        VideoRecord::setTemporalCompression(compressed);
    }
    void setPixelFormat(zel::streamer::VideoPixelFormat::Enum format) override
    {
        order.emplace_back("format");
        VideoRecord::setPixelFormat(format);
    }
    void setBitsPerPixel(int bits) override
    {
        order.emplace_back("bits");
        VideoRecord::setBitsPerPixel(bits);
    }
    void setPixelAspectNumerator(int numerator) override
    {
        order.emplace_back("numerator");
        VideoRecord::setPixelAspectNumerator(numerator);
    }
    void setPixelAspectDenominator(int value) override
    {
        order.emplace_back("denominator");
        VideoRecord::setPixelAspectDenominator(value);
    }
};

class OrderedAudio : public zel::host::AudioRecord
{
public:
    std::vector<std::string> order;

    void setCodec(const char* name) override
    {
        order.emplace_back("codec");
        AudioRecord::setCodec(name);
    }
    void setBitrate(int value) override
    {
        order.emplace_back("bitrate");
        AudioRecord::setBitrate(value);
    }
    void setBitsPerSample(int bits) override
    {
        order.emplace_back("bits");
        AudioRecord::setBitsPerSample(bits);
    }
    void setChannels(int count) override
    {
        order.emplace_back("channels");
        AudioRecord::setChannels(count);
    }
    void setSampleFlags(int flags) override
    {
        order.emplace_back("flags");
        AudioRecord::setSampleFlags(flags);
    }
    void setSampleRate(int rate) override
    {
        order.emplace_back("rate");
        AudioRecord::setSampleRate(rate);
    }
    void setSampleSize(int sizeBits) override
    {
        order.emplace_back("size");
        AudioRecord::setSampleSize(sizeBits);
    }
    void setTemporalCompression(bool compressed) override
    {
        order.emplace_back("temporal");
        AudioRecord::setTemporalCompression(compressed);
    }
    void setFixedSizeSamples(bool fixed) override
    {
        order.emplace_back("fixed");
        AudioRecord::setFixedSizeSamples(fixed);
    }
};

class OrderedRecord : public OutputStreamRecord
{
public:
    mutable OrderedVideo orderedVideo;
    mutable OrderedAudio orderedAudio;

    zel::streamer::AudioPacketDescription* getAudio() const override { return &orderedAudio; }
    zel::streamer::VideoPacketDescription* getVideo() const override { return &orderedVideo; }
};

using Order = std::vector<std::string>;

} // namespace

// ---------------------------------------------------------------------------------------------
// The medium.

TEST_F(FFMpegDecoderCoreDescription, NothingIsToldWhileNothingIsOpen)
{
    MediumRecord medium;
    EXPECT_EQ(core.getMediumDescription(&medium), -1);
    EXPECT_FALSE(medium.durationMs);
    EXPECT_FALSE(medium.seekable);
    EXPECT_FALSE(medium.live);
    OutputStreamRecord record;
    core.getInputStreamDescription(&record);
    core.getOutputStreamDescription(&record);
    EXPECT_FALSE(record.multiplexed);
    EXPECT_FALSE(record.video.codec);
    EXPECT_FALSE(record.audio.codec);
    EXPECT_FALSE(core.m_videoRequested);
}

TEST_F(FFMpegDecoderCoreDescription, NothingIsToldAfterClose)
{
    ASSERT_EQ(open("h264_aac.mp4"), 0);
    core.close();
    MediumRecord medium;
    EXPECT_EQ(core.getMediumDescription(&medium), -1);
    OutputStreamRecord record;
    core.getInputStreamDescription(&record);
    core.getOutputStreamDescription(&record);
    EXPECT_FALSE(record.multiplexed);
    EXPECT_FALSE(core.setVideoDecodingMode(zel::streamer::DecodingMode::All));
}

TEST_F(FFMpegDecoderCoreDescription, FileTellsDurationSizeRateAndNames)
{
    ASSERT_EQ(open("h264_aac.mp4"), 0);
    MediumRecord medium;
    EXPECT_EQ(core.getMediumDescription(&medium), 0);
    EXPECT_EQ(medium.durationMs, core.m_duration);
    EXPECT_EQ(medium.fileSize, readFile(clipPath("h264_aac.mp4")).size());
    EXPECT_EQ(medium.bitrate, core.m_formatContext->bit_rate);
    EXPECT_GT(medium.bitrate, 100000);
    EXPECT_EQ(medium.seekable, true);
    EXPECT_EQ(medium.live, false);
    EXPECT_EQ(medium.title, "Test Film");
    EXPECT_EQ(medium.artist, "The Makers");
    EXPECT_EQ(medium.album, "First Reel");
    EXPECT_TRUE(medium.properties.values.empty());
}

TEST_F(FFMpegDecoderCoreDescription, UnknownNamesSizeAndRateAreNotWritten)
{
    MemorySource source(readFile(clipPath("h264_aac.ts")));
    source.canSeek = false;
    ASSERT_EQ(source.open(core, "mpegts"), 0);
    MediumRecord medium;
    EXPECT_EQ(core.getMediumDescription(&medium), 0);
    EXPECT_FALSE(medium.title);
    EXPECT_FALSE(medium.artist);
    EXPECT_FALSE(medium.album);
    EXPECT_FALSE(medium.fileSize);
    EXPECT_EQ(medium.bitrate.has_value(), core.m_formatContext->bit_rate > 0);
    EXPECT_EQ(medium.durationMs, core.m_duration);
    EXPECT_EQ(medium.seekable, false);
}

TEST_F(FFMpegDecoderCoreDescription, UnknownDurationIsLive)
{
    ASSERT_EQ(open("mjpeg.mjpeg"), 0);
    MediumRecord medium;
    core.getMediumDescription(&medium);
    EXPECT_EQ(medium.durationMs, 0u);
    EXPECT_EQ(medium.live, true);
    core.setDuration(4000);
    core.getMediumDescription(&medium);
    EXPECT_EQ(medium.durationMs, 4000u);
    EXPECT_EQ(medium.live, false);
}

TEST_F(FFMpegDecoderCoreDescription, PictureOfTheMediumIsAProperty)
{
    ASSERT_EQ(open("h264_aac.ts"), 0);
    core.updateMetadata({{"ThumbnailURL", "http://pictures/1.png"}, {"title", "New"}});
    MediumRecord medium;
    core.getMediumDescription(&medium);
    EXPECT_EQ(medium.properties.values["thumbnailURL"], "http://pictures/1.png");
    EXPECT_EQ(medium.title, "New");
}

// ---------------------------------------------------------------------------------------------
// The stream as it comes in.

TEST_F(FFMpegDecoderCoreDescription, InputIsDescribedAsItIs)
{
    ASSERT_EQ(open("mpeg4_mp3.avi"), 0);
    OrderedRecord record;
    core.getInputStreamDescription(&record);
    EXPECT_EQ(record.multiplexed, true);
    EXPECT_EQ(record.format, "avi");
    EXPECT_EQ(record.orderedVideo.codec, "mpeg4");
    EXPECT_EQ(record.orderedVideo.frameRate, 25.0);
    EXPECT_EQ(record.orderedVideo.width, 320);
    EXPECT_EQ(record.orderedVideo.height, 240);
    EXPECT_EQ(record.orderedAudio.codec, "mp3");
    EXPECT_EQ(record.orderedAudio.channels, 2);
    EXPECT_EQ(record.orderedAudio.sampleRate, 44100);
    EXPECT_EQ(record.orderedVideo.order,
              (Order{"codec", "rate", "width", "height", "bitrate", "bitrate"}));
    EXPECT_EQ(record.orderedAudio.order, (Order{"codec", "channels", "rate"}));
}

TEST_F(FFMpegDecoderCoreDescription, RateOfTheAudioStandsInTheVideoRecord)
{
    ASSERT_EQ(open("mpeg4_mp3.avi"), 0);
    OutputStreamRecord record;
    record.audio.bitrate = 77;
    core.getInputStreamDescription(&record);
    EXPECT_EQ(record.video.bitrate, 128000);
    EXPECT_EQ(record.audio.bitrate, 77);
}

TEST_F(FFMpegDecoderCoreDescription, RateOfVideoWithoutAudioIsItsOwn)
{
    ASSERT_EQ(open("video_only.mp4"), 0);
    OutputStreamRecord record;
    core.getInputStreamDescription(&record);
    EXPECT_EQ(record.video.bitrate, core.m_formatContext->streams[0]->codecpar->bit_rate);
    EXPECT_GT(record.video.bitrate, 100000);
    EXPECT_FALSE(record.audio.codec);
}

TEST_F(FFMpegDecoderCoreDescription, AudioAloneLeavesOnlyItsRateInTheVideoRecord)
{
    ASSERT_EQ(open("mp3_cbr.mp3"), 0);
    OutputStreamRecord record;
    core.getInputStreamDescription(&record);
    EXPECT_EQ(record.format, "mp3");
    EXPECT_FALSE(record.video.codec);
    EXPECT_FALSE(record.video.width);
    EXPECT_EQ(record.video.bitrate, 128000);
    EXPECT_EQ(record.audio.codec, "mp3");
}

TEST_F(FFMpegDecoderCoreDescription, FormatsAndCodecsHaveTheNamesOfTheSystem)
{
    struct Names
    {
        const char* clip;
        const char* format;
        const char* video;
        const char* audio;
    };
    for (const Names& names :
         {Names{"h264_aac.mp4", "mov", "h264", "aac"}, Names{"h264_aac.mov", "mov", "h264", "aac"},
          Names{"aac.m4a", "mov", nullptr, "aac"},
          Names{"h264_aac.mkv", "matroska,webm", "h264", "aac"},
          Names{"h264_aac.ts", "mpegts", "h264", "aac"},
          Names{"h264_aac.flv", "flv", "h264", "aac"}, Names{"wmv2_wma2.asf", "asf", "wmv8", "wma"},
          Names{"wmv1_wma1.wmv", "asf", "wmv1", "wmav1"},
          Names{"mpeg2_mp2.mpg", "mpeg", "mpeg2", "mp2"},
          Names{"mpeg2_ac3.ts", "mpegts", "mpeg2", "ac3"},
          Names{"flv1_mp3.flv", "flv", "flv", "mp3"},
          Names{"av1.mkv", "matroska,webm", "av1", nullptr},
          Names{"vp8_vorbis.webm", "matroska,webm", "vp8", "vorbis"},
          Names{"flac_16.flac", "flac", nullptr, "flac"}}) {
        FFMpegDecoderCore any;
        ASSERT_EQ(any.initWithUrl(clipPath(names.clip), ""), 0);
        OutputStreamRecord record;
        any.getInputStreamDescription(&record);
        EXPECT_EQ(record.format, names.format) << names.clip;
        EXPECT_STREQ(record.video.getCodec(), names.video != nullptr ? names.video : "")
            << names.clip;
        EXPECT_STREQ(record.audio.getCodec(), names.audio != nullptr ? names.audio : "")
            << names.clip;
    }
}

TEST_F(FFMpegDecoderCoreDescription, CodecWithoutDecoderHasNoName)
{
    core.skipVideoDecoding();
    ASSERT_EQ(open("undecodable_video.mkv"), 0);
    OutputStreamRecord record;
    core.getInputStreamDescription(&record);
    EXPECT_FALSE(record.video.codec);
    EXPECT_TRUE(record.video.width);
    EXPECT_EQ(record.audio.codec, "aac");
}

// ---------------------------------------------------------------------------------------------
// The stream that is delivered.

TEST_F(FFMpegDecoderCoreDescription, OutputIsRawAndWrittenInOrder)
{
    ASSERT_EQ(open("h264_anamorphic.mp4"), 0);
    readSamples(core, 1);
    OrderedRecord record;
    core.getOutputStreamDescription(&record);
    EXPECT_EQ(record.multiplexed, false);
    EXPECT_FALSE(record.format);
    const auto& video = record.orderedVideo;
    EXPECT_EQ(video.codec, "raw");
    EXPECT_EQ(video.frameRate, 25.0);
    EXPECT_EQ(video.sampleSize, 352 * 288 * 2);
    EXPECT_EQ(video.temporalCompression, false);
    EXPECT_EQ(video.fixedSizeSamples, true);
    EXPECT_EQ(video.pixelFormat, zel::streamer::VideoPixelFormat::YUYV422);
    EXPECT_EQ(video.bitsPerPixel, 1);
    EXPECT_EQ(video.width, 352);
    EXPECT_EQ(video.height, 288);
    EXPECT_EQ(video.bitrate, 352 * 288 * 2 * 25);
    EXPECT_EQ(video.pixelAspectNumerator, 16);
    EXPECT_EQ(video.pixelAspectDenominator, 11);
    EXPECT_EQ(video.order, (Order{"codec", "rate", "size", "temporal", "fixed", "format", "bits",
                                  "width", "height", "bitrate", "numerator", "denominator"}));
    EXPECT_TRUE(core.m_videoRequested);
}

TEST_F(FFMpegDecoderCoreDescription, UnknownAspectIsNotWritten)
{
    ASSERT_EQ(open("flv1_mp3.flv"), 0);
    OutputStreamRecord record;
    core.getOutputStreamDescription(&record);
    EXPECT_EQ(record.video.codec, "raw");
    EXPECT_FALSE(record.video.pixelAspectNumerator);
    EXPECT_FALSE(record.video.pixelAspectDenominator);
}

TEST_F(FFMpegDecoderCoreDescription, RawAudioIsWrittenInOrder)
{
    ASSERT_EQ(open("wav_s16.wav"), 0);
    OrderedRecord record;
    core.getOutputStreamDescription(&record);
    const auto& audio = record.orderedAudio;
    EXPECT_EQ(audio.codec, "raw");
    EXPECT_EQ(audio.bitrate, 44100 * 16 * 2);
    EXPECT_EQ(audio.bitsPerSample, 16);
    EXPECT_EQ(audio.channels, 2);
    EXPECT_EQ(audio.sampleFlags, 0);
    EXPECT_EQ(audio.sampleRate, 44100);
    EXPECT_EQ(audio.sampleSize, 32);
    EXPECT_EQ(audio.temporalCompression, false);
    EXPECT_EQ(audio.fixedSizeSamples, false);
    EXPECT_EQ(audio.order, (Order{"codec", "bitrate", "bits", "channels", "flags", "rate", "size",
                                  "temporal", "fixed"}));
    EXPECT_TRUE(record.orderedVideo.order.empty());
    EXPECT_FALSE(core.m_videoRequested);
}

TEST_F(FFMpegDecoderCoreDescription, PassedVideoIsDescribedAsItIs)
{
    core.skipVideoDecoding();
    ASSERT_EQ(open("mpeg4_mp3.avi"), 0);
    OutputStreamRecord record;
    core.getOutputStreamDescription(&record);
    EXPECT_EQ(record.multiplexed, false);
    EXPECT_EQ(record.format, "avi");
    EXPECT_EQ(record.video.codec, "mpeg4");
    EXPECT_EQ(record.video.bitrate, 128000);
    EXPECT_FALSE(record.video.pixelFormat);
    EXPECT_EQ(record.audio.codec, "raw");
    EXPECT_EQ(record.audio.bitrate, 44100 * 16 * 2);
    EXPECT_FALSE(core.m_videoRequested);
}

TEST_F(FFMpegDecoderCoreDescription, PassedAudioIsDescribedAsItIs)
{
    core.skipAudioDecoding();
    ASSERT_EQ(open("mpeg4_mp3.avi"), 0);
    OutputStreamRecord record;
    core.getOutputStreamDescription(&record);
    EXPECT_EQ(record.multiplexed, false);
    EXPECT_EQ(record.audio.codec, "mp3");
    EXPECT_FALSE(record.audio.bitsPerSample);
    EXPECT_EQ(record.video.codec, "raw");
    EXPECT_EQ(record.video.bitrate, 320 * 240 * 2 * 25);
    EXPECT_TRUE(core.m_videoRequested);
}

TEST_F(FFMpegDecoderCoreDescription, OutputKeepsItsSizeWhenTheSourceChangesIts)
{
    ASSERT_EQ(open("size_change.ts"), 0);
    const auto video = videoOf(readSamples(core));
    for (const auto& picture : video) {
        EXPECT_EQ(picture.size, 320u * 240u * 2u);
    }
    EXPECT_EQ(core.m_srcWidth, 352u);
    EXPECT_EQ(core.m_srcHeight, 288u);
    OutputStreamRecord record;
    core.getOutputStreamDescription(&record);
    EXPECT_EQ(record.video.width, 320);
    EXPECT_EQ(record.video.height, 240);
}
