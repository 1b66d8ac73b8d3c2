#include "tests/support/MediaReference.h"

#include "tests/support/RunProgram.h"
#include "tests/support/TempFolder.h"

extern "C" {
#include <libavutil/md5.h>
}

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace zel::test {

namespace {

using nlohmann::json;

/// ffprobe writes some numbers as texts, and leaves out what it does not know.
std::optional<int64_t> integer(const json& object, const char* key)
{
    const auto found = object.find(key);
    if (found == object.end()) {
        return std::nullopt;
    }
    if (found->is_number()) {
        return found->get<int64_t>();
    }
    return std::strtoll(found->get<std::string>().c_str(), nullptr, 10);
}

std::optional<double> real(const json& object, const char* key)
{
    const auto found = object.find(key);
    if (found == object.end()) {
        return std::nullopt;
    }
    return std::strtod(found->get<std::string>().c_str(), nullptr);
}

ProbedStream readStream(const json& object)
{
    ProbedStream stream;
    stream.index = object.at("index").get<int>();
    stream.type = object.value("codec_type", "");
    stream.codec = object.value("codec_name", "");
    stream.decoderDelay = object.value("has_b_frames", 0);
    std::sscanf(object.value("time_base", "0/1").c_str(), "%d/%d", &stream.timeBaseNum,
                &stream.timeBaseDen);
    stream.width = object.value("width", 0);
    stream.height = object.value("height", 0);
    stream.sampleRate = static_cast<int>(integer(object, "sample_rate").value_or(0));
    stream.channels = object.value("channels", 0);
    stream.bitrate = integer(object, "bit_rate").value_or(0);
    if (object.contains("disposition")) {
        stream.isCover = object["disposition"].value("attached_pic", 0) != 0;
    }
    stream.packetCount = integer(object, "nb_frames");
    return stream;
}

ProbedPacket readPacket(const json& object)
{
    ProbedPacket packet;
    packet.stream = object.at("stream_index").get<int>();
    packet.pts = integer(object, "pts");
    packet.dts = integer(object, "dts");
    packet.duration = integer(object, "duration").value_or(0);
    packet.size = static_cast<int>(integer(object, "size").value_or(0));
    const std::string flags = object.value("flags", "");
    packet.isKey = flags.find('K') != std::string::npos;
    packet.isDiscarded = flags.find('D') != std::string::npos;
    return packet;
}

std::vector<std::string> ffmpegWords(std::initializer_list<std::string> more)
{
    std::vector<std::string> words = {"ffmpeg",  "-nostdin",    "-hide_banner", "-v",
                                      "error",   "-y",          "-threads",     "1",
                                      "-flags2", "+skip_manual"};
    words.insert(words.end(), more);
    return words;
}

std::string mapOf(int stream)
{
    return "0:" + std::to_string(stream);
}

/// Output options: the library's scaling, and a line for each picture.
const std::vector<std::string> ScaleAndHash = {"-vf",
                                               "scale=flags=bilinear,format=yuyv422",
                                               "-fps_mode",
                                               "passthrough",
                                               "-enc_time_base",
                                               "-1",
                                               "-f",
                                               "framemd5",
                                               "-"};

std::vector<ReferencePicture> readHashes(const std::string& text)
{
    std::vector<ReferencePicture> pictures;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        // stream, dts, pts, duration, size, md5
        long long dts = 0;
        long long pts = 0;
        long long duration = 0;
        int size = 0;
        char md5[64] = "";
        if (std::sscanf(line.c_str(), "0, %lld, %lld, %lld, %d, %63s", &dts, &pts, &duration, &size,
                        md5) == 5) {
            pictures.push_back({pts, size, md5});
        }
    }
    return pictures;
}

} // namespace

const ProbedStream* ProbedMedium::first(const std::string& type) const
{
    const auto found =
        std::find_if(streams.begin(), streams.end(), [&type](const ProbedStream& stream) {
            return stream.type == type && !stream.isCover;
        });
    return found == streams.end() ? nullptr : &*found;
}

std::optional<ProbedMedium> probeMedium(const std::string& path)
{
    const ProgramResult run = runProgram({"ffprobe", "-v", "error", "-of", "json", "-show_format",
                                          "-show_streams", "-show_packets", path});
    const json root = json::parse(run.out, nullptr, false);
    if (root.is_discarded() || !root.contains("format")) {
        return std::nullopt;
    }
    ProbedMedium medium;
    medium.format = root["format"].value("format_name", "");
    medium.durationS = real(root["format"], "duration");
    medium.startS = real(root["format"], "start_time").value_or(0.0);
    for (const json& stream : root.value("streams", json::array())) {
        medium.streams.push_back(readStream(stream));
    }
    for (const json& packet : root.value("packets", json::array())) {
        medium.packets.push_back(readPacket(packet));
    }
    return medium;
}

std::vector<ReferencePicture> referencePictures(const std::string& path, int stream)
{
    std::vector<std::string> words = ffmpegWords({"-copyts", "-i", path, "-map", mapOf(stream)});
    words.insert(words.end(), ScaleAndHash.begin(), ScaleAndHash.end());
    const ProgramResult run = runProgram(words);
    EXPECT_TRUE(run.succeeded()) << path << ": " << run.describe();
    return readHashes(run.out);
}

std::string referencePlanes(const std::string& path, int stream)
{
    ProgramResult run =
        runProgram(ffmpegWords({"-i", path, "-map", mapOf(stream), "-fps_mode", "passthrough",
                                "-pix_fmt", "yuv420p", "-f", "rawvideo", "-"}));
    EXPECT_TRUE(run.succeeded()) << path << ": " << run.describe();
    return std::move(run.out);
}

std::vector<ReferencePicture> scalePlanes(const std::string& planes, int width, int height)
{
    const TempFolder folder;
    const std::string file = folder.path("planes.yuv");
    writeFile(file, planes);
    std::vector<std::string> words =
        ffmpegWords({"-f", "rawvideo", "-pixel_format", "yuv420p", "-video_size",
                     std::to_string(width) + "x" + std::to_string(height), "-i", file});
    words.insert(words.end(), ScaleAndHash.begin(), ScaleAndHash.end());
    const ProgramResult run = runProgram(words);
    EXPECT_TRUE(run.succeeded()) << run.describe();
    return readHashes(run.out);
}

std::string referenceSamples(const std::string& path, int stream, const std::string& decoder,
                             int bits, bool fromZero)
{
    const TempFolder folder;
    std::string source = path;
    int index = stream;
    if (fromZero) {
        // A copy without the packets that lie before the start.
        source = folder.path("from_zero.nut");
        index = 0;
        const ProgramResult cut = runProgram(
            ffmpegWords({"-i", path, "-map", mapOf(stream), "-c", "copy", "-copyts", "-bsf:a",
                         "noise=drop=lt(pts\\,0)*lt(dts\\,0)", "-f", "nut", source}));
        EXPECT_TRUE(cut.succeeded()) << path << ": " << cut.describe();
    }
    std::vector<std::string> words = ffmpegWords({});
    if (!decoder.empty()) {
        words.insert(words.end(), {"-c:a", decoder});
    }
    const std::string format = bits == 8 ? "u8" : bits == 32 ? "s32" : "s16";
    words.insert(words.end(), {"-i", source, "-map", mapOf(index), "-c:a",
                               bits == 8 ? "pcm_u8" : "pcm_" + format + "le", "-f",
                               bits == 8 ? format : format + "le", "-"});
    ProgramResult run = runProgram(words);
    EXPECT_TRUE(run.succeeded()) << path << ": " << run.describe();
    return std::move(run.out);
}

std::string md5Of(const void* data, std::size_t size)
{
    unsigned char digest[16];
    av_md5_sum(digest, static_cast<const uint8_t*>(data), size);
    std::string text;
    for (const unsigned char byte : digest) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

} // namespace zel::test
