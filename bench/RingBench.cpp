#include "buffers/CircularMemoryHistoryBuffer.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace {

/// As the network clients have it.
constexpr unsigned long long ringBytes = 10ULL << 20U;
constexpr unsigned long long historyBytes = 2ULL << 20U;
/// Bytes of one iteration, so many that the ring is passed several times.
constexpr unsigned long long streamBytes = 64ULL << 20U;

/// Bytes a second through the ring, from a thread that writes to one that reads.
/// Argument: the size of each write and of each read.
void fromThreadToThread(benchmark::State& state)
{
    const auto block = static_cast<unsigned long long>(state.range(0));
    const std::unique_ptr<CircularMemoryHistoryBuffer> ring(
        CircularMemoryHistoryBuffer::create(ringBytes, historyBytes));
    CircularHistoryBufferReader* reader = ring->getReader();
    const std::vector<unsigned char> source(block, 0x47);
    std::vector<unsigned char> target(block);
    for ([[maybe_unused]] auto _ : state) {
        std::thread writer([&] {
            for (unsigned long long done = 0; done < streamBytes; done += block) {
                ring->write(source.data(), block, true);
            }
        });
        for (unsigned long long done = 0; done < streamBytes;) {
            unsigned long long size = block;
            reader->read(target.data(), size, block, block, true, 0);
            done += size;
        }
        writer.join();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * streamBytes));
}

/// The limit: each byte is copied into a ring and out of it, one copy at a time, by one thread that
/// asks nobody.
void copyTwice(benchmark::State& state)
{
    const auto block = static_cast<std::size_t>(state.range(0));
    std::vector<unsigned char> ring(ringBytes);
    const std::vector<unsigned char> source(block, 0x47);
    std::vector<unsigned char> target(block);
    // As far behind as a reader is that keeps up.
    std::size_t in = 0;
    for ([[maybe_unused]] auto _ : state) {
        for (unsigned long long done = 0; done < streamBytes; done += block) {
            std::memcpy(ring.data() + in, source.data(), block);
            benchmark::ClobberMemory();
            std::memcpy(target.data(), ring.data() + in, block);
            benchmark::ClobberMemory();
            in = (in + block) % ringBytes;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * streamBytes));
}

void blockSizes(benchmark::internal::Benchmark* bench)
{
    bench->ArgName("block");
    for (const long kibibytes : {1, 4, 16, 64, 256}) {
        bench->Arg(kibibytes * 1024);
    }
    bench->MeasureProcessCPUTime()->UseRealTime();
}

} // namespace

BENCHMARK(fromThreadToThread)->Name("CircularHistoryBuffer/threads")->Apply(blockSizes);
BENCHMARK(copyTwice)->Name("CircularHistoryBuffer/copyTwice")->Apply(blockSizes);
