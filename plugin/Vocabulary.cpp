#include "plugin/Vocabulary.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace zel::streamer {

namespace {

struct PixelFormatRow
{
    VideoPixelFormat::Enum zel;
    AVPixelFormat ffmpeg;
    int bitsPerPixel;
};

/// The first row also serves every unknown value.
constexpr PixelFormatRow pixelFormats[] = {
    {VideoPixelFormat::RGB24, AV_PIX_FMT_RGB24, 24},
    {VideoPixelFormat::BGR24, AV_PIX_FMT_BGR24, 24},
    {VideoPixelFormat::BGRA, AV_PIX_FMT_BGRA, 32},
    {VideoPixelFormat::RGBA, AV_PIX_FMT_RGBA, 32},
    {VideoPixelFormat::YUV420P, AV_PIX_FMT_YUV420P, 12},
    {VideoPixelFormat::YUYV422, AV_PIX_FMT_YUYV422, 16},
};

const PixelFormatRow& rowOf(VideoPixelFormat::Enum format)
{
    const auto* row =
        std::find_if(std::begin(pixelFormats), std::end(pixelFormats),
                     [format](const PixelFormatRow& candidate) { return candidate.zel == format; });
    return row == std::end(pixelFormats) ? pixelFormats[0] : *row;
}

} // namespace

AVPixelFormat zelToFFmpegPixelFormat(VideoPixelFormat::Enum format)
{
    return rowOf(format).ffmpeg;
}

VideoPixelFormat::Enum FFmpegToZelPixelFormat(AVPixelFormat format)
{
    const auto* row = std::find_if(
        std::begin(pixelFormats), std::end(pixelFormats),
        [format](const PixelFormatRow& candidate) { return candidate.ffmpeg == format; });
    if (row == std::end(pixelFormats)) {
        throw std::logic_error("ffmpeg format not supported!");
    }
    return row->zel;
}

int getBitsPerPixels(VideoPixelFormat::Enum format)
{
    return rowOf(format).bitsPerPixel;
}

} // namespace zel::streamer
