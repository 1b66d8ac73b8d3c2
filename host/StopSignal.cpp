#include "host/StopSignal.h"

#include <csignal>
#include <pthread.h>
#include <unistd.h>

#include <utility>

namespace zel::host {

namespace {

sigset_t stopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    return signals;
}

} // namespace

StopSignal::StopSignal()
{
    const sigset_t signals = stopSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    // A reader that closes our pipe shows as a write error, so that files are still finished.
    std::signal(SIGPIPE, SIG_IGN);
    m_thread = std::thread([this] { run(); });
}

StopSignal::~StopSignal()
{
    m_ending = true;
    pthread_kill(m_thread.native_handle(), SIGHUP); // ends its sigwait
    m_thread.join();
}

void StopSignal::run()
{
    const sigset_t signals = stopSignals();
    for (;;) {
        int signal = 0;
        if (sigwait(&signals, &signal) != 0) {
            continue;
        }
        if (m_ending) {
            return;
        }
        if (isRequested()) {
            _exit(128 + signal);
        }
        {
            const std::lock_guard<std::mutex> sleepLock(m_sleepMutex);
            m_signal = signal;
        }
        m_wake.notify_all();
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_action) {
            m_action();
        }
    }
}

void StopSignal::setAction(std::function<void()> action)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_action = std::move(action);
    if (m_action && isRequested()) {
        m_action();
    }
}

bool StopSignal::sleepUntil(std::chrono::steady_clock::time_point then)
{
    std::unique_lock<std::mutex> lock(m_sleepMutex);
    return !m_wake.wait_until(lock, then, [this] { return isRequested(); });
}

} // namespace zel::host
