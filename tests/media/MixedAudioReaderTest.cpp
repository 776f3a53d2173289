#include "media/MixedAudioReader.h"
#include "media/MediaAsset.h"
#include "media/OstrandError.h"

#include "MediaTestUtil.h"
#include "support/MediaFixtures.h"
#include "support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

namespace ostrand::test {
namespace {

namespace fs = std::filesystem;
using ::ostrand::test::PrintTo;
using ::testing::HasSubstr;

// AAC and resampling leave small differences between two decodes of the
// same content only when the decoders differ; our own reads are exact.
constexpr float sameDecodeTolerance = 1e-6f;
// Level checks on sines: a 0.1 dB window around the expected peak.
constexpr double peakToleranceDb = 0.1;

double db(double ratio) {
    return 20.0 * std::log10(ratio);
}

// Probe ---------------------------------------------------------------------

struct ProbeCase {
    const char* name;
    std::vector<AudioRecipe> audio;
    bool forceMono;
    SourceAudioFormat expected;
};

class ProbeTest : public ::testing::TestWithParam<ProbeCase> {};

TEST_P(ProbeTest, ChoosesRateChannelsAndTracks) {
    TempDir dir;
    const ProbeCase& c = GetParam();
    MediaRecipe recipe;
    recipe.audio = c.audio;
    const auto path = makeMedia(dir / "probe.mkv", recipe);
    const MediaAsset asset = MediaAsset::open(path);
    const auto [format, tracks] = MixedAudioReader::probe(asset, c.forceMono);
    EXPECT_EQ(format, c.expected);
    EXPECT_EQ(tracks.size(), c.audio.size());
}

INSTANTIATE_TEST_SUITE_P(
    Rules, ProbeTest,
    ::testing::Values(
        ProbeCase{"MonoAndStereoTakeHighestRateAndStereo",
                  {AudioRecipe().rate(44100).channelLayout("mono"), AudioRecipe().rate(48000)},
                  false,
                  {48000.0, 2, 2}},
        ProbeCase{
            "SurroundBecomesStereo", {AudioRecipe().channelLayout("5.1")}, false, {48000.0, 2, 1}},
        ProbeCase{"ForceMono", {AudioRecipe()}, true, {48000.0, 1, 1}},
        ProbeCase{"MonoStaysMono",
                  {AudioRecipe().rate(22050).channelLayout("mono")},
                  false,
                  {22050.0, 1, 1}}),
    CaseName());

TEST(ProbeTest, NoAudioTrackIsRefused) {
    TempDir dir;
    const MediaAsset asset = MediaAsset::open(videoOnly(dir / "silent.mp4"));
    try {
        MixedAudioReader::probe(asset, false);
        FAIL() << "probe succeeded";
    } catch (const OstrandError& error) {
        EXPECT_EQ(error.kind(), OstrandError::Kind::noAudioTrack);
        EXPECT_STREQ(error.what(), "This file has no audio track to level.");
    }
}

TEST(MediaAssetTest, DescribesTracksDurationAndTags) {
    TempDir dir;
    const MediaAsset asset = MediaAsset::open(videoFile(dir / "clip.mov", 2.0));
    ASSERT_EQ(asset.audioTracks.size(), 1u);
    EXPECT_EQ(asset.audioTracks[0].sampleRate, 48000.0);
    EXPECT_EQ(asset.audioTracks[0].channels, 2);
    ASSERT_EQ(asset.videoTracks.size(), 1u);
    EXPECT_NEAR(asset.durationSeconds, 2.0, 0.05);
    EXPECT_EQ(asset.metadata.at("title"), "Ostrand fixture");
}

TEST(MediaAssetTest, CoverArtIsNotAVideoTrack) {
    TempDir dir;
    const auto song = sineFile(dir / "song.mp3");
    runCommand(
        "ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=64x64:duration=0.04 -frames:v 1 " +
        shellQuote((dir / "cover.png").string()));
    runCommand("ffmpeg -nostdin -v error -i " + shellQuote(song.string()) + " -i " +
               shellQuote((dir / "cover.png").string()) +
               " -map 0 -map 1 -c copy -disposition:v attached_pic " +
               shellQuote((dir / "with-cover.mp3").string()));
    const MediaAsset asset = MediaAsset::open(dir / "with-cover.mp3");
    EXPECT_EQ(asset.audioTracks.size(), 1u);
    EXPECT_TRUE(asset.videoTracks.empty());
}

// Files that cannot be read ---------------------------------------------------

struct BadFileCase {
    const char* name;
    std::function<fs::path(const TempDir&)> make;
    const char* reason; // part of the message
};

class BadFileTest : public ::testing::TestWithParam<BadFileCase> {};

// Opening and reading the whole file either succeeds or fails with a clear
// unreadable error; it never crashes and never ends quietly with less audio.
TEST_P(BadFileTest, IsUnreadableWithAReason) {
    TempDir dir;
    const fs::path path = GetParam().make(dir);
    const auto before = fs::is_regular_file(path) ? fs::file_size(path) : 0;
    try {
        readAll(path);
        FAIL() << "read succeeded";
    } catch (const OstrandError& error) {
        EXPECT_EQ(error.kind(), OstrandError::Kind::unreadable);
        EXPECT_THAT(error.what(), HasSubstr("Couldn't read the file: "));
        EXPECT_THAT(error.message(), HasSubstr(GetParam().reason));
    }
    if (fs::is_regular_file(path)) {
        EXPECT_EQ(fs::file_size(path), before) << "the source was changed";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Files, BadFileTest,
    ::testing::Values(
        BadFileCase{"Missing", [](const TempDir& d) { return d / "nothing here.mp4"; },
                    "No such file"},
        BadFileCase{"TextNamedMp4", [](const TempDir& d) { return textFile(d / "notes.mp4"); },
                    "not an audio or video file"},
        BadFileCase{"Empty", [](const TempDir& d) { return textFile(d / "empty.wav", ""); },
                    "not an audio or video file"},
        BadFileCase{"Folder", [](const TempDir& d) { return d.path(); }, "Is a directory"},
        BadFileCase{"Mp4CutBeforeItsIndex",
                    [](const TempDir& d) {
                        return truncatedCopy(videoFile(d / "whole.mp4", 3.0), d / "cut.mp4", 0.5);
                    },
                    "not an audio or video file"},
        BadFileCase{
            "FastStartMp4CutShort",
            [](const TempDir& d) {
                const auto recipe =
                    MediaRecipe().withAudio(AudioRecipe().lasting(6.0).noise()).fastStarting();
                return truncatedCopy(makeMedia(d / "whole.mp4", recipe), d / "cut.mp4", 0.5);
            },
            "cut short"},
        BadFileCase{"Mp3CutShort",
                    [](const TempDir& d) {
                        return truncatedCopy(noiseFile(d / "whole.mp3", 44100, "stereo", 6.0),
                                             d / "cut.mp3", 0.5);
                    },
                    "cut short"}),
    CaseName());

// Reading -------------------------------------------------------------------

struct ExactCase {
    int sampleRate;
    int channels;
    double seconds;
};

class ExactReadTest : public ::testing::TestWithParam<ExactCase> {};

// A float WAV at the mix's own format passes through untouched, in full
// blocks with contiguous times.
TEST_P(ExactReadTest, DeliversEverySampleInFullBlocks) {
    TempDir dir;
    const auto [rate, channels, seconds] = GetParam();
    const PlanarAudio source = whiteNoise(rate, channels, seconds, -12.0, 7);
    const ReadResult read = readAll(floatWav(dir / "noise.wav", source));

    ASSERT_EQ(read.audio.frames(), source.frames());
    EXPECT_EQ(read.audio.channels, source.channels);
    std::int64_t position = 0;
    for (std::size_t k = 0; k < read.blockSizes.size(); ++k) {
        if (k + 1 < read.blockSizes.size()) {
            EXPECT_EQ(read.blockSizes[k], MixedAudioReader::blockSamples);
        }
        EXPECT_EQ(read.times[k], (MediaTime{position, rate}));
        position += read.blockSizes[k];
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, ExactReadTest,
                         ::testing::Values(ExactCase{48000, 2, 1.0}, ExactCase{44100, 1, 0.3},
                                           ExactCase{8000, 2, 0.01}));

struct MixCase {
    const char* name;
    std::function<fs::path(const TempDir&)> make;
};

class TrackMixTest : public ::testing::TestWithParam<MixCase> {};

// The mix is the plain sum of the tracks, each placed at its own start time;
// a track that has ended (or not begun) adds nothing, and nothing rescales.
TEST_P(TrackMixTest, IsTheSumOfTheTracksAlignedByStartTime) {
    TempDir dir;
    const fs::path path = GetParam().make(dir);
    const MediaAsset asset = MediaAsset::open(path);
    const auto [format, tracks] = MixedAudioReader::probe(asset, false);
    ASSERT_EQ(tracks.size(), 2u);
    const ReadResult mixed = readAll(asset, format, tracks);

    PlanarAudio expected;
    expected.channels.resize(static_cast<std::size_t>(format.channels));
    const std::int64_t origin = mixed.times.front().value;
    for (const auto& track : tracks) {
        const ReadResult single = readAll(asset, format, {track});
        const auto offset = static_cast<std::size_t>(single.times.front().value - origin);
        for (std::size_t c = 0; c < expected.channels.size(); ++c) {
            auto& sum = expected.channels[c];
            sum.resize(std::max(sum.size(), offset + single.audio.channels[c].size()), 0.0f);
            for (std::size_t i = 0; i < single.audio.channels[c].size(); ++i) {
                sum[offset + i] += single.audio.channels[c][i];
            }
        }
    }
    ASSERT_EQ(mixed.audio.frames(), expected.frames());
    for (std::size_t c = 0; c < expected.channels.size(); ++c) {
        for (std::size_t i = 0; i < expected.channels[c].size(); ++i) {
            ASSERT_NEAR(mixed.audio.channels[c][i], expected.channels[c][i], sameDecodeTolerance)
                << "channel " << c << " sample " << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Files, TrackMixTest,
    ::testing::Values(
        MixCase{"DifferentRatesAndLengths",
                [](const TempDir& d) { return twoTrackFile(d / "two.mp4"); }},
        MixCase{"SecondTrackStartsLater",
                [](const TempDir& d) {
                    const auto pcm = AudioRecipe().encodedAs("pcm_s16le");
                    return makeMedia(
                        d / "late.mov",
                        MediaRecipe()
                            .withAudio(pcm.lasting(3.0))
                            .withAudio(pcm.channelLayout("mono").lasting(1.0).startingAt(1.0).tone(
                                1000.0)));
                }},
        MixCase{"SecondTrackStartsMuchLater",
                [](const TempDir& d) {
                    const auto pcm = AudioRecipe().encodedAs("pcm_s16le");
                    return makeMedia(d / "later.mov",
                                     MediaRecipe()
                                         .withAudio(pcm.lasting(9.0).noise())
                                         .withAudio(pcm.lasting(1.5).startingAt(7.0)));
                }}),
    CaseName());

TEST(TrackMixTest, LaterTrackIsSilentBeforeItsStart) {
    TempDir dir;
    const auto pcm = AudioRecipe().channelLayout("mono").encodedAs("pcm_s16le");
    const auto recipe = MediaRecipe()
                            .withAudio(pcm.lasting(1.0).startingAt(1.0).peak(-6.0))
                            .withAudio(pcm.lasting(3.0).peak(-80.0));
    const ReadResult read = readAll(makeMedia(dir / "late.mov", recipe));
    const auto& samples = read.audio.channels[0];
    ASSERT_EQ(read.audio.frames(), 3 * 48000);
    // Only the faint track before 1 s, both from 1 s to 2 s.
    EXPECT_LT(db(peakOf({samples.begin(), samples.begin() + 47900})), -70.0);
    EXPECT_NEAR(db(peakOf({samples.begin() + 48100, samples.begin() + 95900})), -6.0, 0.1);
    EXPECT_LT(db(peakOf({samples.begin() + 96100, samples.end()})), -70.0);
}

struct DownmixCase {
    const char* name;
    std::string layout;
    bool forceMono;
    double expectedGainDb; // of a channel of the mix against one source channel
};

class DownmixTest : public ::testing::TestWithParam<DownmixCase> {};

// FFmpeg's standard matrices, unnormalised: 5.1 to stereo adds centre and
// surround at -3 dB (LFE dropped); stereo to mono and mono to stereo go
// through the centre at -3 dB.
TEST_P(DownmixTest, UsesTheStandardMatrix) {
    TempDir dir;
    const DownmixCase& c = GetParam();
    const ReadResult read =
        readAll(sineFile(dir / "tone.wav", 48000, c.layout, 0.5, 440.0, -20.0), c.forceMono);
    for (const auto& channel : read.audio.channels) {
        EXPECT_NEAR(db(peakOf(channel)), -20.0 + c.expectedGainDb, peakToleranceDb);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, DownmixTest,
    ::testing::Values(DownmixCase{"SurroundToStereo", "5.1", false, db(1.0 + 2.0 * M_SQRT1_2)},
                      DownmixCase{"StereoToMono", "stereo", true, db(2.0 * M_SQRT1_2)},
                      DownmixCase{"StereoStaysStereo", "stereo", false, 0.0}),
    CaseName());

TEST(ResampleTest, KeepsLengthAndLevel) {
    TempDir dir;
    const MediaAsset asset =
        MediaAsset::open(sineFile(dir / "tone.wav", 44100, "mono", 2.0, 1000.0, -10.0));
    const SourceAudioFormat format{48000.0, 1, 1};
    const ReadResult read = readAll(asset, format, asset.audioTracks);
    EXPECT_NEAR(static_cast<double>(read.audio.frames()), 96000.0, 2.0);
    EXPECT_NEAR(db(peakOf(read.audio.channels[0], 1000)), -10.0, peakToleranceDb);
}

// Errors from the handler ------------------------------------------------------

TEST(HandlerErrorTest, OstrandErrorsPassUnchangedOthersBecomeUnreadable) {
    TempDir dir;
    const MediaAsset asset = MediaAsset::open(sineFile(dir / "tone.wav"));
    const auto [format, tracks] = MixedAudioReader::probe(asset, false);
    MixedAudioReader reader(asset, format, tracks);

    int blocks = 0;
    try {
        reader.read([&](auto, auto, auto) {
            if (++blocks == 2) {
                throw OstrandError::cancelled();
            }
        });
        FAIL() << "read succeeded";
    } catch (const OstrandError& error) {
        EXPECT_EQ(error, OstrandError::cancelled());
        EXPECT_EQ(blocks, 2);
    }
    try {
        reader.read([](auto, auto, auto) { throw std::runtime_error("handler broke"); });
        FAIL() << "read succeeded";
    } catch (const OstrandError& error) {
        EXPECT_EQ(error, OstrandError::unreadable("handler broke"));
    }
}

} // namespace
} // namespace ostrand::test
