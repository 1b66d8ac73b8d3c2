#include "common/utils/Places.h"

#include "tests/support/TempFolder.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using zel::test::ScopedVariable;

TEST(Places, OwnVariableNamesTheFolderItself)
{
    const ScopedVariable logs("TAMRIX_LOG_DIR", "/chosen/logs/");
    const ScopedVariable data("TAMRIX_DATA_DIR", "/chosen/data");
    const ScopedVariable preferences("TAMRIX_PREFERENCES_DIR", "/");
    const ScopedVariable state("XDG_STATE_HOME", "/unused");
    EXPECT_EQ(zel::places::logs(), "/chosen/logs");
    EXPECT_EQ(zel::places::data(), "/chosen/data");
    EXPECT_EQ(zel::places::preferences(), "/");
}

TEST(Places, SharedVariableNamesTheParent)
{
    const ScopedVariable logs("TAMRIX_LOG_DIR", "");
    const ScopedVariable data("TAMRIX_DATA_DIR", std::nullopt);
    const ScopedVariable preferences("TAMRIX_PREFERENCES_DIR", std::nullopt);
    const ScopedVariable state("XDG_STATE_HOME", "/state");
    const ScopedVariable share("XDG_DATA_HOME", "/share/");
    const ScopedVariable settings("XDG_CONFIG_HOME", "/config");
    EXPECT_EQ(zel::places::logs(), "/state/tamrix/logs");
    EXPECT_EQ(zel::places::data(), "/share/tamrix");
    EXPECT_EQ(zel::places::preferences(), "/config/tamrix");
}

TEST(Places, WithoutVariablesTheFoldersAreInTheHome)
{
    const ScopedVariable logs("TAMRIX_LOG_DIR", std::nullopt);
    const ScopedVariable data("TAMRIX_DATA_DIR", std::nullopt);
    const ScopedVariable preferences("TAMRIX_PREFERENCES_DIR", std::nullopt);
    const ScopedVariable state("XDG_STATE_HOME", std::nullopt);
    const ScopedVariable share("XDG_DATA_HOME", "");
    const ScopedVariable settings("XDG_CONFIG_HOME", "relative/path");
    for (const char* variable : {"/somewhere/", "relative", ""}) {
        const ScopedVariable own("HOME", variable);
        const std::string home = *variable == '/' ? "/somewhere" : zel::places::home();
        EXPECT_EQ(zel::places::logs(), home + "/.local/state/tamrix/logs");
        EXPECT_EQ(zel::places::data(), home + "/.local/share/tamrix");
        EXPECT_EQ(zel::places::preferences(), home + "/.config/tamrix");
    }
}

TEST(Places, HomeIsThatOfTheUserDatabase)
{
    const passwd* user = getpwuid(getuid());
    ASSERT_NE(user, nullptr);
    EXPECT_EQ(zel::places::home(), user->pw_dir);
}

TEST(Places, ExecutableFolderHoldsTheRunningProgram)
{
    EXPECT_EQ(zel::places::executableFolder(),
              std::filesystem::read_symlink("/proc/self/exe").parent_path().string());
}

TEST(Places, MakeFoldersMakesMissingParentsAndToleratesWhatIsThere)
{
    const zel::test::TempFolder folder;
    EXPECT_TRUE(zel::places::makeFolders(folder.path("a/b/c"), 0700));
    EXPECT_TRUE(zel::places::makeFolders(folder.path("a/b/c"), 0700));
    struct stat status = {};
    ASSERT_EQ(stat(folder.path("a/b/c").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0700U);
}

TEST(Places, MakeFoldersFailsBelowAFile)
{
    const zel::test::TempFolder folder;
    zel::test::writeFile(folder.path("file"), "");
    EXPECT_FALSE(zel::places::makeFolders(folder.path("file/below"), 0700));
    EXPECT_FALSE(zel::places::makeFolders(folder.path("file"), 0700));
}
