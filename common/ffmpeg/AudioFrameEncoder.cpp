#include "common/ffmpeg/AudioFrameEncoder.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
#include <libavutil/samplefmt.h>
}

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>

namespace zel::av {
namespace {

/// The formats that an encoder takes, ended by AV_SAMPLE_FMT_NONE; null when it does not say.
const AVSampleFormat* sampleFormats(const AVCodec& codec)
{
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(61, 13, 100)
    const void* formats = nullptr;
    if (avcodec_get_supported_config(nullptr, &codec, AV_CODEC_CONFIG_SAMPLE_FORMAT, 0, &formats,
                                     nullptr) < 0) {
        return nullptr;
    }
    return static_cast<const AVSampleFormat*>(formats);
#else
    return codec.sample_fmts;
#endif
}

} // namespace

AVSampleFormat pickSampleFormat(const AVCodec& codec)
{
    const AVSampleFormat* formats = sampleFormats(codec);
    if (formats == nullptr || formats[0] == AV_SAMPLE_FMT_NONE) {
        return AV_SAMPLE_FMT_S16;
    }
    for (const AVSampleFormat wanted :
         {AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_S16P, AV_SAMPLE_FMT_FLTP}) {
        for (const AVSampleFormat* format = formats; *format != AV_SAMPLE_FMT_NONE; ++format) {
            if (*format == wanted) {
                return wanted;
            }
        }
    }
    return formats[0];
}

AudioFrameEncoder::AudioFrameEncoder(AVCodecContext& opened)
    : m_encoder(opened), m_frame(makeFrame())
{
}

const std::vector<Packet>& AudioFrameEncoder::encode(const int16_t* interleaved, int samples)
{
    takeBackPackets();
    if (interleaved == nullptr || samples <= 0) {
        return m_packets;
    }
    const int sent = frameSamples(samples);
    if (!prepareFrame(sent) || !fillFrame(interleaved, samples)) {
        return m_packets;
    }
    m_frame->pts =
        av_rescale_q(m_sentSamples, AVRational{1, m_encoder.sample_rate}, m_encoder.time_base);
    if (avcodec_send_frame(&m_encoder, m_frame.get()) < 0) {
        return m_packets;
    }
    m_sentSamples += sent;
    while (receive()) {
    }
    return m_packets;
}

int AudioFrameEncoder::frameSamples(int samples) const
{
    const unsigned int anyLength = AV_CODEC_CAP_SMALL_LAST_FRAME | AV_CODEC_CAP_VARIABLE_FRAME_SIZE;
    if ((static_cast<unsigned int>(m_encoder.codec->capabilities) & anyLength) != 0) {
        return samples;
    }
    return std::max(samples, m_encoder.frame_size);
}

bool AudioFrameEncoder::prepareFrame(int samples)
{
    // An encoder may still refer to the last frame; copying what is overwritten anyway would be
    // a waste, so such a frame is let go.
    if (m_roomSamples >= samples && av_frame_is_writable(m_frame.get()) > 0) {
        m_frame->nb_samples = samples;
        return true;
    }
    av_frame_unref(m_frame.get());
    m_roomSamples = 0;
    m_frame->format = m_encoder.sample_fmt;
    m_frame->sample_rate = m_encoder.sample_rate;
    m_frame->nb_samples = std::max(samples, m_encoder.frame_size);
    if (av_channel_layout_copy(&m_frame->ch_layout, &m_encoder.ch_layout) < 0 ||
        av_frame_get_buffer(m_frame.get(), 0) < 0) {
        return false;
    }
    m_roomSamples = m_frame->nb_samples;
    m_frame->nb_samples = samples;
    return true;
}

bool AudioFrameEncoder::fillFrame(const int16_t* interleaved, int samples)
{
    const int channels = m_encoder.ch_layout.nb_channels;
    if (m_encoder.sample_fmt == AV_SAMPLE_FMT_S16) {
        std::memcpy(m_frame->extended_data[0], interleaved,
                    static_cast<std::size_t>(samples) * static_cast<std::size_t>(channels) *
                        sizeof *interleaved);
    } else {
        const auto* source = reinterpret_cast<const uint8_t*>(interleaved);
        if (!prepareConverter() || swr_convert(m_converter.get(), m_frame->extended_data, samples,
                                               &source, samples) != samples) {
            return false;
        }
    }
    const int missing = m_frame->nb_samples - samples;
    return missing == 0 || av_samples_set_silence(m_frame->extended_data, samples, missing,
                                                  channels, m_encoder.sample_fmt) >= 0;
}

bool AudioFrameEncoder::prepareConverter()
{
    if (m_converter) {
        return true;
    }
    // The same layout on both sides, so that the channels pass in their order whatever they are.
    AVChannelLayout layout = {};
    av_channel_layout_default(&layout, m_encoder.ch_layout.nb_channels);
    SwrContext* raw = nullptr;
    const int result =
        swr_alloc_set_opts2(&raw, &layout, m_encoder.sample_fmt, m_encoder.sample_rate, &layout,
                            AV_SAMPLE_FMT_S16, m_encoder.sample_rate, 0, nullptr);
    av_channel_layout_uninit(&layout);
    Resampler converter(raw);
    if (result < 0 || swr_init(raw) < 0) {
        return false;
    }
    m_converter = std::move(converter);
    return true;
}

bool AudioFrameEncoder::receive()
{
    if (m_spare.empty()) {
        m_spare.push_back(makePacket());
    }
    if (avcodec_receive_packet(&m_encoder, m_spare.back().get()) < 0) {
        return false;
    }
    m_packets.push_back(std::move(m_spare.back()));
    m_spare.pop_back();
    return true;
}

void AudioFrameEncoder::takeBackPackets()
{
    for (Packet& packet : m_packets) {
        av_packet_unref(packet.get());
    }
    std::move(m_packets.begin(), m_packets.end(), std::back_inserter(m_spare));
    m_packets.clear();
}

} // namespace zel::av
