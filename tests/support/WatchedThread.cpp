#include "tests/support/WatchedThread.h"

#include "tests/support/TempFolder.h"

#include <cstddef>
#include <string>
#include <unistd.h>
#include <utility>

namespace zel::test {

namespace {

std::string taskFile(pid_t task, const std::string& name)
{
    return readFile("/proc/self/task/" + std::to_string(task) + "/" + name);
}

} // namespace

WatchedThread::WatchedThread(std::function<void()> body)
    : m_thread([this, body = std::move(body)] {
          m_task = gettid();
          body();
          m_ended = true;
      })
{
}

WatchedThread::~WatchedThread()
{
    join();
}

void WatchedThread::join()
{
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

bool WatchedThread::awaitSleep() const
{
    while (!m_ended) {
        // "12 (name) S ...", where the name may hold anything.
        const std::string state = m_task == 0 ? std::string() : taskFile(m_task, "stat");
        const std::size_t name = state.rfind(") ");
        if (name != std::string::npos && state.compare(name + 2, 1, "S") == 0) {
            return true;
        }
        std::this_thread::yield();
    }
    return false;
}

long WatchedThread::sleeps() const
{
    const std::string label = "\nvoluntary_ctxt_switches:";
    const std::string status = taskFile(m_task, "status");
    const std::size_t position = status.find(label);
    return position == std::string::npos ? -1 : std::stol(status.substr(position + label.size()));
}

} // namespace zel::test
