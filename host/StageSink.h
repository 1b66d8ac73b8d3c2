#pragma once

#include "host/Input.h"

namespace zel::host {

/// Something that keeps what comes out of a stage. Reading thread, but for finish.
class StageSink
{
public:
    virtual ~StageSink() = default;

    /// Every frame but the end, in order.
    /// @throws HostError when it cannot be kept
    virtual void take(const Frame& frame) = 0;
    /// What follows comes from behind a seek.
    virtual void jump() = 0;
    /// Ends the work. Main thread, when the reading thread has ended.
    /// @param endUs  end of the last frame that was written to the stage
    /// @throws HostError when not everything could be kept
    virtual void finish(unsigned long long endUs) = 0;
};

} // namespace zel::host
