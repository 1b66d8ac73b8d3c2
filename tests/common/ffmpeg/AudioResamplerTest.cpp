#include "common/ffmpeg/AudioResampler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

using zel::av::AudioResampler;

namespace {

using Samples = std::vector<int16_t>;

const double Pi = 3.14159265358979323846;

/// A tone, another amplitude in each channel.
Samples tone(double hertz, int rate, int samples, int channels)
{
    Samples tone;
    for (int n = 0; n < samples; ++n) {
        for (int channel = 0; channel < channels; ++channel) {
            const double amplitude = 12000.0 - 5000.0 * channel;
            tone.push_back(
                static_cast<int16_t>(std::lround(amplitude * std::sin(2 * Pi * hertz * n / rate))));
        }
    }
    return tone;
}

/// Values over the whole range, without any pattern.
Samples noise(int values)
{
    Samples noise;
    unsigned int state = 4711;
    for (int n = 0; n < values; ++n) {
        state = state * 1664525U + 1013904223U;
        noise.push_back(static_cast<int16_t>(static_cast<int>(state >> 16) - 32768));
    }
    return noise;
}

struct Conversion
{
    int outChannels;
    int inChannels;
    int outRate;
    int inRate;
};

std::unique_ptr<AudioResampler> create(const Conversion& wanted)
{
    return AudioResampler::create(wanted.outChannels, wanted.inChannels, wanted.outRate,
                                  wanted.inRate);
}

/// The whole signal in pieces of so many samples.
Samples convertAll(const Conversion& wanted, const Samples& in, int pieceSamples)
{
    const auto resampler = create(wanted);
    const int inSamples = static_cast<int>(in.size()) / wanted.inChannels;
    Samples out;
    Samples piece(static_cast<std::size_t>(200000 * wanted.outChannels));
    for (int n = 0; n < inSamples; n += pieceSamples) {
        const int count =
            resampler->convert(in.data() + std::ptrdiff_t{n} * wanted.inChannels,
                               std::min(pieceSamples, inSamples - n), piece.data(), 200000);
        out.insert(out.end(), piece.begin(),
                   piece.begin() + std::ptrdiff_t{count} * wanted.outChannels);
    }
    return out;
}

/// One channel of an interleaved signal.
Samples channelOf(const Samples& all, int channel, int channels)
{
    Samples one;
    for (std::size_t n = static_cast<std::size_t>(channel); n < all.size();
         n += static_cast<std::size_t>(channels)) {
        one.push_back(all[n]);
    }
    return one;
}

/// How much of the signal is a tone of this frequency, from 0 to 1.
double shareOfTone(const Samples& samples, double hertz, int rate)
{
    double sine = 0.0;
    double cosine = 0.0;
    double power = 0.0;
    for (std::size_t n = 0; n < samples.size(); ++n) {
        const double phase = 2 * Pi * hertz * static_cast<double>(n) / rate;
        sine += samples[n] * std::sin(phase);
        cosine += samples[n] * std::cos(phase);
        power += static_cast<double>(samples[n]) * samples[n];
    }
    return 2.0 * (sine * sine + cosine * cosine) / (power * static_cast<double>(samples.size()));
}

} // namespace

TEST(AudioResampler, FirstCallIsShortAndLaterOnesKeepTheRatio)
{
    const auto resampler = AudioResampler::create(2, 2, 44100, 48000);
    const Samples in(2048);
    Samples out(4096);
    std::vector<int> counts;
    counts.reserve(8);
    for (int call = 0; call < 8; ++call) {
        counts.push_back(resampler->convert(in.data(), 1024, out.data(), 2048));
    }
    EXPECT_EQ(counts, (std::vector<int>{931, 941, 941, 941, 940, 941, 941, 941}));
}

TEST(AudioResampler, AnHourLosesNoSampleBesideTheFirstFew)
{
    const auto resampler = AudioResampler::create(1, 1, 8000, 11025);
    const Samples in(11025);
    Samples out(9000);
    int64_t samples = 0;
    for (int second = 0; second < 3600; ++second) {
        samples += resampler->convert(in.data(), 11025, out.data(), 9000);
    }
    EXPECT_NEAR(static_cast<double>(samples), 3600.0 * 8000.0, 16.0);
}

TEST(AudioResampler, ToneKeepsItsFrequencyAtAnyRate)
{
    const std::vector<Conversion> conversions = {{2, 2, 44100, 48000},
                                                 {2, 2, 48000, 44100},
                                                 {2, 2, 22050, 44100},
                                                 {2, 2, 44100, 8000},
                                                 {2, 2, 8000, 44100}};
    for (const Conversion& wanted : conversions) {
        const Samples out = convertAll(wanted, tone(997, wanted.inRate, wanted.inRate, 2), 1024);
        for (int channel = 0; channel < 2; ++channel) {
            const Samples one = channelOf(out, channel, 2);
            EXPECT_GT(shareOfTone(one, 997, wanted.outRate), 0.999)
                << wanted.inRate << " to " << wanted.outRate;
            EXPECT_NEAR(*std::max_element(one.begin() + 100, one.end()), 12000 - 5000 * channel,
                        120);
        }
    }
}

TEST(AudioResampler, PitchAboveTheNewRateIsTakenOut)
{
    const Samples out = convertAll({1, 1, 8000, 48000}, tone(6000, 48000, 48000, 1), 1000);
    const auto [least, greatest] = std::minmax_element(out.begin() + 100, out.end() - 100);
    EXPECT_LT(*greatest - *least, 240); // a hundredth of what came in
}

TEST(AudioResampler, SizeOfThePiecesDoesNotMatter)
{
    const Samples in = noise(2 * 9000);
    const Conversion wanted{2, 2, 44100, 48000};
    const Samples whole = convertAll(wanted, in, 9000);
    EXPECT_EQ(convertAll(wanted, in, 1024), whole);
    EXPECT_EQ(convertAll(wanted, in, 7), whole);
}

TEST(AudioResampler, EqualRatesPassThroughTheFilterToo)
{
    const auto resampler = AudioResampler::create(2, 1, 44100, 44100);
    const Samples in = noise(1024);
    Samples out(2048);
    EXPECT_EQ(resampler->convert(in.data(), 1024, out.data(), 1024), 1014);
    const Samples left = channelOf(out, 0, 2);
    // Steep edges come out smoother.
    int steepestIn = 0;
    int steepestOut = 0;
    for (std::size_t n = 1; n < 1000; ++n) {
        steepestIn = std::max(steepestIn, std::abs(in[n] - in[n - 1]));
        steepestOut = std::max(steepestOut, std::abs(left[n] - left[n - 1]));
    }
    EXPECT_LT(steepestOut, steepestIn - 1000);
}

TEST(AudioResampler, StereoBecomesMonoAsHalfTheSumRoundedDown)
{
    const Samples in = noise(2 * 4000);
    Samples mixed;
    for (std::size_t n = 0; n < in.size(); n += 2) {
        mixed.push_back(static_cast<int16_t>(
            std::floor((static_cast<double>(in[n]) + static_cast<double>(in[n + 1])) / 2.0)));
    }
    EXPECT_EQ(convertAll({1, 2, 44100, 48000}, in, 1000),
              convertAll({1, 1, 44100, 48000}, mixed, 1000));
}

TEST(AudioResampler, MonoBecomesStereoAsTheSameTwice)
{
    const Samples in = noise(4000);
    const Samples mono = convertAll({1, 1, 44100, 48000}, in, 1000);
    const Samples stereo = convertAll({2, 1, 44100, 48000}, in, 1000);
    EXPECT_EQ(channelOf(stereo, 0, 2), mono);
    EXPECT_EQ(channelOf(stereo, 1, 2), mono);
}

TEST(AudioResampler, StereoBecomesSixChannelsWithTheMiddleInTheSecond)
{
    const Samples in = noise(2 * 4000);
    const Samples stereo = convertAll({2, 2, 44100, 48000}, in, 1000);
    const Samples six = convertAll({6, 2, 44100, 48000}, in, 1000);
    ASSERT_EQ(six.size(), 3 * stereo.size());
    for (std::size_t n = 0; n < stereo.size() / 2; ++n) {
        const int left = stereo[2 * n];
        const int right = stereo[2 * n + 1];
        const Samples expected = {static_cast<int16_t>(left),
                                  static_cast<int16_t>(left / 2 + right / 2),
                                  static_cast<int16_t>(right),
                                  0,
                                  0,
                                  0};
        ASSERT_TRUE(
            std::equal(expected.begin(), expected.end(), six.begin() + 6 * std::ptrdiff_t(n)))
            << n;
    }
}

TEST(AudioResampler, OtherChannelPairsAreRefused)
{
    const std::vector<std::pair<int, int>> accepted = {{1, 1}, {2, 1}, {1, 2}, {2, 2}, {6, 2}};
    for (int out = -1; out <= 8; ++out) {
        for (int in = -1; in <= 8; ++in) {
            const bool isAccepted =
                std::find(accepted.begin(), accepted.end(), std::pair(out, in)) != accepted.end();
            EXPECT_EQ(AudioResampler::create(out, in, 44100, 48000) != nullptr, isAccepted)
                << in << " to " << out;
        }
    }
}

TEST(AudioResampler, RatesThatAreNoneAreRefused)
{
    for (const int rate : {0, -1, INT_MIN}) {
        EXPECT_EQ(AudioResampler::create(2, 2, rate, 48000), nullptr) << rate;
        EXPECT_EQ(AudioResampler::create(2, 2, 48000, rate), nullptr) << rate;
    }
}

TEST(AudioResampler, WritesNeverMoreThanThereIsRoomFor)
{
    for (const int channels : {1, 2, 6}) {
        const auto resampler = AudioResampler::create(channels, 2, 44100, 8000);
        const Samples in = noise(2 * 5000);
        const std::size_t room = 300 * static_cast<std::size_t>(channels);
        Samples out(room + 600, 12345);
        EXPECT_EQ(resampler->convert(in.data(), 5000, out.data(), 300), 300);
        EXPECT_TRUE(std::all_of(out.begin() + std::ptrdiff_t(room), out.end(),
                                [](int16_t sample) { return sample == 12345; }));
    }
}

TEST(AudioResampler, WhatHadNoRoomIsGone)
{
    const Samples in = noise(3000);
    const auto wide = AudioResampler::create(1, 1, 44100, 8000);
    const auto narrow = AudioResampler::create(1, 1, 44100, 8000);
    Samples all(20000);
    Samples part(20000);
    for (int call = 0; call < 3; ++call) {
        const int16_t* piece = in.data() + std::ptrdiff_t{1000} * call;
        const int count = wide->convert(piece, 1000, all.data(), 20000);
        ASSERT_GT(count, 5000);
        // Only the second call has little room; the third goes on as if it had had all.
        const int capacity = call == 1 ? 10 : 20000;
        EXPECT_EQ(narrow->convert(piece, 1000, part.data(), capacity), std::min(count, capacity));
        EXPECT_TRUE(std::equal(part.begin(), part.begin() + std::min(count, capacity), all.begin()))
            << call;
    }
}

TEST(AudioResampler, WithoutSamplesOrRoomNothingHappens)
{
    const auto resampler = AudioResampler::create(2, 2, 44100, 48000);
    Samples in = noise(2048);
    Samples out(4096, 1);
    EXPECT_EQ(resampler->convert(nullptr, 1024, out.data(), 2048), 0);
    EXPECT_EQ(resampler->convert(in.data(), 0, out.data(), 2048), 0);
    EXPECT_EQ(resampler->convert(in.data(), -5, out.data(), 2048), 0);
    EXPECT_EQ(resampler->convert(in.data(), 1024, nullptr, 2048), 0);
    EXPECT_EQ(resampler->convert(in.data(), 1024, out.data(), -1), 0);
    EXPECT_EQ(resampler->convert(in.data(), 1024, out.data(), 2048), 931);
}
