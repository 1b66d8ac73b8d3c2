#pragma once

#include "common/utils/StdString.h"

#include <ctime>
#include <map>
#include <vector>

/// A file or folder by its path, and the services around files: the product's folders, temporary
/// files, listings, medium ids.
///
/// No operation throws on what it finds on the disk: each answers false, 0 or an empty text, and
/// a path with a NUL inside counts as one that does not exist. An object belongs to one thread at a
/// time. The static functions may be called on any thread, apart from those that ask the
/// environment while somebody changes it.
class CFileTools
{
public:
    /// From where the offset of a read counts; a file is not held open between two reads.
    enum SeekDirection
    {
        FromStart,
        FromEnd ///< backwards
    };

    /// From ".extension" in lower case to a media type. Without a lock: whoever wants media types
    /// fills it before the first look-up, which adds the extensions that it misses.
    static std::map<CStdStr<char>, CStdStr<char>> s_extensionMediaTypeMap;

    CFileTools() = default;
    explicit CFileTools(const CStdStr<char>& path) : m_path(path) {}
    CFileTools(const CStdStr<char>& path, const CStdStr<char>& displayName)
        : m_path(path), m_displayName(displayName)
    {
    }
    virtual ~CFileTools() = default;

    CStdStr<char> getPath() const { return m_path; }
    CStdStr<char> getMediumId();
    /// The name given at construction, else the last part of the path.
    CStdStr<char> getDisplayName();
    /// Without the slash at the end; empty for a name without a folder.
    CStdStr<char> getDirectory() const;
    /// Without the dot. Kept: the whole path when it has no dot beyond its first letter, since
    /// listings show this field for every entry.
    CStdStr<char> getExtension() const;
    /// A column of a media listing, as text; empty for a name that is none.
    CStdStr<char> getFieldValue(const CStdStr<char>& name);
    CStdStr<char> toString() const { return m_path; }

    bool exists() const;
    /// Also true for a symbolic link to a folder.
    bool isFolder() const;
    bool isShortcut() const;
    /// Bytes; 0 for what is no file.
    unsigned long long getFileSize() const;
    /// Kept: all three answer the time of the last change, the one date that every file system
    /// has. 0 when there is no such file.
    std::time_t getDateCreated() const { return getLastModified(); }
    std::time_t getLastModified() const;
    std::time_t getLastAccessed() const { return getLastModified(); }

    /// The whole file, which must be a regular one, as must those of all reads and writes: a pipe
    /// or device could block for ever.
    /// @param size  its length; 0 on failure
    /// @return an array that the caller frees with delete[]; null on failure
    char* getData(unsigned long long& size) const;
    /// A part of the file.
    /// @param size  room in buffer; on return the bytes read, 0 beyond the end and on failure
    /// @param offset  from the end at most the length of the file
    bool getData(char* buffer, unsigned long long& size, unsigned long long offset,
                 SeekDirection direction) const;
    /// @param data  on success an array that the caller frees with delete[], otherwise null
    bool readToBytes(unsigned char** data, unsigned long* size) const;
    /// Replaces the content of the file, or makes it. A failure may leave a part.
    bool writeBytes(const unsigned char* data, unsigned long size) const;
    bool writeString(const CStdStr<char>& text) const;

    /// "%TOKEN%..." names a folder of the user, such as "%MYMUSIC%"; all else stays as it is.
    static CStdStr<char> resolveSpecialPath(const CStdStr<char>& path);
    /// Both: empty, since this system has neither shortcut files nor folder numbers.
    static CStdStr<char> resolveShortcut(const CStdStr<char>& path);
    static CStdStr<char> GetPathFromCSIDL(int folder);
    /// A path made safe for URLs and id fields, and back. Exact unless the path has one of "|*><".
    static CStdStr<char> PathToFileBrowserMediumId(const CStdStr<char>& path);
    static CStdStr<char> FileBrowserMediumIdToPath(const CStdStr<char>& id);
    static CStdStr<char> GetDisplayNameFromPath(const CStdStr<char>& path);

    /// Appends the entries of a folder in the order of the file system. Entries that are neither
    /// folder nor regular file are passed over, as are links that lead nowhere.
    /// @param result  gets new objects that the caller deletes
    /// @param hidden  also entries whose name starts with a dot
    /// @param noFileInfo  the entries do not ask the disk again: type as found here, no size and
    ///        no dates; for folders on slow media
    /// @param extensions  of the files wanted, with or without dot, in any case; empty for all
    /// @param recursive  also what is in the folders below, but not behind symbolic links, which
    ///        may lead in circles. Looks into folders that are not wanted themselves, too.
    /// @return false when a folder could not be read to its end
    static bool EnumerateFolder(const CStdStr<char>& path, std::vector<CFileTools*>& result,
                                bool folders, bool files, bool hidden, bool noFileInfo,
                                const std::vector<CStdStr<char>>& extensions, bool recursive);
    /// @param spec  such as "title:asc"; one that is not known changes nothing
    static void SortFiles(std::vector<CFileTools*>& files, const CStdStr<char>& spec);

    /// Copies a tree; what is in the target already stays and makes the result false. Links are
    /// copied as links. Goes on after a failure. A folder is not copied into itself.
    static bool CopyDirectory(const CStdStr<char>& from, const CStdStr<char>& to);
    /// Never replaces a file.
    static bool CopyFile(const CStdStr<char>& from, const CStdStr<char>& to);
    /// With missing parents.
    /// @return whether the folder is there now
    static bool CreateDirectory(const CStdStr<char>& path);
    /// Removes a file, a link or an empty folder.
    static bool DeleteFile(const CStdStr<char>& path);
    /// Replaces a file that has the new name.
    static bool Rename(const CStdStr<char>& from, const CStdStr<char>& to);

    /// A new empty file that only this user may read.
    static CStdStr<char> GenerateTempFilePath();
    /// With a slash at the end, as a name is appended without one.
    static CStdStr<char> getTmpFolder();
    /// A folder below it, with a slash at the end; made when it is missing, for this user alone.
    /// @return empty when it cannot be used: the caller takes getTmpFolder() instead
    static CStdStr<char> getTmpFolder(const CStdStr<char>& subfolder);
    /// Made when they are missing, and open to all users then.
    /// @return empty when it is not there
    static CStdStr<char> GetZelDataFolder();
    static CStdStr<char> GetZelDataSubFolder(const CStdStr<char>& name);
    /// The folder of the product's programs; empty when it is not installed.
    static CStdStr<char> getZelBinFolderPath();
    /// The same without asking the settings.
    static CStdStr<char> getZelBinFolderPathMac();
    static bool testZelBinPath(const CStdStr<char>& path);
    static CStdStr<char> GetUserHomeFolder();
    static CStdStr<char> GetLogsDirectory();
    /// Both: the folder of the running program.
    static CStdStr<char> GetProcessBundleFolder();
    static CStdStr<char> GetBinaryDirectory();
    static CStdStr<char> GetCurrentWorkingDirectory();

private:
    CStdStr<char> mediaType() const;
    CStdStr<char> dateField(const CStdStr<char>& name) const;

    CStdStr<char> m_path;          ///< full path
    CStdStr<char> m_displayName;   ///< empty until asked
    CStdStr<char> m_mediumId;      ///< empty until asked
    bool m_listedFolder = false;   ///< is a folder; counts with m_noFileInfo
    bool m_listedShortcut = false; ///< is a symbolic link; counts with m_noFileInfo
    bool m_noFileInfo = false;     ///< leaves the disk alone, see EnumerateFolder
};
