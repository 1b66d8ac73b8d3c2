#pragma once

#include "common/ffmpeg/Handles.h"

#include <cstdint>
#include <vector>

namespace zel::av {

/// The sample format in which an encoder is to be opened for packed 16-bit audio: s16, s16p or
/// fltp, in this order; the encoder's own first choice when it takes none of them.
AVSampleFormat pickSampleFormat(const AVCodec& codec);

/// One frame of packed signed 16-bit samples in, packets out.
///
/// Gives the encoder its own sample format, whatever it was opened with, and time stamps that run
/// on in samples. An encoder is never drained: what it holds back at the end stays inside.
///
/// Owner: the encoder stage. Threads: the one that writes to the stage.
class AudioFrameEncoder
{
public:
    /// @param opened  an opened audio encoder; not owned, outlives this
    explicit AudioFrameEncoder(AVCodecContext& opened);

    /// Encodes one frame and fetches all that the encoder has ready.
    /// @param interleaved  samples times the encoder's channels
    /// @param samples      for each channel; at most the encoder's frame_size where that is not 0.
    ///                     A shorter frame is filled up with silence, unless the encoder takes it
    /// @return the packets that came, valid until the next call; empty when the encoder holds the
    ///         frame back or refused it
    const std::vector<Packet>& encode(const int16_t* interleaved, int samples);

private:
    bool prepareFrame(int samples);
    bool fillFrame(const int16_t* interleaved, int samples);
    bool prepareConverter();
    bool receive();
    void takeBackPackets();
    /// What the encoder has to be given for this many samples.
    int frameSamples(int samples) const;

    AVCodecContext& m_encoder;
    Resampler m_converter; ///< null while the encoder takes packed 16-bit samples
    Frame m_frame;
    int m_roomSamples = 0; ///< of m_frame's buffers
    int64_t m_sentSamples = 0;
    std::vector<Packet> m_packets;
    std::vector<Packet> m_spare;
};

} // namespace zel::av
