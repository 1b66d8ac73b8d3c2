#include "encoder/FFMpegEncoder.h"
#include "plugin/SimpleSamplePacket.h"
#include "tests/encoder/OutputSession.h"
#include "tests/encoder/StageRun.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <thread>
#include <vector>

/// The stage between threads that know nothing of each other.

using namespace zel::test;
using zel::streamer::OutputStreamDescription;
using zel::streamer::SimpleSamplePacket;
namespace PacketType = zel::streamer::PacketType;

namespace {

constexpr unsigned long long FrameUs = 40000;

/// A packet that tells when it has ended.
class CountedPacket : public SimpleSamplePacket
{
public:
    explicit CountedPacket(std::atomic<int>& alive) : m_alive(alive) { ++m_alive; }
    ~CountedPacket() override { --m_alive; }

private:
    std::atomic<int>& m_alive;
};

/// Copied video without a container: each write gives one packet of the same length.
OutputSession elementarySession()
{
    OutputSession session;
    session.inputVideo("h264");
    session.requestVideo("h264", 500000);
    session.request.output.multiplexed = false;
    return session;
}

/// Writes packets of one length on a thread of its own, and tells how far it is.
class Writer
{
public:
    Writer(FFMpegEncoder& stage, int packets, int bytes)
        : m_thread([this, &stage, packets, bytes] {
              const std::string data(static_cast<std::size_t>(bytes), 'x');
              for (int i = 0; i < packets; ++i) {
                  ++m_begun;
                  stage.write(samplePacket(PacketType::Video, data, FrameUs * i, FrameUs, i == 0));
                  ++m_done;
              }
          })
    {
    }
    ~Writer() { m_thread.join(); }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    void awaitBegun(int count) const
    {
        while (m_begun < count) {
            std::this_thread::yield();
        }
    }
    void awaitDone(int count) const
    {
        while (m_done < count) {
            std::this_thread::yield();
        }
    }
    int done() const { return m_done; }

private:
    std::atomic<int> m_begun{0};
    std::atomic<int> m_done{0};
    std::thread m_thread;
};

/// Reads one packet and gives it back.
bool readOne(FFMpegEncoder& stage, PacketType::Enum& type)
{
    unsigned char* data = nullptr;
    unsigned int size = 0;
    unsigned long long timestamp = 0;
    unsigned long long duration = 0;
    void* context = nullptr;
    bool keyFrame = false;
    if (!stage.readFrame(type, data, size, timestamp, duration, context, keyFrame)) {
        return false;
    }
    stage.freeFrame(data, context);
    return true;
}

/// The stage of an elementary session that is started, with nobody reading.
class FFMpegEncoderBackPressure : public testing::Test
{
protected:
    static constexpr int PacketBytes = 9999;
    /// The hundredth leaves a little room below the limit, the next one goes over it.
    static constexpr int WritesThatReturn = 101;
    /// A hundred of these fill the queue to the byte, and the next one waits inside the queue.
    static constexpr int ExactPacketBytes = 10000;
    static constexpr int WritesThatFit = 100;

    void SetUp() override
    {
        ASSERT_EQ(m_stage.init(&m_session.medium, &m_session.input, &m_session.request,
                               &m_session.options, nullptr),
                  0);
        ASSERT_EQ(m_stage.start(), 1);
    }

    OutputSession m_session = elementarySession();
    FFMpegEncoder m_stage;
};

} // namespace

TEST_F(FFMpegEncoderBackPressure, WriterWaitsWhenNobodyReadsUntilEnoughIsRead)
{
    const Writer writer(m_stage, WritesThatReturn + 1, PacketBytes);
    writer.awaitBegun(WritesThatReturn + 1);
    EXPECT_EQ(writer.done(), WritesThatReturn);
    PacketType::Enum type = PacketType::None;
    // 101 packets are held; with 90 the writer goes on.
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(readOne(m_stage, type));
        EXPECT_EQ(writer.done(), WritesThatReturn);
    }
    ASSERT_TRUE(readOne(m_stage, type));
    writer.awaitDone(WritesThatReturn + 1);
}

TEST_F(FFMpegEncoderBackPressure, WaitingWriterHoldsNoLockOfTheStage)
{
    const Writer writer(m_stage, WritesThatReturn + 1, PacketBytes);
    writer.awaitBegun(WritesThatReturn + 1);
    zel::host::OutputStreamRecord description;
    m_stage.getOutputStreamDescription(&description);
    // Takes the lock that write works under, and frees the writer by emptying the queue.
    m_stage.flush();
    writer.awaitDone(WritesThatReturn + 1);
}

TEST_F(FFMpegEncoderBackPressure, StopFreesAWaitingWriter)
{
    const Writer writer(m_stage, WritesThatReturn + 5, PacketBytes);
    writer.awaitBegun(WritesThatReturn + 1);
    m_stage.stop();
    writer.awaitDone(WritesThatReturn + 5);
}

TEST(FFMpegEncoderFullContainer, StopFreesAWaitingWriterThoughTheContainersEndFillsTheQueueAgain)
{
    constexpr int FrameBytes = 60000;
    constexpr int MostWrites = 40;
    for (int round = 0; round < 50; ++round) {
        OutputSession session;
        session.inputVideo("mpeg4");
        session.input.stream.video.width = 320;
        session.input.stream.video.height = 240;
        session.requestFormat("matroska");
        session.requestVideo("mpeg4", 500000);
        session.request.output.multiplexed = true;
        FFMpegEncoder stage;
        ASSERT_EQ(stage.init(&session.medium, &session.input, &session.request, &session.options,
                             nullptr),
                  0);
        ASSERT_EQ(stage.start(), 1);
        const Writer writer(stage, MostWrites, FrameBytes);
        // A megabyte is full long before the last of them.
        writer.awaitBegun(17);
        stage.stop();
        writer.awaitDone(MostWrites);
    }
}

TEST_F(FFMpegEncoderBackPressure, CloseFreesAWaitingWriter)
{
    const Writer writer(m_stage, WritesThatReturn + 5, PacketBytes);
    writer.awaitBegun(WritesThatReturn + 1);
    m_stage.close();
    writer.awaitDone(WritesThatReturn + 5);
}

TEST_F(FFMpegEncoderBackPressure, ReadingFreesAWriterThatWaitsInTheQueueItself)
{
    const Writer writer(m_stage, WritesThatFit + 1, ExactPacketBytes);
    writer.awaitBegun(WritesThatFit + 1);
    PacketType::Enum type = PacketType::None;
    ASSERT_TRUE(readOne(m_stage, type));
    writer.awaitDone(WritesThatFit + 1);
}

TEST_F(FFMpegEncoderBackPressure, EveryControlCallFreesAWriterThatWaitsInTheQueueItself)
{
    const std::function<void()> calls[] = {
        [this] { m_stage.flush(); },
        [this] { m_stage.resetPosition(0); },
        [this] { m_stage.stop(); },
        [this] { m_stage.close(); },
    };
    for (const auto& call : calls) {
        const Writer writer(m_stage, WritesThatFit + 1, ExactPacketBytes);
        writer.awaitBegun(WritesThatFit + 1);
        call();
        writer.awaitDone(WritesThatFit + 1);
        m_stage.flush();
    }
}

TEST_F(FFMpegEncoderBackPressure, PacketThatWaitedDuringASeekIsDropped)
{
    const Writer writer(m_stage, WritesThatReturn + 1, PacketBytes);
    writer.awaitBegun(WritesThatReturn + 1);
    // Once the writer waits in write, the seek frees it. A writer that has not come so far yet
    // writes behind the seek, so the packet may also arrive: it must not be lost then.
    m_stage.resetPosition(0);
    writer.awaitDone(WritesThatReturn + 1);
    m_stage.write(samplePacket(PacketType::None, "", 0));
    PacketType::Enum type = PacketType::Audio;
    int packets = 0;
    while (readOne(m_stage, type) && type != PacketType::None) {
        packets += type == PacketType::Video ? 1 : 0;
    }
    EXPECT_LE(packets, 1);
    EXPECT_EQ(type, PacketType::None);
}

TEST_F(FFMpegEncoderBackPressure, StopFreesAWaitingReader)
{
    std::atomic<bool> ended{false};
    std::thread reader([&] {
        PacketType::Enum type = PacketType::None;
        EXPECT_FALSE(readOne(m_stage, type));
        ended = true;
    });
    m_stage.stop();
    reader.join();
    EXPECT_TRUE(ended);
}

namespace {

/// A session of a kind, and what its packets look like.
struct Kind
{
    const char* name;
    std::function<void(OutputSession&)> settle;
    int pictureBytes;
    int audioBytes;
};

constexpr int Width = 32;
constexpr int Height = 16;

void settleRaw(OutputSession& session, const char* format, const char* video, const char* audio)
{
    session.inputVideo("raw");
    session.input.stream.video.width = Width;
    session.input.stream.video.height = Height;
    session.input.stream.video.pixelFormat = zel::streamer::VideoPixelFormat::YUYV422;
    session.inputAudio("raw");
    session.input.stream.audio.bitsPerSample = 16;
    session.input.stream.audio.channels = 2;
    session.input.stream.audio.sampleRate = 48000;
    session.requestFormat(format);
    session.requestVideo(video, 200000);
    session.requestAudio(audio, 128000, 2, 48000);
    session.request.output.multiplexed = true;
}

const Kind Kinds[] = {
    {"EncodedFlv", [](OutputSession& s) { settleRaw(s, "flv", "flv", "mp3"); }, Width* Height * 2,
     4096},
    {"EncodedElementary",
     [](OutputSession& s) {
         settleRaw(s, "", "mpeg4", "mp2");
         s.request.output.multiplexed = false;
     },
     Width* Height * 2, 4096},
    {"EncodedRTP",
     [](OutputSession& s) {
         settleRaw(s, "", "mpeg4", "aac");
         s.request.output.multiplexed = false;
         s.request.output.rtp = true;
         s.request.output.rtpPacketSize = 1000;
     },
     Width* Height * 2, 4096},
    {"EncodedSegments",
     [](OutputSession& s) {
         settleRaw(s, "mpegts", "mpeg4", "mp2");
         s.options.set("MpegTSMethod", "segmented");
     },
     Width* Height * 2, 4096},
    {"CopiedTransportStream",
     [](OutputSession& s) {
         settleRaw(s, "mpegts", "mpeg4", "mp3");
         s.inputVideo("mpeg4");
         s.inputAudio("mp3");
     },
     2000, 400},
};

class FFMpegEncoderSchedules : public testing::TestWithParam<Kind>
{
protected:
    FFMpegEncoderSchedules() : m_temporary("TMPDIR", m_folder.path()) {}

    TempFolder m_folder;
    ScopedVariable m_temporary;
    LogCapture m_log{LOGLEVEL_ERROR};
};

/// One of the calls that a host's control thread makes, at a moment of its own.
void controlCall(FFMpegEncoder& stage, OutputSession& session, unsigned int choice)
{
    switch (choice % 8) {
    case 0:
    case 1:
    case 2:
        stage.resetPosition(choice % 5000);
        break;
    case 3:
        stage.flush();
        break;
    case 4: {
        zel::host::OutputStreamRecord description;
        stage.getOutputStreamDescription(&description);
        break;
    }
    case 5:
        stage.start();
        break;
    case 6:
        stage.stop();
        break;
    default:
        stage.stop();
        stage.close();
        stage.init(&session.medium, &session.input, &session.request, &session.options, nullptr);
        stage.start();
        break;
    }
}

} // namespace

TEST_P(FFMpegEncoderSchedules, RandomCallsFromThreeThreadsEndAndLoseNoPacket)
{
    constexpr int Rounds = 20;
    constexpr int Packets = 120;
    std::atomic<int> alive{0};
    for (unsigned int round = 0; round < Rounds; ++round) {
        OutputSession session;
        GetParam().settle(session);
        FFMpegEncoder stage;
        ASSERT_EQ(stage.init(&session.medium, &session.input, &session.request, &session.options,
                             nullptr),
                  0);
        ASSERT_EQ(stage.start(), 1);
        std::atomic<bool> ended{false};
        std::atomic<int> written{0};
        std::thread writer([&] {
            const std::string picture(static_cast<std::size_t>(GetParam().pictureBytes), 'p');
            const std::string audio(static_cast<std::size_t>(GetParam().audioBytes), 'a');
            for (int i = 0; i < Packets; ++i) {
                const bool isVideo = i % 2 == 0;
                const std::string& data = isVideo ? picture : audio;
                auto* packet = new CountedPacket(alive);
                packet->setAndCopy(isVideo ? PacketType::Video : PacketType::Audio,
                                   reinterpret_cast<const unsigned char*>(data.data()),
                                   static_cast<int>(data.size()),
                                   FrameUs * static_cast<unsigned int>(i) / 2, 0, i % 10 == 0);
                stage.write(packet);
                ++written;
            }
        });
        std::thread reader([&] {
            PacketType::Enum type = PacketType::None;
            while (!ended) {
                if (!readOne(stage, type)) {
                    std::this_thread::yield();
                }
            }
        });
        std::mt19937 random(round);
        // Each call comes when the writer is a random stretch further.
        for (int due = 0; due < Packets; due += static_cast<int>(random() % 20)) {
            while (written < due) {
                std::this_thread::yield();
            }
            controlCall(stage, session, static_cast<unsigned int>(random()));
        }
        stage.stop();
        writer.join();
        ended = true;
        // A start among the calls may have let the queue run again.
        stage.stop();
        reader.join();
        stage.close();
    }
    EXPECT_EQ(alive, 0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, FFMpegEncoderSchedules, testing::ValuesIn(Kinds),
                         [](const auto& kind) { return kind.param.name; });
