#include "encoder/BitrateMonitor.h"

#include "common/utils/CBBLog.h"
#include "common/utils/Clock.h"

#include <algorithm>

namespace zel::streamer {

namespace {

constexpr auto noPacket = static_cast<PacketType::Enum>(-1);

/// What "%lld" takes.
long long printable(unsigned long long value)
{
    return static_cast<long long>(value);
}

} // namespace

BitrateMonitor::BitrateMonitor(const CStdStr<char>& name, bool useTimestamps,
                               unsigned int intervalMs)
    : m_name(name), m_useTimestamps(useTimestamps), m_interval(intervalMs),
      m_lock(PMutex::Recursive)
{
}

void BitrateMonitor::write(SamplePacket* packet)
{
    if (!packet) {
        return;
    }
    write(static_cast<unsigned long long>(std::max(packet->getLength(), 0)), packet->getTimestamp(),
          packet->getType());
}

void BitrateMonitor::write(const unsigned long long& size, const unsigned long long& timestampUs,
                           PacketType::Enum type)
{
    PMutexGuard guard(m_lock);
    m_totalBytes += size;
    m_intervalBytes += size;

    if (m_useTimestamps && timestampUs == SamplePacket::NoTimestamp) {
        return;
    }
    m_currentTime = static_cast<unsigned int>(m_useTimestamps ? timestampUs / 1000 : uptimeMs());

    if (type == PacketType::None) {
        if (CBBLog::isDebugEnabled()) {
            CBBLog::debug(
                "BitrateMonitor::[%s]  - received EOF ---\ttotal size: %lld total bitrate %lld",
                m_name.c_str(), printable(m_totalBytes), printable(m_totalKbps));
        }
        return;
    }
    if (type == PacketType::Notice || type == noPacket) {
        return;
    }
    if (m_startTime == 0) {
        m_startTime = m_currentTime;
        m_intervalStart = m_currentTime;
    }
    if (m_interval != 0 && m_currentTime - m_intervalStart >= m_interval) {
        closeInterval();
    }
}

void BitrateMonitor::closeInterval()
{
    const unsigned int intervalMs = m_currentTime - m_intervalStart;
    const unsigned int totalMs = m_currentTime - m_startTime;
    updateRate(m_totalKbps, m_totalBytes, totalMs);
    updateRate(m_intervalKbps, m_intervalBytes, intervalMs);
    if (CBBLog::isDebugEnabled()) {
        CBBLog::debug("BitrateMonitor::[%s] - current size: %lld current bitrate %lldkbps     "
                      "total size: %lld total bitrate %lldkbps",
                      m_name.c_str(), printable(m_intervalBytes), printable(m_intervalKbps),
                      printable(m_totalBytes), printable(m_totalKbps));
        CBBLog::debug(
            "BitrateMonitor::[%s] - current time: %ums last interval %ums total interval %ums ",
            m_name.c_str(), m_currentTime, intervalMs, totalMs);
    }
    m_intervalBytes = 0;
    m_intervalKbps = 0;
    m_intervalStart = m_currentTime;
}

void BitrateMonitor::reset()
{
    PMutexGuard guard(m_lock);
    m_startTime = 0;
    m_intervalStart = 0;
    m_currentTime = 0;
    m_totalBytes = 0;
    m_totalKbps = 0;
    m_intervalBytes = 0;
    m_intervalKbps = 0;
}

void BitrateMonitor::updateRate(unsigned long long& rate, unsigned long long bytes,
                                unsigned int elapsedMs)
{
    const unsigned int seconds = elapsedMs / 1000;
    if (seconds != 0) {
        rate = bytes / seconds * 8 / 1024;
    }
}

void ReadWriteBitrateMonitor::write(const unsigned long long& size,
                                    const unsigned long long& timestampUs, PacketType::Enum type)
{
    BitrateMonitor::write(size, timestampUs, type);
    PMutexGuard guard(m_lock);
    m_pending.emplace_back(m_currentTime, static_cast<unsigned int>(size));
}

void ReadWriteBitrateMonitor::reset()
{
    PMutexGuard guard(m_lock);
    m_readStartTime = 0;
    m_readIntervalStart = 0;
    m_readCurrentTime = 0;
    m_readTotalBytes = 0;
    m_readTotalKbps = 0;
    m_readIntervalBytes = 0;
    m_readIntervalKbps = 0;
    m_pending.clear();
    guard.unlock();
    BitrateMonitor::reset();
}

void ReadWriteBitrateMonitor::read(const unsigned long long& size)
{
    PMutexGuard guard(m_lock);
    takePending(size);
    m_readTotalBytes += size;
    m_readIntervalBytes += size;
    if (m_readStartTime == 0) {
        m_readStartTime = m_readCurrentTime;
        m_readIntervalStart = m_readCurrentTime;
    }
    if (m_interval != 0 && m_readCurrentTime - m_readIntervalStart >= m_interval) {
        closeReadInterval();
    }
}

/// A write that is used up to its last byte leaves the list, one that is used in part stays.
void ReadWriteBitrateMonitor::takePending(unsigned long long size)
{
    unsigned long long rest = size;
    while (rest > 0 && !m_pending.empty()) {
        auto& [timeMs, bytes] = m_pending.front();
        m_readCurrentTime = static_cast<unsigned int>(timeMs);
        if (rest < bytes) {
            bytes -= static_cast<unsigned int>(rest);
            return;
        }
        rest -= bytes;
        m_pending.pop_front();
    }
}

void ReadWriteBitrateMonitor::closeReadInterval()
{
    const unsigned int intervalMs = m_readCurrentTime - m_readIntervalStart;
    const unsigned int totalMs = m_readCurrentTime - m_readStartTime;
    updateRate(m_readTotalKbps, m_readTotalBytes, totalMs);
    updateRate(m_readIntervalKbps, m_readIntervalBytes, intervalMs);
    if (CBBLog::isDebugEnabled()) {
        CBBLog::debug("BitrateMonitor::[%s - read] - current size: %lld current bitrate %lldkbps   "
                      "  total size: %lld total bitrate %lldkbps",
                      m_name.c_str(), printable(m_readIntervalBytes), printable(m_readIntervalKbps),
                      printable(m_readTotalBytes), printable(m_readTotalKbps));
        CBBLog::debug("BitrateMonitor::[%s - read] - current time: %ums last interval %ums total "
                      "interval %ums ",
                      m_name.c_str(), m_readCurrentTime, intervalMs, totalMs);
    }
    m_readIntervalBytes = 0;
    m_readIntervalKbps = 0;
    m_readIntervalStart = m_readCurrentTime;
}

} // namespace zel::streamer
