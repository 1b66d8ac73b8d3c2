#pragma once

#include "plugin/PluginTypes.h"

/// The records that the host implements and hands to the plug-ins.
///
/// All of them are pure interfaces: the plug-ins call them and never create, keep or delete one.
/// Every `const char*` that a getter returns stays owned by the record and must outlive the call
/// that the record was handed to; every `const char*` that a setter takes is only valid during the
/// call, so a record copies it. Slot order is part of the binary interface.

namespace zel::streamer {

/// A string map: the free-form properties of a medium, or the options of a transcoder stage.
class MapGeneric
{
public:
    virtual ~MapGeneric() = default;

    /// @return the value, or null when there is no such key
    virtual const char* get(const char* key) const = 0;
};

/// What the host knows of a medium: input to `open`, and filled by `getMediumDescription`.
class MediumDescription
{
public:
    virtual ~MediumDescription() = default;

    /// Path or URL to open. A query word "skipTranscoding=1" marks a stream that must open in its
    /// own format or not at all.
    virtual const char* getUrl() const = 0;
    /// Duration as the host's catalogue has it, in milliseconds; 0 when unknown.
    virtual unsigned long long getDuration() const = 0;
    /// Milliseconds; 0 when unknown.
    virtual void setDuration(unsigned long long durationMs) = 0;
    /// Bytes; called only when the size is known.
    virtual void setFileSize(unsigned long long sizeBytes) = 0;
    /// Bytes, as setFileSize left it; 0 when unknown.
    virtual unsigned long long getFileSize() const = 0;
    /// Bits per second of the whole container; called only when above 0.
    virtual void setBitrate(long long bitrate) = 0;
    virtual void setSeekable(bool seekable) = 0;
    /// True for a medium without a known duration.
    virtual void setLive(bool live) = 0;
    virtual void setAlbum(const char* album) = 0;
    virtual void setTitle(const char* title) = 0;
    virtual void setArtist(const char* artist) = 0;
    /// File extension without a dot, in any letter case; may be empty.
    virtual const char* getExtension() const = 0;
    /// The URL's scheme with its separator, such as "http://"; empty for a local file.
    virtual const char* getProtocol() const = 0;
    /// The medium's free-form properties; may be null.
    virtual MapGeneric* getProperties() const = 0;
    virtual void setProperty(const char* key, const char* value) = 0;
};

/// One audio stream. Getter and setter of each pair follow each other.
class AudioPacketDescription
{
public:
    virtual ~AudioPacketDescription() = default;

    virtual int getBitrate() const = 0; ///< bits per second
    virtual void setBitrate(int bitrate) = 0;
    virtual int getSampleSize() const = 0; ///< bits of one sample of all channels
    virtual void setSampleSize(int sizeBits) = 0;
    virtual bool getFixedSizeSamples() const = 0;
    virtual void setFixedSizeSamples(bool fixed) = 0;
    virtual bool getTemporalCompression() const = 0;
    virtual void setTemporalCompression(bool compressed) = 0;
    /// Codec name in the system's vocabulary; "raw" for samples, "none" for no stream.
    virtual const char* getCodec() const = 0;
    virtual void setCodec(const char* codec) = 0;
    /// Extradata as lower-case hexadecimal text, two digits a byte.
    virtual const char* getCodecPrivateData() const = 0;
    virtual void setCodecPrivateData(const char* hexText) = 0;
    virtual int getSampleFlags() const = 0;
    virtual void setSampleFlags(int flags) = 0;
    virtual int getBitsPerSample() const = 0; ///< 8, 16 or 32
    virtual void setBitsPerSample(int bits) = 0;
    virtual int getSampleRate() const = 0; ///< hertz
    virtual void setSampleRate(int sampleRate) = 0;
    virtual int getChannels() const = 0;
    virtual void setChannels(int channels) = 0;
};

/// One video stream. Getter and setter of each pair follow each other.
class VideoPacketDescription
{
public:
    virtual ~VideoPacketDescription() = default;

    virtual int getBitrate() const = 0; ///< bits per second
    virtual void setBitrate(int bitrate) = 0;
    virtual int getSampleSize() const = 0; ///< bytes of one raw picture
    virtual void setSampleSize(int sizeBytes) = 0;
    virtual bool getFixedSizeSamples() const = 0;
    virtual void setFixedSizeSamples(bool fixed) = 0;
    virtual bool getTemporalCompression() const = 0;
    virtual void setTemporalCompression(bool compressed) = 0;
    /// Codec name in the system's vocabulary; "raw" for pictures, "none" for no stream.
    virtual const char* getCodec() const = 0;
    virtual void setCodec(const char* codec) = 0;
    /// Extradata as lower-case hexadecimal text, two digits a byte.
    virtual const char* getCodecPrivateData() const = 0;
    virtual void setCodecPrivateData(const char* hexText) = 0;
    /// Sample aspect ratio; written only when numerator and denominator are both known.
    virtual int getPixelAspectNumerator() const = 0;
    virtual void setPixelAspectNumerator(int numerator) = 0;
    virtual int getPixelAspectDenominator() const = 0;
    virtual void setPixelAspectDenominator(int denominator) = 0;
    virtual int getWidth() const = 0; ///< pixels
    virtual void setWidth(int width) = 0;
    virtual int getHeight() const = 0; ///< pixels
    virtual void setHeight(int height) = 0;
    virtual int getBitsPerPixel() const = 0;
    virtual void setBitsPerPixel(int bits) = 0;
    virtual double getFrameRate() const = 0; ///< frames per second
    virtual void setFrameRate(double frameRate) = 0;
    virtual bool getEncoded() const = 0;
    virtual void setEncoded(bool encoded) = 0;
    virtual VideoPixelFormat::Enum getPixelFormat() const = 0;
    virtual void setPixelFormat(VideoPixelFormat::Enum format) = 0;
};

/// What the plug-ins fill in about a stream that leaves them.
class OutputStreamDescription
{
public:
    virtual ~OutputStreamDescription() = default;

    virtual bool isMultiplexed() const = 0;
    /// Container name in the system's vocabulary.
    virtual const char* getFormat() const = 0;
    virtual int getBitrate() const = 0; ///< bits per second of all streams
    virtual bool hasAudio() const = 0;
    virtual bool hasVideo() const = 0;
    virtual void setProperty(const char* key, const char* value) = 0;
    virtual void setMultiplexed(bool multiplexed) = 0;
    virtual void setFormat(const char* format) = 0;
    virtual bool isRTP() const = 0;
    virtual int getRTPPacketSize() const = 0; ///< payload bytes
    virtual AudioPacketDescription* getAudio() const = 0;
    virtual VideoPacketDescription* getVideo() const = 0;
    virtual void copyTo(OutputStreamDescription* target) const = 0;
};

/// The stream that a transcoder stage receives.
class InputStreamDescription
{
public:
    virtual ~InputStreamDescription() = default;

    /// True: the packets written to the stage are container bytes; false: elementary packets.
    virtual bool isMultiplexed() const = 0;
    /// Container name in the system's vocabulary.
    virtual const char* getFormat() const = 0;
    virtual bool hasAudio() const = 0;
    virtual bool hasVideo() const = 0;
    virtual AudioPacketDescription* getAudio() const = 0;
    virtual VideoPacketDescription* getVideo() const = 0;
    /// The same stream as a plain description, which a stage may adjust and copy from.
    virtual OutputStreamDescription* getStreamDescription() const = 0;
};

/// What the remote player asked for.
class RequestedStreamDescription
{
public:
    virtual ~RequestedStreamDescription() = default;

    virtual const char* getFormat() const = 0;
    virtual AudioPacketDescription* getAudio() const = 0;
    virtual VideoPacketDescription* getVideo() const = 0;
    /// The record that the profile adjusts and the encoder stage fills.
    virtual OutputStreamDescription* getOutputDescription() const = 0;
};

/// Why `open` failed. The code is written before the message.
class Error
{
public:
    virtual ~Error() = default;

    /// 2 when the medium cannot be rendered, else an HTTP status.
    virtual void setCode(int code) = 0;
    virtual void setMessage(const char* message) = 0;
};

/// An opaque handle of the host, passed through and never called.
class EncoderEngine;

} // namespace zel::streamer
