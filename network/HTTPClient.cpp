#include "network/HTTPClient.h"

#include "buffers/CircularMemoryHistoryBuffer.h"
#include "common/utils/CBBLog.h"
#include "common/utils/Clock.h"
#include "network/CURLHTTPRequestHandler.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>

namespace zel {

namespace {

/// libavformat's question for the size, as a `whence`.
constexpr int sizeQuery = 0x10000;
constexpr int openFailed = 2;
constexpr unsigned int handlerTimeoutMs = 30000;
constexpr int seekPollMs = 150;
constexpr int closePollMs = 20;

} // namespace

HTTPClient::Operation::Operation(HTTPClient& client) : m_client(client)
{
    PMutexGuard guard(m_client.m_operationsEvent);
    ++m_client.m_operations;
}

HTTPClient::Operation::~Operation()
{
    PMutexGuard guard(m_client.m_operationsEvent);
    --m_client.m_operations;
    m_client.m_operationsEvent.broadcast();
}

HTTPClient::HTTPClient(unsigned int bufferSize, unsigned int minimumHistorySize)
    : m_buffer(CircularMemoryHistoryBuffer::create(bufferSize, minimumHistorySize)),
      m_reader(m_buffer->getReader()), m_bufferSize(bufferSize),
      m_minimumHistorySize(minimumHistorySize)
{
}

HTTPClient::~HTTPClient()
{
    HTTPClient::close();
}

// -------------------------------------------------------------------------------------------------
// Opening and closing.

bool HTTPClient::open(const CStdStr<char>& url, streamer::Error* error)
{
    const Operation operation(*this);
    if (m_closing) {
        return false; // nor is the ring touched, which close() has woken everybody of
    }
    if (CallbackMark::isInside(this)) {
        return false; // the transfer that is to be replaced runs this call
    }
    {
        PReadGuard guard(m_lock);
        if (isComplete() && !resetConnection()) {
            return false;
        }
    }
    {
        PMutexGuard guard(m_describedLock);
        m_url = url;
    }
    m_dataReceived = false;
    replaceHandler();
    PReadGuard guard(m_lock);
    if (!isComplete() || !clearStop()) {
        return false;
    }
    if (!m_requestHandler->open(url)) {
        if (error != nullptr) {
            CStdStr<char> message;
            message.Format("HTTP: Server error %d", m_requestHandler->getStatusCode());
            error->setCode(openFailed);
            error->setMessage(message.c_str());
        }
        CBBLog::error("HTTPClient::open: server error %d", openFailed);
        return false;
    }
    m_contentLength = m_requestHandler->getContentLength();
    {
        PMutexGuard describedGuard(m_describedLock);
        m_url = m_requestHandler->getUrl();
        m_contentType = m_requestHandler->getContentType();
    }
    readStreamHeaders();
    m_openTime = static_cast<unsigned int>(uptimeMs());
    return true;
}

/// A seek on another thread may have started the former handler's transfer again. It ends outside
/// the lock, whose read side that transfer's thread may still want.
void HTTPClient::replaceHandler()
{
    HTTPRequestHandler* former = nullptr;
    {
        PWriteGuard guard(m_lock);
        former = std::exchange(m_requestHandler, getRequestHandler());
    }
    if (former == nullptr) {
        return;
    }
    m_stopEvent.signal(m_stopped);
    {
        PReadGuard guard(m_lock);
        if (m_buffer != nullptr) {
            m_buffer->reset();
        }
    }
    delete former;
    PReadGuard guard(m_lock);
    PMutexGuard writeGuard(m_writeLock);
    if (m_buffer != nullptr) {
        m_buffer->flush();
    }
}

void HTTPClient::readStreamHeaders()
{
    HTTPRequestHandler& handler = *m_requestHandler;
    if (handler.hasRawHeader("Zel-Stream-Duration")) {
        const int duration = std::atoi(handler.getRawHeader("Zel-Stream-Duration").c_str());
        m_streamDuration = duration != 0 ? duration : -1;
    }
    if (handler.hasRawHeader("Zel-Stream-ID")) {
        m_streamID = std::atoi(handler.getRawHeader("Zel-Stream-ID").c_str());
    }
    if (handler.hasRawHeader("Zel-Force-Extension")) {
        PMutexGuard guard(m_describedLock);
        m_customExtension = handler.getRawHeader("Zel-Force-Extension");
    }
    if (handler.hasRawHeader("Zel-Streaming")) {
        const CStdStr<char> value = handler.getRawHeader("Zel-Streaming");
        CBBLog::debug("HTTPClient::open : Zel Streaming header %s", value.c_str());
        m_zelStreaming = true;
        m_direct = ssicmp(value.c_str(), "direct") == 0;
    }
}

HTTPRequestHandler* HTTPClient::getRequestHandler()
{
    CStdStr<char> agent("Mozilla/4.0");
    const CStdStr<char> product = getProductName();
    if (!product.empty()) {
        agent.AppendFormat(" (%s)", product.c_str());
    }
    auto handler = std::make_unique<CURLHTTPRequestHandler>(agent);
    handler->setWriteCallback(
        [this](unsigned char* data, unsigned long long size) { return write(data, size); });
    handler->setEndOfFileCallback([this] { endOfFileCallback(); });
    handler->setTimeout(handlerTimeoutMs);
    return handler.release();
}

CStdStr<char> HTTPClient::getProductName()
{
    return {};
}

bool HTTPClient::close()
{
    m_closing = true;
    m_stopEvent.signal(m_stopped);
    {
        PReadGuard guard(m_lock);
        if (m_buffer != nullptr) {
            m_buffer->close();
            m_buffer->flush();
        }
        if (m_requestHandler != nullptr) {
            m_requestHandler->close();
        }
        if (CallbackMark::isInside(this)) {
            return true; // this thread is the one that a full close would wait for
        }
        if (m_buffer != nullptr) {
            // Once more: a write that was under way has opened the ring again, and a reader that
            // went back to sleep in it holds the lock.
            m_buffer->close();
        }
    }
    awaitOperations();
    {
        // And at last, since a reset within one of those has opened the ring too.
        PReadGuard guard(m_lock);
        if (m_buffer != nullptr) {
            m_buffer->close();
        }
    }

    HTTPRequestHandler* handler = nullptr;
    CircularHistoryBuffer* buffer = nullptr;
    {
        PWriteGuard guard(m_lock);
        if (m_buffer != nullptr) {
            m_buffer->release();
        }
        m_reader = nullptr;
        std::swap(buffer, m_buffer);
        std::swap(handler, m_requestHandler);
    }
    // Outside the lock, whose read side the handler's threads may still want.
    delete handler;
    delete buffer;
    return true;
}

void HTTPClient::awaitOperations()
{
    PMutexGuard guard(m_operationsEvent);
    while (m_operations > 0) {
        guard.unlock();
        {
            PReadGuard readGuard(m_lock);
            if (m_requestHandler != nullptr) {
                m_requestHandler->close();
            }
            if (m_buffer != nullptr) {
                m_buffer->close();
            }
        }
        guard.lock();
        if (m_operations > 0) {
            m_operationsEvent.timedWait(absoluteTimeAfter(closePollMs));
        }
    }
}

bool HTTPClient::clearStop()
{
    // Under the event's lock, which close() takes behind its mark: nobody sees a closed client go.
    PMutexGuard guard(m_stopEvent);
    if (m_closing) {
        return false;
    }
    m_stopped = false;
    return true;
}

bool HTTPClient::resetConnection()
{
    m_stopEvent.signal(m_stopped);
    m_buffer->reset();
    m_requestHandler->close();
    {
        // Once more: the transfer may have written, or come to its end, in between.
        PMutexGuard guard(m_writeLock);
        m_buffer->reset();
    }
    if (!clearStop()) {
        m_buffer->close(); // close() has woken everybody of it, and may not do so again
        return false;
    }
    return true;
}

// -------------------------------------------------------------------------------------------------
// The data path.

int HTTPClient::read(char* dst, unsigned long long size, int timeoutMs)
{
    PReadGuard guard(m_lock);
    if (m_stopped || m_buffer == nullptr || m_reader == nullptr) {
        return -1;
    }
    // All of it at once, or what the ring can hold where that is less: it would never come.
    const unsigned long long most =
        m_bufferSize > m_minimumHistorySize + 1 ? m_bufferSize - m_minimumHistorySize - 1 : 1;
    long long result = 0;
    unsigned long long filled = 0;
    while (filled < size) {
        const unsigned long long piece = std::min(size - filled, most);
        unsigned long long length = piece;
        result = m_reader->read(reinterpret_cast<unsigned char*>(dst) + filled, length, piece,
                                piece, !m_reader->hasReachedEOF(), timeoutMs);
        filled += result > 0 ? static_cast<unsigned long long>(result) : 0;
        if (result != static_cast<long long>(piece)) {
            break;
        }
    }
    // A caller who looks behind what came sees no old bytes.
    std::memset(dst + filled, 0, size - filled);
    if (m_stopped || (result < 0 && filled == 0)) {
        return -1;
    }
    return static_cast<int>(filled);
}

long long HTTPClient::write(unsigned char* data, unsigned long long size)
{
    // In this order, for a reset holds m_lock already.
    PReadGuard guard(m_lock);
    PMutexGuard writeGuard(m_writeLock);
    if (m_stopped) {
        return -1;
    }
    if (m_dataReadyCallback) {
        const CallbackMark mark(this);
        return m_dataReadyCallback(data, size);
    }
    if (m_buffer == nullptr) {
        return -1;
    }
    const int stored = storeInRing(data, static_cast<unsigned int>(size));
    if (stored < 0 || m_stopped) {
        return -1;
    }
    logBufferStatus(size);
    m_dataReceived = true;
    return stored;
}

/// In pieces that fit into an empty ring: a reset that came since the question for the stop has
/// emptied it, and waits for this thread instead of reading.
int HTTPClient::storeInRing(const unsigned char* data, unsigned int size)
{
    const unsigned int piece = std::max(m_bufferSize, 2U) - 1;
    unsigned int done = 0;
    while (done < size && !m_stopped) {
        const unsigned int wanted = std::min(piece, size - done);
        const long long written = m_buffer->write(data + done, wanted, true);
        if (written < 0) {
            return -1;
        }
        done += static_cast<unsigned int>(written);
        if (written < wanted) {
            break;
        }
    }
    return static_cast<int>(done);
}

void HTTPClient::endOfFileCallback()
{
    fireConnectionEvent(ConnectionEvent::END_OF_FILE_RECEIVED);
}

void HTTPClient::fireConnectionEvent(ConnectionEvent::ConnectionEvent event)
{
    if (event == ConnectionEvent::END_OF_FILE_RECEIVED) {
        if (m_stopped) {
            return; // the connection was cut on purpose
        }
        PReadGuard guard(m_lock);
        if (m_buffer != nullptr) {
            m_buffer->close();
        }
    }
    if (const ConnectionEventCallback callback = m_connectionEventCallback) {
        const CallbackMark mark(this);
        callback(event, m_connectionEventData);
    }
}

// -------------------------------------------------------------------------------------------------
// Seeking.

long long HTTPClient::seek(long long offset, int whence, long long timeMs)
{
    const Operation operation(*this);
    // The bytes of a transcoded stream have no fixed place in time: only the server finds it.
    if (!(isZelTranscoding() && timeMs >= 0)) {
        const long long position = seekUsingInternalBuffer(offset, whence, timeMs);
        if (position >= 0) {
            return position;
        }
    }
    if (m_stopped) {
        return -1;
    }
    PReadGuard guard(m_lock);
    if (!isComplete()) {
        return -1;
    }
    if (whence == SEEK_CUR) {
        offset += static_cast<long long>(m_reader->getGlobalOffset());
    }
    // Inside a callback the transfer cannot be replaced, for it runs this call.
    if (offset < 0 || !m_requestHandler->canSeek() || CallbackMark::isInside(this)) {
        guard.unlock();
        CBBLog::warn("HTTPClient::seek : seek failed");
        return -1;
    }
    if (!resetConnection()) {
        return -1;
    }
    m_buffer->resetGlobalOffset(static_cast<unsigned long long>(offset));
    if (!m_requestHandler->seek(static_cast<unsigned long long>(offset), timeMs) ||
        m_requestHandler->getStatusCode() == 0) {
        return -1; // refused, or the server was not reached
    }
    CBBLog::debug("HTTPClient::seek - seeked with request");
    return offset;
}

long long HTTPClient::seekUsingInternalBuffer(long long offset, int whence, long long /*timeMs*/)
{
    if (m_stopped) {
        return -1;
    }
    PReadGuard guard(m_lock);
    if (!isComplete()) {
        return -1;
    }
    if (whence == sizeQuery) {
        CBBLog::debug("HTTPClient::seek : AVSEEK_SIZE %lld",
                      static_cast<long long>(m_contentLength.load()));
        return static_cast<long long>(m_contentLength.load());
    }
    if (whence == SEEK_END) {
        CBBLog::debug("HTTPClient::seek : SEEK_END");
        return -1;
    }
    if (whence == SEEK_CUR) {
        offset += static_cast<long long>(m_reader->getGlobalOffset());
    }
    if (offset < 0) {
        CBBLog::debug("HTTPClient::seek %d - buf status %d - negative offset",
                      static_cast<int>(offset), static_cast<int>(m_reader->availableToRead()));
        return -1;
    }
    // Where no request can be sent, waiting is the only way forward.
    const unsigned int margin = m_requestHandler->canSeek() ? m_seekMargin : 10 * m_seekMargin;
    const auto limit = static_cast<unsigned int>(m_reader->getGlobalOffset() +
                                                 m_reader->availableToRead() + margin);
    const auto target = static_cast<unsigned long long>(offset);
    // Short at first: what lies just ahead is there at once, and many an mp4 begins with such a
    // seek.
    int pollMs = 1;
    while (isSeekTargetAhead(target, limit)) {
        if (m_buffer->availableToWrite() == 0 && !makeRoomAhead(target)) {
            break;
        }
        if (m_stopEvent.timedWait(m_stopped, absoluteTimeAfter(pollMs)) == 0) {
            return -1;
        }
        pollMs = std::min(2 * pollMs, seekPollMs);
    }
    const bool isAtEnd = target == m_reader->getGlobalOffset() + m_reader->availableToRead();
    if (isAtEnd && m_reader->hasReachedEOF() && target < m_contentLength &&
        m_requestHandler->canSeek()) {
        return -1; // the transfer broke here, or never began: only a new one goes on
    }
    return m_reader->seek(target) ? offset : -1;
}

/// Not there yet, and worth waiting for.
/// @param limit  Kept: of 32 bits, so that targets from 4 GiB on are never waited for
bool HTTPClient::isSeekTargetAhead(unsigned long long offset, unsigned int limit)
{
    return !m_reader->hasReachedEOF() && !m_reader->isOffsetInBuffer(offset) &&
           offset >= m_reader->getGlobalOffset() &&
           offset <= std::numeric_limits<unsigned int>::max() && offset <= limit;
}

/// A full ring would hold a transfer that somebody waits for. Where a request cannot help either,
/// the reader passes over what it holds before the target.
/// @return false when a request is the better way, or the stream ends before the target
bool HTTPClient::makeRoomAhead(unsigned long long target)
{
    const unsigned long long held = m_reader->availableToRead();
    if (m_requestHandler->canSeek() || held < 2) {
        return false;
    }
    if (m_contentLength != 0 && target >= m_contentLength) {
        return false;
    }
    // By now the ring may hold the target itself.
    m_reader->seek(std::min(target, m_reader->getGlobalOffset() + held - 1));
    m_buffer->hasReadData();
    return true;
}

bool HTTPClient::canSeek()
{
    PReadGuard guard(m_lock);
    return m_requestHandler != nullptr && m_requestHandler->canSeek();
}

void HTTPClient::preventSeeking()
{
    PReadGuard guard(m_lock);
    if (m_requestHandler != nullptr) {
        m_requestHandler->setByteSeekable(false);
        m_requestHandler->setTimeSeekable(false);
    }
}

// -------------------------------------------------------------------------------------------------
// Questions and settings.

unsigned long long HTTPClient::getByteAvailableToReadInBuffer()
{
    PReadGuard guard(m_lock);
    return m_reader != nullptr ? m_reader->availableToRead() : 0;
}

unsigned long long HTTPClient::getCurrentBufferReadPosition()
{
    PReadGuard guard(m_lock);
    return m_reader != nullptr ? m_reader->getCurrentOffset() : 0;
}

bool HTTPClient::getBufferStatus(unsigned int& percent)
{
    PReadGuard guard(m_lock);
    if (m_stopped || m_reader == nullptr || m_bufferSize <= m_minimumHistorySize ||
        m_reader->hasReachedEOF()) {
        return false;
    }
    percent = fillPercent(m_reader->availableToRead());
    return true;
}

unsigned int HTTPClient::fillPercent(unsigned long long available) const
{
    return m_bufferSize > m_minimumHistorySize
               ? static_cast<unsigned int>(available * 100 / (m_bufferSize - m_minimumHistorySize))
               : 0;
}

bool HTTPClient::hasReachedEnd()
{
    PReadGuard guard(m_lock);
    return m_reader == nullptr || (m_reader->hasReachedEOF() && m_reader->availableToRead() == 0);
}

void HTTPClient::setDataReadyCallback(DataReadyCallback callback)
{
    m_dataReadyCallback = std::move(callback);
}

void HTTPClient::setMetadataCallback(MetadataCallback callback)
{
    m_metadataCallback = std::move(callback);
}

int HTTPClient::getStreamDuration()
{
    return m_streamDuration;
}

int HTTPClient::getStreamID()
{
    return m_streamID;
}

void HTTPClient::setStreamDuration(const int& duration)
{
    m_streamDuration = duration;
}

CStdStr<char> HTTPClient::getContentType()
{
    PMutexGuard guard(m_describedLock);
    return m_contentType;
}

unsigned long long HTTPClient::getContentLength()
{
    return m_contentLength;
}

CStdStr<char> HTTPClient::getCustomExtension()
{
    PMutexGuard guard(m_describedLock);
    return m_customExtension;
}

bool HTTPClient::isZelTranscoding()
{
    return m_zelStreaming && !m_direct;
}

CStdStr<char> HTTPClient::getUrl()
{
    PMutexGuard guard(m_describedLock);
    return m_url;
}

} // namespace zel
