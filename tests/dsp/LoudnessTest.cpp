#include "dsp/Loudness.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

namespace ostrand {
namespace {

double powerOf(double lufs) {
    return std::pow(10.0, (lufs + 0.691) / 10.0);
}

// Every block summed afresh, both gates applied as written.
double naiveIntegrated(const std::vector<double>& frames) {
    std::vector<double> blocks;
    for (std::size_t start = 0; start + 40 <= frames.size(); start += 10) {
        double sum = 0.0;
        for (std::size_t f = start; f < start + 40; ++f) {
            sum += frames[f];
        }
        blocks.push_back(sum / 40.0);
    }
    const auto gatedMean = [&](double gate) {
        double sum = 0.0;
        int count = 0;
        for (const double b : blocks) {
            if (Loudness::loudnessOf(b) > -70.0 && Loudness::loudnessOf(b) > gate) {
                sum += b;
                ++count;
            }
        }
        return sum / count;
    };
    return Loudness::loudnessOf(gatedMean(Loudness::loudnessOf(gatedMean(-70.0)) - 10.0));
}

TEST(Loudness, ShortSeriesAreUngatedLongSilenceIsTheGate) {
    EXPECT_DOUBLE_EQ(Loudness::integrated({}), -200.691);
    EXPECT_DOUBLE_EQ(Loudness::integrated(std::vector<double>(39, 0.0)), -200.691);
    EXPECT_NEAR(Loudness::integrated(std::vector<double>{powerOf(-90.0), 0.0}), -93.0103, 1e-3);
    EXPECT_EQ(Loudness::integrated(std::vector<double>(40, 0.0)), -70.0);
    EXPECT_DOUBLE_EQ(Loudness::integrated(std::vector<double>(40, 1.0)), -0.691);
}

TEST(Loudness, ShortTermIsTheMeanOfTheLastThreeSeconds) {
    std::vector<double> frames(150, powerOf(-20.0)); // 1.5 s, shorter than the window
    frames.resize(450, powerOf(-30.0));
    frames.resize(1200, 0.0);
    const std::vector<float> st = Loudness::shortTerm(frames);
    ASSERT_EQ(st.size(), frames.size());
    EXPECT_NEAR(st[0], -20.0, 1e-4);
    EXPECT_NEAR(st[149], -20.0, 1e-4);
    EXPECT_NEAR(st[299], Loudness::loudnessOf((powerOf(-20.0) + powerOf(-30.0)) / 2.0), 1e-4);
    EXPECT_NEAR(st[449], -30.0, 1e-4);
    // Silence after sound reads as silence, not as a rounding residue.
    EXPECT_NEAR(st[1199], -200.691, 1e-3);
}

TEST(Loudness, BlockExactlyAtTheAbsoluteGateFails) {
    double p = powerOf(-70.0);
    while (Loudness::loudnessOf(p) > -70.0) {
        p = std::nextafter(p, 0.0);
    }
    while (Loudness::loudnessOf(p) < -70.0) {
        p = std::nextafter(p, 1.0);
    }
    ASSERT_EQ(Loudness::loudnessOf(p), -70.0);
    EXPECT_EQ(Loudness::integrated(std::vector<double>(40, p)), -70.0);
}

// An hour with quiet passages under the relative gate and silences under the
// absolute one, ending in a partial block and without.
TEST(Loudness, RunningSumAgreesWithFreshSumsOverAnHour) {
    std::mt19937 rng(7);
    std::lognormal_distribution<double> level(-6.0, 2.0);
    std::vector<double> frames(360007);
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const std::size_t phase = i % 20000;
        frames[i] = phase < 1000 ? 0.0 : phase < 3000 ? 1e-3 * level(rng) : level(rng);
    }
    EXPECT_NEAR(Loudness::integrated(frames), naiveIntegrated(frames), 1e-9);
    frames.resize(360000); // the last block ends with the series
    EXPECT_NEAR(Loudness::integrated(frames), naiveIntegrated(frames), 1e-9);
}

} // namespace
} // namespace ostrand
