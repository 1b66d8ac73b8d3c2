#include "encoder/PacketQueue.h"

#include "common/utils/Clock.h"

#include <algorithm>

namespace zel::streamer {

namespace {

/// How often a pusher looks at a full queue again; no reader signals room.
constexpr int roomPollMs = 5;

} // namespace

PacketQueue::PacketQueue(unsigned int maxPackets, unsigned int maxBytes)
    : m_stoppedFlag(false), m_maxPacketSize(maxPackets), m_maxByteSize(maxBytes), m_byteSize(0),
      m_hasDataFlag(false), m_stopCalls(0)
{
}

PacketQueue::~PacketQueue()
{
    stop();
    // As flush does, but without virtual calls: a derived class and its container are gone by now.
    PMutexGuard guard(m_packets);
    for (SamplePacket* packet : m_packets.items) {
        packet->release();
    }
}

unsigned int PacketQueue::getPacketSize()
{
    PMutexGuard guard(m_packets);
    return static_cast<unsigned int>(m_packets.items.size());
}

unsigned long long PacketQueue::getByteSize()
{
    PMutexGuard guard(m_packets);
    return m_byteSize;
}

bool PacketQueue::hasRoom()
{
    const unsigned int maxBytes = m_maxByteSize;
    return maxBytes != 0 ? getByteSize() < maxBytes : getPacketSize() < m_maxPacketSize;
}

int PacketQueue::push(SamplePacket* packet)
{
    if (packet == nullptr) {
        return 0;
    }
    PMutexGuard pushGuard(m_pushLock);
    while (!hasRoom()) {
        if (m_stopped.timedWait(m_stoppedFlag, absoluteTimeAfter(roomPollMs)) == 0) {
            packet->release();
            return 1;
        }
    }
    if (insert(packet)) {
        // With no lock held that a reader asks for as soon as it is awake.
        m_hasData.broadcast();
    }
    return 1;
}

bool PacketQueue::insert(SamplePacket* packet)
{
    PMutexGuard readGuard(m_readLock);
    _push(packet);
    if (m_hasDataFlag) {
        return false;
    }
    PMutexGuard flagGuard(m_hasData);
    m_hasDataFlag = true;
    return true;
}

SamplePacket* PacketQueue::getNextPacket(bool wait)
{
    if (m_stoppedFlag) {
        return nullptr;
    }
    if (wait) {
        m_hasData.wait(m_hasDataFlag);
    }
    PMutexGuard guard(m_readLock);
    if (m_stoppedFlag || !m_hasDataFlag) {
        return nullptr;
    }
    SamplePacket* packet = _pop();
    if (getPacketSize() == 0) {
        m_hasData.reset(m_hasDataFlag);
    }
    return packet;
}

void PacketQueue::stop()
{
    {
        PMutexGuard guard(m_stopped);
        ++m_stopCalls;
    }
    halt();
}

void PacketQueue::halt()
{
    m_stopped.signal(m_stoppedFlag);
    {
        PMutexGuard guard(m_readLock);
        m_hasData.signal(m_hasDataFlag);
        m_packets.broadcast();
    }
    PMutexGuard pusherHasLeft(m_pushLock);
}

void PacketQueue::reset()
{
    PMutexGuard guard(m_readLock);
    m_stopped.reset(m_stoppedFlag);
    if (getPacketSize() == 0) {
        m_hasData.reset(m_hasDataFlag);
    }
}

void PacketQueue::flush()
{
    bool wasStopped = false;
    unsigned int stopCalls = 0;
    {
        PMutexGuard guard(m_stopped);
        wasStopped = m_stoppedFlag;
        stopCalls = m_stopCalls;
    }
    // Before m_readLock is taken: halt waits for the pusher, and the pusher may wait for that lock.
    if (!wasStopped) {
        halt();
    }
    PMutexGuard readGuard(m_readLock);
    while (getPacketSize() > 0) {
        if (SamplePacket* packet = _pop()) {
            packet->release();
        }
    }
    m_byteSize = 0;
    PMutexGuard stopGuard(m_stopped);
    // A stop that came in between is not undone.
    if (!wasStopped && stopCalls == m_stopCalls) {
        m_stoppedFlag = false;
    }
    if (!m_stoppedFlag) {
        m_hasData.reset(m_hasDataFlag);
    }
}

unsigned long long PacketQueue::bytesOf(const SamplePacket& packet)
{
    // A length below 0 would make the sum enormous and the queue full.
    return static_cast<unsigned long long>(std::max(packet.getLength(), 0));
}

void PacketQueue::_push(SamplePacket* packet)
{
    PMutexGuard guard(m_packets);
    m_packets.items.push_back(packet);
    m_byteSize += bytesOf(*packet);
}

SamplePacket* PacketQueue::_pop()
{
    PMutexGuard guard(m_packets);
    if (m_packets.items.empty()) {
        return nullptr;
    }
    SamplePacket* packet = m_packets.items.front();
    m_packets.items.pop_front();
    m_byteSize -= bytesOf(*packet);
    return packet;
}

unsigned int InterleavedPacketQueue::getPacketSize()
{
    PMutexGuard guard(m_packetMap);
    return static_cast<unsigned int>(m_packetMap.items.size());
}

void InterleavedPacketQueue::_push(SamplePacket* packet)
{
    if (packet->getType() == PacketType::None) {
        // As an unsigned key this is behind all real time stamps.
        packet->setTimestamp(SamplePacket::NoTimestamp);
    }
    PMutexGuard guard(m_packetMap);
    unsigned long long key = keyBehindEqualTimes(packet->getTimestamp());
    while (!m_packetMap.items.try_emplace(key, packet).second) {
        ++key;
    }
    m_byteSize += bytesOf(*packet);
}

/// The time stamp's own key may be free again, when a reader has taken its packet, while others of
/// the same time still wait behind it. Their keys have no gaps, for only the first is ever taken.
unsigned long long InterleavedPacketQueue::keyBehindEqualTimes(unsigned long long timestamp) const
{
    unsigned long long key = timestamp;
    auto at = m_packetMap.items.lower_bound(timestamp);
    const auto end = m_packetMap.items.end();
    for (unsigned long long next = at != end ? at->first : 0; at != end && at->first == next;
         ++at, ++next) {
        if (at->second->getTimestamp() == timestamp) {
            key = next + 1;
        }
    }
    return key;
}

SamplePacket* InterleavedPacketQueue::_pop()
{
    PMutexGuard guard(m_packetMap);
    const auto first = m_packetMap.items.begin();
    if (first == m_packetMap.items.end()) {
        return nullptr;
    }
    SamplePacket* packet = first->second;
    m_packetMap.items.erase(first);
    m_byteSize -= bytesOf(*packet);
    return packet;
}

} // namespace zel::streamer
