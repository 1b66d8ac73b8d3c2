#pragma once

#include "host/StopSignal.h"

#include <chrono>
#include <optional>

namespace zel::host {

/// Holds frames back until their time has come. The first frame after a restart sets the clock.
/// Main thread.
class Pacer
{
public:
    explicit Pacer(StopSignal& stop) : m_stop(stop) {}

    /// The next frame sets the clock anew.
    void restart() { m_origin.reset(); }

    /// Sleeps until the frame is due; at once when it is late or far ahead, as behind a jump of
    /// time stamps, which sets the clock anew.
    /// @return false when a signal came
    bool waitFor(unsigned long long timestampUs)
    {
        using std::chrono::microseconds;
        const auto now = std::chrono::steady_clock::now();
        const auto time = microseconds(timestampUs);
        if (!m_origin || *m_origin + time > now + LongestWait ||
            *m_origin + time + LongestWait < now) {
            m_origin = now - time;
        }
        return m_stop.sleepUntil(*m_origin + time);
    }

private:
    static constexpr auto LongestWait = std::chrono::seconds(10);

    StopSignal& m_stop;
    std::optional<std::chrono::steady_clock::time_point> m_origin; ///< when time stamp 0 is due
};

} // namespace zel::host
