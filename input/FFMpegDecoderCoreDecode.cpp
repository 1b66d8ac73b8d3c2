#include "input/FFMpegDecoderCore.h"

#include "common/utils/CBBLog.h"

#include <cstring>

namespace PacketType = zel::streamer::PacketType;
using zel::streamer::SamplePacket;

namespace {

constexpr unsigned int MaxLateVideoPackets = 6;
constexpr unsigned int MaxLateAudioPackets = 5;
constexpr unsigned int MaxRefusedPictures = 30;
constexpr unsigned int MaxAudioOutsideSeek = 6;
constexpr unsigned long long SeekWindowUs = 6000000;
constexpr double JumpInFrames = 10.0;

bool isNegative(int64_t stamp)
{
    return stamp < 0 && stamp != AV_NOPTS_VALUE;
}

/// Both stamps before the start: samples that only prime the decoder.
bool isBeforeStart(const AVPacket& packet)
{
    return isNegative(packet.dts) && isNegative(packet.pts);
}

/// dts, or pts when there is no dts or a negative one.
int64_t packetTime(const AVPacket& packet)
{
    return packet.dts < 0 ? packet.pts : packet.dts;
}

unsigned long long toUnsigned(int64_t value)
{
    return static_cast<unsigned long long>(value);
}

long long toSigned(unsigned long long value)
{
    return static_cast<long long>(value);
}

/// Difference of two stamps that come from a file, so that no value overflows.
int64_t difference(int64_t left, int64_t right)
{
    return toSigned(toUnsigned(left) - toUnsigned(right));
}

/// Gives a read packet's bytes back at the end of its turn.
class PacketTurn
{
public:
    explicit PacketTurn(AVPacket* packet) : m_packet(packet) {}
    ~PacketTurn() { av_packet_unref(m_packet); }
    PacketTurn(const PacketTurn&) = delete;
    PacketTurn& operator=(const PacketTurn&) = delete;

private:
    AVPacket* m_packet;
};

} // namespace

unsigned long long streamTimeToUs(unsigned long long value, AVRational timeBase)
{
    constexpr double TwoTo63 = 9223372036854775808.0;
    const double us = static_cast<double>(toSigned(value)) *
                      (static_cast<double>(timeBase.num) / timeBase.den) * 1000000.0;
    if (us >= TwoTo63) {
        return us >= 2 * TwoTo63 ? ~0ULL : static_cast<unsigned long long>(us);
    }
    return us >= -TwoTo63 ? toUnsigned(static_cast<int64_t>(us)) : SamplePacket::NoTimestamp;
}

bool FFMpegDecoderCore::decodeFromMedium(PacketType::Enum& type, unsigned char*& data,
                                         unsigned int& size, unsigned long long& timestamp,
                                         unsigned long long& duration, void*& context,
                                         bool& keyFrame)
{
    const Turn turn(*this);
    if (!m_reader) {
        return false;
    }
    Sample sample;
    Step step = Step::NextPacket;
    while (step == Step::NextPacket) {
        if (m_skipVideo && m_sendExtradata) {
            if (!deliverExtradata(sample)) {
                m_position = timestamp;
                return true;
            }
            sample.keyFrame = keyFrame;
            break;
        }
        if (m_reader->read(m_readPacket.get()) < 0) {
            return false;
        }
        const PacketTurn packetTurn(m_readPacket.get());
        const AVPacket& packet = *m_readPacket;
        if (packet.stream_index == m_metadataStreamIndex) {
            handleMetaDataPacket(packet);
            continue;
        }
        const bool isAudio = packet.stream_index == m_audioStreamIndex;
        if (isBeforeStart(packet)) {
            CBBLog::debug("FFMpegDecoderCore::decodeFromMedium - Skipping encoded packet with "
                          "negative timestamps - %d %lld %lld",
                          isAudio ? PacketType::Audio : PacketType::Video,
                          static_cast<long long>(packet.dts), static_cast<long long>(packet.pts));
            continue;
        }
        sample = Sample();
        sample.timestamp = toUnsigned(packetTime(packet));
        sample.duration = toUnsigned(packet.duration);
        sample.keyFrame = keyFrame;
        if (isAudio) {
            step = takeAudio(packet, sample);
        } else if (packet.stream_index == m_videoStreamIndex) {
            step = takeVideo(packet, sample);
        }
    }
    type = sample.type;
    timestamp = sample.timestamp;
    duration = sample.duration;
    if (sample.type == PacketType::Notice) {
        return true;
    }
    data = sample.data.release();
    size = sample.size;
    context = nullptr;
    keyFrame = sample.keyFrame;
    m_position = timestamp;
    return true;
}

/// The codec's set-up, as a packet of its own in front of copied video.
/// @return false when there is none. Kept: the call then delivers nothing and leaves the caller's
///         values alone, which a reader sees as "nothing now".
bool FFMpegDecoderCore::deliverExtradata(Sample& sample)
{
    m_sendExtradata = false;
    const AVCodecContext* codec = videoCodec();
    if (codec == nullptr || codec->extradata == nullptr || codec->extradata_size < 1) {
        return false;
    }
    sample = Sample();
    sample.type = PacketType::Video;
    sample.timestamp = SamplePacket::NoTimestamp;
    sample.size = static_cast<unsigned int>(codec->extradata_size);
    sample.data.reset(new unsigned char[sample.size]);
    std::memcpy(sample.data.get(), codec->extradata, sample.size);
    return true;
}

FFMpegDecoderCore::Step FFMpegDecoderCore::takeVideo(const AVPacket& packet, Sample& sample)
{
    if (packet.dts == AV_NOPTS_VALUE && packet.pts == AV_NOPTS_VALUE) {
        return Step::NextPacket;
    }
    sample.type = PacketType::Video;
    const int64_t time = packetTime(packet);
    if (m_firstVideoTime == AV_NOPTS_VALUE) {
        m_firstVideoTime = time;
    }
    if (time < m_firstVideoTime) {
        CBBLog::warn("FFMpegDecoderCore::decodeFromMedium - skipping encoded video packet - %d "
                     "%lld %lld",
                     sample.type, static_cast<long long>(time),
                     static_cast<long long>(m_firstVideoTime));
        if (++m_videoErrorCount >= MaxLateVideoPackets) {
            m_firstVideoTime = time;
        }
        return Step::NextPacket;
    }
    if (needToStartAtZero()) {
        sample.timestamp = toUnsigned(difference(time, m_firstVideoTime));
    }
    sample.keyFrame = (packet.flags & AV_PKT_FLAG_KEY) != 0;
    const bool hasPicture = decodeVideo(packet, sample);
    if (toSigned(sample.timestamp) < 0 || isRefusedUntilKeyframe(sample)) {
        return Step::NextPacket;
    }
    m_videoErrorCount = 0;
    if (!hasPicture) {
        if (m_skipVideo) {
            return Step::NextPacket;
        }
        CBBLog::warn("FFMpegDecoderCore::decodeFromMedium - Video decoding failed on packet - %d "
                     "%lld %lld",
                     sample.type, static_cast<long long>(packet.dts),
                     static_cast<long long>(packet.pts));
        if (!m_videoDecodedOnce) {
            m_firstVideoTime = AV_NOPTS_VALUE;
            m_videoFailing = true;
        }
        return Step::NextPacket;
    }
    m_videoSeekPending = false;
    if (isTimestampJump(sample)) {
        return Step::NextPacket;
    }
    m_videoDecodedOnce = true;
    m_videoFailing = false;
    m_prevVideoTime = toSigned(sample.timestamp);
    return Step::Deliver;
}

/// After a jump pictures are refused until a key frame comes, or until too many were refused.
bool FFMpegDecoderCore::isRefusedUntilKeyframe(const Sample& sample)
{
    if (!m_waitForKeyframe) {
        return false;
    }
    if (sample.keyFrame || m_videoErrorCount >= MaxRefusedPictures) {
        m_waitForKeyframe = false;
        return false;
    }
    CBBLog::debug("FFMpegDecoderCore::decodeFromMedium - skipping decoded video packet, wait for "
                  "keyframe - %d %d %d",
                  static_cast<int>(sample.timestamp), static_cast<int>(sample.keyFrame),
                  static_cast<int>(m_videoErrorCount));
    ++m_videoErrorCount;
    m_videoFailing = true;
    return true;
}

/// On a core that drops them: whether the picture lies more than ten frames from the last one.
bool FFMpegDecoderCore::isTimestampJump(const Sample& sample)
{
    if (m_prevVideoTime == AV_NOPTS_VALUE || !m_dropTimestampJumps || m_fps <= 0.0) {
        return false;
    }
    const auto limit = static_cast<int64_t>(1000000.0 / m_fps * JumpInFrames);
    const int64_t step = difference(toSigned(sample.timestamp), m_prevVideoTime);
    if (step >= -limit && step <= limit) {
        return false;
    }
    CBBLog::warn("FFMpegDecoderCore::decodeFromMedium - skipping dec %d - %lld", sample.type,
                 toSigned(sample.timestamp));
    m_prevVideoTime = AV_NOPTS_VALUE;
    if (!m_skipVideo) {
        m_waitForKeyframe = true;
    }
    return true;
}

FFMpegDecoderCore::Step FFMpegDecoderCore::takeAudio(const AVPacket& packet, Sample& sample)
{
    sample.type = PacketType::Audio;
    int64_t time = packetTime(packet);
    if (time == AV_NOPTS_VALUE && m_prevAudioTime != AV_NOPTS_VALUE) {
        time = m_prevAudioTime + 1;
    }
    if (m_firstAudioTime == AV_NOPTS_VALUE) {
        m_firstAudioTime = time;
    }
    if (time < m_firstAudioTime) {
        CBBLog::warn("FFMpegDecoderCore::decodeFromMedium - skipping encoded audio packet - %d "
                     "%lld %lld",
                     sample.type, static_cast<long long>(time),
                     static_cast<long long>(m_firstAudioTime));
        if (++m_audioErrorCount > MaxLateAudioPackets) {
            m_firstAudioTime = time;
        }
        return Step::NextPacket;
    }
    m_prevAudioTime = time;
    // Without any stamp there is nothing to count from, and the sample count stands in.
    if (needToStartAtZero() && time != AV_NOPTS_VALUE) {
        time = difference(time, m_firstAudioTime);
    }
    sample.timestamp = toUnsigned(time);
    if (updateAudioFormat()) {
        sample.type = PacketType::Notice;
        sample.timestamp = streamTimeToUs(sample.timestamp, m_audioStream->time_base);
        sample.duration = streamTimeToUs(sample.duration, m_audioStream->time_base);
        return Step::Deliver;
    }
    const bool hasSamples = decodeAudio(packet, sample);
    if (m_audioSeekPending && isOutsideSeekRange(sample)) {
        return Step::NextPacket;
    }
    m_audioErrorCount = 0;
    if (m_videoRequested && m_videoFailing) {
        CBBLog::debug("FFMpegDecoderCore::decodeFromMedium - Skipping audio packet, video decoding "
                      "is failing - %d %lld %lld",
                      sample.type, static_cast<long long>(packet.dts),
                      static_cast<long long>(packet.pts));
        return Step::NextPacket;
    }
    return hasSamples ? Step::Deliver : Step::NextPacket;
}

/// After a seek, audio that lies before the target or too far behind it is dropped; some sources
/// deliver leftovers first. Clears the search when the packet fits or the search is given up.
bool FFMpegDecoderCore::isOutsideSeekRange(const Sample& sample)
{
    if (sample.timestamp >= m_streamOffset && sample.timestamp <= m_streamOffset + SeekWindowUs) {
        m_audioSeekPending = false;
        return false;
    }
    CBBLog::warn("FFMpegDecoderCore::decodeFromMedium : skip dec audio packet out of seek range, "
                 "%u <|> %u",
                 static_cast<unsigned int>(sample.timestamp),
                 static_cast<unsigned int>(m_streamOffset));
    if (++m_audioErrorCount >= MaxAudioOutsideSeek) {
        m_audioSeekPending = false;
    }
    return true;
}

bool FFMpegDecoderCore::decodePacket(SamplePacket* packet, PacketType::Enum& type,
                                     unsigned char*& data, unsigned int& size,
                                     unsigned long long& timestamp, unsigned long long& duration,
                                     void*& context, bool& keyFrame)
{
    const Turn turn(*this);
    context = nullptr;
    if (packet == nullptr) {
        return false;
    }
    type = packet->getType();
    keyFrame = packet->isKeyFrame();
    m_position = timestamp;
    const bool isAudio = type == PacketType::Audio;
    if (!isAudio && type != PacketType::Video) {
        return false;
    }
    const unsigned char* bytes = packet->getBuffer();
    const auto length =
        static_cast<unsigned int>(packet->getLength() > 0 ? packet->getLength() : 0);
    const bool rescales = !isAudio && m_rescaleOnly;
    const bool passes = isAudio ? m_audioStream == nullptr : m_videoStream == nullptr;
    if (passes && !rescales) {
        context = packet;
        size = length;
        data = packet->getBuffer();
        return true;
    }
    bool done = false;
    if (rescales) {
        done = rescaleVideoPacket(bytes, length, data, size, timestamp, duration, context);
    } else if (m_formatContext && isAudio) {
        done = decodeAudioPacket(bytes, length, data, size, timestamp, duration, context);
    } else if (m_formatContext) {
        done = decodeVideoPacket(bytes, length, data, size, timestamp, duration, context, keyFrame);
    }
    packet->release();
    return done;
}

bool FFMpegDecoderCore::skipPacket(PacketType::Enum& type, unsigned long long& timestamp,
                                   unsigned long long& duration)
{
    const Turn turn(*this);
    if (!m_reader || m_reader->read(m_readPacket.get()) < 0) {
        return false;
    }
    const PacketTurn packetTurn(m_readPacket.get());
    const AVPacket& packet = *m_readPacket;
    const bool isAudio = packet.stream_index == m_audioStreamIndex;
    if (isBeforeStart(packet)) {
        CBBLog::debug("Skipping encoded packet with negative timestamps - %d %lld %lld",
                      isAudio ? PacketType::Audio : PacketType::Video,
                      static_cast<long long>(packet.dts), static_cast<long long>(packet.pts));
        return false;
    }
    timestamp = toUnsigned(packetTime(packet));
    duration = toUnsigned(packet.duration);
    if (isAudio) {
        type = PacketType::Audio;
        m_prevAudioTime = toSigned(timestamp);
    } else if (packet.stream_index == m_videoStreamIndex) {
        type = PacketType::Video;
    }
    m_position = timestamp;
    return true;
}
