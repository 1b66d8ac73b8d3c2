#include "plugin/MetadataPacket.h"

#include "tests/plugin/LiveArrays.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

using namespace std::string_view_literals;
using zel::streamer::MetadataPacket;
using zel::test::liveArrays;
namespace PacketType = zel::streamer::PacketType;

namespace {

using Text = CStdStr<char>;
using Table = MetadataPacket::Table;

struct Release
{
    void operator()(MetadataPacket* packet) const
    {
        // The analyzer does not count references.
        packet->release(); // NOLINT(clang-analyzer-cplusplus.NewDelete)
    }
};
using Owner = std::unique_ptr<MetadataPacket, Release>;

std::string_view bytesOf(const MetadataPacket& packet)
{
    return {reinterpret_cast<const char*>(packet.getBuffer()),
            static_cast<std::size_t>(packet.getLength())};
}

/// A block under construction, which frees itself.
struct Block
{
    Block() = default;
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;
    ~Block() { delete[] bytes; }

    void add(const Text& key, const Text& value)
    {
        MetadataPacket::encodeMetadata(bytes, length, key, value);
    }
    std::string_view view() const
    {
        return {reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length)};
    }

    unsigned char* bytes = nullptr;
    int length = 0;
};

/// Parses a copy that ends exactly where the block does, so that a sanitizer sees a read behind it.
Table parsed(std::string_view block)
{
    const std::vector<char> exact(block.begin(), block.end());
    const Owner packet(new MetadataPacket(exact.data(), static_cast<unsigned int>(exact.size())));
    return packet->getAllMetadata();
}

} // namespace

TEST(MetadataPacket, HoldsOneEncodedRow)
{
    const Owner packet(new MetadataPacket("ACTION", "ADD_KEYFRAME"));
    EXPECT_EQ(packet->getLength(), 21);
    EXPECT_EQ(bytesOf(*packet), "ACTION\0ADD_KEYFRAME\0\0"sv);
    EXPECT_EQ(packet->getType(), 5);
    EXPECT_EQ(packet->getMetadata("ACTION"), "ADD_KEYFRAME");
}

TEST(MetadataPacket, EveryConstructorGivesTypeMetadataAndZeroTimes)
{
    const Owner row(new MetadataPacket("a", "b"));
    const Owner table(new MetadataPacket(Table{{"a", "b"}}));
    const Owner block(new MetadataPacket("a\0b\0", 5U));
    for (const Owner* packet : {&row, &table, &block}) {
        EXPECT_EQ((*packet)->getType(), PacketType::Metadata);
        EXPECT_EQ((*packet)->getTimestamp(), 0U);
        EXPECT_EQ((*packet)->getDuration(), 0U);
        EXPECT_FALSE((*packet)->isKeyFrame());
    }
}

TEST(MetadataPacket, TableIsEncodedInReverseKeyOrder)
{
    const Owner packet(new MetadataPacket(Table{{"artist", "A"}, {"title", "T"}, {"album", "L"}}));
    EXPECT_EQ(bytesOf(*packet), "title\0T\0\0artist\0A\0\0album\0L\0\0"sv);
}

TEST(MetadataPacket, RowsWithAnEmptyKeyOrValueStayOutOfTheBlockButInTheTable)
{
    const Owner packet(new MetadataPacket(Table{{"", "x"}, {"album", ""}, {"title", "T"}}));
    EXPECT_EQ(bytesOf(*packet), "title\0T\0\0"sv);
    EXPECT_EQ(packet->getAllMetadata().size(), 3U);
}

TEST(MetadataPacket, EmptyTableGivesNoBuffer)
{
    const Owner packet(new MetadataPacket(Table{}));
    EXPECT_EQ(packet->getBuffer(), nullptr);
    EXPECT_EQ(packet->getLength(), 0);
}

TEST(MetadataPacket, EncodingAnEmptyKeyOrValueLeavesTheBlockAsItWas)
{
    Block block;
    block.add("k", "v");
    const auto address = reinterpret_cast<std::uintptr_t>(block.bytes);
    block.add("key", "");
    block.add("", "value");
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block.bytes), address);
    EXPECT_EQ(block.view(), "k\0v\0\0"sv);
}

TEST(MetadataPacket, EncodingPutsTheNewEntryInFrontAndFreesTheOldBlock)
{
    const long long before = liveArrays();
    {
        Block block;
        block.add("old", "z");
        EXPECT_GT(liveArrays(), before);
        block.add("new", "xy");
        EXPECT_EQ(block.view(), "new\0xy\0\0old\0z\0\0"sv);
    }
    EXPECT_EQ(liveArrays(), before);
}

TEST(MetadataPacket, EncodedKeyAndValueEndAtTheirFirstNul)
{
    Block block;
    block.add(Text(std::string("ke\0y", 4)), Text(std::string("va\0lue", 6)));
    EXPECT_EQ(block.view(), "ke\0va\0\0"sv);
}

TEST(MetadataPacket, BlockComesBackAsTheTable)
{
    const Table table{
        {"title", "Some Title"}, {"artist", "\xC3\xA4"}, {"thumbnailURL", "http://h/p"}};
    const Owner packet(new MetadataPacket(table));
    EXPECT_EQ(parsed(bytesOf(*packet)), table);
}

TEST(MetadataPacket, ParsingKeepsNoBuffer)
{
    const Owner packet(new MetadataPacket("a\0b\0", 5U));
    EXPECT_EQ(packet->getBuffer(), nullptr);
    EXPECT_EQ(packet->getLength(), 0);
    EXPECT_EQ(packet->getMetadata("a"), "b");
}

TEST(MetadataPacket, BlockOfSizeZeroGivesAnEmptyTable)
{
    EXPECT_TRUE(parsed(""sv).empty());
    const Owner packet(new MetadataPacket(static_cast<const char*>(nullptr), 0U));
    EXPECT_TRUE(packet->getAllMetadata().empty());
}

TEST(MetadataPacket, NullBlockOfAnySizeGivesAnEmptyTable)
{
    const Owner packet(new MetadataPacket(static_cast<const char*>(nullptr), 100U));
    EXPECT_TRUE(packet->getAllMetadata().empty());
}

TEST(MetadataPacket, LaterDuplicateWins)
{
    EXPECT_EQ(parsed("k\0first\0\0k\0second\0\0"sv), (Table{{"k", "second"}}));
}

TEST(MetadataPacket, KeyAtTheEndOfTheBlockGivesNoRow)
{
    EXPECT_EQ(parsed("a\0b\0\0key\0"sv), (Table{{"a", "b"}}));
}

TEST(MetadataPacket, BlockWithoutFinalNulIsReadToItsEndOnly)
{
    EXPECT_TRUE(parsed("key"sv).empty());
    EXPECT_EQ(parsed("key\0value"sv), (Table{{"key", "value"}}));
    EXPECT_EQ(parsed("a\0b\0\0key\0val"sv), (Table{{"a", "b"}, {"key", "val"}}));
}

TEST(MetadataPacket, BlockWithOneClosingNulOnlyIsRead)
{
    EXPECT_EQ(parsed("key\0value\0"sv), (Table{{"key", "value"}}));
}

TEST(MetadataPacket, BlockOfNulsEnds)
{
    EXPECT_EQ(parsed("\0"sv).size(), 0U);
    EXPECT_EQ(parsed("\0\0\0\0\0\0"sv), (Table{{"", ""}}));
}

TEST(MetadataPacket, LookUpOfAnAbsentKeyIsEmptyAndAddsNothing)
{
    const Owner packet(new MetadataPacket("title", "T"));
    EXPECT_EQ(packet->getMetadata("artist"), "");
    EXPECT_EQ(packet->getMetadata("TITLE"), "");
    EXPECT_EQ(packet->getAllMetadata().size(), 1U);
}

TEST(MetadataPacket, GetAllMetadataGivesACopy)
{
    const Owner packet(new MetadataPacket("title", "T"));
    Table copy = packet->getAllMetadata();
    copy["title"] = "other";
    EXPECT_EQ(packet->getMetadata("title"), "T");
}

TEST(MetadataPacket, DetachedBufferOutlivesThePacket)
{
    Owner packet(new MetadataPacket("title", "T"));
    const int length = packet->getLength();
    const std::unique_ptr<unsigned char[]> buffer(packet->detachBuffer());
    EXPECT_EQ(packet->getBuffer(), nullptr);
    EXPECT_EQ(packet->getLength(), 0);
    EXPECT_EQ(packet->getMetadata("title"), "T");
    packet.reset();
    EXPECT_EQ(
        std::string_view(reinterpret_cast<char*>(buffer.get()), static_cast<std::size_t>(length)),
        "title\0T\0\0"sv);
}

TEST(MetadataPacket, ReleaseOfTheLastReferenceFreesTheBuffer)
{
    const Text key("title");
    const Text value("T");
    const long long before = liveArrays();
    Owner first(new MetadataPacket(key, value));
    first->retain();
    Owner second(first.get());
    const long long held = liveArrays();
    EXPECT_GT(held, before);
    first.reset();
    EXPECT_EQ(liveArrays(), held);
    second.reset();
    EXPECT_EQ(liveArrays(), before);
}

TEST(MetadataPacket, TimesCanBeChangedThroughTheInterface)
{
    const Owner owner(new MetadataPacket("a", "b"));
    zel::streamer::SamplePacket* packet = owner.get();
    unsigned long long duration = 7;
    packet->setTimestamp(123);
    packet->setDuration(duration);
    EXPECT_EQ(packet->getTimestamp(), 123U);
    EXPECT_EQ(packet->getDuration(), 7U);
}
