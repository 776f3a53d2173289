#include "dsp/KWeightingFilter.h"

#include "support/Signals.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace ostrand {
namespace {

// Reference values of the section design, to the digits they are known to.
constexpr double coefficientTolerance = 5e-10;

struct Coefficients {
    double sampleRate;
    Biquad shelf;
    Biquad highPass;
};

class KWeightingCoefficients : public testing::TestWithParam<Coefficients> {};

TEST_P(KWeightingCoefficients, MatchTheDesign) {
    const Coefficients& expected = GetParam();
    const KWeightingFilter filter(expected.sampleRate, 2);
    for (const auto& sections : filter.stages()) {
        const Biquad& shelf = sections[0];
        const Biquad& pass = sections[1];
        EXPECT_NEAR(shelf.b0, expected.shelf.b0, coefficientTolerance);
        EXPECT_NEAR(shelf.b1, expected.shelf.b1, coefficientTolerance);
        EXPECT_NEAR(shelf.b2, expected.shelf.b2, coefficientTolerance);
        EXPECT_NEAR(shelf.a1, expected.shelf.a1, coefficientTolerance);
        EXPECT_NEAR(shelf.a2, expected.shelf.a2, coefficientTolerance);
        EXPECT_NEAR(pass.b0, expected.highPass.b0, coefficientTolerance);
        EXPECT_NEAR(pass.b1, expected.highPass.b1, coefficientTolerance);
        EXPECT_EQ(pass.b2, pass.b0);
        EXPECT_NEAR(pass.a1, expected.highPass.a1, coefficientTolerance);
        EXPECT_NEAR(pass.a2, expected.highPass.a2, coefficientTolerance);
        EXPECT_EQ(shelf.z1, 0.0);
        EXPECT_EQ(pass.z2, 0.0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rates, KWeightingCoefficients,
    testing::Values(
        Coefficients{48000.0,
                     {1.5293049415, -2.6361232440, 1.1584848684, -1.6537779325, 0.7054444984},
                     {0.9950299263, -1.9900598526, 0.9950299263, -1.9900474548, 0.9900722504}},
        // Only some of the 44.1 kHz values are published; the others are
        // checked by the design identities below.
        Coefficients{44100.0,
                     {1.5245497507, KWeightingFilter::highShelf(44100.0).b1,
                      KWeightingFilter::highShelf(44100.0).b2, -1.6237063835, 0.6840684538},
                     {KWeightingFilter::highPass(44100.0).b0,
                      KWeightingFilter::highPass(44100.0).b1,
                      KWeightingFilter::highPass(44100.0).b0, -1.9891696736, 0.9891990358}}));

TEST(KWeightingFilter, HighPassHasUnitGainAtNyquistAndNoneAtDc) {
    for (const double rate : {44100.0, 48000.0, 96000.0}) {
        const Biquad q = KWeightingFilter::highPass(rate);
        EXPECT_NEAR(q.b0 + q.b1 + q.b2, 0.0, 1e-15);
        EXPECT_NEAR((q.b0 - q.b1 + q.b2) / (1.0 - q.a1 + q.a2), 1.0, 1e-3);
    }
}

std::vector<float> noiseSamples(std::size_t n, std::uint32_t seed) {
    return test::whiteNoise(48000.0, 1, static_cast<double>(n) / 48000.0, -12.0, seed).channels[0];
}

// Splitting a stream into blocks of any size must not change a single bit.
class KWeightingBlocks : public testing::TestWithParam<std::size_t> {};

TEST_P(KWeightingBlocks, AnyBlockSizeGivesTheSameSamplesAndState) {
    const std::vector<float> input = noiseSamples(4801, 1);
    std::vector<float> whole = input;
    KWeightingFilter reference(48000.0, 1);
    reference.process(0, whole);

    std::vector<float> pieces = input;
    KWeightingFilter blocked(48000.0, 1);
    const std::size_t size = GetParam();
    for (std::size_t start = 0; start < pieces.size(); start += size) {
        const std::size_t n = std::min(size, pieces.size() - start);
        blocked.process(0, std::span<float>(pieces.data() + start, n));
    }
    EXPECT_EQ(pieces, whole);
    for (std::size_t s = 0; s < 2; ++s) {
        EXPECT_EQ(blocked.stages()[0][s].z1, reference.stages()[0][s].z1);
        EXPECT_EQ(blocked.stages()[0][s].z2, reference.stages()[0][s].z2);
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, KWeightingBlocks, testing::Values(1, 7, 480, 1000, 4096));

// The interleaved planar path exists only for speed: it must agree with the
// per-channel path bit for bit, for every channel count and across calls.
class KWeightingPlanar : public testing::TestWithParam<int> {};

TEST_P(KWeightingPlanar, IsBitIdenticalToPerChannelFiltering) {
    const int channels = GetParam();
    std::vector<std::vector<float>> perChannel;
    for (int c = 0; c < channels; ++c) {
        perChannel.push_back(noiseSamples(3000, static_cast<std::uint32_t>(10 + c)));
    }
    std::vector<std::vector<float>> planar = perChannel;

    KWeightingFilter reference(44100.0, channels);
    for (int c = 0; c < channels; ++c) {
        reference.process(c, perChannel[static_cast<std::size_t>(c)]);
    }
    KWeightingFilter fused(44100.0, channels);
    std::vector<float*> pointers;
    for (auto& channel : planar) {
        pointers.push_back(channel.data());
    }
    fused.processPlanar(pointers, 1234);
    for (auto& p : pointers) {
        p += 1234;
    }
    fused.processPlanar(pointers, 3000 - 1234);

    EXPECT_EQ(planar, perChannel);
    for (std::size_t c = 0; c < static_cast<std::size_t>(channels); ++c) {
        for (std::size_t s = 0; s < 2; ++s) {
            EXPECT_EQ(fused.stages()[c][s].z1, reference.stages()[c][s].z1);
            EXPECT_EQ(fused.stages()[c][s].z2, reference.stages()[c][s].z2);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Channels, KWeightingPlanar, testing::Values(1, 2, 3, 6));

TEST(KWeightingFilter, ChannelsKeepTheirOwnState) {
    KWeightingFilter filter(48000.0, 2);
    std::vector<float> loud = noiseSamples(500, 3);
    filter.process(0, loud);
    std::vector<float> quiet(500, 0.0f);
    filter.process(1, quiet);
    EXPECT_EQ(quiet, std::vector<float>(500, 0.0f));
    EXPECT_EQ(filter.stages()[1][0].z1, 0.0);
    EXPECT_EQ(filter.stages()[1][1].z2, 0.0);
}

TEST(KWeightingFilter, RemovesDirectCurrent) {
    KWeightingFilter filter(48000.0, 1);
    std::vector<float> dc(48000, 0.5f);
    filter.process(0, dc);
    EXPECT_LT(std::fabs(dc.back()), 1e-3f);
}

TEST(KWeightingFilter, EmptyRunChangesNothing) {
    KWeightingFilter filter(48000.0, 1);
    std::vector<float> some = noiseSamples(10, 4);
    filter.process(0, some);
    const KWeightingFilter before = filter;
    filter.process(0, std::span<float>());
    EXPECT_EQ(filter.stages()[0][0].z1, before.stages()[0][0].z1);
    EXPECT_EQ(filter.stages()[0][1].z2, before.stages()[0][1].z2);
}

TEST(KWeightingFilterDeathTest, ChannelOutOfRangeStops) {
    KWeightingFilter filter(48000.0, 2);
    std::vector<float> x(4, 0.0f);
    EXPECT_DEATH(filter.process(2, x), "channel index out of range");
    EXPECT_DEATH(filter.process(-1, x), "channel index out of range");
}

} // namespace
} // namespace ostrand
