#pragma once

#include "host/Input.h"
#include "host/Records.h"

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>
#include <vector>

namespace zel::host {

/// What came of one kind of frame.
struct KindStatistics
{
    struct Gap
    {
        long long atUs;     ///< where the frame before the gap ends
        long long lengthUs; ///< up to the start of the frame behind it
    };

    unsigned long long frames = 0;
    unsigned long long bytes = 0;
    unsigned long long keyFrames = 0;
    std::optional<long long> firstUs;
    std::optional<long long> lastUs;
    unsigned long long gapCount = 0;
    std::vector<Gap> gaps;            ///< the first of them
    unsigned long long stepsBack = 0; ///< frames with a time stamp below that of the one before

    void add(const Frame& frame, bool countGaps);
    /// The next frame may have any time stamp.
    void jump() { m_previousUs.reset(); }

private:
    std::optional<long long> m_previousUs;
    long long m_distanceUs = 0; ///< between the two frames before, for frames without duration
};

/// What a play delivered, from open to the end. Main thread.
class PlayStatistics
{
public:
    struct Seek
    {
        unsigned long long targetMs;
        int result; ///< of setTimePosition
        std::optional<long long> firstVideoUs;
        std::optional<long long> firstAudioUs;
    };
    struct AudioChange
    {
        unsigned long long audioFrames; ///< delivered before it
        AudioRecord audio;
    };
    /// Percent of the part of the network buffer that reads ahead.
    struct BufferLevel
    {
        unsigned int lowest;
        unsigned int highest;
    };
    struct Metadata
    {
        long long atUs;
        std::vector<std::pair<std::string, std::string>> entries;
    };

    OutputStreamRecord output; ///< what frames are, at the start
    KindStatistics video;
    KindStatistics audio;
    std::vector<Seek> seeks;
    std::vector<AudioChange> audioChanges;
    std::vector<Metadata> metadata;
    double secondsToFirstFrame = 0; ///< from the start of the process
    double seconds = 0;             ///< from open to the end
    bool brokenStream = false;
    std::vector<streamer::InputEvent::Enum> events;
    std::optional<BufferLevel> buffer; ///< nothing without a network buffer

    /// @param countVideoGaps  false when pictures are left out on purpose
    explicit PlayStatistics(bool countVideoGaps) : m_countVideoGaps(countVideoGaps) {}

    void add(const Frame& frame);
    void addBufferLevel(unsigned int percent);
    void jump();

    nlohmann::ordered_json toJson() const;
    /// The table for people, with its newlines.
    std::string text() const;

private:
    bool m_countVideoGaps;
};

} // namespace zel::host
