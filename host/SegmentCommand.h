#pragma once

#include "host/Console.h"
#include "host/StopSignal.h"
#include "host/TranscodeSession.h"

#include <optional>
#include <string>

namespace zel::host {

struct SegmentOptions : TranscodeOptions
{
    std::string folder;
    unsigned long long clipMs = 10000;
    std::optional<int> fallbackBitrate; ///< of video, in bits per second
    bool keepsStageFiles = false;
};

/// Writes a medium as MPEG-TS segments with a play list, and prints a summary.
/// @throws HostError when the medium cannot be opened or written so, a seek fails or the folder
///         cannot be written
void segment(const SegmentOptions& options, Console& console, StopSignal& stop);

} // namespace zel::host
