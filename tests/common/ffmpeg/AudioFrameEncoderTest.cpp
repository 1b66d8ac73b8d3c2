#include "common/ffmpeg/AudioFrameEncoder.h"

#include "common/ffmpeg/EncoderNames.h"
#include "common/ffmpeg/PackedAudio.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

using zel::av::AudioFrameEncoder;
using zel::av::CodecContext;
using zel::av::findEncoder;
using zel::av::Frame;
using zel::av::makeFrame;
using zel::av::PackedAudio;
using zel::av::Packet;
using zel::av::pickSampleFormat;

namespace {

using Samples = std::vector<int16_t>;

struct Sound
{
    std::string encoder;
    int rate = 48000;
    int channels = 2;
    int64_t bitRate = 128000;
    AVSampleFormat format = AV_SAMPLE_FMT_NONE; ///< none: the picked one
};

void PrintTo(const Sound& sound, std::ostream* out)
{
    *out << sound.encoder;
}

CodecContext open(const Sound& sound)
{
    const AVCodec* codec = findEncoder(sound.encoder.c_str());
    CodecContext encoder(avcodec_alloc_context3(codec));
    encoder->sample_rate = sound.rate;
    encoder->time_base = {1, sound.rate};
    encoder->bit_rate = sound.bitRate;
    encoder->sample_fmt =
        sound.format == AV_SAMPLE_FMT_NONE ? pickSampleFormat(*codec) : sound.format;
    av_channel_layout_default(&encoder->ch_layout, sound.channels);
    EXPECT_GE(avcodec_open2(encoder.get(), codec, nullptr), 0) << sound.encoder;
    return encoder;
}

int frameSize(const AVCodecContext& encoder)
{
    return encoder.frame_size > 0 ? encoder.frame_size : 1024;
}

/// A tone that slowly rises, so that no two stretches are alike; another one in each channel.
Samples melody(int samples, int channels, int rate)
{
    Samples melody;
    for (int n = 0; n < samples; ++n) {
        const double t = static_cast<double>(n) / rate;
        for (int channel = 0; channel < channels; ++channel) {
            const double pitch = 300.0 + 310.0 * channel + 250.0 * t;
            melody.push_back(
                static_cast<int16_t>(std::lround(9000.0 * std::sin(6.2832 * pitch * t))));
        }
    }
    return melody;
}

/// Runs a signal through an encoder in whole frames, and what comes out through a decoder.
class RoundTrip
{
public:
    explicit RoundTrip(AVCodecContext& encoder) : m_encoder(encoder), m_frames(encoder)
    {
        const AVCodec* codec = avcodec_find_decoder(encoder.codec_id);
        m_decoder.reset(avcodec_alloc_context3(codec));
        AVCodecParameters* parameters = avcodec_parameters_alloc();
        avcodec_parameters_from_context(parameters, &encoder);
        avcodec_parameters_to_context(m_decoder.get(), parameters);
        avcodec_parameters_free(&parameters);
        m_decoder->flags2 |= AV_CODEC_FLAG2_SKIP_MANUAL;
        EXPECT_GE(avcodec_open2(m_decoder.get(), codec, nullptr), 0);
    }

    /// @return number of packets that came
    std::size_t encode(const int16_t* samples, int count)
    {
        const std::vector<Packet>& packets = m_frames.encode(samples, count);
        for (const Packet& packet : packets) {
            m_times.push_back(packet->pts);
            m_durations.push_back(packet->duration);
            decode(*packet);
        }
        return packets.size();
    }

    /// @return numbers of packets, call by call
    std::vector<std::size_t> encodeAll(const Samples& samples)
    {
        const int size = frameSize(m_encoder);
        const int channels = m_encoder.ch_layout.nb_channels;
        std::vector<std::size_t> counts;
        const int all = static_cast<int>(samples.size()) / channels;
        for (int n = 0; n + size <= all; n += size) {
            counts.push_back(encode(samples.data() + std::ptrdiff_t{n} * channels, size));
        }
        return counts;
    }

    const Samples& decoded() const { return m_decoded; }
    const std::vector<int64_t>& times() const { return m_times; }
    const std::vector<int64_t>& durations() const { return m_durations; }

private:
    void decode(const AVPacket& packet)
    {
        ASSERT_GE(avcodec_send_packet(m_decoder.get(), &packet), 0);
        const Frame frame = makeFrame();
        while (avcodec_receive_frame(m_decoder.get(), frame.get()) >= 0) {
            Samples samples(PackedAudio::size(*frame, 16) / sizeof(int16_t));
            m_converter.convert(*frame, 16, reinterpret_cast<unsigned char*>(samples.data()));
            m_decoded.insert(m_decoded.end(), samples.begin(), samples.end());
        }
    }

    AVCodecContext& m_encoder;
    AudioFrameEncoder m_frames;
    CodecContext m_decoder;
    PackedAudio m_converter;
    Samples m_decoded;
    std::vector<int64_t> m_times;
    std::vector<int64_t> m_durations;
};

/// One channel, some thousand samples from the middle on.
Samples middleOf(const Samples& sound, int channels, int channel, std::size_t count)
{
    Samples middle;
    const std::size_t frames = sound.size() / static_cast<std::size_t>(channels);
    for (std::size_t n = frames / 2; n < frames && middle.size() < count; ++n) {
        middle.push_back(
            sound[n * static_cast<std::size_t>(channels) + static_cast<std::size_t>(channel)]);
    }
    return middle;
}

/// From 0 to 1: how well a stretch of sound is found again in another at any delay that codecs
/// have.
double likeness(const Samples& stretch, const Samples& sound)
{
    double best = 0.0;
    for (std::size_t later = 0; later + stretch.size() <= sound.size(); ++later) {
        double product = 0.0;
        double power = 1.0;
        double powerThere = 1.0;
        for (std::size_t n = 0; n < stretch.size(); ++n) {
            product += static_cast<double>(stretch[n]) * sound[n + later];
            power += static_cast<double>(stretch[n]) * stretch[n];
            powerThere += static_cast<double>(sound[n + later]) * sound[n + later];
        }
        best = std::max(best, product / std::sqrt(power * powerThere));
    }
    return best;
}

class EncodedSound : public testing::TestWithParam<Sound>
{
};

} // namespace

TEST_P(EncodedSound, IsTheSameWhenDecoded)
{
    const CodecContext encoder = open(GetParam());
    RoundTrip trip(*encoder);
    const int channels = GetParam().channels;
    const Samples in = melody(GetParam().rate, channels, GetParam().rate);
    trip.encodeAll(in);
    ASSERT_GT(trip.decoded().size(), in.size() * 8 / 10);
    // Speech codecs cut what lies beside speech.
    const double needed = GetParam().encoder.find("amr") == std::string::npos ? 0.98 : 0.85;
    std::vector<Samples> stretches;
    std::vector<Samples> decoded;
    for (int channel = 0; channel < channels; ++channel) {
        stretches.push_back(middleOf(in, channels, channel, 1500));
        decoded.push_back(middleOf(trip.decoded(), channels, channel, 4500));
        EXPECT_GT(likeness(stretches.back(), decoded.back()), needed) << channel;
    }
    if (channels == 2) {
        EXPECT_LT(likeness(stretches[0], decoded[1]), 0.3);
        EXPECT_LT(likeness(stretches[1], decoded[0]), 0.3);
    }
}

TEST_P(EncodedSound, HasAPacketForEachFrameThatIsNotHeldBack)
{
    const CodecContext encoder = open(GetParam());
    RoundTrip trip(*encoder);
    const std::vector<std::size_t> counts =
        trip.encodeAll(melody(2 * GetParam().rate, GetParam().channels, GetParam().rate));
    const std::size_t packets = std::accumulate(counts.begin(), counts.end(), std::size_t{0});
    const std::string& name = GetParam().encoder;
    if (name == "libmp3lame") {
        EXPECT_GE(packets + 3, counts.size());
    } else {
        EXPECT_EQ(packets + (name == "aac" ? 1 : 0), counts.size());
    }
    EXPECT_LE(*std::max_element(counts.begin(), counts.end()), 1U);
}

TEST_P(EncodedSound, HasTimesThatRunOnInSamples)
{
    const CodecContext encoder = open(GetParam());
    RoundTrip trip(*encoder);
    trip.encodeAll(melody(GetParam().rate, GetParam().channels, GetParam().rate));
    const std::vector<int64_t>& times = trip.times();
    ASSERT_GT(times.size(), 4U);
    EXPECT_EQ(times[0], -encoder->initial_padding);
    for (std::size_t n = 1; n < times.size(); ++n) {
        EXPECT_EQ(times[n] - times[n - 1], frameSize(*encoder)) << n;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Codecs, EncodedSound,
    testing::Values(Sound{"mp2", 48000, 2, 192000}, Sound{"libmp3lame", 44100, 2, 128000},
                    Sound{"libmp3lame", 22050, 1, 48000}, Sound{"aac", 48000, 2, 128000},
                    Sound{"aac", 22050, 1, 48000}, Sound{"wmav2", 44100, 2, 128000},
                    Sound{"ac3", 48000, 2, 192000}, Sound{"libopencore_amrnb", 8000, 1, 12200},
                    Sound{"libopencore_amrwb", 16000, 1, 23850}, Sound{"flac", 44100, 2, 0},
                    Sound{"alac", 44100, 2, 0}, Sound{"pcm_s16le", 44100, 2, 0}),
    [](const auto& sound) { return sound.param.encoder + "_" + std::to_string(sound.param.rate); });

TEST(AudioFrameEncoder, LosslessCodecsGiveEverySampleBack)
{
    for (const std::string name : {"flac", "alac", "pcm_s16le", "pcm_s16be", "pcm_s24le"}) {
        const CodecContext encoder = open({name, 44100, 2, 0});
        RoundTrip trip(*encoder);
        const Samples in = melody(5 * frameSize(*encoder), 2, 44100);
        trip.encodeAll(in);
        EXPECT_EQ(trip.decoded(), in) << name;
    }
}

TEST(AudioFrameEncoder, EncoderGetsItsOwnSampleFormat)
{
    const Samples in = {0, 1, -1, 256, 32767, -32768, 12345, -12345};
    const auto encoded = [&in](const std::string& name, AVSampleFormat format) {
        const CodecContext encoder = open({name, 8000, 2, 0, format});
        AudioFrameEncoder frames(*encoder);
        const std::vector<Packet>& packets = frames.encode(in.data(), 4);
        return packets.size() != 1 ? std::string()
                                   : std::string(reinterpret_cast<const char*>(packets[0]->data),
                                                 static_cast<std::size_t>(packets[0]->size));
    };
    const auto bytesOf = [](const auto& values) {
        return std::string(reinterpret_cast<const char*>(values.data()),
                           values.size() * sizeof values[0]);
    };

    EXPECT_EQ(encoded("pcm_s16le", AV_SAMPLE_FMT_S16), bytesOf(in));

    std::vector<uint8_t> unsigned8;
    std::vector<int32_t> signed32;
    std::vector<float> floats;
    std::vector<double> doubles;
    for (const int16_t sample : in) {
        unsigned8.push_back(static_cast<uint8_t>((sample >> 8) + 128));
        signed32.push_back(sample * 65536);
        floats.push_back(static_cast<float>(sample) / 32768.0F);
        doubles.push_back(sample / 32768.0);
    }
    EXPECT_EQ(encoded("pcm_u8", AV_SAMPLE_FMT_U8), bytesOf(unsigned8));
    EXPECT_EQ(encoded("pcm_s32le", AV_SAMPLE_FMT_S32), bytesOf(signed32));
    EXPECT_EQ(encoded("pcm_f32le", AV_SAMPLE_FMT_FLT), bytesOf(floats));
    EXPECT_EQ(encoded("pcm_f64le", AV_SAMPLE_FMT_DBL), bytesOf(doubles));

    // Planar: all of the first channel, then all of the second.
    const Samples planes = {0, -1, 32767, 12345, 1, 256, -32768, -12345};
    EXPECT_EQ(encoded("pcm_s16le_planar", AV_SAMPLE_FMT_S16P), bytesOf(planes));
}

TEST(AudioFrameEncoder, SixChannelsKeepTheirOrder)
{
    const CodecContext encoder = open({"flac", 48000, 6, 0});
    RoundTrip trip(*encoder);
    Samples in;
    for (int n = 0; n < 2 * encoder->frame_size; ++n) {
        for (int channel = 0; channel < 6; ++channel) {
            in.push_back(static_cast<int16_t>(1000 * channel + n % 100));
        }
    }
    trip.encodeAll(in);
    EXPECT_EQ(trip.decoded(), in);
}

TEST(AudioFrameEncoder, ShortFrameIsPassedAsItIsWhereTheEncoderTakesIt)
{
    const CodecContext encoder = open({"flac", 44100, 2, 0});
    RoundTrip trip(*encoder);
    const Samples in = melody(encoder->frame_size + 500, 2, 44100);
    EXPECT_EQ(trip.encode(in.data(), encoder->frame_size), 1U);
    EXPECT_EQ(trip.encode(in.data() + 2 * std::ptrdiff_t{encoder->frame_size}, 500), 1U);
    EXPECT_EQ(trip.decoded(), in);
    EXPECT_EQ(trip.durations().back(), 500);
}

TEST(AudioFrameEncoder, ShortFrameIsFilledWithSilenceWhereItIsNot)
{
    const CodecContext encoder = open({"mp2", 48000, 2, 192000});
    RoundTrip trip(*encoder);
    const Samples in(1000, 12000); // 500 of each channel
    EXPECT_EQ(trip.encode(in.data(), 500), 1U);
    EXPECT_EQ(trip.encode(in.data(), 500), 1U);
    // The two frames lie a whole frame apart, and what is between them is silent.
    EXPECT_EQ(trip.times(), (std::vector<int64_t>{-481, 1152 - 481}));
    ASSERT_EQ(trip.decoded().size(), 2U * 2U * 1152U);
    const auto loudness = [&trip](int first, int end) {
        int sum = 0;
        for (int n = 2 * first; n < 2 * end; ++n) {
            sum += std::abs(trip.decoded()[static_cast<std::size_t>(n)]);
        }
        return sum / (2 * (end - first));
    };
    EXPECT_GT(loudness(481 + 100, 481 + 400), 8000);
    EXPECT_LT(loudness(481 + 700, 481 + 1000), 400);
    EXPECT_GT(loudness(1152 + 481 + 100, 1152 + 481 + 400), 8000);
}

TEST(AudioFrameEncoder, TooLongAFrameIsRefusedAndTheNextOneIsNot)
{
    const CodecContext encoder = open({"mp2", 48000, 2, 192000});
    AudioFrameEncoder frames(*encoder);
    const Samples in = melody(1153, 2, 48000);
    EXPECT_TRUE(frames.encode(in.data(), 1153).empty());
    const std::vector<Packet>& packets = frames.encode(in.data(), 1152);
    ASSERT_EQ(packets.size(), 1U);
    EXPECT_EQ(packets[0]->pts, -481); // the refused one left no gap
}

TEST(AudioFrameEncoder, WithoutSamplesNothingIsEncoded)
{
    const CodecContext encoder = open({"mp2", 48000, 2, 192000});
    AudioFrameEncoder frames(*encoder);
    const Samples in(2304);
    EXPECT_TRUE(frames.encode(nullptr, 1152).empty());
    EXPECT_TRUE(frames.encode(in.data(), 0).empty());
    EXPECT_TRUE(frames.encode(in.data(), -1).empty());
    EXPECT_EQ(frames.encode(in.data(), 1152).size(), 1U);
}

TEST(AudioFrameEncoder, PacketsOfACallAreGoneAtTheNext)
{
    const CodecContext encoder = open({"aac", 48000, 2, 128000});
    AudioFrameEncoder frames(*encoder);
    const Samples in = melody(1024, 2, 48000);
    EXPECT_TRUE(frames.encode(in.data(), 1024).empty());
    EXPECT_EQ(frames.encode(in.data(), 1024).size(), 1U);
    EXPECT_TRUE(frames.encode(in.data(), 0).empty());
}

TEST(AudioFrameEncoder, ClockFollowsTheEncodersTimeBase)
{
    const AVCodec* codec = findEncoder("pcm_s16le");
    const CodecContext encoder(avcodec_alloc_context3(codec));
    encoder->sample_rate = 8000;
    encoder->time_base = {1, 1000};
    encoder->sample_fmt = AV_SAMPLE_FMT_S16;
    av_channel_layout_default(&encoder->ch_layout, 1);
    ASSERT_GE(avcodec_open2(encoder.get(), codec, nullptr), 0);
    AudioFrameEncoder frames(*encoder);
    const Samples in(800);
    for (const int64_t time : {0, 100, 200}) {
        const std::vector<Packet>& packets = frames.encode(in.data(), 800);
        ASSERT_EQ(packets.size(), 1U);
        EXPECT_EQ(packets[0]->pts, time);
    }
}

TEST(SampleFormats, SixteenBitsComeBeforeFloats)
{
    const auto picked = [](const char* name) { return pickSampleFormat(*findEncoder(name)); };
    EXPECT_EQ(picked("mp2"), AV_SAMPLE_FMT_S16);
    EXPECT_EQ(picked("flac"), AV_SAMPLE_FMT_S16);
    EXPECT_EQ(picked("libopencore_amrnb"), AV_SAMPLE_FMT_S16);
    EXPECT_EQ(picked("libmp3lame"), AV_SAMPLE_FMT_S16P);
    EXPECT_EQ(picked("alac"), AV_SAMPLE_FMT_S16P);
    EXPECT_EQ(picked("aac"), AV_SAMPLE_FMT_FLTP);
    EXPECT_EQ(picked("wmav2"), AV_SAMPLE_FMT_FLTP);
    EXPECT_EQ(picked("ac3"), AV_SAMPLE_FMT_FLTP);
    EXPECT_EQ(picked("pcm_u8"), AV_SAMPLE_FMT_U8);
    EXPECT_EQ(picked("pcm_s32le"), AV_SAMPLE_FMT_S32);
}

TEST(SampleFormats, EncoderThatNamesNoneGetsSixteenBits)
{
    EXPECT_EQ(pickSampleFormat(*findEncoder("mpeg4")), AV_SAMPLE_FMT_S16);
}
