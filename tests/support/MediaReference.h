#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What the ffmpeg and ffprobe command lines find in a medium: the independent opinion that the
/// tests compare the library with. All of it decodes with one thread.

namespace zel::test {

struct ProbedStream
{
    int index = -1;
    std::string type; ///< "video", "audio", "data", "subtitle"
    std::string codec;
    int decoderDelay = 0; ///< pictures that the decoder holds back, has_b_frames
    int timeBaseNum = 0;
    int timeBaseDen = 1;
    int width = 0;
    int height = 0;
    int sampleRate = 0;
    int channels = 0;
    long long bitrate = 0; ///< bits per second
    bool isCover = false;
    std::optional<long long> packetCount; ///< as the container tells it
};

struct ProbedPacket
{
    int stream = -1;
    std::optional<int64_t> pts; ///< stream time base, as the next two
    std::optional<int64_t> dts;
    int64_t duration = 0;
    int size = 0;
    bool isKey = false;
    bool isDiscarded = false; ///< outside the edit list
};

struct ProbedMedium
{
    std::string format;
    std::optional<double> durationS;
    double startS = 0.0;
    std::vector<ProbedStream> streams;
    std::vector<ProbedPacket> packets; ///< in the order of the demuxer

    /// The first stream of a type that is not a cover picture; null without one.
    const ProbedStream* first(const std::string& type) const;
};

/// @return nothing when ffprobe cannot open the medium
std::optional<ProbedMedium> probeMedium(const std::string& path);

struct ReferencePicture
{
    int64_t pts = 0; ///< stream time base; as ffmpeg numbers it where the medium has none
    int size = 0;    ///< bytes
    std::string md5;
};

/// Every picture of a video stream, in the order of presentation, scaled by the bilinear algorithm
/// to packed YUYV 4:2:2. What the decoder held back to the end is there as well.
/// @param stream  index in the medium
std::vector<ReferencePicture> referencePictures(const std::string& path, int stream);

/// The decoded pictures of a video stream as they are, planar YUV 4:2:0, one behind the other.
std::string referencePlanes(const std::string& path, int stream);

/// Scales such pictures as referencePictures() does.
std::vector<ReferencePicture> scalePlanes(const std::string& planes, int width, int height);

/// All samples of an audio stream, interleaved, with encoder padding left in.
/// @param decoder  ffmpeg's name of the decoder; empty takes its own choice
/// @param bits     8, 16 or 32
/// @param fromZero leaves packets before time 0 out, so that the decoder never sees them
std::string referenceSamples(const std::string& path, int stream, const std::string& decoder,
                             int bits, bool fromZero = false);

/// MD5 in hexadecimal.
std::string md5Of(const void* data, std::size_t size);

} // namespace zel::test
