#pragma once

#include "host/Records.h"
#include "host/StreamChoice.h"

#include <string>
#include <vector>

/// The decision which streams a session copies, which it decodes and encodes, and to what.

namespace zel::host {

/// What becomes of one kind of stream.
struct StreamPlan
{
    enum class Action
    {
        None,
        Copy,
        Encode
    };

    Action action = Action::None;
    std::string source;   ///< codec in the medium
    std::string codec;    ///< that the stage is asked for
    int bitrate = 0;      ///< bits per second; says little of a copy
    double frameRate = 0; ///< video: 0 takes the medium's

    bool isCopied() const { return action == Action::Copy; }
    bool isEncoded() const { return action == Action::Encode; }
    bool isWanted() const { return action != Action::None; }
};

/// What the user asked for.
struct PlanRequest
{
    std::string format;
    StreamChoice video;
    StreamChoice audio;
    double frameRate = 0; ///< of encoded video; 0 takes the medium's
    /// True for a stream at another bit rate than the medium's, where nothing is copied.
    bool isFallback = false;
    int videoBitrate = 500000; ///< where the choice has none
    int audioBitrate = 128000;
};

struct Plan
{
    StreamPlan video;
    StreamPlan audio;
    std::vector<std::string> notes; ///< what differs from the request and why, a line each
};

/// @param medium  the streams as they stand in the medium
/// @throws HostError when nothing is left to do, or when the format's usual codecs are not known
Plan choosePlan(const PlanRequest& request, const OutputStreamRecord& medium);

/// Changes the plan after the stage refused it.
/// @param video,audio  the stage could not make this stream; neither means that it cannot tell
/// @return false when there is nothing left to change: the codec of a refused kind is encoded
bool retreat(Plan& plan, const PlanRequest& request, const OutputStreamRecord& medium, bool video,
             bool audio);

/// What is wrong with raw audio of this form for the encoder stage; empty when nothing is.
std::string audioTrouble(const AudioRecord& raw);

/// "h264 copied", "aac to mp3", "none".
std::string actionText(const StreamPlan& plan);

} // namespace zel::host
