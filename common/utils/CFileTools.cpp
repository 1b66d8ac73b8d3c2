#include "common/utils/CFileTools.h"

#include "common/utils/FileHandle.h"
#include "common/utils/FilePath.h"
#include "common/utils/Places.h"

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <boost/system/error_code.hpp>
#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <limits>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = boost::filesystem;
using zel::FileHandle;
using zel::toPath;

namespace {

/// The last part of a path. Kept: a path without a slash beyond its first letter is its own name.
CStdStr<char> nameOf(const CStdStr<char>& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos || slash == 0 ? path : CStdStr<char>(path.substr(slash + 1));
}

/// Opens a regular file without waiting, as opening a pipe would.
/// @param sizeBytes  of the file
FileHandle openRegular(const CStdStr<char>& path, int flags, unsigned long long& sizeBytes)
{
    FileHandle file(open(toPath(path).c_str(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666));
    struct stat status = {};
    if (!file.isOpen() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return FileHandle();
    }
    sizeBytes = static_cast<unsigned long long>(status.st_size);
    return file;
}

/// Reads up to `size` bytes from `offset` on; less at the end of the file.
/// @param size  on return the bytes read
bool readAt(const FileHandle& file, char* buffer, unsigned long long& size,
            unsigned long long offset)
{
    constexpr unsigned long long oneCall = 1ULL << 30U;
    const unsigned long long wanted = size;
    size = 0;
    while (size < wanted) {
        const ssize_t count = pread(file.get(), buffer + size, std::min(wanted - size, oneCall),
                                    static_cast<off_t>(offset + size));
        if (count == 0) {
            return true;
        }
        if (count > 0) {
            size += static_cast<unsigned long long>(count);
        } else if (errno != EINTR) {
            size = 0;
            return false;
        }
    }
    return true;
}

/// @return the bytes that the file has now; null when it cannot be read
template <class Byte>
std::unique_ptr<Byte[]> readAll(const CStdStr<char>& path, unsigned long long& size)
{
    size = 0;
    unsigned long long fileSize = 0;
    const FileHandle file = openRegular(path, O_RDONLY, fileSize);
    if (!file.isOpen() || fileSize > std::numeric_limits<std::ptrdiff_t>::max()) {
        return nullptr;
    }
    std::unique_ptr<Byte[]> bytes(new (std::nothrow) Byte[fileSize]);
    if (!bytes || !readAt(file, reinterpret_cast<char*>(bytes.get()), fileSize, 0)) {
        return nullptr;
    }
    size = fileSize;
    return bytes;
}

bool isDateField(const CStdStr<char>& name)
{
    return name == "dateModified" || name == "lastModified" || name == "lastAccessTime" ||
           name == "creationDate" || name == "creationDate.year" || name == "creationDate.month";
}

} // namespace

std::map<CStdStr<char>, CStdStr<char>> CFileTools::s_extensionMediaTypeMap;

CStdStr<char> CFileTools::getMediumId()
{
    if (m_mediumId.empty()) {
        m_mediumId = PathToFileBrowserMediumId(m_path);
    }
    return m_mediumId;
}

CStdStr<char> CFileTools::getDisplayName()
{
    if (m_displayName.empty()) {
        m_displayName = nameOf(m_path);
    }
    return m_displayName;
}

CStdStr<char> CFileTools::getDirectory() const
{
    const std::size_t slash = m_path.rfind('/');
    return slash == std::string::npos ? CStdStr<char>() : CStdStr<char>(m_path.substr(0, slash));
}

CStdStr<char> CFileTools::getExtension() const
{
    const std::size_t dot = m_path.rfind('.');
    return dot == std::string::npos || dot == 0 ? m_path : CStdStr<char>(m_path.substr(dot + 1));
}

CStdStr<char> CFileTools::getFieldValue(const CStdStr<char>& name)
{
    if (name == "title" || name == "path.filename") {
        return getDisplayName();
    }
    if (name == "mediumId" || name == "zelMediumId") {
        return getMediumId();
    }
    if (name == "path") {
        return getPath();
    }
    if (name == "path.extension") {
        return getExtension();
    }
    if (name == "path.directory") {
        return getDirectory();
    }
    if (name == "type") {
        return isFolder() ? "folder" : "file";
    }
    if (name == "mediaType") {
        return mediaType();
    }
    if (m_noFileInfo) {
        return CStdStr<char>();
    }
    if (name == "size") {
        CStdStr<char> text;
        text.Format("%lld", static_cast<long long>(getFileSize()));
        return text;
    }
    return isDateField(name) ? dateField(name) : CStdStr<char>();
}

CStdStr<char> CFileTools::mediaType() const
{
    const CStdStr<char> key("." + getExtension().ToLower());
    const CStdStr<char>& type = s_extensionMediaTypeMap[key];
    return type.empty() ? CStdStr<char>("file") : CStdStr<char>(type + ".file");
}

/// @return empty for a time that has no date
CStdStr<char> CFileTools::dateField(const CStdStr<char>& name) const
{
    const std::time_t time = getLastModified();
    std::tm date = {};
    CStdStr<char> text;
    if (localtime_r(&time, &date) == nullptr) {
        return text;
    }
    if (name == "creationDate.year") {
        text.Format("%04d", date.tm_year + 1900);
    } else if (name == "creationDate.month") {
        text.Format("%04d", date.tm_mon + 1);
    } else {
        text.Format("%04d-%02d-%02d %02d:%02d:%02d", date.tm_year + 1900, date.tm_mon + 1,
                    date.tm_mday, date.tm_hour, date.tm_min, date.tm_sec);
    }
    return text;
}

bool CFileTools::exists() const
{
    boost::system::error_code error;
    return fs::exists(toPath(m_path), error);
}

bool CFileTools::isFolder() const
{
    boost::system::error_code error;
    return m_noFileInfo ? m_listedFolder : fs::is_directory(toPath(m_path), error);
}

bool CFileTools::isShortcut() const
{
    boost::system::error_code error;
    return m_noFileInfo ? m_listedShortcut : fs::is_symlink(toPath(m_path), error);
}

unsigned long long CFileTools::getFileSize() const
{
    boost::system::error_code error;
    const unsigned long long size = fs::file_size(toPath(m_path), error);
    return error ? 0 : size;
}

std::time_t CFileTools::getLastModified() const
{
    boost::system::error_code error;
    const std::time_t time = fs::last_write_time(toPath(m_path), error);
    return error ? 0 : time;
}

char* CFileTools::getData(unsigned long long& size) const
{
    return readAll<char>(m_path, size).release();
}

bool CFileTools::getData(char* buffer, unsigned long long& size, unsigned long long offset,
                         SeekDirection direction) const
{
    const unsigned long long wanted = size;
    size = 0;
    unsigned long long fileSize = 0;
    const FileHandle file = openRegular(m_path, O_RDONLY, fileSize);
    if (!file.isOpen() || (buffer == nullptr && wanted > 0) ||
        (direction == FromEnd && offset > fileSize)) {
        return false;
    }
    const unsigned long long start = direction == FromEnd ? fileSize - offset : offset;
    if (start >= fileSize) {
        return true;
    }
    size = std::min(wanted, fileSize - start);
    return readAt(file, buffer, size, start);
}

bool CFileTools::readToBytes(unsigned char** data, unsigned long* size) const
{
    if (data == nullptr || size == nullptr) {
        return false;
    }
    unsigned long long length = 0;
    *data = readAll<unsigned char>(m_path, length).release();
    *size = static_cast<unsigned long>(length);
    return *data != nullptr;
}

bool CFileTools::writeBytes(const unsigned char* data, unsigned long size) const
{
    if (data == nullptr && size > 0) {
        return false;
    }
    // Emptied only once it is known to be a regular file.
    unsigned long long formerSize = 0;
    const FileHandle file = openRegular(m_path, O_WRONLY | O_CREAT, formerSize);
    if (!file.isOpen() || ftruncate(file.get(), 0) != 0) {
        return false;
    }
    unsigned long written = 0;
    while (written < size) {
        const ssize_t count = write(file.get(), data + written, size - written);
        if (count > 0) {
            written += static_cast<unsigned long>(count);
        } else if (count == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool CFileTools::writeString(const CStdStr<char>& text) const
{
    return writeBytes(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

CStdStr<char> CFileTools::resolveSpecialPath(const CStdStr<char>& path)
{
    struct SpecialFolder
    {
        const char* token;
        const char* underHome;
    };
    static constexpr SpecialFolder specialFolders[] = {
        {"DESKTOP", "/Desktop"},     {"MYDOCUMENTS", "/Documents"}, {"MYMUSIC", "/Music"},
        {"MYPICTURES", "/Pictures"}, {"MYVIDEO", "/Videos"},        {"MYCOMPUTER", "/"},
    };
    const std::size_t first = path.find('%');
    const std::size_t second = first == std::string::npos ? first : path.find('%', first + 1);
    if (second == std::string::npos) {
        return path;
    }
    // Kept: what stands behind the token is dropped; callers ask for the folder alone.
    const CStdStr<char> token(path.substr(first + 1, second - first - 1));
    CStdStr<char> result = GetUserHomeFolder();
    for (const SpecialFolder& folder : specialFolders) {
        if (ssicmp(token.c_str(), folder.token) == 0) {
            result += folder.underHome;
        }
    }
    return result;
}

CStdStr<char> CFileTools::resolveShortcut(const CStdStr<char>&)
{
    return CStdStr<char>();
}

CStdStr<char> CFileTools::GetPathFromCSIDL(int)
{
    return CStdStr<char>();
}

CStdStr<char> CFileTools::PathToFileBrowserMediumId(const CStdStr<char>& path)
{
    CStdStr<char> id(path);
    id.Replace('/', '|');
    id.Replace(' ', '*');
    id.Replace('.', '>');
    id.Replace('+', '<');
    return "F*" + id;
}

CStdStr<char> CFileTools::FileBrowserMediumIdToPath(const CStdStr<char>& id)
{
    constexpr std::size_t prefixLength = 2;
    CStdStr<char> path(id.size() > prefixLength ? id.substr(prefixLength) : std::string());
    path.Replace('|', '/');
    path.Replace('*', ' ');
    path.Replace('>', '.');
    path.Replace('<', '+');
    return path;
}

CStdStr<char> CFileTools::GetDisplayNameFromPath(const CStdStr<char>& path)
{
    return nameOf(path);
}
