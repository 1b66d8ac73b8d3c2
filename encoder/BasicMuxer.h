#pragma once

#include "common/ffmpeg/Handles.h"
#include "common/utils/Locks.h"
#include "encoder/AVPacketSync.h"
#include "encoder/BitrateMonitor.h"
#include "encoder/MuxTimes.h"
#include "encoder/MuxerPacket.h"

#include <vector>

class FFMpegEncoder;
class FFMpegStreamingProfile;
struct EncoderStream;

/// Merges the encoded streams of a session and writes them as one container.
///
///     writeAudioPacket ─┐                                          ┌─ header ── headerCallback
///                       ├─> AVPacketSync ─> libavformat ─> bytes ──┤
///     writeVideoPacket ─┘   by time stamp                          └─ frames ── packetCallback
///
/// The bytes go to the stage's queue; a key frame is announced there right in front of its bytes.
/// Output that is not multiplexed takes the same way as far as the merge and leaves as packets.
///
/// Owner: FFMpegEncoder, which makes one for a session and for each segmented seek. Threads: any;
/// m_muxLock is taken before m_contextLock, the mutex of m_resumed last, and the stage's queue from
/// inside all of them.
class BasicMuxer
{
public:
    /// @param encoder  gets the packets; as the profile not owned, and outlives this
    BasicMuxer(FFMpegEncoder* encoder, FFMpegStreamingProfile* profile);
    virtual ~BasicMuxer();
    BasicMuxer(const BasicMuxer&) = delete;
    BasicMuxer& operator=(const BasicMuxer&) = delete;

    /// Makes the container's context. Once, before addStream.
    /// @return 0 or -1
    virtual int initOutputContext();
    /// Ends the container and frees it.
    virtual void close();
    /// @return false when the container refuses its streams
    virtual bool writeHeader();
    /// Writes what the merge holds, then the container's end.
    virtual void writeEnd();
    /// Copies a packet into the merge.
    /// @param size       bytes in data
    /// @param pts        of the stream's time base
    /// @param timestamp  microseconds
    /// @return 1
    virtual int writeAudioPacket(const unsigned char* data, const unsigned long long& size,
                                 const long long& pts, const long long& timestamp);
    virtual int writeVideoPacket(const unsigned char* data, const unsigned long long& size,
                                 const long long& pts, const long long& timestamp, bool keyFrame);
    /// First half of a seek: ends the container without a byte of it reaching the host, and drops
    /// what the merge holds. Writers wait until seekResume.
    virtual void seekPause();
    /// Second half: begins a container for the same reader, who keeps the header that it has.
    /// @param position  milliseconds
    virtual void seekResume(const unsigned long long& position);
    /// Drops what the merge holds, and lets the container's buffered bytes out.
    virtual void flush();
    /// @return 0, or 1 for a muxer that writes files
    virtual int getType();
    /// The next file shall begin at this time, microseconds.
    virtual void setNewSegmentTs(unsigned long long timestamp);

protected:
    /// Writes a packet that has passed the merge, and releases it.
    virtual void muxSyncedPacket(MuxerPacket* packet);
    /// @return 0, or 1 when there was nothing to end
    virtual int writeTrailer();
    virtual int initIOContext();

public:
    /// Adds a stream to the context, before the header. Copies what it needs.
    /// @return the stream's index, -1 without memory or context
    int addStream(const EncoderStream& stream);
    /// The time base of the container's stream, settled by the header; 1/1000 for an absent one.
    AVRational timeBaseOf(AVMediaType type);
    /// Samples go to the audio encoder.
    void noteSamples(long long timestampUs, double durationUs);
    /// What a copied stream's decoder is set up with, for a stream that came without.
    void setVideoExtradata(const unsigned char* data, int size);
    /// The time stamp for the next byte packet, which unsets it.
    unsigned long long takePendingTs();

protected:
    enum class Bytes
    {
        Header,  ///< collected, and passed on in one piece
        Packet,  ///< passed on as they come
        Discard, ///< of a header or trailer that the host must not see
    };

    /// What a stream of a new context is made of.
    struct StreamParameters
    {
        zel::av::CodecParameters codec;
        AVRational timeBase; ///< of the encoder
        AVRational frameRate;
    };

    zel::av::OutputContext getNewContext();
    bool makeStreams(AVFormatContext& context) ZEL_REQUIRES(m_contextLock);
    /// Writes the header of a context that has none yet, and starts the clocks.
    int beginContainer() ZEL_REQUIRES(m_contextLock);
    /// Lets everything that libavformat holds back out of it, so that the next frame, which has to
    /// follow at once, begins a packet or file of its own.
    void drainContainer() ZEL_REQUIRES(m_contextLock);
    bool isMultiplexed() const;

    FFMpegEncoder* m_encoder;          ///< not owned
    FFMpegStreamingProfile* m_profile; ///< not owned
    zel::av::OutputContext m_outputContext ZEL_GUARDED_BY(m_contextLock);
    bool m_headerWritten ZEL_GUARDED_BY(m_contextLock) = false; ///< and no trailer yet
    int m_audioStreamIndex = -1;                                ///< -1 while absent
    int m_videoStreamIndex = -1;
    long long m_firstVideoPts = NoPts; ///< subtracted from all video times; NoPts while unset
    unsigned long long m_pendingTs = zel::streamer::SamplePacket::NoTimestamp; ///< microseconds
    zel::streamer::BitrateMonitor m_monitor;
    zel::streamer::AVPacketSync m_sync;
    PMutex m_muxLock;     ///< one packet in the merge at a time
    PCondMutex m_resumed; ///< cleared from seekPause to seekResume
    bool m_resumedFlag = true;
    int m_videoPacketCount = 0; ///< written
    int m_audioPacketCount = 0;
    PMutex m_contextLock{PMutex::Recursive};
    unsigned long long m_lastKeyFrameTs = 0; ///< announced last, microseconds; 0 for none so far

    static constexpr long long NoPts = static_cast<long long>(0x8000000000000000ULL);

private:
#if LIBAVFORMAT_VERSION_MAJOR >= 61
    using WriteData = const unsigned char*;
#else
    using WriteData = unsigned char*;
#endif

    static int _writeBytes(void* self, WriteData data, int size);
    int writeBytes(const unsigned char* data, int size);
    static void _releasePacket(void* packet, unsigned char* data);
    void muxPacket(MuxerPacket* packet);
    void checkForKeyFrame(const MuxerPacket* packet);
    int _writeAudioPacket(MuxerPacket& packet);
    int _writeVideoPacket(MuxerPacket& packet);
    /// Makes m_setUpFilter where copied video needs it in this container.
    void makeSetUpFilter() ZEL_REQUIRES(m_contextLock);
    int writeFrame(MuxerPacket& packet, int stream, const MuxTimes::Stamp& stamp, bool keyFrame)
        ZEL_REQUIRES(m_contextLock);

    zel::av::IOContext m_ioContext ZEL_GUARDED_BY(m_contextLock); ///< with its buffer
    Bytes m_bytes = Bytes::Packet;
    bool m_headerDelivered = false; ///< the host has, or will read, the container's header
    std::vector<unsigned char> m_header;
    std::vector<StreamParameters> m_streams;
    MuxTimes m_times;
    zel::av::Packet m_packet;
    /// Puts the set-up data in front of key frames, for a container that has no place of its own
    /// for it and packets that do not bring it along; else null.
    zel::av::BitstreamFilter m_setUpFilter ZEL_GUARDED_BY(m_contextLock);
    bool m_newExtradata = false; ///< the next video packet carries it
    bool m_isDrained = false;    ///< the next frame's bytes come first
};
