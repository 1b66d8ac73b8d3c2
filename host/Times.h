#pragma once

#include <optional>
#include <string>

/// Times as a person writes and reads them.

namespace zel::host {

/// @param text  milliseconds as "1500"; seconds as "1.5s"; "1:30" or "0:01:30.5"
/// @return milliseconds; empty when the text is no such time
std::optional<unsigned long long> parseTime(const std::string& text);

/// "0:12.340", or "1:02:03.004" from an hour on.
std::string formatTime(long long timeUs);

/// 1234567 as "1,234,567".
std::string formatCount(unsigned long long count);

} // namespace zel::host
