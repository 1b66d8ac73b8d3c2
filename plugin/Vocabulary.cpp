#include "plugin/Vocabulary.h"

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <stdexcept>
#include <string_view>

namespace zel::streamer {

namespace {

/// Rows are tried from the top.
struct CodecRow
{
    const char* from;
    const char* to;
    bool encoderOnly = false;
};

constexpr CodecRow codecsToFFmpeg[] = {
    {"wmv9", "wmv2"},
    {"wmv", "wmv2"},
    {"wmv8", "wmv2"},
    {"wmv7", "wmv2"},
    {"wma", "wmav2"},
    {"mp3", "libmp3lame", true},
    {"amr", "libopencore_amrwb"},
    {"libamr", "libopencore_amrwb"},
    {"amr_nb", "libopencore_amrnb"},
    {"mpeg2", "mpeg2video"},
    {"svq", "flv"},
    {"h264", "h264Empty", true},
};

constexpr CodecRow codecsFromFFmpeg[] = {
    {"wmv3", "wmv9"},
    {"wmv2", "wmv8"},
    {"wmav2", "wma"},
    {"libmp3lame", "mp3"},
    {"libopencore_amrwb", "amr"},
    {"libopencore_amrnb", "amr_nb"},
    {"mpeg2video", "mpeg2"},
    {"h264Empty", "h264"},
};

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

const char* zelCodecToFFMpegCodec(const char* name, bool forDecoder)
{
    for (const CodecRow& row : codecsToFFmpeg) {
        if (!(forDecoder && row.encoderOnly) && ssicmp(name, row.from) == 0) {
            return row.to;
        }
    }
    return name ? name : "";
}

const char* zelCodecToFFMpegCodec(const CStdStr<char>& name, bool forDecoder)
{
    return zelCodecToFFMpegCodec(name.c_str(), forDecoder);
}

const char* FFMpegCodecToZelCodec(const char* name)
{
    for (const CodecRow& row : codecsFromFFmpeg) {
        if (ssicmp(name, row.from) == 0) {
            return row.to;
        }
    }
    return name ? name : "";
}

const char* FFMpegCodecToZelCodec(const CStdStr<char>& name)
{
    return FFMpegCodecToZelCodec(name.c_str());
}

const char* FFMpegFormatToZelFormat(const char* name)
{
    const std::string_view text = name ? name : "";
    const auto containsAnyOf = [text](std::initializer_list<std::string_view> words) {
        return std::any_of(words.begin(), words.end(), [text](std::string_view word) {
            return text.find(word) != std::string_view::npos;
        });
    };
    if (containsAnyOf({"mov", "m4v", "mp4", "m4a"})) {
        return "mov";
    }
    if (containsAnyOf({"asf", "wmv", "wma"})) {
        return "asf";
    }
    return name ? name : "";
}

const char* FFMpegFormatToZelFormat(const CStdStr<char>& name)
{
    return FFMpegFormatToZelFormat(name.c_str());
}

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
