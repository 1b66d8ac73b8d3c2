#include "encoder/BasicMuxer.h"

#include "common/utils/CBBLog.h"
#include "encoder/EncoderStream.h"
#include "encoder/FFMpegEncoder.h"
#include "encoder/FFMpegStreamingProfile.h"
#include "plugin/MetadataPacket.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <algorithm>
#include <memory>

using zel::streamer::MetadataPacket;
using zel::streamer::SamplePacket;
namespace PacketType = zel::streamer::PacketType;
namespace av = zel::av;

namespace {

constexpr int IOBufferBytes = 65536;
constexpr unsigned int MonitorIntervalMs = 10000;
constexpr int MaxHeldVideoPackets = 50;
constexpr int MaxHeldAudioPackets = 200;
/// More than ever wait in libavformat.
constexpr int MaxWaitingFrames = 1000;
/// Key frames are announced at most once in this time.
constexpr unsigned long long KeyFrameDistanceUs = 1000000;
constexpr AVRational Milliseconds{1, 1000};
constexpr AVRational Microseconds{1, AV_TIME_BASE};

int microsecondsOf(float seconds, int otherwise)
{
    return seconds > 0.0F ? static_cast<int>(std::min(seconds * 1000000.0, 2.0e9)) : otherwise;
}

} // namespace

BasicMuxer::BasicMuxer(FFMpegEncoder* encoder, FFMpegStreamingProfile* profile)
    : m_encoder(encoder), m_profile(profile),
      m_monitor("BasicMuxer-noTS", false, MonitorIntervalMs),
      m_sync(MaxHeldVideoPackets, MaxHeldAudioPackets), m_packet(av::makePacket())
{
}

BasicMuxer::~BasicMuxer()
{
    m_sync.reset();
    m_outputContext.reset();
}

bool BasicMuxer::isMultiplexed() const
{
    return m_profile->outputStream()->isMultiplexed();
}

int BasicMuxer::initOutputContext()
{
    const PMutexGuard guard(m_contextLock);
    m_outputContext = getNewContext();
    return m_outputContext ? initIOContext() : -1;
}

int BasicMuxer::initIOContext()
{
    const PMutexGuard guard(m_contextLock);
    if (!m_outputContext) {
        return -1;
    }
    // The library frees and replaces this buffer as it likes, so it cannot be a member.
    av::Memory<unsigned char> buffer(static_cast<unsigned char*>(av_mallocz(IOBufferBytes)));
    if (!buffer) {
        return -1;
    }
    // Without a seek callback: one that always answers 0 would make the container believe that it
    // can go back, and write what it left open at the end of the stream.
    m_ioContext.reset(avio_alloc_context(buffer.get(), IOBufferBytes, 1, this,
                                         &FFMpegEncoder::readCallback, &_writeBytes, nullptr));
    if (!m_ioContext) {
        return -1;
    }
    static_cast<void>(buffer.release());
    m_ioContext->max_packet_size = IOBufferBytes;
    m_outputContext->pb = m_ioContext.get();
    return 0;
}

av::OutputContext BasicMuxer::getNewContext()
{
    const CStdStr<char> wanted(m_profile->outputStream()->getFormat());
    const CStdStr<char> name = wanted.empty() ? CStdStr<char>("null") : wanted;
    av::OutputContext context(avformat_alloc_context());
    if (!context) {
        CBBLog::error("FFMpegEncoder::initFFMpegContext() could not allocate format context");
        return nullptr;
    }
    context->oformat = av_guess_format(name.c_str(), nullptr, nullptr);
    if (context->oformat == nullptr) {
        CBBLog::error("FFMpegEncoder::initFFMpegContext() could not find output format %s",
                      name.c_str());
        return nullptr;
    }
    const bool isFlv = ssicmp(name.c_str(), "flv") == 0;
    context->packet_size = 0;
    context->max_delay = microsecondsOf(m_profile->maxDelay(), isFlv ? 700000 : 1000000);
    // The medium's duration in the library's own unit: in milliseconds a container that shows it
    // would be a thousand times too short.
    if (m_profile->medium() != nullptr) {
        context->duration = av_rescale_q(static_cast<int64_t>(m_profile->medium()->getDuration()),
                                         Milliseconds, Microseconds);
    }
    return context;
}

int BasicMuxer::addStream(const EncoderStream& stream)
{
    const PMutexGuard guard(m_contextLock);
    av::CodecParameters codec(avcodec_parameters_alloc());
    if (!codec || !m_outputContext ||
        avcodec_parameters_from_context(codec.get(), stream.context.get()) < 0) {
        return -1;
    }
    if (stream.copied) {
        codec->codec_tag = 0;
    }
    const bool isVideo = stream.type == AVMEDIA_TYPE_VIDEO;
    if (isVideo && stream.encoder == nullptr) {
        codec->video_delay = 1;
    }
    if (isVideo) {
        m_times.addVideo(*codec, stream.timeBase(), stream.copied);
    } else {
        m_times.addAudio(*codec, stream.copied);
    }
    const int index = static_cast<int>(m_streams.size());
    m_streams.push_back({std::move(codec), stream.timeBase(),
                         isVideo ? av_inv_q(stream.timeBase()) : AVRational{0, 1}});
    (isVideo ? m_videoStreamIndex : m_audioStreamIndex) = index;
    return index;
}

bool BasicMuxer::makeStreams(AVFormatContext& context)
{
    for (const StreamParameters& parameters : m_streams) {
        AVStream* stream = avformat_new_stream(&context, nullptr);
        if (stream == nullptr ||
            avcodec_parameters_copy(stream->codecpar, parameters.codec.get()) < 0) {
            return false;
        }
        stream->time_base = parameters.timeBase;
        stream->avg_frame_rate = parameters.frameRate;
        stream->sample_aspect_ratio = parameters.codec->sample_aspect_ratio;
        stream->discard = AVDISCARD_NONE;
    }
    return true;
}

int BasicMuxer::beginContainer()
{
    if (m_outputContext->nb_streams == 0 && !makeStreams(*m_outputContext)) {
        return AVERROR(ENOMEM);
    }
    AVDictionary* options = nullptr;
    av_dict_set(&options, "flvflags", "no_duration_filesize", 0);
    av_dict_set_int(&options, "preload", microsecondsOf(m_profile->preload(), 500000), 0);
    const int result = avformat_write_header(m_outputContext.get(), &options);
    av_dict_free(&options);
    if (result < 0) {
        return result;
    }
    m_headerWritten = true;
    makeSetUpFilter();
    // Its packets hold frames of both streams, and libavformat aborts when they run backwards.
    const CStdStr<char> container(m_outputContext->oformat->name);
    const bool isOrdered = container == "asf" || container == "asf_stream";
    m_times.begin(timeBaseOf(AVMEDIA_TYPE_VIDEO), timeBaseOf(AVMEDIA_TYPE_AUDIO), isOrdered);
    avio_flush(m_outputContext->pb);
    return 0;
}

void BasicMuxer::makeSetUpFilter()
{
    m_setUpFilter.reset();
    if (m_videoStreamIndex < 0 || !m_profile->videoPassthrough() ||
        (m_outputContext->oformat->flags & AVFMT_GLOBALHEADER) != 0) {
        return;
    }
    // Others carry it in their pictures, or libavformat sees to it.
    const AVStream& stream = *m_outputContext->streams[m_videoStreamIndex];
    if (stream.codecpar->codec_id != AV_CODEC_ID_MPEG4 || stream.codecpar->extradata_size <= 0) {
        return;
    }
    AVBSFContext* filter = nullptr;
    if (av_bsf_alloc(av_bsf_get_by_name("dump_extra"), &filter) < 0) {
        return;
    }
    m_setUpFilter.reset(filter);
    filter->time_base_in = stream.time_base;
    if (avcodec_parameters_copy(filter->par_in, stream.codecpar) < 0 || av_bsf_init(filter) < 0) {
        m_setUpFilter.reset();
    }
}

AVRational BasicMuxer::timeBaseOf(AVMediaType type)
{
    const PMutexGuard guard(m_contextLock);
    const int index = type == AVMEDIA_TYPE_AUDIO ? m_audioStreamIndex : m_videoStreamIndex;
    if (index < 0) {
        return Milliseconds;
    }
    const bool isMade = m_outputContext && static_cast<int>(m_outputContext->nb_streams) > index;
    return isMade ? m_outputContext->streams[index]->time_base
                  : m_streams[static_cast<std::size_t>(index)].timeBase;
}

bool BasicMuxer::writeHeader()
{
    const PMutexGuard guard(m_contextLock);
    if (m_headerWritten || !isMultiplexed()) {
        m_bytes = Bytes::Packet;
        return true;
    }
    if (!m_outputContext || m_outputContext->pb == nullptr) {
        return false;
    }
    m_bytes = Bytes::Header;
    m_header.clear();
    const int result = beginContainer();
    m_bytes = Bytes::Packet;
    if (result < 0) {
        CBBLog::warn("avformat_write_header returned %d", result);
        return false;
    }
    m_headerDelivered = true;
    if (!m_header.empty()) {
        FFMpegEncoder::headerCallback(m_encoder, m_header.data(),
                                      static_cast<int>(m_header.size()));
    }
    return true;
}

int BasicMuxer::writeTrailer()
{
    const PMutexGuard guard(m_contextLock);
    if (!m_headerWritten || !m_outputContext || m_outputContext->pb == nullptr) {
        return 1;
    }
    m_headerWritten = false;
    av_write_trailer(m_outputContext.get());
    avio_flush(m_outputContext->pb);
    return 0;
}

void BasicMuxer::writeEnd()
{
    while (SamplePacket* packet = m_sync.flushOne()) {
        muxSyncedPacket(static_cast<MuxerPacket*>(packet));
    }
    writeTrailer();
}

void BasicMuxer::flush()
{
    m_sync.reset();
    const PMutexGuard guard(m_contextLock);
    if (m_outputContext && m_outputContext->pb != nullptr) {
        avio_flush(m_outputContext->pb);
    }
}

void BasicMuxer::close()
{
    writeTrailer();
    const PMutexGuard guard(m_contextLock);
    m_outputContext.reset();
    m_ioContext.reset();
}

void BasicMuxer::seekPause()
{
    const PMutexGuard merge(m_muxLock);
    const PMutexGuard guard(m_contextLock);
    m_resumed.reset(m_resumedFlag);
    if (m_outputContext && m_outputContext->pb != nullptr && isMultiplexed()) {
        m_bytes = Bytes::Discard;
        writeTrailer();
        flush();
        // Of a frame whose bytes nobody gets any more.
        m_pendingTs = SamplePacket::NoTimestamp;
    }
}

void BasicMuxer::seekResume(const unsigned long long& /*position*/)
{
    const PMutexGuard guard(m_contextLock);
    if (!m_ioContext || !isMultiplexed()) {
        return;
    }
    // A context that has ended refuses whatever lies before its last packet, so the container
    // begins with a fresh one for the same streams. Before start() nothing has begun yet.
    m_bytes = Bytes::Discard;
    if (m_headerDelivered) {
        m_outputContext = getNewContext();
    }
    if (m_headerDelivered && m_outputContext) {
        m_outputContext->pb = m_ioContext.get();
        const int result = beginContainer();
        if (result < 0) {
            CBBLog::warn("avformat_write_header returned %d", result);
        }
    }
    flush();
    const auto* video = m_profile->outputStream()->getVideo();
    if (video != nullptr && ssicmp(video->getCodec(), "h264Empty") == 0) {
        m_firstVideoPts = NoPts;
    }
    m_bytes = Bytes::Packet;
    m_resumed.signal(m_resumedFlag);
}

int BasicMuxer::getType()
{
    return 0;
}

void BasicMuxer::setNewSegmentTs(unsigned long long /*timestamp*/) {}

int BasicMuxer::writeAudioPacket(const unsigned char* data, const unsigned long long& size,
                                 const long long& pts, const long long& timestamp)
{
    auto* packet = new MuxerPacket;
    packet->setAndCopy(PacketType::Audio, data, static_cast<int>(size),
                       static_cast<unsigned long long>(timestamp),
                       static_cast<unsigned long long>(pts), true);
    muxPacket(packet);
    return 1;
}

int BasicMuxer::writeVideoPacket(const unsigned char* data, const unsigned long long& size,
                                 const long long& pts, const long long& timestamp, bool keyFrame)
{
    auto* packet = new MuxerPacket;
    packet->setAndCopy(PacketType::Video, data, static_cast<int>(size),
                       static_cast<unsigned long long>(timestamp),
                       static_cast<unsigned long long>(pts), keyFrame);
    muxPacket(packet);
    return 1;
}

void BasicMuxer::muxPacket(MuxerPacket* packet)
{
    const PMutexGuard merge(m_muxLock);
    if (isMultiplexed()) {
        m_resumed.wait(m_resumedFlag);
    }
    if (packet->getType() == PacketType::Video) {
        if (m_firstVideoPts == NoPts) {
            m_firstVideoPts = packet->getPts();
        }
        const PMutexGuard guard(m_contextLock);
        m_times.noteVideo(static_cast<long long>(packet->getTimestamp()), packet->getPts(),
                          m_firstVideoPts);
    }
    if (m_audioStreamIndex < 0 || m_videoStreamIndex < 0) {
        muxSyncedPacket(packet);
        return;
    }
    m_sync.push(packet);
    while (SamplePacket* next = m_sync.pop()) {
        muxSyncedPacket(static_cast<MuxerPacket*>(next));
    }
}

void BasicMuxer::muxSyncedPacket(MuxerPacket* packet)
{
    checkForKeyFrame(packet);
    const PacketType::Enum type = packet->getType();
    if (type == PacketType::Audio) {
        ++m_audioPacketCount;
    } else if (type == PacketType::Video) {
        ++m_videoPacketCount;
    } else {
        CBBLog::error("[BasicMuxer::muxSyncedPacket] unsupported packet type! %d %lld %lld",
                      static_cast<int>(type), packet->getPts(),
                      static_cast<long long>(packet->getTimestamp()));
        packet->release();
        return;
    }
    if (!isMultiplexed()) {
        m_encoder->pushPacket(packet);
        return;
    }
    if (type == PacketType::Audio) {
        _writeAudioPacket(*packet);
    } else {
        _writeVideoPacket(*packet);
    }
    packet->release();
}

void BasicMuxer::checkForKeyFrame(const MuxerPacket* packet)
{
    if (packet == nullptr || packet->getType() == PacketType::Audio) {
        return;
    }
    const unsigned long long timestamp = packet->getTimestamp();
    if (m_lastKeyFrameTs == 0) {
        m_lastKeyFrameTs = timestamp;
    }
    if (!packet->isKeyFrame() || timestamp <= m_lastKeyFrameTs + KeyFrameDistanceUs) {
        return;
    }
    CBBLog::debug("[BasicMuxer::checkForKeyFrame] keyframe ts %llu", timestamp);
    {
        const PMutexGuard guard(m_contextLock);
        if (!m_outputContext || m_outputContext->pb == nullptr) {
            return;
        }
        drainContainer();
    }
    m_lastKeyFrameTs = timestamp;
    auto* notice = new MetadataPacket("ACTION", "ADD_KEYFRAME");
    notice->setTimestamp(timestamp);
    m_encoder->pushPacket(notice);
}

void BasicMuxer::drainContainer()
{
    m_isDrained = true;
    m_times.drained();
    if (m_headerWritten) {
        // The first empties what waits for its turn between the streams, and gives up at a frame
        // that cannot be written; the second empties the container.
        for (int failed = 0; failed < MaxWaitingFrames; ++failed) {
            if (av_interleaved_write_frame(m_outputContext.get(), nullptr) >= 0) {
                break;
            }
        }
        av_write_frame(m_outputContext.get(), nullptr);
    }
    avio_flush(m_outputContext->pb);
}

int BasicMuxer::_writeVideoPacket(MuxerPacket& packet)
{
    const PMutexGuard guard(m_contextLock);
    if (!m_outputContext || m_outputContext->pb == nullptr) {
        CBBLog::error("[BasicMuxer::_writeVideoPacket] !m_outputContext || !m_outputContext->pb");
        return 0;
    }
    if (!m_headerWritten) {
        return 0;
    }
    if (m_firstVideoPts == NoPts) {
        m_firstVideoPts = packet.getPts();
    }
    const MuxTimes::Stamp stamp =
        m_times.video(packet.getBuffer(), packet.getLength(), packet.getPts() - m_firstVideoPts,
                      static_cast<long long>(packet.getTimestamp()));
    if (m_pendingTs == SamplePacket::NoTimestamp) {
        m_pendingTs = packet.getTimestamp();
    }
    const int result = writeFrame(packet, m_videoStreamIndex, stamp, packet.isKeyFrame());
    if (result != 0) {
        CBBLog::warn("[BasicMuxer::_writeVideoPacket] : av_write_frame returned %d %lld %lld",
                     result, static_cast<long long>(packet.getTimestamp()), packet.getPts());
        return 0;
    }
    return 1;
}

int BasicMuxer::_writeAudioPacket(MuxerPacket& packet)
{
    const PMutexGuard guard(m_contextLock);
    if (!m_outputContext || m_outputContext->pb == nullptr) {
        CBBLog::error("[BasicMuxer::_writeAudioPacket] !m_outputContext || !m_outputContext->pb");
        return 0;
    }
    if (!m_headerWritten) {
        return 0;
    }
    const MuxTimes::Stamp stamp = m_times.audio(packet.getLength(), packet.getPts(),
                                                static_cast<long long>(packet.getTimestamp()));
    if (m_pendingTs == SamplePacket::NoTimestamp && m_videoStreamIndex < 0) {
        m_pendingTs = packet.getTimestamp();
    }
    const int result = writeFrame(packet, m_audioStreamIndex, stamp, true);
    if (result != 0) {
        CBBLog::warn("[BasicMuxer::_writeAudioPacket] : av_write_frame returned %d : TS %lld %lld",
                     result, static_cast<long long>(packet.getTimestamp()), packet.getPts());
        return 0;
    }
    return 1;
}

int BasicMuxer::writeFrame(MuxerPacket& packet, int stream, const MuxTimes::Stamp& stamp,
                           bool keyFrame)
{
    // The library keeps the packet's own bytes alive for as long as it holds the frame back.
    AVBufferRef* bytes = av_buffer_create(
        packet.getBuffer(), static_cast<std::size_t>(packet.getLength()) + MuxerPacket::Padding,
        &_releasePacket, &packet, AV_BUFFER_FLAG_READONLY);
    if (bytes == nullptr) {
        return AVERROR(ENOMEM);
    }
    packet.retain();
    m_packet->buf = bytes;
    m_packet->data = packet.getBuffer();
    m_packet->size = packet.getLength();
    m_packet->pts = stamp.pts;
    m_packet->dts = stamp.dts;
    m_packet->duration = stamp.duration;
    m_packet->flags = keyFrame ? AV_PKT_FLAG_KEY : 0;
    m_packet->stream_index = stream;
    const bool isVideo = packet.getType() == PacketType::Video;
    if (isVideo && m_newExtradata) {
        m_newExtradata = false;
        const AVCodecParameters& codec = *m_streams[static_cast<std::size_t>(stream)].codec;
        unsigned char* sideData =
            av_packet_new_side_data(m_packet.get(), AV_PKT_DATA_NEW_EXTRADATA,
                                    static_cast<std::size_t>(codec.extradata_size));
        if (sideData != nullptr) {
            std::copy_n(codec.extradata, codec.extradata_size, sideData);
        }
    }
    if (isVideo && m_setUpFilter && av_bsf_send_packet(m_setUpFilter.get(), m_packet.get()) == 0) {
        // One in, one out.
        av_bsf_receive_packet(m_setUpFilter.get(), m_packet.get());
    }
    const int result = av_interleaved_write_frame(m_outputContext.get(), m_packet.get());
    if (m_isDrained) {
        // Not to be overtaken by what comes behind it with an earlier time, as encoded audio does.
        m_isDrained = false;
        av_interleaved_write_frame(m_outputContext.get(), nullptr);
        m_times.drained();
    }
    m_monitor.write(static_cast<unsigned long long>(packet.getLength()), packet.getTimestamp(),
                    packet.getType());
    av_packet_unref(m_packet.get());
    return result;
}

void BasicMuxer::_releasePacket(void* packet, unsigned char* /*data*/)
{
    static_cast<MuxerPacket*>(packet)->release();
}

void BasicMuxer::noteSamples(long long timestampUs, double durationUs)
{
    const PMutexGuard guard(m_contextLock);
    m_times.noteSamples(timestampUs, durationUs);
}

void BasicMuxer::setVideoExtradata(const unsigned char* data, int size)
{
    const PMutexGuard guard(m_contextLock);
    if (m_videoStreamIndex < 0 || data == nullptr || size <= 0) {
        return;
    }
    AVCodecParameters& codec = *m_streams[static_cast<std::size_t>(m_videoStreamIndex)].codec;
    if (codec.extradata_size > 0) {
        return;
    }
    codec.extradata = static_cast<unsigned char*>(
        av_mallocz(static_cast<std::size_t>(size) + AV_INPUT_BUFFER_PADDING_SIZE));
    if (codec.extradata == nullptr) {
        return;
    }
    codec.extradata_size = size;
    std::copy_n(data, size, codec.extradata);
    m_newExtradata = true;
    m_times.addVideo(codec, m_streams[static_cast<std::size_t>(m_videoStreamIndex)].timeBase, true);
    const int index = m_videoStreamIndex;
    // FLV writes what is new to it in front of the next picture, and so must not know it yet.
    const bool announcesItself = ssicmp(m_profile->outputStream()->getFormat(), "flv") == 0;
    if (m_outputContext && !announcesItself &&
        static_cast<int>(m_outputContext->nb_streams) > index) {
        avcodec_parameters_copy(m_outputContext->streams[index]->codecpar, &codec);
    }
}

unsigned long long BasicMuxer::takePendingTs()
{
    const PMutexGuard guard(m_contextLock);
    const unsigned long long timestamp = m_pendingTs;
    m_pendingTs = SamplePacket::NoTimestamp;
    return timestamp;
}

int BasicMuxer::_writeBytes(void* self, WriteData data, int size)
{
    return static_cast<BasicMuxer*>(self)->writeBytes(data, size);
}

int BasicMuxer::writeBytes(const unsigned char* data, int size)
{
    switch (m_bytes) {
    case Bytes::Header:
        m_header.insert(m_header.end(), data, data + size);
        break;
    case Bytes::Packet:
        FFMpegEncoder::packetCallback(m_encoder, data, size);
        break;
    case Bytes::Discard:
        break;
    }
    return size;
}
