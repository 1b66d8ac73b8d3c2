#pragma once

#include "common/ffmpeg/AudioResampler.h"
#include "common/ffmpeg/Handles.h"
#include "common/ffmpeg/PackedPictureScaler.h"
#include "common/utils/CBBLog.h"
#include "common/utils/Locks.h"
#include "encoder/BitrateMonitor.h"
#include "encoder/EncoderStream.h"
#include "plugin/StreamInterfaces.h"

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

class BasicMuxer;
class FFMpegStreamingProfile;

namespace zel::streamer {
class PacketQueue;
} // namespace zel::streamer

/// The encoder stage: takes raw or compressed packets, gives packets, container bytes or notices of
/// finished files.
///
///     write ──> raw pictures ── scale ── encode ──┐
///           ──> raw samples ─ resample ─ encode ──┼─> muxer ──> queue ──> readFrame
///           ──> compressed packets ───────────────┘   or packets straight into the queue
///
/// Raw packets are encoded, compressed ones copied or refused at set-up. It has no thread of its
/// own: control calls, write and readFrame come on threads of the host, in any order. A writer that
/// is too far ahead is held in write, outside every lock, until the reader has caught up.
///
/// Owner: the host. Lock order: m_writeMutex, the muxer's locks, m_queueLock, the queue's locks;
/// m_descriptionLock last. No lock is held while waiting for the host.
class FFMpegEncoder : public zel::streamer::TranscoderPluginAdaptor
{
public:
    FFMpegEncoder();
    /// In any state; no other call may be under way.
    ~FFMpegEncoder() override;
    FFMpegEncoder(const FFMpegEncoder&) = delete;
    FFMpegEncoder& operator=(const FFMpegEncoder&) = delete;

    /// Describes what leaves the stage. Any thread, does not wait for a writer.
    void getOutputStreamDescription(zel::streamer::OutputStreamDescription* out) override;
    /// Takes the next packet of the output and blocks until there is one.
    /// @return false when stopped or closed, and for a moment during resetPosition: the end of the
    ///         stream is the packet of type None
    bool readFrame(zel::streamer::PacketType::Enum& type, unsigned char*& data, unsigned int& size,
                   unsigned long long& timestamp, unsigned long long& duration, void*& context,
                   bool& keyFrame) override;
    void freeFrame(unsigned char* data, void* context) override;

    /// Settles a session. A session that is open ends first.
    /// @return 0; -1 when the input can neither be encoded nor copied; 2 for nothing to do, or
    /// H.264
    ///         that would have to be encoded; another negative value of the container
    int init(const zel::streamer::MediumDescription* medium,
             const zel::streamer::InputStreamDescription* input,
             const zel::streamer::RequestedStreamDescription* requested,
             const zel::streamer::MapGeneric* options,
             zel::streamer::EncoderEngine* engine) override;
    int close() override;
    /// @return 1, or 0 when there is no session, it was stopped, or its container refused to begin
    int start() override;
    /// Refuses packets from here on and ends the waits of both sides. It is no end of the stream:
    /// what is still queued is never read.
    int stop() override;
    /// Takes over the caller's reference. Waits while the reader is too far behind.
    /// @param packet  type None ends the stream: what is held back leaves first
    /// @return 1; 0 for null
    int write(zel::streamer::SamplePacket* packet) override;
    /// The host has sought: drops what is held, and goes on at the new position with the same
    /// reader. A packet whose write was waiting meanwhile is dropped with the rest.
    void resetPosition(unsigned long long position) override;

    /// Drops what is held between writer and reader.
    void flush();

    /// For the muxers: into the output queue. Takes over the reference; waits only while the queue
    /// itself is full.
    void pushPacket(zel::streamer::SamplePacket* packet);
    /// Whether the input has audio and no video.
    bool audioOnly() const { return m_audioOnly; }

    /// What a container's I/O context is given. @param opaque  the encoder
    static int headerCallback(void* opaque, unsigned char* data, int size);
    /// Comes from inside a write to the container, so m_writeMutex is held; libavformat cannot
    /// know.
    static int packetCallback(void* opaque, const unsigned char* data,
                              int size) ZEL_NO_THREAD_SAFETY_ANALYSIS;
    /// The output can neither be read nor sought.
    static int readCallback(void* opaque, unsigned char* data, int size);

private:
    /// What an encoder tells of itself, for the host's questions.
    struct StreamFacts
    {
        bool present = false;
        CStdStr<char> extradata; ///< hexadecimal text
        int bitrate = 0;         ///< bit/s
        int channels = 0;
        int sampleRate = 0; ///< hertz
        int width = 0;      ///< pixels
        int height = 0;
        double framePeriod = 0.0; ///< seconds
    };

    // Set-up, in the order of its steps.
    int initFFMpeg(zel::streamer::OutputStreamDescription* out) ZEL_REQUIRES(m_writeMutex);
    int addStreams(const zel::streamer::OutputStreamDescription& out) ZEL_REQUIRES(m_writeMutex);
    std::unique_ptr<EncoderStream> addNewStream(const CStdStr<char>& codec, AVMediaType type,
                                                bool copy, bool fallback)
        ZEL_REQUIRES(m_writeMutex);
    void settle(EncoderStream& stream, bool fallback) const ZEL_REQUIRES(m_writeMutex);
    void makeQueue(bool isRTP) ZEL_REQUIRES(m_writeMutex);
    void publishFacts() ZEL_REQUIRES(m_writeMutex);
    static StreamFacts factsOf(const EncoderStream& stream);
    void closeLocked() ZEL_REQUIRES(m_writeMutex);
    void deleteMuxer() ZEL_REQUIRES(m_writeMutex);
    int startLocked() ZEL_REQUIRES(m_writeMutex);
    void forgetSession() ZEL_REQUIRES(m_writeMutex);
    static void ffencoder_log_callback(void* object, int level, const char* format, va_list);

    // The data path.
    zel::streamer::SamplePacket* popPacket(bool wait);
    void dispatch(zel::streamer::SamplePacket& packet) ZEL_REQUIRES(m_writeMutex);
    void dispatchAudio(zel::streamer::SamplePacket& packet) ZEL_REQUIRES(m_writeMutex);
    void dispatchVideo(zel::streamer::SamplePacket& packet) ZEL_REQUIRES(m_writeMutex);
    void dispatchMetadata(zel::streamer::SamplePacket& packet) ZEL_REQUIRES(m_writeMutex);
    void pushCopy(zel::streamer::PacketType::Enum type, const unsigned char* data, int size,
                  unsigned long long timestamp, unsigned long long duration, bool keyFrame);
    unsigned long long audioTimestamp(const zel::streamer::SamplePacket& packet)
        ZEL_REQUIRES(m_writeMutex);
    long long presentationTime(const EncoderStream& stream, unsigned long long timestamp)
        ZEL_REQUIRES(m_writeMutex);
    void stopQueue();
    void flushQueue();
    void resetQueue();
    void flushLocked() ZEL_REQUIRES(m_writeMutex);
    void restartMuxer(unsigned long long position) ZEL_REQUIRES(m_writeMutex);

    void encodeVideoPacket(zel::streamer::SamplePacket& packet) ZEL_REQUIRES(m_writeMutex);
    bool drawPicture(zel::streamer::SamplePacket& packet) ZEL_REQUIRES(m_writeMutex);
    void stampPicture(unsigned long long timestamp) ZEL_REQUIRES(m_writeMutex);
    bool isForcedKeyFrame() const ZEL_REQUIRES(m_writeMutex);
    void doEncodeVideo(EncoderStream& stream, const long long& timestamp)
        ZEL_REQUIRES(m_writeMutex);
    static void RTPCallback(AVCodecContext* context, const void* data, int size, int mbCount);
    void deliverSlice(const unsigned char* data, int size);

    void encodeAudioPacket(zel::streamer::SamplePacket& packet) ZEL_REQUIRES(m_writeMutex);
    void encodeSamples(const int16_t* samples, int count, unsigned long long timestamp)
        ZEL_REQUIRES(m_writeMutex);
    bool prepareResampler(int channels, int sampleRate) ZEL_REQUIRES(m_writeMutex);
    void encodeFrames(unsigned long long timestamp) ZEL_REQUIRES(m_writeMutex);
    void deliverAudio(const AVPacket& packet, int samples, unsigned long long timestamp)
        ZEL_REQUIRES(m_writeMutex);

    FFMpegStreamingProfile* m_profile = nullptr; ///< owned
    boost::shared_ptr<CBBLog> m_log;
    std::unique_ptr<zel::av::PackedPictureScaler> m_swsContext; ///< made at the first raw picture
    std::unique_ptr<EncoderStream> m_videoStream;               ///< null when the stream is absent
    std::unique_ptr<EncoderStream> m_audioStream;
    std::unique_ptr<zel::av::AudioResampler> m_resampleContext; ///< made when needed
    BasicMuxer* m_muxer ZEL_GUARDED_BY(m_writeMutex) = nullptr; ///< owned
    zel::av::Frame m_picture;                                   ///< the encoder's input
    unsigned long long m_frameCount = 0;                        ///< handed to the encoder
    unsigned long long m_frameCountAtSeek = 0;     ///< m_frameCount at the first frame after a seek
    long long m_firstVideoTs = -1;                 ///< microseconds, origin of m_videoTs; -1: unset
    long long m_lastPts = 0;                       ///< of the last frame
    int m_frameDuration = 0;                       ///< microseconds
    long long m_videoTs = 0;                       ///< microseconds, of the current frame
    std::unique_ptr<int16_t[]> m_resampleBuffer;   ///< 524288 bytes
    zel::av::Fifo m_audioFifo;                     ///< raw samples, bytes
    std::unique_ptr<int16_t[]> m_audioFrameBuffer; ///< 131072 bytes, one frame for the encoder
    long long m_audioSampleCount = 0;              ///< encoded since set-up
    bool m_audioEncoded = false;
    bool m_audioSeekPending = false; ///< until the first encoded packet after a seek
    bool m_videoEncoded = false;
    bool m_videoSeekPending = false;     ///< until the first picture after a seek
    unsigned long long m_seekOffset = 0; ///< microseconds; pictures below are dropped
    long long m_videoTsOffset = 0;       ///< microseconds, subtracted from RTP time stamps
    PMutex m_writeMutex{PMutex::Recursive};
    zel::streamer::PacketQueue* m_queue ZEL_GUARDED_BY(m_queueLock) = nullptr; ///< owned
    PReadWriteLock m_queueLock; ///< the pointer m_queue
    PCondMutex m_stopped;
    std::atomic<bool> m_stoppedFlag{false};
    PCondMutex m_queueHasRoom;
    std::atomic<bool> m_queueHasRoomFlag{false};
    zel::streamer::BitrateMonitor m_inputMonitor;
    const int m_id; ///< counts the stages of the process
    std::atomic<bool> m_audioOnly{false};

    bool m_sliceIsKeyFrame = false;                ///< of the picture that is being sliced
    std::vector<unsigned char> m_audioPrivateData; ///< of copied streams, as the input has it
    std::vector<unsigned char> m_videoPrivateData;
    std::vector<int16_t> m_samples;       ///< of the packet that is being encoded
    unsigned long long m_nextAudioTs = 0; ///< microseconds, for a packet without a time stamp
    unsigned int m_seekCount ZEL_GUARDED_BY(m_writeMutex) = 0;

    PMutex m_descriptionLock;
    zel::streamer::OutputStreamDescription*
        m_outputStream ZEL_GUARDED_BY(m_descriptionLock) = nullptr; ///< the host's
    StreamFacts m_audioFacts ZEL_GUARDED_BY(m_descriptionLock);
    StreamFacts m_videoFacts ZEL_GUARDED_BY(m_descriptionLock);
    CStdStr<char> m_basePath ZEL_GUARDED_BY(m_descriptionLock); ///< empty unless files are written
};
