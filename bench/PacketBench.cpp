#include "plugin/BitTools.h"
#include "plugin/MetadataPacket.h"
#include "plugin/RTPSamplePackets.h"
#include "plugin/SimpleSamplePacket.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <vector>

using namespace zel::streamer;

namespace {

std::vector<unsigned char> frameOf(const benchmark::State& state)
{
    return std::vector<unsigned char>(static_cast<std::size_t>(state.range(0)), 0x5A);
}

/// What copying one frame into a packet costs.
template <class Packet>
void setAndCopy(benchmark::State& state)
{
    const std::vector<unsigned char> frame = frameOf(state);
    auto* packet = new Packet;
    for ([[maybe_unused]] auto _ : state) {
        packet->setAndCopy(PacketType::Audio, frame.data(), static_cast<int>(frame.size()), 0, 0,
                           false);
        benchmark::DoNotOptimize(packet->getBuffer());
    }
    packet->release();
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

/// A packet's whole life, without a copy of its bytes.
void makeSetRelease(benchmark::State& state)
{
    const auto size = static_cast<std::size_t>(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        auto* packet = new SimpleSamplePacket;
        packet->set(PacketType::Video, new unsigned char[size], static_cast<int>(size), 0, 0, true);
        benchmark::DoNotOptimize(packet->getBuffer());
        packet->release();
    }
}

MetadataPacket::Table songTable()
{
    return {{"title", "A title of usual length"},
            {"artist", "Some Artist"},
            {"album", "Some Album"},
            {"thumbnailURL", "http://example.org/pictures/0123456789.png"}};
}

void encodeTable(benchmark::State& state)
{
    const MetadataPacket::Table table = songTable();
    for ([[maybe_unused]] auto _ : state) {
        auto* packet = new MetadataPacket(table);
        benchmark::DoNotOptimize(packet->getBuffer());
        packet->release();
    }
}

void parseTable(benchmark::State& state)
{
    auto* encoded = new MetadataPacket(songTable());
    const auto* bytes = reinterpret_cast<const char*>(encoded->getBuffer());
    const auto size = static_cast<unsigned int>(encoded->getLength());
    // The analyzer loses count of the one reference while the block is parsed.
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks)
    for ([[maybe_unused]] auto _ : state) {
        auto* packet = new MetadataPacket(bytes, size);
        auto length = packet->getLength();
        benchmark::DoNotOptimize(length);
        packet->release();
    }
    encoded->release();
}

/// Bytes that do not start at a byte, the slow case.
void writeShiftedBits(benchmark::State& state)
{
    const std::vector<unsigned char> source = frameOf(state);
    std::vector<unsigned char> target(source.size() + 1);
    for ([[maybe_unused]] auto _ : state) {
        writeBits(target.data(), source.data(), source.size() * 8, 3);
        benchmark::DoNotOptimize(target.data());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

} // namespace

BENCHMARK(setAndCopy<SimpleSamplePacket>)->Name("SimpleSamplePacket/copy")->Range(64, 1 << 20);
BENCHMARK(makeSetRelease)->Name("SimpleSamplePacket/life")->Arg(4096);
BENCHMARK(setAndCopy<AMRSamplePacket>)->Name("AMRSamplePacket/copy")->Arg(61);
BENCHMARK(setAndCopy<MP4AGENSamplePacket>)->Name("MP4AGENSamplePacket/copy")->Arg(400);
BENCHMARK(setAndCopy<MP4ALATMSamplePacket>)->Name("MP4ALATMSamplePacket/copy")->Arg(400);
BENCHMARK(encodeTable)->Name("MetadataPacket/encode");
BENCHMARK(parseTable)->Name("MetadataPacket/parse");
BENCHMARK(writeShiftedBits)->Name("writeBits/shifted")->Arg(400);
