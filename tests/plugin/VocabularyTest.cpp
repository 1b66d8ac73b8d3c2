#include "plugin/Vocabulary.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using namespace zel::streamer;

namespace {

struct PixelRow
{
    int value;
    AVPixelFormat ffmpeg;
    int bits;
};

constexpr PixelRow pixelRows[] = {
    {0, AV_PIX_FMT_RGB24, 24}, {1, AV_PIX_FMT_BGR24, 24},   {2, AV_PIX_FMT_BGRA, 32},
    {3, AV_PIX_FMT_RGBA, 32},  {4, AV_PIX_FMT_YUV420P, 12}, {5, AV_PIX_FMT_YUYV422, 16},
};

VideoPixelFormat::Enum asFormat(int value)
{
    return static_cast<VideoPixelFormat::Enum>(value);
}

} // namespace

TEST(Vocabulary, EveryPixelFormatGoesOutAndComesBack)
{
    for (const PixelRow& row : pixelRows) {
        EXPECT_EQ(zelToFFmpegPixelFormat(asFormat(row.value)), row.ffmpeg) << row.value;
        EXPECT_EQ(FFmpegToZelPixelFormat(row.ffmpeg), row.value) << row.value;
        EXPECT_EQ(getBitsPerPixels(asFormat(row.value)), row.bits) << row.value;
    }
}

TEST(Vocabulary, UnknownPixelFormatValueCountsAsRGB24)
{
    for (const int value : {-1, 6, 1000, -2147483647}) {
        EXPECT_EQ(zelToFFmpegPixelFormat(asFormat(value)), AV_PIX_FMT_RGB24) << value;
        EXPECT_EQ(getBitsPerPixels(asFormat(value)), 24) << value;
    }
}

TEST(Vocabulary, ForeignFFmpegPixelFormatThrows)
{
    for (const AVPixelFormat format :
         {AV_PIX_FMT_NONE, AV_PIX_FMT_ARGB, AV_PIX_FMT_YUV422P, AV_PIX_FMT_NV12}) {
        try {
            FFmpegToZelPixelFormat(format);
            ADD_FAILURE() << "no exception for " << format;
        } catch (const std::logic_error& error) {
            EXPECT_EQ(std::string(error.what()), "ffmpeg format not supported!");
        }
    }
}

namespace {

struct NameRow
{
    const char* from;
    const char* to;
};

using Name = CStdStr<char>;

} // namespace

TEST(Vocabulary, EncoderCodecNamesGoToFFmpegRowByRow)
{
    constexpr NameRow rows[] = {
        {"wmv9", "wmv2"},
        {"wmv", "wmv2"},
        {"wmv8", "wmv2"},
        {"wmv7", "wmv2"},
        {"wma", "wmav2"},
        {"mp3", "libmp3lame"},
        {"amr", "libopencore_amrwb"},
        {"libamr", "libopencore_amrwb"},
        {"amr_nb", "libopencore_amrnb"},
        {"mpeg2", "mpeg2video"},
        {"svq", "flv"},
        {"h264", "h264Empty"},
        {"aac", "aac"},
        {"raw", "raw"},
        {"wmv2", "wmv2"},
        {"", ""},
    };
    for (const NameRow& row : rows) {
        EXPECT_STREQ(zelCodecToFFMpegCodec(Name(row.from), false), row.to) << row.from;
    }
}

TEST(Vocabulary, DecoderKeepsMp3AndH264AndMapsTheRest)
{
    EXPECT_STREQ(zelCodecToFFMpegCodec(Name("mp3"), true), "mp3");
    EXPECT_STREQ(zelCodecToFFMpegCodec(Name("h264"), true), "h264");
    EXPECT_STREQ(zelCodecToFFMpegCodec(Name("wmv9"), true), "wmv2");
    EXPECT_STREQ(zelCodecToFFMpegCodec(Name("wma"), true), "wmav2");
    EXPECT_STREQ(zelCodecToFFMpegCodec(Name("amr"), true), "libopencore_amrwb");
    EXPECT_STREQ(zelCodecToFFMpegCodec(Name("amr_nb"), true), "libopencore_amrnb");
    EXPECT_STREQ(zelCodecToFFMpegCodec(Name("mpeg2"), true), "mpeg2video");
    EXPECT_STREQ(zelCodecToFFMpegCodec(Name("svq"), true), "flv");
}

TEST(Vocabulary, FFmpegCodecNamesComeBackRowByRow)
{
    constexpr NameRow rows[] = {
        {"wmv3", "wmv9"},
        {"wmv2", "wmv8"},
        {"wmav2", "wma"},
        {"libmp3lame", "mp3"},
        {"libopencore_amrwb", "amr"},
        {"libopencore_amrnb", "amr_nb"},
        {"mpeg2video", "mpeg2"},
        {"h264Empty", "h264"},
        {"aac", "aac"},
        {"flv", "flv"},
        {"mp3", "mp3"},
        {"wmv1", "wmv1"},
        {"", ""},
    };
    for (const NameRow& row : rows) {
        EXPECT_STREQ(FFMpegCodecToZelCodec(Name(row.from)), row.to) << row.from;
    }
}

TEST(Vocabulary, CodecNamesIgnoreCase)
{
    EXPECT_STREQ(zelCodecToFFMpegCodec(Name("WMV9"), false), "wmv2");
    EXPECT_STREQ(zelCodecToFFMpegCodec(Name("Mp3"), false), "libmp3lame");
    EXPECT_STREQ(zelCodecToFFMpegCodec(Name("MP3"), true), "MP3");
    EXPECT_STREQ(zelCodecToFFMpegCodec(Name("AAC"), false), "AAC");
    EXPECT_STREQ(FFMpegCodecToZelCodec(Name("H264EMPTY")), "h264");
    EXPECT_STREQ(FFMpegCodecToZelCodec(Name("WMAv2")), "wma");
}

TEST(Vocabulary, CodecMapsAreNotInverses)
{
    const auto andBack = [](const char* name) {
        return std::string(FFMpegCodecToZelCodec(zelCodecToFFMpegCodec(name, false)));
    };
    EXPECT_EQ(andBack("wmv9"), "wmv8");
    EXPECT_EQ(andBack("svq"), "flv");
    EXPECT_EQ(andBack("libamr"), "amr");
    EXPECT_EQ(andBack("h264"), "h264");
}

TEST(Vocabulary, FormatNamesAreFoundByTheirParts)
{
    constexpr NameRow rows[] = {
        {"mov,mp4,m4a,3gp,3g2,mj2", "mov"},
        {"mp4", "mov"},
        {"m4v", "mov"},
        {"m4a", "mov"},
        {"mov", "mov"},
        {"asf", "asf"},
        {"asf_o", "asf"},
        {"wmv", "asf"},
        {"wma", "asf"},
        {"xasfmp4", "mov"}, // both sets match: the first one wins
        {"flv", "flv"},
        {"mpegts", "mpegts"},
        {"m4", "m4"},
        {"", ""},
    };
    for (const NameRow& row : rows) {
        EXPECT_STREQ(FFMpegFormatToZelFormat(Name(row.from)), row.to) << row.from;
    }
}

TEST(Vocabulary, FormatNamesRespectCase)
{
    EXPECT_STREQ(FFMpegFormatToZelFormat(Name("MP4")), "MP4");
    EXPECT_STREQ(FFMpegFormatToZelFormat(Name("ASF")), "ASF");
}

TEST(Vocabulary, UnchangedNameIsTheArgumentItself)
{
    const char* codec = "theora";
    EXPECT_EQ(zelCodecToFFMpegCodec(codec, false), codec);
    EXPECT_EQ(FFMpegCodecToZelCodec(codec), codec);
    EXPECT_EQ(FFMpegFormatToZelFormat(codec), codec);
    const Name name("a name that is too long to stay inside the string object itself");
    EXPECT_EQ(zelCodecToFFMpegCodec(name, true), name.c_str());
    EXPECT_EQ(FFMpegCodecToZelCodec(name), name.c_str());
    EXPECT_EQ(FFMpegFormatToZelFormat(name), name.c_str());
}

TEST(Vocabulary, NullNameCountsAsEmpty)
{
    const char* none = nullptr;
    EXPECT_STREQ(zelCodecToFFMpegCodec(none, false), "");
    EXPECT_STREQ(FFMpegCodecToZelCodec(none), "");
    EXPECT_STREQ(FFMpegFormatToZelFormat(none), "");
}
