#include "common/utils/ProcessorFacts.h"

#include "tests/support/TempFolder.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace {

using zel::system::processorCountCode;
using zel::system::ProcessorFacts;
using zel::system::readProcessorFacts;
using zel::test::TempFolder;
using zel::test::writeFile;

/// A machine that exists on the disk only.
class Machine
{
public:
    explicit Machine(const std::string& cpuInfo = {}) { write("/proc/cpuinfo", cpuInfo); }
    void addProcessor(int number, int package, int core)
    {
        const std::string topology = cpu(number) + "/topology/";
        write(topology + "physical_package_id", std::to_string(package) + "\n");
        write(topology + "core_id", std::to_string(core) + "\n");
    }
    void write(const std::string& path, const std::string& text)
    {
        const std::string full = m_folder.path() + path;
        std::filesystem::create_directories(std::filesystem::path(full).parent_path());
        writeFile(full, text);
    }
    static std::string cpu(int number)
    {
        return "/sys/devices/system/cpu/cpu" + std::to_string(number);
    }
    ProcessorFacts facts() const { return readProcessorFacts(m_folder.path()); }

private:
    TempFolder m_folder;
};

constexpr const char* cpuInfo = "processor\t: 0\n"
                                "cpu family\t: 6\n"
                                "model\t\t: 158\n"
                                "model name\t: Imaginary(R) Core(TM) 7 CPU @ 3.00GHz\n"
                                "stepping\t: 10\n"
                                "cpu MHz\t\t: 812.345\n"
                                "\n"
                                "processor\t: 1\n"
                                "cpu family\t: 7\n"
                                "cpu MHz\t\t: 4000.000\n";

TEST(ProcessorFacts, FirstProcessorTellsItsKind)
{
    const ProcessorFacts facts = Machine(cpuInfo).facts();
    EXPECT_EQ(facts.brand, "Imaginary(R) Core(TM) 7 CPU @ 3.00GHz");
    EXPECT_EQ(facts.family, 6);
    EXPECT_EQ(facts.model, 158);
    EXPECT_EQ(facts.stepping, 10);
    EXPECT_EQ(facts.speedMHz, 812U);
}

TEST(ProcessorFacts, RatedSpeedGoesBeforeThePresentOne)
{
    Machine machine(cpuInfo);
    machine.write(Machine::cpu(0) + "/cpufreq/cpuinfo_max_freq", "4200000\n");
    EXPECT_EQ(machine.facts().speedMHz, 4200U);
    machine.write(Machine::cpu(0) + "/cpufreq/base_frequency", "3000000\n");
    EXPECT_EQ(machine.facts().speedMHz, 3000U);
}

TEST(ProcessorFacts, ProcessorsOfOneCoreCountOnce)
{
    Machine machine;
    machine.addProcessor(0, 0, 0);
    machine.addProcessor(1, 0, 1);
    machine.addProcessor(2, 0, 0);
    machine.addProcessor(3, 0, 1);
    machine.addProcessor(4, 1, 0);
    const ProcessorFacts facts = machine.facts();
    EXPECT_EQ(facts.logical, 5U);
    EXPECT_EQ(facts.cores, 3U);
}

TEST(ProcessorFacts, ProcessorThatIsSwitchedOffIsPassedOver)
{
    Machine machine;
    machine.addProcessor(0, 0, 0);
    machine.write(Machine::cpu(1) + "/online", "0\n");
    machine.addProcessor(2, 0, 2);
    EXPECT_EQ(machine.facts().cores, 2U);
}

TEST(ProcessorFacts, MachineThatTellsNothingKeepsTheStartValues)
{
    const ProcessorFacts facts = readProcessorFacts("/no/such/folder");
    EXPECT_EQ(facts.logical, 0U);
    EXPECT_EQ(facts.cores, 0U);
    EXPECT_EQ(facts.speedMHz, 0U);
    EXPECT_EQ(facts.family, 1);
    EXPECT_EQ(facts.brand, "");
}

TEST(ProcessorFacts, CountCodeTellsCoresAndThreads)
{
    EXPECT_EQ(processorCountCode(1, 1), 2);
    EXPECT_EQ(processorCountCode(2, 1), 1);
    EXPECT_EQ(processorCountCode(2, 2), 6);
    EXPECT_EQ(processorCountCode(4, 2), 5);
}

} // namespace
