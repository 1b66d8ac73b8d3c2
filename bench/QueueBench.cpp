#include "encoder/AVPacketSync.h"
#include "encoder/PacketQueue.h"
#include "plugin/SimpleSamplePacket.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <thread>
#include <vector>

using namespace zel::streamer;

namespace {

/// More than any benchmark puts in at once.
constexpr unsigned int plenty = 1U << 30U;

/// A packet that outlives every queue, so that the queue alone is measured.
class EternalPacket : public SimpleSamplePacket
{
public:
    EternalPacket(PacketType::Enum type, unsigned long long timestamp)
    {
        set(type, nullptr, 1, timestamp, 0, false);
    }
    void release() override {}
    void retain() override {}
};

/// Takes packets on a thread of its own until the queue is stopped.
class Reader
{
public:
    explicit Reader(PacketQueue& queue)
        : m_queue(queue), m_thread([this] {
              while (m_queue.getNextPacket(true) != nullptr) {
                  m_taken.fetch_add(1, std::memory_order_release);
              }
          })
    {
    }
    ~Reader()
    {
        m_queue.stop();
        m_thread.join();
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    void awaitTaken(long long count) const
    {
        while (m_taken.load(std::memory_order_acquire) < count) {
            std::this_thread::yield();
        }
    }

private:
    PacketQueue& m_queue;
    std::atomic<long long> m_taken{0};
    std::thread m_thread;
};

std::vector<std::unique_ptr<EternalPacket>> makePackets(int count)
{
    std::vector<std::unique_ptr<EternalPacket>> packets;
    packets.reserve(static_cast<std::size_t>(count));
    for (int number = 0; number < count; ++number) {
        const auto type = number % 2 == 0 ? PacketType::Audio : PacketType::Video;
        packets.push_back(
            std::make_unique<EternalPacket>(type, static_cast<unsigned long long>(number)));
    }
    return packets;
}

/// Packets a second from one thread to another. An iteration ends when all have arrived.
/// Argument: the queue's byte limit, which is never reached.
template <class Queue>
void fromThreadToThread(benchmark::State& state)
{
    const auto packets = makePackets(10000);
    Queue queue(plenty, static_cast<unsigned int>(state.range(0)));
    long long pushed = 0;
    {
        const Reader reader(queue);
        for ([[maybe_unused]] auto _ : state) {
            for (const auto& packet : packets) {
                queue.push(packet.get());
            }
            pushed += static_cast<long long>(packets.size());
            reader.awaitTaken(pushed);
        }
    }
    state.SetItemsProcessed(pushed);
}

/// What a packet costs that nobody else wants at the time: its push and its take.
template <class Queue>
void pushAndTake(benchmark::State& state)
{
    EternalPacket packet(PacketType::Video, 1);
    Queue queue(plenty, 0);
    for ([[maybe_unused]] auto _ : state) {
        queue.push(&packet);
        benchmark::DoNotOptimize(queue.getNextPacket(false));
    }
    state.SetItemsProcessed(state.iterations());
}

/// Both streams in turn, as a muxer does it: what may leave is popped after each push.
void mergeStreams(benchmark::State& state)
{
    const auto packets = makePackets(10000);
    AVPacketSync sync(50, 200);
    long long popped = 0;
    for ([[maybe_unused]] auto _ : state) {
        for (const auto& packet : packets) {
            sync.push(packet.get());
            while (sync.pop() != nullptr) {
                ++popped;
            }
        }
        while (sync.flushOne() != nullptr) {
            ++popped;
        }
    }
    state.SetItemsProcessed(popped);
}

} // namespace

BENCHMARK(fromThreadToThread<PacketQueue>)
    ->Name("PacketQueue/threads")
    ->ArgName("maxBytes")
    ->Arg(0)
    ->Arg(1000000)
    ->UseRealTime();
BENCHMARK(fromThreadToThread<InterleavedPacketQueue>)
    ->Name("InterleavedPacketQueue/threads")
    ->ArgName("maxBytes")
    ->Arg(0)
    ->Arg(1000000)
    ->UseRealTime();
BENCHMARK(pushAndTake<PacketQueue>)->Name("PacketQueue/pushAndTake");
BENCHMARK(pushAndTake<InterleavedPacketQueue>)->Name("InterleavedPacketQueue/pushAndTake");
BENCHMARK(mergeStreams)->Name("AVPacketSync/merge");
