#include "common/ffmpeg/PackedAudio.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <utility>
#include <vector>

using zel::av::Frame;
using zel::av::makeFrame;
using zel::av::PackedAudio;

namespace {

constexpr int Samples = 301;

Frame frameOf(AVSampleFormat format, int channels, int samples = Samples, int sampleRate = 48000)
{
    Frame frame = makeFrame();
    frame->format = format;
    frame->nb_samples = samples;
    frame->sample_rate = sampleRate;
    av_channel_layout_default(&frame->ch_layout, channels);
    EXPECT_GE(av_frame_get_buffer(frame.get(), 0), 0);
    return frame;
}

/// Where a sample of one channel stands.
template <class Number>
Number& at(const Frame& frame, int channel, int index)
{
    const auto format = static_cast<AVSampleFormat>(frame->format);
    const int channels = frame->ch_layout.nb_channels;
    const bool isPlanar = av_sample_fmt_is_planar(format) != 0;
    auto* plane = reinterpret_cast<Number*>(frame->extended_data[isPlanar ? channel : 0]);
    return plane[isPlanar ? index : index * channels + channel];
}

/// A value from -1 to 1, another for each channel.
double wave(int channel, int index)
{
    return std::sin(0.1 * index * (channel + 1)) * 0.9;
}

template <class Number>
void fill(const Frame& frame, double scale, double offset = 0.0)
{
    for (int channel = 0; channel < frame->ch_layout.nb_channels; ++channel) {
        for (int i = 0; i < frame->nb_samples; ++i) {
            at<Number>(frame, channel, i) = static_cast<Number>(wave(channel, i) * scale + offset);
        }
    }
}

template <class Number>
std::vector<Number> convert(PackedAudio& converter, const Frame& frame, unsigned int bits)
{
    std::vector<Number> out(PackedAudio::size(*frame, bits) / sizeof(Number) + 16, Number(77));
    const int bytes = converter.convert(*frame, bits, reinterpret_cast<unsigned char*>(out.data()));
    EXPECT_EQ(static_cast<std::size_t>(bytes), PackedAudio::size(*frame, bits));
    for (std::size_t i = out.size() - 16; i < out.size(); ++i) {
        EXPECT_EQ(out[i], Number(77)); // nothing behind the end
    }
    out.resize(out.size() - 16);
    return out;
}

template <class Number, class Expected>
void expectSamples(const std::vector<Number>& samples, const Frame& frame, const Expected& expected)
{
    const int channels = frame->ch_layout.nb_channels;
    ASSERT_EQ(samples.size(), static_cast<std::size_t>(channels * frame->nb_samples));
    for (int i = 0; i < frame->nb_samples; ++i) {
        for (int channel = 0; channel < channels; ++channel) {
            ASSERT_EQ(samples[static_cast<std::size_t>(i * channels + channel)],
                      expected(channel, i))
                << "sample " << i << " of channel " << channel;
        }
    }
}

int16_t to16(double value)
{
    return static_cast<int16_t>(
        std::min(32767.0, std::max(-32768.0, std::nearbyint(value * 32768.0))));
}

int32_t to32(double value)
{
    return static_cast<int32_t>(
        std::min(2147483647.0, std::max(-2147483648.0, std::nearbyint(value * 2147483648.0))));
}

} // namespace

TEST(PackedAudio, SizeFollowsSamplesChannelsAndWidth)
{
    const Frame frame = frameOf(AV_SAMPLE_FMT_FLTP, 6, 1024);
    EXPECT_EQ(PackedAudio::size(*frame, 8), 1024u * 6);
    EXPECT_EQ(PackedAudio::size(*frame, 16), 1024u * 6 * 2);
    EXPECT_EQ(PackedAudio::size(*frame, 32), 1024u * 6 * 4);
    frame->nb_samples = 0;
    EXPECT_EQ(PackedAudio::size(*frame, 16), 0u);
    frame->nb_samples = -5;
    EXPECT_EQ(PackedAudio::size(*frame, 16), 0u);
}

TEST(PackedAudio, PackedSamplesOfTheRightWidthAreCopied)
{
    PackedAudio converter;
    for (const int channels : {1, 2, 6, 18}) {
        const Frame bytes = frameOf(AV_SAMPLE_FMT_U8, channels);
        fill<uint8_t>(bytes, 100, 128);
        expectSamples(convert<uint8_t>(converter, bytes, 8), bytes,
                      [&](int c, int i) { return at<uint8_t>(bytes, c, i); });
        const Frame shorts = frameOf(AV_SAMPLE_FMT_S16, channels);
        fill<int16_t>(shorts, 32000);
        expectSamples(convert<int16_t>(converter, shorts, 16), shorts,
                      [&](int c, int i) { return at<int16_t>(shorts, c, i); });
        const Frame longs = frameOf(AV_SAMPLE_FMT_S32, channels);
        fill<int32_t>(longs, 2e9);
        expectSamples(convert<int32_t>(converter, longs, 32), longs,
                      [&](int c, int i) { return at<int32_t>(longs, c, i); });
    }
}

TEST(PackedAudio, PlanesAreInterleaved)
{
    PackedAudio converter;
    for (const int channels : {1, 2, 6, 18}) {
        const Frame shorts = frameOf(AV_SAMPLE_FMT_S16P, channels);
        fill<int16_t>(shorts, 32000);
        expectSamples(convert<int16_t>(converter, shorts, 16), shorts,
                      [&](int c, int i) { return at<int16_t>(shorts, c, i); });
    }
}

TEST(PackedAudio, FloatsBecome16BitsRoundedAndClipped)
{
    PackedAudio converter;
    for (const AVSampleFormat format : {AV_SAMPLE_FMT_FLT, AV_SAMPLE_FMT_FLTP}) {
        for (const int channels : {1, 2, 6}) {
            const Frame frame = frameOf(format, channels);
            fill<float>(frame, 1.0);
            at<float>(frame, 0, 0) = 1.0f;
            at<float>(frame, 0, 1) = -1.0f;
            at<float>(frame, 0, 2) = 7.5f;
            at<float>(frame, 0, 3) = -7.5f;
            at<float>(frame, 0, 4) = 0.5f;
            expectSamples(convert<int16_t>(converter, frame, 16), frame, [&](int c, int i) {
                return to16(static_cast<double>(at<float>(frame, c, i)));
            });
        }
    }
}

TEST(PackedAudio, FloatsFillTheRangeOf32Bits)
{
    PackedAudio converter;
    const Frame frame = frameOf(AV_SAMPLE_FMT_FLT, 2);
    fill<float>(frame, 1.0);
    at<float>(frame, 0, 0) = 0.5f;
    at<float>(frame, 1, 0) = 1.0f;
    at<float>(frame, 0, 1) = -2.0f;
    const auto samples = convert<int32_t>(converter, frame, 32);
    EXPECT_EQ(samples[0], 1 << 30);
    EXPECT_EQ(samples[1], std::numeric_limits<int32_t>::max());
    EXPECT_EQ(samples[2], std::numeric_limits<int32_t>::min());
    expectSamples(samples, frame,
                  [&](int c, int i) { return to32(static_cast<double>(at<float>(frame, c, i))); });
}

TEST(PackedAudio, DoublesBecome16Bits)
{
    PackedAudio converter;
    for (const AVSampleFormat format : {AV_SAMPLE_FMT_DBL, AV_SAMPLE_FMT_DBLP}) {
        const Frame frame = frameOf(format, 2);
        fill<double>(frame, 1.0);
        at<double>(frame, 1, 3) = 3.0;
        expectSamples(convert<int16_t>(converter, frame, 16), frame,
                      [&](int c, int i) { return to16(at<double>(frame, c, i)); });
    }
}

TEST(PackedAudio, WideIntegersKeepTheirUpperHalf)
{
    PackedAudio converter;
    const Frame frame = frameOf(AV_SAMPLE_FMT_S32P, 2);
    fill<int32_t>(frame, 2e9);
    expectSamples(convert<int16_t>(converter, frame, 16), frame, [&](int c, int i) {
        return static_cast<int16_t>(at<int32_t>(frame, c, i) >> 16);
    });
}

TEST(PackedAudio, ChangesOfTheFrameAreFollowed)
{
    PackedAudio converter;
    for (int round = 0; round < 2; ++round) {
        for (const auto& [format, channels] : {std::pair{AV_SAMPLE_FMT_FLTP, 2},
                                               {AV_SAMPLE_FMT_FLTP, 1},
                                               {AV_SAMPLE_FMT_FLT, 1},
                                               {AV_SAMPLE_FMT_FLTP, 6}}) {
            for (const int samples : {64, 1024, 1}) {
                const Frame frame = frameOf(format, channels, samples, 32000 + 16000 * round);
                fill<float>(frame, 1.0);
                expectSamples(convert<int16_t>(converter, frame, 16), frame, [&](int c, int i) {
                    return to16(static_cast<double>(at<float>(frame, c, i)));
                });
            }
        }
    }
}

TEST(PackedAudio, WidthMayChangeBetweenFrames)
{
    PackedAudio converter;
    const Frame frame = frameOf(AV_SAMPLE_FMT_FLTP, 2);
    fill<float>(frame, 1.0);
    for (int round = 0; round < 2; ++round) {
        expectSamples(convert<int16_t>(converter, frame, 16), frame, [&](int c, int i) {
            return to16(static_cast<double>(at<float>(frame, c, i)));
        });
        expectSamples(convert<int32_t>(converter, frame, 32), frame, [&](int c, int i) {
            return to32(static_cast<double>(at<float>(frame, c, i)));
        });
    }
}

TEST(PackedAudio, ConversionKeepsNoSampleBack)
{
    // A converter with a memory would give the first samples later.
    PackedAudio converter;
    for (int i = 0; i < 20; ++i) {
        const Frame frame = frameOf(AV_SAMPLE_FMT_FLTP, 2, 1 + 37 * i);
        fill<float>(frame, 1.0);
        convert<int16_t>(converter, frame, 16);
    }
}

TEST(PackedAudio, OrderOfChannelsDoesNotMatter)
{
    PackedAudio converter;
    const Frame frame = frameOf(AV_SAMPLE_FMT_FLTP, 6);
    fill<float>(frame, 1.0);
    av_channel_layout_uninit(&frame->ch_layout);
    frame->ch_layout.order = AV_CHANNEL_ORDER_UNSPEC;
    frame->ch_layout.nb_channels = 6;
    expectSamples(convert<int16_t>(converter, frame, 16), frame,
                  [&](int c, int i) { return to16(static_cast<double>(at<float>(frame, c, i))); });
}

TEST(PackedAudio, FrameWithoutSamplesGivesNothing)
{
    PackedAudio converter;
    const Frame frame = makeFrame();
    unsigned char out = 0;
    EXPECT_EQ(converter.convert(*frame, 16, &out), 0);
}
