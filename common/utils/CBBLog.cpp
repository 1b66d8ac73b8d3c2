#include "common/utils/CBBLog.h"

#include "common/utils/CRegistry.h"
#include "common/utils/Places.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::array<const char*, 5> g_logStr = {"FATAL", "ERROR", "WARN", "INFO", "DEBUG"};
constexpr std::size_t textBlockSize = 20480;
constexpr mode_t logFileMode = 0666;
constexpr int nothingPasses = -2;

const char* levelName(LOGLEVEL level)
{
    const auto index = static_cast<std::size_t>(level);
    return index < g_logStr.size() ? g_logStr[index] : "";
}

/// A write that fails is given up: a log has nowhere to complain.
void writeAll(int file, const CStdStr<char>& text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = write(file, text.data() + done, text.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return;
        }
        done += static_cast<std::size_t>(written);
    }
}

bool sameFile(const struct stat& left, const struct stat& right)
{
    return left.st_ino == right.st_ino && left.st_dev == right.st_dev;
}

} // namespace

// Never destroyed: threads that run on while the process ends may still log.
PMutex& CBBLog::s_instanceLock = *new PMutex;
boost::weak_ptr<CBBLog>& CBBLog::s_instance = *new boost::weak_ptr<CBBLog>;
const CBBLog* CBBLog::s_identity = nullptr;
std::atomic<int> CBBLog::s_threshold{nothingPasses};

CBBLog::CBBLog(const CStdStr<char>& fileName, bool showProcessId, long long maxSize)
    : m_fileName(fileName), m_logLevel(levelUnknown), m_initialized(false), m_logOpen(false),
      m_errorLogOpen(false), m_showProcessId(showProcessId), m_maxSize(maxSize),
      m_processId(static_cast<unsigned int>(getpid())), m_logFile(-1), m_errorFile(-1),
      m_thread(nullptr), m_signalled(false)
{
}

CBBLog::~CBBLog()
{
    {
        PMutexGuard guard(m_queueLock);
        m_signalled = true;
        m_queueLock.broadcast();
    }
    if (m_thread != nullptr) {
        m_thread->join();
        delete m_thread;
    }
    if (m_logFile >= 0) {
        close(m_logFile);
    }
    if (m_errorFile >= 0) {
        close(m_errorFile);
    }
}

// --- the current log ---

int CBBLog::thresholdOf(int logLevel)
{
    return logLevel == levelUnknown ? INT_MAX : logLevel;
}

void CBBLog::setLogger(const boost::shared_ptr<CBBLog>& logger)
{
    PMutexGuard guard(s_instanceLock);
    s_instance = logger;
    s_identity = logger.get();
    s_threshold = logger ? thresholdOf(logger->m_logLevel) : nothingPasses;
}

void CBBLog::publishLevel()
{
    PMutexGuard guard(s_instanceLock);
    if (s_identity == this) {
        s_threshold = thresholdOf(m_logLevel);
    }
}

boost::shared_ptr<CBBLog> CBBLog::current(LOGLEVEL level)
{
    boost::shared_ptr<CBBLog> log;
    {
        PMutexGuard guard(s_instanceLock);
        log = s_instance.lock();
    }
    if (log && !log->passes(level)) {
        log.reset();
    }
    return log;
}

void CBBLog::logCurrent(LOGLEVEL level, const char* format, va_list arguments)
{
    const boost::shared_ptr<CBBLog> log = current(level);
    if (log) {
        log->_AddLog(format, arguments, level);
    }
}

void CBBLog::logCurrent(LOGLEVEL level, const boost::format& text)
{
    if (!mayPass(level)) {
        return;
    }
    const boost::shared_ptr<CBBLog> log = current(level);
    if (log) {
        log->_AddLog(text, level);
    }
}

void CBBLog::debug(const char* format, ...)
{
    if (!mayPass(LOGLEVEL_DEBUG)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    logCurrent(LOGLEVEL_DEBUG, format, arguments);
    va_end(arguments);
}

void CBBLog::info(const char* format, ...)
{
    if (!mayPass(LOGLEVEL_INFO)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    logCurrent(LOGLEVEL_INFO, format, arguments);
    va_end(arguments);
}

void CBBLog::warn(const char* format, ...)
{
    if (!mayPass(LOGLEVEL_WARN)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    logCurrent(LOGLEVEL_WARN, format, arguments);
    va_end(arguments);
}

void CBBLog::error(const char* format, ...)
{
    if (!mayPass(LOGLEVEL_ERROR)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    logCurrent(LOGLEVEL_ERROR, format, arguments);
    va_end(arguments);
}

void CBBLog::fatal(const char* format, ...)
{
    if (!mayPass(LOGLEVEL_FATAL)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    logCurrent(LOGLEVEL_FATAL, format, arguments);
    va_end(arguments);
}

void CBBLog::debug(const boost::format& text)
{
    logCurrent(LOGLEVEL_DEBUG, text);
}

void CBBLog::info(const boost::format& text)
{
    logCurrent(LOGLEVEL_INFO, text);
}

void CBBLog::warn(const boost::format& text)
{
    logCurrent(LOGLEVEL_WARN, text);
}

void CBBLog::error(const boost::format& text)
{
    logCurrent(LOGLEVEL_ERROR, text);
}

void CBBLog::fatal(const boost::format& text)
{
    logCurrent(LOGLEVEL_FATAL, text);
}

// --- one object ---

bool CBBLog::passes(LOGLEVEL level) const
{
    const int own = m_logLevel;
    return own == levelUnknown || own >= level;
}

void CBBLog::logHere(LOGLEVEL level, const char* format, va_list arguments)
{
    if (passes(level)) {
        _AddLog(format, arguments, level);
    }
}

void CBBLog::_debug(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    logHere(LOGLEVEL_DEBUG, format, arguments);
    va_end(arguments);
}

void CBBLog::_info(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    logHere(LOGLEVEL_INFO, format, arguments);
    va_end(arguments);
}

void CBBLog::_warn(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    logHere(LOGLEVEL_WARN, format, arguments);
    va_end(arguments);
}

void CBBLog::_error(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    logHere(LOGLEVEL_ERROR, format, arguments);
    va_end(arguments);
}

void CBBLog::_fatal(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    logHere(LOGLEVEL_FATAL, format, arguments);
    va_end(arguments);
}

void CBBLog::AddLog(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    _AddLog(format, arguments, LOGLEVEL_DEBUG);
    va_end(arguments);
}

void CBBLog::AddLog(LOGLEVEL level, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    _AddLog(format, arguments, level);
    va_end(arguments);
}

void CBBLog::AddRawLog(const char* text)
{
    if (m_logOpen) {
        addQueue(text);
    }
}

void CBBLog::setLogLevel(LOGLEVEL level)
{
    m_logLevel = level;
    publishLevel();
}

void CBBLog::_AddLog(const boost::format& text, LOGLEVEL level)
{
    if (prepare(level)) {
        addLine(header(level) + text.str() + '\n', level);
    }
}

void CBBLog::_AddLog(const char* format, va_list arguments, LOGLEVEL level)
{
    if (!prepare(level)) {
        return;
    }
    std::array<char, textBlockSize> text;
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): every caller has started it
    if (vsnprintf(text.data(), text.size(), format, arguments) < 0) {
        text[0] = '\0';
    }
    addLine(header(level) + text.data() + '\n', level);
}

bool CBBLog::prepare(LOGLEVEL level)
{
    if (m_logLevel == levelUnknown) {
        readLogLevel();
    }
    if (m_logLevel < level) {
        return false;
    }
    if (!m_initialized) {
        initialize();
    }
    return m_logOpen || m_errorLogOpen;
}

void CBBLog::readLogLevel()
{
    int level = LOGLEVEL_ERROR;
    CRegistry::getInstance()->ReadSettingImpl(CRegistry::zelSection, "LogLevel", level);
    // A level that was set meanwhile stays.
    int expected = levelUnknown;
    m_logLevel.compare_exchange_strong(expected, level);
    publishLevel();
}

void CBBLog::addLine(const CStdStr<char>& line, LOGLEVEL level)
{
    if (m_logOpen) {
        addQueue(line);
    }
    if (level == LOGLEVEL_FATAL) {
        _FatalError(line);
    }
}

CStdStr<char> CBBLog::getTimeString()
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    CStdStr<char> text;
    text.Format("%04d/%02d/%02d %02d:%02d:%02d.%03d", local.tm_year + 1900, local.tm_mon + 1,
                local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<int>(now.tv_usec / 1000));
    return text;
}

CStdStr<char> CBBLog::header(LOGLEVEL level) const
{
    CStdStr<char> text = getTimeString();
    if (m_showProcessId) {
        text.AppendFormat(" [%-5.5s] %u - ", levelName(level), m_processId);
    } else {
        text.AppendFormat(" [%-5.5s] - ", levelName(level));
    }
    if (level == LOGLEVEL_FATAL) {
        text += m_processName + " - ";
    }
    return text;
}

// --- files and queue ---

CStdStr<char> CBBLog::getLogsDirectory()
{
    return zel::places::logs();
}

/// @return the descriptor, or -1 with errno set
int CBBLog::openFile(const CStdStr<char>& path)
{
    // A link that somebody planted in a shared logs directory must not lead the log elsewhere.
    const int file =
        open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, logFileMode);
    if (file >= 0) {
        // Past the umask, so that any user's process can continue the file. Fails for a file of
        // another user, who has done it already.
        fchmod(file, logFileMode);
    }
    return file;
}

void CBBLog::initialize()
{
    PMutexGuard guard(m_initLock);
    if (m_initialized) {
        return;
    }
    const CStdStr<char> folder = getLogsDirectory();
    m_logPath = folder + "/" + m_fileName;
    m_errorPath = folder + "/errors.log";
    zel::places::makeFolders(folder, 0777);

    PMutexGuard fileGuard(m_fileLock);
    m_logFile = openFile(m_logPath);
    m_logOpen = m_logFile >= 0;
    if (!m_logOpen) {
        printf("Error: could not open log file '%s': %d\n", m_logPath.c_str(), errno);
    }
    m_errorFile = openFile(m_errorPath);
    m_errorLogOpen = m_errorFile >= 0;
    if (!m_errorLogOpen) {
        printf("Error: could not open error log file '%s': %d\n", m_errorPath.c_str(), errno);
    }

    m_processName = m_fileName.substr(0, m_fileName.find('.'));
    m_processName.erase(0, m_processName.find_last_of("/\\") + 1);

    try {
        m_thread = new PThread(nullptr, this, &CBBLog::loggerThread, nullptr);
    } catch (const std::runtime_error&) {
        // Nobody would ever take a line off the queue.
        m_logOpen = false;
    }
    m_initialized = true;
}

void CBBLog::addQueue(const CStdStr<char>& line)
{
    PMutexGuard guard(m_queueLock);
    m_queue.push_back(line);
    // Kept: the copy on the standard output is made here, on the caller's thread, so that it shows
    // the lines in the order of the queue and none is missing when the process dies.
    printf("%s", line.c_str());
    fflush(stdout);
    m_queueLock.broadcast();
}

int CBBLog::loggerThread(void* /*argument*/)
{
    PMutexGuard guard(m_queueLock);
    for (;;) {
        while (m_queue.empty() && !m_signalled) {
            m_queueLock.wait();
        }
        while (!m_queue.empty()) {
            const CStdStr<char> line = std::move(m_queue.front());
            m_queue.pop_front();
            guard.unlock();
            logLineToFile(line);
            guard.lock();
        }
        if (m_signalled) {
            return 0;
        }
    }
}

void CBBLog::logLineToFile(const CStdStr<char>& line)
{
    PMutexGuard guard(m_fileLock);
    rotateIfNeeded(m_logFile, m_logPath);
    writeAll(m_logFile, line);
}

void CBBLog::_FatalError(const CStdStr<char>& line)
{
    if (!m_initialized) {
        initialize();
    }
    if (!m_errorLogOpen) {
        return;
    }
    PMutexGuard guard(m_initLock);
    rotateIfNeeded(m_errorFile, m_errorPath);
    writeAll(m_errorFile, line);
}

void CBBLog::rotateIfNeeded(int& file, const CStdStr<char>& path) const
{
    struct stat own = {};
    struct stat atPath = {};
    if (fstat(file, &own) != 0) {
        return;
    }
    // Somebody removed the file, or another process has rotated it: the path has to be opened anew.
    bool stale = false;
    if (stat(path.c_str(), &atPath) != 0) {
        if (errno != ENOENT) {
            return;
        }
        stale = true;
    } else {
        stale = !sameFile(own, atPath);
    }
    if (!stale) {
        if (own.st_size < m_maxSize || flock(file, LOCK_EX) != 0) {
            return;
        }
        // The process that had the lock before may have rotated meanwhile.
        if (stat(path.c_str(), &atPath) == 0 && sameFile(own, atPath)) {
            rename(path.c_str(), (path + ".back").c_str());
        }
    }
    // Drops the lock, too.
    close(file);
    file = openFile(path);
}

CStdStr<char> CBBLog::getLogs()
{
    PMutexGuard guard(m_queueLock);
    CStdStr<char> text;
    for (const CStdStr<char>& line : m_queue) {
        text += line;
    }
    return text;
}

long long CBBLog::getFileSize()
{
    PMutexGuard guard(m_fileLock);
    struct stat status = {};
    if (m_logFile < 0 || fstat(m_logFile, &status) != 0) {
        return -1;
    }
    return status.st_size;
}
