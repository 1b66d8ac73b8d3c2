#pragma once

#include "host/Console.h"
#include "host/FrameSink.h"
#include "host/Input.h"
#include "host/Pacer.h"
#include "host/PlayCommand.h"
#include "host/PlayStatistics.h"
#include "host/ProgressBar.h"
#include "host/StopSignal.h"
#include "host/Stretch.h"

#include <chrono>
#include <string>

namespace zel::host {

/// One pass over the medium: from start to the end, with the seeks on the way. Main thread.
class PlayPass
{
public:
    PlayPass(const PlayOptions& options, Console& console, StopSignal& stop, Input& input,
             const FrameSinks& sinks, std::chrono::steady_clock::time_point processStart);

    /// @return the statistics; the first failed seek stands in failure()
    const PlayStatistics& run();
    const std::string& failure() const { return m_failure; }

private:
    void describe();
    void readAll();
    /// @return false when the stretch to play has ended
    bool handle(const Frame& frame);
    bool handleMedia(const Frame& frame);
    void handleMetadata(const Frame& frame);
    bool isUnwanted(const Frame& frame) const;
    void leaveOutVideo(const Frame& frame);
    void seekWhenDue(const Frame& frame);
    bool seekAtEnd();
    bool seekTo(unsigned long long targetMs);
    void beginStretch(unsigned long long startMs);

    const PlayOptions& m_options;
    StopSignal& m_stop;
    Input& m_input;
    const FrameSinks& m_sinks;
    const std::chrono::steady_clock::time_point m_processStart;
    PlayStatistics m_statistics;
    Stretch m_stretch;
    Pacer m_pacer;
    ProgressBar m_progress;
    bool m_videoLeftOut = false;
    std::string m_failure;
};

} // namespace zel::host
