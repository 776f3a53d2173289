#include "dsp/FrameAnalyzer.h"
#include "dsp/FrameAnalysis.h"
#include "dsp/KWeightingFilter.h"

#include "support/Signals.h"

#include <gtest/gtest.h>

#include <limits>
#include <ostream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace ostrand {
namespace {

FrameAnalysis analyse(const test::PlanarAudio& audio, std::int64_t block) {
    FrameAnalyzer analyzer(audio.sampleRate, static_cast<std::int64_t>(audio.channels.size()));
    test::inBlocks(audio, block, [&](const auto& at, std::int64_t n, auto) {
        analyzer.append(at, 0); // nothing, not even the count
        analyzer.append(at, n);
    });
    return std::move(analyzer).analysis();
}

class FrameAnalyzerBlocks : public testing::TestWithParam<std::int64_t> {};

// Frames are cut from the start of the stream; a partial last frame waits.
TEST_P(FrameAnalyzerBlocks, AnyDivisionGivesIdenticalSeries) {
    const test::PlanarAudio audio = test::speechLike(48000.0, 2, 3.0 + 440.0 / 48000.0, 5);
    const FrameAnalysis whole = analyse(audio, audio.frames());
    const FrameAnalysis blocked = analyse(audio, GetParam());
    EXPECT_EQ(whole.kPower.size(), 300u);
    EXPECT_EQ(whole.totalSamples, 144440);
    EXPECT_EQ(blocked.meanSquare, whole.meanSquare);
    EXPECT_EQ(blocked.kPower, whole.kPower);
    EXPECT_EQ(blocked.peak, whole.peak);
    EXPECT_EQ(blocked.totalSamples, whole.totalSamples);
}

INSTANTIATE_TEST_SUITE_P(Sizes, FrameAnalyzerBlocks, testing::Values(1, 7, 480, 4096));

TEST(FrameAnalyzer, SilentChannelHalvesTheMeanSquareButNotThePower) {
    test::PlanarAudio stereo = test::whiteNoise(22050.0, 2, 0.5, -20.0, 6);
    std::fill(stereo.channels[1].begin(), stereo.channels[1].end(), 0.0f);
    test::PlanarAudio mono{22050.0, {stereo.channels[0]}};
    const FrameAnalysis two = analyse(stereo, 1000);
    const FrameAnalysis one = analyse(mono, 1000);
    EXPECT_EQ(one.frameLength, 221); // 220.5 rounds away from zero
    ASSERT_EQ(two.meanSquare.size(), 49u);
    for (std::size_t f = 0; f < one.meanSquare.size(); ++f) {
        EXPECT_DOUBLE_EQ(two.meanSquare[f], one.meanSquare[f] / 2.0);
        EXPECT_EQ(two.kPower[f], one.kPower[f]);
        EXPECT_EQ(two.peak[f], one.peak[f]);
    }
}

struct Format {
    double sampleRate;
    std::int64_t channels;

    friend void PrintTo(const Format& f, std::ostream* os) {
        *os << f.sampleRate << " Hz, " << f.channels << " channels";
    }
};

class FrameAnalyzerRefuses : public testing::TestWithParam<Format> {};

TEST_P(FrameAnalyzerRefuses, FormatsItCannotMeasureWithAnException) {
    EXPECT_FALSE(FrameAnalyzer::supportsFormat(GetParam().sampleRate, GetParam().channels));
    EXPECT_THROW(FrameAnalyzer(GetParam().sampleRate, GetParam().channels), std::invalid_argument);
}

INSTANTIATE_TEST_SUITE_P(Formats, FrameAnalyzerRefuses,
                         testing::Values(Format{48000.0, 0}, Format{49.9, 1}, Format{-48000.0, 2},
                                         Format{std::numeric_limits<double>::quiet_NaN(), 2},
                                         Format{std::numeric_limits<double>::infinity(), 2}));

// The interleaved planar path exists for speed only: in blocks of any size
// it must give the bits of plain per-channel filtering in one piece.
class KWeightingBlocks : public testing::TestWithParam<std::tuple<int, std::int64_t>> {};

TEST_P(KWeightingBlocks, PlanarInBlocksEqualsPerChannelInOnePiece) {
    const auto [channels, block] = GetParam();
    test::PlanarAudio reference = test::whiteNoise(44100.0, channels, 0.1, -12.0, 3);
    test::PlanarAudio blocked = reference;
    KWeightingFilter whole(44100.0, channels);
    for (int c = 0; c < channels; ++c) {
        whole.process(c, reference.channels[static_cast<std::size_t>(c)]);
    }
    KWeightingFilter pieces(44100.0, channels);
    test::inBlocks(blocked, block,
                   [&](const auto& at, std::int64_t n, auto) { pieces.processPlanar(at, n); });
    EXPECT_EQ(blocked.channels, reference.channels);
    // Then per channel: each channel's state is where the planar path left it.
    test::PlanarAudio more = test::whiteNoise(44100.0, channels, 0.01, -12.0, 4);
    test::PlanarAudio moreBlocked = more;
    for (int c = 0; c < channels; ++c) {
        whole.process(c, more.channels[static_cast<std::size_t>(c)]);
        pieces.process(c, moreBlocked.channels[static_cast<std::size_t>(c)]);
    }
    EXPECT_EQ(moreBlocked.channels, more.channels);
}

INSTANTIATE_TEST_SUITE_P(ChannelsAndSizes, KWeightingBlocks,
                         testing::Combine(testing::Values(1, 2, 3),
                                          testing::Values(1, 7, 1000, 4410)));

TEST(KWeightingFilterDeathTest, ChannelOutOfRangeStops) {
    KWeightingFilter filter(48000.0, 2);
    std::vector<float> x(4, 0.0f);
    EXPECT_DEATH(filter.process(2, x), "channel index out of range");
}

} // namespace
} // namespace ostrand
