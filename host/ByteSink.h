#pragma once

#include "host/OutputFile.h"
#include "host/StageSink.h"

namespace zel::host {

/// Writes the container bytes of a stage to a file as they come.
class ByteSink : public StageSink
{
public:
    /// @param file  outlives this object
    explicit ByteSink(OutputFile& file) : m_file(file) {}

    void take(const Frame& frame) override
    {
        if (frame.type == streamer::PacketType::Multiplexed) {
            m_file.write(frame.data, frame.size);
            m_bytes += frame.size;
        }
    }
    void jump() override {}
    void finish(unsigned long long) override { m_file.close(); }

    /// Written; after the reading thread has ended.
    unsigned long long bytes() const { return m_bytes; }

private:
    OutputFile& m_file;
    unsigned long long m_bytes = 0;
};

} // namespace zel::host
