#include "host/StreamChoice.h"

#include <charconv>
#include <cmath>
#include <string_view>

namespace zel::host {

namespace {

// Encoders keep bit rates in 32 bits and some multiply them by small numbers.
constexpr double HighestBitrate = 1e9;

} // namespace

std::optional<StreamChoice> parseStreamChoice(const std::string& text)
{
    const size_t colon = text.find(':');
    StreamChoice choice;
    choice.codec = text.substr(0, colon);
    if (choice.codec.empty()) {
        return std::nullopt;
    }
    if (colon != std::string::npos) {
        choice.bitrate = parseBitrate(text.substr(colon + 1));
        if (!choice.bitrate) {
            return std::nullopt;
        }
    }
    choice.wish = StreamChoice::Wish::Codec;
    if (choice.codec != "copy" && choice.codec != "none") {
        return choice;
    }
    if (choice.bitrate) {
        return std::nullopt;
    }
    choice.wish = choice.codec == "copy" ? StreamChoice::Wish::Copy : StreamChoice::Wish::None;
    choice.codec.clear();
    return choice;
}

std::optional<int> parseBitrate(const std::string& text)
{
    std::string_view number = text;
    double factor = 1;
    if (number.ends_with('k') || number.ends_with('K')) {
        factor = 1e3;
    } else if (number.ends_with('M')) {
        factor = 1e6;
    }
    if (factor > 1) {
        number.remove_suffix(1);
    }
    double value = 0;
    const char* end = number.data() + number.size();
    const auto [rest, error] = std::from_chars(number.data(), end, value, std::chars_format::fixed);
    if (error != std::errc() || rest != end || !(value * factor >= 1) ||
        value * factor > HighestBitrate) {
        return std::nullopt;
    }
    return static_cast<int>(std::lround(value * factor));
}

} // namespace zel::host
