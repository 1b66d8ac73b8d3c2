#pragma once

#include "common/ffmpeg/Handles.h"

#include <deque>

namespace zel::av {

/// Decodes video one packet in, at most one picture out, on the caller's thread.
///
/// Owner: the decoder core. Threads: under the core's mutex.
class VideoDecoder
{
public:
    /// Takes over an opened context, or an unopened one for a stream without decoder.
    void adopt(CodecContext context);
    CodecContext release();
    /// Null before adopt().
    AVCodecContext* context() const { return m_context.get(); }

    /// @return true with a picture in `picture`; false when the packet gives none or is broken
    bool decode(const AVPacket& packet, AVFrame* picture);

    /// Forgets all that is half decoded.
    void flush();

private:
    CodecContext m_context;
    std::deque<Frame> m_surplus; // pictures that came early; each stands for a later packet
};

} // namespace zel::av
