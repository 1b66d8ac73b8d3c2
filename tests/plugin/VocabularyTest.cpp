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
