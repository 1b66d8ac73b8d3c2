#include "host/CommandLine.h"
#include "host/Console.h"
#include "host/Descriptions.h"
#include "host/HostError.h"
#include "host/StopSignal.h"

#include <chrono>
#include <cstdio>
#include <exception>

/// zel-host: loads the plug-in library as a server does, and shows or keeps what comes out of it.

namespace {

using namespace zel::host;

int run(const CommandLine& line, std::chrono::steady_clock::time_point start)
{
    // First of all threads, so that none takes a signal by itself.
    StopSignal stop;
    int failed = 0;
    try {
        Console console(line.logTarget);
        if (line.probeCommand->parsed()) {
            probe(line.probe, console, stop);
        } else if (line.playCommand->parsed()) {
            play(line.play, console, stop, start);
        } else if (line.transcodeCommand->parsed()) {
            transcode(line.transcode, console, stop);
        } else {
            segment(line.segment, console, stop);
        }
    } catch (const HostError& error) {
        std::fprintf(stderr, "zel-host: %s\n", printable(error.what()).c_str());
        failed = 1;
    }
    return stop.isRequested() ? stop.exitStatus() : failed;
}

} // namespace

int main(int argc, char** argv)
{
    const auto start = std::chrono::steady_clock::now();
    try {
        CommandLine line;
        CLI::App app("Loads the media plug-in library, plays media through it and writes them in "
                     "other forms.",
                     "zel-host");
        addCommands(app, line);
        try {
            app.parse(argc, argv);
        } catch (const CLI::Success& help) {
            return app.exit(help);
        }
        return run(line, start);
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "zel-host: %s (see zel-host --help)\n", error.what());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "zel-host: %s\n", error.what());
    }
    return 1;
}
