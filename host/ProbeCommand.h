#pragma once

#include "host/Console.h"
#include "host/StopSignal.h"

#include <string>

namespace zel::host {

/// What every command that opens a medium is told.
struct MediumOptions
{
    std::string medium;      ///< path or URL
    std::string libraryPath; ///< "" for the usual places
    int decoderThreads = 0;  ///< 0 leaves the choice to the library
    bool json = false;
};

/// Prints what the library knows of a medium without reading its frames.
/// @throws HostError when the medium cannot be opened
void probe(const MediumOptions& options, Console& console, StopSignal& stop);

} // namespace zel::host
