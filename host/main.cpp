#include "host/Console.h"
#include "host/Descriptions.h"
#include "host/HostError.h"
#include "host/PlayCommand.h"
#include "host/ProbeCommand.h"
#include "host/StopSignal.h"
#include "host/Times.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

/// zel-host: loads the plug-in library as a server does, and shows or keeps what comes out of it.

namespace {

using namespace zel::host;

constexpr const char* TimeHelp = "TIME";

/// Breaks descriptions into lines, and leaves out what the checks of an option say about it, since
/// the descriptions say it better.
class HelpFormatter : public CLI::Formatter
{
public:
    std::string make_option_opts(const CLI::Option* option) const override
    {
        return option->get_items_expected_max() > 0 ? " " + option->get_type_name() : "";
    }

    std::string make_option_desc(const CLI::Option* option) const override
    {
        constexpr size_t Columns = 68;
        std::string text = option->get_description();
        for (size_t begin = 0; text.size() - begin > Columns;) {
            const size_t blank = text.rfind(' ', begin + Columns);
            if (blank == std::string::npos || blank <= begin) {
                break;
            }
            text[blank] = '\n';
            begin = blank + 1;
        }
        return text;
    }
};

unsigned long long timeOf(const std::string& option, const std::string& text)
{
    const auto time = parseTime(text);
    if (!time) {
        throw CLI::ValidationError(option, "\"" + text + "\" is no time; use 1500, 1.5s or 0:01.5");
    }
    return *time;
}

SeekRequest seekOf(const std::string& text)
{
    const size_t at = text.find('@');
    SeekRequest request;
    request.targetMs = timeOf("--seek", text.substr(0, at));
    if (at != std::string::npos) {
        request.whenMs = timeOf("--seek", text.substr(at + 1));
    }
    return request;
}

struct CommandLine
{
    std::string logTarget;
    MediumOptions probe;
    PlayOptions play;
    CLI::App* probeCommand = nullptr;
    CLI::App* playCommand = nullptr;
};

void addMediumOptions(CLI::App& command, MediumOptions& options, std::string& logTarget)
{
    command.add_option("MEDIUM", options.medium, "File or URL")->required()->type_name("");
    command
        .add_option("--library", options.libraryPath,
                    "The plug-in library (default: $ZEL_PLUGIN_LIBRARY, or beside this program)")
        ->type_name("FILE");
    command
        .add_option("--threads", options.decoderThreads,
                    "Decoder threads (default: the library decides)")
        ->check(CLI::Range(1, 64).description(""))
        ->type_name("N");
    command
        .add_option("--log", logTarget,
                    "Where the library's log lines go; - is standard error. What is logged is "
                    "set by \"LogLevel\" in the settings file")
        ->type_name("FILE");
    command.add_flag("--json", options.json, "Print JSON");
}

void addProbe(CLI::App& app, CommandLine& line)
{
    line.probeCommand = app.add_subcommand("probe", "Show what a medium holds");
    addMediumOptions(*line.probeCommand, line.probe, line.logTarget);
}

void addStretchOptions(CLI::App& command, PlayOptions& options)
{
    command.add_flag("--realtime", options.realtime, "Read as fast as the medium plays");
    command
        .add_option_function<std::string>(
            "--start", [&](const std::string& text) { options.startMs = timeOf("--start", text); },
            "Seek there before the first frame")
        ->type_name(TimeHelp);
    command
        .add_option_function<std::string>(
            "--duration",
            [&](const std::string& text) { options.durationMs = timeOf("--duration", text); },
            "Play so much of the medium, from the start and from each seek")
        ->type_name(TimeHelp);
    command.add_option("--frames", options.frames, "End after N audio and video frames")
        ->type_name("N");
    command
        .add_option_function<std::vector<std::string>>(
            "--seek",
            [&](const std::vector<std::string>& texts) {
                for (const auto& text : texts) {
                    options.seeks.push_back(seekOf(text));
                }
            },
            "Seek to TIME when a frame of AT or later has come, or at the end of the medium; "
            "without @AT after the first picture behind the seek before. Repeatable, in order")
        ->type_name("TIME[@AT]")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    command.add_flag("--again", options.again,
                     "At the end open the medium anew and play once more");
}

void addKindOptions(CLI::App& command, PlayOptions& options)
{
    auto* noAudio = command.add_flag("--no-audio", options.noAudio, "Leave audio out, undecoded");
    auto* noVideo = command.add_flag("--no-video", options.noVideo,
                                     "Leave video out, and decode no more than the first picture");
    auto* keyFrames = command.add_flag("--keyframes", options.keyFrames, "Decode key frames only");
    auto* copyAudio =
        command.add_flag("--copy-audio", options.copyAudio, "Read audio packets as they are");
    auto* copyVideo =
        command.add_flag("--copy-video", options.copyVideo, "Read video packets as they are");
    noAudio->excludes(noVideo)->excludes(copyAudio);
    noVideo->excludes(copyVideo)->excludes(keyFrames);
    keyFrames->excludes(copyVideo);

    auto* wav = command
                    .add_option("--wav", options.wavFile,
                                "Write audio to a wav file; - is standard output. When the audio "
                                "format changes the next file begins, as in a.wav, a-2.wav")
                    ->type_name("FILE");
    auto* pictures =
        command
            .add_option("--pictures", options.pictureFolder, "Write pictures to a folder as PNG")
            ->type_name("DIR");
    command
        .add_option("--every", options.pictureEvery,
                    "With --pictures: only every Nth, from the first on (default: 25)")
        ->check(CLI::Range(1, 1000000).description(""))
        ->needs(pictures)
        ->type_name("N");
    auto* hashes = command.add_flag("--framemd5", options.frameHashes,
                                    "Print a line for each frame: kind, time stamp in "
                                    "microseconds, bytes, MD5");
    wav->excludes(noAudio)->excludes(copyAudio);
    pictures->excludes(noVideo)->excludes(copyVideo);
    hashes->excludes(command.get_option("--json"));
}

void addPlay(CLI::App& app, CommandLine& line)
{
    line.playCommand = app.add_subcommand("play", "Read all frames of a medium and count them");
    addMediumOptions(*line.playCommand, line.play, line.logTarget);
    addStretchOptions(*line.playCommand, line.play);
    addKindOptions(*line.playCommand, line.play);
    line.playCommand->footer("TIME is milliseconds as in 1500, seconds as in 1.5s, or 1:02:03.5.\n"
                             "Ctrl-C ends a play in order: files are finished, the summary is "
                             "printed, the exit status is 130.");
    line.playCommand->callback([&line] {
        if (line.play.wavFile == "-" && (line.play.frameHashes || line.play.json)) {
            throw CLI::ValidationError("--wav", "- excludes --framemd5 and --json");
        }
    });
}

int run(const CommandLine& line, std::chrono::steady_clock::time_point start)
{
    // First of all threads, so that none takes a signal by itself.
    StopSignal stop;
    int failed = 0;
    try {
        Console console(line.logTarget);
        if (line.probeCommand->parsed()) {
            probe(line.probe, console, stop);
        } else {
            play(line.play, console, stop, start);
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
        CLI::App app("Loads the media plug-in library and plays media through it.", "zel-host");
        app.formatter(std::make_shared<HelpFormatter>());
        app.require_subcommand(1);
        addProbe(app, line);
        addPlay(app, line);
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
