#include "network/MMSHClient.h"

#include "common/utils/CBBLog.h"
#include "common/utils/Clock.h"

#include <algorithm>
#include <cstdio>

namespace zel {

namespace {

/// libavformat's question for the size, as a `whence`.
constexpr int sizeQuery = 0x10000;
constexpr int openFailed = 2;
constexpr long long tailBytes = 512;
/// The content type of a server that answers with the header of the stream alone.
constexpr const char* bareHeaderType = "application/vnd.ms.wms-hdr.asf";
constexpr const char* serverFamily = "com.microsoft.wm";

void setCode(streamer::Error* error)
{
    if (error != nullptr) {
        error->setCode(openFailed);
    }
}

} // namespace

MMSHClient::MMSHClient(unsigned int bufferSize, unsigned int minimumHistorySize)
    : HTTPClient(bufferSize, minimumHistorySize)
{
}

MMSHClient::~MMSHClient()
{
    MMSHClient::close();
}

// -------------------------------------------------------------------------------------------------
// Opening and closing.

bool MMSHClient::open(const CStdStr<char>& url, streamer::Error* error)
{
    const Operation operation(*this);
    if (m_closing) {
        return false; // nor is the ring touched, which close() has woken everybody of
    }
    if (CallbackMark::isInside(this)) {
        return false; // the transfer that is to be replaced may run this call
    }
    claimConnection(ConnectionHolder::OPEN);
    const bool opened = endTransferAndStop() && openStream(url, error);
    if (!opened) {
        endTransferAndStop(); // nobody is to read what such a server may still send
    }
    releaseConnection(opened);
    return opened;
}

bool MMSHClient::openStream(const CStdStr<char>& url, streamer::Error* error)
{
    {
        PMutexGuard guard(m_describedLock);
        m_url = url;
    }
    m_requestContext = 0;
    m_pendingSize = 0;
    m_endSeen = false;
    m_bytesReceived = 0;
    m_headerWritten = false;
    m_dataReceived = false;
    m_streamStart = 0;
    dropMetadata();
    replaceHandler();
    m_headerEvent.reset(m_headerHandled);
    m_headerEvent.reset(m_transferOver);

    unsigned int timeoutMs = 0;
    {
        PReadGuard guard(m_lock);
        if (!isComplete() || !requestStream(url, error)) {
            return false;
        }
        timeoutMs = m_requestHandler->getTimeout();
    }
    if (!awaitHeader(static_cast<int>(std::min(timeoutMs, 0x7fffffffU)))) {
        setCode(error);
        if (!m_closing) {
            CBBLog::error("MMSHClient::open: header not received in time");
        }
        return false;
    }
    CBBLog::info("MMSHClient::open: succeeded -- seekable %d - live %d - timeout %u",
                 static_cast<int>(m_seekable), static_cast<int>(m_live), timeoutMs);
    return true;
}

/// Without any event.
/// @return false when the client is being closed
bool MMSHClient::endTransferAndStop()
{
    PReadGuard guard(m_lock);
    const bool mayGoOn = isComplete() ? resetConnection() : clearStop();
    forgetEnds();
    return mayGoOn;
}

/// The first request, up to the headers of its answer.
bool MMSHClient::requestStream(const CStdStr<char>& url, streamer::Error* error)
{
    HTTPRequestHandler& handler = *m_requestHandler;
    handler.setEndOfFileCallback([this] { endOfFileCallback(); });
    CStdStr<char> agent("NSPlayer/4.1.0.3856");
    const CStdStr<char> product = getProductName();
    if (!product.empty()) {
        agent.AppendFormat(" (%s)", product.c_str());
    }
    handler.setUserAgent(agent);
    handler.setHTTPVersion(0);
    addRequestHeaders("stream-time=0,stream-offset=0:0", 0);
    if (!clearStop()) {
        return false;
    }
    if (!handler.open(url)) {
        if (error != nullptr) {
            CStdStr<char> message;
            message.Format("MMSH: Server error %d", handler.getStatusCode());
            error->setCode(openFailed);
            error->setMessage(message.c_str());
        }
        CBBLog::error("MMSHClient::open: server error %d", openFailed);
        return false;
    }
    m_contentLength = handler.getContentLength();
    if (m_reader->hasReachedEOF()) {
        m_contentLength = m_bytesReceived.load(); // a short stream, which has ended already
    }
    const CStdStr<char> type = handler.getContentType();
    {
        PMutexGuard guard(m_describedLock);
        m_contentType = type;
    }
    if (type.compare(0, CStdStr<char>(bareHeaderType).size(), bareHeaderType) == 0) {
        setCode(error);
        return false;
    }
    readStreamHeaders();
    m_openTime = static_cast<unsigned int>(uptimeMs());
    if (!speaksMMSH()) {
        CBBLog::error("MMSHClient::open: server doesnt support MMSH commands");
        return false;
    }
    takeFeatures();
    return true;
}

bool MMSHClient::speaksMMSH()
{
    return m_requestHandler->hasRawHeader("Supported") &&
           m_requestHandler->getRawHeader("Supported").find(serverFamily) != std::string::npos;
}

void MMSHClient::takeFeatures()
{
    bool seekable = true;
    bool live = false;
    const CStdStr<char> pragma = m_requestHandler->getRawHeader("Pragma");
    const std::size_t features = pragma.find("features=");
    // Kept: a list right at the beginning is none, since it always follows other words.
    if (features != std::string::npos && features > 0) {
        seekable = pragma.find("seekable", features) != std::string::npos;
        live = pragma.find("broadcast", features) != std::string::npos;
    }
    m_seekable = seekable;
    m_live = live;
    m_receivedEOF = false;
    m_requestHandler->setTimeSeekable(seekable);
}

/// @param position  where the stream is to begin, in the words of the protocol
void MMSHClient::addRequestHeaders(const char* position, unsigned int maxDuration)
{
    CStdStr<char> request;
    request.Format("no-cache,%s,request-context=%u,max-duration=%u", position, ++m_requestContext,
                   maxDuration);
    m_requestHandler->addRawHeader("Pragma", request);
    m_requestHandler->addRawHeader("Pragma", "xPlayStrm=1");
    m_requestHandler->addRawHeader("Pragma", clientId);
}

/// Waits for the first ASF header, but not beyond the end of the transfer that should bring it.
bool MMSHClient::awaitHeader(int timeoutMs)
{
    const timespec deadline = absoluteTimeAfter(timeoutMs);
    PMutexGuard guard(m_headerEvent);
    int result = 0;
    while (!m_headerHandled && !m_transferOver && result == 0) {
        result = m_headerEvent.timedWait(deadline);
    }
    return m_headerHandled && !m_closing;
}

bool MMSHClient::close()
{
    m_closing = true; // before the signal, which an open that begins now would take back
    m_headerEvent.signal(m_headerHandled);
    m_receivedEOF = true;
    HTTPClient::close();
    if (CallbackMark::isInside(this)) {
        return true; // this may be one of the threads below
    }
    stopKeepAlive();
    dropMetadata();
    joinRecovery();
    return true;
}

// -------------------------------------------------------------------------------------------------
// Reading.

int MMSHClient::read(char* dst, unsigned long long size, int timeoutMs)
{
    const int result = HTTPClient::read(dst, size, timeoutMs);
    if (result > 0) {
        deliverMetadata();
    }
    return result;
}

/// Of several that are due, the last one.
void MMSHClient::deliverMetadata()
{
    unsigned long long position = 0;
    {
        PReadGuard guard(m_lock);
        position = m_reader != nullptr ? m_reader->getGlobalOffset() : 0;
    }
    std::map<CStdStr<char>, CStdStr<char>> due;
    {
        PMutexGuard guard(m_metadataLock);
        const auto end = m_metadata.lower_bound(position);
        if (end == m_metadata.begin()) {
            return;
        }
        due = std::move(std::prev(end)->second);
        m_metadata.erase(m_metadata.begin(), end);
    }
    if (m_metadataCallback) {
        const CallbackMark mark(this);
        m_metadataCallback(due);
    }
}

void MMSHClient::dropMetadata()
{
    PMutexGuard guard(m_metadataLock);
    m_metadata.clear();
}

// -------------------------------------------------------------------------------------------------
// Seeking.

long long MMSHClient::seek(long long offset, int whence, long long timeMs)
{
    const Operation operation(*this);
    if (timeMs < 0 || whence == sizeQuery || whence == SEEK_END) {
        const long long position = seekUsingInternalBuffer(offset, whence, timeMs);
        if (position >= 0) {
            return position;
        }
    }
    return seekUsingMMSHRequest(offset, whence, timeMs);
}

long long MMSHClient::seekUsingMMSHRequest(long long offset, int whence, long long timeMs)
{
    {
        PReadGuard guard(m_lock);
        if (CBBLog::isDebugEnabled()) {
            const unsigned long long available =
                m_reader != nullptr ? m_reader->availableToRead() : 0;
            CBBLog::debug("MMSHClient::seek %lld - buf status %lld - content length %lld", offset,
                          static_cast<long long>(available),
                          static_cast<long long>(m_contentLength.load()));
        }
        CBBLog::info("MMSHClient::seek : %lld %d %lld", offset, whence, timeMs);
        if (m_stopped || !isComplete()) {
            return -1;
        }
        if (whence == SEEK_CUR) {
            offset += static_cast<long long>(m_reader->getGlobalOffset());
        }
        if (offset < 0 || CallbackMark::isInside(this)) {
            return -1;
        }
        if (timeMs < 0) {
            if (isTailRequest(offset)) {
                return -1;
            }
            const int duration = m_streamDuration;
            const unsigned long long length = m_contentLength;
            if (duration > 0 && length != 0) {
                timeMs = static_cast<long long>(static_cast<double>(duration) *
                                                static_cast<double>(offset) /
                                                static_cast<double>(length));
            }
        }
    }
    if (!m_seekable) {
        return offset;
    }
    claimConnection(ConnectionHolder::SEEK);
    const bool succeeded = beginSeek(offset) && finishSeek(performMMSHSeek(offset, timeMs));
    releaseConnection(succeeded);
    return succeeded ? offset : -1;
}

/// What lies so near the end that it is not worth a new stream: libavformat looks there for an
/// index.
bool MMSHClient::isTailRequest(long long offset)
{
    const auto length = static_cast<long long>(m_contentLength.load());
    if (m_reader->hasReachedEOF() && offset >= length) {
        return true;
    }
    if (length == 0 || offset < length - tailBytes) {
        return false;
    }
    CBBLog::debug("MMSHClient::seek %d - buf status %d - tail requested", static_cast<int>(offset),
                  static_cast<int>(m_reader->availableToRead()));
    return true;
}

/// Ends the connection and makes the ring ready for another position.
bool MMSHClient::beginSeek(long long offset)
{
    m_receivedEOF = false;
    PReadGuard guard(m_lock);
    if (m_stopped || !isComplete()) {
        return false;
    }
    if (m_reader->hasReachedEOF()) {
        m_contentLength = 0;
    }
    if (!resetConnection()) {
        return false;
    }
    m_bytesReceived = 0;
    dropMetadata();
    m_streamStart = static_cast<unsigned long long>(offset);
    m_buffer->resetGlobalOffset(static_cast<unsigned long long>(offset));
    return true;
}

/// @return `succeeded`
bool MMSHClient::finishSeek(bool succeeded)
{
    PReadGuard guard(m_lock);
    if (!succeeded) {
        CBBLog::warn("MMSHClient::seek : seek failed");
        if (m_requestHandler != nullptr) {
            m_requestHandler->close(); // it ends before its end would be an event
        }
        return false;
    }
    CBBLog::debug("MMSHClient::seek - seeked with request");
    if (m_contentLength == 0 && m_requestHandler != nullptr) {
        m_contentLength = m_requestHandler->getContentLength();
    }
    return true;
}

} // namespace zel
