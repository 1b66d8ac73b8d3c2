#include "host/ProgressBar.h"

#include "host/Times.h"

#include <string.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace zel::host {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr auto DrawInterval = std::chrono::milliseconds(100);
constexpr int LongestBar = 50;
constexpr int ShortestBar = 5;

/// The same order in which the C library looks for the character set.
bool isUtf8Locale()
{
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char* value = std::getenv(name);
        if (value != nullptr && *value != '\0') {
            return strcasestr(value, "utf-8") != nullptr || strcasestr(value, "utf8") != nullptr;
        }
    }
    return false;
}

std::string repeated(const char* text, int count)
{
    std::string result;
    for (int i = 0; i < count; ++i) {
        result += text;
    }
    return result;
}

} // namespace

ProgressBar::ProgressBar(const Console& console, bool enabled, long long lengthUs)
    : m_console(console), m_enabled(enabled), m_blocks(isUtf8Locale()), m_lengthUs(lengthUs),
      m_started(Clock::now())
{
}

void ProgressBar::updateTerminal(long long positionUs)
{
    const auto now = Clock::now();
    if (now < m_nextDraw) {
        return;
    }
    m_nextDraw = now + DrawInterval;
    if (!m_firstUs) {
        m_firstUs = positionUs;
    }
    std::string text = "\r";
    text += line(positionUs, now);
    text += "\033[K";
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
    m_visible = true;
}

void ProgressBar::clear()
{
    if (!m_visible) {
        return;
    }
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
    m_visible = false;
}

std::string ProgressBar::line(long long positionUs, Clock::time_point now) const
{
    std::string times = formatTime(positionUs);
    if (m_lengthUs > 0) {
        times += " / " + formatTime(m_lengthUs);
    }
    const double elapsed = Seconds(now - m_started).count();
    char speed[32] = "";
    if (elapsed > 0.2) {
        std::snprintf(speed, sizeof speed, "  %.1fx",
                      std::max(0.0, static_cast<double>(positionUs - *m_firstUs) / 1e6 / elapsed));
    }
    std::string tail = times + speed;
    if (m_bufferPercent) {
        tail += "  buffer " + std::to_string(*m_bufferPercent) + "%";
    }
    if (m_lengthUs <= 0) {
        return tail;
    }

    const double part =
        std::clamp(static_cast<double>(positionUs) / static_cast<double>(m_lengthUs), 0.0, 1.0);
    char percent[16];
    std::snprintf(percent, sizeof percent, " %3d%%  ", static_cast<int>(part * 100));
    // One column stays free, since some terminals wrap when the last one is written.
    const int room = m_console.columns() - 1 - static_cast<int>(tail.size()) - 7 - 2;
    const int width = std::min(room, LongestBar);
    if (width < ShortestBar) {
        return tail.substr(0, static_cast<size_t>(std::max(m_console.columns() - 1, 0)));
    }
    const int done = static_cast<int>(part * width);
    std::string text = m_blocks ? "▕" : "[";
    text += repeated(m_blocks ? "█" : "#", done);
    text += repeated(m_blocks ? " " : ".", width - done);
    text += m_blocks ? "▏" : "]";
    return text + percent + tail;
}

} // namespace zel::host
