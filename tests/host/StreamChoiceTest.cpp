#include "host/StreamChoice.h"

#include <gtest/gtest.h>

namespace zel::host {

using Wish = StreamChoice::Wish;

TEST(HostStreamChoice, CopyAndNoneAreWishesOfTheirOwn)
{
    EXPECT_EQ(parseStreamChoice("copy")->wish, Wish::Copy);
    EXPECT_EQ(parseStreamChoice("none")->wish, Wish::None);
}

TEST(HostStreamChoice, AnythingElseIsACodec)
{
    const auto choice = parseStreamChoice("mpeg4");
    ASSERT_TRUE(choice);
    EXPECT_EQ(choice->wish, Wish::Codec);
    EXPECT_EQ(choice->codec, "mpeg4");
    EXPECT_FALSE(choice->bitrate);
}

TEST(HostStreamChoice, ABitRateStandsBehindTheCodec)
{
    const auto choice = parseStreamChoice("mp3:96k");
    ASSERT_TRUE(choice);
    EXPECT_EQ(choice->codec, "mp3");
    EXPECT_EQ(choice->bitrate, 96000);
}

TEST(HostStreamChoice, WhatIsNotOneIsRefused)
{
    for (const char* text : {"", ":96k", "mp3:", "mp3:fast", "copy:96k", "none:1", "mp3:96k:2"}) {
        EXPECT_FALSE(parseStreamChoice(text)) << text;
    }
}

TEST(HostBitrate, IsReadWithAndWithoutUnit)
{
    EXPECT_EQ(parseBitrate("128000"), 128000);
    EXPECT_EQ(parseBitrate("128k"), 128000);
    EXPECT_EQ(parseBitrate("128K"), 128000);
    EXPECT_EQ(parseBitrate("1.5M"), 1500000);
}

TEST(HostBitrate, NothingButARateAboveZeroIsTaken)
{
    for (const char* text : {"", "k", "0", "0k", "-1k", "+1k", " 1k", "1 k", "1kk", "1m", "0x10",
                             "1e3", "nan", "inf", "2000M", "99999999999999999999"}) {
        EXPECT_FALSE(parseBitrate(text)) << text;
    }
}

} // namespace zel::host
