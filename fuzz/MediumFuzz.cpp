#include "input/FFMpegDecoderCore.h"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace PacketType = zel::streamer::PacketType;
namespace DecodingMode = zel::streamer::DecodingMode;

namespace {

// The first byte of an input: which demuxer. make_medium_seeds has the same order.
constexpr const char* Formats[] = {"matroska", "mov", "mpegts", "mpeg", "avi", "flv",  "asf",
                                   "mp3",      "wav", "flac",   "ogg",  "aac", "mjpeg"};
// The second byte: how it is played.
constexpr unsigned int CannotSeek = 1;
constexpr unsigned int SkipsVideo = 2;
constexpr unsigned int SkipsAudio = 4;
constexpr unsigned int KeyFramesOnly = 8;
constexpr unsigned int DropsJumps = 16;
constexpr std::size_t HeaderBytes = 2;

// What a few bytes can promise is not what is to be found here.
constexpr std::size_t MaxAllocationBytes = 128u << 20;
constexpr unsigned long long MaxPixels = 1u << 20;
constexpr int MaxFrames = 300;

/// The input's bytes behind its header.
struct Source
{
    const std::uint8_t* bytes;
    long long size;
    bool canSeek;
    long long position = 0;

    static int read(void* self, unsigned char* buffer, int size)
    {
        auto* source = static_cast<Source*>(self);
        const long long count =
            std::min<long long>(size, std::max(0LL, source->size - source->position));
        std::memcpy(buffer, source->bytes + (count > 0 ? source->position : 0),
                    static_cast<std::size_t>(count));
        source->position += count;
        return static_cast<int>(count);
    }

    static long long seek(void* self, long long offset, int whence)
    {
        auto* source = static_cast<Source*>(self);
        if (!source->canSeek) {
            return -1;
        }
        switch (whence) {
        case AVSEEK_SIZE:
            return source->size;
        case SEEK_CUR:
            offset += source->position;
            break;
        case SEEK_END:
            offset += source->size;
            break;
        default:
            break;
        }
        if (offset < 0) {
            return AVERROR(EINVAL);
        }
        source->position = offset;
        return offset;
    }
};

/// Reads on, and touches the ends of what is delivered.
void play(FFMpegDecoderCore& core)
{
    PacketType::Enum type = PacketType::None;
    unsigned int size = 0;
    unsigned long long timestamp = 0;
    unsigned long long duration = 0;
    void* context = nullptr;
    bool keyFrame = false;
    for (int i = 0; i < MaxFrames; ++i) {
        unsigned char* data = nullptr;
        if (!core.decodeFromMedium(type, data, size, timestamp, duration, context, keyFrame)) {
            return;
        }
        if (data != nullptr && size > 0) {
            data[0] = static_cast<unsigned char>(data[size - 1] + 1);
        }
        delete[] data;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    av_max_alloc(MaxAllocationBytes);
    return 0;
}

/// Any bytes are opened, played and sought in, without harm.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < HeaderBytes) {
        return 0;
    }
    const char* format = Formats[data[0] % std::size(Formats)];
    const unsigned int way = data[1];
    Source source = {data + HeaderBytes, static_cast<long long>(size - HeaderBytes),
                     (way & CannotSeek) == 0};
    FFMpegDecoderCore core;
    core.m_dropTimestampJumps = (way & DropsJumps) != 0;
    if ((way & SkipsVideo) != 0) {
        core.skipVideoDecoding();
    }
    if ((way & SkipsAudio) != 0) {
        core.skipAudioDecoding();
    }
    if (core.initWithTransportStream("memory", format, &Source::read, &Source::seek, &source) < 0) {
        return 0;
    }
    if (static_cast<unsigned long long>(core.m_outWidth) * core.m_outHeight > MaxPixels) {
        return 0;
    }
    if ((way & KeyFramesOnly) != 0) {
        core.setVideoDecodingMode(DecodingMode::KeyFramesOnly);
    }
    play(core);
    core.setPosition(100);
    play(core);
    core.setPosition(0);
    play(core);
    return 0;
}
