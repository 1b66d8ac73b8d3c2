#pragma once

#include <atomic>
#include <functional>
#include <sys/types.h>
#include <thread>

namespace zel::test {

/// A thread whose sleep in the kernel a test can await, in place of a guess how long the thread
/// takes to get there.
///
///     WatchedThread reader([&] { packet = queue.getNextPacket(true); });
///     reader.awaitSleep();
///     queue.stop();
///     reader.join();
class WatchedThread
{
public:
    explicit WatchedThread(std::function<void()> body);
    /// Joins.
    ~WatchedThread();
    WatchedThread(const WatchedThread&) = delete;
    WatchedThread& operator=(const WatchedThread&) = delete;

    void join();
    /// Blocks until the thread sleeps.
    /// @return false when it has ended instead
    bool awaitSleep() const;
    /// How often the thread has gone to sleep so far; -1 when it has ended.
    long sleeps() const;
    /// Whether its body has returned.
    bool ended() const { return m_ended; }

private:
    std::atomic<pid_t> m_task{0};
    std::atomic<bool> m_ended{false};
    std::thread m_thread;
};

} // namespace zel::test
