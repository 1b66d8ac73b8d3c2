#include "input/FFMpegDecoderCore.h"

#include "host/Records.h"
#include "plugin/MetadataPacket.h"
#include "tests/support/CoreReader.h"
#include "tests/support/FlvMedium.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MemorySource.h"
#include "tests/support/TestFolders.h"

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>

using zel::host::MediumRecord;
using zel::streamer::MetadataPacket;
using zel::test::audioOf;
using zel::test::corpusFolder;
using zel::test::FlvMedium;
using zel::test::LogCapture;
using zel::test::MemorySource;
using zel::test::readSamples;

namespace {

/// Texts as a broadcast has them: UTF-16, each with its end.
std::string command(std::initializer_list<std::string> texts)
{
    std::string bytes;
    for (const std::string& text : texts) {
        for (const char letter : text) {
            bytes += letter;
            bytes += '\0';
        }
        bytes += std::string(2, '\0');
    }
    return bytes;
}

class FFMpegDecoderCoreMetadata : public testing::Test
{
protected:
    void SetUp() override { core.setMetadataCallback(&count, this); }

    static void count(void* self) { ++static_cast<FFMpegDecoderCoreMetadata*>(self)->calls; }

    void handle(const std::string& bytes)
    {
        const zel::av::Packet packet = zel::av::makePacket();
        ASSERT_EQ(av_new_packet(packet.get(), static_cast<int>(bytes.size())), 0);
        std::memcpy(packet->data, bytes.data(), bytes.size());
        core.handleMetaDataPacket(*packet);
    }

    /// The table as the host gets it.
    MetadataPacket::Table table()
    {
        unsigned char* data = nullptr;
        unsigned int size = 0;
        core.getMetadataPacket(data, size);
        const std::unique_ptr<unsigned char[]> owner(data);
        auto* packet = new MetadataPacket(reinterpret_cast<const char*>(data), size);
        MetadataPacket::Table values = packet->getAllMetadata();
        packet->release();
        return values;
    }

    bool wroteInfo(const std::string& text) const
    {
        for (const LogCapture::Line& line : log.lines()) {
            if (line.level == LOGLEVEL_INFO && line.text == text) {
                return true;
            }
        }
        return false;
    }

    LogCapture log;
    FFMpegDecoderCore core;
    int calls = 0;
};

using Table = MetadataPacket::Table;

using FFMpegDecoderCoreMetadataCorpus = FFMpegDecoderCoreMetadata;

} // namespace

TEST_F(FFMpegDecoderCoreMetadata, NewSongSetsTitleAndArtistAndTellsOnce)
{
    const std::string song = command({"TEXT", "TYPE=SNG|TITLE Foo|ARTIST Bar"});
    handle(song);
    EXPECT_EQ(table(), (Table{{"title", "Foo"}, {"artist", "Bar"}}));
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(wroteInfo("FFMpegDecoderCore::handleMetaDataPacket New metadata title Foo, artist "
                          "Bar"));
    EXPECT_TRUE(wroteInfo(" FFMpegDecoderCore::updateMetadata title Foo"));
    EXPECT_TRUE(wroteInfo(" FFMpegDecoderCore::updateMetadata artist Bar"));
    log.clear();
    handle(song);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(FFMpegDecoderCoreMetadata, ChangeOfOneValueKeepsTheOther)
{
    handle(command({"TEXT", "TYPE=SNG|TITLE Foo|ARTIST Bar"}));
    handle(command({"TEXT", "TYPE=SNG|TITLE Baz"}));
    EXPECT_EQ(table(), (Table{{"title", "Baz"}, {"artist", "Bar"}}));
    handle(command({"TEXT", "TYPE=SNG|ARTIST Qux|TITLE Baz"}));
    EXPECT_EQ(table(), (Table{{"title", "Baz"}, {"artist", "Qux"}}));
    EXPECT_EQ(calls, 3);
}

TEST_F(FFMpegDecoderCoreMetadata, NewFlagIsReadToo)
{
    handle(command({"NEWFLG", "MetaDataChangeTYPE=SNG|TITLE Foo|ARTIST Bar"}));
    EXPECT_EQ(table(), (Table{{"title", "Foo"}, {"artist", "Bar"}}));
    EXPECT_EQ(calls, 1);
}

TEST_F(FFMpegDecoderCoreMetadata, WordsMustFitTogether)
{
    handle(command({"TEXT", "MetaDataChangeTYPE=SNG|TITLE Foo"}));
    handle(command({"NEWFLG", "TYPE=SNG|TITLE Foo"}));
    handle(command({"TEXT", "TYPE=AD|TITLE Foo"}));
    handle(command({"TEXT", "", "TYPE=SNG|TITLE Foo"}));
    handle(command({"URL", "TYPE=SNG|TITLE Foo|ARTIST Bar"}));
    handle(command({"text", "TYPE=SNG|TITLE Foo|ARTIST Bar"}));
    EXPECT_TRUE(table().empty());
    EXPECT_EQ(calls, 0);
}

TEST_F(FFMpegDecoderCoreMetadata, WordsNeedOnlyBeTheStart)
{
    handle(command({"TEXTS AND MORE", "TYPE=SNGS|TITLE Foo|ARTIST Bar", "a third text"}));
    EXPECT_EQ(table(), (Table{{"title", "Foo"}, {"artist", "Bar"}}));
}

TEST_F(FFMpegDecoderCoreMetadata, ValuesAreTrimmedAndEmptyFieldsIgnored)
{
    handle(command({"TEXT", "TYPE=SNG|||TITLE   Foo and more  ||ARTISTBar|"}));
    EXPECT_EQ(table(), (Table{{"title", "Foo and more"}, {"artist", "Bar"}}));
}

TEST_F(FFMpegDecoderCoreMetadata, LastOfTwoTitlesStays)
{
    handle(command({"TEXT", "TYPE=SNG|TITLE One|TITLE Two|ARTIST Bar"}));
    EXPECT_EQ(table()["title"], "Two");
    EXPECT_EQ(calls, 1);
}

TEST_F(FFMpegDecoderCoreMetadata, ShortPacketsAreIgnored)
{
    handle("");
    handle("T");
    handle(command({"TEXT"})); // ten bytes
    handle(std::string("T\0E\0X\0T", 7));
    handle(std::string("N\0E\0W\0F\0L\0G", 11));
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(table().empty());
}

TEST_F(FFMpegDecoderCoreMetadata, TextWithoutEndIsDropped)
{
    std::string cut = command({"TEXT", "TYPE=SNG|TITLE Foo|ARTIST Bar"});
    cut.resize(cut.size() - 2);
    handle(cut);
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(table().empty());
}

TEST_F(FFMpegDecoderCoreMetadata, OnlyEvenBytesCount)
{
    std::string odd = command({"TEXT", "TYPE=SNG|TITLE Foo|ARTIST Bar"});
    for (std::size_t i = 1; i < odd.size(); i += 2) {
        odd[i] = 'x';
    }
    handle(odd);
    EXPECT_EQ(table(), (Table{{"title", "Foo"}, {"artist", "Bar"}}));
    handle(command({"TEXT", "TYPE=SNG|TITLE Next|ARTIST Bar"}) + "y"); // odd length
    EXPECT_EQ(table()["title"], "Next");
}

TEST_F(FFMpegDecoderCoreMetadata, WithoutCallbackTheTableStays)
{
    core.setMetadataCallback(nullptr, nullptr);
    handle(command({"TEXT", "TYPE=SNG|TITLE Foo|ARTIST Bar"}));
    EXPECT_TRUE(table().empty());
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(log.count("New metadata"), 0);
}

TEST_F(FFMpegDecoderCoreMetadata, UpdateReplacesTheTableAndSetsTheNamesItKnows)
{
    core.updateMetadata(
        {{"ARTIST", "A"}, {"Album", "B"}, {"tItLe", "C"}, {"ThumbnailUrl", "D"}, {"genre", "E"}});
    EXPECT_EQ(table(), (Table{{"ARTIST", "A"},
                              {"Album", "B"},
                              {"tItLe", "C"},
                              {"ThumbnailUrl", "D"},
                              {"genre", "E"}}));
    core.updateMetadata({{"genre", "F"}});
    EXPECT_EQ(table(), (Table{{"genre", "F"}}));
    EXPECT_TRUE(wroteInfo(" FFMpegDecoderCore::updateMetadata genre F"));
    EXPECT_EQ(calls, 0);
    // The names outlive the table: a song that says the same is no news.
    handle(command({"TEXT", "TYPE=SNG|TITLE C|ARTIST A"}));
    EXPECT_EQ(calls, 0);
}

TEST_F(FFMpegDecoderCoreMetadata, EmptyTableIsAnEmptyBlock)
{
    unsigned char* data = nullptr;
    unsigned int size = 1;
    core.getMetadataPacket(data, size);
    EXPECT_EQ(size, 0u);
    delete[] data;
}

TEST_F(FFMpegDecoderCoreMetadata, CommandsInTheMediumAreReadOnTheWay)
{
    FlvMedium medium;
    for (uint32_t i = 0; i < 20; ++i) {
        medium.audio(40 * i);
        if (i % 5 == 2) {
            medium.tag(18, 40 * i,
                       command({"TEXT", "TYPE=SNG|TITLE Song" + std::to_string(i / 10) +
                                            "|ARTIST Somebody"}));
        }
    }
    MemorySource source(medium.bytes());
    ASSERT_EQ(source.open(core, "flv"), 0);
    ASSERT_GE(core.m_metadataStreamIndex, 0);
    readSamples(core, 1);
    EXPECT_EQ(calls, 0);
    readSamples(core, 3);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(table(), (Table{{"title", "Song0"}, {"artist", "Somebody"}}));
    EXPECT_EQ(audioOf(readSamples(core)).size(), 16u);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(table(), (Table{{"title", "Song1"}, {"artist", "Somebody"}}));
    MediumRecord record;
    core.getMediumDescription(&record);
    EXPECT_EQ(record.title, "Song1");
    EXPECT_EQ(record.artist, "Somebody");
    core.close();
}

TEST_F(FFMpegDecoderCoreMetadataCorpus, CommandStreamOfABroadcastIsRead)
{
    if (corpusFolder().empty()) {
        GTEST_SKIP() << "no corpus on this machine";
    }
    ASSERT_EQ(core.initWithUrl(corpusFolder() + "/media/made/asf_command_stream_radio.wma", "wma"),
              0);
    ASSERT_GE(core.m_metadataStreamIndex, 0);
    EXPECT_GT(readSamples(core).size(), 10u);
    EXPECT_GE(calls, 1);
    EXPECT_FALSE(table()["title"].empty());
    EXPECT_FALSE(table()["artist"].empty());
}
