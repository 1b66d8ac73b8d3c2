#pragma once

#include "host/Input.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>

namespace zel::host {

/// Reads an input on a thread of its own, so that a medium is decoded while earlier frames of it
/// are encoded.
///
///     Input ── reading thread ──> [ frames, a second or so of them ] ──> next()
///
/// Behind a notice, which is about all frames that follow it, nothing is read until it was taken.
/// One thread takes frames; the input may be sought only between halt() and the next next():
///
///     frames.halt();
///     if (seek()) {
///         frames.drop(); // else they go on where they were
///     }
class ReadAhead
{
public:
    using Read = std::function<bool(Frame&)>;
    using Release = std::function<void(Frame&)>;

    /// @param read     takes the next frame, false at the end; called on the reading thread
    /// @param release  gives a frame back that nobody took
    ReadAhead(Read read, Release release);
    /// Halts and drops.
    ~ReadAhead();
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    /// Takes the next frame; begins to read where that is not under way.
    /// @return false at the end
    /// @throws what reading threw
    bool next(Frame& frame);
    /// Stops reading, once a read that is under way has returned. What was read can be taken still.
    void halt();
    /// Gives back what was read; the next frame is read anew, also behind the end. Halted only.
    void drop();

private:
    void run();
    void awaitFrames(std::unique_lock<std::mutex>& lock);
    bool isFull() const;

    const Read m_read;
    const Release m_release;
    std::mutex m_mutex; ///< guards what follows, but for the thread
    std::condition_variable m_hasFrames;
    std::condition_variable m_hasRoom;
    std::deque<Frame> m_frames;
    std::size_t m_bytes = 0; ///< in m_frames
    bool m_noticeWaits = false;
    bool m_takesAny = false; ///< the taker sleeps until there is a frame at all
    bool m_halted = false;
    bool m_ended = false; ///< there is nothing behind m_frames
    std::exception_ptr m_failure;
    std::thread m_thread;
};

} // namespace zel::host
