#pragma once

#include "plugin/HostRecords.h"
#include "plugin/Vocabulary.h"

namespace zel::streamer {
class SimpleSamplePacket;
}

/// The settled form of one output session: whether it can run, which streams are copied, and with
/// which values the others are encoded. Encoder stage and muxers read everything from here.
///
/// The stage that made it owns it. Map, medium and both stream descriptions stay the host's and
/// have to outlive it; the output description is edited in place, so the host sees what was
/// settled. Apart from the two operations that store a codec's set-up data it is read-only after
/// construction, so several threads may read it; those two belong to the set-up, before that.
class FFMpegStreamingProfile
{
public:
    using MapGeneric = zel::streamer::MapGeneric;
    using MediumDescription = zel::streamer::MediumDescription;
    using InputStreamDescription = zel::streamer::InputStreamDescription;
    using RequestedStreamDescription = zel::streamer::RequestedStreamDescription;
    using OutputStreamDescription = zel::streamer::OutputStreamDescription;
    using AudioPacketDescription = zel::streamer::AudioPacketDescription;
    using VideoPacketDescription = zel::streamer::VideoPacketDescription;
    using PacketType = zel::streamer::PacketType::Enum;
    using VideoPixelFormat = zel::streamer::VideoPixelFormat::Enum;

    /// Only raw streams are encoded; a compressed one is copied when the player asked for its very
    /// codec.
    /// @param options  may be null, which counts as empty
    /// @param medium   may be null
    /// @return the caller's own, or null when a compressed stream would need another codec, or a
    ///         description is missing
    static FFMpegStreamingProfile* createProfile(const MapGeneric* options,
                                                 const MediumDescription* medium,
                                                 const InputStreamDescription* input,
                                                 const RequestedStreamDescription* requested);

    /// The vocabulary of plugin/Vocabulary.h, under the same rules on the life of the answer.
    static const char* zelCodecToFFMpegCodec(const CStdStr<char>& name, bool forDecoder);
    static const char* zelCodecToFFMpegCodec(const char* name, bool forDecoder);
    static const char* FFMpegCodecToZelCodec(const CStdStr<char>& name);
    static const char* FFMpegCodecToZelCodec(const char* name);
    static const char* FFMpegFormatToZelFormat(const CStdStr<char>& name);
    static const char* FFMpegFormatToZelFormat(const char* name);
    static AVPixelFormat zelToFFmpegPixelFormat(VideoPixelFormat format);
    /// @throws std::logic_error for a format that does not cross the border
    static VideoPixelFormat FFmpegToZelPixelFormat(AVPixelFormat format);
    static int getBitsPerPixels(VideoPixelFormat format);

    FFMpegStreamingProfile(const FFMpegStreamingProfile&) = delete;
    FFMpegStreamingProfile& operator=(const FFMpegStreamingProfile&) = delete;

    /// @return a new, empty packet of the class that packs this output's frames for RTP; the
    ///         caller releases it
    zel::streamer::SimpleSamplePacket* getSamplePacket(PacketType type) const;

    /// Stores a codec's set-up data in the output description. Null counts as empty.
    void setAudioFormatConfig(const char* hex);
    void setVideoFormatConfig(const char* hex);

    const MapGeneric* options() const { return m_options; }      ///< may be null
    const MediumDescription* medium() const { return m_medium; } ///< may be null
    OutputStreamDescription* inputStream() const { return m_inputStream; }
    OutputStreamDescription* outputStream() const { return m_outputStream; }
    bool audioUseLATM() const { return m_audioUseLATM; }
    float maxDelay() const { return m_maxDelay; } ///< seconds, as the host wrote it
    float preload() const { return m_preload; }   ///< seconds, as the host wrote it
    bool fallbackStream() const { return m_fallbackStream; }
    int lowTotalBitrate() const { return m_lowTotalBitrate; } ///< bits per second
    int sessionID() const { return m_sessionID; }
    int qMin() const { return m_qMin; }             ///< 1 to 31, or 0: not set
    int qMax() const { return m_qMax; }             ///< 1 to 31, or 0: not set
    int qDiffMax() const { return m_qDiffMax; }     ///< 3 to 31, or 0: not set
    float qCompress() const { return m_qCompress; } ///< up to 1.0; 0.0: not set
    float qBlur() const { return m_qBlur; }         ///< up to 1.0; 0.0: not set
    int motionEstimationMethod() const { return m_motionEstimationMethod; }
    int videoBitrateTolerance() const { return m_videoBitrateTolerance; } ///< bits per second
    int audioBitrateTolerance() const { return m_audioBitrateTolerance; } ///< bits per second
    bool useConstantBitrate() const { return m_useConstantBitrate; }
    bool sameFrameRate() const { return m_sameFrameRate; }
    bool audioPassthrough() const { return m_audioPassthrough; }
    bool videoPassthrough() const { return m_videoPassthrough; }

private:
    FFMpegStreamingProfile(const MapGeneric* options, const MediumDescription* medium,
                           OutputStreamDescription* inputStream,
                           OutputStreamDescription* outputStream, bool audioPassthrough,
                           bool videoPassthrough);

    void init();
    void readOptions();
    void readEncoderOptions();
    void fixCodecNames();
    void adjustAudioEncoderValues();
    void adjustVideoEncoderValues();

    CStdStr<char> format() const;
    CStdStr<char> audioCodec() const;
    CStdStr<char> videoCodec() const;
    void setAudioCodec(const char* name);
    void setVideoCodec(const char* name);

    const MapGeneric* m_options;             ///< not owned, may be null
    const MediumDescription* m_medium;       ///< not owned, may be null
    OutputStreamDescription* m_inputStream;  ///< not owned
    OutputStreamDescription* m_outputStream; ///< not owned
    bool m_audioUseLATM = true;
    float m_maxDelay = 1.0F; ///< seconds
    float m_preload = 0.5F;  ///< seconds
    bool m_fallbackStream = false;
    int m_lowTotalBitrate = 0; ///< bits per second
    int m_sessionID = 0;
    int m_qMin = 0;
    int m_qMax = 0;
    int m_qDiffMax = 0;
    float m_qCompress = 0.0F;
    float m_qBlur = 0.0F;
    int m_motionEstimationMethod = 5;
    int m_videoBitrateTolerance = 0; ///< bits per second
    int m_audioBitrateTolerance = 0; ///< bits per second
    bool m_useConstantBitrate = false;
    bool m_sameFrameRate = false; ///< to a thousandth of a frame per second
    bool m_audioPassthrough;
    bool m_videoPassthrough;
};
