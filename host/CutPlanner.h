#pragma once

#include <optional>

namespace zel::host {

/// Chooses the video packets with which new segment files begin, so that each file can be played
/// alone: it begins with a key frame.
///
/// A copied packet says whether it is one. Of a raw picture that is still to be encoded nobody can
/// say; but the encoder stage forces every nth picture that it gets to be a key frame, n being the
/// frame rate rounded up, and this class counts along. When the stage lowers the frame rate it
/// leaves pictures out, maybe a forced one; those are no cuts. Writing thread.
class CutPlanner
{
public:
    /// For copied video.
    /// @param clipMs  least length of a segment, to half a frame
    explicit CutPlanner(unsigned long long clipMs) : m_clipUs(clipMs * 1000) {}
    /// For video that the stage encodes.
    /// @param inputRate   frames per second that are written to the stage
    /// @param outputRate  frames per second that it makes of them
    CutPlanner(unsigned long long clipMs, double inputRate, double outputRate);

    /// Called for each video packet before it is written.
    /// @return the time to ask the new segment for, in microseconds, when this packet begins one
    std::optional<unsigned long long> plan(unsigned long long timestampUs,
                                           unsigned long long durationUs, bool keyFrame);
    /// The next packet begins a segment by itself, as the first one does: there was a seek.
    void restart();

private:
    bool isKept(unsigned long long timestampUs);

    unsigned long long m_clipUs;
    bool m_encodes = false;
    double m_outputRate = 0;
    bool m_sameRate = false;
    unsigned long long m_gop = 1;   ///< pictures from one forced key frame to the next
    unsigned long long m_count = 0; ///< pictures written
    std::optional<unsigned long long> m_firstUs;
    long long m_lastNumber = 0; ///< of the picture before, in frames of the output
    std::optional<unsigned long long> m_segmentUs; ///< where the open segment began
};

} // namespace zel::host
