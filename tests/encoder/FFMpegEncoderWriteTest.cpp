#include "plugin/MetadataPacket.h"
#include "tests/encoder/RawMedia.h"
#include "tests/encoder/StageRun.h"
#include "tests/support/CountedPacket.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

/// What happens to a packet between write and readFrame.

using namespace zel::test;
using zel::streamer::MetadataPacket;
using zel::streamer::SamplePacket;
namespace PacketType = zel::streamer::PacketType;

namespace {

using Times = std::vector<unsigned long long>;

constexpr std::size_t ChunkBytes = 4096; ///< of plainSession's packets

/// A session that delivers stereo samples as they are, 1024 of them a packet.
OutputSession plainSession()
{
    return sampleSession("pcm_s16le", 128000);
}

OutputSession rtpOf(OutputSession session)
{
    session.request.output.rtp = true;
    session.request.output.rtpPacketSize = 1000;
    return session;
}

SamplePacket* audioAt(unsigned long long timestampUs, std::size_t bytes = ChunkBytes)
{
    return samplePacket(PacketType::Audio, std::string(bytes, '\1'), timestampUs, 23220, true);
}

SamplePacket* videoAt(unsigned long long timestampUs, const std::string& bytes, bool keyFrame)
{
    return samplePacket(PacketType::Video, bytes, timestampUs, PeriodUs, keyFrame);
}

std::string bytesOf(const MetadataPacket& packet)
{
    return {reinterpret_cast<const char*>(packet.getBuffer()),
            static_cast<std::size_t>(packet.getLength())};
}

Times timesOf(const std::vector<Delivered>& packets)
{
    Times times(packets.size());
    std::transform(packets.begin(), packets.end(), times.begin(),
                   [](const Delivered& packet) { return packet.timestampUs; });
    return times;
}

/// Packets of all types and some more, each of them counted.
std::vector<SamplePacket*> allKinds(std::atomic<int>& live)
{
    const std::string picture = movingPicture(64, 48, 0);
    std::vector<SamplePacket*> packets;
    for (int type = -1; type <= 7; ++type) {
        for (const bool isEmpty : {false, true}) {
            auto* packet = new CountedPacket(live);
            packet->setAndCopy(static_cast<PacketType::Enum>(type),
                               isEmpty ? nullptr
                                       : reinterpret_cast<const unsigned char*>(picture.data()),
                               isEmpty ? 0 : static_cast<int>(picture.size()), 0, 0, true);
            packets.push_back(packet);
        }
    }
    return packets;
}

} // namespace

TEST(FFMpegEncoderWrite, NullIsNoPacket)
{
    OutputSession session = plainSession();
    StageRun run(session, StageRun::Reader::TheTest);
    EXPECT_EQ(run.stage().write(nullptr), 0);
    EXPECT_TRUE(run.finish().empty());
}

TEST(FFMpegEncoderWrite, EveryPacketIsTakenAndReleased)
{
    std::atomic<int> live{0};
    for (OutputSession session :
         {rawSession("rawvideo", "pcm_s16le"), multiplexedSession("matroska"), copiedSession(),
          rtpOf(rawSession("mpeg4", "mp2")), rtpOf(copiedSession())}) {
        StageRun run(session);
        ASSERT_EQ(run.startResult(), 1);
        for (SamplePacket* packet : allKinds(live)) {
            if (packet->getType() == PacketType::None) {
                packet->release(); // finish writes the end
            } else {
                EXPECT_EQ(run.stage().write(packet), 1);
            }
        }
        EXPECT_EQ(live, 0) << "none is kept";
        run.finish();
    }
    EXPECT_EQ(live, 0);
}

TEST(FFMpegEncoderWrite, PacketsOutsideASessionAreReleased)
{
    std::atomic<int> live{0};
    FFMpegEncoder unused;
    for (SamplePacket* packet : allKinds(live)) {
        EXPECT_EQ(unused.write(packet), 1);
    }
    EXPECT_EQ(live, 0);
    OutputSession session = plainSession();
    StageRun run(session, StageRun::Reader::TheTest);
    run.stage().stop();
    for (SamplePacket* packet : allKinds(live)) {
        EXPECT_EQ(run.stage().write(packet), 1);
    }
    EXPECT_EQ(live, 0);
    run.stage().close();
    for (SamplePacket* packet : allKinds(live)) {
        EXPECT_EQ(run.stage().write(packet), 1);
    }
    EXPECT_EQ(live, 0);
}

TEST(FFMpegEncoderWrite, WhatIsWrittenBehindStopIsNeverRead)
{
    OutputSession session = plainSession();
    StageRun run(session, StageRun::Reader::TheTest);
    run.write(audioAt(0));
    run.stage().stop();
    run.write(audioAt(1000));
    run.write(samplePacket(PacketType::None, "", 0));
    EXPECT_FALSE(run.next().has_value());
    EXPECT_FALSE(run.next().has_value());
}

TEST(FFMpegEncoderWrite, AWriterBeforeStartWaitsForIt)
{
    OutputSession session = plainSession();
    FFMpegEncoder stage;
    ASSERT_EQ(stage.init(nullptr, &session.input, &session.request, nullptr, nullptr), 0);
    std::thread writer([&stage] { stage.write(audioAt(7000)); });
    ASSERT_EQ(stage.start(), 1);
    PacketType::Enum type = PacketType::None;
    unsigned char* data = nullptr;
    unsigned int size = 0;
    unsigned long long timestamp = 0;
    unsigned long long duration = 0;
    void* context = nullptr;
    bool keyFrame = false;
    ASSERT_TRUE(stage.readFrame(type, data, size, timestamp, duration, context, keyFrame));
    EXPECT_EQ(timestamp, 7000U);
    stage.freeFrame(data, context);
    writer.join();
}

TEST(FFMpegEncoderWrite, AFrameIsThePacketInItsContext)
{
    OutputSession session = plainSession();
    FFMpegEncoder stage;
    ASSERT_EQ(stage.init(nullptr, &session.input, &session.request, nullptr, nullptr), 0);
    ASSERT_EQ(stage.start(), 1);
    stage.write(audioAt(7000));
    PacketType::Enum type = PacketType::None;
    unsigned char* data = nullptr;
    unsigned int size = 0;
    unsigned long long timestamp = 0;
    unsigned long long duration = 1;
    void* context = nullptr;
    bool keyFrame = false;
    ASSERT_TRUE(stage.readFrame(type, data, size, timestamp, duration, context, keyFrame));
    auto* packet = static_cast<SamplePacket*>(context);
    EXPECT_EQ(packet->getBuffer(), data);
    EXPECT_EQ(static_cast<unsigned int>(packet->getLength()), size);
    EXPECT_EQ(type, PacketType::Audio);
    EXPECT_EQ(size, ChunkBytes);
    EXPECT_EQ(timestamp, 7000U);
    EXPECT_EQ(duration, 0U);
    EXPECT_TRUE(keyFrame);
    stage.freeFrame(nullptr, context); // the data alone would not do
    stage.freeFrame(data, nullptr);
}

TEST(FFMpegEncoderWrite, OtherTypesAreNothingToTheStage)
{
    OutputSession session = plainSession();
    StageRun run(session, StageRun::Reader::TheTest);
    for (const int type : {3, 4, 6, -1, 1000}) {
        run.write(samplePacket(static_cast<PacketType::Enum>(type), "bytes", 0));
    }
    EXPECT_TRUE(run.finish().empty());
}

TEST(FFMpegEncoderWrite, TheEndIsAPacketWithoutData)
{
    LogCapture log;
    OutputSession session = plainSession();
    StageRun run(session, StageRun::Reader::TheTest);
    log.makeCurrent();
    run.write(samplePacket(PacketType::None, "ignored", 5000, 1000, true));
    const auto end = run.next();
    ASSERT_TRUE(end.has_value());
    EXPECT_EQ(end->type, PacketType::None);
    EXPECT_EQ(end->bytes, "");
    EXPECT_FALSE(end->keyFrame);
    EXPECT_EQ(log.count(">: END packet received"), 1);
}

TEST(FFMpegEncoderWrite, WhatTheMergeHoldsComesInFrontOfTheEnd)
{
    OutputSession session = copiedSession();
    StageRun run(session, StageRun::Reader::TheTest);
    ASSERT_EQ(run.startResult(), 1);
    for (unsigned int i = 0; i < 10; ++i) {
        run.write(videoAt(i * PeriodUs, "picture " + std::to_string(i), i == 0));
    }
    EXPECT_TRUE(run.soFar().empty()) << "there is no audio yet to merge it with";
    run.write(samplePacket(PacketType::None, "", 0));
    unsigned int count = 0;
    for (auto packet = run.next(); packet && packet->type != PacketType::None;
         packet = run.next()) {
        EXPECT_EQ(packet->bytes, "picture " + std::to_string(count++));
    }
    EXPECT_EQ(count, 10U);
}

TEST(FFMpegEncoderWrite, TheContainersEndComesInFrontOfTheEnd)
{
    OutputSession session = multiplexedSession("flv", "flv", "none");
    StageRun run(session, StageRun::Reader::TheTest);
    ASSERT_EQ(run.startResult(), 1);
    run.write(videoAt(0, movingPicture(64, 48, 0), false));
    run.write(samplePacket(PacketType::None, "", 0));
    std::vector<Delivered> packets;
    for (auto packet = run.next(); packet && packet->type != PacketType::None;
         packet = run.next()) {
        packets.push_back(*packet);
    }
    ASSERT_GE(packets.size(), 2U);
    for (const Delivered& packet : packets) {
        EXPECT_EQ(packet.type, PacketType::Multiplexed);
    }
}

TEST(FFMpegEncoderWrite, ANewSegmentsNoticeGoesNoFurther)
{
    for (const char* action : {"START_NEW_SEGMENT", "start_new_segment", "Start_New_Segment"}) {
        OutputSession session = plainSession();
        StageRun run(session, StageRun::Reader::TheTest);
        const MetadataPacket alone("ACTION", action);
        const MetadataPacket among(MetadataPacket::Table{{"ACTION", action}, {"title", "x"}});
        run.write(samplePacket(PacketType::Metadata, bytesOf(alone), 4000));
        run.write(samplePacket(PacketType::Metadata, bytesOf(among), 5000));
        EXPECT_TRUE(run.finish().empty()) << action;
    }
}

TEST(FFMpegEncoderWrite, OtherMetadataPassesWithoutATime)
{
    LogCapture log;
    OutputSession session = plainSession();
    StageRun run(session, StageRun::Reader::TheTest);
    log.makeCurrent();
    const std::vector<std::string> blocks = {
        bytesOf(MetadataPacket("ACTION", "ADD_KEYFRAME")), bytesOf(MetadataPacket("title", "x")),
        bytesOf(MetadataPacket("action", "START_NEW_SEGMENT")),
        bytesOf(MetadataPacket("ACTION", "START_NEW_SEGMENTS")), "no block at all"};
    for (const std::string& block : blocks) {
        run.write(samplePacket(PacketType::Metadata, block, 5000, 6000, false));
    }
    std::atomic<int> live{0};
    run.write(CountedPacket::make(live, PacketType::Metadata, 5000, 0));
    const auto packets = run.finish();
    ASSERT_EQ(packets.size(), blocks.size() + 1);
    for (std::size_t i = 0; i < packets.size(); ++i) {
        EXPECT_EQ(packets[i].type, PacketType::Metadata);
        EXPECT_EQ(packets[i].bytes, i < blocks.size() ? blocks[i] : "");
        EXPECT_EQ(packets[i].timestampUs, 0U);
        EXPECT_EQ(packets[i].durationUs, 0U);
        EXPECT_TRUE(packets[i].keyFrame);
    }
    EXPECT_EQ(log.count(">: METADATA packet received"), static_cast<int>(packets.size()));
}

TEST(FFMpegEncoderWrite, CopiedPacketsLeaveAsPacketsInTheOrderOfTime)
{
    OutputSession session = copiedSession();
    StageRun run(session, StageRun::Reader::TheTest);
    ASSERT_EQ(run.startResult(), 1);
    run.write(videoAt(0, "v0", true));
    run.write(videoAt(40000, "v40", false));
    run.write(samplePacket(PacketType::Audio, "a10", 10000, 23220, true));
    run.write(samplePacket(PacketType::Audio, "a33", 33000, 23220, true));
    run.write(samplePacket(PacketType::Audio, "a56", 56000, 23220, true));
    run.write(videoAt(80000, "v80", true));
    const auto packets = run.finish();
    std::string order;
    for (const Delivered& packet : packets) {
        order += packet.bytes + " ";
        const bool isVideo = packet.bytes[0] == 'v';
        EXPECT_EQ(packet.type, isVideo ? PacketType::Video : PacketType::Audio);
        EXPECT_EQ(packet.timestampUs, std::stoull(packet.bytes.substr(1)) * 1000);
        EXPECT_EQ(packet.keyFrame, packet.bytes != "v40");
    }
    EXPECT_EQ(order, "v0 a10 a33 v40 a56 v80 ");
}

TEST(FFMpegEncoderWrite, CopiedPacketsWithoutBytesAreNoPackets)
{
    OutputSession session = copiedSession();
    StageRun run(session, StageRun::Reader::TheTest);
    run.write(samplePacket(PacketType::Audio, "", 0));
    run.write(samplePacket(PacketType::Video, "", 0));
    auto* negative = new zel::streamer::SimpleSamplePacket;
    negative->setAndCopy(PacketType::Video, nullptr, -5, 0, 0, false);
    run.write(negative);
    EXPECT_TRUE(run.finish().empty());
}

TEST(FFMpegEncoderWrite, CopiedRTPPacketsKeepAllThatTheyHave)
{
    OutputSession session = rtpOf(copiedSession());
    StageRun run(session, StageRun::Reader::TheTest);
    ASSERT_EQ(run.startResult(), 1);
    run.write(samplePacket(PacketType::Video, "v", 40000, 40001, true));
    run.write(samplePacket(PacketType::Audio, "a", 50000, 23220, false));
    const auto packets = run.finish();
    ASSERT_EQ(packets.size(), 2U);
    EXPECT_EQ(packets[0].type, PacketType::Video);
    EXPECT_EQ(packets[0].bytes, "v");
    EXPECT_EQ(packets[0].timestampUs, 40000U);
    EXPECT_EQ(packets[0].durationUs, 40001U);
    EXPECT_TRUE(packets[0].keyFrame);
    EXPECT_EQ(packets[1].type, PacketType::Audio);
    EXPECT_EQ(packets[1].bytes, "a");
    EXPECT_EQ(packets[1].timestampUs, 50000U);
    EXPECT_EQ(packets[1].durationUs, 23220U);
    EXPECT_FALSE(packets[1].keyFrame);
}

TEST(FFMpegEncoderWrite, RTPPacketsThatWaitLeaveInTheOrderOfTimeAndTheEndLast)
{
    OutputSession session = rtpOf(copiedSession());
    StageRun run(session, StageRun::Reader::TheTest);
    run.write(videoAt(80000, "v", false));
    run.write(samplePacket(PacketType::Audio, "a", 60000));
    run.write(videoAt(40000, "v", false));
    run.write(samplePacket(PacketType::None, "", 0));
    run.write(samplePacket(PacketType::Audio, "a", 20000));
    Times times;
    for (auto packet = run.next(); packet && packet->type != PacketType::None;
         packet = run.next()) {
        times.push_back(packet->timestampUs);
    }
    EXPECT_EQ(times, (Times{20000, 40000, 60000, 80000}));
}

TEST(FFMpegEncoderWrite, PacketsOtherThanRTPLeaveAsTheyCame)
{
    OutputSession session = plainSession();
    StageRun run(session, StageRun::Reader::TheTest);
    run.write(audioAt(9000));
    run.write(audioAt(5000));
    run.write(audioAt(7000));
    EXPECT_EQ(timesOf(run.finish()), (Times{9000, 5000, 7000}));
}

TEST(FFMpegEncoderWrite, AFlushDropsWhatIsUnderWayAndTheStageGoesOn)
{
    OutputSession session = plainSession();
    StageRun run(session, StageRun::Reader::TheTest);
    run.write(audioAt(1000));
    run.write(audioAt(2000, ChunkBytes - 4));
    run.stage().flush();
    run.write(audioAt(3000, ChunkBytes - 4));
    run.write(audioAt(4000, 4));
    EXPECT_EQ(timesOf(run.finish()), Times{4000});
}

TEST(FFMpegEncoderWrite, AFlushDropsWhatTheMergeHolds)
{
    OutputSession session = copiedSession();
    StageRun run(session, StageRun::Reader::TheTest);
    run.write(videoAt(0, "v0", true));
    run.stage().flush();
    run.write(videoAt(40000, "v40", true));
    EXPECT_EQ(timesOf(run.finish()), Times{40000});
}

TEST(FFMpegEncoderWrite, ASeekDropsWhatIsUnderWayAndTheStageGoesOn)
{
    LogCapture log;
    for (OutputSession session : {plainSession(), rtpOf(plainSession())}) {
        StageRun run(session, StageRun::Reader::TheTest);
        run.write(audioAt(1000));
        log.makeCurrent();
        run.stage().resetPosition(12345678901ULL);
        run.write(audioAt(2000));
        const auto packets = run.finish();
        ASSERT_EQ(packets.size(), 1U);
        EXPECT_NE(packets[0].timestampUs, 1000U);
    }
    EXPECT_EQ(log.count("::resetPosition] pos 12345678901"), 2);
}

TEST(FFMpegEncoderWrite, ASeekOfAStageThatIsStoppedDoesNotBringItBack)
{
    OutputSession session = plainSession();
    StageRun run(session, StageRun::Reader::TheTest);
    run.stage().stop();
    run.stage().resetPosition(1000);
    run.write(audioAt(1000));
    EXPECT_FALSE(run.next().has_value());
}
