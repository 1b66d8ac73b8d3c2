#include "common/utils/SystemInfo.h"

#include "common/utils/CRegistry.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <sys/utsname.h>

namespace {

using zel::system::SystemInfo;
using zel::system::SystemInfoImpl;
using zel::test::LogCapture;

/// A machine by its numbers.
class Described : public SystemInfoImpl
{
public:
    Described(unsigned int cores, unsigned int speedMHz, const char* brand)
        : m_cores(cores), m_speedMHz(speedMHz), m_brand(brand)
    {
    }
    unsigned int GetProcessorSpeed() override { return m_speedMHz; }
    int GetCPUCountImpl(unsigned int& logical, unsigned int& cores) override
    {
        logical = cores = m_cores;
        return 2;
    }
    bool IsAMD() override { return m_brand.find("AMD") != std::string::npos; }
    bool IsCore() override { return m_brand.find("Core") != std::string::npos; }

private:
    unsigned int m_cores;
    unsigned int m_speedMHz;
    std::string m_brand;
};

double indexOf(unsigned int cores, unsigned int speedMHz, const char* brand)
{
    return Described(cores, speedMHz, brand).GetPerformanceIndexFromCPUImpl();
}

TEST(SystemInfo, IndexFollowsCoresKindAndSpeed)
{
    EXPECT_DOUBLE_EQ(indexOf(4, 3000, "Intel Core"), 1285714 * 10.0 / 110000.0);
    EXPECT_DOUBLE_EQ(indexOf(4, 3000, "AMD"), 545454 * 10.0 / 110000.0);
    EXPECT_DOUBLE_EQ(indexOf(1, 2800, "Intel Core"), 200000 * 10.0 / 110000.0);
    EXPECT_DOUBLE_EQ(indexOf(1, 2800, "AMD Core"), 200000 * 10.0 / 110000.0);
    EXPECT_DOUBLE_EQ(indexOf(1, 2800, "AMD"), 95000 * 10.0 / 110000.0);
    EXPECT_DOUBLE_EQ(indexOf(1, 2800, "Other"), 10.0);
}

TEST(SystemInfo, AbsentIndexIsThatOfTheSlowestMachineAndOneErrorLine)
{
    LogCapture log;
    EXPECT_EQ(SystemInfo::GetPerformanceIndex(), 0.0);
    EXPECT_EQ(log.count("[SystemInfo::GetPerformanceIndex] failed to find Software\\Tamrix "
                        "Labs\\Zel\\Config\\zel.streaming.performanceIndex"),
              1);
}

TEST(SystemInfo, StoredIndexIsReadBack)
{
    LogCapture log;
    EXPECT_TRUE(SystemInfo::SetPerformanceIndex(80));
    EXPECT_EQ(SystemInfo::GetPerformanceIndex(), 80.0);
    CRegistry::getInstance()->WriteSettingImpl("Software\\Tamrix Labs\\Zel\\Config",
                                               "zel.streaming.performanceIndex",
                                               CStdStr<char>("79.9"));
    EXPECT_EQ(SystemInfo::GetPerformanceIndex(), 79.9);
    EXPECT_FALSE(log.contains("failed to find"));
}

TEST(SystemInfo, CountsAreThoseOfThisMachine)
{
    SystemInfoImpl info;
    unsigned int logical = 0;
    unsigned int cores = 0;
    const int code = info.GetCPUCountImpl(logical, cores);
    EXPECT_GE(cores, 1U);
    EXPECT_GE(logical, cores);
    EXPECT_EQ(code == 5 || code == 6, cores > 1);
    EXPECT_EQ(code == 1 || code == 5, logical > cores);
}

TEST(SystemInfo, FreeDiskSpaceOfAMissingPathIsAnError)
{
    LogCapture log;
    SystemInfoImpl info;
    EXPECT_EQ(info.GetFreeDiskSpaceImpl("/no/such/folder"), -1);
    EXPECT_TRUE(log.contains("SystemInfoImpl::GetFreeDiskSpaceImpl : statsvfs returned error 2 "
                             "for directory"));
    EXPECT_GE(info.GetFreeDiskSpaceImpl("/"), 0);
}

TEST(SystemInfo, DescriptionIsOneLine)
{
    LogCapture log;
    utsname names = {};
    ASSERT_EQ(uname(&names), 0);
    const std::string text = SystemInfo::GetSystemDescription();
    EXPECT_TRUE(std::regex_match(text, std::regex("L [^|]+\\|\\|\\d+\\.\\d+\\.\\d+x\\d+@\\d+\\|0")))
        << text;
    EXPECT_EQ(text.find(std::string("L ") + names.release + "||"), 0U);
    EXPECT_TRUE(log.contains("SystemInfoImpl::GetOSVersionImpl not tested on this platform"));
    CRegistry::getInstance()->WriteSettingImpl("Software\\Tamrix Labs\\Zel\\ZelTVBuffer",
                                               "TunerPresent", 1);
    EXPECT_TRUE(SystemInfo::GetSystemDescription().ends_with("|1"));
}

TEST(SystemInfo, NameAndVersionOfTheSystem)
{
    utsname names = {};
    ASSERT_EQ(uname(&names), 0);
    SystemInfoImpl info;
    EXPECT_EQ(info.GetOSNameAndVersionImpl(), std::string("Linux ") + names.release);
    EXPECT_EQ(info.GetOSTypeImpl(), 3);
    EXPECT_FALSE(info.IsMediaCenter());
    EXPECT_EQ(info.GetMediaCenterVersion(), "");
}

TEST(SystemInfo, IsOneForAll)
{
    EXPECT_EQ(SystemInfo::getInstance(), SystemInfo::getInstance());
    EXPECT_NE(SystemInfo::getInstance(), nullptr);
}

} // namespace
