#pragma once

#include "common/utils/StdString.h"

#include <boost/shared_ptr.hpp>

namespace zel::system {

/// What machine this is. Any thread; every question reads the machine or the settings anew.
class SystemInfo
{
public:
    /// The index that the processors alone give.
    virtual double GetPerformanceIndexImpl() = 0;
    /// Megahertz; 0 when unknown.
    virtual unsigned int GetProcessorSpeed() = 0;
    /// Leaves an argument as it is where the machine does not tell.
    /// @return 2 for one core, 6 for several; 1 and 5 for the same with more logical processors
    virtual int GetCPUCountImpl(unsigned int& logical, unsigned int& cores) = 0;
    virtual bool IsAMD() = 0;
    virtual bool IsCore() = 0;
    virtual bool IsMediaCenter() = 0;
    virtual CStdStr<char> GetMediaCenterVersion() = 0;
    /// 1, 2 or 3, see GetSystemDescription.
    virtual int GetOSTypeImpl() = 0;
    virtual CStdStr<char> GetOSVersionImpl() = 0;
    virtual CStdStr<char> GetOSNameAndVersionImpl() = 0;
    /// "class.family.model and steppingxprocessors@megahertz", all numbers.
    virtual CStdStr<char> GetProcessorInfoImpl() = 0;
    /// Kilobytes free for users on the file system of a path; -1 on failure.
    virtual long long GetFreeDiskSpaceImpl(const CStdStr<char>& path) = 0;
    virtual ~SystemInfo() = default;

    /// Made by the first call, and there until the process ends.
    static boost::shared_ptr<SystemInfo> getInstance();

    /// A grade of the machine's decoding power, from the settings; 0 when nobody stored one, which
    /// counts as the slowest machine.
    static double GetPerformanceIndex();
    /// @return whether it is stored
    static bool SetPerformanceIndex(unsigned int value);
    /// From number, kind and speed of the cores.
    double GetPerformanceIndexFromCPUImpl();
    /// One line that identifies the machine, such as "L 6.1.0||9.6.1234x4@3000|0".
    static CStdStr<char> GetSystemDescription();

private:
    static boost::shared_ptr<SystemInfo>& instance;
};

class SystemInfoImpl : public SystemInfo
{
public:
    double GetPerformanceIndexImpl() override;
    unsigned int GetProcessorSpeed() override;
    int GetCPUCountImpl(unsigned int& logical, unsigned int& cores) override;
    bool IsAMD() override;
    bool IsCore() override;
    bool IsMediaCenter() override { return false; }
    CStdStr<char> GetMediaCenterVersion() override { return {}; }
    int GetOSTypeImpl() override;
    CStdStr<char> GetOSVersionImpl() override;
    CStdStr<char> GetOSNameAndVersionImpl() override;
    CStdStr<char> GetProcessorInfoImpl() override;
    long long GetFreeDiskSpaceImpl(const CStdStr<char>& path) override;
};

} // namespace zel::system
