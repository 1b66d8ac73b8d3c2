#include "host/ReadAhead.h"

#include <chrono>
#include <utility>

namespace zel::host {

namespace {

constexpr std::size_t MostFrames = 256;
constexpr std::size_t Handful = 16;
constexpr std::size_t MostBytes = std::size_t{16} << 20;

} // namespace

ReadAhead::ReadAhead(Read read, Release release)
    : m_read(std::move(read)), m_release(std::move(release))
{
}

ReadAhead::~ReadAhead()
{
    halt();
    drop();
}

bool ReadAhead::isFull() const
{
    return m_noticeWaits || m_frames.size() >= MostFrames || m_bytes >= MostBytes;
}

bool ReadAhead::next(Frame& frame)
{
    if (!m_thread.joinable() && !m_ended) {
        m_thread = std::thread([this] { run(); });
    }
    std::unique_lock lock(m_mutex);
    awaitFrames(lock);
    if (m_frames.empty()) {
        if (m_failure) {
            std::rethrow_exception(std::exchange(m_failure, nullptr));
        }
        return false;
    }
    frame = m_frames.front();
    m_frames.pop_front();
    m_bytes -= frame.size;
    m_noticeWaits = m_noticeWaits && frame.type != streamer::PacketType::Notice;
    // Not for each frame: a thread that wakes up finds room for several.
    const bool isWorthWaking = m_frames.size() <= MostFrames / 2 && !isFull();
    lock.unlock();
    if (isWorthWaking) {
        m_hasRoom.notify_one();
    }
    return true;
}

/// A taker that is faster than reading would be woken for each frame, which costs more than a small
/// frame. So it first gives some frames a moment to gather.
void ReadAhead::awaitFrames(std::unique_lock<std::mutex>& lock)
{
    constexpr auto Moment = std::chrono::milliseconds(1);
    if (!m_frames.empty() || m_ended) {
        return;
    }
    m_hasFrames.wait_for(lock, Moment, [this] { return m_frames.size() >= Handful || m_ended; });
    m_takesAny = true;
    m_hasFrames.wait(lock, [this] { return !m_frames.empty() || m_ended; });
    m_takesAny = false;
}

void ReadAhead::halt()
{
    if (m_thread.joinable()) {
        {
            const std::lock_guard lock(m_mutex);
            m_halted = true;
        }
        m_hasRoom.notify_one();
        m_thread.join();
        m_halted = false;
    }
}

void ReadAhead::drop()
{
    for (Frame& frame : m_frames) {
        m_release(frame);
    }
    m_frames.clear();
    m_bytes = 0;
    m_noticeWaits = false;
    m_ended = false;
    m_failure = nullptr;
}

void ReadAhead::run()
{
    bool goesOn = true;
    while (goesOn) {
        Frame frame;
        std::exception_ptr failure;
        try {
            goesOn = m_read(frame);
        } catch (...) {
            goesOn = false;
            failure = std::current_exception();
        }
        std::unique_lock lock(m_mutex);
        if (goesOn) {
            m_noticeWaits = frame.type == streamer::PacketType::Notice;
            m_bytes += frame.size;
            m_frames.push_back(frame);
        } else {
            m_ended = true;
            m_failure = failure;
        }
        if (m_takesAny || m_ended || m_frames.size() == Handful) {
            m_hasFrames.notify_one();
        }
        m_hasRoom.wait(lock, [this] { return !isFull() || m_halted || m_ended; });
        goesOn = goesOn && !m_halted;
    }
}

} // namespace zel::host
