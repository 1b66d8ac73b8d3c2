#pragma once

#include <optional>
#include <string>

namespace zel::host {

/// What the user wants to become of one kind of stream.
struct StreamChoice
{
    enum class Wish
    {
        Auto,  ///< copied where the output takes it, else encoded to the format's usual codec
        Copy,  ///< copied where that is possible at all
        None,  ///< left out
        Codec, ///< encoded to `codec`, or copied when it is that already
    };

    Wish wish = Wish::Auto;
    std::string codec;          ///< of Wish::Codec
    std::optional<int> bitrate; ///< bits per second
};

/// @param text  "copy", "none", "CODEC" or "CODEC:BITRATE"
/// @return empty when the text is none of these
std::optional<StreamChoice> parseStreamChoice(const std::string& text);

/// @param text  bits per second as "128000", "128k" or "1.5M"
/// @return empty when the text is no bit rate above 0
std::optional<int> parseBitrate(const std::string& text);

} // namespace zel::host
