#pragma once

#include <string>
#include <vector>

namespace zel::test {

/// A stream of a medium as libavformat reads it, freed of what belongs to its container.
struct PlayedStream
{
    std::string codec;                 ///< FFmpeg's name; empty for a stream that is not there
    std::vector<std::string> payloads; ///< in the order of the file, see payloadOf
    std::vector<double> shownMs;       ///< presentation time of each
    std::vector<double> sentMs;        ///< decoding time of each
    std::vector<bool> keys;
    double endMs = 0.0; ///< when the last one is over

    bool present() const { return !codec.empty(); }
    std::size_t count() const { return payloads.size(); }
    double startMs() const;
    /// Presentation times in their order, counted from the first.
    std::vector<double> showing() const;
};

struct PlayedMedium
{
    PlayedStream video;
    PlayedStream audio;
    double durationMs = -1.0; ///< as the container says; -1 when it does not

    /// Audio minus video.
    double startOffsetMs() const { return audio.startMs() - video.startMs(); }
    double endOffsetMs() const { return audio.endMs - video.endMs; }
};

/// @throws std::runtime_error when libavformat cannot open it
PlayedMedium readBack(const std::string& path);

/// A packet's bytes in a form that all containers share: H.264 as its units without set-up data and
/// delimiters, each behind its length; MPEG-4 without set-up data; AAC without ADTS header; all
/// else as it is.
/// @param setUp  the stream's set-up data, which tells the form
std::string payloadOf(const std::string& codec, const std::string& bytes, const std::string& setUp);

} // namespace zel::test
