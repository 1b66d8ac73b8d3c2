#pragma once

#include "plugin/PluginTypes.h"

namespace zel::streamer {

/// One unit of media between stages: an audio or video frame, container bytes or metadata.
///
/// Counted by reference. A packet starts with one reference that its maker holds; `write` and the
/// queues pass that reference on, and whoever holds it last releases it. Nobody deletes a packet.
/// The count is plain: one packet has one holder at a time, and a queue's lock orders the
/// hand-over.
class SamplePacket
{
public:
    /// Marks a packet without a time stamp.
    static constexpr unsigned long long NoTimestamp = 0x8000000000000000ULL;

    virtual ~SamplePacket() = default;

    /// Gives a reference back; the last one frees the packet.
    virtual void release() = 0;
    virtual void retain() = 0;
    /// Microseconds, or NoTimestamp.
    virtual unsigned long long getTimestamp() const = 0;
    virtual void setTimestamp(const unsigned long long& timestampUs) = 0;
    virtual unsigned long long getDuration() const = 0; ///< microseconds
    virtual void setDuration(unsigned long long& durationUs) = 0;
    virtual PacketType::Enum getType() const = 0;
    /// The packet's bytes, owned by the packet; null when it is empty.
    virtual unsigned char* getBuffer() const = 0;
    virtual int getLength() const = 0; ///< bytes
    virtual bool isKeyFrame() const = 0;
};

} // namespace zel::streamer
