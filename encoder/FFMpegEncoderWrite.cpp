#include "encoder/FFMpegEncoder.h"

#include "encoder/BasicMuxer.h"
#include "encoder/FFMpegStreamingProfile.h"
#include "encoder/FLVHeader.h"
#include "encoder/PacketQueue.h"
#include "plugin/MetadataPacket.h"
#include "plugin/SimpleSamplePacket.h"

#include <cmath>
#include <exception>

/// What happens to a packet between write and readFrame, and the seek.

using zel::streamer::MetadataPacket;
using zel::streamer::SamplePacket;
using zel::streamer::SimpleSamplePacket;
namespace PacketType = zel::streamer::PacketType;

namespace {

/// Writers are held above the one and let go below the other; between them the state stays.
constexpr unsigned long long HighWaterBytes = 1000000;
constexpr unsigned long long LowWaterBytes = 900000;

constexpr int FlvFileHeaderBytes = 13;
constexpr int FlvTagHeaderBytes = 11;
constexpr int FlvTagTrailerBytes = 4;

struct Releaser
{
    void operator()(SamplePacket* packet) const { packet->release(); }
};
using PacketOwner = std::unique_ptr<SamplePacket, Releaser>;

/// The tags of an FLV header that carry what decoders are set up with. Without them no player gets
/// anywhere with H.264 or AAC.
std::vector<unsigned char> sequenceHeaders(const unsigned char* header, int size)
{
    constexpr unsigned char AudioTag = 8;
    constexpr unsigned char VideoTag = 9;
    std::vector<unsigned char> tags;
    int position = FlvFileHeaderBytes;
    while (position + FlvTagHeaderBytes <= size) {
        const unsigned char* tag = header + position;
        const int length =
            (tag[1] << 16 | tag[2] << 8 | tag[3]) + FlvTagHeaderBytes + FlvTagTrailerBytes;
        if (length > size - position) {
            break;
        }
        if (tag[0] == AudioTag || tag[0] == VideoTag) {
            tags.insert(tags.end(), tag, tag + length);
        }
        position += length;
    }
    return tags;
}

} // namespace

int FFMpegEncoder::write(SamplePacket* packet)
{
    if (packet == nullptr) {
        return 0;
    }
    const PacketOwner owner(packet);
    PMutexGuard guard(m_writeMutex);
    if (m_stoppedFlag || m_muxer == nullptr) {
        return 1;
    }
    if (!m_queueHasRoomFlag) {
        const unsigned int seekCount = m_seekCount;
        guard.unlock();
        m_queueHasRoom.wait(m_queueHasRoomFlag);
        guard.lock();
        if (m_stoppedFlag || m_muxer == nullptr || seekCount != m_seekCount) {
            return 1;
        }
    }
    m_inputMonitor.write(packet);
    try {
        dispatch(*packet);
    } catch (const std::exception& failure) {
        CBBLog::error("FFMpegEncoder<%d>::write - packet dropped: %s", m_id, failure.what());
    }
    return 1;
}

void FFMpegEncoder::dispatch(SamplePacket& packet)
{
    switch (packet.getType()) {
    case PacketType::Audio:
        dispatchAudio(packet);
        break;
    case PacketType::Video:
        dispatchVideo(packet);
        break;
    case PacketType::None:
        m_muxer->writeEnd();
        CBBLog::debug("FFMpegEncoder<%d>: END packet received", m_id);
        pushCopy(PacketType::None, nullptr, 0, 0, 0, false);
        break;
    case PacketType::Metadata:
        dispatchMetadata(packet);
        break;
    default:
        break;
    }
}

unsigned long long FFMpegEncoder::audioTimestamp(const SamplePacket& packet)
{
    const unsigned long long stamped = packet.getTimestamp();
    const unsigned long long timestamp =
        stamped != SamplePacket::NoTimestamp ? stamped : m_nextAudioTs;
    m_nextAudioTs = timestamp + packet.getDuration();
    return timestamp;
}

void FFMpegEncoder::dispatchAudio(SamplePacket& packet)
{
    if (!m_profile->audioPassthrough()) {
        encodeAudioPacket(packet);
        return;
    }
    if (m_profile->outputStream()->isRTP()) {
        pushCopy(PacketType::Audio, packet.getBuffer(), packet.getLength(), packet.getTimestamp(),
                 packet.getDuration(), packet.isKeyFrame());
        return;
    }
    if (!m_audioStream || packet.getLength() <= 0) {
        return;
    }
    const unsigned long long timestamp = audioTimestamp(packet);
    m_muxer->writeAudioPacket(packet.getBuffer(), static_cast<unsigned int>(packet.getLength()),
                              presentationTime(*m_audioStream, timestamp),
                              static_cast<long long>(timestamp));
}

void FFMpegEncoder::dispatchVideo(SamplePacket& packet)
{
    if (!m_profile->videoPassthrough()) {
        encodeVideoPacket(packet);
        return;
    }
    const unsigned long long timestamp = packet.getTimestamp();
    if (m_profile->outputStream()->isRTP()) {
        pushCopy(PacketType::Video, packet.getBuffer(), packet.getLength(), timestamp,
                 packet.getDuration(), packet.isKeyFrame());
        return;
    }
    if (!m_videoStream || packet.getLength() <= 0) {
        return;
    }
    if (timestamp == SamplePacket::NoTimestamp) {
        // No picture, but what the decoder is set up with.
        m_muxer->setVideoExtradata(packet.getBuffer(), packet.getLength());
        return;
    }
    m_muxer->writeVideoPacket(packet.getBuffer(), static_cast<unsigned int>(packet.getLength()),
                              presentationTime(*m_videoStream, timestamp),
                              static_cast<long long>(timestamp), packet.isKeyFrame());
}

void FFMpegEncoder::dispatchMetadata(SamplePacket& packet)
{
    auto* block = new MetadataPacket(reinterpret_cast<const char*>(packet.getBuffer()),
                                     static_cast<unsigned int>(std::max(packet.getLength(), 0)));
    const PacketOwner owner(block);
    if (ssicmp(block->getMetadata("ACTION").c_str(), "START_NEW_SEGMENT") == 0) {
        m_muxer->setNewSegmentTs(packet.getTimestamp());
        return;
    }
    CBBLog::debug("FFMpegEncoder<%d>: METADATA packet received", m_id);
    pushCopy(PacketType::Metadata, packet.getBuffer(), packet.getLength(), 0, 0, true);
}

long long FFMpegEncoder::presentationTime(const EncoderStream& stream, unsigned long long timestamp)
{
    const AVRational timeBase = stream.timeBase();
    const double tickUs = av_q2d(timeBase) * 1000000;
    if (!(tickUs > 0.0)) {
        return 0;
    }
    const long long ticks = std::llround(static_cast<double>(timestamp) / tickUs);
    return av_rescale_q(ticks, timeBase, m_muxer->timeBaseOf(stream.type));
}

void FFMpegEncoder::pushCopy(PacketType::Enum type, const unsigned char* data, int size,
                             unsigned long long timestamp, unsigned long long duration,
                             bool keyFrame)
{
    auto* copy = new SimpleSamplePacket;
    copy->setAndCopy(type, data, size, timestamp, duration, keyFrame);
    pushPacket(copy);
}

void FFMpegEncoder::pushPacket(SamplePacket* packet)
{
    const PReadGuard guard(m_queueLock);
    if (m_queue == nullptr) {
        packet->release();
        return;
    }
    const auto bytes = static_cast<unsigned long long>(std::max(packet->getLength(), 0));
    if (m_queue->getByteSize() + bytes > HighWaterBytes) {
        m_queueHasRoom.reset(m_queueHasRoomFlag);
    }
    m_queue->push(packet);
}

SamplePacket* FFMpegEncoder::popPacket(bool wait)
{
    const PReadGuard guard(m_queueLock);
    if (m_queue == nullptr) {
        return nullptr;
    }
    SamplePacket* packet = m_queue->getNextPacket(wait);
    if (!m_queueHasRoomFlag && m_queue->getByteSize() < LowWaterBytes) {
        m_queueHasRoom.signal(m_queueHasRoomFlag);
    }
    return packet;
}

bool FFMpegEncoder::readFrame(PacketType::Enum& type, unsigned char*& data, unsigned int& size,
                              unsigned long long& timestamp, unsigned long long& duration,
                              void*& context, bool& keyFrame)
{
    SamplePacket* packet = popPacket(true);
    if (packet == nullptr) {
        return false;
    }
    type = packet->getType();
    data = packet->getBuffer();
    size = static_cast<unsigned int>(std::max(packet->getLength(), 0));
    timestamp = packet->getTimestamp();
    duration = packet->getDuration();
    context = packet;
    keyFrame = packet->isKeyFrame();
    return true;
}

void FFMpegEncoder::freeFrame(unsigned char* /*data*/, void* context)
{
    if (context != nullptr) {
        static_cast<SamplePacket*>(context)->release();
    }
}

int FFMpegEncoder::headerCallback(void* opaque, unsigned char* data, int size)
{
    auto* encoder = static_cast<FFMpegEncoder*>(opaque);
    if (ssicmp(encoder->m_profile->outputStream()->getFormat(), "flv") != 0) {
        encoder->pushCopy(PacketType::Multiplexed, data, size, 0, 0, false);
        return 0;
    }
    FLVHeader header;
    header.m_input = data;
    header.m_inputSize = size;
    header.m_profile = encoder->m_profile;
    header.process();
    const std::unique_ptr<unsigned char[]> result(header.m_output);
    encoder->pushCopy(PacketType::Multiplexed, result.get(), header.m_outputSize, 0, 0, false);
    const std::vector<unsigned char> tags = sequenceHeaders(data, size);
    if (!tags.empty()) {
        encoder->pushCopy(PacketType::Multiplexed, tags.data(), static_cast<int>(tags.size()), 0, 0,
                          false);
    }
    return 0;
}

int FFMpegEncoder::packetCallback(void* opaque, const unsigned char* data, int size)
{
    auto* encoder = static_cast<FFMpegEncoder*>(opaque);
    const unsigned long long timestamp =
        encoder->m_muxer != nullptr ? encoder->m_muxer->takePendingTs() : SamplePacket::NoTimestamp;
    encoder->pushCopy(PacketType::Multiplexed, data, size, timestamp, 0, false);
    return 0;
}

int FFMpegEncoder::readCallback(void* /*opaque*/, unsigned char* /*data*/, int /*size*/)
{
    return 0;
}

void FFMpegEncoder::stopQueue()
{
    const PReadGuard guard(m_queueLock);
    if (m_queue != nullptr) {
        m_queue->stop();
    }
}

void FFMpegEncoder::resetQueue()
{
    const PReadGuard guard(m_queueLock);
    if (m_queue != nullptr) {
        m_queue->reset();
    }
}

void FFMpegEncoder::flushQueue()
{
    const PReadGuard guard(m_queueLock);
    if (m_queue != nullptr) {
        m_queue->flush();
    }
    // A writer may have filled the queue up once more before it was stopped. Nobody will read that
    // out of it, so nobody would let the next writer go on.
    m_queueHasRoom.signal(m_queueHasRoomFlag);
}

void FFMpegEncoder::flush()
{
    if (!m_queueHasRoomFlag) {
        m_queueHasRoom.signal(m_queueHasRoomFlag);
    }
    // Stopped meanwhile, so that a writer who waits for room in the queue gives m_writeMutex back.
    stopQueue();
    const PMutexGuard guard(m_writeMutex);
    flushLocked();
    if (!m_stoppedFlag) {
        resetQueue();
    }
}

void FFMpegEncoder::flushLocked()
{
    if (m_audioFifo) {
        av_fifo_reset2(m_audioFifo.get());
    }
    if (m_muxer != nullptr) {
        m_muxer->flush();
    }
    flushQueue();
}

void FFMpegEncoder::resetPosition(unsigned long long position)
{
    CBBLog::debug("[FFMpegEncoder<%d>::resetPosition] pos %llu", m_id, position);
    if (!m_queueHasRoomFlag) {
        m_queueHasRoom.signal(m_queueHasRoomFlag);
    }
    stopQueue();
    const PMutexGuard guard(m_writeMutex);
    ++m_seekCount;
    flushLocked();
    // These encoders cannot be flushed; opened anew they hold nothing back, and take time stamps
    // that lie before the last one.
    for (EncoderStream* stream : {m_videoStream.get(), m_audioStream.get()}) {
        if (stream != nullptr && !stream->copied && stream->open() < 0) {
            CBBLog::error("[FFMpegEncoder<%d>::resetPosition] could not open %s again", m_id,
                          stream->encoder->name);
        }
    }
    if (m_muxer != nullptr) {
        restartMuxer(position);
    }
    flushQueue();
    if (!m_stoppedFlag) {
        resetQueue();
    }
    m_seekOffset = position * 1000;
    m_videoSeekPending = true;
    m_audioSeekPending = true;
}

void FFMpegEncoder::restartMuxer(unsigned long long position)
{
    if (m_profile->outputStream()->isMultiplexed() && m_muxer->getType() == 1) {
        closeLocked();
        if (initFFMpeg(m_profile->outputStream()) == 0) {
            startLocked();
            m_muxer->seekPause();
            m_muxer->seekResume(position);
        }
        m_firstVideoTs = -1;
        return;
    }
    const bool allCopied =
        (!m_videoStream || m_videoStream->copied) && (!m_audioStream || m_audioStream->copied);
    if (m_audioEncoded || m_videoEncoded) {
        m_firstVideoTs = 0;
    } else if (!allCopied && !m_profile->outputStream()->isMultiplexed()) {
        return;
    }
    // Where nothing was encoded yet, a stream that is copied may have got through nevertheless.
    m_muxer->seekPause();
    m_muxer->seekResume(position);
}
