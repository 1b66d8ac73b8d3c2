#pragma once

#include "host/Console.h"

#include <chrono>
#include <optional>
#include <string>

namespace zel::host {

/// One line on the terminal that shows how far a play is; nothing where there is no terminal.
/// Main thread.
class ProgressBar
{
public:
    /// @param enabled   false draws nothing
    /// @param lengthUs  of the whole; 0 when unknown, which shows the position without a bar
    ProgressBar(const Console& console, bool enabled, long long lengthUs);
    ~ProgressBar() { clear(); }
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    /// Draws anew, but at most ten times a second; cheap enough to be called for each frame.
    /// @param bufferPercent  fill level of a network buffer, where there is one
    void update(long long positionUs, std::optional<unsigned int> bufferPercent = {})
    {
        if (m_enabled) {
            m_bufferPercent = bufferPercent;
            updateTerminal(positionUs);
        }
    }
    /// Takes the line away, so that something else can be printed.
    void clear();

private:
    void updateTerminal(long long positionUs);
    std::string line(long long positionUs, std::chrono::steady_clock::time_point now) const;

    const Console& m_console;
    const bool m_enabled;
    const bool m_blocks; ///< the terminal takes UTF-8
    const long long m_lengthUs;
    bool m_visible = false;
    std::optional<unsigned int> m_bufferPercent;
    std::optional<long long> m_firstUs;
    std::chrono::steady_clock::time_point m_started;
    std::chrono::steady_clock::time_point m_nextDraw;
};

} // namespace zel::host
