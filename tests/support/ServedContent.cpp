#include "tests/support/ServedContent.h"

#include "tests/support/PositionBytes.h"

#include <algorithm>
#include <charconv>
#include <memory>

namespace zel::test {

namespace {

/// Takes decimal digits from the front; nothing when there are none.
std::optional<std::uint64_t> takeNumber(std::string_view& text)
{
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) {
        return std::nullopt;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return number;
}

/// What "Zel-Seek: seconds=N" says.
std::optional<std::uint64_t> parseTimeSeek(std::string_view value)
{
    constexpr std::string_view Unit = "seconds=";
    if (!value.starts_with(Unit)) {
        return std::nullopt;
    }
    value.remove_prefix(Unit.size());
    return takeNumber(value);
}

void sendContent(ServerConnection& connection, const ServedContent& content, std::uint64_t first,
                 std::uint64_t end, std::size_t pieceBytes)
{
    std::string piece(pieceBytes, '\0');
    for (std::uint64_t offset = first; offset < end;) {
        const std::size_t count = std::min<std::uint64_t>(pieceBytes, end - offset);
        content.fill(offset, piece.data(), count);
        if (!connection.send(std::string_view(piece).substr(0, count))) {
            return;
        }
        offset += count;
    }
}

void serve(const ServerRequest& request, ServerConnection& connection, const ServedContent& content,
           const ServeOptions& options)
{
    ServerHeaders headers = options.headers;
    if (options.ranges) {
        headers.emplace_back("Accept-Ranges", "bytes");
    }
    if (options.timeToOffset) {
        headers.emplace_back("Accept-Zel-Seek", "seconds");
    }
    if (request.method != "GET" && request.method != "HEAD") {
        connection.respond(405, headers, "");
        return;
    }
    std::uint64_t first = 0;
    std::uint64_t end = content.size;
    int status = 200;
    const auto seconds = parseTimeSeek(request.header("Zel-Seek"));
    if (options.timeToOffset && seconds && !request.hasHeader("Range")) {
        first = std::min(options.timeToOffset(static_cast<long long>(*seconds)), end);
    }
    const auto range = parseRange(request.header("Range"), UINT64_MAX);
    if (options.ranges && range) {
        const std::string size = std::to_string(content.size);
        if (range->first >= content.size) {
            headers.emplace_back("Content-Range", "bytes */" + size);
            connection.respond(416, headers, "");
            return;
        }
        first = range->first;
        end = std::min(range->second, content.size - 1) + 1;
        status = 206;
        headers.emplace_back("Content-Range", "bytes " + std::to_string(first) + "-" +
                                                  std::to_string(end - 1) + "/" + size);
    }
    if (connection.beginBody(status, headers, end - first) && request.method == "GET") {
        sendContent(connection, content, first, end, options.pieceBytes);
    }
}

} // namespace

ServedContent positionContent(std::uint64_t size)
{
    return {size, [](std::uint64_t offset, char* buffer, std::size_t count) {
                positionBytes::fill(offset, buffer, count);
            }};
}

ServedContent textContent(std::string text)
{
    const auto shared = std::make_shared<const std::string>(std::move(text));
    return {shared->size(), [shared](std::uint64_t offset, char* buffer, std::size_t count) {
                shared->copy(buffer, count, offset);
            }};
}

std::optional<std::pair<std::uint64_t, std::uint64_t>> parseRange(std::string_view value,
                                                                  std::uint64_t size)
{
    constexpr std::string_view Unit = "bytes=";
    if (!value.starts_with(Unit)) {
        return std::nullopt;
    }
    value.remove_prefix(Unit.size());
    const auto first = takeNumber(value);
    if (!first || !value.starts_with('-') || *first >= size) {
        return std::nullopt;
    }
    value.remove_prefix(1);
    if (value.empty()) {
        return std::pair{*first, size - 1};
    }
    const auto last = takeNumber(value);
    if (!last || !value.empty() || *last < *first) {
        return std::nullopt;
    }
    return std::pair{*first, std::min(*last, size - 1)};
}

ServerScript serveBytes(ServedContent content, ServeOptions options)
{
    return [content = std::move(content), options = std::move(options)](
               const ServerRequest& request, ServerConnection& connection) {
        serve(request, connection, content, options);
    };
}

} // namespace zel::test
