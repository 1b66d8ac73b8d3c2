#include "host/Records.h"
#include "input/FFMpegInput.h"
#include "tests/support/InputPlayer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/LoopbackPeer.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestFolders.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace zel::test;
using zel::host::ErrorRecord;
using zel::host::MediumRecord;
using zel::host::OutputStreamRecord;
using zel::streamer::InputPluginInterface;
namespace DecodingMode = zel::streamer::DecodingMode;
namespace InputEvent = zel::streamer::InputEvent;
namespace PacketType = zel::streamer::PacketType;

namespace {

constexpr unsigned long long ClipMs = 6000; // the seeks stay within every clip used here

std::string clip(const char* name)
{
    return mediaFolder() + "/" + name;
}

bool openClip(InputPluginInterface& input, const std::string& path)
{
    const MediumRecord medium(path);
    ErrorRecord error;
    return input.open(&medium, &error, nullptr);
}

/// Reads one frame and gives it back.
/// @return false when there was none
bool readOnce(InputPluginInterface& input)
{
    PacketType::Enum type = PacketType::None;
    unsigned char* data = nullptr;
    unsigned int size = 0;
    unsigned long long timestamp = 0;
    unsigned long long duration = 0;
    void* context = nullptr;
    bool keyFrame = false;
    if (!input.readFrame(type, data, size, timestamp, duration, context, keyFrame)) {
        return false;
    }
    // Whoever delivers bytes must have written all of them: a sanitizer sees it otherwise.
    unsigned int sum = 0;
    for (unsigned int i = 0; data != nullptr && i < size; i += 64) {
        sum += data[i];
    }
    EXPECT_TRUE(data != nullptr || size == 0) << sum;
    input.freeFrame(data, context);
    return true;
}

int countFrames(InputPluginInterface& input)
{
    int frames = 0;
    while (readOnce(input)) {
        ++frames;
    }
    return frames;
}

void onEvent(InputEvent::Enum, int, int, void* seen)
{
    ++*static_cast<std::atomic<int>*>(seen);
}

/// Calls an input in an order that only its seed decides.
class RandomCaller
{
public:
    RandomCaller(InputPluginInterface& input, const std::string& path, unsigned int seed)
        : m_input(input), m_path(path), m_random(seed)
    {
    }

    /// Calls that leave the medium open.
    void askOrSeek()
    {
        switch (below(12)) {
        case 0:
        case 1:
            m_input.setTimePosition(below(ClipMs));
            break;
        case 2:
            m_input.resetPosition(below(ClipMs));
            break;
        case 3: {
            MediumRecord medium;
            m_input.getMediumDescription(&medium);
            break;
        }
        case 4: {
            OutputStreamRecord output;
            m_input.getInputStreamDescription(&output);
            break;
        }
        case 5: {
            OutputStreamRecord output;
            m_input.getOutputStreamDescription(&output);
            break;
        }
        case 6:
            m_input.setVideoDecodingMode(static_cast<DecodingMode::Enum>(below(3)));
            break;
        case 7:
            m_input.setInputEventCallback(&onEvent, &m_events);
            break;
        case 8: {
            unsigned long long ms = 0;
            m_input.getPosition(ms);
            break;
        }
        case 9: {
            unsigned int percent = 0;
            EXPECT_FALSE(m_input.getInputBufferStatus(percent));
            break;
        }
        case 10:
            m_input.pause();
            m_input.resume();
            break;
        default:
            m_input.setBytePosition(below(100000));
            break;
        }
    }

    /// Calls that end what is open, or open it anew.
    void openOrClose()
    {
        const MediumRecord medium(m_path);
        ErrorRecord error;
        switch (below(6)) {
        case 0:
            m_input.stop();
            break;
        case 1:
        case 2:
            m_input.start();
            break;
        case 3:
            EXPECT_EQ(m_input.close(), 1);
            break;
        case 4:
            // It fails when another thread closes meanwhile.
            m_input.open(&medium, &error, nullptr);
            break;
        default:
            m_input.updateMedium(&medium, &error, nullptr);
            break;
        }
    }

    void skip()
    {
        if (below(2) == 0) {
            EXPECT_TRUE(m_input.skipAudioDecoding());
        } else {
            EXPECT_TRUE(m_input.skipVideoDecoding());
        }
    }

    unsigned int below(unsigned int limit)
    {
        return std::uniform_int_distribution<unsigned int>(0, limit - 1)(m_random);
    }

private:
    InputPluginInterface& m_input;
    const std::string& m_path;
    std::mt19937 m_random;
    std::atomic<int> m_events{0};
};

struct RandomRun
{
    const char* name;
    const char* clip;
    unsigned int seed;
    bool fromLibrary; ///< the built library's input, or the class that the tests link
    bool opensAndCloses;
    bool skips;
    bool logs = false; ///< FFmpeg's lines arrive from the decoder's threads as well
};

void PrintTo(const RandomRun& run, std::ostream* out)
{
    *out << run.name << ", " << run.clip << ", seed " << run.seed;
}

class InputThreads : public testing::TestWithParam<RandomRun>
{
protected:
    static constexpr int Callers = 3;
    static constexpr int CallsEach = 400;

    static std::unique_ptr<InputPluginInterface> makeInput(bool fromLibrary)
    {
        if (fromLibrary) {
            return makeLibraryInput();
        }
        return std::make_unique<FFMpegInput>();
    }

    /// Lets callers loose on an input that is being read. All have ended on return.
    static void letLoose(InputPluginInterface& input, const std::string& path, const RandomRun& run)
    {
        std::atomic<int> callersLeft{Callers};
        std::latch together(Callers + 1);
        std::vector<std::thread> threads;
        threads.emplace_back([&] {
            together.arrive_and_wait();
            while (callersLeft > 0) {
                if (!readOnce(input)) {
                    std::this_thread::yield(); // at the end, stopped or closed
                }
            }
        });
        for (unsigned int i = 0; i < Callers; ++i) {
            threads.emplace_back([&, i] {
                RandomCaller caller(input, path, run.seed * 100 + i);
                together.arrive_and_wait();
                for (int call = 0; call < CallsEach; ++call) {
                    if (run.opensAndCloses && caller.below(8) == 0) {
                        caller.openOrClose();
                    } else if (run.skips && caller.below(40) == 0) {
                        caller.skip();
                    } else {
                        caller.askOrSeek();
                    }
                }
                --callersLeft;
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
};

} // namespace

TEST_P(InputThreads, CallsInAnyOrderFromAnyThreadLeaveTheInputWhole)
{
    const RandomRun& run = GetParam();
    const auto log = run.logs ? std::make_unique<LogCapture>() : nullptr;
    const std::string path = clip(run.clip);
    const std::unique_ptr<InputPluginInterface> fresh = makeInput(run.fromLibrary);
    ASSERT_TRUE(openClip(*fresh, path));
    const int frames = countFrames(*fresh);
    ASSERT_GT(frames, 100);
    const std::unique_ptr<InputPluginInterface> input = makeInput(run.fromLibrary);
    ASSERT_TRUE(openClip(*input, path));

    letLoose(*input, path, run);

    // Whatever came before, a new start plays the whole medium.
    input->close();
    ASSERT_TRUE(openClip(*input, path));
    if (run.skips) {
        EXPECT_GT(countFrames(*input), 100); // copied, and so in another number
    } else {
        EXPECT_EQ(countFrames(*input), frames);
    }
    EXPECT_EQ(input->close(), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Runs, InputThreads,
    testing::Values(RandomRun{"seeks", "h264_aac.mp4", 1, false, false, false},
                    RandomRun{"seeks", "h264_aac.mkv", 2, false, false, false},
                    RandomRun{"seeks", "mpeg2_mp2.mpg", 3, false, false, false},
                    RandomRun{"openings", "h264_aac.mp4", 4, false, true, false},
                    RandomRun{"openings", "h264_aac.ts", 5, false, true, false},
                    RandomRun{"openings", "wmv2_wma2.asf", 6, false, true, false},
                    RandomRun{"openings", "mpeg4_mp3.avi", 7, false, true, false},
                    RandomRun{"skips", "h264_aac.mp4", 8, false, true, true},
                    RandomRun{"skips", "h264_aac.mkv", 9, false, false, true},
                    RandomRun{"library", "h264_aac.mp4", 10, true, true, false},
                    RandomRun{"logs", "h264_aac.mp4", 11, false, true, false, true}),
    [](const testing::TestParamInfo<RandomRun>& instance) {
        return std::string(instance.param.name) + "_" + std::to_string(instance.param.seed);
    });

TEST(InputThreadsStop, StopEndsAReaderOnAnotherThread)
{
    FFMpegInput input;
    ASSERT_TRUE(openClip(input, clip("h264_aac.mp4")));
    std::atomic<int> frames{0};
    std::atomic<bool> stopped{false};
    bool readAfterStop = true;
    std::thread reader([&] {
        while (true) {
            const bool wasStopped = stopped;
            const bool delivered = readOnce(input);
            frames += delivered ? 1 : 0;
            frames.notify_all();
            if (wasStopped) {
                readAfterStop = delivered;
                return;
            }
            if (!delivered) {
                input.setTimePosition(0); // the medium never ends by itself
            }
        }
    });
    for (int seen = frames; seen < 5; seen = frames) {
        frames.wait(seen);
    }
    EXPECT_EQ(input.stop(), 1);
    stopped = true;
    reader.join();
    EXPECT_FALSE(readAfterStop);

    input.start();
    input.setTimePosition(0);
    EXPECT_TRUE(readOnce(input));
}

TEST(InputThreadsStop, CloseEndsAnOpenThatWaitsForTheNetwork)
{
    LoopbackPeer server;
    FFMpegInput input;
    bool opened = true;
    std::thread opener([&] { opened = openClip(input, server.url()); });
    ASSERT_TRUE(server.accept()); // it is connected and hears nothing

    EXPECT_EQ(input.close(), 1);

    opener.join();
    EXPECT_FALSE(opened);
    EXPECT_FALSE(readOnce(input));
    EXPECT_TRUE(openClip(input, clip("h264_aac.mp4"))) << "the input can be opened again";
    EXPECT_TRUE(readOnce(input));
}

TEST(InputThreadsStop, CloseEndsAReadThatWaitsForTheNetwork)
{
    LoopbackPeer server;
    FFMpegInput input;
    std::atomic<int> frames{-1};
    std::thread reader([&] {
        if (openClip(input, server.url())) {
            while (readOnce(input)) { // the server never hangs up
                ++frames;
                frames.notify_all();
            }
        }
        frames = 1000000;
        frames.notify_all();
    });
    ASSERT_TRUE(server.accept());
    ASSERT_TRUE(server.send(readFile(clip("h264_aac.ts"))));
    for (int seen = frames; seen < 50; seen = frames) {
        frames.wait(seen);
    }
    EXPECT_LT(frames, 1000000) << "the medium ended by itself";

    EXPECT_EQ(input.close(), 1);

    reader.join();
    EXPECT_FALSE(readOnce(input));
}

TEST(InputThreadsStop, SeekIsNotStarvedByAReaderInATightLoop)
{
    constexpr int Seeks = 101;
    constexpr int Starved = 100; // reads that a seek had to let pass
    FFMpegInput input;
    ASSERT_TRUE(openClip(input, clip("wav_s16.wav"))); // short reads, so that they come in hordes
    std::atomic<bool> done{false};
    std::atomic<int> reads{0};
    std::thread reader([&] {
        while (!done) {
            readOnce(input); // at the end it fails, and takes its turn all the same
            ++reads;
            reads.notify_all();
        }
    });

    int starved = 0;
    for (int i = 0; i < Seeks; ++i) {
        const int former = reads;
        for (int seen = former; seen < former + 5; seen = reads) {
            reads.wait(seen); // the reader is at full speed again
        }
        const int before = reads;
        EXPECT_EQ(input.setTimePosition(100ULL * static_cast<unsigned int>(i % 20)), 0);
        starved += reads - before > Starved ? 1 : 0;
    }

    done = true;
    reader.join();
    // A seek lets the read in progress pass. Now and then this thread loses its processor before
    // it has queued up, so a few say nothing; without a queue it is one in five.
    EXPECT_LE(starved, Seeks / 10);
}
