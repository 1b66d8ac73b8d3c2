#pragma once

#include "plugin/StreamInterfaces.h"

/// The library's two exported functions. A host looks them up with dlsym.

extern "C" {

/// @return a new input that the caller deletes
__attribute__((visibility("default"))) zel::streamer::InputPluginInterface* InputPluginFactory();

/// @param name  "FFMpegDecoder", "FFMpegDemuxer", "FFMpegEncoder" or "FFMpegAudioResampler",
///              letter for letter; null counts as empty
/// @return a new stage that the caller deletes; null for any other name, and for a stage that this
///         version of the library does not have
__attribute__((visibility("default"))) zel::streamer::TranscoderPluginInterface*
TranscoderPluginFactory(const char* name);
}
