#include "common/utils/CFileTools.h"
#include "common/utils/CRegistry.h"
#include "common/utils/Places.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

using zel::test::LogCapture;
using zel::test::readFile;
using zel::test::ScopedPlaces;
using zel::test::ScopedVariable;
using zel::test::TempFolder;
using zel::test::writeFile;

namespace {

constexpr uid_t somebodyElse = 65534;

unsigned int modeOf(const std::string& path)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : ~0U;
}

/// The process's umask for a scope.
class ScopedUmask
{
public:
    explicit ScopedUmask(mode_t mask) : m_former(umask(mask)) {}
    ~ScopedUmask() { umask(m_former); }
    ScopedUmask(const ScopedUmask&) = delete;
    ScopedUmask& operator=(const ScopedUmask&) = delete;

private:
    mode_t m_former;
};

/// The present folder for a scope.
class ScopedWorkingFolder
{
public:
    explicit ScopedWorkingFolder(const std::string& path)
        : m_former(std::filesystem::current_path())
    {
        std::filesystem::current_path(path);
    }
    ~ScopedWorkingFolder() { std::filesystem::current_path(m_former); }
    ScopedWorkingFolder(const ScopedWorkingFolder&) = delete;
    ScopedWorkingFolder& operator=(const ScopedWorkingFolder&) = delete;

private:
    std::filesystem::path m_former;
};

} // namespace

TEST(CFileToolsFiles, CreateDirectoryMakesParentsAndIsTrueForWhatIsThere)
{
    const TempFolder folder;
    EXPECT_TRUE(CFileTools::CreateDirectory(folder.path("a/b/c")));
    EXPECT_TRUE(std::filesystem::is_directory(folder.path("a/b/c")));
    EXPECT_TRUE(CFileTools::CreateDirectory(folder.path("a/b/c")));
    EXPECT_TRUE(CFileTools::CreateDirectory(folder.path("d/e/")));
    EXPECT_TRUE(std::filesystem::is_directory(folder.path("d/e")));
}

TEST(CFileToolsFiles, CreateDirectoryLogsWhyItFailed)
{
    const TempFolder folder;
    const LogCapture log;
    writeFile(folder.path("file"), "");
    EXPECT_FALSE(CFileTools::CreateDirectory(folder.path("file/below")));
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].level, LOGLEVEL_ERROR);
    EXPECT_TRUE(
        log.contains("std::exception in CreateDirectory " + folder.path("file/below") + ": "));
    EXPECT_FALSE(CFileTools::CreateDirectory(folder.path("file")));
    EXPECT_FALSE(CFileTools::CreateDirectory(""));
    EXPECT_FALSE(CFileTools::CreateDirectory(folder.path(std::string(300, 'x'))));
    EXPECT_EQ(log.lines().size(), 4U);
}

TEST(CFileToolsFiles, DeleteFileRemovesFilesLinksAndEmptyFolders)
{
    const TempFolder folder;
    writeFile(folder.path("file"), "");
    std::filesystem::create_directories(folder.path("full/empty"));
    std::filesystem::create_symlink("file", folder.path("link"));
    EXPECT_TRUE(CFileTools::DeleteFile(folder.path("link")));
    EXPECT_TRUE(std::filesystem::exists(folder.path("file")));
    EXPECT_TRUE(CFileTools::DeleteFile(folder.path("file")));
    EXPECT_FALSE(std::filesystem::exists(folder.path("file")));
    EXPECT_FALSE(CFileTools::DeleteFile(folder.path("file")));
    EXPECT_FALSE(CFileTools::DeleteFile(folder.path("full")));
    EXPECT_TRUE(CFileTools::DeleteFile(folder.path("full/empty")));
    EXPECT_FALSE(CFileTools::DeleteFile(""));
}

TEST(CFileToolsFiles, RenameReplacesAFile)
{
    const TempFolder folder;
    writeFile(folder.path("old"), "1");
    writeFile(folder.path("new"), "2");
    EXPECT_TRUE(CFileTools::Rename(folder.path("old"), folder.path("new")));
    EXPECT_EQ(readFile(folder.path("new")), "1");
    EXPECT_FALSE(std::filesystem::exists(folder.path("old")));
    EXPECT_FALSE(CFileTools::Rename(folder.path("old"), folder.path("new")));
    EXPECT_FALSE(CFileTools::Rename(folder.path("new"), folder.path("no/folder")));
    EXPECT_EQ(readFile(folder.path("new")), "1");
}

TEST(CFileToolsFiles, CopyFileNeverReplaces)
{
    const TempFolder folder;
    writeFile(folder.path("from"), std::string("a\0b", 3));
    writeFile(folder.path("there"), "2");
    std::filesystem::create_symlink("target", folder.path("dangling"));
    EXPECT_TRUE(CFileTools::CopyFile(folder.path("from"), folder.path("to")));
    EXPECT_EQ(readFile(folder.path("to")), std::string("a\0b", 3));
    EXPECT_FALSE(CFileTools::CopyFile(folder.path("from"), folder.path("there")));
    EXPECT_EQ(readFile(folder.path("there")), "2");
    EXPECT_FALSE(CFileTools::CopyFile(folder.path("from"), folder.path("dangling")));
    EXPECT_FALSE(std::filesystem::exists(folder.path("target")));
    EXPECT_FALSE(CFileTools::CopyFile(folder.path("missing"), folder.path("new")));
    EXPECT_FALSE(CFileTools::CopyFile(folder.path(), folder.path("new")));
    EXPECT_FALSE(CFileTools::CopyFile(folder.path("from"), folder.path("no/file")));
    EXPECT_FALSE(std::filesystem::exists(folder.path("new")));
}

TEST(CFileToolsFiles, CopyOntoItselfFailsAndLeavesTheFile)
{
    const TempFolder folder;
    writeFile(folder.path("file"), "text");
    std::filesystem::create_symlink("file", folder.path("link"));
    EXPECT_FALSE(CFileTools::CopyFile(folder.path("file"), folder.path("file")));
    EXPECT_FALSE(CFileTools::CopyFile(folder.path("file"), folder.path("link")));
    EXPECT_FALSE(CFileTools::CopyFile(folder.path("link"), folder.path("file")));
    EXPECT_EQ(readFile(folder.path("file")), "text");
}

TEST(CFileToolsFiles, CopyDirectoryCopiesTheTreeWithItsLinks)
{
    const TempFolder folder;
    std::filesystem::create_directories(folder.path("from/a/b"));
    std::filesystem::create_directories(folder.path("from/.empty"));
    writeFile(folder.path("from/1"), "one");
    writeFile(folder.path("from/a/b/2"), "two");
    std::filesystem::create_symlink("..", folder.path("from/a/up"));
    std::filesystem::create_symlink("nowhere", folder.path("from/dangling"));
    EXPECT_TRUE(CFileTools::CopyDirectory(folder.path("from"), folder.path("new/to")));
    EXPECT_EQ(readFile(folder.path("new/to/1")), "one");
    EXPECT_EQ(readFile(folder.path("new/to/a/b/2")), "two");
    EXPECT_TRUE(std::filesystem::is_directory(folder.path("new/to/.empty")));
    EXPECT_EQ(std::filesystem::read_symlink(folder.path("new/to/a/up")), "..");
    EXPECT_EQ(std::filesystem::read_symlink(folder.path("new/to/dangling")), "nowhere");
}

TEST(CFileToolsFiles, CopyDirectoryGoesOnAfterWhatItCannotCopy)
{
    const TempFolder folder;
    std::filesystem::create_directories(folder.path("from/a"));
    for (const char* name : {"from/1", "from/2", "from/3", "from/a/4"}) {
        writeFile(folder.path(name), "new");
    }
    ASSERT_EQ(mkfifo(folder.path("from/pipe").c_str(), 0600), 0);
    std::filesystem::create_directory(folder.path("to"));
    writeFile(folder.path("to/2"), "old");
    EXPECT_FALSE(CFileTools::CopyDirectory(folder.path("from"), folder.path("to")));
    EXPECT_EQ(readFile(folder.path("to/1")), "new");
    EXPECT_EQ(readFile(folder.path("to/2")), "old");
    EXPECT_EQ(readFile(folder.path("to/3")), "new");
    EXPECT_EQ(readFile(folder.path("to/a/4")), "new");
    EXPECT_FALSE(std::filesystem::exists(folder.path("to/pipe")));
}

TEST(CFileToolsFiles, CopyDirectoryDoesNotCopyAFolderIntoItself)
{
    const TempFolder folder;
    std::filesystem::create_directories(folder.path("from/a"));
    writeFile(folder.path("from/1"), "one");
    std::filesystem::create_symlink("from/a", folder.path("link"));
    const ScopedWorkingFolder inside(folder.path("from/a"));
    for (const std::string& to :
         {folder.path("from"), folder.path("from/new/deep"), folder.path("x/../from/./new"),
          folder.path("link/new"), std::string("new"), std::string("../new")}) {
        EXPECT_FALSE(CFileTools::CopyDirectory(folder.path("from"), to)) << to;
    }
    EXPECT_FALSE(std::filesystem::exists(folder.path("from/new")));
    EXPECT_FALSE(std::filesystem::exists(folder.path("from/a/new")));
    // A longer name that begins alike is another folder.
    EXPECT_TRUE(CFileTools::CopyDirectory(folder.path("from"), folder.path("from2")));
}

TEST(CFileToolsFiles, CopyDirectoryNeedsAFolderAndATarget)
{
    const TempFolder folder;
    writeFile(folder.path("file"), "");
    EXPECT_FALSE(CFileTools::CopyDirectory(folder.path("file"), folder.path("to")));
    EXPECT_FALSE(CFileTools::CopyDirectory(folder.path("missing"), folder.path("to")));
    EXPECT_FALSE(CFileTools::CopyDirectory(folder.path(), ""));
    EXPECT_FALSE(CFileTools::CopyDirectory("", folder.path("to")));
    EXPECT_FALSE(std::filesystem::exists(folder.path("to")));
}

TEST(CFileToolsFolders, TmpFolderIsThatOfTheEnvironmentWithOneSlashBehindIt)
{
    const TempFolder folder;
    for (const char* slashes : {"", "/", "///"}) {
        const ScopedVariable variable("TMPDIR", folder.path() + slashes);
        EXPECT_EQ(CFileTools::getTmpFolder(), folder.path() + "/");
    }
    const ScopedVariable root("TMPDIR", "/");
    EXPECT_EQ(CFileTools::getTmpFolder(), "/");
}

TEST(CFileToolsFolders, TmpFolderIsASystemFolderWhenTheEnvironmentNamesNone)
{
    const TempFolder folder;
    writeFile(folder.path("file"), "");
    const std::string expected = std::filesystem::is_directory("/var/tmp") ? "/var/tmp/" : "/tmp/";
    for (const std::optional<std::string>& value :
         {std::optional<std::string>(), std::optional<std::string>(""),
          std::optional<std::string>(folder.path("missing")),
          std::optional<std::string>(folder.path("file"))}) {
        const ScopedVariable variable("TMPDIR", value);
        EXPECT_EQ(CFileTools::getTmpFolder(), expected);
    }
}

TEST(CFileToolsFolders, TmpSubfolderIsMadeForThisUserAlone)
{
    const TempFolder folder;
    const ScopedVariable variable("TMPDIR", folder.path());
    const ScopedUmask everything(0);
    EXPECT_EQ(CFileTools::getTmpFolder("ZelStreamCache"), folder.path("ZelStreamCache/"));
    EXPECT_EQ(modeOf(folder.path("ZelStreamCache")), 0700U);
    EXPECT_EQ(CFileTools::getTmpFolder("ZelStreamCache"), folder.path("ZelStreamCache/"));
    EXPECT_EQ(CFileTools::getTmpFolder("/a//b/"), folder.path("a/b/"));
    EXPECT_EQ(modeOf(folder.path("a/b")), 0700U);
    EXPECT_EQ(CFileTools::getTmpFolder(""), folder.path() + "/");
}

TEST(CFileToolsFolders, TmpSubfolderThatCannotBeMadeIsEmpty)
{
    const TempFolder folder;
    const ScopedVariable variable("TMPDIR", folder.path("tmp"));
    std::filesystem::create_directory(folder.path("tmp"));
    writeFile(folder.path("tmp/file"), "");
    std::filesystem::create_symlink("nowhere", folder.path("tmp/dangling"));
    EXPECT_EQ(CFileTools::getTmpFolder("file"), "");
    EXPECT_EQ(CFileTools::getTmpFolder("file/below"), "");
    EXPECT_EQ(CFileTools::getTmpFolder("dangling"), "");
    EXPECT_EQ(CFileTools::getTmpFolder(std::string(300, 'x')), "");
    EXPECT_EQ(CFileTools::getTmpFolder(std::string("a\0b", 3)), "");
    EXPECT_EQ(CFileTools::getTmpFolder("../beside"), "");
    EXPECT_EQ(CFileTools::getTmpFolder("a/../../beside"), "");
    EXPECT_FALSE(std::filesystem::exists(folder.path("beside")));
}

TEST(CFileToolsFolders, TmpSubfolderThatOthersMayWriteToIsNotUsed)
{
    const TempFolder folder;
    const ScopedVariable variable("TMPDIR", folder.path());
    std::filesystem::create_directory(folder.path("open"));
    ASSERT_EQ(chmod(folder.path("open").c_str(), 0777), 0);
    EXPECT_EQ(CFileTools::getTmpFolder("open"), "");
    EXPECT_EQ(CFileTools::getTmpFolder("open/below"), "");
    EXPECT_EQ(modeOf(folder.path("open")), 0777U);
    ASSERT_EQ(chmod(folder.path("open").c_str(), 01777), 0);
    EXPECT_EQ(CFileTools::getTmpFolder("open"), folder.path("open/"));
}

TEST(CFileToolsFolders, TmpSubfolderThatSomebodyElsePlantedIsNotUsed)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can make what belongs to somebody else";
    }
    const TempFolder folder;
    const ScopedVariable variable("TMPDIR", folder.path());
    std::filesystem::create_directory(folder.path("ours"));
    std::filesystem::create_directory(folder.path("theirs"));
    std::filesystem::create_symlink("ours", folder.path("ourLink"));
    std::filesystem::create_symlink("ours", folder.path("theirLink"));
    std::filesystem::create_symlink("theirs", folder.path("linkToTheirs"));
    ASSERT_EQ(chown(folder.path("theirs").c_str(), somebodyElse, somebodyElse), 0);
    ASSERT_EQ(lchown(folder.path("theirLink").c_str(), somebodyElse, somebodyElse), 0);
    EXPECT_EQ(CFileTools::getTmpFolder("ours"), folder.path("ours/"));
    EXPECT_EQ(CFileTools::getTmpFolder("ourLink"), folder.path("ourLink/"));
    EXPECT_EQ(CFileTools::getTmpFolder("theirs"), "");
    EXPECT_EQ(CFileTools::getTmpFolder("theirs/below"), "");
    EXPECT_EQ(CFileTools::getTmpFolder("theirLink"), "");
    EXPECT_EQ(CFileTools::getTmpFolder("linkToTheirs"), "");
}

TEST(CFileToolsFolders, TempFileIsNewEmptyAndPrivate)
{
    const ScopedUmask everything(0);
    const std::string first = CFileTools::GenerateTempFilePath();
    const std::string second = CFileTools::GenerateTempFilePath();
    EXPECT_TRUE(std::regex_match(first, std::regex("/tmp/file[A-Za-z0-9]{6}"))) << first;
    EXPECT_NE(first, second);
    EXPECT_EQ(modeOf(first), 0600U);
    EXPECT_EQ(CFileTools(first).getFileSize(), 0U);
    EXPECT_TRUE(CFileTools::DeleteFile(first));
    EXPECT_TRUE(CFileTools::DeleteFile(second));
}

TEST(CFileToolsFolders, DataFolderIsMadeOpenToAllUsersPastTheUmask)
{
    const TempFolder folder;
    const LogCapture log;
    const ScopedVariable variable("TAMRIX_DATA_DIR", folder.path("new/data"));
    const ScopedUmask narrow(0077);
    EXPECT_EQ(CFileTools::GetZelDataFolder(), folder.path("new/data"));
    EXPECT_EQ(modeOf(folder.path("new/data")), 0777U);
    EXPECT_EQ(modeOf(folder.path("new")), 0700U);
    EXPECT_TRUE(log.lines().empty());
}

TEST(CFileToolsFolders, DataFolderThatIsThereKeepsItsMode)
{
    const TempFolder folder;
    const ScopedVariable variable("TAMRIX_DATA_DIR", folder.path("data"));
    std::filesystem::create_directory(folder.path("data"));
    ASSERT_EQ(chmod(folder.path("data").c_str(), 0750), 0);
    EXPECT_EQ(CFileTools::GetZelDataFolder(), folder.path("data"));
    EXPECT_EQ(modeOf(folder.path("data")), 0750U);
    const ScopedVariable link("TAMRIX_DATA_DIR", folder.path("link"));
    std::filesystem::create_symlink("data", folder.path("link"));
    EXPECT_EQ(CFileTools::GetZelDataFolder(), folder.path("link"));
    EXPECT_EQ(modeOf(folder.path("data")), 0750U);
}

TEST(CFileToolsFolders, DataFolderThatCannotBeMadeIsLoggedAndEmpty)
{
    const TempFolder folder;
    writeFile(folder.path("file"), "");
    std::filesystem::create_symlink("file", folder.path("link"));
    ASSERT_EQ(chmod(folder.path("file").c_str(), 0600), 0);
    for (const std::string& path :
         {folder.path("file/data"), folder.path("file"), folder.path("link")}) {
        const LogCapture log;
        const ScopedVariable variable("TAMRIX_DATA_DIR", path);
        EXPECT_EQ(CFileTools::GetZelDataFolder(), "");
        ASSERT_EQ(log.lines().size(), 2U);
        EXPECT_EQ(log.lines()[0].level, LOGLEVEL_ERROR);
        EXPECT_EQ(log.lines()[0].text, "Failed to create " + path + " folder");
        EXPECT_EQ(log.lines()[1].text, "Failed to create Zel data folder");
        EXPECT_EQ(CFileTools::GetZelDataSubFolder("sub"), "");
    }
    EXPECT_EQ(modeOf(folder.path("file")), 0600U);
}

TEST(CFileToolsFolders, DataSubfolderIsMadeOpenToAllUsers)
{
    const TempFolder folder;
    const ScopedVariable variable("TAMRIX_DATA_DIR", folder.path("data"));
    const ScopedUmask narrow(0077);
    EXPECT_EQ(CFileTools::GetZelDataSubFolder("Cache"), folder.path("data/Cache"));
    EXPECT_EQ(modeOf(folder.path("data")), 0777U);
    EXPECT_EQ(modeOf(folder.path("data/Cache")), 0777U);
    EXPECT_EQ(CFileTools::GetZelDataSubFolder("Other/"), folder.path("data/Other"));
    EXPECT_EQ(modeOf(folder.path("data/Other")), 0777U);
    ASSERT_EQ(chmod(folder.path("data/Cache").c_str(), 0700), 0);
    EXPECT_EQ(CFileTools::GetZelDataSubFolder("Cache"), folder.path("data/Cache"));
    EXPECT_EQ(modeOf(folder.path("data/Cache")), 0700U);
}

TEST(CFileToolsFolders, DataSubfolderThatCannotBeMadeIsLoggedWithTheReason)
{
    const TempFolder folder;
    const ScopedVariable variable("TAMRIX_DATA_DIR", folder.path("data"));
    std::filesystem::create_directory(folder.path("data"));
    writeFile(folder.path("data/file"), "");
    const LogCapture log;
    EXPECT_EQ(CFileTools::GetZelDataSubFolder("file"), "");
    EXPECT_EQ(CFileTools::GetZelDataSubFolder("../beside"), "");
    ASSERT_EQ(log.lines().size(), 2U);
    EXPECT_EQ(log.lines()[0].level, LOGLEVEL_ERROR);
    EXPECT_EQ(log.lines()[0].text, "Failed to create Zel data subfolder: " +
                                       folder.path("data/file") + "\n\tFile exists");
    EXPECT_EQ(log.lines()[1].text, "Failed to create Zel data subfolder: " +
                                       folder.path("data/../beside") + "\n\tInvalid argument");
    EXPECT_FALSE(std::filesystem::exists(folder.path("beside")));
}

TEST(CFileToolsFolders, BinFolderIsBelowTheInstallationFolderOfTheSettings)
{
    const TempFolder folder;
    const ScopedPlaces places(folder);
    const auto settings = CRegistry::getInstance();
    for (const char* installed : {"/somewhere/zel", "/somewhere/zel/"}) {
        ASSERT_TRUE(settings->WriteSettingImpl(CRegistry::zelSection, "InstallDir",
                                               CStdStr<char>(installed)));
        EXPECT_EQ(CFileTools::getZelBinFolderPath(), "/somewhere/zel/bin");
    }
    ASSERT_TRUE(settings->WriteSettingImpl(CRegistry::zelSection, "InstallDir", CStdStr<char>("")));
    EXPECT_EQ(CFileTools::getZelBinFolderPath(), CFileTools::getZelBinFolderPathMac());
}

TEST(CFileToolsFolders, BinFolderWithoutSettingsIsWhereTheLauncherIs)
{
    const TempFolder folder;
    const ScopedPlaces places(folder);
    const std::string installed = "/opt/zel/bin";
    const std::string elsewhere =
        std::filesystem::exists(installed + "/ZelLauncher") ? installed : "";
    EXPECT_EQ(CFileTools::getZelBinFolderPath(), elsewhere);

    const std::string besideUs = zel::places::executableFolder() + "/bin";
    std::error_code error;
    std::filesystem::create_directory(besideUs, error);
    if (error) {
        GTEST_SKIP() << "nothing can be made beside the test program";
    }
    EXPECT_EQ(CFileTools::getZelBinFolderPath(), elsewhere);
    writeFile(besideUs + "/ZelLauncher", "");
    EXPECT_EQ(CFileTools::getZelBinFolderPath(), besideUs);
    EXPECT_EQ(CFileTools::getZelBinFolderPathMac(), besideUs);
    std::filesystem::remove_all(besideUs);
}

TEST(CFileToolsFolders, BinFolderIsOneWithALauncher)
{
    const TempFolder folder;
    EXPECT_FALSE(CFileTools::testZelBinPath(folder.path()));
    writeFile(folder.path("ZelLauncher"), "");
    EXPECT_TRUE(CFileTools::testZelBinPath(folder.path()));
    EXPECT_FALSE(CFileTools::testZelBinPath(folder.path("missing")));
}

TEST(CFileToolsFolders, FoldersOfThisMachine)
{
    const TempFolder folder;
    const ScopedPlaces places(folder);
    EXPECT_EQ(CFileTools::GetLogsDirectory(), places.logs());
    EXPECT_EQ(CFileTools::GetUserHomeFolder(), zel::places::home());
    const std::string program = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    EXPECT_EQ(CFileTools::GetBinaryDirectory(), program);
    EXPECT_EQ(CFileTools::GetProcessBundleFolder(), program);
}

TEST(CFileToolsFolders, WorkingDirectoryIsThePresentOneAndEmptyWhenItIsGone)
{
    const TempFolder folder;
    const LogCapture log;
    const std::string path = std::filesystem::canonical(folder.path()).string() + "/here";
    std::filesystem::create_directory(path);
    const ScopedWorkingFolder inside(path);
    EXPECT_EQ(CFileTools::GetCurrentWorkingDirectory(), path);
    EXPECT_TRUE(log.lines().empty());
    std::filesystem::remove(path);
    EXPECT_EQ(CFileTools::GetCurrentWorkingDirectory(), "");
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].level, LOGLEVEL_ERROR);
    EXPECT_EQ(log.lines()[0].text, "Failed to GetCurrentWorkingDirectory");
    EXPECT_FALSE(CFileTools::CopyDirectory(folder.path(), "relative"));
}
