#pragma once

#include "plugin/StreamInterfaces.h"
#include "tests/support/InputPlayer.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/ServedContent.h"

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

ServerScript serveClip(const std::string& name, ServeOptions options = {});
/// Serves a whole clip and then nothing, though more was promised.
ServerScript serveClipAndStall(const std::string& name);
/// Serves all of a clip but its last bytes, and these when the test says "go".
ServerScript serveClipUntilGo(const std::string& name, std::size_t lastBytes);

} // namespace zel::test
