#pragma once

#include "common/utils/CBBLog.h"
#include "common/utils/Locks.h"
#include "common/utils/StdString.h"
#include "network/ConnectionEvent.h"
#include "plugin/StreamInterfaces.h"

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <atomic>
#include <map>
#include <memory>

class FFMpegDecoderCore;
namespace zel {
class HTTPClient;
}

/// The input plug-in: opens a medium and yields its frames and metadata.
///
/// Job: decides where the bytes of a medium come from, and drives a decoder core with them.
/// Owner: the host, which gets it from InputPluginFactory and ends it through the destructor.
/// Threads: any call on any thread at any time. readFrame runs on one host thread, control calls on
/// others. Input events reach the host on a thread of the client, with no lock held. The host may
/// call back there, close() included, which then ends the medium and leaves the rest to the next
/// call of close() or open(), or to the destructor. open() fails there, as do seeks that need a
/// request, and the destructor must not run there.
/// Lock order: m_openLock, m_lock, m_readLock, the stop event, then those of the client or core.
class FFMpegInput : public zel::streamer::InputPluginInterface
{
public:
    FFMpegInput();
    /// In any state; ends what is open.
    ~FFMpegInput() override;
    FFMpegInput(const FFMpegInput&) = delete;
    FFMpegInput& operator=(const FFMpegInput&) = delete;

    void getOutputStreamDescription(zel::streamer::OutputStreamDescription* out) override;
    bool readFrame(zel::streamer::PacketType::Enum& type, unsigned char*& data, unsigned int& size,
                   unsigned long long& timestamp, unsigned long long& duration, void*& context,
                   bool& keyFrame) override;
    void freeFrame(unsigned char* data, void* context) override;

    /// Reads the medium property "decoderThreads": how many threads may decode video, 0 or absent
    /// for as many as keep its cores at work. The frames are the same with any number, but for
    /// what a decoder makes up for parts that are lost.
    bool open(const zel::streamer::MediumDescription* medium, zel::streamer::Error* error,
              zel::streamer::EncoderEngine* engine) override;
    bool updateMedium(const zel::streamer::MediumDescription* medium, zel::streamer::Error* error,
                      zel::streamer::EncoderEngine* engine) override;
    int close() override;
    int start() override;
    int stop() override;
    int pause() override;
    int resume() override;
    int getPosition(unsigned long long& positionMs) override;
    int setTimePosition(unsigned long long positionMs) override;
    int setBytePosition(unsigned long long positionBytes) override;
    int resetPosition(unsigned long long positionMs) override;
    bool isSingleInstance() override;
    void getMediumDescription(zel::streamer::MediumDescription* out) override;
    void getInputStreamDescription(zel::streamer::OutputStreamDescription* out) override;
    bool skipAudioDecoding() override;
    bool skipVideoDecoding() override;
    bool setVideoDecodingMode(zel::streamer::DecodingMode::Enum mode) override;
    bool getInputBufferStatus(unsigned int& percent) override;
    void setInputEventCallback(void (*callback)(zel::streamer::InputEvent::Enum, int, int, void*),
                               void* data) override;

    /// Whether the duration is known.
    virtual bool isSeekable();

    /// The demuxer's name for a file extension; an extension without a rule stands for itself.
    static const char* getFFMpegFormatFromExtension(const char* extension);
    /// Whether a medium is fetched as MMS over HTTP, or by progressive download.
    /// @param protocol  with its separator, such as "http://", in any case
    static bool isMMSHSupported(CStdStr<char> protocol, CStdStr<char> extension);
    static bool isProgressiveDownloadSupported(CStdStr<char> protocol, CStdStr<char> extension);

    /// Whether the host's catalogue knows the duration better than the demuxer.
    bool useMediumDuration(FFMpegDecoderCore* decoder,
                           const zel::streamer::MediumDescription* medium);

protected:
    /// What the demuxer asks for when a client fetches the medium; on the thread that is inside the
    /// decoder core.
    /// @return bytes; 0 at the end, and after ten seconds without any during an open or a seek; -1
    ///         when stopped
    int HTTPReadCallback(unsigned char* buffer, int size);
    /// @return the new position, or the size; -1 on failure
    long long HTTPSeekCallback(long long offset, int whence);
    /// What a client tells, on one of its threads.
    void connectionEventCallback(zel::ConnectionEvent::ConnectionEvent event);
    /// New metadata whose place in the stream the reader has reached; on the reading thread.
    void _MMSHMetadataCallback(const std::map<CStdStr<char>, CStdStr<char>>& table);

private:
    /// Raises m_opening for a scope: no event passes to the host meanwhile.
    class Opening
    {
    public:
        explicit Opening(std::atomic<bool>& flag) : m_flag(flag) { m_flag = true; }
        ~Opening() { m_flag = false; }
        Opening(const Opening&) = delete;
        Opening& operator=(const Opening&) = delete;

    private:
        std::atomic<bool>& m_flag;
    };

    static void _metadataChangedEventCallback(void* self);
    void metadataChangedEventCallback();
    void useClassLog();
    void createDecoder(const zel::streamer::MediumDescription* medium);
    void deleteDecoder();
    int openDirectly(const zel::streamer::MediumDescription* medium);
    bool applyDuration(const zel::streamer::MediumDescription* medium);
    bool fail(int result, zel::streamer::Error* error);

    bool openThroughClient(const zel::streamer::MediumDescription* medium,
                           zel::streamer::Error* error, int& result);
    bool openOverMMSH(const zel::streamer::MediumDescription* medium, zel::streamer::Error* error,
                      int& result);
    bool openProgressively(const zel::streamer::MediumDescription* medium,
                           zel::streamer::Error* error, int& result);
    int initFromClient(const zel::streamer::MediumDescription* medium) ZEL_REQUIRES_SHARED(m_lock);
    void applyClientDuration() ZEL_REQUIRES_SHARED(m_lock);
    void setClient(std::unique_ptr<zel::HTTPClient> client);
    void deleteClient();
    void listenToClient() ZEL_REQUIRES_SHARED(m_lock);
    static int _HTTPReadCallback(void* opaque, unsigned char* buffer, int size);
    static long long _HTTPSeekCallback(void* opaque, long long offset, int whence);
    int readFromClient(unsigned char* buffer, int size) ZEL_REQUIRES_SHARED(m_lock);
    static bool isTail(long long offset, unsigned long long length, long long seekTarget);
    /// Whoever is inside the core, or reads from the client, holds the read side already; to take
    /// it again there would be against the order of locks.
    void assumeReading() ZEL_ASSERT_SHARED_CAPABILITY(m_lock) {}
    void flushNetworkBuffer() ZEL_REQUIRES_SHARED(m_lock);
    static void _connectionEventCallback(zel::ConnectionEvent::ConnectionEvent event, void* data);

    std::atomic<bool> m_running{false};
    CStdStr<char> m_url;                                           // touched by open alone
    FFMpegDecoderCore* m_decoder ZEL_GUARDED_BY(m_lock) = nullptr; // owned
    boost::shared_ptr<CBBLog> m_logger;
    std::atomic<unsigned long long> m_lastReadLog{0}; // milliseconds
    PReadWriteLock m_lock;
    zel::HTTPClient* m_client ZEL_GUARDED_BY(m_lock) = nullptr; // owned; null for local media
    std::atomic<bool> m_opening{false};
    std::atomic<long long> m_seekTarget{-1}; // milliseconds
    PMutex m_readLock;
    std::atomic<bool> m_metadataChanged{false};
    PCondMutex m_stopEvent;
    bool m_stopSignalled = false; // under m_stopEvent
    std::atomic<bool> m_skipAudio{false};
    std::atomic<bool> m_skipVideo{false};
    // Published as a pair.
    void (*m_inputEventCallback)(zel::streamer::InputEvent::Enum, int, int, void*)
        ZEL_GUARDED_BY(m_eventLock) = nullptr;
    void* m_inputEventData ZEL_GUARDED_BY(m_eventLock) = nullptr;
    PMutex m_eventLock;
    PMutex m_openLock;             // one open at a time
    std::atomic<int> m_closers{0}; // calls of close() under way: no open gets by meanwhile

    static boost::weak_ptr<CBBLog> s_logger;
};
