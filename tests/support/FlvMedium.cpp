#include "tests/support/FlvMedium.h"

namespace zel::test {
namespace {

constexpr int AudioTag = 8;
constexpr int VideoTag = 9;
constexpr int Sorenson = 2;
constexpr int Avc = 7;

std::string bigEndian(uint32_t value, int count)
{
    std::string bytes;
    for (int i = count - 1; i >= 0; --i) {
        bytes.push_back(static_cast<char>(value >> (8 * i)));
    }
    return bytes;
}

char videoHead(bool key, int codec)
{
    return static_cast<char>((key ? 0x10 : 0x20) | codec);
}

std::string saw(int frames, int channels)
{
    std::string samples;
    for (int i = 0; i < frames * channels; ++i) {
        const int sample = i * 97 % 20000 - 10000;
        samples.push_back(static_cast<char>(sample));
        samples.push_back(static_cast<char>(sample >> 8));
    }
    return samples;
}

} // namespace

FlvMedium& FlvMedium::tag(int type, uint32_t timeMs, const std::string& body)
{
    m_hasAudio = m_hasAudio || type == AudioTag;
    m_hasVideo = m_hasVideo || type == VideoTag;
    m_tags += static_cast<char>(type);
    m_tags += bigEndian(static_cast<uint32_t>(body.size()), 3);
    m_tags += bigEndian(timeMs & 0xffffff, 3);
    m_tags += bigEndian(timeMs >> 24, 1);
    m_tags += bigEndian(0, 3);
    m_tags += body;
    m_tags += bigEndian(static_cast<uint32_t>(body.size()) + 11, 4);
    return *this;
}

FlvMedium& FlvMedium::video(uint32_t timeMs, bool key, const std::string& picture)
{
    return tag(VideoTag, timeMs, videoHead(key, Sorenson) + picture);
}

FlvMedium& FlvMedium::avc(uint32_t timeMs, bool key, int offsetMs, const std::string& nals)
{
    return tag(VideoTag, timeMs,
               videoHead(key, Avc) + bigEndian(1, 1) +
                   bigEndian(static_cast<uint32_t>(offsetMs) & 0xffffff, 3) + nals);
}

FlvMedium& FlvMedium::avcSetUp(const std::string& extradata)
{
    return tag(VideoTag, 0, videoHead(true, Avc) + bigEndian(0, 4) + extradata);
}

FlvMedium& FlvMedium::audio(uint32_t timeMs, int frames)
{
    return tag(AudioTag, timeMs, "\x3f" + saw(frames, 2));
}

FlvMedium& FlvMedium::monoAudio(uint32_t timeMs, int frames)
{
    return tag(AudioTag, timeMs, "\x3e" + saw(frames, 1));
}

std::string FlvMedium::bytes() const
{
    const int streams = (m_hasAudio ? 4 : 0) | (m_hasVideo ? 1 : 0);
    return std::string("FLV\x01") + static_cast<char>(streams) + bigEndian(9, 4) + bigEndian(0, 4) +
           m_tags;
}

} // namespace zel::test
