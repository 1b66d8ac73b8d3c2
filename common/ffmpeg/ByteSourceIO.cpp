#include "common/ffmpeg/ByteSourceIO.h"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cerrno>
#include <cstdio>

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
    if (whence == SEEK_CUR && io->m_context->read_seek != nullptr) {
        return io->m_start; // the library's question behind a seek by time, which needs no request
    }
    if (whence != SEEK_SET) {
        return io->m_seek(io->m_opaque, offset, whence);
    }
    const long long position = io->m_seek(io->m_opaque, offset - io->m_shift, whence);
    return position < 0 ? position : position + io->m_shift;
}

void ByteSourceIO::seekByTime(int64_t start)
{
    m_start = start;
    m_context->read_seek = m_seek != nullptr ? &_seekTime : nullptr;
}

int64_t ByteSourceIO::_seekTime(void* self, int /*stream*/, int64_t /*timestamp*/, int /*flags*/)
{
    auto* io = static_cast<ByteSourceIO*>(self);
    const long long position = io->m_seek(io->m_opaque, io->m_aim, SEEK_SET);
    if (position < 0) {
        return AVERROR(EIO);
    }
    io->m_shift = io->m_start - position;
    io->m_context->eof_reached = 0;
    io->m_context->error = 0;
    return 0;
}

} // namespace zel::av
