#include "media/MixedAudioReader.h"

#include "support/MediaFixtures.h"
#include "support/NamedCases.h"
#include "support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>

// Probe rules, sample-exact reads and failures are proven end to end by the
// engine's tests; these check what its meters cannot see.
namespace ostrand::test {
namespace {

PlanarAudio readAll(const MediaAsset& asset, const SourceAudioFormat& format,
                    const std::vector<MediaAsset::AudioTrack>& tracks) {
    PlanarAudio audio{format.sampleRate,
                      std::vector<std::vector<float>>(static_cast<std::size_t>(format.channels))};
    MixedAudioReader(asset, format, tracks).read([&](auto planar, std::int64_t count, auto) {
        for (std::size_t c = 0; c < audio.channels.size(); ++c) {
            audio.channels[c].insert(audio.channels[c].end(), planar[c], planar[c] + count);
        }
    });
    return audio;
}

struct MixCase {
    const char* name;
    MediaRecipe recipe;
};

class TrackMixTest : public ::testing::TestWithParam<MixCase> {};

// The plain sum of the tracks, each at its own start: no normalising, and a
// track that has ended or not begun adds nothing.
TEST_P(TrackMixTest, IsTheSumOfTheTracksAlignedByStartTime) {
    const TempDir dir;
    const auto& recipe = GetParam().recipe;
    const MediaAsset asset = MediaAsset::open(makeMedia(dir / "mix.mov", recipe));
    const auto [format, tracks] = MixedAudioReader::probe(asset, false);
    std::vector<std::vector<float>> sum(static_cast<std::size_t>(format.channels));
    for (std::size_t t = 0; t < tracks.size(); ++t) {
        const PlanarAudio single = readAll(asset, format, {tracks[t]});
        const auto offset = std::lround(recipe.audio[t].startSeconds * format.sampleRate);
        for (std::size_t c = 0; c < sum.size(); ++c) {
            const auto& track = single.channels[c];
            sum[c].resize(std::max(sum[c].size(), offset + track.size()));
            std::transform(track.begin(), track.end(), sum[c].begin() + offset,
                           sum[c].begin() + offset, std::plus<>());
        }
    }
    const PlanarAudio mix = readAll(asset, format, tracks);
    for (std::size_t c = 0; c < sum.size(); ++c) {
        EXPECT_THAT(mix.channels[c], ::testing::Pointwise(::testing::FloatNear(1e-6f), sum[c]));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Files, TrackMixTest,
    ::testing::Values(
        MixCase{"DifferentRatesAndLengths",
                {.audio = {{.sampleRate = 44100, .layout = "mono", .frequencyHz = 330},
                           {.seconds = 3.0, .frequencyHz = 880}}}},
        MixCase{
            "LaterMonoTrack",
            {.audio = {{.seconds = 3.0, .codec = "pcm_s16le"},
                       {.layout = "mono", .seconds = 1, .startSeconds = 1, .codec = "pcm_s16le"}}}},
        MixCase{"MuchLaterTrack",
                {.audio = {{.seconds = 9.0, .frequencyHz = 0.0, .codec = "pcm_s16le"},
                           {.seconds = 1.5, .startSeconds = 7.0, .codec = "pcm_s16le"}}}}),
    byName);

struct ConvertCase {
    const char* name;
    int sampleRate;
    std::string layout;
    SourceAudioFormat readAs;
    double gainDb; // of each channel of the result against one source channel
};

class ConvertTest : public ::testing::TestWithParam<ConvertCase> {};

// FFmpeg's standard matrices, unnormalised: 5.1 to stereo adds centre and
// surround at -3 dB (LFE dropped); stereo to mono goes through -3 dB.
TEST_P(ConvertTest, KeepsLengthAndLevel) {
    const TempDir dir;
    const ConvertCase& c = GetParam();
    const MediaAsset asset = MediaAsset::open(sineFile(dir / "tone.wav", c.sampleRate, c.layout));
    const PlanarAudio read = readAll(asset, c.readAs, asset.audioTracks);
    EXPECT_NEAR(static_cast<double>(read.frames()), 2.0 * c.readAs.sampleRate, 2.0);
    for (const auto& channel : read.channels) {
        const auto [low, high] = std::minmax_element(channel.begin() + 1000, channel.end());
        EXPECT_NEAR(20.0 * std::log10(std::max(-*low, *high)), -20.0 + c.gainDb, 0.1);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, ConvertTest,
    ::testing::Values(
        ConvertCase{"SurroundToStereo", 48000, "5.1", {48000, 2, 1}, 20 * std::log10(1 + M_SQRT2)},
        ConvertCase{"StereoToMono", 48000, "stereo", {48000, 1, 1}, 20 * std::log10(M_SQRT2)},
        ConvertCase{"Resampled", 44100, "mono", {48000, 1, 1}, 0.0}),
    byName);

} // namespace
} // namespace ostrand::test
