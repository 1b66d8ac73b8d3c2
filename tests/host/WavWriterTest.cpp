#include "host/WavWriter.h"
#include "host/HostError.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <string>

namespace zel::host {

namespace {

OutputStreamRecord stereo()
{
    OutputStreamRecord record;
    record.audio.setCodec("raw");
    record.audio.setSampleRate(8000);
    record.audio.setChannels(2);
    record.audio.setBitsPerSample(16);
    return record;
}

void take(WavWriter& writer, std::string bytes)
{
    Frame frame;
    frame.type = streamer::PacketType::Audio;
    frame.data = reinterpret_cast<unsigned char*>(bytes.data());
    frame.size = static_cast<unsigned int>(bytes.size());
    writer.take(frame);
}

constexpr size_t HeaderSize = 44;

} // namespace

TEST(WavWriter, FullFileIsFollowedByTheNextWithoutLoss)
{
    const test::TempFolder folder;
    WavWriter writer(folder.path("a.wav"), nullptr, 16);
    writer.describe(stereo());
    take(writer, "01234567");
    take(writer, "89ABCDEF");
    take(writer, "next");
    writer.finish();
    EXPECT_EQ(test::readFile(folder.path("a.wav")).substr(HeaderSize), "0123456789ABCDEF");
    EXPECT_EQ(test::readFile(folder.path("a-2.wav")).substr(HeaderSize), "next");
}

TEST(WavWriter, GrowingFileSaysThatItsSizeIsUnknown)
{
    const test::TempFolder folder;
    WavWriter writer(folder.path("a.wav"), nullptr);
    writer.describe(stereo());
    take(writer, std::string(1 << 20, 'x')); // more than a buffer holds
    const std::string unknown = "\xFF\xFF\xFF\xFF";
    EXPECT_EQ(test::readFile(folder.path("a.wav")).substr(4, 4), unknown);
    EXPECT_EQ(test::readFile(folder.path("a.wav")).substr(40, 4), unknown);
    writer.finish();
    EXPECT_EQ(test::readFile(folder.path("a.wav")).substr(40, 4), std::string("\0\0\x10\0", 4));
}

TEST(WavWriter, FileIsFinishedEvenWithoutFinish)
{
    const test::TempFolder folder;
    {
        WavWriter writer(folder.path("a.wav"), nullptr);
        writer.describe(stereo());
        take(writer, "abcd");
    }
    EXPECT_EQ(test::readFile(folder.path("a.wav")).substr(40, 4), std::string("\4\0\0\0", 4));
}

TEST(WavWriter, AudioWithoutAFormatIsRefused)
{
    const test::TempFolder folder;
    WavWriter writer(folder.path("a.wav"), nullptr);
    OutputStreamRecord record = stereo();
    record.audio.setChannels(0);
    EXPECT_THROW(writer.describe(record), HostError);
    EXPECT_THROW(writer.describe(OutputStreamRecord()), HostError);
}

} // namespace zel::host
