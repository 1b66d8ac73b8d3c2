#include "input/FFMpegDecoderCore.h"

#include "common/utils/CBBLog.h"

extern "C" {
#include <libavutil/imgutils.h>
}

using zel::streamer::DecodingMode::Enum;

std::atomic<unsigned int> FFMpegDecoderCore::s_interruptFFMpeg{0};

FFMpegDecoderCore::FFMpegDecoderCore()
    : m_videoPacket(zel::av::makePacket()), m_audioPacket(zel::av::makePacket()),
      m_readPacket(zel::av::makePacket()), m_audioFrame(zel::av::makeFrame())
{
}

FFMpegDecoderCore::~FFMpegDecoderCore()
{
    FFMpegDecoderCore::close();
}

void FFMpegDecoderCore::close()
{
    s_interruptFFMpeg = 1;
    m_interrupted = true;
    const Turn turn(*this);
    {
        const PMutexGuard guard(m_describedLock);
        m_described = Described();
    }
    m_reader.reset();
    m_pipeline.reset();
    m_video.adopt(nullptr);
    m_audioCodec.reset();
    m_codecs.clear();
    m_videoStream = nullptr;
    m_audioStream = nullptr;
    m_formatContext.reset();
    m_io.reset();
    m_openedFromUrl = false;
    m_openedFromStream = false;
    m_demuxing = false;
    freeRescalingContext();
    m_decodedFrame.reset();
    av_freep(static_cast<void*>(&m_audioBuffer));
    m_audioBufferSize = 0;
}

void FFMpegDecoderCore::setDuration(unsigned long long ms)
{
    if (ms == 0 && !needToStartAtZero()) {
        return;
    }
    m_duration = ms;
}

bool FFMpegDecoderCore::needToStartAtZero() const
{
    return static_cast<long long>(m_duration.load()) <= 0;
}

bool FFMpegDecoderCore::skipAudioDecoding()
{
    m_skipAudio = true;
    return true;
}

bool FFMpegDecoderCore::skipVideoDecoding()
{
    m_skipVideo = true;
    return true;
}

bool FFMpegDecoderCore::setVideoDecodingMode(Enum mode)
{
    const PMutexGuard guard(m_describedLock);
    if (!m_described.hasVideo) {
        return false;
    }
    m_decodingMode = mode;
    return true;
}

void FFMpegDecoderCore::getPosition(unsigned long long& ms) const
{
    ms = m_position / 1000;
}

bool FFMpegDecoderCore::allocRescalingContext(unsigned int srcWidth, unsigned int srcHeight,
                                              AVPixelFormat srcFormat, unsigned int dstWidth,
                                              unsigned int dstHeight, AVPixelFormat dstFormat,
                                              int flags)
{
    m_swsContext.reset();
    // swscale ends the process when it is asked for a format of none.
    if (srcFormat != AV_PIX_FMT_NONE && dstFormat != AV_PIX_FMT_NONE) {
        m_swsContext.reset(sws_getContext(static_cast<int>(srcWidth), static_cast<int>(srcHeight),
                                          srcFormat, static_cast<int>(dstWidth),
                                          static_cast<int>(dstHeight), dstFormat, flags, nullptr,
                                          nullptr, nullptr));
    }
    if (!m_swsContext) {
        CBBLog::error("Failed to sws_getContext");
        return false;
    }
    const auto bind = [](zel::av::Frame& frame, zel::av::Memory<unsigned char>& buffer,
                         unsigned int& size, AVPixelFormat format, int width, int height) {
        const int bytes = av_image_get_buffer_size(format, width, height, 1);
        if (!frame) {
            frame = zel::av::makeFrame();
        }
        size = bytes > 0 ? static_cast<unsigned int>(bytes) : 0;
        buffer.reset(static_cast<unsigned char*>(av_malloc(size + PictureSlack)));
        return bytes > 0 && buffer &&
               av_image_fill_arrays(frame->data, frame->linesize, buffer.get(), format, width,
                                    height, 1) >= 0;
    };
    if (!bind(m_sourceFrame, m_sourceBuffer, m_sourceBufferSize, srcFormat,
              static_cast<int>(srcWidth), static_cast<int>(srcHeight)) ||
        !bind(m_scaledFrame, m_scaledBuffer, m_scaledBufferSize, dstFormat,
              static_cast<int>(dstWidth), static_cast<int>(dstHeight))) {
        m_swsContext.reset();
        return false;
    }
    return true;
}

void FFMpegDecoderCore::freeRescalingContext()
{
    m_swsContext.reset();
    m_sourceFrame.reset();
    m_sourceBuffer.reset();
    m_sourceBufferSize = 0;
    m_scaledFrame.reset();
    m_scaledBuffer.reset();
    m_scaledBufferSize = 0;
}
