#pragma once

#include "tests/support/MediaReference.h"

#include <cstddef>
#include <vector>

namespace zel::test {

/// A frame that an input must deliver, worked out from a medium's packets alone.
struct ExpectedFrame
{
    bool isVideo = false;
    unsigned long long timestampUs = 0;
    unsigned long long durationUs = 0;
    std::size_t picture = 0; ///< of video: number among the medium's pictures as presented
};

/// What is played.
struct Selection
{
    int video = -1; ///< stream index, -1 for none
    int audio = -1;
    bool isLive = false; ///< unknown duration: both streams start at 0, each for itself
};

/// The first video and audio stream of a medium.
Selection firstStreams(const ProbedMedium& medium);
/// The largest video, the audio of the highest bit rate; of equals the first.
Selection bestStreams(const ProbedMedium& medium);

/// Goes through the packets in the demuxer's order and applies the rules of delivery:
///
/// - Packets whose stamps are both negative only prime a decoder, and are left out.
/// - The stamp is dts, or pts where dts is negative or missing; video packets with neither are
///   left out, audio packets follow the one before.
/// - A picture comes with the packet that made the decoder give it, and has that packet's stamp.
///   The decoder holds `decoderDelay` pictures back, and is not drained at the end.
/// - Each audio packet is one frame; its time never goes back. Vorbis needs two packets for its
///   first samples, so that the first packet gives none.
std::vector<ExpectedFrame> expectedDelivery(const ProbedMedium& medium, const Selection& selection);

/// The number of a stream's packets that lie before the start or have no stamp, without those that
/// an edit list leaves out anyway.
int countLeftOut(const ProbedMedium& medium, int stream);

/// A stamp in microseconds: in doubles, truncated.
unsigned long long microseconds(int64_t stamp, const ProbedStream& stream);

} // namespace zel::test
