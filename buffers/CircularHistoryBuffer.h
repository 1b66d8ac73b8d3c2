#pragma once

#include "buffers/BufferInterfaces.h"
#include "common/utils/Locks.h"

#include <atomic>
#include <map>
#include <memory>
#include <vector>

/// The byte store between a network writer and its readers. What was read stays for a while: the
/// writer keeps a stretch of history behind the slowest reader, so that a reader can jump back.
///
///     ring index   0              r                w              m_bufferSize
///                  |..............|################|....................|
///                   history and    not yet read by   oldest history, next
///                   free space     the slowest       to be overwritten
///
/// A byte has two addresses: its offset in the stream, and its index in the ring. Index 0 of the
/// current lap is stream offset m_absoluteOffset, so the next byte written has stream offset
/// m_absoluteOffset + m_writePosition. The storage is a subclass's.
///
/// One writer at a time, any number of readers, each on a thread of its own; any thread may close,
/// flush, reset, release and ask. One mutex guards it all, copies included. The buffer may be
/// deleted while calls are waking up in it, but none may begin then.
class CircularHistoryBuffer : public BufferWriterInterface
{
public:
    CircularHistoryBuffer(unsigned long long bufferSize, unsigned long long minimumHistorySize);
    ~CircularHistoryBuffer() override;
    CircularHistoryBuffer(const CircularHistoryBuffer&) = delete;
    CircularHistoryBuffer& operator=(const CircularHistoryBuffer&) = delete;

    /// A blocking write stores what fits before it sleeps, and leaves early on flush and release
    /// with the bytes stored so far. It revives a closed buffer.
    long long write(const unsigned char* data, unsigned long long size, bool blocking) override;
    void close() override;
    void flush() override;
    void resetGlobalOffset(unsigned long long offset) override;
    void reset() override;
    /// All readers are dead then: until the buffer is deleted, their calls fail.
    void release() override;
    bool isReleased() override { return m_released; }
    bool isActive() override;
    /// A late reader starts at ring index 0 of the current lap, not at the oldest byte.
    CircularHistoryBufferReader* getReader() override;
    /// Kept: a coarse test, by the lap and the slowest reader's backlog. Readers have an exact one.
    bool isOffsetInBuffer(unsigned long long offset) override;
    unsigned long long getBufferSize() override { return m_bufferSize; }
    unsigned long long availableToWrite() override;

    /// Bytes since the last flush.
    virtual unsigned long long getTotalBytesWritten() { return m_totalBytesWritten; }
    /// Stream offset of ring index 0 in the current lap.
    virtual unsigned long long getAbsoluteOffset() { return m_absoluteOffset; }
    /// A new cursor on the storage, which the caller owns, or null. Called with m_mutex held.
    virtual BufferHandle* getBufferReaderHandle() = 0;

    /// Bytes that the slowest reader in service has not read; without one, those of this lap.
    unsigned long long availableToRead();
    /// Oldest stream offset that still lies in the ring.
    long long getHistoryStartOffset();
    /// Smallest ring index of the readers in service; 0 without one.
    unsigned long long getMinimumReadPosition();
    /// Smallest stream offset of all readers, where those out of service count as 0; 0 without one.
    unsigned long long getAbsoluteMinimumReadPosition();
    /// Lowest stream offset that no further write can take away.
    unsigned long long getGuaranteedHistoryStartOffset();

    /// Wakes the readers.
    void signal() { m_dataAvailable.broadcast(); }
    /// Wakes the writer: a reader has moved on.
    void hasReadData();
    /// Sleeps until there may be data.
    /// @param timeoutMs  below 1 without a limit
    /// @return 0, or ETIMEDOUT
    int waitForData(int timeoutMs) ZEL_REQUIRES(m_mutex) { return m_dataAvailable.wait(timeoutMs); }

protected:
    friend class CircularHistoryBufferReader;

    /// Holds m_mutex over a call that may sleep or whose caller may be slow to get the mutex, and
    /// counts it, so that the destructor can wait for its end.
    class ZEL_SCOPED_CAPABILITY Operation
    {
    public:
        explicit Operation(CircularHistoryBuffer& buffer) ZEL_ACQUIRE(buffer.m_mutex);
        ~Operation() ZEL_RELEASE();
        Operation(const Operation&) = delete;
        Operation& operator=(const Operation&) = delete;

    private:
        CircularHistoryBuffer& m_buffer;
    };

    long long doWrite(const unsigned char* data, unsigned long long size, bool blocking)
        ZEL_REQUIRES(m_mutex);
    long long store(const unsigned char* data, unsigned long long size) ZEL_REQUIRES(m_mutex);
    void flushLocked() ZEL_REQUIRES(m_mutex);
    void setReadProgress();
    void wakeContentReaders() ZEL_REQUIRES(m_mutex);

    unsigned long long availableToReadLocked() ZEL_REQUIRES(m_mutex);
    unsigned long long availableToWriteLocked() ZEL_REQUIRES(m_mutex);
    long long historyStartLocked() ZEL_REQUIRES(m_mutex);
    unsigned long long absoluteMinimumReadPositionLocked() ZEL_REQUIRES(m_mutex);
    unsigned long long guaranteedHistoryStartLocked() ZEL_REQUIRES(m_mutex);

    /// Written with m_mutex held; what is asked for without it is an estimate.
    std::atomic<unsigned long long> m_writePosition;     ///< ring index of the next byte
    std::atomic<unsigned long long> m_totalBytesWritten; ///< since the last flush
    std::atomic<unsigned long long> m_absoluteOffset;    ///< stream offset of index 0, this lap
    unsigned long long m_bufferSize;                     ///< settled before the buffer is shared
    unsigned long long m_minimumHistorySize;             ///< bytes; settled as m_bufferSize is
    std::atomic<bool> m_released;                        ///< out of service
    bool m_writeAborted ZEL_GUARDED_BY(m_mutex);         ///< a blocked writer gives up
    std::atomic<bool> m_endOfStream;                     ///< written with m_mutex held
    PMutex m_mutex;                                      ///< all of this and the readers' state
    PCondition m_spaceAvailable;                         ///< on m_mutex; the writer waits
    PCondition m_dataAvailable;                          ///< on m_mutex; readers wait
    BufferHandle* m_handle ZEL_GUARDED_BY(m_mutex);      ///< owned; the writer's; a subclass's gift
    /// By id; owned.
    std::map<unsigned, CircularHistoryBufferReader*> m_readers ZEL_GUARDED_BY(m_mutex);
    PCondMutex m_readProgress; ///< event for a writer that paces itself on readers
    std::atomic<bool> m_readProgressFlag;

    /// What release took out of m_readers; a call may be on its way into one of them.
    std::vector<std::unique_ptr<CircularHistoryBufferReader>> m_retired ZEL_GUARDED_BY(m_mutex);
    bool m_wakeReaders ZEL_GUARDED_BY(m_mutex); ///< when the running operation leaves the mutex
    bool m_wakeWriter ZEL_GUARDED_BY(m_mutex);  ///< as m_wakeReaders
    bool m_writerWaits ZEL_GUARDED_BY(m_mutex); ///< for space
    std::atomic<unsigned> m_operations;         ///< running
    PCondition m_idle;                          ///< on m_mutex; lets the destructor wait
};
