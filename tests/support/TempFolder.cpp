#include "tests/support/TempFolder.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace zel::test {

namespace {

void setVariable(const std::string& name, const std::optional<std::string>& value)
{
    if (value) {
        setenv(name.c_str(), value->c_str(), 1);
    } else {
        unsetenv(name.c_str());
    }
}

} // namespace

TempFolder::TempFolder()
    : m_path((std::filesystem::temp_directory_path() / "zel-test-XXXXXX").string())
{
    if (mkdtemp(m_path.data()) == nullptr) {
        throw std::runtime_error("no temporary folder " + m_path);
    }
}

TempFolder::~TempFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

ScopedVariable::ScopedVariable(const std::string& name, const std::optional<std::string>& value)
    : m_name(name)
{
    const char* former = getenv(name.c_str());
    if (former != nullptr) {
        m_former = former;
    }
    setVariable(name, value);
}

ScopedVariable::~ScopedVariable()
{
    setVariable(m_name, m_former);
}

ScopedPlaces::ScopedPlaces(const TempFolder& folder)
    : m_logs(folder.path("logs")), m_preferences(folder.path("preferences")),
      m_logsVariable("TAMRIX_LOG_DIR", m_logs),
      m_preferencesVariable("TAMRIX_PREFERENCES_DIR", m_preferences)
{
}

std::string readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    try {
        return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    } catch (const std::ios_base::failure&) {
        return {}; // such as that of a thread that has ended by now
    }
}

void writeFile(const std::string& path, const std::string& bytes)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

} // namespace zel::test
