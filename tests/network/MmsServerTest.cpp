// The MMS server against clients that know nothing of it: ffmpeg's own for the protocol, curl for
// the bytes.

#include "tests/support/MmsServer.h"
#include "tests/support/MediaReference.h"
#include "tests/support/MmsChunks.h"
#include "tests/support/RunProgram.h"
#include "tests/support/TestFolders.h"

#include <algorithm>
#include <future>
#include <set>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

using namespace zel::test;

namespace {

// Exit codes of curl.
constexpr int PartialBody = 18;
constexpr int HttpError = 22;
constexpr int ReceiveError = 56;

std::string clip(const std::string& name)
{
    return mediaFolder() + "/" + name;
}

AsfFile movie()
{
    return AsfFile::read(clip("wmv2_wma2.asf"));
}

/// Head and body of an answer as curl writes them.
struct Answer
{
    int exitCode = -1;
    std::string head;
    std::string body;

    bool says(const std::string& line) const
    {
        return head.find(line + "\r\n") != std::string::npos;
    }
};

Answer curl(const MmsServer& server, const std::vector<std::string>& pragmas,
            const std::vector<std::string>& words = {})
{
    std::vector<std::string> all = {"curl", "--silent", "--include", "--noproxy", "*"};
    for (const std::string& pragma : pragmas) {
        all.insert(all.end(), {"-H", "Pragma: " + pragma});
    }
    all.insert(all.end(), words.begin(), words.end());
    all.push_back(server.url());
    const ProgramResult result = runProgram(all);
    const std::size_t end = std::min(result.out.find("\r\n\r\n"), result.out.size());
    const std::size_t body = std::min(end + 4, result.out.size());
    return {result.exitCode, result.out.substr(0, body), result.out.substr(body)};
}

Answer play(const MmsServer& server, const std::string& where = "stream-time=0,stream-offset=0:0")
{
    return curl(server, {"no-cache," + where + ",request-context=1", "xPlayStrm=1"});
}

/// "HDDM...E", and what the payloads of header and data make together.
struct Content
{
    std::string types;
    std::string medium;
    std::vector<std::uint32_t> locations; ///< of data chunks
    std::string rest;                     ///< of the body, no whole chunk
};

Content contentOf(std::string body)
{
    Content content;
    for (const mms::Chunk& chunk : mms::takeChunks(body)) {
        content.types += static_cast<char>(chunk.type >> 8);
        if (chunk.type != mms::HeaderType && chunk.type != mms::DataType) {
            continue;
        }
        content.medium += chunk.data.substr(mms::LocationBytes);
        if (chunk.type == mms::DataType) {
            content.locations.push_back(static_cast<unsigned char>(chunk.data.at(0)) |
                                        static_cast<unsigned char>(chunk.data.at(1)) << 8);
        }
    }
    content.rest = body;
    return content;
}

/// The types of the chunks of a play with this many packets.
std::string typesOf(std::size_t packets, const std::string& end = "E")
{
    return "H" + std::string(packets, 'D') + end;
}

/// Stream header and packets as they stand in the file.
std::string mediumFrom(const AsfFile& file, std::size_t first, std::size_t end)
{
    std::string bytes = file.streamHeader();
    for (std::size_t i = first; i < end; ++i) {
        bytes += file.packet(i);
    }
    return bytes;
}

/// One line a packet, with times and a digest of its bytes, as ffmpeg demuxes them.
std::vector<std::string> packetLines(const std::string& input,
                                     const std::vector<std::string>& inputWords = {})
{
    std::vector<std::string> words = {"ffmpeg", "-v", "error", "-nostdin", "-copyts"};
    words.insert(words.end(), inputWords.begin(), inputWords.end());
    words.insert(words.end(), {"-i", input, "-map", "0", "-c", "copy", "-f", "framemd5", "-"});
    const ProgramResult result = runProgram(words);
    if (!result.succeeded() || !result.err.empty()) {
        throw std::runtime_error(result.describe() + result.err);
    }
    std::vector<std::string> lines;
    std::istringstream text(result.out);
    for (std::string line; std::getline(text, line);) {
        if (!line.starts_with('#')) {
            lines.push_back(line);
        }
    }
    return lines;
}

/// The times of those of one stream.
std::vector<long long> timesOf(const std::vector<std::string>& lines, const std::string& stream)
{
    std::vector<long long> times;
    for (const std::string& line : lines) {
        if (line.starts_with(stream + ",")) {
            times.push_back(std::stoll(line.substr(line.find(',') + 1)));
        }
    }
    return times;
}

} // namespace

TEST(AsfFile, FindsPacketsWhereFfprobeDoes)
{
    for (const char* name : {"wmv2_wma2.asf", "wmv1_wma1.wmv", "wma2.wma"}) {
        const AsfFile file = AsfFile::read(clip(name));
        const std::size_t head = file.header().size() + file.dataHead().size();
        std::set<std::size_t> found;
        for (std::size_t i = 0; i < file.packetCount(); ++i) {
            if (file.packets()[i].hasKeyFrame) {
                found.insert(head + i * file.packetSize());
            }
        }
        const bool hasVideo = file.streams().front().isVideo;
        const ProgramResult probe =
            runProgram({"ffprobe", "-v", "error", "-select_streams", hasVideo ? "v" : "a",
                        "-show_entries", "packet=pos,flags", "-of", "csv=p=0", clip(name)});
        std::set<std::size_t> expected;
        std::istringstream lines(probe.out);
        for (std::string line; std::getline(lines, line);) {
            if (line.find(",K") != std::string::npos) {
                expected.insert(std::stoul(line));
            }
        }
        EXPECT_FALSE(expected.empty()) << name;
        EXPECT_EQ(found, expected) << name;
    }
}

TEST(AsfFile, TellsStreamsAndTimes)
{
    const AsfFile file = movie();
    ASSERT_EQ(file.streams().size(), 2U);
    EXPECT_TRUE(file.streams()[0].isVideo);
    EXPECT_TRUE(file.streams()[1].isAudio);
    EXPECT_NE(file.streams()[0].number, file.streams()[1].number);

    const auto probed = probeMedium(clip("wmv2_wma2.asf"));
    ASSERT_TRUE(probed.has_value());
    int64_t endMs = 0; // of the last frame; the streams count milliseconds
    for (const ProbedPacket& packet : probed->packets) {
        endMs = std::max(endMs, packet.pts.value_or(0) + packet.duration);
    }
    EXPECT_EQ(static_cast<int64_t>(file.durationMs()), endMs);
    std::uint32_t before = 0;
    for (const AsfPacket& packet : file.packets()) {
        EXPECT_GE(packet.sendTimeMs, before);
        before = packet.sendTimeMs;
    }
    EXPECT_LE(before, file.durationMs());
    EXPECT_GT(before + 1000, file.durationMs());
}

TEST(AsfFile, PaddingIsTheZerosAtAPacketsEnd)
{
    const AsfFile file = movie();
    std::size_t paddedPackets = 0;
    for (std::size_t i = 0; i < file.packetCount(); ++i) {
        const std::size_t padding = file.packets()[i].paddingBytes;
        paddedPackets += padding > 0 ? 1 : 0;
        const std::string_view bytes = file.packet(i);
        EXPECT_EQ(bytes.substr(bytes.size() - padding), std::string(padding, '\0')) << i;
    }
    EXPECT_GT(paddedPackets, 0U);
}

TEST(AsfFile, FindsTheLastKeyPacketAtATime)
{
    const AsfFile file = movie();
    EXPECT_EQ(file.keyPacketAt(0), 0U);
    std::size_t last = 0;
    for (std::size_t i = 0; i < file.packetCount(); ++i) {
        if (!file.packets()[i].hasKeyFrame || file.packets()[i].sendTimeMs == 0) {
            continue;
        }
        EXPECT_EQ(file.keyPacketAt(file.packets()[i].sendTimeMs - 1), last);
        EXPECT_EQ(file.keyPacketAt(file.packets()[i].sendTimeMs), i);
        last = i;
    }
    EXPECT_GT(last, 0U);
    EXPECT_EQ(file.keyPacketAt(1000000000), last);
}

TEST(AsfFile, RefusesWhatIsNoWholeFile)
{
    EXPECT_THROW(AsfFile::read(clip("header_wmv2_wma2.asf")), std::runtime_error);
    EXPECT_THROW(AsfFile::read(clip("half_wmv2_wma2.asf")), std::runtime_error);
    EXPECT_THROW(AsfFile::read(clip("mp3_cbr.mp3")), std::runtime_error);
    EXPECT_THROW(AsfFile::read(clip("there_is_no_such.asf")), std::runtime_error);
}

TEST(MmsChunks, StandOnTheWireAsTheirBytes)
{
    using namespace std::string_literals;
    EXPECT_EQ(mms::chunk(mms::ResetType, "abcd"), "$C\4\0abcd"s);
    EXPECT_EQ(mms::headerChunks("abc", 7), "$H\x0b\0\0\0\0\0\x07\x0c\x0b\0abc"s);
    EXPECT_EQ(mms::dataChunk(0x1234, "ab", 7), "$D\x0a\0\x34\x12\0\0\x07\x34\x0a\0ab"s);
    EXPECT_EQ(mms::metadataChunk({{"k", "v"}, {"a", ""}}),
              "$M\x0f\0\0\0\0\0\0\0\x0f\0k\0v\0a\0\0"s);
    EXPECT_EQ(mms::endChunk(), "$E\4\0\0\0\0\0"s);
    EXPECT_THROW(mms::chunk(mms::DataType, std::string(65536, 'x')), std::length_error);
}

TEST(MmsChunks, LongHeaderGoesIntoSeveral)
{
    const std::string header(65527 + 100, 'x');
    std::string bytes = mms::headerChunks(header) + "$";
    const auto chunks = mms::takeChunks(bytes);
    ASSERT_EQ(chunks.size(), 2U);
    EXPECT_EQ(chunks[0].data.size(), 65535U);
    EXPECT_EQ(chunks[1].data.size(), 108U);
    EXPECT_EQ(chunks[0].data[5], 4);
    EXPECT_EQ(chunks[1].data[0], 1);
    EXPECT_EQ(chunks[1].data[5], 8);
    EXPECT_EQ(bytes, "$");
}

TEST(MmsServerPlay, GivesFfmpegEveryPacketOfTheFile)
{
    for (const char* name : {"wmv2_wma2.asf", "wmv1_wma1.wmv", "wma2.wma"}) {
        const auto expected = packetLines(clip(name));
        ASSERT_FALSE(expected.empty());
        for (const bool stripPadding : {true, false}) {
            MmsServer server(AsfFile::read(clip(name)), {.stripPadding = stripPadding});
            EXPECT_EQ(packetLines(server.url("mmsh")), expected) << name << stripPadding;
            server.http().waitUntilIdle();
            const auto plays = server.plays();
            ASSERT_EQ(plays.size(), 1U);
            EXPECT_EQ(plays[0].packetsSent, server.file().packetCount());
            EXPECT_TRUE(plays[0].ended);
            EXPECT_EQ(server.http().requests().size(), 2U); // a describe comes first
        }
    }
}

TEST(MmsServerPlay, GivesFfmpegTheSameInOddPieces)
{
    const auto expected = packetLines(clip("wmv2_wma2.asf"));
    MmsServer server(movie(), {.pieces = {1, 2, 3, 700, 1, 1460, 5}});
    EXPECT_EQ(packetLines(server.url("mmsh")), expected);
}

TEST(MmsServerPlay, SendsFfmpegToTheKeyFrameBeforeATime)
{
    const auto all = packetLines(clip("wmv2_wma2.asf"));
    MmsServer server(movie());
    const auto lines = packetLines(server.url("mmsh"), {"-ss", "3.5"});
    const auto plays = server.plays();
    ASSERT_GE(plays.size(), 2U);
    EXPECT_EQ(plays.back().timeMs, 3500U);
    EXPECT_EQ(plays.back().firstPacket, server.file().keyPacketAt(3500));
    EXPECT_GT(plays.back().firstPacket, 0U);

    // A key frame a second, the fourth of which begins at 3046 ms. Once ffmpeg's demuxer has
    // sought, it leaves the frame that ends in the last packet, which has come all the same.
    const std::vector<long long> times = timesOf(lines, "0");
    std::vector<long long> expected = timesOf(all, "0");
    std::erase_if(expected, [](long long time) { return time < 3046; });
    ASSERT_GE(times.size() + 1, expected.size());
    ASSERT_LE(times.size(), expected.size());
    expected.resize(times.size());
    EXPECT_EQ(times, expected);
    for (const std::string& line : lines) {
        EXPECT_NE(std::find(all.begin(), all.end(), line), all.end()) << line;
    }
}

TEST(MmsServer, DescribesTheStreamWithoutPlayingIt)
{
    MmsServer server(movie());
    const Answer answer = curl(server, {"no-cache,stream-time=0,stream-offset=0:0"});
    EXPECT_EQ(answer.exitCode, 0);
    EXPECT_TRUE(answer.says("Content-Type: application/vnd.ms.wms-hdr.asfv1"));
    EXPECT_TRUE(answer.head.find("Supported: com.microsoft.wm.") != std::string::npos);
    EXPECT_TRUE(answer.body == mms::headerChunks(server.file().streamHeader()));
    EXPECT_TRUE(server.plays().empty());
}

TEST(MmsServer, PlaysTheFileByteForByteWithItsPadding)
{
    MmsServer server(movie(), {.stripPadding = false});
    const Answer answer = play(server);
    EXPECT_EQ(answer.exitCode, 0);
    EXPECT_TRUE(answer.head.starts_with("HTTP/1.0 200 OK\r\n"));
    EXPECT_TRUE(answer.says("Content-Type: application/x-mms-framed"));
    EXPECT_TRUE(answer.says("Pragma: no-cache, client-id=3141592653, "
                            "features=\"seekable,stridable\""));
    EXPECT_TRUE(answer.says("Supported: com.microsoft.wm.srvppair, com.microsoft.wm.sswitch, "
                            "com.microsoft.wm.predstrm, com.microsoft.wm.startupprofile"));
    EXPECT_EQ(answer.head.find("Content-Length"), std::string::npos);
    const Content content = contentOf(answer.body);
    const std::size_t count = server.file().packetCount();
    EXPECT_EQ(content.types, typesOf(count));
    EXPECT_TRUE(content.medium == mediumFrom(server.file(), 0, count));
    EXPECT_TRUE(content.rest.empty());
}

TEST(MmsServer, LeavesOutNothingButPadding)
{
    MmsServer server(movie());
    std::string body = play(server).body;
    const auto chunks = mms::takeChunks(body);
    const AsfFile& file = server.file();
    ASSERT_EQ(chunks.size(), file.packetCount() + 2);
    std::size_t shorter = 0;
    for (std::size_t i = 0; i < file.packetCount(); ++i) {
        std::string packet = chunks[i + 1].data.substr(mms::LocationBytes);
        EXPECT_EQ(packet.size(), file.packetSize() - file.packets()[i].paddingBytes);
        shorter += packet.size() < file.packetSize() ? 1 : 0;
        packet.resize(file.packetSize(), '\0');
        EXPECT_TRUE(packet == file.packet(i)) << i;
    }
    EXPECT_GT(shorter, 0U);
}

TEST(MmsServer, BeginsAtTheAskedTime)
{
    MmsServer server(movie());
    const std::size_t first = server.file().keyPacketAt(4500);
    ASSERT_GT(first, 0U);
    const Content content = contentOf(play(server, "stream-time=4500,stream-offset=0:0").body);
    EXPECT_EQ(content.types, typesOf(server.file().packetCount() - first));
    EXPECT_EQ(content.locations.front(), first);
    EXPECT_EQ(server.plays().at(0).timeMs, 4500U);
    EXPECT_EQ(server.plays().at(0).byteOffset, std::nullopt);
}

TEST(MmsServer, BeginsAtThePacketThatHoldsTheAskedByte)
{
    MmsServer server(movie());
    const std::size_t size = server.file().packetSize();
    const std::size_t count = server.file().packetCount();
    const auto firstOf = [&](std::size_t byte) {
        const std::string offset = "stream-offset=4294967295:" + std::to_string(byte);
        const Content content = contentOf(play(server, "stream-time=0," + offset).body);
        EXPECT_EQ(server.plays().back().byteOffset, byte);
        EXPECT_EQ(content.types, typesOf(content.locations.size()));
        return content.locations.empty() ? count : content.locations.front();
    };
    EXPECT_EQ(firstOf(size * 10), 10U);
    EXPECT_EQ(firstOf(size * 11 - 1), 10U);
    EXPECT_EQ(firstOf(size * 11), 11U);
    EXPECT_EQ(firstOf(size * count - 1), count - 1);
    EXPECT_EQ(firstOf(size * count), count);
    EXPECT_EQ(firstOf(1), 0U);
}

TEST(MmsServer, BroadcastAlwaysBeginsAtItsBeginning)
{
    MmsServer server(movie(), {.broadcast = true});
    const Answer answer = play(server, "stream-time=4500,stream-offset=0:0");
    EXPECT_NE(answer.head.find("features=\"broadcast\""), std::string::npos);
    EXPECT_EQ(answer.head.find("seekable"), std::string::npos);
    const Content content = contentOf(answer.body);
    EXPECT_EQ(content.types, typesOf(server.file().packetCount()));
    EXPECT_EQ(content.locations.front(), 0U);
}

TEST(MmsServer, BroadcastHasNoDurationForFfprobe)
{
    MmsServer server(movie(), {.broadcast = true});
    const ProgramResult probe =
        runProgram({"ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0",
                    server.url("mmsh")});
    EXPECT_EQ(probe.out, "N/A\n");
    MmsServer other(movie());
    const ProgramResult seekable =
        runProgram({"ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0",
                    other.url("mmsh")});
    EXPECT_GT(std::stod(seekable.out), 5.0);
}

TEST(MmsServer, SendsChunksInFrontOfTheirPackets)
{
    const AsfFile file = movie();
    const std::string metadata = mms::metadataChunk({{"title", "one"}});
    MmsServer server(file, {.chunks = {{0, metadata},
                                       {2, metadata},
                                       {2, mms::chunk(mms::ResetType, "abcd")},
                                       {file.packetCount(), metadata}}});
    const Answer answer = play(server);
    EXPECT_EQ(contentOf(answer.body).types,
              "HMDDMC" + std::string(file.packetCount() - 2, 'D') + "ME");
    EXPECT_NE(answer.body.find(metadata), std::string::npos);
}

TEST(MmsServer, TellsTheLengthOfItsBody)
{
    const std::string metadata = mms::metadataChunk({{"title", "one"}});
    MmsServer server(movie(), {.tellLength = true, .chunks = {{3, metadata}}});
    for (const char* where : {"stream-time=0", "stream-time=4500"}) {
        const Answer answer = play(server, where);
        EXPECT_EQ(answer.exitCode, 0);
        EXPECT_TRUE(answer.says("Content-Length: " + std::to_string(answer.body.size())));
        EXPECT_EQ(contentOf(answer.body).types.back(), 'E');
    }
}

TEST(MmsServer, SaysWhatItsAnswersAreTold)
{
    MmsServer server(movie(), {.headers = {{"Zel-Stream-Duration", "6000"}},
                               .supported = "",
                               .pragma = "features=\"x\""});
    const Answer answer = play(server);
    EXPECT_TRUE(answer.says("Zel-Stream-Duration: 6000"));
    EXPECT_TRUE(answer.says("Pragma: features=\"x\""));
    EXPECT_EQ(answer.head.find("Supported"), std::string::npos);
}

TEST(MmsServer, DescribesInsteadOfPlayingWhenTold)
{
    MmsServer server(movie(), {.describeOnly = true});
    const Answer answer = play(server);
    EXPECT_TRUE(answer.says("Content-Type: application/vnd.ms.wms-hdr.asfv1"));
    EXPECT_EQ(contentOf(answer.body).types, "H");
}

TEST(MmsServer, EndsTheFirstPlaysEarly)
{
    MmsServer server(movie(),
                     {.faults = {MmsFault::closeBehindPackets(5), MmsFault::closeBehindBytes(40000),
                                 MmsFault::closeBehindPackets(0)}});
    const Answer five = play(server);
    EXPECT_EQ(five.exitCode, 0); // without a length the end is the end
    EXPECT_EQ(contentOf(five.body).types, typesOf(5, ""));
    EXPECT_EQ(contentOf(five.body).rest, "");
    EXPECT_EQ(play(server).body.size(), 40000U);
    EXPECT_EQ(contentOf(play(server).body).types, "H");
    EXPECT_EQ(contentOf(play(server).body).types, typesOf(server.file().packetCount()));

    const auto plays = server.plays();
    ASSERT_EQ(plays.size(), 4U);
    EXPECT_EQ(plays[0].packetsSent, 5U);
    EXPECT_FALSE(plays[0].ended);
    EXPECT_EQ(plays[2].packetsSent, 0U);
    EXPECT_TRUE(plays[3].ended);
}

TEST(MmsServer, BreakInAPlayWithLengthIsSeen)
{
    MmsServer server(movie(), {.tellLength = true, .faults = {MmsFault::closeBehindPackets(5)}});
    EXPECT_EQ(play(server).exitCode, PartialBody);
}

TEST(MmsServer, ResetsThePlaysThatAreToBreak)
{
    MmsServer server(
        movie(), {.faults = {MmsFault::resetBehindPackets(3), MmsFault::resetBehindBytes(20000)}});
    EXPECT_EQ(play(server).exitCode, ReceiveError);
    EXPECT_EQ(play(server).exitCode, ReceiveError);
    EXPECT_EQ(play(server).exitCode, 0);
}

TEST(MmsServer, RefusesToComeBack)
{
    MmsServer server(movie(), {.faults = {MmsFault::closeBehindPackets(5)},
                               .laterFault = MmsFault::refuse(503)});
    EXPECT_EQ(contentOf(play(server).body).types, typesOf(5, ""));
    for (int i = 0; i < 2; ++i) {
        const Answer answer = curl(server, {"xPlayStrm=1"}, {"--fail"});
        EXPECT_EQ(answer.exitCode, HttpError);
        EXPECT_TRUE(answer.head.starts_with("HTTP/1.1 503 "));
    }
    EXPECT_EQ(server.plays().size(), 3U);
}

TEST(MmsServer, StallsUntilItMayGoOn)
{
    MmsServer server(movie(), {.stalls = {{7, "seven"}, {9, "nine"}}});
    auto answer = std::async(std::launch::async, [&] { return play(server); });
    server.waitForStall("seven");
    EXPECT_EQ(server.plays().at(0).packetsSent, 7U);
    server.goOn("seven");
    server.waitForStall("nine");
    EXPECT_EQ(server.plays().at(0).packetsSent, 9U);
    server.goOn("nine");
    EXPECT_EQ(contentOf(answer.get().body).types, typesOf(server.file().packetCount()));
}

TEST(MmsServer, AnswersTheRequestsThatKeepAConnectionAlive)
{
    MmsServer server(movie());
    const Answer answer = curl(server, {"xKeepAliveInPause=1"}, {"--data", ""});
    EXPECT_EQ(answer.exitCode, 0);
    EXPECT_TRUE(answer.head.starts_with("HTTP/1.1 200 OK\r\n"));
    EXPECT_TRUE(answer.says("Content-Length: 0"));
    EXPECT_TRUE(server.plays().empty());
}
