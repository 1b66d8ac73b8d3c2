#include "common/ffmpeg/AudioResampler.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cstddef>

namespace zel::av {
namespace {

const int DropStepSamples = 4096;

bool isAccepted(int outChannels, int inChannels)
{
    switch (inChannels) {
    case 1:
        return outChannels == 1 || outChannels == 2;
    case 2:
        return outChannels == 1 || outChannels == 2 || outChannels == 6;
    default:
        return false;
    }
}

/// The filter alone; null when the library refuses it.
Resampler makeFilter(int channels, int outRate, int inRate)
{
    AVChannelLayout layout = {};
    av_channel_layout_default(&layout, channels);
    SwrContext* raw = nullptr;
    const int result = swr_alloc_set_opts2(&raw, &layout, AV_SAMPLE_FMT_S16, outRate, &layout,
                                           AV_SAMPLE_FMT_S16, inRate, 0, nullptr);
    av_channel_layout_uninit(&layout);
    Resampler filter(raw);
    if (result < 0 || av_opt_set_int(raw, "filter_size", 16, 0) < 0 ||
        av_opt_set_int(raw, "phase_shift", 10, 0) < 0 ||
        av_opt_set_int(raw, "linear_interp", 0, 0) < 0 ||
        av_opt_set_int(raw, "exact_rational", 0, 0) < 0 ||
        av_opt_set_double(raw, "cutoff", 0.8, 0) < 0 ||
        av_opt_set_int(raw, "flags", SWR_FLAG_RESAMPLE, 0) < 0 || swr_init(raw) < 0) {
        return nullptr;
    }
    return filter;
}

} // namespace

std::unique_ptr<AudioResampler> AudioResampler::create(int outChannels, int inChannels, int outRate,
                                                       int inRate)
{
    if (!isAccepted(outChannels, inChannels) || outRate <= 0 || inRate <= 0) {
        return nullptr;
    }
    Resampler filter = makeFilter(std::min(outChannels, inChannels), outRate, inRate);
    if (!filter) {
        return nullptr;
    }
    return std::unique_ptr<AudioResampler>(
        new AudioResampler(std::move(filter), outChannels, inChannels));
}

AudioResampler::AudioResampler(Resampler filter, int outChannels, int inChannels)
    : m_filter(std::move(filter)), m_outChannels(outChannels), m_inChannels(inChannels),
      m_filterChannels(std::min(outChannels, inChannels))
{
}

int AudioResampler::convert(const int16_t* in, int inSamples, int16_t* out, int outCapacitySamples)
{
    if (in == nullptr || inSamples <= 0 || out == nullptr || outCapacitySamples < 0) {
        return 0;
    }
    const auto* source = reinterpret_cast<const uint8_t*>(mixBefore(in, inSamples));
    auto* target = reinterpret_cast<uint8_t*>(out);
    const int samples =
        swr_convert(m_filter.get(), &target, outCapacitySamples, &source, inSamples);
    if (samples < 0) {
        return 0;
    }
    if (samples == outCapacitySamples) {
        dropRest();
    }
    spreadAfter(out, samples);
    return samples;
}

const int16_t* AudioResampler::mixBefore(const int16_t* in, int inSamples)
{
    if (m_filterChannels == m_inChannels) {
        return in;
    }
    m_mono.resize(static_cast<std::size_t>(inSamples));
    for (int16_t& sample : m_mono) {
        sample = static_cast<int16_t>((in[0] + in[1]) >> 1);
        in += 2;
    }
    return m_mono.data();
}

void AudioResampler::spreadAfter(int16_t* out, int samples) const
{
    if (m_outChannels == m_filterChannels) {
        return;
    }
    // From the end, so that no sample is overwritten before it was read.
    for (std::ptrdiff_t n = samples - 1; n >= 0; --n) {
        if (m_filterChannels == 1) {
            const int16_t sample = out[n];
            out[2 * n] = sample;
            out[2 * n + 1] = sample;
            continue;
        }
        const int16_t left = out[2 * n];
        const int16_t right = out[2 * n + 1];
        int16_t* frame = out + 6 * n;
        frame[0] = left;
        frame[1] = static_cast<int16_t>(left / 2 + right / 2);
        frame[2] = right;
        std::fill(frame + 3, frame + 6, int16_t{0});
    }
}

void AudioResampler::dropRest()
{
    m_dropped.resize(std::size_t{DropStepSamples} * static_cast<std::size_t>(m_filterChannels));
    auto* target = reinterpret_cast<uint8_t*>(m_dropped.data());
    // No samples at a real address: the library takes a null address for the end of the stream.
    const uint8_t* nothing = target;
    while (swr_convert(m_filter.get(), &target, DropStepSamples, &nothing, 0) > 0) {
    }
}

} // namespace zel::av
