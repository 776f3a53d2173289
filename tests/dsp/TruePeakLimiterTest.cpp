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

TruePeakLimiter makeLimiter(int channels = 2, double rate = 48000.0, double ceilingDb = -1.0) {
    return TruePeakLimiter(channels, rate, ceilingDb, 5.0, 200.0);
}

void processInBlocks(TruePeakLimiter& limiter, test::PlanarAudio& audio, std::int64_t block) {
    std::vector<float*> pointers = audio.pointers();
    for (std::int64_t start = 0; start < audio.frames(); start += block) {
        const std::int64_t n = std::min(block, audio.frames() - start);
        limiter.process(pointers, n);
        for (auto& p : pointers) {
            p += n;
        }
    }
}

// Output of a whole signal including its flushed tail, latency removed.
test::PlanarAudio limitWithTail(TruePeakLimiter& limiter, const test::PlanarAudio& input) {
    test::PlanarAudio audio = input;
    const std::int64_t latency = limiter.latency();
    audio.append(test::silence(input.sampleRate, static_cast<int>(input.channels.size()),
                               static_cast<double>(latency) / input.sampleRate));
    processInBlocks(limiter, audio, 1024);
    for (auto& channel : audio.channels) {
        channel.erase(channel.begin(), channel.begin() + latency);
    }
    return audio;
}

float largestMagnitude(const test::PlanarAudio& audio) {
    float peak = 0.0f;
    for (const auto& channel : audio.channels) {
        for (const float x : channel) {
            peak = std::max(peak, std::fabs(x));
        }
    }
    return peak;
}

TEST(TruePeakLimiter, LookaheadTruncatesAndHasAFloor) {
    EXPECT_EQ(makeLimiter(2, 48000.0).lookahead(), 240);
    EXPECT_EQ(makeLimiter(2, 48000.0).latency(), 246);
    EXPECT_EQ(makeLimiter(2, 44100.0).lookahead(), 220);
    EXPECT_EQ(makeLimiter(1, 1000.0).lookahead(), 8);
    EXPECT_NEAR(makeLimiter().releaseCoeff(), 0.99989584, 1e-8);
}

TEST(TruePeakLimiter, InterpolatorPhasesMatchTheDesign) {
    const auto phases = makeLimiter().reversedPhases();
    const float phase0[] = {0.00000f, 0.00071f,  -0.00430f, 0.01512f,  -0.04258f, 0.12720f,
                            0.97267f, -0.09322f, 0.03318f,  -0.01136f, 0.00294f,  -0.00036f};
    const float phase1[] = {-0.00008f, 0.00293f,  -0.01468f, 0.04789f,  -0.13199f, 0.44931f,
                            0.77121f,  -0.17081f, 0.06217f,  -0.02027f, 0.00469f,  -0.00036f};
    for (std::size_t k = 0; k < 12; ++k) {
        // Stored reversed; phases 3 and 2 mirror phases 0 and 1.
        EXPECT_NEAR(phases[0][11 - k], phase0[k], 6e-6f);
        EXPECT_NEAR(phases[1][11 - k], phase1[k], 6e-6f);
        EXPECT_EQ(phases[3][k], phases[0][11 - k]);
        EXPECT_EQ(phases[2][k], phases[1][11 - k]);
    }
    for (const auto& phase : phases) {
        float sum = 0.0f;
        for (const float tap : phase) {
            sum += tap;
        }
        EXPECT_NEAR(sum, 1.0f, 1e-6f);
    }
}

TEST(TruePeakLimiter, QuietSignalPassesThroughDelayedBitExact) {
    const test::PlanarAudio input = test::whiteNoise(48000.0, 2, 0.5, -30.0, 1);
    TruePeakLimiter limiter = makeLimiter();
    test::PlanarAudio output = input;
    processInBlocks(limiter, output, 512);
    const auto delay = static_cast<std::size_t>(limiter.latency());
    for (std::size_t c = 0; c < 2; ++c) {
        for (std::size_t i = 0; i < delay; ++i) {
            ASSERT_EQ(output.channels[c][i], 0.0f);
        }
        for (std::size_t i = delay; i < output.channels[c].size(); ++i) {
            ASSERT_EQ(output.channels[c][i], input.channels[c][i - delay]);
        }
    }
    EXPECT_EQ(limiter.release(), 1.0);
    EXPECT_EQ(limiter.attBufferSum(), 240.0);
    EXPECT_EQ(limiter.maxGainReduction(), 0.0);
}

TEST(TruePeakLimiter, TailFlushReleasesTheLastSamples) {
    const test::PlanarAudio input = test::whiteNoise(48000.0, 1, 0.1, -30.0, 2);
    TruePeakLimiter limiter = makeLimiter(1);
    const test::PlanarAudio output = limitWithTail(limiter, input);
    EXPECT_EQ(output.channels, input.channels);
}

// A naive model of the gain path: the held maximum over the last L + 1
// required reductions, exponential release, moving average over L.
std::vector<float> naiveGains(const std::vector<float>& peaks, float ceiling, std::int64_t L,
                              double releaseCoeff) {
    std::vector<double> required;
    std::vector<float> gains;
    std::deque<double> window(static_cast<std::size_t>(L), 1.0);
    double release = 1.0;
    for (std::size_t i = 0; i < peaks.size(); ++i) {
        required.push_back(std::max(static_cast<double>(peaks[i] / ceiling), 1.0));
        double held = 0.0;
        const std::size_t from =
            i >= static_cast<std::size_t>(L) ? i - static_cast<std::size_t>(L) : 0;
        for (std::size_t k = from; k <= i; ++k) {
            held = std::max(held, required[k]);
        }
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
    // A faint noise bed (so every output sample reveals its gain) with spikes
    // of random height, some far over the ceiling, some under it.
    constexpr double rate = 8000.0;
    test::PlanarAudio input = test::whiteNoise(rate, 1, 0.5, -40.0, 5);
    std::vector<float>& x = input.channels[0];
    std::mt19937 rng(4);
    std::uniform_real_distribution<float> height(0.3f, 2.0f);
    for (std::size_t i = 100; i + 200 < x.size(); i += 20 + rng() % 120) {
        x[i] = height(rng);
    }
    TruePeakLimiter limiter(1, rate, -3.0, 5.0, 200.0);
    ASSERT_EQ(limiter.lookahead(), 40);

    // Peak estimates: the sample and four interpolated points per position.
    const auto phases = limiter.reversedPhases();
    const auto at = [&](long k) { return k < 0 ? 0.0f : x[static_cast<std::size_t>(k)]; };
    std::vector<float> peaks(x.size());
    for (long i = 0; i < static_cast<long>(x.size()); ++i) {
        float peak = std::fabs(at(i - 6));
        for (const auto& phase : phases) {
            float y = at(i - 11) * phase[0];
            for (long k = 1; k < 12; ++k) {
                y += at(i - 11 + k) * phase[static_cast<std::size_t>(k)];
            }
            peak = std::max(peak, std::fabs(y));
        }
        peaks[static_cast<std::size_t>(i)] = peak;
    }
    const std::vector<float> gains =
        naiveGains(peaks, limiter.ceiling(), limiter.lookahead(), limiter.releaseCoeff());

    test::PlanarAudio output = input;
    processInBlocks(limiter, output, 333);
    const auto delay = static_cast<std::size_t>(limiter.latency());
    int reduced = 0;
    for (std::size_t i = delay; i < x.size(); ++i) {
        const float expected = x[i - delay] * gains[i];
        if (std::fabs(expected) < limiter.ceiling() * 0.999f) {
            ASSERT_NEAR(output.channels[0][i], expected, 1e-6f * std::fabs(expected) + 1e-12f)
                << "at " << i;
        }
        reduced += gains[i] < 1.0f ? 1 : 0;
    }
    EXPECT_GT(reduced, 1000);
}

// Blocks of any size give identical output and statistics.
class TruePeakLimiterBlocks : public testing::TestWithParam<std::int64_t> {};

TEST_P(TruePeakLimiterBlocks, AnyBlockSizeGivesIdenticalOutput) {
    test::PlanarAudio input = test::speechLike(48000.0, 2, 2.0, 3);
    input.applyGainDb(30.0); // plenty of limiting
    test::PlanarAudio whole = input;
    TruePeakLimiter reference = makeLimiter();
    reference.process(whole.pointers(), whole.frames());
    test::PlanarAudio blocked = input;
    TruePeakLimiter limiter = makeLimiter();
    processInBlocks(limiter, blocked, GetParam());
    EXPECT_EQ(blocked.channels, whole.channels);
    EXPECT_EQ(limiter.maxGainReduction(), reference.maxGainReduction());
    EXPECT_EQ(limiter.inputTruePeak(), reference.inputTruePeak());
    EXPECT_GT(reference.maxGainReduction(), 6.0);
}

INSTANTIATE_TEST_SUITE_P(Sizes, TruePeakLimiterBlocks, testing::Values(1, 7, 245, 246, 480, 4096));

TEST(TruePeakLimiter, EmptyBlockChangesNothing) {
    TruePeakLimiter limiter = makeLimiter();
    std::vector<float> a(4, 1.0f);
    std::vector<float> b(4, 1.0f);
    std::vector<float*> planar{a.data(), b.data()};
    limiter.process(planar, 0);
    EXPECT_EQ(a, std::vector<float>(4, 1.0f));
    EXPECT_EQ(limiter.sampleIndex(), 0);
    EXPECT_EQ(limiter.inputTruePeak(), 0.0f);
}

TEST(TruePeakLimiter, SpikeIsHeldUnderTheCeilingWithALinearOnset) {
    test::PlanarAudio input = test::silence(48000.0, 1, 0.5);
    input.channels[0][10000] = 1.0f;
    TruePeakLimiter limiter = makeLimiter(1);
    // A constant companion channel would reveal the gain; here the spike
    // itself must come out at the ceiling.
    const test::PlanarAudio output = limitWithTail(limiter, input);
    EXPECT_LE(largestMagnitude(output), limiter.ceiling());
    EXPECT_NEAR(output.channels[0][10000], limiter.ceiling(), 1e-3f);
    EXPECT_NEAR(limiter.maxGainReduction(),
                20.0 * std::log10(1.0 / limiter.ceiling()) +
                    20.0 * std::log10(limiter.inputTruePeak()),
                0.05);
}

TEST(TruePeakLimiter, QuarterRateSineAt45DegreesReadsItsTruePeak) {
    test::PlanarAudio input = test::sine(48000.0, 2, 0.5, 12000.0, 0.0, std::numbers::pi / 4.0);
    ASSERT_NEAR(std::fabs(input.channels[0][0]), 0.7071f, 1e-4f);
    // Faded in: a tone switched on at full level rings above its true peak
    // in any band-limited interpolator.
    for (auto& channel : input.channels) {
        for (std::size_t i = 0; i < 4800; ++i) {
            channel[i] *= static_cast<float>(0.5 - 0.5 * std::cos(std::numbers::pi * i / 4800.0));
        }
    }
    TruePeakLimiter limiter = makeLimiter(2, 48000.0, 0.0);
    test::PlanarAudio output = input;
    limiter.process(output.pointers(), output.frames());
    EXPECT_NEAR(limiter.inputTruePeak(), 0.980f, 0.002f);
}

// Whatever comes in, no output sample exceeds the ceiling.
struct Adversary {
    const char* name;
    test::PlanarAudio (*make)();
};

class TruePeakLimiterCeiling : public testing::TestWithParam<Adversary> {};

TEST_P(TruePeakLimiterCeiling, NoSampleAboveTheCeiling) {
    const test::PlanarAudio input = GetParam().make();
    for (const double ceilingDb : {-1.0, -2.0, -6.0}) {
        TruePeakLimiter limiter = makeLimiter(2, input.sampleRate, ceilingDb);
        const test::PlanarAudio output = limitWithTail(limiter, input);
        EXPECT_LE(largestMagnitude(output), limiter.ceiling()) << ceilingDb;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Signals, TruePeakLimiterCeiling,
    testing::Values(
        Adversary{"noise", [] { return test::whiteNoise(48000.0, 2, 1.0, -3.0, 7); }},
        Adversary{"square", [] { return test::square(48000.0, 2, 1.0, 1000.0, 1.0); }},
        Adversary{"loudSquare", [] { return test::square(44100.0, 2, 1.0, 50.0, 4.0); }},
        Adversary{"quarterRate",
                  [] { return test::sine(48000.0, 2, 1.0, 12000.0, 0.0, std::numbers::pi / 4); }},
        Adversary{"spikes",
                  [] {
                      test::PlanarAudio a = test::silence(48000.0, 2, 1.0);
                      for (std::size_t i = 0; i < a.channels[0].size(); i += 997) {
                          a.channels[i % 2][i] = (i % 3 == 0) ? 2.0f : -1.5f;
                      }
                      return a;
                  }},
        Adversary{"speech",
                  [] {
                      test::PlanarAudio a = test::speechLike(48000.0, 2, 5.0, 8);
                      a.applyGainDb(24.0);
                      return a;
                  }}),
    [](const auto& p) { return std::string(p.param.name); });

} // namespace
} // namespace ostrand
