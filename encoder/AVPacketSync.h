#pragma once

#include "encoder/PacketQueue.h"

namespace zel::streamer {

/// Merges encoded audio and video, which arrive in separate calls, by time stamp.
///
/// A packet leaves only while both streams have one waiting, for a later packet of the other
/// stream could still belong in front of it. Should one stream fall silent, the other passes
/// nevertheless once more packets of it wait than its limit.
///
/// A muxer owns it and pops after every push until nothing comes, so it never fills up: push
/// waiting for room would hold m_lock. Any thread. Nothing here waits otherwise.
class AVPacketSync : public InterleavedPacketQueue
{
public:
    /// The limits: how many packets of a stream are held while the other has none.
    AVPacketSync(int maxVideoPackets, int maxAudioPackets);

    /// Counts the packet and takes over its reference.
    /// Hides PacketQueue::push, which is not virtual: through a pointer to the base the packet
    /// would go in without being counted. The same goes for reset.
    /// @return 1 when the packet's reference was taken over, 0 for null
    int push(SamplePacket* packet);
    /// @return the next packet, which the caller releases; null while the streams have to wait
    // NOLINTNEXTLINE(bugprone-virtual-near-miss): it stands above _pop, on purpose not in its place
    SamplePacket* pop();
    /// For the end of the stream: as pop(), but takes what is left of one stream as well.
    /// @return null when nothing is left
    SamplePacket* flushOne();
    /// Releases everything. It is no PacketQueue::reset: a stopped queue stays stopped.
    void reset();

private:
    void warnOfLimits(unsigned int nowMs) ZEL_REQUIRES(m_lock);
    SamplePacket* takeNext() ZEL_REQUIRES(m_lock);
    void count(const SamplePacket& packet, int step) ZEL_REQUIRES(m_lock);

    PMutex m_lock{PMutex::Recursive};             ///< all operations; before the locks of the base
    int m_numAudioPackets ZEL_GUARDED_BY(m_lock); ///< held now
    int m_numVideoPackets ZEL_GUARDED_BY(m_lock); ///< held now
    const int m_maxVideoPackets;
    const int m_maxAudioPackets;
    unsigned int m_lastWarningTime ZEL_GUARDED_BY(m_lock); ///< milliseconds, wraps
};

} // namespace zel::streamer
