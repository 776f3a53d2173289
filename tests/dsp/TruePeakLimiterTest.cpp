#include "dsp/TruePeakLimiter.h"

#include "support/Signals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <numbers>
#include <random>
#include <vector>

namespace ostrand {
namespace {

TruePeakLimiter makeLimiter(int channels, double rate = 48000.0, double ceilingDb = -1.0) {
    return TruePeakLimiter(channels, rate, ceilingDb, 5.0, 200.0);
}

void processInBlocks(TruePeakLimiter& limiter, test::PlanarAudio& audio, std::int64_t block) {
    test::inBlocks(audio, block,
                   [&](const auto& at, std::int64_t n, auto) { limiter.process(at, n); });
}

// The input followed by latency() zeros, limited; the latency removed.
test::PlanarAudio limitWithTail(TruePeakLimiter& limiter, test::PlanarAudio audio) {
    const std::int64_t latency = limiter.latency();
    audio.append(test::silence(audio.sampleRate, static_cast<int>(audio.channels.size()),
                               static_cast<double>(latency) / audio.sampleRate));
    processInBlocks(limiter, audio, 1024);
    for (auto& channel : audio.channels) {
        channel.erase(channel.begin(), channel.begin() + latency);
    }
    return audio;
}

TEST(TruePeakLimiter, LookaheadInterpolatorAndTruePeak) {
    EXPECT_EQ(makeLimiter(2).latency(), 246);
    EXPECT_EQ(makeLimiter(2, 44100.0).lookahead(), 220);
    EXPECT_EQ(makeLimiter(1, 1000.0).lookahead(), 8);
    EXPECT_NEAR(makeLimiter(2).releaseCoeff(), 0.99989584, 1e-8);
    const float phase1[] = {-0.00008f, 0.00293f,  -0.01468f, 0.04789f,  -0.13199f, 0.44931f,
                            0.77121f,  -0.17081f, 0.06217f,  -0.02027f, 0.00469f,  -0.00036f};
    const auto& phases = TruePeakMeter::reversedPhases();
    for (std::size_t k = 0; k < 12; ++k) {
        EXPECT_NEAR(phases[1][11 - k], phase1[k], 6e-6f); // stored reversed
        EXPECT_EQ(phases[2][k], phases[1][11 - k]);       // mirror images
    }
    EXPECT_NEAR(phases[0][5], 0.97267f, 6e-6f);

    // A quarter-rate sine at 45 degrees, faded in: a tone switched on at full
    // level rings above its peak.
    test::PlanarAudio input = test::sine(48000.0, 2, 0.5, 12000.0, 0.0, std::numbers::pi / 4.0);
    for (auto& channel : input.channels) {
        for (std::size_t i = 0; i < 4800; ++i) {
            channel[i] *= static_cast<float>(0.5 - 0.5 * std::cos(std::numbers::pi * i / 4800.0));
        }
    }
    TruePeakLimiter limiter = makeLimiter(2, 48000.0, 0.0);
    limiter.process(input.pointers(), input.frames());
    EXPECT_NEAR(limiter.inputTruePeak(), 0.980f, 0.002f);
}

TEST(TruePeakLimiter, QuietSignalComesOutDelayedAndBitExact) {
    const test::PlanarAudio input = test::whiteNoise(48000.0, 2, 0.5, -30.0, 1);
    TruePeakLimiter limiter = makeLimiter(2);
    EXPECT_EQ(limitWithTail(limiter, input).channels, input.channels);
    EXPECT_EQ(limiter.maxGainReduction(), 0.0);
}

// A naive model of the gain path: the maximum of the last L + 1 required
// reductions, exponential release, moving average over L.
std::vector<float> naiveGains(const std::vector<float>& peaks, float ceiling, std::size_t L,
                              double releaseCoeff) {
    std::vector<double> required;
    std::deque<double> window(L, 1.0);
    std::vector<float> gains;
    double release = 1.0;
    for (std::size_t i = 0; i < peaks.size(); ++i) {
        required.push_back(std::max(static_cast<double>(peaks[i] / ceiling), 1.0));
        const double held = *std::max_element(
            required.begin() + static_cast<long>(i >= L ? i - L : 0), required.end());
        release = std::max(held, releaseCoeff * (release - 1.0) + 1.0);
        window.pop_front();
        window.push_back(release);
        double sum = 0.0;
        for (const double v : window) {
            sum += v;
        }
        gains.push_back(static_cast<float>(1.0 / std::max(sum / static_cast<double>(L), 1.0)));
    }
    return gains;
}

TEST(TruePeakLimiter, GainPathMatchesANaiveModel) {
    // A faint noise bed, so every output sample reveals its gain, with spikes
    // of random height, some far over the ceiling.
    test::PlanarAudio input = test::whiteNoise(8000.0, 1, 0.5, -40.0, 5);
    std::vector<float>& x = input.channels[0];
    std::mt19937 rng(4);
    for (std::size_t i = 100; i + 200 < x.size(); i += 20 + rng() % 120) {
        x[i] = std::uniform_real_distribution<float>(0.3f, 2.0f)(rng);
    }
    TruePeakLimiter limiter(1, 8000.0, -3.0, 5.0, 200.0);
    TruePeakMeter meter(1);
    std::vector<float> peaks(x.size());
    meter.process(input.constPointers(), input.frames(), peaks);
    const std::vector<float> gains =
        naiveGains(peaks, limiter.ceiling(), 40, limiter.releaseCoeff());

    test::PlanarAudio output = input;
    // Block by block, so that gains() can be checked against the model too.
    std::vector<float> reported;
    for (std::int64_t at = 0; at < output.frames(); at += 333) {
        const std::int64_t n = std::min<std::int64_t>(333, output.frames() - at);
        float* pointer = output.channels[0].data() + at;
        limiter.process(std::span<float* const>(&pointer, 1), n);
        ASSERT_EQ(limiter.gains().size(), static_cast<std::size_t>(n));
        reported.insert(reported.end(), limiter.gains().begin(), limiter.gains().end());
    }
    const auto delay = static_cast<std::size_t>(limiter.latency());
    for (std::size_t i = delay; i < x.size(); ++i) {
        const float expected = x[i - delay] * gains[i];
        ASSERT_NEAR(reported[i], gains[i], 1e-6f) << i;
        if (std::fabs(expected) < limiter.ceiling() * 0.999f) {
            ASSERT_NEAR(output.channels[0][i], expected, 1e-6f * std::fabs(expected)) << i;
        }
    }
    EXPECT_GT(limiter.maxGainReduction(), 6.0);
}

class TruePeakLimiterBlocks : public testing::TestWithParam<std::int64_t> {};

TEST_P(TruePeakLimiterBlocks, AnyBlockSizeGivesIdenticalOutput) {
    test::PlanarAudio whole = test::speechLike(48000.0, 2, 2.0, 3);
    whole.applyGainDb(30.0);
    test::PlanarAudio blocked = whole;
    TruePeakLimiter reference = makeLimiter(2);
    reference.process(whole.pointers(), whole.frames());
    TruePeakLimiter limiter = makeLimiter(2);
    processInBlocks(limiter, blocked, GetParam());
    EXPECT_EQ(blocked.channels, whole.channels);
    EXPECT_EQ(limiter.maxGainReduction(), reference.maxGainReduction());
    EXPECT_EQ(limiter.inputTruePeak(), reference.inputTruePeak());
}

INSTANTIATE_TEST_SUITE_P(Sizes, TruePeakLimiterBlocks, testing::Values(1, 7, 246, 4096));

class TruePeakLimiterCeiling : public testing::TestWithParam<int> {};

TEST_P(TruePeakLimiterCeiling, NoSampleAboveTheCeiling) {
    const test::PlanarAudio adversaries[] = {
        test::whiteNoise(48000.0, 2, 1.0, -3.0, 7), test::square(44100.0, 2, 1.0, 50.0, 4.0),
        test::sine(48000.0, 2, 1.0, 12000.0, 6.0, std::numbers::pi / 4), [] {
            test::PlanarAudio spikes = test::silence(48000.0, 2, 1.0);
            for (std::size_t i = 0; i < spikes.channels[0].size(); i += 997) {
                spikes.channels[i % 2][i] = i % 3 == 0 ? 2.0f : -1.5f;
            }
            return spikes;
        }()};
    for (const test::PlanarAudio& input : adversaries) {
        TruePeakLimiter limiter = makeLimiter(2, input.sampleRate, GetParam());
        for (const auto& channel : limitWithTail(limiter, input).channels) {
            for (const float v : channel) {
                ASSERT_LE(std::fabs(v), limiter.ceiling());
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(CeilingsDb, TruePeakLimiterCeiling, testing::Values(-1, -6));

} // namespace
} // namespace ostrand
