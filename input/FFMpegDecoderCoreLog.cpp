#include "input/FFMpegDecoderCore.h"

#include "common/utils/CBBLog.h"

extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::size_t LineBytes = 1024;

/// The text without the line breaks at its ends.
CStdStr<char> trimmed(const char* line)
{
    const std::string text(line);
    const std::size_t first = text.find_first_not_of("\r\n");
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of("\r\n") - first + 1);
}

} // namespace

// One state for the process, since FFmpeg's log is one; the caller lets one thread in at a time.
void ffdecoder_log_callback(void* avcl, int /*level*/, const char* format, va_list arguments)
{
    static char s_line[LineBytes];
    static char s_previous[LineBytes];
    static int s_repeats = 0;
    static bool s_atLineStart = true;

    s_line[0] = '\0';
    const AVClass* avClass = avcl != nullptr ? *static_cast<AVClass**>(avcl) : nullptr;
    if (avClass != nullptr && s_atLineStart) {
        std::snprintf(s_line, LineBytes, "[%s @ %p]", avClass->item_name(avcl), avcl);
    }
    const std::size_t used = std::strlen(s_line);
    std::vsnprintf(s_line + used, LineBytes - used, format, arguments);
    if (std::strstr(s_line, "SBR not implemented") != nullptr) {
        return;
    }
    const std::size_t length = std::strlen(s_line);
    s_atLineStart = length > 0 && s_line[length - 1] == '\n';
    if (s_atLineStart && std::strcmp(s_line, s_previous) == 0) {
        ++s_repeats;
        return;
    }
    if (s_repeats > 0) {
        CBBLog::debug("    [ffmpeg dec] Last message repeated %d times\n", s_repeats);
        s_repeats = 0;
    }
    CBBLog::debug("[ffmpeg dec] %s", trimmed(s_line).c_str());
    std::memcpy(s_previous, s_line, length + 1);
}
