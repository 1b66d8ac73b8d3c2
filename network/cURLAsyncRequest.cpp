#include "network/cURLRequest.h"

#include "common/utils/CBBLog.h"
#include "common/utils/Clock.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string_view>

namespace zel::cURL {

namespace {

constexpr int fullBufferWaitMs = 50;
constexpr std::string_view blockEnd = "\r\n\r\n";

} // namespace

AsyncRequest::AsyncRequest(unsigned long maxBufferSize)
    : m_maxBufferSize(static_cast<std::uint32_t>(
          std::min<unsigned long>(maxBufferSize, std::numeric_limits<std::uint32_t>::max())))
{
}

AsyncRequest::~AsyncRequest()
{
    abort();
}

void AsyncRequest::start()
{
    PMutexGuard control(m_control);
    if (m_thread) {
        endTransfer();
    }
    clearAbort();
    {
        PMutexGuard guard(m_buffer);
        m_finished = false;
        m_readerWaiting = false;
        m_position = 0;
        m_ended = false;
        m_buffer.items.clear();
        m_taken = 0;
    }
    {
        PMutexGuard guard(m_headerEvent);
        m_headers.clear();
        m_headersComplete = false;
        m_headersOver = false;
    }
    try {
        setHeaderCallback([this](void* data, unsigned long size, unsigned long count) {
            return headerCallback(data, size, count);
        });
        setWriteCallback([this](void* data, unsigned long size, unsigned long count) {
            return writeCallback(data, size, count);
        });
        m_thread = std::make_unique<PThread>(nullptr, this, &AsyncRequest::performThread, nullptr);
    } catch (...) {
        transferEnded();
        throw;
    }
}

void AsyncRequest::abort()
{
    PMutexGuard control(m_control);
    endTransfer();
}

void AsyncRequest::endTransfer()
{
    {
        PMutexGuard guard(m_buffer);
        m_finished = true;
        m_buffer.broadcast();
    }
    // The callbacks alone would notice m_finished only at the next byte.
    Request::abort();
    if (m_thread) {
        m_thread->join();
        m_thread.reset();
    }
    clearCallbacks();
}

int AsyncRequest::performThread(void* /*argument*/)
{
    try {
        perform();
    } catch (const std::exception& failure) {
        CBBLog::info("AsyncRequest::performThread : perform threw exception %s", failure.what());
    }
    transferEnded();
    return 0;
}

/// Nobody waits for what will not come any more.
void AsyncRequest::transferEnded()
{
    {
        PMutexGuard guard(m_buffer);
        m_ended = true;
        m_readerWaiting = false;
        m_buffer.broadcast();
    }
    m_headerEvent.signal(m_headersOver);
}

unsigned long AsyncRequest::headerCallback(const void* data, unsigned long size,
                                           unsigned long count)
{
    const int status = getStatusCode();
    PMutexGuard guard(m_headerEvent);
    m_headers.append(static_cast<const char*>(data), size * count);
    m_headers.resize(std::min(m_headers.find('\0'), m_headers.size()));
    if (m_headers.size() <= blockEnd.size() || !m_headers.ends_with(blockEnd)) {
        return size * count;
    }
    if (status < 200 || (status >= 300 && status <= 399)) {
        // Interim responses and redirects: another response follows.
        m_headers.clear();
        return size * count;
    }
    m_headersComplete = true;
    m_headersOver = true;
    m_headerEvent.broadcast();
    return size * count;
}

/// A chunk is taken although the buffer is full when the reader could not go on otherwise.
unsigned long AsyncRequest::writeCallback(const void* data, unsigned long size, unsigned long count)
{
    const std::size_t bytes = size * count;
    PMutexGuard guard(m_buffer);
    if (m_readerWaiting) {
        m_readerWaiting = false;
        m_buffer.broadcast();
    }
    while (!m_finished && !readerStarvesLocked() && bufferedLocked() + bytes >= m_maxBufferSize) {
        m_buffer.timedWait(zel::absoluteTimeAfter(fullBufferWaitMs));
    }
    if (m_finished) {
        return static_cast<unsigned long>(-1);
    }
    appendLocked(static_cast<const char*>(data), bytes);
    if (m_readerWaiting) {
        // Has come while the buffer was full, and may have enough now.
        m_readerWaiting = false;
        m_buffer.broadcast();
    }
    return bytes;
}

long AsyncRequest::getData(unsigned char* dst, unsigned long size, unsigned long position,
                           bool waitForAll)
{
    const auto wanted = static_cast<std::uint32_t>(position);
    PMutexGuard guard(m_buffer);
    if (wanted < m_position || !skipToLocked(wanted)) {
        return -1;
    }
    waitForLocked(waitForAll ? size : 1);
    if (m_finished || (bufferedLocked() == 0 && m_ended && size > 0)) {
        return -1;
    }
    const std::size_t given = std::min<std::size_t>(size, bufferedLocked());
    if (given > 0) {
        std::memcpy(dst, m_buffer.items.data() + m_taken, given);
        dropLocked(given);
    }
    return static_cast<long>(given);
}

/// Drops what lies before `position`, as it comes.
/// @return false when the position is not reached any more
bool AsyncRequest::skipToLocked(std::uint32_t position)
{
    while (m_position != position) {
        waitForLocked(1);
        if (m_finished || bufferedLocked() == 0) {
            return false;
        }
        dropLocked(std::min<std::size_t>(bufferedLocked(), position - m_position));
    }
    return !m_finished;
}

/// Returns when so many bytes are there, or when waiting is of no use any more.
void AsyncRequest::waitForLocked(std::size_t bytes)
{
    m_needed = bytes;
    while (bufferedLocked() < bytes && !m_finished && !m_ended) {
        m_readerWaiting = true;
        m_buffer.broadcast(); // a writer in front of a full buffer may go on now
        m_buffer.wait();
    }
    m_needed = 0;
}

bool AsyncRequest::readerStarvesLocked() const
{
    return bufferedLocked() == 0 || bufferedLocked() < m_needed;
}

std::size_t AsyncRequest::bufferedLocked() const
{
    return m_buffer.items.size() - m_taken;
}

/// Leaves the bytes where they are; appendLocked() moves the rest forward when that pays.
void AsyncRequest::dropLocked(std::size_t bytes)
{
    m_taken += bytes;
    m_position += static_cast<std::uint32_t>(bytes);
    if (bufferedLocked() == 0) {
        m_buffer.items.clear();
        m_taken = 0;
    }
    m_buffer.broadcast();
}

void AsyncRequest::appendLocked(const char* data, std::size_t bytes)
{
    std::vector<char>& items = m_buffer.items;
    if (items.size() + bytes > items.capacity() && m_taken >= items.size() / 2) {
        items.erase(items.begin(), items.begin() + static_cast<std::ptrdiff_t>(m_taken));
        m_taken = 0;
    }
    items.insert(items.end(), data, data + bytes);
}

bool AsyncRequest::waitForHeaders(int timeoutMs)
{
    m_headerEvent.timedWait(m_headersOver, zel::absoluteTimeAfter(timeoutMs));
    PMutexGuard guard(m_headerEvent);
    return m_headersComplete;
}

CStdStr<char> AsyncRequest::getHeaders()
{
    PMutexGuard guard(m_headerEvent);
    return m_headers;
}

} // namespace zel::cURL
