#include "buffers/CircularHistoryBufferReader.h"

#include "buffers/CircularFileHistoryBuffer.h"
#include "common/utils/CBBLog.h"
#include "common/utils/Clock.h"

#include <algorithm>
#include <climits>

CircularHistoryBufferReader::CircularHistoryBufferReader(CircularHistoryBuffer* buffer, unsigned id)
    : m_buffer(buffer), m_handle(buffer->getBufferReaderHandle()), m_id(id),
      m_released(m_handle == nullptr), m_absoluteReadPosition(0), m_globalOffset(0)
{
    if (m_handle == nullptr) {
        CBBLog::warn(
            "CircularHistoryBufferReader::CircularHistoryBufferReader m_handle creation failed");
    }
}

CircularHistoryBufferReader::~CircularHistoryBufferReader()
{
    invalidate();
}

void CircularHistoryBufferReader::invalidate()
{
    m_released = true;
    if (m_handle != nullptr) {
        m_handle->close();
        delete m_handle;
        m_handle = nullptr;
    }
}

long long CircularHistoryBufferReader::read(unsigned char* dst, unsigned long long& size,
                                            unsigned long long minimumSize,
                                            unsigned long long maximumSize, bool blocking,
                                            int timeoutMs)
{
    const CircularHistoryBuffer::Operation operation(*m_buffer);
    if (m_released || m_handle == nullptr || dst == nullptr) {
        return -1;
    }
    const unsigned long long most = maximumSize != 0 ? maximumSize : size;
    if (awaitMinimum(minimumSize != 0 ? minimumSize : size, blocking, timeoutMs) == 0) {
        return 0;
    }
    return take(dst, size, most);
}

/// @return bytes that are there for sure; 0 when there are none, and for a caller that waited in
///         vain
unsigned long long CircularHistoryBufferReader::awaitMinimum(unsigned long long minimumSize,
                                                             bool blocking, int timeoutMs)
{
    const bool mayWait = blocking && !hasReachedEOF();
    const unsigned long long startMs = mayWait && timeoutMs > 0 ? zel::uptimeMs() : 0;
    for (;;) {
        const unsigned long long available = availableToReadLocked();
        if (minimumSize <= available || !mayWait) {
            return std::min(minimumSize, available);
        }
        int remainingMs = 0;
        if (timeoutMs > 0) {
            const unsigned long long elapsedMs = zel::uptimeMs() - startMs;
            if (static_cast<unsigned long long>(timeoutMs) <= elapsedMs) {
                return 0;
            }
            remainingMs = timeoutMs - static_cast<int>(elapsedMs);
        }
        m_wanted = minimumSize;
        m_buffer->waitForData(remainingMs);
        m_wanted = 0;
        if (m_released) {
            return 0;
        }
        if (hasReachedEOF()) {
            return availableToReadLocked();
        }
    }
}

long long CircularHistoryBufferReader::take(unsigned char* dst, unsigned long long& size,
                                            unsigned long long maximumSize)
{
    size = std::min(maximumSize, availableToReadLocked());
    const unsigned long long ringSize = m_buffer->getBufferSize();
    const unsigned long long offset = m_handle->getOffset();
    const bool wraps = offset + size >= ringSize;
    const unsigned long long first = wraps ? ringSize - offset : size;
    const unsigned long long second = size - first;
    char* bytes = reinterpret_cast<char*>(dst);
    long long n = m_handle->read(bytes, first);
    if (n < 0) {
        return -1;
    }
    // A first piece that came out short leaves the rest of the lap to the next read.
    if (wraps && static_cast<unsigned long long>(n) == first) {
        if (CBBLog::isDebugEnabled()) {
            CBBLog::debug("CircularHistoryBufferReader::read : going back to 0 - %lld %lld",
                          static_cast<long long>(size),
                          static_cast<long long>(m_handle->getOffset()));
        }
        m_handle->seek(0);
        if (second != 0) {
            const long long m = m_handle->read(bytes + first, second);
            if (m < 0) {
                return -1;
            }
            n += m;
        }
    }
    size = static_cast<unsigned long long>(n);
    m_absoluteReadPosition += size;
    m_buffer->m_wakeWriter = m_buffer->m_writerWaits;
    m_buffer->setReadProgress();
    return n;
}

bool CircularHistoryBufferReader::isOffsetInBuffer(unsigned long long offset)
{
    const CircularHistoryBuffer::Operation operation(*m_buffer);
    return isOffsetInBufferLocked(offset);
}

bool CircularHistoryBufferReader::isOffsetInBufferLocked(unsigned long long offset)
{
    const unsigned long long position = m_absoluteReadPosition;
    const bool held = offset > position ? offset < position + availableToReadLocked()
                                        : offset >= m_buffer->guaranteedHistoryStartLocked();
    if (!held && CBBLog::isDebugEnabled()) {
        CBBLog::debug("CircularHistoryBufferReader::isOffsetInBuffer %d false, current "
                      "m_absoluteReadPosition %d",
                      static_cast<int>(offset), static_cast<int>(position));
    }
    return held;
}

bool CircularHistoryBufferReader::seek(unsigned long long offset)
{
    const CircularHistoryBuffer::Operation operation(*m_buffer);
    return seekLocked(offset);
}

bool CircularHistoryBufferReader::seekLocked(unsigned long long offset)
{
    const unsigned long long ringSize = m_buffer->getBufferSize();
    if (m_released || m_handle == nullptr || ringSize == 0) {
        return false;
    }
    const unsigned long long head = m_buffer->m_absoluteOffset + m_buffer->m_writePosition;
    // A byte exactly one lap behind the writer shares its index: a reader there would look as if it
    // had read everything, and get newer bytes for the old ones. One further behind is gone, and
    // asked for only by a reader that was out of service while the writer ran over it.
    const bool lapBehind =
        m_buffer->m_totalBytesWritten > ringSize && offset < head && head - offset >= ringSize;
    if (lapBehind || !isOffsetInBufferLocked(offset)) {
        if (CBBLog::isDebugEnabled()) {
            CBBLog::debug("CircularHistoryBufferReader::seek offset %lld not in buffer",
                          static_cast<long long>(offset));
        }
        return false;
    }
    // From place to place, for index 0 of a reader that was made late is not the first lap's, and a
    // seek back may go behind it.
    const unsigned long long position = m_absoluteReadPosition;
    const unsigned long long index = m_handle->getOffset();
    const unsigned long long ahead = offset >= position ? (offset - position) % ringSize
                                                        : ringSize - (position - offset) % ringSize;
    if (m_handle->seek((index + ahead) % ringSize) < 0) {
        return false;
    }
    m_absoluteReadPosition = offset;
    // A jump ahead makes room, and its next read may want more than what is there.
    m_buffer->m_spaceAvailable.broadcast();
    return true;
}

void CircularHistoryBufferReader::release()
{
    const CircularHistoryBuffer::Operation operation(*m_buffer);
    m_released = true;
    m_buffer->signal();
    m_buffer->m_spaceAvailable.broadcast();
}

bool CircularHistoryBufferReader::reset()
{
    const CircularHistoryBuffer::Operation operation(*m_buffer);
    m_released = false;
    return seekLocked(m_globalOffset);
}

unsigned long long CircularHistoryBufferReader::availableToRead()
{
    const CircularHistoryBuffer::Operation operation(*m_buffer);
    return availableToReadLocked();
}

unsigned long long CircularHistoryBufferReader::availableToReadLocked()
{
    const unsigned long long bound = m_buffer->m_totalBytesWritten + m_buffer->m_absoluteOffset;
    if (m_handle == nullptr || m_absoluteReadPosition >= bound) {
        return 0;
    }
    const unsigned long long head = m_buffer->m_writePosition;
    const unsigned long long offset = m_handle->getOffset();
    return head >= offset ? head - offset : m_buffer->getBufferSize() + head - offset;
}

void CircularHistoryBufferReader::resetGlobalOffset(unsigned long long offset)
{
    const CircularHistoryBuffer::Operation operation(*m_buffer);
    m_globalOffset = offset;
    moveToStartLocked(offset);
}

unsigned long long CircularHistoryBufferReader::getGlobalOffset()
{
    return m_released ? 0 : m_absoluteReadPosition.load();
}

unsigned long long CircularHistoryBufferReader::getCurrentOffset()
{
    const CircularHistoryBuffer::Operation operation(*m_buffer);
    return currentOffsetLocked();
}

unsigned long long CircularHistoryBufferReader::currentOffsetLocked()
{
    return m_released || m_handle == nullptr ? 0 : m_handle->getOffset();
}

void CircularHistoryBufferReader::flush()
{
    const CircularHistoryBuffer::Operation operation(*m_buffer);
    moveToStartLocked(0);
}

void CircularHistoryBufferReader::moveToStartLocked(unsigned long long position)
{
    if (m_handle != nullptr) {
        m_handle->seek(0);
    }
    m_absoluteReadPosition = position;
}

void CircularHistoryBufferReader::getBufferStatus(unsigned long long& position,
                                                  unsigned long long& historyStart,
                                                  unsigned long long& dataEnd)
{
    const CircularHistoryBuffer::Operation operation(*m_buffer);
    position = getGlobalOffset();
    historyStart = static_cast<unsigned long long>(m_buffer->historyStartLocked());
    dataEnd = position + availableToReadLocked();
}

CStdStr<char> CircularHistoryBufferReader::getPath()
{
    auto* buffer = dynamic_cast<CircularFileHistoryBuffer*>(m_buffer);
    return buffer != nullptr ? buffer->getPath() : CStdStr<char>();
}
