#include "host/TranscodeSummary.h"

#include "host/HostError.h"
#include "host/Times.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdio>
#include <optional>

namespace zel::host {

namespace {

using Json = nlohmann::ordered_json;

const char* actionName(const StreamPlan& plan)
{
    return plan.isCopied() ? "copy" : plan.isEncoded() ? "encode" : "none";
}

std::string framesText(const KindStatistics& kind)
{
    return formatCount(kind.frames) + (kind.frames == 1 ? " frame" : " frames");
}

/// "h264 copied, 320x240, 25 fps, 298 frames".
std::string streamText(const StreamPlan& plan, const std::string& line, const KindStatistics& kind)
{
    if (!plan.isWanted()) {
        return {};
    }
    // The codec stands in front already.
    const size_t rest = line.find(", ");
    return printable(actionText(plan)) + (rest == std::string::npos ? "" : line.substr(rest)) +
           ", " + framesText(kind);
}

std::string videoText(const TranscodeSession& session, const StageFeed& feed)
{
    VideoRecord video = session.output().video;
    if (session.plan().video.isCopied()) {
        video.bitrate.reset(); // it stands there for the stage alone
        video.frameRate = session.source().video.frameRate;
    }
    return streamText(session.plan().video, videoLine(video), feed.video());
}

std::string audioText(const TranscodeSession& session, const StageFeed& feed)
{
    AudioRecord audio = session.output().audio;
    if (session.plan().audio.isCopied()) {
        audio.bitrate.reset();
    }
    if (audio.getSampleRate() == 0) {
        audio.sampleRate = session.written().audio.sampleRate;
    }
    return streamText(session.plan().audio, audioLine(audio), feed.audio());
}

std::optional<double> bitrateOf(const StageFeed& feed, const TranscodeOutcome& outcome)
{
    if (feed.lengthUs() <= 0) {
        return std::nullopt;
    }
    return static_cast<double>(outcome.bytes) * 8e6 / static_cast<double>(feed.lengthUs());
}

std::string seekText(const StageFeed::Seek& seek)
{
    const std::string text = formatTime(static_cast<long long>(seek.targetMs) * 1000);
    return seek.result == streamer::Result::Done
               ? text
               : text + " failed (" + std::to_string(seek.result) + ")";
}

Json streamJson(const StreamPlan& plan, const KindStatistics& kind)
{
    Json json;
    json["action"] = actionName(plan);
    if (!plan.isWanted()) {
        return json;
    }
    json["source"] = plan.source;
    json["codec"] = plan.codec;
    json["frames"] = kind.frames;
    json["bytes"] = kind.bytes;
    json["firstUs"] = kind.firstUs ? Json(*kind.firstUs) : Json(nullptr);
    json["lastUs"] = kind.lastUs ? Json(*kind.lastUs) : Json(nullptr);
    return json;
}

} // namespace

TextTable summaryTable(const TranscodeSession& session, const StageFeed& feed,
                       const TranscodeOutcome& outcome)
{
    TextTable table;
    const auto rate = bitrateOf(feed, outcome);
    table.add("video", videoText(session, feed));
    table.add("audio", audioText(session, feed));
    table.add(
        "output",
        printable(outcome.output) + ", " + printable(session.output().getFormat()) + ", " +
            formatCount(outcome.bytes) + " bytes" +
            (rate
                 ? ", " + formatCount(static_cast<unsigned long long>(std::llround(*rate / 1000))) +
                       " kbit/s"
                 : ""));
    table.add("length", formatTime(feed.lengthUs()));
    for (const auto& seek : feed.seeks()) {
        table.add("seek to", seekText(seek));
    }
    char took[64];
    std::snprintf(took, sizeof took, "%.3f s, %.1f times real time", outcome.seconds,
                  outcome.seconds > 0 ? static_cast<double>(feed.lengthUs()) / 1e6 / outcome.seconds
                                      : 0.0);
    table.add("took", took);
    return table;
}

Json summaryJson(const TranscodeSession& session, const StageFeed& feed,
                 const TranscodeOutcome& outcome)
{
    Json json;
    json["medium"] = toJson(session.medium());
    json["interrupted"] = outcome.isInterrupted;
    json["output"] = outcome.output;
    json["format"] = session.output().getFormat();
    json["video"] = streamJson(session.plan().video, feed.video());
    json["audio"] = streamJson(session.plan().audio, feed.audio());
    json["notes"] = session.plan().notes;
    json["stream"] = toJson(session.output());
    json["seeks"] = Json::array();
    for (const auto& seek : feed.seeks()) {
        json["seeks"].push_back({{"targetMs", seek.targetMs}, {"result", seek.result}});
    }
    json["bytes"] = outcome.bytes;
    json["lengthUs"] = feed.lengthUs();
    const auto rate = bitrateOf(feed, outcome);
    json["bitrate"] = rate ? Json(std::llround(*rate)) : Json(nullptr);
    json["seconds"] = outcome.seconds;
    return json;
}

void checkOutput(const TranscodeSession& session, const StageFeed& feed,
                 const TranscodeOptions& options, unsigned long long bytes)
{
    const unsigned long long copied = (session.plan().video.isCopied() ? feed.video().bytes : 0) +
                                      (session.plan().audio.isCopied() ? feed.audio().bytes : 0);
    // Headers of the medium's own container may go, and what the stage holds at a seek.
    const bool isLess = options.seeks.empty() && bytes < copied - copied / 4;
    if (bytes == 0) {
        throw HostError(options.medium + ": nothing came out of the encoder stage");
    }
    if (isLess) {
        throw HostError(options.medium + ": only " + formatCount(bytes) + " bytes of " +
                        formatCount(copied) + " came out; see the library's log");
    }
}

void printNotes(const TranscodeSession& session, const std::string& medium)
{
    for (const std::string& note : session.plan().notes) {
        std::fprintf(stderr, "zel-host: %s: %s\n", printable(medium).c_str(),
                     printable(note).c_str());
    }
}

} // namespace zel::host
