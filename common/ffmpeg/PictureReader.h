#pragma once

#include "common/ffmpeg/PresentationOrder.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <cstdint>
#include <memory>

namespace zel::av {

/// Reads from a coded picture what it says about its place in the order of presentation.
///
/// Owner: CompositionOffsets. Threads: its caller's.
class PictureReader
{
public:
    /// What the order values of a codec are.
    struct Units
    {
        int64_t step;      ///< from one frame to the next; 0 where it varies from stream to stream
        int64_t timeBase;  ///< of a second; 0 where they are no times
        bool entersMiddle; ///< a stream that begins without a mark was entered in its middle
    };

    /// @return null for a codec that never reorders, or that it cannot read
    static std::unique_ptr<PictureReader> create(const AVCodecParameters& parameters);

    virtual ~PictureReader() = default;

    virtual Units units() const = 0;
    /// @return false when there is no picture in it
    virtual bool read(const unsigned char* data, int size, CodedPicture& picture) = 0;
    /// The next picture does not follow on the last one.
    virtual void reset() = 0;
};

} // namespace zel::av
