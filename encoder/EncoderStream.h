#pragma once

#include "common/ffmpeg/AudioFrameEncoder.h"
#include "common/ffmpeg/Handles.h"
#include "common/ffmpeg/PictureEncoder.h"
#include "encoder/EncoderSettings.h"

#include <memory>
#include <vector>

/// One stream of the encoder stage: its encoder, and what a muxer has to know of it.
///
/// Owner: FFMpegEncoder, which keeps it longer than any muxer; a muxer copies what it needs.
/// Threads: under the encoder's write lock.
struct EncoderStream
{
    AVMediaType type = AVMEDIA_TYPE_UNKNOWN;
    /// Packets go on as they are; the encoder is open for its parameters alone.
    bool copied = false;
    void* owner = nullptr;            ///< the stage, for the encoder's callbacks; not owned
    const AVCodec* encoder = nullptr; ///< null for a copied H.264 stream, which needs none
    VideoEncoderSettings video;       ///< of a video stream
    AudioEncoderSettings audio;       ///< of an audio stream
    zel::av::CodecContext context;    ///< open where there is an encoder
    std::unique_ptr<zel::av::PictureEncoder> pictures;  ///< of an encoded video stream
    std::unique_ptr<zel::av::AudioFrameEncoder> frames; ///< of an encoded audio stream

    /// Seconds of one tick of the encoder: of a frame, or of a sample.
    AVRational timeBase() const { return context->time_base; }

    /// Opens the encoder, or opens it anew: what it held back is lost, its clock begins again.
    /// @return 0 or the library's error, which leaves the stream without an open encoder
    int open();

    /// Replaces the encoder's extradata, with padding behind it.
    void setExtradata(const std::vector<unsigned char>& bytes);
};
