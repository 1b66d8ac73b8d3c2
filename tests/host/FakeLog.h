#pragma once

#include <cstdio>
#include <string>

/// A line of the fake library's log, whole and at once, since several threads write.
inline void logLine(const std::string& text)
{
    const std::string line = text + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}
