#include "encoder/FFMpegEncoder.h"
#include "host/Records.h"
#include "plugin/SimpleSamplePacket.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <iterator>
#include <thread>
#include <vector>

/// Copied packets through the stage, from write to readFrame, with a reader on a thread of its own.

namespace {

using zel::streamer::SimpleSamplePacket;
namespace PacketType = zel::streamer::PacketType;

constexpr unsigned long long FrameUs = 40000;
constexpr unsigned long long AudioUs = 21333;

/// A picture's bytes. No container reads on behind the first ones.
std::vector<unsigned char> picture(int bytes, bool isKeyFrame)
{
    std::vector<unsigned char> data(static_cast<std::size_t>(bytes), 0x55);
    const unsigned char head[] = {0x00, 0x00, 0x01, 0xb6,
                                  static_cast<unsigned char>(isKeyFrame ? 0x10 : 0x50)};
    std::copy(std::begin(head), std::end(head), data.begin());
    return data;
}

class Session
{
public:
    Session(const char* format, const char* videoCodec)
    {
        m_input.stream.video.codec = videoCodec;
        m_input.stream.video.width = 320;
        m_input.stream.video.height = 240;
        m_input.stream.video.frameRate = 25.0;
        m_input.stream.audio.codec = "mp3";
        m_input.stream.audio.sampleRate = 48000;
        m_input.stream.audio.channels = 2;
        m_request.format = format;
        m_request.video = m_input.stream.video;
        m_request.audio = m_input.stream.audio;
        m_request.audio.bitrate = 128000;
        m_request.video.bitrate = 500000;
        m_request.output.format = format;
        m_request.output.multiplexed = true;
        m_request.output.video = m_request.video;
        m_request.output.audio = m_request.audio;
        m_isOpen = m_stage.init(&m_medium, &m_input, &m_request, &m_options, nullptr) == 0 &&
                   m_stage.start() != 0;
        if (m_isOpen) {
            m_reader = std::thread([this] { readAll(); });
        }
    }
    ~Session()
    {
        m_stage.stop();
        if (m_reader.joinable()) {
            m_reader.join();
        }
        m_stage.close();
    }

    bool isOpen() const { return m_isOpen; }
    void write(PacketType::Enum type, const std::vector<unsigned char>& data,
               unsigned long long timestampUs, bool keyFrame)
    {
        auto* packet = new SimpleSamplePacket;
        packet->setAndCopy(type, data.data(), static_cast<int>(data.size()), timestampUs, 0,
                           keyFrame);
        m_stage.write(packet);
    }

private:
    void readAll()
    {
        PacketType::Enum type = PacketType::None;
        unsigned char* data = nullptr;
        unsigned int size = 0;
        unsigned long long timestamp = 0;
        unsigned long long duration = 0;
        void* context = nullptr;
        bool keyFrame = false;
        while (m_stage.readFrame(type, data, size, timestamp, duration, context, keyFrame)) {
            m_stage.freeFrame(data, context);
        }
    }

    zel::host::MediumRecord m_medium;
    zel::host::InputStreamRecord m_input;
    zel::host::RequestedStreamRecord m_request;
    zel::host::PropertyMap m_options;
    FFMpegEncoder m_stage;
    bool m_isOpen = false;
    std::thread m_reader;
};

void copiedPackets(benchmark::State& state, const char* format, const char* videoCodec)
{
    const int pictureBytes = static_cast<int>(state.range(0));
    Session session(format, videoCodec);
    if (!session.isOpen()) {
        state.SkipWithError("the stage refused the session");
        return;
    }
    const auto keyPicture = picture(pictureBytes, true);
    const auto otherPicture = picture(pictureBytes, false);
    const std::vector<unsigned char> audio(400, 0x21);
    unsigned long long videoUs = 0;
    unsigned long long audioUs = 0;
    int frame = 0;
    for ([[maybe_unused]] auto _ : state) {
        const bool isKeyFrame = frame++ % 25 == 0;
        session.write(PacketType::Video, isKeyFrame ? keyPicture : otherPicture, videoUs,
                      isKeyFrame);
        videoUs += FrameUs;
        for (; audioUs < videoUs; audioUs += AudioUs) {
            session.write(PacketType::Audio, audio, audioUs, true);
        }
    }
    state.SetBytesProcessed(state.iterations() * pictureBytes);
    state.SetItemsProcessed(state.iterations());
}

void toFlv(benchmark::State& state)
{
    copiedPackets(state, "flv", "flv");
}
void toTransportStream(benchmark::State& state)
{
    copiedPackets(state, "mpegts", "mpeg4");
}
void toMatroska(benchmark::State& state)
{
    copiedPackets(state, "matroska", "mpeg4");
}
BENCHMARK(toFlv)->Name("Muxer/copiedToFlv")->Arg(4000)->Arg(40000)->UseRealTime();
BENCHMARK(toTransportStream)->Name("Muxer/copiedToMpegTS")->Arg(4000)->Arg(40000)->UseRealTime();
BENCHMARK(toMatroska)->Name("Muxer/copiedToMatroska")->Arg(4000)->Arg(40000)->UseRealTime();

} // namespace
