#include "host/TranscodeCommand.h"

#include "host/ByteSink.h"
#include "host/Descriptions.h"
#include "host/HostError.h"
#include "host/SessionRun.h"
#include "host/TranscodeSummary.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <filesystem>
#include <memory>

namespace zel::host {

namespace {

std::unique_ptr<OutputFile> openOutput(const TranscodeCommandOptions& options, Console& console)
{
    if (options.isToStandardOutput()) {
        return std::make_unique<OutputFile>(fileno(console.out()), "standard output");
    }
    std::error_code none;
    if (std::filesystem::equivalent(options.medium, options.output, none)) {
        throw HostError(options.output + ": the output is the medium itself");
    }
    return std::make_unique<OutputFile>(options.output);
}

void print(const TranscodeCommandOptions& options, Console& console,
           const TranscodeSession& session, const StageFeed& feed, const TranscodeOutcome& outcome)
{
    FILE* out = options.isToStandardOutput() ? stderr : console.out();
    const std::string text = options.json ? jsonText(summaryJson(session, feed, outcome))
                                          : printable(options.medium) +
                                                (outcome.isInterrupted ? " (interrupted)" : "") +
                                                "\n" + summaryTable(session, feed, outcome).text();
    std::fputs(text.c_str(), out);
    console.flush();
}

} // namespace

void transcode(const TranscodeCommandOptions& options, Console& console, StopSignal& stop)
{
    const Library library(options.libraryPath);
    TranscodeSession session(library, options, stop);
    printNotes(session, options.medium);
    const auto file = openOutput(options, console);
    ByteSink sink(*file);
    ProgressBar progress(console, console.canDraw(options.isToStandardOutput()),
                         Stretch::lengthUs(options, session.lengthUs()));
    SessionRun run(session, options, sink, stop, progress, std::nullopt);
    run.run();
    print(options, console, session, run.feed(),
          {options.output, sink.bytes(), run.seconds(), stop.isRequested()});
    if (!run.feed().failure().empty() && !stop.isRequested()) {
        throw HostError(options.medium + ": " + run.feed().failure());
    }
    if (!stop.isRequested()) {
        checkOutput(session, run.feed(), options, sink.bytes());
    }
}

} // namespace zel::host
