#include "host/PlayStatistics.h"

#include "host/Descriptions.h"
#include "host/Times.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>

namespace zel::host {

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t MostGaps = 100;
// Containers round time stamps to a millisecond or so.
constexpr long long LeastGapUs = 5000;

Json orNull(const std::optional<long long>& value)
{
    return value ? Json(*value) : Json(nullptr);
}

Json kindJson(const KindStatistics& kind)
{
    Json json;
    json["frames"] = kind.frames;
    json["bytes"] = kind.bytes;
    json["firstUs"] = orNull(kind.firstUs);
    json["lastUs"] = orNull(kind.lastUs);
    json["keyFrames"] = kind.keyFrames;
    json["gapCount"] = kind.gapCount;
    json["gaps"] = Json::array();
    for (const auto& gap : kind.gaps) {
        json["gaps"].push_back({{"atUs", gap.atUs}, {"lengthUs", gap.lengthUs}});
    }
    json["stepsBack"] = kind.stepsBack;
    return json;
}

std::string timeOrDash(const std::optional<long long>& timeUs)
{
    return timeUs ? formatTime(*timeUs) : "-";
}

std::string gapsText(const KindStatistics& kind)
{
    if (kind.gapCount == 0) {
        return "none";
    }
    const auto longest =
        std::max_element(kind.gaps.begin(), kind.gaps.end(),
                         [](const auto& a, const auto& b) { return a.lengthUs < b.lengthUs; });
    return formatCount(kind.gapCount) + ", longest " + formatTime(longest->lengthUs) + " at " +
           formatTime(longest->atUs);
}

void addKindRow(std::string& text, const char* name, const KindStatistics& kind, bool hasKeyFrames)
{
    char row[256];
    std::snprintf(row, sizeof row, "  %-6s %9s %16s %12s %12s %7s  %s\n", name,
                  formatCount(kind.frames).c_str(), formatCount(kind.bytes).c_str(),
                  timeOrDash(kind.firstUs).c_str(), timeOrDash(kind.lastUs).c_str(),
                  hasKeyFrames ? formatCount(kind.keyFrames).c_str() : "", gapsText(kind).c_str());
    text += row;
}

const char* eventName(streamer::InputEvent::Enum event)
{
    return event == streamer::InputEvent::BrokenStream ? "brokenStream" : "endOfFileReceived";
}

std::string seekText(const PlayStatistics::Seek& seek)
{
    std::string text = formatTime(static_cast<long long>(seek.targetMs) * 1000);
    if (seek.result != streamer::Result::Done) {
        return text + " failed (" + std::to_string(seek.result) + ")";
    }
    if (seek.firstVideoUs) {
        text += ", first picture " + formatTime(*seek.firstVideoUs);
    }
    if (seek.firstAudioUs) {
        text += ", first audio " + formatTime(*seek.firstAudioUs);
    }
    return text;
}

std::string metadataText(const PlayStatistics::Metadata& metadata)
{
    std::string text = formatTime(metadata.atUs);
    for (const auto& [key, value] : metadata.entries) {
        text += ", " + printable(key) + " \"" + printable(value) + "\"";
    }
    return text;
}

std::string seconds(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f s", value);
    return text;
}

} // namespace

void KindStatistics::add(const Frame& frame, bool countGaps)
{
    ++frames;
    bytes += frame.size;
    if (frame.keyFrame) {
        ++keyFrames;
    }
    if (!frame.hasTimestamp()) {
        return;
    }
    const auto nowUs = static_cast<long long>(frame.timestampUs);
    if (!firstUs) {
        firstUs = nowUs;
    }
    lastUs = nowUs;
    if (m_previousUs) {
        // Here m_distanceUs is how long the frame before should last.
        const long long endUs = *m_previousUs + m_distanceUs;
        if (nowUs < *m_previousUs) {
            ++stepsBack;
        } else if (countGaps && m_distanceUs > 0 &&
                   nowUs - endUs > std::max(m_distanceUs / 2, LeastGapUs)) {
            ++gapCount;
            if (gaps.size() < MostGaps) {
                gaps.push_back({endUs, nowUs - endUs});
            }
        }
    }
    if (frame.durationUs > 0) {
        m_distanceUs = static_cast<long long>(frame.durationUs);
    } else if (m_previousUs) {
        m_distanceUs = std::max(nowUs - *m_previousUs, 0LL);
    }
    m_previousUs = nowUs;
}

void PlayStatistics::add(const Frame& frame)
{
    const bool isVideo = frame.type == streamer::PacketType::Video;
    if (isVideo) {
        video.add(frame, m_countVideoGaps);
    } else {
        audio.add(frame, true);
    }
    if (seeks.empty() || !frame.hasTimestamp()) {
        return;
    }
    auto& first = isVideo ? seeks.back().firstVideoUs : seeks.back().firstAudioUs;
    if (!first) {
        first = static_cast<long long>(frame.timestampUs);
    }
}

void PlayStatistics::addBufferLevel(unsigned int percent)
{
    if (!buffer) {
        buffer = {percent, percent};
    }
    buffer->lowest = std::min(buffer->lowest, percent);
    buffer->highest = std::max(buffer->highest, percent);
}

void PlayStatistics::jump()
{
    video.jump();
    audio.jump();
}

Json PlayStatistics::toJson() const
{
    Json json;
    json["output"] = host::toJson(output);
    json["video"] = kindJson(video);
    json["audio"] = kindJson(audio);
    json["seeks"] = Json::array();
    for (const auto& seek : seeks) {
        json["seeks"].push_back({{"targetMs", seek.targetMs},
                                 {"result", seek.result},
                                 {"firstVideoUs", orNull(seek.firstVideoUs)},
                                 {"firstAudioUs", orNull(seek.firstAudioUs)}});
    }
    json["audioChanges"] = Json::array();
    for (const auto& change : audioChanges) {
        json["audioChanges"].push_back({{"audioFrames", change.audioFrames},
                                        {"sampleRate", change.audio.getSampleRate()},
                                        {"channels", change.audio.getChannels()},
                                        {"bitsPerSample", change.audio.getBitsPerSample()}});
    }
    json["metadata"] = Json::array();
    for (const auto& block : metadata) {
        Json entries = Json::object();
        for (const auto& [key, value] : block.entries) {
            entries[key] = value;
        }
        json["metadata"].push_back({{"atUs", block.atUs}, {"entries", entries}});
    }
    json["brokenStream"] = brokenStream;
    json["inputEvents"] = Json::array();
    for (const auto event : events) {
        json["inputEvents"].push_back(eventName(event));
    }
    json["inputBuffer"] = nullptr;
    if (buffer) {
        json["inputBuffer"] = {{"lowestPercent", buffer->lowest},
                               {"highestPercent", buffer->highest}};
    }
    json["secondsToFirstFrame"] = secondsToFirstFrame;
    json["seconds"] = seconds;
    return json;
}

std::string PlayStatistics::text() const
{
    std::string text;
    if (video.frames + audio.frames > 0) {
        char head[256];
        std::snprintf(head, sizeof head, "  %-6s %9s %16s %12s %12s %7s  %s\n", "", "frames",
                      "bytes", "first", "last", "key", "gaps");
        text += head;
    }
    if (video.frames > 0) {
        addKindRow(text, "video", video, true);
    }
    if (audio.frames > 0) {
        addKindRow(text, "audio", audio, false);
    }
    if (text.empty()) {
        text = "  no frames\n";
    }

    TextTable table;
    if (video.stepsBack + audio.stepsBack > 0) {
        table.add("time stamps stepping back", formatCount(video.stepsBack) + " video, " +
                                                   formatCount(audio.stepsBack) + " audio");
    }
    for (const auto& seek : seeks) {
        table.add("seek to", seekText(seek));
    }
    for (const auto& change : audioChanges) {
        table.add("audio changed", "after " + formatCount(change.audioFrames) + " frames to " +
                                       audioLine(change.audio));
    }
    for (const auto& block : metadata) {
        table.add("metadata at", metadataText(block));
    }
    for (const auto event : events) {
        table.add("network", event == streamer::InputEvent::BrokenStream
                                 ? "the stream broke off"
                                 : "all of the stream has arrived");
    }
    if (buffer) {
        table.add("network buffer", std::to_string(buffer->lowest) + " to " +
                                        std::to_string(buffer->highest) + " % full");
    }
    const auto lengthUs = std::max(video.lastUs.value_or(0), audio.lastUs.value_or(0)) -
                          std::min(video.firstUs.value_or(audio.firstUs.value_or(0)),
                                   audio.firstUs.value_or(video.firstUs.value_or(0)));
    std::string took = host::seconds(seconds);
    if (seeks.empty() && lengthUs > 0 && seconds > 0) {
        char speed[48];
        std::snprintf(speed, sizeof speed, ", %.1f times real time",
                      static_cast<double>(lengthUs) / 1e6 / seconds);
        took += speed;
    }
    table.add("took", took);
    if (secondsToFirstFrame > 0) {
        table.add("first frame", host::seconds(secondsToFirstFrame) + " after the start");
    }
    return text + table.text();
}

} // namespace zel::host
