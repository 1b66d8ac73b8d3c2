#include "common/ffmpeg/PictureEncoder.h"

#include <utility>

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
    int sent = avcodec_send_frame(&m_encoder, &picture);
    while (sent == AVERROR(EAGAIN) && receive()) {
        sent = avcodec_send_frame(&m_encoder, &picture);
    }
    while (receive()) {
    }
    if (m_waiting.empty()) {
        return nullptr;
    }
    m_packet.swap(m_waiting.front());
    m_spare = std::move(m_waiting.front());
    m_waiting.pop_front();
    return m_packet.get();
}

bool PictureEncoder::receive()
{
    Packet packet = m_spare ? std::move(m_spare) : makePacket();
    if (avcodec_receive_packet(&m_encoder, packet.get()) < 0) {
        m_spare = std::move(packet);
        return false;
    }
    m_waiting.push_back(std::move(packet));
    return true;
}

} // namespace zel::av
