#include "encoder/MuxTimes.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace {

constexpr AVRational Microseconds{1, 1000000};

/// Audio and video that lie further apart belong to no common clock.
constexpr long long FarApartUs = 10000000;

/// Samples that come so much later than they are due have some missing in front of them. Less is
/// the rounding of time stamps, and nobody hears it.
constexpr double GapUs = 30000.0;

/// Samples that come so much earlier than they are due belong to a clock that was set back.
constexpr double OverlapUs = 1000000.0;

/// Beyond these lie no times of a medium, and sums of them would overflow.
constexpr long long MostUs = 1LL << 59;
constexpr int64_t MostTicks = 1LL << 50;

long long boundedUs(long long timeUs)
{
    return std::clamp(timeUs, -MostUs, MostUs);
}

int64_t boundedTicks(int64_t ticks)
{
    return std::clamp(ticks, -MostTicks, MostTicks);
}

/// So far one stream may run ahead before libavformat stops waiting for the other, and some less.
constexpr long long MostInterleavedUs = 9000000;

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

void MuxTimes::begin(AVRational videoTimeBase, AVRational audioTimeBase, bool isOrdered)
{
    m_video.timeBase = videoTimeBase;
    m_audio.timeBase = audioTimeBase;
    m_video.lastDts.reset();
    m_audio.lastDts.reset();
    m_videoPassed = Passed();
    m_spacings = Spacings();
    m_latestUs = std::numeric_limits<int32_t>::min();
    m_floorUs = std::numeric_limits<int32_t>::min();
    m_isOrdered = isOrdered;
    m_audioPassed = Passed();
    m_videoStart = 0;
    m_videoStartUs = 0;
    m_videoShift = 0;
    m_firstSamplesUs.reset();
    m_missingUs = 0;
    m_audioZeroUs.reset();
    m_audioClock.reset();
    if (m_composition) {
        m_composition->reset();
    }
}

void MuxTimes::Passed::note(long long timestampUs)
{
    firstUs = firstUs.value_or(timestampUs);
    lastUs = timestampUs;
}

bool MuxTimes::Passed::isNear(long long timestampUs) const
{
    // A stream may begin late; then it is near to where the other has come to meanwhile.
    return firstUs && (std::llabs(timestampUs - *firstUs) <= FarApartUs ||
                       std::llabs(timestampUs - lastUs) <= FarApartUs);
}

void MuxTimes::noteVideo(long long timestampUs, int64_t pts, int64_t firstPts)
{
    timestampUs = boundedUs(timestampUs);
    if (!m_videoPassed.firstUs) {
        beginVideo(timestampUs, boundedTicks(pts) - boundedTicks(firstPts));
    } else if (m_video.copied && timestampUs > m_videoPassed.lastUs) {
        m_spacings.note(timestampUs - m_videoPassed.lastUs);
    }
    m_videoPassed.note(timestampUs);
}

void MuxTimes::beginVideo(long long timestampUs, int64_t pts)
{
    m_videoStart = pts;
    if (m_audioZeroUs && m_audioPassed.isNear(timestampUs)) {
        // So late that audio was not held back for it: it joins where the medium has it.
        m_videoStart = std::max<int64_t>(
            av_rescale_q(timestampUs - *m_audioZeroUs, Microseconds, m_video.timeBase), 0);
    }
    m_videoShift = m_videoStart - pts;
    m_videoStartUs = av_rescale_q(m_videoStart, m_video.timeBase, Microseconds);
}

void MuxTimes::noteSamples(long long timestampUs, double durationUs)
{
    timestampUs = boundedUs(timestampUs);
    if (!m_firstSamplesUs) {
        m_firstSamplesUs = timestampUs;
        m_nextSamplesUs = static_cast<double>(timestampUs);
    }
    const double aheadUs = static_cast<double>(timestampUs) - m_nextSamplesUs;
    if (aheadUs > GapUs || aheadUs < -OverlapUs) {
        // Beside video, what follows would come too early for the rest of the stream.
        const double missingUs = m_video.present && aheadUs > 0.0 ? aheadUs : 0.0;
        m_missingUs = boundedUs(m_missingUs + std::llround(missingUs));
        m_nextSamplesUs = static_cast<double>(timestampUs);
    }
    m_nextSamplesUs += durationUs;
}

bool MuxTimes::Spacings::hasNear(double distanceUs) const
{
    return std::any_of(us.begin(), us.end(), [distanceUs](long long noted) {
        return std::abs(static_cast<double>(noted) - distanceUs) < distanceUs / 4;
    });
}

long long MuxTimes::Spacings::medianUs() const
{
    std::array<long long, 9> sorted = us;
    const auto end = sorted.begin() + static_cast<std::ptrdiff_t>(std::min(count, us.size()));
    std::sort(sorted.begin(), end);
    return sorted[static_cast<std::size_t>(end - sorted.begin()) / 2];
}

double MuxTimes::frameTicks() const
{
    const double told = av_q2d(m_frame);
    const bool isBelieved = m_spacings.count == 0 || m_spacings.hasNear(told * 1e6);
    const double seconds = isBelieved ? told : static_cast<double>(m_spacings.medianUs()) / 1e6;
    return seconds / av_q2d(m_video.timeBase);
}

MuxTimes::Stamp MuxTimes::video(const unsigned char* data, int size, int64_t pts,
                                long long timestampUs)
{
    const double ticks = frameTicks();
    const double offset = m_composition ? m_composition->next(data, size) : 0.0;
    int64_t dts = boundedTicks(pts) + m_videoShift;
    if (m_video.copied && m_videoPassed.firstUs) {
        dts = m_videoStart + av_rescale_q(boundedUs(timestampUs) - *m_videoPassed.firstUs,
                                          Microseconds, m_video.timeBase);
    }
    Stamp stamp;
    stamp.pts = dts + std::llround(offset * ticks);
    stamp.dts = behindLast(m_video, dts);
    stamp.pts = std::max(stamp.pts, stamp.dts);
    stamp.duration = std::llround(ticks);
    return stamp;
}

MuxTimes::Stamp MuxTimes::audio(int size, int64_t pts, long long timestampUs)
{
    pts = boundedTicks(pts);
    timestampUs = boundedUs(timestampUs);
    const AVRational sample{1, std::max(m_audioParameters->sample_rate, 1)};
    const int64_t samples = packetSamples(size);
    Stamp stamp;
    stamp.duration = av_rescale_q(samples, sample, m_audio.timeBase);
    if (m_audio.copied) {
        stamp.dts = copiedAudio(pts, timestampUs);
    } else {
        if (!m_audioClock) {
            m_audioClock = encodedAudioStart(pts, timestampUs);
        }
        stamp.dts = av_rescale_q(*m_audioClock, sample, m_audio.timeBase) +
                    av_rescale_q(m_missingUs, Microseconds, m_audio.timeBase);
        *m_audioClock += samples;
    }
    m_audioPassed.note(timestampUs);
    stamp.dts = behindLast(m_audio, stamp.dts);
    stamp.pts = stamp.dts;
    return stamp;
}

/// @param startUs  time in the medium of the first sample
long long MuxTimes::audioZero(long long startUs) const
{
    if (!m_videoPassed.firstUs) {
        return startUs; // video is late, and will find its place by this
    }
    const long long beginning = m_videoPassed.isNear(startUs) ? *m_videoPassed.firstUs : startUs;
    return beginning - m_videoStartUs;
}

int64_t MuxTimes::copiedAudio(int64_t pts, long long timestampUs)
{
    if (!m_video.present) {
        return pts;
    }
    if (!m_audioZeroUs) {
        m_audioZeroUs = audioZero(timestampUs);
    }
    return pts - av_rescale_q(*m_audioZeroUs, Microseconds, m_audio.timeBase);
}

int64_t MuxTimes::encodedAudioStart(int64_t pts, long long timestampUs)
{
    const AVRational sample{1, std::max(m_audioParameters->sample_rate, 1)};
    const long long startUs = m_firstSamplesUs.value_or(timestampUs);
    if (m_video.present) {
        m_audioZeroUs = audioZero(startUs);
        return av_rescale_q(startUs - *m_audioZeroUs, Microseconds, sample);
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
    if (m_isOrdered) {
        const long long floorUs = std::max(m_floorUs, m_latestUs - MostInterleavedUs);
        dts = std::max(dts, av_rescale_q(floorUs, Microseconds, stream.timeBase));
    }
    if (stream.lastDts && dts <= *stream.lastDts) {
        dts = *stream.lastDts + 1;
    }
    stream.lastDts = dts;
    m_latestUs = std::max<long long>(m_latestUs, av_rescale_q(dts, stream.timeBase, Microseconds));
    return dts;
}
