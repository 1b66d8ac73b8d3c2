#include "network/cURLRequest.h"

#include "common/utils/CBBLog.h"
#include "common/utils/Clock.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <string_view>

namespace zel::cURL {

namespace {

constexpr const char* certificateFile = "cacert.pem"; ///< in the working directory
constexpr const char* protocols = "http,https";
constexpr long maxRedirects = 30;
constexpr long receiveBufferBytes = 256 << 10;
constexpr int idleTickMs = 1000; ///< as curl_easy_perform ticks
constexpr unsigned long long maxBinaryLength = 0xffffffffULL;
constexpr unsigned long long maxStringLength = 0x3ffffffcULL;

/// Once a process. Never cleaned up: the library stays loaded, and others may use libcurl too.
bool initLibrary()
{
    static const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
    return result == CURLE_OK;
}

std::uint32_t nowMs()
{
    return static_cast<std::uint32_t>(zel::uptimeMs());
}

bool isReadableFile(const char* path)
{
    struct stat facts = {};
    return stat(path, &facts) == 0 && S_ISREG(facts.st_mode) && access(path, R_OK) == 0;
}

CURLcode easyCode(CURLMcode code)
{
    switch (code) {
    case CURLM_OK:
        return CURLE_OK;
    case CURLM_OUT_OF_MEMORY:
        return CURLE_OUT_OF_MEMORY;
    case CURLM_RECURSIVE_API_CALL:
        return CURLE_RECURSIVE_API_CALL;
    default:
        return CURLE_FAILED_INIT;
    }
}

/// Keeps an easy handle in a multi handle for a scope.
class Membership
{
public:
    Membership(CURLM* multi, CURL* easy)
        : m_multi(multi), m_easy(easy), m_result(curl_multi_add_handle(multi, easy))
    {
    }
    ~Membership()
    {
        if (m_result == CURLM_OK) {
            curl_multi_remove_handle(m_multi, m_easy);
        }
    }
    Membership(const Membership&) = delete;
    Membership& operator=(const Membership&) = delete;

    CURLMcode result() const { return m_result; }

private:
    CURLM* m_multi; ///< not owned
    CURL* m_easy;   ///< not owned
    CURLMcode m_result;
};

/// Calls a callback on behalf of libcurl, which no exception may cross.
/// @return the callback's result; 0 when it threw or asks for a pause, which nothing would end
unsigned long callSafely(const Request::Callback& callback, void* data, unsigned long size,
                         unsigned long count)
{
    try {
        const unsigned long result = callback(data, size, count);
        return result == CURL_WRITEFUNC_PAUSE ? 0 : result;
    } catch (const std::exception& failure) {
        CBBLog::debug("cURL::Request callback threw exception %s", failure.what());
    } catch (...) {
        CBBLog::debug("cURL::Request callback threw exception %s", "of unknown type");
    }
    return 0;
}

} // namespace

const char* CUrlEasyException::what() const noexcept
{
    return curl_easy_strerror(m_code);
}

Request::Request()
    : m_handle(initLibrary() ? curl_easy_init() : nullptr),
      m_multi(m_handle ? curl_multi_init() : nullptr)
{
    if (!m_handle || !m_multi) {
        throw CUrlException();
    }
    setOption(CURLOPT_NOSIGNAL, 1); // many threads, no signals
    setOption(CURLOPT_COOKIEFILE, "");
    setOption(CURLOPT_ACCEPT_ENCODING, "");
    setOption(CURLOPT_FOLLOWLOCATION, 1);
    setOption(CURLOPT_NOPROGRESS, 0); // abort and read time-out live in the progress callback
    setAny(CURLOPT_XFERINFOFUNCTION, &Request::progressCallback_);
    setAny(CURLOPT_XFERINFODATA, static_cast<void*>(this));
    if (isReadableFile(certificateFile)) {
        // A missing file would fail every https transfer; the system's own store serves then.
        setOption(CURLOPT_CAINFO, certificateFile);
    }

    // A URL comes from outside, a redirect from further away: neither may read local files.
    setOption(CURLOPT_PROTOCOLS_STR, protocols);
    setOption(CURLOPT_REDIR_PROTOCOLS_STR, protocols);
    setOption(CURLOPT_MAXREDIRS, maxRedirects);
    // Fewer system calls: a third less processor time for a fast body than with 16 KiB.
    setOption(CURLOPT_BUFFERSIZE, receiveBufferBytes);
#if LIBCURL_VERSION_NUM >= 0x075700
    // Otherwise an abort waits for the name that is being looked up.
    setOption(CURLOPT_QUICK_EXIT, 1);
#endif
}

Request::~Request()
{
    abort();
    freeSlists();
    m_handle.reset(); // before the multi handle, whose connections it has used
}

template <class T>
void Request::setAny(CURLoption option, T value)
{
    const CURLcode result = curl_easy_setopt(m_handle.get(), option, value);
    if (result != CURLE_OK) {
        throw CUrlEasyException(result);
    }
}

void Request::setOption(CURLoption option, long value)
{
    setAny(option, value);
}

void Request::setOption(CURLoption option, const CStdStr<char>& value)
{
    setAny(option, value.c_str());
}

void Request::setNoCertCheck()
{
    setOption(CURLOPT_SSL_VERIFYPEER, 0);
}

void Request::setPostRequest(bool post)
{
    if (post) {
        // Without a body of its own libcurl would read one from the standard input.
        setOption(CURLOPT_POSTFIELDSIZE, 0);
        setAny(CURLOPT_POSTFIELDS, "");
    }
    setOption(CURLOPT_POST, post ? 1 : 0);
}

void Request::setRedirect(bool follow)
{
    setOption(CURLOPT_FOLLOWLOCATION, follow ? 1 : 0);
}

void Request::setConnectTimeout(long ms)
{
    setOption(CURLOPT_CONNECTTIMEOUT_MS, ms);
}

void Request::setKeyPasswd(const CStdStr<char>& password)
{
    setOption(CURLOPT_KEYPASSWD, password);
}

void Request::setSSLKey(const CStdStr<char>& path)
{
    setOption(CURLOPT_SSLKEY, path);
}

void Request::setSSLCertificate(const CStdStr<char>& path)
{
    setOption(CURLOPT_SSLCERT, path);
}

void Request::setUserAgent(const CStdStr<char>& agent)
{
    setOption(CURLOPT_USERAGENT, agent);
}

void Request::setURL(const CStdStr<char>& url)
{
    setOption(CURLOPT_URL, url);
}

void Request::setReferer(const CStdStr<char>& url)
{
    setOption(CURLOPT_REFERER, url);
}

void Request::setSListOption(CURLoption option, const CStdStr<char>& entry)
{
    if (entry.empty()) {
        return;
    }
    SList& list = m_slists[option];
    curl_slist* grown = curl_slist_append(list.get(), entry.c_str());
    if (grown == nullptr) {
        throw CUrlEasyException(CURLE_OUT_OF_MEMORY);
    }
    static_cast<void>(list.release()); // is part of `grown`
    list.reset(grown);
    setAny(option, list.get());
}

void Request::setAdditionalHeader(const CStdStr<char>& header)
{
    setSListOption(CURLOPT_HTTPHEADER, header);
    CBBLog::debug("cURL::Request::setAdditionalHeader %s", header.c_str());
}

void Request::setAdditionalHTTPOKAliases(const CStdStr<char>& alias)
{
    setSListOption(CURLOPT_HTTP200ALIASES, alias);
    CBBLog::debug("cURL::Request::setAdditionalHTTPOKAliases %s", alias.c_str());
}

void Request::freeSlists()
{
    for (const auto& [option, list] : m_slists) {
        // libcurl would read the freed list at the next transfer.
        curl_easy_setopt(m_handle.get(), option, static_cast<curl_slist*>(nullptr));
    }
    m_slists.clear();
}

void Request::setHeaderCallback(const Callback& callback)
{
    setAny(CURLOPT_HEADERFUNCTION, &Request::headerCallback);
    setAny(CURLOPT_HEADERDATA, static_cast<void*>(this));
    m_headerCallback = callback;
}

void Request::setWriteCallback(const Callback& callback)
{
    setAny(CURLOPT_WRITEFUNCTION, &Request::writeCallback);
    setAny(CURLOPT_WRITEDATA, static_cast<void*>(this));
    m_writeCallback = callback;
}

void Request::setEmptyWriteCallback()
{
    setAny(CURLOPT_WRITEFUNCTION, &Request::emptyCallback);
    m_writeCallback.clear();
}

void Request::clearCallbacks()
{
    m_headerCallback.clear();
    m_writeCallback.clear();
}

Request::Callback Request::getFileWriter(std::ofstream& stream)
{
    return [this, &stream](void* data, unsigned long size, unsigned long count) {
        return fileWriter(stream, data, size, count);
    };
}

Request::Callback Request::getBinaryWriter(std::vector<char>& bytes)
{
    return [this, &bytes](void* data, unsigned long size, unsigned long count) {
        return binaryWriter(bytes, data, size, count);
    };
}

Request::Callback Request::getStringWriter(CStdStr<char>& text)
{
    return [this, &text](void* data, unsigned long size, unsigned long count) {
        return stringWriter(text, data, size, count);
    };
}

void Request::perform()
{
    m_lastProgress = nowMs();
    const CURLcode result = transfer();
    freeSlists();
    if (result == CURLE_OK) {
        return;
    }
    if (result == CURLE_WRITE_ERROR) {
        // Somebody did not want the bytes; nothing is wrong with the transfer.
        throw m_exception;
    }
    throw CUrlEasyException(result);
}

void Request::abort()
{
    m_abort = true;
    curl_multi_wakeup(m_multi.get()); // the one call that is allowed on other threads
}

CURLcode Request::transfer()
{
    if (m_abort) {
        return CURLE_ABORTED_BY_CALLBACK;
    }
    const Membership membership(m_multi.get(), m_handle.get());
    CURLMcode code = membership.result();
    while (code == CURLM_OK) {
        // Every round ticks, so a wake-up by abort() ends the transfer here.
        int running = 0;
        code = curl_multi_perform(m_multi.get(), &running);
        if (code == CURLM_OK && running == 0) {
            return transferResult();
        }
        if (code == CURLM_OK) {
            code = curl_multi_poll(m_multi.get(), nullptr, 0, pollTimeoutMs(), nullptr);
        }
    }
    return easyCode(code);
}

CURLcode Request::transferResult()
{
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(m_multi.get(), &left)) {
        if (message->msg == CURLMSG_DONE && message->easy_handle == m_handle.get()) {
            return message->data.result;
        }
    }
    return CURLE_FAILED_INIT;
}

/// Not longer than what is left of the read time-out, so that short ones are noticed on time.
int Request::pollTimeoutMs() const
{
    if (m_readTimeout == 0) {
        return idleTickMs;
    }
    const std::uint32_t still = nowMs() - m_lastProgress;
    const std::uint32_t left = still < m_readTimeout ? m_readTimeout - still : 1;
    return static_cast<int>(std::min<std::uint32_t>(left, idleTickMs));
}

std::size_t Request::headerCallback(char* data, std::size_t size, std::size_t count, void* self)
{
    return callSafely(static_cast<Request*>(self)->m_headerCallback, data, size, count);
}

std::size_t Request::writeCallback(char* data, std::size_t size, std::size_t count, void* self)
{
    return static_cast<Request*>(self)->takeBody(data, size, count);
}

std::size_t Request::emptyCallback(char*, std::size_t size, std::size_t count, void*)
{
    return size * count;
}

unsigned long Request::takeBody(void* data, unsigned long size, unsigned long count)
{
    const unsigned long result = callSafely(m_writeCallback, data, size, count);
    m_lastProgress = nowMs();
    // A refusal may be any number; it counts as nothing.
    const unsigned long taken = result <= size * count ? result : 0;
    const long long received = m_bytesReceived + static_cast<long long>(taken);
    m_bytesReceived = static_cast<std::int32_t>(
        std::min<long long>(received, std::numeric_limits<std::int32_t>::max()));
    if (m_maxSize != 0 && received > m_maxSize) {
        return 0;
    }
    return result;
}

int Request::progressCallback_(void* self, curl_off_t total, curl_off_t now, curl_off_t uploadTotal,
                               curl_off_t uploadNow)
{
    return static_cast<Request*>(self)->progressCallback(
        static_cast<double>(total), static_cast<double>(now), static_cast<double>(uploadTotal),
        static_cast<double>(uploadNow));
}

int Request::progressCallback(double /*total*/, double now, double /*uploadTotal*/,
                              double /*uploadNow*/)
{
    if (m_readTimeout != 0) {
        if (now != m_lastDownloaded) {
            m_lastDownloaded = now;
            m_lastProgress = nowMs();
        } else if (nowMs() - m_lastProgress >= m_readTimeout) {
            CBBLog::info("cURL::Request read timeout after %dms", static_cast<int>(m_readTimeout));
            return -1;
        }
    }
    return m_abort ? -1 : 0;
}

/// Kept: answers for all bytes even when the stream could not write them. The stream's own state
/// tells, and its owner decides whether the rest is worth having.
unsigned long Request::fileWriter(std::ofstream& stream, const void* data, unsigned long size,
                                  unsigned long count)
{
    stream.write(static_cast<const char*>(data), static_cast<std::streamsize>(size * count));
    return size * count;
}

unsigned long Request::binaryWriter(std::vector<char>& bytes, const void* data, unsigned long size,
                                    unsigned long count)
{
    if (bytes.empty()) {
        const unsigned long long length = getContentLength();
        if (length > maxBinaryLength) {
            throw std::invalid_argument("Content too big");
        }
        bytes.reserve(length);
    }
    const auto* first = static_cast<const char*>(data);
    bytes.insert(bytes.end(), first, first + size * count);
    return size * count;
}

unsigned long Request::stringWriter(CStdStr<char>& text, const void* data, unsigned long size,
                                    unsigned long count)
{
    if (text.empty()) {
        const unsigned long long length = getContentLength();
        if (length > maxStringLength) {
            throw std::invalid_argument("Content too big");
        }
        text.reserve(length);
    }
    text.append(static_cast<const char*>(data), size * count);
    return size * count;
}

template <class T>
T Request::getAny(CURLINFO question) const
{
    T answer = {};
    const CURLcode result = curl_easy_getinfo(m_handle.get(), question, &answer);
    if (result != CURLE_OK) {
        throw CUrlEasyException(result);
    }
    return answer;
}

int Request::getStatusCode() const
{
    return static_cast<int>(getAny<long>(CURLINFO_RESPONSE_CODE));
}

unsigned long long Request::getContentLength() const
{
    const auto length = getAny<curl_off_t>(CURLINFO_CONTENT_LENGTH_DOWNLOAD_T);
    return length > 0 ? static_cast<unsigned long long>(length) : 0;
}

CStdStr<char> Request::getContentType() const
{
    return getAny<const char*>(CURLINFO_CONTENT_TYPE);
}

CStdStr<char> Request::getUrl() const
{
    return getAny<const char*>(CURLINFO_EFFECTIVE_URL);
}

std::map<CStdStr<char>, Cookie> Request::getCookies() const
{
    const SList lines(getAny<curl_slist*>(CURLINFO_COOKIELIST));
    std::map<CStdStr<char>, Cookie> cookies;
    for (const curl_slist* line = lines.get(); line != nullptr; line = line->next) {
        char domain[256] = {};
        char tailMatch[8] = {};
        char path[256] = {};
        char secure[8] = {};
        long long expires = 0;
        char name[256] = {};
        char value[256] = {};
        const int fields = std::sscanf(line->data, "%255s\t%7s\t%255s\t%7s\t%lld\t%255s\t%255s",
                                       domain, tailMatch, path, secure, &expires, name, value);
        if (fields != 7) {
            continue; // a cookie without a value, for one
        }
        cookies[name] = Cookie{domain,  std::string_view(tailMatch) == "TRUE",
                               path,    std::string_view(secure) == "TRUE",
                               expires, name,
                               value};
    }
    return cookies;
}

CStdStr<char> Request::encodeURL(const CStdStr<char>& text)
{
    constexpr std::string_view reserved = "\"`#$%&+,/:;<=>?@[\\]^{|}~";
    CStdStr<char> encoded;
    encoded.reserve(text.size() * 3);
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        if (byte == ' ') {
            encoded += '+';
        } else if (byte < 0x20 || byte >= 0x7f || reserved.find(letter) != std::string_view::npos) {
            // Kept: one digit is filled up with a blank. decodeURL reads it back, and servers of
            // this system have never seen another form.
            char escape[4] = {};
            std::snprintf(escape, sizeof(escape), "%%%2hX", static_cast<unsigned short>(byte));
            encoded += escape;
        } else {
            encoded += letter;
        }
    }
    return encoded;
}

CStdStr<char> Request::decodeURL(const CStdStr<char>& text)
{
    CStdStr<char> decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            decoded += ' ';
        } else if (text[i] == '%' && i + 2 < text.size()) {
            const char digits[3] = {text[i + 1], text[i + 2], '\0'};
            decoded += static_cast<char>(std::strtol(digits, nullptr, 16));
            i += 2;
        } else {
            decoded += text[i];
        }
    }
    return decoded;
}

} // namespace zel::cURL
