#include "host/CommandLine.h"

#include "host/Containers.h"

#include <vector>

namespace zel::host {

namespace {

constexpr const char* ChoiceName = "copy|none|CODEC[:BITRATE]";

StreamChoice choiceOf(const std::string& option, const std::string& text)
{
    const auto choice = parseStreamChoice(text);
    if (!choice) {
        throw CLI::ValidationError(option, "\"" + text +
                                               "\" is none of copy, none, CODEC and "
                                               "CODEC:BITRATE, as in mpeg4:800k");
    }
    return *choice;
}

void setStageOption(PropertyMap& options, const std::string& text)
{
    const size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0) {
        throw CLI::ValidationError("--option", "\"" + text + "\" is not KEY=VALUE");
    }
    options.set(text.substr(0, equals).c_str(), text.substr(equals + 1).c_str());
}

void addStreamOptions(CLI::App& command, TranscodeOptions& options)
{
    command
        .add_option_function<std::string>(
            "--video",
            [&](const std::string& text) { options.request.video = choiceOf("--video", text); },
            "What becomes of video (default: it is copied where the format takes its codec, else "
            "encoded at 500k). A codec that it has already is copied")
        ->type_name(ChoiceName);
    command
        .add_option_function<std::string>(
            "--audio",
            [&](const std::string& text) { options.request.audio = choiceOf("--audio", text); },
            "The same for audio, at 128k")
        ->type_name(ChoiceName);
    command
        .add_option("--fps", options.request.frameRate,
                    "Frames per second of encoded video (default: those of the medium)")
        ->check(CLI::Range(1.0, 1000.0).description(""))
        ->type_name("RATE");
    command
        .add_option("--channels", options.channels,
                    "Channels of encoded audio (default: by the bit rate)")
        ->check(CLI::Range(1, 2).description(""))
        ->type_name("N");
    command
        .add_option("--sample-rate", options.sampleRate,
                    "Samples per second of encoded audio (default: by bit rate and format)")
        ->check(CLI::Range(4000, 192000).description(""))
        ->type_name("HZ");
    command
        .add_option_function<std::vector<std::string>>(
            "--option",
            [&](const std::vector<std::string>& texts) {
                for (const auto& text : texts) {
                    setStageOption(options.stageOptions, text);
                }
            },
            "An option of the encoder stage, such as useConstantBitrate=1. Repeatable")
        ->type_name("KEY=VALUE")
        ->expected(1)
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

} // namespace

void addTranscode(CLI::App& app, CommandLine& line)
{
    TranscodeCommandOptions& options = line.transcode;
    CLI::App& command =
        *app.add_subcommand("transcode", "Write a medium in another form to a file");
    line.transcodeCommand = &command;
    addMediumOptions(command, options, line.logTarget);
    command.add_option("OUTPUT", options.output, "File to write; - is standard output")
        ->required()
        ->type_name("");
    command
        .add_option("--format", options.request.format,
                    "flv, mpegts, matroska, mpeg, dvd, asf, avi, mp3 or another that FFmpeg writes "
                    "without seeking (default: by the name of OUTPUT)")
        ->type_name("NAME");
    addStreamOptions(command, options);
    addStretchOptions(command, options);
    command.footer(std::string(TimeFooter) +
                   "Ctrl-C ends in order: the output is finished, the exit status is 130.");
    command.callback([&options] {
        std::string& format = options.request.format;
        if (format.empty()) {
            format = formatOfFile(options.output);
        }
        if (format.empty()) {
            throw CLI::ValidationError("--format", "is needed, since the name \"" + options.output +
                                                       "\" tells no format");
        }
    });
}

void addSegment(CLI::App& app, CommandLine& line)
{
    SegmentOptions& options = line.segment;
    CLI::App& command =
        *app.add_subcommand("segment", "Write a medium as MPEG-TS segments with an HLS play list");
    line.segmentCommand = &command;
    addMediumOptions(command, options, line.logTarget);
    command
        .add_option("DIR", options.folder,
                    "Folder for stream.m3u8 and stream-00001.ts and so on; made when missing")
        ->required()
        ->type_name("");
    command
        .add_option_function<std::string>(
            "--clip-duration",
            [&](const std::string& text) {
                options.clipMs = timeOf("--clip-duration", text);
                if (options.clipMs == 0 || options.clipMs > 3600000) {
                    throw CLI::ValidationError("--clip-duration", "is above 0 and up to an hour");
                }
            },
            "Least length of a segment, which ends at the next key frame (default: 10s)")
        ->type_name("TIME");
    command
        .add_option_function<std::string>(
            "--fallback",
            [&](const std::string& text) {
                options.fallbackBitrate = parseBitrate(text);
                if (!options.fallbackBitrate) {
                    throw CLI::ValidationError("--fallback", "\"" + text + "\" is no bit rate");
                }
            },
            "Make the stream for slow players, stream-low.m3u8: nothing is copied, video gets "
            "BITRATE and audio 32k. A total of exactly 64k makes small pictures")
        ->type_name("BITRATE");
    command.add_flag("--keep", options.keepsStageFiles,
                     "Keep the encoder stage's own folder as well, .zel-segments-PID in DIR, with "
                     "its file names; the files are the same ones, not copies");
    addStreamOptions(command, options);
    addStretchOptions(command, options);
    command.footer(std::string(TimeFooter) +
                   "A seek leaves out the segment that it breaks off.\n"
                   "Ctrl-C ends in order: segment and list are finished, the exit status is 130.");
}

} // namespace zel::host
