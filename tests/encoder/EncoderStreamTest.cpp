#include "encoder/EncoderStream.h"

#include "common/ffmpeg/EncoderNames.h"
#include "plugin/Vocabulary.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

VideoEncoderSettings pictureSettings(int width = 176, int height = 144,
                                     AVRational timeBase = {1, 25})
{
    VideoEncoderSettings settings;
    settings.width = width;
    settings.height = height;
    settings.timeBase = timeBase;
    settings.bitRate = 500000;
    settings.bitRateTolerance = 600000;
    settings.hasBFrames = 1;
    settings.gopSize = 25;
    settings.flags = GlobalHeaderFlag;
    return settings;
}

AudioEncoderSettings sampleSettings(int channels = 2, int sampleRate = 44100, int bitRate = 128000)
{
    AudioEncoderSettings settings;
    settings.bitRate = bitRate;
    settings.sampleRate = sampleRate;
    settings.channels = channels;
    settings.flags = GlobalHeaderFlag;
    return settings;
}

EncoderStream videoStream(const std::string& encoder, const VideoEncoderSettings& settings)
{
    EncoderStream stream;
    stream.type = AVMEDIA_TYPE_VIDEO;
    stream.encoder = zel::av::findEncoder(encoder.c_str());
    stream.video = settings;
    return stream;
}

EncoderStream audioStream(const std::string& encoder, const AudioEncoderSettings& settings)
{
    EncoderStream stream;
    stream.type = AVMEDIA_TYPE_AUDIO;
    stream.encoder = zel::av::findEncoder(encoder.c_str());
    stream.audio = settings;
    return stream;
}

bool opensVideo(const std::string& encoder, const VideoEncoderSettings& settings)
{
    EncoderStream stream = videoStream(encoder, settings);
    return stream.encoder != nullptr && stream.open() >= 0 && stream.context;
}

bool opensAudio(const std::string& encoder, const AudioEncoderSettings& settings)
{
    EncoderStream stream = audioStream(encoder, settings);
    return stream.encoder != nullptr && stream.open() >= 0 && stream.context;
}

std::optional<int64_t> privateOption(const EncoderStream& stream, const char* name)
{
    int64_t value = 0;
    const bool isThere = stream.encoder->priv_class != nullptr &&
                         av_opt_get_int(stream.context->priv_data, name, 0, &value) >= 0;
    return isThere ? std::optional(value) : std::nullopt;
}

/// The encoder that a word of the host leads to.
std::string encoderOf(const char* word)
{
    return zel::streamer::zelCodecToFFMpegCodec(word, false);
}

} // namespace

TEST(EncoderStream, EveryVideoWordOfTheBorderButH264LeadsToAnEncoderThatOpens)
{
    for (const char* word : {"wmv9", "wmv", "wmv8", "wmv7", "wmv1", "wmv2", "mpeg2", "svq", "flv",
                             "mpeg1video", "mpeg2video", "mpeg4", "mjpeg", "h263", "h263p"}) {
        EXPECT_TRUE(opensVideo(encoderOf(word), pictureSettings())) << word;
    }
    EXPECT_EQ(encoderOf("h264"), "h264Empty");
}

TEST(EncoderStream, EveryAudioWordOfTheBorderLeadsToAnEncoderThatOpens)
{
    for (const char* word : {"wma", "wmav1", "wmav2", "mp3", "mp2", "aac", "ac3", "flac"}) {
        EXPECT_TRUE(opensAudio(encoderOf(word), sampleSettings())) << word;
    }
    EXPECT_TRUE(opensAudio(encoderOf("amr_nb"), sampleSettings(1, 8000, 10200)));
    EXPECT_TRUE(opensAudio(encoderOf("amr"), sampleSettings(1, 16000, 23050)));
    EXPECT_TRUE(opensAudio(encoderOf("libamr"), sampleSettings(1, 16000, 6600)));
}

TEST(EncoderStream, EncodersRefuseWhatTheyCannotTell)
{
    EXPECT_FALSE(opensVideo("mpeg1video", pictureSettings(176, 144, {100, 2997})));
    EXPECT_FALSE(opensVideo("mpeg2video", pictureSettings(176, 144, {100, 2997})));
    EXPECT_FALSE(opensVideo("mpeg1video", pictureSettings(176, 144, {125, 2997})));
    EXPECT_FALSE(opensVideo("mpeg2video", pictureSettings(176, 144, {125, 2997})));
    EXPECT_FALSE(opensVideo("mpeg1video", pictureSettings(176, 144, {1, 7})));
    EXPECT_TRUE(opensVideo("mpeg1video", pictureSettings(176, 144, {1, 24})));
    EXPECT_TRUE(opensVideo("mpeg1video", pictureSettings(176, 144, {1, 15})));
    EXPECT_FALSE(opensVideo("wmv2", pictureSettings(175, 144)));
    EXPECT_FALSE(opensVideo("h263", pictureSettings(180, 144)));
    EXPECT_FALSE(opensVideo("mpeg4", pictureSettings(0, 0)));
    for (const char* encoder : {"mpeg4", "flv", "wmv2", "mjpeg"}) {
        EXPECT_FALSE(opensVideo(encoder, pictureSettings(176, 144, {0, 1}))) << encoder;
    }
    for (const char* encoder : {"aac", "libmp3lame", "ac3", "wmav2", "flac"}) {
        EXPECT_FALSE(opensAudio(encoder, sampleSettings(0))) << encoder;
        EXPECT_FALSE(opensAudio(encoder, sampleSettings(-1))) << encoder;
        EXPECT_FALSE(opensAudio(encoder, sampleSettings(2, 0))) << encoder;
    }
    EXPECT_FALSE(opensAudio("wmav2", sampleSettings(2, 44100, 20000)));
    EXPECT_TRUE(opensAudio("wmav2", sampleSettings(2, 44100, 24000)));
    EXPECT_FALSE(opensAudio("libmp3lame", sampleSettings(6)));
    EXPECT_FALSE(opensAudio("aac", sampleSettings(2, 1000)));
}

TEST(EncoderStream, AnEncoderOfTheOtherKindIsRefused)
{
    EXPECT_FALSE(opensVideo("aac", pictureSettings()));
    EXPECT_FALSE(opensAudio("mpeg4", sampleSettings()));
}

TEST(EncoderStream, WhatDoesNotOpenLeavesNoContext)
{
    EncoderStream stream = videoStream("mpeg4", pictureSettings());
    ASSERT_EQ(stream.open(), 0);
    EXPECT_TRUE(stream.context);
    EXPECT_TRUE(stream.pictures);
    stream.video.width = 0;
    EXPECT_LT(stream.open(), 0);
    EXPECT_FALSE(stream.context);
    EXPECT_FALSE(stream.pictures);
}

TEST(EncoderStream, VideoContextHasTheSettings)
{
    VideoEncoderSettings settings = pictureSettings(176, 144, {2, 25});
    settings.rcMaxRate = 500000;
    settings.rcMinRate = 500000;
    settings.rcBufferSize = 13000000;
    settings.qMin = 4;
    settings.qMax = 20;
    settings.maxQDiff = 6;
    settings.qCompress = 0.7F;
    settings.qBlur = 0.3F;
    settings.gopSize = 13;
    settings.keyIntMin = 11;
    settings.meRange = 16;
    settings.meSubpelQuality = 6;
    settings.mbDecision = 2;
    settings.trellis = 1;
    EncoderStream stream = videoStream("mpeg4", settings);
    ASSERT_EQ(stream.open(), 0);
    const AVCodecContext& context = *stream.context;
    EXPECT_EQ(context.width, 176);
    EXPECT_EQ(context.height, 144);
    EXPECT_EQ(av_cmp_q(context.time_base, {2, 25}), 0);
    EXPECT_EQ(av_cmp_q(context.framerate, {25, 2}), 0);
    EXPECT_EQ(context.bit_rate, 500000);
    EXPECT_EQ(context.bit_rate_tolerance, 600000);
    EXPECT_EQ(context.rc_max_rate, 500000);
    EXPECT_EQ(context.rc_min_rate, 500000);
    EXPECT_EQ(context.rc_buffer_size, 13000000);
    EXPECT_EQ(context.qmin, 4);
    EXPECT_EQ(context.qmax, 20);
    EXPECT_EQ(context.max_qdiff, 6);
    EXPECT_FLOAT_EQ(context.qcompress, 0.7F);
    EXPECT_FLOAT_EQ(context.qblur, 0.3F);
    EXPECT_EQ(context.gop_size, 13);
    EXPECT_EQ(context.keyint_min, 11);
    EXPECT_EQ(context.refs, 1);
    EXPECT_EQ(context.me_range, 16);
    EXPECT_EQ(context.me_subpel_quality, 6);
    EXPECT_EQ(context.mb_decision, 2);
    EXPECT_EQ(context.trellis, 1);
    EXPECT_NE(context.flags & AV_CODEC_FLAG_GLOBAL_HEADER, 0);
    EXPECT_EQ(context.pix_fmt, AV_PIX_FMT_YUV420P);
    EXPECT_EQ(context.thread_count, 1);
    EXPECT_GT(context.extradata_size, 0);
}

TEST(EncoderStream, AudioContextHasTheSettings)
{
    AudioEncoderSettings settings = sampleSettings(2, 48000, 96000);
    settings.bitRateTolerance = 5000;
    settings.rcMaxRate = 96000;
    settings.rcMinRate = 96000;
    settings.rcBufferSize = 96000;
    EncoderStream stream = audioStream("aac", settings);
    ASSERT_EQ(stream.open(), 0);
    const AVCodecContext& context = *stream.context;
    EXPECT_EQ(context.bit_rate, 96000);
    EXPECT_EQ(context.bit_rate_tolerance, 5000);
    EXPECT_EQ(context.sample_rate, 48000);
    EXPECT_EQ(context.ch_layout.nb_channels, 2);
    EXPECT_EQ(av_cmp_q(context.time_base, {1, 48000}), 0);
    EXPECT_EQ(context.rc_max_rate, 96000);
    EXPECT_EQ(context.rc_min_rate, 96000);
    EXPECT_EQ(context.rc_buffer_size, 96000);
    EXPECT_NE(context.flags & AV_CODEC_FLAG_GLOBAL_HEADER, 0);
    EXPECT_EQ(context.extradata_size, 5);
    EXPECT_EQ(context.frame_size, 1024);
}

TEST(EncoderStream, MotionEstimationIsNoneOrPredictive)
{
    for (const auto& [id, option] : {std::pair(1, 0), std::pair(5, 1), std::pair(10, 1)}) {
        VideoEncoderSettings settings = pictureSettings();
        settings.meMethod = id;
        EncoderStream stream = videoStream("mpeg4", settings);
        ASSERT_EQ(stream.open(), 0);
        EXPECT_EQ(privateOption(stream, "motion_est"), option) << id;
    }
}

TEST(EncoderStream, OnlyEncodersThatCanBeCutMakeSlicesForRTP)
{
    VideoEncoderSettings settings = pictureSettings();
    settings.rtpPayloadSize = 1000;
    for (const char* encoder : {"mpeg4", "h263", "h263p", "mpeg1video", "mpeg2video"}) {
        EncoderStream stream = videoStream(encoder, settings);
        ASSERT_EQ(stream.open(), 0);
        EXPECT_EQ(privateOption(stream, "ps"), 872) << encoder;
    }
    for (const char* encoder : {"flv", "wmv1", "wmv2", "mjpeg", "msmpeg4v2"}) {
        EncoderStream stream = videoStream(encoder, settings);
        ASSERT_EQ(stream.open(), 0);
        EXPECT_EQ(privateOption(stream, "ps").value_or(0), 0) << encoder;
    }
    settings.rtpPayloadSize = 0;
    EncoderStream stream = videoStream("mpeg4", settings);
    ASSERT_EQ(stream.open(), 0);
    EXPECT_EQ(privateOption(stream, "ps"), 0);
}

TEST(EncoderStream, NoEncoderHoldsAPictureBack)
{
    for (const char* encoder :
         {"wmv1", "wmv2", "mpeg1video", "mpeg2video", "flv", "mpeg4", "mjpeg", "h263", "h263p"}) {
        EncoderStream stream = videoStream(encoder, pictureSettings());
        ASSERT_EQ(stream.open(), 0);
        const zel::av::Frame picture = zel::av::makePicture(*stream.context);
        for (int64_t pts = 0; pts < 30; ++pts) {
            picture->pts = pts;
            ASSERT_TRUE(zel::av::renewIfShared(*picture));
            const AVPacket* packet = stream.pictures->encode(*picture);
            ASSERT_NE(packet, nullptr) << encoder << " " << pts;
            EXPECT_EQ(packet->pts, pts) << encoder;
            EXPECT_EQ(packet->dts, pts) << encoder;
        }
    }
}

TEST(EncoderStream, CopiedH264NeedsNoEncoder)
{
    EncoderStream stream;
    stream.type = AVMEDIA_TYPE_VIDEO;
    stream.copied = true;
    stream.video = pictureSettings(1920, 1080, {1, 30});
    ASSERT_EQ(stream.open(), 0);
    EXPECT_EQ(stream.context->codec_id, AV_CODEC_ID_H264);
    EXPECT_EQ(stream.context->codec_type, AVMEDIA_TYPE_VIDEO);
    EXPECT_EQ(stream.context->width, 1920);
    EXPECT_EQ(stream.context->extradata_size, 0);
    EXPECT_EQ(av_cmp_q(stream.timeBase(), {1, 30}), 0);
    EXPECT_FALSE(stream.pictures);
}

TEST(EncoderStream, CopiedStreamHasAnEncoderForItsParametersAlone)
{
    EncoderStream stream = audioStream("aac", sampleSettings());
    stream.copied = true;
    ASSERT_EQ(stream.open(), 0);
    EXPECT_EQ(stream.context->frame_size, 1024);
    EXPECT_FALSE(stream.frames);
}

TEST(EncoderStream, ExtradataIsReplacedAndPadded)
{
    EncoderStream stream = audioStream("aac", sampleSettings());
    ASSERT_EQ(stream.open(), 0);
    const std::vector<unsigned char> bytes = {0x12, 0x10, 0x56, 0xe5, 0x00, 0xff};
    stream.setExtradata(bytes);
    ASSERT_EQ(stream.context->extradata_size, 6);
    for (std::size_t i = 0; i < bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE; ++i) {
        EXPECT_EQ(stream.context->extradata[i], i < bytes.size() ? bytes[i] : 0) << i;
    }
}
