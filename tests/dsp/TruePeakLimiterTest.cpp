#include "dsp/TruePeakLimiter.h"

#include "Rendered.h"
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

using test::rendered;

// Linear, as the limiter holds it.
float amplitude(double db) {
    return static_cast<float>(std::pow(10.0, db / 20.0));
}

TEST(TruePeakLimiter, LookaheadInterpolatorAndTruePeak) {
    EXPECT_EQ(TruePeakLimiter(2, 48000.0, -1.0, 5.0, 200.0).latency(), 246);
    EXPECT_EQ(TruePeakLimiter(2, 44100.0, -1.0, 5.0, 200.0).latency(), 226);
    EXPECT_EQ(TruePeakLimiter(1, 1000.0, -1.0, 5.0, 200.0).latency(), 14); // 8 samples ahead
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
    TruePeakMeter meter(2);
    std::vector<float> peaks(static_cast<std::size_t>(input.frames()));
    meter.process(input.constPointers(), input.frames(), peaks);
    EXPECT_NEAR(*std::max_element(peaks.begin(), peaks.end()), 0.980f, 0.002f);
}

TEST(GainRenderer, QuietSignalWithoutAPlanComesOutBitExact) {
    test::PlanarAudio input = test::whiteNoise(48000.0, 2, 0.5, -30.0, 1);
    const GainCurve unity;
    GainRenderer renderer(unity, 2, 48000.0, -1.0);
    EXPECT_EQ(rendered(renderer, input, 1024).channels, input.channels);
    // Shorter than the limiter's delay: none of its own silence comes out.
    for (auto& channel : input.channels) {
        channel.resize(100);
    }
    GainRenderer brief(unity, 2, 48000.0, -1.0);
    EXPECT_EQ(rendered(brief, input).channels, input.channels);
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
        naiveGains(peaks, amplitude(-3.0), 40, std::exp(-1.0 / 1600.0));

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
        if (std::fabs(expected) < amplitude(-3.0) * 0.999f) {
            ASSERT_NEAR(output.channels[0][i], expected, 1e-6f * std::fabs(expected)) << i;
        }
    }
    EXPECT_GT(limiter.maxGainReduction(), 6.0);
}

class GainRendererBlocks : public testing::TestWithParam<std::int64_t> {};

// The gain ramp (random gains, one per 10 ms) and the limiter, deep in
// reduction, give the same bits wherever the blocks are cut.
TEST_P(GainRendererBlocks, AnyBlockSizeGivesIdenticalOutput) {
    test::PlanarAudio input = test::speechLike(48000.0, 2, 2.0, 3);
    input.applyGainDb(12.0);
    GainCurve plan;
    plan.gainDB.resize(200);
    plan.frameLength = 480;
    std::mt19937 rng(2);
    std::generate(plan.gainDB.begin(), plan.gainDB.end(),
                  [&] { return std::uniform_real_distribution<>(-30, 24)(rng); });
    GainRenderer whole(plan, 2, 48000.0, -1.0);
    const test::PlanarAudio expected = rendered(whole, input, input.frames());
    GainRenderer blocked(plan, 2, 48000.0, -1.0);
    EXPECT_EQ(rendered(blocked, input, GetParam()).channels, expected.channels);
    EXPECT_EQ(blocked.maxGainReduction(), whole.maxGainReduction());
    EXPECT_GT(whole.maxGainReduction(), 10.0);
}

INSTANTIATE_TEST_SUITE_P(Sizes, GainRendererBlocks, testing::Values(1, 7, 246, 4096));

class GainRendererCeiling : public testing::TestWithParam<int> {};

TEST_P(GainRendererCeiling, NoSampleAboveTheCeiling) {
    const test::PlanarAudio adversaries[] = {
        test::whiteNoise(48000.0, 2, 1.0, -3.0, 7), test::square(44100.0, 2, 1.0, 50.0, 4.0),
        test::sine(48000.0, 2, 1.0, 12000.0, 6.0, std::numbers::pi / 4), [] {
            test::PlanarAudio spikes = test::silence(48000.0, 2, 1.0);
            for (std::size_t i = 0; i < spikes.channels[0].size(); i += 997) {
                spikes.channels[i % 2][i] = i % 3 == 0 ? 2.0f : -1.5f;
            }
            return spikes;
        }()};
    const GainCurve unity;
    for (const test::PlanarAudio& input : adversaries) {
        GainRenderer renderer(unity, 2, input.sampleRate, GetParam());
        for (const auto& channel : rendered(renderer, input, 1024).channels) {
            for (const float v : channel) {
                ASSERT_LE(std::fabs(v), amplitude(GetParam()));
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(CeilingsDb, GainRendererCeiling, testing::Values(-1, -6));

} // namespace
} // namespace ostrand
