// The programme meter against the EBU's minimum requirements for 'EBU Mode'
// meters (Tech 3341, cases 1-23) and for loudness range (Tech 3342, cases
// 1-4), each signal generated here from its published description. Not
// generated: 3341 #7 and #8 and 3342 #5 and #6, which are authentic programme
// recordings distributed by the EBU. Every reading is printed for the record.

#include "dsp/LoudnessMeter.h"
#include "dsp/FrameAnalyzer.h"
#include "dsp/KWeightingFilter.h"
#include "dsp/Loudness.h"

#include "support/NamedCases.h"
#include "support/Signals.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <complex>
#include <cstdio>
#include <functional>
#include <limits>
#include <numbers>
#include <ostream>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace ostrand::test {
namespace {

constexpr double rate = 48000.0;
constexpr double silent = -std::numeric_limits<double>::infinity();

// One figure of LoudnessFigures, as the documents name it.
struct Figure {
    const char* name;
    double LoudnessFigures::*field;
};
constexpr Figure integrated{"I", &LoudnessFigures::integratedLoudness};
constexpr Figure range{"LRA", &LoudnessFigures::loudnessRange};
constexpr Figure maxMomentary{"max M", &LoudnessFigures::maxMomentary};
constexpr Figure maxShortTerm{"max S", &LoudnessFigures::maxShortTerm};
constexpr Figure truePeak{"true peak", &LoudnessFigures::truePeak};

struct Expect {
    Figure figure;
    double value;
    double below = 0.1; // accepted error under the value
    double above = 0.1;
};

// Audio appended in turn; the expectations are read after each part.
struct Part {
    test::PlanarAudio audio;
    std::vector<Expect> expects;
};

struct MeterCase {
    std::string name;
    std::function<std::vector<Part>()> make;
    std::vector<ChannelWeight> weights = {ChannelWeight::front, ChannelWeight::front};
};

// Stereo 1 kHz tones, one (seconds, dBFS peak) pair per segment.
test::PlanarAudio tones(const std::vector<std::pair<double, double>>& segments) {
    test::PlanarAudio audio = test::silence(rate, 2, 0.0);
    for (const auto& [seconds, dbfs] : segments) {
        audio.append(dbfs == silent ? test::silence(rate, 2, seconds)
                                    : test::sine(rate, 2, seconds, 1000.0, dbfs));
    }
    return audio;
}

std::vector<Part> once(test::PlanarAudio audio, std::vector<Expect> expects) {
    return {Part{std::move(audio), std::move(expects)}};
}

std::vector<Expect> msi(double lufs) {
    return {{maxMomentary, lufs}, {maxShortTerm, lufs}, {integrated, lufs}};
}

// A 10 ms linear fade at both ends, as the true-peak signals ask for.
test::PlanarAudio tapered(test::PlanarAudio audio) {
    const auto fade = static_cast<std::size_t>(audio.sampleRate / 100.0);
    for (auto& channel : audio.channels) {
        for (std::size_t i = 0; i < fade; ++i) {
            const auto g = static_cast<float>(static_cast<double>(i) / static_cast<double>(fade));
            channel[i] *= g;
            channel[channel.size() - 1 - i] *= g;
        }
    }
    return audio;
}

// A stereo sine of `amplitude` (fraction of full scale) at `fraction` of the
// sample rate, starting at `degrees`.
test::PlanarAudio peakTone(double sampleRate, double fraction, double amplitude, double degrees) {
    return tapered(test::sine(sampleRate, 2, 1.0, fraction * sampleRate,
                              20.0 * std::log10(amplitude), degrees * std::numbers::pi / 180.0));
}

// 3341 #20-23: at 4 fs, a sine at fs/6 (0.5 FFS) with one period at fs/4 of
// full amplitude spliced in at a rising zero crossing, low-pass filtered at
// 22 kHz and kept every fourth sample from `offset`.
test::PlanarAudio burst(int offset) {
    test::PlanarAudio high = test::silence(4.0 * rate, 1, 1.0);
    const std::size_t start = 24 * 4000; // a whole number of fs/6 periods
    for (std::size_t n = 0; n < high.channels[0].size(); ++n) {
        const auto t = static_cast<double>(n);
        double x = 0.5 * std::sin(2.0 * std::numbers::pi * t / 24.0);
        if (n >= start + 16) {
            x = 0.5 * std::sin(2.0 * std::numbers::pi * (t - 16.0) / 24.0);
        } else if (n >= start) {
            x = std::sin(2.0 * std::numbers::pi * (t - static_cast<double>(start)) / 16.0);
        }
        high.channels[0][n] = static_cast<float>(x);
    }
    high = test::lowPassed(std::move(high), 22000.0, 255);
    test::PlanarAudio audio = test::silence(rate, 2, 0.0);
    for (std::size_t n = static_cast<std::size_t>(offset); n < high.channels[0].size(); n += 4) {
        for (auto& channel : audio.channels) {
            channel.push_back(high.channels[0][n]);
        }
    }
    return tapered(std::move(audio));
}

Expect truePeakOf(double dbtp) {
    return {truePeak, dbtp, 0.4, 0.2};
}

// Tones in stereo, each case read once at its end.
struct ToneCase {
    const char* name;
    std::vector<std::pair<double, double>> segments;
    std::vector<Expect> expects;
};

std::vector<MeterCase> toneCases(const std::vector<ToneCase>& table) {
    std::vector<MeterCase> cases;
    for (const ToneCase& t : table) {
        cases.push_back({t.name, [t] { return once(tones(t.segments), t.expects); }});
    }
    return cases;
}

// `count` times the pair of segments `a`, `b`.
std::vector<std::pair<double, double>> alternating(int count, std::pair<double, double> a,
                                                   std::pair<double, double> b) {
    std::vector<std::pair<double, double>> segments;
    for (int i = 0; i < count; ++i) {
        segments.insert(segments.end(), {a, b});
    }
    return segments;
}

std::vector<MeterCase> tech3341() {
    std::vector<MeterCase> cases = toneCases({
        {"case01", {{20.0, -23.0}}, msi(-23.0)},
        {"case02", {{20.0, -33.0}}, msi(-33.0)},
        {"case03", {{10.0, -36.0}, {60.0, -23.0}, {10.0, -36.0}}, {{integrated, -23.0}}},
        {"case04",
         {{10.0, -72.0}, {10.0, -36.0}, {60.0, -23.0}, {10.0, -36.0}, {10.0, -72.0}},
         {{integrated, -23.0}}},
        {"case05", {{20.0, -26.0}, {20.1, -20.0}, {20.0, -26.0}}, {{integrated, -23.0}}},
        // Constant within +-0.1 after 3 s: every short-term value counts
        // towards the range, so it spans at most 0.2 LU.
        {"case09",
         alternating(5, {1.34, -20.0}, {1.66, -30.0}),
         {{maxShortTerm, -23.0}, {range, 0.0, 0.0, 0.2}}},
        {"case12", alternating(25, {0.18, -20.0}, {0.22, -30.0}), {{maxMomentary, -23.0}}},
    });
    cases.push_back(
        {"case06",
         [] {
             // L, R, C, Ls, Rs
             test::PlanarAudio audio = test::silence(rate, 0, 0.0);
             for (const double dbfs : {-28.0, -28.0, -24.0, -30.0, -30.0}) {
                 audio.channels.push_back(test::sine(rate, 1, 20.0, 1000.0, dbfs).channels[0]);
             }
             return once(std::move(audio), {{integrated, -23.0}});
         },
         {ChannelWeight::front, ChannelWeight::front, ChannelWeight::front, ChannelWeight::surround,
          ChannelWeight::surround}});
    // The window tests: a tone starting at 20 offsets from the meter's grid,
    // each offset a file of its own (#10, #13), and the live variant (#11,
    // #14): all in one stream, louder each time, the maximum so far read
    // after each.
    for (const auto& [file, live, seconds, step, figure] :
         {std::tuple{10, 11, 3.0, 0.15, maxShortTerm},
          std::tuple{13, 14, 0.4, 0.02, maxMomentary}}) {
        cases.push_back({"case" + std::to_string(live), [=] {
                             std::vector<Part> parts;
                             for (int i = 0; i < 20; ++i) {
                                 parts.push_back({tones({{i * step, silent},
                                                         {seconds, -38.0 + i},
                                                         {seconds - i * step, silent}}),
                                                  {{figure, -38.0 + i}}});
                             }
                             return parts;
                         }});
        for (int i = 0; i < 20; ++i) {
            char name[32];
            std::snprintf(name, sizeof name, "case%d_segment%02d", file, i + 1);
            cases.push_back({name, [=] {
                                 return once(
                                     tones({{i * step, silent}, {seconds, -23.0}, {1.0, silent}}),
                                     {{figure, -23.0}});
                             }});
        }
    }
    // The true-peak tones, at 48 kHz as published and at the other common
    // rates, where the interpolator's factor and length differ.
    struct Tone {
        int number;
        double fraction, amplitude, degrees;
    };
    for (const double sampleRate : {48000.0, 44100.0, 96000.0, 192000.0}) {
        for (const Tone t : {Tone{15, 1.0 / 4, 0.5, 0.0}, Tone{16, 1.0 / 4, 0.5, 45.0},
                             Tone{17, 1.0 / 6, 0.5, 60.0}, Tone{18, 1.0 / 8, 0.5, 67.5},
                             Tone{19, 1.0 / 4, 1.41, 45.0}}) {
            const std::string suffix =
                sampleRate == rate ? "" : "_at" + std::to_string(static_cast<int>(sampleRate));
            cases.push_back({"case" + std::to_string(t.number) + suffix, [sampleRate, t] {
                                 return once(
                                     peakTone(sampleRate, t.fraction, t.amplitude, t.degrees),
                                     {truePeakOf(t.number == 19 ? 3.0 : -6.0)});
                             }});
        }
    }
    for (int offset = 0; offset < 4; ++offset) {
        cases.push_back({"case" + std::to_string(20 + offset),
                         [offset] { return once(burst(offset), {truePeakOf(0.0)}); }});
    }
    return cases;
}

std::vector<MeterCase> tech3342() {
    return toneCases({{"case1", {{20.0, -20.0}, {20.0, -30.0}}, {{range, 10.0, 1.0, 1.0}}},
                      {"case2", {{20.0, -20.0}, {20.0, -15.0}}, {{range, 5.0, 1.0, 1.0}}},
                      {"case3", {{20.0, -40.0}, {20.0, -20.0}}, {{range, 20.0, 1.0, 1.0}}},
                      {"case4",
                       {{20.0, -50.0}, {20.0, -35.0}, {20.0, -20.0}, {20.0, -35.0}, {20.0, -50.0}},
                       {{range, 15.0, 1.0, 1.0}}}});
}

// 44.1 kHz content near 20 kHz, where a short interpolator droops.
std::vector<MeterCase> nearNyquist() {
    std::vector<MeterCase> cases;
    for (const double hz : {19500.0, 19800.0, 20000.0}) {
        for (const double degrees : {0.0, 30.0, 45.0, 80.0}) {
            cases.push_back({"tone" + std::to_string(static_cast<int>(hz)) + "Hz_phase" +
                                 std::to_string(static_cast<int>(degrees)),
                             [hz, degrees] {
                                 return once(peakTone(44100.0, hz / 44100.0, 0.5, degrees),
                                             {truePeakOf(20.0 * std::log10(0.5))});
                             }});
        }
    }
    return cases;
}

// The two K-weightings: the programme meter's, and the leveler's own, which
// the analyzer measures through.
using Design = std::array<Biquad, 2> (*)(double sampleRate);
constexpr Design meterDesign = LoudnessMeter::kWeighting;
constexpr Design levelerDesign = [](double sampleRate) {
    return std::array{KWeightingFilter::highShelf(sampleRate),
                      KWeightingFilter::highPass(sampleRate)};
};

// Gain in dB of a K-weighting at a frequency.
double kWeightingDb(Design design, double hz, double sampleRate) {
    const auto z = std::polar(1.0, -2.0 * std::numbers::pi * hz / sampleRate);
    double gain = 1.0;
    for (const Biquad& q : design(sampleRate)) {
        gain *= std::abs((q.b0 + q.b1 * z + q.b2 * z * z) / (1.0 + q.a1 * z + q.a2 * z * z));
    }
    return 20.0 * std::log10(gain);
}

class EbuMode : public testing::TestWithParam<MeterCase> {};

TEST_P(EbuMode, ReadsWithinTolerance) {
    const std::vector<Part> parts = GetParam().make();
    const double sampleRate = parts.front().audio.sampleRate;
    LoudnessMeter meter(sampleRate, GetParam().weights);
    // The leveler's own measurement reads the stereo cases' integrated
    // loudness too. The signals read their level through the published
    // filter, whose gain at 1 kHz is +0.691 dB; ours has its own gain there,
    // and its gating must add no error to that.
    FrameAnalyzer analyzer(sampleRate, static_cast<std::int64_t>(GetParam().weights.size()));
    const double offsetDb = kWeightingDb(levelerDesign, 1000.0, rate) - 0.691;
    EXPECT_NEAR(offsetDb, 0.0, 0.3);
    for (std::size_t p = 0; p < parts.size(); ++p) {
        meter.append(parts[p].audio.constPointers(), parts[p].audio.frames());
        analyzer.append(parts[p].audio.constPointers(), parts[p].audio.frames());
        const LoudnessFigures figures = meter.figures();
        for (const Expect& e : parts[p].expects) {
            const double measured = figures.*e.figure.field;
            std::printf("[ conformance] %-18s %-9s expected %+6.1f measured %+7.3f tolerance "
                        "-%.1f/+%.1f\n",
                        GetParam().name.c_str(), e.figure.name, e.value, measured, e.below,
                        e.above);
            SCOPED_TRACE(testing::Message() << e.figure.name << " after part " << p + 1);
            EXPECT_GE(measured, e.value - e.below);
            EXPECT_LE(measured, e.value + e.above);
            if (e.figure.field == integrated.field && GetParam().weights.size() == 2) {
                EXPECT_NEAR(Loudness::integrated(analyzer.kPower()), e.value + offsetDb, e.above)
                    << "the leveler's measurement";
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Tech3341, EbuMode, testing::ValuesIn(tech3341()), byName);
INSTANTIATE_TEST_SUITE_P(Tech3342, EbuMode, testing::ValuesIn(tech3342()), byName);
INSTANTIATE_TEST_SUITE_P(TruePeakNear20kHz, EbuMode, testing::ValuesIn(nearNyquist()), byName);

// Blocks of any size, at any rate, add up to the figures of one append: the
// slices, the interpolator's history and its skipping carry across calls.
class LoudnessMeterBlocks : public testing::TestWithParam<std::tuple<double, std::int64_t>> {};

TEST_P(LoudnessMeterBlocks, GiveTheFiguresOfOneAppend) {
    const auto [sampleRate, block] = GetParam();
    test::PlanarAudio audio = test::speechLike(sampleRate, 2, 8.0, 7);
    audio.append(test::sine(sampleRate, 2, 0.5, 0.43 * sampleRate, -20.0, 1.0));
    const std::vector<ChannelWeight> weights{ChannelWeight::front, ChannelWeight::surround};
    LoudnessMeter whole(sampleRate, weights);
    whole.append(audio.constPointers(), audio.frames());
    LoudnessMeter pieces(sampleRate, weights);
    test::inBlocks(std::as_const(audio), block,
                   [&](const auto& at, std::int64_t n, auto) { pieces.append(at, n); });
    const LoudnessFigures a = whole.figures();
    const LoudnessFigures b = pieces.figures();
    // Sums of squares split differently round differently; peaks are exact.
    EXPECT_NEAR(a.integratedLoudness, b.integratedLoudness, 1e-9);
    EXPECT_NEAR(a.loudnessRange, b.loudnessRange, 1e-9);
    EXPECT_NEAR(a.maxMomentary, b.maxMomentary, 1e-9);
    EXPECT_NEAR(a.maxShortTerm, b.maxShortTerm, 1e-9);
    EXPECT_EQ(a.truePeak, b.truePeak);
    EXPECT_EQ(a.samplePeak, b.samplePeak);
}

INSTANTIATE_TEST_SUITE_P(Sizes, LoudnessMeterBlocks,
                         testing::Combine(testing::Values(44100.0, 96000.0, 192000.0),
                                          testing::Values(1, 37, 4096, 10000)),
                         [](const auto& p) {
                             return std::to_string(static_cast<int>(std::get<0>(p.param))) +
                                    "Hz_blocksOf" + std::to_string(std::get<1>(p.param));
                         });

// A programme that stops at full swing: the waveform between its last
// samples and the silence after it still counts.
TEST(LoudnessMeterTruePeak, IncludesTheLastSamples) {
    LoudnessMeter meter(48000.0, {ChannelWeight::front});
    const float last[] = {0.0f, 0.0f, 0.5f, 0.5f};
    const float* channel = last;
    meter.append(std::span<const float* const>(&channel, 1), 4);
    // The band-limited pulse through two equal samples peaks between them,
    // 4/pi of their height: +2.1 dB.
    EXPECT_NEAR(meter.figures().truePeak - meter.figures().samplePeak, 2.1, 0.1);
}

constexpr double unknown = std::numeric_limits<double>::quiet_NaN(); // not published: skipped

struct Coefficients {
    const char* name;
    Design design;
    double rate;
    std::size_t section; // 0 shelf, 1 high-pass
    double tolerance;
    std::array<double, 5> expected; // b0, b1, b2, a1, a2
};

class KWeightingCoefficients : public testing::TestWithParam<Coefficients> {};

// The meter's against the published 48 kHz table; the leveler's, designed
// without pre-warping, against its own design.
TEST_P(KWeightingCoefficients, MatchTheTable) {
    const Coefficients& c = GetParam();
    const Biquad q = c.design(c.rate)[c.section];
    const std::array actual{q.b0, q.b1, q.b2, q.a1, q.a2};
    for (std::size_t k = 0; k < actual.size(); ++k) {
        if (!std::isnan(c.expected[k])) {
            EXPECT_NEAR(actual[k], c.expected[k], c.tolerance) << "coefficient " << k;
        }
    }
}

// clang-format off
const Coefficients designs[] = {
    {"meterShelf48k", meterDesign, 48000, 0, 1e-12,
     {1.53512485958697, -2.69169618940638, 1.19839281085285, -1.69065929318241, 0.73248077421585}},
    {"meterHighPass48k", meterDesign, 48000, 1, 1e-12,
     {1.0, -2.0, 1.0, -1.99004745483398, 0.99007225036621}},
    {"levelerShelf48k", levelerDesign, 48000, 0, 5e-10,
     {1.5293049415, -2.6361232440, 1.1584848684, -1.6537779325, 0.7054444984}},
    {"levelerHighPass48k", levelerDesign, 48000, 1, 5e-10,
     {0.9950299263, -1.9900598526, 0.9950299263, -1.9900474548, 0.9900722504}},
    {"levelerShelf44k", levelerDesign, 44100, 0, 5e-10,
     {1.5245497507, unknown, unknown, -1.6237063835, 0.6840684538}},
    {"levelerHighPass44k", levelerDesign, 44100, 1, 5e-10,
     {unknown, unknown, unknown, -1.9891696736, 0.9891990358}},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Designs, KWeightingCoefficients, testing::ValuesIn(designs), byName);

class KWeightingAcrossRates : public testing::TestWithParam<std::tuple<double, double>> {};

TEST_P(KWeightingAcrossRates, FollowsThe48kHzResponse) {
    const auto [sampleRate, hz] = GetParam();
    EXPECT_NEAR(kWeightingDb(meterDesign, hz, sampleRate), kWeightingDb(meterDesign, hz, 48000.0),
                0.05);
}

INSTANTIATE_TEST_SUITE_P(Rates, KWeightingAcrossRates,
                         testing::Combine(testing::Values(44100.0, 96000.0),
                                          testing::Values(1000.0, 5000.0, 10000.0, 15000.0)),
                         [](const auto& p) {
                             return std::to_string(static_cast<int>(std::get<0>(p.param))) +
                                    "Hz_at" +
                                    std::to_string(static_cast<int>(std::get<1>(p.param))) + "Hz";
                         });

// The gating and short-term loudness of the leveler's own measurement.

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

TEST(Loudness, ShortSeriesAreUngatedLongSilenceIsSilence) {
    EXPECT_EQ(Loudness::integrated({}), Loudness::silence);
    EXPECT_DOUBLE_EQ(Loudness::integrated(std::vector<double>(39, 0.0)), -200.691);
    EXPECT_NEAR(Loudness::integrated(std::vector<double>{powerOf(-90.0), 0.0}), -93.0103, 1e-3);
    EXPECT_EQ(Loudness::integrated(std::vector<double>(40, 0.0)), Loudness::silence);
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
    EXPECT_EQ(Loudness::integrated(std::vector<double>(40, p)), Loudness::silence);
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
} // namespace ostrand::test
