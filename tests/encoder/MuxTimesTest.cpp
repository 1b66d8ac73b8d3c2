#include "encoder/MuxTimes.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>
#include <vector>

/// Time stamps for muxers, without a muxer.

namespace {

constexpr AVRational Milliseconds{1, 1000};
constexpr AVRational Ticks90k{1, 90000};
constexpr AVRational FrameOf25{1, 25};
constexpr int SampleRate = 48000;
constexpr int FrameSamples = 1152;
constexpr long long SecondUs = 1000000;
constexpr long long FrameUs = 40000;

/// A picture of MPEG-1, as far as its header goes.
std::string mpegPicture(int reference, int type, bool beginsGroup)
{
    const std::string group("\0\0\1\xB8\0\0\0\0", 8);
    std::string picture("\0\0\1\0\0\0\0\0\0\0", 10);
    picture[4] = static_cast<char>(reference >> 2);
    picture[5] = static_cast<char>((reference & 3) << 6 | type << 3);
    return (beginsGroup ? group : std::string()) + picture;
}

/// Times of a session; the medium's video time stamps are those of 25 frames a second unless a test
/// says otherwise.
class MuxTimesOf
{
public:
    MuxTimesOf& withVideo(bool copied, AVCodecID codec = AV_CODEC_ID_FLV1)
    {
        const zel::av::CodecParameters parameters(avcodec_parameters_alloc());
        parameters->codec_type = AVMEDIA_TYPE_VIDEO;
        parameters->codec_id = codec;
        m_times.addVideo(*parameters, FrameOf25, copied);
        return *this;
    }

    MuxTimesOf& withAudio(bool copied, int frameSamples = FrameSamples, int channels = 2)
    {
        const zel::av::CodecParameters parameters(avcodec_parameters_alloc());
        parameters->codec_type = AVMEDIA_TYPE_AUDIO;
        parameters->codec_id = AV_CODEC_ID_MP2;
        parameters->sample_rate = SampleRate;
        parameters->frame_size = frameSamples;
        av_channel_layout_default(&parameters->ch_layout, channels);
        m_times.addAudio(*parameters, copied);
        return *this;
    }

    MuxTimesOf& begun(AVRational timeBase = Milliseconds)
    {
        m_timeBase = timeBase;
        m_times.begin(timeBase, timeBase);
        return *this;
    }

    /// The stage's time for a packet: on the frames of the output's rate.
    int64_t stated(long long timestampUs) const
    {
        const int64_t frames = (timestampUs + FrameUs / 2) / FrameUs;
        return av_rescale_q(frames, FrameOf25, m_timeBase);
    }

    /// A video packet is on its way, and is not written yet.
    void noteVideo(long long timestampUs)
    {
        m_firstPts = m_firstPts.value_or(stated(timestampUs));
        m_times.noteVideo(timestampUs, stated(timestampUs), *m_firstPts);
    }

    MuxTimes::Stamp video(long long timestampUs, const std::string& bytes = "x")
    {
        noteVideo(timestampUs);
        return m_times.video(reinterpret_cast<const unsigned char*>(bytes.data()),
                             static_cast<int>(bytes.size()), stated(timestampUs) - *m_firstPts,
                             timestampUs);
    }

    /// A copied packet, whose time the stage tells.
    MuxTimes::Stamp copiedAudio(long long timestampUs)
    {
        return m_times.audio(
            100, av_rescale_q(timestampUs, AVRational{1, static_cast<int>(SecondUs)}, m_timeBase),
            timestampUs);
    }

    /// @param pts  0 behind the packet before
    MuxTimes::Stamp encodedAudio(long long timestampUs, int64_t pts = 0)
    {
        return m_times.audio(100, pts, timestampUs);
    }

    MuxTimes& times() { return m_times; }

private:
    MuxTimes m_times;
    AVRational m_timeBase = Milliseconds;
    std::optional<int64_t> m_firstPts;
};

} // namespace

TEST(MuxTimes, EncodedVideoIsShownWhenItIsSent)
{
    MuxTimesOf session;
    session.withVideo(false).begun(Ticks90k);
    for (int64_t n = 0; n < 3; ++n) {
        const MuxTimes::Stamp stamp = session.video(n * FrameUs);
        EXPECT_EQ(stamp.dts, n * 3600);
        EXPECT_EQ(stamp.pts, n * 3600);
        EXPECT_EQ(stamp.duration, 3600);
    }
}

TEST(MuxTimes, EncodedVideoTakesTheStagesTimeWhateverTheMediumSays)
{
    MuxTimesOf session;
    session.withVideo(false).begun();
    session.noteVideo(5 * SecondUs);
    EXPECT_EQ(session.times().video(nullptr, 0, 80, 5 * SecondUs).dts, 80);
    EXPECT_EQ(session.times().video(nullptr, 0, 160, 5 * SecondUs + 1).dts, 160);
}

TEST(MuxTimes, CopiedVideoKeepsTimesBetweenTheFramesOfTheOutputsRate)
{
    MuxTimesOf session;
    session.withVideo(true).begun();
    // 24 frames a second behind 21 ms of audio, which 25 a second would show out of step.
    const long long times[] = {21000, 63000, 104000, 146000, 188000};
    for (const long long timestampUs : times) {
        EXPECT_EQ(session.video(timestampUs).dts, (timestampUs - times[0]) / 1000);
    }
}

TEST(MuxTimes, CopiedVideoBeginsWhereTheStageSays)
{
    MuxTimesOf session;
    session.withVideo(true).begun();
    session.times().noteVideo(7 * SecondUs, 6960, 2000);
    EXPECT_EQ(session.times().video(nullptr, 0, 4960, 7 * SecondUs).dts, 4960);
    EXPECT_EQ(session.times().video(nullptr, 0, 5000, 7 * SecondUs + 33000).dts, 4993);
}

TEST(MuxTimes, CopiedVideoIsShownBehindThePicturesThatItWaitsFor)
{
    MuxTimesOf session;
    session.withVideo(true, AV_CODEC_ID_MPEG1VIDEO).begun();
    // In the order of decoding: I0 P3 B1 B2 P6 B4 B5, with one frame held back.
    struct Picture
    {
        int reference;
        int type; ///< 1 intra, 2 predicted, 3 bidirectional
    };
    const Picture pictures[] = {{0, 1}, {3, 2}, {1, 3}, {2, 3}, {6, 2}, {4, 3}, {5, 3}};
    long long timestampUs = 0;
    for (const Picture& picture : pictures) {
        const MuxTimes::Stamp stamp = session.video(
            timestampUs, mpegPicture(picture.reference, picture.type, timestampUs == 0));
        EXPECT_EQ(stamp.dts, timestampUs / 1000);
        EXPECT_EQ(stamp.pts, (picture.reference + 1) * 40) << "picture " << picture.reference;
        timestampUs += FrameUs;
    }
}

TEST(MuxTimes, ReorderedPicturesFollowTheDistanceThatTheyHaveWhateverTheMediumSays)
{
    MuxTimesOf of;
    of.withVideo(true, AV_CODEC_ID_MPEG1VIDEO).begun();
    constexpr int Reference = 2; // a predicted picture
    // Told to be 25 a second, and in truth 12.5: one picture of delay is 80 ms.
    of.video(0, mpegPicture(0, 1, true));
    for (int picture = 1; picture < 5; ++picture) {
        const auto stamp = of.video(80000LL * picture, mpegPicture(picture, Reference, false));
        EXPECT_EQ(stamp.dts, 80 * picture);
        EXPECT_EQ(stamp.pts, 80 * picture + 80);
    }
    // One that lies as the medium says is enough to believe it, as where pictures are left out.
    const auto stamp = of.video(360000, mpegPicture(5, Reference, false));
    EXPECT_EQ(stamp.pts, 360 + 40);
}

TEST(MuxTimes, OrderedContainerGetsNothingThatLiesBeforeWhatHasLeftIt)
{
    MuxTimesOf of;
    of.withVideo(false).withAudio(true).begun();
    of.times().begin(Milliseconds, Milliseconds, true);
    of.video(0);
    of.video(400000);
    EXPECT_EQ(of.copiedAudio(100000).dts, 100) << "libavformat sorts what it still holds";
    of.times().drained();
    EXPECT_EQ(of.copiedAudio(200000).dts, 400);
    EXPECT_EQ(of.copiedAudio(300000).dts, 401);
    EXPECT_EQ(of.copiedAudio(500000).dts, 500);
    // Nor so far back that libavformat no longer waited for it.
    of.video(60000000);
    EXPECT_EQ(of.copiedAudio(600000).dts, 51000);
}

TEST(MuxTimes, EqualDecodingTimesGoUpByOneTick)
{
    MuxTimesOf session;
    session.withVideo(true).begun();
    session.video(0);
    session.video(FrameUs);
    const MuxTimes::Stamp again = session.video(FrameUs);
    EXPECT_EQ(again.dts, 41);
    EXPECT_GE(again.pts, again.dts);
    EXPECT_EQ(session.video(FrameUs).dts, 42);
    EXPECT_EQ(session.video(2 * FrameUs).dts, 80);
}

TEST(MuxTimes, BackwardDecodingTimesGoUpByOneTick)
{
    MuxTimesOf session;
    session.withVideo(true).withAudio(true).begun();
    session.video(SecondUs);
    session.video(2 * SecondUs);
    const MuxTimes::Stamp video = session.video(SecondUs + FrameUs);
    EXPECT_EQ(video.dts, 1001);
    EXPECT_GE(video.pts, video.dts);
    session.copiedAudio(2 * SecondUs);
    EXPECT_EQ(session.copiedAudio(SecondUs).dts, 1001);
}

TEST(MuxTimes, EncodedVideoOfEqualTimesGoesUpByOneTick)
{
    MuxTimesOf session;
    session.withVideo(false).begun();
    EXPECT_EQ(session.video(0).dts, 0);
    EXPECT_EQ(session.video(0).dts, 1);
}

TEST(MuxTimes, AudioLastsAsLongAsItsSamples)
{
    MuxTimesOf session;
    session.withAudio(true).begun(Ticks90k);
    EXPECT_EQ(session.copiedAudio(0).duration, 2160);
    MuxTimesOf encoded;
    encoded.withAudio(false).begun(Ticks90k);
    EXPECT_EQ(encoded.encodedAudio(0).duration, 2160);
}

TEST(MuxTimes, CopiedAudioAloneKeepsTheStagesTime)
{
    MuxTimesOf session;
    session.withAudio(true).begun();
    const MuxTimes::Stamp stamp = session.copiedAudio(1457000);
    EXPECT_EQ(stamp.dts, 1457);
    EXPECT_EQ(stamp.pts, 1457);
}

TEST(MuxTimes, CopiedAudioThatBeginsEarlierKeepsItsDistance)
{
    MuxTimesOf session;
    session.withVideo(true).withAudio(true).begun();
    session.noteVideo(1480000);
    EXPECT_EQ(session.copiedAudio(1457000).dts, -23);
    EXPECT_EQ(session.copiedAudio(1480000).dts, 0);
    EXPECT_EQ(session.video(1480000).dts, 0);
}

TEST(MuxTimes, CopiedAudioThatBeginsLaterKeepsItsDistance)
{
    MuxTimesOf session;
    session.withVideo(true).withAudio(true).begun();
    session.video(1480000);
    EXPECT_EQ(session.copiedAudio(2457000).dts, 977);
}

TEST(MuxTimes, DistanceDoesNotSufferFromTheRoundingOfVideoTimes)
{
    MuxTimesOf session;
    session.withVideo(true).withAudio(true).begun();
    session.video(943000);
    EXPECT_EQ(session.copiedAudio(943000).dts, 0);
    EXPECT_EQ(session.copiedAudio(1943000).dts, 1000);
    EXPECT_EQ(session.video(1943000).dts, 1000);
}

TEST(MuxTimes, CopiedAudioBesideEncodedVideoCountsFromItsFirstPicture)
{
    MuxTimesOf session;
    session.withVideo(false).withAudio(true).begun();
    // An encoder's pictures count from the first one, wherever in the medium that is.
    session.times().noteVideo(61 * SecondUs, 0, 0);
    EXPECT_EQ(session.times().video(nullptr, 0, 0, 61 * SecondUs).dts, 0);
    EXPECT_EQ(session.copiedAudio(61 * SecondUs + 23000).dts, 23);
}

TEST(MuxTimes, AudioFollowsVideoThatGoesOnAtItsPositionAfterASeek)
{
    for (const bool copied : {true, false}) {
        MuxTimesOf session;
        session.withVideo(false).withAudio(copied).begun();
        session.times().noteVideo(61 * SecondUs, 61000, 0);
        session.times().noteSamples(61 * SecondUs + 24000, 24000.0);
        const MuxTimes::Stamp stamp = copied ? session.copiedAudio(61 * SecondUs + 24000)
                                             : session.encodedAudio(61 * SecondUs + 24000);
        EXPECT_EQ(stamp.dts, 61024) << copied;
    }
}

TEST(MuxTimes, AudioOfAnotherClockBeginsWithTheVideo)
{
    for (const long long videoUs : {0LL, 90 * SecondUs}) {
        const long long audioUs = 90 * SecondUs - videoUs;
        MuxTimesOf copied;
        copied.withVideo(true).withAudio(true).begun();
        copied.video(videoUs);
        EXPECT_EQ(copied.copiedAudio(audioUs).dts, 0);
        EXPECT_EQ(copied.copiedAudio(audioUs + SecondUs).dts, 1000);

        MuxTimesOf encoded;
        encoded.withVideo(true).withAudio(false).begun();
        encoded.video(videoUs);
        encoded.times().noteSamples(audioUs, 24000.0);
        EXPECT_EQ(encoded.encodedAudio(audioUs).dts, 0);
    }
}

TEST(MuxTimes, AudioOfAnotherClockBeginsWhereTheVideoGoesOnAfterASeek)
{
    MuxTimesOf session;
    session.withVideo(true).withAudio(true).begun();
    session.times().noteVideo(60 * SecondUs, 60000, 0);
    EXPECT_EQ(session.copiedAudio(500 * SecondUs).dts, 60000);
    EXPECT_EQ(session.copiedAudio(501 * SecondUs).dts, 61000);
}

TEST(MuxTimes, TenSecondsApartIsStillOneClock)
{
    MuxTimesOf session;
    session.withVideo(true).withAudio(true).begun();
    session.video(0);
    EXPECT_EQ(session.copiedAudio(10 * SecondUs).dts, 10000);
    MuxTimesOf beyond;
    beyond.withVideo(true).withAudio(true).begun();
    beyond.video(0);
    EXPECT_EQ(beyond.copiedAudio(10 * SecondUs + 1).dts, 0);
}

TEST(MuxTimes, AudioThatIsMissingForLongComesWhereTheVideoHasGotMeanwhile)
{
    MuxTimesOf session;
    session.withVideo(true).withAudio(true).begun();
    for (long long timestampUs = 0; timestampUs <= 30 * SecondUs; timestampUs += SecondUs) {
        session.video(timestampUs);
    }
    EXPECT_EQ(session.copiedAudio(30 * SecondUs).dts, 30000);
}

TEST(MuxTimes, VideoThatIsMissingForLongComesWhereTheAudioHasGotMeanwhile)
{
    for (const bool copied : {true, false}) {
        MuxTimesOf session;
        session.withVideo(copied).withAudio(copied).begun();
        for (long long timestampUs = SecondUs; timestampUs <= 30 * SecondUs; timestampUs += 24000) {
            if (copied) {
                session.copiedAudio(timestampUs);
            } else {
                session.encodedAudio(timestampUs);
            }
        }
        EXPECT_EQ(session.video(31 * SecondUs).dts, 30000);
        EXPECT_EQ(session.video(31 * SecondUs + FrameUs).dts, 30040);
    }
}

TEST(MuxTimes, VideoOfAnotherClockBeginsAnewBesideTheAudio)
{
    MuxTimesOf session;
    session.withVideo(true).withAudio(true).begun();
    session.copiedAudio(0);
    EXPECT_EQ(session.video(500 * SecondUs).dts, 0);
}

TEST(MuxTimes, VideoNeverBeginsBeforeTheOutputDoes)
{
    MuxTimesOf session;
    session.withVideo(true).withAudio(true).begun();
    session.copiedAudio(5 * SecondUs);
    EXPECT_EQ(session.video(4 * SecondUs).dts, 0);
}

TEST(MuxTimes, EncodedAudioRunsBySamplesWhateverThePacketsSay)
{
    MuxTimesOf session;
    session.withAudio(false).begun();
    // All frames out of one packet carry its time stamp.
    const long long times[] = {0, 0, 0, 500000, 500000};
    for (int64_t n = 0; n < 5; ++n) {
        EXPECT_EQ(session.encodedAudio(times[n]).dts, n * 24);
    }
}

TEST(MuxTimes, EncodedAudioDoesNotDriftInACoarseTimeBase)
{
    MuxTimesOf session;
    session.withAudio(false, 1000).begun();
    for (int64_t n = 0; n < 48000; ++n) {
        session.encodedAudio(0);
    }
    EXPECT_EQ(session.encodedAudio(0).dts, SecondUs);
}

TEST(MuxTimes, EncodedAudioKeepsItsDistanceFromTheVideo)
{
    for (const long long startUs : {457000LL, 2480000LL}) {
        MuxTimesOf session;
        session.withVideo(false).withAudio(false).begun();
        session.noteVideo(1480000);
        session.times().noteSamples(startUs, 24000.0);
        EXPECT_EQ(session.encodedAudio(startUs).dts, (startUs - 1480000) / 1000);
        EXPECT_EQ(session.encodedAudio(startUs).dts, (startUs - 1480000) / 1000 + 24);
    }
}

TEST(MuxTimes, EncodedAudioBeginsWithItsFirstSamplesAndNotWithItsFirstPacket)
{
    MuxTimesOf session;
    session.withVideo(false).withAudio(false).begun();
    session.noteVideo(0);
    session.times().noteSamples(100000, 24000.0);
    session.times().noteSamples(123000, 24000.0);
    session.times().noteSamples(146000, 24000.0);
    // The encoder held the first samples back, so its packet has the time of later ones.
    EXPECT_EQ(session.encodedAudio(146000).dts, 100);
    EXPECT_EQ(session.encodedAudio(170000).dts, 124);
}

TEST(MuxTimes, EncodedAudioJumpsOverWhatTheMediumLeavesOut)
{
    MuxTimesOf session;
    session.withVideo(false).withAudio(false).begun();
    session.noteVideo(0);
    long long timestampUs = 0;
    int64_t expectedMs = 0;
    for (int n = 0; n < 100; ++n, timestampUs += 24000, expectedMs += 24) {
        if (n == 50) {
            timestampUs += 93000;
            expectedMs += 93;
        }
        session.times().noteSamples(timestampUs, 24000.0);
        EXPECT_EQ(session.encodedAudio(timestampUs).dts, expectedMs) << n;
    }
}

TEST(MuxTimes, EncodedAudioDoesNotFollowTimesThatAreRounded)
{
    MuxTimesOf session;
    session.withVideo(false).withAudio(false).begun();
    session.noteVideo(0);
    for (int n = 0; n < 1000; ++n) {
        const long long timestampUs = n * 24000 + (n % 3) * 14000;
        session.times().noteSamples(timestampUs, 24000.0);
        EXPECT_EQ(session.encodedAudio(timestampUs).dts, n * 24);
    }
}

TEST(MuxTimes, EncodedAudioFollowsAClockThatIsFaster)
{
    MuxTimesOf session;
    session.withVideo(false).withAudio(false).begun();
    session.noteVideo(0);
    // A millisecond is missing in each packet.
    for (int n = 0; n < 1000; ++n) {
        session.times().noteSamples(n * 25000, 24000.0);
        EXPECT_NEAR(static_cast<double>(session.encodedAudio(n * 25000).dts), n * 25.0, 32.0);
    }
}

TEST(MuxTimes, EncodedAudioGoesOnWhereTheMediumsClockIsSetBack)
{
    MuxTimesOf session;
    session.withVideo(false).withAudio(false).begun();
    session.noteVideo(60 * SecondUs);
    session.times().noteSamples(60 * SecondUs, 24000.0);
    EXPECT_EQ(session.encodedAudio(60 * SecondUs).dts, 0);
    session.times().noteSamples(0, 24000.0);
    EXPECT_EQ(session.encodedAudio(0).dts, 24);
    // What is missing from then on counts again.
    session.times().noteSamples(124000, 24000.0);
    EXPECT_EQ(session.encodedAudio(124000).dts, 148);
}

TEST(MuxTimes, EncodedAudioAloneHasNoGaps)
{
    MuxTimesOf session;
    session.withAudio(false).begun();
    session.times().noteSamples(0, 24000.0);
    EXPECT_EQ(session.encodedAudio(0).dts, 0);
    session.times().noteSamples(3600 * SecondUs, 24000.0);
    EXPECT_EQ(session.encodedAudio(3600 * SecondUs).dts, 24);
}

TEST(MuxTimes, EncodedAudioAloneBeginsAtZero)
{
    MuxTimesOf session;
    session.withAudio(false).begun();
    session.times().noteSamples(61 * SecondUs, 24000.0);
    EXPECT_EQ(session.encodedAudio(61 * SecondUs + 24000).dts, 0);
}

TEST(MuxTimes, EncodedAudioAloneTakesAnExplicitTimeLessTheEncodersLag)
{
    MuxTimesOf session;
    session.withAudio(false).begun();
    session.times().noteSamples(60 * SecondUs, 24000.0);
    EXPECT_EQ(session.encodedAudio(60 * SecondUs + 48000, 60048).dts, 60000);
    EXPECT_EQ(session.encodedAudio(60 * SecondUs + 72000).dts, 60024);
}

TEST(MuxTimes, FrameThatTheStageCutsShortLastsAsLongAsWhatIsLeft)
{
    MuxTimesOf session;
    session.withAudio(false, 65536).begun(AVRational{1, SampleRate});
    EXPECT_EQ(session.encodedAudio(0).duration, 32768);
    EXPECT_EQ(session.encodedAudio(0).dts, 32768);
}

TEST(MuxTimes, BeginStartsAllClocksAnew)
{
    MuxTimesOf session;
    session.withVideo(true, AV_CODEC_ID_MPEG1VIDEO).withAudio(true).begun();
    session.video(60 * SecondUs, mpegPicture(0, 1, true));
    session.video(60 * SecondUs + FrameUs, mpegPicture(3, 2, false));
    session.copiedAudio(60 * SecondUs);
    session.times().noteSamples(60 * SecondUs, 24000.0);

    MuxTimes& times = session.times();
    times.begin(Ticks90k, Ticks90k);
    const std::string picture = mpegPicture(0, 1, true);
    times.noteVideo(SecondUs, 18000, 18000);
    const MuxTimes::Stamp video =
        times.video(reinterpret_cast<const unsigned char*>(picture.data()),
                    static_cast<int>(picture.size()), 0, SecondUs);
    EXPECT_EQ(video.dts, 0);
    EXPECT_EQ(video.pts, 3600);
    EXPECT_EQ(video.duration, 3600);
    EXPECT_EQ(times.audio(100, 99000, SecondUs + 100000).dts, 9000);
}

TEST(MuxTimes, BeginForgetsTheFirstSamplesAndTheRunningClock)
{
    MuxTimesOf session;
    session.withAudio(false).begun();
    session.times().noteSamples(0, 24000.0);
    session.encodedAudio(48000);
    session.encodedAudio(72000);
    session.begun();
    session.times().noteSamples(60 * SecondUs, 24000.0);
    EXPECT_EQ(session.encodedAudio(60 * SecondUs + 24000, 60024).dts, 60000);
}

TEST(MuxTimes, TimesAtTheEdgeOfTheirRangeStillGrow)
{
    constexpr long long Most = std::numeric_limits<long long>::max();
    constexpr long long Least = std::numeric_limits<long long>::min();
    const long long times[] = {Least, Most, Least, 0, Most, Most, Least};
    for (const bool copied : {true, false}) {
        MuxTimesOf session;
        session.withVideo(copied).withAudio(copied).begun(Ticks90k);
        MuxTimes& all = session.times();
        std::optional<int64_t> lastVideo;
        std::optional<int64_t> lastAudio;
        for (const long long time : times) {
            all.noteVideo(time, time, times[1]);
            const MuxTimes::Stamp video = all.video(nullptr, 0, time, time);
            EXPECT_GE(video.pts, video.dts);
            EXPECT_TRUE(!lastVideo || video.dts > *lastVideo);
            lastVideo = video.dts;
            all.noteSamples(time, 24000.0);
            const MuxTimes::Stamp audio = all.audio(100, time, time);
            EXPECT_TRUE(!lastAudio || audio.dts > *lastAudio);
            lastAudio = audio.dts;
        }
    }
}
