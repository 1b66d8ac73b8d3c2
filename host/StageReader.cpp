#include "host/StageReader.h"

#include "plugin/MetadataPacket.h"

#include <chrono>
#include <string>
#include <utility>

namespace zel::host {

namespace {

// A stage hands on a block of metadata that it knows nothing of, in its place among the packets.
constexpr const char* MarkKey = "zel-host-mark";
constexpr const char* JumpText = "jump";
constexpr const char* SyncText = "sync";

/// @return the text of a mark; empty for any other block
std::string markText(const Frame& frame)
{
    const streamer::MetadataPacket packet(reinterpret_cast<const char*>(frame.data), frame.size);
    return packet.getMetadata(MarkKey).c_str();
}

/// Gives a frame back on every way out.
class StageFrameOwner
{
public:
    StageFrameOwner(Stage& stage, Frame& frame) : m_stage(stage), m_frame(frame) {}
    ~StageFrameOwner() { m_stage.release(m_frame); }
    StageFrameOwner(const StageFrameOwner&) = delete;
    StageFrameOwner& operator=(const StageFrameOwner&) = delete;

private:
    Stage& m_stage;
    Frame& m_frame;
};

} // namespace

StageReader::StageReader(Stage& stage, StageSink& sink, std::function<void()> onFailure)
    : m_stage(stage), m_sink(sink), m_onFailure(std::move(onFailure))
{
}

void StageReader::start()
{
    m_thread = std::thread([this] { run(); });
}

bool StageReader::passMark(Mark mark)
{
    unsigned int number = 0;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        number = ++m_marksWritten;
    }
    m_stage.write(new streamer::MetadataPacket(MarkKey, mark == Mark::Jump ? JumpText : SyncText));
    std::unique_lock<std::mutex> lock(m_mutex);
    m_progress.wait(lock, [&] { return m_ended || m_marksRead == number; });
    return m_marksRead == number;
}

bool StageReader::join()
{
    m_thread.join();
    return m_sawEnd;
}

void StageReader::rethrow() const
{
    if (m_failure) {
        std::rethrow_exception(m_failure);
    }
}

void StageReader::run()
{
    try {
        Frame frame;
        while (!m_sawEnd && readFrame(frame)) {
            const StageFrameOwner owner(m_stage, frame);
            m_sawEnd = !handle(frame);
        }
    } catch (...) {
        m_failure = std::current_exception();
        m_failed = true;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ended = true;
    }
    m_progress.notify_all();
    if (m_failed) {
        m_onFailure();
    }
}

/// A reader that is faster than the writer would be woken for each packet, which costs the writer
/// more than the packet. So one who had to wait gives the stage a moment to gather some.
bool StageReader::readFrame(Frame& frame)
{
    using Clock = std::chrono::steady_clock;
    constexpr auto Asleep = std::chrono::microseconds(20);
    constexpr auto Moment = std::chrono::microseconds(500);
    const auto begun = Clock::now();
    const bool isRead = m_stage.read(frame);
    if (isRead && Clock::now() - begun > Asleep) {
        std::this_thread::sleep_for(Moment);
    }
    return isRead;
}

/// @return false at the end of the stream
bool StageReader::handle(const Frame& frame)
{
    if (frame.type == streamer::PacketType::None) {
        return false;
    }
    const std::string mark =
        frame.type == streamer::PacketType::Metadata ? markText(frame) : std::string();
    if (mark.empty()) {
        m_sink.take(frame);
        return true;
    }
    if (mark == JumpText) {
        m_sink.jump();
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_marksRead;
    }
    m_progress.notify_all();
    return true;
}

} // namespace zel::host
