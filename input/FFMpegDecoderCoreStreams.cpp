#include "input/FFMpegDecoderCore.h"

#include "common/utils/CBBLog.h"
#include "plugin/Vocabulary.h"

extern "C" {
#include <libavutil/cpu.h>
#include <libavutil/dict.h>
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <cstring>

using zel::streamer::VideoPixelFormat::YUYV422;

namespace {

constexpr int MaxProbeTries = 250;
constexpr int MaxAudioChannels = 18;
constexpr double MaxFps = 120.0;
constexpr double DefaultFps = 30.0;
constexpr int MaxDecoderThreads = 16;

bool isSet(AVRational value)
{
    return value.num != 0 && value.den != 0;
}

bool isUsableFps(double fps)
{
    return fps > 0.0 && fps <= MaxFps;
}

/// Cover art shows up as a video stream; it is not one to play.
bool isCover(const AVStream* stream)
{
    return (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
}

bool isType(const AVStream* stream, AVMediaType type)
{
    return stream->codecpar->codec_type == type && !isCover(stream);
}

bool isPictureKnown(const AVCodecContext* codec)
{
    return codec->width > 0 && codec->height > 0 && codec->pix_fmt != AV_PIX_FMT_NONE;
}

/// MPEG audio layers have decoders for integers and for floats; the integer ones have the plain
/// name.
const AVCodec* findDecoder(AVCodecID id)
{
    if (id == AV_CODEC_ID_MP1 || id == AV_CODEC_ID_MP2 || id == AV_CODEC_ID_MP3) {
        const AVCodecDescriptor* descriptor = avcodec_descriptor_get(id);
        const AVCodec* named =
            descriptor != nullptr ? avcodec_find_decoder_by_name(descriptor->name) : nullptr;
        if (named != nullptr && named->id == id) {
            return named;
        }
    }
    return avcodec_find_decoder(id);
}

/// Null when the stream's parameters cannot be taken over.
zel::av::CodecContext makeCodecContext(const AVStream* stream, const AVCodec* decoder)
{
    zel::av::CodecContext context(avcodec_alloc_context3(decoder));
    if (!context || avcodec_parameters_to_context(context.get(), stream->codecpar) < 0) {
        return nullptr;
    }
    context->pkt_timebase = stream->time_base;
    // Stamps go by packet, so the samples of a packet must stay whole.
    context->flags2 |= AV_CODEC_FLAG2_SKIP_MANUAL;
    return context;
}

/// The first of the three ways to decide between two numbers that decides.
enum class Verdict
{
    Better,
    Worse,
    Equal
};

template <class Number>
Verdict compare(Number candidate, Number current)
{
    if (candidate == current) {
        return Verdict::Equal;
    }
    return candidate > current ? Verdict::Better : Verdict::Worse;
}

} // namespace

AVCodecContext* FFMpegDecoderCore::codecOf(const AVStream* stream) const
{
    return m_codecs[static_cast<std::size_t>(stream->index)].get();
}

/// The context that decodes, or would decode, the chosen video stream.
AVCodecContext* FFMpegDecoderCore::videoCodec() const
{
    return m_pipeline ? m_pipeline->context() : m_video.context();
}

int FFMpegDecoderCore::initFormatStreams()
{
    const unsigned int streams = m_formatContext->nb_streams;
    std::vector<StreamEntry> entries(streams);
    bool hasAudio = false;
    bool hasVideo = false;
    openDecoders(entries, hasAudio, hasVideo);
    m_decodedFrame = zel::av::makeFrame();
    m_reader = std::make_unique<zel::av::PacketReader>(m_formatContext.get());
    if (probe(entries, hasAudio, hasVideo)) {
        rewindAfterProbe();
    }
    if (CBBLog::isDebugEnabled()) {
        av_dump_format(m_formatContext.get(), 0, m_formatContext->url, 0);
    }
    selectStreams(entries);
    if ((hasAudio && m_audioStream == nullptr) || (hasVideo && m_videoStream == nullptr) ||
        (m_audioStream == nullptr && m_videoStream == nullptr)) {
        CBBLog::error("FFMpegDecoderCore::initFormatStreams: no video or audio found");
        return NothingToPlay;
    }
    m_isMpegTs = std::strcmp(m_formatContext->iformat->name, "mpegts") == 0;
    readContainerMetadata();
    finishSelection();
    publishDescription();
    CBBLog::debug("FFMpegDecoderCore::initFormatStreams : done");
    return 0;
}

void FFMpegDecoderCore::openDecoders(std::vector<StreamEntry>& entries, bool& hasAudio,
                                     bool& hasVideo)
{
    for (unsigned int i = 0; i < entries.size(); ++i) {
        const AVStream* stream = m_formatContext->streams[i];
        const AVCodec* decoder = nullptr;
        if (isType(stream, AVMEDIA_TYPE_VIDEO) || isType(stream, AVMEDIA_TYPE_AUDIO)) {
            decoder = openDecoder(i);
        } else {
            m_codecs.push_back(makeCodecContext(stream, nullptr));
        }
        if (decoder != nullptr) {
            hasVideo = hasVideo || decoder->type == AVMEDIA_TYPE_VIDEO;
            hasAudio = hasAudio || decoder->type == AVMEDIA_TYPE_AUDIO;
            const bool isUncertain =
                initFormatNeedsDecoding() || stream->codecpar->codec_id == AV_CODEC_ID_MPEG1VIDEO;
            // Pictures were decoded already to find the stream's format, and doing it again costs
            // more than all the rest of opening. Audio is different: what a decoder makes of an
            // AAC stream shows only in its output.
            entries[i] = {decoder, isUncertain && !isPictureKnown(m_codecs[i].get())};
        }
        if (isType(stream, AVMEDIA_TYPE_DATA)) {
            CBBLog::info("FFMpegDecoderCore::initFormatStreams: found metadata stream %d %d",
                         static_cast<int>(i), 2);
            m_metadataStreamIndex = static_cast<int>(i);
        }
    }
}

/// Makes the stream's codec context, opened if there is a decoder.
/// @return the decoder, null without one
const AVCodec* FFMpegDecoderCore::openDecoder(unsigned int index)
{
    const AVStream* stream = m_formatContext->streams[index];
    const AVCodec* decoder = findDecoder(stream->codecpar->codec_id);
    m_codecs.push_back(makeCodecContext(stream, decoder));
    if (decoder == nullptr || !m_codecs.back()) {
        return nullptr;
    }
    if (avcodec_open2(m_codecs.back().get(), decoder, nullptr) < 0) {
        CBBLog::warn("FFMpegDecoderCore::initFormatStreams : could not open codec %d for stream %d",
                     static_cast<int>(stream->codecpar->codec_id), static_cast<int>(index));
        m_codecs.back() = makeCodecContext(stream, nullptr);
        return nullptr;
    }
    return decoder;
}

/// Kept: asks about the medium, not about the stream at hand, so that in an mp4 with video the
/// audio, too, is decoded until it gives samples.
bool FFMpegDecoderCore::initFormatNeedsDecoding() const
{
    const std::string demuxer = m_formatContext->iformat->name;
    if (demuxer.find("mp4") == std::string::npos || demuxer.find("mov") == std::string::npos) {
        return false;
    }
    const auto* first = m_formatContext->streams;
    return std::any_of(first, first + m_formatContext->nb_streams,
                       [](const AVStream* stream) { return isType(stream, AVMEDIA_TYPE_VIDEO); });
}

/// Decodes from the start until all formats are known.
/// @return true when the medium was touched
bool FFMpegDecoderCore::probe(std::vector<StreamEntry>& entries, bool hasAudio, bool hasVideo)
{
    const bool canSeek = m_formatContext->pb == nullptr || m_formatContext->pb->seekable != 0;
    int tries = 0;
    int result = 0;
    // Nothing new comes after the end, so the tries left would find the same.
    while (tries < MaxProbeTries && result != AVERROR_EOF &&
           !streamsReady(hasAudio, hasVideo, entries)) {
        ++tries;
        result = av_read_frame(m_formatContext.get(), m_readPacket.get());
        if (result < 0) {
            continue;
        }
        const auto index = static_cast<std::size_t>(m_readPacket->stream_index);
        if (index < entries.size() && entries[index].needsDecoding) {
            probePacket(*m_readPacket, entries[index]);
        }
        if (!canSeek) {
            m_reader->handOutAgain(zel::av::clonePacket(*m_readPacket));
        }
        av_packet_unref(m_readPacket.get());
    }
    return tries > 0;
}

void FFMpegDecoderCore::probePacket(const AVPacket& packet, StreamEntry& entry)
{
    AVCodecContext* codec = m_codecs[static_cast<std::size_t>(packet.stream_index)].get();
    if (packet.size <= 0 || avcodec_send_packet(codec, &packet) < 0) {
        return;
    }
    while (avcodec_receive_frame(codec, m_decodedFrame.get()) >= 0) {
        entry.needsDecoding = false;
    }
    av_frame_unref(m_decodedFrame.get());
}

bool FFMpegDecoderCore::streamsReady(bool hasAudio, bool hasVideo,
                                     const std::vector<StreamEntry>& entries) const
{
    if (std::any_of(entries.begin(), entries.end(), [](const StreamEntry& entry) {
            return entry.decoder != nullptr && entry.needsDecoding;
        })) {
        return false;
    }
    bool audioKnown = false;
    bool videoKnown = false;
    for (unsigned int i = 0; i < entries.size(); ++i) {
        const AVCodecContext* codec = m_codecs[i].get();
        if (codec == nullptr) {
            continue;
        }
        if (isType(m_formatContext->streams[i], AVMEDIA_TYPE_AUDIO)) {
            audioKnown =
                audioKnown || (codec->sample_rate >= 1 && codec->ch_layout.nb_channels >= 1);
        } else if (isType(m_formatContext->streams[i], AVMEDIA_TYPE_VIDEO)) {
            videoKnown = videoKnown || isPictureKnown(codec);
        }
    }
    if (!audioKnown && hasAudio) {
        return false;
    }
    return videoKnown || !hasVideo;
}

/// Makes reading start from the beginning again. A source that cannot seek hands the probed
/// packets out again instead.
void FFMpegDecoderCore::rewindAfterProbe()
{
    for (const zel::av::CodecContext& codec : m_codecs) {
        if (codec && avcodec_is_open(codec.get()) != 0) {
            avcodec_flush_buffers(codec.get());
        }
    }
    if (m_formatContext->pb != nullptr && m_formatContext->pb->seekable == 0) {
        return;
    }
    const char* demuxer = m_formatContext->iformat->name;
    if (std::strcmp(demuxer, "mpegts") == 0 || std::strcmp(demuxer, "mpeg") == 0) {
        // A seek by time would lose the first key frame.
        av_seek_frame(m_formatContext.get(), -1, 0, AVSEEK_FLAG_BYTE);
        return;
    }
    int64_t start = m_formatContext->start_time;
    const int first = firstStream();
    if (first >= 0) {
        start = m_formatContext->streams[first]->start_time;
    }
    av_seek_frame(m_formatContext.get(), first, start == AV_NOPTS_VALUE ? 0 : start,
                  AVSEEK_FLAG_BACKWARD);
}

/// The stream to seek by when all is to be read again, -1 for the demuxer's own choice. It goes by
/// the video's key frames, and where video begins late it would leave out what others have before.
int FFMpegDecoderCore::firstStream() const
{
    const int usual = av_find_default_stream_index(m_formatContext.get());
    if (usual < 0) {
        return -1;
    }
    const auto startsBefore = [](const AVStream* stream, const AVStream* other) {
        return stream->start_time != AV_NOPTS_VALUE && other->start_time != AV_NOPTS_VALUE &&
               av_compare_ts(stream->start_time, stream->time_base, other->start_time,
                             other->time_base) < 0;
    };
    int first = usual;
    for (unsigned int i = 0; i < m_formatContext->nb_streams; ++i) {
        const AVStream* stream = m_formatContext->streams[i];
        const AVMediaType type = stream->codecpar->codec_type;
        if ((type == AVMEDIA_TYPE_AUDIO || type == AVMEDIA_TYPE_VIDEO) && !isCover(stream) &&
            startsBefore(stream, m_formatContext->streams[first])) {
            first = static_cast<int>(i);
        }
    }
    return first == usual ? -1 : first;
}

void FFMpegDecoderCore::selectStreams(const std::vector<StreamEntry>& entries)
{
    for (unsigned int i = 0; i < entries.size(); ++i) {
        AVStream* stream = m_formatContext->streams[i];
        if (isCover(stream) || !isTaken(entries, i)) {
            continue;
        }
        if (isType(stream, AVMEDIA_TYPE_VIDEO) && isBetterStream(stream, m_videoStream)) {
            CBBLog::debug(" *** video stream chosen ***");
            setUpVideo(stream);
        } else if (isType(stream, AVMEDIA_TYPE_AUDIO) && isBetterStream(stream, m_audioStream)) {
            setUpAudio(stream);
        }
    }
}

bool FFMpegDecoderCore::isTaken(const std::vector<StreamEntry>& entries, unsigned int index)
{
    const AVStream* stream = m_formatContext->streams[index];
    const bool hasDecoder = entries[index].decoder != nullptr &&
                            entries[index].decoder->id != AV_CODEC_ID_NONE &&
                            stream->codecpar->codec_id != AV_CODEC_ID_NONE;
    const int number = static_cast<int>(index);
    if (codecOf(stream) == nullptr) {
        CBBLog::warn("FFMpegDecoderCore::initFormatStreams streams[%d] stream codec unknown",
                     number);
        return false;
    }
    if (!m_skipAudio && !m_skipVideo) {
        if (!hasDecoder) {
            CBBLog::warn("FFMpegDecoderCore::initFormatStreams streams[%d] codec unknown", number);
        }
        return hasDecoder;
    }
    if (entries[index].decoder != nullptr) {
        return true;
    }
    if ((isType(stream, AVMEDIA_TYPE_VIDEO) && m_skipVideo) ||
        (isType(stream, AVMEDIA_TYPE_AUDIO) && m_skipAudio)) {
        CBBLog::debug(
            "FFMpegDecoderCore::initFormatStreams streams[%d] codec unknown, but skipped anyway",
            number);
        return true;
    }
    CBBLog::warn("FFMpegDecoderCore::initFormatStreams streams[%d] codec unknown, and not skipped",
                 number);
    if (isType(stream, AVMEDIA_TYPE_DATA)) {
        CBBLog::info("FFMpegDecoderCore::initFormatStreams: found metadata stream %d %d", number,
                     2);
        m_metadataStreamIndex = number;
    }
    return false;
}

bool FFMpegDecoderCore::isBetterStream(const AVStream* candidate, const AVStream* current) const
{
    if (current == nullptr) {
        return true;
    }
    if (candidate == nullptr || candidate->codecpar->codec_type != current->codecpar->codec_type) {
        return false;
    }
    switch (candidate->codecpar->codec_type) {
    case AVMEDIA_TYPE_VIDEO:
        return isBetterVideo(candidate, current);
    case AVMEDIA_TYPE_AUDIO:
        return isBetterAudio(candidate, current);
    default:
        return false;
    }
}

bool FFMpegDecoderCore::isBetterVideo(const AVStream* candidate, const AVStream* current) const
{
    const AVCodecContext* ours = codecOf(candidate);
    const AVCodecContext* theirs = codecOf(current);
    if (ours->width > theirs->width || ours->height > theirs->height) {
        return true;
    }
    if (ours->width < theirs->width || ours->height < theirs->height) {
        return false;
    }
    if (candidate->r_frame_rate.num != 0 && current->r_frame_rate.num != 0) {
        // Kept: compares frame periods, so of two equally large streams the slower one wins; it
        // costs the remote player less.
        const auto period = [](AVRational rate) {
            return static_cast<double>(rate.den) / static_cast<double>(rate.num);
        };
        const Verdict verdict =
            compare(period(candidate->r_frame_rate), period(current->r_frame_rate));
        if (verdict != Verdict::Equal) {
            return verdict == Verdict::Better;
        }
    }
    const Verdict verdict = compare(ours->bit_rate, theirs->bit_rate);
    if (verdict != Verdict::Equal) {
        return verdict == Verdict::Better;
    }
    return candidate->duration > current->duration;
}

bool FFMpegDecoderCore::isBetterAudio(const AVStream* candidate, const AVStream* current) const
{
    const AVCodecContext* ours = codecOf(candidate);
    const AVCodecContext* theirs = codecOf(current);
    // In AVI the first good audio stream stays.
    if (std::strstr(m_formatContext->iformat->name, "avi") != nullptr && theirs->bit_rate > 0 &&
        theirs->sample_rate > 0) {
        return false;
    }
    for (const Verdict verdict :
         {compare(ours->bit_rate, theirs->bit_rate),
          compare(ours->sample_rate, theirs->sample_rate),
          compare(ours->ch_layout.nb_channels, theirs->ch_layout.nb_channels)}) {
        if (verdict != Verdict::Equal) {
            return verdict == Verdict::Better;
        }
    }
    return candidate->duration > current->duration;
}

bool FFMpegDecoderCore::setUpVideo(AVStream* stream)
{
    AVCodecContext* codec = codecOf(stream);
    m_outPixelFormat = YUYV422;
    const AVPixelFormat outFormat = zel::streamer::zelToFFmpegPixelFormat(m_outPixelFormat);
    if (codec->width < 1 || codec->height < 1 || codec->pix_fmt == AV_PIX_FMT_NONE) {
        codec->width = static_cast<int>(DefaultWidth);
        codec->height = static_cast<int>(DefaultHeight);
    }
    m_outWidth = static_cast<unsigned int>(codec->width);
    m_outHeight = static_cast<unsigned int>(codec->height);
    m_videoBitsPerPixel = 1;
    // The scaler needs some format; the first picture brings the right one.
    const AVPixelFormat sourceFormat =
        codec->pix_fmt != AV_PIX_FMT_NONE ? codec->pix_fmt : AV_PIX_FMT_YUV420P;
    if (!allocRescalingContext(m_outWidth, m_outHeight, sourceFormat, m_outWidth, m_outHeight,
                               outFormat, m_scaleFlags) &&
        !m_skipVideo) {
        CBBLog::debug("FFMpegDecoderCore::initFormatStreams : Could not initialize swsscale "
                      "context!! %d %d %d to %u %u %d",
                      codec->width, codec->height, static_cast<int>(sourceFormat), m_outWidth,
                      m_outHeight, static_cast<int>(outFormat));
        return false;
    }
    m_srcWidth = m_outWidth;
    m_srcHeight = m_outHeight;
    m_srcPixelFormat = sourceFormat;
    setUpFrameRate(stream, codec);
    m_videoFrameSize =
        (m_outHeight * m_outWidth *
         static_cast<unsigned int>(zel::streamer::getBitsPerPixels(m_outPixelFormat))) >>
        3;
    m_videoBitrate =
        static_cast<unsigned int>(std::clamp(m_videoFrameSize * m_fps, 0.0, 4294967295.0));
    m_videoStreamIndex = stream->index;
    m_videoStream = stream;
    switch (stream->codecpar->codec_id) {
    case AV_CODEC_ID_MPEG4:
    case AV_CODEC_ID_H264:
    case AV_CODEC_ID_WMV3:
        m_sendExtradata = true;
        break;
    default:
        break;
    }
    return true;
}

void FFMpegDecoderCore::setUpFrameRate(const AVStream* stream, const AVCodecContext* codec)
{
    m_fps = isSet(stream->r_frame_rate) ? av_q2d(stream->r_frame_rate) : 0.0;
    if (isUsableFps(m_fps)) {
        return;
    }
    const AVRational timeBase = videoCodecTimeBase(stream, codec);
    if (isSet(timeBase)) {
        const double corrected = 1.0 / (2.0 * timeBase.num / timeBase.den);
        CBBLog::warn("FFMpegDecoderCore::initFormatStreams Correcting fps to %f, r_frame_rate "
                     "returned %f",
                     corrected, m_fps);
        m_fps = corrected;
        if (isUsableFps(m_fps)) {
            return;
        }
    }
    CBBLog::warn("FFMpegDecoderCore::initFormatStreams Default fps to %f, fps was %f", DefaultFps,
                 m_fps);
    m_fps = DefaultFps;
}

/// The duration of a frame, or of a field for codecs that count in fields.
AVRational FFMpegDecoderCore::videoCodecTimeBase(const AVStream* stream,
                                                 const AVCodecContext* codec) const
{
    AVRational framerate = codec->framerate;
    if (!isSet(framerate)) {
#if LIBAVFORMAT_VERSION_MAJOR < 61
        return av_stream_get_codec_timebase(stream);
#else
        framerate = isSet(stream->codecpar->framerate) ? stream->codecpar->framerate
                                                       : stream->avg_frame_rate;
        if (!isSet(framerate)) {
            return {0, 1};
        }
#endif
    }
    const AVCodecID id = stream->codecpar->codec_id;
    const int ticks = id == AV_CODEC_ID_H264 || id == AV_CODEC_ID_MPEG2VIDEO ? 2 : 1;
    return av_inv_q(av_mul_q(framerate, AVRational{ticks, 1}));
}

bool FFMpegDecoderCore::setUpAudio(AVStream* stream)
{
    const AVCodecContext* codec = codecOf(stream);
    const int channels = codec->ch_layout.nb_channels;
    if (channels > MaxAudioChannels) {
        CBBLog::warn(
            "FFMpegDecoderCore::initFormatStreams : audio stream - invalid channels value %d",
            channels);
        return false;
    }
    CBBLog::debug(" *** audio stream chosen ***");
    switch (codec->sample_fmt) {
    case AV_SAMPLE_FMT_U8:
        m_audioBits = 8;
        break;
    case AV_SAMPLE_FMT_S32:
    case AV_SAMPLE_FMT_FLT:
        m_audioBits = 32;
        break;
    default:
        m_audioBits = 16;
        break;
    }
    m_audioChannels = static_cast<unsigned int>(std::max(0, channels));
    m_audioSampleRate = static_cast<unsigned int>(std::max(0, codec->sample_rate));
    m_audioFrameBits = m_audioBits * m_audioChannels;
    m_audioBitrate = m_audioSampleRate * m_audioFrameBits;
    m_audioSampleFlags = 0;
    m_audioStreamIndex = stream->index;
    m_audioStream = stream;
    return true;
}

/// Hands the chosen streams' contexts to their decoders and lets the demuxer skip the rest.
void FFMpegDecoderCore::finishSelection()
{
    for (unsigned int i = 0; i < m_formatContext->nb_streams; ++i) {
        const int index = static_cast<int>(i);
        if (index != m_videoStreamIndex && index != m_audioStreamIndex &&
            index != m_metadataStreamIndex) {
            m_formatContext->streams[i]->discard = AVDISCARD_ALL;
        }
    }
    if (m_audioStream != nullptr) {
        m_audioCodec = std::move(m_codecs[static_cast<std::size_t>(m_audioStreamIndex)]);
    }
    if (m_videoStream != nullptr) {
        m_video.adopt(std::move(m_codecs[static_cast<std::size_t>(m_videoStreamIndex)]));
        if (m_skipVideo) {
            m_reader->prepareForCopying(m_videoStreamIndex);
        } else {
            startPipeline();
        }
    }
    m_codecs.clear();
}

/// Puts several decoder threads to work where that changes nothing in what is delivered. Looking
/// ahead on a stalled network would hold decoded pictures back, so it is for local files alone.
void FFMpegDecoderCore::startPipeline()
{
    // One more than there are cores: while the caller scales a picture, the thread that made it
    // waits for its next packet.
    const int cores = std::min(av_cpu_count(), MaxDecoderThreads);
    const int automatic = cores > 1 ? cores + 1 : 1;
    const int threads = m_decoderThreads > 0 ? m_decoderThreads : automatic;
    const AVCodecContext* model = m_video.context();
    if (threads < 2 || !m_localFile || needToStartAtZero() ||
        m_decodingMode != zel::streamer::DecodingMode::All ||
        avcodec_is_open(m_video.context()) == 0 ||
        !zel::av::VideoPipeline::isProven(model->codec_id)) {
        return;
    }
    m_pipeline = std::make_unique<zel::av::VideoPipeline>(*model, m_videoStream, threads);
    if (!m_pipeline->isOpen()) {
        m_pipeline.reset();
    }
}

/// Takes the names from the container, or from the stream that is played: Ogg has them there.
void FFMpegDecoderCore::readContainerMetadata()
{
    const AVStream* played = m_audioStream != nullptr ? m_audioStream : m_videoStream;
    const auto read = [&](CStdStr<char>& value, const char* key) {
        for (const AVDictionary* names : {m_formatContext->metadata, played->metadata}) {
            const AVDictionaryEntry* entry = av_dict_get(names, key, nullptr, 0);
            if (value.empty() && entry != nullptr) {
                value = entry->value;
            }
        }
    };
    const PMutexGuard guard(m_describedLock);
    read(m_title, "title");
    read(m_artist, "artist");
    read(m_album, "album");
}
