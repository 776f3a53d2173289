#include "media/MediaWriter.h"

#include "media/OstrandError.h"
#include "support/MediaFixtures.h"
#include "support/NamedCases.h"
#include "support/ReferenceMeters.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <ostream>
#include <utility>

namespace ostrand::test {
namespace {

// The engine cancels a failed writer itself; dropping one unfinished must not
// leave a partial file either.
TEST(MediaWriterTest, DestroyedUnfinishedLeavesNoFile) {
    const TempDir dir;
    const MediaAsset asset = MediaAsset::open(videoFile(dir / "source.mp4", 3.0));
    const PlanarAudio audio = whiteNoise(48000, 2, 1.0, -20, 1);
    {
        MediaWriter writer(dir / "out.mp4", OutputNaming::ExistingFile::replace, FileType::mpeg4,
                           48000, 2, MediaWriter::Encoding::aac, asset, asset.videoTracks);
        writer.appendAudio(audio.constPointers(), audio.frames(), {});
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "out.mp4"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

// The meter reads peaks between samples at 4x; soxr at 192 kHz finds a
// little more on bright material.
constexpr double truePeakToleranceDb = 0.3;

struct MeterCase {
    const char* name;
    const char* file;
    FileType type;
    MediaWriter::Encoding encoding;
    int channels;
};

class OutputMeterTest : public ::testing::TestWithParam<MeterCase> {};

// What the writer measured is what a player decodes from the file, lossy
// codecs' own error included, by independent meters.
TEST_P(OutputMeterTest, MeasuresWhatTheFileHolds) {
    const TempDir dir;
    const MeterCase& c = GetParam();
    const MediaAsset asset = MediaAsset::open(noiseFile(dir / "source.wav"));
    PlanarAudio audio = pinkNoise(48000, c.channels, 6.0, -18.0, 9);
    audio.append(brightMusicLike(48000, c.channels, 4.0, 9));
    MediaWriter writer(dir / c.file, OutputNaming::ExistingFile::replace, c.type, 48000, c.channels,
                       c.encoding, asset, {});
    // In blocks of a size no encoder frame divides.
    inBlocks(std::as_const(audio), 3000, [&](const auto& at, std::int64_t n, std::int64_t first) {
        writer.appendAudio(at, n, MediaTime{first, 48000});
    });
    EXPECT_THROW(writer.measured(), OstrandError);
    writer.finish();

    const PlanarAudio decoded = decodeAudio(dir / c.file);
    const LoudnessFigures& measured = writer.measured();
    EXPECT_NEAR(measured.truePeak, oversampledPeakDb(decoded), truePeakToleranceDb);
    EXPECT_NEAR(measured.integratedLoudness, ebur128Integrated(decoded), 0.1);
}

INSTANTIATE_TEST_SUITE_P(
    Codecs, OutputMeterTest,
    ::testing::Values(
        MeterCase{"AacM4a", "out.m4a", FileType::appleM4A, MediaWriter::Encoding::aac, 2},
        MeterCase{"MonoAacTs", "out.ts", FileType::mpegTS, MediaWriter::Encoding::aac, 1},
        MeterCase{"OpusWebm", "out.webm", FileType::webm, MediaWriter::Encoding::opus, 2},
        MeterCase{"Pcm24Wav", "out.wav", FileType::wave, MediaWriter::Encoding::pcm24, 2},
        MeterCase{"Flac", "out.flac", FileType::flac, MediaWriter::Encoding::flac, 1}),
    byName);

} // namespace
} // namespace ostrand::test
