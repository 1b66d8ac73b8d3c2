#include "encoder/FFMpegEncoder.h"

#include "encoder/BasicMuxer.h"
#include "encoder/FFMpegStreamingProfile.h"
#include "plugin/SimpleSamplePacket.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <span>

/// Raw samples: width, channels, rate, encoding.

using zel::streamer::AudioPacketDescription;
using zel::streamer::SamplePacket;
using zel::streamer::SimpleSamplePacket;
namespace PacketType = zel::streamer::PacketType;

namespace {

constexpr int MAX_AUDIO_PACKET_SIZE = 131072;
constexpr int ResampleBytes = 524288;

/// A packet is resampled and encoded in pieces of at most so many samples, whatever its size.
constexpr int PieceSamples = 8192;

/// What a frame of an encoder without a frame size holds.
constexpr int DefaultFrameSamples = 1024;

int16_t limited(double sample)
{
    return static_cast<int16_t>(
        std::clamp(sample, static_cast<double>(std::numeric_limits<int16_t>::min()),
                   static_cast<double>(std::numeric_limits<int16_t>::max())));
}

int16_t littleEndian(const unsigned char* bytes)
{
    return static_cast<int16_t>(bytes[0] | bytes[1] << 8);
}

/// The samples of a packet in 16 bits.
/// @return false for a width that is none of an audio packet's
bool toSixteenBits(std::span<const unsigned char> bytes, int bitsPerSample,
                   std::vector<int16_t>& samples)
{
    if (bitsPerSample != 8 && bitsPerSample != 16 && bitsPerSample != 24 && bitsPerSample != 32) {
        return false;
    }
    const std::size_t width = static_cast<std::size_t>(bitsPerSample) / 8;
    samples.resize(bytes.size() / width);
    const unsigned char* in = bytes.data();
    for (int16_t& sample : samples) {
        // The two upper bytes; of one byte, which is unsigned, the only one.
        sample =
            width == 1 ? static_cast<int16_t>((in[0] - 128) * 256) : littleEndian(in + width - 2);
        in += width;
    }
    return true;
}

/// Mixes samples of more than two channels down to two, in place.
/// @return false for a number of channels without a rule
bool mixToStereo(std::vector<int16_t>& samples, int channels)
{
    if (channels < 3 || channels > 6) {
        return false;
    }
    const std::size_t count = samples.size() / static_cast<std::size_t>(channels);
    for (std::size_t i = 0; i < count; ++i) {
        const int16_t* s = samples.data() + i * static_cast<std::size_t>(channels);
        int16_t left = s[1];
        int16_t right = s[2];
        if (channels == 5) {
            left = limited(s[1] + 0.5 * s[4]);
            right = limited(s[2] + 0.5 * s[4]);
        } else if (channels == 6) {
            const double both = 0.5 * (s[2] + s[3]);
            left = limited(0.8 * s[0] + 0.5 * s[4] + both);
            right = limited(0.8 * s[1] + 0.5 * s[5] + both);
        }
        samples[2 * i] = left;
        samples[2 * i + 1] = right;
    }
    samples.resize(2 * count);
    return true;
}

/// How many samples may be resampled at once, so that half of the room takes them; what the filter
/// kept of the piece before comes on top.
int pieceThatFits(int room, int inRate, int outRate)
{
    const long long samples = static_cast<long long>(room / 2) * inRate / outRate;
    return static_cast<int>(std::clamp<long long>(samples, 1, PieceSamples));
}

} // namespace

void FFMpegEncoder::encodeAudioPacket(SamplePacket& packet)
{
    if (!m_audioStream || !m_audioStream->context || !m_audioFifo ||
        packet.getBuffer() == nullptr) {
        return;
    }
    const AudioPacketDescription& source = *m_profile->inputStream()->getAudio();
    const std::span<const unsigned char> bytes(
        packet.getBuffer(), static_cast<std::size_t>(std::max(packet.getLength(), 0)));
    const int bitsPerSample = source.getBitsPerSample();
    if (!toSixteenBits(bytes, bitsPerSample, m_samples)) {
        CBBLog::warn("FFMpegEncoder<%d>::encodeAudioPacket : unknown bitsPerSample value %d", m_id,
                     bitsPerSample);
        return;
    }
    int channels = source.getChannels();
    if (channels != 1 && channels != 2) {
        // Kept: more channels are read as 16-bit samples whatever the width says, so they have to
        // arrive like that; the resampler stage in front sees to it.
        toSixteenBits(bytes, 16, m_samples);
        if (!mixToStereo(m_samples, channels)) {
            CBBLog::warn("FFMpegEncoder::encodeAudioPacket : unknown channels value %d", channels);
            return;
        }
        channels = 2;
    }
    const unsigned long long timestamp = audioTimestamp(packet);
    const AVCodecContext& encoder = *m_audioStream->context;
    const int sampleRate = source.getSampleRate();
    const int total = static_cast<int>(m_samples.size()) / channels;
    m_muxer->noteSamples(static_cast<long long>(timestamp),
                         total * 1000000.0 / std::max(sampleRate, 1));
    const bool isResampled =
        encoder.ch_layout.nb_channels != channels || encoder.sample_rate != sampleRate;
    if (isResampled && !prepareResampler(channels, sampleRate)) {
        return;
    }
    const int room = ResampleBytes / (encoder.ch_layout.nb_channels * 2);
    const int step =
        isResampled ? pieceThatFits(room, sampleRate, encoder.sample_rate) : PieceSamples;
    for (int done = 0; done < total; done += step) {
        const int count = std::min(step, total - done);
        const int16_t* piece = m_samples.data() + static_cast<std::ptrdiff_t>(done) * channels;
        if (isResampled) {
            const int made = m_resampleContext->convert(piece, count, m_resampleBuffer.get(), room);
            encodeSamples(m_resampleBuffer.get(), made, timestamp);
        } else {
            encodeSamples(piece, count, timestamp);
        }
    }
}

bool FFMpegEncoder::prepareResampler(int channels, int sampleRate)
{
    if (m_resampleContext) {
        return true;
    }
    const AVCodecContext& encoder = *m_audioStream->context;
    m_resampleContext = zel::av::AudioResampler::create(encoder.ch_layout.nb_channels, channels,
                                                        encoder.sample_rate, sampleRate);
    if (!m_resampleContext) {
        CBBLog::warn("Audio Encoder: Unsupported format: channels=%d, sampleRate=%d", channels,
                     sampleRate);
        return false;
    }
    return true;
}

void FFMpegEncoder::encodeSamples(const int16_t* samples, int count, unsigned long long timestamp)
{
    const auto channels = static_cast<std::size_t>(m_audioStream->context->ch_layout.nb_channels);
    av_fifo_write(m_audioFifo.get(), samples,
                  static_cast<std::size_t>(std::max(count, 0)) * channels * sizeof(int16_t));
    encodeFrames(timestamp);
}

void FFMpegEncoder::encodeFrames(unsigned long long timestamp)
{
    const AVCodecContext& encoder = *m_audioStream->context;
    const int channels = encoder.ch_layout.nb_channels;
    const int frameSamples = encoder.frame_size > 0 ? encoder.frame_size : DefaultFrameSamples;
    const int frameBytes = channels * frameSamples * 2;
    while (av_fifo_can_read(m_audioFifo.get()) >= static_cast<std::size_t>(frameBytes)) {
        int size = frameBytes;
        if (size > MAX_AUDIO_PACKET_SIZE) {
            size = MAX_AUDIO_PACKET_SIZE;
            CBBLog::warn("encodeAudioPacket<%d>: encodedPacketSize > MAX_AUDIO_PACKET_SIZE (%d / "
                         "%d)",
                         m_id, frameBytes, MAX_AUDIO_PACKET_SIZE);
        }
        const int samples = size / (channels * 2);
        av_fifo_read(m_audioFifo.get(), m_audioFrameBuffer.get(), static_cast<std::size_t>(size));
        const auto& packets = m_audioStream->frames->encode(m_audioFrameBuffer.get(), samples);
        for (const auto& packet : packets) {
            const bool isOnlyOne = packets.size() == 1 || packet->duration <= 0;
            deliverAudio(*packet, isOnlyOne ? samples : static_cast<int>(packet->duration),
                         timestamp);
        }
    }
}

void FFMpegEncoder::deliverAudio(const AVPacket& packet, int samples, unsigned long long timestamp)
{
    const auto& output = *m_profile->outputStream();
    const double sampleRate = m_audioStream->context->sample_rate;
    if (output.isRTP()) {
        SimpleSamplePacket* framed = m_profile->getSamplePacket(PacketType::Audio);
        framed->setAndCopy(
            PacketType::Audio, packet.data, packet.size,
            static_cast<unsigned long long>(
                std::llround(static_cast<double>(m_audioSampleCount) * 1000000 / sampleRate)),
            static_cast<unsigned long long>(std::llround(samples * 1000000.0 / sampleRate)), true);
        pushPacket(framed);
    } else {
        long long pts = 0;
        if (m_audioSeekPending) {
            if (m_audioEncoded && ssicmp(output.getFormat(), "mpegts") != 0) {
                pts = std::llround(static_cast<double>(timestamp) /
                                   av_q2d(m_muxer->timeBaseOf(AVMEDIA_TYPE_AUDIO)) / 1000000);
            }
            m_audioSeekPending = false;
        }
        if (!output.isMultiplexed()) {
            pushCopy(PacketType::Audio, packet.data, packet.size, timestamp, 0, true);
        } else {
            m_muxer->writeAudioPacket(packet.data, static_cast<unsigned int>(packet.size), pts,
                                      static_cast<long long>(timestamp));
        }
    }
    m_audioSampleCount += samples;
    m_audioEncoded = true;
}
