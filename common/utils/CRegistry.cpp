#include "common/utils/CRegistry.h"

#include "common/utils/SettingsFile.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <variant>

namespace {

constexpr const char* applicationIdentifier = "com.tamrix.zel";

/// @return nothing for what is no number, or none of 32 bits
std::optional<int> asInteger(const zel::settings::Value& value)
{
    constexpr double lowest = std::numeric_limits<int>::min();
    constexpr double highest = std::numeric_limits<int>::max();
    if (const auto* number = std::get_if<int64_t>(&value)) {
        if (*number >= std::numeric_limits<int>::min() &&
            *number <= std::numeric_limits<int>::max()) {
            return static_cast<int>(*number);
        }
    } else if (const auto* real = std::get_if<double>(&value)) {
        if (std::isfinite(*real) && *real >= lowest && *real <= highest) {
            return static_cast<int>(*real);
        }
    }
    return std::nullopt;
}

/// @return nothing when the domain or the name isn't there
std::optional<zel::settings::Value> find(const CStdStr<char>& domain, const CStdStr<char>& name)
{
    const std::shared_ptr<const zel::settings::Values> values = zel::settings::read(domain);
    if (!values) {
        return std::nullopt;
    }
    const auto hit = values->find(name.c_str());
    return hit != values->end() ? std::optional(hit->second) : std::nullopt;
}

} // namespace

// Never destroyed: threads that run on while the process ends may still read.
boost::shared_ptr<CRegistry>& CRegistry::instance = *new boost::shared_ptr<CRegistry>;

boost::shared_ptr<CRegistry> CRegistry::getInstance()
{
    static std::once_flag once;
    std::call_once(once, [] { instance.reset(new CRegistryImpl); });
    return instance;
}

CStdStr<char> CRegistryImpl::createKey(const CStdStr<char>& section)
{
    CStdStr<char> root(zelSection);
    root.ToLower();
    CStdStr<char> domain(section);
    domain.ToLower();
    domain.Replace(root.c_str(), applicationIdentifier);
    domain.Replace('\\', '.');
    return domain;
}

bool CRegistryImpl::WriteSettingImpl(const CStdStr<char>& section, const CStdStr<char>& name,
                                     const CStdStr<char>& value)
{
    return zel::settings::write(createKey(section), name, std::string(value.c_str()));
}

bool CRegistryImpl::WriteSettingImpl(const CStdStr<char>& section, const CStdStr<char>& name,
                                     int value)
{
    return zel::settings::write(createKey(section), name, int64_t{value});
}

bool CRegistryImpl::ReadSettingImpl(const CStdStr<char>& section, const CStdStr<char>& name,
                                    CStdStr<char>& value)
{
    const std::optional<zel::settings::Value> found = find(createKey(section), name);
    const auto* text = found ? std::get_if<std::string>(&*found) : nullptr;
    if (text == nullptr) {
        return false;
    }
    value = *text;
    return true;
}

bool CRegistryImpl::ReadSettingImpl(const CStdStr<char>& section, const CStdStr<char>& name,
                                    int& value)
{
    const std::optional<zel::settings::Value> found = find(createKey(section), name);
    const std::optional<int> number = found ? asInteger(*found) : std::nullopt;
    if (!number) {
        return false;
    }
    value = *number;
    return true;
}

bool CRegistryImpl::ReadSettingImpl(const CStdStr<char>& section, const CStdStr<char>& name,
                                    bool& value)
{
    // Kept: the section itself is the domain here. Whoever writes flags for this overload names
    // the domain in full, so a mapped one would not be found any more.
    const std::optional<zel::settings::Value> found = find(section, name);
    const auto* truth = found ? std::get_if<bool>(&*found) : nullptr;
    if (truth == nullptr) {
        return false;
    }
    value = *truth;
    return true;
}

void CRegistryImpl::ReadAllSettingsImpl(const CStdStr<char>& section,
                                        std::map<CStdStr<char>, CStdStr<char>>& values)
{
    const CStdStr<char> domain = createKey(section);
    const std::shared_ptr<const zel::settings::Values> all = zel::settings::read(domain);
    if (!all) {
        printf("synchronization failed for %s\n", domain.c_str());
        return;
    }
    if (all->empty()) {
        printf("no keys for %s\n", domain.c_str());
        return;
    }
    for (const auto& [name, value] : *all) {
        if (const auto* text = std::get_if<std::string>(&value)) {
            values[name] = *text;
        } else if (const std::optional<int> number = asInteger(value)) {
            // Kept: a number comes as the one character of its low byte, not as digits. Listings
            // have always had this form, and who needs the number reads it by its name.
            values[name] = CStdStr<char>(std::string(1, static_cast<char>(*number & 0xff)));
        }
    }
}
