// zel-pull URL: pulls a resource through HTTPClient into a file or nowhere, as a demuxer would read
// it, and tells what the server said. For measurements, and for looking at a server by hand.
#include "common/utils/CBBLog.h"
#include "common/utils/Clock.h"
#include "network/HTTPClient.h"

#include <CLI/CLI.hpp>
#include <boost/make_shared.hpp>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

struct Options
{
    std::string url;
    std::string output;
    unsigned int ringBytes = 0xa00000;
    unsigned int historyBytes = 0x200000;
    unsigned int blockBytes = 32768;
    long long seekTo = 0;
    bool verbose = false;
};

struct CloseFile
{
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

class PrintError : public zel::streamer::Error
{
public:
    void setCode(int /*code*/) override {}
    void setMessage(const char* message) override { std::fprintf(stderr, "%s\n", message); }
};

Options parse(int argc, char** argv)
{
    Options options;
    CLI::App app{"Pulls a URL through the HTTP client"};
    app.add_option("url", options.url, "http:// or https://")->required();
    app.add_option("-o,--output", options.output, "file for the body; nowhere without");
    app.add_option("--ring", options.ringBytes, "bytes of the ring")->capture_default_str();
    app.add_option("--history", options.historyBytes, "bytes kept behind the reader")
        ->capture_default_str();
    app.add_option("--block", options.blockBytes, "bytes of one read")
        ->check(CLI::Range(1U, 1U << 30))
        ->capture_default_str();
    app.add_option("--seek", options.seekTo, "offset to begin at");
    app.add_flag("-v,--verbose", options.verbose, "log what the client does");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        std::exit(app.exit(e));
    }
    return options;
}

void describe(zel::HTTPClient& client)
{
    std::fprintf(stderr, "url %s\ntype %s\nlength %llu\nseekable %s\nduration %d\n",
                 client.getUrl().c_str(), client.getContentType().c_str(),
                 client.getContentLength(), client.canSeek() ? "yes" : "no",
                 client.getStreamDuration());
}

/// @return bytes read, or -1 when the output is full
long long pull(zel::HTTPClient& client, const Options& options, std::FILE* output)
{
    std::vector<char> block(options.blockBytes);
    long long total = 0;
    for (int n = 0; (n = client.read(block.data(), block.size(), 0)) > 0;) {
        total += n;
        if (output != nullptr && std::fwrite(block.data(), 1, static_cast<std::size_t>(n),
                                             output) != static_cast<std::size_t>(n)) {
            return -1;
        }
    }
    return total;
}

} // namespace

int main(int argc, char** argv)
{
    const Options options = parse(argc, argv);
    File output;
    if (!options.output.empty()) {
        output.reset(std::fopen(options.output.c_str(), "wb"));
        if (output == nullptr) {
            std::perror(options.output.c_str());
            return 1;
        }
    }
    const auto log = boost::make_shared<CBBLog>("zel-pull.log", true, 1 << 20);
    log->setLogLevel(options.verbose ? LOGLEVEL_DEBUG : LOGLEVEL_ERROR);
    CBBLog::setLogger(log);

    zel::HTTPClient client(options.ringBytes, options.historyBytes);
    PrintError error;
    const unsigned long long begin = zel::uptimeMs();
    if (!client.open(options.url, &error)) {
        return 1;
    }
    describe(client);
    if (options.seekTo != 0 && client.seek(options.seekTo, SEEK_SET, -1) != options.seekTo) {
        std::fprintf(stderr, "seek failed\n");
        return 1;
    }
    const long long total = pull(client, options, output.get());
    if (total < 0) {
        std::perror(options.output.c_str());
        return 1;
    }
    const double seconds = static_cast<double>(zel::uptimeMs() - begin) / 1000;
    std::fprintf(stderr, "%lld bytes in %.3f s, %.0f MB/s\n", total, seconds,
                 seconds > 0 ? static_cast<double>(total) / 1e6 / seconds : 0.0);
    return 0;
}
