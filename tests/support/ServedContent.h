#pragma once

#include "tests/support/ScriptedServer.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace zel::test {

/// A content of which any stretch can be made at any time.
struct ServedContent
{
    std::uint64_t size = 0;
    /// Writes the bytes from an offset on. Runs on several threads.
    std::function<void(std::uint64_t offset, char* buffer, std::size_t size)> fill;
};

/// Bytes that tell their place, see PositionBytes.h.
ServedContent positionContent(std::uint64_t size);
ServedContent textContent(std::string text);

struct ServeOptions
{
    /// Says "Accept-Ranges: bytes" and answers "Range: bytes=a-b" and "bytes=a-" with 206.
    bool ranges = true;
    /// Says "Accept-Zel-Seek: seconds" and starts at the offset that this tells for the N of
    /// "Zel-Seek: seconds=N", unless the request has a range too.
    std::function<std::uint64_t(long long seconds)> timeToOffset = {};
    /// Sent with every answer.
    ServerHeaders headers = {};
    /// What begins at one piece's offset goes out by one `send`.
    std::size_t pieceBytes = 65536;
};

/// Answers GET and HEAD as a file server does; 405 to other methods, 416 to a range that begins
/// behind the end. An empty or broken range is served as a whole.
ServerScript serveBytes(ServedContent content, ServeOptions options = {});

/// The two ends of "bytes=a-b" within a content of this size, both included; nothing when it is no
/// such range. An end behind the content's is brought back to it.
std::optional<std::pair<std::uint64_t, std::uint64_t>> parseRange(std::string_view value,
                                                                  std::uint64_t size);

} // namespace zel::test
