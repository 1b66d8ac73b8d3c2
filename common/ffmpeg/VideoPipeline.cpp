#include "common/ffmpeg/VideoPipeline.h"

#include <algorithm>
#include <utility>

namespace zel::av {
namespace {

// A retreat decodes the packets kept here again. Streams without key frames for longer than this
// lose the oldest, and a retreat then starts in the middle, as after a seek.
constexpr std::size_t MaxTakenPackets = 1200;
constexpr std::size_t MaxTakenBytes = 96u << 20;

bool isBroken(const AVFrame& frame)
{
    return frame.decode_error_flags != 0 || (frame.flags & AV_FRAME_FLAG_CORRUPT) != 0;
}

} // namespace

bool VideoPipeline::isProven(AVCodecID codec)
{
    switch (codec) {
    case AV_CODEC_ID_H264:
    case AV_CODEC_ID_HEVC:
    case AV_CODEC_ID_MPEG4:
    case AV_CODEC_ID_VP8:
    case AV_CODEC_ID_VP9:
    case AV_CODEC_ID_MPEG2VIDEO:
        return true;
    default:
        return false;
    }
}

VideoPipeline::VideoPipeline(const AVCodecContext& model, const AVStream* stream, int threads)
    : m_stream(stream), m_codec(model.codec), m_clone(makePacket())
{
    const bool frames = (m_codec->capabilities & AV_CODEC_CAP_FRAME_THREADS) != 0;
    m_threadType = frames ? FF_THREAD_FRAME : FF_THREAD_SLICE;
    m_delay = frames ? static_cast<std::size_t>(threads) - 1 : 0;
    m_context = open(threads, m_threadType, model.has_b_frames, Errors::Told);
    if (m_context && m_context->active_thread_type != m_threadType) {
        m_context.reset();
    }
}

CodecContext VideoPipeline::open(int threads, int threadType, int reorderDelay, Errors errors) const
{
    CodecContext context(avcodec_alloc_context3(m_codec));
    if (!context || avcodec_parameters_to_context(context.get(), m_stream->codecpar) < 0) {
        return nullptr;
    }
    context->pkt_timebase = m_stream->time_base;
    context->thread_count = threads;
    context->thread_type = threadType;
    // Learned by the model while it probed; it decides which packet gives which picture.
    context->has_b_frames = reorderDelay;
    // Others conceal alike, and the decoder of MPEG-4 ends the process when it tells.
    if (errors == Errors::Told &&
        (m_codec->id == AV_CODEC_ID_H264 || m_codec->id == AV_CODEC_ID_HEVC)) {
        context->err_recognition |= AV_EF_EXPLODE;
    }
    if (avcodec_open2(context.get(), m_codec, nullptr) < 0) {
        return nullptr;
    }
    return context;
}

VideoPipeline::Answer VideoPipeline::decode(const AVPacket& packet, PacketReader& reader,
                                            AVFrame* picture)
{
    if (packet.size <= 0) {
        return Answer::Unsure;
    }
    if (m_inFlight.empty()) {
        // Without the pictures it refers to, a first picture is guesswork.
        const bool isKey = (packet.flags & AV_PKT_FLAG_KEY) != 0;
        if (m_drained || (m_taken.empty() && !isKey) || !feed(packet)) {
            return Answer::Unsure;
        }
    } else if (m_inFlight.front().packet->data != packet.data) {
        return Answer::Unsure; // fed on trust, and then skipped by the owner
    }
    while (!isDecided()) {
        const AVPacket* next = nullptr;
        switch (reader.ahead(packet.stream_index, m_inFlight.size() - 1, &next)) {
        case PacketReader::Ahead::Found:
            if (next->size <= 0 || !feed(*next)) {
                return Answer::Unsure;
            }
            break;
        case PacketReader::Ahead::EndOfMedium:
            if (!drain()) {
                return Answer::Unsure;
            }
            break;
        case PacketReader::Ahead::OutOfReach:
            return Answer::Unsure;
        }
    }
    InFlight done = std::move(m_inFlight.front());
    m_inFlight.pop_front();
    ++m_frontSequence;
    remember(std::move(done.packet));
    if (!done.picture) {
        return Answer::NoPicture;
    }
    av_frame_unref(picture);
    av_frame_move_ref(picture, done.picture.get());
    return Answer::Picture;
}

/// The answer for the front packet is known once its picture came, or once enough packets were fed
/// behind it that it would have come.
bool VideoPipeline::isDecided() const
{
    return m_inFlight.front().picture || m_inFlight.size() > m_delay || m_drained;
}

bool VideoPipeline::feed(const AVPacket& packet)
{
    if (av_packet_ref(m_clone.get(), &packet) < 0) {
        return false;
    }
    m_clone->dts = m_frontSequence + static_cast<int64_t>(m_inFlight.size());
    m_inFlight.push_back({clonePacket(packet), nullptr});
    const int sent = avcodec_send_packet(m_context.get(), m_clone.get());
    av_packet_unref(m_clone.get());
    return sent >= 0 && collect();
}

/// Takes the pictures that are ready. False when one is broken or belongs to no packet in flight.
bool VideoPipeline::collect()
{
    while (true) {
        Frame frame = makeFrame();
        const int result = avcodec_receive_frame(m_context.get(), frame.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
            return true;
        }
        if (result < 0 || isBroken(*frame)) {
            return false;
        }
        if (frame->pkt_dts == AV_NOPTS_VALUE && m_drained) {
            continue; // one thread would have kept it back
        }
        const int64_t index = frame->pkt_dts - m_frontSequence;
        if (index < 0 || index >= static_cast<int64_t>(m_inFlight.size()) ||
            m_inFlight[static_cast<std::size_t>(index)].picture) {
            return false;
        }
        m_inFlight[static_cast<std::size_t>(index)].picture = std::move(frame);
    }
}

bool VideoPipeline::drain()
{
    m_drained = true;
    return avcodec_send_packet(m_context.get(), nullptr) >= 0 && collect();
}

/// Keeps a taken packet for a retreat, from the key frame before the last one on: the pictures
/// that are shown before a key frame may still refer to the group before it.
void VideoPipeline::remember(Packet packet)
{
    if ((packet->flags & AV_PKT_FLAG_KEY) != 0) {
        const auto isKey = [](const Packet& taken) {
            return (taken->flags & AV_PKT_FLAG_KEY) != 0;
        };
        const auto last = std::find_if(m_taken.rbegin(), m_taken.rend(), isKey);
        if (last != m_taken.rend()) {
            const auto keep = last.base() - 1;
            std::for_each(m_taken.begin(), keep, [this](const Packet& taken) {
                m_takenBytes -= static_cast<std::size_t>(taken->size);
            });
            m_taken.erase(m_taken.begin(), keep);
        }
    }
    m_takenBytes += static_cast<std::size_t>(packet->size);
    m_taken.push_back(std::move(packet));
    while (m_taken.size() > MaxTakenPackets || m_takenBytes > MaxTakenBytes) {
        m_takenBytes -= static_cast<std::size_t>(m_taken.front()->size);
        m_taken.pop_front();
    }
}

void VideoPipeline::flush()
{
    avcodec_flush_buffers(m_context.get());
    m_frontSequence += static_cast<int64_t>(m_inFlight.size());
    m_inFlight.clear();
    m_drained = false;
    if (!m_taken.empty()) {
        m_beforeFlush = std::exchange(m_taken, {});
    }
    m_takenBytes = 0;
}

CodecContext VideoPipeline::retreat()
{
    CodecContext context = open(1, m_threadType, m_context->has_b_frames, Errors::Concealed);
    if (!context) {
        return nullptr;
    }
    const Frame dropped = makeFrame();
    const auto decodeAll = [&](const std::deque<Packet>& packets) {
        for (const Packet& packet : packets) {
            avcodec_send_packet(context.get(), packet.get());
            while (avcodec_receive_frame(context.get(), dropped.get()) >= 0) {
            }
        }
    };
    // A flushed decoder is not a new one: it still knows the headers that came before.
    if (!m_beforeFlush.empty()) {
        decodeAll(m_beforeFlush);
        avcodec_flush_buffers(context.get());
    }
    decodeAll(m_taken);
    return context;
}

} // namespace zel::av
