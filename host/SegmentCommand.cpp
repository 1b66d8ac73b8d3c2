#include "host/SegmentCommand.h"

#include "host/HostError.h"
#include "host/SegmentFolder.h"
#include "host/SessionRun.h"
#include "host/Times.h"
#include "host/TranscodeSummary.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>

namespace zel::host {

namespace {

using Json = nlohmann::ordered_json;

constexpr int FallbackAudioBitrate = 32000;

/// What the stage has to be told beside the user's own words.
SegmentOptions completed(SegmentOptions options)
{
    auto& values = options.stageOptions.values;
    values["MpegTSMethod"] = "segmented";
    values["clipDuration"] = std::to_string(options.clipMs);
    values.try_emplace("sessionID", "1");
    options.request.format = "mpegts";
    if (options.fallbackBitrate) {
        values["fallbackStream"] = "1";
        values["lowVideoBitrate"] = std::to_string(*options.fallbackBitrate);
        options.request.isFallback = true;
        options.request.videoBitrate = *options.fallbackBitrate;
        options.request.audioBitrate = FallbackAudioBitrate;
    }
    return options;
}

CutOptions makeCuts(const SegmentOptions& options, const TranscodeSession& session,
                    const SegmentFolder& folder)
{
    CutOptions cuts;
    cuts.clipMs = options.clipMs;
    cuts.folder = options.folder;
    cuts.finished = [&folder] { return folder.count(); };
    if (session.plan().video.isCopied()) {
        cuts.planner = CutPlanner(options.clipMs);
    } else if (session.plan().video.isEncoded()) {
        cuts.planner = CutPlanner(options.clipMs, session.written().video.getFrameRate(),
                                  session.output().video.getFrameRate());
    }
    return cuts;
}

std::string segmentsText(const PlayList& list)
{
    if (list.segments().empty()) {
        return "none";
    }
    const auto [shortest, longest] = std::minmax_element(
        list.segments().begin(), list.segments().end(),
        [](const auto& a, const auto& b) { return a.durationUs < b.durationUs; });
    return formatCount(list.segments().size()) + ", " + formatTime(shortest->durationUs) + " to " +
           formatTime(longest->durationUs);
}

std::string tableOf(const SegmentOptions& options, const TranscodeSession& session,
                    const StageFeed& feed, const TranscodeOutcome& outcome,
                    const SegmentFolder& folder, const CacheFolder& cache)
{
    TextTable table = summaryTable(session, feed, outcome);
    table.add("segments", segmentsText(folder.list()));
    table.add("play list", printable(folder.list().path()));
    if (options.keepsStageFiles) {
        table.add("kept", printable(cache.path()));
    }
    return printable(options.medium) + (outcome.isInterrupted ? " (interrupted)" : "") + "\n" +
           table.text();
}

std::string jsonOf(const SegmentOptions& options, const TranscodeSession& session,
                   const StageFeed& feed, const TranscodeOutcome& outcome,
                   const SegmentFolder& folder, const CacheFolder& cache)
{
    Json json = summaryJson(session, feed, outcome);
    json["playList"] = folder.list().path();
    if (options.keepsStageFiles) {
        json["kept"] = cache.path();
    }
    json["segments"] = Json::array();
    for (const auto& segment : folder.list().segments()) {
        json["segments"].push_back({{"file", segment.file},
                                    {"startUs", segment.startUs},
                                    {"durationUs", segment.durationUs},
                                    {"bytes", segment.bytes},
                                    {"afterSeek", segment.isAfterSeek}});
    }
    return jsonText(json);
}

} // namespace

void segment(const SegmentOptions& given, Console& console, StopSignal& stop)
{
    const SegmentOptions options = completed(given);
    // Before anything asks for the folder of temporary files.
    const CacheFolder cache(options.folder, options.keepsStageFiles);
    const Library library(options.libraryPath);
    TranscodeSession session(library, options, stop);
    printNotes(session, options.medium);
    SegmentFolder folder(options.folder, options.fallbackBitrate ? "stream-low" : "stream",
                         options.clipMs, options.keepsStageFiles, options.medium);
    ProgressBar progress(console, console.canDraw(false),
                         Stretch::lengthUs(options, session.lengthUs()));
    SessionRun run(session, options, folder, stop, progress, makeCuts(options, session, folder));
    run.run();
    session.closeStage();
    if (options.keepsStageFiles) {
        folder.restoreStageFiles();
    }
    const TranscodeOutcome outcome{options.folder, folder.bytes(), run.seconds(),
                                   stop.isRequested()};
    const auto format = options.json ? jsonOf : tableOf;
    std::fputs(format(options, session, run.feed(), outcome, folder, cache).c_str(), console.out());
    console.flush();
    if (!run.feed().failure().empty() && !stop.isRequested()) {
        throw HostError(options.medium + ": " + run.feed().failure());
    }
    if (!stop.isRequested()) {
        checkOutput(session, run.feed(), options, folder.bytes());
    }
}

} // namespace zel::host
