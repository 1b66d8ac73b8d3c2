#pragma once

#include "common/ffmpeg/ByteSourceIO.h"
#include "common/ffmpeg/Handles.h"
#include "common/ffmpeg/PackedAudio.h"
#include "common/ffmpeg/PacketReader.h"
#include "common/ffmpeg/VideoDecoder.h"
#include "common/ffmpeg/VideoPipeline.h"
#include "common/utils/Locks.h"
#include "common/utils/StdString.h"
#include "plugin/HostRecords.h"
#include "plugin/SamplePacket.h"

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <map>
#include <memory>
#include <vector>

/// Demuxes and decodes one medium: the one class that drives FFmpeg's demuxers and decoders.
///
///     demuxer -> m_reader -> decodeFromMedium -> decodeVideo -> m_pipeline or m_video -> scaler
///                                            \-> decodeAudio -> m_audioCodec -> m_packedAudio
///
/// Owner: FFMpegInput and the stages make one by plain `new` for each medium, and read and write a
/// few members themselves. A core is opened once, read, and closed; it is not opened again.
///
/// Threads: m_mutex is held over every call that opens, reads, seeks or closes, so a seek waits for
/// the read in progress. The description queries never wait for a read: they answer from what was
/// published under m_describedLock, which is the inner lock of the two. close() may be called at
/// any time and makes a network access of FFmpeg's own end.
class FFMpegDecoderCore
{
public:
    using Metadata = std::map<CStdStr<char>, CStdStr<char>>;
    using MetadataCallback = void (*)(void*);

    /// Result of initWithUrl and initWithTransportStream for a medium with nothing to play.
    static constexpr int NothingToPlay = static_cast<int>(0x80004005u);

    /// Bytes behind a picture's end that belong to its buffer: swscale writes beyond the last row.
    static constexpr unsigned int PictureSlack = 64;

    /// The picture size of video that does not tell its own.
    static constexpr unsigned int DefaultWidth = 320;
    static constexpr unsigned int DefaultHeight = 240;

    FFMpegDecoderCore();
    virtual ~FFMpegDecoderCore();
    FFMpegDecoderCore(const FFMpegDecoderCore&) = delete;
    FFMpegDecoderCore& operator=(const FFMpegDecoderCore&) = delete;

    /// Opens a path or URL that FFmpeg reads by itself.
    /// @param format  extension or format hint; "cgi" and "mjpeg" force motion JPEG
    /// @return 0 or above, or a negative FFmpeg result
    int initWithUrl(const CStdStr<char>& url, const CStdStr<char>& format);

    /// Opens a byte source.
    /// @param url     names the source; nothing is opened by it
    /// @param format  the demuxer's name; an unknown one counts as "mpegts"
    /// @param read    up to `size` bytes, 0 at the end; runs under m_mutex
    /// @param seek    libavformat's seek; a negative answer to AVSEEK_SIZE means "cannot seek"
    /// @return 0 or above, -1 without a demuxer, or a negative FFmpeg result
    int initWithTransportStream(const char* url, const char* format,
                                int (*read)(void*, unsigned char*, int),
                                long long (*seek)(void*, long long, int), void* opaque);

    /// Ends a read in progress and frees all. Any thread, any number of times.
    void close();

    /// Corrects the duration. 0 does not replace a duration above 0.
    void setDuration(unsigned long long ms);
    /// True for a live source: one of unknown duration.
    bool needToStartAtZero() const;

    /// @return -1 when nothing is open, else 0
    int getMediumDescription(zel::streamer::MediumDescription* out);
    /// Describes the medium as it is. Nothing is written when nothing is open.
    void getInputStreamDescription(zel::streamer::OutputStreamDescription* out);
    /// Describes what decodeFromMedium delivers. From then on audio waits for a failing video.
    void getOutputStreamDescription(zel::streamer::OutputStreamDescription* out);

    /// Let the stream pass undecoded. Before opening; always true.
    bool skipAudioDecoding();
    bool skipVideoDecoding();
    /// @return false without a video stream
    bool setVideoDecodingMode(zel::streamer::DecodingMode::Enum mode);

    /// Delivers the next picture, samples or notice.
    /// @param data  a `new[]` array that the caller frees; untouched by a notice
    /// @param timestamp, duration  microseconds
    /// @param keyFrame  written for video
    /// @return false at the end of the medium, on a read error, or when nothing is open
    bool decodeFromMedium(zel::streamer::PacketType::Enum& type, unsigned char*& data,
                          unsigned int& size, unsigned long long& timestamp,
                          unsigned long long& duration, void*& context, bool& keyFrame);

    /// Decodes a packet that somebody else demuxed. Audio and video packets are released, or
    /// travel on in `context` where there is no decoder for them; others stay with the caller.
    /// @param timestamp, duration  filled from the packet by the caller
    bool decodePacket(zel::streamer::SamplePacket* packet, zel::streamer::PacketType::Enum& type,
                      unsigned char*& data, unsigned int& size, unsigned long long& timestamp,
                      unsigned long long& duration, void*& context, bool& keyFrame);

    /// Decode one packet's bytes. `timestamp` and `duration` come in the stream's time base and
    /// leave in microseconds.
    bool decodeAudioPacket(const unsigned char* in, unsigned int inSize, unsigned char*& data,
                           unsigned int& size, unsigned long long& timestamp,
                           unsigned long long& duration, void*& context);
    bool decodeVideoPacket(const unsigned char* in, unsigned int inSize, unsigned char*& data,
                           unsigned int& size, unsigned long long& timestamp,
                           unsigned long long& duration, void*& context, bool& keyFrame);

    /// Reads one packet and drops it. `timestamp` and `duration` are in its stream's time base.
    bool skipPacket(zel::streamer::PacketType::Enum& type, unsigned long long& timestamp,
                    unsigned long long& duration);

    /// Seeks. Output before the target is discarded from then on.
    /// @return false when the medium cannot; decoding then goes on where it was
    bool setPosition(unsigned long long ms);
    /// Forgets what is half decoded, when the source itself has moved to `ms`.
    void flush(unsigned long long ms);
    /// Milliseconds of the last sample handed out. Any thread.
    void getPosition(unsigned long long& ms) const;

    /// Called from the reading thread, with m_mutex held, when a live stream tells a new title.
    void setMetadataCallback(MetadataCallback callback, void* context);
    /// Replaces the metadata. Any thread.
    void updateMetadata(const Metadata& values);
    /// The metadata in its binary form, as a `new[]` array that the caller frees.
    void getMetadataPacket(unsigned char*& data, unsigned int& size);
    /// Reads the script commands of a live broadcast.
    void handleMetaDataPacket(const AVPacket& packet);

    /// Replaces a picture of two fields by a deinterlaced one, if its format allows.
    /// @param buffer  receives what holds the new picture, to be freed by av_free after use; or
    /// null
    void deinterlacePicture(AVStream* stream, AVFrame* picture, void** buffer);

    bool allocRescalingContext(unsigned int srcWidth, unsigned int srcHeight,
                               AVPixelFormat srcFormat, unsigned int dstWidth,
                               unsigned int dstHeight, AVPixelFormat dstFormat, int flags);
    void freeRescalingContext();

    static bool interruptFFMpegCallback() { return s_interruptFFMpeg != 0; }

    std::atomic<unsigned long long> m_duration{0}; // milliseconds; live when 0 or negative
    std::atomic<unsigned long long> m_position{0}; // microseconds, last sample handed out
    unsigned long long m_streamOffset = 0;         // microseconds, seek target
    CStdStr<char> m_format;
    bool m_seekByBytes = false;             // a seek tries bytes first
    bool m_ignorePacketTime = false;        // sample counts instead of the container's stamps
    bool m_generateTimestamps = false;      // all stamps from counters
    bool m_seekable = true;                 // as told to the host
    std::atomic<bool> m_byteSeekable{true}; // a network byte seek may be served
    PMutex m_mutex{PMutex::Recursive};
    zel::av::FormatContext m_formatContext;
    zel::av::Scaler m_swsContext;
    bool m_demuxing = false;
    bool m_openedFromUrl = false;
    bool m_openedFromStream = false;
    AVStream* m_videoStream = nullptr; // not owned
    int m_videoStreamIndex = -1;
    zel::av::Frame m_decodedFrame;
    zel::av::Frame m_sourceFrame; // source picture of rescaleVideoPacket
    zel::av::Memory<unsigned char> m_sourceBuffer;
    unsigned int m_sourceBufferSize = 0;
    zel::av::Frame m_scaledFrame; // result of the scaler
    zel::av::Memory<unsigned char> m_scaledBuffer;
    unsigned int m_scaledBufferSize = 0;
    unsigned int m_outWidth = 0;
    unsigned int m_outHeight = 0;
    unsigned int m_videoBitsPerPixel = 1; // as told to the host
    unsigned int m_videoBitrate = 0;      // of the raw output
    unsigned int m_videoFrameSize = 0;    // bytes of one output picture
    double m_fps = 0.0;
    zel::streamer::VideoPixelFormat::Enum m_outPixelFormat =
        zel::streamer::VideoPixelFormat::YUYV422;
    AVPixelFormat m_srcPixelFormat = AV_PIX_FMT_RGB24; // what the scaler reads now
    unsigned int m_srcWidth = 0;
    unsigned int m_srcHeight = 0;
    bool m_rescaleOnly = false;            // raw video in, no decoder
    unsigned long long m_frameCounter = 0; // pictures handed out, base of generated stamps
    AVStream* m_audioStream = nullptr;     // not owned
    int m_audioStreamIndex = -1;
    uint8_t* m_audioBuffer = nullptr; // owned; one packet's samples, grown by av_fast_realloc
    unsigned int m_audioBufferSize = 0;
    unsigned int m_audioBitrate = 0;
    unsigned int m_audioFrameBits = 0; // bits per sample times channels
    unsigned int m_audioSampleFlags = 0;
    unsigned int m_audioBits = 0; // 8, 16 or 32
    unsigned int m_audioSampleRate = 0;
    unsigned int m_audioChannels = 0;
    unsigned long long m_nextAudioTimestamp = 0; // microseconds, where the next samples should lie
    unsigned long long m_lastAudioTimestamp = 0; // microseconds
    int m_metadataStreamIndex = -1;
    CStdStr<char> m_title ZEL_GUARDED_BY(m_describedLock);
    CStdStr<char> m_artist ZEL_GUARDED_BY(m_describedLock);
    CStdStr<char> m_album ZEL_GUARDED_BY(m_describedLock);
    CStdStr<char> m_thumbnailUrl ZEL_GUARDED_BY(m_describedLock);
    zel::av::Packet m_videoPacket; // wraps bytes that came without a packet
    zel::av::Packet m_audioPacket;
    int64_t m_firstAudioTime = AV_NOPTS_VALUE; // stream time base, as the next two
    int64_t m_prevAudioTime = AV_NOPTS_VALUE;
    int64_t m_firstVideoTime = AV_NOPTS_VALUE;
    int64_t m_prevVideoTime = AV_NOPTS_VALUE; // microseconds
    bool m_dropTimestampJumps = false;
    bool m_isMpegTs = false;
    unsigned int m_audioFrameSamples = 0;
    std::atomic<bool> m_videoRequested{false}; // somebody was promised decoded video
    bool m_videoFailing = false;               // audio is held back while set
    bool m_videoDecodedOnce = false;
    bool m_waitForKeyframe = false;
    bool m_videoSeekPending = false;
    bool m_audioSeekPending = false;
    std::atomic<bool> m_skipAudio{false};
    std::atomic<bool> m_skipVideo{false};
    bool m_sendExtradata = false; // the next packet handed out is the codec's set-up
    std::atomic<zel::streamer::DecodingMode::Enum> m_decodingMode{zel::streamer::DecodingMode::All};
    unsigned int m_audioErrorCount = 0;
    unsigned int m_videoErrorCount = 0;
    MetadataCallback m_metadataCallback ZEL_GUARDED_BY(m_describedLock) = nullptr;
    void* m_metadataCallbackContext ZEL_GUARDED_BY(m_describedLock) = nullptr;
    int m_scaleFlags = SWS_BILINEAR;
    Metadata m_metadata ZEL_GUARDED_BY(m_describedLock);

    /// Decoder threads for media whose output is the same with any number of them; 0 for as many
    /// as keep the machine's cores at work. Set before opening.
    int m_decoderThreads = 0;
    /// What an ASF stream is read from finds the time of a seek by itself, and its bytes have no
    /// fixed place in time. Set before opening.
    bool m_sourceSeeksByTime = false;

    /// Kept: one flag for all cores, raised by any close and lowered by any opening. Each core has
    /// its own flag for ending FFmpeg's network access; this one is the hook of older hosts.
    static std::atomic<unsigned int> s_interruptFFMpeg;

private:
    /// Takes m_mutex in turn. The reading thread takes it again the moment it has let go, so
    /// without a queue in front a seek could wait for seconds.
    class ZEL_SCOPED_CAPABILITY Turn
    {
    public:
        explicit Turn(FFMpegDecoderCore& core) ZEL_ACQUIRE(core.m_mutex) : m_core(core)
        {
            const PMutexGuard queue(m_core.m_turn);
            m_core.m_mutex.lock();
        }
        ~Turn() ZEL_RELEASE() { m_core.m_mutex.unlock(); }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

    private:
        FFMpegDecoderCore& m_core;
    };
    /// A stream during set-up: its decoder, and whether output must be seen before it is usable.
    struct StreamEntry
    {
        const AVCodec* decoder = nullptr;
        bool needsDecoding = false;
    };
    /// What a step of the packet path has made so far.
    struct Sample
    {
        zel::streamer::PacketType::Enum type = zel::streamer::PacketType::None;
        std::unique_ptr<unsigned char[]> data;
        unsigned int size = 0;
        /// Stream time base until decoded, microseconds from then on.
        unsigned long long timestamp = 0;
        unsigned long long duration = 0;
        bool keyFrame = false;
    };
    enum class Step
    {
        NextPacket,
        Deliver
    };
    /// What the description queries answer.
    struct Described
    {
        bool isOpen = false;
        bool hasVideo = false;
        bool hasAudio = false;
        bool rescaleOnly = false;
        bool seekable = true;
        long long fileSize = 0;
        long long bitrate = 0;
        CStdStr<char> format;
        CStdStr<char> videoCodec;
        CStdStr<char> audioCodec;
        int codecWidth = 0;
        int codecHeight = 0;
        int codecVideoBitrate = 0;
        int codecAudioBitrate = 0;
        int codecChannels = 0;
        int codecSampleRate = 0;
        AVRational aspect{0, 0};
        double fps = 0.0;
        unsigned int outWidth = 0;
        unsigned int outHeight = 0;
        unsigned int videoBitsPerPixel = 0;
        unsigned int videoBitrate = 0;
        unsigned int videoFrameSize = 0;
        zel::streamer::VideoPixelFormat::Enum pixelFormat =
            zel::streamer::VideoPixelFormat::YUYV422;
        unsigned int audioBitrate = 0;
        unsigned int audioFrameBits = 0;
        unsigned int audioSampleFlags = 0;
        unsigned int audioBits = 0;
        unsigned int audioSampleRate = 0;
        unsigned int audioChannels = 0;
    };

    // opening: FFMpegDecoderCoreOpen.cpp
    void init();
    zel::av::FormatContext makeFormatContext();
    int openUrl(const CStdStr<char>& url, const AVInputFormat* format);
    int openUrlWithFallbacks(const CStdStr<char>& url, const AVInputFormat* format);
    void applyStreamFormatRules(const CStdStr<char>& format, const CStdStr<char>& url);
    void rememberFileSize();
    void computeDuration();
    void computeStreamDurations();
    void computeFlacDuration();
    bool isLocalFile(const char* path) const;
    static int isInterrupted(void* core);

    // stream set-up: FFMpegDecoderCoreStreams.cpp
    int initFormatStreams();
    void openDecoders(std::vector<StreamEntry>& entries, bool& hasAudio, bool& hasVideo);
    const AVCodec* openDecoder(unsigned int index);
    bool initFormatNeedsDecoding() const;
    bool streamsReady(bool hasAudio, bool hasVideo, const std::vector<StreamEntry>& entries) const;
    bool probe(std::vector<StreamEntry>& entries, bool hasAudio, bool hasVideo);
    void probePacket(const AVPacket& packet, StreamEntry& entry);
    void rewindAfterProbe();
    int firstStream() const;
    void selectStreams(const std::vector<StreamEntry>& entries);
    bool isTaken(const std::vector<StreamEntry>& entries, unsigned int index);
    bool isBetterStream(const AVStream* candidate, const AVStream* current) const;
    bool isBetterVideo(const AVStream* candidate, const AVStream* current) const;
    bool isBetterAudio(const AVStream* candidate, const AVStream* current) const;
    bool setUpVideo(AVStream* stream);
    void setUpFrameRate(const AVStream* stream, const AVCodecContext* codec);
    bool setUpAudio(AVStream* stream);
    void finishSelection();
    void startPipeline();
    void readContainerMetadata();
    AVCodecContext* codecOf(const AVStream* stream) const;
    AVCodecContext* videoCodec() const;
    AVRational videoCodecTimeBase(const AVStream* stream, const AVCodecContext* codec) const;

    // the packet path: FFMpegDecoderCoreDecode.cpp, ...Video.cpp, ...Audio.cpp
    bool deliverExtradata(Sample& sample);
    Step takeVideo(const AVPacket& packet, Sample& sample);
    Step takeAudio(const AVPacket& packet, Sample& sample);
    bool isRefusedUntilKeyframe(const Sample& sample);
    bool isTimestampJump(const Sample& sample);
    bool isOutsideSeekRange(const Sample& sample);
    bool updateAudioFormat();
    bool decodeVideo(const AVPacket& packet, Sample& sample);
    bool decodePicture(const AVPacket& packet);
    bool passVideo(const AVPacket& packet, Sample& sample);
    bool preparePictureScaler();
    void stampPicture(Sample& sample);
    bool scalePicture(Sample& sample);
    bool decodeAudio(const AVPacket& packet, Sample& sample);
    bool passAudio(const AVPacket& packet, Sample& sample);
    bool appendAudioFrame(const AVFrame& frame, std::size_t& used);
    bool wrapBytes(AVPacket* packet, const unsigned char* in, unsigned int inSize);
    bool rescaleVideoPacket(const unsigned char* in, unsigned int inSize, unsigned char*& data,
                            unsigned int& size, unsigned long long& timestamp,
                            unsigned long long& duration, void*& context);

    // seeking: FFMpegDecoderCoreSeek.cpp
    bool seekMedium(unsigned long long& ms, unsigned long long targetUs);
    int seekToByte(int64_t bytepos, unsigned long long targetUs);
    int64_t timeOf(unsigned long long targetUs) const;
    void flushDecoders();
    void resetWatchdogs();

    // descriptions: FFMpegDecoderCoreDescription.cpp
    void publishDescription();
    Described described();
    static void describeInput(const Described& told, zel::streamer::OutputStreamDescription* out);
    static CStdStr<char> codecName(const AVCodecContext* codec);

    PMutex m_turn;
    PMutex m_describedLock;
    Described m_described ZEL_GUARDED_BY(m_describedLock);
    std::atomic<bool> m_interrupted{false};
    std::unique_ptr<zel::av::ByteSourceIO> m_io; // outlives m_formatContext
    std::unique_ptr<zel::av::PacketReader> m_reader;
    std::vector<zel::av::CodecContext> m_codecs; // one for each stream, until streams are chosen
    zel::av::VideoDecoder m_video;
    std::unique_ptr<zel::av::VideoPipeline> m_pipeline; // decodes instead of m_video while set
    zel::av::CodecContext m_audioCodec;
    zel::av::PackedAudio m_packedAudio;
    zel::av::Packet m_readPacket;
    zel::av::Frame m_audioFrame;
    long long m_fileSize = 0; // bytes, 0 when unknown
    bool m_localFile = false;
};

/// Receives FFmpeg's log lines and writes them as debug lines, repeats folded. `level` is ignored.
void ffdecoder_log_callback(void* avcl, int level, const char* format, va_list arguments);

/// Converts a stamp of a stream to microseconds, in doubles, truncated.
unsigned long long streamTimeToUs(unsigned long long value, AVRational timeBase);
