#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/mem.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <memory>
#include <new>

/// Owners for what the FFmpeg libraries allocate. Each frees with the one call that fits.

namespace zel::av {

struct FormatContextDeleter
{
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};

struct CodecContextDeleter
{
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};

struct PacketDeleter
{
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

struct FrameDeleter
{
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};

struct ScalerDeleter
{
    void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};

struct ResamplerDeleter
{
    void operator()(SwrContext* resampler) const { swr_free(&resampler); }
};

struct ParserDeleter
{
    void operator()(AVCodecParserContext* parser) const { av_parser_close(parser); }
};

struct MemoryDeleter
{
    void operator()(void* memory) const { av_free(memory); }
};

using FormatContext = std::unique_ptr<AVFormatContext, FormatContextDeleter>;
using CodecContext = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using Packet = std::unique_ptr<AVPacket, PacketDeleter>;
using Frame = std::unique_ptr<AVFrame, FrameDeleter>;
using Scaler = std::unique_ptr<SwsContext, ScalerDeleter>;
using Resampler = std::unique_ptr<SwrContext, ResamplerDeleter>;
using Parser = std::unique_ptr<AVCodecParserContext, ParserDeleter>;

/// Memory of av_malloc.
template <class T>
using Memory = std::unique_ptr<T, MemoryDeleter>;

/// @throw std::bad_alloc
inline Packet makePacket()
{
    Packet packet(av_packet_alloc());
    if (!packet) {
        throw std::bad_alloc();
    }
    return packet;
}

/// @throw std::bad_alloc
inline Frame makeFrame()
{
    Frame frame(av_frame_alloc());
    if (!frame) {
        throw std::bad_alloc();
    }
    return frame;
}

/// A second reference to the packet's bytes, with its side data.
/// @throw std::bad_alloc
inline Packet clonePacket(const AVPacket& packet)
{
    Packet clone(av_packet_clone(&packet));
    if (!clone) {
        throw std::bad_alloc();
    }
    return clone;
}

/// Whether the picture is a key frame; the field moved between releases of the library.
inline bool isKeyFrame(const AVFrame& frame)
{
#ifdef AV_FRAME_FLAG_KEY
    return (frame.flags & AV_FRAME_FLAG_KEY) != 0;
#else
    return frame.key_frame != 0;
#endif
}

/// Whether the picture consists of two fields; the field moved between releases of the library.
inline bool isInterlaced(const AVFrame& frame)
{
#ifdef AV_FRAME_FLAG_INTERLACED
    return (frame.flags & AV_FRAME_FLAG_INTERLACED) != 0;
#else
    return frame.interlaced_frame != 0;
#endif
}

} // namespace zel::av
