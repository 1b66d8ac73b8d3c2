#pragma once

#include "common/utils/Locks.h"
#include "common/utils/PThread.h"
#include "common/utils/StdString.h"

#include <atomic>
#include <boost/format.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>
#include <cstdarg>
#include <deque>

/// A line is written when its level is at most the log's level.
enum LOGLEVEL
{
    LOGLEVEL_FATAL = 0,
    LOGLEVEL_ERROR = 1,
    LOGLEVEL_WARN = 2,
    LOGLEVEL_INFO = 3,
    LOGLEVEL_DEBUG = 4
};

/// A log: one file of its own, written by a thread of its own, and for fatal lines also the error
/// file that all logs of all processes share.
///
/// One log at a time is the current one, which the static functions work on; it is known weakly,
/// so it ends with the last object that holds it. Without one they do nothing, or answer false.
/// All functions but the destructor may be called on any thread. A log call costs its formatting,
/// a copy on the standard output and a queue push; when its level is off, one atomic load.
///
/// A class derived from it that overrides logLineToFile must see to it that no line is queued any
/// more when its own destructor begins, for the thread ends in the destructor here.
class CBBLog
{
public:
    /// Touches no file; that happens at the first line that passes the level.
    /// @param fileName  name in the logs directory, such as "FFMpegInput.log"
    /// @param showProcessId  lines carry the process number
    /// @param maxSize  bytes from which on the file is rotated
    CBBLog(const CStdStr<char>& fileName, bool showProcessId, long long maxSize);
    /// Writes what is queued and ends the thread.
    virtual ~CBBLog();
    CBBLog(const CBBLog&) = delete;
    CBBLog& operator=(const CBBLog&) = delete;

    /// Logs at debug level.
    virtual void AddLog(const char* format, ...) __attribute__((format(printf, 2, 3)));
    virtual void AddLog(LOGLEVEL level, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    /// Queues `text` as it is, whatever the level, when the log file is open.
    virtual void AddRawLog(const char* text);
    virtual void setLogLevel(LOGLEVEL level);
    virtual void _AddLog(const boost::format& text, LOGLEVEL level);
    /// A text of more than 20479 bytes is cut.
    virtual void _AddLog(const char* format, va_list arguments, LOGLEVEL level)
        __attribute__((format(printf, 2, 0)));
    /// Writes one line to the log file. Called on the log's thread.
    virtual void logLineToFile(const CStdStr<char>& line);
    /// Writes one line to the error file, on the caller's thread.
    virtual void _FatalError(const CStdStr<char>& line);

    /// Makes `logger` the current log of all threads; null leaves none.
    static void setLogger(const boost::shared_ptr<CBBLog>& logger);

    static void debug(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void info(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void warn(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void error(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));
    /// The same for a finished `boost::format`, whose own errors reach the caller.
    static void debug(const boost::format& text);
    static void info(const boost::format& text);
    static void warn(const boost::format& text);
    static void error(const boost::format& text);
    static void fatal(const boost::format& text);

    /// To be asked before an expensive text is built. True also while the level is still unknown.
    static bool isDebugEnabled() { return mayPass(LOGLEVEL_DEBUG) && current(LOGLEVEL_DEBUG); }
    static bool isInfoEnabled() { return mayPass(LOGLEVEL_INFO) && current(LOGLEVEL_INFO); }
    static bool isWarnEnabled() { return mayPass(LOGLEVEL_WARN) && current(LOGLEVEL_WARN); }

    /// The same as the static functions, on this object.
    void _debug(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void _info(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void _warn(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void _error(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void _fatal(const char* format, ...) __attribute__((format(printf, 2, 3)));

    /// The lines that still wait for the thread, joined.
    CStdStr<char> getLogs();
    /// The present local time as in a line's header.
    static CStdStr<char> getTimeString();
    /// Bytes of the open log file, -1 without one.
    long long getFileSize();
    static CStdStr<char> getLogsDirectory();

private:
    static constexpr int levelUnknown = -1;

    bool passes(LOGLEVEL level) const;
    /// Spares the look-up of the current log. May be true without need, for the threshold stays
    /// when the current log ends; never false without need.
    static bool mayPass(LOGLEVEL level)
    {
        return s_threshold.load(std::memory_order_acquire) >= level;
    }
    static boost::shared_ptr<CBBLog> current(LOGLEVEL level);
    static int thresholdOf(int logLevel);
    static void logCurrent(LOGLEVEL level, const char* format, va_list arguments)
        __attribute__((format(printf, 2, 0)));
    static void logCurrent(LOGLEVEL level, const boost::format& text);
    void logHere(LOGLEVEL level, const char* format, va_list arguments)
        __attribute__((format(printf, 3, 0)));
    void publishLevel();

    bool prepare(LOGLEVEL level);
    void readLogLevel();
    void initialize();
    static int openFile(const CStdStr<char>& path);
    CStdStr<char> header(LOGLEVEL level) const;
    void addLine(const CStdStr<char>& line, LOGLEVEL level);
    void addQueue(const CStdStr<char>& line);
    int loggerThread(void* argument);
    void rotateIfNeeded(int& file, const CStdStr<char>& path) const;

    const CStdStr<char> m_fileName;
    std::atomic<int> m_logLevel; ///< -1 until read from the settings
    std::atomic<bool> m_initialized;
    std::atomic<bool> m_logOpen;
    std::atomic<bool> m_errorLogOpen;
    CStdStr<char> m_logPath;     ///< set once, before m_initialized
    CStdStr<char> m_errorPath;   ///< as m_logPath
    CStdStr<char> m_processName; ///< as m_logPath; starts fatal lines
    PMutex m_initLock;           ///< initialize() and the error file
    const bool m_showProcessId;
    const long long m_maxSize; ///< bytes
    const unsigned int m_processId;
    int m_logFile ZEL_GUARDED_BY(m_fileLock);     ///< owned, -1 when closed
    int m_errorFile ZEL_GUARDED_BY(m_initLock);   ///< owned, -1 when closed
    PThread* m_thread ZEL_GUARDED_BY(m_initLock); ///< owned
    PCondMutex m_queueLock;
    std::deque<CStdStr<char>> m_queue ZEL_GUARDED_BY(m_queueLock); ///< whole lines, no bound
    bool m_signalled ZEL_GUARDED_BY(m_queueLock);                  ///< ends the thread
    PMutex m_fileLock; ///< m_logFile, against a size question during rotation

    static PMutex& s_instanceLock; ///< s_instance, s_identity, changes of s_threshold
    static boost::weak_ptr<CBBLog>& s_instance ZEL_GUARDED_BY(s_instanceLock);
    static const CBBLog* s_identity ZEL_GUARDED_BY(s_instanceLock); ///< compared, never followed
    static std::atomic<int> s_threshold; ///< the highest level that can pass the current log
};
