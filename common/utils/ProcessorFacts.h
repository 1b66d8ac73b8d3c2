#pragma once

#include "common/utils/StdString.h"

#include <string>

namespace zel::system {

/// What the kernel tells of the processors. What it does not tell keeps its start value.
struct ProcessorFacts
{
    unsigned int logical = 0; ///< processors that run; 0 when unknown
    unsigned int cores = 0;   ///< cores of their own among them; 0 when unknown
    unsigned int speedMHz = 0;
    CStdStr<char> brand;
    int family = 1;
    int model = 0;
    int stepping = 0;
};

/// Reads "/proc/cpuinfo" and "/sys/devices/system/cpu".
/// @param root  stands in front of both paths; empty for this machine
ProcessorFacts readProcessorFacts(const std::string& root);

/// @return 2 for one core, 6 for several; 1 and 5 for the same with more logical processors
int processorCountCode(unsigned int logical, unsigned int cores);

} // namespace zel::system
