#pragma once

#include "common/utils/PThread.h"
#include "network/HTTPClient.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <vector>

namespace zel {

/// Plays an ASF stream from a server that speaks MMS over HTTP.
///
///     body:  $H header | $M metadata | $D packet | $D packet | ... | $E end
///              │           │             └─ zeros up to the packet size ─┐
///              v           v                                             v
///     ring:  header ── delivered when the reader has got there ── packet packet ...
///
/// The demuxer sees a plain ASF file. Two threads of its own beside the base's: one asks for the
/// rest of a stream whose connection broke; the keep-alive loop, for a paused stream, is started by
/// nobody yet.
class MMSHClient : public HTTPClient
{
public:
    /// One chunk, as a view of somebody else's bytes.
    struct MMSFrame
    {
        bool complete = false; ///< all of it is there
        const unsigned char* raw = nullptr;
        const unsigned char* extraHeader = nullptr;
        unsigned int extraLength = 0; ///< less than its type's in a chunk that is too short for it
        const unsigned char* payload = nullptr;
        unsigned int length = 0; ///< of the payload
        unsigned int type = 0;
        unsigned int value = 0; ///< first number of the extra header of data and end chunks
    };

    MMSHClient(unsigned int bufferSize, unsigned int minimumHistorySize);
    ~MMSHClient() override;
    MMSHClient(const MMSHClient&) = delete;
    MMSHClient& operator=(const MMSHClient&) = delete;

    /// Returns when the ASF header is in.
    bool open(const CStdStr<char>& url, streamer::Error* error) override;
    bool close() override;
    /// Also delivers the metadata that the reader has passed, on the reading thread.
    int read(char* dst, unsigned long long size, int timeoutMs) override;
    /// Takes chunks in pieces of any size. The transfer thread's.
    /// @return `size`; -1 when the stream is stopped
    long long write(unsigned char* data, unsigned long long size) override;
    /// By bytes within the ring where that is possible, else by a new request.
    long long seek(long long offset, int whence, long long timeMs) override;
    /// Decides whether the stream has ended or broken.
    void endOfFileCallback() override;

protected:
    static constexpr std::size_t streamSlots = 23;
    /// In every request, of all clients alike.
    static constexpr const char* clientId = "xClientGUID={c77e7400-738a-11d2-9add-0020af0a3278}";

    /// @return a frame that the caller deletes; null when not even the chunk's head is there
    MMSFrame* getMMSFrame(char* data, unsigned int size);
    /// Walks the objects of an ASF header.
    /// @return whether it came to the header's end; mostly not, since what follows the header in
    /// its chunk says a size that is not there. What was found until then is taken.
    bool processHeader(MMSFrame* frame);
    /// @return false when the chunk is too short to hold any
    bool processMetadata(MMSFrame* frame) ZEL_REQUIRES_SHARED(m_lock);

    long long seekUsingMMSHRequest(long long offset, int whence, long long timeMs);
    /// Ends the transfer and asks for the stream from a position on; by bytes when timeMs is
    /// negative. One thread at a time.
    bool performMMSHSeek(long long offset, long long timeMs);
    void keepAliveThread(void* argument);
    void recoverBrokenStreamThread(void* argument);
    /// Runs keepAliveThread on a thread of its own.
    void startKeepAlive();

    std::atomic<unsigned int> m_requestContext{0}; ///< counts requests
    std::atomic<bool> m_seekable{false};
    std::atomic<bool> m_live{false};
    bool m_headerWritten = false; ///< transfer thread's; an ASF header is in the ring
    std::atomic<unsigned long long> m_bytesReceived{0}; ///< payload of data chunks, unpadded
    std::vector<unsigned char> m_pending;               ///< transfer thread's; not yet parsed
    std::size_t m_pendingSize = 0;                      ///< bytes of it that count
    bool m_endSeen = false;                             ///< transfer thread's; its stream has ended
    /// What the ASF header says; the transfer thread's.
    unsigned int m_packetLength = 0; ///< bytes; 0 when unknown
    unsigned int m_totalPackets = 0;
    unsigned int m_streamCount = 0;
    unsigned long long m_preroll = 0;
    bool m_hasAudio = false;
    bool m_hasVideo = false;
    std::atomic<bool> m_seeking{false};                  ///< a request replaces the connection
    std::atomic<bool> m_receivedEOF{false};              ///< the end of a transfer means nothing
    std::array<unsigned int, streamSlots> m_streamIds{}; ///< by position, the others by id
    std::array<unsigned int, streamSlots> m_streamTypes{};
    std::array<unsigned int, streamSlots> m_streamBitrates{};
    std::array<unsigned int, streamSlots> m_streamBitratePositions{}; ///< within the header
    PCondMutex m_headerEvent; ///< with m_headerHandled and m_transferOver
    std::unique_ptr<PThread> m_keepAliveThread ZEL_GUARDED_BY(m_keepAliveEvent);
    /// By the stream offset that the reader has to pass.
    std::map<unsigned long long, std::map<CStdStr<char>, CStdStr<char>>>
        m_metadata ZEL_GUARDED_BY(m_metadataLock);
    PMutex m_metadataLock;
    std::unique_ptr<PThread> m_recoverThread ZEL_GUARDED_BY(m_recoverEvent);

    int m_keepAliveWaitMs = 20000; ///< between two requests

private:
    static bool parseFrame(const unsigned char* data, std::size_t size, MMSFrame& frame);
    bool handleChunk(MMSFrame& frame) ZEL_REQUIRES_SHARED(m_lock);
    bool storeChunk(const MMSFrame& frame) ZEL_REQUIRES_SHARED(m_lock);
    bool storeWhole(const unsigned char* data, unsigned int size) ZEL_REQUIRES_SHARED(m_lock);
    bool pad(unsigned int size) ZEL_REQUIRES_SHARED(m_lock);
    void endStream() ZEL_REQUIRES_SHARED(m_lock);
    void keepPending(const unsigned char* data, std::size_t size);
    void takeFileProperties(const unsigned char* data, std::size_t size);
    void takeStreamHeader(const unsigned char* data, std::size_t size);
    void takeBitrates(const unsigned char* data, std::size_t size, unsigned int position);
    bool isListed(unsigned int id) const;
    bool listStream(unsigned int id, unsigned int type);

    bool openStream(const CStdStr<char>& url, streamer::Error* error);
    bool endTransferAndStop();
    bool requestStream(const CStdStr<char>& url, streamer::Error* error)
        ZEL_REQUIRES_SHARED(m_lock);
    bool speaksMMSH() ZEL_REQUIRES_SHARED(m_lock);
    void takeFeatures() ZEL_REQUIRES_SHARED(m_lock);
    void addRequestHeaders(const char* position, unsigned int maxDuration)
        ZEL_REQUIRES_SHARED(m_lock);
    bool awaitHeader(int timeoutMs);
    bool isTailRequest(long long offset) ZEL_REQUIRES_SHARED(m_lock);
    bool beginSeek(long long offset);
    bool finishSeek(bool succeeded);
    void deliverMetadata();
    void dropMetadata();

    /// Who may send requests for the stream, and who gives way to whom.
    enum class ConnectionHolder
    {
        NOBODY,
        RECOVERY,
        SEEK,
        OPEN
    };
    void claimConnection(ConnectionHolder wanted);
    void releaseConnection(bool succeeded);
    void leaveConnectionLocked() ZEL_REQUIRES(m_recoverEvent);

    bool noteEndWhileSeeking();
    void endTransfer() ZEL_REQUIRES_SHARED(m_lock);
    void forgetEnds();
    void recoverStream();
    bool resumeStream();
    bool countAttempt();
    bool isResumed();
    bool takeBreak();
    bool isRecoveryOff() const { return m_stopped || m_cancelRecovery; }
    void joinRecovery();
    bool awaitKeepAlive();
    bool sendKeepAlive(HTTPRequestHandler& handler);
    void stopKeepAlive();
    int runRecovery(void* argument);
    int runKeepAlive(void* argument);

    std::atomic<bool> m_headerHandled{false};         ///< the first one of the connection
    std::atomic<bool> m_transferOver{false};          ///< no header comes any more
    std::atomic<unsigned long long> m_streamStart{0}; ///< offset of the last reset of the ring
    PCondMutex m_recoverEvent;                        ///< guards the following
    bool m_recovering ZEL_GUARDED_BY(m_recoverEvent) = false; ///< the thread looks for breaks
    ConnectionHolder m_holder ZEL_GUARDED_BY(m_recoverEvent) = ConnectionHolder::NOBODY;
    int m_seekers ZEL_GUARDED_BY(m_recoverEvent) = 0; ///< opens and seeks that want or have it
    bool m_brokenAgain ZEL_GUARDED_BY(m_recoverEvent) = false;
    bool m_endedWhileSeeking ZEL_GUARDED_BY(m_recoverEvent) = false;
    int m_retries ZEL_GUARDED_BY(m_recoverEvent) = 0;
    unsigned long long m_bytesAtBreak ZEL_GUARDED_BY(m_recoverEvent) = 0;
    std::atomic<bool> m_cancelRecovery{false};
    PCondMutex m_keepAliveEvent;
    HTTPRequestHandler*
        m_keepAliveHandler ZEL_GUARDED_BY(m_keepAliveEvent) = nullptr; ///< its loop's
};

} // namespace zel
