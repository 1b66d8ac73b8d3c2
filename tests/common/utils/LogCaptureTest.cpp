#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>
#include <thread>

using zel::test::LogCapture;

TEST(LogCapture, KeepsLinesThatPassItsLevel)
{
    LogCapture log(LOGLEVEL_INFO);
    CBBLog::debug("debug");
    CBBLog::info("info %d", 1);
    CBBLog::fatal(boost::format("fatal %1%") % 2);
    const std::vector<LogCapture::Line> lines = log.lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].level, LOGLEVEL_INFO);
    EXPECT_EQ(lines[0].text, "info 1");
    EXPECT_EQ(lines[1].level, LOGLEVEL_FATAL);
    EXPECT_EQ(lines[1].text, "fatal 2");
    EXPECT_FALSE(CBBLog::isDebugEnabled());
    EXPECT_FALSE(log.contains("debug"));
    EXPECT_EQ(log.count("a"), 1);
    log.clear();
    EXPECT_TRUE(log.lines().empty());
}

TEST(LogCapture, WaitsForALineOfAnotherThread)
{
    const LogCapture log;
    std::thread writer([] { CBBLog::debug("from the thread"); });
    EXPECT_TRUE(log.waitFor("the thread"));
    writer.join();
}

TEST(LogCapture, WaitsForALineOfALogThatTookItsPlace)
{
    LogCapture log;
    const boost::shared_ptr<CBBLog> other(new CBBLog("Other.log", false, 524288));
    CBBLog::setLogger(other);
    CBBLog::debug("to the other");
    EXPECT_TRUE(log.waitFor("to the other"));
    EXPECT_NE(log.fileText("Other.log").find("to the other\n"), std::string::npos);
    log.makeCurrent();
    CBBLog::debug("back again");
    EXPECT_EQ(log.count("back again"), 1);
    EXPECT_EQ(log.count("to the other"), 0);
}

TEST(LogCapture, LeavesNoCurrentLogBehind)
{
    {
        const LogCapture log;
        EXPECT_TRUE(CBBLog::isDebugEnabled());
    }
    EXPECT_FALSE(CBBLog::isWarnEnabled());
}
