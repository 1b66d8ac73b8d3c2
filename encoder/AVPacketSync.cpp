#include "encoder/AVPacketSync.h"

#include "common/utils/CBBLog.h"
#include "common/utils/Clock.h"

namespace zel::streamer {

namespace {

constexpr unsigned int warningIntervalMs = 1000;

// clang-format off
constexpr char videoWarning[] =
    "[AVPacketSync::pop] VIDEO reached limit. numVideoPackets %d  maxVideoPackets %d  numAudioPackets %d";
constexpr char audioWarning[] =
    "[AVPacketSync::pop] AUDIO reached limit. numAudioPackets %d  maxAudioPackets %d  numVideoPackets %d";
// clang-format on

unsigned int roomFor(int maxVideoPackets, int maxAudioPackets)
{
    return 2 * (static_cast<unsigned int>(maxVideoPackets) +
                static_cast<unsigned int>(maxAudioPackets));
}

} // namespace

AVPacketSync::AVPacketSync(int maxVideoPackets, int maxAudioPackets)
    : InterleavedPacketQueue(roomFor(maxVideoPackets, maxAudioPackets), 0), m_numAudioPackets(0),
      m_numVideoPackets(0), m_maxVideoPackets(maxVideoPackets), m_maxAudioPackets(maxAudioPackets),
      m_lastWarningTime(0)
{
}

int AVPacketSync::push(SamplePacket* packet)
{
    PMutexGuard guard(m_lock);
    if (packet != nullptr) {
        count(*packet, 1);
    }
    return PacketQueue::push(packet);
}

// NOLINTNEXTLINE(bugprone-virtual-near-miss): see the header
SamplePacket* AVPacketSync::pop()
{
    PMutexGuard guard(m_lock);
    const auto nowMs = static_cast<unsigned int>(uptimeMs());
    if (m_numVideoPackets > m_maxVideoPackets || m_numAudioPackets > m_maxAudioPackets) {
        warnOfLimits(nowMs);
        return takeNext();
    }
    if (m_numVideoPackets < 1 || m_numAudioPackets < 1) {
        return nullptr;
    }
    return takeNext();
}

SamplePacket* AVPacketSync::flushOne()
{
    PMutexGuard guard(m_lock);
    if (SamplePacket* packet = pop()) {
        return packet;
    }
    if (getPacketSize() == 0) {
        CBBLog::debug("[AVPacketSync::flush] DONE");
        return nullptr;
    }
    return takeNext();
}

void AVPacketSync::reset()
{
    PMutexGuard guard(m_lock);
    PacketQueue::flush();
    m_numAudioPackets = 0;
    m_numVideoPackets = 0;
}

void AVPacketSync::warnOfLimits(unsigned int nowMs)
{
    // One interval for both kinds: a warning of the one silences the other.
    if (m_numVideoPackets > m_maxVideoPackets && nowMs - m_lastWarningTime > warningIntervalMs) {
        CBBLog::warn(videoWarning, m_numVideoPackets, m_maxVideoPackets, m_numAudioPackets);
        m_lastWarningTime = nowMs;
    }
    if (m_numAudioPackets > m_maxAudioPackets && nowMs - m_lastWarningTime > warningIntervalMs) {
        CBBLog::warn(audioWarning, m_numAudioPackets, m_maxAudioPackets, m_numVideoPackets);
        m_lastWarningTime = nowMs;
    }
}

SamplePacket* AVPacketSync::takeNext()
{
    SamplePacket* packet = getNextPacket(false);
    if (packet != nullptr) {
        count(*packet, -1);
    }
    return packet;
}

void AVPacketSync::count(const SamplePacket& packet, int step)
{
    if (packet.getType() == PacketType::Audio) {
        m_numAudioPackets += step;
    } else if (packet.getType() == PacketType::Video) {
        m_numVideoPackets += step;
    }
}

} // namespace zel::streamer
