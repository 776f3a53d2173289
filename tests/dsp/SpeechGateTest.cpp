// The speech gate and the programme levels on programmes built here.

#include "dsp/SpeechGate.h"
#include "dsp/FrameAnalyzer.h"
#include "dsp/Loudness.h"
#include "dsp/LoudnessMeter.h"
#include "dsp/ProgrammeLevels.h"

#include "support/NamedCases.h"
#include "support/Signals.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <functional>

namespace ostrand::test {
namespace {

constexpr double rate = 48000.0;

struct Readings {
    double integrated;
    double speech;
    FrameAnalysis analysis;
};

Readings measured(const PlanarAudio& audio) {
    LoudnessMeter meter(audio.sampleRate, std::vector(audio.channels.size(), ChannelWeight::front));
    FrameAnalyzer analyzer(audio.sampleRate, static_cast<std::int64_t>(audio.channels.size()));
    inBlocks(audio, 4096, [&](const std::vector<const float*>& at, std::int64_t n, std::int64_t) {
        meter.append(at, n);
        analyzer.append(at, n);
    });
    FrameAnalysis analysis = std::move(analyzer).analysis();
    const double speech =
        SpeechGate::loudness(meter.blockPowers(), SpeechGate::findSpeech(analysis).frames,
                             audio.sampleRate, analysis.frameLength);
    return {meter.figures().integratedLoudness, speech, std::move(analysis)};
}

PlanarAudio at(PlanarAudio audio, double lufs) {
    audio.applyGainDb(lufs - measured(audio).integrated);
    return audio;
}

constexpr double speechLufs = -24.0;
constexpr double otherLufs = -16.0;
constexpr double pieceSeconds = 8.0;
constexpr int pieces = 4;

struct GateCase {
    const char* name;
    bool speaks;
    // What the speech alternates with, at otherLufs; none: plain speech.
    std::function<PlanarAudio(int channels, double seconds)> other;
    int channels = 1;
};

class SpeechGateTest : public testing::TestWithParam<GateCase> {};

// Between louder music the speech figure keeps to the speech's own loudness
// while the integrated loudness rises with the music; on plain speech the
// two agree.
TEST_P(SpeechGateTest, MeasuresTheSpeechAlone) {
    const GateCase& c = GetParam();
    const double seconds = pieceSeconds * pieces;
    const PlanarAudio speech = at(speechLike(rate, c.channels, seconds, 1), speechLufs);
    if (!c.other) {
        const Readings plain = measured(speech);
        std::printf("[ speech gate ] %s: integrated %.2f, speech %.2f LUFS\n", c.name,
                    plain.integrated, plain.speech);
        EXPECT_NEAR(plain.speech, plain.integrated, 0.5);
        return;
    }
    const PlanarAudio other = at(c.other(c.channels, seconds), otherLufs);
    const auto piece = static_cast<std::size_t>(pieceSeconds * rate);
    PlanarAudio programme = silence(rate, c.channels, 0.0);
    for (std::size_t k = 0; k < pieces; ++k) {
        for (std::size_t ch = 0; ch < programme.channels.size(); ++ch) {
            for (const PlanarAudio* part : {&speech, &other}) {
                if (part == &speech && !c.speaks) {
                    continue;
                }
                const auto& from = part->channels[ch];
                programme.channels[ch].insert(programme.channels[ch].end(),
                                              from.begin() + static_cast<std::ptrdiff_t>(k * piece),
                                              from.begin() +
                                                  static_cast<std::ptrdiff_t>((k + 1) * piece));
            }
        }
    }
    const Readings r = measured(programme);
    std::printf("[ speech gate ] %s: integrated %.2f, speech %.2f LUFS\n", c.name, r.integrated,
                r.speech);
    if (!c.speaks) {
        EXPECT_EQ(r.speech, Loudness::silence);
        return;
    }
    EXPECT_NEAR(r.speech, speechLufs, 1.0);
    EXPECT_GT(r.integrated, speechLufs + 4.0);
}

INSTANTIATE_TEST_SUITE_P(
    Programmes, SpeechGateTest,
    testing::Values(
        GateCase{"BetweenMusic", true,
                 [](int channels, double s) { return brightMusicLike(rate, channels, s, 3); }, 2},
        GateCase{"BetweenNoise", true,
                 [](int channels, double s) { return pinkNoise(rate, channels, s, -20.0, 4); }},
        GateCase{"MusicAlone", false,
                 [](int channels, double s) { return brightMusicLike(rate, channels, s, 5); }},
        GateCase{"PlainSpeech", true, {}, 2}),
    byName);

struct LevelsCase {
    const char* name;
    PlanarAudio audio;
    double rmsDb;
    double noiseFloorDb; // NaN: not measurable
};

class ProgrammeLevelsTest : public testing::TestWithParam<LevelsCase> {};

TEST_P(ProgrammeLevelsTest, RmsAndTheQuietestHalfSecond) {
    const LevelsCase& c = GetParam();
    const FrameAnalysis analysis = measured(c.audio).analysis;
    EXPECT_NEAR(ProgrammeLevels::rmsDb(analysis), c.rmsDb, 0.05);
    if (std::isnan(c.noiseFloorDb)) {
        EXPECT_TRUE(std::isnan(ProgrammeLevels::noiseFloorDb(analysis)));
    } else {
        EXPECT_NEAR(ProgrammeLevels::noiseFloorDb(analysis), c.noiseFloorDb, 0.1);
    }
}

// Two seconds of a tone at -20 dBFS RMS, then 0.6 s of noise at -65 dBFS RMS.
PlanarAudio toneThenRoom() {
    PlanarAudio audio = sine(rate, 2, 2.0, 997.0, -20.0 + 3.0103);
    audio.append(whiteNoise(rate, 2, 0.6, -65.0, 6));
    return audio;
}

INSTANTIATE_TEST_SUITE_P(
    Levels, ProgrammeLevelsTest,
    testing::Values(LevelsCase{"FullScaleSine", sine(rate, 1, 1.0, 997.0, 0.0), -3.01, -3.01},
                    LevelsCase{"ToneThenRoom", toneThenRoom(),
                               10.0 * std::log10((2.0 * 0.01 + 0.6 * std::pow(10.0, -6.5)) / 2.6),
                               -65.0},
                    LevelsCase{"ShorterThanHalfASecond", sine(rate, 1, 0.4, 997.0, -10.0), -13.01,
                               std::nan("")}),
    byName);

} // namespace
} // namespace ostrand::test
