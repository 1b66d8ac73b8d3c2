#include "plugin/Vocabulary.h"
#include "tests/input/DeliveryRules.h"
#include "tests/support/MediaReference.h"
#include "tests/support/RunProgram.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestFolders.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <map>
#include <string>
#include <vector>

using namespace zel::test;
using nlohmann::json;

namespace {

constexpr int Shares = 8; // of the corpus, played side by side
constexpr std::chrono::minutes TimeLimit{4};
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr const char* MemoryLimitMiB = nullptr; // the sanitizers reserve more than there is
#else
constexpr const char* MemoryLimitMiB = "4096";
#endif

/// Media that ffprobe opens and the library does not.
const std::map<std::string, const char*> NotPlayed = {
    {"google-AFL__ffmpeg-h264-call-stack-overflow.mp4", "there is a data stream and nothing else"},
    {"androidx-media__full_blocks.mkv", "there are subtitles and nothing else"},
    {"androidx-media__sample_ac4_protected.mp4", "FFmpeg has no decoder for AC-4"},
    {"androidx-media__sample_mhm1_bl_cicp1.mp4", "FFmpeg has no decoder for MPEG-H audio"},
    {"androidx-media__sample_mhm1_lcbl_cicp1.mp4", "FFmpeg has no decoder for MPEG-H audio"},
    {"androidx-media__5p1_iamf_opus.mp4", "FFmpeg has no decoder for IAMF"},
    {"Zeugma440-atldotnet__adif_CBR88_8s.aac",
     "its header is of a kind that FFmpeg reads as 40 channels, and at most 18 are played"},
};

/// Packets from which no frame comes, beyond those that the rules of delivery leave out.
struct Lost
{
    int pictures;
    int audioFrames;
    const char* reason;
};
const std::map<std::string, Lost> LostFrames = {
    {"androidx-media__sample_edit_list_only_preroll_sync_sample.mp4",
     {16, 0, "the only key frame lies before time 0, where packets are left out"}},
    {"androidx-media__bear-id3.mp3", {0, 1, "the last packet is cut off"}},
    {"Zeugma440-atldotnet__wma.wma", {0, 24, "FFmpeg decodes every other packet of this kind"}},
    {"Zeugma440-atldotnet__date_in_year.wma",
     {0, 24, "FFmpeg decodes every other packet of this kind"}},
};

/// Media whose manifest counts the frames of several streams in one number.
const std::vector<std::string> CountedTogether = {"meta-pytorch-torchcodec__nasa_13013.mp4"};

struct Clip
{
    std::string path;
    std::string name;
    json told; ///< its entry in the manifest
};

std::vector<Clip> clipsOf(int share)
{
    const json manifest = json::parse(readFile(corpusFolder() + "/manifest.json"));
    std::vector<Clip> clips;
    for (std::size_t i = static_cast<std::size_t>(share); i < manifest.size(); i += Shares) {
        const std::string file = manifest[i].at("file");
        clips.push_back(
            {corpusFolder() + "/" + file, file.substr(file.rfind('/') + 1), manifest[i]});
    }
    return clips;
}

/// Plays a clip in a process of its own and reads what that tells.
json play(const Clip& clip)
{
    std::vector<std::string> words = {ZEL_PLAY_CHILD, clip.path};
    if (MemoryLimitMiB != nullptr) {
        words.emplace_back(MemoryLimitMiB);
    }
    const ProgramResult run = runProgram(words, TimeLimit);
    EXPECT_TRUE(run.succeeded()) << run.describe();
    return json::parse(run.out, nullptr, false);
}

/// A codec of the manifest, as the library names it to the host.
std::string codecName(const std::string& name)
{
    if (avcodec_find_decoder_by_name(name.c_str()) != nullptr) {
        return zel::streamer::FFMpegCodecToZelCodec(name.c_str());
    }
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get_by_name(name.c_str());
    const AVCodec* decoder = descriptor ? avcodec_find_decoder(descriptor->id) : nullptr;
    return zel::streamer::FFMpegCodecToZelCodec(decoder ? decoder->name : name.c_str());
}

/// Whether the manifest lists a stream like the one that is played.
bool listsStream(const Clip& clip, const std::string& type, const json& played)
{
    return std::any_of(
        clip.told.at("streams").begin(), clip.told.at("streams").end(), [&](const json& stream) {
            if (stream.at("type") != type || !stream.contains("codec") ||
                codecName(stream["codec"]) != played.at("codec")) {
                return false;
            }
            return type == "video" ? stream.value("width", 0) == played.at("width") &&
                                         stream.value("height", 0) == played.at("height")
                                   : stream.value("sample_rate", 0) == played.at("sampleRate") &&
                                         stream.value("channels", 0) == played.at("channels");
        });
}

void expectStreams(const Clip& clip, const Selection& selection, const json& told)
{
    EXPECT_EQ(told.contains("video"), selection.video >= 0);
    EXPECT_EQ(told.contains("audio"), selection.audio >= 0);
    for (const char* type : {"video", "audio"}) {
        if (told.contains(type)) {
            EXPECT_TRUE(listsStream(clip, type, told[type])) << told[type];
        }
    }
}

void expectFrames(const Clip& clip, const ProbedMedium& medium, const Selection& selection,
                  const json& frames)
{
    const std::vector<ExpectedFrame> expected = expectedDelivery(medium, selection);
    const auto pictures =
        static_cast<int>(std::count_if(expected.begin(), expected.end(),
                                       [](const ExpectedFrame& frame) { return frame.isVideo; }));
    const auto audioFrames = static_cast<int>(expected.size()) - pictures;
    const auto lost = LostFrames.find(clip.name);
    const Lost less = lost == LostFrames.end() ? Lost{0, 0, ""} : lost->second;
    EXPECT_EQ(frames.at("pictures"), pictures - less.pictures) << less.reason;
    EXPECT_EQ(frames.at("audioFrames"), audioFrames - less.audioFrames) << less.reason;
    EXPECT_EQ(frames.at("notices"), 0);

    // The manifest's decoder was drained at the end and saw what lies before time 0.
    if (selection.video >= 0 && std::find(CountedTogether.begin(), CountedTogether.end(),
                                          clip.name) == CountedTogether.end()) {
        const int more = countLeftOut(medium, selection.video) +
                         medium.streams[static_cast<std::size_t>(selection.video)].decoderDelay;
        EXPECT_EQ(pictures, std::max(0, clip.told.at("video_frames").get<int>() - more));
    }
}

class Corpus : public testing::TestWithParam<int>
{
protected:
    void SetUp() override
    {
        if (corpusFolder().empty()) {
            GTEST_SKIP() << "no folder of third-party media: ZEL_CORPUS is not set";
        }
    }
};

} // namespace

TEST_P(Corpus, CleanClipsPlayToTheirEndWithTheirStreamsAndFrames)
{
    for (const Clip& clip : clipsOf(GetParam())) {
        if (!clip.told.at("decodes_cleanly").get<bool>()) {
            continue;
        }
        SCOPED_TRACE(clip.name);
        const auto medium = probeMedium(clip.path);
        ASSERT_TRUE(medium);
        const Selection selection = bestStreams(*medium);
        const json told = play(clip);
        ASSERT_TRUE(told.is_object());
        ASSERT_TRUE(told.at("opens").get<bool>());
        expectStreams(clip, selection, told);
        expectFrames(clip, *medium, selection, told.at("frames"));
        // Seeks have their own test; here they only have to leave the medium readable or at its
        // end.
        EXPECT_EQ(told.at("afterSeek").size(), 2u);
    }
}

TEST_P(Corpus, NoClipDoesHarm)
{
    for (const Clip& clip : clipsOf(GetParam())) {
        if (clip.told.at("decodes_cleanly").get<bool>()) {
            continue; // played above
        }
        SCOPED_TRACE(clip.name);
        const json told = play(clip); // it ends by itself, within its time and memory
        ASSERT_TRUE(told.is_object());
        const auto reason = NotPlayed.find(clip.name);
        if (clip.told.at("opens").get<bool>()) {
            EXPECT_EQ(told.at("opens").get<bool>(), reason == NotPlayed.end())
                << (reason == NotPlayed.end() ? "" : reason->second);
        }
    }
}

TEST(CorpusTables, NameClipsThatAreThere)
{
    if (corpusFolder().empty()) {
        GTEST_SKIP() << "no folder of third-party media: ZEL_CORPUS is not set";
    }
    std::vector<std::string> names;
    for (int share = 0; share < Shares; ++share) {
        for (const Clip& clip : clipsOf(share)) {
            names.push_back(clip.name);
        }
    }
    const auto isThere = [&names](const std::string& name) {
        return std::find(names.begin(), names.end(), name) != names.end();
    };
    for (const auto& [name, reason] : NotPlayed) {
        EXPECT_TRUE(isThere(name)) << name << ": " << reason;
    }
    for (const auto& [name, lost] : LostFrames) {
        EXPECT_TRUE(isThere(name)) << name << ": " << lost.reason;
    }
}

INSTANTIATE_TEST_SUITE_P(Shares, Corpus, testing::Range(0, Shares));
