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

    /// For a source that finds media times by itself, and goes on with a whole packet there: seeks
    /// by time of the demuxer become seeks of the source, and the demuxer then believes to be at
    /// the start of its packets. Wherever it believed to be further on, it would look for the end
    /// of the medium, and of the packet, at wrong places.
    /// @param start  where the packets start
    void seekByTime(int64_t start);
    /// @param offset  what the source is told at the next seek by time
    void aimAt(int64_t offset) { m_aim = offset; }

private:
    static int _read(void* self, unsigned char* buffer, int size);
    static int64_t _seek(void* self, int64_t offset, int whence);
    static int64_t _seekTime(void* self, int stream, int64_t timestamp, int flags);

    Read m_read;
    Seek m_seek;
    void* m_opaque;
    int m_bufferSize;
    AVIOContext* m_context = nullptr; // owned
    int64_t m_start = 0;
    int64_t m_aim = 0;
    int64_t m_shift = 0; // of the demuxer's positions against the source's
};

} // namespace zel::av
