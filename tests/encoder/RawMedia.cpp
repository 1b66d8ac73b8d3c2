#include "tests/encoder/RawMedia.h"

#include "common/ffmpeg/Handles.h"
#include "plugin/Vocabulary.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <random>
#include <stdexcept>

namespace PacketType = zel::streamer::PacketType;
namespace VideoPixelFormat = zel::streamer::VideoPixelFormat;
namespace av = zel::av;

namespace zel::test {

namespace {

/// A decoder that takes any complaint for a failure.
class StrictDecoder
{
public:
    StrictDecoder(AVCodecID codec, const std::string& setUp)
        : m_context(avcodec_alloc_context3(avcodec_find_decoder(codec))), m_frame(av::makeFrame()),
          m_packet(av::makePacket())
    {
        m_context->err_recognition = AV_EF_EXPLODE | AV_EF_BITSTREAM | AV_EF_BUFFER;
        m_context->thread_count = 1;
        if (!setUp.empty()) {
            m_context->extradata =
                static_cast<uint8_t*>(av_mallocz(setUp.size() + AV_INPUT_BUFFER_PADDING_SIZE));
            std::memcpy(m_context->extradata, setUp.data(), setUp.size());
            m_context->extradata_size = static_cast<int>(setUp.size());
        }
    }

    /// Before decode.
    AVCodecContext& context() { return *m_context; }

    /// @param take  called with each frame
    template <class Take>
    void decode(const std::vector<std::string>& frames, Take take)
    {
        check(avcodec_open2(m_context.get(), nullptr, nullptr), "open");
        for (const std::string& bytes : frames) {
            av_packet_unref(m_packet.get());
            check(av_new_packet(m_packet.get(), static_cast<int>(bytes.size())), "allocate");
            std::memcpy(m_packet->data, bytes.data(), bytes.size());
            check(avcodec_send_packet(m_context.get(), m_packet.get()), "send");
            receive(take);
        }
        check(avcodec_send_packet(m_context.get(), nullptr), "drain");
        receive(take);
    }

private:
    static void check(int result, const char* step)
    {
        if (result < 0) {
            throw std::runtime_error(std::string("the decoder fails to ") + step);
        }
    }

    template <class Take>
    void receive(Take take)
    {
        while (true) {
            const int result = avcodec_receive_frame(m_context.get(), m_frame.get());
            if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
                return;
            }
            check(result, "decode");
            take(*m_frame);
        }
    }

    av::CodecContext m_context;
    av::Frame m_frame;
    av::Packet m_packet;
};

int16_t sampleAt(const AVFrame& frame, int channel, int index)
{
    const int channels = frame.ch_layout.nb_channels;
    const bool isPlanar = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(frame.format)) != 0;
    const uint8_t* plane = frame.extended_data[isPlanar ? channel : 0];
    const int at = isPlanar ? index : index * channels + channel;
    switch (av_get_packed_sample_fmt(static_cast<AVSampleFormat>(frame.format))) {
    case AV_SAMPLE_FMT_S16:
        return reinterpret_cast<const int16_t*>(plane)[at];
    case AV_SAMPLE_FMT_S32:
        return static_cast<int16_t>(reinterpret_cast<const int32_t*>(plane)[at] >> 16);
    case AV_SAMPLE_FMT_FLT:
        return static_cast<int16_t>(
            std::clamp(reinterpret_cast<const float*>(plane)[at], -1.0F, 1.0F) * 32767);
    default:
        throw std::runtime_error("samples of an unexpected format");
    }
}

/// Strength of one frequency.
double strength(const std::vector<double>& samples, double cyclesASample)
{
    const double turn = 2.0 * std::cos(2.0 * std::numbers::pi * cyclesASample);
    double last = 0.0;
    double before = 0.0;
    for (const double sample : samples) {
        const double now = sample + turn * last - before;
        before = last;
        last = now;
    }
    return last * last + before * before - turn * last * before;
}

} // namespace

OutputSession pictureSession(const char* codec, int width, int height)
{
    OutputSession session;
    session.inputVideo("raw");
    session.input.stream.video.width = width;
    session.input.stream.video.height = height;
    session.input.stream.video.pixelFormat = VideoPixelFormat::YUV420P;
    session.input.stream.video.bitsPerPixel = 12;
    session.requestVideo(codec, 400000);
    session.request.output.multiplexed = false;
    return session;
}

OutputSession sampleSession(const char* codec, int bitrate, int inChannels, int inRate,
                            int outChannels, int outRate)
{
    OutputSession session;
    session.inputAudio("raw");
    session.input.stream.audio.channels = inChannels;
    session.input.stream.audio.sampleRate = inRate;
    session.input.stream.audio.bitsPerSample = 16;
    session.requestAudio(codec, bitrate, outChannels, outRate);
    session.request.output.multiplexed = false;
    return session;
}

OutputSession rawSession(const char* video, const char* audio)
{
    OutputSession session = pictureSession(video, 64, 48);
    const OutputSession samples = sampleSession(audio, 128000);
    session.input.stream.audio = samples.input.stream.audio;
    session.requestAudio(audio, 128000);
    return session;
}

OutputSession multiplexedSession(const char* format, const char* video, const char* audio)
{
    OutputSession session = rawSession(video, audio);
    session.requestFormat(format);
    session.request.output.multiplexed = true;
    return session;
}

OutputSession copiedSession(const char* video, const char* audio)
{
    OutputSession session = rawSession(video, audio);
    session.requestAudio(audio, 128000, 2, 44100);
    session.inputVideo(video);
    session.inputAudio(audio);
    return session;
}

host::OutputStreamRecord describe(FFMpegEncoder& stage)
{
    host::OutputStreamRecord record;
    stage.getOutputStreamDescription(&record);
    return record;
}

int initResult(OutputSession& session)
{
    return StageRun(session, StageRun::Reader::TheTest).initResult();
}

std::size_t pictureSize(VideoPixelFormat::Enum format, int width, int height)
{
    return static_cast<std::size_t>(
        av_image_get_buffer_size(streamer::zelToFFmpegPixelFormat(format), width, height, 1));
}

std::string noisePicture(VideoPixelFormat::Enum format, int width, int height, unsigned int seed)
{
    std::mt19937 random(seed);
    std::string picture(pictureSize(format, width, height), '\0');
    for (char& byte : picture) {
        byte = static_cast<char>(random());
    }
    return picture;
}

std::string movingPicture(int width, int height, int index)
{
    const int chromaWidth = (width + 1) / 2;
    const int chromaHeight = (height + 1) / 2;
    std::string picture;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const bool isInBox = (x + 3 * index) % 64 < 24 && (y + index) % 48 < 20;
            const int texture = ((x * 7) ^ (y * 5)) % 32;
            picture += static_cast<char>(isInBox ? 200 + texture : 40 + (x + y) / 4 % 64 + texture);
        }
    }
    for (int plane = 0; plane < 2; ++plane) {
        for (int y = 0; y < chromaHeight; ++y) {
            for (int x = 0; x < chromaWidth; ++x) {
                picture += static_cast<char>(96 + (plane == 0 ? x + index : y - index) % 64);
            }
        }
    }
    return picture;
}

std::vector<int16_t> tone(double hertz, int sampleRate, int channels, int samples, int first)
{
    std::vector<int16_t> result;
    for (int i = first; i < first + samples; ++i) {
        const double angle = 2.0 * std::numbers::pi * hertz * i / sampleRate;
        result.insert(result.end(), static_cast<std::size_t>(channels),
                      static_cast<int16_t>(std::lround(10000.0 * std::sin(angle))));
    }
    return result;
}

std::string bytesOf(const std::vector<int16_t>& samples)
{
    return {reinterpret_cast<const char*>(samples.data()), samples.size() * sizeof(int16_t)};
}

std::vector<int16_t> samplesOf(const std::string& bytes)
{
    std::vector<int16_t> samples(bytes.size() / sizeof(int16_t));
    std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(int16_t));
    return samples;
}

double frequencyOf(const std::vector<int16_t>& samples, int sampleRate, int channels)
{
    // From the middle, behind what an encoder puts in front.
    constexpr std::size_t Enough = 16384;
    const auto step = static_cast<std::size_t>(channels);
    const std::size_t count = std::min(Enough, samples.size() / step);
    std::vector<double> one(count);
    for (std::size_t i = 0; i < count; ++i) {
        one[i] = samples[((samples.size() / step - count) / 2 + i) * step];
    }
    int best = 0;
    double bestStrength = 0.0;
    for (int hertz = 50; hertz < std::min(3000, sampleRate / 2); hertz += 2) {
        const double found = strength(one, static_cast<double>(hertz) / sampleRate);
        if (found > bestStrength) {
            best = hertz;
            bestStrength = found;
        }
    }
    return best;
}

std::string joinedBytes(const std::vector<Delivered>& packets, PacketType::Enum type)
{
    std::string bytes;
    for (const Delivered& packet : deliveredOf(packets, type)) {
        bytes += packet.bytes;
    }
    return bytes;
}

std::string bytesOfHexText(const std::string& text)
{
    std::string bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

std::vector<std::string> decodePictures(AVCodecID codec, const std::string& setUp, int width,
                                        int height, const std::vector<std::string>& frames)
{
    std::vector<std::string> pictures;
    StrictDecoder decoder(codec, setUp);
    decoder.context().width = width;
    decoder.context().height = height;
    decoder.decode(frames, [&pictures](const AVFrame& frame) {
        const auto format = static_cast<AVPixelFormat>(frame.format);
        const int size = av_image_get_buffer_size(format, frame.width, frame.height, 1);
        std::string planes(static_cast<std::size_t>(size), '\0');
        av_image_copy_to_buffer(reinterpret_cast<uint8_t*>(planes.data()), size, frame.data,
                                frame.linesize, format, frame.width, frame.height, 1);
        pictures.push_back(planes);
    });
    return pictures;
}

std::vector<int16_t> decodeSamples(AVCodecID codec, const std::string& setUp, int channels,
                                   int sampleRate, const std::vector<std::string>& frames)
{
    std::vector<int16_t> samples;
    StrictDecoder decoder(codec, setUp);
    decoder.context().sample_rate = sampleRate;
    decoder.context().block_align = frames.empty() ? 0 : static_cast<int>(frames[0].size());
    av_channel_layout_default(&decoder.context().ch_layout, channels);
    decoder.decode(frames, [&samples](const AVFrame& frame) {
        for (int i = 0; i < frame.nb_samples; ++i) {
            for (int channel = 0; channel < frame.ch_layout.nb_channels; ++channel) {
                samples.push_back(sampleAt(frame, channel, i));
            }
        }
    });
    return samples;
}

double likeness(const std::string& left, const std::string& right)
{
    if (left.size() != right.size() || left.empty()) {
        return 0.0;
    }
    double sum = 0.0;
    for (std::size_t i = 0; i < left.size(); ++i) {
        const int difference =
            static_cast<unsigned char>(left[i]) - static_cast<unsigned char>(right[i]);
        sum += difference * difference;
    }
    return sum > 0.0 ? 10.0 * std::log10(255.0 * 255.0 * static_cast<double>(left.size()) / sum)
                     : 99.0;
}

} // namespace zel::test
