#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace zel::test {

/// A run of the program in UtilsChild.cpp, with this process's environment. Killed and awaited at
/// the end when it still runs.
class UtilsChildProcess
{
public:
    explicit UtilsChildProcess(const std::vector<std::string>& arguments);
    ~UtilsChildProcess();
    UtilsChildProcess(const UtilsChildProcess&) = delete;
    UtilsChildProcess& operator=(const UtilsChildProcess&) = delete;

    /// Blocks until the child has written this many bytes more.
    /// @return false when its output ended before
    bool readOutput(std::size_t bytes);
    void kill();
    /// Reads the output to its end and awaits the child.
    /// @return the exit code, -1 when a signal ended it
    int wait();

private:
    pid_t m_process = -1;
    int m_output = -1; ///< reading end of the child's standard output
};

} // namespace zel::test
