#pragma once

#include "plugin/StreamInterfaces.h"

#include <memory>
#include <string>

namespace zel::host {

/// The plug-in library, loaded as any host loads it. Stays loaded for the process's life, since the
/// objects that its factories made may outlive this one.
class Library
{
public:
    /// @param path  the library; "" for $ZEL_PLUGIN_LIBRARY, or where the build or the installation
    ///              puts it beside the host
    /// @throws HostError when it cannot be loaded or lacks a factory
    explicit Library(const std::string& path);

    std::unique_ptr<streamer::InputPluginInterface> makeInput() const;
    /// @return null for a stage that the library does not have
    std::unique_ptr<streamer::TranscoderPluginInterface> makeStage(const char* name) const;

private:
    using InputFactory = streamer::InputPluginInterface* (*)();
    using StageFactory = streamer::TranscoderPluginInterface* (*)(const char*);

    InputFactory m_inputFactory;
    StageFactory m_stageFactory;
};

} // namespace zel::host
