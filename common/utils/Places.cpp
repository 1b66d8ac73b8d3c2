#include "common/utils/Places.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace zel::places {

namespace {

CStdStr<char> withoutEndSlashes(const CStdStr<char>& path)
{
    const std::size_t last = path.find_last_not_of('/');
    return path.substr(0, last == std::string::npos ? 1 : last + 1);
}

/// @param chosenName  variable that names the folder itself
/// @param sharedName  variable that names the parent of all programs' folders
/// @param underHome  where that parent is when it is not set
CStdStr<char> folder(const char* chosenName, const char* sharedName, const char* underHome,
                     const char* name)
{
    const CStdStr<char> chosen(getenv(chosenName));
    if (!chosen.empty()) {
        return withoutEndSlashes(chosen);
    }
    CStdStr<char> parent(getenv(sharedName));
    if (parent.empty() || parent[0] != '/') {
        const CStdStr<char> own(getenv("HOME"));
        parent = (own.empty() || own[0] != '/' ? home() : withoutEndSlashes(own)) + underHome;
    }
    return withoutEndSlashes(parent) + name;
}

} // namespace

CStdStr<char> logs()
{
    return folder("TAMRIX_LOG_DIR", "XDG_STATE_HOME", "/.local/state", "/tamrix/logs");
}

CStdStr<char> data()
{
    return folder("TAMRIX_DATA_DIR", "XDG_DATA_HOME", "/.local/share", "/tamrix");
}

CStdStr<char> preferences()
{
    return folder("TAMRIX_PREFERENCES_DIR", "XDG_CONFIG_HOME", "/.config", "/tamrix");
}

CStdStr<char> home()
{
    constexpr std::size_t bufferLimit = 1UL << 20U;
    std::vector<char> buffer(1024);
    passwd entry = {};
    passwd* found = nullptr;
    while (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
           buffer.size() < bufferLimit) {
        buffer.resize(buffer.size() * 2);
    }
    if (found == nullptr || found->pw_dir == nullptr || *found->pw_dir == '\0') {
        return "/";
    }
    return withoutEndSlashes(found->pw_dir);
}

CStdStr<char> executableFolder()
{
    std::array<char, PATH_MAX> path = {};
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    if (length <= 0) {
        return CStdStr<char>();
    }
    const CStdStr<char> file(std::string(path.data(), static_cast<std::size_t>(length)));
    return withoutEndSlashes(file.substr(0, file.rfind('/') + 1));
}

bool makeFolders(const CStdStr<char>& path, mode_t mode)
{
    std::size_t end = 0;
    while (end != std::string::npos) {
        end = path.find('/', end + 1);
        const CStdStr<char> part(path.substr(0, end));
        if (mkdir(part.c_str(), mode) != 0 && errno != EEXIST && end == std::string::npos) {
            return false;
        }
    }
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace zel::places
