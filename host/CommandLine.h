#pragma once

#include "host/PlayCommand.h"
#include "host/ProbeCommand.h"
#include "host/SegmentCommand.h"
#include "host/Stretch.h"
#include "host/TranscodeCommand.h"

#include <CLI/CLI.hpp>

#include <string>

/// What the user may write behind "zel-host", and where it goes.

namespace zel::host {

struct CommandLine
{
    std::string logTarget;
    MediumOptions probe;
    PlayOptions play;
    TranscodeCommandOptions transcode;
    SegmentOptions segment;
    CLI::App* probeCommand = nullptr;
    CLI::App* playCommand = nullptr;
    CLI::App* transcodeCommand = nullptr;
    CLI::App* segmentCommand = nullptr;
};

/// Adds all commands. The line outlives the app's parsing.
void addCommands(CLI::App& app, CommandLine& line);

void addPlay(CLI::App& app, CommandLine& line);
void addTranscode(CLI::App& app, CommandLine& line);
void addSegment(CLI::App& app, CommandLine& line);

/// Options that several commands share.
void addMediumOptions(CLI::App& command, MediumOptions& options, std::string& logTarget);
void addStretchOptions(CLI::App& command, StretchOptions& options);

/// Milliseconds of a time as the user wrote it.
/// @throws CLI::ValidationError that names the option
unsigned long long timeOf(const std::string& option, const std::string& text);

/// The lines below the options of a command that takes times.
constexpr const char* TimeFooter =
    "TIME is milliseconds as in 1500, seconds as in 1.5s, or 1:02:03.5.\n";

} // namespace zel::host
