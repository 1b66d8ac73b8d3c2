#pragma once

#include "common/utils/StdString.h"

#include <boost/function.hpp>

namespace zel {

/// One HTTP download: opens a URL, delivers the body on a thread of its own, reports the response
/// headers, and starts again at another position.
///
/// Callbacks and request settings are set before open(). close() may come from any thread at any
/// moment, the others from one thread at a time; the questions are free for all.
class HTTPRequestHandler
{
public:
    /// Takes all the bytes and answers their number; any other answer ends the transfer.
    using WriteCallback = boost::function<long long(unsigned char*, unsigned long long)>;
    using EndOfFileCallback = boost::function<void()>;

    virtual ~HTTPRequestHandler() = default;

    /// Starts the request and returns when the headers are in.
    /// @return true when the server answered 200
    virtual bool open(CStdStr<char> url) = 0;
    /// Ends the transfer and its thread.
    virtual void close() = 0;
    /// The limit for connection and headers, and for a body that stands still; milliseconds.
    virtual void setTimeout(unsigned int ms) = 0;
    virtual unsigned int getTimeout() = 0;
    /// The sink of the body, called on the transfer thread.
    virtual void setWriteCallback(WriteCallback callback) = 0;
    /// Called on the transfer thread when the transfer is over, for whatever reason but a seek.
    virtual void setEndOfFileCallback(EndOfFileCallback callback) = 0;
    /// By bytes or by time.
    virtual bool canSeek() = 0;
    /// Both overrule what the server said.
    virtual void setTimeSeekable(bool seekable) = 0;
    virtual void setByteSeekable(bool seekable) = 0;
    /// Starts the transfer again at a position.
    /// @param timeMs  media time for servers that seek by time; negative for none
    virtual bool seek(unsigned long long offset, long long timeMs) = 0;
    /// HTTP status of the last response; 0 when there was none.
    virtual int getStatusCode() = 0;
    /// After redirects.
    virtual CStdStr<char> getUrl() = 0;
    /// Bytes; 0 when unknown.
    virtual unsigned long long getContentLength() = 0;
    virtual CStdStr<char> getContentType() = 0;
    /// Response headers by name, in any case.
    virtual bool hasRawHeader(const CStdStr<char>& name) = 0;
    /// Empty when there is no such header.
    virtual CStdStr<char> getRawHeader(const CStdStr<char>& name) = 0;
    virtual void setUserAgent(const CStdStr<char>& agent) = 0;
    virtual CStdStr<char> getUserAgent() = 0;
    /// Request headers.
    virtual void addRawHeader(const CStdStr<char>& name, const CStdStr<char>& value) = 0;
    virtual void clearRawHeaders() = 0;
    virtual void setHTTPVersion(const unsigned int& version) = 0;
    virtual unsigned int getHTTPVersion() = 0;
    virtual void setPostRequest(bool post) = 0;
    virtual bool isPostRequest() = 0;
};

} // namespace zel
