#pragma once

#include "host/Records.h"
#include "plugin/StreamInterfaces.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace zel::test {

/// A frame that was delivered, and given back.
struct PlayedFrame
{
    streamer::PacketType::Enum type = streamer::PacketType::None;
    unsigned long long timestampUs = 0;
    unsigned long long durationUs = 0;
    bool keyFrame = false;
    unsigned int size = 0; ///< bytes
    std::string md5;       ///< of pictures
    std::string samples;   ///< of audio

    bool isVideo() const { return type == streamer::PacketType::Video; }
    bool isAudio() const { return type == streamer::PacketType::Audio; }
};

/// The input plug-in of the built library, as a host gets it. The library stays loaded.
std::unique_ptr<streamer::InputPluginInterface> makeLibraryInput();

/// Plays a medium through an input, one frame after the other, and gives every frame back.
/// Owner and thread: the test; other threads may call the input meanwhile.
class InputPlayer
{
public:
    explicit InputPlayer(std::unique_ptr<streamer::InputPluginInterface> input);
    /// With the built library's input.
    InputPlayer();
    /// Stops and closes.
    ~InputPlayer();
    InputPlayer(const InputPlayer&) = delete;
    InputPlayer& operator=(const InputPlayer&) = delete;

    /// Opens and starts.
    /// @param decoderThreads  0 for as many as the machine has
    bool open(const std::string& path, int decoderThreads = 0);
    /// @return false at the end of the medium
    bool read(PlayedFrame& frame);
    /// What is left of the medium.
    std::vector<PlayedFrame> readAll();
    /// Reads on to the next picture.
    /// @return false when none comes
    bool readPicture(PlayedFrame& frame);

    streamer::InputPluginInterface& input() { return *m_input; }
    /// As the last open() was asked for it, filled in by the input.
    host::MediumRecord describeMedium();
    host::OutputStreamRecord describeOutput();
    const host::ErrorRecord& error() const { return m_error; }

private:
    std::unique_ptr<streamer::InputPluginInterface> m_input;
    host::ErrorRecord m_error;
};

/// The frames of one kind.
std::vector<PlayedFrame> framesOf(const std::vector<PlayedFrame>& frames,
                                  streamer::PacketType::Enum type);

} // namespace zel::test
