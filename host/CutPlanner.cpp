#include "host/CutPlanner.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace zel::host {

CutPlanner::CutPlanner(unsigned long long clipMs, double inputRate, double outputRate)
    : m_clipUs(clipMs * 1000), m_encodes(true), m_outputRate(outputRate),
      m_earlyUs(static_cast<unsigned long long>(
          5e5 / std::max({inputRate, outputRate, 1.0}))), // half of the shorter frame
      m_sameRate(std::trunc(inputRate * 1000) == std::trunc(outputRate * 1000)),
      m_gop(static_cast<unsigned long long>(std::max(1.0, std::ceil(outputRate))))
{
}

std::optional<unsigned long long> CutPlanner::plan(unsigned long long timestampUs,
                                                   unsigned long long durationUs, bool keyFrame)
{
    unsigned long long frameUs = durationUs;
    if (m_encodes) {
        frameUs = static_cast<unsigned long long>(1e6 / std::max(m_outputRate, 1.0));
        keyFrame = isKeyFrame(timestampUs);
    }
    if (!m_segmentUs) {
        m_segmentUs = timestampUs;
        return std::nullopt;
    }
    if (!keyFrame || timestampUs + frameUs / 2 < *m_segmentUs + m_clipUs) {
        return std::nullopt;
    }
    m_segmentBeforeUs = std::exchange(m_segmentUs, timestampUs);
    return timestampUs - std::min(timestampUs, m_earlyUs);
}

void CutPlanner::restart()
{
    m_firstUs.reset();
    m_segmentUs.reset();
}

/// Whether the stage makes a key frame of this picture.
bool CutPlanner::isKeyFrame(unsigned long long timestampUs)
{
    constexpr unsigned long long ForcedBehindSeek = 11;
    if (!m_firstUs) {
        m_firstUs = timestampUs;
        m_lastNumber = -1;
        m_countAtSeek = m_count;
        m_sinceKey = m_gop;
    }
    const bool isForced = m_count % m_gop == 0 || m_count - m_countAtSeek < ForcedBehindSeek;
    ++m_count;
    if (!isKept(timestampUs)) {
        return false;
    }
    const bool isKey = isForced || m_sinceKey >= m_gop;
    m_sinceKey = isKey ? 1 : m_sinceKey + 1;
    return isKey;
}

/// False for a picture that falls on the same frame of the output as the one before it.
bool CutPlanner::isKept(unsigned long long timestampUs)
{
    const double sinceUs = static_cast<double>(timestampUs) - static_cast<double>(*m_firstUs);
    // The stage's own arithmetic, so that halves are rounded alike.
    long long number = std::llround(sinceUs / (1.0 / m_outputRate) / 1e6);
    const bool isAgain = number == m_lastNumber;
    // At the same rate the stage moves it one frame on; but the start of the stream stays.
    if (isAgain && m_sameRate && number > 0) {
        ++number;
    }
    const bool isLeftOut = number <= m_lastNumber; // an encoder goes no steps back
    m_lastNumber = number;
    return !isLeftOut;
}

} // namespace zel::host
