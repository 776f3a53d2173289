#include "dsp/GainCurveBuilder.h"
#include "dsp/PauseDetector.h"

#include "Rendered.h"
#include "dsp/FrameAnalyzer.h"
#include "dsp/Loudness.h"
#include "support/NamedCases.h"
#include "support/Signals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numbers>
#include <numeric>
#include <random>
#include <vector>

namespace ostrand::test {
namespace {

FrameAnalysis analyse(const PlanarAudio& audio) {
    FrameAnalyzer analyzer(audio.sampleRate, static_cast<std::int64_t>(audio.channels.size()));
    analyzer.append(audio.constPointers(), audio.frames());
    return std::move(analyzer).analysis();
}

GainCurve plan(const FrameAnalysis& analysis, double target = -16.0, bool noiseAware = false) {
    return GainCurveBuilder::build(analysis, LevelingParameters::forTarget(target, noiseAware),
                                   -1.0);
}

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
    const PlanarAudio noise = whiteNoise(1000.0, 1, 3.0, -20.0, 3);
    const std::vector<double> x(noise.channels[0].begin(), noise.channels[0].end());
    const std::vector<double> fast = GainCurveBuilder::gaussianFilter(x, GetParam());
    const std::vector<double> slow = naiveGaussian(x, GetParam());
    for (std::size_t i = 0; i < x.size(); ++i) {
        ASSERT_NEAR(fast[i], slow[i], 1e-12) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Sigmas, GaussianFilter, testing::Values(0.31, 15.0, 90.0));

TEST(GainCurveBuild, EmptyAndSilentAnalyses) {
    const GainCurve empty = plan(FrameAnalysis{});
    EXPECT_TRUE(empty.gainDB.empty());
    EXPECT_EQ(empty.inputLoudness, Loudness::silence);
    EXPECT_EQ(empty.predictedOutputLoudness, Loudness::silence);

    const GainCurve quiet = plan(analyse(silence(48000.0, 2, 2.0)));
    EXPECT_EQ(quiet.activeFraction, 1.0); // -140 dB is above the floor of -170
    EXPECT_EQ(quiet.predictedOutputLoudness, Loudness::silence);
    EXPECT_TRUE(
        std::all_of(quiet.gainDB.begin(), quiet.gainDB.end(), [](double g) { return g == 24.0; }));
    EXPECT_DOUBLE_EQ(plan(analyse(silence(48000.0, 1, 0.3))).inputLoudness, -200.691);
}

TEST(GainCurveBuild, WithoutLimitingOneShiftHitsTheTarget) {
    const GainCurve curve = plan(analyse(sine(48000.0, 2, 10.0, 440.0, -40.0)), -23.0);
    EXPECT_NEAR(curve.predictedOutputLoudness, -23.0, 1e-6);
    const auto [lo, hi] = std::minmax_element(curve.gainDB.begin(), curve.gainDB.end());
    EXPECT_NEAR(*hi - *lo, 0.0, 1e-9);
}

TEST(GainCurveBuild, UnreachableTargetStopsAfterFourPredictions) {
    // Every shift is eaten by the limiter: the loop gives up with the gains
    // pushed up but never past the boost limit.
    const GainCurve curve = plan(analyse(square(48000.0, 2, 5.0, 200.0, 0.5)), 10.0);
    EXPECT_LT(curve.predictedOutputLoudness, 5.0);
    EXPECT_GT(curve.gainDB[200], 10.0);
    EXPECT_LE(curve.gainDB[200], 24.0);
}

TEST(GainCurveBuild, LevelsPhrasesAndBridgesPauses) {
    PlanarAudio audio = whiteNoise(48000.0, 1, 6.0, -36.0, 1);
    audio.append(whiteNoise(48000.0, 1, 8.0, -70.0, 2)); // a pause
    audio.append(whiteNoise(48000.0, 1, 6.0, -16.0, 3));
    const GainCurve curve = plan(analyse(audio));
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

// The renderer's tests cover independence of the blocks and an empty plan.
TEST(GainRamp, LinearInAmplitude) {
    std::vector<float> out(10);
    fillGainRamp(std::vector<double>{0.0, -6.0206, 20.0}, 4, 0, out);
    EXPECT_FLOAT_EQ(out[2], 0.75f);
    EXPECT_NEAR(out[6], 5.25f, 1e-3f); // halfway from 0.5 to 10
    EXPECT_FLOAT_EQ(out[9], 10.0f);    // the last gain holds
}

// The pause handling.

constexpr double rate = 16000.0; // the planner only sees frames; keep the signals cheap

struct Span {
    std::size_t begin = 0; // frames
    std::size_t end = 0;
};

enum class Bed { pinkRoom, whiteRoom, music };

// Eight phrases of speech near -20 LUFS with long pauses between them, over
// a bed.
struct Room {
    const char* name;
    Bed bed;
    double bedDbfs;
    std::uint32_t seed;
    double speakerGapDb = 0.0; // every second phrase this much quieter
    double fadeDb = 0.0;       // the speech fades this much, linearly in dB, over the programme
    bool peakySecond = false;  // the quieter speaker's waveform is spikier
    double maxGapLu = 1.0;     // between the speakers
};

struct Programme {
    PlanarAudio audio;
    std::vector<Span> phrases;
    std::vector<Span> pauses;
};

// Chords that change every two seconds, each note swelling on its own.
PlanarAudio musicBed(double seconds, double rmsDbfs, std::uint32_t seed) {
    PlanarAudio bed = silence(rate, 1, seconds);
    std::vector<float>& x = bed.channels[0];
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const auto chord = static_cast<std::size_t>(2.0 * rate);
    for (std::size_t start = 0; start < x.size(); start += chord) {
        const double root = 110.0 * std::pow(2.0, std::floor(unit(rng) * 12.0) / 12.0);
        for (const double ratio : {1.0, 1.26, 1.5, 2.0}) {
            const double swell = 0.5 + unit(rng);
            for (std::size_t i = start; i < std::min(x.size(), start + chord); ++i) {
                const double t = static_cast<double>(i - start) / rate;
                x[i] += static_cast<float>(
                    std::sin(2.0 * std::numbers::pi * root * ratio * t) *
                    (0.6 + 0.4 * std::sin(2.0 * std::numbers::pi * swell * t)) / ratio);
            }
        }
    }
    const double meanSquare =
        std::inner_product(x.begin(), x.end(), x.begin(), 0.0) / static_cast<double>(x.size());
    bed.applyGainDb(rmsDbfs - 10.0 * std::log10(meanSquare));
    return bed;
}

Programme programme(const Room& room) {
    const std::uint32_t seed = room.seed;
    Programme p;
    p.audio = silence(rate, 1, 0.0);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const auto frameOf = [](const PlanarAudio& a) {
        return static_cast<std::size_t>(a.frames() / static_cast<std::int64_t>(rate / 100.0));
    };
    for (int k = 0; k < 8; ++k) {
        PlanarAudio phrase = speechLike(rate, 1, 6.0 + 4.0 * unit(rng), seed + 10 * k);
        if (room.peakySecond && k % 2 == 1) {
            // x·sqrt(|x|) keeps the sign and the words but sharpens the peaks.
            double before = 0.0;
            double after = 0.0;
            for (float& v : phrase.channels[0]) {
                before += static_cast<double>(v) * v;
                v *= std::sqrt(std::fabs(v));
                after += static_cast<double>(v) * v;
            }
            phrase.applyGainDb(10.0 * std::log10(before / after));
        }
        phrase.applyGainDb(k % 2 == 1 ? 10.0 - room.speakerGapDb : 10.0);
        p.phrases.push_back({frameOf(p.audio), frameOf(p.audio) + frameOf(phrase)});
        p.audio.append(phrase);
        if (k < 7) {
            const PlanarAudio pause = silence(rate, 1, 2.5 + 3.0 * unit(rng));
            p.pauses.push_back({frameOf(p.audio), frameOf(p.audio) + frameOf(pause)});
            p.audio.append(pause);
        }
    }
    std::vector<float>& x = p.audio.channels[0];
    const double seconds = static_cast<double>(x.size()) / rate;
    const PlanarAudio noise = room.bed == Bed::music ? musicBed(seconds, room.bedDbfs, seed)
                              : room.bed == Bed::pinkRoom
                                  ? pinkNoise(rate, 1, seconds, room.bedDbfs, seed)
                                  : whiteNoise(rate, 1, seconds, room.bedDbfs, seed);
    for (std::size_t i = 0; i < x.size(); ++i) {
        const double along = static_cast<double>(i) / static_cast<double>(x.size());
        x[i] = x[i] * static_cast<float>(std::pow(10.0, -room.fadeDb * along / 20.0)) +
               noise.channels[0][i];
    }
    return p;
}

// The engine's leveling pass at -1 dBTP, measured.
FrameAnalysis render(const PlanarAudio& audio, const GainCurve& curve) {
    GainRenderer renderer(curve, 1, rate, -1.0);
    return analyse(rendered(renderer, audio));
}

// Level of the inner pause (half a second off each end) against the level of
// the two seconds of programme on either side, after minus before; the
// median over the pauses.
double medianPauseRiseDb(const Programme& p, const FrameAnalysis& before,
                         const FrameAnalysis& after) {
    const auto relativeDb = [](const FrameAnalysis& a, const Span& pause) {
        const auto power = [&](std::size_t begin, std::size_t end) {
            return std::accumulate(a.kPower.begin() + static_cast<std::ptrdiff_t>(begin),
                                   a.kPower.begin() + static_cast<std::ptrdiff_t>(end), 0.0) /
                   static_cast<double>(end - begin);
        };
        return 10.0 * std::log10(power(pause.begin + 50, pause.end - 50) /
                                 (power(pause.begin - 200, pause.begin) / 2.0 +
                                  power(pause.end, pause.end + 200) / 2.0));
    };
    std::vector<double> rises;
    for (const Span& pause : p.pauses) {
        rises.push_back(relativeDb(after, pause) - relativeDb(before, pause));
    }
    std::sort(rises.begin(), rises.end());
    return rises[rises.size() / 2];
}

class NoisyRoom : public testing::TestWithParam<Room> {};

// The speakers and the ends of a fade come out level, the pauses stay at the
// level of the speech around them.
TEST_P(NoisyRoom, SpeechIsLeveledAndPausesAreNot) {
    const Room& room = GetParam();
    const Programme p = programme(room);
    const FrameAnalysis before = analyse(p.audio);
    const FrameAnalysis after = render(p.audio, plan(before, -16.0, true));
    // Loudness after leveling of the phrases for which `take` holds.
    const auto loudness = [&](auto take) {
        std::vector<double> power;
        for (std::size_t k = 0; k < p.phrases.size(); ++k) {
            if (take(k)) {
                power.insert(power.end(),
                             after.kPower.begin() + static_cast<std::ptrdiff_t>(p.phrases[k].begin),
                             after.kPower.begin() + static_cast<std::ptrdiff_t>(p.phrases[k].end));
            }
        }
        return Loudness::integrated(power);
    };
    EXPECT_LE(std::fabs(loudness([](auto k) { return k % 2 == 0; }) -
                        loudness([](auto k) { return k % 2 == 1; })),
              room.maxGapLu);
    // No phrase is left behind, the last one included: a quiet speaker's
    // turn at the end of the file is not an outro.
    for (std::size_t phrase = 0; phrase < p.phrases.size(); ++phrase) {
        EXPECT_NEAR(loudness([&](auto k) { return k == phrase; }), -16.0, 4.0) << phrase;
    }
    if (room.fadeDb > 0.0) {
        EXPECT_LE(std::fabs(loudness([](auto k) { return k == 0; }) -
                            loudness([&](auto k) { return k + 1 == p.phrases.size(); })),
                  1.0);
    }
    if (room.bedDbfs > -70.0) { // a clean room keeps the exact plan
        EXPECT_LE(medianPauseRiseDb(p, before, after), 1.0);
    }
    EXPECT_NEAR(Loudness::integrated(after.kPower), -16.0, 0.5);
}

INSTANTIATE_TEST_SUITE_P(
    Beds, NoisyRoom,
    testing::Values(Room{"pink_60_fading", Bed::pinkRoom, -60.0, 13, 0.0, 10.0},
                    Room{"pink_50_fading", Bed::pinkRoom, -50.0, 13, 0.0, 10.0},
                    Room{"pink_45_fading", Bed::pinkRoom, -45.0, 13, 0.0, 10.0},
                    Room{"pink_40_fading", Bed::pinkRoom, -40.0, 13, 0.0, 10.0},
                    Room{"white_45_fading", Bed::whiteRoom, -45.0, 13, 0.0, 10.0},
                    Room{"music_38_fading", Bed::music, -38.0, 13, 0.0, 10.0},
                    Room{"pink_70_speakers", Bed::pinkRoom, -70.0, 11, 12.0, 0.0, false, 1.5},
                    Room{"pink_55_speakers", Bed::pinkRoom, -55.0, 11, 12.0, 0.0, false, 1.5},
                    Room{"pink_45_speakers", Bed::pinkRoom, -45.0, 11, 12.0, 0.0, false, 1.5},
                    Room{"pink_40_speakers", Bed::pinkRoom, -40.0, 11, 12.0, 0.0, false, 1.5},
                    Room{"white_45_speakers", Bed::whiteRoom, -45.0, 11, 12.0, 0.0, false, 1.5},
                    Room{"pink_50_peakySpeakers", Bed::pinkRoom, -50.0, 11, 12.0, 0.0, true}),
    byName);

class CleanSpeech : public testing::TestWithParam<double> {};

TEST_P(CleanSpeech, GainFollowsTheExactPlan) {
    for (const double gap : {0.0, 12.0}) {
        const FrameAnalysis a =
            analyse(programme(Room{"", Bed::pinkRoom, GetParam(), 17, gap}).audio);
        const GainCurve exact = plan(a);
        const GainCurve aware = plan(a, -16.0, true);
        double worst = 0.0;
        for (std::size_t i = 0; i < exact.gainDB.size(); ++i) {
            worst = std::max(worst, std::fabs(aware.gainDB[i] - exact.gainDB[i]));
        }
        EXPECT_LE(worst, 0.5) << "speakers " << gap << " dB apart";
    }
}

INSTANTIATE_TEST_SUITE_P(Floors, CleanSpeech, testing::Values(-70.0, -80.0, -100.0));

// The definition, frame by frame: a pause is where no frame within the
// hangover has a 100 ms level more than the margin over the floor; the margin
// is half the way up to the loudest 200 ms block within 4 s, 4 to 14 dB.
std::vector<unsigned char> naivePauses(const std::vector<double>& power) {
    const std::vector<double> floorDb = PauseDetector::noiseFloorDb(power);
    const auto n = static_cast<long>(power.size());
    std::vector<double> blockDb;
    for (long b = 0; b * 20 < n; ++b) {
        double sum = 0.0;
        long count = 0;
        for (long i = b * 20; i < std::min(n, b * 20 + 20); ++i, ++count) {
            sum += power[static_cast<std::size_t>(i)];
        }
        blockDb.push_back(10.0 * std::log10(sum / static_cast<double>(count) + 1e-14));
    }
    std::vector<bool> loud(power.size());
    for (long i = 0; i < n; ++i) {
        double speechDb = -1000.0;
        for (long b = std::max(0L, i / 20 - 20);
             b <= std::min(i / 20 + 20, static_cast<long>(blockDb.size()) - 1); ++b) {
            speechDb = std::max(speechDb, blockDb[static_cast<std::size_t>(b)]);
        }
        double sum = 0.0;
        long count = 0;
        for (long j = std::max(0L, i - 5); j < std::min(n, i + 5); ++j) {
            sum += power[static_cast<std::size_t>(j)];
            ++count;
        }
        const auto u = static_cast<std::size_t>(i);
        const double margin = std::clamp(0.5 * (speechDb - floorDb[u]), 4.0, 14.0);
        loud[u] = 10.0 * std::log10(sum / static_cast<double>(count) + 1e-14) > floorDb[u] + margin;
    }
    std::vector<unsigned char> pause(power.size(), 1);
    for (long i = 0; i < n; ++i) {
        for (long j = std::max(0L, i - 20); j <= std::min(n - 1, i + 20); ++j) {
            if (loud[static_cast<std::size_t>(j)]) {
                pause[static_cast<std::size_t>(i)] = 0;
            }
        }
    }
    return pause;
}

TEST(PauseDetector, FloorIsTheQuietestBlockNearby) {
    std::vector<double> power(6000, 1e-4); // -40 dB
    for (std::size_t i = 2000; i < 2020; ++i) {
        power[i] = 1e-6; // one quiet 200 ms block at 20 s
    }
    const std::vector<double> floorDb = PauseDetector::noiseFloorDb(power);
    EXPECT_NEAR(floorDb[2000 - 800], -60.0, 1e-6); // 8 s before: still in reach
    EXPECT_NEAR(floorDb[2000 - 820], -40.0, 1e-6); // one block further: out of reach
    EXPECT_NEAR(floorDb[2019 + 800], -60.0, 1e-6);
    EXPECT_NEAR(floorDb[5999], -40.0, 1e-6);
    EXPECT_TRUE(PauseDetector::noiseFloorDb({}).empty());
}

TEST(PauseDetector, MarksWhatTheDefinitionMarks) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (const std::size_t n : {1UL, 7UL, 45UL, 3000UL}) {
        std::vector<double> power(n);
        double level = 1e-5;
        for (double& x : power) {
            if (unit(rng) < 0.02) {
                level = unit(rng) < 0.5 ? 1e-5 : 1e-2 * unit(rng);
            }
            x = level * (0.5 + unit(rng));
        }
        std::vector<unsigned char> pause(n);
        PauseDetector::markPauses(power, pause);
        EXPECT_EQ(pause, naivePauses(power)) << n << " frames";
    }
}

// Per-frame power of words (syllables at `db`, the gaps between them 15 dB
// down) for `seconds`, or of a steady bed at `db`.
void speak(std::vector<double>& power, double seconds, double db) {
    constexpr int word[] = {25, -10, 15, -30, 20, -8, 12, -25}; // frames, gaps negative
    int left = static_cast<int>(seconds * 100.0);
    for (int k = 0; left > 0; k = (k + 1) % 8) {
        const int length = std::min(left, std::abs(word[k]));
        power.insert(power.end(), static_cast<std::size_t>(length),
                     std::pow(10.0, (word[k] > 0 ? db : db - 15.0) / 10.0));
        left -= length;
    }
}
void hold(std::vector<double>& power, double seconds, double db) {
    power.insert(power.end(), static_cast<std::size_t>(seconds * 100.0), std::pow(10.0, db / 10.0));
}

struct Stretch {
    double seconds;
    double db;
    bool speech;
    bool pause; // what the detector must call it
};

struct StretchCase {
    const char* name;
    std::vector<Stretch> stretches;
};

class QuietStretches : public testing::TestWithParam<StretchCase> {};

// Pauses are marked whole; speech keeps all but the gaps between its words.
TEST_P(QuietStretches, AreThePausesBetweenThePhrases) {
    std::vector<double> power;
    std::vector<Span> spans;
    for (const Stretch& s : GetParam().stretches) {
        const std::size_t begin = power.size();
        (s.speech ? speak : hold)(power, s.seconds, s.db);
        spans.push_back({begin, power.size()});
    }
    std::vector<unsigned char> pause(power.size(), 0);
    PauseDetector::markQuietStretches(power, pause);
    for (std::size_t k = 0; k < spans.size(); ++k) {
        // 300 ms off the edges of longer stretches: the smoothing blurs them.
        const std::size_t trim = spans[k].end - spans[k].begin > 60 ? 30 : 0;
        const std::size_t begin = spans[k].begin + (k > 0 ? trim : 0);
        const std::size_t end = spans[k].end - (k + 1 < spans.size() ? trim : 0);
        const double marked =
            static_cast<double>(std::count(pause.begin() + static_cast<std::ptrdiff_t>(begin),
                                           pause.begin() + static_cast<std::ptrdiff_t>(end), 1)) /
            static_cast<double>(end - begin);
        if (GetParam().stretches[k].pause) {
            EXPECT_EQ(marked, 1.0) << "stretch " << k;
        } else {
            EXPECT_LE(marked, 0.3) << "stretch " << k;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Programmes, QuietStretches,
    testing::Values(
        StretchCase{"musicBedBetweenPhrases",
                    {{4, -20, true, false},
                     {2, -32, false, true},
                     {4, -20, true, false},
                     {1, -32, false, true},
                     {4, -21, true, false}}},
        StretchCase{"quieterSpeakersTurn",
                    {{6, -20, true, false}, {8, -35, true, false}, {6, -20, true, false}}},
        StretchCase{"fadingOutroAfterTheLastPhrase",
                    {{5, -20, true, false}, {0.8, -31, false, true}, {0.8, -37, false, true}}},
        StretchCase{"minuteOfRoomWithABreath",
                    {{5, -20, true, false},
                     {30, -50, false, true},
                     {0.3, -38, false, true},
                     {30, -50, false, true},
                     {5, -22, true, false}}}),
    byName);

TEST(PauseDetector, PausesHoldTheLouderNeighbourUntilTheLead) {
    using V = std::vector<double>;
    const std::size_t lead = PauseDetector::leadFrames;
    // Quieter speech after the pause: its level returns `lead` frames early.
    V level(lead + 100, -20.0);
    std::vector<unsigned char> pause(level.size(), 0);
    for (std::size_t i = 10; i < 10 + lead + 30; ++i) {
        pause[i] = 1;
        level[i] = -60.0; // what the noise would have tracked
    }
    for (std::size_t i = 10 + lead + 30; i < level.size(); ++i) {
        level[i] = -30.0;
    }
    PauseDetector::holdAcrossPauses(level, pause);
    EXPECT_EQ(level[10], -20.0);
    EXPECT_EQ(level[39], -20.0);
    EXPECT_EQ(level[40], -30.0);
    EXPECT_EQ(level[10 + lead + 29], -30.0);

    // A pause shorter than the lead, louder speech after it; a file that is
    // one pause keeps what it has.
    V shortRun{-30, -60, -60, -20};
    PauseDetector::holdAcrossPauses(shortRun, std::vector<unsigned char>{0, 1, 1, 0});
    EXPECT_EQ(shortRun, (V{-30, -30, -30, -20}));
    V allPause{-50, -60};
    PauseDetector::holdAcrossPauses(allPause, std::vector<unsigned char>{1, 1});
    EXPECT_EQ(allPause, (V{-50, -60}));
}

} // namespace
} // namespace ostrand::test
