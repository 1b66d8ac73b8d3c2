#include "host/Times.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <string_view>

namespace zel::host {

namespace {

// Keeps products with 1000 and sums far away from the ends of 64 bits.
constexpr double LongestSeconds = 1e12;

/// A whole number, or with `fraction` a decimal one, and nothing else.
std::optional<double> parseNumber(std::string_view text, bool fraction)
{
    if (text.empty() || std::isdigit(static_cast<unsigned char>(text.front())) == 0) {
        return std::nullopt;
    }
    if (!fraction && text.find('.') != std::string_view::npos) {
        return std::nullopt;
    }
    double value = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value, std::chars_format::fixed);
    if (error != std::errc() || rest != end || value > LongestSeconds) {
        return std::nullopt;
    }
    return value;
}

/// "1:30" or "0:01:30.5" as seconds.
std::optional<double> parseClock(std::string_view text)
{
    double seconds = 0;
    for (int fields = 1;; ++fields) {
        const size_t colon = text.find(':');
        const bool last = colon == std::string_view::npos;
        const auto field = parseNumber(text.substr(0, colon), last);
        if (!field || (fields > 1 && *field >= 60) || fields > 3) {
            return std::nullopt;
        }
        seconds = seconds * 60 + *field;
        if (last) {
            return seconds;
        }
        text.remove_prefix(colon + 1);
    }
}

std::optional<unsigned long long> milliseconds(std::optional<double> seconds)
{
    if (!seconds) {
        return std::nullopt;
    }
    return static_cast<unsigned long long>(std::llround(*seconds * 1000));
}

} // namespace

std::optional<unsigned long long> parseTime(const std::string& text)
{
    if (text.find(':') != std::string::npos) {
        return milliseconds(parseClock(text));
    }
    if (text.ends_with('s')) {
        return milliseconds(parseNumber(std::string_view(text).substr(0, text.size() - 1), true));
    }
    const auto value = parseNumber(text, false);
    return value ? std::optional(static_cast<unsigned long long>(*value)) : std::nullopt;
}

std::string formatTime(long long timeUs)
{
    const bool negative = timeUs < 0;
    const unsigned long long ms =
        (negative ? 0ULL - static_cast<unsigned long long>(timeUs) : timeUs) / 1000;
    const unsigned long long hours = ms / 3600000;
    const unsigned minutes = static_cast<unsigned>(ms / 60000 % 60);
    const unsigned seconds = static_cast<unsigned>(ms / 1000 % 60);
    const unsigned rest = static_cast<unsigned>(ms % 1000);
    char text[48];
    if (hours > 0) {
        std::snprintf(text, sizeof text, "%llu:%02u:%02u.%03u", hours, minutes, seconds, rest);
    } else {
        std::snprintf(text, sizeof text, "%u:%02u.%03u", minutes, seconds, rest);
    }
    return negative ? std::string("-").append(text) : text;
}

std::string formatCount(unsigned long long count)
{
    std::string text = std::to_string(count);
    for (size_t place = text.size(); place > 3; place -= 3) {
        text.insert(place - 3, 1, ',');
    }
    return text;
}

} // namespace zel::host
