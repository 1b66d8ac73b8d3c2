#pragma once

#include "buffers/CircularHistoryBuffer.h"
#include "common/utils/StdString.h"

#include <atomic>

/// One consumer's place in a CircularHistoryBuffer, which makes and owns it: nobody else deletes
/// it, and it dies with the buffer's release.
///
/// One thread reads and seeks; any thread may ask and release. The buffer's mutex guards it.
class CircularHistoryBufferReader : public BufferReaderInterface
{
public:
    /// Out of service from the start when the buffer has no handle to give. Needs the buffer's
    /// mutex held, or a buffer that nobody else has.
    CircularHistoryBufferReader(CircularHistoryBuffer* buffer, unsigned id);

    long long read(unsigned char* dst, unsigned long long& size, unsigned long long minimumSize,
                   unsigned long long maximumSize, bool blocking, int timeoutMs) override;
    /// Ahead: whether the byte is there. Behind: whether the writer has promised to leave it alone,
    /// which is more than that it still lies in the ring.
    bool isOffsetInBuffer(unsigned long long offset) override;
    bool seek(unsigned long long offset) override;
    bool hasReachedEOF() override { return m_buffer->m_endOfStream; }
    void release() override;
    bool reset() override;
    unsigned long long availableToRead() override;

    ~CircularHistoryBufferReader() override;
    CircularHistoryBufferReader(const CircularHistoryBufferReader&) = delete;
    CircularHistoryBufferReader& operator=(const CircularHistoryBufferReader&) = delete;

    /// Goes to ring index 0, which is stream offset `offset` from now on.
    virtual void resetGlobalOffset(unsigned long long offset);
    /// Stream offset of the next byte; 0 when released.
    virtual unsigned long long getGlobalOffset();
    /// Ring index of the next byte; 0 when released.
    virtual unsigned long long getCurrentOffset();
    /// Goes to ring index 0 and stream offset 0, until resetGlobalOffset says better.
    virtual void flush();
    virtual bool isReleased() { return m_released; }

    /// Out of service for good; gives its cursor back.
    void invalidate() ZEL_REQUIRES(m_buffer->m_mutex);
    /// All three are stream offsets.
    void getBufferStatus(unsigned long long& position, unsigned long long& historyStart,
                         unsigned long long& dataEnd);
    /// Of the file behind the buffer; empty when there is none.
    CStdStr<char> getPath();

private:
    friend class CircularHistoryBuffer;

    /// The buffer calls its readers with its own mutex held, which is theirs.
    void assumeLocked() ZEL_ASSERT_CAPABILITY(m_buffer->m_mutex) {}

    unsigned long long awaitMinimum(unsigned long long minimumSize, bool blocking, int timeoutMs)
        ZEL_REQUIRES(m_buffer->m_mutex);
    long long take(unsigned char* dst, unsigned long long& size, unsigned long long maximumSize)
        ZEL_REQUIRES(m_buffer->m_mutex);
    bool isOffsetInBufferLocked(unsigned long long offset) ZEL_REQUIRES(m_buffer->m_mutex);
    bool seekLocked(unsigned long long offset) ZEL_REQUIRES(m_buffer->m_mutex);
    unsigned long long availableToReadLocked() ZEL_REQUIRES(m_buffer->m_mutex);
    unsigned long long currentOffsetLocked() ZEL_REQUIRES(m_buffer->m_mutex);
    void moveToStartLocked(unsigned long long position) ZEL_REQUIRES(m_buffer->m_mutex);

    CircularHistoryBuffer* m_buffer;                          ///< not owned
    BufferHandle* m_handle ZEL_GUARDED_BY(m_buffer->m_mutex); ///< owned
    unsigned m_id;                                            ///< key in the buffer's map
    /// Bytes that a sleeping read waits for; 0 without one.
    unsigned long long m_wanted ZEL_GUARDED_BY(m_buffer->m_mutex) = 0;
    /// Written with the buffer's mutex held; what is asked for without it is an estimate.
    std::atomic<bool> m_released;
    std::atomic<unsigned long long> m_absoluteReadPosition; ///< stream offset of the next byte
    /// Stream offset that ring index 0 had when it was last reset, in lap 0.
    std::atomic<unsigned long long> m_globalOffset;
};
