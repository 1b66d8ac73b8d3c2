#pragma once

#include "host/PacketRecords.h"
#include "plugin/HostRecords.h"

#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

/// The host's own records, which a plug-in reads and fills in.
///
/// As in PacketRecords.h a field is empty until it is written. The border hands out writable parts
/// of a record through const functions, which is why those parts are mutable here.

namespace zel::host {

/// A string map: properties of a medium, options of a stage.
class PropertyMap : public streamer::MapGeneric
{
public:
    PropertyMap() = default;
    PropertyMap(std::initializer_list<std::pair<const std::string, std::string>> entries)
        : values(entries)
    {
    }

    std::map<std::string, std::string> values;

    void set(const char* key, const char* value) { values[textOf(key)] = textOf(value); }
    const char* get(const char* key) const override
    {
        const auto found = values.find(textOf(key));
        return found == values.end() ? nullptr : found->second.c_str();
    }
};

/// What the host knows of a medium, and what an input found out about it.
class MediumRecord : public streamer::MediumDescription
{
public:
    MediumRecord() = default;
    /// Takes protocol and extension from the path or URL.
    explicit MediumRecord(std::string mediumUrl)
        : url(std::move(mediumUrl)), extension(extensionOf(url)), protocol(protocolOf(url))
    {
    }

    std::string url;
    std::string extension; ///< without a dot
    std::string protocol;  ///< with its separator; empty for a local file
    std::optional<unsigned long long> durationMs;
    std::optional<unsigned long long> fileSize; ///< bytes
    std::optional<long long> bitrate;           ///< bits per second
    std::optional<bool> seekable;
    std::optional<bool> live;
    std::optional<std::string> album;
    std::optional<std::string> title;
    std::optional<std::string> artist;
    mutable PropertyMap properties;

    const char* getUrl() const override { return url.c_str(); }
    unsigned long long getDuration() const override { return durationMs.value_or(0); }
    void setDuration(unsigned long long value) override { durationMs = value; }
    void setFileSize(unsigned long long sizeBytes) override { fileSize = sizeBytes; }
    unsigned long long getFileSize() const override { return fileSize.value_or(0); }
    void setBitrate(long long value) override { bitrate = value; }
    void setSeekable(bool value) override { seekable = value; }
    void setLive(bool value) override { live = value; }
    void setAlbum(const char* text) override { album = textOf(text); }
    void setTitle(const char* text) override { title = textOf(text); }
    void setArtist(const char* text) override { artist = textOf(text); }
    const char* getExtension() const override { return extension.c_str(); }
    const char* getProtocol() const override { return protocol.c_str(); }
    streamer::MapGeneric* getProperties() const override { return &properties; }
    void setProperty(const char* key, const char* value) override { properties.set(key, value); }

    /// "http://" of "http://host/a.mp4"; empty for a path.
    static std::string protocolOf(std::string_view url)
    {
        const size_t end = url.find("://");
        const size_t slash = url.find('/');
        const bool isUrl = end != std::string_view::npos && end > 0 && slash == end + 1;
        return isUrl ? std::string(url.substr(0, end + 3)) : std::string();
    }

    /// "mp4" of "/tmp/a.mp4" and of "http://host/a.mp4?b=c.d"; empty without a dot in the name.
    static std::string extensionOf(std::string_view url)
    {
        const size_t scheme = protocolOf(url).size();
        if (scheme > 0) {
            url = url.substr(scheme);
            url = url.substr(0, url.find_first_of("?#"));
            if (url.find('/') == std::string_view::npos) {
                return {}; // a bare host name has dots too
            }
        }
        const size_t slash = url.rfind('/');
        const std::string_view name = slash == std::string_view::npos ? url : url.substr(slash + 1);
        const size_t dot = name.rfind('.');
        return dot == std::string_view::npos || dot == 0 ? std::string()
                                                         : std::string(name.substr(dot + 1));
    }
};

/// A stream that leaves a plug-in. A part counts as present once its codec is written.
class OutputStreamRecord : public streamer::OutputStreamDescription
{
public:
    std::optional<bool> multiplexed;
    std::optional<std::string> format;
    std::optional<int> bitrate; ///< bits per second; the border never writes it
    bool rtp = false;
    int rtpPacketSize = 0; ///< payload bytes
    PropertyMap properties;
    mutable AudioRecord audio;
    mutable VideoRecord video;

    bool isMultiplexed() const override { return multiplexed.value_or(false); }
    const char* getFormat() const override { return borderText(format); }
    int getBitrate() const override { return bitrate.value_or(0); }
    bool hasAudio() const override { return audio.isPresent(); }
    bool hasVideo() const override { return video.isPresent(); }
    void setProperty(const char* key, const char* value) override { properties.set(key, value); }
    void setMultiplexed(bool value) override { multiplexed = value; }
    void setFormat(const char* name) override { format = textOf(name); }
    bool isRTP() const override { return rtp; }
    int getRTPPacketSize() const override { return rtpPacketSize; }
    streamer::AudioPacketDescription* getAudio() const override { return &audio; }
    streamer::VideoPacketDescription* getVideo() const override { return &video; }

    /// Copies everything into a record of this class, and what the border can write into another.
    void copyTo(streamer::OutputStreamDescription* target) const override
    {
        if (target == nullptr || target == this) {
            return;
        }
        if (auto* record = dynamic_cast<OutputStreamRecord*>(target)) {
            *record = *this;
            return;
        }
        target->setMultiplexed(isMultiplexed());
        target->setFormat(getFormat());
        for (const auto& [key, value] : properties.values) {
            target->setProperty(key.c_str(), value.c_str());
        }
        if (audio.isPresent() && target->getAudio() != nullptr) {
            copyFields(audio, *target->getAudio());
        }
        if (video.isPresent() && target->getVideo() != nullptr) {
            copyFields(video, *target->getVideo());
        }
    }
};

/// The stream that a stage receives: one description, seen through both interfaces.
class InputStreamRecord : public streamer::InputStreamDescription
{
public:
    mutable OutputStreamRecord stream;

    bool isMultiplexed() const override { return stream.isMultiplexed(); }
    const char* getFormat() const override { return stream.getFormat(); }
    bool hasAudio() const override { return stream.hasAudio(); }
    bool hasVideo() const override { return stream.hasVideo(); }
    streamer::AudioPacketDescription* getAudio() const override { return &stream.audio; }
    streamer::VideoPacketDescription* getVideo() const override { return &stream.video; }
    streamer::OutputStreamDescription* getStreamDescription() const override { return &stream; }
};

/// What the remote player asked for.
class RequestedStreamRecord : public streamer::RequestedStreamDescription
{
public:
    std::string format;
    mutable AudioRecord audio;
    mutable VideoRecord video;
    mutable OutputStreamRecord output;

    const char* getFormat() const override { return format.c_str(); }
    streamer::AudioPacketDescription* getAudio() const override { return &audio; }
    streamer::VideoPacketDescription* getVideo() const override { return &video; }
    streamer::OutputStreamDescription* getOutputDescription() const override { return &output; }
};

/// Why an open failed. Several parts of a library may have a say, the last word counts.
class ErrorRecord : public streamer::Error
{
public:
    std::optional<int> code;
    std::optional<std::string> message;
    std::optional<std::string> earlier; ///< the first message, where another one followed

    void setCode(int value) override { code = value; }
    void setMessage(const char* text) override
    {
        if (message && !earlier) {
            earlier = message;
        }
        message = textOf(text);
    }
};

} // namespace zel::host
