#include "common/utils/CFileTools.h"

#include "common/utils/CBBLog.h"
#include "common/utils/CRegistry.h"
#include "common/utils/FileHandle.h"
#include "common/utils/FilePath.h"
#include "common/utils/Places.h"

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace fs = boost::filesystem;
using zel::FileHandle;
using zel::toPath;

namespace {

constexpr mode_t forAllUsers = 0777;
constexpr mode_t forThisUser = 0700;

bool folderExists(const CStdStr<char>& path)
{
    boost::system::error_code error;
    return fs::is_directory(toPath(path), error);
}

CStdStr<char> withoutEndSlash(const CStdStr<char>& path)
{
    return path.substr(0, path.find_last_not_of('/') + 1);
}

CStdStr<char> withOneEndSlash(const CStdStr<char>& path)
{
    return withoutEndSlash(path) + "/";
}

/// Whether a name stays below the folder that it is appended to.
bool isBelow(const CStdStr<char>& name)
{
    for (const fs::path& part : toPath(name)) {
        if (part == "..") {
            return false;
        }
    }
    return name.find('\0') == std::string::npos;
}

bool isOursOrRoots(const struct stat& status)
{
    return status.st_uid == geteuid() || status.st_uid == 0;
}

/// Whether files with foreseeable names may be made in a folder that others could have put there
/// first: neither it nor a link that leads to it may belong to another user, nor may others write
/// to it, unless the sticky bit keeps everybody to his own files. Otherwise somebody could plant
/// links where our files are about to be written.
bool isSafeFolder(const CStdStr<char>& path)
{
    struct stat link = {};
    struct stat folder = {};
    if (lstat(path.c_str(), &link) != 0 || stat(path.c_str(), &folder) != 0) {
        return false;
    }
    const bool writableByOthers =
        (folder.st_mode & S_IWOTH) != 0 && (folder.st_mode & S_ISVTX) == 0;
    return S_ISDIR(folder.st_mode) && isOursOrRoots(link) && isOursOrRoots(folder) &&
           !writableByOthers && access(path.c_str(), W_OK | X_OK) == 0;
}

/// What became of a folder that was to be open to all users.
struct SharedFolder
{
    bool made = true; ///< false when it is missing and could not be made, for the reason `error`
    int error = 0;
    bool open = true; ///< false when it was made, but its mode could not be set
};

/// Makes a folder with mode 0777, past the process's umask. One that is there already keeps its
/// mode, whoever made it: narrowing it was somebody's decision. The mode is set on the folder that
/// was made, never by way of a name, behind which a link could stand by now.
SharedFolder makeSharedFolder(const CStdStr<char>& path)
{
    if (folderExists(path)) {
        return SharedFolder();
    }
    const CStdStr<char> parent(path.substr(0, path.find_last_of('/') + 1));
    if (!parent.empty()) {
        zel::places::makeFolders(parent, forAllUsers);
    }
    if (mkdir(path.c_str(), forAllUsers) != 0) {
        const int error = errno;
        return SharedFolder{folderExists(path), error, true};
    }
    const FileHandle folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    const bool ours =
        folder.isOpen() && fstat(folder.get(), &status) == 0 && status.st_uid == geteuid();
    return SharedFolder{true, 0, ours && fchmod(folder.get(), forAllUsers) == 0};
}

} // namespace

bool CFileTools::CreateDirectory(const CStdStr<char>& path)
{
    try {
        fs::create_directories(toPath(path));
        return fs::is_directory(toPath(path));
    } catch (const std::exception& exception) {
        CBBLog::error("std::exception in CreateDirectory %s: %s\n", path.c_str(), exception.what());
        return false;
    }
}

bool CFileTools::DeleteFile(const CStdStr<char>& path)
{
    boost::system::error_code error;
    return fs::remove(toPath(path), error) && !error;
}

bool CFileTools::CopyFile(const CStdStr<char>& from, const CStdStr<char>& to)
{
    boost::system::error_code error;
    // Asked first, because opening a pipe would wait for its other end.
    if (!fs::is_regular_file(toPath(from), error)) {
        return false;
    }
    return fs::copy_file(toPath(from), toPath(to), error) && !error;
}

bool CFileTools::Rename(const CStdStr<char>& from, const CStdStr<char>& to)
{
    boost::system::error_code error;
    fs::rename(toPath(from), toPath(to), error);
    return !error;
}

CStdStr<char> CFileTools::GenerateTempFilePath()
{
    std::string path("/tmp/fileXXXXXX");
    const FileHandle file(mkstemp(path.data()));
    return file.isOpen() ? CStdStr<char>(path) : CStdStr<char>();
}

CStdStr<char> CFileTools::getTmpFolder()
{
    // Callers append a name as it is, so all three end in the one slash that TMPDIR mostly lacks.
    const CStdStr<char> chosen(getenv("TMPDIR"));
    if (!chosen.empty() && folderExists(chosen)) {
        return withOneEndSlash(chosen);
    }
    return folderExists("/var/tmp/") ? "/var/tmp/" : "/tmp/";
}

CStdStr<char> CFileTools::getTmpFolder(const CStdStr<char>& subfolder)
{
    if (!isBelow(subfolder)) {
        return CStdStr<char>();
    }
    CStdStr<char> path = getTmpFolder();
    for (const fs::path& part : toPath(subfolder)) {
        if (part == "." || part == "/") {
            continue;
        }
        path += part.string();
        // What is cached there is one user's media, and its readers are in this process.
        if ((mkdir(path.c_str(), forThisUser) != 0 && errno != EEXIST) || !isSafeFolder(path)) {
            return CStdStr<char>();
        }
        path += "/";
    }
    return path;
}

CStdStr<char> CFileTools::GetZelDataFolder()
{
    CStdStr<char> path = zel::places::data();
    // Kept: open to all users, as the media server may run as one of its own.
    const SharedFolder folder = makeSharedFolder(path);
    if (!folder.made) {
        CBBLog::error("Failed to create %s folder", path.c_str());
    }
    if (!folder.open) {
        CBBLog::error("Couldn't set access rights on %sfolder", path.c_str());
    }
    if (!folderExists(path)) {
        CBBLog::error("Failed to create Zel data folder");
        return CStdStr<char>();
    }
    return path;
}

CStdStr<char> CFileTools::GetZelDataSubFolder(const CStdStr<char>& name)
{
    const CStdStr<char> parent = GetZelDataFolder();
    if (parent.empty()) {
        return CStdStr<char>();
    }
    CStdStr<char> path = withoutEndSlash(parent + "/" + name);
    SharedFolder folder{false, EINVAL, true};
    if (isBelow(name)) {
        folder = makeSharedFolder(path);
    }
    if (!folder.made) {
        CBBLog::error("Failed to create Zel data subfolder: %s\n\t%s", path.c_str(),
                      std::generic_category().message(folder.error).c_str());
        return CStdStr<char>();
    }
    if (!folder.open) {
        CBBLog::error("Couldn't set access rights on Zel data folder");
    }
    return path;
}

CStdStr<char> CFileTools::getZelBinFolderPath()
{
    CStdStr<char> installFolder;
    if (CRegistry::getInstance()->ReadSettingImpl(CRegistry::zelSection, "InstallDir",
                                                  installFolder) &&
        !installFolder.empty()) {
        return withOneEndSlash(installFolder) + "bin";
    }
    return getZelBinFolderPathMac();
}

CStdStr<char> CFileTools::getZelBinFolderPathMac()
{
    CStdStr<char> path;
    path.Format("%s/", zel::places::executableFolder().c_str());
    path += "bin";
    for (const CStdStr<char>& candidate : {path, CStdStr<char>("/opt/zel/bin")}) {
        if (testZelBinPath(candidate)) {
            return candidate;
        }
    }
    return CStdStr<char>();
}

bool CFileTools::testZelBinPath(const CStdStr<char>& path)
{
    return CFileTools(path + "/ZelLauncher").exists();
}

CStdStr<char> CFileTools::GetUserHomeFolder()
{
    return zel::places::home();
}

CStdStr<char> CFileTools::GetLogsDirectory()
{
    return zel::places::logs();
}

CStdStr<char> CFileTools::GetProcessBundleFolder()
{
    return zel::places::executableFolder();
}

CStdStr<char> CFileTools::GetBinaryDirectory()
{
    CStdStr<char> path = zel::places::executableFolder();
    if (path.empty()) {
        CBBLog::error("Failed to GetBinaryDirectory");
    }
    return path;
}

CStdStr<char> CFileTools::GetCurrentWorkingDirectory()
{
    boost::system::error_code error;
    const fs::path path = fs::current_path(error);
    if (error) {
        CBBLog::error("Failed to GetCurrentWorkingDirectory");
        return CStdStr<char>();
    }
    return path.string();
}
