#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace zel::test {

/// How another program ended, and what it wrote.
struct ProgramResult
{
    /// Its exit code; -1 when it could not be started, or when a signal or the limit ended it.
    int exitCode = -1;
    int signal = 0; ///< that ended it, 0 without one
    bool overTime = false;
    std::string out;
    std::string err;

    bool succeeded() const { return exitCode == 0; }
    /// One line for a failed expectation.
    std::string describe() const;
};

/// No limit: the program is known to end.
constexpr std::chrono::seconds NoTimeLimit{0};

/// Runs a program to its end with nothing on its standard input. Any thread.
/// @param words  program name, which is looked up in PATH, and arguments
/// @param limit  it is killed after this time
ProgramResult runProgram(const std::vector<std::string>& words,
                         std::chrono::seconds limit = NoTimeLimit);

} // namespace zel::test
