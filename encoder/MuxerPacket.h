#pragma once

#include "plugin/SimpleSamplePacket.h"

/// An encoded frame on its way through AVPacketSync to a muxer: besides the time stamp in
/// microseconds, by which it is merged, it carries the presentation time that the muxer writes.
///
/// Made on the heap; the muxer that writes it releases it.
class MuxerPacket : public zel::streamer::SimpleSamplePacket
{
public:
    /// Fills the packet with a padded copy.
    /// Kept: the place of the duration takes the presentation time, bit for bit, so that writers
    /// need no second call; the packet's own duration is 0, and no muxer asks for it.
    /// @param pts  in the stream's time base
    void setAndCopy(zel::streamer::PacketType::Enum type, const unsigned char* data, int length,
                    unsigned long long timestamp, unsigned long long pts, bool keyFrame) override
    {
        m_pts = static_cast<long long>(pts);
        SimpleSamplePacket::setAndCopy(type, data, length, timestamp, 0, keyFrame);
    }

    /// Presentation time in the stream's time base.
    long long getPts() const { return m_pts; }

private:
    long long m_pts = 0;
};
