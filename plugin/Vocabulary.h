#pragma once

#include "plugin/PluginTypes.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

/// Translation between the words of the border and FFmpeg's. Pure functions, any thread.

namespace zel::streamer {

/// Any value outside the enumeration counts as RGB24.
AVPixelFormat zelToFFmpegPixelFormat(VideoPixelFormat::Enum format);

/// @throws std::logic_error for a format that does not cross the border
VideoPixelFormat::Enum FFmpegToZelPixelFormat(AVPixelFormat format);

/// Any value outside the enumeration counts as RGB24.
int getBitsPerPixels(VideoPixelFormat::Enum format);

} // namespace zel::streamer
