#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zel::test {

/// Writes FLV tag by tag, so that a test says each packet's time and key flag itself.
///
///     FlvMedium medium;
///     medium.video(0, true, picture).audio(0).video(40, false, next);
///     writeFile(path, medium.bytes());
///
/// The demuxer takes the times as they are: milliseconds of 32 bits, in any order. First times
/// within a minute of 2^32 come out negative; see before().
class FlvMedium
{
public:
    /// Time `ms` before 0.
    static uint32_t before(uint32_t ms) { return 0u - ms; }

    /// One packet of Sorenson H.263.
    FlvMedium& video(uint32_t timeMs, bool key, const std::string& picture);
    /// One packet of H.264 in its mp4 form; `offsetMs` lies between decoding and presentation.
    FlvMedium& avc(uint32_t timeMs, bool key, int offsetMs, const std::string& nals);
    /// The set-up of H.264, which comes first.
    FlvMedium& avcSetUp(const std::string& extradata);
    /// Samples of 16 bits, stereo, 44.1 kHz: a saw of `frames` pairs.
    FlvMedium& audio(uint32_t timeMs, int frames = 1764);
    /// Samples of 16 bits, one channel, 44.1 kHz.
    FlvMedium& monoAudio(uint32_t timeMs, int frames = 1764);
    /// A tag of any type, with the bytes behind the tag's header.
    FlvMedium& tag(int type, uint32_t timeMs, const std::string& body);

    std::string bytes() const;

private:
    std::string m_tags;
    bool m_hasAudio = false;
    bool m_hasVideo = false;
};

} // namespace zel::test
