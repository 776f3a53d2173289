#include "dsp/GainCurveBuilder.h"

#include "dsp/FrameAnalyzer.h"
#include "dsp/Loudness.h"
#include "dsp/TruePeakLimiter.h"
#include "support/Signals.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <random>
#include <vector>

namespace ostrand {
namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

MATCHER_P(ElementsNear, expected, "") {
    if (arg.size() != expected.size()) {
        return false;
    }
    for (std::size_t i = 0; i < arg.size(); ++i) {
        if (std::fabs(arg[i] - expected[i]) > 1e-12) {
            return false;
        }
    }
    return true;
}

TEST(GainCurveHelpers, BoxMeanIsCentredAndClippedAtTheEnds) {
    const std::vector<double> x{1, 2, 3, 4};
    EXPECT_THAT(GainCurveBuilder::boxMean(x, 2),
                ElementsNear(std::vector<double>{1, 1.5, 2.5, 3.5}));
    EXPECT_THAT(GainCurveBuilder::boxMean(x, 10),
                ElementsNear(std::vector<double>{1.5, 2, 2.5, 3}));
    EXPECT_THAT(GainCurveBuilder::boxMean(x, 0), ElementsNear(x));
    EXPECT_TRUE(GainCurveBuilder::boxMean({}, 300).empty());
}

TEST(GainCurveHelpers, BoxMeanOfWidth300SpansFrom150BeforeTo149After) {
    std::vector<double> x(1000, 0.0);
    x[349] = 1e9; // just before the window of frame 500
    x[350] = 150.0;
    x[649] = 150.0;
    x[650] = 1e9; // just after it
    EXPECT_DOUBLE_EQ(GainCurveBuilder::boxMean(x, 300)[500], 1.0);
}

TEST(GainCurveHelpers, PercentileTakesTheRankWithoutInterpolation) {
    EXPECT_EQ(GainCurveBuilder::percentile(std::vector<double>{3, 1, 2}, 0.5), 2.0);
    EXPECT_EQ(GainCurveBuilder::percentile({}, 0.95), 0.0);
    std::vector<double> ascending(101);
    std::iota(ascending.begin(), ascending.end(), 0.0);
    std::shuffle(ascending.begin(), ascending.end(), std::mt19937(1));
    EXPECT_EQ(GainCurveBuilder::percentile(ascending, 0.95), 95.0);
    ascending.resize(100);
    std::sort(ascending.begin(), ascending.end());
    EXPECT_EQ(GainCurveBuilder::percentile(ascending, 0.95), ascending[94]);
    EXPECT_EQ(GainCurveBuilder::percentile(ascending, 2.0), ascending.back());
}

struct GapCase {
    std::vector<double> input;
    std::vector<double> expected;
};

class FillGaps : public testing::TestWithParam<GapCase> {};

TEST_P(FillGaps, InterpolatesBetweenAndHoldsAtTheEnds) {
    std::vector<double> x = GetParam().input;
    GainCurveBuilder::fillGaps(x);
    EXPECT_THAT(x, ElementsNear(GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(Cases, FillGaps,
                         testing::Values(GapCase{{nan, 2, nan, nan, 8, nan}, {2, 2, 4, 6, 8, 8}},
                                         GapCase{{nan, nan}, {-30, -30}}, GapCase{{}, {}},
                                         GapCase{{5}, {5}},
                                         GapCase{{1, nan, nan, nan, 5}, {1, 2, 3, 4, 5}}));

// The direct definition, summed in the same order.
std::vector<double> naiveGaussian(const std::vector<double>& x, double sigma) {
    const auto r = static_cast<long>(std::ceil(4.0 * sigma));
    std::vector<double> kernel;
    double sum = 0.0;
    for (long j = -r; j <= r; ++j) {
        kernel.push_back(std::exp(static_cast<double>(j * j) * -0.5 / (sigma * sigma)));
        sum += kernel.back();
    }
    for (double& k : kernel) {
        k /= sum;
    }
    const auto n = static_cast<long>(x.size());
    std::vector<double> out(x.size());
    for (long i = 0; i < n; ++i) {
        double acc = 0.0;
        for (long m = 0; m <= 2 * r; ++m) {
            const long src = std::clamp(i + m - r, 0L, n - 1);
            acc += x[static_cast<std::size_t>(src)] * kernel[static_cast<std::size_t>(m)];
        }
        out[static_cast<std::size_t>(i)] = acc;
    }
    return out;
}

class GaussianFilter : public testing::TestWithParam<double> {};

TEST_P(GaussianFilter, MatchesTheDirectSumWithHeldEnds) {
    std::mt19937 rng(3);
    std::normal_distribution<double> dist(-20.0, 6.0);
    std::vector<double> x(3000);
    for (double& v : x) {
        v = dist(rng);
    }
    const std::vector<double> fast = GainCurveBuilder::gaussianFilter(x, GetParam());
    const std::vector<double> slow = naiveGaussian(x, GetParam());
    ASSERT_EQ(fast.size(), slow.size());
    for (std::size_t i = 0; i < x.size(); ++i) {
        ASSERT_NEAR(fast[i], slow[i], 1e-9) << "at " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Sigmas, GaussianFilter, testing::Values(0.31, 1.0, 15.0, 90.0));

TEST(GaussianFilterEdges, ShortInputsAndNarrowSigmasPassThrough) {
    const std::vector<double> one{4.0};
    EXPECT_EQ(GainCurveBuilder::gaussianFilter(one, 90.0), one);
    const std::vector<double> three{1.0, 9.0, 2.0};
    EXPECT_EQ(GainCurveBuilder::gaussianFilter(three, 0.3), three);
    EXPECT_EQ(GainCurveBuilder::gaussianFilter(three, nan), three);
    // A constant stays constant: the kernel is normalised.
    const std::vector<double> flat(50, -7.0);
    for (const double v : GainCurveBuilder::gaussianFilter(flat, 15.0)) {
        EXPECT_NEAR(v, -7.0, 1e-12);
    }
}

FrameAnalysis analyse(const test::PlanarAudio& audio) {
    FrameAnalyzer analyzer(audio.sampleRate, static_cast<std::int64_t>(audio.channels.size()));
    analyzer.append(audio.constPointers(), audio.frames());
    return std::move(analyzer).analysis();
}

GainCurve plan(const FrameAnalysis& analysis, double target = -16.0, double ceilingDb = -1.0) {
    return GainCurveBuilder::build(analysis, LevelingParameters::forTarget(target), ceilingDb, 0.2);
}

TEST(GainCurveBuild, EmptyAnalysisGivesAnEmptyCurve) {
    FrameAnalysis empty;
    empty.frameLength = 480;
    const GainCurve curve = plan(empty);
    EXPECT_TRUE(curve.gainDB.empty());
    EXPECT_EQ(curve.frameLength, 480);
    EXPECT_EQ(curve.inputLoudness, -70.0);
    EXPECT_EQ(curve.predictedOutputLoudness, -70.0);
    EXPECT_EQ(curve.activeFraction, 0.0);
}

TEST(GainCurveBuild, DigitalSilenceGetsTheLargestBoostAndStaysAtTheGate) {
    const GainCurve curve = plan(analyse(test::silence(48000.0, 2, 2.0)));
    EXPECT_EQ(curve.activeFraction, 1.0);
    EXPECT_EQ(curve.inputLoudness, -70.0);
    EXPECT_EQ(curve.predictedOutputLoudness, -70.0);
    for (const double g : curve.gainDB) {
        ASSERT_EQ(g, 24.0);
    }
}

TEST(GainCurveBuild, ShortSilenceIsMeasuredUngated) {
    const GainCurve curve = plan(analyse(test::silence(48000.0, 1, 0.3)));
    EXPECT_EQ(curve.gainDB.size(), 30u);
    EXPECT_DOUBLE_EQ(curve.inputLoudness, -200.691);
}

TEST(GainCurveBuild, SingleFrameKeepsItsRawGainShiftedToTarget) {
    const GainCurve curve = plan(analyse(test::sine(48000.0, 1, 0.01, 1000.0, -20.0)));
    ASSERT_EQ(curve.gainDB.size(), 1u);
    EXPECT_NEAR(curve.predictedOutputLoudness, -16.0, 0.02);
}

TEST(GainCurveBuild, NoLimitingMeansOneShiftHitsTheTarget) {
    // A quiet steady tone: nothing reaches the ceiling, so the second
    // prediction lands on the target exactly (up to rounding).
    const GainCurve curve = plan(analyse(test::sine(48000.0, 2, 10.0, 440.0, -40.0)), -23.0);
    EXPECT_NEAR(curve.predictedOutputLoudness, -23.0, 1e-6);
    const auto [lo, hi] = std::minmax_element(curve.gainDB.begin(), curve.gainDB.end());
    EXPECT_NEAR(*hi - *lo, 0.0, 1e-9);
}

TEST(GainCurveBuild, GainsStayWithinBoostAndCut) {
    test::PlanarAudio audio = test::sine(48000.0, 1, 5.0, 440.0, -80.0);
    audio.append(test::square(48000.0, 1, 5.0, 100.0, 1.0));
    const GainCurve curve = plan(analyse(audio), -5.0, -1.0);
    for (const double g : curve.gainDB) {
        ASSERT_GE(g, -30.0);
        ASSERT_LE(g, 24.0);
    }
}

TEST(GainCurveBuild, UnreachableTargetStopsAfterFourPredictions) {
    // A square wave limited at -1 dBTP can never measure +10 LUFS: every
    // shift is eaten by the limiter, and the loop gives up after four
    // predictions with the gains pushed up, never past the boost limit.
    const GainCurve curve = plan(analyse(test::square(48000.0, 2, 5.0, 200.0, 0.5)), 10.0, -1.0);
    EXPECT_LT(curve.predictedOutputLoudness, 5.0);
    EXPECT_GT(curve.gainDB[200], 10.0);
    EXPECT_LE(curve.gainDB[200], 24.0);
}

TEST(GainCurveBuild, PausesKeepTheGainOfTheSpeechAround) {
    // Speech, eight seconds of faint noise, speech again at the same level.
    test::PlanarAudio audio = test::whiteNoise(48000.0, 1, 6.0, -26.0, 1);
    audio.append(test::whiteNoise(48000.0, 1, 8.0, -70.0, 2));
    audio.append(test::whiteNoise(48000.0, 1, 6.0, -26.0, 3));
    const GainCurve curve = plan(analyse(audio));
    const double speechGain = curve.gainDB[300];
    // In the middle of the pause the level is interpolated, not tracked down.
    EXPECT_NEAR(curve.gainDB[1000], speechGain, 1.0);
    EXPECT_NEAR(curve.gainDB[1700], speechGain, 1.0);
    EXPECT_LT(curve.activeFraction, 0.75);
}

TEST(GainCurveBuild, LevelsPhrasesOfDifferentLoudness) {
    test::PlanarAudio audio = test::whiteNoise(48000.0, 1, 10.0, -35.0, 4);
    audio.append(test::whiteNoise(48000.0, 1, 10.0, -15.0, 5));
    const GainCurve curve = plan(analyse(audio));
    EXPECT_NEAR(curve.gainDB[500] - curve.gainDB[1500], 20.0, 1.0);
}

// The plan predicts what the real limiter will produce: applying the curve
// and the limiter to the signal lands near the prediction.
TEST(GainCurveBuild, PredictionMatchesTheRealChain) {
    const test::PlanarAudio speech = test::speechLike(48000.0, 2, 60.0, 9);
    const FrameAnalysis analysis = analyse(speech);
    const GainCurve curve = plan(analysis, -16.0, -1.0);
    EXPECT_NEAR(curve.predictedOutputLoudness, -16.0, 0.02);

    test::PlanarAudio out = speech;
    std::vector<float> gain(static_cast<std::size_t>(out.frames()));
    fillGainRamp(curve.gainDB, curve.frameLength, 0, gain);
    for (auto& channel : out.channels) {
        for (std::size_t i = 0; i < channel.size(); ++i) {
            channel[i] *= gain[i];
        }
    }
    TruePeakLimiter limiter(2, 48000.0, -1.0, 5.0, 200.0);
    limiter.process(out.pointers(), out.frames());
    FrameAnalyzer measured(48000.0, 2);
    measured.append(out.constPointers(), out.frames());
    EXPECT_NEAR(Loudness::integrated(measured.kPower()), -16.0, 0.3);
}

TEST(GainRamp, MovesLinearlyInAmplitudeBetweenFrameStarts) {
    const std::vector<double> gains{0.0, -6.0206, 20.0};
    std::vector<float> out(10);
    fillGainRamp(gains, 4, 0, out);
    EXPECT_FLOAT_EQ(out[0], 1.0f);
    EXPECT_FLOAT_EQ(out[2], 0.75f);
    EXPECT_NEAR(out[4], 0.5f, 1e-4f);
    EXPECT_NEAR(out[6], 5.25f, 1e-3f); // halfway from 0.5 to 10
    EXPECT_FLOAT_EQ(out[8], 10.0f);    // last frame and beyond hold
    EXPECT_FLOAT_EQ(out[9], 10.0f);
}

TEST(GainRamp, BlockBoundariesDoNotChangeTheGains) {
    std::vector<double> gains(100);
    std::mt19937 rng(2);
    std::uniform_real_distribution<double> dist(-30.0, 24.0);
    for (double& g : gains) {
        g = dist(rng);
    }
    std::vector<float> whole(48000);
    fillGainRamp(gains, 480, 0, whole);
    std::vector<float> pieces(48000);
    for (std::size_t start = 0; start < pieces.size(); start += 333) {
        const std::size_t n = std::min<std::size_t>(333, pieces.size() - start);
        fillGainRamp(gains, 480, static_cast<std::int64_t>(start),
                     std::span<float>(pieces.data() + start, n));
    }
    EXPECT_EQ(pieces, whole);
}

TEST(GainRamp, EmptyPlanIsUnityGain) {
    std::vector<float> out(5, 0.0f);
    fillGainRamp({}, 480, 0, out);
    EXPECT_EQ(out, std::vector<float>(5, 1.0f));
    const std::vector<double> single{6.0};
    fillGainRamp(single, 480, 1000, out);
    for (const float g : out) {
        EXPECT_FLOAT_EQ(g, static_cast<float>(std::pow(10.0, 6.0 / 20.0)));
    }
}

} // namespace
} // namespace ostrand
