#include "common/utils/StdString.h"

#include <gtest/gtest.h>
#include <map>
#include <string>
#include <utility>

using String = CStdStr<char>;

TEST(StdString, NullPointerGivesTheEmptyString)
{
    const char* nothing = nullptr;
    EXPECT_EQ(String(nothing), "");
    String text("full");
    text = nothing;
    EXPECT_EQ(text, "");
}

TEST(StdString, IsMadeFromTextsOfItsBaseAndGivesThemBack)
{
    std::string plain = "moved";
    const String fromCopy(plain);
    const String fromMove(std::move(plain));
    EXPECT_EQ(fromCopy, "moved");
    EXPECT_EQ(fromMove, "moved");
    const std::string back = fromMove + "!";
    EXPECT_EQ(back, "moved!");
    String assigned;
    assigned = back;
    EXPECT_EQ(assigned, back);
}

TEST(StdString, SortsInMapsAsItsTextDoes)
{
    const std::map<String, int> map = {{"b", 2}, {"a", 1}};
    EXPECT_EQ(map.begin()->first, "a");
    EXPECT_EQ(map.at("b"), 2);
}

TEST(StdString, FormatWritesTextsOfAnyLength)
{
    const std::string longText(100000, 'x');
    String text("old");
    text.Format("%s-%d", longText.c_str(), 7);
    EXPECT_EQ(text, longText + "-7");
    text.Format("%s", "");
    EXPECT_EQ(text, "");
}

TEST(StdString, FormatTakesItsOwnTextAsAnArgument)
{
    String text("abc");
    text.Format("<%s>", text.c_str());
    EXPECT_EQ(text, "<abc>");
    text.AppendFormat("%s%u", text.c_str(), 5U);
    EXPECT_EQ(text, "<abc><abc>5");
}

TEST(StdString, ReplaceChangesEveryOccurrenceAndCountsThem)
{
    String text("a\\b\\c");
    EXPECT_EQ(text.Replace("\\", "//"), 2);
    EXPECT_EQ(text, "a//b//c");
    EXPECT_EQ(text.Replace("//", ""), 2);
    EXPECT_EQ(text, "abc");
    EXPECT_EQ(text.Replace("x", "y"), 0);
    EXPECT_EQ(text, "abc");
}

TEST(StdString, ReplaceDoesNotSearchWhatItPutIn)
{
    String text("aaa");
    EXPECT_EQ(text.Replace("a", "aa"), 3);
    EXPECT_EQ(text, "aaaaaa");
    EXPECT_EQ(text.Replace("aa", "a"), 3);
    EXPECT_EQ(text, "aaa");
}

TEST(StdString, ReplaceOfNothingChangesNothing)
{
    String text("abc");
    EXPECT_EQ(text.Replace("", "x"), 0);
    EXPECT_EQ(text.Replace(nullptr, "x"), 0);
    EXPECT_EQ(text, "abc");
    EXPECT_EQ(text.Replace("b", nullptr), 1);
    EXPECT_EQ(text, "ac");
}

TEST(StdString, ReplaceTakesItsOwnTextAsAnArgument)
{
    String text("abcabc");
    EXPECT_EQ(text.Replace(text.c_str() + 3, text.c_str()), 2);
    EXPECT_EQ(text, "abcabcabcabc");
}

TEST(StdString, ReplaceChangesSingleLetters)
{
    String text("a.b.c");
    EXPECT_EQ(text.Replace('.', '/'), 2);
    EXPECT_EQ(text, "a/b/c");
}

TEST(StdString, TrimRemovesBlanksAndLineEndsOnBothSides)
{
    String text(" \t\r\n a b \v\f\n");
    EXPECT_EQ(text.Trim(), "a b");
    String left("  x ");
    EXPECT_EQ(left.TrimLeft(), "x ");
    String right("  x ");
    EXPECT_EQ(right.TrimRight(), "  x");
    String blanks("   ");
    EXPECT_EQ(blanks.Trim(), "");
    String empty;
    EXPECT_EQ(empty.Trim(), "");
    String foreign("\xa0x\x85");
    EXPECT_EQ(foreign.Trim(), "\xa0x\x85");
}

TEST(StdString, ToLowerChangesLettersOfAsciiOnly)
{
    String text("AZ[@`\xc4 mp4");
    text.ToLower();
    EXPECT_EQ(text, "az[@`\xc4 mp4");
}

TEST(StdString, SsicmpIgnoresTheCaseOfAscii)
{
    EXPECT_EQ(ssicmp("Content-Type", "CONTENT-type"), 0);
    EXPECT_LT(ssicmp("abc", "ABD"), 0);
    EXPECT_GT(ssicmp("abd", "ABC"), 0);
    EXPECT_LT(ssicmp("ab", "abc"), 0);
    EXPECT_GT(ssicmp("abc", "ab"), 0);
    EXPECT_NE(ssicmp("[", "{"), 0);
    EXPECT_NE(ssicmp("@", "`"), 0);
    EXPECT_GT(ssicmp("\xe4", "z"), 0);
}

TEST(StdString, SsicmpTakesNullAsEmpty)
{
    EXPECT_EQ(ssicmp(nullptr, nullptr), 0);
    EXPECT_EQ(ssicmp(nullptr, ""), 0);
    EXPECT_LT(ssicmp(nullptr, "a"), 0);
    EXPECT_GT(ssicmp("a", nullptr), 0);
}
