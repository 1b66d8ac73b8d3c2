#include "common/ffmpeg/EncoderNames.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <string_view>

namespace zel::av {

const AVCodec* findEncoder(const char* name)
{
    if (name == nullptr) {
        return nullptr;
    }
    const std::string_view wanted(name);
    if (wanted == "h264Empty") {
        return nullptr;
    }
    return avcodec_find_encoder_by_name(wanted == "libopencore_amrwb" ? "libvo_amrwbenc" : name);
}

} // namespace zel::av
