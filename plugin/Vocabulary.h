#pragma once

#include "common/utils/StdString.h"
#include "plugin/PluginTypes.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

/// Translation between the words of the border and FFmpeg's. Pure functions, any thread.
///
/// A name function answers a string literal, or the text of its argument when no row fits. So the
/// answer lives as long as the argument: the `const char*` forms give the caller's own pointer back
/// (an empty literal for null) and are the ones to use with a plain text.
///
/// Kept: the two codec maps are not inverses. "wmv9" goes out as "wmv2" and comes back as "wmv8",
/// "amr" means the wide-band codec, and "flv" has no way back to "svq"; hosts rely on these words.

namespace zel::streamer {

/// Letter case does not count.
/// @param forDecoder  leave "mp3" and "h264" alone, which only encoders have other names for
const char* zelCodecToFFMpegCodec(const char* name, bool forDecoder);
const char* zelCodecToFFMpegCodec(const CStdStr<char>& name, bool forDecoder);

/// Letter case does not count.
const char* FFMpegCodecToZelCodec(const char* name);
const char* FFMpegCodecToZelCodec(const CStdStr<char>& name);

/// Looks for parts of the name, for FFmpeg's demuxers have names such as "mov,mp4,m4a,3gp,3g2,mj2".
/// Letter case counts.
const char* FFMpegFormatToZelFormat(const char* name);
const char* FFMpegFormatToZelFormat(const CStdStr<char>& name);

/// Any value outside the enumeration counts as RGB24.
AVPixelFormat zelToFFmpegPixelFormat(VideoPixelFormat::Enum format);

/// @throws std::logic_error for a format that does not cross the border
VideoPixelFormat::Enum FFmpegToZelPixelFormat(AVPixelFormat format);

/// Any value outside the enumeration counts as RGB24.
int getBitsPerPixels(VideoPixelFormat::Enum format);

} // namespace zel::streamer
