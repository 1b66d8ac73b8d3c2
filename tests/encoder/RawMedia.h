#pragma once

#include "plugin/PluginTypes.h"
#include "tests/encoder/OutputSession.h"
#include "tests/encoder/StageRun.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <cstdint>
#include <string>
#include <vector>

/// Made-up pictures and tones, sessions that encode them, and decoders for what comes out.

namespace zel::test {

constexpr unsigned long long PeriodUs = 40000; ///< of pictureSession's pictures

/// Raw pictures in, elementary packets out: the codec, 25 pictures a second, 400 kbit/s.
OutputSession pictureSession(const char* codec, int width = 176, int height = 144);

/// Raw 16-bit samples in, elementary packets out.
/// @param inChannels, inRate  of the input; the output's are left open where 0 is passed
OutputSession sampleSession(const char* codec, int bitrate, int inChannels = 2, int inRate = 44100,
                            int outChannels = 0, int outRate = 0);

/// Raw pictures of 64 x 48 and stereo samples in, elementary packets out.
OutputSession rawSession(const char* video = "mpeg4", const char* audio = "ac3");

/// The same in a container.
OutputSession multiplexedSession(const char* format, const char* video = "mpeg4",
                                 const char* audio = "ac3");

/// Compressed streams, which are copied, elementary packets out.
OutputSession copiedSession(const char* video = "h264", const char* audio = "aac");

/// Sets a stage up and ends it.
int initResult(OutputSession& session);

/// What the stage answers.
host::OutputStreamRecord describe(FFMpegEncoder& stage);

/// Bytes of a raw picture.
std::size_t pictureSize(streamer::VideoPixelFormat::Enum format, int width, int height);

/// A picture of random bytes, the same for the same seed.
std::string noisePicture(streamer::VideoPixelFormat::Enum format, int width, int height,
                         unsigned int seed = 1);

/// A planar picture with shapes that move on from index to index, good to encode.
std::string movingPicture(int width, int height, int index);

/// Interleaved 16-bit samples of a sine, the same in all channels.
/// @param first  number of the first sample, so that a tone can come in pieces
std::vector<int16_t> tone(double hertz, int sampleRate, int channels, int samples, int first = 0);

std::string bytesOf(const std::vector<int16_t>& samples);
std::vector<int16_t> samplesOf(const std::string& bytes);

/// The strongest frequency between 50 and 3000 hertz, of one channel.
double frequencyOf(const std::vector<int16_t>& samples, int sampleRate, int channels = 1);

/// The contents of delivered packets of a kind, one behind the other.
std::string joinedBytes(const std::vector<Delivered>& packets, streamer::PacketType::Enum type);

/// The bytes of lower-case hexadecimal text.
std::string bytesOfHexText(const std::string& text);

/// Decodes whole frames, one a packet.
/// @param setUp  the stream's extradata; may be empty
/// @param width, height  as a container would tell them
/// @return planes of each picture, without padding
/// @throws std::runtime_error when the decoder complains
std::vector<std::string> decodePictures(AVCodecID codec, const std::string& setUp, int width,
                                        int height, const std::vector<std::string>& frames);

/// @return interleaved 16-bit samples
/// @throws std::runtime_error when the decoder complains
std::vector<int16_t> decodeSamples(AVCodecID codec, const std::string& setUp, int channels,
                                   int sampleRate, const std::vector<std::string>& frames);

/// How alike two pictures of the same size are, in decibels; 99 for equal ones.
double likeness(const std::string& left, const std::string& right);

} // namespace zel::test
