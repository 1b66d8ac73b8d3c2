#pragma once

#include "common/utils/StdString.h"

#include <boost/shared_ptr.hpp>
#include <map>

/// The machine's settings, in the shape of a registry: a section path with backslashes, and a
/// value name inside it. Reading is the rule; the system itself only writes its performance index.
/// Any thread. Nothing throws; a setting that isn't there leaves the caller's value as its default.
class CRegistry
{
public:
    /// Section of the product's own settings; its subsections follow behind a backslash.
    static constexpr const char* zelSection = "Software\\Tamrix Labs\\Zel";

    virtual ~CRegistry() = default;

    /// Both: true when the value is stored for all processes.
    virtual bool WriteSettingImpl(const CStdStr<char>& section, const CStdStr<char>& name,
                                  const CStdStr<char>& value) = 0;
    virtual bool WriteSettingImpl(const CStdStr<char>& section, const CStdStr<char>& name,
                                  int value) = 0;
    /// Both: false, and `value` untouched, when there is no such setting or it has another type.
    virtual bool ReadSettingImpl(const CStdStr<char>& section, const CStdStr<char>& name,
                                 CStdStr<char>& value) = 0;
    virtual bool ReadSettingImpl(const CStdStr<char>& section, const CStdStr<char>& name,
                                 int& value) = 0;
    /// Adds the section's texts and numbers to `values`; the latter in a form of their own, see
    /// CRegistryImpl.
    virtual void ReadAllSettingsImpl(const CStdStr<char>& section,
                                     std::map<CStdStr<char>, CStdStr<char>>& values) = 0;

    /// The one instance, made by the first call; it ends with the process.
    static boost::shared_ptr<CRegistry> getInstance();

private:
    static boost::shared_ptr<CRegistry>& instance;
};

/// The settings in files, one for each section; see zel::settings. Every read sees what other
/// processes have written.
class CRegistryImpl : public CRegistry
{
public:
    bool WriteSettingImpl(const CStdStr<char>& section, const CStdStr<char>& name,
                          const CStdStr<char>& value) override;
    bool WriteSettingImpl(const CStdStr<char>& section, const CStdStr<char>& name,
                          int value) override;
    bool ReadSettingImpl(const CStdStr<char>& section, const CStdStr<char>& name,
                         CStdStr<char>& value) override;
    bool ReadSettingImpl(const CStdStr<char>& section, const CStdStr<char>& name,
                         int& value) override;
    void ReadAllSettingsImpl(const CStdStr<char>& section,
                             std::map<CStdStr<char>, CStdStr<char>>& values) override;
    virtual bool ReadSettingImpl(const CStdStr<char>& section, const CStdStr<char>& name,
                                 bool& value);

    /// The domain of a section: lower case, the product's own root replaced by its identifier,
    /// full stops for backslashes.
    static CStdStr<char> createKey(const CStdStr<char>& section);
};
