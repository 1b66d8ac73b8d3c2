#pragma once

#include "buffers/CircularHistoryBuffer.h"
#include "buffers/CircularHistoryBufferReader.h"
#include "common/utils/StdString.h"

#include <boost/shared_ptr.hpp>
#include <cstdio>

/// A cursor on a file that it shares with others, and so its one file position with them.
class FileBufferHandle : public BufferHandle
{
public:
    /// @param size  of the ring
    FileBufferHandle(const boost::shared_ptr<FILE>& file, const CStdStr<char>& path,
                     unsigned long long size);
    ~FileBufferHandle() override;
    FileBufferHandle(const FileBufferHandle&) = delete;
    FileBufferHandle& operator=(const FileBufferHandle&) = delete;

    /// Lets go of the file, which the last one to do so closes.
    void close() override;
    long long seek(unsigned long long offset) override;
    /// @return what `fwrite` took, which is less than n on a file that cannot be written; -1 when
    ///         the bytes did not get through to the file
    long long write(const char* src, unsigned long long n) override;
    /// @return what there was, which is less than n at the end of the file
    long long read(char* dst, unsigned long long n) override;
    unsigned long long getOffset() override { return m_offset; }
    virtual CStdStr<char> getPath() { return m_path; }

    /// Opens a file for sharing. One owner may close it under all others, whose calls fail then.
    /// @return null on failure, with errno set
    static boost::shared_ptr<FILE> open(const CStdStr<char>& path, const char* mode);
    /// Closes a file of open() now, whoever shares it.
    static void closeForAll(const boost::shared_ptr<FILE>& file);

private:
    /// With the file position at this cursor.
    /// @return null when the storage is gone
    FILE* positioned(unsigned long long offset) ZEL_REQUIRES(s_lock);

    /// One for all files: seeking and moving bytes must be one step.
    static PMutex s_lock;

    boost::shared_ptr<FILE> m_file;
    CStdStr<char> m_path;
    unsigned long long m_offset; ///< this cursor's ring index
    unsigned long long m_size;   ///< of the ring
};

/// The history buffer over a file: a temporary one, which grows as the ring fills for the first
/// time, or an existing one, which is a finished buffer as it stands.
class CircularFileHistoryBuffer : public CircularHistoryBuffer
{
public:
    /// Over a temporary file, which goes with the buffer.
    /// @return a new buffer, which the caller deletes; null on failure
    static CircularFileHistoryBuffer* create(unsigned long long bufferSize,
                                             unsigned long long minimumHistorySize);
    /// Over an existing file, which stays. All of it counts as written, and as history.
    /// @return a new buffer, which the caller deletes; null on failure
    static CircularFileHistoryBuffer* create(const CStdStr<char>& path, bool writable);

    /// Without a file yet.
    CircularFileHistoryBuffer(unsigned long long bufferSize, unsigned long long minimumHistorySize);

    /// Also lets go of the buffer's reference to the file. Readers have theirs, and get the rest.
    void close() override;
    ~CircularFileHistoryBuffer() override;
    BufferHandle* getBufferReaderHandle() override;
    virtual CStdStr<char> getPath();

    /// All three: false when the file could not be opened.
    bool createFromTemporaryFile();
    bool createFromFile(const CStdStr<char>& path, bool writable);
    /// Goes on with the file read-only, when the writer is done. Cursors made before fail then.
    bool reopen();
    /// Closes the file for all, then as close() does.
    void closeHandle();
    /// End of stream, without letting go of the file.
    void closeFIXMEBUG27009();

private:
    void install(const boost::shared_ptr<FILE>& file, const CStdStr<char>& path)
        ZEL_REQUIRES(m_mutex);

    CStdStr<char> m_path ZEL_GUARDED_BY(m_mutex);
    bool m_writable = true;
    bool m_deleteOnClose = true; ///< the destructor removes the file
    boost::shared_ptr<FILE> m_file ZEL_GUARDED_BY(m_mutex);
};
