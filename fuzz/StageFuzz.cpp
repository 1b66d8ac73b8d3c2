#include "encoder/FFMpegEncoder.h"
#include "host/Records.h"
#include "plugin/SimpleSamplePacket.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <span>
#include <string>

/// The encoder stage takes packets of any content in any order.
///
///     format | codecs | length of set-up data | set-up data | packet | packet ...
///     packet: kind | time step and key flag | length, two bytes | bytes
///
/// Nobody reads meanwhile: an input is too small to fill the queue.

namespace {

using zel::streamer::SimpleSamplePacket;
namespace PacketType = zel::streamer::PacketType;

class Input
{
public:
    Input(const std::uint8_t* data, std::size_t size) : m_rest(data, size) {}

    bool isEmpty() const { return m_rest.empty(); }
    unsigned int byte()
    {
        const auto taken = bytes(1);
        return taken.empty() ? 0 : taken[0];
    }
    std::span<const std::uint8_t> bytes(std::size_t count)
    {
        const auto taken = m_rest.first(std::min(count, m_rest.size()));
        m_rest = m_rest.subspan(taken.size());
        return taken;
    }

private:
    std::span<const std::uint8_t> m_rest;
};

std::string hexOf(std::span<const std::uint8_t> bytes)
{
    constexpr char Digits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += Digits[byte >> 4];
        text += Digits[byte & 15];
    }
    return text;
}

/// A session as a host would ask for it.
struct Session
{
    zel::host::MediumRecord medium;
    zel::host::InputStreamRecord input;
    zel::host::RequestedStreamRecord request;
    zel::host::PropertyMap options;

    explicit Session(Input& fuzz)
    {
        static const char* const Formats[] = {"flv", "mpegts", "matroska", "asf", "mpeg", ""};
        static const char* const VideoCodecs[] = {"h264", "mpeg4", "flv", "mpeg2video", "raw"};
        static const char* const AudioCodecs[] = {"aac", "mp3", "raw", "none"};
        const unsigned int format = fuzz.byte();
        const unsigned int codecs = fuzz.byte();
        auto& video = input.stream.video;
        auto& audio = input.stream.audio;
        video.codec = VideoCodecs[codecs % std::size(VideoCodecs)];
        video.width = 32;
        video.height = 16;
        video.frameRate = 25.0;
        video.bitsPerPixel = static_cast<int>(codecs & 0x80);
        video.pixelFormat = static_cast<zel::streamer::VideoPixelFormat::Enum>(format / 16 % 7);
        audio.codec = AudioCodecs[codecs / 8 % std::size(AudioCodecs)];
        audio.sampleRate = 44100;
        audio.channels = static_cast<int>(format / 16 % 8);
        audio.bitsPerSample = static_cast<int>(8 * (1 + format / 64));
        video.codecPrivateData = hexOf(fuzz.bytes(fuzz.byte()));
        request.video = video;
        request.audio = audio;
        request.audio.bitrate = 128000;
        request.video.bitrate = 200000;
        request.audio.channels = 2;
        if (*video.codec == "raw") {
            request.video.codec = "mpeg4";
        }
        if (*audio.codec == "raw") {
            request.audio.codec = "mp2";
        }
        request.format = Formats[format % std::size(Formats)];
        request.output.format = request.format;
        request.output.multiplexed = !request.format.empty();
        request.output.rtp = request.format.empty() && (codecs & 0x40) != 0;
        request.output.rtpPacketSize = 200;
        request.output.video = request.video;
        request.output.audio = request.audio;
    }
};

void writePacket(FFMpegEncoder& stage, Input& fuzz, unsigned long long& timestampUs)
{
    constexpr unsigned int Seek = 6;
    constexpr unsigned int Flush = 7;
    const unsigned int kind = fuzz.byte() % 8;
    const unsigned int step = fuzz.byte();
    const unsigned int length = fuzz.byte() * 256 + fuzz.byte();
    const auto bytes = fuzz.bytes(length);
    if (kind == Seek) {
        stage.resetPosition(step * 100);
        return;
    }
    if (kind == Flush) {
        stage.flush();
        return;
    }
    timestampUs += (step >> 1) * 1000ULL;
    auto* packet = new SimpleSamplePacket;
    packet->setAndCopy(
        static_cast<PacketType::Enum>(kind), bytes.data(), static_cast<int>(bytes.size()),
        step == 255 ? SimpleSamplePacket::NoTimestamp : timestampUs, 0, (step & 1) != 0);
    stage.write(packet);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr std::size_t LongestInput = 100000;
    if (size > LongestInput) {
        return 0;
    }
    Input fuzz(data, size);
    const Session session(fuzz);
    FFMpegEncoder stage;
    if (stage.init(&session.medium, &session.input, &session.request, &session.options, nullptr) ==
        0) {
        stage.start();
        unsigned long long timestampUs = 0;
        while (!fuzz.isEmpty()) {
            writePacket(stage, fuzz, timestampUs);
        }
    }
    stage.stop();
    stage.close();
    return 0;
}
