#pragma once

#include "host/Input.h"
#include "host/Records.h"

#include <memory>
#include <vector>

namespace zel::host {

/// Something that takes the frames of a play and keeps them in another form. Main thread.
class FrameSink
{
public:
    virtual ~FrameSink() = default;

    /// Called before the first frame and after each change of the audio format.
    /// @throws HostError when frames of this description cannot be kept
    virtual void describe(const OutputStreamRecord& description) = 0;
    /// Every frame that counts for the play, in order.
    /// @throws HostError when it cannot be kept
    virtual void take(const Frame& frame) = 0;
    /// Ends the work; called after the last frame, also when a signal came.
    /// @throws HostError when not everything could be kept
    virtual void finish() = 0;
};

/// The sinks of a play, in the order in which they take each frame.
using FrameSinks = std::vector<std::unique_ptr<FrameSink>>;

} // namespace zel::host
