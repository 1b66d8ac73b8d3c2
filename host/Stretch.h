#pragma once

#include "host/Input.h"

#include <optional>
#include <vector>

namespace zel::host {

/// A seek on the way through a medium.
struct SeekRequest
{
    unsigned long long targetMs = 0;
    /// The seek is made when a frame of this time or later has come; without it after the first
    /// picture (or audio frame, when there are no pictures) behind the seek before.
    std::optional<unsigned long long> whenMs;
};

/// What a command reads of a medium: all of it, or so much from the start and from each seek.
struct StretchOptions
{
    std::optional<unsigned long long> startMs;
    std::optional<unsigned long long> durationMs;
    std::vector<SeekRequest> seeks;
};

/// The stretch of the medium that is read now, and the seek that ends it. Main thread.
class Stretch
{
public:
    /// @param options  outlive this object
    explicit Stretch(const StretchOptions& options) : m_options(options) {}

    /// Which kinds come and are wanted.
    void setKinds(bool hasVideo, bool hasAudio);
    /// Begins a stretch at the start, or behind a seek that was made.
    void begin(unsigned long long startMs);

    /// True for an audio or video frame that no longer belongs to the stretch.
    bool isPastEnd(const Frame& frame);
    /// True when nothing more of the stretch comes.
    /// @param frame  one for which isPastEnd was true
    bool isOver(const Frame& frame) const;

    /// Takes the next seek when it is due behind this frame.
    /// @return null when none is
    const SeekRequest* takeDueSeek(const Frame& frame);
    /// Takes the next seek whenever it is due, for the end of the stretch.
    /// @return null when there is none left
    const SeekRequest* takeSeek();

    /// Length of the whole for a progress bar.
    /// @param mediumUs  duration of the medium; 0 when unknown
    /// @return 0 when unknown
    static long long lengthUs(const StretchOptions& options, long long mediumUs);

private:
    const StretchOptions& m_options;
    bool m_hasVideo = false;
    bool m_hasAudio = false;
    size_t m_nextSeek = 0;
    std::optional<unsigned long long> m_endUs;
    bool m_videoEnded = false; ///< a picture at or behind m_endUs came
    bool m_audioEnded = false;
};

} // namespace zel::host
