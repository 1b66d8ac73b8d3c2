#include "encoder/FFMpegEncoder.h"

#include "common/ffmpeg/EncoderNames.h"
#include "encoder/BasicMuxer.h"
#include "encoder/FFMpegStreamingProfile.h"
#include "encoder/MpegTSSegmentedMuxer.h"
#include "encoder/PacketQueue.h"

extern "C" {
#include <libavutil/log.h>
}

/// How the stage makes muxer, streams and queue of a session.

using zel::streamer::InterleavedPacketQueue;
using zel::streamer::MapGeneric;
using zel::streamer::OutputStreamDescription;
using zel::streamer::PacketQueue;
namespace Result = zel::streamer::Result;
namespace av = zel::av;

namespace {

constexpr unsigned int QueuePackets = 1000;
constexpr unsigned int QueueBytes = 1000000;
constexpr std::size_t ResampleSamples = 524288 / sizeof(int16_t);
constexpr std::size_t FrameSamples = 131072 / sizeof(int16_t);

/// Copied H.264 goes by this name; there is no encoder behind it.
constexpr const char* CopiedH264 = "h264Empty";

} // namespace

void FFMpegEncoder::ffencoder_log_callback(void* /*object*/, int /*level*/, const char* /*format*/,
                                           va_list /*arguments*/)
{
}

int FFMpegEncoder::initFFMpeg(OutputStreamDescription* out)
{
    av_log_set_level(AV_LOG_DEBUG);
    av_log_set_callback(&ffencoder_log_callback);
    deleteMuxer();
    const MapGeneric* options = m_profile->options();
    const char* method = options != nullptr ? options->get("MpegTSMethod") : nullptr;
    const bool isSegmented =
        CStdStr<char>(out->getFormat()) == "mpegts" && CStdStr<char>(method) == "segmented";
    if (isSegmented) {
        m_muxer = new MpegTSSegmentedMuxer(this, m_profile);
    } else {
        m_muxer = new BasicMuxer(this, m_profile);
    }
    const int contextResult = m_muxer->initOutputContext();
    if (contextResult != 0) {
        CBBLog::error("FFMpegEncoder<%d>::initFFMpegContext() init output context failed %d", m_id,
                      contextResult);
        deleteMuxer();
        return contextResult;
    }
    m_audioSampleCount = 0;
    const int streamResult = addStreams(*out);
    if (streamResult != 0) {
        deleteMuxer();
        return streamResult;
    }
    makeQueue(out->isRTP());
    publishFacts();
    return 0;
}

int FFMpegEncoder::addStreams(const OutputStreamDescription& out)
{
    const OutputStreamDescription& in = *m_profile->inputStream();
    const auto* audio = out.getAudio();
    const auto* video = out.getVideo();
    if (out.hasAudio() && in.hasAudio() && audio != nullptr && in.getAudio() != nullptr) {
        m_audioStream = addNewStream(audio->getCodec(), AVMEDIA_TYPE_AUDIO,
                                     m_profile->audioPassthrough(), m_profile->fallbackStream());
    }
    if (out.hasVideo() && in.hasVideo() && video != nullptr && in.getVideo() != nullptr) {
        const CStdStr<char> codec(video->getCodec());
        if (ssicmp(codec.c_str(), CopiedH264) == 0 && !m_profile->videoPassthrough()) {
            return Result::NotPossible;
        }
        m_videoStream = addNewStream(codec, AVMEDIA_TYPE_VIDEO, m_profile->videoPassthrough(),
                                     m_profile->fallbackStream());
    }
    return m_audioStream || m_videoStream ? 0 : Result::NotPossible;
}

std::unique_ptr<EncoderStream>
FFMpegEncoder::addNewStream(const CStdStr<char>& codec, AVMediaType type, bool copy, bool fallback)
{
    if (codec.empty() || ssicmp(codec.c_str(), "none") == 0) {
        return nullptr;
    }
    auto stream = std::make_unique<EncoderStream>();
    stream->type = type;
    stream->copied = copy;
    stream->owner = this;
    stream->encoder = av::findEncoder(codec.c_str());
    if (stream->encoder == nullptr && ssicmp(codec.c_str(), CopiedH264) != 0) {
        CBBLog::error("FFMpegEncoder::addNewStream : codec not found %s", codec.c_str());
        return nullptr;
    }
    settle(*stream, fallback);
    const int result = stream->open();
    if (result < 0) {
        CBBLog::error("FFMpegEncoder::addNewStream : avcodec_open failed %s : %d", codec.c_str(),
                      result);
        return nullptr;
    }
    const bool isAudio = type == AVMEDIA_TYPE_AUDIO;
    {
        const CStdStr<char> config = factsOf(*stream).extradata;
        const PMutexGuard description(m_descriptionLock);
        if (isAudio) {
            m_profile->setAudioFormatConfig(config.c_str());
        } else {
            m_profile->setVideoFormatConfig(config.c_str());
        }
    }
    const auto& privateData = isAudio ? m_audioPrivateData : m_videoPrivateData;
    if (copy && !privateData.empty()) {
        stream->setExtradata(privateData);
    }
    if (m_muxer->addStream(*stream) < 0) {
        CBBLog::error("FFMpegEncoder::addNewStream : av_new_stream failed %s", codec.c_str());
        return nullptr;
    }
    if (!isAudio && !copy) {
        m_picture = av::makePicture(*stream->context);
        if (!m_picture) {
            CBBLog::error("FFMpegEncoder::adjustVideoCodecValues() : avpicture_alloc() failed");
        }
    }
    if (isAudio && !copy) {
        m_resampleBuffer = std::make_unique<int16_t[]>(ResampleSamples);
        m_audioFrameBuffer = std::make_unique<int16_t[]>(FrameSamples);
    }
    return stream;
}

void FFMpegEncoder::settle(EncoderStream& stream, bool fallback) const
{
    const AVCodecID codec = stream.encoder != nullptr ? stream.encoder->id : AV_CODEC_ID_H264;
    if (stream.type == AVMEDIA_TYPE_AUDIO) {
        stream.audio = adjustAudioCodecValues(*m_profile, codec);
        if (!stream.copied) {
            stream.audio.log(codec);
        }
        return;
    }
    stream.video = adjustVideoCodecValues(*m_profile, fallback);
    if (!stream.copied) {
        stream.video.log(codec, fallback);
    }
}

void FFMpegEncoder::makeQueue(bool isRTP)
{
    const PWriteGuard guard(m_queueLock);
    if (m_queue != nullptr) {
        m_queue->flush();
        delete m_queue;
    }
    m_queue = isRTP ? new InterleavedPacketQueue(QueuePackets, QueueBytes)
                    : new PacketQueue(QueuePackets, QueueBytes);
}
