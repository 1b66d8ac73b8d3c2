#include "input/FFMpegDecoderCore.h"

#include "common/ffmpeg/Deinterlacer.h"
#include "common/utils/CBBLog.h"
#include "plugin/Vocabulary.h"

extern "C" {
#include <libavutil/imgutils.h>
}

#include <algorithm>
#include <cstring>

using zel::streamer::DecodingMode::Enum;
namespace DecodingMode = zel::streamer::DecodingMode;

namespace {

AVDiscard discardOf(Enum mode)
{
    switch (mode) {
    case DecodingMode::KeyFramesOnly:
        return AVDISCARD_NONKEY;
    case DecodingMode::None:
        return AVDISCARD_ALL;
    default:
        return AVDISCARD_DEFAULT;
    }
}

bool hasValue(unsigned long long stamp)
{
    return stamp != zel::streamer::SamplePacket::NoTimestamp;
}

} // namespace

bool FFMpegDecoderCore::decodeVideoPacket(const unsigned char* in, unsigned int inSize,
                                          unsigned char*& data, unsigned int& size,
                                          unsigned long long& timestamp,
                                          unsigned long long& duration, void*& context,
                                          bool& keyFrame)
{
    if (m_videoStream == nullptr || !wrapBytes(m_videoPacket.get(), in, inSize)) {
        return false;
    }
    Sample sample;
    sample.timestamp = timestamp;
    sample.duration = duration;
    sample.keyFrame = keyFrame;
    const bool done = decodeVideo(*m_videoPacket, sample);
    av_packet_unref(m_videoPacket.get());
    timestamp = sample.timestamp;
    duration = sample.duration;
    keyFrame = sample.keyFrame;
    if (!done) {
        return false;
    }
    data = sample.data.release();
    size = sample.size;
    context = nullptr;
    return true;
}

/// Copies bytes that came without a packet into one, with the padding that decoders read into.
bool FFMpegDecoderCore::wrapBytes(AVPacket* packet, const unsigned char* in, unsigned int inSize)
{
    av_packet_unref(packet);
    if (in == nullptr || inSize > static_cast<unsigned int>(INT32_MAX) ||
        av_new_packet(packet, static_cast<int>(inSize)) < 0) {
        return false;
    }
    std::memcpy(packet->data, in, inSize);
    return true;
}

/// Makes a picture, or the packet itself where video is copied, and its stamps in microseconds.
bool FFMpegDecoderCore::decodeVideo(const AVPacket& packet, Sample& sample)
{
    if (m_skipVideo) {
        return passVideo(packet, sample);
    }
    if (!decodePicture(packet)) {
        return false;
    }
    void* deinterlaced = nullptr;
    if (zel::av::isInterlaced(*m_decodedFrame)) {
        deinterlacePicture(m_videoStream, m_decodedFrame.get(), &deinterlaced);
    }
    const zel::av::Memory<void> deinterlacedOwner(deinterlaced);
    const bool canScale = preparePictureScaler();
    sample.keyFrame = zel::av::isKeyFrame(*m_decodedFrame);
    stampPicture(sample);
    ++m_frameCounter;
    if (sample.timestamp < m_streamOffset) {
        CBBLog::debug("FFMpegDecoderCore::decodeVideoPacket : timestamp out of range compared to "
                      "stream offset, discard %lld %lld",
                      static_cast<long long>(sample.timestamp),
                      static_cast<long long>(m_streamOffset));
        return false;
    }
    return canScale && scalePicture(sample);
}

bool FFMpegDecoderCore::passVideo(const AVPacket& packet, Sample& sample)
{
    sample.size = static_cast<unsigned int>(packet.size);
    sample.data.reset(new unsigned char[sample.size + AV_INPUT_BUFFER_PADDING_SIZE]);
    if (sample.size > 0) {
        std::memcpy(sample.data.get(), packet.data, sample.size);
    }
    std::memset(sample.data.get() + sample.size, 0, AV_INPUT_BUFFER_PADDING_SIZE);
    const AVRational timeBase = m_videoStream->time_base;
    sample.timestamp = streamTimeToUs(sample.timestamp, timeBase);
    const int64_t start = m_formatContext ? m_formatContext->start_time : 0;
    if (start != 0 && start != AV_NOPTS_VALUE) {
        // Kept: a factor of a thousand on microseconds. Players of copied streams are used to the
        // small shift that comes out.
        const auto offset = static_cast<long long>(
            static_cast<double>(timeBase.num) / timeBase.den * 1000.0 * static_cast<double>(start));
        if (offset > 0) {
            const auto shift = static_cast<unsigned long long>(offset);
            sample.timestamp = sample.timestamp < shift ? 0 : sample.timestamp - shift;
        }
    }
    sample.duration = streamTimeToUs(sample.duration, timeBase);
    ++m_frameCounter;
    return true;
}

/// Decodes one packet into m_decodedFrame.
bool FFMpegDecoderCore::decodePicture(const AVPacket& packet)
{
    const Enum mode = m_decodingMode;
    if (m_pipeline) {
        const auto answer = mode == DecodingMode::All
                                ? m_pipeline->decode(packet, *m_reader, m_decodedFrame.get())
                                : zel::av::VideoPipeline::Answer::Unsure;
        if (answer != zel::av::VideoPipeline::Answer::Unsure) {
            return answer == zel::av::VideoPipeline::Answer::Picture;
        }
        if (zel::av::CodecContext context = m_pipeline->retreat()) {
            m_video.adopt(std::move(context));
        }
        m_pipeline.reset();
    }
    AVCodecContext* codec = m_video.context();
    if (codec == nullptr || avcodec_is_open(codec) == 0) {
        return false;
    }
    codec->skip_frame = discardOf(mode);
    return m_video.decode(packet, m_decodedFrame.get());
}

void FFMpegDecoderCore::deinterlacePicture(AVStream* /*stream*/, AVFrame* picture, void** buffer)
{
    *buffer = nullptr;
    const auto format = static_cast<AVPixelFormat>(picture->format);
    const int bytes = av_image_get_buffer_size(format, picture->width, picture->height, 1);
    if (bytes <= 0) {
        return;
    }
    zel::av::Memory<unsigned char> memory(
        static_cast<unsigned char*>(av_malloc(static_cast<std::size_t>(bytes) + PictureSlack)));
    uint8_t* planes[4] = {};
    int strides[4] = {};
    if (!memory || av_image_fill_arrays(planes, strides, memory.get(), format, picture->width,
                                        picture->height, 1) < 0) {
        return;
    }
    if (zel::av::deinterlace(planes, strides, picture->data, picture->linesize, format,
                             picture->width, picture->height) < 0) {
        return;
    }
    std::copy(std::begin(planes), std::end(planes), picture->data);
    std::copy(std::begin(strides), std::end(strides), picture->linesize);
    *buffer = memory.release();
}

/// Sees to it that the scaler reads pictures like the present one. The output never changes.
bool FFMpegDecoderCore::preparePictureScaler()
{
    const auto width = static_cast<unsigned int>(m_decodedFrame->width);
    const auto height = static_cast<unsigned int>(m_decodedFrame->height);
    const auto format = static_cast<AVPixelFormat>(m_decodedFrame->format);
    if (m_swsContext && width == m_srcWidth && height == m_srcHeight &&
        format == m_srcPixelFormat) {
        return true;
    }
    m_srcWidth = width;
    m_srcHeight = height;
    m_srcPixelFormat = format;
    const bool ready = allocRescalingContext(
        width, height, format, m_outWidth, m_outHeight,
        zel::streamer::zelToFFmpegPixelFormat(m_outPixelFormat), m_scaleFlags);
    publishDescription();
    return ready;
}

void FFMpegDecoderCore::stampPicture(Sample& sample)
{
    const auto counter = static_cast<double>(m_frameCounter);
    if (m_generateTimestamps) {
        const double frame = m_fps > 0.0 ? 1.0 / m_fps : 0.0;
        sample.timestamp = static_cast<unsigned long long>(frame * counter * 1000000.0);
        sample.duration = m_fps > 0.0 ? static_cast<unsigned long long>(1000000.0 / m_fps) : 0;
        return;
    }
    if (!m_ignorePacketTime && hasValue(sample.timestamp)) {
        sample.timestamp = streamTimeToUs(sample.timestamp, m_videoStream->time_base);
        sample.duration = streamTimeToUs(sample.duration, m_videoStream->time_base);
        return;
    }
    const AVRational timeBase = videoCodecTimeBase(m_videoStream, videoCodec());
    const double frame = timeBase.den != 0 ? static_cast<double>(timeBase.num) / timeBase.den : 0.0;
    sample.timestamp = static_cast<unsigned long long>(frame * counter * 1000000.0);
    // Kept: milliseconds, in this one case; hosts pace such streams by the time stamp alone.
    sample.duration = static_cast<unsigned long long>(frame * 1000.0);
}

/// Scales straight into the array that the caller gets, while decoder threads go on.
bool FFMpegDecoderCore::scalePicture(Sample& sample)
{
    sample.size = m_scaledBufferSize;
    sample.data.reset(new unsigned char[sample.size + PictureSlack]);
    uint8_t* planes[4] = {};
    int strides[4] = {};
    if (av_image_fill_arrays(planes, strides, sample.data.get(),
                             zel::streamer::zelToFFmpegPixelFormat(m_outPixelFormat),
                             static_cast<int>(m_outWidth), static_cast<int>(m_outHeight), 1) < 0) {
        return false;
    }
    sws_scale(m_swsContext.get(), m_decodedFrame->data, m_decodedFrame->linesize, 0,
              static_cast<int>(m_srcHeight), planes, strides);
    return true;
}

bool FFMpegDecoderCore::rescaleVideoPacket(const unsigned char* in, unsigned int inSize,
                                           unsigned char*& data, unsigned int& size,
                                           unsigned long long& /*timestamp*/,
                                           unsigned long long& /*duration*/, void*& /*context*/)
{
    if (!m_swsContext || in == nullptr) {
        return false;
    }
    // A packet smaller than a picture is never read beyond its end.
    std::memcpy(m_sourceBuffer.get(), in, std::min(inSize, m_sourceBufferSize));
    sws_scale(m_swsContext.get(), m_sourceFrame->data, m_sourceFrame->linesize, 0,
              static_cast<int>(m_srcHeight), m_scaledFrame->data, m_scaledFrame->linesize);
    size = m_scaledBufferSize;
    data = new unsigned char[size];
    std::memcpy(data, m_scaledBuffer.get(), size);
    return true;
}
