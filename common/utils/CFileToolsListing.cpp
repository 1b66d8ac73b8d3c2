#include "common/utils/CFileTools.h"

#include "common/utils/FilePath.h"

#include <algorithm>
#include <boost/filesystem/directory.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/system/error_code.hpp>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace fs = boost::filesystem;
using zel::toPath;

namespace {

/// The entries of a folder. Read in one go, so that walking down a deep tree holds one handle and
/// does not meet what it makes itself.
/// @return false when the folder could not be read to its end; what was read stands
bool readFolder(const fs::path& folder, std::vector<fs::directory_entry>& entries)
{
    boost::system::error_code error;
    fs::directory_iterator iterator(folder, error);
    while (!error && iterator != fs::directory_iterator()) {
        entries.push_back(*iterator);
        iterator.increment(error);
    }
    return !error;
}

/// Whether an absolute path, which need not exist yet, is the folder or leads below it.
bool isInside(fs::path path, const fs::path& folder)
{
    boost::system::error_code error;
    while (!fs::equivalent(path, folder, error)) {
        const fs::path parent = path.parent_path();
        if (parent.empty() || parent == path) {
            return false;
        }
        path = parent;
    }
    return true;
}

bool copyTree(const fs::path& from, const fs::path& to)
{
    boost::system::error_code error;
    fs::create_directories(to, error);
    std::vector<fs::directory_entry> entries;
    bool complete = !error && readFolder(from, entries);
    for (const fs::directory_entry& entry : entries) {
        const fs::path target = to / entry.path().filename();
        const fs::file_type type = entry.symlink_status(error).type();
        if (type == fs::directory_file) {
            complete = copyTree(entry.path(), target) && complete;
        } else if (type == fs::symlink_file) {
            fs::copy_symlink(entry.path(), target, error);
            complete = !error && complete;
        } else {
            complete = CFileTools::CopyFile(entry.path().string(), target.string()) && complete;
        }
    }
    return complete;
}

/// What one object is sorted by. Asked of the disk once: a file that changes or vanishes during a
/// sort must not change its place in the order.
struct SortRecord
{
    CFileTools* file;
    CStdStr<char> text;
    long long number;
    bool folder;
};

struct SortByTitleAsc
{
    bool operator()(const SortRecord& left, const SortRecord& right) const
    {
        return left.folder != right.folder ? left.folder
                                           : ssicmp(left.text.c_str(), right.text.c_str()) < 0;
    }
};

/// Folders come first here, too.
struct SortByTitleDesc
{
    bool operator()(const SortRecord& left, const SortRecord& right) const
    {
        return left.folder != right.folder ? left.folder
                                           : ssicmp(left.text.c_str(), right.text.c_str()) > 0;
    }
};

struct SortByExtensionAsc
{
    bool operator()(const SortRecord& left, const SortRecord& right) const
    {
        return ssicmp(left.text.c_str(), right.text.c_str()) < 0;
    }
};

struct SortByExtensionDesc
{
    bool operator()(const SortRecord& left, const SortRecord& right) const
    {
        return ssicmp(left.text.c_str(), right.text.c_str()) > 0;
    }
};

struct SortByNumberAsc
{
    bool operator()(const SortRecord& left, const SortRecord& right) const
    {
        return left.number < right.number;
    }
};

struct SortByNumberDesc
{
    bool operator()(const SortRecord& left, const SortRecord& right) const
    {
        return left.number > right.number;
    }
};

using SortBySizeAsc = SortByNumberAsc;
using SortBySizeDesc = SortByNumberDesc;
using SortByCreationDateAsc = SortByNumberAsc;
using SortByCreationDateDesc = SortByNumberDesc;
using SortByLastModifiedAsc = SortByNumberAsc;
using SortByLastModifiedDesc = SortByNumberDesc;
using SortByLastAccessedTimeAsc = SortByNumberAsc;
using SortByLastAccessedTimeDesc = SortByNumberDesc;

void fillTitle(SortRecord& record)
{
    record.folder = record.file->isFolder();
    record.text = record.file->getDisplayName();
}

void fillExtension(SortRecord& record)
{
    record.text = record.file->getExtension();
}

void fillSize(SortRecord& record)
{
    record.number = static_cast<long long>(record.file->getFileSize());
}

void fillCreationDate(SortRecord& record)
{
    record.number = record.file->getDateCreated();
}

void fillLastModified(SortRecord& record)
{
    record.number = record.file->getLastModified();
}

void fillLastAccessed(SortRecord& record)
{
    record.number = record.file->getLastAccessed();
}

/// Files that are equal keep their order.
template <class Order>
void sortRecords(std::vector<SortRecord>& records)
{
    std::stable_sort(records.begin(), records.end(), Order());
}

struct SortSpec
{
    std::string_view name;
    void (*fill)(SortRecord&);
    void (*sort)(std::vector<SortRecord>&);
};

constexpr SortSpec sortSpecs[] = {
    {"title:asc", fillTitle, sortRecords<SortByTitleAsc>},
    {"path:asc", fillTitle, sortRecords<SortByTitleAsc>},
    {"title:desc", fillTitle, sortRecords<SortByTitleDesc>},
    {"path:desc", fillTitle, sortRecords<SortByTitleDesc>},
    {"path.extension:asc", fillExtension, sortRecords<SortByExtensionAsc>},
    {"path.extension:desc", fillExtension, sortRecords<SortByExtensionDesc>},
    {"size:asc", fillSize, sortRecords<SortBySizeAsc>},
    {"size:desc", fillSize, sortRecords<SortBySizeDesc>},
    {"creationDate:asc", fillCreationDate, sortRecords<SortByCreationDateAsc>},
    {"creationDate:desc", fillCreationDate, sortRecords<SortByCreationDateDesc>},
    {"lastModified:asc", fillLastModified, sortRecords<SortByLastModifiedAsc>},
    {"lastModified:desc", fillLastModified, sortRecords<SortByLastModifiedDesc>},
    {"lastAccessTime:asc", fillLastAccessed, sortRecords<SortByLastAccessedTimeAsc>},
    {"lastAccessTime:desc", fillLastAccessed, sortRecords<SortByLastAccessedTimeDesc>},
};

/// @param wanted  with or without dot, in any case; empty for all
bool hasExtension(const fs::path& path, const std::vector<CStdStr<char>>& wanted)
{
    const std::string extension = path.extension().string();
    return wanted.empty() ||
           std::any_of(wanted.begin(), wanted.end(), [&extension](const CStdStr<char>& one) {
               const CStdStr<char> dotted(one.empty() || one[0] == '.' ? one
                                                                       : CStdStr<char>("." + one));
               return ssicmp(dotted.c_str(), extension.c_str()) == 0;
           });
}

} // namespace

bool CFileTools::EnumerateFolder(const CStdStr<char>& path, std::vector<CFileTools*>& result,
                                 bool folders, bool files, bool hidden, bool noFileInfo,
                                 const std::vector<CStdStr<char>>& extensions, bool recursive)
{
    std::vector<fs::directory_entry> entries;
    bool complete = readFolder(toPath(path), entries);
    for (const fs::directory_entry& entry : entries) {
        if (!hidden && entry.path().filename().string().starts_with('.')) {
            continue;
        }
        boost::system::error_code error;
        const bool link = fs::is_symlink(entry.symlink_status(error));
        const fs::file_status status = entry.status(error);
        const bool folder = fs::is_directory(status);
        const bool file = fs::is_regular_file(status) && hasExtension(entry.path(), extensions);
        if ((folder && folders) || (file && files)) {
            auto found = std::make_unique<CFileTools>(entry.path().string());
            found->m_listedFolder = folder;
            found->m_listedShortcut = link;
            found->m_noFileInfo = noFileInfo;
            result.push_back(found.get());
            static_cast<void>(found.release());
        }
        if (recursive && folder && !link) {
            complete = EnumerateFolder(entry.path().string(), result, folders, files, hidden,
                                       noFileInfo, extensions, recursive) &&
                       complete;
        }
    }
    return complete;
}

void CFileTools::SortFiles(std::vector<CFileTools*>& files, const CStdStr<char>& spec)
{
    const auto* known =
        std::find_if(std::begin(sortSpecs), std::end(sortSpecs),
                     [&spec](const SortSpec& candidate) { return candidate.name == spec; });
    if (known == std::end(sortSpecs)) {
        return;
    }
    std::vector<SortRecord> records;
    records.reserve(files.size());
    for (CFileTools* file : files) {
        records.push_back(SortRecord{file, CStdStr<char>(), 0, false});
        known->fill(records.back());
    }
    known->sort(records);
    std::transform(records.begin(), records.end(), files.begin(),
                   [](const SortRecord& record) { return record.file; });
}

bool CFileTools::CopyDirectory(const CStdStr<char>& from, const CStdStr<char>& to)
{
    try {
        const fs::path source = toPath(from);
        if (!fs::is_directory(source) || toPath(to).empty()) {
            return false;
        }
        const fs::path target = fs::weakly_canonical(fs::absolute(toPath(to)));
        return !isInside(target, source) && copyTree(source, target);
    } catch (const fs::filesystem_error&) {
        return false;
    }
}
