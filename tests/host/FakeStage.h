#pragma once

#include "plugin/StreamInterfaces.h"

/// @return the encoder stage of the fake library; the caller deletes it
zel::streamer::TranscoderPluginInterface* makeFakeStage();
