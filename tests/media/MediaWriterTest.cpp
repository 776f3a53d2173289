#include "media/MediaWriter.h"
#include "media/MediaAsset.h"
#include "media/MixedAudioReader.h"
#include "media/OstrandError.h"

#include "MediaTestUtil.h"
#include "support/MediaFixtures.h"
#include "support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <sys/resource.h>
#include <unistd.h>

namespace ostrand::test {
namespace {

namespace fs = std::filesystem;
using ::ostrand::test::PrintTo;
using ::testing::HasSubstr;

// One step of 24-bit quantisation, plus float rounding on the way back.
constexpr float pcm24Tolerance = 0.5f / 8388608.0f + 1e-7f;
// ffprobe reports the average rate of the whole stream; AAC's rate control
// stays within a few percent of its target on noise.
constexpr double bitRateTolerance = 0.1;
// AAC decoders agree on the length once priming is trimmed, to a frame.
constexpr std::int64_t aacLengthTolerance = 1024;

// Writes `audio` (at `audio.sampleRate`) through a writer and finishes it.
void writeFile(const fs::path& path, FileType type, MediaWriter::Encoding encoding,
               const PlanarAudio& audio, const std::vector<std::int64_t>& blockSizes = {4096}) {
    MediaWriter writer(path, type, audio.sampleRate,
                       static_cast<std::int64_t>(audio.channels.size()), encoding, MediaAsset{},
                       {});
    appendAll(writer, audio, blockSizes);
    writer.finish();
}

// Levels nothing: reads a source through the reader and writes it back with
// its video, as the engine does.
void copyThrough(const fs::path& source, const fs::path& output, FileType type) {
    const MediaAsset asset = MediaAsset::open(source);
    const auto [format, tracks] = MixedAudioReader::probe(asset, false);
    MediaWriter writer(output, type, format.sampleRate, format.channels, MediaWriter::Encoding::aac,
                       asset, asset.videoTracks);
    MixedAudioReader reader(asset, format, tracks);
    reader.read([&](std::span<float* const> planar, std::int64_t count, MediaTime time) {
        const std::vector<const float*> input(planar.begin(), planar.end());
        writer.appendAudio(input, count, time);
    });
    writer.finish();
}

// PCM -----------------------------------------------------------------------

struct PcmCase {
    int sampleRate;
    int channels;
};

class PcmWriterTest : public ::testing::TestWithParam<PcmCase> {};

TEST_P(PcmWriterTest, WritesEverySampleAt24Bits) {
    TempDir dir;
    const auto [rate, channels] = GetParam();
    PlanarAudio audio = whiteNoise(rate, channels, 0.7, -10.0, 3);
    audio.channels[0][10] = 1.5f; // clipped to full scale
    audio.channels[0][11] = -1.5f;
    const fs::path path = dir / "out.wav";
    writeFile(path, FileType::wave, MediaWriter::Encoding::pcm24, audio, {1000, 4096, 1, 333});

    const StreamInfo stream = probeMedia(path).ofType("audio").at(0);
    EXPECT_EQ(stream.codecName, "pcm_s24le");
    EXPECT_EQ(stream.sampleRate, rate);
    EXPECT_EQ(stream.channels, channels);

    audio.channels[0][10] = 8388607.0f / 8388608.0f;
    audio.channels[0][11] = -1.0f;
    const PlanarAudio back = decodeAudio(path);
    ASSERT_EQ(back.frames(), audio.frames());
    for (std::size_t c = 0; c < audio.channels.size(); ++c) {
        for (std::size_t i = 0; i < audio.channels[c].size(); ++i) {
            ASSERT_NEAR(back.channels[c][i], audio.channels[c][i], pcm24Tolerance)
                << "channel " << c << " sample " << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, PcmWriterTest,
                         ::testing::Values(PcmCase{48000, 2}, PcmCase{44100, 1},
                                           PcmCase{96000, 2}));

// AAC -----------------------------------------------------------------------

struct AacCase {
    const char* name;
    FileType type;
    const char* extension;
    int sampleRate;
    int channels;
    std::int64_t bitRate;
};

class AacWriterTest : public ::testing::TestWithParam<AacCase> {};

TEST_P(AacWriterTest, EncodesAtTheBitRateForTheChannelCount) {
    TempDir dir;
    const AacCase& c = GetParam();
    const PlanarAudio audio = whiteNoise(c.sampleRate, c.channels, 3.0, -20.0, 5);
    const fs::path path = dir / (std::string("out.") + c.extension);
    writeFile(path, c.type, MediaWriter::Encoding::aac, audio);

    const StreamInfo stream = probeMedia(path).ofType("audio").at(0);
    EXPECT_EQ(stream.codecName, "aac");
    EXPECT_EQ(stream.sampleRate, c.sampleRate);
    EXPECT_EQ(stream.channels, c.channels);
    EXPECT_NEAR(static_cast<double>(stream.bitRate), static_cast<double>(c.bitRate),
                bitRateTolerance * static_cast<double>(c.bitRate));
    EXPECT_NEAR(static_cast<double>(decodeAudio(path).frames()),
                static_cast<double>(audio.frames()), static_cast<double>(aacLengthTolerance));
}

INSTANTIATE_TEST_SUITE_P(
    Containers, AacWriterTest,
    ::testing::Values(AacCase{"M4aStereo", FileType::appleM4A, "m4a", 48000, 2, 256000},
                      AacCase{"M4aMono", FileType::appleM4A, "m4a", 44100, 1, 160000},
                      AacCase{"Mp4Stereo", FileType::mpeg4, "mp4", 44100, 2, 256000},
                      AacCase{"MovMono", FileType::quickTimeMovie, "mov", 48000, 1, 160000}),
    CaseName());

// Video pass-through ----------------------------------------------------------

struct VideoCase {
    const char* name;
    const char* extension;
    FileType type;
    std::function<fs::path(const fs::path&)> make;
};

class VideoPassThroughTest : public ::testing::TestWithParam<VideoCase> {};

TEST_P(VideoPassThroughTest, CopiesVideoPacketsTagsAndRotation) {
    TempDir dir;
    const VideoCase& c = GetParam();
    const fs::path source = c.make(dir / (std::string("source.") + c.extension));
    const fs::path output = dir / (std::string("output.") + c.extension);
    copyThrough(source, output, c.type);

    const auto sourcePackets = videoPacketDigests(source);
    const auto outputPackets = videoPacketDigests(output);
    ASSERT_EQ(outputPackets.size(), sourcePackets.size());
    for (std::size_t i = 0; i < sourcePackets.size(); ++i) {
        EXPECT_EQ(outputPackets[i].stream, sourcePackets[i].stream) << "packet " << i;
        EXPECT_EQ(outputPackets[i].md5, sourcePackets[i].md5) << "packet " << i;
        EXPECT_NEAR(outputPackets[i].ptsSeconds, sourcePackets[i].ptsSeconds, 1e-6) << i;
    }

    const ProbeInfo before = probeMedia(source);
    const ProbeInfo after = probeMedia(output);
    EXPECT_EQ(after.tags, before.tags) << "container tags";
    auto videoBefore = before.ofType("video");
    auto videoAfter = after.ofType("video");
    ASSERT_EQ(videoAfter.size(), videoBefore.size());
    for (std::size_t v = 0; v < videoBefore.size(); ++v) {
        EXPECT_EQ(videoAfter[v].rotationDegrees, videoBefore[v].rotationDegrees);
        EXPECT_EQ(videoAfter[v].tags["language"], videoBefore[v].tags["language"]);
        EXPECT_EQ(videoAfter[v].fields["codec_tag_string"],
                  videoBefore[v].fields["codec_tag_string"]);
    }
    const auto audio = after.ofType("audio");
    ASSERT_EQ(audio.size(), 1u);
    EXPECT_EQ(audio[0].codecName, "aac");
    EXPECT_NEAR(audio[0].durationSeconds, before.ofType("audio").at(0).durationSeconds, 0.03);
}

INSTANTIATE_TEST_SUITE_P(
    Containers, VideoPassThroughTest,
    ::testing::Values(
        VideoCase{"Mp4", "mp4", FileType::mpeg4, [](const fs::path& p) { return videoFile(p); }},
        VideoCase{"Mov", "mov", FileType::quickTimeMovie,
                  [](const fs::path& p) { return videoFile(p); }},
        VideoCase{"RotatedMov", "mov", FileType::quickTimeMovie,
                  [](const fs::path& p) { return rotatedVideo(p, 90); }},
        VideoCase{"TwoVideoTracks", "mov", FileType::quickTimeMovie,
                  [](const fs::path& p) {
                      return makeMedia(
                          p, MediaRecipe()
                                 .withVideo(VideoRecipe().tagged("eng"))
                                 .withVideo(VideoRecipe().size(96, 64).rotated(270).tagged("fra"))
                                 .withAudio(AudioRecipe().channelLayout("mono")));
                  }}),
    CaseName());

// Files on disk ---------------------------------------------------------------

TEST(MediaWriterFileTest, ReplacesAnExistingFile) {
    TempDir dir;
    const fs::path path = textFile(dir / "out.wav", std::string(100000, 'x'));
    writeFile(path, FileType::wave, MediaWriter::Encoding::pcm24, sine(48000, 1, 0.1, 440, -6));
    EXPECT_EQ(probeMedia(path).ofType("audio").at(0).codecName, "pcm_s24le");
    EXPECT_EQ(decodeAudio(path).frames(), 4800);
}

TEST(MediaWriterFileTest, NeverOverwritesItsSource) {
    TempDir dir;
    const fs::path source = sineFile(dir / "source.m4a");
    const auto size = fs::file_size(source);
    const MediaAsset asset = MediaAsset::open(source);
    EXPECT_THROW(
        MediaWriter(source, FileType::appleM4A, 48000, 2, MediaWriter::Encoding::aac, asset, {}),
        OstrandError);
    EXPECT_EQ(fs::file_size(source), size);
}

enum class Abandon { cancel, destroy };

class AbandonedWriterTest : public ::testing::TestWithParam<Abandon> {};

TEST_P(AbandonedWriterTest, LeavesNoFile) {
    TempDir dir;
    const fs::path source = videoFile(dir / "source.mp4", 3.0);
    const fs::path path = dir / "out.mp4";
    const MediaAsset asset = MediaAsset::open(source);
    {
        MediaWriter writer(path, FileType::mpeg4, 48000, 2, MediaWriter::Encoding::aac, asset,
                           asset.videoTracks);
        appendAll(writer, whiteNoise(48000, 2, 1.0, -20, 1));
        EXPECT_TRUE(fs::exists(path));
        if (GetParam() == Abandon::cancel) {
            writer.cancel();
            EXPECT_FALSE(fs::exists(path));
        }
    }
    EXPECT_FALSE(fs::exists(path));
    EXPECT_TRUE(fs::exists(source));
}

INSTANTIATE_TEST_SUITE_P(Ways, AbandonedWriterTest,
                         ::testing::Values(Abandon::cancel, Abandon::destroy));

struct UnwritableCase {
    const char* name;
    std::function<fs::path(const TempDir&)> make;
    const char* reason;
    bool bindsRoot = true; // permissions do not stop root
};

class UnwritableTest : public ::testing::TestWithParam<UnwritableCase> {};

TEST_P(UnwritableTest, FailsClearlyAndLeavesNothing) {
    if (!GetParam().bindsRoot && ::geteuid() == 0) {
        GTEST_SKIP() << "running as root";
    }
    TempDir dir;
    const fs::path path = GetParam().make(dir);
    try {
        MediaWriter writer(path, FileType::wave, 48000, 2, MediaWriter::Encoding::pcm24,
                           MediaAsset{}, {});
        FAIL() << "the writer opened " << path;
    } catch (const OstrandError& error) {
        EXPECT_EQ(error.kind(), OstrandError::Kind::writerFailed);
        EXPECT_THAT(error.message(), HasSubstr(GetParam().reason));
    }
    EXPECT_FALSE(fs::exists(path));
}

INSTANTIATE_TEST_SUITE_P(
    Places, UnwritableTest,
    ::testing::Values(
        UnwritableCase{"MissingFolder", [](const TempDir& d) { return d / "gone" / "out.wav"; },
                       "No such file or directory"},
        UnwritableCase{"FolderIsAFile",
                       [](const TempDir& d) { return textFile(d / "plain") / "out.wav"; },
                       "Not a directory"},
        UnwritableCase{"ReadOnlyFolder",
                       [](const TempDir& d) {
                           fs::create_directory(d / "locked");
                           fs::permissions(d / "locked",
                                           fs::perms::owner_read | fs::perms::owner_exec);
                           return d / "locked" / "out.wav";
                       },
                       "Permission denied", false}),
    CaseName());

// A full disk, played by a file-size limit: writes past it fail with EFBIG.
TEST(MediaWriterFileTest, FullDiskFailsAndLeavesNothing) {
    TempDir dir;
    const fs::path path = dir / "out.wav";
    rlimit original{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &original), 0);
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limited = original;
    limited.rlim_cur = 256 * 1024;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limited), 0);
    bool failed = false;
    try {
        MediaWriter writer(path, FileType::wave, 48000, 2, MediaWriter::Encoding::pcm24,
                           MediaAsset{}, {});
        appendAll(writer, whiteNoise(48000, 2, 2.0, -20, 1));
        writer.finish();
    } catch (const OstrandError& error) {
        failed = true;
        EXPECT_EQ(error.kind(), OstrandError::Kind::writerFailed);
        EXPECT_THAT(error.message(), HasSubstr("File too large"));
    }
    ::setrlimit(RLIMIT_FSIZE, &original);
    std::signal(SIGXFSZ, previousHandler);
    EXPECT_TRUE(failed);
    EXPECT_FALSE(fs::exists(path));
}

} // namespace
} // namespace ostrand::test
