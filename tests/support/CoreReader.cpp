#include "tests/support/CoreReader.h"

#include "tests/support/TestFolders.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string_view>

namespace zel::test {

std::string clipPath(const std::string& name)
{
    std::string path = mediaFolder() + "/" + name;
    if (!std::filesystem::exists(path)) {
        throw std::runtime_error("no clip " + path);
    }
    return path;
}

void PrintTo(const Sample& sample, std::ostream* out)
{
    *out << (sample.isVideo()   ? "video "
             : sample.isAudio() ? "audio "
                                : "notice ")
         << sample.timestampUs << "+" << sample.durationUs << (sample.keyFrame ? " key " : " ")
         << sample.size << " bytes " << std::hex << sample.hash << std::dec;
}

std::optional<Sample> readSample(FFMpegDecoderCore& core, Keep keep)
{
    Sample sample;
    unsigned char* data = nullptr;
    void* context = nullptr;
    if (!core.decodeFromMedium(sample.type, data, sample.size, sample.timestampUs,
                               sample.durationUs, context, sample.keyFrame)) {
        return std::nullopt;
    }
    const std::unique_ptr<unsigned char[]> owner(data);
    if (data != nullptr) {
        const std::string_view bytes(reinterpret_cast<const char*>(data), sample.size);
        sample.hash = std::hash<std::string_view>()(bytes);
        if (keep == Keep::Bytes) {
            sample.bytes = bytes;
        }
    }
    return sample;
}

std::vector<Sample> readSamples(FFMpegDecoderCore& core, std::size_t most, Keep keep)
{
    std::vector<Sample> samples;
    while (samples.size() < most) {
        std::optional<Sample> sample = readSample(core, keep);
        if (!sample) {
            break;
        }
        samples.push_back(std::move(*sample));
    }
    return samples;
}

std::vector<Sample> videoOf(const std::vector<Sample>& samples)
{
    std::vector<Sample> video;
    std::copy_if(samples.begin(), samples.end(), std::back_inserter(video),
                 [](const Sample& sample) { return sample.isVideo(); });
    return video;
}

std::vector<Sample> audioOf(const std::vector<Sample>& samples)
{
    std::vector<Sample> audio;
    std::copy_if(samples.begin(), samples.end(), std::back_inserter(audio),
                 [](const Sample& sample) { return sample.isAudio(); });
    return audio;
}

std::vector<unsigned long long> timesOf(const std::vector<Sample>& samples)
{
    std::vector<unsigned long long> times;
    std::transform(samples.begin(), samples.end(), std::back_inserter(times),
                   [](const Sample& sample) { return sample.timestampUs; });
    return times;
}

void expectSameSamples(const std::vector<Sample>& actual, const std::vector<Sample>& expected,
                       const std::string& what)
{
    EXPECT_EQ(actual.size(), expected.size()) << what;
    const auto common = static_cast<std::ptrdiff_t>(std::min(actual.size(), expected.size()));
    const auto [mine, theirs] =
        std::mismatch(actual.begin(), actual.begin() + common, expected.begin());
    if (mine != actual.begin() + common) {
        EXPECT_EQ(*mine, *theirs) << what << ", sample " << mine - actual.begin();
    }
}

} // namespace zel::test
