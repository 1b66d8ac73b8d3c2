#include "common/utils/CBBLog.h"

#include "common/utils/CRegistry.h"
#include "common/utils/FileHandle.h"
#include "tests/common/utils/UtilsChildProcess.h"
#include "tests/support/TempFolder.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using testing::MatchesRegex;

constexpr long long plenty = 524288;

using LogPointer = boost::shared_ptr<CBBLog>;

/// The texts of lines "HEADER - TEXT".
std::vector<std::string> textsOf(const std::string& lines)
{
    std::vector<std::string> texts;
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line);) {
        texts.push_back(line.substr(line.find(" - ") + 3));
    }
    return texts;
}

/// Gives each test folders of its own, keeps standard output away from the test's report, and
/// leaves no current log behind.
class CBBLogTest : public testing::Test
{
protected:
    void SetUp() override { testing::internal::CaptureStdout(); }
    void TearDown() override
    {
        CBBLog::setLogger(LogPointer());
        output();
    }

    /// What was printed since the start or the last call.
    std::string output()
    {
        std::string text = testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        return text;
    }

    std::string path(const std::string& name) const { return m_places.logs() + "/" + name; }
    std::string file(const std::string& name) const { return zel::test::readFile(path(name)); }
    /// For lines that the log's thread writes while the test goes on.
    void waitForLines(const std::string& name, std::size_t count) const
    {
        while (textsOf(file(name) + file(name + ".back")).size() < count) {
            std::this_thread::yield();
        }
    }
    static void setLevel(int level)
    {
        CRegistry::getInstance()->WriteSettingImpl(CRegistry::zelSection, "LogLevel", level);
    }
    static LogPointer currentLog(const char* name)
    {
        LogPointer log(new CBBLog(name, false, plenty));
        CBBLog::setLogger(log);
        return log;
    }

    zel::test::TempFolder m_folder;
    zel::test::ScopedPlaces m_places{m_folder};
    /// Closes gtest's capture behind TearDown, where output() has opened a new one.
    struct CaptureEnd
    {
        ~CaptureEnd() { testing::internal::GetCapturedStdout(); }
    } m_captureEnd;
};

/// One line at each level, through the static functions.
void logAllLevels()
{
    CBBLog::debug("at %s", "debug");
    CBBLog::info("at %s", "info");
    CBBLog::warn("at %s", "warn");
    CBBLog::error("at %s", "error");
    CBBLog::fatal("at %s", "fatal");
}

/// The levels whose lines `text` holds, in their order: "DIWEF" for all.
std::string levelsIn(const std::string& text)
{
    std::string found;
    for (const char* word : {"at debug\n", "at info\n", "at warn\n", "at error\n", "at fatal\n"}) {
        if (text.find(word) != std::string::npos) {
            found += static_cast<char>(word[3] - 'a' + 'A');
        }
    }
    return found;
}

const std::string timePattern = "[0-9]{4}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}";

} // namespace

TEST_F(CBBLogTest, CallsBeforeAnyLoggerDoNothing)
{
    logAllLevels();
    CBBLog::fatal(boost::format("%1%") % "text");
    EXPECT_FALSE(CBBLog::isDebugEnabled());
    EXPECT_FALSE(CBBLog::isInfoEnabled());
    EXPECT_FALSE(CBBLog::isWarnEnabled());
    EXPECT_EQ(output(), "");
    EXPECT_FALSE(fs::exists(m_places.logs()));
}

TEST_F(CBBLogTest, ConstructorTouchesNoFile)
{
    const CBBLog log("a.log", true, plenty);
    EXPECT_FALSE(fs::exists(m_places.logs()));
}

TEST_F(CBBLogTest, NewLogAnswersThatDebugIsEnabledUntilItsFirstLineReadsTheLevel)
{
    setLevel(2);
    LogPointer log = currentLog("a.log");
    EXPECT_TRUE(CBBLog::isDebugEnabled());
    EXPECT_TRUE(CBBLog::isInfoEnabled());
    EXPECT_TRUE(CBBLog::isWarnEnabled());
    CBBLog::debug("falls to the level");
    EXPECT_FALSE(CBBLog::isDebugEnabled());
    EXPECT_FALSE(CBBLog::isInfoEnabled());
    EXPECT_TRUE(CBBLog::isWarnEnabled());
    EXPECT_FALSE(fs::exists(m_places.logs()));
    EXPECT_EQ(output(), "");
}

TEST_F(CBBLogTest, MachineWithoutTheSettingLogsErrorsAndFatalLines)
{
    LogPointer log = currentLog("a.log");
    logAllLevels();
    log.reset();
    EXPECT_EQ(levelsIn(file("a.log")), "EF");
}

TEST_F(CBBLogTest, LevelOfTheSettingsDecidesWhatPasses)
{
    const std::vector<std::pair<int, std::string>> expected = {
        {-2, ""}, {0, "F"}, {1, "EF"}, {2, "WEF"}, {3, "IWEF"}, {4, "DIWEF"}, {99, "DIWEF"}};
    for (const auto& [level, levels] : expected) {
        setLevel(level);
        const std::string name = "level" + std::to_string(level) + ".log";
        LogPointer log = currentLog(name.c_str());
        logAllLevels();
        log.reset();
        EXPECT_EQ(levelsIn(file(name)), levels) << level;
    }
}

TEST_F(CBBLogTest, LevelIsReadOncePerObject)
{
    setLevel(1);
    LogPointer log = currentLog("old.log");
    CBBLog::warn("asks for the level");
    setLevel(4);
    logAllLevels();
    log = currentLog("new.log");
    logAllLevels();
    log.reset();
    EXPECT_EQ(levelsIn(file("old.log")), "EF");
    EXPECT_EQ(levelsIn(file("new.log")), "DIWEF");
}

TEST_F(CBBLogTest, SetLogLevelWorksAtAnyTimeAndOverTheSettings)
{
    setLevel(0);
    LogPointer log = currentLog("a.log");
    log->setLogLevel(LOGLEVEL_INFO);
    EXPECT_FALSE(CBBLog::isDebugEnabled());
    EXPECT_TRUE(CBBLog::isInfoEnabled());
    logAllLevels();
    log->setLogLevel(LOGLEVEL_DEBUG);
    EXPECT_TRUE(CBBLog::isDebugEnabled());
    CBBLog::debug("later");
    log->setLogLevel(LOGLEVEL_FATAL);
    EXPECT_FALSE(CBBLog::isWarnEnabled());
    CBBLog::error("too late");
    log.reset();
    const std::vector<std::string> expected = {"at info", "at warn", "at error", "a - at fatal",
                                               "later"};
    EXPECT_EQ(textsOf(file("a.log")), expected);
}

TEST_F(CBBLogTest, LevelOfALogThatIsNotCurrentDoesNotMoveTheCurrentOne)
{
    LogPointer current = currentLog("current.log");
    current->setLogLevel(LOGLEVEL_DEBUG);
    CBBLog other("other.log", false, plenty);
    other.setLogLevel(LOGLEVEL_FATAL);
    EXPECT_TRUE(CBBLog::isDebugEnabled());
    CBBLog::debug("still here");
    current.reset();
    EXPECT_EQ(textsOf(file("current.log")), std::vector<std::string>{"still here"});
}

TEST_F(CBBLogTest, LogEndsWithItsLastHolder)
{
    LogPointer log = currentLog("a.log");
    log->setLogLevel(LOGLEVEL_DEBUG);
    CBBLog::info("one");
    log.reset();
    EXPECT_FALSE(CBBLog::isDebugEnabled());
    logAllLevels();
    EXPECT_EQ(textsOf(file("a.log")), std::vector<std::string>{"one"});
}

TEST_F(CBBLogTest, EverybodyWritesToTheLogThatWasSetLast)
{
    LogPointer first = currentLog("first.log");
    first->setLogLevel(LOGLEVEL_DEBUG);
    LogPointer second = currentLog("second.log");
    second->setLogLevel(LOGLEVEL_DEBUG);
    std::thread([] { CBBLog::info("to the second"); }).join();
    first->_info("to the first %d", 1);
    CBBLog::setLogger(LogPointer());
    CBBLog::info("to nobody");
    first.reset();
    second.reset();
    EXPECT_EQ(textsOf(file("first.log")), std::vector<std::string>{"to the first 1"});
    EXPECT_EQ(textsOf(file("second.log")), std::vector<std::string>{"to the second"});
}

TEST_F(CBBLogTest, LineHasTimeLevelAndProcessNumber)
{
    {
        CBBLog log("a.log", true, plenty);
        log.setLogLevel(LOGLEVEL_DEBUG);
        log._info("text");
        log._error("text");
    }
    const std::string process = std::to_string(getpid());
    EXPECT_THAT(file("a.log"), MatchesRegex(timePattern + " \\[INFO \\] " + process + " - text\n" +
                                            timePattern + " \\[ERROR\\] " + process + " - text\n"));
}

TEST_F(CBBLogTest, LineWithoutProcessNumberHasTimeAndLevel)
{
    {
        CBBLog log("a.log", false, plenty);
        log.setLogLevel(LOGLEVEL_DEBUG);
        log._warn("text");
        log._debug("text");
    }
    EXPECT_THAT(file("a.log"), MatchesRegex(timePattern + " \\[WARN \\] - text\n" + timePattern +
                                            " \\[DEBUG\\] - text\n"));
}

TEST_F(CBBLogTest, FatalLineNamesTheProgramAndIsInTheErrorFileWhenTheCallReturns)
{
    CBBLog log("FFMpegInput.log", true, plenty);
    log._fatal("broken %d", 1);
    const std::string line(timePattern + " \\[FATAL\\] " + std::to_string(getpid()) +
                           " - FFMpegInput - broken 1\n");
    EXPECT_THAT(file("errors.log"), MatchesRegex(line));
    log._error("no fatal line");
    EXPECT_THAT(file("errors.log"), MatchesRegex(line));
}

TEST_F(CBBLogTest, ProgramNameIsTheFileNameWithoutFolderAndExtension)
{
    fs::create_directories(path("sub"));
    CBBLog("sub/Tool.v2.log", false, plenty)._fatal("x");
    CBBLog("sub/Back\\Slash.log", false, plenty)._fatal("x");
    CBBLog("plain", false, plenty)._fatal("x");
    const std::vector<std::string> expected = {"Tool - x", "Slash - x", "plain - x"};
    EXPECT_EQ(textsOf(file("errors.log")), expected);
}

TEST_F(CBBLogTest, ErrorFileIsSharedByAllLogs)
{
    CBBLog first("first.log", false, plenty);
    CBBLog second("second.log", false, plenty);
    first._fatal("1");
    second._fatal("2");
    first._fatal("3");
    const std::vector<std::string> expected = {"first - 1", "second - 2", "first - 3"};
    EXPECT_EQ(textsOf(file("errors.log")), expected);
}

TEST_F(CBBLogTest, QueuedLinesAreWrittenBeforeTheLogEnds)
{
    std::vector<std::string> expected;
    {
        CBBLog log("a.log", false, plenty);
        log.setLogLevel(LOGLEVEL_DEBUG);
        for (int i = 0; i < 2000; ++i) {
            log._info("%d", i);
            expected.push_back(std::to_string(i));
        }
    }
    EXPECT_EQ(textsOf(file("a.log")), expected);
    for (int i = 0; i < 50; ++i) {
        CBBLog log("short.log", false, plenty);
        log.setLogLevel(LOGLEVEL_DEBUG);
        log._info("%d", i);
    }
    expected.resize(50);
    EXPECT_EQ(textsOf(file("short.log")), expected);
}

TEST_F(CBBLogTest, EachLineIsAlsoOnStandardOutputWhenTheCallReturns)
{
    CBBLog log("a.log", false, plenty);
    log.setLogLevel(LOGLEVEL_INFO);
    log._info("shown");
    log._debug("not shown");
    EXPECT_EQ(textsOf(output()), std::vector<std::string>{"shown"});
}

TEST_F(CBBLogTest, AddLogTakesALevelOrLogsAtDebug)
{
    {
        CBBLog log("a.log", false, plenty);
        log.setLogLevel(LOGLEVEL_DEBUG);
        log.AddLog("plain %d", 1);
        log.AddLog(LOGLEVEL_WARN, "with level %d", 2);
        log.setLogLevel(LOGLEVEL_INFO);
        log.AddLog("hidden");
    }
    EXPECT_THAT(file("a.log"), MatchesRegex(timePattern + " \\[DEBUG\\] - plain 1\n" + timePattern +
                                            " \\[WARN \\] - with level 2\n"));
}

TEST_F(CBBLogTest, LongTextIsCutInTheCFormOnly)
{
    const std::string longText(30000, 'x');
    {
        CBBLog log("a.log", false, plenty);
        log.setLogLevel(LOGLEVEL_DEBUG);
        log._info("%s", longText.c_str());
        log._AddLog(boost::format("%1%") % longText, LOGLEVEL_INFO);
        log._info("%s", longText.substr(0, 20479).c_str());
    }
    const std::vector<std::string> expected = {longText.substr(0, 20479), longText,
                                               longText.substr(0, 20479)};
    EXPECT_EQ(textsOf(file("a.log")), expected);
}

TEST_F(CBBLogTest, TooFewArgumentsOfAFormatReachTheCallerWhenTheLevelIsOn)
{
    LogPointer log = currentLog("a.log");
    log->setLogLevel(LOGLEVEL_INFO);
    boost::format format("%1% %2%");
    format % 1;
    EXPECT_THROW(CBBLog::info(format), boost::io::too_few_args);
    EXPECT_NO_THROW(CBBLog::debug(format));
    CBBLog::info("goes on");
    log.reset();
    EXPECT_EQ(textsOf(file("a.log")), std::vector<std::string>{"goes on"});
}

TEST_F(CBBLogTest, BoostFormatsPassAtTheirLevel)
{
    LogPointer log = currentLog("a.log");
    log->setLogLevel(LOGLEVEL_WARN);
    CBBLog::debug(boost::format("at %1%") % "debug");
    CBBLog::info(boost::format("at %1%") % "info");
    CBBLog::warn(boost::format("at %1%") % "warn");
    CBBLog::error(boost::format("at %1%") % "error");
    CBBLog::fatal(boost::format("at %1%") % "fatal");
    log.reset();
    EXPECT_EQ(levelsIn(file("a.log")), "WEF");
    EXPECT_EQ(levelsIn(file("errors.log")), "F");
}

TEST_F(CBBLogTest, RawTextIsQueuedAsItIsWhenTheFileIsOpen)
{
    {
        CBBLog log("a.log", false, plenty);
        log.AddRawLog("too early");
        log._error("opens");
        log.setLogLevel(LOGLEVEL_FATAL);
        log.AddRawLog("raw %s");
        log.AddRawLog(" text");
    }
    const std::string text = file("a.log");
    EXPECT_THAT(text, MatchesRegex(timePattern + " \\[ERROR\\] - opens\nraw %s text"));
}

TEST_F(CBBLogTest, QueuedLinesCanBeReadUntilTheThreadTakesThem)
{
    /// Stops the thread at its first line.
    class HeldLog : public CBBLog
    {
    public:
        HeldLog() : CBBLog("a.log", false, plenty) {}
        void logLineToFile(const CStdStr<char>& line) override
        {
            taken.signal(isTaken);
            release.wait(isReleased);
            CBBLog::logLineToFile(line);
            if (++written == 3) {
                done.signal(isDone);
            }
        }
        PCondMutex taken;
        bool isTaken = false;
        PCondMutex release;
        bool isReleased = false;
        PCondMutex done;
        bool isDone = false;
        int written = 0;
    };
    HeldLog log;
    log._error("1");
    log.taken.wait(log.isTaken);
    EXPECT_EQ(log.getLogs(), "");
    log._error("2");
    log.AddRawLog("3\n");
    // The write behind the lock does not hold up the callers.
    EXPECT_THAT(static_cast<std::string>(log.getLogs()),
                MatchesRegex(timePattern + " \\[ERROR\\] - 2\n3\n"));
    log.release.signal(log.isReleased);
    log.done.wait(log.isDone);
    EXPECT_EQ(log.getLogs(), "");
}

TEST_F(CBBLogTest, FileSizeIsThatOfTheOpenFile)
{
    CBBLog log("a.log", false, plenty);
    EXPECT_EQ(log.getFileSize(), -1);
    log._fatal("x");
    const long long before = log.getFileSize();
    EXPECT_GE(before, 0);
    log.logLineToFile("12345\n");
    EXPECT_GE(log.getFileSize(), 6);
}

TEST_F(CBBLogTest, TimeStringIsThePresentLocalTime)
{
    const std::string before = CBBLog::getTimeString().substr(0, 19);
    const std::string text = CBBLog::getTimeString();
    EXPECT_THAT(text, MatchesRegex(timePattern));
    EXPECT_LE(before, text);
    const time_t now = time(nullptr);
    tm local = {};
    localtime_r(&now, &local);
    EXPECT_EQ(text.substr(0, 4), std::to_string(local.tm_year + 1900));
}

TEST_F(CBBLogTest, FilesMayBeContinuedByAnyUserWhateverTheUmask)
{
    const mode_t former = umask(0077);
    CBBLog("a.log", false, plenty)._fatal("x");
    umask(former);
    for (const char* name : {"a.log", "errors.log"}) {
        struct stat status = {};
        ASSERT_EQ(stat(path(name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777U, 0666U) << name;
    }
}

TEST_F(CBBLogTest, ExistingFileIsContinued)
{
    fs::create_directories(m_places.logs());
    zel::test::writeFile(path("a.log"), "before - before\n");
    CBBLog("a.log", false, plenty)._error("behind");
    const std::vector<std::string> expected = {"before", "behind"};
    EXPECT_EQ(textsOf(file("a.log")), expected);
}

TEST_F(CBBLogTest, MissingFolderLeavesBothFilesClosedAndIsReportedOnce)
{
    zel::test::writeFile(m_folder.path("file"), "");
    const std::string folder = m_folder.path("file/below");
    const zel::test::ScopedVariable variable("TAMRIX_LOG_DIR", folder);
    const std::string code = std::to_string(ENOTDIR);
    CBBLog log("a.log", false, plenty);
    log._fatal("nowhere");
    EXPECT_EQ(output(), "Error: could not open log file '" + folder + "/a.log': " + code +
                            "\nError: could not open error log file '" + folder +
                            "/errors.log': " + code + "\n");
    log._fatal("nowhere");
    log.AddRawLog("nowhere");
    EXPECT_EQ(output(), "");
    EXPECT_EQ(log.getLogs(), "");
    EXPECT_EQ(log.getFileSize(), -1);
}

TEST_F(CBBLogTest, LoggingGoesOnWithTheFileThatIsOpen)
{
    fs::create_directories(path("errors.log"));
    {
        CBBLog log("a.log", false, plenty);
        log._fatal("one");
    }
    EXPECT_EQ(textsOf(file("a.log")), std::vector<std::string>{"a - one"});

    fs::remove(path("errors.log"));
    fs::create_directories(path("b.log"));
    {
        CBBLog log("b.log", false, plenty);
        log._error("nowhere");
        log._fatal("two");
    }
    EXPECT_EQ(textsOf(file("errors.log")), std::vector<std::string>{"b - two"});
}

TEST_F(CBBLogTest, PlantedLinkIsNotFollowed)
{
    fs::create_directories(m_places.logs());
    const std::string target = m_folder.path("target");
    zel::test::writeFile(target, "precious");
    fs::create_symlink(target, path("a.log"));
    fs::create_symlink(target, path("errors.log"));
    CBBLog("a.log", false, plenty)._fatal("x");
    EXPECT_EQ(zel::test::readFile(target), "precious");
    EXPECT_NE(output().find("a.log': " + std::to_string(ELOOP) + "\n"), std::string::npos);
}

TEST_F(CBBLogTest, DeletedFileIsCreatedAgainAtTheNextWrite)
{
    CBBLog log("a.log", false, plenty);
    log._fatal("opens");
    log.logLineToFile("one\n");
    fs::remove(path("a.log"));
    fs::remove(path("errors.log"));
    log.logLineToFile("two\n");
    log._fatal("again");
    EXPECT_NE(file("a.log").find("two\n"), std::string::npos);
    EXPECT_EQ(file("a.log").find("one\n"), std::string::npos);
    EXPECT_EQ(textsOf(file("errors.log")), std::vector<std::string>{"a - again"});
}

TEST_F(CBBLogTest, FileIsRotatedBeforeTheWriteThatFindsItFull)
{
    fs::create_directories(m_places.logs());
    zel::test::writeFile(path("a.log"), std::string(99, 'a'));
    zel::test::writeFile(path("a.log.back"), "older");
    setLevel(4);
    {
        CBBLog log("a.log", false, 100);
        log._debug("passes the limit");
    }
    EXPECT_EQ(file("a.log.back"), "older");
    EXPECT_EQ(file("a.log").substr(0, 99), std::string(99, 'a'));
    const std::string full = file("a.log");
    ASSERT_GT(full.size(), 100U);
    {
        CBBLog log("a.log", false, static_cast<long long>(full.size()));
        log._debug("starts anew");
    }
    EXPECT_EQ(file("a.log.back"), full);
    EXPECT_EQ(textsOf(file("a.log")), std::vector<std::string>{"starts anew"});
}

TEST_F(CBBLogTest, ErrorFileIsRotatedToo)
{
    CBBLog log("a.log", false, 10);
    log._fatal("one");
    log._fatal("two");
    log._fatal("three");
    EXPECT_EQ(textsOf(file("errors.log")), std::vector<std::string>{"a - three"});
    EXPECT_EQ(textsOf(file("errors.log.back")), std::vector<std::string>{"a - two"});
}

TEST_F(CBBLogTest, OneOfTwoSharersRenamesAndTheOtherOpensTheNewFile)
{
    fs::create_directories(m_places.logs());
    CBBLog first("a.log", false, 100);
    CBBLog second("a.log", false, 100);
    // The first line of each opens the files; with the level at error nothing else is queued.
    first._fatal("opens");
    second._fatal("opens");
    waitForLines("a.log", 2);
    fs::resize_file(path("a.log"), 0);
    first.logLineToFile(std::string(120, 'x') + "\n");
    second.logLineToFile("second renames\n");
    first.logLineToFile("first follows\n");
    EXPECT_EQ(file("a.log.back"), std::string(120, 'x') + "\n");
    EXPECT_EQ(file("a.log"), "second renames\nfirst follows\n");
}

TEST_F(CBBLogTest, FileThatAnotherProcessPutInPlaceIsContinued)
{
    CBBLog log("a.log", false, plenty);
    log._fatal("opens");
    waitForLines("a.log", 1);
    fs::rename(path("a.log"), path("a.log.back"));
    zel::test::writeFile(path("a.log"), "new\n");
    log.logLineToFile("follows\n");
    EXPECT_EQ(file("a.log"), "new\nfollows\n");
    EXPECT_EQ(textsOf(file("a.log.back")), std::vector<std::string>{"a - opens"});
}

TEST_F(CBBLogTest, WaiterForTheRotationLockFindsTheFileAlreadyRotated)
{
    fs::create_directories(m_places.logs());
    CBBLog log("a.log", false, 100);
    log._fatal("opens");
    waitForLines("a.log", 1);
    zel::test::writeFile(path("a.log"), std::string(120, 'x') + "\n");
    struct stat status = {};
    ASSERT_EQ(stat(path("a.log").c_str(), &status), 0);

    // This test is the other process: it has the lock and rotates.
    zel::FileHandle held(open(path("a.log").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(held.get(), LOCK_EX), 0);
    const std::string waiting = ":" + std::to_string(status.st_ino) + " 0 EOF";
    if (zel::test::readFile("/proc/locks").find(waiting) == std::string::npos) {
        GTEST_SKIP() << "this machine does not list its file locks";
    }
    std::thread writer([&log] { log.logLineToFile("follows\n"); });
    for (bool waits = false; !waits; std::this_thread::yield()) {
        // "1: -> FLOCK  ADVISORY  WRITE PROCESS MAJOR:MINOR:INODE 0 EOF"
        std::istringstream locks(zel::test::readFile("/proc/locks"));
        for (std::string line; std::getline(locks, line) && !waits;) {
            waits = line.find("-> FLOCK") != std::string::npos &&
                    line.find(waiting) != std::string::npos;
        }
    }
    fs::rename(path("a.log"), path("a.log.back"));
    zel::test::writeFile(path("a.log"), "new\n");
    held.close();
    writer.join();
    EXPECT_EQ(file("a.log"), "new\nfollows\n");
    EXPECT_EQ(file("a.log.back"), std::string(120, 'x') + "\n");
}

TEST_F(CBBLogTest, TwoProcessesShareAndRotateOneFileWithoutLosingALine)
{
    constexpr int count = 400;
    // A line has 50 to 60 bytes: the file fills up once, not twice.
    constexpr int limit = count * 2 * 50 * 6 / 10;
    zel::test::UtilsChildProcess left(
        {"log", "shared.log", std::to_string(limit), "left", std::to_string(count)});
    zel::test::UtilsChildProcess right(
        {"log", "shared.log", std::to_string(limit), "right", std::to_string(count)});
    ASSERT_EQ(left.wait(), 0);
    ASSERT_EQ(right.wait(), 0);

    std::multiset<std::string> expected;
    for (int i = 0; i < count; ++i) {
        expected.insert("line left-" + std::to_string(i) + ".");
        expected.insert("line right-" + std::to_string(i) + ".");
    }
    const std::vector<std::string> texts = textsOf(file("shared.log.back") + file("shared.log"));
    EXPECT_EQ(std::multiset<std::string>(texts.begin(), texts.end()), expected);
    EXPECT_FALSE(file("shared.log.back").empty());
    EXPECT_GE(file("shared.log.back").size(), static_cast<std::size_t>(limit));
    EXPECT_FALSE(file("shared.log").empty());
}

TEST_F(CBBLogTest, ThreadsMayLogWhileTheLoggerIsReplaced)
{
    setLevel(3);
    std::atomic<bool> stop = false;
    std::vector<std::thread> threads;
    threads.reserve(3);
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&stop] {
            while (!stop) {
                CBBLog::debug("never %d", 1);
                if (CBBLog::isInfoEnabled()) {
                    CBBLog::info(boost::format("%1%") % "sometimes");
                }
                std::this_thread::yield();
            }
        });
    }
    for (int i = 0; i < 30; ++i) {
        LogPointer log = currentLog("a.log");
        CBBLog::info("round %d", i);
        log->setLogLevel(i % 2 == 0 ? LOGLEVEL_ERROR : LOGLEVEL_INFO);
        log->_fatal("last %d", i);
        log->getFileSize();
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::string text = file("a.log") + file("a.log.back");
    EXPECT_EQ(text.find("never"), std::string::npos);
    for (int i = 0; i < 30; ++i) {
        EXPECT_NE(text.find("round " + std::to_string(i) + "\n"), std::string::npos) << i;
        EXPECT_NE(text.find("a - last " + std::to_string(i) + "\n"), std::string::npos) << i;
    }
}

TEST_F(CBBLogTest, FirstLinesOfSeveralThreadsOpenTheLogOnce)
{
    for (int round = 0; round < 20; ++round) {
        CBBLog log("a.log", false, plenty);
        std::vector<std::thread> threads;
        threads.reserve(4);
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&log] { log._fatal("x"); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(textsOf(file("a.log")).size(), 80U);
    EXPECT_EQ(textsOf(file("errors.log")).size(), 80U);
}
