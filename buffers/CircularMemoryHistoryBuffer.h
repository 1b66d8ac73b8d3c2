#pragma once

#include "buffers/CircularHistoryBuffer.h"
#include "buffers/CircularHistoryBufferReader.h"

/// A cursor on a block of memory. The one that made the block frees it, with all others left
/// pointing nowhere: the buffer lets none of them move bytes after that.
class MemoryBufferHandle : public BufferHandle
{
public:
    /// Makes the block, with undefined content, and owns it.
    explicit MemoryBufferHandle(unsigned long long size);
    /// Another cursor on the same block.
    explicit MemoryBufferHandle(MemoryBufferHandle* other);
    ~MemoryBufferHandle() override;
    MemoryBufferHandle(const MemoryBufferHandle&) = delete;
    MemoryBufferHandle& operator=(const MemoryBufferHandle&) = delete;

    void close() override;
    /// The end of the block is a legal place. Beyond it: -1, and no change.
    long long seek(unsigned long long offset) override;
    long long write(const char* src, unsigned long long n) override;
    long long read(char* dst, unsigned long long n) override;
    unsigned long long getOffset() override { return m_offset; }

private:
    unsigned long long m_size;   ///< bytes of the block
    unsigned char* m_data;       ///< the block; the owner's
    unsigned long long m_offset; ///< this cursor's ring index
    PMutex* m_lock;              ///< of the block; recursive; the owner's
    bool m_owner;
};

/// The history buffer over one block of memory, which the network clients use.
class CircularMemoryHistoryBuffer : public CircularHistoryBuffer
{
public:
    /// @return a new buffer, which the caller deletes
    static CircularMemoryHistoryBuffer* create(unsigned long long bufferSize,
                                               unsigned long long minimumHistorySize);

    CircularMemoryHistoryBuffer(unsigned long long bufferSize,
                                unsigned long long minimumHistorySize);
    ~CircularMemoryHistoryBuffer() override;

    BufferHandle* getBufferReaderHandle() override;
};
