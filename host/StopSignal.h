#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace zel::host {

/// Turns SIGINT, SIGTERM and SIGHUP into an orderly end.
///
/// The signals are blocked in every thread and taken by a thread of this object, which may thus do
/// what no signal handler may: call `stop` of an input while the main thread reads from it. A
/// second signal ends the process at once. Made in main before any other thread, since threads
/// inherit the mask.
class StopSignal
{
public:
    StopSignal();
    ~StopSignal();
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    /// True once a signal came. Any thread.
    bool isRequested() const { return m_signal.load(std::memory_order_relaxed) != 0; }
    /// 128 plus the signal's number, as shells have it.
    int exitStatus() const { return 128 + m_signal; }

    /// Sets what is called when a signal comes, on this object's thread; null for nothing. Called
    /// at once when one came before. After the return an earlier action is not running any more.
    void setAction(std::function<void()> action);

    /// Sleeps until then. Main thread.
    /// @return false when a signal came first
    bool sleepUntil(std::chrono::steady_clock::time_point then);

private:
    void run();

    std::atomic<int> m_signal{0};
    std::atomic<bool> m_ending{false};
    std::mutex m_mutex; ///< guards m_action, and is held while it runs
    std::function<void()> m_action;
    std::mutex m_sleepMutex; ///< orders a sleeper against the signal
    std::condition_variable m_wake;
    std::thread m_thread;
};

} // namespace zel::host
