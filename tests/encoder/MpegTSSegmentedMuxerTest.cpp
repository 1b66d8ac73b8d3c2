#include "encoder/MpegTSSegmentedMuxer.h"

#include "common/utils/CRegistry.h"
#include "tests/encoder/ContainerBytes.h"
#include "tests/encoder/MadeUpMedium.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <unistd.h>

/// The muxer that writes files, by what a stage delivers and what stands in the folder.

using namespace zel::test;
namespace PacketType = zel::streamer::PacketType;
namespace fs = std::filesystem;

namespace {

constexpr unsigned long long SecondUs = 1000000;
constexpr unsigned long long NoTimestamp = zel::streamer::SamplePacket::NoTimestamp;
constexpr const char* CacheSection = "Software\\Tamrix Labs\\Zel\\ZelStreamer";

/// A folder for temporary data of the test's own, and a session with the number 7.
class MpegTSSegmentedMuxerTest : public testing::Test
{
protected:
    MpegTSSegmentedMuxerTest() : m_cache(m_folder.path() + "/ZelStreamCache")
    {
        segment(m_session, "mpeg2", "mp2");
    }

    static void segment(OutputSession& session, const char* video, const char* audio)
    {
        copyMadeUp(session, "mpegts", video, audio);
        session.options.set("MpegTSMethod", "segmented");
        session.options.set("sessionID", "7");
    }

    static void makeFallback(OutputSession& session)
    {
        session.options.set("fallbackStream", "1");
        session.options.set("lowVideoBitrate", "32000");
        session.request.audio.bitrate = 32000;
        session.request.output.audio.bitrate = 32000;
    }

    static void keepFiles(int value)
    {
        ASSERT_TRUE(
            CRegistry::getInstance()->WriteSettingImpl(CacheSection, "KeepCacheFiles", value));
    }

    /// Names in the folder of the segments, in their order.
    std::vector<std::string> files() const
    {
        std::vector<std::string> names;
        if (fs::is_directory(m_cache)) {
            for (const fs::directory_entry& entry : fs::directory_iterator(m_cache)) {
                names.push_back(entry.path().filename());
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    std::string pathOf(const std::string& name) const { return m_cache + "/" + name; }

    LogCapture m_log{LOGLEVEL_WARN};
    TempFolder m_folder;
    ScopedVariable m_tmpDir{"TMPDIR", m_folder.path()};
    std::string m_cache;
    OutputSession m_session;
};

using Names = std::vector<std::string>;

/// Made-up pictures in a file, all of which is one stream or two.
std::size_t picturesIn(const std::string& path)
{
    const std::string bytes =
        elementaryBytes(tsPackets(readFile(path)), FirstStreamPid + 1); // audio is the first stream
    EXPECT_EQ(bytes, std::string(bytes.size(), 'v')) << path;
    return bytes.size() / 50;
}

/// Made-up audio packets in a file of audio alone.
std::size_t soundsIn(const std::string& path)
{
    const std::string bytes = elementaryBytes(tsPackets(readFile(path)), FirstStreamPid);
    EXPECT_EQ(bytes, std::string(bytes.size(), 'a')) << path;
    return bytes.size() / 30;
}

/// A soft limit to the size of files, for as long as it lives.
class ScopedFileSizeLimit
{
public:
    explicit ScopedFileSizeLimit(rlim_t bytes)
    {
        m_signal = std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_former);
        const rlimit limit{bytes, m_former.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~ScopedFileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &m_former);
        std::signal(SIGXFSZ, m_signal);
    }
    ScopedFileSizeLimit(const ScopedFileSizeLimit&) = delete;
    ScopedFileSizeLimit& operator=(const ScopedFileSizeLimit&) = delete;

private:
    rlimit m_former{};
    void (*m_signal)(int) = SIG_DFL;
};

/// Hears of the files that are removed from a folder.
class RemovalWatch
{
public:
    explicit RemovalWatch(const std::string& folder) : m_inotify(inotify_init1(IN_NONBLOCK))
    {
        inotify_add_watch(m_inotify, folder.c_str(), IN_DELETE);
    }
    ~RemovalWatch() { close(m_inotify); }
    RemovalWatch(const RemovalWatch&) = delete;
    RemovalWatch& operator=(const RemovalWatch&) = delete;

    /// In the order of their removal.
    Names removed() const
    {
        alignas(inotify_event) char buffer[65536];
        const ssize_t size = read(m_inotify, buffer, sizeof buffer);
        Names names;
        for (ssize_t at = 0; at < size;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            names.emplace_back(event->name);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
        return names;
    }

private:
    int m_inotify;
};

} // namespace

TEST_F(MpegTSSegmentedMuxerTest, HeaderGoesToFileZeroAndTheFirstPacketToFileOne)
{
    StageRun run(m_session);
    ASSERT_NE(run.startResult(), 0);
    EXPECT_EQ(files(), (Names{"segment-7-0.ts"}));
    writeMadeUp(run.stage(), 0, SecondUs);
    EXPECT_EQ(files(), (Names{"segment-7-0.ts", "segment-7-1.ts"}));
    const auto packets = run.finish();
    ASSERT_EQ(notices(packets).size(), 1U);
    EXPECT_EQ(notices(packets)[0].bytes, pathOf("segment-7-1.ts"));
    EXPECT_TRUE(deliveredOf(packets, PacketType::Multiplexed).empty());
    EXPECT_EQ(fs::file_size(pathOf("segment-7-0.ts")), 0U);
    EXPECT_GT(fs::file_size(pathOf("segment-7-1.ts")), 25U * 188U);
}

TEST_F(MpegTSSegmentedMuxerTest, HostIsToldTheBasePath)
{
    StageRun run(m_session);
    zel::host::OutputStreamRecord out;
    run.stage().getOutputStreamDescription(&out);
    EXPECT_STREQ(out.properties.get("basePath"), pathOf("segment-7").c_str());
}

TEST_F(MpegTSSegmentedMuxerTest, FilesOfAFallbackSessionCarryItsRate)
{
    makeFallback(m_session);
    StageRun run(m_session);
    writeMadeUp(run.stage(), 0, SecondUs);
    EXPECT_EQ(files(), (Names{"segment-7-0-low-64000.ts", "segment-7-1-low-64000.ts"}));
    const auto packets = notices(run.finish());
    ASSERT_EQ(packets.size(), 1U);
    EXPECT_EQ(packets[0].bytes, pathOf("segment-7-1-low-64000.ts"));
}

TEST_F(MpegTSSegmentedMuxerTest, SessionAndItsFallbackShareTheFolder)
{
    OutputSession low;
    segment(low, "mpeg2", "mp2");
    makeFallback(low);
    StageRun run(m_session);
    {
        StageRun lowRun(low);
        writeMadeUp(run.stage(), 0, 2 * SecondUs);
        writeMadeUp(lowRun.stage(), 0, SecondUs);
        run.write(cutAt(2 * SecondUs));
        writeMadeUp(run.stage(), 2 * SecondUs, 3 * SecondUs);
        const auto lowPackets = notices(lowRun.finish());
        ASSERT_EQ(lowPackets.size(), 1U);
        EXPECT_EQ(lowPackets[0].bytes, pathOf("segment-7-1-low-64000.ts"));
        EXPECT_EQ(picturesIn(lowPackets[0].bytes), 25U);
        EXPECT_EQ(files(), (Names{"segment-7-0-low-64000.ts", "segment-7-0.ts",
                                  "segment-7-1-low-64000.ts", "segment-7-1.ts", "segment-7-2.ts"}));
    }
    // The end of the one leaves the other alone.
    EXPECT_EQ(files(), (Names{"segment-7-0-low-64000.ts", "segment-7-0.ts", "segment-7-1.ts",
                              "segment-7-2.ts"}));
    const auto packets = notices(run.finish());
    ASSERT_EQ(packets.size(), 2U);
    EXPECT_EQ(picturesIn(packets[0].bytes), 50U);
    EXPECT_EQ(picturesIn(packets[1].bytes), 25U);
}

TEST_F(MpegTSSegmentedMuxerTest, CutsWhereTheHostAsks)
{
    StageRun run(m_session);
    run.write(cutAt(3 * SecondUs + 10000));
    writeMadeUp(run.stage(), SecondUs, 5 * SecondUs);
    const auto packets = run.finish();
    const auto told = notices(packets);
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[0].bytes, pathOf("segment-7-1.ts"));
    EXPECT_EQ(told[0].timestampUs, SecondUs);
    EXPECT_EQ(told[0].durationUs, 2 * SecondUs + MadeUpFrameUs);
    EXPECT_TRUE(told[0].keyFrame);
    EXPECT_EQ(told[1].bytes, pathOf("segment-7-2.ts"));
    EXPECT_EQ(told[1].timestampUs, 3 * SecondUs + MadeUpFrameUs);
    EXPECT_EQ(told[1].durationUs, 0U);
    EXPECT_TRUE(told[1].keyFrame);
    EXPECT_EQ(picturesIn(told[0].bytes), 51U);
    EXPECT_EQ(picturesIn(told[1].bytes), 49U);
    // The request itself goes no further.
    for (const Delivered& packet : deliveredOf(packets, PacketType::Metadata)) {
        EXPECT_EQ(packet.action(), "ADD_KEYFRAME");
    }
}

TEST_F(MpegTSSegmentedMuxerTest, CutThatIsAskedForTooLateComesWithTheNextPicture)
{
    StageRun run(m_session);
    writeMadeUp(run.stage(), 0, 4 * SecondUs);
    run.write(cutAt(2 * SecondUs));
    writeMadeUp(run.stage(), 4 * SecondUs, 5 * SecondUs);
    const auto told = notices(run.finish());
    ASSERT_EQ(told.size(), 2U);
    // The last picture still waits for audio when the request comes.
    EXPECT_NEAR(static_cast<double>(told[0].durationUs), 4.0 * SecondUs, MadeUpFrameUs);
    EXPECT_EQ(told[1].timestampUs, told[0].timestampUs + told[0].durationUs);
}

TEST_F(MpegTSSegmentedMuxerTest, EachRequestCutsOnce)
{
    StageRun run(m_session);
    run.write(cutAt(SecondUs));
    writeMadeUp(run.stage(), 0, 3 * SecondUs);
    run.write(cutAt(3 * SecondUs));
    writeMadeUp(run.stage(), 3 * SecondUs, 20 * SecondUs);
    const auto told = notices(run.finish());
    ASSERT_EQ(told.size(), 3U);
    EXPECT_EQ(told[1].timestampUs, SecondUs);
    EXPECT_EQ(told[2].timestampUs, 3 * SecondUs);
    EXPECT_EQ(told[2].bytes, pathOf("segment-7-3.ts"));
}

TEST_F(MpegTSSegmentedMuxerTest, WithVideoAndNoRequestThereIsOneFile)
{
    StageRun run(m_session);
    writeMadeUp(run.stage(), 0, 25 * SecondUs);
    const auto told = notices(run.finish());
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].timestampUs, 0U);
    EXPECT_EQ(told[0].durationUs, 0U);
    EXPECT_EQ(picturesIn(told[0].bytes), 625U);
}

TEST_F(MpegTSSegmentedMuxerTest, AudioDoesNotCutBesideVideo)
{
    StageRun run(m_session, StageRun::Reader::TheTest);
    run.write(madeUpVideo(0, true));
    run.write(cutAt(100000));
    for (unsigned long long n = 0; n < 20; ++n) {
        run.write(madeUpAudio(n * MadeUpAudioUs));
    }
    run.write(madeUpVideo(500000));
    EXPECT_TRUE(notices(run.soFar()).empty());
    run.write(madeUpAudio(500000));
    const auto told = notices(run.soFar());
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].durationUs, 500000U);
}

TEST_F(MpegTSSegmentedMuxerTest, AudioAloneIsCutByDuration)
{
    struct Case
    {
        const char* clipDuration; ///< milliseconds; null for none
        unsigned long long expectedUs;
    };
    const Case cases[] = {{"5000", 5 * SecondUs},
                          {nullptr, 10 * SecondUs},
                          {"0", 10 * SecondUs},
                          {"-3", 10 * SecondUs},
                          {"nonsense", 10 * SecondUs}};
    for (const Case& expected : cases) {
        SCOPED_TRACE(expected.clipDuration != nullptr ? expected.clipDuration : "none");
        OutputSession session;
        segment(session, "", "mp2");
        if (expected.clipDuration != nullptr) {
            session.options.set("clipDuration", expected.clipDuration);
        }
        StageRun run(session);
        for (unsigned long long n = 0; n < 1300; ++n) {
            run.write(madeUpAudio(SecondUs + n * MadeUpAudioUs));
        }
        const auto told = notices(run.finish());
        ASSERT_EQ(told.size(), 1300 * MadeUpAudioUs / expected.expectedUs + 1);
        unsigned long long startUs = SecondUs;
        for (std::size_t i = 0; i + 1 < told.size(); ++i) {
            EXPECT_EQ(told[i].timestampUs, startUs);
            EXPECT_GE(told[i].durationUs, expected.expectedUs);
            EXPECT_LT(told[i].durationUs, expected.expectedUs + MadeUpAudioUs);
            EXPECT_EQ(soundsIn(told[i].bytes), told[i].durationUs / MadeUpAudioUs);
            startUs += told[i].durationUs;
        }
        EXPECT_EQ(told.back().timestampUs, startUs);
        EXPECT_EQ(told.back().durationUs, 0U);
    }
}

TEST_F(MpegTSSegmentedMuxerTest, RequestDoesNotCutAudioAlone)
{
    OutputSession session;
    segment(session, "", "mp2");
    StageRun run(session);
    run.write(cutAt(SecondUs));
    for (unsigned long long n = 0; n < 400; ++n) {
        run.write(madeUpAudio(n * MadeUpAudioUs));
    }
    EXPECT_EQ(notices(run.finish()).size(), 1U);
}

TEST_F(MpegTSSegmentedMuxerTest, EndWithoutAPacketTellsOfFileZero)
{
    StageRun run(m_session);
    const auto packets = run.finish();
    ASSERT_EQ(packets.size(), 1U);
    EXPECT_EQ(packets[0].type, PacketType::Notice);
    EXPECT_EQ(packets[0].bytes, pathOf("segment-7-0.ts"));
    EXPECT_EQ(packets[0].timestampUs, NoTimestamp);
    EXPECT_EQ(packets[0].durationUs, 0U);
}

TEST_F(MpegTSSegmentedMuxerTest, LastNoticeIsTheLastPacketAheadOfTheEnd)
{
    StageRun run(m_session);
    writeMadeUp(run.stage(), 0, 3 * SecondUs);
    const auto packets = run.finish();
    ASSERT_FALSE(packets.empty());
    EXPECT_EQ(packets.back().type, PacketType::Notice);
}

TEST_F(MpegTSSegmentedMuxerTest, NoticeComesAheadOfTheAnnouncementOfTheNextFilesKeyFrame)
{
    StageRun run(m_session);
    run.write(cutAt(2 * SecondUs));
    writeMadeUp(run.stage(), 0, 3 * SecondUs, 50);
    const auto packets = run.finish();
    ASSERT_EQ(packets.size(), 3U);
    EXPECT_EQ(packets[0].type, PacketType::Notice);
    EXPECT_EQ(packets[1].action(), "ADD_KEYFRAME");
    EXPECT_EQ(packets[1].timestampUs, 2 * SecondUs);
}

TEST_F(MpegTSSegmentedMuxerTest, EveryFileBeginsWithTablesAndThePictureThatCut)
{
    StageRun run(m_session);
    for (unsigned long long second = 0; second < 10; ++second) {
        run.write(cutAt(second * SecondUs));
        writeMadeUp(run.stage(), second * SecondUs, (second + 1) * SecondUs);
    }
    const auto told = notices(run.finish());
    ASSERT_EQ(told.size(), 10U);
    for (const Delivered& notice : told) {
        const auto packets = tsPackets(readFile(notice.bytes));
        ASSERT_GT(packets.size(), 4U) << notice.bytes;
        EXPECT_EQ(packets[0].pid, DescriptionPid);
        EXPECT_EQ(packets[1].pid, TablePid);
        EXPECT_EQ(packets[2].pid, ProgramPid);
        EXPECT_EQ(packets[3].pid, FirstStreamPid + 1); // audio is the first stream
        EXPECT_TRUE(packets[3].beginsUnit);
        EXPECT_TRUE(packets[3].isRandomAccess);
    }
}

TEST_F(MpegTSSegmentedMuxerTest, AudioOfAnEarlierTimeDoesNotGetInFrontOfThePictureThatCut)
{
    // Encoded audio lies behind the samples that it is made of; here 30 ms.
    StageRun run(m_session);
    run.write(cutAt(2 * SecondUs));
    for (unsigned long long n = 0; n < 50; ++n) {
        const unsigned long long videoUs = SecondUs + n * MadeUpFrameUs;
        run.write(madeUpVideo(videoUs, n % 25 == 0));
        run.write(madeUpAudio(videoUs + 1000));
        run.write(madeUpAudio(videoUs - 30000));
    }
    const auto told = notices(run.finish());
    ASSERT_EQ(told.size(), 2U);
    const auto packets = tsPackets(readFile(told[1].bytes));
    ASSERT_GT(packets.size(), 3U);
    EXPECT_EQ(packets[3].pid, FirstStreamPid + 1);
    EXPECT_TRUE(packets[3].isRandomAccess);
}

TEST_F(MpegTSSegmentedMuxerTest, WarnsWhenAudioAndVideoLieApartAtACut)
{
    for (const unsigned long long distanceUs : {2 * MadeUpFrameUs, 2 * MadeUpFrameUs + 1}) {
        OutputSession session;
        segment(session, "mpeg2", "mp2");
        StageRun run(session);
        m_log.makeCurrent();
        m_log.clear();
        run.write(madeUpVideo(0, true));
        run.write(madeUpAudio(SecondUs - distanceUs));
        run.write(cutAt(SecondUs));
        run.write(madeUpVideo(SecondUs, true));
        run.finish();
        EXPECT_EQ(m_log.count("[MpegTSSegmentedMuxer::checkTSSegmentation] audio video diff is too "
                              "big: 80001 usec."),
                  distanceUs > 2 * MadeUpFrameUs ? 1 : 0);
    }
}

TEST_F(MpegTSSegmentedMuxerTest, FilesEndWithTheSessionButForFileZero)
{
    {
        StageRun run(m_session);
        run.write(cutAt(SecondUs));
        writeMadeUp(run.stage(), 0, 2 * SecondUs);
        run.finish();
        EXPECT_EQ(files(), (Names{"segment-7-0.ts", "segment-7-1.ts", "segment-7-2.ts"}));
    }
    EXPECT_EQ(files(), (Names{"segment-7-0.ts"}));
}

TEST_F(MpegTSSegmentedMuxerTest, FilesAreRemovedTheLastOneFirst)
{
    StageRun run(m_session);
    for (unsigned long long second = 0; second < 4; ++second) {
        run.write(cutAt(second * SecondUs));
        writeMadeUp(run.stage(), second * SecondUs, (second + 1) * SecondUs);
    }
    run.finish();
    const RemovalWatch watch(m_cache);
    run.stage().stop();
    EXPECT_EQ(watch.removed(),
              (Names{"segment-7-4.ts", "segment-7-3.ts", "segment-7-2.ts", "segment-7-1.ts"}));
}

TEST_F(MpegTSSegmentedMuxerTest, SettingKeepsTheFiles)
{
    for (const int value : {1, 0}) {
        keepFiles(value);
        {
            StageRun run(m_session);
            writeMadeUp(run.stage(), 0, SecondUs);
            run.finish();
        }
        EXPECT_EQ(files(), value != 0 ? (Names{"segment-7-0.ts", "segment-7-1.ts"})
                                      : (Names{"segment-7-0.ts"}));
    }
}

TEST_F(MpegTSSegmentedMuxerTest, StopWithoutAnEndEndsTheLastFileWhole)
{
    keepFiles(1);
    {
        StageRun run(m_session);
        writeMadeUp(run.stage(), 0, SecondUs);
        run.stage().stop();
    }
    const auto packets = tsPackets(readFile(pathOf("segment-7-1.ts")));
    EXPECT_GE(std::count_if(packets.begin(), packets.end(),
                            [](const TSPacket& packet) {
                                return packet.pid == FirstStreamPid + 1 && packet.beginsUnit;
                            }),
              24);
}

TEST_F(MpegTSSegmentedMuxerTest, FileNumberFollowsFromThePositionOfASeek)
{
    struct Case
    {
        unsigned long long positionMs;
        const char* clipDuration; ///< null for none
        const char* name;
    };
    const Case cases[] = {{25000, nullptr, "segment-7-2.ts"},
                          {20000, nullptr, "segment-7-2.ts"},
                          {19999, nullptr, "segment-7-1.ts"},
                          {5000, nullptr, "segment-7-0.ts"},
                          {0, nullptr, "segment-7-0.ts"},
                          {25000, "5000", "segment-7-5.ts"},
                          {~0ULL / 1000, nullptr, "segment-7-4294967295.ts"}};
    for (const Case& expected : cases) {
        SCOPED_TRACE(std::to_string(expected.positionMs));
        OutputSession session;
        segment(session, "mpeg2", "mp2");
        if (expected.clipDuration != nullptr) {
            session.options.set("clipDuration", expected.clipDuration);
        }
        StageRun run(session, StageRun::Reader::TheTest);
        writeMadeUp(run.stage(), 0, SecondUs);
        run.stage().resetPosition(expected.positionMs);
        const unsigned long long startUs = expected.positionMs * 1000;
        run.write(madeUpVideo(startUs, true));
        run.write(madeUpAudio(startUs));
        const auto told = notices(run.finish());
        ASSERT_EQ(told.size(), 1U);
        EXPECT_EQ(told[0].bytes, pathOf(expected.name));
        EXPECT_EQ(told[0].timestampUs, startUs);
    }
}

TEST_F(MpegTSSegmentedMuxerTest, NumbersGoOnFromThePositionOfASeek)
{
    StageRun run(m_session, StageRun::Reader::TheTest);
    writeMadeUp(run.stage(), 0, SecondUs);
    run.stage().resetPosition(25000);
    run.write(cutAt(26 * SecondUs));
    writeMadeUp(run.stage(), 25 * SecondUs + MadeUpFrameUs, 27 * SecondUs);
    const auto told = notices(run.finish());
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[0].bytes, pathOf("segment-7-2.ts"));
    // The position counts, not the first packet.
    EXPECT_EQ(told[0].timestampUs, 25 * SecondUs);
    EXPECT_EQ(told[0].durationUs, SecondUs);
    EXPECT_EQ(told[1].bytes, pathOf("segment-7-3.ts"));
}

TEST_F(MpegTSSegmentedMuxerTest, SeekRemovesTheFilesThatWereFinished)
{
    for (const int keep : {0, 1}) {
        keepFiles(keep);
        OutputSession session;
        segment(session, "mpeg2", "mp2");
        StageRun run(session);
        run.write(cutAt(SecondUs));
        writeMadeUp(run.stage(), 0, 2 * SecondUs);
        run.stage().resetPosition(45000);
        EXPECT_EQ(files(), keep != 0 ? (Names{"segment-7-0.ts", "segment-7-1.ts", "segment-7-2.ts"})
                                     : (Names{"segment-7-0.ts"}));
    }
}

TEST_F(MpegTSSegmentedMuxerTest, SeekToTheFirstSegmentWritesOverFileZero)
{
    StageRun run(m_session, StageRun::Reader::TheTest);
    writeMadeUp(run.stage(), 60 * SecondUs, 61 * SecondUs);
    run.stage().resetPosition(5000);
    writeMadeUp(run.stage(), 5 * SecondUs, 6 * SecondUs);
    const auto told = notices(run.finish());
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(picturesIn(told[0].bytes), 25U);
    EXPECT_EQ(files(), (Names{"segment-7-0.ts"}));
    run.stage().stop();
    EXPECT_EQ(files(), (Names{}));
}

TEST_F(MpegTSSegmentedMuxerTest, NextSessionWritesOverTheFilesOfTheLast)
{
    keepFiles(1);
    for (const unsigned long long seconds : {4ULL, 1ULL}) {
        StageRun run(m_session);
        writeMadeUp(run.stage(), 0, seconds * SecondUs);
        const auto told = notices(run.finish());
        ASSERT_EQ(told.size(), 1U);
        EXPECT_EQ(picturesIn(told[0].bytes), 25U * seconds);
    }
}

TEST_F(MpegTSSegmentedMuxerTest, FilesGoToTheFolderAboveWhenTheirOwnCannotBeMade)
{
    writeFile(m_cache, "in the way");
    StageRun run(m_session);
    writeMadeUp(run.stage(), 0, SecondUs);
    const auto told = notices(run.finish());
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].bytes, m_folder.path("segment-7-1.ts"));
    EXPECT_EQ(picturesIn(told[0].bytes), 25U);
}

TEST_F(MpegTSSegmentedMuxerTest, SetUpFailsWhenFileZeroCannotBeOpened)
{
    fs::create_directories(pathOf("segment-7-0.ts"));
    fs::permissions(m_cache, fs::perms::owner_all);
    {
        StageRun run(m_session);
        EXPECT_EQ(run.initResult(), -1);
    }
    const std::string text = m_log.fileText("FFMpegEncoder.log");
    EXPECT_NE(text.find("[MpegTSSegmentedMuxer::initIOContext] : could not open temp file"),
              std::string::npos);
}

TEST_F(MpegTSSegmentedMuxerTest, FolderThatVanishesIsLoggedAndTellsOfNoFile)
{
    {
        StageRun run(m_session);
        m_log.makeCurrent();
        fs::remove_all(m_cache);
        writeMadeUp(run.stage(), 0, SecondUs);
        EXPECT_EQ(m_log.count("[MpegTSSegmentedMuxer::muxSyncedPacket] : could not open temp file"),
                  1);
        EXPECT_GT(m_log.count("!m_outputContext || !m_outputContext->pb"), 20);
        EXPECT_TRUE(notices(run.finish()).empty());
    }
    StageRun run(m_session);
    writeMadeUp(run.stage(), 0, SecondUs);
    const auto told = notices(run.finish());
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(picturesIn(told[0].bytes), 25U);
}

TEST_F(MpegTSSegmentedMuxerTest, FolderThatVanishesAndComesBackIsUsedFromTheNextCutOn)
{
    StageRun run(m_session, StageRun::Reader::TheTest);
    fs::remove_all(m_cache);
    writeMadeUp(run.stage(), 0, SecondUs);
    fs::create_directory(m_cache);
    run.write(cutAt(SecondUs));
    writeMadeUp(run.stage(), SecondUs, 2 * SecondUs);
    const auto told = notices(run.finish());
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].bytes, pathOf("segment-7-2.ts"));
    EXPECT_EQ(told[0].timestampUs, SecondUs);
    EXPECT_EQ(picturesIn(told[0].bytes), 25U);
}

TEST_F(MpegTSSegmentedMuxerTest, CutThatFailsIsTriedAgainWithTheNextPicture)
{
    StageRun run(m_session);
    m_log.makeCurrent();
    fs::create_directory(pathOf("segment-7-2.ts"));
    run.write(cutAt(SecondUs));
    writeMadeUp(run.stage(), 0, 2 * SecondUs);
    const auto told = notices(run.finish());
    EXPECT_EQ(m_log.count("MpegTSSegmentedMuxer::checkTSSegmentation : could not open next temp "
                          "file!!!"),
              1);
    // The first file is told of once, and the picture that could not cut is lost.
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[0].bytes, pathOf("segment-7-1.ts"));
    EXPECT_EQ(told[0].durationUs, SecondUs);
    EXPECT_EQ(told[1].bytes, pathOf("segment-7-3.ts"));
    EXPECT_EQ(told[1].timestampUs, SecondUs + MadeUpFrameUs);
    EXPECT_EQ(picturesIn(told[1].bytes), 24U);
}

TEST_F(MpegTSSegmentedMuxerTest, FullDiskIsLoggedAndTheNextFileIsGoodAgain)
{
    StageRun run(m_session, StageRun::Reader::TheTest);
    m_log.makeCurrent();
    {
        const ScopedFileSizeLimit limit(300000);
        for (unsigned long long n = 0; n < 200; ++n) {
            run.write(madeUpVideo(n * MadeUpFrameUs, n == 0, std::string(5000, 'v')));
            run.write(madeUpAudio(n * MadeUpFrameUs));
        }
        EXPECT_GT(m_log.count("[BasicMuxer::_writeVideoPacket] : av_write_frame returned -27"), 50);
        run.write(cutAt(8 * SecondUs));
        writeMadeUp(run.stage(), 8 * SecondUs, 9 * SecondUs);
        EXPECT_EQ(m_log.count("segment-7-1.ts is not whole: -27"), 1);
    }
    const auto told = notices(run.finish());
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(fs::file_size(told[0].bytes), 300000U);
    EXPECT_EQ(picturesIn(told[1].bytes), 25U);
}

TEST_F(MpegTSSegmentedMuxerTest, DiskThatIsFullForTheLastBytesOnlyIsLogged)
{
    StageRun run(m_session, StageRun::Reader::TheTest);
    m_log.makeCurrent();
    const ScopedFileSizeLimit limit(5000);
    writeMadeUp(run.stage(), 0, 2 * SecondUs);
    EXPECT_EQ(notices(run.finish()).size(), 1U);
    EXPECT_EQ(m_log.count("[MpegTSSegmentedMuxer::closeFile]"), 1);
    EXPECT_EQ(m_log.count("segment-7-1.ts is not whole: -27"), 1);
}

TEST_F(MpegTSSegmentedMuxerTest, OutputThatIsNotMultiplexedHasNoFiles)
{
    m_session.request.output.multiplexed = false;
    StageRun run(m_session);
    EXPECT_EQ(run.initResult(), 0);
    writeMadeUp(run.stage(), 0, SecondUs);
    const auto packets = run.finish();
    EXPECT_EQ(deliveredOf(packets, PacketType::Video).size(), 25U);
    EXPECT_TRUE(notices(packets).empty());
    EXPECT_EQ(files(), (Names{}));
}

TEST_F(MpegTSSegmentedMuxerTest, PacketsBehindTheEndWriteNoFile)
{
    StageRun run(m_session, StageRun::Reader::TheTest);
    writeMadeUp(run.stage(), 0, SecondUs);
    run.finish();
    run.write(cutAt(SecondUs));
    writeMadeUp(run.stage(), SecondUs, 2 * SecondUs);
    EXPECT_TRUE(notices(run.finish()).empty());
}
