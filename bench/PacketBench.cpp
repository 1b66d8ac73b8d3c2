#include "plugin/SimpleSamplePacket.h"

#include <benchmark/benchmark.h>

#include <vector>

using zel::streamer::SimpleSamplePacket;
namespace PacketType = zel::streamer::PacketType;

static void setAndCopy(benchmark::State& state)
{
    const std::vector<unsigned char> frame(static_cast<std::size_t>(state.range(0)), 0x5A);
    auto* packet = new SimpleSamplePacket;
    for ([[maybe_unused]] auto _ : state) {
        packet->setAndCopy(PacketType::Video, frame.data(), static_cast<int>(frame.size()), 0, 0,
                           false);
        benchmark::DoNotOptimize(packet->getBuffer());
    }
    packet->release();
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(setAndCopy)->Name("SimpleSamplePacket/setAndCopy")->Range(64, 1 << 20);
