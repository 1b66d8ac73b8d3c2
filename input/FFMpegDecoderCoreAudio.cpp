#include "input/FFMpegDecoderCore.h"

#include "common/utils/CBBLog.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t MinAudioBufferBytes = 192000;

bool hasValue(unsigned long long stamp)
{
    return stamp != zel::streamer::SamplePacket::NoTimestamp;
}

} // namespace

/// Follows a change of channels or sample rate in mid-stream.
/// @return true when there was one
bool FFMpegDecoderCore::updateAudioFormat()
{
    if (!m_audioCodec) {
        return false;
    }
    const auto channels =
        static_cast<unsigned int>(std::max(0, m_audioCodec->ch_layout.nb_channels));
    const auto sampleRate = static_cast<unsigned int>(std::max(0, m_audioCodec->sample_rate));
    if (channels == m_audioChannels && sampleRate == m_audioSampleRate) {
        return false;
    }
    CBBLog::info("FFMpegDecoderCore::decodeFromMedium - Audio stream changed - %d channels @ %dHz",
                 static_cast<int>(channels), static_cast<int>(sampleRate));
    m_audioChannels = channels;
    m_audioSampleRate = sampleRate;
    m_audioFrameBits = m_audioBits * m_audioChannels;
    m_audioBitrate = m_audioSampleRate * m_audioFrameBits;
    publishDescription();
    return true;
}

bool FFMpegDecoderCore::decodeAudioPacket(const unsigned char* in, unsigned int inSize,
                                          unsigned char*& data, unsigned int& size,
                                          unsigned long long& timestamp,
                                          unsigned long long& duration, void*& context)
{
    if (m_audioStream == nullptr || !wrapBytes(m_audioPacket.get(), in, inSize)) {
        return false;
    }
    Sample sample;
    sample.timestamp = timestamp;
    sample.duration = duration;
    const bool done = decodeAudio(*m_audioPacket, sample);
    av_packet_unref(m_audioPacket.get());
    if (!done) {
        return false;
    }
    timestamp = sample.timestamp;
    duration = sample.duration;
    data = sample.data.release();
    size = sample.size;
    context = nullptr;
    return true;
}

bool FFMpegDecoderCore::passAudio(const AVPacket& packet, Sample& sample)
{
    sample.size = static_cast<unsigned int>(packet.size);
    sample.data.reset(new unsigned char[sample.size + AV_INPUT_BUFFER_PADDING_SIZE]);
    if (sample.size > 0) {
        std::memcpy(sample.data.get(), packet.data, sample.size);
    }
    std::memset(sample.data.get() + sample.size, 0, AV_INPUT_BUFFER_PADDING_SIZE);
    if (!m_generateTimestamps && !m_ignorePacketTime && hasValue(sample.timestamp)) {
        sample.timestamp = streamTimeToUs(sample.timestamp, m_audioStream->time_base);
        sample.duration = streamTimeToUs(sample.duration, m_audioStream->time_base);
    }
    return true;
}

/// Decodes one packet, which may hold several frames, into one array of interleaved samples.
/// The stamps become microseconds when there is output, and stay as they came otherwise.
bool FFMpegDecoderCore::decodeAudio(const AVPacket& packet, Sample& sample)
{
    if (m_skipAudio) {
        return passAudio(packet, sample);
    }
    AVCodecContext* codec = m_audioCodec.get();
    if (codec == nullptr || avcodec_is_open(codec) == 0 || packet.size <= 0 ||
        avcodec_send_packet(codec, &packet) < 0) {
        return false;
    }
    const bool countsSamples =
        m_generateTimestamps || m_ignorePacketTime || !hasValue(sample.timestamp);
    unsigned long long start = m_nextAudioTimestamp;
    unsigned long long duration = 0;
    if (!countsSamples) {
        start = streamTimeToUs(sample.timestamp, m_audioStream->time_base);
        if (start < m_lastAudioTimestamp) {
            start = m_nextAudioTimestamp;
        }
        duration = streamTimeToUs(sample.duration, m_audioStream->time_base);
    }
    std::size_t used = 0;
    bool isWhole = true; // frames behind one that cannot be converted are dropped
    while (avcodec_receive_frame(codec, m_audioFrame.get()) >= 0) {
        isWhole = isWhole && appendAudioFrame(*m_audioFrame, used);
    }
    if (used == 0) {
        return false;
    }
    if (start < m_streamOffset) {
        CBBLog::debug("FFMpegDecoderCore::decodeAudioPacket : timestamp out of range compared to "
                      "stream offset, discard %lld %lld",
                      static_cast<long long>(start), static_cast<long long>(m_streamOffset));
        return false;
    }
    const double samplesPerSecond = static_cast<double>(m_audioSampleRate) * m_audioChannels;
    if (countsSamples && samplesPerSecond > 0.0) {
        // Kept: takes two bytes a sample whatever the width.
        duration = static_cast<unsigned long long>(static_cast<double>(used) * 1000000.0 * 0.5 /
                                                   samplesPerSecond);
    }
    sample.size = static_cast<unsigned int>(used);
    sample.data.reset(new unsigned char[used]);
    std::memcpy(sample.data.get(), m_audioBuffer, used);
    sample.timestamp = start;
    sample.duration = duration;
    m_lastAudioTimestamp = start;
    m_nextAudioTimestamp = start + duration;
    if (m_audioFrameSamples == 0 && codec->ch_layout.nb_channels > 0) {
        m_audioFrameSamples =
            static_cast<unsigned int>(codec->frame_size / codec->ch_layout.nb_channels);
    }
    return true;
}

/// Converts a frame's samples behind the first `used` bytes of m_audioBuffer.
bool FFMpegDecoderCore::appendAudioFrame(const AVFrame& frame, std::size_t& used)
{
    const std::size_t needed =
        std::max(MinAudioBufferBytes, used + zel::av::PackedAudio::size(frame, m_audioBits));
    auto* grown = static_cast<uint8_t*>(av_fast_realloc(m_audioBuffer, &m_audioBufferSize, needed));
    if (grown == nullptr) {
        return false;
    }
    m_audioBuffer = grown;
    const int bytes = m_packedAudio.convert(frame, m_audioBits, m_audioBuffer + used);
    if (bytes < 1) {
        return false;
    }
    used += static_cast<std::size_t>(bytes);
    return true;
}
