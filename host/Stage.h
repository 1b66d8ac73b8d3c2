#pragma once

#include "host/Input.h"
#include "host/Library.h"
#include "host/Records.h"

#include <condition_variable>
#include <memory>
#include <mutex>

namespace zel::host {

/// A transcoder stage of the library in the hands of a command, closed and deleted in order on
/// every way out. One thread writes, another reads; stop may come from any.
///
/// While a stage goes to a new position its readFrame may answer false, as it does at a stop. This
/// class knows which of the two it is, so that the reader sees the end alone.
class Stage
{
public:
    /// @throws HostError when the library has no such stage
    Stage(const Library& library, const char* name);
    ~Stage();
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    /// The records stay the caller's and outlive this object.
    /// @return the stage's own answer: 0, 2 or -1
    int init(const MediumRecord& medium, const InputStreamRecord& input,
             const RequestedStreamRecord& requested, const PropertyMap& options);
    OutputStreamRecord describe();
    /// @return false when the stage's output cannot begin
    bool start();

    /// Hands the caller's reference over. Waits while the reader lags far behind. Writing thread.
    void write(streamer::SamplePacket* packet);
    /// Moves the time origin. Writing thread, between two writes.
    void resetPosition(unsigned long long positionMs);

    /// Takes the next frame; give it back with release. Reading thread.
    /// @return false when the stage was stopped
    bool read(Frame& frame);
    void release(Frame& frame);

    /// Ends reading and writing at once; what is buffered is lost.
    void stop();

private:
    std::unique_ptr<streamer::TranscoderPluginInterface> m_plugin;
    std::mutex m_control; ///< one stop or resetPosition at a time
    std::mutex m_mutex;   ///< guards what follows
    std::condition_variable m_resetOver;
    bool m_resetting = false;
    bool m_stopped = false;
    unsigned int m_resets = 0; ///< begun
};

} // namespace zel::host
