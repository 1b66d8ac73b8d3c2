#include "buffers/CircularHistoryBuffer.h"

#include "buffers/CircularHistoryBufferReader.h"
#include "common/utils/CBBLog.h"

#include <algorithm>
#include <utility>

namespace {

/// Between two looks of the destructor at the calls that still run, which is none but by mistake.
constexpr int idlePollMs = 1;

} // namespace

CircularHistoryBuffer::Operation::Operation(CircularHistoryBuffer& buffer) : m_buffer(buffer)
{
    // Before the mutex: who waits for it is already inside.
    m_buffer.m_operations.fetch_add(1);
    m_buffer.m_mutex.lock();
}

CircularHistoryBuffer::Operation::~Operation()
{
    const bool wakeReaders = std::exchange(m_buffer.m_wakeReaders, false);
    const bool wakeWriter = std::exchange(m_buffer.m_wakeWriter, false);
    m_buffer.m_mutex.unlock();
    // Behind the mutex, on which they would go to sleep again.
    if (wakeReaders) {
        m_buffer.m_dataAvailable.broadcast();
    }
    if (wakeWriter) {
        m_buffer.m_spaceAvailable.broadcast();
    }
    m_buffer.m_operations.fetch_sub(1); // the last touch
}

CircularHistoryBuffer::CircularHistoryBuffer(unsigned long long bufferSize,
                                             unsigned long long minimumHistorySize)
    : m_writePosition(0), m_totalBytesWritten(0), m_absoluteOffset(0), m_bufferSize(bufferSize),
      m_minimumHistorySize(minimumHistorySize), m_released(false), m_writeAborted(false),
      m_endOfStream(false), m_spaceAvailable(m_mutex), m_dataAvailable(m_mutex), m_handle(nullptr),
      m_readProgressFlag(false), m_wakeReaders(false), m_wakeWriter(false), m_writerWaits(false),
      m_operations(0), m_idle(m_mutex)
{
}

CircularHistoryBuffer::~CircularHistoryBuffer()
{
    CircularHistoryBuffer::close();
    CircularHistoryBuffer::release();
    PMutexGuard guard(m_mutex);
    while (m_operations != 0) {
        m_idle.wait(idlePollMs);
    }
}

long long CircularHistoryBuffer::write(const unsigned char* data, unsigned long long size,
                                       bool blocking)
{
    const Operation operation(*this);
    return doWrite(data, size, blocking);
}

long long CircularHistoryBuffer::doWrite(const unsigned char* data, unsigned long long size,
                                         bool blocking)
{
    if (m_released) {
        return 0;
    }
    m_endOfStream = false;
    m_writeAborted = false;
    long long stored = 0;
    for (;;) {
        const unsigned long long room = availableToWriteLocked();
        if (size <= room || !blocking) {
            const long long n = store(data, std::min(size, room));
            return n < 0 ? -1 : stored + n;
        }
        if (room == 0) {
            if (std::exchange(m_wakeReaders, false)) {
                m_dataAvailable.broadcast();
            }
            m_writerWaits = true;
            m_spaceAvailable.wait(0);
            m_writerWaits = false;
            if (m_writeAborted || m_released) {
                return stored;
            }
            continue;
        }
        // What fits goes out before the writer sleeps, so that readers have data meanwhile. It
        // counts as a write of its own: it takes back a close that came while the writer slept.
        m_endOfStream = false;
        const long long n = store(data, room);
        if (n <= 0) {
            // Storage that takes nothing now would do so for ever.
            return n < 0 ? -1 : stored;
        }
        stored += n;
        data += n;
        size -= static_cast<unsigned long long>(n);
    }
}

/// @param size  at most availableToWrite
long long CircularHistoryBuffer::store(const unsigned char* data, unsigned long long size)
{
    if (size == 0 || m_handle == nullptr) {
        return 0;
    }
    const unsigned long long position = m_writePosition;
    // Filling the ring exactly to its end is a wrap, so that the position stays below the size.
    const bool wraps = position + size >= m_bufferSize;
    const unsigned long long first = wraps ? m_bufferSize - position : size;
    const unsigned long long second = size - first;
    const char* bytes = reinterpret_cast<const char*>(data);
    long long n = m_handle->write(bytes, first);
    if (n < 0) {
        return -1;
    }
    // A first piece that came out short leaves the rest of the lap to the next write.
    if (wraps && static_cast<unsigned long long>(n) == first) {
        if (CBBLog::isDebugEnabled()) {
            CBBLog::debug("CircularHistoryBuffer::read : going back to 0 - %lld %lld %lld",
                          static_cast<long long>(position), static_cast<long long>(size),
                          static_cast<long long>(m_totalBytesWritten.load()));
        }
        m_absoluteOffset += m_bufferSize;
        m_handle->seek(0);
        if (second != 0) {
            const long long m = m_handle->write(bytes + first, second);
            if (m < 0) {
                return -1;
            }
            n += m;
        }
    }
    const auto moved = static_cast<unsigned long long>(n);
    m_totalBytesWritten += moved;
    m_writePosition = (position + moved) % m_bufferSize;
    wakeContentReaders();
    return n;
}

/// A reader that sleeps on for more would only wake to sleep again.
void CircularHistoryBuffer::wakeContentReaders()
{
    for (const auto& [id, reader] : m_readers) {
        reader->assumeLocked();
        if (reader->m_wanted != 0 && reader->availableToReadLocked() >= reader->m_wanted) {
            m_wakeReaders = true;
        }
    }
}

void CircularHistoryBuffer::close()
{
    PMutexGuard guard(m_mutex);
    m_endOfStream = true;
    m_dataAvailable.broadcast();
    setReadProgress();
}

void CircularHistoryBuffer::flush()
{
    PMutexGuard guard(m_mutex);
    flushLocked();
}

void CircularHistoryBuffer::flushLocked()
{
    m_writePosition = 0;
    m_totalBytesWritten = 0;
    m_absoluteOffset = 0;
    m_writeAborted = true;
    if (m_handle != nullptr) {
        m_handle->seek(0);
    }
    for (const auto& [id, reader] : m_readers) {
        reader->assumeLocked();
        reader->moveToStartLocked(0);
    }
    setReadProgress();
    m_spaceAvailable.broadcast();
}

void CircularHistoryBuffer::resetGlobalOffset(unsigned long long offset)
{
    PMutexGuard guard(m_mutex);
    m_absoluteOffset = offset;
    for (const auto& [id, reader] : m_readers) {
        reader->assumeLocked();
        reader->m_globalOffset = offset;
        reader->moveToStartLocked(offset);
    }
    m_spaceAvailable.broadcast();
}

void CircularHistoryBuffer::reset()
{
    CBBLog::debug("CircularHistoryBuffer::reset");
    PMutexGuard guard(m_mutex);
    flushLocked();
    m_endOfStream = false;
    m_released = false;
}

void CircularHistoryBuffer::release()
{
    PMutexGuard guard(m_mutex);
    // The flags come first: whoever wakes up must see them, for nobody wakes it again.
    m_writeAborted = true;
    m_released = true;
    for (const auto& [id, reader] : m_readers) {
        reader->m_released = true;
    }
    m_dataAvailable.broadcast();
    m_spaceAvailable.broadcast();
    if (m_handle != nullptr) {
        m_handle->close();
    }
    for (const auto& [id, reader] : m_readers) {
        reader->assumeLocked();
        reader->invalidate();
        // One that sleeps in the reader, or waits for the mutex, has yet to leave it.
        m_retired.emplace_back(reader);
    }
    m_readers.clear();
    delete m_handle;
    m_handle = nullptr;
    m_writePosition = 0;
    m_totalBytesWritten = 0;
    m_absoluteOffset = 0;
}

bool CircularHistoryBuffer::isActive()
{
    PMutexGuard guard(m_mutex);
    if (m_released) {
        return false;
    }
    return m_readers.empty() || std::any_of(m_readers.begin(), m_readers.end(), [](const auto& at) {
               return !at.second->isReleased();
           });
}

CircularHistoryBufferReader* CircularHistoryBuffer::getReader()
{
    PMutexGuard guard(m_mutex);
    if (m_released) {
        return nullptr;
    }
    const auto id = static_cast<unsigned>(m_readers.size());
    auto reader = std::make_unique<CircularHistoryBufferReader>(this, id);
    if (reader->isReleased()) {
        return nullptr;
    }
    const unsigned long long offset = m_absoluteOffset;
    if (offset != 0) {
        reader->assumeLocked();
        reader->m_globalOffset = offset;
        reader->moveToStartLocked(offset);
    }
    return m_readers[id] = reader.release();
}

bool CircularHistoryBuffer::isOffsetInBuffer(unsigned long long offset)
{
    PMutexGuard guard(m_mutex);
    if (offset > m_absoluteOffset) {
        return offset < m_absoluteOffset + availableToReadLocked();
    }
    return offset >= static_cast<unsigned long long>(historyStartLocked());
}

unsigned long long CircularHistoryBuffer::availableToRead()
{
    PMutexGuard guard(m_mutex);
    return availableToReadLocked();
}

unsigned long long CircularHistoryBuffer::availableToReadLocked()
{
    // The smallest ring index is not good enough: a reader still in the lap before the others' has
    // a larger one, and the writer would run over it.
    const unsigned long long head = m_writePosition;
    unsigned long long most = 0;
    bool found = false;
    for (const auto& [id, reader] : m_readers) {
        if (reader->m_released) {
            continue;
        }
        reader->assumeLocked();
        const unsigned long long offset = reader->currentOffsetLocked();
        most = std::max(most, offset <= head ? head - offset : head + m_bufferSize - offset);
        found = true;
    }
    return found ? most : head;
}

unsigned long long CircularHistoryBuffer::availableToWrite()
{
    PMutexGuard guard(m_mutex);
    return availableToWriteLocked();
}

unsigned long long CircularHistoryBuffer::availableToWriteLocked()
{
    // A fresh buffer may use the room that no history occupies yet. The one byte keeps the write
    // position from reaching a reader's, which would read as empty.
    const unsigned long long history = std::min(m_totalBytesWritten.load(), m_minimumHistorySize);
    const auto room = static_cast<long long>(m_bufferSize - availableToReadLocked() - history - 1);
    return room < 0 ? 0 : static_cast<unsigned long long>(room);
}

long long CircularHistoryBuffer::getHistoryStartOffset()
{
    PMutexGuard guard(m_mutex);
    return historyStartLocked();
}

long long CircularHistoryBuffer::historyStartLocked()
{
    // Kept: at exactly one ring of bytes the start counts from the new lap, which gives up history
    // that is still there. Nothing relies on more, and one byte later it is exact again.
    if (m_totalBytesWritten <= m_bufferSize) {
        return static_cast<long long>(m_absoluteOffset.load());
    }
    return static_cast<long long>(m_absoluteOffset + m_writePosition - m_bufferSize);
}

unsigned long long CircularHistoryBuffer::getMinimumReadPosition()
{
    PMutexGuard guard(m_mutex);
    unsigned long long minimum = 0;
    bool found = false;
    for (const auto& [id, reader] : m_readers) {
        if (reader->m_released) {
            continue;
        }
        reader->assumeLocked();
        const unsigned long long offset = reader->currentOffsetLocked();
        minimum = found ? std::min(minimum, offset) : offset;
        found = true;
    }
    return minimum;
}

unsigned long long CircularHistoryBuffer::getAbsoluteMinimumReadPosition()
{
    PMutexGuard guard(m_mutex);
    return absoluteMinimumReadPositionLocked();
}

unsigned long long CircularHistoryBuffer::absoluteMinimumReadPositionLocked()
{
    unsigned long long minimum = 0;
    bool found = false;
    for (const auto& [id, reader] : m_readers) {
        const unsigned long long offset = reader->getGlobalOffset();
        minimum = found ? std::min(minimum, offset) : offset;
        found = true;
    }
    return minimum;
}

unsigned long long CircularHistoryBuffer::getGuaranteedHistoryStartOffset()
{
    PMutexGuard guard(m_mutex);
    return guaranteedHistoryStartLocked();
}

unsigned long long CircularHistoryBuffer::guaranteedHistoryStartLocked()
{
    const unsigned long long slowest = absoluteMinimumReadPositionLocked();
    const auto start = static_cast<unsigned long long>(historyStartLocked());
    return slowest > start + m_minimumHistorySize ? slowest - m_minimumHistorySize : start;
}

void CircularHistoryBuffer::hasReadData()
{
    m_spaceAvailable.broadcast();
    setReadProgress();
}

void CircularHistoryBuffer::setReadProgress()
{
    // A set event has nobody asleep.
    if (!m_readProgressFlag) {
        m_readProgress.signal(m_readProgressFlag);
    }
}
