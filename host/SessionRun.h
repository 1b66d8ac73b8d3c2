#pragma once

#include "host/ProgressBar.h"
#include "host/StageFeed.h"
#include "host/StageReader.h"
#include "host/StageSink.h"
#include "host/StopSignal.h"
#include "host/TranscodeSession.h"

#include <optional>

namespace zel::host {

/// A settled session on its way to the end: the calling thread writes to the stage, a thread of its
/// own reads. Main thread, once.
class SessionRun
{
public:
    /// @param cuts  empty when the output is in one piece; all references outlive this object
    SessionRun(TranscodeSession& session, const TranscodeOptions& options, StageSink& sink,
               StopSignal& stop, ProgressBar& progress, const std::optional<CutOptions>& cuts);

    /// @throws HostError when the output cannot be kept, or when the stage ends before its time
    void run();
    const StageFeed& feed() const { return m_feed; }
    /// From start to end of run.
    double seconds() const { return m_seconds; }

private:
    TranscodeSession& m_session;
    const TranscodeOptions& m_options;
    StageSink& m_sink;
    ProgressBar& m_progress;
    StageReader m_reader;
    StageFeed m_feed;
    double m_seconds = 0;
};

} // namespace zel::host
