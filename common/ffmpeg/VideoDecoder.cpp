#include "common/ffmpeg/VideoDecoder.h"

#include <utility>

namespace zel::av {

void VideoDecoder::adopt(CodecContext context)
{
    m_surplus.clear();
    m_context = std::move(context);
}

CodecContext VideoDecoder::release()
{
    m_surplus.clear();
    return std::move(m_context);
}

bool VideoDecoder::decode(const AVPacket& packet, AVFrame* picture)
{
    // An empty packet would start the drain, after which the decoder takes nothing any more.
    if (packet.size > 0 && avcodec_send_packet(m_context.get(), &packet) >= 0) {
        Frame frame = makeFrame();
        while (avcodec_receive_frame(m_context.get(), frame.get()) >= 0) {
            m_surplus.push_back(std::exchange(frame, makeFrame()));
        }
    }
    if (m_surplus.empty()) {
        return false;
    }
    av_frame_unref(picture);
    av_frame_move_ref(picture, m_surplus.front().get());
    m_surplus.pop_front();
    return true;
}

void VideoDecoder::flush()
{
    m_surplus.clear();
    if (m_context && avcodec_is_open(m_context.get()) != 0) {
        avcodec_flush_buffers(m_context.get());
    }
}

} // namespace zel::av
