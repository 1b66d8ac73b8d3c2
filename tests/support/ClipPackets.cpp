#include "tests/support/ClipPackets.h"

#include "common/ffmpeg/Handles.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace zel::test {

std::vector<ClipPacket> ClipPackets::of(int stream) const
{
    std::vector<ClipPacket> found;
    std::copy_if(packets.begin(), packets.end(), std::back_inserter(found),
                 [stream](const ClipPacket& packet) { return packet.stream == stream; });
    return found;
}

ClipPackets readClipPackets(const std::string& path)
{
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) < 0) {
        throw std::runtime_error("cannot open " + path);
    }
    const av::FormatContext context(raw);
    if (avformat_find_stream_info(raw, nullptr) < 0) {
        throw std::runtime_error("cannot read " + path);
    }
    ClipPackets clip;
    clip.startTimeUs = raw->start_time;
    clip.videoStream = av_find_best_stream(raw, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    clip.audioStream = av_find_best_stream(raw, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (clip.videoStream >= 0) {
        const AVStream* stream = raw->streams[clip.videoStream];
        clip.videoTimeBase = stream->time_base;
        clip.videoCodec = stream->codecpar->codec_id;
        clip.videoExtradata.assign(reinterpret_cast<const char*>(stream->codecpar->extradata),
                                   static_cast<std::size_t>(stream->codecpar->extradata_size));
    }
    if (clip.audioStream >= 0) {
        clip.audioTimeBase = raw->streams[clip.audioStream]->time_base;
    }
    const av::Packet packet = av::makePacket();
    while (av_read_frame(raw, packet.get()) >= 0) {
        clip.packets.push_back({packet->stream_index, packet->dts, packet->pts, packet->duration,
                                (packet->flags & AV_PKT_FLAG_KEY) != 0,
                                std::string(reinterpret_cast<const char*>(packet->data),
                                            static_cast<std::size_t>(packet->size))});
        av_packet_unref(packet.get());
    }
    return clip;
}

} // namespace zel::test
