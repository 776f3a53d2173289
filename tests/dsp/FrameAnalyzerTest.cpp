#include "dsp/FrameAnalyzer.h"

#include "support/Signals.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>
#include <vector>

namespace ostrand {
namespace {

void appendInBlocks(FrameAnalyzer& analyzer, const test::PlanarAudio& audio, std::int64_t block) {
    std::vector<const float*> pointers = audio.constPointers();
    for (std::int64_t start = 0; start < audio.frames(); start += block) {
        const std::int64_t n = std::min(block, audio.frames() - start);
        analyzer.append(pointers, n);
        for (auto& p : pointers) {
            p += n;
        }
    }
}

TEST(FrameAnalyzer, FramesAreCutFromTheStartOfTheStream) {
    const test::PlanarAudio audio = test::whiteNoise(48000.0, 2, 1440.0 / 48000.0, -20.0, 1);
    FrameAnalyzer analyzer(48000.0, 2);
    ASSERT_EQ(analyzer.frameLength(), 480);
    std::vector<const float*> pointers = audio.constPointers();
    analyzer.append(pointers, 1000);
    EXPECT_EQ(analyzer.kPower().size(), 2u);
    EXPECT_EQ(analyzer.pendingSamples(), 40);
    for (auto& p : pointers) {
        p += 1000;
    }
    analyzer.append(pointers, 440);
    EXPECT_EQ(analyzer.kPower().size(), 3u);
    EXPECT_EQ(analyzer.pendingSamples(), 0);
    EXPECT_EQ(analyzer.totalSamples(), 1440);
}

TEST(FrameAnalyzer, EmptyOrNegativeBlocksChangeNothing) {
    FrameAnalyzer analyzer(48000.0, 1);
    const std::vector<float> x(10, 0.5f);
    const std::vector<const float*> pointers{x.data()};
    analyzer.append(pointers, 0);
    analyzer.append(pointers, -5);
    EXPECT_EQ(analyzer.totalSamples(), 0);
    EXPECT_TRUE(analyzer.meanSquare().empty());
}

TEST(FrameAnalyzer, PartialLastFrameCountsOnlyInTotalSamples) {
    const test::PlanarAudio audio = test::whiteNoise(44100.0, 1, 1.0, -20.0, 2); // 44100 samples
    FrameAnalyzer analyzer(44100.0, 1);
    appendInBlocks(analyzer, audio, 1000);
    EXPECT_EQ(analyzer.frameLength(), 441);
    EXPECT_EQ(analyzer.meanSquare().size(), 100u);
    EXPECT_EQ(analyzer.totalSamples(), 44100);

    FrameAnalyzer odd(48000.0, 1);
    appendInBlocks(odd, test::whiteNoise(48000.0, 1, 1000.0 / 48000.0, -20.0, 3), 1000);
    EXPECT_EQ(odd.peak().size(), 2u);
    EXPECT_EQ(odd.totalSamples(), 1000);
}

// Series must not depend on how the stream was divided into blocks.
class FrameAnalyzerBlocks : public testing::TestWithParam<std::int64_t> {};

TEST_P(FrameAnalyzerBlocks, AnyDivisionGivesIdenticalSeries) {
    const test::PlanarAudio audio = test::speechLike(48000.0, 2, 3.0, 5);
    FrameAnalyzer whole(48000.0, 2);
    whole.append(audio.constPointers(), audio.frames());
    FrameAnalyzer blocked(48000.0, 2);
    appendInBlocks(blocked, audio, GetParam());
    EXPECT_EQ(blocked.meanSquare(), whole.meanSquare());
    EXPECT_EQ(blocked.kPower(), whole.kPower());
    EXPECT_EQ(blocked.peak(), whole.peak());
    EXPECT_EQ(blocked.totalSamples(), whole.totalSamples());
}

INSTANTIATE_TEST_SUITE_P(Sizes, FrameAnalyzerBlocks, testing::Values(1, 7, 480, 4096, 48000));

TEST(FrameAnalyzer, SilentChannelHalvesTheMeanSquareButNotThePower) {
    test::PlanarAudio stereo = test::whiteNoise(48000.0, 2, 0.5, -20.0, 6);
    std::fill(stereo.channels[1].begin(), stereo.channels[1].end(), 0.0f);
    test::PlanarAudio mono;
    mono.sampleRate = 48000.0;
    mono.channels = {stereo.channels[0]};

    FrameAnalyzer two(48000.0, 2);
    two.append(stereo.constPointers(), stereo.frames());
    FrameAnalyzer one(48000.0, 1);
    one.append(mono.constPointers(), mono.frames());
    ASSERT_EQ(two.meanSquare().size(), one.meanSquare().size());
    for (std::size_t f = 0; f < one.meanSquare().size(); ++f) {
        EXPECT_DOUBLE_EQ(two.meanSquare()[f], one.meanSquare()[f] / 2.0);
        EXPECT_EQ(two.kPower()[f], one.kPower()[f]);
        EXPECT_EQ(two.peak()[f], one.peak()[f]);
    }
}

TEST(FrameAnalyzer, ConstantInputHasItsSquareButLosesItsWeightedPower) {
    const std::vector<float> dc(48000, 0.5f);
    FrameAnalyzer analyzer(48000.0, 1);
    analyzer.append(std::vector<const float*>{dc.data()}, 48000);
    for (std::size_t f = 0; f < analyzer.meanSquare().size(); ++f) {
        EXPECT_DOUBLE_EQ(analyzer.meanSquare()[f], 0.25);
        EXPECT_DOUBLE_EQ(analyzer.peak()[f], 0.5);
    }
    EXPECT_GT(analyzer.kPower().front(), analyzer.kPower().back());
    EXPECT_LT(analyzer.kPower().back(), 1e-4);
}

TEST(FrameAnalyzer, FullScaleSine) {
    const test::PlanarAudio audio = test::sine(48000.0, 1, 1.0, 1000.0, 0.0);
    FrameAnalyzer analyzer(48000.0, 1);
    analyzer.append(audio.constPointers(), audio.frames());
    EXPECT_NEAR(analyzer.meanSquare()[50], 0.5, 1e-6);
    EXPECT_NEAR(analyzer.peak()[50], 1.0, 1e-6);
}

TEST(FrameAnalyzer, FrameLengthRoundsHalvesAwayFromZero) {
    EXPECT_EQ(FrameAnalyzer(22050.0, 1).frameLength(), 221);
    EXPECT_EQ(FrameAnalyzer(44100.0, 1).frameLength(), 441);
    EXPECT_EQ(FrameAnalyzer(50.0, 1).frameLength(), 1);
}

struct Refused {
    double sampleRate;
    std::int64_t channels;
};

class FrameAnalyzerRefuses : public testing::TestWithParam<Refused> {};

TEST_P(FrameAnalyzerRefuses, FormatsItCannotMeasureWithAnException) {
    const Refused r = GetParam();
    EXPECT_FALSE(FrameAnalyzer::supportsFormat(r.sampleRate, r.channels));
    EXPECT_THROW(FrameAnalyzer(r.sampleRate, r.channels), std::invalid_argument);
}

INSTANTIATE_TEST_SUITE_P(Formats, FrameAnalyzerRefuses,
                         testing::Values(Refused{48000.0, 0}, Refused{48000.0, -1},
                                         Refused{49.9, 1}, Refused{0.0, 2}, Refused{-48000.0, 2},
                                         Refused{std::numeric_limits<double>::quiet_NaN(), 2},
                                         Refused{std::numeric_limits<double>::infinity(), 2}));

} // namespace
} // namespace ostrand
