#include "media/MediaWriter.h"

#include "media/OstrandError.h"
#include "support/MediaFixtures.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

namespace ostrand::test {
namespace {

// The engine cancels a failed writer itself; dropping one unfinished must not
// leave a partial file either. What the writer measures on every codec is
// checked through the engine's CeilingTest.
TEST(MediaWriterTest, DestroyedUnfinishedLeavesNoFile) {
    const TempDir dir;
    const MediaAsset asset = MediaAsset::open(videoFile(dir / "source.mp4", 3.0));
    const PlanarAudio audio = whiteNoise(48000, 2, 1.0, -20, 1);
    {
        MediaWriter writer(dir / "out.mp4", OutputNaming::ExistingFile::replace, FileType::mpeg4,
                           48000, 2, MediaWriter::Encoding::aac, asset, asset.videoTracks);
        writer.appendAudio(audio.constPointers(), audio.frames(), {});
        EXPECT_THROW(writer.measured(), OstrandError); // nothing complete to measure
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "out.mp4"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

} // namespace
} // namespace ostrand::test
