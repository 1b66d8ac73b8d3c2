#include "common/ffmpeg/PacketReader.h"

extern "C" {
#include <libavutil/common.h>
}

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

int PacketReader::seek(int64_t timestamp, int flags)
{
    const int result = av_seek_frame(m_context, -1, timestamp, flags);
    if (result < 0) {
        return result;
    }
    m_queue.clear();
    m_queueBytes = 0;
    m_error = 0;
    m_last.clear();
    m_neverStamped = false;
    return result;
}

void PacketReader::markPlace()
{
    const auto isKnown = [](const LastPacket& last) { return last.isKnown; };
    if (m_error == 0 && std::none_of(m_last.begin(), m_last.end(), isKnown)) {
        fetch();
    }
}

void PacketReader::resume()
{
    int oldest = -1;
    int64_t oldestUs = AV_NOPTS_VALUE;
    for (int i = 0; i < static_cast<int>(m_last.size()); ++i) {
        const LastPacket& last = m_last[static_cast<std::size_t>(i)];
        const int64_t time = last.dts != AV_NOPTS_VALUE ? last.dts : last.pts;
        if (!last.isKnown || time == AV_NOPTS_VALUE) {
            continue;
        }
        if (oldest < 0 || timeUs(i, time) < oldestUs) {
            oldest = i;
            oldestUs = timeUs(i, time);
        }
    }
    if (oldest < 0) {
        return;
    }
    // Some demuxers know no decoding times for a few packets behind a seek, so the seek has to go
    // back far enough that they are known again where reading goes on.
    const int64_t start = m_context->start_time == AV_NOPTS_VALUE ? 0 : m_context->start_time;
    for (const int64_t backUs : {int64_t{0}, int64_t{1000000}, int64_t{8000000}}) {
        const int64_t fromUs = av_sat_sub64(oldestUs, backUs);
        if (fromUs > start && skipToLastPackets(oldest, fromUs)) {
            return;
        }
    }
    skipToLastPackets(oldest, start);
}

/// A demuxer finds the place by the one stream, and may leave packets of others out that lie just
/// before it; so the stream that has to go back farthest leads.
int PacketReader::seekBack(int streamIndex, int64_t targetUs)
{
    const AVRational microseconds = {1, AV_TIME_BASE};
    if (streamIndex >= 0 &&
        av_seek_frame(m_context, streamIndex,
                      av_rescale_q(targetUs, microseconds, timeBase(streamIndex)),
                      AVSEEK_FLAG_BACKWARD) >= 0) {
        return 0;
    }
    return av_seek_frame(m_context, -1, targetUs, AVSEEK_FLAG_BACKWARD);
}

int64_t PacketReader::timeUs(int streamIndex, int64_t time) const
{
    return av_rescale_q(time, timeBase(streamIndex), AVRational{1, AV_TIME_BASE});
}

/// Seeks and reads on until the last packet of each stream has come again. What follows a stream's
/// last packet by then goes into the queue.
/// @return false with nothing queued when the packets came without the times they had
bool PacketReader::skipToLastPackets(int streamIndex, int64_t fromUs)
{
    if (seekBack(streamIndex, fromUs) < 0) {
        return false;
    }
    std::vector<LastPacket> wanted = m_last;
    wanted.resize(m_context->nb_streams);
    const auto isWanted = [](const LastPacket& last) { return last.isKnown; };
    std::vector<Packet> behind;
    std::size_t behindBytes = 0;
    while (std::any_of(wanted.begin(), wanted.end(), isWanted) &&
           behind.size() < MaxQueuedPackets && behindBytes < MaxQueuedBytes) {
        Packet packet = makePacket();
        if (av_read_frame(m_context, packet.get()) < 0) {
            break;
        }
        const auto index = static_cast<std::size_t>(packet->stream_index);
        const bool isNew = index >= m_last.size() || !m_last[index].isKnown;
        if (isNew && wanted[m_newestStream].isKnown) {
            continue; // lies before the very last packet, so the reader was never to have it
        }
        if (index < wanted.size() && wanted[index].isKnown) {
            const Place place = placeOf(*packet, wanted[index]);
            if (place == Place::SameWithoutTime) {
                return false;
            }
            wanted[index].isKnown = place == Place::Before;
            if (place != Place::Behind) {
                continue;
            }
        }
        behindBytes += static_cast<std::size_t>(packet->size);
        behind.push_back(std::move(packet));
    }
    for (Packet& packet : behind) {
        note(*packet);
        handOutAgain(std::move(packet));
    }
    return true;
}

PacketReader::Place PacketReader::placeOf(const AVPacket& packet, const LastPacket& last)
{
    const bool hasTime = packet.dts != AV_NOPTS_VALUE;
    if (hasTime && last.dts != AV_NOPTS_VALUE) {
        return packet.dts < last.dts    ? Place::Before
               : packet.dts == last.dts ? Place::Same
                                        : Place::Behind;
    }
    const bool isSame =
        packet.pos == last.position && packet.size == last.size && packet.pts == last.pts;
    if (!isSame) {
        return Place::Before;
    }
    return hasTime || last.dts == AV_NOPTS_VALUE ? Place::Same : Place::SameWithoutTime;
}

/// Reads one packet from the demuxer to the end of the queue, or stores the demuxer's error.
int PacketReader::fetch()
{
    const int result = av_read_frame(m_context, m_scratch.get());
    if (result < 0) {
        av_packet_unref(m_scratch.get());
        m_error = result;
        return result;
    }
    note(*m_scratch);
    Packet packet = makePacket();
    av_packet_move_ref(packet.get(), m_scratch.get());
    handOutAgain(std::move(packet));
    return 0;
}

/// Keeps what resume() recognises the streams' last packets by.
void PacketReader::note(const AVPacket& packet)
{
    const auto index = static_cast<std::size_t>(packet.stream_index);
    if (index >= m_last.size()) {
        m_last.resize(index + 1);
    }
    m_last[index] = {true, packet.dts, packet.pts, packet.pos, packet.size};
    m_newestStream = index;
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
