#include "host/CutPlanner.h"

#include <algorithm>
#include <cmath>

namespace zel::host {

CutPlanner::CutPlanner(unsigned long long clipMs, double inputRate, double outputRate)
    : m_clipUs(clipMs * 1000), m_encodes(true), m_outputRate(outputRate),
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
        const bool isForced = m_count++ % m_gop == 0;
        keyFrame = isKept(timestampUs) && isForced;
    }
    if (!m_segmentUs) {
        m_segmentUs = timestampUs;
        return std::nullopt;
    }
    if (!keyFrame || timestampUs + frameUs / 2 < *m_segmentUs + m_clipUs) {
        return std::nullopt;
    }
    m_segmentUs = timestampUs;
    return m_encodes ? timestampUs - std::min(timestampUs, frameUs / 2) : timestampUs;
}

void CutPlanner::restart()
{
    m_firstUs.reset();
    m_segmentUs.reset();
}

/// False for a picture that falls on the same frame of the output as the one before it.
bool CutPlanner::isKept(unsigned long long timestampUs)
{
    if (!m_firstUs) {
        m_firstUs = timestampUs;
    }
    const double sinceUs = static_cast<double>(timestampUs) - static_cast<double>(*m_firstUs);
    const long long number = std::llround(sinceUs * m_outputRate / 1e6);
    const bool isLeftOut = !m_sameRate && number == m_lastNumber && number > 0;
    m_lastNumber = number;
    return !isLeftOut;
}

} // namespace zel::host
