#pragma once

#include "input/FFMpegDecoderCore.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace zel::test {

/// Path of a generated clip.
/// @throws std::runtime_error when it is not there
std::string clipPath(const std::string& name);

/// What one call of decodeFromMedium delivered.
struct Sample
{
    zel::streamer::PacketType::Enum type = zel::streamer::PacketType::None;
    unsigned int size = 0;
    std::size_t hash = 0; ///< of the bytes
    unsigned long long timestampUs = 0;
    unsigned long long durationUs = 0;
    bool keyFrame = false;
    std::string bytes; ///< kept on request only

    bool isVideo() const { return type == zel::streamer::PacketType::Video; }
    bool isAudio() const { return type == zel::streamer::PacketType::Audio; }
    bool isNotice() const { return type == zel::streamer::PacketType::Notice; }
    bool operator==(const Sample&) const = default;
};

/// "video 40000+40000 key 153600 bytes 1f2e...", for the messages of tests.
void PrintTo(const Sample& sample, std::ostream* out);

enum class Keep
{
    Hashes,
    Bytes
};

/// One call of decodeFromMedium; nothing at the end of the medium.
std::optional<Sample> readSample(FFMpegDecoderCore& core, Keep keep = Keep::Hashes);

/// Reads to the end of the medium, or until `most` samples came.
std::vector<Sample> readSamples(FFMpegDecoderCore& core, std::size_t most = SIZE_MAX,
                                Keep keep = Keep::Hashes);

std::vector<Sample> videoOf(const std::vector<Sample>& samples);
std::vector<Sample> audioOf(const std::vector<Sample>& samples);
std::vector<unsigned long long> timesOf(const std::vector<Sample>& samples);

/// Fails the test unless both runs delivered the same; names the first samples that differ.
void expectSameSamples(const std::vector<Sample>& actual, const std::vector<Sample>& expected,
                       const std::string& what);

} // namespace zel::test
