#pragma once

#include "plugin/SimpleSamplePacket.h"

#include <atomic>
#include <functional>
#include <memory>

namespace zel::test {

struct ReleasePacket
{
    void operator()(zel::streamer::SamplePacket* packet) const { packet->release(); }
};

/// Holds one reference to a packet.
using PacketPtr = std::unique_ptr<zel::streamer::SamplePacket, ReleasePacket>;

/// A packet that a counter knows of as long as it lives.
class CountedPacket : public zel::streamer::SimpleSamplePacket
{
public:
    /// @param live  raised until the packet's end; outlives it
    explicit CountedPacket(std::atomic<int>& live) : m_live(live) { ++m_live; }
    ~CountedPacket() override
    {
        if (atTheEnd) {
            atTheEnd();
        }
        --m_live;
    }
    CountedPacket(const CountedPacket&) = delete;
    CountedPacket& operator=(const CountedPacket&) = delete;

    /// A packet with a length, but without bytes.
    static CountedPacket* make(std::atomic<int>& live, zel::streamer::PacketType::Enum type,
                               unsigned long long timestamp, int length = 1)
    {
        auto packet = std::make_unique<CountedPacket>(live);
        packet->setAndCopy(type, nullptr, length, timestamp, 0, false);
        return packet.release();
    }

    /// Called when the last reference goes, in the middle of whatever let go of it.
    std::function<void()> atTheEnd;

private:
    std::atomic<int>& m_live;
};

} // namespace zel::test
