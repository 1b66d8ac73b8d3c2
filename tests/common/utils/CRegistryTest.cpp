#include "common/utils/CRegistry.h"

#include "common/utils/SettingsFile.h"
#include "tests/common/utils/UtilsChildProcess.h"
#include "tests/support/TempFolder.h"

#include <atomic>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

using String = CStdStr<char>;

const String root("Software\\Tamrix Labs\\Zel");
const String config("Software\\Tamrix Labs\\Zel\\Config");

/// A property list with `body` inside its dictionary.
std::string plistOf(const std::string& body)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + body +
           "</dict></plist>\n";
}

class CRegistryTest : public testing::Test
{
protected:
    void SetUp() override { std::filesystem::create_directories(m_places.preferences()); }

    std::string file(const std::string& name) const { return m_places.preferences() + "/" + name; }
    std::string configFile() const { return file("com.tamrix.zel.config.plist"); }

    int number(const String& name, int absent) const
    {
        int value = absent;
        m_registry->ReadSettingImpl(config, name, value);
        return value;
    }
    std::string text(const String& name) const
    {
        String value("absent");
        m_registry->ReadSettingImpl(config, name, value);
        return value;
    }
    /// @return what ReadAllSettingsImpl prints
    std::string readAll(std::map<String, String>& values) const
    {
        testing::internal::CaptureStdout();
        m_registry->ReadAllSettingsImpl(config, values);
        return testing::internal::GetCapturedStdout();
    }

    zel::test::TempFolder m_folder;
    zel::test::ScopedPlaces m_places{m_folder};
    boost::shared_ptr<CRegistry> m_registry = CRegistry::getInstance();
};

} // namespace

TEST_F(CRegistryTest, SectionInAnotherLetterCaseMapsToTheSameDomain)
{
    EXPECT_EQ(CRegistryImpl::createKey(root), "com.tamrix.zel");
    EXPECT_EQ(CRegistryImpl::createKey("SOFTWARE\\tamrix LABS\\zEL\\cONFIG"),
              "com.tamrix.zel.config");
    ASSERT_TRUE(m_registry->WriteSettingImpl(config, "n", 5));
    int value = 0;
    EXPECT_TRUE(m_registry->ReadSettingImpl("software\\TAMRIX labs\\Zel\\CONFIG", "n", value));
    EXPECT_EQ(value, 5);
}

TEST_F(CRegistryTest, SectionOutsideKeepsItsTextInLowerCaseWithStops)
{
    EXPECT_EQ(CRegistryImpl::createKey("Software\\Other\\Thing One"), "software.other.thing one");
    EXPECT_EQ(CRegistryImpl::createKey(""), "");
}

TEST_F(CRegistryTest, EachSubsectionIsADomainOfItsOwn)
{
    ASSERT_TRUE(m_registry->WriteSettingImpl(config, "n", 5));
    int value = 1;
    EXPECT_FALSE(m_registry->ReadSettingImpl(root, "n", value));
    EXPECT_EQ(value, 1);
    EXPECT_TRUE(std::filesystem::exists(configFile()));
}

TEST_F(CRegistryTest, AbsentNameAnswersFalseAndLeavesTheValue)
{
    ASSERT_TRUE(m_registry->WriteSettingImpl(config, "other", 5));
    int number = 77;
    EXPECT_FALSE(m_registry->ReadSettingImpl(config, "absent", number));
    EXPECT_EQ(number, 77);
    String text("start");
    EXPECT_FALSE(m_registry->ReadSettingImpl(config, "absent", text));
    EXPECT_EQ(text, "start");
    bool flag = true;
    CRegistryImpl flags;
    EXPECT_FALSE(flags.ReadSettingImpl(config, "absent", flag));
    EXPECT_TRUE(flag);
}

TEST_F(CRegistryTest, WrittenNumberIsReadBack)
{
    for (const int value : {0, 1, -1, 80, 2147483647, -2147483647 - 1}) {
        ASSERT_TRUE(m_registry->WriteSettingImpl(config, "n", value));
        EXPECT_EQ(number("n", 4711), value);
    }
}

TEST_F(CRegistryTest, WrittenTextIsReadBack)
{
    const std::vector<std::string> texts = {
        "",         "80",    " blanks ", "<&>\"']]>", "line\r\nend\t",        "\xc3\xa9t\xc3\xa9",
        "\xff\x80", "&amp;", "\x01\x1f", "<string>",  std::string(70000, 'x')};
    for (const std::string& value : texts) {
        ASSERT_TRUE(m_registry->WriteSettingImpl(config, "t", String(value)));
        EXPECT_EQ(text("t"), value);
        ASSERT_TRUE(m_registry->WriteSettingImpl(config, String("name" + value.substr(0, 20)), 3));
        EXPECT_EQ(number("name" + value.substr(0, 20), 0), 3);
    }
}

TEST_F(CRegistryTest, WriteReplacesAValueOfAnotherType)
{
    ASSERT_TRUE(m_registry->WriteSettingImpl(config, "v", String("80")));
    EXPECT_EQ(number("v", -1), -1);
    ASSERT_TRUE(m_registry->WriteSettingImpl(config, "v", 80));
    EXPECT_EQ(number("v", -1), 80);
    EXPECT_EQ(text("v"), "absent");
}

TEST_F(CRegistryTest, WriteKeepsEverythingElseInTheFile)
{
    zel::test::writeFile(configFile(), plistOf("<key>t</key><string>x</string><key>b</key><true/>"
                                               "<key>a</key><array><integer>1</integer></array>"));
    ASSERT_TRUE(m_registry->WriteSettingImpl(config, "n", 1));
    EXPECT_EQ(text("t"), "x");
    const std::string bytes = zel::test::readFile(configFile());
    EXPECT_NE(bytes.find("<true/>"), std::string::npos);
    EXPECT_NE(bytes.find("<array>"), std::string::npos);
}

TEST_F(CRegistryTest, WrongTypedValueAnswersFalse)
{
    zel::test::writeFile(
        configFile(),
        plistOf("<key>text</key><string>12</string><key>true</key><true/><key>list</key><array/>"
                "<key>large</key><integer>4294967296</integer>"
                "<key>nan</key><real>nan</real><key>wide</key><real>1e300</real>"
                "<key>date</key><date>2001-01-01T00:00:00Z</date><key>real</key><real>2.75</real>"
                "<key>data</key><data>AAAA</data><key>map</key><dict/>"));
    for (const char* name :
         {"text", "true", "list", "large", "nan", "wide", "date", "data", "map"}) {
        EXPECT_EQ(number(name, 5), 5) << name;
    }
    EXPECT_EQ(number("real", 5), 2);
    for (const char* name : {"true", "list", "large", "real", "date", "data", "map"}) {
        EXPECT_EQ(text(name), "absent") << name;
    }
    EXPECT_EQ(text("text"), "12");
}

TEST_F(CRegistryTest, FlagIsReadFromTheSectionAsItStands)
{
    CRegistryImpl registry;
    zel::test::writeFile(file("Software%5CTamrix%20Labs%5CZel%5CConfig.plist"),
                         plistOf("<key>on</key><true/><key>off</key><false/>"
                                 "<key>n</key><integer>1</integer>"));
    zel::test::writeFile(configFile(), plistOf("<key>mapped</key><true/>"));
    bool value = false;
    EXPECT_TRUE(registry.ReadSettingImpl(config, "on", value));
    EXPECT_TRUE(value);
    EXPECT_TRUE(registry.ReadSettingImpl(config, "off", value));
    EXPECT_FALSE(value);
    EXPECT_FALSE(registry.ReadSettingImpl(config, "mapped", value));
    EXPECT_FALSE(registry.ReadSettingImpl(config, "n", value));
}

TEST_F(CRegistryTest, ListingHasTextsAsTheyAreAndNumbersAsOneCharacter)
{
    zel::test::writeFile(configFile(),
                         plistOf("<key>t</key><string>text</string><key>n</key>"
                                 "<integer>833</integer><key>zero</key><integer>0</integer>"
                                 "<key>minus</key><integer>-1</integer><key>b</key><true/>"
                                 "<key>a</key><array/><key>big</key>"
                                 "<integer>99999999999</integer>"));
    std::map<String, String> values = {{"former", "stays"}};
    EXPECT_EQ(readAll(values), "");
    const std::map<String, String> expected = {{"former", "stays"},
                                               {"t", "text"},
                                               {"n", "A"},
                                               {"zero", std::string(1, '\0')},
                                               {"minus", "\xff"}};
    EXPECT_EQ(values, expected);
}

TEST_F(CRegistryTest, ListingWithoutKeysSaysSo)
{
    std::map<String, String> values;
    EXPECT_EQ(readAll(values), "no keys for com.tamrix.zel.config\n");
    zel::test::writeFile(configFile(), plistOf(""));
    EXPECT_EQ(readAll(values), "no keys for com.tamrix.zel.config\n");
    zel::test::writeFile(configFile(), plistOf("<key>odd</key><array/>"));
    EXPECT_EQ(readAll(values), "");
    EXPECT_TRUE(values.empty());
}

TEST_F(CRegistryTest, ListingOfAnUnreadableFileSaysSo)
{
    zel::test::writeFile(configFile(), "no property list");
    std::map<String, String> values;
    EXPECT_EQ(readAll(values), "synchronization failed for com.tamrix.zel.config\n");
    EXPECT_TRUE(values.empty());
}

TEST_F(CRegistryTest, ChangeByAnotherProcessIsSeenByTheNextRead)
{
    for (const int value : {1, 2, 3}) {
        zel::test::UtilsChildProcess child({"set", "n", std::to_string(value)});
        ASSERT_EQ(child.wait(), 0);
        EXPECT_EQ(number("n", 0), value);
    }
    std::filesystem::remove(configFile());
    EXPECT_EQ(number("n", 0), 0);
}

TEST_F(CRegistryTest, FileThatAnotherOfTheSameSizeReplacesIsReadAgain)
{
    const auto stamp = std::filesystem::file_time_type::clock::now();
    for (int i = 0; i < 200; ++i) {
        const std::string next = file("next");
        zel::test::writeFile(
            next, plistOf("<key>n</key><integer>" + std::to_string(i % 10) + "</integer>"));
        std::filesystem::last_write_time(next, stamp);
        std::filesystem::rename(next, configFile());
        ASSERT_EQ(number("n", -1), i % 10);
    }
}

TEST_F(CRegistryTest, TwoProcessesLoseNoneOfTheirWritesToOneFile)
{
    zel::test::UtilsChildProcess left({"increment", "left", "100"});
    zel::test::UtilsChildProcess right({"increment", "right", "100"});
    ASSERT_EQ(left.wait(), 0);
    ASSERT_EQ(right.wait(), 0);
    EXPECT_EQ(number("left", 0), 100);
    EXPECT_EQ(number("right", 0), 100);
}

TEST_F(CRegistryTest, ThreadsLoseNoneOfTheirWritesToOneFile)
{
    std::vector<std::thread> threads;
    for (const char* name : {"a", "b", "c"}) {
        threads.emplace_back([this, name] {
            for (int i = 0; i < 40; ++i) {
                EXPECT_TRUE(m_registry->WriteSettingImpl(config, name, number(name, 0) + 1));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const char* name : {"a", "b", "c"}) {
        EXPECT_EQ(number(name, 0), 40);
    }
}

TEST_F(CRegistryTest, KilledWriterLeavesAnOldOrANewValue)
{
    std::mt19937 random(20240607);
    const std::string small(10, 's');
    const std::string large(60000, 'l');
    ASSERT_TRUE(m_registry->WriteSettingImpl(config, "text", String(small)));
    ASSERT_TRUE(m_registry->WriteSettingImpl(config, "witness", String("kept")));
    for (int round = 0; round < 60; ++round) {
        {
            zel::test::UtilsChildProcess child({"alternate"});
            ASSERT_TRUE(child.readOutput(1 + random() % 3));
            for (unsigned int spin = random() % 20000; spin > 0; --spin) {
                std::atomic_signal_fence(std::memory_order_seq_cst);
            }
            child.kill();
            ASSERT_EQ(child.wait(), -1);
        }
        const std::string bytes = zel::test::readFile(configFile());
        ASSERT_NE(zel::settings::parse(bytes.data(), bytes.size()), nullptr);
        const std::string value = text("text");
        ASSERT_TRUE(value == small || value == large) << value.size();
        ASSERT_GE(number("round", -1), 0);
        ASSERT_EQ(text("witness"), "kept");
    }
    // A half-written file beside it is in nobody's way.
    zel::test::writeFile(configFile() + ".new", "<plist><di");
    ASSERT_TRUE(m_registry->WriteSettingImpl(config, "text", String("after")));
    EXPECT_EQ(text("text"), "after");
    EXPECT_FALSE(std::filesystem::exists(configFile() + ".new"));
}

TEST_F(CRegistryTest, PlantedLinkInPlaceOfTheFileIsNeitherFollowedNorWrittenThrough)
{
    const std::string target = m_folder.path("target");
    const std::string content = plistOf("<key>n</key><integer>1</integer>");
    zel::test::writeFile(target, content);
    std::filesystem::create_symlink(target, configFile());
    EXPECT_EQ(number("n", 0), 0);
    ASSERT_TRUE(m_registry->WriteSettingImpl(config, "n", 2));
    EXPECT_EQ(number("n", 0), 2);
    EXPECT_FALSE(std::filesystem::is_symlink(configFile()));
    EXPECT_TRUE(std::filesystem::is_symlink(configFile() + ".unreadable"));
    EXPECT_EQ(zel::test::readFile(target), content);
}

TEST_F(CRegistryTest, PlantedLinkInPlaceOfTheTemporaryFileIsRemoved)
{
    const std::string target = m_folder.path("target");
    zel::test::writeFile(target, "precious");
    std::filesystem::create_symlink(target, configFile() + ".new");
    ASSERT_TRUE(m_registry->WriteSettingImpl(config, "n", 2));
    EXPECT_EQ(number("n", 0), 2);
    EXPECT_EQ(zel::test::readFile(target), "precious");
}

TEST_F(CRegistryTest, PlantedLinkInPlaceOfTheLockMakesTheWriteFail)
{
    const std::string target = m_folder.path("target");
    std::filesystem::create_symlink(target, configFile() + ".lock");
    EXPECT_FALSE(m_registry->WriteSettingImpl(config, "n", 2));
    EXPECT_FALSE(std::filesystem::exists(target));
    EXPECT_FALSE(std::filesystem::exists(configFile()));
}

TEST_F(CRegistryTest, FileOfOneMebibyteIsNotReadAndMakesWay)
{
    const std::string large = plistOf("<key>n</key><integer>1</integer><key>t</key><string>" +
                                      std::string(1024UL * 1024, 'x') + "</string>");
    zel::test::writeFile(configFile(), large);
    EXPECT_EQ(number("n", 0), 0);
    ASSERT_TRUE(m_registry->WriteSettingImpl(config, "n", 2));
    EXPECT_EQ(number("n", 0), 2);
    EXPECT_EQ(zel::test::readFile(configFile() + ".unreadable"), large);
}

TEST_F(CRegistryTest, LargestFileIsReadAndALargerOneIsNot)
{
    const std::string frame =
        plistOf("<key>n</key><integer>1</integer><key>t</key><string></string>");
    const std::string fill(zel::settings::maxFileSize - frame.size(), 'x');
    const std::string body = "<key>n</key><integer>1</integer><key>t</key><string>" + fill;
    zel::test::writeFile(configFile(), plistOf(body + "</string>"));
    EXPECT_EQ(number("n", 0), 1);
    zel::test::writeFile(configFile(), plistOf(body + "x</string>"));
    EXPECT_EQ(number("n", 0), 0);
}

TEST_F(CRegistryTest, ValueThatNoReaderWouldTakeIsRefused)
{
    ASSERT_TRUE(m_registry->WriteSettingImpl(config, "n", 1));
    EXPECT_FALSE(m_registry->WriteSettingImpl(config, "t", String(std::string(300000, 'x'))));
    EXPECT_EQ(number("n", 0), 1);
    EXPECT_EQ(text("t"), "absent");
    EXPECT_FALSE(std::filesystem::exists(configFile() + ".new"));
}

TEST_F(CRegistryTest, DeeplyNestedFileIsNotRead)
{
    const auto nested = [](int depth) {
        std::string body = "<key>n</key><integer>1</integer><key>a</key>";
        for (const char* tag : {"<array>", "</array>"}) {
            for (int i = 0; i < depth; ++i) {
                body += tag;
            }
        }
        return plistOf(body);
    };
    zel::test::writeFile(configFile(), nested(400));
    EXPECT_EQ(number("n", 0), 1);
    const std::string deep = nested(15000);
    ASSERT_LT(deep.size(), zel::settings::maxFileSize);
    zel::test::writeFile(configFile(), deep);
    EXPECT_EQ(number("n", 0), 0);
}

TEST_F(CRegistryTest, FileWithNulBytesIsNotRead)
{
    for (const char* body : {"<key>n</key><integer>1</integer><key>t</key><string>a@b</string>",
                             "<key>n</key><integer>1</integer><key>a@b</key><string>t</string>"}) {
        std::string bytes = plistOf(body);
        bytes[bytes.find('@')] = '\0';
        zel::test::writeFile(configFile(), bytes);
        EXPECT_EQ(number("n", 0), 0);
        EXPECT_TRUE(m_registry->WriteSettingImpl(config, "n", 2));
        EXPECT_EQ(number("n", 0), 2);
    }
}

TEST_F(CRegistryTest, NamedPipeInPlaceOfTheFileDoesNotBlock)
{
    ASSERT_EQ(mkfifo(configFile().c_str(), 0666), 0);
    EXPECT_EQ(number("n", 0), 0);
}

TEST_F(CRegistryTest, FolderThatCannotBeMadeMakesTheWriteFail)
{
    zel::test::writeFile(m_folder.path("file"), "");
    const zel::test::ScopedVariable variable("TAMRIX_PREFERENCES_DIR", m_folder.path("file/below"));
    EXPECT_FALSE(m_registry->WriteSettingImpl(config, "n", 1));
    EXPECT_EQ(number("n", 5), 5);
}

TEST_F(CRegistryTest, MissingFoldersAreCreated)
{
    const zel::test::ScopedVariable variable("TAMRIX_PREFERENCES_DIR", m_folder.path("a/b/c/"));
    ASSERT_TRUE(m_registry->WriteSettingImpl(config, "n", 1));
    EXPECT_TRUE(std::filesystem::exists(m_folder.path("a/b/c/com.tamrix.zel.config.plist")));
}

TEST_F(CRegistryTest, WrittenFileKeepsItsMode)
{
    ASSERT_TRUE(m_registry->WriteSettingImpl(config, "n", 1));
    ASSERT_EQ(chmod(configFile().c_str(), 0640), 0);
    ASSERT_TRUE(m_registry->WriteSettingImpl(config, "n", 2));
    struct stat status = {};
    ASSERT_EQ(stat(configFile().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0640U);
}

TEST_F(CRegistryTest, DomainNamesCannotLeaveTheFolder)
{
    EXPECT_EQ(zel::settings::filePath("../../etc/x y"), file("%2E.%2F..%2Fetc%2Fx%20y.plist"));
    EXPECT_EQ(zel::settings::filePath("\xc3\xa4%"), file("%C3%A4%25.plist"));
    ASSERT_TRUE(m_registry->WriteSettingImpl("..\\..\\x/../y", "n", 7));
    int value = 0;
    EXPECT_TRUE(m_registry->ReadSettingImpl("..\\..\\X/../y", "n", value));
    EXPECT_EQ(value, 7);
}

TEST_F(CRegistryTest, ManyDomainsAreReadOneAfterTheOther)
{
    for (int pass = 0; pass < 2; ++pass) {
        for (int i = 0; i < 40; ++i) {
            const String section(config + "\\" + std::to_string(i));
            if (pass == 0) {
                ASSERT_TRUE(m_registry->WriteSettingImpl(section, "n", i));
            }
            int value = -1;
            ASSERT_TRUE(m_registry->ReadSettingImpl(section, "n", value));
            EXPECT_EQ(value, i);
        }
    }
}

TEST_F(CRegistryTest, InstanceIsTheSameForAll)
{
    EXPECT_EQ(CRegistry::getInstance(), m_registry);
}
