#include "buffers/CircularMemoryHistoryBuffer.h"
#include "tests/buffers/StreamBytes.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

using namespace zel::test;

namespace {

std::string readFrom(BufferHandle& handle, unsigned long long n)
{
    std::string bytes(n, '?');
    EXPECT_EQ(handle.read(bytes.data(), n), static_cast<long long>(n));
    return bytes;
}

} // namespace

TEST(MemoryBufferHandleTest, TheEndOfTheBlockIsALegalPlaceAndWhatLiesBeyondIsNot)
{
    MemoryBufferHandle handle(100);
    EXPECT_EQ(handle.seek(100), 100);
    EXPECT_EQ(handle.getOffset(), 100U);
    EXPECT_EQ(handle.seek(40), 40);
    EXPECT_EQ(handle.seek(101), -1);
    EXPECT_EQ(handle.getOffset(), 40U);
}

TEST(MemoryBufferHandleTest, CursorsMoveApartOnTheSameBytes)
{
    MemoryBufferHandle writer(10);
    EXPECT_EQ(writer.write("abcdef", 6), 6);
    MemoryBufferHandle reader(&writer);
    EXPECT_EQ(reader.getOffset(), 0U);
    EXPECT_EQ(readFrom(reader, 4), "abcd");
    EXPECT_EQ(reader.getOffset(), 4U);
    EXPECT_EQ(writer.getOffset(), 6U);
    EXPECT_EQ(writer.write("ghij", 4), 4);
    EXPECT_EQ(writer.getOffset(), 10U) << "it stays at the end until it is told to go to 0";
    EXPECT_EQ(readFrom(reader, 6), "efghij");
}

TEST(MemoryBufferHandleTest, MovingTheWholeBlockLeavesTheCursorWhereItWas)
{
    MemoryBufferHandle writer(4);
    EXPECT_EQ(writer.write("abcd", 4), 4);
    EXPECT_EQ(writer.getOffset(), 0U);
    EXPECT_EQ(readFrom(writer, 4), "abcd");
    EXPECT_EQ(writer.getOffset(), 0U);
}

TEST(MemoryBufferHandleTest, ASecondCloseDoesNothingAndAllElseFails)
{
    MemoryBufferHandle writer(4);
    MemoryBufferHandle reader(&writer);
    reader.close();
    reader.close();
    char byte = 'x';
    EXPECT_EQ(reader.read(&byte, 1), -1);
    EXPECT_EQ(writer.write(&byte, 1), 1) << "only the one who made the block ends it";
    writer.close();
    writer.close();
    EXPECT_EQ(writer.write(&byte, 1), -1);
    EXPECT_EQ(writer.read(&byte, 1), -1);
    EXPECT_EQ(writer.seek(0), -1);
}

TEST(MemoryBufferHandleTest, ABlockOfNoBytesTakesNone)
{
    MemoryBufferHandle handle(0ULL);
    char byte = 'x';
    EXPECT_EQ(handle.write(&byte, 1), -1);
    EXPECT_EQ(handle.seek(0), 0);
}

TEST(CircularMemoryHistoryBufferTest, CreateLogsBothSizes)
{
    const LogCapture log;
    const std::unique_ptr<CircularMemoryHistoryBuffer> buffer(
        CircularMemoryHistoryBuffer::create(10485760, 2097152));
    EXPECT_TRUE(log.contains("CircularMemoryHistoryBuffer 10485760 / 2097152"));
    EXPECT_EQ(buffer->getBufferSize(), 10485760U);
    EXPECT_EQ(buffer->getReader()->getPath(), "");
}

TEST(CircularMemoryHistoryBufferTest, ABufferWithoutStorageHasNoReaders)
{
    const LogCapture log;
    CircularMemoryHistoryBuffer buffer(100, 20);
    buffer.release();
    EXPECT_EQ(buffer.getReader(), nullptr);
    EXPECT_FALSE(log.contains("m_handle creation failed")) << "a released buffer does not even try";
    buffer.reset();
    EXPECT_FALSE(buffer.isReleased());
    EXPECT_EQ(buffer.getReader(), nullptr);
    EXPECT_TRUE(log.contains(
        "CircularHistoryBufferReader::CircularHistoryBufferReader m_handle creation failed"));
    // Neither does it keep a writer that would wait for storage to come back.
    EXPECT_EQ(writeStream(buffer, 0, 500, true), 0);
}

TEST(CircularMemoryHistoryBufferTest, ABufferOfNoBytesStoresNone)
{
    CircularMemoryHistoryBuffer buffer(0, 0);
    CircularHistoryBufferReader* reader = buffer.getReader();
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(buffer.availableToWrite(), 0U);
    EXPECT_EQ(writeStream(buffer, 0, 10), 0);
    EXPECT_TRUE(readBytes(*reader, 10).empty());
    EXPECT_FALSE(reader->seek(0));
}
