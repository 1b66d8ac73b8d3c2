#include "encoder/FLVHeader.h"

#include "tests/encoder/OutputSession.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using namespace std::string_literals;
using zel::test::OutputSession;

namespace {

using Entries = std::vector<std::pair<std::string, double>>;

/// What a muxer writes: 13 bytes, then something that nobody wants.
std::string muxerHeader()
{
    return "FLV\x01\x00\x00\x00\x00\x09\x00\x00\x00\x00"s + "the muxer's own tag"s;
}

/// A session as it is when the header is written, with raw input of both kinds.
struct HeaderSession
{
    explicit HeaderSession(bool audio = true, bool video = true)
    {
        session.inputAudio("raw");
        session.inputVideo("raw");
        session.requestAudio("mp3", 128000, 2, 44100);
        session.requestVideo("flv", 500000);
        session.request.video.width = 320;
        session.request.video.height = 240;
        session.request.output.video = session.request.video;
        session.requestFormat("flv");
        session.request.output.bitrate = 628500;
        session.request.output.audioPresent = audio;
        session.request.output.videoPresent = video;
        profile = session.profile();
    }

    /// @return the bytes; empty without a result
    std::string process(std::string input = muxerHeader()) const
    {
        FLVHeader header;
        header.m_input = reinterpret_cast<unsigned char*>(input.data());
        header.m_inputSize = static_cast<int>(input.size());
        header.m_profile = profile.get();
        header.process();
        const std::unique_ptr<unsigned char[]> output(header.m_output);
        EXPECT_EQ(output != nullptr, header.m_outputSize > 0);
        return output ? std::string(reinterpret_cast<char*>(output.get()),
                                    static_cast<std::size_t>(header.m_outputSize))
                      : std::string();
    }

    OutputSession session;
    std::unique_ptr<FFMpegStreamingProfile> profile;
};

/// Reads big-endian values one behind the other.
class ByteReader
{
public:
    explicit ByteReader(std::string bytes) : m_bytes(std::move(bytes)) {}

    std::uint64_t number(int count)
    {
        std::uint64_t value = 0;
        for (int i = 0; i < count; ++i) {
            value = value << 8 | static_cast<unsigned char>(m_bytes.at(m_position++));
        }
        return value;
    }

    std::string text(std::size_t length)
    {
        std::string result = m_bytes.substr(m_position, length);
        m_position += length;
        return result;
    }

    std::size_t position() const { return m_position; }

private:
    std::string m_bytes;
    std::size_t m_position = 0;
};

/// What a player finds in the header; all sizes and counts in it are checked on the way.
struct ParsedHeader
{
    unsigned flags = 0;
    std::uint64_t dataSize = 0;
    std::uint64_t count = 0;
    Entries entries;

    explicit ParsedHeader(const std::string& bytes)
    {
        ByteReader reader(bytes);
        EXPECT_EQ(reader.text(4), "FLV\x01");
        flags = static_cast<unsigned>(reader.number(1));
        EXPECT_EQ(reader.number(4), 9U);
        EXPECT_EQ(reader.number(4), 0U);

        EXPECT_EQ(reader.number(1), 0x12U);
        dataSize = reader.number(3);
        EXPECT_EQ(reader.number(3), 0U) << "time stamp";
        EXPECT_EQ(reader.number(1), 0U) << "its upper byte";
        EXPECT_EQ(reader.number(3), 0U) << "stream";
        EXPECT_EQ(reader.number(1), 2U);
        EXPECT_EQ(reader.number(2), 10U);
        EXPECT_EQ(reader.text(10), "onMetaData");
        EXPECT_EQ(reader.number(1), 8U);
        count = reader.number(4);
        for (std::uint64_t i = 0; i < count && reader.position() < bytes.size(); ++i) {
            const std::string name = reader.text(reader.number(2));
            EXPECT_EQ(reader.number(1), 0U) << name;
            entries.emplace_back(name, std::bit_cast<double>(reader.number(8)));
        }
        EXPECT_EQ(reader.position(), 13 + 11 + dataSize) << "no end marker";
        EXPECT_EQ(reader.number(4), dataSize + 11);
        EXPECT_EQ(reader.position(), bytes.size());
    }

    /// @return -1 when there is no such entry
    double value(const std::string& name) const
    {
        for (const auto& [key, number] : entries) {
            if (key == name) {
                return number;
            }
        }
        return -1;
    }
};

} // namespace

TEST(FLVHeader, WholeHeaderByteForByte)
{
    HeaderSession header;
    header.session.medium.durationMs = 60000;
    header.session.medium.fileSize = 10000000;
    const std::string expected =
        "FLV\x01\x05\x00\x00\x00\x09\x00\x00\x00\x00"s  // both streams
        "\x12\x00\x01\x26\x00\x00\x00\x00\x00\x00\x00"s // 294 bytes of data
        "\x02\x00\x0aonMetaData"s                       //
        "\x08\x00\x00\x00\x0d"s                         // 13 entries
        "\x00\x08"s
        "duration"s                             //
        "\x00\x40\x4e\x00\x00\x00\x00\x00\x00"s // 60.0
        "\x00\x09"s
        "starttime"s                            //
        "\x00\x3f\x1a\x36\xe2\xeb\x1c\x43\x2d"s // 0.0001
        "\x00\x0d"s
        "totalduration"s                        //
        "\x00\x40\x4e\x00\x00\x00\x00\x00\x00"s // 60.0
        "\x00\x05"s
        "width"s                                //
        "\x00\x40\x74\x00\x00\x00\x00\x00\x00"s // 320.0
        "\x00\x06"s
        "height"s                               //
        "\x00\x40\x6e\x00\x00\x00\x00\x00\x00"s // 240.0
        "\x00\x0d"s
        "videodatarate"s                        //
        "\x00\x40\x7f\x40\x00\x00\x00\x00\x00"s // 500.0
        "\x00\x0c"s
        "videocodecid"s                         //
        "\x00\x40\x00\x00\x00\x00\x00\x00\x00"s // 2.0
        "\x00\x0d"s
        "audiodatarate"s                        //
        "\x00\x40\x60\x00\x00\x00\x00\x00\x00"s // 128.0
        "\x00\x0c"s
        "audiocodecid"s                         //
        "\x00\x40\x00\x00\x00\x00\x00\x00\x00"s // 2.0
        "\x00\x0d"s
        "totaldatarate"s                        //
        "\x00\x40\x83\xa4\x00\x00\x00\x00\x00"s // 628.5
        "\x00\x09"s
        "framerate"s                            //
        "\x00\x40\x39\x00\x00\x00\x00\x00\x00"s // 25.0
        "\x00\x0a"s
        "audiodelay"s                           //
        "\x00\x00\x00\x00\x00\x00\x00\x00\x00"s // 0.0
        "\x00\x0a"s
        "bytelength"s                           //
        "\x00\x41\x63\x12\xd0\x00\x00\x00\x00"s // 10000000.0
        "\x00\x00\x01\x31"s;                    // 305
    const std::string result = header.process();
    EXPECT_EQ(result.size(), 322U);
    EXPECT_EQ(result, expected);
}

TEST(FLVHeader, BothStreamsWithDurationTake13Entries)
{
    HeaderSession header;
    header.session.medium.durationMs = 1234567;
    header.session.medium.fileSize = 5;
    const std::string bytes = header.process();
    EXPECT_EQ(bytes.size(), 322U);
    const ParsedHeader parsed(bytes);
    EXPECT_EQ(parsed.flags, 5U);
    EXPECT_EQ(parsed.count, 13U);
    EXPECT_EQ(parsed.dataSize, 294U);
    const Entries expected = {
        {"duration", 1234.567},   {"starttime", 0.0001},    {"totalduration", 1234.567},
        {"width", 320.0},         {"height", 240.0},        {"videodatarate", 500.0},
        {"videocodecid", 2.0},    {"audiodatarate", 128.0}, {"audiocodecid", 2.0},
        {"totaldatarate", 628.5}, {"framerate", 25.0},      {"audiodelay", 0.0},
        {"bytelength", 5.0}};
    EXPECT_EQ(parsed.entries, expected);
}

TEST(FLVHeader, AudioAloneWithoutDurationTakes7Entries)
{
    const HeaderSession header(true, false);
    const ParsedHeader parsed(header.process());
    EXPECT_EQ(parsed.flags, 4U);
    EXPECT_EQ(parsed.count, 7U);
    EXPECT_EQ(parsed.dataSize, 175U);
    const Entries expected = {{"starttime", 0.0001},    {"videodatarate", 0.0},
                              {"audiodatarate", 128.0}, {"audiocodecid", 2.0},
                              {"totaldatarate", 628.5}, {"audiodelay", 0.0},
                              {"bytelength", 0.0}};
    EXPECT_EQ(parsed.entries, expected);
}

TEST(FLVHeader, VideoAloneHasNoAudioCodec)
{
    const HeaderSession header(false, true);
    const ParsedHeader parsed(header.process());
    EXPECT_EQ(parsed.flags, 1U);
    EXPECT_EQ(parsed.count, 10U);
    EXPECT_EQ(parsed.dataSize, 228U);
    const Entries expected = {{"starttime", 0.0001},    {"width", 320.0},
                              {"height", 240.0},        {"videodatarate", 500.0},
                              {"videocodecid", 2.0},    {"audiodatarate", 0.0},
                              {"totaldatarate", 628.5}, {"framerate", 25.0},
                              {"audiodelay", 0.0},      {"bytelength", 0.0}};
    EXPECT_EQ(parsed.entries, expected);
}

TEST(FLVHeader, NoStreamTakes6Entries)
{
    const HeaderSession header(false, false);
    const ParsedHeader parsed(header.process());
    EXPECT_EQ(parsed.flags, 0U);
    EXPECT_EQ(parsed.count, 6U);
    EXPECT_EQ(parsed.dataSize, 152U);
}

TEST(FLVHeader, StreamsCountOnlyWhenTheInputHasThemToo)
{
    HeaderSession header;
    header.session.input.stream.audioPresent = false;
    EXPECT_EQ(ParsedHeader(header.process()).flags, 1U);
    header.session.input.stream.videoPresent = false;
    EXPECT_EQ(ParsedHeader(header.process()).flags, 0U);
    header.session.input.stream.audioPresent = true;
    EXPECT_EQ(ParsedHeader(header.process()).flags, 4U);
}

TEST(FLVHeader, MuxersFlagsAreCorrectedInItsOwnBytes)
{
    const HeaderSession header(true, false);
    std::string input = muxerHeader();
    input[4] = '\x7f';
    FLVHeader flv;
    flv.m_input = reinterpret_cast<unsigned char*>(input.data());
    flv.m_inputSize = static_cast<int>(input.size());
    flv.m_profile = header.profile.get();
    flv.process();
    const std::unique_ptr<unsigned char[]> output(flv.m_output);
    ASSERT_NE(output, nullptr);
    EXPECT_EQ(input[4], '\x04');
    EXPECT_EQ(output[4], 4);
    EXPECT_EQ(input.substr(5), muxerHeader().substr(5));
}

TEST(FLVHeader, FirstThirteenBytesSurviveAndNoMore)
{
    const HeaderSession header;
    std::string input = "FLVabcdefghij"s + std::string(500, '\xff');
    const std::string bytes = header.process(input);
    EXPECT_EQ(bytes.substr(0, 13), "FLVa\x05"s + "cdefghij"s);
    EXPECT_EQ(bytes.size(), 13U + 11 + 251 + 4);
    EXPECT_EQ(bytes.substr(13), header.process().substr(13));
}

TEST(FLVHeader, InputOfThirteenBytesIsEnough)
{
    const HeaderSession header;
    EXPECT_EQ(header.process(muxerHeader().substr(0, 13)), header.process());
}

TEST(FLVHeader, VideoCodecNumbersAreFlvsAndVp6s)
{
    HeaderSession header;
    const auto idOf = [&header](const char* codec) {
        header.session.video().codec = codec;
        return ParsedHeader(header.process()).value("videocodecid");
    };
    EXPECT_EQ(idOf("flv"), 2.0);
    EXPECT_EQ(idOf("vp6"), 4.0);
    EXPECT_EQ(idOf("FLV"), 500.0) << "letter case counts";
    EXPECT_EQ(idOf("vp6f"), 500.0);
    EXPECT_EQ(idOf(""), 500.0);
}

TEST(FLVHeader, OtherVideoCodecsRepeatTheDataRate)
{
    HeaderSession header;
    header.session.video().codec = "h264Empty";
    const ParsedHeader parsed(header.process());
    EXPECT_EQ(parsed.value("videodatarate"), 500.0);
    EXPECT_EQ(parsed.value("videocodecid"), 500.0);
}

TEST(FLVHeader, AudioCodecNumberIsTwoForLameOnly)
{
    HeaderSession header;
    const auto idOf = [&header](const char* codec) {
        header.session.audio().codec = codec;
        return ParsedHeader(header.process()).value("audiocodecid");
    };
    EXPECT_EQ(idOf("libmp3lame"), 2.0);
    EXPECT_EQ(idOf("LibMp3Lame"), 0.0);
    EXPECT_EQ(idOf("mp3"), 0.0);
    EXPECT_EQ(idOf("aac"), 0.0);
}

TEST(FLVHeader, RatesKeepTheirFractions)
{
    HeaderSession header;
    header.session.audio().bitrate = 64001;
    header.session.video().bitrate = 1;
    header.session.video().frameRate = 30000.0 / 1001;
    header.session.request.output.bitrate = 2147483647;
    const ParsedHeader parsed(header.process());
    EXPECT_EQ(parsed.value("audiodatarate"), 64.001);
    EXPECT_EQ(parsed.value("videodatarate"), 0.001);
    EXPECT_EQ(parsed.value("framerate"), 30000.0 / 1001);
    EXPECT_EQ(parsed.value("totaldatarate"), 2147483.647);
}

TEST(FLVHeader, FileSizeIsNotDivided)
{
    HeaderSession header;
    header.session.medium.fileSize = 10000000;
    EXPECT_EQ(ParsedHeader(header.process()).value("bytelength"), 10000000.0);
    header.session.medium.fileSize = 5000000000ULL;
    EXPECT_EQ(ParsedHeader(header.process()).value("bytelength"), 5000000000.0);
}

TEST(FLVHeader, DurationOfZeroIsLeftOut)
{
    HeaderSession header;
    header.session.medium.durationMs = 0;
    EXPECT_EQ(ParsedHeader(header.process()).count, 11U);
    header.session.medium.durationMs = 1;
    const ParsedHeader parsed(header.process());
    EXPECT_EQ(parsed.count, 13U);
    EXPECT_EQ(parsed.value("duration"), 0.001);
    EXPECT_EQ(parsed.value("totalduration"), 0.001);
}

TEST(FLVHeader, InputOfTwoBytesGivesNoResult)
{
    const HeaderSession header;
    EXPECT_EQ(header.process("FL"), "");
}

TEST(FLVHeader, InputThatIsNoFlvHeaderGivesNoResult)
{
    const HeaderSession header;
    for (const std::string& input :
         {""s, "FLV"s, "FLV\x01\x05"s, muxerHeader().substr(0, 12),
          "flv"s + muxerHeader().substr(3), "RIFF0000AVI LIST"s, " "s + muxerHeader()}) {
        EXPECT_EQ(header.process(input), "") << input.size();
    }
}

TEST(FLVHeader, MissingInputOrProfileGivesNoResult)
{
    FLVHeader flv;
    flv.m_inputSize = 100;
    flv.process();
    EXPECT_EQ(flv.m_output, nullptr);
    EXPECT_EQ(flv.m_outputSize, 0);

    std::string input = muxerHeader();
    flv.m_input = reinterpret_cast<unsigned char*>(input.data());
    flv.m_inputSize = static_cast<int>(input.size());
    flv.process();
    EXPECT_EQ(flv.m_output, nullptr);
    EXPECT_EQ(input, muxerHeader());
}

TEST(FLVHeader, MissingMediumCountsAsUnknown)
{
    HeaderSession header;
    header.profile.reset(FFMpegStreamingProfile::createProfile(
        nullptr, nullptr, &header.session.input, &header.session.request));
    const ParsedHeader parsed(header.process());
    EXPECT_EQ(parsed.count, 11U);
    EXPECT_EQ(parsed.value("bytelength"), 0.0);
}

TEST(FLVHeader, TagAloneAnswersItsLength)
{
    const HeaderSession header;
    FLVHeader flv;
    flv.m_profile = header.profile.get();
    std::array<unsigned char, 400> tag = {};
    const int length = flv.writeFLVHeader(tag.data(), static_cast<int>(tag.size()));
    EXPECT_EQ(length, 266);
    const std::string bytes(reinterpret_cast<char*>(tag.data()), static_cast<std::size_t>(length));
    EXPECT_EQ(bytes, header.process().substr(13));
    EXPECT_EQ(tag.at(static_cast<std::size_t>(length)), 0) << "nothing behind it";
}
