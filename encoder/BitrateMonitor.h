#pragma once

#include "common/utils/Locks.h"
#include "common/utils/StdString.h"
#include "plugin/SamplePacket.h"

#include <deque>
#include <utility>

namespace zel::streamer {

/// Counts the bytes that pass a point of the pipeline and logs running rates at debug level. It
/// changes no behaviour. Owned by the stage it watches; any thread.
///
/// A rate is in units of 1024 bits per second, from whole seconds; an interval shorter than one
/// leaves the figure as it was.
class BitrateMonitor
{
public:
    /// @param name           shown in the log
    /// @param useTimestamps  take the time from the packets, not from the monotonic clock
    /// @param intervalMs     time between two log entries; 0 computes and logs no rates
    BitrateMonitor(const CStdStr<char>& name, bool useTimestamps, unsigned int intervalMs);
    virtual ~BitrateMonitor() = default;
    BitrateMonitor(const BitrateMonitor&) = delete;
    BitrateMonitor& operator=(const BitrateMonitor&) = delete;

    /// @param size         bytes
    /// @param timestampUs  or SamplePacket::NoTimestamp; only looked at when stamps are used
    /// @param type         none stands for the end of the stream
    virtual void write(const unsigned long long& size, const unsigned long long& timestampUs,
                       PacketType::Enum type);
    /// Begins anew.
    virtual void reset();

    /// Counts a packet, which stays the caller's. Null does nothing.
    void write(SamplePacket* packet);

protected:
    /// Kilobits per second over whole seconds; without a whole one `rate` stays.
    static void updateRate(unsigned long long& rate, unsigned long long bytes,
                           unsigned int elapsedMs);

    const CStdStr<char> m_name;
    const bool m_useTimestamps;
    const unsigned int m_interval;                           ///< ms
    unsigned int m_startTime ZEL_GUARDED_BY(m_lock) = 0;     ///< ms; 0 until a packet has come
    unsigned int m_intervalStart ZEL_GUARDED_BY(m_lock) = 0; ///< ms
    unsigned int m_currentTime ZEL_GUARDED_BY(m_lock) = 0;   ///< ms, last time seen
    unsigned long long m_totalBytes ZEL_GUARDED_BY(m_lock) = 0;
    unsigned long long m_totalKbps ZEL_GUARDED_BY(m_lock) = 0; ///< as last computed
    unsigned long long m_intervalBytes ZEL_GUARDED_BY(m_lock) = 0;
    unsigned long long m_intervalKbps ZEL_GUARDED_BY(m_lock) = 0;
    PMutex m_lock; ///< recursive

private:
    void closeInterval() ZEL_REQUIRES(m_lock);
};

/// Also measures the side that takes bytes out of a buffer. Its clock is the time at which the
/// bytes now being read were written, so that with time stamps its rate is one in stream time.
///
///     write ──> m_pending: (time, bytes) (time, bytes) ... ──> read
class ReadWriteBitrateMonitor : public BitrateMonitor
{
public:
    using BitrateMonitor::BitrateMonitor;
    using BitrateMonitor::write;

    void write(const unsigned long long& size, const unsigned long long& timestampUs,
               PacketType::Enum type) override;
    void reset() override;
    /// Counts bytes that were taken out, of which more may be told than are pending.
    virtual void read(const unsigned long long& size);

private:
    void takePending(unsigned long long size) ZEL_REQUIRES(m_lock);
    void closeReadInterval() ZEL_REQUIRES(m_lock);

    /// Writes not yet read, oldest first: time in ms and bytes left.
    std::deque<std::pair<long long, unsigned int>> m_pending ZEL_GUARDED_BY(m_lock);
    unsigned int m_readStartTime ZEL_GUARDED_BY(m_lock) = 0;     ///< ms
    unsigned int m_readIntervalStart ZEL_GUARDED_BY(m_lock) = 0; ///< ms
    unsigned int m_readCurrentTime ZEL_GUARDED_BY(m_lock) = 0;   ///< ms
    unsigned long long m_readTotalBytes ZEL_GUARDED_BY(m_lock) = 0;
    unsigned long long m_readTotalKbps ZEL_GUARDED_BY(m_lock) = 0;
    unsigned long long m_readIntervalBytes ZEL_GUARDED_BY(m_lock) = 0;
    unsigned long long m_readIntervalKbps ZEL_GUARDED_BY(m_lock) = 0;
};

} // namespace zel::streamer
