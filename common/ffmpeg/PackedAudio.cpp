#include "common/ffmpeg/PackedAudio.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

#include <cstring>

namespace zel::av {
namespace {

AVSampleFormat packedFormat(unsigned int bits)
{
    switch (bits) {
    case 8:
        return AV_SAMPLE_FMT_U8;
    case 32:
        return AV_SAMPLE_FMT_S32;
    default:
        return AV_SAMPLE_FMT_S16;
    }
}

} // namespace

std::size_t PackedAudio::size(const AVFrame& frame, unsigned int bits)
{
    if (frame.nb_samples <= 0 || frame.ch_layout.nb_channels <= 0) {
        return 0;
    }
    return static_cast<std::size_t>(frame.nb_samples) *
           static_cast<std::size_t>(frame.ch_layout.nb_channels) *
           static_cast<std::size_t>(av_get_bytes_per_sample(packedFormat(bits)));
}

int PackedAudio::convert(const AVFrame& frame, unsigned int bits, unsigned char* out)
{
    const std::size_t bytes = size(frame, bits);
    if (bytes == 0) {
        return 0;
    }
    const AVSampleFormat outFormat = packedFormat(bits);
    if (frame.format == outFormat) {
        std::memcpy(out, frame.extended_data[0], bytes);
        return static_cast<int>(bytes);
    }
    if (!prepare(frame, outFormat)) {
        return AVERROR(EINVAL);
    }
    const int samples =
        swr_convert(m_converter.get(), &out, frame.nb_samples,
                    const_cast<const uint8_t**>(frame.extended_data), frame.nb_samples);
    if (samples < 0) {
        return samples;
    }
    return samples * frame.ch_layout.nb_channels * av_get_bytes_per_sample(outFormat);
}

bool PackedAudio::prepare(const AVFrame& frame, AVSampleFormat outFormat)
{
    const int channels = frame.ch_layout.nb_channels;
    if (m_converter && m_format == frame.format && m_channels == channels &&
        m_sampleRate == frame.sample_rate && m_outFormat == outFormat) {
        return true;
    }
    // The same layout on both sides, so that the channels pass in their order whatever they are.
    AVChannelLayout layout = {};
    av_channel_layout_default(&layout, channels);
    SwrContext* raw = nullptr;
    const int result = swr_alloc_set_opts2(&raw, &layout, outFormat, frame.sample_rate, &layout,
                                           static_cast<AVSampleFormat>(frame.format),
                                           frame.sample_rate, 0, nullptr);
    av_channel_layout_uninit(&layout);
    m_converter.reset(raw);
    if (result < 0 || swr_init(raw) < 0) {
        m_converter.reset();
        return false;
    }
    m_format = frame.format;
    m_channels = channels;
    m_sampleRate = frame.sample_rate;
    m_outFormat = outFormat;
    return true;
}

} // namespace zel::av
