#pragma once

#include "common/ffmpeg/PresentationOrder.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <memory>

namespace zel::av {

class PictureReader;

/// Finds out when the pictures of a copied stream are shown, where only their decoding times are
/// known: the packets come in the order of decoding, and the time of presentation is the decoding
/// time plus the offset found here.
///
/// It reads the headers of the pictures: the picture order count of H.264, the temporal reference
/// of MPEG-1 and MPEG-2, the time of MPEG-4. These say all that is needed where a stream is read
/// from its beginning; see PresentationOrder for what is assumed where it is not.
///
/// Owner: the encoder stage. Threads: the one that writes to the stage.
class CompositionOffsets
{
public:
    /// @param parameters  codec, set-up data (any form, or none) and size of the copied stream
    /// @return null for a codec of which nothing is known, or which never reorders: 0 for all
    static std::unique_ptr<CompositionOffsets> create(const AVCodecParameters& parameters);

    explicit CompositionOffsets(std::unique_ptr<PictureReader> reader);
    ~CompositionOffsets();
    CompositionOffsets(const CompositionOffsets&) = delete;
    CompositionOffsets& operator=(const CompositionOffsets&) = delete;

    /// @param data  a whole packet: one frame, or one field of it
    /// @return frames between decoding and presentation of this packet, not negative; 0 for a
    ///         packet in which there is no picture. A single field is half a frame
    double next(const unsigned char* data, int size);

    /// After a seek: begins anew at the next packet.
    void reset();

private:
    std::unique_ptr<PictureReader> m_reader;
    PresentationOrder m_order;
};

} // namespace zel::av
