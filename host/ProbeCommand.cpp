#include "host/ProbeCommand.h"

#include "host/Descriptions.h"
#include "host/Input.h"
#include "host/Times.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace zel::host {

namespace {

struct Findings
{
    MediumRecord medium;
    OutputStreamRecord stream; ///< as it stands in the medium
    OutputStreamRecord output; ///< as it is read
};

std::string jsonOf(const Findings& findings)
{
    nlohmann::ordered_json json;
    json["medium"] = toJson(findings.medium);
    json["input"] = toJson(findings.stream);
    json["output"] = toJson(findings.output);
    return jsonText(json);
}

std::string durationText(const MediumRecord& medium)
{
    if (medium.getDuration() == 0) {
        return medium.live.value_or(false) ? "unknown (live)" : "unknown";
    }
    return formatTime(static_cast<long long>(medium.getDuration()) * 1000);
}

std::string tableOf(const std::string& name, const Findings& findings)
{
    const MediumRecord& medium = findings.medium;
    TextTable table;
    table.add("title", printable(medium.title.value_or("")));
    table.add("artist", printable(medium.artist.value_or("")));
    table.add("album", printable(medium.album.value_or("")));
    table.add("format", printable(findings.stream.getFormat()));
    table.add("duration", durationText(medium));
    if (medium.fileSize) {
        table.add("size", formatCount(*medium.fileSize) + " bytes");
    }
    if (medium.bitrate) {
        table.add("bit rate",
                  formatCount(static_cast<unsigned long long>(*medium.bitrate / 1000)) + " kbit/s");
    }
    // Of media from a network the library tells it for some formats only, and tries all the same.
    const char* unsure = medium.protocol.empty() ? "no" : "unknown until a seek";
    table.add("seekable", medium.seekable.value_or(false) ? "yes" : unsure);
    for (const auto& [key, value] : medium.properties.values) {
        table.add(printable(key), printable(value));
    }
    VideoRecord video = findings.stream.video;
    AudioRecord audio = findings.stream.audio;
    if (findings.stream.hasAudio() && !audio.bitrate) {
        // Where there is audio, the library tells its bit rate in the video record.
        audio.bitrate = std::exchange(video.bitrate, std::nullopt);
    }
    if (findings.stream.hasVideo()) {
        table.add("video", videoLine(video));
    }
    if (findings.output.hasVideo()) {
        table.add("  read as", videoLine(findings.output.video));
    }
    if (findings.stream.hasAudio()) {
        table.add("audio", audioLine(audio));
    }
    if (findings.output.hasAudio()) {
        table.add("  read as", audioLine(findings.output.audio));
    }
    return printable(name) + "\n" + table.text();
}

} // namespace

void probe(const MediumOptions& options, Console& console, StopSignal& stop)
{
    const Library library(options.libraryPath);
    Input input(library, stop);
    input.setMedium(options.medium, options.decoderThreads);
    input.open();
    const Findings findings{input.describeMedium(), input.describeInput(), input.describeOutput()};
    const std::string text = options.json ? jsonOf(findings) : tableOf(input.name(), findings);
    std::fputs(text.c_str(), console.out());
    console.flush();
}

} // namespace zel::host
