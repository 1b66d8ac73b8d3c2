#include "encoder/FFMpegEncoder.h"

#include "common/ffmpeg/PictureSlices.h"
#include "encoder/BasicMuxer.h"
#include "encoder/FFMpegStreamingProfile.h"

#include <algorithm>
#include <cmath>

/// Raw pictures: preparation, time stamps, encoding.

using zel::streamer::SamplePacket;
using zel::streamer::VideoPacketDescription;
namespace PacketType = zel::streamer::PacketType;
namespace VideoPixelFormat = zel::streamer::VideoPixelFormat;
namespace av = zel::av;

namespace {

/// So many pictures at the beginning and behind a seek are key frames, for a player may set in
/// late.
constexpr unsigned long long ForcedKeyFrames = 11;

constexpr int LoggedSlices = 200;
std::atomic<int> s_slices{0};

/// Turns a picture of four bytes a pixel upside down, in place.
/// Kept: what comes from the upper half arrives below with its last byte in front. Pictures of the
/// source that leaves out its depth have their alpha there.
void turnFourBytePicture(unsigned char* picture, int width, int height)
{
    const std::ptrdiff_t rowBytes = static_cast<std::ptrdiff_t>(width) * 4;
    for (int row = 0; row < height / 2; ++row) {
        unsigned char* upper = picture + rowBytes * row;
        unsigned char* lower = picture + rowBytes * (height - 1 - row);
        for (int pixel = 0; pixel < width; ++pixel, upper += 4, lower += 4) {
            std::swap_ranges(upper, upper + 4, lower);
            std::rotate(lower, lower + 3, lower + 4);
        }
    }
}

} // namespace

void FFMpegEncoder::encodeVideoPacket(SamplePacket& packet)
{
    if (!m_videoStream || !m_videoStream->context || !m_picture) {
        return;
    }
    if (!drawPicture(packet)) {
        return;
    }
    const unsigned long long timestamp = packet.getTimestamp();
    if (timestamp == SamplePacket::NoTimestamp) {
        CBBLog::warn("FFMpegEncoder::encodeVideoPacket : dropping raw packet without time stamp");
        return;
    }
    if (m_videoSeekPending) {
        m_videoTsOffset =
            m_profile->outputStream()->isRTP() ? static_cast<long long>(timestamp) - m_videoTs : 0;
        m_frameCountAtSeek = m_frameCount;
        m_videoSeekPending = false;
    }
    if (timestamp < m_seekOffset) {
        CBBLog::warn("FFMpegEncoder::encodeVideoPacket : dropping raw packet, below seek offset "
                     "%lld < %lld",
                     static_cast<long long>(timestamp), static_cast<long long>(m_seekOffset));
        return;
    }
    stampPicture(timestamp);
    m_picture->pict_type = isForcedKeyFrame() ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    ++m_frameCount;
    if (m_picture->pts == m_lastPts && m_lastPts > 0) {
        if (!m_profile->sameFrameRate()) {
            return;
        }
        ++m_picture->pts;
    }
    m_lastPts = m_picture->pts;
    doEncodeVideo(*m_videoStream, static_cast<long long>(timestamp));
}

bool FFMpegEncoder::drawPicture(SamplePacket& packet)
{
    const VideoPacketDescription& source = *m_profile->inputStream()->getVideo();
    const VideoPixelFormat::Enum format = source.getPixelFormat();
    if (format < VideoPixelFormat::RGB24 || format > VideoPixelFormat::YUYV422) {
        return false;
    }
    const av::PackedPictureScaler::Shape from{
        FFMpegStreamingProfile::zelToFFmpegPixelFormat(format), source.getWidth(),
        source.getHeight()};
    if (!m_swsContext || !(m_swsContext->source() == from)) {
        const AVCodecContext& encoder = *m_videoStream->context;
        m_swsContext =
            av::PackedPictureScaler::create(from, {encoder.pix_fmt, encoder.width, encoder.height});
        if (!m_swsContext) {
            CBBLog::error("FFMpegEncoder::encodeVideoPacket : m_swsContext failed to init");
            return false;
        }
    }
    const std::span<unsigned char> picture(
        packet.getBuffer(), static_cast<std::size_t>(std::max(packet.getLength(), 0)));
    if (picture.data() == nullptr || picture.size() < m_swsContext->sourceBytes()) {
        CBBLog::warn("FFMpegEncoder::encodeVideoPacket : dropping raw packet, too short %d",
                     packet.getLength());
        return false;
    }
    const bool isTurned = source.getBitsPerPixel() == 0 && format <= VideoPixelFormat::RGBA;
    const bool hasFourBytes = format == VideoPixelFormat::BGRA || format == VideoPixelFormat::RGBA;
    if (isTurned && hasFourBytes) {
        turnFourBytePicture(picture.data(), from.width, from.height);
    }
    // An encoder may still refer to the picture before; it is drawn anew, not copied.
    return av::renewIfShared(*m_picture) &&
           m_swsContext->scale(picture, isTurned && !hasFourBytes, *m_picture);
}

void FFMpegEncoder::stampPicture(unsigned long long timestamp)
{
    const double frameSeconds = av_q2d(m_videoStream->timeBase());
    m_videoTs = static_cast<long long>(timestamp) - m_videoTsOffset;
    m_frameDuration = static_cast<int>(frameSeconds * 1000000);
    if (m_firstVideoTs < 0) {
        m_firstVideoTs = m_videoTs;
    }
    m_videoTs -= m_firstVideoTs;
    m_picture->pts = std::llround(static_cast<double>(m_videoTs) / frameSeconds / 1000000);
}

bool FFMpegEncoder::isForcedKeyFrame() const
{
    const int gopSize = m_videoStream->context->gop_size;
    return m_picture->pts == 0 ||
           (gopSize > 0 && m_frameCount % static_cast<unsigned int>(gopSize) == 0) ||
           m_frameCount - m_frameCountAtSeek < ForcedKeyFrames;
}

void FFMpegEncoder::doEncodeVideo(EncoderStream& stream, const long long& timestamp)
{
    const AVPacket* encoded = stream.pictures->encode(*m_picture);
    if (encoded == nullptr) {
        return;
    }
    const auto& output = *m_profile->outputStream();
    const bool isKeyFrame = (encoded->flags & AV_PKT_FLAG_KEY) != 0;
    if (output.isRTP()) {
        m_sliceIsKeyFrame = isKeyFrame;
        const std::span<const unsigned char> bytes(encoded->data,
                                                   static_cast<std::size_t>(encoded->size));
        for (const auto& slice :
             av::slicePicture(stream.encoder->id, bytes, stream.video.rtpPayloadSize)) {
            RTPCallback(stream.context.get(), slice.data(), static_cast<int>(slice.size()), 0);
        }
        m_videoEncoded = true;
        return;
    }
    if (!output.isMultiplexed()) {
        const double timestampUs =
            av_q2d(stream.timeBase()) * 1000000 * static_cast<double>(encoded->pts);
        // Kept: m_videoEncoded stays clear for this output, so a seek leaves the muxer alone.
        pushCopy(PacketType::Video, encoded->data, encoded->size,
                 static_cast<unsigned long long>(std::llround(timestampUs)), 0, isKeyFrame);
        return;
    }
    const long long pts =
        av_rescale_q(encoded->pts, stream.timeBase(), m_muxer->timeBaseOf(AVMEDIA_TYPE_VIDEO));
    m_muxer->writeVideoPacket(encoded->data, static_cast<unsigned int>(encoded->size), pts,
                              timestamp, isKeyFrame);
    m_videoEncoded = true;
}

void FFMpegEncoder::RTPCallback(AVCodecContext* context, const void* data, int size,
                                int /*mbCount*/)
{
    static_cast<FFMpegEncoder*>(context->opaque)
        ->deliverSlice(static_cast<const unsigned char*>(data), size);
}

void FFMpegEncoder::deliverSlice(const unsigned char* data, int size)
{
    if (s_slices < LoggedSlices) {
        CBBLog::debug("RTP Video Callback %d : %lld - %lld - %d - %d", ++s_slices, m_videoTs,
                      static_cast<long long>(m_frameDuration), m_sliceIsKeyFrame ? 1 : 0, size);
    }
    pushCopy(PacketType::Video, data, size, static_cast<unsigned long long>(m_videoTs),
             static_cast<unsigned long long>(m_frameDuration), m_sliceIsKeyFrame);
}
