#pragma once

#include "common/ffmpeg/Handles.h"
#include "common/ffmpeg/PacketReader.h"

#include <cstddef>
#include <deque>

namespace zel::av {

/// Decodes video on several threads, with exactly the answers of one thread.
///
/// Only what a decoder makes up for lost parts of a picture may differ: that depends on what its
/// memory held before, and on how far another thread was with the picture that it copies from.
///
/// The decoder of N frame threads gives a picture N - 1 packets late. The pipeline hides that: it
/// looks ahead in the medium and feeds the packets to come, so that the picture of the packet at
/// hand is known when it is asked for, while the next ones decode behind the caller's back.
///
///     taken, kept for a retreat   at hand   fed, in flight           not fed yet
///     [ k-4 ][ k-3 ][ k-2 ][ k-1 ] [  k  ]  [ k+1 ] .. [ k+N-1 ]     [ k+N ] ...
///      ^ the key frame before the last one   one clone each, its dts a sequence number
///
/// Pictures are matched to packets by that sequence number. The pipeline only goes on while all is
/// regular. Broken data, a start without a key frame, a medium whose packets are skipped by
/// somebody, video packets too far apart: each makes it answer Unsure, once and for all. The owner
/// then takes retreat()'s context, which has decoded what one thread would have decoded by now, and
/// goes on with that.
///
/// Owner: the decoder core. Threads: under the core's mutex; the decoder's threads are its own.
class VideoPipeline
{
public:
    enum class Answer
    {
        Picture,
        NoPicture,
        Unsure
    };

    /// Whether pictures of this codec were found to be the same on several threads.
    static bool isProven(AVCodecID codec);

    /// @param model   the opened one-thread context of the stream
    /// @param stream  the stream, not owned
    /// @param threads decoder threads, at least 2
    VideoPipeline(const AVCodecContext& model, const AVStream* stream, int threads);

    /// False when the decoder could not be opened; the pipeline is useless then.
    bool isOpen() const { return m_context != nullptr; }
    AVCodecContext* context() const { return m_context.get(); }

    /// Answers for the packet that the reader has just handed out.
    Answer decode(const AVPacket& packet, PacketReader& reader, AVFrame* picture);

    /// Forgets all that is half decoded; packets that wait in the reader are fed anew.
    void flush();

    /// A one-thread context that has decoded all packets before the one that was Unsure.
    /// Null when it could not be opened.
    CodecContext retreat();

private:
    struct InFlight
    {
        Packet packet; // as the demuxer gave it
        Frame picture; // null until it came
    };

    /// What a decoder does with broken data. What it makes up differs with the number of threads,
    /// so the pipeline rather hears of it and leaves such media to one thread.
    enum class Errors
    {
        Told,
        Concealed
    };

    CodecContext open(int threads, int threadType, int reorderDelay, Errors errors) const;
    bool feed(const AVPacket& packet);
    bool collect();
    bool drain();
    bool isDecided() const;
    void remember(Packet packet);

    const AVStream* m_stream; // not owned
    const AVCodec* m_codec;
    int m_threadType;
    std::size_t m_delay; // packets until a picture is out
    CodecContext m_context;
    std::deque<InFlight> m_inFlight; // front: the next packet that decode() is asked about
    int64_t m_frontSequence = 0;
    bool m_drained = false;
    std::deque<Packet> m_taken;
    std::deque<Packet> m_beforeFlush; // what was taken before the last flush
    std::size_t m_takenBytes = 0;
    Packet m_clone;
};

} // namespace zel::av
