#pragma once

#include "encoder/FFMpegStreamingProfile.h"
#include "host/Records.h"

#include <memory>
#include <optional>
#include <string>

namespace zel::test {

/// A stream description whose streams may be declared present or absent, whatever its codecs say.
class SessionStream : public host::OutputStreamRecord
{
public:
    std::optional<bool> audioPresent;
    std::optional<bool> videoPresent;

    bool hasAudio() const override { return audioPresent.value_or(OutputStreamRecord::hasAudio()); }
    bool hasVideo() const override { return videoPresent.value_or(OutputStreamRecord::hasVideo()); }
};

class SessionInput : public streamer::InputStreamDescription
{
public:
    mutable SessionStream stream;

    bool isMultiplexed() const override { return stream.isMultiplexed(); }
    const char* getFormat() const override { return stream.getFormat(); }
    bool hasAudio() const override { return stream.hasAudio(); }
    bool hasVideo() const override { return stream.hasVideo(); }
    streamer::AudioPacketDescription* getAudio() const override { return &stream.audio; }
    streamer::VideoPacketDescription* getVideo() const override { return &stream.video; }
    streamer::OutputStreamDescription* getStreamDescription() const override { return &stream; }
};

class SessionRequest : public streamer::RequestedStreamDescription
{
public:
    mutable SessionStream output;
    mutable host::AudioRecord audio;
    mutable host::VideoRecord video;

    const char* getFormat() const override { return format.c_str(); }
    streamer::AudioPacketDescription* getAudio() const override { return &audio; }
    streamer::VideoPacketDescription* getVideo() const override { return &video; }
    streamer::OutputStreamDescription* getOutputDescription() const override { return &output; }

    std::string format;
};

/// What a host hands over for one output session. As a host does, it copies the wishes of the
/// player into the output description before the profile adjusts that.
///
///     OutputSession session;
///     session.requestAudio("aac", 128000);
///     session.profile()->outputStream()->getAudio()->getBitrate();
class OutputSession
{
public:
    host::PropertyMap options;
    host::MediumRecord medium;
    SessionInput input;
    SessionRequest request;

    void inputAudio(const char* codec) { input.stream.audio.codec = codec; }
    void inputVideo(const char* codec, double frameRate = 25.0)
    {
        input.stream.video.codec = codec;
        input.stream.video.frameRate = frameRate;
    }

    /// Rates and channels of 0 stand for what the player leaves open.
    void requestAudio(const char* codec, int bitrate, int channels = 0, int sampleRate = 0)
    {
        request.audio.codec = codec;
        request.audio.bitrate = bitrate;
        request.audio.channels = channels;
        request.audio.sampleRate = sampleRate;
        request.output.audio = request.audio;
    }

    void requestVideo(const char* codec, int bitrate, double frameRate = 25.0)
    {
        request.video.codec = codec;
        request.video.bitrate = bitrate;
        request.video.frameRate = frameRate;
        request.output.video = request.video;
    }

    void requestFormat(const char* format)
    {
        request.format = format;
        request.output.format = format;
    }

    /// @return null when the session cannot run
    std::unique_ptr<FFMpegStreamingProfile> profile() const
    {
        return std::unique_ptr<FFMpegStreamingProfile>(
            FFMpegStreamingProfile::createProfile(&options, &medium, &input, &request));
    }

    host::AudioRecord& audio() { return request.output.audio; }
    host::VideoRecord& video() { return request.output.video; }
    std::string format() const { return request.output.getFormat(); }
};

} // namespace zel::test
