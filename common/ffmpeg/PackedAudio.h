#pragma once

#include "common/ffmpeg/Handles.h"

#include <cstddef>

namespace zel::av {

/// Turns decoded audio into interleaved samples of one width, rate and channels unchanged.
///
/// Owner: the decoder core. Threads: under the core's mutex.
class PackedAudio
{
public:
    /// Bytes that convert() writes for this frame at a width of 8, 16 or 32 bits a sample.
    static std::size_t size(const AVFrame& frame, unsigned int bits);

    /// Writes the frame's samples as unsigned 8 bit, or signed 16 or 32 bit, in native byte order.
    /// Float samples are scaled to the full range, rounded and clipped.
    /// @param out  room for size() bytes
    /// @return bytes written, negative when the frame cannot be converted
    int convert(const AVFrame& frame, unsigned int bits, unsigned char* out);

private:
    bool prepare(const AVFrame& frame, AVSampleFormat outFormat);

    Resampler m_converter;
    int m_format = AV_SAMPLE_FMT_NONE;
    int m_channels = 0;
    int m_sampleRate = 0;
    AVSampleFormat m_outFormat = AV_SAMPLE_FMT_NONE;
};

} // namespace zel::av
