#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/fifo.h>
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

/// For a context that writes; its I/O context has an owner of its own.
struct OutputContextDeleter
{
    void operator()(AVFormatContext* context) const { avformat_free_context(context); }
};

/// For an I/O context of avio_alloc_context, with the buffer that it has by now.
struct IOContextDeleter
{
    void operator()(AVIOContext* context) const
    {
        av_freep(&context->buffer);
        avio_context_free(&context);
    }
};

struct CodecParametersDeleter
{
    void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
};

struct BitstreamFilterDeleter
{
    void operator()(AVBSFContext* filter) const { av_bsf_free(&filter); }
};

struct FifoDeleter
{
    void operator()(AVFifo* fifo) const { av_fifo_freep2(&fifo); }
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
using OutputContext = std::unique_ptr<AVFormatContext, OutputContextDeleter>;
using IOContext = std::unique_ptr<AVIOContext, IOContextDeleter>;
using CodecParameters = std::unique_ptr<AVCodecParameters, CodecParametersDeleter>;
using BitstreamFilter = std::unique_ptr<AVBSFContext, BitstreamFilterDeleter>;
using Fifo = std::unique_ptr<AVFifo, FifoDeleter>;
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
