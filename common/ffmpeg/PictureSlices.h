#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <span>
#include <vector>

/// Encoded pictures in pieces that fit a network packet each.
///
/// An encoder whose private option "ps" is set begins a new unit (video packet, group of blocks,
/// slice) after about that many bytes, with a mark from which a decoder can set in. Not for every
/// codec: what the others make with this option no decoder reads.

namespace zel::av {

/// The value of "ps" for pieces of payloadSize bytes; 0 when the codec must not get it. Encoders
/// go some bytes beyond the value, hence the distance of 128.
int slicePayloadOption(AVCodecID codec, int payloadSize);

/// Cuts an encoded picture at the codec's marks into pieces of at most payloadSize bytes, as few
/// as possible. A unit longer than that stays whole, and so does the picture of a codec without
/// marks. The pieces are views of the picture and make it up, one behind the other.
std::vector<std::span<const unsigned char>>
slicePicture(AVCodecID codec, std::span<const unsigned char> picture, int payloadSize);

} // namespace zel::av
