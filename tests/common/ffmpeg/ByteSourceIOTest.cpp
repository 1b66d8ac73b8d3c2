#include "common/ffmpeg/ByteSourceIO.h"

#include "tests/support/MemorySource.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/error.h>
}

#include <algorithm>
#include <cerrno>
#include <string>

using zel::av::ByteSourceIO;
using zel::test::MemorySource;

namespace {

constexpr int BufferBytes = 9400;

std::string numbered(std::size_t size)
{
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(i * 31 / 7);
    }
    return bytes;
}

ByteSourceIO::Seek seekOf(const MemorySource& /*source*/)
{
    return &MemorySource::seek;
}

std::string readAll(AVIOContext* context, int chunk)
{
    std::string all;
    std::string part(static_cast<std::size_t>(chunk), '\0');
    int count = 0;
    while ((count = avio_read(context, reinterpret_cast<unsigned char*>(part.data()), chunk)) > 0) {
        all.append(part, 0, static_cast<std::size_t>(count));
    }
    return all;
}

} // namespace

TEST(ByteSourceIO, YieldsTheBytesOfTheSource)
{
    MemorySource source(numbered(100003));
    const ByteSourceIO io(&MemorySource::read, seekOf(source), &source, BufferBytes);
    ASSERT_NE(io.context(), nullptr);
    EXPECT_TRUE(readAll(io.context(), 1000) == source.bytes);
}

TEST(ByteSourceIO, NeverAsksForMoreThanItsBufferHolds)
{
    MemorySource source(numbered(400000));
    const ByteSourceIO io(&MemorySource::read, seekOf(source), &source, BufferBytes);
    EXPECT_TRUE(readAll(io.context(), 100000) == source.bytes);
    ASSERT_FALSE(source.requests.empty());
    EXPECT_LE(*std::max_element(source.requests.begin(), source.requests.end()), BufferBytes);
    EXPECT_GE(source.requests.size(), 400000u / BufferBytes);
}

TEST(ByteSourceIO, AnswerOfZeroIsTheEndOfTheMedium)
{
    MemorySource source("abc");
    const ByteSourceIO io(&MemorySource::read, seekOf(source), &source, BufferBytes);
    unsigned char buffer[8] = {};
    EXPECT_EQ(avio_read(io.context(), buffer, 8), 3);
    EXPECT_EQ(avio_read(io.context(), buffer, 8), AVERROR_EOF);
    EXPECT_EQ(io.context()->error, 0);
}

TEST(ByteSourceIO, EndIsNotSticky)
{
    MemorySource source("abcdef");
    source.end = 3;
    const ByteSourceIO io(&MemorySource::read, seekOf(source), &source, BufferBytes);
    unsigned char buffer[8] = {};
    EXPECT_EQ(avio_read(io.context(), buffer, 8), 3);
    EXPECT_EQ(avio_read(io.context(), buffer, 8), AVERROR_EOF);
    source.end = SIZE_MAX;
    EXPECT_EQ(avio_feof(io.context()), 0); // asks again
    ASSERT_EQ(avio_read(io.context(), buffer, 8), 3);
    EXPECT_EQ(std::string(buffer, buffer + 3), "def");
}

TEST(ByteSourceIO, ErrorsPassUnchanged)
{
    for (const int error : {AVERROR(EAGAIN), AVERROR(EIO), AVERROR_EXIT}) {
        MemorySource source("abc");
        source.errorAt = 0;
        source.readError = error;
        const ByteSourceIO io(&MemorySource::read, seekOf(source), &source, BufferBytes);
        unsigned char buffer[8] = {};
        EXPECT_EQ(avio_read(io.context(), buffer, 8), error);
    }
}

TEST(ByteSourceIO, SourceThatTellsItsSizeIsSeekable)
{
    MemorySource source(numbered(50000));
    const ByteSourceIO io(&MemorySource::read, seekOf(source), &source, BufferBytes);
    EXPECT_EQ(source.sizeQuestions, 1);
    EXPECT_TRUE(source.seeks.empty());
    EXPECT_NE(io.context()->seekable & AVIO_SEEKABLE_NORMAL, 0);
    EXPECT_EQ(avio_size(io.context()), 50000);
    EXPECT_EQ(avio_seek(io.context(), 30000, SEEK_SET), 30000);
    EXPECT_TRUE(readAll(io.context(), 1000) == source.bytes.substr(30000));
}

TEST(ByteSourceIO, SourceThatCannotTellItsSizeIsNotSeekable)
{
    MemorySource source(numbered(50000));
    source.canTellSize = false;
    const ByteSourceIO io(&MemorySource::read, seekOf(source), &source, BufferBytes);
    EXPECT_EQ(source.sizeQuestions, 1);
    EXPECT_EQ(io.context()->seekable, 0);
}

TEST(ByteSourceIO, SourceWithoutSeekIsNotSeekable)
{
    MemorySource source(numbered(50000));
    const ByteSourceIO io(&MemorySource::read, nullptr, &source, BufferBytes);
    EXPECT_EQ(io.context()->seekable, 0);
    EXPECT_TRUE(readAll(io.context(), 1000) == source.bytes);
    EXPECT_LT(avio_seek(io.context(), 0, SEEK_SET), 0);
}

TEST(ByteSourceIO, AnswerOfTheSeekPassesUnchanged)
{
    MemorySource source(numbered(50000));
    const ByteSourceIO io(&MemorySource::read, seekOf(source), &source, BufferBytes);
    EXPECT_EQ(avio_seek(io.context(), 50001, SEEK_SET), -EINVAL);
    ASSERT_EQ(source.seeks.size(), 1u);
    EXPECT_EQ(source.seeks[0], std::pair(50001LL, SEEK_SET));
}
