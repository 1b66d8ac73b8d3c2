#pragma once

#include "plugin/MetadataPacket.h"
#include "tests/encoder/StageRun.h"

#include <string>
#include <vector>

namespace zel::test {

/// Sets a session up that copies made-up packets of 25 pictures a second and of mp2 audio, or of
/// another codec with frames of 1152 samples, at 48 kHz.
/// @param video  codec, as the border names it; empty for none, as the next
inline void copyMadeUp(OutputSession& session, const char* format, const char* video,
                       const char* audio)
{
    session.requestFormat(format);
    session.request.output.multiplexed = true;
    if (*video != '\0') {
        session.inputVideo(video);
        session.input.stream.video.width = 320;
        session.input.stream.video.height = 240;
        session.requestVideo(video, 500000);
    }
    if (*audio != '\0') {
        session.inputAudio(audio);
        session.input.stream.audio.channels = 2;
        session.input.stream.audio.sampleRate = 48000;
        session.requestAudio(audio, 128000, 2, 48000);
    }
}

constexpr unsigned long long MadeUpFrameUs = 40000;
constexpr unsigned long long MadeUpAudioUs = 24000;

inline streamer::SamplePacket* madeUpVideo(unsigned long long timestampUs, bool keyFrame = false,
                                           const std::string& bytes = std::string(50, 'v'))
{
    return samplePacket(streamer::PacketType::Video, bytes, timestampUs, MadeUpFrameUs, keyFrame);
}

inline streamer::SamplePacket* madeUpAudio(unsigned long long timestampUs,
                                           const std::string& bytes = std::string(30, 'a'))
{
    return samplePacket(streamer::PacketType::Audio, bytes, timestampUs, MadeUpAudioUs, true);
}

/// Writes both streams, in time order, up to a time.
/// @param keyEvery  pictures from one key frame to the next
inline void writeMadeUp(FFMpegEncoder& stage, unsigned long long startUs, unsigned long long endUs,
                        int keyEvery = 25, bool hasAudio = true)
{
    unsigned long long audioUs = startUs;
    int picture = 0;
    for (unsigned long long videoUs = startUs; videoUs < endUs; videoUs += MadeUpFrameUs) {
        stage.write(madeUpVideo(videoUs, picture++ % keyEvery == 0));
        for (; hasAudio && audioUs < videoUs + MadeUpFrameUs; audioUs += MadeUpAudioUs) {
            stage.write(madeUpAudio(audioUs));
        }
    }
}

/// The host's request that a file shall begin.
inline streamer::SamplePacket* cutAt(unsigned long long timestampUs)
{
    const streamer::MetadataPacket block("ACTION", "START_NEW_SEGMENT");
    return samplePacket(streamer::PacketType::Metadata,
                        std::string(reinterpret_cast<const char*>(block.getBuffer()),
                                    static_cast<std::size_t>(block.getLength())),
                        timestampUs);
}

/// What the stage tells of finished files.
inline std::vector<Delivered> notices(const std::vector<Delivered>& packets)
{
    return deliveredOf(packets, streamer::PacketType::Notice);
}

} // namespace zel::test
