#pragma once

class CircularHistoryBufferReader;

/// The side of a history buffer that its owner and its one writer see.
class BufferWriterInterface
{
public:
    virtual ~BufferWriterInterface() = default;

    /// @return bytes stored; 0 when nothing could be stored; -1 when the storage failed
    virtual long long write(const unsigned char* data, unsigned long long size, bool blocking) = 0;
    /// End of stream: readers get the rest. A later write takes it back.
    virtual void close() = 0;
    /// Drops all content; a blocked writer leaves.
    virtual void flush() = 0;
    /// Says at which stream offset the next written byte lies; after a flush.
    virtual void resetGlobalOffset(unsigned long long offset) = 0;
    /// Makes an ended buffer empty and usable again.
    virtual void reset() = 0;
    /// Puts the buffer out of service; who is blocked in it leaves.
    virtual void release() = 0;
    virtual bool isReleased() = 0;
    /// Whether somebody may still read.
    virtual bool isActive() = 0;
    /// @return a new reader, which the buffer owns; null when there is none to be had
    virtual CircularHistoryBufferReader* getReader() = 0;
    virtual bool isOffsetInBuffer(unsigned long long offset) = 0;
    /// Bytes of storage.
    virtual unsigned long long getBufferSize() = 0;
    /// Bytes that a write would store at once.
    virtual unsigned long long availableToWrite() = 0;
};

/// The side of a history buffer that one consumer sees.
class BufferReaderInterface
{
public:
    /// Takes bytes from the buffer.
    /// @param dst  room for as much as the call may take, see maximumSize
    /// @param size  stands in for a limit that is 0; on return the bytes taken, unless there were
    ///        none
    /// @param minimumSize  a blocking call returns when so many bytes are there
    /// @param maximumSize  the call takes at most so many
    /// @param timeoutMs  how long a blocking call waits; below 1 without a limit
    /// @return bytes taken; 0 at a time-out, which takes nothing, at a release, and when nothing is
    ///         left; -1 for a reader out of service and when the storage failed
    virtual long long read(unsigned char* dst, unsigned long long& size,
                           unsigned long long minimumSize, unsigned long long maximumSize,
                           bool blocking, int timeoutMs) = 0;
    virtual bool isOffsetInBuffer(unsigned long long offset) = 0;
    /// @param offset  in the stream
    /// @return false when it is not held; the reader stays where it was
    virtual bool seek(unsigned long long offset) = 0;
    virtual bool hasReachedEOF() = 0;
    /// Puts the reader out of service and wakes it.
    virtual void release() = 0;
    /// Takes a release back and goes to the start of the content.
    /// @return whether the start is still held
    virtual bool reset() = 0;
    virtual unsigned long long availableToRead() = 0;

    virtual ~BufferReaderInterface() = default;
};

/// A cursor on the storage of a history buffer: the writer has one, and each reader. It moves plain
/// byte ranges at its ring index, and knows nothing of laps or stream offsets. The buffer's mutex
/// guards it. All results: -1 when the storage is gone.
class BufferHandle
{
public:
    virtual ~BufferHandle() = default;

    virtual void close() = 0;
    /// @return the offset
    virtual long long seek(unsigned long long offset) = 0;
    /// The caller never goes beyond the end of the ring.
    /// @return bytes moved
    virtual long long write(const char* src, unsigned long long n) = 0;
    virtual long long read(char* dst, unsigned long long n) = 0;
    /// The ring index.
    virtual unsigned long long getOffset() = 0;
};
