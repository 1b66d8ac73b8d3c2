#include "tests/support/AsfFile.h"
#include "tests/support/MmsServer.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/ServedContent.h"
#include "tests/support/TestCertificates.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// Serves the files of a folder on loopback, for tests and measurements that start it.
///
///     ffmpegplugins_serve_media FOLDER [--mms FILE]... [--no-ranges] [--tls]
///
/// The first line of standard output is JSON: "port" of the HTTP server, "mms" with a port for each
/// FILE of the folder that goes out by MMS over HTTP, and with --tls the folder "authority" in
/// which "cacert.pem" stands. Each request of the HTTP server is a further line, with "method",
/// "target" and "range". The end of standard input ends the program.
///
/// "?stall=N" behind a name: the server sends N bytes of the body, says so by a line with
/// "stalled", and then nothing more. "?mute" gets no answer at all, after a line with "stalled".

namespace {

using namespace zel::test;

struct Arguments
{
    std::filesystem::path folder;
    std::vector<std::string> mmsFiles;
    bool ranges = true;
    bool tls = false;
};

Arguments parse(int argc, char** argv)
{
    Arguments arguments;
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (word == "--mms" && i + 1 < argc) {
            arguments.mmsFiles.emplace_back(argv[++i]);
        } else if (word == "--no-ranges") {
            arguments.ranges = false;
        } else if (word == "--tls") {
            arguments.tls = true;
        } else if (!word.starts_with('-') && arguments.folder.empty()) {
            arguments.folder = word;
        } else {
            throw std::runtime_error("unknown argument " + std::string(word));
        }
    }
    if (arguments.folder.empty()) {
        throw std::runtime_error("FOLDER is missing");
    }
    return arguments;
}

/// One line of standard output; whole, whichever thread it comes from.
void tell(const nlohmann::json& line)
{
    static std::mutex mutex;
    const std::lock_guard guard(mutex);
    std::printf("%s\n", line.dump().c_str());
    std::fflush(stdout);
}

class OpenFile
{
public:
    explicit OpenFile(const std::filesystem::path& path)
        : m_descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC))
    {
    }
    ~OpenFile()
    {
        if (m_descriptor >= 0) {
            close(m_descriptor);
        }
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    /// Nothing when it is no regular file that can be read.
    std::optional<std::uint64_t> size() const
    {
        struct stat status = {};
        if (m_descriptor < 0 || fstat(m_descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
            return std::nullopt;
        }
        return static_cast<std::uint64_t>(status.st_size);
    }

    void read(std::uint64_t offset, char* buffer, std::size_t size) const
    {
        while (size > 0) {
            const ssize_t count = pread(m_descriptor, buffer, size, static_cast<off_t>(offset));
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                std::fill_n(buffer, size, '\0'); // the file has shrunk
                return;
            }
            buffer += count;
            offset += static_cast<std::uint64_t>(count);
            size -= static_cast<std::size_t>(count);
        }
    }

private:
    int m_descriptor;
};

std::optional<std::uint64_t> stallOf(std::string_view query)
{
    constexpr std::string_view Key = "stall=";
    std::uint64_t count = 0;
    if (!query.starts_with(Key)) {
        return std::nullopt;
    }
    query.remove_prefix(Key.size());
    const auto result = std::from_chars(query.data(), query.data() + query.size(), count);
    return result.ec == std::errc() ? std::optional(count) : std::nullopt;
}

/// The head for all of the content, but no more of it than that.
void serveAndStall(ServerConnection& connection, const OpenFile& file, std::uint64_t size,
                   std::uint64_t count)
{
    std::string bytes(std::min(count, size), '\0');
    file.read(0, bytes.data(), bytes.size());
    connection.beginBody(200, {{"Accept-Ranges", "bytes"}}, size);
    if (bytes.empty() || connection.send(bytes)) {
        tell({{"stalled", count}});
        connection.waitUntilPeerCloses();
    }
}

ServerScript serveFolder(const std::filesystem::path& folder, bool ranges)
{
    return [=](const ServerRequest& request, ServerConnection& connection) {
        tell({{"method", request.method},
              {"target", request.target},
              {"range", request.header("Range")}});
        const std::string_view target = request.target;
        const std::size_t mark = std::min(target.find('?'), target.size());
        const std::string_view query = target.substr(std::min(mark + 1, target.size()));
        // Names of clips: one word, with nothing to decode and no way out of the folder.
        const std::string name(target.substr(1, mark - 1));
        const auto file = std::make_shared<const OpenFile>(folder / name);
        const auto size = file->size();
        if (!size || name.find('/') != std::string::npos) {
            connection.respond(404, {}, "not here\n");
            return;
        }
        if (query == "mute") {
            tell({{"stalled", nullptr}});
            connection.waitUntilPeerCloses();
            return;
        }
        if (const auto stall = stallOf(query)) {
            serveAndStall(connection, *file, *size, *stall);
            return;
        }
        const ServedContent content{*size,
                                    [file](std::uint64_t offset, char* buffer, std::size_t count) {
                                        file->read(offset, buffer, count);
                                    }};
        ServeOptions options;
        options.ranges = ranges;
        serveBytes(content, options)(request, connection);
    };
}

void awaitEndOfInput()
{
    char ignored[256];
    for (;;) {
        const ssize_t count = read(STDIN_FILENO, ignored, sizeof ignored);
        if (count == 0 || (count < 0 && errno != EINTR)) {
            return;
        }
    }
}

void run(const Arguments& arguments)
{
    nlohmann::json ports = {{"mms", nlohmann::json::object()}};
    std::unique_ptr<TestCertificates> certificates;
    ServerOptions options;
    if (arguments.tls) {
        certificates = std::make_unique<TestCertificates>();
        options.certificate = certificates->server().certificate;
        options.key = certificates->server().key;
        ports["authority"] = certificates->authorityFolder();
    }
    const ScriptedServer http(serveFolder(arguments.folder, arguments.ranges), options);
    ports["port"] = http.port();
    std::vector<std::unique_ptr<MmsServer>> mms;
    for (const std::string& name : arguments.mmsFiles) {
        MmsServerOptions mmsOptions;
        mmsOptions.server = options;
        mms.push_back(
            std::make_unique<MmsServer>(AsfFile::read(arguments.folder / name), mmsOptions));
        ports["mms"][name] = mms.back()->http().port();
    }
    tell(ports);
    awaitEndOfInput();
}

} // namespace

int main(int argc, char** argv)
{
    // Whoever has started this may stop reading its lines.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        run(parse(argc, argv));
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "ffmpegplugins_serve_media: %s\n", error.what());
    }
    return 1;
}
