#include "dsp/GainCurveBuilder.h"

#include "dsp/FrameAnalyzer.h"
#include "support/Signals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace ostrand {
namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

TEST(GainCurveHelpers, BoxMeanPercentileAndGaps) {
    using V = std::vector<double>;
    EXPECT_EQ(GainCurveBuilder::boxMean(V{1, 2, 3, 4}, 2), (V{1, 1.5, 2.5, 3.5}));
    EXPECT_EQ(GainCurveBuilder::boxMean(V{1, 2, 3, 4}, 10), (V{1.5, 2, 2.5, 3}));
    V window(1000, 0.0);
    window[349] = window[650] = 1e9; // just outside frame 500's 300 frames
    window[350] = window[649] = 150.0;
    EXPECT_DOUBLE_EQ(GainCurveBuilder::boxMean(window, 300)[500], 1.0);

    EXPECT_EQ(GainCurveBuilder::percentile(V{3, 1, 2}, 0.5), 2.0);
    EXPECT_EQ(GainCurveBuilder::percentile({}, 0.95), 0.0);
    V ranks(100);
    std::iota(ranks.begin(), ranks.end(), 0.0);
    std::shuffle(ranks.begin(), ranks.end(), std::mt19937(1));
    EXPECT_EQ(GainCurveBuilder::percentile(ranks, 0.95), 94.0); // rank trunc(0.95 * 99)

    for (auto [in, out] : {std::pair{V{nan, 2, nan, nan, 8, nan}, V{2, 2, 4, 6, 8, 8}},
                           std::pair{V{nan, nan}, V{-30, -30}}, std::pair{V{}, V{}}}) {
        GainCurveBuilder::fillGaps(in);
        EXPECT_EQ(in, out);
    }
}

// The direct definition: every tap, ends held, summed in tap order.
std::vector<double> naiveGaussian(const std::vector<double>& x, double sigma) {
    const auto r = static_cast<long>(std::ceil(4.0 * sigma));
    std::vector<double> kernel;
    double sum = 0.0;
    for (long j = -r; j <= r; ++j) {
        kernel.push_back(std::exp(static_cast<double>(j * j) * -0.5 / (sigma * sigma)));
        sum += kernel.back();
    }
    std::vector<double> out(x.size());
    const auto n = static_cast<long>(x.size());
    for (long i = 0; i < n; ++i) {
        double acc = 0.0;
        for (long m = 0; m <= 2 * r; ++m) {
            const long k = std::clamp(i + m - r, 0L, n - 1);
            acc += x[static_cast<std::size_t>(k)] * (kernel[static_cast<std::size_t>(m)] / sum);
        }
        out[static_cast<std::size_t>(i)] = acc;
    }
    return out;
}

class GaussianFilter : public testing::TestWithParam<double> {};

TEST_P(GaussianFilter, MatchesTheDirectSum) {
    const test::PlanarAudio noise = test::whiteNoise(1000.0, 1, 3.0, -20.0, 3);
    const std::vector<double> x(noise.channels[0].begin(), noise.channels[0].end());
    const std::vector<double> fast = GainCurveBuilder::gaussianFilter(x, GetParam());
    const std::vector<double> slow = naiveGaussian(x, GetParam());
    for (std::size_t i = 0; i < x.size(); ++i) {
        ASSERT_NEAR(fast[i], slow[i], 1e-12) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Sigmas, GaussianFilter, testing::Values(0.31, 15.0, 90.0));

FrameAnalysis analyse(const test::PlanarAudio& audio) {
    FrameAnalyzer analyzer(audio.sampleRate, static_cast<std::int64_t>(audio.channels.size()));
    analyzer.append(audio.constPointers(), audio.frames());
    return std::move(analyzer).analysis();
}

GainCurve plan(const test::PlanarAudio& audio, double target = -16.0) {
    return GainCurveBuilder::build(analyse(audio), LevelingParameters::forTarget(target), -1.0,
                                   0.2);
}

TEST(GainCurveBuild, EmptyAndSilentAnalyses) {
    const GainCurve empty = GainCurveBuilder::build(FrameAnalysis{}, {}, -1.0, 0.2);
    EXPECT_TRUE(empty.gainDB.empty());
    EXPECT_EQ(empty.inputLoudness, -70.0);
    EXPECT_EQ(empty.predictedOutputLoudness, -70.0);

    const GainCurve silence = plan(test::silence(48000.0, 2, 2.0));
    EXPECT_EQ(silence.activeFraction, 1.0); // -140 dB is above the floor of -170
    EXPECT_EQ(silence.predictedOutputLoudness, -70.0);
    EXPECT_TRUE(std::all_of(silence.gainDB.begin(), silence.gainDB.end(),
                            [](double g) { return g == 24.0; }));
    EXPECT_DOUBLE_EQ(plan(test::silence(48000.0, 1, 0.3)).inputLoudness, -200.691);
}

TEST(GainCurveBuild, WithoutLimitingOneShiftHitsTheTarget) {
    const GainCurve curve = plan(test::sine(48000.0, 2, 10.0, 440.0, -40.0), -23.0);
    EXPECT_NEAR(curve.predictedOutputLoudness, -23.0, 1e-6);
    const auto [lo, hi] = std::minmax_element(curve.gainDB.begin(), curve.gainDB.end());
    EXPECT_NEAR(*hi - *lo, 0.0, 1e-9);
}

TEST(GainCurveBuild, UnreachableTargetStopsAfterFourPredictions) {
    // Every shift is eaten by the limiter: the loop gives up with the gains
    // pushed up but never past the boost limit.
    const GainCurve curve = plan(test::square(48000.0, 2, 5.0, 200.0, 0.5), 10.0);
    EXPECT_LT(curve.predictedOutputLoudness, 5.0);
    EXPECT_GT(curve.gainDB[200], 10.0);
    EXPECT_LE(curve.gainDB[200], 24.0);
}

TEST(GainCurveBuild, LevelsPhrasesAndBridgesPauses) {
    test::PlanarAudio audio = test::whiteNoise(48000.0, 1, 6.0, -36.0, 1);
    audio.append(test::whiteNoise(48000.0, 1, 8.0, -70.0, 2)); // a pause
    audio.append(test::whiteNoise(48000.0, 1, 6.0, -16.0, 3));
    const GainCurve curve = plan(audio);
    EXPECT_NEAR(curve.gainDB[300] - curve.gainDB[1700], 20.0, 1.0);
    // Mid-pause the gain lies between its neighbours': no boost of the noise.
    EXPECT_LT(curve.gainDB[1000], curve.gainDB[300] + 0.5);
    EXPECT_GT(curve.gainDB[1000], curve.gainDB[1700] - 0.5);
    EXPECT_LT(curve.activeFraction, 0.75);
    // The per-frame activity is what the fraction counts: the pause is out.
    ASSERT_EQ(curve.active.size(), curve.gainDB.size());
    EXPECT_DOUBLE_EQ(std::count(curve.active.begin(), curve.active.end(), 1) /
                         static_cast<double>(curve.active.size()),
                     curve.activeFraction);
    EXPECT_EQ(curve.active[300], 1);
    EXPECT_EQ(curve.active[1000], 0);
}

TEST(GainRamp, LinearInAmplitudeAndIndependentOfBlocks) {
    std::vector<float> out(10);
    fillGainRamp(std::vector<double>{0.0, -6.0206, 20.0}, 4, 0, out);
    EXPECT_FLOAT_EQ(out[2], 0.75f);
    EXPECT_NEAR(out[6], 5.25f, 1e-3f); // halfway from 0.5 to 10
    EXPECT_FLOAT_EQ(out[9], 10.0f);    // the last gain holds
    fillGainRamp({}, 4, 0, out);
    EXPECT_EQ(out, std::vector<float>(10, 1.0f)); // no plan: unity

    std::vector<double> gains(100);
    std::mt19937 rng(2);
    std::generate(gains.begin(), gains.end(),
                  [&] { return std::uniform_real_distribution<>(-30, 24)(rng); });
    std::vector<float> whole(48000);
    std::vector<float> pieces(48000);
    fillGainRamp(gains, 480, 0, whole);
    for (std::size_t start = 0; start < pieces.size(); start += 333) {
        const std::size_t n = std::min<std::size_t>(333, pieces.size() - start);
        fillGainRamp(gains, 480, static_cast<std::int64_t>(start),
                     std::span(pieces).subspan(start, n));
    }
    EXPECT_EQ(pieces, whole);
}

} // namespace
} // namespace ostrand
