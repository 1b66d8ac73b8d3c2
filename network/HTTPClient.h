#pragma once

#include "buffers/CircularHistoryBuffer.h"
#include "buffers/CircularHistoryBufferReader.h"
#include "common/utils/CallbackMark.h"
#include "common/utils/Locks.h"
#include "common/utils/StdString.h"
#include "network/ConnectionEvent.h"
#include "network/HTTPRequestHandler.h"
#include "plugin/HostRecords.h"

#include <atomic>
#include <boost/function.hpp>
#include <map>

namespace zel {

/// Turns an HTTP resource into a seekable byte stream for a demuxer.
///
///     server ──> handler's transfer thread ── write ──> ring ── read, seek ──> demuxer's thread
///        ^            (blocks while the ring is full)    │ history behind the reader
///        └───────── new request for what lies further off ┘
///
/// read() and seek() belong to one thread, the demuxer's; open() to the owner. close() and the
/// questions may come from any thread at any moment. After close() the object cannot be used again.
/// close() within a callback of this class only stops the stream; another close(), or the
/// destructor, ends it then. open() and seeks that need a request fail there, and the destructor
/// must not run there.
class HTTPClient
{
public:
    using ConnectionEventCallback = void (*)(ConnectionEvent::ConnectionEvent, void*);
    using DataReadyCallback = boost::function<long long(unsigned char*, unsigned long long)>;
    using Metadata = std::map<CStdStr<char>, CStdStr<char>>;
    using MetadataCallback = boost::function<void(const Metadata&)>;

    /// @param bufferSize  bytes of the ring
    /// @param minimumHistorySize  bytes of it that stay behind the reader, for seeks back
    HTTPClient(unsigned int bufferSize, unsigned int minimumHistorySize);
    virtual ~HTTPClient();
    HTTPClient(const HTTPClient&) = delete;
    HTTPClient& operator=(const HTTPClient&) = delete;

    /// Returns when the response headers are in. An earlier stream of this object ends.
    /// @param error  filled when the server refuses; may be null
    virtual bool open(const CStdStr<char>& url, streamer::Error* error);
    /// Wakes everybody, ends the transfer, frees the ring.
    /// @return true
    virtual bool close();
    /// Blocks until all bytes are there, or the stream has ended, which gives the rest.
    /// @param timeoutMs  0 and less for no limit
    /// @return bytes; 0 at the end and after a time-out, which leaves what was there; -1 when
    /// stopped
    virtual int read(char* dst, unsigned long long size, int timeoutMs);
    /// The handler's sink, on the transfer thread. Blocks while the ring is full.
    /// @return bytes taken; -1 ends the transfer
    virtual long long write(unsigned char* data, unsigned long long size);
    /// Goes to a position: inside the ring, by waiting for a transfer that will soon be there, or
    /// by a new request.
    /// @param whence  as for lseek, or AVSEEK_SIZE, which answers the length and moves nothing
    /// @param timeMs  media time to seek to; negative for a seek by bytes only
    /// @return the new position, -1 on failure
    virtual long long seek(long long offset, int whence, long long timeMs);
    /// The handler's call at the end of a transfer, on the transfer thread.
    virtual void endOfFileCallback();
    virtual unsigned long long getByteAvailableToReadInBuffer();
    /// As an index of the ring.
    virtual unsigned long long getCurrentBufferReadPosition();
    /// @param percent  fill level of the part that reads ahead
    /// @return false when that says nothing: stopped, or at the end of the stream
    virtual bool getBufferStatus(unsigned int& percent);
    /// Both before open(). A data-ready callback takes the body in place of the ring.
    virtual void setDataReadyCallback(DataReadyCallback callback);
    virtual void setMetadataCallback(MetadataCallback callback);
    /// In the unit of the server's header; -1 when unknown.
    virtual int getStreamDuration();
    virtual int getStreamID(); ///< 0 when the server gave none
    virtual void setStreamDuration(const int& duration);
    virtual CStdStr<char> getContentType();
    virtual unsigned long long getContentLength(); ///< bytes; 0 when unknown
    /// The file extension to assume for the stream; empty when the server says nothing.
    virtual CStdStr<char> getCustomExtension();
    /// The server makes the stream as it sends it, so that bytes have no fixed relation to time.
    virtual bool isZelTranscoding();
    virtual bool canSeek();
    virtual void preventSeeking();
    virtual CStdStr<char> getUrl(); ///< after redirects

    /// Nothing is left to read and nothing will come.
    bool hasReachedEnd();

    /// Where connection events go, on the transfer thread and with no lock held. Set the data
    /// first.
    std::atomic<ConnectionEventCallback> m_connectionEventCallback{nullptr};
    std::atomic<void*> m_connectionEventData{nullptr};

protected:
    /// A new handler for one open(), bound to this object; the caller owns it.
    virtual HTTPRequestHandler* getRequestHandler();

    /// An open or seek under way. close() waits for it, closing the handler again and again, since
    /// a close that comes between two steps of it may find nothing to end.
    class Operation
    {
    public:
        explicit Operation(HTTPClient& client);
        ~Operation();
        Operation(const Operation&) = delete;
        Operation& operator=(const Operation&) = delete;

    private:
        HTTPClient& m_client;
    };

    long long seekUsingInternalBuffer(long long offset, int whence, long long timeMs);
    /// Makes a new handler and ends the one before it.
    void replaceHandler() ZEL_EXCLUDES(m_lock);
    /// Ends the transfer and empties the ring. Under the read side of m_lock, with all there.
    /// @return false when the client is being closed
    bool resetConnection() ZEL_REQUIRES_SHARED(m_lock);
    /// Lets the stream go on after a stop.
    /// @return false when the client is being closed, which leaves it stopped
    bool clearStop();
    void fireConnectionEvent(ConnectionEvent::ConnectionEvent event);
    /// Waits until no open or seek is under way any more.
    void awaitOperations();
    /// What a server of this system's own kind says of the stream.
    void readStreamHeaders() ZEL_REQUIRES_SHARED(m_lock);
    /// On the transfer thread. Blocks while the ring is full.
    /// @return bytes stored, fewer when stopped; -1 when the ring failed
    int storeInRing(const unsigned char* data, unsigned int size) ZEL_REQUIRES_SHARED(m_lock);
    /// Of the part of the ring that reads ahead; 0 where there is none.
    unsigned int fillPercent(unsigned long long available) const;
    void logBufferStatus(unsigned long long size) ZEL_REQUIRES_SHARED(m_lock);
    CStdStr<char> getProductName();
    bool makeRoomAhead(unsigned long long target) ZEL_REQUIRES_SHARED(m_lock);
    bool isSeekTargetAhead(unsigned long long offset, unsigned int limit)
        ZEL_REQUIRES_SHARED(m_lock);
    bool isComplete() const ZEL_REQUIRES_SHARED(m_lock)
    {
        return m_requestHandler != nullptr && m_buffer != nullptr && m_reader != nullptr;
    }

    CStdStr<char> m_url ZEL_GUARDED_BY(m_describedLock);
    CircularHistoryBuffer* m_buffer ZEL_GUARDED_BY(m_lock);                ///< owned
    CircularHistoryBufferReader* m_reader ZEL_GUARDED_BY(m_lock);          ///< owned by the ring
    HTTPRequestHandler* m_requestHandler ZEL_GUARDED_BY(m_lock) = nullptr; ///< owned
    PCondMutex m_stopEvent;                                                ///< with m_stopped
    PReadWriteLock m_lock;
    PMutex m_writeLock; ///< a write against the flush of a reset
    const unsigned int m_bufferSize;
    const unsigned int m_minimumHistorySize;
    std::atomic<unsigned int> m_openTime{0}; ///< zel::uptimeMs, which wraps here
    std::atomic<bool> m_dataReceived{false};
    CStdStr<char> m_contentType ZEL_GUARDED_BY(m_describedLock);
    CStdStr<char> m_customExtension ZEL_GUARDED_BY(m_describedLock);
    std::atomic<unsigned long long> m_contentLength{0};
    std::atomic<int> m_streamID{0};
    std::atomic<int> m_streamDuration{-1};
    /// Bytes beyond what is buffered that a seek would rather wait for than ask again.
    const unsigned int m_seekMargin = 0x100000;
    std::atomic<bool> m_zelStreaming{false};
    std::atomic<bool> m_direct{false};
    unsigned long long m_totalDownloaded = 0;                       ///< transfer thread's
    unsigned long long m_lastStatusLog = 0;                         ///< transfer thread's
    std::map<unsigned long long, unsigned long long> m_rateSamples; ///< transfer thread's
    DataReadyCallback m_dataReadyCallback;
    MetadataCallback m_metadataCallback;

    std::atomic<bool> m_stopped{false};
    std::atomic<bool> m_closing{false}; ///< for ever
    PMutex m_describedLock;
    PCondMutex m_operationsEvent;
    int m_operations ZEL_GUARDED_BY(m_operationsEvent) = 0;
};

} // namespace zel
