#include "host/CommandLine.h"

#include "host/Times.h"

#include <memory>
#include <vector>

namespace zel::host {

namespace {

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

void addProbe(CLI::App& app, CommandLine& line)
{
    line.probeCommand = app.add_subcommand("probe", "Show what a medium holds");
    addMediumOptions(*line.probeCommand, line.probe, line.logTarget);
}

} // namespace

unsigned long long timeOf(const std::string& option, const std::string& text)
{
    const auto time = parseTime(text);
    if (!time) {
        throw CLI::ValidationError(option, "\"" + text + "\" is no time; use 1500, 1.5s or 0:01.5");
    }
    return *time;
}

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

void addStretchOptions(CLI::App& command, StretchOptions& options)
{
    command
        .add_option_function<std::string>(
            "--start", [&](const std::string& text) { options.startMs = timeOf("--start", text); },
            "Seek there before the first frame")
        ->type_name("TIME");
    command
        .add_option_function<std::string>(
            "--duration",
            [&](const std::string& text) { options.durationMs = timeOf("--duration", text); },
            "Take so much of the medium, from the start and from each seek")
        ->type_name("TIME");
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
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void addCommands(CLI::App& app, CommandLine& line)
{
    app.formatter(std::make_shared<HelpFormatter>());
    app.require_subcommand(1);
    addProbe(app, line);
    addPlay(app, line);
    addTranscode(app, line);
    addSegment(app, line);
}

} // namespace zel::host
