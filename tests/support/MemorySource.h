#pragma once

#include "input/FFMpegDecoderCore.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace zel::test {

/// A byte source for initWithTransportStream: bytes in memory, with a record of what was asked.
///
///     MemorySource source(readFile(path));
///     source.open(core, "flv");
struct MemorySource
{
    explicit MemorySource(std::string content) : bytes(std::move(content)) {}

    std::string bytes;
    bool canSeek = true;     ///< false: every seek fails, the question for the size too
    bool canTellSize = true; ///< false: only the question for the size fails
    int readError = 0;       ///< a negative number to answer at `errorAt`
    std::size_t errorAt = SIZE_MAX;
    std::size_t end = SIZE_MAX; ///< reads answer 0 from here on, though there are more bytes
    std::size_t position = 0;
    std::vector<int> requests;                    ///< sizes of the reads
    std::vector<std::pair<long long, int>> seeks; ///< offset and whence, without size questions
    int sizeQuestions = 0;
    /// Called at each question for the size. A core asks the last time when the demuxer has found
    /// its streams and the core has not looked at them yet: here a test changes what it will see.
    std::function<void()> onSizeQuestion;

    /// Opens a core on this source.
    int open(FFMpegDecoderCore& core, const std::string& format, const std::string& url = "memory");

    static int read(void* self, unsigned char* buffer, int size);
    static long long seek(void* self, long long offset, int whence);
};

} // namespace zel::test
