// play_child MEDIUM [LIMIT]: plays a medium through the built library, from the start and behind
// two seeks, and tells as JSON what came. A process of its own, so that a medium that does harm
// does it to nobody else. LIMIT is the address space in MiB that it may take. Exit status 0 when
// all calls came back, whether the medium opened or not.

#include "tests/support/InputPlayer.h"

#include <nlohmann/json.hpp>

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

using namespace zel::test;
using nlohmann::json;
namespace PacketType = zel::streamer::PacketType;

namespace {

constexpr unsigned long long BytesPerMiB = 1ULL << 20;

void limitMemory(const char* text)
{
    const rlim_t bytes = std::strtoull(text, nullptr, 10) * BytesPerMiB;
    const rlimit limit = {bytes, bytes};
    setrlimit(RLIMIT_AS, &limit);
}

json describe(InputPlayer& player)
{
    const zel::host::MediumRecord medium = player.describeMedium();
    zel::host::OutputStreamRecord coded;
    player.input().getInputStreamDescription(&coded);
    json told = {{"durationMs", medium.durationMs.value_or(0)},
                 {"live", medium.live.value_or(false)},
                 {"title", medium.title.value_or("")}};
    if (coded.video.isPresent()) {
        told["video"] = {{"codec", coded.video.getCodec()},
                         {"width", coded.video.getWidth()},
                         {"height", coded.video.getHeight()}};
    }
    if (coded.audio.isPresent()) {
        told["audio"] = {{"codec", coded.audio.getCodec()},
                         {"sampleRate", coded.audio.getSampleRate()},
                         {"channels", coded.audio.getChannels()}};
    }
    return told;
}

/// The number of frames of each kind from here to the end.
json play(InputPlayer& player)
{
    int pictures = 0;
    int audioFrames = 0;
    int notices = 0;
    for (PlayedFrame frame; player.read(frame);) {
        pictures += frame.isVideo() ? 1 : 0;
        audioFrames += frame.isAudio() ? 1 : 0;
        notices += frame.type == PacketType::Notice ? 1 : 0;
    }
    return {{"pictures", pictures}, {"audioFrames", audioFrames}, {"notices", notices}};
}

json playWhole(const std::string& path)
{
    InputPlayer player;
    if (!player.open(path)) {
        return {{"opens", false}, {"reason", player.error().message.value_or("")}};
    }
    json told = describe(player);
    told["opens"] = true;
    told["frames"] = play(player);
    for (const unsigned long long part : {2ULL, 0ULL}) {
        const unsigned long long durationMs = told["durationMs"];
        player.input().setTimePosition(part == 0 ? 0 : durationMs / part);
        told["afterSeek"].push_back(play(player));
    }
    return told;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        return 2;
    }
    if (argc > 2) {
        limitMemory(argv[2]);
    }
    // The library logs to standard output; what is told goes to where that led before.
    const int told = dup(STDOUT_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    try {
        const std::string text = playWhole(argv[1]).dump() + "\n";
        return write(told, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
