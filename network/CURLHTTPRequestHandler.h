#pragma once

#include "common/utils/Locks.h"
#include "common/utils/PThread.h"
#include "network/HTTPRequestHandler.h"
#include "network/cURLRequest.h"

#include <atomic>
#include <thread>
#include <vector>

namespace zel {

/// The handler of the HTTP and MMS clients, on libcurl.
///
/// A request runs on a thread of its own and is deleted when that has been joined. close() on that
/// very thread, from a callback, only stops the transfer; another close(), or the destructor, which
/// must come from elsewhere, joins it. open() and seek() fail there.
class CURLHTTPRequestHandler : public HTTPRequestHandler
{
public:
    explicit CURLHTTPRequestHandler(const CStdStr<char>& userAgent);
    ~CURLHTTPRequestHandler() override;
    CURLHTTPRequestHandler(const CURLHTTPRequestHandler&) = delete;
    CURLHTTPRequestHandler& operator=(const CURLHTTPRequestHandler&) = delete;

    bool open(CStdStr<char> url) override;
    void close() override;
    void setTimeout(unsigned int ms) override { m_timeout = ms; }
    unsigned int getTimeout() override { return m_timeout; }
    void setWriteCallback(WriteCallback callback) override { m_writeCallback = callback; }
    void setEndOfFileCallback(EndOfFileCallback callback) override
    {
        m_endOfFileCallback = callback;
    }
    bool canSeek() override { return m_byteSeekable || m_timeSeekable; }
    void setTimeSeekable(bool seekable) override { m_timeSeekable = seekable; }
    void setByteSeekable(bool seekable) override { m_byteSeekable = seekable; }
    /// A refused or failed seek leaves no transfer, and nothing of the answer is delivered.
    bool seek(unsigned long long offset, long long timeMs) override;
    int getStatusCode() override { return m_statusCode; }
    CStdStr<char> getUrl() override;
    unsigned long long getContentLength() override { return m_contentLength; }
    CStdStr<char> getContentType() override;
    /// Kept: the name is looked for anywhere in the headers, so a name may also match inside
    /// another header.
    bool hasRawHeader(const CStdStr<char>& name) override;
    /// Kept: in lower case, since the headers are compared and not shown.
    CStdStr<char> getRawHeader(const CStdStr<char>& name) override;
    void setUserAgent(const CStdStr<char>& agent) override;
    CStdStr<char> getUserAgent() override;
    void addRawHeader(const CStdStr<char>& name, const CStdStr<char>& value) override;
    /// Forgets the position of the last seek as well.
    void clearRawHeaders() override;
    /// Stored for the caller; libcurl chooses the version.
    void setHTTPVersion(const unsigned int& version) override { m_httpVersion = version; }
    unsigned int getHTTPVersion() override { return m_httpVersion; }
    /// With an empty body.
    void setPostRequest(bool post) override { m_postRequest = post; }
    bool isPostRequest() override { return m_postRequest; }

    /// The client's certificate, for the next request.
    virtual void setCertPath(const CStdStr<char>& path);
    virtual void setKeyPath(const CStdStr<char>& path);
    virtual void setKeyPassword(const CStdStr<char>& password);
    /// False accepts any issuer of the server's certificate; the host's name is compared always.
    virtual void setVerifyPeer(bool verify) { m_verifyPeer = verify; }

protected:
    /// What libcurl calls: one header line, and a stretch of the body.
    /// @return size * count, or another number to end the transfer
    unsigned long headerCallback(void* data, unsigned long size, unsigned long count);
    unsigned long writeCallback(void* data, unsigned long size, unsigned long count);

private:
    bool start(unsigned int closesSeen);
    void setUpRequest();
    CStdStr<char> additionalHeader();
    void endTransfer();
    PThread* stopTransfer();
    void abortTransfer();
    bool isTransferThread() const { return m_transferThread == std::this_thread::get_id(); }

    int performThread(void* argument);
    bool collectHeader(const char* data, unsigned long length) ZEL_REQUIRES(m_textLock);
    void takeStatus();
    void headersComplete();

    /// Owned. Guarded by m_lock for all threads but its own, which outlives nothing of it.
    cURL::Request* m_request = nullptr;
    CStdStr<char> m_url ZEL_GUARDED_BY(m_textLock);
    PThread* m_thread = nullptr; ///< owned; guarded as m_request
    std::atomic<unsigned int> m_timeout{30000};
    std::atomic<int> m_statusCode{0};
    std::atomic<unsigned int> m_httpVersion{1};
    bool m_redirected = false; ///< the transfer thread's
    CStdStr<char> m_headers ZEL_GUARDED_BY(m_textLock);
    CStdStr<char> m_userAgent ZEL_GUARDED_BY(m_textLock);
    std::atomic<unsigned long long> m_contentLength{0};
    std::atomic<unsigned long long> m_seekOffset{0};
    std::atomic<long long> m_seekSeconds{0};
    std::atomic<bool> m_seeking{false}; ///< the old transfer ends in silence
    std::atomic<bool> m_byteSeekable{false};
    std::atomic<bool> m_timeSeekable{false};
    CStdStr<char> m_certPath ZEL_GUARDED_BY(m_textLock);
    CStdStr<char> m_keyPath ZEL_GUARDED_BY(m_textLock);
    CStdStr<char> m_keyPassword ZEL_GUARDED_BY(m_textLock);
    std::atomic<bool> m_verifyPeer{true};
    std::atomic<bool> m_postRequest{false};
    PCondMutex m_stopEvent; ///< with m_stopped
    std::atomic<bool> m_closed{true};
    PCondMutex m_headerEvent;                                           ///< with m_headersIn
    PReadWriteLock m_lock;                                              ///< m_request
    std::vector<CStdStr<char>> m_rawHeaders ZEL_GUARDED_BY(m_textLock); ///< "name: value"
    const int m_id;
    WriteCallback m_writeCallback;
    EndOfFileCallback m_endOfFileCallback;

    PMutex m_textLock;
    PMutex m_seekLock; ///< one seek at a time
    PMutex m_endLock;  ///< one end of a transfer at a time
    std::atomic<bool> m_stopped{false};
    std::atomic<bool> m_headersIn{false}; ///< or the transfer is over
    std::atomic<int> m_responseStatus{0}; ///< of the present transfer's latest response
    std::atomic<bool> m_restarted{false}; ///< the present request is that of a seek
    /// Raised by every close(), so that a start that was under way notices one that came too early
    /// to find its transfer.
    std::atomic<unsigned int> m_closes{0};
    std::atomic<std::thread::id> m_transferThread{};
    unsigned long long m_refusedBytes = 0; ///< the transfer thread's
};

} // namespace zel
