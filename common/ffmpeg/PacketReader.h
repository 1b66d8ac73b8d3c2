#pragma once

#include "common/ffmpeg/Handles.h"

#include <cstddef>
#include <deque>
#include <vector>

namespace zel::av {

/// Hands out the packets of a medium in their order, and lets others look ahead.
///
///     demuxer --> [ queue: packets read but not yet taken ] --> read()
///                   ^ ahead(stream, n) looks, and reads on as far as it must
///
/// The queue is empty unless somebody looked ahead, put probed packets back, or a copied stream
/// waits for its first decoding time. Owner: the decoder core. Threads: under the core's mutex.
class PacketReader
{
public:
    /// How a look ahead ended.
    enum class Ahead
    {
        Found,
        EndOfMedium,
        /// There is none among the packets that fit into the queue.
        OutOfReach,
    };

    /// @param context  the open demuxer, not owned
    explicit PacketReader(AVFormatContext* context);

    /// Takes the next packet.
    /// @param packet  without bytes of an earlier one
    /// @return 0, or the demuxer's error; the read after an error asks the demuxer again
    int read(AVPacket* packet);

    /// Looks at the n-th packet (from 0) of a stream that read() has not handed out yet.
    Ahead ahead(int streamIndex, std::size_t n, const AVPacket** packet);

    /// Puts a packet behind those that wait, to be handed out before the demuxer is asked again.
    void handOutAgain(Packet packet);

    /// Moves the demuxer, and forgets what was read ahead.
    /// @param timestamp, flags  as av_seek_frame takes them without a stream
    /// @return 0 or above, or the demuxer's error
    int seek(int64_t timestamp, int flags);

    /// Sees to it that resume() will find back to the present place. Before seek(), and only where
    /// a read costs nothing: it may read one packet ahead.
    void markPlace();

    /// Goes back to the marked place, after a seek that failed and left the demuxer elsewhere:
    /// seeks to before the oldest of the streams' last packets and drops what came already.
    void resume();

    /// Makes the stamps of packets fit for copying: decoding times that the demuxer leaves out at
    /// the start are counted back from the first known one, and all streams are shifted so that
    /// the first video packet's decoding time is not negative. Without this the rule that
    /// takes pts for a negative dts would put a later packet before an earlier one.
    void prepareForCopying(int videoStreamIndex) { m_copiedVideo = videoStreamIndex; }

private:
    /// The last packet of a stream, as the demuxer gave it.
    struct LastPacket
    {
        bool isKnown = false;
        int64_t dts = AV_NOPTS_VALUE;
        int64_t pts = AV_NOPTS_VALUE;
        int64_t position = -1; // in the medium, bytes
        int size = 0;
    };
    /// How a packet of a stream lies to its last one.
    enum class Place
    {
        Before,
        Same,
        SameWithoutTime, // it had a decoding time when it came first
        Behind,
    };

    int fetch();
    void note(const AVPacket& packet);
    int seekBack(int streamIndex, int64_t targetUs);
    bool skipToLastPackets(int streamIndex, int64_t fromUs);
    int64_t timeUs(int streamIndex, int64_t time) const;
    static Place placeOf(const AVPacket& packet, const LastPacket& last);
    void completeCopiedStamps();
    void fillFirstDts(std::size_t known);
    void shift(AVPacket& packet) const;
    AVRational timeBase(int streamIndex) const;

    AVFormatContext* m_context; // not owned
    std::deque<Packet> m_queue;
    std::size_t m_queueBytes = 0;
    int m_error = 0;                // of the demuxer, waiting behind the queue
    std::vector<LastPacket> m_last; // of each stream, since the last seek
    std::size_t m_newestStream = 0; // of the very last packet
    int m_copiedVideo = -1;
    bool m_shiftKnown = false;
    bool m_neverStamped = false; // no decoding time came within the queue's reach
    int64_t m_shift = 0;         // in the copied video stream's time base
    Packet m_scratch;
};

} // namespace zel::av
