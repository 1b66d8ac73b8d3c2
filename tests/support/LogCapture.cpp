#include "tests/support/LogCapture.h"

#include "common/utils/CRegistry.h"
#include "common/utils/Clock.h"
#include "common/utils/Locks.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace zel::test {

/// Keeps each line instead of filing it, so it needs neither files nor a thread.
class LogCapture::CapturingLog : public CBBLog
{
public:
    explicit CapturingLog(int wake) : CBBLog("LogCapture.log", false, 524288), m_wake(wake) {}

    void _AddLog(const boost::format& text, LOGLEVEL level) override
    {
        if (accepts(level)) {
            keep(level, text.str());
        }
    }

    void _AddLog(const char* format, va_list arguments, LOGLEVEL level) override
    {
        if (!accepts(level)) {
            return;
        }
        std::array<char, 20480> text = {};
        vsnprintf(text.data(), text.size(), format, arguments);
        keep(level, text.data());
    }

    void setLogLevel(LOGLEVEL level) override
    {
        m_level = level;
        CBBLog::setLogLevel(level);
    }

    std::vector<Line> lines() const
    {
        PMutexGuard guard(m_mutex);
        return m_lines;
    }

    void clear()
    {
        PMutexGuard guard(m_mutex);
        m_lines.clear();
    }

private:
    bool accepts(LOGLEVEL level) const { return m_level >= level; }

    void keep(LOGLEVEL level, const std::string& text)
    {
        {
            PMutexGuard guard(m_mutex);
            m_lines.push_back({level, text});
        }
        eventfd_write(m_wake, 1);
    }

    std::atomic<int> m_level{LOGLEVEL_DEBUG};
    int m_wake; ///< not owned
    mutable PMutex m_mutex;
    std::vector<Line> m_lines ZEL_GUARDED_BY(m_mutex);
};

LogCapture::LogCapture(LOGLEVEL level)
    : m_places(m_folder), m_wake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      m_watcher(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)), m_log(new CapturingLog(m_wake))
{
    std::filesystem::create_directories(m_places.logs());
    inotify_add_watch(m_watcher, m_places.logs().c_str(), IN_CREATE | IN_MODIFY | IN_MOVED_TO);
    CRegistry::getInstance()->WriteSettingImpl(CRegistry::zelSection, "LogLevel", level);
    m_log->setLogLevel(level);
    makeCurrent();
}

LogCapture::~LogCapture()
{
    CBBLog::setLogger(boost::shared_ptr<CBBLog>());
    // A thread that is just logging may hold the log a moment longer, and write to the event.
    const boost::weak_ptr<CapturingLog> last = m_log;
    m_log.reset();
    while (!last.expired()) {
        std::this_thread::yield();
    }
    close(m_watcher);
    close(m_wake);
}

void LogCapture::makeCurrent()
{
    CBBLog::setLogger(m_log);
}

std::vector<LogCapture::Line> LogCapture::lines() const
{
    return m_log->lines();
}

void LogCapture::clear()
{
    m_log->clear();
}

std::string LogCapture::fileText(const std::string& fileName) const
{
    return readFile(m_places.logs() + "/" + fileName);
}

int LogCapture::count(const std::string& text) const
{
    const std::vector<Line> all = lines();
    return static_cast<int>(std::count_if(all.begin(), all.end(), [&text](const Line& line) {
        return line.text.find(text) != std::string::npos;
    }));
}

bool LogCapture::contains(const std::string& text) const
{
    if (count(text) > 0) {
        return true;
    }
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(m_places.logs(), ignored)) {
        if (readFile(entry.path().string()).find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

bool LogCapture::waitFor(const std::string& text) const
{
    constexpr unsigned long long patienceMs = 120000;
    const unsigned long long start = uptimeMs();
    // What happens behind the look leaves its trace in one of the two and ends the poll.
    while (!contains(text)) {
        const unsigned long long waitedMs = uptimeMs() - start;
        if (waitedMs >= patienceMs) {
            return false;
        }
        std::array<pollfd, 2> sources = {{{m_wake, POLLIN, 0}, {m_watcher, POLLIN, 0}}};
        poll(sources.data(), sources.size(), static_cast<int>(patienceMs - waitedMs));
        eventfd_t lines = 0;
        eventfd_read(m_wake, &lines);
        std::array<char, 4096> events = {};
        while (read(m_watcher, events.data(), events.size()) > 0) {
        }
    }
    return true;
}

} // namespace zel::test
