#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <cstdint>
#include <string>
#include <vector>

namespace zel::test {

/// A packet of a clip as the demuxer gives it.
struct ClipPacket
{
    int stream = 0;
    int64_t dts = 0; ///< time base of the stream; AV_NOPTS_VALUE when unset
    int64_t pts = 0;
    int64_t duration = 0;
    bool key = false;
    std::string bytes;
};

/// The packets of a clip, read past all the code under test.
struct ClipPackets
{
    std::vector<ClipPacket> packets;
    int videoStream = -1;
    int audioStream = -1;
    AVRational videoTimeBase{0, 1};
    AVRational audioTimeBase{0, 1};
    AVCodecID videoCodec = AV_CODEC_ID_NONE;
    std::string videoExtradata;
    int64_t startTimeUs = 0; ///< AV_NOPTS_VALUE when unset

    std::vector<ClipPacket> video() const { return of(videoStream); }
    std::vector<ClipPacket> audio() const { return of(audioStream); }
    std::vector<ClipPacket> of(int stream) const;
};

/// @throws std::runtime_error when FFmpeg cannot open it
ClipPackets readClipPackets(const std::string& path);

} // namespace zel::test
