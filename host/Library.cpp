#include "host/Library.h"

#include "host/HostError.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

namespace zel::host {

namespace {

constexpr const char* FileName = "libFFMpegPlugins.so";

/// The library's place relative to the folder of the executable, in a build and when installed.
std::string besideExecutable()
{
    std::error_code error;
    const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
    for (const char* folder : {"../lib", "../" ZEL_INSTALL_LIBDIR}) {
        const auto path = (executable.parent_path() / folder / FileName).lexically_normal();
        if (access(path.c_str(), R_OK) == 0) {
            return path;
        }
    }
    return FileName; // the loader's own search path
}

std::string findLibrary(const std::string& path)
{
    if (!path.empty()) {
        return path;
    }
    const char* fromEnvironment = std::getenv("ZEL_PLUGIN_LIBRARY");
    return fromEnvironment != nullptr && *fromEnvironment != '\0' ? fromEnvironment
                                                                  : besideExecutable();
}

} // namespace

Library::Library(const std::string& path)
{
    const std::string file = findLibrary(path);
    // Lazily: the library brings a hundred others along, and few of their functions are called.
    void* handle = dlopen(file.c_str(), RTLD_LAZY | RTLD_LOCAL);
    if (handle == nullptr) {
        throw HostError(dlerror());
    }
    m_inputFactory = reinterpret_cast<InputFactory>(dlsym(handle, "InputPluginFactory"));
    m_stageFactory = reinterpret_cast<StageFactory>(dlsym(handle, "TranscoderPluginFactory"));
    if (m_inputFactory == nullptr || m_stageFactory == nullptr) {
        throw HostError(file + ": not a plug-in library, a factory is missing");
    }
}

std::unique_ptr<streamer::InputPluginInterface> Library::makeInput() const
{
    return std::unique_ptr<streamer::InputPluginInterface>(m_inputFactory());
}

std::unique_ptr<streamer::TranscoderPluginInterface> Library::makeStage(const char* name) const
{
    return std::unique_ptr<streamer::TranscoderPluginInterface>(m_stageFactory(name));
}

} // namespace zel::host
