#include "common/ffmpeg/PacketReader.h"

#include <algorithm>
#include <utility>

namespace zel::av {
namespace {

// Enough for every real interleaving; a medium beyond it is read one packet at a time.
constexpr std::size_t MaxQueuedPackets = 1024;
constexpr std::size_t MaxQueuedBytes = 48u << 20;

void addTo(int64_t& stamp, int64_t offset)
{
    if (stamp != AV_NOPTS_VALUE) {
        stamp += offset;
    }
}

} // namespace

PacketReader::PacketReader(AVFormatContext* context) : m_context(context), m_scratch(makePacket())
{
}

int PacketReader::read(AVPacket* packet)
{
    if (m_copiedVideo >= 0) {
        completeCopiedStamps();
    }
    if (m_queue.empty()) {
        if (m_error == 0) {
            fetch();
        }
        if (m_queue.empty()) {
            return std::exchange(m_error, 0);
        }
    }
    m_queueBytes -= static_cast<std::size_t>(m_queue.front()->size);
    av_packet_move_ref(packet, m_queue.front().get());
    m_queue.pop_front();
    if (m_copiedVideo >= 0) {
        shift(*packet);
    }
    return 0;
}

PacketReader::Ahead PacketReader::ahead(int streamIndex, std::size_t n, const AVPacket** packet)
{
    std::size_t index = 0;
    while (true) {
        for (; index < m_queue.size(); ++index) {
            if (m_queue[index]->stream_index == streamIndex && n-- == 0) {
                *packet = m_queue[index].get();
                return Ahead::Found;
            }
        }
        if (m_error != 0) {
            return Ahead::EndOfMedium;
        }
        if (m_queue.size() >= MaxQueuedPackets || m_queueBytes >= MaxQueuedBytes) {
            return Ahead::OutOfReach;
        }
        fetch();
    }
}

void PacketReader::handOutAgain(Packet packet)
{
    m_queueBytes += static_cast<std::size_t>(packet->size);
    m_queue.push_back(std::move(packet));
}

void PacketReader::clear()
{
    m_queue.clear();
    m_queueBytes = 0;
    m_error = 0;
    m_dropUntil.clear();
    m_neverStamped = false;
}

void PacketReader::resume()
{
    int64_t earliestUs = AV_NOPTS_VALUE;
    for (std::size_t i = 0; i < m_lastDts.size(); ++i) {
        if (m_lastDts[i] == AV_NOPTS_VALUE) {
            continue;
        }
        const int64_t us =
            av_rescale_q(m_lastDts[i], timeBase(static_cast<int>(i)), AVRational{1, AV_TIME_BASE});
        earliestUs = earliestUs == AV_NOPTS_VALUE ? us : std::min(earliestUs, us);
    }
    if (earliestUs == AV_NOPTS_VALUE) {
        const int64_t start = m_context->start_time;
        av_seek_frame(m_context, -1, start == AV_NOPTS_VALUE ? 0 : start, AVSEEK_FLAG_BACKWARD);
        return;
    }
    if (av_seek_frame(m_context, -1, earliestUs, AVSEEK_FLAG_BACKWARD) >= 0) {
        m_dropUntil = m_lastDts;
    }
}

/// Reads one packet from the demuxer to the end of the queue, or stores the demuxer's error.
int PacketReader::fetch()
{
    while (true) {
        const int result = av_read_frame(m_context, m_scratch.get());
        if (result < 0) {
            av_packet_unref(m_scratch.get());
            m_error = result;
            return result;
        }
        if (!isOld(*m_scratch)) {
            break;
        }
        av_packet_unref(m_scratch.get());
    }
    Packet packet = makePacket();
    av_packet_move_ref(packet.get(), m_scratch.get());
    handOutAgain(std::move(packet));
    return 0;
}

/// Keeps the streams' last decoding times, and tells whether a packet came before resume() already.
bool PacketReader::isOld(const AVPacket& packet)
{
    const auto index = static_cast<std::size_t>(packet.stream_index);
    if (index < m_dropUntil.size() && m_dropUntil[index] != AV_NOPTS_VALUE) {
        if (packet.dts == AV_NOPTS_VALUE || packet.dts <= m_dropUntil[index]) {
            return true;
        }
        m_dropUntil[index] = AV_NOPTS_VALUE;
    }
    if (index >= m_lastDts.size()) {
        m_lastDts.resize(index + 1, AV_NOPTS_VALUE);
    }
    if (packet.dts != AV_NOPTS_VALUE) {
        m_lastDts[index] = packet.dts;
    }
    return false;
}

/// Sees to it that the next packet has its decoding time, and that the shift is known.
void PacketReader::completeCopiedStamps()
{
    if (m_queue.empty() && (m_error != 0 || fetch() < 0)) {
        return;
    }
    const AVPacket& next = *m_queue.front();
    const bool lacksDts = next.stream_index == m_copiedVideo && next.dts == AV_NOPTS_VALUE;
    if (m_neverStamped || (m_shiftKnown && !lacksDts)) {
        return;
    }
    std::size_t known = 0;
    const AVPacket* packet = nullptr;
    Ahead found = ahead(m_copiedVideo, 0, &packet);
    while (found == Ahead::Found && packet->dts == AV_NOPTS_VALUE) {
        found = ahead(m_copiedVideo, ++known, &packet);
    }
    if (found != Ahead::Found) {
        m_neverStamped = true;
        return;
    }
    fillFirstDts(known);
    if (!m_shiftKnown) {
        ahead(m_copiedVideo, 0, &packet);
        m_shift = std::max<int64_t>(0, -packet->dts);
        m_shiftKnown = true;
    }
}

/// Counts back from the known-th video packet in the queue, the first one with a decoding time.
void PacketReader::fillFirstDts(std::size_t known)
{
    std::vector<AVPacket*> video;
    for (const Packet& packet : m_queue) {
        if (packet->stream_index == m_copiedVideo && video.size() <= known) {
            video.push_back(packet.get());
        }
    }
    const AVStream* stream = m_context->streams[m_copiedVideo];
    int64_t frame = 0;
    if (stream->avg_frame_rate.num > 0 && stream->avg_frame_rate.den > 0) {
        frame = av_rescale_q(1, av_inv_q(stream->avg_frame_rate), stream->time_base);
    }
    for (std::size_t i = known; i-- > 0;) {
        const int64_t duration = video[i]->duration > 0 ? video[i]->duration : frame;
        video[i]->dts = video[i + 1]->dts - duration;
    }
}

void PacketReader::shift(AVPacket& packet) const
{
    if (m_shift == 0) {
        return;
    }
    const int64_t offset =
        av_rescale_q(m_shift, timeBase(m_copiedVideo), timeBase(packet.stream_index));
    addTo(packet.pts, offset);
    addTo(packet.dts, offset);
}

AVRational PacketReader::timeBase(int streamIndex) const
{
    return m_context->streams[streamIndex]->time_base;
}

} // namespace zel::av
