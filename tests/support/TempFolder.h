#pragma once

#include <optional>
#include <string>

namespace zel::test {

/// A fresh folder under the system's temporary one, removed with all that is in it at the end.
class TempFolder
{
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    /// Without a slash at the end.
    const std::string& path() const { return m_path; }
    /// Path of an entry, which need not exist.
    std::string path(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

/// Sets an environment variable for a scope. To be used while no other thread reads it.
class ScopedVariable
{
public:
    /// @param value  nothing removes the variable
    ScopedVariable(const std::string& name, const std::optional<std::string>& value);
    ~ScopedVariable();
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

private:
    std::string m_name;
    std::optional<std::string> m_former;
};

/// Log and preferences folders of a test's own: both variables point below `folder`.
class ScopedPlaces
{
public:
    explicit ScopedPlaces(const TempFolder& folder);

    const std::string& logs() const { return m_logs; }
    const std::string& preferences() const { return m_preferences; }

private:
    std::string m_logs;
    std::string m_preferences;
    ScopedVariable m_logsVariable;
    ScopedVariable m_preferencesVariable;
};

/// @return the bytes of a file; empty when it cannot be read
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);

} // namespace zel::test
