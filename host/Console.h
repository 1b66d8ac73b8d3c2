#pragma once

#include <cstdio>
#include <string>

namespace zel::host {

/// The process's standard streams.
///
/// The library writes its log lines to standard output. So before it is loaded the host moves its
/// own standard output to another descriptor and puts the log's target in its place: what a command
/// prints stays free of log lines. One object in main, made before the library is loaded; used by
/// the main thread alone.
class Console
{
public:
    /// @param logTarget  file for the library's log lines; "-" for standard error, "" for nowhere
    /// @throws HostError when the file cannot be written
    explicit Console(const std::string& logTarget);
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /// The real standard output, fully buffered unless it is a terminal.
    FILE* out() const { return m_out; }
    /// True when standard error is a terminal where a line can be drawn again and again, and where
    /// neither log lines nor, if `printsFrames`, standard output would come between.
    bool canDraw(bool printsFrames) const;
    /// Columns of that terminal.
    int columns() const;
    /// Writes all that is buffered.
    /// @throws HostError when standard output took less than was printed
    void flush();

private:
    FILE* m_out;        ///< owned
    bool m_hasTerminal; ///< standard error understands control sequences
    bool m_logsToTerminal;
};

} // namespace zel::host
