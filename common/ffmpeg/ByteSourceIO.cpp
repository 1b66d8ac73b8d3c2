#include "common/ffmpeg/ByteSourceIO.h"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cerrno>

namespace zel::av {

ByteSourceIO::ByteSourceIO(Read read, Seek seek, void* opaque, int bufferSize)
    : m_read(read), m_seek(seek), m_opaque(opaque), m_bufferSize(bufferSize)
{
    // The library frees and replaces this buffer as it likes, so it cannot be a member.
    auto* buffer = static_cast<unsigned char*>(av_malloc(static_cast<std::size_t>(bufferSize)));
    if (buffer == nullptr) {
        return;
    }
    m_context = avio_alloc_context(buffer, bufferSize, 0, this, &_read, nullptr,
                                   seek != nullptr ? &_seek : nullptr);
    if (m_context == nullptr) {
        av_free(buffer);
        return;
    }
    // Asked once: with a source that cannot tell its size, a demuxer that believes in seeks
    // looks for its tables behind the data and finds nothing.
    if (seek == nullptr || seek(opaque, 0, AVSEEK_SIZE) < 0) {
        m_context->seekable = 0;
    }
}

ByteSourceIO::~ByteSourceIO()
{
    if (m_context != nullptr) {
        av_freep(&m_context->buffer);
        avio_context_free(&m_context);
    }
}

int ByteSourceIO::_read(void* self, unsigned char* buffer, int size)
{
    const auto* io = static_cast<ByteSourceIO*>(self);
    const int count = io->m_read(io->m_opaque, buffer, std::min(size, io->m_bufferSize));
    // A result of 0 would make several demuxers spin for ever.
    return count == 0 ? AVERROR_EOF : count;
}

int64_t ByteSourceIO::_seek(void* self, int64_t offset, int whence)
{
    const auto* io = static_cast<ByteSourceIO*>(self);
    return io->m_seek(io->m_opaque, offset, whence);
}

} // namespace zel::av
