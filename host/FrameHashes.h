#pragma once

#include "host/FrameSink.h"

#include <cstdio>
#include <memory>

struct AVMD5;

namespace zel::host {

/// Prints one line a frame: kind, time stamp in microseconds, size in bytes, MD5 of the bytes.
/// A frame without a time stamp has "-" in its place.
class FrameHashes : public FrameSink
{
public:
    explicit FrameHashes(FILE* out);
    ~FrameHashes() override;

    void describe(const OutputStreamRecord&) override {}
    void take(const Frame& frame) override;
    void finish() override {}

private:
    FILE* m_out;    ///< not owned
    AVMD5* m_state; ///< owned
};

/// "video", "audio", "notice", "metadata" ...
const char* kindName(streamer::PacketType::Enum type);

} // namespace zel::host
