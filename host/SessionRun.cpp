#include "host/SessionRun.h"

#include "host/HostError.h"

#include <chrono>

namespace zel::host {

SessionRun::SessionRun(TranscodeSession& session, const TranscodeOptions& options, StageSink& sink,
                       StopSignal& stop, ProgressBar& progress,
                       const std::optional<CutOptions>& cuts)
    : m_session(session), m_options(options), m_sink(sink), m_progress(progress),
      m_reader(session.stage(), sink,
               [&session] {
                   // The writing thread may wait in either of the two.
                   session.stage().stop();
                   session.input().plugin().stop();
               }),
      m_feed(session, options, m_reader, stop, progress, cuts)
{
}

void SessionRun::run()
{
    const auto started = std::chrono::steady_clock::now();
    m_reader.start();
    try {
        m_feed.run();
    } catch (...) {
        m_session.stage().stop();
        m_session.input().plugin().stop();
        m_reader.join();
        throw;
    }
    // Nothing more is read, so that nobody waits for a medium that may be slow.
    m_session.input().plugin().stop();
    const bool sawEnd = m_reader.join();
    m_progress.clear();
    m_reader.rethrow();
    if (!sawEnd) {
        throw HostError(m_options.medium + ": the encoder stage stopped before the end");
    }
    m_sink.finish(m_feed.endUs());
    m_seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
}

} // namespace zel::host
