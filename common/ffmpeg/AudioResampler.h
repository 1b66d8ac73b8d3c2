#pragma once

#include "common/ffmpeg/Handles.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace zel::av {

/// Changes rate and number of channels of packed signed 16-bit samples, channels interleaved.
///
/// Keeps the tail of each call for the next one, so that a stream may come in pieces of any size;
/// the first call gives some samples less than the rates say. The tail of the last call stays
/// inside. A polyphase filter of 16 taps and 1024 phases with its cut-off at 0.8 runs at equal
/// rates too.
///
/// Owner: a stage. Threads: the one that writes to the stage.
class AudioResampler
{
public:
    /// @return null when this pair is refused: 1 channel becomes 1 or 2, 2 channels become 1, 2 or
    ///         6; rates are above 0, in a ratio that the filter can be built for
    static std::unique_ptr<AudioResampler> create(int outChannels, int inChannels, int outRate,
                                                  int inRate);

    /// Converts the next piece of the stream. Samples are counted for each channel.
    /// @param out  room for outCapacitySamples times the channels; what goes beyond is dropped
    /// @return samples written, at most outCapacitySamples; 0 when nothing came or on a failure
    int convert(const int16_t* in, int inSamples, int16_t* out, int outCapacitySamples);

private:
    AudioResampler(Resampler filter, int outChannels, int inChannels);

    /// Stereo becomes mono before the filter when mono is wanted.
    const int16_t* mixBefore(const int16_t* in, int inSamples);
    /// Filtered samples become the wanted channels, in place.
    void spreadAfter(int16_t* out, int samples) const;
    /// Takes out of the filter what had no room.
    void dropRest();

    Resampler m_filter;
    int m_outChannels;
    int m_inChannels;
    int m_filterChannels; ///< the smaller number, at most 2
    std::vector<int16_t> m_mono;
    std::vector<int16_t> m_dropped;
};

} // namespace zel::av
