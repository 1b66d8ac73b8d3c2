#include "plugin/PluginFactory.h"

#include "encoder/FFMpegEncoder.h"
#include "input/FFMpegInput.h"

#include <string_view>

zel::streamer::InputPluginInterface* InputPluginFactory()
{
    return new FFMpegInput;
}

zel::streamer::TranscoderPluginInterface* TranscoderPluginFactory(const char* name)
{
    const std::string_view stage = name ? name : "";
    // FFMpegDecoder and FFMpegDemuxer are compared in front of it, FFMpegAudioResampler behind it,
    // as they come to stand.
    if (stage == "FFMpegEncoder") {
        return new FFMpegEncoder;
    }
    return nullptr;
}
