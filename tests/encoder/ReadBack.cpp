#include "tests/encoder/ReadBack.h"

#include "common/ffmpeg/Handles.h"

#include <algorithm>
#include <stdexcept>

namespace zel::test {

namespace {

constexpr unsigned char ParameterSets[] = {7, 8};
constexpr unsigned char Delimiter = 9;

unsigned char byteAt(const std::string& bytes, std::size_t at)
{
    return static_cast<unsigned char>(bytes[at]);
}

/// The units between start codes; the zeros in front of a longer start code are none of theirs.
std::vector<std::string> unitsOfStartCodes(const std::string& bytes)
{
    const std::string code("\0\0\1", 3);
    std::vector<std::string> units;
    for (std::size_t at = bytes.find(code); at != std::string::npos;) {
        const std::size_t next = bytes.find(code, at + 3);
        std::string unit = bytes.substr(at + 3, next == std::string::npos ? next : next - at - 3);
        while (!unit.empty() && unit.back() == '\0') {
            unit.pop_back();
        }
        units.push_back(unit);
        at = next;
    }
    return units;
}

std::vector<std::string> unitsOfLengths(const std::string& bytes, std::size_t lengthSize)
{
    std::vector<std::string> units;
    for (std::size_t at = 0; at + lengthSize <= bytes.size();) {
        std::size_t length = 0;
        for (std::size_t i = 0; i < lengthSize; ++i) {
            length = length << 8 | byteAt(bytes, at++);
        }
        units.push_back(bytes.substr(at, length));
        while (!units.back().empty() && units.back().back() == '\0') {
            units.back().pop_back();
        }
        at += length;
    }
    return units;
}

std::string h264Payload(const std::string& bytes, const std::string& setUp)
{
    const bool hasLengths = setUp.size() > 4 && byteAt(setUp, 0) == 1;
    const auto units =
        hasLengths ? unitsOfLengths(bytes, (byteAt(setUp, 4) & 3U) + 1) : unitsOfStartCodes(bytes);
    std::string payload;
    for (const std::string& unit : units) {
        const unsigned int type = unit.empty() ? Delimiter : byteAt(unit, 0) & 0x1FU;
        if (type == ParameterSets[0] || type == ParameterSets[1] || type == Delimiter) {
            continue;
        }
        payload += std::to_string(unit.size()) + ":" + unit;
    }
    return payload;
}

std::string aacPayload(const std::string& bytes)
{
    const bool isADTS =
        bytes.size() > 7 && byteAt(bytes, 0) == 0xFF && (byteAt(bytes, 1) & 0xF6U) == 0xF0;
    const bool hasChecksum = isADTS && (byteAt(bytes, 1) & 1U) == 0;
    return isADTS ? bytes.substr(hasChecksum ? 9 : 7) : bytes;
}

PlayedStream describe(const AVFormatContext& context, int index)
{
    PlayedStream stream;
    if (index >= 0) {
        stream.codec = avcodec_get_name(context.streams[index]->codecpar->codec_id);
    }
    return stream;
}

/// From the group's or the picture's own header on; what sets the decoder up may stand in front.
std::string mpeg4Payload(const std::string& bytes)
{
    const std::size_t group = bytes.find(std::string("\0\0\1\xB3", 4));
    const std::size_t picture = bytes.find(std::string("\0\0\1\xB6", 4));
    const std::size_t begin = std::min(group, picture);
    return begin == std::string::npos ? bytes : bytes.substr(begin);
}

} // namespace

double PlayedStream::startMs() const
{
    return shownMs.empty() ? 0.0 : *std::min_element(shownMs.begin(), shownMs.end());
}

std::vector<double> PlayedStream::showing() const
{
    std::vector<double> times = shownMs;
    std::sort(times.begin(), times.end());
    const double start = startMs();
    for (double& time : times) {
        time -= start;
    }
    return times;
}

std::string payloadOf(const std::string& codec, const std::string& bytes, const std::string& setUp)
{
    if (codec == "h264") {
        return h264Payload(bytes, setUp);
    }
    if (codec == "mpeg4") {
        return mpeg4Payload(bytes);
    }
    return codec == "aac" ? aacPayload(bytes) : bytes;
}

PlayedMedium readBack(const std::string& path)
{
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) < 0) {
        throw std::runtime_error("cannot open " + path);
    }
    const av::FormatContext context(raw);
    if (avformat_find_stream_info(raw, nullptr) < 0) {
        throw std::runtime_error("cannot read " + path);
    }
    const int video = av_find_best_stream(raw, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    const int audio = av_find_best_stream(raw, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    PlayedMedium medium;
    medium.video = describe(*raw, video);
    medium.audio = describe(*raw, audio);
    medium.durationMs =
        raw->duration == AV_NOPTS_VALUE ? -1.0 : static_cast<double>(raw->duration) / 1000.0;
    const av::Packet packet = av::makePacket();
    while (av_read_frame(raw, packet.get()) >= 0) {
        if (packet->stream_index == video || packet->stream_index == audio) {
            PlayedStream& stream = packet->stream_index == video ? medium.video : medium.audio;
            const AVStream& source = *raw->streams[packet->stream_index];
            const AVCodecParameters& codec = *source.codecpar;
            const double tickMs = av_q2d(source.time_base) * 1000.0;
            const std::string setUp(reinterpret_cast<const char*>(codec.extradata),
                                    static_cast<std::size_t>(codec.extradata_size));
            const std::string bytes(reinterpret_cast<const char*>(packet->data),
                                    static_cast<std::size_t>(packet->size));
            stream.payloads.push_back(payloadOf(stream.codec, bytes, setUp));
            const bool isStamped = packet->pts != AV_NOPTS_VALUE;
            stream.shownMs.push_back(isStamped ? static_cast<double>(packet->pts) * tickMs : -1e9);
            stream.sentMs.push_back(static_cast<double>(packet->dts) * tickMs);
            stream.keys.push_back((packet->flags & AV_PKT_FLAG_KEY) != 0);
            stream.endMs = std::max(stream.endMs,
                                    static_cast<double>(packet->pts + packet->duration) * tickMs);
        }
        av_packet_unref(packet.get());
    }
    return medium;
}

} // namespace zel::test
