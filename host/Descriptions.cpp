#include "host/Descriptions.h"

#include "host/Times.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>

namespace zel::host {

namespace {

using Json = nlohmann::ordered_json;

template <class Value>
void put(Json& object, const char* key, const std::optional<Value>& value)
{
    if (value) {
        object[key] = *value;
    }
}

const char* pixelFormatName(streamer::VideoPixelFormat::Enum format)
{
    switch (format) {
    case streamer::VideoPixelFormat::RGB24:
        return "rgb24";
    case streamer::VideoPixelFormat::BGR24:
        return "bgr24";
    case streamer::VideoPixelFormat::BGRA:
        return "bgra";
    case streamer::VideoPixelFormat::RGBA:
        return "rgba";
    case streamer::VideoPixelFormat::YUV420P:
        return "yuv420p";
    case streamer::VideoPixelFormat::YUYV422:
        return "yuyv422";
    }
    return "unknown";
}

Json toJson(const AudioRecord& audio)
{
    Json json = Json::object();
    put(json, "codec", audio.codec);
    put(json, "sampleRate", audio.sampleRate);
    put(json, "channels", audio.channels);
    put(json, "bitsPerSample", audio.bitsPerSample);
    put(json, "bitrate", audio.bitrate);
    put(json, "sampleSize", audio.sampleSize);
    put(json, "sampleFlags", audio.sampleFlags);
    put(json, "fixedSizeSamples", audio.fixedSizeSamples);
    put(json, "temporalCompression", audio.temporalCompression);
    put(json, "codecPrivateData", audio.codecPrivateData);
    return json;
}

Json toJson(const VideoRecord& video)
{
    Json json = Json::object();
    put(json, "codec", video.codec);
    put(json, "width", video.width);
    put(json, "height", video.height);
    put(json, "frameRate", video.frameRate);
    put(json, "bitrate", video.bitrate);
    if (video.pixelFormat) {
        json["pixelFormat"] = pixelFormatName(*video.pixelFormat);
    }
    put(json, "bitsPerPixel", video.bitsPerPixel);
    put(json, "pixelAspectNumerator", video.pixelAspectNumerator);
    put(json, "pixelAspectDenominator", video.pixelAspectDenominator);
    put(json, "sampleSize", video.sampleSize);
    put(json, "fixedSizeSamples", video.fixedSizeSamples);
    put(json, "temporalCompression", video.temporalCompression);
    put(json, "encoded", video.encoded);
    put(json, "codecPrivateData", video.codecPrivateData);
    return json;
}

std::string number(double value, int decimals)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    std::string result = text;
    if (result.find('.') != std::string::npos) {
        result.erase(result.find_last_not_of('0') + 1);
        if (result.back() == '.') {
            result.pop_back();
        }
    }
    return result;
}

void append(std::string& line, const std::string& part)
{
    line += (line.empty() ? "" : ", ") + part;
}

std::string bitrateText(int bitrate)
{
    return number(bitrate / 1000.0, bitrate < 100000 ? 1 : 0) + " kbit/s";
}

} // namespace

Json toJson(const MediumRecord& medium)
{
    Json json = Json::object();
    json["url"] = medium.url;
    put(json, "durationMs", medium.durationMs);
    put(json, "fileSize", medium.fileSize);
    put(json, "bitrate", medium.bitrate);
    put(json, "seekable", medium.seekable);
    put(json, "live", medium.live);
    put(json, "title", medium.title);
    put(json, "artist", medium.artist);
    put(json, "album", medium.album);
    if (!medium.properties.values.empty()) {
        json["properties"] = medium.properties.values;
    }
    return json;
}

Json toJson(const OutputStreamRecord& stream)
{
    Json json = Json::object();
    put(json, "format", stream.format);
    put(json, "multiplexed", stream.multiplexed);
    if (stream.video.isPresent()) {
        json["video"] = toJson(stream.video);
    }
    if (stream.audio.isPresent()) {
        json["audio"] = toJson(stream.audio);
    }
    if (!stream.properties.values.empty()) {
        json["properties"] = stream.properties.values;
    }
    return json;
}

std::string jsonText(const Json& value)
{
    constexpr int Indent = 2;
    return value.dump(Indent, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string printable(std::string_view text)
{
    std::string result(text);
    for (size_t i = 0; i < result.size(); ++i) {
        const auto byte = static_cast<unsigned char>(result[i]);
        if (byte < ' ' || byte == 127) {
            result[i] = ' ';
        }
        // The second set of control characters, in UTF-8: 0xC2 and a byte below 0xA0.
        const bool pair = byte == 0xC2 && i + 1 < result.size();
        if (pair && static_cast<unsigned char>(result[i + 1]) < 0xA0) {
            result.replace(i, 2, "  ");
        }
    }
    return result;
}

std::string videoLine(const VideoRecord& video)
{
    std::string line = printable(video.getCodec());
    if (video.pixelFormat && video.codec == "raw") {
        line += std::string(" ") + pixelFormatName(*video.pixelFormat);
    }
    if (video.getWidth() > 0) {
        append(line, std::to_string(video.getWidth()) + "x" + std::to_string(video.getHeight()));
    }
    const int numerator = video.getPixelAspectNumerator();
    const int denominator = video.getPixelAspectDenominator();
    if (numerator > 0 && denominator > 0 && numerator != denominator) {
        append(line, "pixels " + std::to_string(numerator) + ":" + std::to_string(denominator));
    }
    if (video.getFrameRate() > 0) {
        append(line, number(video.getFrameRate(), 3) + " fps");
    }
    if (video.getBitrate() > 0) {
        append(line, bitrateText(video.getBitrate()));
    }
    return line;
}

std::string audioLine(const AudioRecord& audio)
{
    std::string line = printable(audio.getCodec());
    if (audio.getBitsPerSample() > 0 && audio.codec == "raw") {
        line.append(" ").append(std::to_string(audio.getBitsPerSample())).append(" bits");
    }
    if (audio.getSampleRate() > 0) {
        append(line, std::to_string(audio.getSampleRate()) + " Hz");
    }
    const int channels = audio.getChannels();
    if (channels == 1 || channels == 2) {
        append(line, channels == 1 ? "mono" : "stereo");
    } else if (channels > 2) {
        append(line, std::to_string(channels) + " channels");
    }
    if (audio.getBitrate() > 0) {
        append(line, bitrateText(audio.getBitrate()));
    }
    return line;
}

void TextTable::add(const std::string& label, const std::string& value)
{
    if (!value.empty()) {
        m_rows.push_back({label, value});
    }
}

std::string TextTable::text() const
{
    size_t width = 0;
    for (const Row& row : m_rows) {
        width = std::max(width, row.label.size());
    }
    std::string result;
    for (const Row& row : m_rows) {
        result +=
            "  " + row.label + std::string(width - row.label.size() + 2, ' ') + row.value + "\n";
    }
    return result;
}

} // namespace zel::host
