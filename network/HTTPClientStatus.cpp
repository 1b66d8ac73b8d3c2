#include "common/utils/CBBLog.h"
#include "common/utils/Clock.h"
#include "network/HTTPClient.h"

#include <algorithm>

namespace zel {

namespace {

constexpr unsigned long long lineEveryMs = 10000;
constexpr unsigned long long lineEveryMsWhenLow = 5000;
constexpr unsigned int lowPercent = 20;
constexpr unsigned int currentRateSpanMs = 5000;

} // namespace

/// On the transfer thread, under the read side of m_lock.
void HTTPClient::logBufferStatus(unsigned long long size)
{
    if (!CBBLog::isDebugEnabled()) {
        return;
    }
    if (!m_dataReceived) {
        CBBLog::debug("HTTPClient:: data received");
        m_totalDownloaded = 0;
        m_lastStatusLog = 0;
    }
    m_totalDownloaded += size;
    const unsigned long long now = uptimeMs();
    const unsigned int elapsedMs = static_cast<unsigned int>(now) - m_openTime;
    m_rateSamples[now] += size;

    const unsigned long long available = m_reader->availableToRead();
    const unsigned int percent = fillPercent(available);
    const bool isLow = percent < lowPercent && now > m_lastStatusLog + lineEveryMsWhenLow;
    if (now <= m_lastStatusLog + lineEveryMs && !isLow) {
        return;
    }
    const unsigned int spanMs = std::clamp(elapsedMs, 1U, currentRateSpanMs);
    m_rateSamples.erase(m_rateSamples.begin(), m_rateSamples.lower_bound(now - spanMs));
    unsigned long long recent = 0;
    for (const auto& [time, bytes] : m_rateSamples) {
        recent += bytes;
    }
    // Bits a millisecond are kilobits a second.
    const unsigned long long totalRate = elapsedMs != 0 ? m_totalDownloaded * 8 / elapsedMs : 0;
    CBBLog::debug("HTTPClient : buffer size %dB (%u%% full), total downloaded: %ukB in %us @ "
                  "%ukbps. Current: %ukbps",
                  static_cast<int>(available), percent,
                  static_cast<unsigned int>(m_totalDownloaded / 1024), elapsedMs / 1000,
                  static_cast<unsigned int>(totalRate),
                  static_cast<unsigned int>(recent * 8 / spanMs));
    m_lastStatusLog = now;
}

} // namespace zel
