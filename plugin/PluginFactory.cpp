#include "plugin/PluginFactory.h"

#include <string_view>

// The input and the stages join one by one; a name whose stage is missing gets null.
#if __has_include("input/FFMpegInput.h")
#include "input/FFMpegInput.h"
#define ZEL_HAS_INPUT 1
#endif

zel::streamer::InputPluginInterface* InputPluginFactory()
{
#ifdef ZEL_HAS_INPUT
    return new FFMpegInput;
#else
    return nullptr;
#endif
}

zel::streamer::TranscoderPluginInterface* TranscoderPluginFactory(const char* name)
{
    const std::string_view stage = name ? name : "";
    // FFMpegDecoder, FFMpegDemuxer, FFMpegEncoder and FFMpegAudioResampler are compared here, in
    // this order, as they come to stand.
    (void)stage;
    return nullptr;
}
