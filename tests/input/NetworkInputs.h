#pragma once

#include "plugin/StreamInterfaces.h"
#include "tests/support/InputPlayer.h"
#include "tests/support/ScriptedServer.h"

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// What the tests of an input with trouble on its network share.

namespace zel::test {

/// What an input tells its host, in order.
class InputEvents
{
public:
    explicit InputEvents(streamer::InputPluginInterface& input);
    InputEvents(const InputEvents&) = delete;
    InputEvents& operator=(const InputEvents&) = delete;

    std::vector<int> soFar() const;
    /// Blocks until there have been this many.
    void waitFor(std::size_t count) const;

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<int> m_events;
};

/// An input of the class that the tests link, with a medium open.
std::unique_ptr<InputPlayer> openInput(const std::string& url);
/// What a file on disk plays.
std::vector<PlayedFrame> playFile(const std::string& path);
std::vector<PlayedFrame> picturesOf(const std::vector<PlayedFrame>& frames);
std::string samplesOf(const std::vector<PlayedFrame>& frames);

/// Serves a clip's bytes, with ranges.
ServerScript serveClip(const std::string& name);

} // namespace zel::test
