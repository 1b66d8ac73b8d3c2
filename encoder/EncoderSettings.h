#pragma once

#include "common/ffmpeg/Handles.h"
#include "plugin/HostRecords.h"

class FFMpegStreamingProfile;

/// What the set-up settles for an encoder before any library sees it: plain values, so that the
/// whole table of rules can be read and tested at one place. Values that today's encoders have no
/// field for stay here and in the log lines.

/// Flags of the encoder's context.
constexpr unsigned int GlobalHeaderFlag = AV_CODEC_FLAG_GLOBAL_HEADER;
constexpr unsigned int LoopFilterFlag = AV_CODEC_FLAG_LOOP_FILTER;
/// B pictures as references; no context has this flag any more.
constexpr unsigned int BPyramidFlag = 0x10;

/// Settings of a video encoder. The initial values are those of an untouched context.
struct VideoEncoderSettings
{
    int width = 0;                      ///< pixels
    int height = 0;                     ///< pixels
    AVRational sampleAspectRatio{0, 1}; ///< 0/1: unknown
    AVRational timeBase{0, 1};          ///< seconds a frame; 0/1 for an unknown frame rate
    int bitRate = 0;                    ///< bit/s
    int bitRateTolerance = 4000000;     ///< bits
    int rcMaxRate = 0;                  ///< bit/s
    int rcMinRate = 0;                  ///< bit/s
    int rcBufferSize = 0;               ///< bits
    int hasBFrames = 0;                 ///< frames of reorder delay
    int qMin = 2;
    int qMax = 31;
    int maxQDiff = 3;
    float qCompress = 0.5F;
    float qBlur = 0.5F;
    int gopSize = 12;   ///< frames from key frame to key frame
    int keyIntMin = 25; ///< frames
    int refs = 1;
    int meRange = 0; ///< pixels
    int meSubpelQuality = 8;
    int meMethod = 5; ///< id of the profile's table
    int mbDecision = 0;
    int trellis = 0;
    unsigned int flags = 0;
    unsigned int flags2 = 0;
    unsigned int partitions = 0;
    float crf = 0.0F;
    AVPixelFormat pixelFormat = AV_PIX_FMT_YUV420P;
    int rtpPayloadSize = 0; ///< bytes; 0 for any other output

    /// Writes all fields that a context still has, and the private options that stand for others.
    void applyTo(AVCodecContext& context) const;
    /// The lines of a real encoding, at debug level.
    /// @param codec  id of the encoder
    void log(int codec, bool fallback) const;
};

/// Settings of an audio encoder.
struct AudioEncoderSettings
{
    int bitRate = 0;          ///< bit/s
    int bitRateTolerance = 0; ///< bits; 0 leaves the encoder its own
    int sampleRate = 0;       ///< hertz
    int channels = 0;
    int rcMaxRate = 0;    ///< bit/s
    int rcMinRate = 0;    ///< bit/s
    int rcBufferSize = 0; ///< bits
    unsigned int flags = 0;
    int rtpPayloadSize = 0; ///< bytes; 0 for any other output

    void applyTo(AVCodecContext& context) const;
    /// The lines of a real encoding, at debug level.
    /// @param codec  id of the encoder
    void log(int codec) const;
};

/// Settles the video encoder of a session.
/// @param fallback  the session is the low-bitrate one beside another
VideoEncoderSettings adjustVideoCodecValues(const FFMpegStreamingProfile& profile, bool fallback);

/// What a copied H.264 stream is described with beyond the common values.
void getH264Parameters(const FFMpegStreamingProfile& profile, VideoEncoderSettings& settings);

/// Settles the audio encoder of a session.
/// @param codec  id of the encoder; the AMR codecs have rates of their own
AudioEncoderSettings adjustAudioCodecValues(const FFMpegStreamingProfile& profile, AVCodecID codec);
