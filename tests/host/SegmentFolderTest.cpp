#include "host/SegmentFolder.h"

#include "host/HostError.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace zel::host {

namespace {

namespace fs = std::filesystem;

using test::readFile;
using test::writeFile;

/// As long as one packet of a transport stream for each letter.
std::string packets(const std::string& letters)
{
    std::string bytes;
    for (const char letter : letters) {
        bytes.append(188, letter);
    }
    return bytes;
}

class HostSegmentFolder : public testing::Test
{
protected:
    /// Writes a file as a stage does and announces it.
    void announce(SegmentFolder& folder, const std::string& name, unsigned long long startUs,
                  unsigned long long durationUs)
    {
        m_stagePath = m_cache.path(name);
        writeFile(m_stagePath, packets(name));
        folder.take(notice(m_stagePath, startUs, durationUs));
    }

    Frame notice(std::string& path, unsigned long long startUs, unsigned long long durationUs)
    {
        Frame frame;
        frame.type = streamer::PacketType::Notice;
        frame.data = reinterpret_cast<unsigned char*>(path.data());
        frame.size = static_cast<unsigned int>(path.size());
        frame.timestampUs = startUs;
        frame.durationUs = durationUs;
        return frame;
    }

    test::TempFolder m_cache;
    test::TempFolder m_own;
    std::string m_stagePath;
};

} // namespace

TEST_F(HostSegmentFolder, MovesFilesUnderNamesOfItsOwn)
{
    SegmentFolder folder(m_own.path(), "stream", 2000, false, "");
    announce(folder, "segment-1-1.ts", 0, 2000000);
    announce(folder, "segment-1-2.ts", 2000000, 1960000);
    EXPECT_EQ(readFile(m_own.path("stream-00001.ts")), packets("segment-1-1.ts"));
    EXPECT_EQ(readFile(m_own.path("stream-00002.ts")), packets("segment-1-2.ts"));
    EXPECT_FALSE(fs::exists(m_cache.path("segment-1-1.ts")));
}

TEST_F(HostSegmentFolder, ListGrowsWithEachSegmentAndIsClosedAtTheEnd)
{
    SegmentFolder folder(m_own.path(), "stream", 2000, false, "");
    announce(folder, "a", 0, 2000000);
    EXPECT_EQ(readFile(m_own.path("stream.m3u8")), "#EXTM3U\n"
                                                   "#EXT-X-VERSION:3\n"
                                                   "#EXT-X-TARGETDURATION:2\n"
                                                   "#EXT-X-MEDIA-SEQUENCE:0\n"
                                                   "#EXT-X-PLAYLIST-TYPE:EVENT\n"
                                                   "#EXTINF:2.000000,\n"
                                                   "stream-00001.ts\n");
    announce(folder, "b", 2000000, 2080001);
    announce(folder, "c", 4080001, 0);
    folder.finish(5000001);
    EXPECT_EQ(readFile(m_own.path("stream.m3u8")), "#EXTM3U\n"
                                                   "#EXT-X-VERSION:3\n"
                                                   "#EXT-X-TARGETDURATION:3\n"
                                                   "#EXT-X-MEDIA-SEQUENCE:0\n"
                                                   "#EXT-X-PLAYLIST-TYPE:VOD\n"
                                                   "#EXTINF:2.000000,\n"
                                                   "stream-00001.ts\n"
                                                   "#EXTINF:2.080001,\n"
                                                   "stream-00002.ts\n"
                                                   "#EXTINF:0.920000,\n"
                                                   "stream-00003.ts\n"
                                                   "#EXT-X-ENDLIST\n");
    EXPECT_FALSE(fs::exists(m_own.path("stream.m3u8.new")));
}

TEST_F(HostSegmentFolder, AJumpIsADiscontinuityInTheList)
{
    SegmentFolder folder(m_own.path(), "stream", 2000, false, "");
    folder.jump(); // in front of everything it says nothing
    announce(folder, "a", 0, 2000000);
    folder.jump();
    announce(folder, "b", 60000000, 2000000);
    announce(folder, "c", 62000000, 0);
    folder.finish(63000000);
    const std::string list = readFile(m_own.path("stream.m3u8"));
    const std::string mark = "#EXT-X-DISCONTINUITY\n#EXTINF:2.000000,\nstream-00002.ts\n";
    EXPECT_NE(list.find(mark), std::string::npos) << list;
    EXPECT_EQ(list.find("DISCONTINUITY"), list.rfind("DISCONTINUITY"));
}

TEST_F(HostSegmentFolder, KeptStageFilesComeBackAfterTheStageRemovedThem)
{
    SegmentFolder folder(m_own.path(), "stream", 2000, true, "");
    announce(folder, "a", 0, 2000000);
    announce(folder, "b", 2000000, 0);
    folder.finish(3000000);
    EXPECT_TRUE(fs::exists(m_cache.path("a")));
    fs::remove(m_cache.path("a"));
    folder.restoreStageFiles();
    EXPECT_EQ(readFile(m_cache.path("a")), packets("a"));
    EXPECT_EQ(readFile(m_cache.path("b")), packets("b"));
    EXPECT_TRUE(fs::equivalent(m_cache.path("a"), m_own.path("stream-00001.ts")));
}

TEST_F(HostSegmentFolder, FileThatVanishedIsAnErrorThatNamesIt)
{
    SegmentFolder folder(m_own.path(), "stream", 2000, false, "");
    std::string path = m_cache.path("none.ts");
    try {
        folder.take(notice(path, 0, 1));
        FAIL();
    } catch (const HostError& error) {
        EXPECT_NE(std::string(error.what()).find("stream-00001.ts: No such file"),
                  std::string::npos)
            << error.what();
    }
}

TEST_F(HostSegmentFolder, FileThatEndsInMidPacketIsAnError)
{
    SegmentFolder folder(m_own.path(), "stream", 2000, false, "");
    std::string path = m_cache.path("a");
    for (const size_t size : {0, 187, 189}) {
        writeFile(path, std::string(size, 'a'));
        EXPECT_THROW(folder.take(notice(path, 0, 2000000)), HostError) << size;
    }
}

TEST_F(HostSegmentFolder, MissingLastSegmentIsAnError)
{
    SegmentFolder folder(m_own.path(), "stream", 2000, false, "");
    announce(folder, "a", 0, 2000000);
    EXPECT_THROW(folder.finish(3000000), HostError);
}

TEST_F(HostSegmentFolder, FileWithoutAFrameIsNoSegment)
{
    SegmentFolder folder(m_own.path(), "stream", 2000, false, "");
    announce(folder, "a", streamer::SamplePacket::NoTimestamp, 0);
    folder.finish(0);
    EXPECT_TRUE(folder.list().segments().empty());
    EXPECT_FALSE(fs::exists(m_own.path("stream.m3u8")));
}

TEST_F(HostSegmentFolder, NeverWritesOverTheMedium)
{
    const std::string medium = m_own.path("stream-00001.ts");
    writeFile(medium, "film");
    SegmentFolder folder(m_own.path(), "stream", 2000, false, medium);
    EXPECT_THROW(announce(folder, "a", 0, 2000000), HostError);
    EXPECT_EQ(readFile(medium), "film");
}

TEST_F(HostSegmentFolder, SizesAreThoseOfTheFiles)
{
    SegmentFolder folder(m_own.path(), "stream", 2000, false, "");
    announce(folder, "four", 0, 2000000);
    announce(folder, "eleven", 2000000, 0);
    EXPECT_EQ(folder.bytes(), 10U * 188);
}

} // namespace zel::host
