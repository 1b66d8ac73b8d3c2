#include "host/Stretch.h"

#include <algorithm>

namespace zel::host {

namespace {

namespace PacketType = streamer::PacketType;

// Frames of the two kinds are interleaved more closely than this, so nothing more of the wanted
// stretch comes once one kind is so far past its end.
constexpr unsigned long long InterleavingUs = 2000000;

} // namespace

void Stretch::setKinds(bool hasVideo, bool hasAudio)
{
    m_hasVideo = hasVideo;
    m_hasAudio = hasAudio;
}

void Stretch::begin(unsigned long long startMs)
{
    if (m_options.durationMs) {
        m_endUs = (startMs + *m_options.durationMs) * 1000;
    }
    m_videoEnded = false;
    m_audioEnded = false;
}

bool Stretch::isPastEnd(const Frame& frame)
{
    if (!m_endUs || !frame.hasTimestamp() || frame.timestampUs < *m_endUs) {
        return false;
    }
    (frame.type == PacketType::Video ? m_videoEnded : m_audioEnded) = true;
    return true;
}

bool Stretch::isOver(const Frame& frame) const
{
    const bool allEnded = (m_videoEnded || !m_hasVideo) && (m_audioEnded || !m_hasAudio);
    return allEnded || frame.timestampUs - *m_endUs > InterleavingUs;
}

const SeekRequest* Stretch::takeDueSeek(const Frame& frame)
{
    if (m_nextSeek >= m_options.seeks.size() || !frame.hasTimestamp()) {
        return nullptr;
    }
    const SeekRequest& request = m_options.seeks[m_nextSeek];
    const bool isLeading = m_hasVideo == (frame.type == PacketType::Video);
    const bool due = request.whenMs ? frame.timestampUs >= *request.whenMs * 1000 : isLeading;
    return due ? takeSeek() : nullptr;
}

const SeekRequest* Stretch::takeSeek()
{
    return m_nextSeek < m_options.seeks.size() ? &m_options.seeks[m_nextSeek++] : nullptr;
}

long long Stretch::lengthUs(const StretchOptions& options, long long mediumUs)
{
    if (!options.durationMs) {
        return mediumUs;
    }
    const auto endUs =
        static_cast<long long>(options.startMs.value_or(0) + *options.durationMs) * 1000;
    return mediumUs > 0 ? std::min(mediumUs, endUs) : endUs;
}

} // namespace zel::host
