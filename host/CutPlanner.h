#pragma once

#include <optional>

namespace zel::host {

/// Chooses the video packets with which new segment files begin, so that each file can be played
/// alone: it begins with a key frame.
///
/// A copied packet says whether it is one. Of a raw picture that is still to be encoded nobody can
/// say, so this class counts along with the encoder stage: key frames are the first pictures behind
/// a start or seek, every nth picture that the stage gets, n being the frame rate rounded up, and
/// those that the encoder makes by itself n pictures behind the last one. When the stage lowers the
/// frame rate it leaves pictures out, maybe one that was to be a key frame. Writing thread.
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
    /// Takes the last planned cut back: the segment goes on to the next key frame.
    void postpone() { m_segmentUs = m_segmentBeforeUs; }
    /// The next packet begins a segment by itself, as the first one does: there was a seek.
    void restart();

private:
    bool isKept(unsigned long long timestampUs);
    bool isKeyFrame(unsigned long long timestampUs);

    unsigned long long m_clipUs;
    bool m_encodes = false;
    double m_outputRate = 0;
    unsigned long long m_earlyUs = 0; ///< how much before a picture its cut is asked for
    bool m_sameRate = false;
    unsigned long long m_gop = 1;   ///< most pictures from one key frame to the next
    unsigned long long m_count = 0; ///< pictures written
    unsigned long long m_countAtSeek = 0;
    unsigned long long m_sinceKey = 0; ///< pictures encoded since the last key frame, with it
    std::optional<unsigned long long> m_firstUs; ///< behind the start or seek
    long long m_lastNumber = 0;                  ///< of the picture before, in frames of the output
    std::optional<unsigned long long> m_segmentUs; ///< where the open segment began
    std::optional<unsigned long long> m_segmentBeforeUs;
};

} // namespace zel::host
