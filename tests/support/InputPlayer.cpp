#include "tests/support/InputPlayer.h"

#include "tests/support/MediaReference.h"

#include <dlfcn.h>

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace PacketType = zel::streamer::PacketType;
using zel::streamer::InputPluginInterface;

namespace zel::test {

std::unique_ptr<InputPluginInterface> makeLibraryInput()
{
    using Factory = InputPluginInterface* (*)();
    static const Factory s_factory = [] {
        void* library = dlopen(ZEL_PLUGIN_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            throw std::runtime_error(dlerror());
        }
        return reinterpret_cast<Factory>(dlsym(library, "InputPluginFactory"));
    }();
    return std::unique_ptr<InputPluginInterface>(s_factory());
}

InputPlayer::InputPlayer(std::unique_ptr<InputPluginInterface> input) : m_input(std::move(input)) {}

InputPlayer::InputPlayer() : InputPlayer(makeLibraryInput()) {}

InputPlayer::~InputPlayer()
{
    m_input->stop();
    m_input->close();
}

bool InputPlayer::open(const std::string& path, int decoderThreads)
{
    host::MediumRecord medium(path);
    if (decoderThreads > 0) {
        medium.setProperty("decoderThreads", std::to_string(decoderThreads).c_str());
    }
    if (!m_input->open(&medium, &m_error, nullptr)) {
        return false;
    }
    m_input->start();
    return true;
}

bool InputPlayer::read(PlayedFrame& frame)
{
    frame = PlayedFrame();
    unsigned char* data = nullptr;
    void* context = nullptr;
    if (!m_input->readFrame(frame.type, data, frame.size, frame.timestampUs, frame.durationUs,
                            context, frame.keyFrame)) {
        return false;
    }
    if (data != nullptr && frame.isVideo()) {
        frame.md5 = md5Of(data, frame.size);
    } else if (data != nullptr && frame.isAudio()) {
        frame.samples.assign(reinterpret_cast<const char*>(data), frame.size);
    }
    m_input->freeFrame(data, context);
    return true;
}

std::vector<PlayedFrame> InputPlayer::readAll()
{
    std::vector<PlayedFrame> frames;
    for (PlayedFrame frame; read(frame);) {
        frames.push_back(std::move(frame));
    }
    return frames;
}

bool InputPlayer::readPicture(PlayedFrame& frame)
{
    while (read(frame)) {
        if (frame.isVideo()) {
            return true;
        }
    }
    return false;
}

host::MediumRecord InputPlayer::describeMedium()
{
    host::MediumRecord medium;
    m_input->getMediumDescription(&medium);
    return medium;
}

host::OutputStreamRecord InputPlayer::describeOutput()
{
    host::OutputStreamRecord output;
    m_input->getOutputStreamDescription(&output);
    return output;
}

std::vector<PlayedFrame> framesOf(const std::vector<PlayedFrame>& frames, PacketType::Enum type)
{
    std::vector<PlayedFrame> chosen;
    std::copy_if(frames.begin(), frames.end(), std::back_inserter(chosen),
                 [type](const PlayedFrame& frame) { return frame.type == type; });
    return chosen;
}

} // namespace zel::test
