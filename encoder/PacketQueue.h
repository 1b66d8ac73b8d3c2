#pragma once

#include "common/utils/Locks.h"
#include "plugin/SamplePacket.h"

#include <atomic>

namespace zel::streamer {

/// The bounded, blocking queue of sample packets between two stages, first in, first out.
///
///     push() ──> [ packets, at most maxPackets or about maxBytes ] ──> getNextPacket()
///
/// It takes over the reference of what is pushed, and a reader owns what it takes. Each stage owns
/// its queues. Any number of threads may push, take, stop, reset and flush.
///
/// A queue is running or stopped; a new one is running. Locks are taken in this order: m_pushLock,
/// m_readLock, the mutexes of the two events, that of the container.
class PacketQueue
{
public:
    /// @param maxBytes  limit in bytes; at 0 the limit is maxPackets
    PacketQueue(unsigned int maxPackets, unsigned int maxBytes);
    /// Stops, and releases what it holds. No thread may be inside the queue any more.
    virtual ~PacketQueue();
    PacketQueue(const PacketQueue&) = delete;
    PacketQueue& operator=(const PacketQueue&) = delete;

    /// Packets held.
    virtual unsigned int getPacketSize();

    /// Appends a packet. Waits while the queue is full. The byte limit is looked at before the
    /// packet's own length counts, so one packet may go over it.
    /// A stopped queue keeps what it has room for; what it has no room for is released, as if a
    /// reader had consumed it.
    /// @param packet  null does nothing
    /// @return 1 when the packet's reference was taken over, 0 for null
    int push(SamplePacket* packet);

    /// Takes the first packet.
    /// @param wait  sleep until there is a packet or the queue is stopped
    /// @return a packet that the caller releases; null when stopped or empty. One who waited may
    ///         also get null because another reader was faster, or from a flush.
    SamplePacket* getNextPacket(bool wait);

    /// Ends all waits: readers get null, pushers leave. Packets stay. Returns when the pusher that
    /// was inside has left; must not be called with m_readLock held, which that pusher may want.
    void stop();
    /// Makes a stopped queue run again, with what it holds.
    void reset();
    /// Releases all packets; pushers that were waiting leave as by stop(). A running queue keeps
    /// running, unless somebody else stops it meanwhile.
    void flush();

    unsigned long long getByteSize();
    /// A new limit counts from the next look at the room on.
    unsigned int getMaxPacketSize() const { return m_maxPacketSize; }
    void setMaxPacketSize(unsigned int maxPackets) { m_maxPacketSize = maxPackets; }
    unsigned int getMaxByteSize() const { return m_maxByteSize; }
    void setMaxByteSize(unsigned int maxBytes) { m_maxByteSize = maxBytes; }

protected:
    virtual void _push(SamplePacket* packet) ZEL_REQUIRES(m_readLock);
    /// @return null when empty
    virtual SamplePacket* _pop() ZEL_REQUIRES(m_readLock);

    /// What a packet counts in m_byteSize.
    static unsigned long long bytesOf(const SamplePacket& packet);

private:
    bool hasRoom();
    /// @return whether readers may be asleep
    bool insert(SamplePacket* packet);
    void halt();

protected:
    PCondMutex m_stopped;            ///< pushers wait on it for the next look at the room
    std::atomic<bool> m_stoppedFlag; ///< of m_stopped; written under it
    std::atomic<unsigned int> m_maxPacketSize;
    std::atomic<unsigned int> m_maxByteSize; ///< 0: m_maxPacketSize applies

    /// Changed under the mutex of the container, which is not the same in all classes.
    std::atomic<unsigned long long> m_byteSize;
    PQueueCondMutex<SamplePacket*> m_packets; ///< one reference each
    PMutex m_readLock{PMutex::Recursive};     ///< taking, flush, reset and the insertion itself
    PMutex m_pushLock{PMutex::Recursive};     ///< one pusher at a time, its wait for room included
    PCondMutex m_hasData;                     ///< readers wait on it
    bool m_hasDataFlag; ///< of m_hasData; written with m_readLock held as well
    unsigned int m_stopCalls ZEL_GUARDED_BY(m_stopped); ///< tells flush of a stop beside it
};

/// The same queue, but it gives packets in the order of their time stamps, and those of equal
/// stamps in the order of arrival. The packet of type None, the end of the stream, comes last.
///
/// Its owner flushes it before deleting it.
class InterleavedPacketQueue : public PacketQueue
{
public:
    using PacketQueue::PacketQueue;
    /// Kept: drops the map without releasing its packets. The owner's flush is what ends them,
    /// while the queue is still whole.
    ~InterleavedPacketQueue() override = default;

    unsigned int getPacketSize() override;

protected:
    void _push(SamplePacket* packet) override ZEL_REQUIRES(m_readLock);
    SamplePacket* _pop() override ZEL_REQUIRES(m_readLock);

private:
    unsigned long long keyBehindEqualTimes(unsigned long long timestamp) const
        ZEL_REQUIRES(m_packetMap);

    /// By time stamp, raised until it is free; one reference each.
    PMapCondMutex<unsigned long long, SamplePacket*> m_packetMap;
};

} // namespace zel::streamer
