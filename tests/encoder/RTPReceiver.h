#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zel::test {

/// What goes over the wire in one packet, behind the header that the receiver's sender makes.
struct RTPPayload
{
    std::string bytes;
    unsigned int timestamp = 0; ///< of the stream's clock
    bool marker = false;        ///< the last one of its frame
};

/// A frame as the receiver put it together.
struct ReceivedFrame
{
    std::string bytes;
    int64_t pts = 0; ///< of the stream's clock, counted from the first frame
};

struct ReceivedStream
{
    std::string codec; ///< FFmpeg's name
    std::string setUp; ///< extradata of the description
    std::vector<ReceivedFrame> frames;
};

/// Lets libavformat's receiver unpack a stream. It reads description and packets from memory, so
/// neither network nor clock has a part in it.
/// @param media     "audio" or "video"
/// @param encoding  of the description's line "rtpmap", such as "AMR/8000/1"
/// @param format    of its line "fmtp"; may be empty
/// @param payloads  of less than 250000 bytes, above which the receiver would report back
/// @throws std::runtime_error when the receiver refuses the description
ReceivedStream receiveRTP(const std::string& media, const std::string& encoding,
                          const std::string& format, const std::vector<RTPPayload>& payloads);

} // namespace zel::test
