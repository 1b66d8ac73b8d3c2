#include "common/utils/ProcessorFacts.h"

#include <cstdlib>
#include <fstream>
#include <optional>
#include <set>
#include <utility>

namespace zel::system {

namespace {

/// The first number in a file.
std::optional<long long> numberIn(const std::string& path)
{
    std::ifstream file(path);
    long long number = 0;
    if (!(file >> number)) {
        return std::nullopt;
    }
    return number;
}

/// Takes one "name : value" line of the first processor's; later ones repeat them.
void takeLine(const std::string& line, std::set<std::string>& seen, ProcessorFacts& facts)
{
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) {
        return;
    }
    CStdStr<char> name(line.substr(0, colon));
    CStdStr<char> value(line.substr(colon + 1));
    name.Trim();
    value.Trim();
    if (!seen.insert(name).second) {
        return;
    }
    if (name == "model name") {
        facts.brand = value;
    } else if (name == "cpu family") {
        facts.family = std::atoi(value.c_str());
    } else if (name == "model") {
        facts.model = std::atoi(value.c_str());
    } else if (name == "stepping") {
        facts.stepping = std::atoi(value.c_str());
    } else if (name == "cpu MHz") {
        facts.speedMHz = static_cast<unsigned int>(std::strtoul(value.c_str(), nullptr, 10));
    }
}

void readCpuInfo(const std::string& root, ProcessorFacts& facts)
{
    std::ifstream file(root + "/proc/cpuinfo");
    std::set<std::string> seen;
    for (std::string line; std::getline(file, line);) {
        takeLine(line, seen, facts);
    }
}

/// The rated speed where it is told: the present one follows the load.
void readRatedSpeed(const std::string& cpus, ProcessorFacts& facts)
{
    for (const char* name : {"base_frequency", "cpuinfo_max_freq"}) {
        const auto kHz = numberIn(cpus + "/cpu0/cpufreq/" + name);
        if (kHz && *kHz > 0) {
            facts.speedMHz = static_cast<unsigned int>(*kHz / 1000);
            return;
        }
    }
}

/// Processors that share a core have its number and the package's in common.
void countCores(const std::string& cpus, ProcessorFacts& facts)
{
    std::set<std::pair<long long, long long>> cores;
    unsigned int logical = 0;
    for (unsigned int i = 0;; ++i) {
        const std::string cpu = cpus + "/cpu" + std::to_string(i);
        if (!std::ifstream(cpu + "/topology/core_id")) {
            // One that is switched off has no topology, but those behind it may be on.
            if (!std::ifstream(cpu + "/online")) {
                break;
            }
            continue;
        }
        const auto package = numberIn(cpu + "/topology/physical_package_id");
        const auto core = numberIn(cpu + "/topology/core_id");
        cores.emplace(package.value_or(0), core.value_or(i));
        ++logical;
    }
    facts.logical = logical;
    facts.cores = static_cast<unsigned int>(cores.size());
}

} // namespace

ProcessorFacts readProcessorFacts(const std::string& root)
{
    const std::string cpus = root + "/sys/devices/system/cpu";
    ProcessorFacts facts;
    readCpuInfo(root, facts);
    readRatedSpeed(cpus, facts);
    countCores(cpus, facts);
    return facts;
}

int processorCountCode(unsigned int logical, unsigned int cores)
{
    if (cores > 1) {
        return logical > cores ? 5 : 6;
    }
    return logical > cores ? 1 : 2;
}

} // namespace zel::system
