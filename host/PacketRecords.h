#pragma once

#include "plugin/HostRecords.h"

#include <optional>
#include <string>

/// The host's own audio and video descriptions: plain values that start out unset.
///
/// A field is empty until somebody writes it, so that a reader can tell "never written" from zero;
/// the getters of the border answer 0, false or "" for an empty field.

namespace zel::host {

/// The text that a plug-in handed over, which may be null.
inline std::string textOf(const char* text)
{
    return text == nullptr ? "" : text;
}

/// The border's answer for a text field.
inline const char* borderText(const std::optional<std::string>& text)
{
    return text ? text->c_str() : "";
}

/// One audio stream. No thread of its own: the owner orders access.
class AudioRecord : public streamer::AudioPacketDescription
{
public:
    std::optional<int> bitrate;    ///< bits per second
    std::optional<int> sampleSize; ///< bits of one sample of all channels
    std::optional<bool> fixedSizeSamples;
    std::optional<bool> temporalCompression;
    std::optional<std::string> codec;
    std::optional<std::string> codecPrivateData; ///< lower-case hexadecimal text
    std::optional<int> sampleFlags;
    std::optional<int> bitsPerSample;
    std::optional<int> sampleRate; ///< hertz
    std::optional<int> channels;

    /// True when the record describes a stream.
    bool isPresent() const { return codec && !codec->empty() && *codec != "none"; }

    int getBitrate() const override { return bitrate.value_or(0); }
    void setBitrate(int value) override { bitrate = value; }
    int getSampleSize() const override { return sampleSize.value_or(0); }
    void setSampleSize(int sizeBits) override { sampleSize = sizeBits; }
    bool getFixedSizeSamples() const override { return fixedSizeSamples.value_or(false); }
    void setFixedSizeSamples(bool fixed) override { fixedSizeSamples = fixed; }
    bool getTemporalCompression() const override { return temporalCompression.value_or(false); }
    void setTemporalCompression(bool compressed) override { temporalCompression = compressed; }
    const char* getCodec() const override { return borderText(codec); }
    void setCodec(const char* name) override { codec = textOf(name); }
    const char* getCodecPrivateData() const override { return borderText(codecPrivateData); }
    void setCodecPrivateData(const char* hexText) override { codecPrivateData = textOf(hexText); }
    int getSampleFlags() const override { return sampleFlags.value_or(0); }
    void setSampleFlags(int flags) override { sampleFlags = flags; }
    int getBitsPerSample() const override { return bitsPerSample.value_or(0); }
    void setBitsPerSample(int bits) override { bitsPerSample = bits; }
    int getSampleRate() const override { return sampleRate.value_or(0); }
    void setSampleRate(int rate) override { sampleRate = rate; }
    int getChannels() const override { return channels.value_or(0); }
    void setChannels(int count) override { channels = count; }
};

/// One video stream. No thread of its own: the owner orders access.
class VideoRecord : public streamer::VideoPacketDescription
{
public:
    std::optional<int> bitrate;    ///< bits per second
    std::optional<int> sampleSize; ///< bytes of one raw picture
    std::optional<bool> fixedSizeSamples;
    std::optional<bool> temporalCompression;
    std::optional<std::string> codec;
    std::optional<std::string> codecPrivateData; ///< lower-case hexadecimal text
    std::optional<int> pixelAspectNumerator;
    std::optional<int> pixelAspectDenominator;
    std::optional<int> width;  ///< pixels
    std::optional<int> height; ///< pixels
    std::optional<int> bitsPerPixel;
    std::optional<double> frameRate; ///< frames per second
    std::optional<bool> encoded;
    std::optional<streamer::VideoPixelFormat::Enum> pixelFormat;

    /// True when the record describes a stream.
    bool isPresent() const { return codec && !codec->empty() && *codec != "none"; }

    int getBitrate() const override { return bitrate.value_or(0); }
    void setBitrate(int value) override { bitrate = value; }
    int getSampleSize() const override { return sampleSize.value_or(0); }
    void setSampleSize(int sizeBytes) override { sampleSize = sizeBytes; }
    bool getFixedSizeSamples() const override { return fixedSizeSamples.value_or(false); }
    void setFixedSizeSamples(bool fixed) override { fixedSizeSamples = fixed; }
    bool getTemporalCompression() const override { return temporalCompression.value_or(false); }
    void setTemporalCompression(bool compressed) override { temporalCompression = compressed; }
    const char* getCodec() const override { return borderText(codec); }
    void setCodec(const char* name) override { codec = textOf(name); }
    const char* getCodecPrivateData() const override { return borderText(codecPrivateData); }
    void setCodecPrivateData(const char* hexText) override { codecPrivateData = textOf(hexText); }
    int getPixelAspectNumerator() const override { return pixelAspectNumerator.value_or(0); }
    void setPixelAspectNumerator(int numerator) override { pixelAspectNumerator = numerator; }
    int getPixelAspectDenominator() const override { return pixelAspectDenominator.value_or(0); }
    void setPixelAspectDenominator(int value) override { pixelAspectDenominator = value; }
    int getWidth() const override { return width.value_or(0); }
    void setWidth(int pixels) override { width = pixels; }
    int getHeight() const override { return height.value_or(0); }
    void setHeight(int pixels) override { height = pixels; }
    int getBitsPerPixel() const override { return bitsPerPixel.value_or(0); }
    void setBitsPerPixel(int bits) override { bitsPerPixel = bits; }
    double getFrameRate() const override { return frameRate.value_or(0.0); }
    void setFrameRate(double rate) override { frameRate = rate; }
    bool getEncoded() const override { return encoded.value_or(false); }
    void setEncoded(bool value) override { encoded = value; }
    streamer::VideoPixelFormat::Enum getPixelFormat() const override
    {
        return pixelFormat.value_or(streamer::VideoPixelFormat::RGB24);
    }
    void setPixelFormat(streamer::VideoPixelFormat::Enum format) override { pixelFormat = format; }
};

/// Writes every field into a record of any make; an empty one as the border's 0, false or "".
inline void copyFields(const AudioRecord& from, streamer::AudioPacketDescription& to)
{
    to.setBitrate(from.getBitrate());
    to.setSampleSize(from.getSampleSize());
    to.setFixedSizeSamples(from.getFixedSizeSamples());
    to.setTemporalCompression(from.getTemporalCompression());
    to.setCodec(from.getCodec());
    to.setCodecPrivateData(from.getCodecPrivateData());
    to.setSampleFlags(from.getSampleFlags());
    to.setBitsPerSample(from.getBitsPerSample());
    to.setSampleRate(from.getSampleRate());
    to.setChannels(from.getChannels());
}

inline void copyFields(const VideoRecord& from, streamer::VideoPacketDescription& to)
{
    to.setBitrate(from.getBitrate());
    to.setSampleSize(from.getSampleSize());
    to.setFixedSizeSamples(from.getFixedSizeSamples());
    to.setTemporalCompression(from.getTemporalCompression());
    to.setCodec(from.getCodec());
    to.setCodecPrivateData(from.getCodecPrivateData());
    to.setPixelAspectNumerator(from.getPixelAspectNumerator());
    to.setPixelAspectDenominator(from.getPixelAspectDenominator());
    to.setWidth(from.getWidth());
    to.setHeight(from.getHeight());
    to.setBitsPerPixel(from.getBitsPerPixel());
    to.setFrameRate(from.getFrameRate());
    to.setEncoded(from.getEncoded());
    to.setPixelFormat(from.getPixelFormat());
}

} // namespace zel::host
