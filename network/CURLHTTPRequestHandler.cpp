#include "network/CURLHTTPRequestHandler.h"

#include "common/utils/CBBLog.h"
#include "common/utils/Clock.h"

#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace zel {

namespace {

/// Any answer but the number of bytes makes libcurl end the transfer.
constexpr auto refuse = static_cast<unsigned long>(-1);
/// The headers of one response; a server that sends more is hostile.
constexpr std::size_t headersLimit = 300UL * 1024;
/// Of a refused response, bytes that are still delivered. The sink must have room for them without
/// a reader, since the caller of open() waits for this thread.
constexpr unsigned long long refusedBodyLimit = 64ULL * 1024;

std::atomic<int> s_lastId{0};

bool isRedirect(int status)
{
    return status >= 300 && status <= 399;
}

bool isInterim(int status)
{
    return status >= 100 && status <= 199;
}

} // namespace

CURLHTTPRequestHandler::CURLHTTPRequestHandler(const CStdStr<char>& userAgent)
    : m_userAgent(userAgent), m_id(++s_lastId)
{
}

CURLHTTPRequestHandler::~CURLHTTPRequestHandler()
{
    CURLHTTPRequestHandler::close();
}

// -------------------------------------------------------------------------------------------------
// Starting and ending, on the caller's threads.

bool CURLHTTPRequestHandler::open(CStdStr<char> url)
{
    const unsigned int closesSeen = m_closes;
    if (isTransferThread()) {
        return false; // what is to be replaced runs this call
    }
    if (!m_closed) {
        endTransfer();
    }
    m_restarted = false;
    {
        PMutexGuard guard(m_textLock);
        m_url = url;
    }
    if (start(closesSeen) && m_statusCode == 200) {
        return true;
    }
    endTransfer();
    CBBLog::debug("CURLHTTPRequestHandler[%d]::open failed statusCode: %d", m_id,
                  m_statusCode.load());
    return false;
}

bool CURLHTTPRequestHandler::seek(unsigned long long offset, long long timeMs)
{
    if (isTransferThread()) {
        return false; // as in open
    }
    PMutexGuard seekGuard(m_seekLock);
    m_seeking = true;
    if (!canSeek()) {
        m_seeking = false;
        return false;
    }
    m_seekOffset = offset;
    if (timeMs >= 0) {
        m_seekSeconds = timeMs / 1000;
    }
    const unsigned int closesSeen = m_closes + 1;
    close();
    m_seeking = false;
    m_restarted = true;
    if (!start(closesSeen)) {
        abortTransfer();
        return false;
    }
    if (m_statusCode > 300) {
        CBBLog::warn("CURLHTTPRequestHandler[%d]::seek failed statusCode: %d", m_id,
                     m_statusCode.load());
        abortTransfer();
        return false;
    }
    return true;
}

/// Makes the request and its thread, and waits for the headers.
/// @param closesSeen  calls of close() that this start comes after; at any further one it gives up
/// @return false when closed, or without headers in time; otherwise m_statusCode tells
bool CURLHTTPRequestHandler::start(unsigned int closesSeen)
{
    CBBLog::debug("CURLHTTPRequestHandler[%d]::start %s %d", m_id, getUrl().c_str(),
                  static_cast<int>(m_seekSeconds));
    {
        PWriteGuard guard(m_lock);
        // In this order: a close() that comes too late for the comparison sees an open handler and
        // sets events that nobody resets any more.
        m_closed = false;
        m_stopEvent.reset(m_stopped);
        m_headerEvent.reset(m_headersIn);
        if (m_closes != closesSeen) {
            return false;
        }
        try {
            setUpRequest();
        } catch (const cURL::CUrlException& e) {
            CBBLog::error("CURLHTTPRequestHandler[%d]::start failed: %s", m_id, e.what());
            return false;
        }
        m_thread = new PThread(nullptr, this, &CURLHTTPRequestHandler::performThread, nullptr);
    }
    const int timeoutMs = static_cast<int>(std::min(m_timeout.load(), 0x7fffffffU));
    if (m_headerEvent.timedWait(m_headersIn, absoluteTimeAfter(timeoutMs)) != 0) {
        CBBLog::error("CURLHTTPRequestHandler[%d]::start timed out", m_id);
        return false;
    }
    if (m_stopped) {
        return false;
    }
    m_statusCode = m_responseStatus.load();
    return true;
}

/// Under the write side of m_lock, with no request left from before.
void CURLHTTPRequestHandler::setUpRequest()
{
    auto request = std::make_unique<cURL::Request>();
    const CStdStr<char> header = additionalHeader();
    {
        PMutexGuard guard(m_textLock);
        request->setURL(m_url);
        request->setConnectTimeout(m_timeout);
        request->setReadTimeout(m_timeout);
        request->setUserAgent(m_userAgent);
        if (!m_certPath.empty()) {
            request->setSSLCertificate(m_certPath);
        }
        if (!m_keyPath.empty()) {
            request->setSSLKey(m_keyPath);
        }
        if (!m_keyPassword.empty()) {
            request->setKeyPasswd(m_keyPassword);
        }
        m_headers.clear();
    }
    if (!m_verifyPeer) {
        request->setNoCertCheck();
    }
    if (m_postRequest) {
        request->setPostRequest(true);
    }
    request->setAdditionalHeader(header);
    request->setHeaderCallback([this](void* data, unsigned long size, unsigned long count) {
        return headerCallback(data, size, count);
    });
    request->setWriteCallback([this](void* data, unsigned long size, unsigned long count) {
        return writeCallback(data, size, count);
    });
    m_redirected = false;
    m_responseStatus = 0;
    m_refusedBytes = 0;
    m_request = request.release();
}

/// The position and the caller's lines, as one text. The start of a resource is the plain request.
CStdStr<char> CURLHTTPRequestHandler::additionalHeader()
{
    std::vector<CStdStr<char>> lines;
    if (m_seekSeconds != 0 && m_timeSeekable) {
        CStdStr<char> line;
        line.Format("Zel-Seek: seconds=%lld", m_seekSeconds.load());
        CBBLog::debug("sending Zel-Seek: seconds=%lld", m_seekSeconds.load());
        lines.push_back(line);
    }
    if (m_seekOffset != 0) {
        // Kept: an unknown length gives an end of -1, which servers read as "to the end".
        CStdStr<char> line;
        line.Format("Range: bytes=%lld-%lld", static_cast<long long>(m_seekOffset.load()),
                    static_cast<long long>(m_contentLength.load() - 1));
        lines.push_back(line);
    }
    PMutexGuard guard(m_textLock);
    lines.insert(lines.end(), m_rawHeaders.begin(), m_rawHeaders.end());
    CStdStr<char> text;
    for (const CStdStr<char>& line : lines) {
        if (text.empty()) {
            text = line;
        } else {
            text.AppendFormat("\r\n%s", line.c_str());
        }
    }
    return text;
}

void CURLHTTPRequestHandler::close()
{
    ++m_closes;
    if (m_closed) {
        return;
    }
    CBBLog::debug("CURLHTTPRequestHandler[%d]::close", m_id);
    endTransfer();
}

void CURLHTTPRequestHandler::endTransfer()
{
    if (isTransferThread()) {
        stopTransfer();
        return; // it cannot wait for itself
    }
    // One at a time, since the thread that is joined must not be deleted meanwhile.
    PMutexGuard endGuard(m_endLock);
    PThread* const thread = stopTransfer();
    if (thread != nullptr) {
        thread->join();
    }
    PWriteGuard guard(m_lock);
    if (m_thread != thread) {
        return; // another transfer, which has begun behind this end
    }
    delete std::exchange(m_thread, nullptr);
    delete std::exchange(m_request, nullptr);
    m_closed = true;
}

/// All at once, so that a transfer is stopped either wholly or, when it begins later, not at all.
/// @return the thread of what was stopped; null without one
PThread* CURLHTTPRequestHandler::stopTransfer()
{
    PReadGuard guard(m_lock);
    m_stopEvent.signal(m_stopped);
    m_headerEvent.signal(m_headersIn);
    if (m_request != nullptr) {
        m_request->abort();
    }
    return m_thread;
}

void CURLHTTPRequestHandler::abortTransfer()
{
    PReadGuard guard(m_lock);
    if (m_request != nullptr) {
        m_request->abort();
    }
}

// -------------------------------------------------------------------------------------------------
// The transfer thread.

int CURLHTTPRequestHandler::performThread(void* /*argument*/)
{
    if (m_request == nullptr) {
        CBBLog::info("CURLHTTPRequestHandler[%d]::performThread : m_request is NULL!", m_id);
        return 0;
    }
    m_transferThread = std::this_thread::get_id();
    try {
        m_request->perform();
    } catch (const cURL::CUrlEasyException& e) {
        CBBLog::info(
            "CURLHTTPRequestHandler[%d]::performThread : perform threw CUrlEasyException %d: %s",
            m_id, static_cast<int>(e.getCode()), e.what());
    } catch (const std::exception& e) {
        CBBLog::debug(
            "CURLHTTPRequestHandler[%d]::performThread : perform threw std::exception: %s", m_id,
            e.what());
    }
    if (!m_seeking) {
        // A transfer that dies before its headers must not leave start() waiting.
        m_headerEvent.signal(m_headersIn);
        if (m_endOfFileCallback) {
            m_endOfFileCallback();
        }
    }
    m_transferThread = std::thread::id();
    return 0;
}

unsigned long CURLHTTPRequestHandler::headerCallback(void* data, unsigned long size,
                                                     unsigned long count)
{
    if (m_stopped || !m_writeCallback) {
        return refuse;
    }
    const unsigned long length = size * count;
    bool complete = false;
    {
        PMutexGuard guard(m_textLock);
        if (m_headers.size() + length > headersLimit) {
            return refuse;
        }
        complete = collectHeader(static_cast<const char*>(data), length);
    }
    if (complete) {
        headersComplete();
    }
    return length;
}

/// @return true when the block of headers is at its end
bool CURLHTTPRequestHandler::collectHeader(const char* data, unsigned long length)
{
    CStdStr<char> line(std::string(data, length));
    line.resize(std::min(line.find('\0'), line.size()));
    m_headers += line.ToLower();
    return m_headers.size() >= 5 && m_headers.compare(m_headers.size() - 4, 4, "\r\n\r\n") == 0;
}

void CURLHTTPRequestHandler::headersComplete()
{
    takeStatus();
    const int status = m_responseStatus;
    {
        PMutexGuard guard(m_textLock);
        CBBLog::debug("CURLHTTPRequestHandler[%d]::headerCallback %d %s", m_id, status,
                      m_headers.c_str());
    }
    if (isRedirect(status) || isInterim(status)) {
        if (isRedirect(status)) {
            m_redirected = true;
            CBBLog::debug("CURLHTTPRequestHandler[%d]::headerCallback HTTP redirect %s", m_id,
                          getRawHeader("Location").c_str());
        }
        PMutexGuard guard(m_textLock);
        m_headers.clear();
        return;
    }
    if (m_redirected) {
        const CStdStr<char> url = m_request->getUrl();
        PMutexGuard guard(m_textLock);
        m_url = url;
    }
    // Only the whole resource tells its length: a part would make the next range end too early.
    const CStdStr<char> length = getRawHeader("Content-Length");
    if (status == 200 && !length.empty()) {
        m_contentLength = std::strtoull(length.c_str(), nullptr, 10);
    }
    // Never back to false: an answer to a seek need not repeat these.
    if (getRawHeader("Accept-Ranges").find("bytes") != std::string::npos) {
        m_byteSeekable = true;
    }
    if (getRawHeader("Accept-Zel-Seek").find("seconds") != std::string::npos) {
        m_timeSeekable = true;
    }
    m_headerEvent.signal(m_headersIn);
}

/// Here and not where it is wanted, since libcurl answers the transfer thread only.
void CURLHTTPRequestHandler::takeStatus()
{
    try {
        m_responseStatus = m_request->getStatusCode();
    } catch (const std::exception& e) {
        CBBLog::debug("CURLHTTPRequestHandler[%d]::start : getStatusCode threw exception %s", m_id,
                      e.what());
    }
}

unsigned long CURLHTTPRequestHandler::writeCallback(void* data, unsigned long size,
                                                    unsigned long count)
{
    if (m_stopped) {
        return refuse;
    }
    const unsigned long length = size * count;
    if (m_seeking) {
        return length;
    }
    const int status = m_responseStatus;
    if (m_restarted && status > 300) {
        return length; // no part of the resource
    }
    if (!m_restarted && status != 200) {
        m_refusedBytes += length;
        if (m_refusedBytes > refusedBodyLimit) {
            return refuse;
        }
    }
    return static_cast<unsigned long>(m_writeCallback(static_cast<unsigned char*>(data), length));
}

// -------------------------------------------------------------------------------------------------
// Questions and settings.

CStdStr<char> CURLHTTPRequestHandler::getUrl()
{
    PMutexGuard guard(m_textLock);
    return m_url;
}

CStdStr<char> CURLHTTPRequestHandler::getContentType()
{
    return getRawHeader("Content-Type");
}

bool CURLHTTPRequestHandler::hasRawHeader(const CStdStr<char>& name)
{
    CStdStr<char> text = name;
    text.ToLower() += ":";
    PMutexGuard guard(m_textLock);
    return m_headers.find(text) != std::string::npos;
}

CStdStr<char> CURLHTTPRequestHandler::getRawHeader(const CStdStr<char>& name)
{
    CStdStr<char> text = name;
    text.ToLower() += ":";
    PMutexGuard guard(m_textLock);
    const std::size_t found = m_headers.find(text);
    if (found == std::string::npos) {
        return {};
    }
    const std::size_t begin = found + text.size();
    const std::size_t end = m_headers.find("\r\n", begin);
    CStdStr<char> value(m_headers.substr(begin, end - begin));
    return value.Trim();
}

void CURLHTTPRequestHandler::setUserAgent(const CStdStr<char>& agent)
{
    PMutexGuard guard(m_textLock);
    m_userAgent = agent;
}

CStdStr<char> CURLHTTPRequestHandler::getUserAgent()
{
    PMutexGuard guard(m_textLock);
    return m_userAgent;
}

void CURLHTTPRequestHandler::addRawHeader(const CStdStr<char>& name, const CStdStr<char>& value)
{
    CStdStr<char> line;
    line.Format("%s: %s", name.c_str(), value.c_str());
    PMutexGuard guard(m_textLock);
    m_rawHeaders.push_back(line);
}

void CURLHTTPRequestHandler::clearRawHeaders()
{
    {
        PMutexGuard guard(m_textLock);
        m_rawHeaders.clear();
    }
    m_seekOffset = 0;
    m_seekSeconds = 0;
}

void CURLHTTPRequestHandler::setCertPath(const CStdStr<char>& path)
{
    PMutexGuard guard(m_textLock);
    m_certPath = path;
}

void CURLHTTPRequestHandler::setKeyPath(const CStdStr<char>& path)
{
    PMutexGuard guard(m_textLock);
    m_keyPath = path;
}

void CURLHTTPRequestHandler::setKeyPassword(const CStdStr<char>& password)
{
    PMutexGuard guard(m_textLock);
    m_keyPassword = password;
}

} // namespace zel
