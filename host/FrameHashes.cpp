#include "host/FrameHashes.h"

extern "C" {
#include <libavutil/md5.h>
#include <libavutil/mem.h>
}

#include <new>

namespace zel::host {

namespace {

constexpr size_t DigestSize = 16;

} // namespace

FrameHashes::FrameHashes(FILE* out) : m_out(out), m_state(av_md5_alloc())
{
    if (m_state == nullptr) {
        throw std::bad_alloc();
    }
}

FrameHashes::~FrameHashes()
{
    av_free(m_state);
}

void FrameHashes::take(const Frame& frame)
{
    unsigned char digest[DigestSize];
    av_md5_init(m_state);
    av_md5_update(m_state, frame.data, frame.data == nullptr ? 0 : frame.size);
    av_md5_final(m_state, digest);
    char text[2 * DigestSize + 1];
    for (size_t i = 0; i < DigestSize; ++i) {
        std::snprintf(text + 2 * i, 3, "%02x", digest[i]);
    }
    if (frame.hasTimestamp()) {
        std::fprintf(m_out, "%s, %lld, %u, %s\n", kindName(frame.type),
                     static_cast<long long>(frame.timestampUs), frame.size, text);
    } else {
        std::fprintf(m_out, "%s, -, %u, %s\n", kindName(frame.type), frame.size, text);
    }
}

const char* kindName(streamer::PacketType::Enum type)
{
    switch (type) {
    case streamer::PacketType::Audio:
        return "audio";
    case streamer::PacketType::Video:
        return "video";
    case streamer::PacketType::None:
        return "none";
    case streamer::PacketType::Multiplexed:
        return "multiplexed";
    case streamer::PacketType::Notice:
        return "notice";
    case streamer::PacketType::Metadata:
        return "metadata";
    }
    return "unknown";
}

} // namespace zel::host
