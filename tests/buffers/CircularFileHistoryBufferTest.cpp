#include "buffers/CircularFileHistoryBuffer.h"
#include "tests/buffers/StreamBytes.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <unistd.h>

using namespace zel::test;

namespace fs = std::filesystem;

namespace {

using FileRing = std::unique_ptr<CircularFileHistoryBuffer>;

/// TMPDIR is a folder of the test's own, without a slash at the end, as it mostly is.
class CircularFileHistoryBufferTest : public testing::Test
{
protected:
    std::string cached(const std::string& name) const
    {
        return m_folder.path("ZelStreamCache/" + name);
    }
    static FileRing makeRing(unsigned long long size, unsigned long long history)
    {
        return FileRing(CircularFileHistoryBuffer::create(size, history));
    }
    /// A file with the first bytes of the stream.
    std::string makeFile(unsigned long long size) const
    {
        const Bytes bytes = streamBytes(0, size);
        writeFile(m_folder.path("medium"), std::string(bytes.begin(), bytes.end()));
        return m_folder.path("medium");
    }

    TempFolder m_folder;
    ScopedVariable m_variable{"TMPDIR", m_folder.path()};
};

using FileBufferHandleTest = CircularFileHistoryBufferTest;

} // namespace

TEST_F(FileBufferHandleTest, CursorsShareTheFileAndKeepTheirPlaces)
{
    const CStdStr<char> path(m_folder.path("ring"));
    const boost::shared_ptr<FILE> file = FileBufferHandle::open(path, "wb+");
    FileBufferHandle writer(file, path, 10);
    FileBufferHandle reader(file, path, 10);
    char bytes[10] = {};
    EXPECT_EQ(writer.write("abcdef", 6), 6);
    EXPECT_EQ(reader.read(bytes, 4), 4);
    EXPECT_EQ(std::string(bytes, 4), "abcd");
    EXPECT_EQ(writer.write("gh", 2), 2);
    EXPECT_EQ(reader.read(bytes, 4), 4);
    EXPECT_EQ(std::string(bytes, 4), "efgh");
    EXPECT_EQ(reader.getOffset(), 8U);
    EXPECT_EQ(reader.read(bytes, 4), 0) << "nothing lies behind the end of the file";
    EXPECT_EQ(reader.seek(2), 2);
    EXPECT_EQ(reader.read(bytes, 1), 1);
    EXPECT_EQ(bytes[0], 'c');
    EXPECT_EQ(reader.getPath(), path);
}

TEST_F(FileBufferHandleTest, ASecondCloseDoesNothingAndAllElseFails)
{
    const CStdStr<char> path(m_folder.path("ring"));
    const boost::shared_ptr<FILE> file = FileBufferHandle::open(path, "wb+");
    FileBufferHandle handle(file, path, 10);
    handle.close();
    handle.close();
    char byte = 'x';
    EXPECT_EQ(handle.write(&byte, 1), -1);
    EXPECT_EQ(handle.read(&byte, 1), -1);
    EXPECT_EQ(handle.seek(0), -1);
    FileBufferHandle other(file, path, 10);
    EXPECT_EQ(other.write(&byte, 1), 1) << "the file is still the others'";
}

TEST_F(FileBufferHandleTest, AFileThatWasClosedForAllIsClosedOnce)
{
    const CStdStr<char> path(m_folder.path("ring"));
    boost::shared_ptr<FILE> file = FileBufferHandle::open(path, "wb+");
    FileBufferHandle handle(file, path, 10);
    char byte = 'x';
    EXPECT_EQ(handle.write(&byte, 1), 1);
    FileBufferHandle::closeForAll(file);
    FileBufferHandle::closeForAll(file);
    EXPECT_EQ(handle.write(&byte, 1), -1);
    EXPECT_EQ(handle.seek(0), -1);
    file.reset();
    handle.close();
}

TEST_F(FileBufferHandleTest, AWriteThatDoesNotReachTheFileFails)
{
    const boost::shared_ptr<FILE> full = FileBufferHandle::open("/dev/full", "rb+");
    ASSERT_NE(full, nullptr);
    FileBufferHandle handle(full, "/dev/full", 10);
    EXPECT_EQ(handle.write("abc", 3), -1);
    EXPECT_EQ(handle.getOffset(), 0U);
}

TEST_F(CircularFileHistoryBufferTest, ThereAreNoReadersBeforeThereIsAFile)
{
    const LogCapture log;
    CircularFileHistoryBuffer buffer(100, 20);
    EXPECT_EQ(buffer.getBufferReaderHandle(), nullptr);
    EXPECT_EQ(buffer.getReader(), nullptr);
    EXPECT_TRUE(log.contains(
        "CircularHistoryBufferReader::CircularHistoryBufferReader m_handle creation failed"));
    EXPECT_TRUE(buffer.createFromTemporaryFile());
    EXPECT_NE(buffer.getReader(), nullptr);
}

TEST_F(CircularFileHistoryBufferTest, ATemporaryFileTakesTheFirstFreeName)
{
    const LogCapture log;
    fs::create_directory(cached(""));
    fs::permissions(cached(""), fs::perms::owner_all);
    writeFile(cached("0.tmp"), "zero");
    // A name whose file is gone is free to look at, and yet taken.
    fs::create_symlink(m_folder.path("elsewhere"), cached("1.tmp"));
    const FileRing ring = makeRing(100, 20);
    ASSERT_NE(ring, nullptr);
    EXPECT_EQ(ring->getPath(), cached("2.tmp"));
    EXPECT_TRUE(log.contains("CircularFileHistoryBuffer::create file created " + cached("2.tmp")));
    EXPECT_EQ(readFile(cached("0.tmp")), "zero");
    EXPECT_FALSE(fs::exists(m_folder.path("elsewhere")));
}

TEST_F(CircularFileHistoryBufferTest, WithNamesZeroAndOneTakenTheFileIsNumberTwo)
{
    const FileRing first = makeRing(100, 20);
    const FileRing second = makeRing(100, 20);
    EXPECT_EQ(first->getPath(), cached("0.tmp"));
    EXPECT_EQ(second->getPath(), cached("1.tmp"));
    EXPECT_EQ(makeRing(100, 20)->getPath(), cached("2.tmp"));
}

TEST_F(CircularFileHistoryBufferTest, WithoutItsFolderTheFileLiesInTheTemporaryOne)
{
    writeFile(m_folder.path("ZelStreamCache"), "in the way");
    const FileRing ring = makeRing(100, 20);
    ASSERT_NE(ring, nullptr);
    EXPECT_EQ(ring->getPath(), m_folder.path("0.tmp"));
}

TEST_F(CircularFileHistoryBufferTest, TheTemporaryFileGrowsWithTheRingAndGoesWithTheBuffer)
{
    FileRing ring = makeRing(100, 20);
    const std::string path = ring->getPath();
    CircularHistoryBufferReader* reader = ring->getReader();
    EXPECT_EQ(reader->getPath(), path);
    EXPECT_EQ(fs::file_size(path), 0U);
    ASSERT_EQ(writeStream(*ring, 0, 70), 70);
    EXPECT_EQ(fs::file_size(path), 70U);
    EXPECT_EQ(readBytes(*reader, 70), streamBytes(0, 70));
    ASSERT_EQ(writeStream(*ring, 70, 70), 70);
    EXPECT_EQ(fs::file_size(path), 100U);
    EXPECT_EQ(readBytes(*reader, 100), streamBytes(70, 70));
    ring.reset();
    EXPECT_FALSE(fs::exists(path));
}

TEST_F(CircularFileHistoryBufferTest, AfterACloseReadersGetTheRest)
{
    const FileRing ring = makeRing(100, 20);
    CircularHistoryBufferReader* reader = ring->getReader();
    ASSERT_EQ(writeStream(*ring, 0, 70), 70);
    ring->close();
    EXPECT_TRUE(reader->hasReachedEOF());
    EXPECT_EQ(readBytes(*reader, 100), streamBytes(0, 70));
}

TEST_F(CircularFileHistoryBufferTest, AFileOpenedReadOnlyIsAFinishedBuffer)
{
    const FileRing ring(CircularFileHistoryBuffer::create(makeFile(1000), false));
    ASSERT_NE(ring, nullptr);
    CircularHistoryBufferReader* reader = ring->getReader();
    EXPECT_TRUE(reader->hasReachedEOF());
    EXPECT_EQ(reader->availableToRead(), 1000U);
    EXPECT_EQ(ring->getBufferSize(), 1000U);
    EXPECT_EQ(ring->getTotalBytesWritten(), 1000U);
    EXPECT_EQ(readBytes(*reader, 300), streamBytes(0, 300));
    EXPECT_TRUE(reader->seek(950));
    EXPECT_EQ(readBytes(*reader, 300), streamBytes(950, 50));
    EXPECT_EQ(reader->availableToRead(), 0U);
    EXPECT_TRUE(reader->seek(0)) << "all of it is history";
    EXPECT_EQ(readBytes(*reader, 1000), streamBytes(0, 1000));
    EXPECT_TRUE(reader->seek(1000));
    EXPECT_EQ(reader->availableToRead(), 0U);
}

TEST_F(CircularFileHistoryBufferTest, AWriteToAFileOpenedReadOnlyStoresNothing)
{
    const std::string path = makeFile(1000);
    const FileRing ring(CircularFileHistoryBuffer::create(path, false));
    EXPECT_EQ(writeStream(*ring, 0, 10), 0) << "there is no room";
    ring->flush();
    EXPECT_GT(ring->availableToWrite(), 0U);
    EXPECT_EQ(writeStream(*ring, 5000, 10), 0) << "the file takes nothing";
    EXPECT_EQ(writeStream(*ring, 5000, 5000, true), 0) << "nor does it keep a writer";
    EXPECT_EQ(ring->getTotalBytesWritten(), 0U);
    const Bytes bytes = streamBytes(0, 1000);
    EXPECT_EQ(readFile(path), std::string(bytes.begin(), bytes.end()));
}

TEST_F(CircularFileHistoryBufferTest, AFileOpenedForWritingIsNotAtItsEnd)
{
    const std::string path = makeFile(1000);
    const FileRing ring(CircularFileHistoryBuffer::create(path, true));
    EXPECT_FALSE(ring->getReader()->hasReachedEOF());
    ring->flush();
    EXPECT_EQ(writeStream(*ring, 7000, 10), 10);
    EXPECT_EQ(readFile(path).size(), 1000U);
}

TEST_F(CircularFileHistoryBufferTest, AnExistingFileStays)
{
    const std::string path = makeFile(10);
    FileRing ring(CircularFileHistoryBuffer::create(path, true));
    ring.reset();
    EXPECT_TRUE(fs::exists(path));
}

TEST_F(CircularFileHistoryBufferTest, WhatIsNoFileMakesNoBuffer)
{
    const LogCapture log;
    const std::string missing = m_folder.path("missing");
    EXPECT_EQ(CircularFileHistoryBuffer::create(missing, true), nullptr);
    EXPECT_TRUE(log.contains(
        "CircularFileHistoryBuffer::CircularFileHistoryBuffer handle creation failed " + missing));
    EXPECT_EQ(CircularFileHistoryBuffer::create(m_folder.path(), false), nullptr);
    EXPECT_FALSE(fs::exists(missing));
}

TEST_F(CircularFileHistoryBufferTest, AnEmptyFileIsAnEmptyBuffer)
{
    const FileRing ring(CircularFileHistoryBuffer::create(makeFile(0), false));
    ASSERT_NE(ring, nullptr);
    CircularHistoryBufferReader* reader = ring->getReader();
    EXPECT_EQ(reader->availableToRead(), 0U);
    EXPECT_TRUE(readBytes(*reader, 10).empty());
}

TEST_F(CircularFileHistoryBufferTest, ReopenGoesOnReadOnlyAndOldCursorsFail)
{
    const FileRing ring = makeRing(100, 20);
    CircularHistoryBufferReader* old = ring->getReader();
    ASSERT_EQ(writeStream(*ring, 0, 70), 70);
    EXPECT_TRUE(ring->reopen());
    EXPECT_TRUE(old->hasReachedEOF());
    unsigned long long size = 70;
    Bytes bytes(70);
    EXPECT_EQ(old->read(bytes.data(), size, 0, 0, false, 0), -1);
    EXPECT_EQ(readBytes(*ring->getReader(), 100), streamBytes(0, 70));
    EXPECT_EQ(writeStream(*ring, 70, 5), -1);
    ring->flush();
}

TEST_F(CircularFileHistoryBufferTest, ReopenWithoutTheFileFails)
{
    const LogCapture log;
    const FileRing ring = makeRing(100, 20);
    const std::string path = ring->getPath();
    fs::remove(path);
    EXPECT_FALSE(ring->reopen());
    EXPECT_TRUE(log.contains("[CircularFileHistoryBuffer::reopen] failed to open " + path));
}

TEST_F(CircularFileHistoryBufferTest, EndOfStreamAloneKeepsTheFile)
{
    const FileRing ring = makeRing(100, 20);
    ASSERT_EQ(writeStream(*ring, 0, 70), 70);
    ring->closeFIXMEBUG27009();
    CircularHistoryBufferReader* reader = ring->getReader();
    EXPECT_TRUE(reader->hasReachedEOF());
    EXPECT_EQ(readBytes(*reader, 100), streamBytes(0, 70));
    ring->close();
    // Now the buffer has no file to share any more.
    CircularHistoryBufferReader* late = ring->getReader();
    unsigned long long size = 70;
    Bytes bytes(70);
    EXPECT_EQ(late->read(bytes.data(), size, 0, 0, false, 0), -1);
}
