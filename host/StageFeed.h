#pragma once

#include "host/PlayStatistics.h"
#include "host/ProgressBar.h"
#include "host/ReadAhead.h"
#include "host/SegmentCutter.h"
#include "host/StageReader.h"
#include "host/StopSignal.h"
#include "host/Stretch.h"
#include "host/TranscodeSession.h"

#include <optional>
#include <string>
#include <vector>

namespace zel::host {

/// Writes a session's input to its stage: from the start to the end, with the seeks on the way and
/// the cuts between segments. The input is read on a thread of its own, ahead of what is written.
/// Main thread.
class StageFeed
{
public:
    struct Seek
    {
        unsigned long long targetMs;
        int result; ///< of setTimePosition
    };

    /// @param cuts  empty when the output is in one piece; all references outlive this object
    StageFeed(TranscodeSession& session, const TranscodeOptions& options, StageReader& reader,
              StopSignal& stop, ProgressBar& progress, const std::optional<CutOptions>& cuts);

    /// Ends with a packet that ends the stream, also after a signal.
    /// @throws HostError when the audio changes to what cannot be encoded
    void run();

    const KindStatistics& video() const { return m_video; }
    const KindStatistics& audio() const { return m_audio; }
    const std::vector<Seek>& seeks() const { return m_seeks; }
    /// Length of what was written, in microseconds, all stretches together.
    long long lengthUs() const;
    /// End of the last frame that was written.
    unsigned long long endUs() const { return m_endUs; }
    /// Why a seek failed; empty when none did.
    const std::string& failure() const { return m_failure; }

private:
    bool goesOn() const;
    /// @return false when the stretch to write has ended
    bool take(Frame& frame);
    bool takeMedia(Frame& frame);
    bool isWanted(const Frame& frame);
    void leaveOutVideo();
    void count(const Frame& frame);
    bool seekAtEnd();
    bool seekTo(unsigned long long targetMs);
    void beginStretch(unsigned long long startMs);

    TranscodeSession& m_session;
    const TranscodeOptions& m_options;
    StageReader& m_reader;
    StopSignal& m_stop;
    ProgressBar& m_progress;
    std::optional<SegmentCutter> m_cutter;
    Stretch m_stretch;
    ReadAhead m_frames; ///< goes before what it reads from
    KindStatistics m_video;
    KindStatistics m_audio;
    std::vector<Seek> m_seeks;
    bool m_videoLeftOut = false;
    std::optional<unsigned long long> m_firstUs; ///< of the stretch
    unsigned long long m_endUs = 0;
    long long m_earlierUs = 0; ///< length of the stretches before
    std::string m_failure;
};

} // namespace zel::host
