#include "host/PlayCommand.h"

#include "host/Descriptions.h"
#include "host/FrameHashes.h"
#include "host/HostError.h"
#include "host/Input.h"
#include "host/PictureWriter.h"
#include "host/PlayPass.h"
#include "host/PlayStatistics.h"
#include "host/WavWriter.h"

#include <nlohmann/json.hpp>

#include <memory>

namespace zel::host {

namespace {

using Clock = std::chrono::steady_clock;

FrameSinks makeSinks(const PlayOptions& options, FILE* out)
{
    FrameSinks sinks;
    if (!options.wavFile.empty()) {
        sinks.push_back(std::make_unique<WavWriter>(options.wavFile, out));
    }
    if (!options.pictureFolder.empty()) {
        sinks.push_back(
            std::make_unique<PictureWriter>(options.pictureFolder, options.pictureEvery));
    }
    if (options.frameHashes) {
        sinks.push_back(std::make_unique<FrameHashes>(out));
    }
    return sinks;
}

void print(const PlayOptions& options, Console& console, StopSignal& stop,
           const MediumRecord& medium, const std::vector<PlayStatistics>& passes)
{
    FILE* out = options.printsFrames() ? stderr : console.out();
    if (options.json) {
        nlohmann::ordered_json json;
        json["medium"] = toJson(medium);
        json["interrupted"] = stop.isRequested();
        json["passes"] = nlohmann::ordered_json::array();
        for (const auto& pass : passes) {
            json["passes"].push_back(pass.toJson());
        }
        std::fputs(jsonText(json).c_str(), out);
    } else {
        for (const auto& pass : passes) {
            const char* state =
                stop.isRequested() && &pass == &passes.back() ? " (interrupted)" : "";
            std::fprintf(out, "%s%s\n%s", printable(options.medium).c_str(), state,
                         pass.text().c_str());
        }
    }
    console.flush();
}

} // namespace

void play(const PlayOptions& options, Console& console, StopSignal& stop,
          Clock::time_point processStart)
{
    const Library library(options.libraryPath);
    Input input(library, stop);
    input.setMedium(options.medium, options.decoderThreads);
    if (options.copyAudio || options.noAudio) {
        input.plugin().skipAudioDecoding();
    }
    if (options.copyVideo) {
        input.plugin().skipVideoDecoding();
    }
    const FrameSinks sinks = makeSinks(options, console.out());

    std::vector<PlayStatistics> passes;
    std::string failure;
    MediumRecord medium;
    for (int count = options.again ? 2 : 1; count > 0 && !stop.isRequested(); --count) {
        input.open();
        medium = input.describeMedium();
        PlayPass pass(options, console, stop, input, sinks, processStart);
        passes.push_back(pass.run());
        if (failure.empty()) {
            failure = pass.failure();
        }
    }
    for (const auto& sink : sinks) {
        sink->finish();
    }
    print(options, console, stop, medium, passes);
    if (!failure.empty() && !stop.isRequested()) {
        throw HostError(options.medium + ": " + failure);
    }
}

} // namespace zel::host
