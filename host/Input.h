#pragma once

#include "host/HostError.h"
#include "host/Library.h"
#include "host/Records.h"
#include "host/StopSignal.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace zel::host {

/// One frame of an input. Empty once it has been given back.
struct Frame
{
    streamer::PacketType::Enum type = streamer::PacketType::None;
    unsigned char* data = nullptr; ///< the input's; see Input::release
    unsigned int size = 0;         ///< bytes
    unsigned long long timestampUs = streamer::SamplePacket::NoTimestamp;
    unsigned long long durationUs = 0;
    void* context = nullptr;
    bool keyFrame = false;

    bool hasTimestamp() const { return timestampUs != streamer::SamplePacket::NoTimestamp; }
};

/// An input of the library in the hands of a command: opened by a call that throws, stopped by
/// signals, closed and deleted in order on every way out. Main thread.
class Input
{
public:
    /// @param stop  outlives this object; a signal stops the input
    Input(const Library& library, StopSignal& stop);
    ~Input();
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    /// Path or URL of the medium; call it once, before open.
    /// @param decoderThreads  0 leaves the choice to the library
    void setMedium(const std::string& medium, int decoderThreads);

    /// Opens the medium, or opens it anew when it is open.
    /// @throws HostError with the medium's name and the library's reason
    void open();

    /// Takes the next frame; give it back with release.
    /// @return false at the end of the medium or after a signal
    bool read(Frame& frame);
    void release(Frame& frame);

    streamer::InputPluginInterface& plugin() { return *m_plugin; }
    /// The medium as it was named by the user.
    const std::string& name() const { return m_name; }
    MediumRecord describeMedium();
    OutputStreamRecord describeInput();
    OutputStreamRecord describeOutput();
    bool isBroken() const;
    /// What the input told of its connection so far; in their order, the first ones only.
    std::vector<streamer::InputEvent::Enum> events() const;
    /// Fill level of the network buffer in percent; nothing where that says nothing.
    std::optional<unsigned int> bufferPercent();

private:
    static void _inputEvent(streamer::InputEvent::Enum event, int, int, void* self);
    HostError openError(const ErrorRecord& error) const;

    StopSignal& m_stop;
    std::unique_ptr<streamer::InputPluginInterface> m_plugin;
    std::string m_name;
    MediumRecord m_medium;
    bool m_isOpen = false;
    mutable std::mutex m_eventLock;
    std::vector<streamer::InputEvent::Enum> m_events; ///< under m_eventLock; threads of the library
};

/// A frame that is given back to its input at the end, unless somebody takes it over. The input
/// outlives it.
class HeldFrame
{
public:
    HeldFrame(Input& input, const Frame& frame) : m_input(input), m_frame(frame) {}
    ~HeldFrame()
    {
        if (m_held) {
            m_input.release(m_frame);
        }
    }
    HeldFrame(const HeldFrame&) = delete;
    HeldFrame& operator=(const HeldFrame&) = delete;

    Frame take()
    {
        m_held = false;
        return m_frame;
    }

private:
    Input& m_input;
    Frame m_frame;
    bool m_held = true;
};

} // namespace zel::host
