#pragma once

#include "common/ffmpeg/Handles.h"

#include <deque>

namespace zel::av {

/// A picture with memory of its own in the size and pixel format of an encoder, lines aligned for
/// the scaler.
/// @return null when size or format make no picture
/// @throw std::bad_alloc
Frame makePicture(const AVCodecContext& encoder);

/// Gives a picture new memory where an encoder still refers to the old, so that it can be drawn
/// anew. The old contents are not copied; time stamp and picture type stay.
/// @return false when there is no memory; the picture is then as it was
bool renewIfShared(AVFrame& picture);

/// One picture in, at most one packet out, in the encoder's order.
///
/// Made for encoders that hold nothing back. One that does is never drained: what it holds at the
/// end stays inside.
///
/// Owner: the encoder stage. Threads: the one that writes to the stage.
class PictureEncoder
{
public:
    /// @param opened  an opened video encoder; not owned, outlives this
    explicit PictureEncoder(AVCodecContext& opened);

    /// @return the packet, valid until the next call; null when the encoder buffers the picture or
    ///         refuses it, as it does where the time stamp does not grow
    const AVPacket* encode(AVFrame& picture);

private:
    bool receive();

    AVCodecContext& m_encoder;
    Packet m_packet;              ///< the one that the caller reads
    std::deque<Packet> m_waiting; ///< came beside it; empty with encoders that hold nothing back
    Packet m_spare;
};

} // namespace zel::av
