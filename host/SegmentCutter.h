#pragma once

#include "host/CutPlanner.h"
#include "host/Input.h"
#include "host/Stage.h"
#include "host/StageReader.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

namespace zel::host {

/// How an output is cut into segments.
struct CutOptions
{
    std::optional<CutPlanner> planner;     ///< empty where the stage cuts by itself: audio alone
    unsigned long long clipMs = 0;         ///< least length of a segment
    std::function<std::size_t()> finished; ///< segments that were read from the stage; any thread
    std::string folder;                    ///< for messages
};

/// Asks the stage for segments, and watches that they come: a stage that cannot make its next file
/// only logs it and drops what was to go there. Writing thread.
///
/// A stage remembers one cut, and merges audio and video before it gets to it. So the next cut is
/// asked for only when the segment before the last one is finished.
class SegmentCutter
{
public:
    /// @param stage,reader  outlive this object
    SegmentCutter(CutOptions options, Stage& stage, StageReader& reader);

    /// Called for each frame before it is written.
    /// @throws HostError when the stage makes no more segments
    void before(const Frame& frame);
    /// The next frame comes from behind a seek.
    void restart();

private:
    void cutVideo(const Frame& frame);
    void watchAudio(const Frame& frame);
    bool isFinished();
    [[noreturn]] void fail() const;

    CutOptions m_options;
    Stage& m_stage;
    StageReader& m_reader;
    bool m_isAsked = false;        ///< for a cut that has not come yet
    std::size_t m_finished = 0;    ///< segments that were finished when it was asked for
    unsigned int m_sinceAsked = 0; ///< video packets written since
    std::optional<unsigned long long> m_watchedUs; ///< when audio alone was looked at last
};

} // namespace zel::host
