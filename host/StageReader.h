#pragma once

#include "host/Stage.h"
#include "host/StageSink.h"

#include <atomic>
#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>

namespace zel::host {

/// The thread that reads a stage's output until its end and gives it to a sink.
///
/// The writing thread can put marks among the packets, and wait until all that the stage gave out
/// before a mark has been read.
class StageReader
{
public:
    enum class Mark
    {
        Jump, ///< what follows comes from behind a seek
        Sync, ///< nothing changes
    };

    /// @param onFailure  called on the reading thread when the sink fails; makes the writing thread
    ///                   end
    StageReader(Stage& stage, StageSink& sink, std::function<void()> onFailure);
    /// Joined before.
    ~StageReader() = default;
    StageReader(const StageReader&) = delete;
    StageReader& operator=(const StageReader&) = delete;

    /// Writes a mark and waits until it was read. Writing thread.
    /// @return false when reading ended first
    bool passMark(Mark mark);
    bool hasFailed() const { return m_failed; }
    /// Begins to read. Main thread, like what follows.
    void start();
    /// Waits until reading has ended: behind the end of the stream, or when the stage was stopped.
    /// @return false when the stage stopped without an end of the stream
    bool join();
    /// After join.
    /// @throws what the sink threw, if anything
    void rethrow() const;

private:
    void run();
    bool readFrame(Frame& frame);
    bool handle(const Frame& frame);

    Stage& m_stage;
    StageSink& m_sink;
    const std::function<void()> m_onFailure;
    std::atomic<bool> m_failed{false};
    std::exception_ptr m_failure; ///< written before the thread ends
    bool m_sawEnd = false;        ///< the same
    std::mutex m_mutex;           ///< guards what follows
    std::condition_variable m_progress;
    unsigned int m_marksWritten = 0;
    unsigned int m_marksRead = 0;
    bool m_ended = false;
    std::thread m_thread;
};

} // namespace zel::host
