#include "buffers/CircularMemoryHistoryBuffer.h"

#include "common/utils/CBBLog.h"

#include <cstring>

MemoryBufferHandle::MemoryBufferHandle(unsigned long long size)
    : m_size(size), m_data(new unsigned char[size]), m_offset(0), m_lock(nullptr), m_owner(true)
{
    m_lock = new PMutex(PMutex::Recursive);
}

MemoryBufferHandle::MemoryBufferHandle(MemoryBufferHandle* other)
    : m_size(other->m_size), m_data(other->m_data), m_offset(0), m_lock(other->m_lock),
      m_owner(false)
{
}

MemoryBufferHandle::~MemoryBufferHandle()
{
    MemoryBufferHandle::close();
}

void MemoryBufferHandle::close()
{
    if (m_owner) {
        delete[] m_data;
        delete m_lock;
    }
    m_data = nullptr;
    m_size = 0;
    m_lock = nullptr;
}

long long MemoryBufferHandle::seek(unsigned long long offset)
{
    if (m_data == nullptr) {
        return -1;
    }
    PMutexGuard guard(*m_lock);
    if (offset > m_size) {
        return -1;
    }
    m_offset = offset;
    return static_cast<long long>(offset);
}

long long MemoryBufferHandle::write(const char* src, unsigned long long n)
{
    if (m_data == nullptr || m_size == 0) {
        return -1;
    }
    PMutexGuard guard(*m_lock);
    std::memcpy(m_data + m_offset, src, n);
    // Kept: moving the whole block at once leaves the cursor where it was. The buffer goes to index
    // 0 after the last byte, so it never looks at an index that equals the size.
    m_offset += n % m_size;
    return static_cast<long long>(n);
}

long long MemoryBufferHandle::read(char* dst, unsigned long long n)
{
    if (m_data == nullptr || m_size == 0) {
        return -1;
    }
    PMutexGuard guard(*m_lock);
    std::memcpy(dst, m_data + m_offset, n);
    m_offset += n % m_size;
    return static_cast<long long>(n);
}

CircularMemoryHistoryBuffer*
CircularMemoryHistoryBuffer::create(unsigned long long bufferSize,
                                    unsigned long long minimumHistorySize)
{
    return new CircularMemoryHistoryBuffer(bufferSize, minimumHistorySize);
}

CircularMemoryHistoryBuffer::CircularMemoryHistoryBuffer(unsigned long long bufferSize,
                                                         unsigned long long minimumHistorySize)
    : CircularHistoryBuffer(bufferSize, minimumHistorySize)
{
    m_handle = new MemoryBufferHandle(bufferSize);
    CBBLog::debug("CircularMemoryHistoryBuffer %d / %d", static_cast<int>(bufferSize),
                  static_cast<int>(minimumHistorySize));
}

CircularMemoryHistoryBuffer::~CircularMemoryHistoryBuffer()
{
    CircularHistoryBuffer::release();
}

/// The mutex is its caller's matter.
BufferHandle* CircularMemoryHistoryBuffer::getBufferReaderHandle() ZEL_NO_THREAD_SAFETY_ANALYSIS
{
    if (m_handle == nullptr) {
        return nullptr;
    }
    return new MemoryBufferHandle(static_cast<MemoryBufferHandle*>(m_handle));
}
