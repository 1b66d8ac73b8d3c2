#include "common/ffmpeg/PacketReader.h"

#include "tests/support/ClipPackets.h"
#include "tests/support/CoreReader.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/error.h>
}

#include <cstring>
#include <string>
#include <utility>
#include <vector>

using zel::av::clonePacket;
using zel::av::FormatContext;
using zel::av::makePacket;
using zel::av::Packet;
using zel::av::PacketReader;
using zel::test::ClipPacket;
using zel::test::ClipPackets;
using zel::test::clipPath;
using zel::test::readClipPackets;

namespace {

class PacketReaderTest : public testing::Test
{
protected:
    void open(const std::string& clip)
    {
        AVFormatContext* raw = nullptr;
        ASSERT_GE(avformat_open_input(&raw, clipPath(clip).c_str(), nullptr, nullptr), 0);
        m_context.reset(raw);
        ASSERT_GE(avformat_find_stream_info(raw, nullptr), 0);
        reader = std::make_unique<PacketReader>(raw);
        expected = readClipPackets(clipPath(clip));
    }

    static bool isSame(const AVPacket& packet, const ClipPacket& other)
    {
        return packet.stream_index == other.stream && packet.dts == other.dts &&
               packet.pts == other.pts &&
               static_cast<std::size_t>(packet.size) == other.bytes.size() &&
               std::memcmp(packet.data, other.bytes.data(), other.bytes.size()) == 0;
    }

    /// Reads `count` packets, which must be the next ones of the clip.
    void expectNext(std::size_t count)
    {
        const Packet packet = makePacket();
        for (std::size_t i = 0; i < count; ++i, ++m_next) {
            ASSERT_EQ(reader->read(packet.get()), 0);
            ASSERT_TRUE(isSame(*packet, expected.packets[m_next])) << "packet " << m_next;
            av_packet_unref(packet.get());
        }
    }

    std::size_t left() const { return expected.packets.size() - m_next; }

    /// The clip's packets of the video stream from the n-th packet of all on.
    std::vector<ClipPacket> videoFrom(std::size_t first) const
    {
        std::vector<ClipPacket> video;
        for (std::size_t i = first; i < expected.packets.size(); ++i) {
            if (expected.packets[i].stream == expected.videoStream) {
                video.push_back(expected.packets[i]);
            }
        }
        return video;
    }

    FormatContext m_context;
    std::unique_ptr<PacketReader> reader;
    ClipPackets expected;
    std::size_t m_next = 0;
};

} // namespace

TEST_F(PacketReaderTest, HandsThePacketsOutInTheirOrder)
{
    open("mpeg4_mp3.avi");
    expectNext(left());
    const Packet packet = makePacket();
    EXPECT_EQ(reader->read(packet.get()), AVERROR_EOF);
    EXPECT_EQ(reader->read(packet.get()), AVERROR_EOF);
}

TEST_F(PacketReaderTest, LookAheadChangesNothing)
{
    open("mpeg4_mp3.avi");
    for (int round = 0; left() > 0; ++round) {
        const auto video = videoFrom(m_next);
        for (const std::size_t n : {std::size_t{0}, std::size_t{3}, std::size_t{1}}) {
            const AVPacket* packet = nullptr;
            const auto found = reader->ahead(expected.videoStream, n, &packet);
            ASSERT_EQ(found, n < video.size() ? PacketReader::Ahead::Found
                                              : PacketReader::Ahead::EndOfMedium);
            if (n < video.size()) {
                ASSERT_TRUE(isSame(*packet, video[n])) << round;
            }
        }
        expectNext(std::min<std::size_t>(7, left()));
    }
    const Packet packet = makePacket();
    EXPECT_EQ(reader->read(packet.get()), AVERROR_EOF);
}

TEST_F(PacketReaderTest, EndIsToldBehindThePacketsThatWait)
{
    open("mpeg4_mp3.avi");
    const AVPacket* packet = nullptr;
    EXPECT_EQ(reader->ahead(expected.videoStream, 100000, &packet),
              PacketReader::Ahead::EndOfMedium);
    EXPECT_EQ(reader->ahead(expected.videoStream, 100000, &packet),
              PacketReader::Ahead::EndOfMedium);
    expectNext(left());
    const Packet last = makePacket();
    EXPECT_EQ(reader->read(last.get()), AVERROR_EOF);
}

TEST_F(PacketReaderTest, LookBeyondTheQueueIsOutOfReach)
{
    open("h264_aac.mp4");
    const AVPacket* packet = nullptr;
    // No packet has this stream, so the look would go on to the end.
    ClipPackets many = readClipPackets(clipPath("h264_aac.mp4"));
    ASSERT_LT(many.packets.size(), 1024u);
    for (int i = 0; i < 400; ++i) {
        reader->handOutAgain(makePacket());
    }
    EXPECT_EQ(reader->ahead(7, 0, &packet), PacketReader::Ahead::OutOfReach);
}

TEST_F(PacketReaderTest, PacketsPutBackComeFirst)
{
    open("mpeg4_mp3.avi");
    std::vector<Packet> probed;
    for (int i = 0; i < 5; ++i) {
        Packet packet = makePacket();
        ASSERT_GE(av_read_frame(m_context.get(), packet.get()), 0);
        probed.push_back(std::move(packet));
    }
    for (const Packet& packet : probed) {
        reader->handOutAgain(clonePacket(*packet));
    }
    expectNext(left());
}

TEST_F(PacketReaderTest, SeekForgetsWhatWasReadAhead)
{
    open("mpeg4_mp3.avi");
    const AVPacket* ahead = nullptr;
    EXPECT_EQ(reader->ahead(expected.videoStream, 5, &ahead), PacketReader::Ahead::Found);
    ASSERT_GE(reader->seek(3000000, 0), 0);
    const Packet packet = makePacket();
    ASSERT_EQ(reader->read(packet.get()), 0);
    const AVRational timeBase = m_context->streams[packet->stream_index]->time_base;
    EXPECT_GE(static_cast<double>(packet->dts) * av_q2d(timeBase), 2.9);
    // Also the end.
    EXPECT_EQ(reader->ahead(expected.videoStream, 100000, &ahead),
              PacketReader::Ahead::EndOfMedium);
    ASSERT_GE(reader->seek(0, AVSEEK_FLAG_BACKWARD), 0);
    m_next = 0;
    expectNext(left());
}

TEST_F(PacketReaderTest, FailedSeekKeepsWhatWasReadAhead)
{
    open("mpeg4_mp3.avi");
    const AVPacket* ahead = nullptr;
    expectNext(20);
    EXPECT_EQ(reader->ahead(expected.videoStream, 8, &ahead), PacketReader::Ahead::Found);
    reader->markPlace();
    ASSERT_LT(reader->seek(1000000000, 0), 0);
    reader->resume();
    expectNext(left());
    const Packet packet = makePacket();
    EXPECT_EQ(reader->read(packet.get()), AVERROR_EOF);
}

TEST_F(PacketReaderTest, ResumeFindsBackToEveryPlace)
{
    for (const char* clip : {"h264_aac.mkv", "h264_aac.mp4", "h264_aac.flv", "mpeg4_mp3.avi",
                             "late_video.mkv", "late_audio.mkv", "h264_bpyramid.mkv"}) {
        open(clip);
        m_next = 0;
        while (left() > 0) {
            reader->markPlace();
            ASSERT_LT(reader->seek(1000000000, 0), 0) << clip;
            reader->resume();
            expectNext(std::min<std::size_t>(left(), 13));
            ASSERT_FALSE(HasFatalFailure()) << clip;
        }
        reader->markPlace();
        ASSERT_LT(reader->seek(1000000000, 0), 0);
        reader->resume();
        const Packet packet = makePacket();
        EXPECT_EQ(reader->read(packet.get()), AVERROR_EOF) << clip;
    }
}

TEST_F(PacketReaderTest, CopiedVideoHasRisingDecodingTimesFromZeroOn)
{
    for (const char* clip : {"h264_aac.mp4", "h264_aac.mkv", "h264_bpyramid.mkv", "hevc_aac.mp4",
                             "mpeg4_bframes.mp4"}) {
        open(clip);
        reader->prepareForCopying(expected.videoStream);
        const AVRational timeBase = m_context->streams[expected.videoStream]->time_base;
        const Packet packet = makePacket();
        double seconds = 0.0;
        while (reader->read(packet.get()) == 0) {
            if (packet->stream_index == expected.videoStream) {
                ASSERT_NE(packet->dts, AV_NOPTS_VALUE) << clip;
                ASSERT_NEAR(static_cast<double>(packet->dts) * av_q2d(timeBase), seconds, 0.0011)
                    << clip;
                ASSERT_GE(packet->pts, packet->dts) << clip;
                seconds += 0.04;
            }
            av_packet_unref(packet.get());
        }
        EXPECT_GT(seconds, 3.9);
    }
}

TEST_F(PacketReaderTest, AllStreamsAreShiftedTogether)
{
    open("h264_aac.mp4");
    ASSERT_LT(expected.video()[0].dts, 0);
    const double shift =
        -static_cast<double>(expected.video()[0].dts) * av_q2d(expected.videoTimeBase);
    reader->prepareForCopying(expected.videoStream);
    const Packet packet = makePacket();
    for (const ClipPacket& original : expected.packets) {
        ASSERT_EQ(reader->read(packet.get()), 0);
        ASSERT_EQ(packet->stream_index, original.stream);
        const bool isVideo = original.stream == expected.videoStream;
        const double base = av_q2d(isVideo ? expected.videoTimeBase : expected.audioTimeBase);
        ASSERT_NEAR(static_cast<double>(packet->dts - original.dts) * base, shift, base);
        ASSERT_NEAR(static_cast<double>(packet->pts - original.pts) * base, shift, base);
        av_packet_unref(packet.get());
    }
}

TEST_F(PacketReaderTest, MediaWithoutNegativeTimesAreNotShifted)
{
    open("mpeg4_mp3.avi");
    reader->prepareForCopying(expected.videoStream);
    expectNext(left());
}
