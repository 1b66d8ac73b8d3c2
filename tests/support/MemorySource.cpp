#include "tests/support/MemorySource.h"

extern "C" {
#include <libavformat/avio.h>
}

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace zel::test {

int MemorySource::open(FFMpegDecoderCore& core, const std::string& format, const std::string& url)
{
    return core.initWithTransportStream(url.c_str(), format.c_str(), &read, &seek, this);
}

int MemorySource::read(void* self, unsigned char* buffer, int size)
{
    auto& source = *static_cast<MemorySource*>(self);
    source.requests.push_back(size);
    if (source.position >= source.errorAt) {
        return source.readError;
    }
    const std::size_t last = std::min({source.bytes.size(), source.end, source.errorAt});
    const std::size_t left = source.position < last ? last - source.position : 0;
    const std::size_t count = std::min(left, static_cast<std::size_t>(size));
    std::memcpy(buffer, source.bytes.data() + source.position, count);
    source.position += count;
    return static_cast<int>(count);
}

long long MemorySource::seek(void* self, long long offset, int whence)
{
    auto& source = *static_cast<MemorySource*>(self);
    const int way = whence & ~AVSEEK_FORCE;
    const auto size = static_cast<long long>(source.bytes.size());
    if (way == AVSEEK_SIZE) {
        ++source.sizeQuestions;
        if (source.onSizeQuestion) {
            source.onSizeQuestion();
        }
        return source.canSeek && source.canTellSize ? size : -ENOSYS;
    }
    // How the library asks for the size when the question itself fails.
    const bool isSizeQuestion = way == SEEK_END && offset == -1;
    if (!isSizeQuestion) {
        source.seeks.emplace_back(offset, way);
    }
    if (!source.canSeek || (isSizeQuestion && !source.canTellSize)) {
        return -ENOSYS;
    }
    const long long base = way == SEEK_CUR   ? static_cast<long long>(source.position)
                           : way == SEEK_END ? size
                                             : 0;
    if (base + offset < 0 || base + offset > size) {
        return -EINVAL;
    }
    source.position = static_cast<std::size_t>(base + offset);
    return base + offset;
}

} // namespace zel::test
