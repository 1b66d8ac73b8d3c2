#include "tests/input/NetworkInputs.h"

#include "input/FFMpegInput.h"
#include "tests/support/CoreReader.h"
#include "tests/support/ServedContent.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <utility>

namespace InputEvent = zel::streamer::InputEvent;
namespace PacketType = zel::streamer::PacketType;

namespace zel::test {

InputEvents::InputEvents(streamer::InputPluginInterface& input)
{
    input.setInputEventCallback(
        [](InputEvent::Enum event, int, int, void* data) {
            auto* events = static_cast<InputEvents*>(data);
            const std::lock_guard guard(events->m_mutex);
            events->m_events.push_back(event);
            events->m_changed.notify_all();
        },
        this);
}

std::vector<int> InputEvents::soFar() const
{
    const std::lock_guard guard(m_mutex);
    return m_events;
}

void InputEvents::waitFor(std::size_t count) const
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return m_events.size() >= count; });
}

std::unique_ptr<InputPlayer> openInput(const std::string& url)
{
    auto player = std::make_unique<InputPlayer>(std::make_unique<FFMpegInput>());
    EXPECT_TRUE(player->open(url)) << url;
    return player;
}

std::vector<PlayedFrame> playFile(const std::string& path)
{
    return openInput(path)->readAll();
}

std::vector<PlayedFrame> picturesOf(const std::vector<PlayedFrame>& frames)
{
    return framesOf(frames, PacketType::Video);
}

std::string samplesOf(const std::vector<PlayedFrame>& frames)
{
    std::string samples;
    for (const PlayedFrame& frame : frames) {
        samples += frame.samples;
    }
    return samples;
}

ServerScript serveClip(const std::string& name, ServeOptions options)
{
    return serveBytes(textContent(readFile(clipPath(name))), std::move(options));
}

ServerScript serveClipAndStall(const std::string& name)
{
    return [clip = readFile(clipPath(name))](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {}, clip.size() + 1000000);
        connection.send(clip);
        connection.waitUntilPeerCloses();
    };
}

ServerScript serveClipUntilGo(const std::string& name, std::size_t lastBytes)
{
    return [clip = readFile(clipPath(name)), lastBytes](const ServerRequest&,
                                                        ServerConnection& connection) {
        connection.beginBody(200, {}, clip.size());
        connection.send(clip.substr(0, clip.size() - lastBytes));
        connection.waitForMark("go");
        connection.send(clip.substr(clip.size() - lastBytes));
    };
}

} // namespace zel::test
