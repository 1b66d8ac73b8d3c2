#pragma once

#include "common/utils/CBBLog.h"
#include "tests/support/TempFolder.h"

#include <boost/shared_ptr.hpp>
#include <string>
#include <vector>

namespace zel::test {

/// Lets a test read what is logged.
///
///     LogCapture log;                        // current log at debug level
///     queue.push(packet);
///     EXPECT_TRUE(log.contains("PacketQueue::push - queue is full"));
///
/// While it lives, logs and settings stand in a temporary folder, and logs that the tested code
/// makes itself start at the same level. Such a log becomes the current one and takes the lines
/// from here; it is read from its file then, which is complete when the log has ended. Until then
/// waitFor() awaits a line, or makeCurrent() brings the lines back here.
///
/// Any thread may log; the object itself is the test's. Nothing of it goes to standard output.
class LogCapture
{
public:
    struct Line
    {
        LOGLEVEL level;
        std::string text; ///< without header and newline
    };

    explicit LogCapture(LOGLEVEL level = LOGLEVEL_DEBUG);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Makes the capture the current log again.
    void makeCurrent();
    /// What was logged through the capture so far.
    std::vector<Line> lines() const;
    void clear();
    /// Text of a log file, such as "FFMpegEncoder.log"; empty when there is none.
    std::string fileText(const std::string& fileName) const;
    /// Whether `text` is part of a line, captured or in any log file.
    bool contains(const std::string& text) const;
    /// Number of captured lines that `text` is part of.
    int count(const std::string& text) const;
    /// Blocks until contains(text).
    /// @return false after two minutes without it
    bool waitFor(const std::string& text) const;

    std::string logsFolder() const { return m_places.logs(); }

private:
    class CapturingLog;

    TempFolder m_folder;
    ScopedPlaces m_places;
    int m_wake;    ///< eventfd, counts captured lines
    int m_watcher; ///< inotify on the logs folder
    boost::shared_ptr<CapturingLog> m_log;
};

} // namespace zel::test
