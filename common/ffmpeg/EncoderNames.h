#pragma once

extern "C" {
#include <libavcodec/codec.h>
}

namespace zel::av {

/// The encoder of this name.
///
/// "libopencore_amrwb" stands for the library's wide-band AMR encoder, whose maker changed: hosts
/// and stored profiles keep the older name. "h264Empty" is a name without an encoder, which copied
/// H.264 goes by.
/// @return null when there is none, and for "h264Empty"
const AVCodec* findEncoder(const char* name);

} // namespace zel::av
