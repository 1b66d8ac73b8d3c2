#pragma once

#include "common/utils/Locks.h"
#include "common/utils/PThread.h"
#include "common/utils/StdString.h"

#include <atomic>
#include <boost/function.hpp>
#include <cstdint>
#include <curl/curl.h>
#include <exception>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

/// Objects over libcurl's easy handles. Failures are exceptions here, and nowhere else in the
/// network room.
namespace zel::cURL {

struct EasyDeleter
{
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct MultiDeleter
{
    void operator()(CURLM* handle) const { curl_multi_cleanup(handle); }
};
struct SListDeleter
{
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using EasyHandle = std::unique_ptr<CURL, EasyDeleter>;
using MultiHandle = std::unique_ptr<CURLM, MultiDeleter>;
using SList = std::unique_ptr<curl_slist, SListDeleter>;

/// libcurl could not make a handle.
class CUrlException : public std::exception
{
};

/// An option, a question or a transfer failed.
class CUrlEasyException : public CUrlException
{
public:
    explicit CUrlEasyException(CURLcode code) : m_code(code) {}

    /// libcurl's text for the code.
    const char* what() const noexcept override;
    CURLcode getCode() const { return m_code; }

private:
    CURLcode m_code;
};

/// One cookie, its fields in the order of a line of a cookie file.
struct Cookie
{
    CStdStr<char> domain;
    bool tailMatch = false; ///< also for hosts below the domain
    CStdStr<char> path;
    bool secure = false;
    long long expires = 0; ///< seconds since 1970; 0 ends with the session
    CStdStr<char> name;
    CStdStr<char> value;
};

/// One HTTP request and its transfer. Follows redirects to http and https, decodes compressed
/// bodies, keeps cookies between its own transfers, and ends a transfer that stands still.
///
/// Set up, run and asked by one thread at a time; only abort() comes from others. The questions
/// (status, length, type, URL, cookies) belong to the thread that runs perform(), within its
/// callbacks too, or come after it.
class Request
{
public:
    /// Takes `size * count` bytes and answers how many it took; any other number ends the transfer.
    /// An exception ends it too, and goes no further.
    using Callback = boost::function<unsigned long(void*, unsigned long, unsigned long)>;

    /// @throws CUrlException  without a handle
    Request();
    virtual ~Request();
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    /// All setters throw CUrlEasyException when libcurl refuses the option.
    void setOption(CURLoption option, long value);
    /// libcurl copies the text, except that of CURLOPT_POSTFIELDS.
    void setOption(CURLoption option, const CStdStr<char>& value);
    void setNoCertCheck(); ///< accepts any issuer; the host's name is still compared
    /// Sends POST with an empty body instead of GET.
    void setPostRequest(bool post);
    void setRedirect(bool follow);
    void setConnectTimeout(long ms);
    /// Ends a transfer that gets no body byte for so long, from its first moment on; 0 for never.
    /// Time that the write callback takes does not count.
    void setReadTimeout(unsigned int ms) { m_readTimeout = ms; }
    /// Refuses to take more body bytes than this, over all transfers of this object; 0 for no
    /// limit.
    void setMaxSize(int bytes) { m_maxSize = bytes; }
    void setKeyPasswd(const CStdStr<char>& password);
    void setSSLKey(const CStdStr<char>& path);
    void setSSLCertificate(const CStdStr<char>& path);
    void setUserAgent(const CStdStr<char>& agent);
    void setURL(const CStdStr<char>& url);
    void setReferer(const CStdStr<char>& url);

    /// Appends an entry to a list option; the lists are dropped by the next perform(). An empty
    /// text does nothing.
    void setSListOption(CURLoption option, const CStdStr<char>& entry);
    /// Adds header lines; several in one text are parted by "\r\n".
    void setAdditionalHeader(const CStdStr<char>& header);
    void setAdditionalHTTPOKAliases(const CStdStr<char>& alias);
    void freeSlists();

    /// An empty function refuses every byte. Before one is set headers are dropped, and the body
    /// goes to the standard output, as libcurl has it.
    void setHeaderCallback(const Callback& callback);
    void setWriteCallback(const Callback& callback);
    /// Takes the body and drops it.
    void setEmptyWriteCallback();
    /// Sinks for setWriteCallback. The target outlives the transfer; this object is bound too.
    Callback getFileWriter(std::ofstream& stream);
    Callback getBinaryWriter(std::vector<char>& bytes);
    Callback getStringWriter(CStdStr<char>& text);

    /// Runs the transfer to its end on the calling thread.
    /// @throws std::exception  of no further type, when a callback refused bytes
    /// @throws CUrlEasyException  when the transfer failed or was aborted
    void perform();
    /// Ends the transfer under way at once, and every later one before it begins. Any thread, at
    /// any moment of the object's life.
    void abort();

    /// @throws CUrlEasyException  as do the other questions
    int getStatusCode() const;
    unsigned long long getContentLength() const; ///< bytes; 0 when unknown
    CStdStr<char> getContentType() const;        ///< empty when there is none
    CStdStr<char> getUrl() const;                ///< after redirects
    std::map<CStdStr<char>, Cookie> getCookies() const;

    static CStdStr<char> encodeURL(const CStdStr<char>& text);
    static CStdStr<char> decodeURL(const CStdStr<char>& text);

protected:
    /// Leaves functions that refuse every byte, whatever they held. No transfer is under way.
    void clearCallbacks();
    /// Takes an earlier abort() back. No transfer is under way.
    void clearAbort() { m_abort = false; }

private:
    template <class T>
    void setAny(CURLoption option, T value);
    template <class T>
    T getAny(CURLINFO question) const;
    CURLcode transfer();
    CURLcode transferResult();
    int pollTimeoutMs() const;

    /// What libcurl calls, on the thread that runs perform().
    static std::size_t headerCallback(char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t writeCallback(char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t emptyCallback(char* data, std::size_t size, std::size_t count, void* self);
    static int progressCallback_(void* self, curl_off_t total, curl_off_t now,
                                 curl_off_t uploadTotal, curl_off_t uploadNow);
    unsigned long takeBody(void* data, unsigned long size, unsigned long count);
    /// @return 0, or -1 to end the transfer
    int progressCallback(double total, double now, double uploadTotal, double uploadNow);

    unsigned long fileWriter(std::ofstream& stream, const void* data, unsigned long size,
                             unsigned long count);
    unsigned long binaryWriter(std::vector<char>& bytes, const void* data, unsigned long size,
                               unsigned long count);
    unsigned long stringWriter(CStdStr<char>& text, const void* data, unsigned long size,
                               unsigned long count);

    EasyHandle m_handle;
    std::exception m_exception; ///< what perform() throws when bytes were refused
    Callback m_headerCallback;
    Callback m_writeCallback;
    std::map<CURLoption, SList> m_slists; ///< libcurl holds their addresses
    std::int32_t m_maxSize = 0;           ///< body bytes, 0 for no limit
    std::int32_t m_bytesReceived = 0;     ///< body bytes of all transfers; stays at its maximum
    std::atomic<bool> m_abort{false};
    std::uint32_t m_readTimeout = 0;  ///< milliseconds, 0 for none
    double m_lastDownloaded = 0;      ///< body bytes on the wire, as last seen
    std::uint32_t m_lastProgress = 0; ///< uptime in milliseconds, wraps
    MultiHandle m_multi;              ///< runs m_handle, so that abort() can wake the transfer
};

/// A Request on a thread of its own, whose body the owner pulls. What was not pulled yet is
/// bounded: a full buffer holds the transfer until somebody reads.
///
/// Set up, started and read by one thread; abort() may come from others. The base's questions may
/// be asked after abort(), or when the reader has met the end of the body.
class AsyncRequest : public Request
{
public:
    /// @param maxBufferSize  body bytes at which the transfer is held. A chunk that is larger, or
    ///                       that a reader needs to go on, is taken all the same.
    explicit AsyncRequest(unsigned long maxBufferSize);
    ~AsyncRequest() override;

    /// Begins the transfer, from position 0. An older one is aborted, and what it left is dropped.
    /// @throws std::runtime_error  "Failed to create thread: %d" with the error number
    void start();
    /// Does nothing: a reader that stops reading pauses the transfer.
    void pause() {}
    /// Blocks until there is something to give. Positions count like those of the body, modulo
    /// 2^32, and never go back; one further ahead drops what lies before it.
    /// @param waitForAll  wait for `size` bytes, or for the end of the transfer
    /// @return number of bytes; -1 when `position` is given out already, after abort(), and when
    ///         the transfer has ended and nothing is left
    long getData(unsigned char* dst, unsigned long size, unsigned long position, bool waitForAll);
    /// Blocks until the final response's headers are complete or the transfer has ended.
    /// @return false when there are none: it failed before, or time was up
    bool waitForHeaders(int timeoutMs);
    /// The final response's status line and headers, with their line ends; complete after
    /// waitForHeaders(), though trailers may follow. Any thread.
    CStdStr<char> getHeaders();
    /// Ends the transfer and its thread, and wakes the reader. Any thread but the transfer's.
    void abort();

private:
    int performThread(void* argument);
    unsigned long headerCallback(const void* data, unsigned long size, unsigned long count);
    unsigned long writeCallback(const void* data, unsigned long size, unsigned long count);

    void endTransfer() ZEL_REQUIRES(m_control);
    void transferEnded();
    std::size_t bufferedLocked() const ZEL_REQUIRES(m_buffer);
    void dropLocked(std::size_t bytes) ZEL_REQUIRES(m_buffer);
    void appendLocked(const char* data, std::size_t bytes) ZEL_REQUIRES(m_buffer);
    bool skipToLocked(std::uint32_t position) ZEL_REQUIRES(m_buffer);
    void waitForLocked(std::size_t bytes) ZEL_REQUIRES(m_buffer);
    bool readerStarvesLocked() const ZEL_REQUIRES(m_buffer);

    CStdStr<char> m_headers ZEL_GUARDED_BY(m_headerEvent);
    PCondMutex m_headerEvent;
    PVectorCondMutex<char> m_buffer; ///< body bytes from m_taken on
    const std::uint32_t m_maxBufferSize;
    std::uint32_t m_position ZEL_GUARDED_BY(m_buffer) = 0; ///< of the first byte in m_buffer
    bool m_finished ZEL_GUARDED_BY(m_buffer) = false;      ///< abort was asked for
    bool m_readerWaiting ZEL_GUARDED_BY(m_buffer) = false;
    std::unique_ptr<PThread> m_thread ZEL_GUARDED_BY(m_control);
    bool m_headersComplete = false;                    ///< stands beside m_headerEvent
    bool m_headersOver = false;                        ///< as above: complete, or never to come
    bool m_ended ZEL_GUARDED_BY(m_buffer) = false;     ///< the transfer is over
    std::size_t m_taken ZEL_GUARDED_BY(m_buffer) = 0;  ///< bytes of m_buffer given out already
    std::size_t m_needed ZEL_GUARDED_BY(m_buffer) = 0; ///< bytes that a waiting reader waits for
    PMutex m_control; ///< one start() or abort() at a time; taken before the others
};

} // namespace zel::cURL
