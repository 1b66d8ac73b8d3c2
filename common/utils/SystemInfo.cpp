#include "common/utils/SystemInfo.h"

#include "common/utils/CBBLog.h"
#include "common/utils/CRegistry.h"
#include "common/utils/Locks.h"
#include "common/utils/ProcessorFacts.h"

#include <boost/make_shared.hpp>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace zel::system {

namespace {

constexpr const char* ConfigSection = "Software\\Tamrix Labs\\Zel\\Config";
constexpr const char* IndexKey = "zel.streaming.performanceIndex";
constexpr const char* TunerSection = "Software\\Tamrix Labs\\Zel\\ZelTVBuffer";
constexpr int OsLinux = 3;
constexpr int ClassX64 = 9;

ProcessorFacts facts()
{
    return readProcessorFacts({});
}

/// The letter with which a description begins.
const char* prefixOf(int osType)
{
    switch (osType) {
    case 1:
        return "W ";
    case 2:
        return "M ";
    case 3:
        return "L ";
    default:
        return "";
    }
}

int classOf(const char* machine)
{
    const std::string_view name(machine);
    if (name == "x86_64") {
        return ClassX64;
    }
    if (name != "i686" && name != "i586" && name != "i486" && name != "i386") {
        CBBLog::error("SystemInfoImpl::GetProcessorInfoImpl unknown machine '%s'", machine);
    }
    return 0;
}

} // namespace

/// Never destroyed: the library's last questions may come after its statics.
boost::shared_ptr<SystemInfo>& SystemInfo::instance = *new boost::shared_ptr<SystemInfo>;

boost::shared_ptr<SystemInfo> SystemInfo::getInstance()
{
    static PMutex& s_lock = *new PMutex;
    const PMutexGuard guard(s_lock);
    if (!instance) {
        instance = boost::make_shared<SystemInfoImpl>();
    }
    return instance;
}

double SystemInfo::GetPerformanceIndex()
{
    CStdStr<char> text;
    if (!CRegistry::getInstance()->ReadSettingImpl(ConfigSection, IndexKey, text)) {
        CBBLog::error(
            "[SystemInfo::GetPerformanceIndex] failed to find %s\\zel.streaming.performanceIndex",
            ConfigSection);
        return 0.0;
    }
    return std::atof(text.c_str());
}

bool SystemInfo::SetPerformanceIndex(unsigned int value)
{
    CStdStr<char> text;
    text.Format("%u", value);
    return CRegistry::getInstance()->WriteSettingImpl(ConfigSection, IndexKey, text);
}

double SystemInfo::GetPerformanceIndexFromCPUImpl()
{
    const double speed = GetProcessorSpeed();
    unsigned int logical = 1;
    unsigned int cores = 1;
    GetCPUCountImpl(logical, cores);
    double score = 0;
    if (cores >= 2) {
        score = IsAMD() ? cores * 200000.0 * speed / 4400.0 : cores * 300000.0 * speed / 2800.0;
    } else if (IsCore()) {
        score = speed * 200000.0 / 2800.0;
    } else if (IsAMD()) {
        score = speed * 95000.0 / 2800.0;
    } else {
        score = speed * 110000.0 / 2800.0;
    }
    return static_cast<double>(static_cast<long long>(score)) * 10.0 / 110000.0;
}

CStdStr<char> SystemInfo::GetSystemDescription()
{
    const boost::shared_ptr<SystemInfo> info = getInstance();
    const CStdStr<char> mediaCenter =
        info->IsMediaCenter() ? info->GetMediaCenterVersion() : CStdStr<char>();
    int tuner = 0;
    CRegistry::getInstance()->ReadSettingImpl(TunerSection, "TunerPresent", tuner);
    CStdStr<char> text(prefixOf(info->GetOSTypeImpl()));
    text.AppendFormat("%s|%s|%s|%d", info->GetOSVersionImpl().c_str(), mediaCenter.c_str(),
                      info->GetProcessorInfoImpl().c_str(), tuner);
    return text;
}

double SystemInfoImpl::GetPerformanceIndexImpl()
{
    return getInstance()->GetPerformanceIndexFromCPUImpl();
}

unsigned int SystemInfoImpl::GetProcessorSpeed()
{
    return facts().speedMHz;
}

int SystemInfoImpl::GetCPUCountImpl(unsigned int& logical, unsigned int& cores)
{
    const ProcessorFacts told = facts();
    if (told.cores != 0) {
        logical = told.logical;
        cores = told.cores;
    } else if (const long count = sysconf(_SC_NPROCESSORS_ONLN); count > 0) {
        logical = static_cast<unsigned int>(count);
        cores = logical;
    }
    return processorCountCode(logical, cores);
}

bool SystemInfoImpl::IsAMD()
{
    return facts().brand.find("AMD") != std::string::npos;
}

bool SystemInfoImpl::IsCore()
{
    return facts().brand.find("Core") != std::string::npos;
}

int SystemInfoImpl::GetOSTypeImpl()
{
    return OsLinux;
}

CStdStr<char> SystemInfoImpl::GetOSVersionImpl()
{
    CBBLog::warn("SystemInfoImpl::GetOSVersionImpl not tested on this platform");
    utsname names = {};
    return uname(&names) == 0 ? CStdStr<char>(names.release) : CStdStr<char>();
}

CStdStr<char> SystemInfoImpl::GetOSNameAndVersionImpl()
{
    CBBLog::warn("SystemInfoImpl::GetOSNameAndVersionImpl not tested on this platform");
    utsname names = {};
    uname(&names);
    CStdStr<char> text;
    text.Format("%s %s", names.sysname, GetOSVersionImpl().c_str());
    return text;
}

CStdStr<char> SystemInfoImpl::GetProcessorInfoImpl()
{
    utsname names = {};
    uname(&names);
    const ProcessorFacts told = facts();
    const long count = sysconf(_SC_NPROCESSORS_ONLN);
    CStdStr<char> text;
    text.Format("%d.%d.%dx%d@%d", classOf(names.machine), told.family,
                (told.model << 8) | told.stepping, count > 0 ? static_cast<int>(count) : 1,
                static_cast<int>(GetProcessorSpeed()));
    return text;
}

long long SystemInfoImpl::GetFreeDiskSpaceImpl(const CStdStr<char>& path)
{
    struct statvfs status = {};
    if (statvfs(path.c_str(), &status) != 0) {
        CBBLog::error(
            "SystemInfoImpl::GetFreeDiskSpaceImpl : statsvfs returned error %d for directory",
            errno);
        return -1;
    }
    // Kept: of 32 bits, as callers store it; it wraps on disks from 4 TiB on.
    return static_cast<uint32_t>(static_cast<uint32_t>(status.f_bavail >> 10) *
                                 static_cast<uint32_t>(status.f_frsize));
}

} // namespace zel::system
