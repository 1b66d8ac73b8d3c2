#pragma once

#include "host/Console.h"
#include "host/ProbeCommand.h"
#include "host/StopSignal.h"
#include "host/Stretch.h"

#include <chrono>
#include <optional>
#include <string>

namespace zel::host {

struct PlayOptions : MediumOptions, StretchOptions
{
    bool realtime = false;
    std::optional<unsigned long long> frames; ///< ends after so many audio and video frames
    bool noAudio = false;
    bool noVideo = false;
    bool keyFrames = false;
    bool again = false;
    bool copyAudio = false;
    bool copyVideo = false;
    std::string wavFile;
    std::string pictureFolder;
    unsigned long long pictureEvery = 25;
    bool frameHashes = false;

    /// Frames go to standard output, so the summary for people goes to standard error.
    bool printsFrames() const { return frameHashes || wavFile == "-"; }
};

/// Reads a medium to its end, keeps what the options ask for and prints a summary.
/// @param processStart  for the time to the first frame
/// @throws HostError when the medium cannot be opened, a seek fails or something cannot be written
void play(const PlayOptions& options, Console& console, StopSignal& stop,
          std::chrono::steady_clock::time_point processStart);

} // namespace zel::host
