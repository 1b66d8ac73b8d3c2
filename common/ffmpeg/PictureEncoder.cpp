#include "common/ffmpeg/PictureEncoder.h"

namespace zel::av {

Frame makePicture(const AVCodecContext& encoder)
{
    Frame picture = makeFrame();
    picture->format = encoder.pix_fmt;
    picture->width = encoder.width;
    picture->height = encoder.height;
    if (av_frame_get_buffer(picture.get(), 0) < 0) {
        return nullptr;
    }
    return picture;
}

bool renewIfShared(AVFrame& picture)
{
    if (av_frame_is_writable(&picture) > 0) {
        return true;
    }
    const Frame fresh(av_frame_alloc());
    if (!fresh) {
        return false;
    }
    fresh->format = picture.format;
    fresh->width = picture.width;
    fresh->height = picture.height;
    if (av_frame_get_buffer(fresh.get(), 0) < 0 || av_frame_copy_props(fresh.get(), &picture) < 0) {
        return false;
    }
    av_frame_unref(&picture);
    av_frame_move_ref(&picture, fresh.get());
    return true;
}

PictureEncoder::PictureEncoder(AVCodecContext& opened) : m_encoder(opened), m_packet(makePacket())
{
}

const AVPacket* PictureEncoder::encode(AVFrame& picture)
{
    av_packet_unref(m_packet.get());
    const int sent = avcodec_send_frame(&m_encoder, &picture);
    if (sent < 0 && sent != AVERROR(EAGAIN)) {
        return nullptr;
    }
    const bool received = avcodec_receive_packet(&m_encoder, m_packet.get()) >= 0;
    if (sent < 0 && received) {
        // An older packet was in the way; the one of this picture comes out at a later call.
        avcodec_send_frame(&m_encoder, &picture);
    }
    return received ? m_packet.get() : nullptr;
}

} // namespace zel::av
