#pragma once

extern "C" {
#include <libavformat/avio.h>
}

namespace zel::av {

/// Lets a demuxer read from two plain callbacks instead of a file.
///
/// Job: owns the AVIOContext and its buffer, and translates between what a byte source answers and
/// what libavformat expects. Owner: whoever opens the medium; it must outlive the demuxer.
/// Threads: those of the demuxer.
class ByteSourceIO
{
public:
    /// Up to `size` bytes into `buffer`; 0 at the end of what is there, negative for an error.
    using Read = int (*)(void* opaque, unsigned char* buffer, int size);
    /// libavformat's seek: offset or size, or a negative error.
    using Seek = long long (*)(void* opaque, long long offset, int whence);

    /// @param bufferSize  bytes of the I/O buffer, and the most that one read asks for
    ByteSourceIO(Read read, Seek seek, void* opaque, int bufferSize);
    ~ByteSourceIO();
    ByteSourceIO(const ByteSourceIO&) = delete;
    ByteSourceIO& operator=(const ByteSourceIO&) = delete;

    /// Null when memory ran out.
    AVIOContext* context() const { return m_context; }

private:
    static int _read(void* self, unsigned char* buffer, int size);
    static int64_t _seek(void* self, int64_t offset, int whence);

    Read m_read;
    Seek m_seek;
    void* m_opaque;
    int m_bufferSize;
    AVIOContext* m_context = nullptr; // owned
};

} // namespace zel::av
