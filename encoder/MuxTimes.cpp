#include "encoder/MuxTimes.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace {

constexpr AVRational Microseconds{1, 1000000};

/// Beginnings of audio and video that lie further apart belong to no common clock.
constexpr long long FarApartUs = 10000000;

/// The stage hands an encoder at most this much of a frame.
constexpr int MaxFrameBytes = 131072;

} // namespace

void MuxTimes::addVideo(const AVCodecParameters& parameters, AVRational frame, bool copied)
{
    m_video.present = true;
    m_video.copied = copied;
    m_frame = frame;
    m_composition = copied ? zel::av::CompositionOffsets::create(parameters) : nullptr;
}

void MuxTimes::addAudio(const AVCodecParameters& parameters, bool copied)
{
    m_audio.present = true;
    m_audio.copied = copied;
    m_audioParameters.reset(avcodec_parameters_alloc());
    avcodec_parameters_copy(m_audioParameters.get(), &parameters);
}

void MuxTimes::begin(AVRational videoTimeBase, AVRational audioTimeBase)
{
    m_video.timeBase = videoTimeBase;
    m_audio.timeBase = audioTimeBase;
    m_video.lastDts.reset();
    m_audio.lastDts.reset();
    m_firstVideoUs.reset();
    m_firstSamplesUs.reset();
    m_audioOrigin.reset();
    m_audioClock.reset();
    if (m_composition) {
        m_composition->reset();
    }
}

void MuxTimes::noteVideo(long long timestampUs, int64_t pts, int64_t firstPts)
{
    if (!m_firstVideoUs) {
        m_firstVideoUs = timestampUs;
        m_videoOriginUs =
            timestampUs - av_rescale_q(pts - firstPts, m_video.timeBase, Microseconds);
        m_firstVideoPts = firstPts;
    }
}

void MuxTimes::noteSamples(long long timestampUs)
{
    if (!m_firstSamplesUs) {
        m_firstSamplesUs = timestampUs;
    }
}

MuxTimes::Stamp MuxTimes::video(const unsigned char* data, int size, int64_t pts)
{
    Stamp stamp;
    stamp.dts = behindLast(m_video, pts);
    const double frameTicks = av_q2d(m_frame) / av_q2d(m_video.timeBase);
    const double offset = m_composition ? m_composition->next(data, size) : 0.0;
    stamp.pts = std::max<int64_t>(pts + std::llround(offset * frameTicks), stamp.dts);
    stamp.duration = std::llround(frameTicks);
    return stamp;
}

MuxTimes::Stamp MuxTimes::audio(int size, int64_t pts, long long timestampUs)
{
    const AVRational sample{1, std::max(m_audioParameters->sample_rate, 1)};
    const int64_t samples = packetSamples(size);
    Stamp stamp;
    stamp.duration = av_rescale_q(samples, sample, m_audio.timeBase);
    if (m_audio.copied) {
        if (!m_audioOrigin) {
            m_audioOrigin = copiedAudioOrigin(pts, timestampUs);
        }
        stamp.dts = pts - *m_audioOrigin;
    } else {
        if (!m_audioClock) {
            m_audioClock = encodedAudioStart(pts, timestampUs);
        }
        stamp.dts = av_rescale_q(*m_audioClock, sample, m_audio.timeBase);
        *m_audioClock += samples;
    }
    stamp.dts = behindLast(m_audio, stamp.dts);
    stamp.pts = stamp.dts;
    return stamp;
}

bool MuxTimes::isNearVideo(long long timestampUs) const
{
    return m_firstVideoUs && std::llabs(timestampUs - *m_firstVideoUs) <= FarApartUs;
}

int64_t MuxTimes::copiedAudioOrigin(int64_t pts, long long timestampUs) const
{
    if (!m_video.present) {
        return 0;
    }
    return isNearVideo(timestampUs)
               ? av_rescale_q(m_firstVideoPts, m_video.timeBase, m_audio.timeBase)
               : pts;
}

int64_t MuxTimes::encodedAudioStart(int64_t pts, long long timestampUs) const
{
    const AVRational sample{1, std::max(m_audioParameters->sample_rate, 1)};
    const long long startUs = m_firstSamplesUs.value_or(timestampUs);
    if (m_video.present) {
        return isNearVideo(startUs) ? av_rescale_q(startUs - m_videoOriginUs, Microseconds, sample)
                                    : 0;
    }
    if (pts == 0) {
        return 0;
    }
    return av_rescale_q(pts, m_audio.timeBase, sample) -
           av_rescale_q(timestampUs - startUs, Microseconds, sample);
}

int64_t MuxTimes::packetSamples(int size) const
{
    const int channels = std::max(m_audioParameters->ch_layout.nb_channels, 1);
    if (!m_audio.copied && m_audioParameters->frame_size > 0) {
        return std::min(m_audioParameters->frame_size, MaxFrameBytes / (channels * 2));
    }
    return std::max(av_get_audio_frame_duration2(m_audioParameters.get(), size), 0);
}

int64_t MuxTimes::behindLast(Stream& stream, int64_t dts)
{
    if (stream.lastDts && dts <= *stream.lastDts) {
        dts = *stream.lastDts + 1;
    }
    stream.lastDts = dts;
    return dts;
}
