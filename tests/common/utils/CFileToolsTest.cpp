#include "common/utils/CFileTools.h"

#include "tests/support/TempFolder.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

using zel::test::readFile;
using zel::test::ScopedVariable;
using zel::test::TempFolder;
using zel::test::writeFile;

namespace {

using Paths = std::vector<std::string>;

const std::string bytesWithEverything("a\0b\r\n\xff\x1a", 7);

/// What EnumerateFolder appends to, and its owner.
struct Listing
{
    ~Listing()
    {
        for (const CFileTools* file : files) {
            delete file;
        }
    }
    CFileTools* add(const std::string& path)
    {
        files.push_back(new CFileTools(path));
        return files.back();
    }
    /// Names in their present order.
    Paths names() const
    {
        Paths result;
        for (CFileTools* file : files) {
            result.push_back(file->getDisplayName());
        }
        return result;
    }
    Paths sortedNames() const
    {
        Paths result = names();
        std::sort(result.begin(), result.end());
        return result;
    }

    std::vector<CFileTools*> files;
};

/// How EnumerateFolder is asked in most tests.
struct Wanted
{
    bool folders = true;
    bool files = true;
    bool hidden = false;
    bool noFileInfo = false;
    bool recursive = false;
    std::vector<CStdStr<char>> extensions = {};
};

bool enumerate(const std::string& path, Listing& listing, const Wanted& wanted)
{
    return CFileTools::EnumerateFolder(path, listing.files, wanted.folders, wanted.files,
                                       wanted.hidden, wanted.noFileInfo, wanted.extensions,
                                       wanted.recursive);
}

void setModified(const std::string& path, std::time_t time)
{
    const std::array<timespec, 2> times = {timespec{1, 0}, timespec{time, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
}

/// Whether `check` holds for a user whom file modes stop. Root, whom they do not, runs it as nobody
/// in a process of its own.
template <class Check>
bool holdsForOrdinaryUser(Check check)
{
    if (geteuid() != 0) {
        return check();
    }
    const pid_t child = fork();
    if (child == 0) {
        constexpr uid_t nobody = 65534;
        _exit(setgid(nobody) == 0 && setuid(nobody) == 0 && check() ? 0 : 1);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string home()
{
    return CFileTools::GetUserHomeFolder();
}

} // namespace

TEST(CFileTools, SpecialPathGivesTheFolderOfItsToken)
{
    EXPECT_EQ(CFileTools::resolveSpecialPath("%DESKTOP%"), home() + "/Desktop");
    EXPECT_EQ(CFileTools::resolveSpecialPath("%MYDOCUMENTS%"), home() + "/Documents");
    EXPECT_EQ(CFileTools::resolveSpecialPath("%MYMUSIC%"), home() + "/Music");
    EXPECT_EQ(CFileTools::resolveSpecialPath("%MYPICTURES%"), home() + "/Pictures");
    EXPECT_EQ(CFileTools::resolveSpecialPath("%MYVIDEO%"), home() + "/Videos");
    EXPECT_EQ(CFileTools::resolveSpecialPath("%MYCOMPUTER%"), home() + "/");
}

TEST(CFileTools, SpecialPathDropsWhatStandsAroundTheToken)
{
    EXPECT_EQ(CFileTools::resolveSpecialPath("%MYMUSIC%/x.mp3"), home() + "/Music");
    EXPECT_EQ(CFileTools::resolveSpecialPath("/in/front%MYMUSIC%x%MYVIDEO%"), home() + "/Music");
}

TEST(CFileTools, SpecialPathKnowsItsTokensInAnyCase)
{
    EXPECT_EQ(CFileTools::resolveSpecialPath("%myMusic%"), home() + "/Music");
}

TEST(CFileTools, UnknownTokenGivesTheHome)
{
    EXPECT_EQ(CFileTools::resolveSpecialPath("%nosuch%"), home());
    EXPECT_EQ(CFileTools::resolveSpecialPath("%%"), home());
    EXPECT_EQ(CFileTools::resolveSpecialPath("%MYMUSIC2%/x"), home());
}

TEST(CFileTools, PathWithoutTwoPercentSignsIsUnchanged)
{
    for (const char* path : {"", "/a/b.mp3", "%MYMUSIC", "MYMUSIC%/x", "/100%/x"}) {
        EXPECT_EQ(CFileTools::resolveSpecialPath(path), path);
    }
}

TEST(CFileTools, MediumIdGoesThereAndBack)
{
    EXPECT_EQ(CFileTools::PathToFileBrowserMediumId("/a b/c.d+e"), "F*|a*b|c>d<e");
    EXPECT_EQ(CFileTools::FileBrowserMediumIdToPath("F*|a*b|c>d<e"), "/a b/c.d+e");
    EXPECT_EQ(CFileTools::PathToFileBrowserMediumId(""), "F*");
    EXPECT_EQ(CFileTools::FileBrowserMediumIdToPath("F*"), "");
}

TEST(CFileTools, MediumIdShorterThanItsPrefixIsNoPath)
{
    EXPECT_EQ(CFileTools::FileBrowserMediumIdToPath(""), "");
    EXPECT_EQ(CFileTools::FileBrowserMediumIdToPath("F"), "");
}

TEST(CFileTools, MediumIdOfAPathWithItsOwnSignsIsNotExact)
{
    const CStdStr<char> id = CFileTools::PathToFileBrowserMediumId("/a|b*c>d<e");
    EXPECT_EQ(id, "F*|a|b*c>d<e");
    EXPECT_EQ(CFileTools::FileBrowserMediumIdToPath(id), "/a/b c.d+e");
}

TEST(CFileTools, ExtensionIsTheTextBehindTheLastDotOfThePath)
{
    EXPECT_EQ(CFileTools("/a/b.tar.GZ").getExtension(), "GZ");
    EXPECT_EQ(CFileTools("b.").getExtension(), "");
    EXPECT_EQ(CFileTools("/a.d/b").getExtension(), "d/b");
}

TEST(CFileTools, ExtensionOfANameWithoutADotIsTheWholePath)
{
    EXPECT_EQ(CFileTools("/music/song").getExtension(), "/music/song");
    EXPECT_EQ(CFileTools("song").getExtension(), "song");
    EXPECT_EQ(CFileTools(".profile").getExtension(), ".profile");
    EXPECT_EQ(CFileTools("").getExtension(), "");
}

TEST(CFileTools, DisplayNameIsTheLastPartOfThePath)
{
    for (const auto& [path, name] :
         std::vector<std::pair<std::string, std::string>>{{"/a/b.mp3", "b.mp3"},
                                                          {"/b", "/b"},
                                                          {"b", "b"},
                                                          {"a/b", "b"},
                                                          {"/a/", ""},
                                                          {"", ""}}) {
        EXPECT_EQ(CFileTools(path).getDisplayName(), name);
        EXPECT_EQ(CFileTools::GetDisplayNameFromPath(path), name);
    }
}

TEST(CFileTools, DisplayNameGivenAtConstructionStands)
{
    CFileTools file("/a/b.mp3", "A Song");
    EXPECT_EQ(file.getDisplayName(), "A Song");
    EXPECT_EQ(file.getFieldValue("title"), "A Song");
    EXPECT_EQ(file.getPath(), "/a/b.mp3");
    EXPECT_EQ(file.toString(), "/a/b.mp3");
}

TEST(CFileTools, DirectoryIsTheTextUpToTheLastSlash)
{
    EXPECT_EQ(CFileTools("/a/b/c").getDirectory(), "/a/b");
    EXPECT_EQ(CFileTools("/a/b/").getDirectory(), "/a/b");
    EXPECT_EQ(CFileTools("/a").getDirectory(), "");
    EXPECT_EQ(CFileTools("a").getDirectory(), "");
}

TEST(CFileTools, FieldsOfThePath)
{
    CFileTools file("/a b/c.Mp3");
    EXPECT_EQ(file.getFieldValue("title"), "c.Mp3");
    EXPECT_EQ(file.getFieldValue("path.filename"), "c.Mp3");
    EXPECT_EQ(file.getFieldValue("mediumId"), "F*|a*b|c>Mp3");
    EXPECT_EQ(file.getFieldValue("zelMediumId"), "F*|a*b|c>Mp3");
    EXPECT_EQ(file.getMediumId(), "F*|a*b|c>Mp3");
    EXPECT_EQ(file.getFieldValue("path"), "/a b/c.Mp3");
    EXPECT_EQ(file.getFieldValue("path.extension"), "Mp3");
    EXPECT_EQ(file.getFieldValue("path.directory"), "/a b");
}

TEST(CFileTools, FieldsOfTheFile)
{
    const TempFolder folder;
    const ScopedVariable zone("TZ", "XYZ-05:30");
    tzset();
    writeFile(folder.path("file"), "12345");
    setModified(folder.path("file"), 1234567890); // 2009-02-13 23:31:30 in Greenwich
    CFileTools file(folder.path("file"));
    EXPECT_EQ(file.getFieldValue("type"), "file");
    EXPECT_EQ(file.getFieldValue("size"), "5");
    EXPECT_EQ(file.getFieldValue("dateModified"), "2009-02-14 05:01:30");
    EXPECT_EQ(file.getFieldValue("lastModified"), "2009-02-14 05:01:30");
    EXPECT_EQ(file.getFieldValue("lastAccessTime"), "2009-02-14 05:01:30");
    EXPECT_EQ(file.getFieldValue("creationDate"), "2009-02-14 05:01:30");
    EXPECT_EQ(file.getFieldValue("creationDate.year"), "2009");
    EXPECT_EQ(file.getFieldValue("creationDate.month"), "0002");
    EXPECT_EQ(file.getDateCreated(), 1234567890);
    EXPECT_EQ(file.getLastModified(), 1234567890);
    EXPECT_EQ(file.getLastAccessed(), 1234567890);
    EXPECT_EQ(CFileTools(folder.path()).getFieldValue("type"), "folder");
}

TEST(CFileTools, UnknownFieldIsEmpty)
{
    CFileTools file("/a/b.mp3", "name");
    for (const char* name : {"", "Title", "title ", "creationDate.day", "path.", "sizes"}) {
        EXPECT_EQ(file.getFieldValue(name), "");
    }
}

TEST(CFileTools, SizeFieldHoldsMoreThan32Bits)
{
    const TempFolder folder;
    writeFile(folder.path("large"), "");
    ASSERT_EQ(truncate(folder.path("large").c_str(), 5368709120), 0);
    EXPECT_EQ(CFileTools(folder.path("large")).getFieldValue("size"), "5368709120");
}

TEST(CFileTools, MediaTypeIsFileUntilSomebodySeedsTheTable)
{
    CFileTools file("/a/b.Mp3");
    CFileTools::s_extensionMediaTypeMap.clear();
    EXPECT_EQ(file.getFieldValue("mediaType"), "file");
    ASSERT_EQ(CFileTools::s_extensionMediaTypeMap.count(".mp3"), 1U);
    EXPECT_EQ(CFileTools::s_extensionMediaTypeMap[".mp3"], "");
    CFileTools::s_extensionMediaTypeMap[".mp3"] = "audio";
    EXPECT_EQ(file.getFieldValue("mediaType"), "audio.file");
    CFileTools::s_extensionMediaTypeMap.clear();
}

TEST(CFileTools, WhatIsNotThereHasNoSizeAndNoDate)
{
    const TempFolder folder;
    CFileTools file(folder.path("missing"));
    EXPECT_FALSE(file.exists());
    EXPECT_FALSE(file.isFolder());
    EXPECT_FALSE(file.isShortcut());
    EXPECT_EQ(file.getFileSize(), 0U);
    EXPECT_EQ(file.getLastModified(), 0);
    EXPECT_EQ(file.getFieldValue("size"), "0");
    EXPECT_EQ(file.getFieldValue("type"), "file");
    EXPECT_EQ(CFileTools(folder.path()).getFileSize(), 0U);
    EXPECT_TRUE(CFileTools(folder.path()).exists());
    EXPECT_FALSE(CFileTools().exists());
}

TEST(CFileTools, PathWithANulNamesNothing)
{
    const TempFolder folder;
    const std::string victim = folder.path("victim");
    writeFile(victim, "text");
    const CStdStr<char> path(victim + std::string("\0.tmp", 5));
    const CFileTools file(path);
    EXPECT_FALSE(file.exists());
    EXPECT_EQ(file.getFileSize(), 0U);
    EXPECT_FALSE(file.writeString("other"));
    unsigned long long size = 1;
    EXPECT_EQ(file.getData(size), nullptr);
    EXPECT_FALSE(CFileTools::DeleteFile(path));
    EXPECT_FALSE(CFileTools::Rename(path, folder.path("new")));
    EXPECT_FALSE(CFileTools::CopyFile(path, folder.path("new")));
    EXPECT_FALSE(CFileTools::CopyFile(victim, folder.path("new") + std::string("\0x", 2)));
    EXPECT_FALSE(CFileTools::CreateDirectory(folder.path("new") + std::string("\0x", 2)));
    EXPECT_EQ(readFile(victim), "text");
    EXPECT_FALSE(std::filesystem::exists(folder.path("new")));
}

TEST(CFileTools, LinksAreShortcutsAndAnswerForWhatTheyLeadTo)
{
    const TempFolder folder;
    writeFile(folder.path("file"), "12345");
    std::filesystem::create_symlink("file", folder.path("link"));
    std::filesystem::create_symlink(".", folder.path("folderLink"));
    std::filesystem::create_symlink("nowhere", folder.path("dangling"));
    std::filesystem::create_symlink("loop", folder.path("loop"));
    EXPECT_TRUE(CFileTools(folder.path("link")).isShortcut());
    EXPECT_EQ(CFileTools(folder.path("link")).getFileSize(), 5U);
    EXPECT_TRUE(CFileTools(folder.path("folderLink")).isFolder());
    EXPECT_FALSE(CFileTools(folder.path("file")).isShortcut());
    for (const char* name : {"dangling", "loop"}) {
        CFileTools link(folder.path(name));
        EXPECT_TRUE(link.isShortcut());
        EXPECT_FALSE(link.exists());
        EXPECT_FALSE(link.isFolder());
        EXPECT_EQ(link.getFileSize(), 0U);
        EXPECT_EQ(link.getLastModified(), 0);
        unsigned long long size = 0;
        EXPECT_EQ(link.getData(size), nullptr);
    }
}

TEST(CFileTools, ThisSystemHasNoShortcutFilesAndNoFolderNumbers)
{
    EXPECT_EQ(CFileTools::resolveShortcut("/a/b.lnk"), "");
    EXPECT_EQ(CFileTools::GetPathFromCSIDL(5), "");
}

TEST(CFileTools, GetDataGivesTheWholeFile)
{
    const TempFolder folder;
    writeFile(folder.path("file"), bytesWithEverything);
    writeFile(folder.path("empty"), "");
    unsigned long long size = 0;
    const std::unique_ptr<char[]> data(CFileTools(folder.path("file")).getData(size));
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(std::string(data.get(), size), bytesWithEverything);
    const std::unique_ptr<char[]> none(CFileTools(folder.path("empty")).getData(size));
    EXPECT_NE(none, nullptr);
    EXPECT_EQ(size, 0U);
    size = 1;
    EXPECT_EQ(CFileTools(folder.path("missing")).getData(size), nullptr);
    EXPECT_EQ(size, 0U);
}

TEST(CFileTools, ReadToBytesGivesTheWholeFile)
{
    const TempFolder folder;
    writeFile(folder.path("file"), bytesWithEverything);
    unsigned char* data = nullptr;
    unsigned long size = 0;
    ASSERT_TRUE(CFileTools(folder.path("file")).readToBytes(&data, &size));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data), size), bytesWithEverything);
    delete[] data;
    EXPECT_FALSE(CFileTools(folder.path("missing")).readToBytes(&data, &size));
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(size, 0U);
    EXPECT_FALSE(CFileTools(folder.path("file")).readToBytes(nullptr, &size));
    EXPECT_FALSE(CFileTools(folder.path("file")).readToBytes(&data, nullptr));
}

TEST(CFileTools, PartOfAFileIsReadFromEitherEnd)
{
    const TempFolder folder;
    writeFile(folder.path("file"), "0123456789");
    const CFileTools file(folder.path("file"));
    const auto part = [&file](unsigned long long size, unsigned long long offset,
                              CFileTools::SeekDirection direction) {
        std::string buffer(size, 'x');
        if (!file.getData(buffer.data(), size, offset, direction)) {
            return std::string("failed") + std::to_string(size);
        }
        buffer.resize(size);
        return buffer;
    };
    EXPECT_EQ(part(3, 0, CFileTools::FromStart), "012");
    EXPECT_EQ(part(3, 5, CFileTools::FromStart), "567");
    EXPECT_EQ(part(3, 3, CFileTools::FromEnd), "789");
    EXPECT_EQ(part(2, 10, CFileTools::FromEnd), "01");
    EXPECT_EQ(part(0, 2, CFileTools::FromStart), "");
    // Beyond the end there is nothing, in front of the start there is no place.
    EXPECT_EQ(part(5, 8, CFileTools::FromStart), "89");
    EXPECT_EQ(part(5, 2, CFileTools::FromEnd), "89");
    EXPECT_EQ(part(5, 10, CFileTools::FromStart), "");
    EXPECT_EQ(part(5, 11, CFileTools::FromStart), "");
    EXPECT_EQ(part(5, ~0ULL, CFileTools::FromStart), "");
    EXPECT_EQ(part(5, 0, CFileTools::FromEnd), "");
    EXPECT_EQ(part(5, 11, CFileTools::FromEnd), "failed0");
    EXPECT_EQ(part(5, ~0ULL, CFileTools::FromEnd), "failed0");
}

TEST(CFileTools, ReadIntoNoBufferFails)
{
    const TempFolder folder;
    writeFile(folder.path("file"), "0123456789");
    unsigned long long size = 4;
    EXPECT_FALSE(CFileTools(folder.path("file")).getData(nullptr, size, 0, CFileTools::FromStart));
    EXPECT_EQ(size, 0U);
}

TEST(CFileTools, WriteReplacesTheContentOrMakesTheFile)
{
    const TempFolder folder;
    const CFileTools file(folder.path("file"));
    EXPECT_TRUE(file.writeString("something longer"));
    EXPECT_EQ(readFile(folder.path("file")), "something longer");
    EXPECT_TRUE(file.writeBytes(reinterpret_cast<const unsigned char*>(bytesWithEverything.data()),
                                bytesWithEverything.size()));
    EXPECT_EQ(readFile(folder.path("file")), bytesWithEverything);
    EXPECT_FALSE(file.writeBytes(nullptr, 1));
    EXPECT_EQ(readFile(folder.path("file")), bytesWithEverything);
    EXPECT_TRUE(file.writeBytes(nullptr, 0));
    EXPECT_TRUE(file.exists());
    EXPECT_EQ(file.getFileSize(), 0U);
    EXPECT_FALSE(CFileTools(folder.path("no/file")).writeString("text"));
}

TEST(CFileTools, OnlyRegularFilesAreReadAndWritten)
{
    const TempFolder folder;
    ASSERT_EQ(mkfifo(folder.path("pipe").c_str(), 0600), 0);
    std::array<char, 4> buffer = {};
    for (const std::string& path : {folder.path("pipe"), folder.path(), std::string("/dev/zero")}) {
        const CFileTools file(path);
        unsigned long long size = buffer.size();
        EXPECT_EQ(file.getData(size), nullptr);
        size = buffer.size();
        EXPECT_FALSE(file.getData(buffer.data(), size, 0, CFileTools::FromStart));
        EXPECT_EQ(size, 0U);
        EXPECT_FALSE(file.writeString("text"));
        EXPECT_FALSE(CFileTools::CopyFile(path, folder.path("copy")));
    }
    EXPECT_FALSE(std::filesystem::exists(folder.path("copy")));
}

TEST(CFileTools, FileOfAnotherUserIsNeitherReadNorWritten)
{
    const TempFolder folder;
    std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
    writeFile(folder.path("file"), "text");
    std::filesystem::permissions(folder.path("file"), std::filesystem::perms::none);
    EXPECT_TRUE(holdsForOrdinaryUser([&folder] {
        const CFileTools file(folder.path("file"));
        unsigned long long size = 0;
        return file.exists() && file.getFileSize() == 4 && file.getData(size) == nullptr &&
               !file.writeString("other") &&
               !CFileTools::CopyFile(folder.path("file"), folder.path("copy"));
    }));
    EXPECT_FALSE(std::filesystem::exists(folder.path("copy")));
    std::filesystem::permissions(folder.path("file"), std::filesystem::perms::owner_all);
    EXPECT_EQ(readFile(folder.path("file")), "text");
}

TEST(CFileToolsListing, FilesAndFoldersAsWanted)
{
    const TempFolder folder;
    std::filesystem::create_directories(folder.path("folder/below"));
    writeFile(folder.path("file.mp3"), "");
    writeFile(folder.path(".hidden"), "");
    const auto listed = [&folder](const Wanted& wanted) {
        Listing listing;
        EXPECT_TRUE(enumerate(folder.path(), listing, wanted));
        return listing.sortedNames();
    };
    EXPECT_EQ(listed({}), (Paths{"file.mp3", "folder"}));
    EXPECT_EQ(listed({.folders = false}), Paths{"file.mp3"});
    EXPECT_EQ(listed({.files = false}), Paths{"folder"});
    EXPECT_EQ(listed({.folders = false, .files = false}), Paths{});
    EXPECT_EQ(listed({.hidden = true}), (Paths{".hidden", "file.mp3", "folder"}));
}

TEST(CFileToolsListing, AppendsToWhatTheResultHolds)
{
    const TempFolder folder;
    writeFile(folder.path("file"), "");
    Listing listing;
    listing.add("/first");
    EXPECT_TRUE(enumerate(folder.path(), listing, {}));
    ASSERT_EQ(listing.files.size(), 2U);
    EXPECT_EQ(listing.files[1]->getPath(), folder.path("file"));
}

TEST(CFileToolsListing, ExtensionsChooseFilesInAnyCaseWithOrWithoutDot)
{
    const TempFolder folder;
    for (const char* name : {"a.mp3", "b.MP3", "c.avi", "d.mp3x", "mp3", "e.mkv"}) {
        writeFile(folder.path(name), "");
    }
    std::filesystem::create_directory(folder.path("folder.txt"));
    Listing listing;
    EXPECT_TRUE(enumerate(folder.path(), listing, {.extensions = {".mp3", "Avi"}}));
    EXPECT_EQ(listing.sortedNames(), (Paths{"a.mp3", "b.MP3", "c.avi", "folder.txt"}));
}

TEST(CFileToolsListing, RecursionFindsWhatIsBelowAlsoWithoutTheFoldersThemselves)
{
    const TempFolder folder;
    std::filesystem::create_directories(folder.path("a/b/c"));
    std::filesystem::create_directories(folder.path(".secret"));
    writeFile(folder.path("a/1.mp3"), "");
    writeFile(folder.path("a/b/c/2.mp3"), "");
    writeFile(folder.path(".secret/3.mp3"), "");
    Listing files;
    EXPECT_TRUE(enumerate(folder.path(), files, {.folders = false, .recursive = true}));
    EXPECT_EQ(files.sortedNames(), (Paths{"1.mp3", "2.mp3"}));
    Listing all;
    EXPECT_TRUE(enumerate(folder.path(), all, {.hidden = true, .recursive = true}));
    EXPECT_EQ(all.sortedNames(), (Paths{".secret", "1.mp3", "2.mp3", "3.mp3", "a", "b", "c"}));
}

TEST(CFileToolsListing, LinksInCirclesEndAndDanglingOnesArePassedOver)
{
    const TempFolder folder;
    std::filesystem::create_directory(folder.path("a"));
    writeFile(folder.path("a/file"), "");
    std::filesystem::create_symlink("..", folder.path("a/up"));
    std::filesystem::create_symlink("file", folder.path("a/link"));
    std::filesystem::create_symlink("nowhere", folder.path("a/dangling"));
    std::filesystem::create_symlink("loop", folder.path("a/loop"));
    ASSERT_EQ(mkfifo(folder.path("a/pipe").c_str(), 0600), 0);
    Listing listing;
    EXPECT_TRUE(enumerate(folder.path(), listing, {.recursive = true}));
    EXPECT_EQ(listing.sortedNames(), (Paths{"a", "file", "link", "up"}));
}

TEST(CFileToolsListing, HostileNamesComeAsTheyAre)
{
    const TempFolder folder;
    const Paths names = {"\n", " ", "%s%n", "-rf", "\xff\xfe", "a\tb", std::string(255, 'x')};
    for (const std::string& name : names) {
        writeFile(folder.path(name), "");
    }
    Listing listing;
    EXPECT_TRUE(enumerate(folder.path(), listing, {}));
    Paths expected = names;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(listing.sortedNames(), expected);
    for (CFileTools* file : listing.files) {
        EXPECT_TRUE(file->exists());
        EXPECT_EQ(file->getFieldValue("size"), "0");
        EXPECT_TRUE(CFileTools::DeleteFile(file->getPath()));
    }
}

TEST(CFileToolsListing, WhatIsNoFolderCannotBeListed)
{
    const TempFolder folder;
    writeFile(folder.path("file"), "");
    Listing listing;
    for (const std::string& path : {folder.path("file"), folder.path("missing"), std::string(),
                                    folder.path() + std::string("\0x", 2)}) {
        EXPECT_FALSE(enumerate(path, listing, {.recursive = true}));
    }
    EXPECT_TRUE(listing.files.empty());
}

TEST(CFileToolsListing, UnreadableFolderBelowIsListedItselfAndMakesTheResultFalse)
{
    const TempFolder folder;
    std::filesystem::create_directories(folder.path("closed/below"));
    std::filesystem::create_directories(folder.path("open"));
    writeFile(folder.path("open/file"), "");
    std::filesystem::permissions(folder.path("closed"), std::filesystem::perms::none);
    std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
    EXPECT_TRUE(holdsForOrdinaryUser([&folder] {
        Listing listing;
        const bool complete = enumerate(folder.path(), listing, {.recursive = true});
        return !complete && listing.sortedNames() == Paths{"closed", "file", "open"};
    }));
    std::filesystem::permissions(folder.path("closed"), std::filesystem::perms::owner_all);
}

TEST(CFileToolsListing, EntriesWithoutFileInfoLeaveTheDiskAlone)
{
    const TempFolder folder;
    std::filesystem::create_directory(folder.path("folder"));
    writeFile(folder.path("file.mp3"), "12345");
    std::filesystem::create_symlink("file.mp3", folder.path("link"));
    Listing listing;
    EXPECT_TRUE(enumerate(folder.path(), listing, {.noFileInfo = true}));
    CFileTools::SortFiles(listing.files, "title:asc");
    ASSERT_EQ(listing.names(), (Paths{"folder", "file.mp3", "link"}));
    std::filesystem::remove_all(folder.path("folder"));
    std::filesystem::remove(folder.path("link"));
    EXPECT_EQ(listing.files[0]->getFieldValue("type"), "folder");
    EXPECT_EQ(listing.files[1]->getFieldValue("type"), "file");
    EXPECT_TRUE(listing.files[2]->isShortcut());
    EXPECT_FALSE(listing.files[1]->isShortcut());
    for (const char* field : {"size", "dateModified", "lastModified", "lastAccessTime",
                              "creationDate", "creationDate.year", "creationDate.month"}) {
        EXPECT_EQ(listing.files[1]->getFieldValue(field), "") << field;
    }
    EXPECT_EQ(listing.files[1]->getFieldValue("title"), "file.mp3");
    EXPECT_EQ(listing.files[1]->getFieldValue("mediaType"), "file");
}

TEST(CFileToolsSorting, TitlePutsFoldersFirstInEitherDirection)
{
    const TempFolder folder;
    Listing listing;
    for (const char* name : {"b.mp3", "A.mp3", "C.mp3"}) {
        writeFile(folder.path(name), "");
        listing.add(folder.path(name));
    }
    for (const char* name : {"z", "Y"}) {
        std::filesystem::create_directory(folder.path(name));
        listing.add(folder.path(name));
    }
    for (const char* spec : {"title:asc", "path:asc"}) {
        std::reverse(listing.files.begin(), listing.files.end());
        CFileTools::SortFiles(listing.files, spec);
        EXPECT_EQ(listing.names(), (Paths{"Y", "z", "A.mp3", "b.mp3", "C.mp3"}));
    }
    for (const char* spec : {"title:desc", "path:desc"}) {
        std::reverse(listing.files.begin(), listing.files.end());
        CFileTools::SortFiles(listing.files, spec);
        EXPECT_EQ(listing.names(), (Paths{"z", "Y", "C.mp3", "b.mp3", "A.mp3"}));
    }
}

TEST(CFileToolsSorting, ByExtensionWithoutRegardToCase)
{
    Listing listing;
    for (const char* name : {"/x/1.ogg", "/x/2.AVI", "/x/3.mp3", "/x/4.avi"}) {
        listing.add(name);
    }
    CFileTools::SortFiles(listing.files, "path.extension:asc");
    EXPECT_EQ(listing.names(), (Paths{"2.AVI", "4.avi", "3.mp3", "1.ogg"}));
    CFileTools::SortFiles(listing.files, "path.extension:desc");
    EXPECT_EQ(listing.names(), (Paths{"1.ogg", "3.mp3", "2.AVI", "4.avi"}));
}

TEST(CFileToolsSorting, BySize)
{
    const TempFolder folder;
    Listing listing;
    for (const std::size_t size : {20U, 3U, 100U}) {
        writeFile(folder.path(std::to_string(size)), std::string(size, 'x'));
        listing.add(folder.path(std::to_string(size)));
    }
    CFileTools::SortFiles(listing.files, "size:asc");
    EXPECT_EQ(listing.names(), (Paths{"3", "20", "100"}));
    CFileTools::SortFiles(listing.files, "size:desc");
    EXPECT_EQ(listing.names(), (Paths{"100", "20", "3"}));
}

TEST(CFileToolsSorting, ByEachDate)
{
    const TempFolder folder;
    for (const std::string field : {"creationDate", "lastModified", "lastAccessTime"}) {
        Listing listing;
        for (const std::time_t time : {2000000, 1000000, 3000000}) {
            const std::string path = folder.path(std::to_string(time));
            writeFile(path, "");
            setModified(path, time);
            listing.add(path);
        }
        CFileTools::SortFiles(listing.files, field + ":asc");
        EXPECT_EQ(listing.names(), (Paths{"1000000", "2000000", "3000000"}));
        CFileTools::SortFiles(listing.files, field + ":desc");
        EXPECT_EQ(listing.names(), (Paths{"3000000", "2000000", "1000000"}));
    }
}

TEST(CFileToolsSorting, UnknownOrderChangesNothing)
{
    Listing listing;
    listing.add("/x/b");
    listing.add("/x/a");
    for (const char* spec : {"", "title", "title:ASC", "date:asc", "size:", ":asc"}) {
        CFileTools::SortFiles(listing.files, spec);
        EXPECT_EQ(listing.names(), (Paths{"b", "a"}));
    }
}

TEST(CFileToolsSorting, EqualAndVanishedFilesKeepTheirOrder)
{
    const TempFolder folder;
    for (const char* spec : {"title:asc", "title:desc", "path.extension:asc", "path.extension:desc",
                             "size:asc", "size:desc", "lastModified:asc", "lastModified:desc"}) {
        Listing listing;
        Paths expected;
        for (int number = 0; number < 200; ++number) {
            // Same name, extension and size, in folders that are not there.
            const std::string path = folder.path(std::to_string(number) + "/same.mp3");
            listing.add(path);
            expected.push_back(path);
        }
        CFileTools::SortFiles(listing.files, spec);
        Paths sorted;
        for (const CFileTools* file : listing.files) {
            sorted.push_back(file->getPath());
        }
        EXPECT_EQ(sorted, expected) << spec;
    }
}

TEST(CFileToolsSorting, NothingIsSorted)
{
    Listing listing;
    CFileTools::SortFiles(listing.files, "title:asc");
    EXPECT_TRUE(listing.files.empty());
}
