#pragma once

#include "host/Console.h"
#include "host/StopSignal.h"
#include "host/TranscodeSession.h"

#include <string>

namespace zel::host {

struct TranscodeCommandOptions : TranscodeOptions
{
    std::string output; ///< file; "-" is standard output

    bool isToStandardOutput() const { return output == "-"; }
};

/// Writes a medium in another form to a file, and prints a summary.
/// @throws HostError when the medium cannot be opened or written so, a seek fails or the output
///         cannot be written
void transcode(const TranscodeCommandOptions& options, Console& console, StopSignal& stop);

} // namespace zel::host
