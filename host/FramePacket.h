#pragma once

#include "host/Input.h"
#include "plugin/SamplePacket.h"

#include <utility>

namespace zel::host {

/// A frame of an input on its way to a stage, without a copy: whoever holds the packet's last
/// reference gives the frame back to the input. The input outlives its packets.
class FramePacket : public streamer::SamplePacket
{
public:
    /// Takes the frame over.
    FramePacket(Input& input, Frame& frame) : m_input(input), m_frame(std::exchange(frame, Frame()))
    {
    }
    FramePacket(const FramePacket&) = delete;
    FramePacket& operator=(const FramePacket&) = delete;
    ~FramePacket() override { m_input.release(m_frame); }

    void release() override
    {
        if (--m_references == 0) {
            delete this;
        }
    }
    void retain() override { ++m_references; }
    unsigned long long getTimestamp() const override { return m_frame.timestampUs; }
    void setTimestamp(const unsigned long long& timestampUs) override
    {
        m_frame.timestampUs = timestampUs;
    }
    unsigned long long getDuration() const override { return m_frame.durationUs; }
    void setDuration(unsigned long long& durationUs) override { m_frame.durationUs = durationUs; }
    streamer::PacketType::Enum getType() const override { return m_frame.type; }
    unsigned char* getBuffer() const override { return m_frame.data; }
    int getLength() const override { return static_cast<int>(m_frame.size); }
    bool isKeyFrame() const override { return m_frame.keyFrame; }

private:
    Input& m_input;
    Frame m_frame; ///< owned
    int m_references = 1;
};

} // namespace zel::host
