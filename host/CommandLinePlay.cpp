#include "host/CommandLine.h"

namespace zel::host {

namespace {

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

} // namespace

void addPlay(CLI::App& app, CommandLine& line)
{
    line.playCommand = app.add_subcommand("play", "Read all frames of a medium and count them");
    addMediumOptions(*line.playCommand, line.play, line.logTarget);
    line.playCommand->add_flag("--realtime", line.play.realtime,
                               "Read as fast as the medium plays");
    addStretchOptions(*line.playCommand, line.play);
    line.playCommand->add_option("--frames", line.play.frames, "End after N audio and video frames")
        ->type_name("N");
    line.playCommand->add_flag("--again", line.play.again,
                               "At the end open the medium anew and play once more");
    addKindOptions(*line.playCommand, line.play);
    line.playCommand->footer(std::string(TimeFooter) +
                             "Ctrl-C ends a play in order: files are finished, the summary is "
                             "printed, the exit status is 130.");
    line.playCommand->callback([&line] {
        if (line.play.wavFile == "-" && (line.play.frameHashes || line.play.json)) {
            throw CLI::ValidationError("--wav", "- excludes --framemd5 and --json");
        }
    });
}

} // namespace zel::host
