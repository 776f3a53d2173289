#include "media/LevelingEngine.h"

#include "media/OstrandError.h"
#include "support/MediaFixtures.h"
#include "support/ReferenceMeters.h"
#include "support/Signals.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace ostrand {
namespace {

namespace fs = std::filesystem;

constexpr double target = -16.0;
constexpr double ceiling = -1.0;
// Measured by libebur128 on the decoded output: WAV is exact but for the
// limiter's departures from the plan's model of it; AAC adds its own error.
constexpr double wavLoudnessToleranceLu = 0.3;
constexpr double aacLoudnessToleranceLu = 0.5;
// Our shelf design reads speech a little lower than libebur128 does.
constexpr double meterOffsetAllowanceLu = 0.1;
// The 4x estimate under-reads peaks between samples a little.
constexpr double wavTruePeakOvershootDb = 0.3;
// 24-bit quantisation of a WAV output.
constexpr float pcm24Step = 1.0f / 8388608.0f;

std::string fileBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

LevelingReport level(const fs::path& source, const fs::path& destination,
                     const std::optional<fs::path>& sidecar = std::nullopt, bool mono = false,
                     std::vector<LevelingProgress>* progress = nullptr) {
    return LevelingEngine::process(
        source, destination, LevelingParameters::forTarget(target), ceiling, mono, sidecar,
        [&](const LevelingProgress& p) {
            if (progress) {
                progress->push_back(p);
            }
        },
        [] { return false; });
}

// Speech-like programme with phrases at different levels, as a float WAV.
fs::path speechWav(const test::TempDir& dir, const std::string& name, double seconds = 30.0) {
    return test::floatWav(dir / name, test::speechLike(48000.0, 2, seconds, 42));
}

// The same programme encoded into another container by ffmpeg, optionally
// with a test-pattern video track.
fs::path encoded(const fs::path& wav, const fs::path& path, bool withVideo) {
    std::string command = "ffmpeg -nostdin -v error -y -i " + test::shellQuote(wav.string());
    if (withVideo) {
        command +=
            " -f lavfi -i testsrc=size=160x120:rate=25 -c:v libx264 -preset ultrafast -shortest";
    }
    command += " -c:a aac -b:a 192k " + test::shellQuote(path.string());
    test::runCommand(command);
    return path;
}

TEST(LevelingEngineTest, WavOutputHitsTheTargetAndStaysUnderTheCeiling) {
    const test::TempDir dir;
    const fs::path source = speechWav(dir, "talk.wav");
    const LevelingReport report = level(source, dir / "talk leveled.wav");

    const test::PlanarAudio out = test::decodeAudio(dir / "talk leveled.wav");
    const double loudness = test::ebur128Integrated(out);
    const double peak = test::oversampledPeakDb(out);
    std::printf("[ engine] WAV: libebur128 %.2f LUFS, own %.2f LUFS, true peak %+.2f dBTP\n",
                loudness, report.outputLoudness, peak);
    EXPECT_NEAR(loudness, target, wavLoudnessToleranceLu + meterOffsetAllowanceLu);
    EXPECT_NEAR(report.outputLoudness, target, wavLoudnessToleranceLu);
    EXPECT_LE(peak, ceiling + wavTruePeakOvershootDb);
    EXPECT_LT(report.minGain, report.maxGain);
    EXPECT_GT(report.activeFraction, 0.3);
    EXPECT_LT(report.activeFraction, 1.0);
    EXPECT_NEAR(report.duration, 30.0, 0.01);
}

TEST(LevelingEngineTest, AacOutputWithVideoHitsTheTarget) {
    const test::TempDir dir;
    const fs::path source = encoded(speechWav(dir, "talk.wav"), dir / "talk.mp4", true);
    const LevelingReport report = level(source, dir / "talk leveled.mp4");
    const test::PlanarAudio out = test::decodeAudio(report.outputURL);
    const double loudness = test::ebur128Integrated(out);
    const double peak = test::oversampledPeakDb(out);
    std::printf("[ engine] AAC: libebur128 %.2f LUFS, true peak %+.2f dBTP (AAC adds overshoot)\n",
                loudness, peak);
    EXPECT_NEAR(loudness, target, aacLoudnessToleranceLu + meterOffsetAllowanceLu);
}

TEST(LevelingEngineTest, WavOutputIsSampleAccurate) {
    // A steady tone: one gain throughout, no limiting, so every output
    // sample is the source sample times that gain, the latency removed.
    const test::TempDir dir;
    const test::PlanarAudio input = test::sine(44100.0, 2, 3.0, 1000.0, -30.0, 0.5);
    const fs::path source = test::floatWav(dir / "tone.wav", input);
    const LevelingReport report = level(source, dir / "tone leveled.wav");
    ASSERT_NEAR(report.minGain, report.maxGain, 1e-9);
    const auto gain = static_cast<float>(std::pow(10.0, report.minGain / 20.0));

    const test::PlanarAudio out = test::decodeAudio(report.outputURL);
    ASSERT_EQ(out.frames(), input.frames());
    EXPECT_NEAR(out.channels[0][0], input.channels[0][0] * gain, pcm24Step);
    for (std::size_t c = 0; c < 2; ++c) {
        for (std::size_t i = 0; i < input.channels[c].size(); ++i) {
            ASSERT_NEAR(out.channels[c][i], input.channels[c][i] * gain, pcm24Step) << i;
        }
    }
    EXPECT_EQ(test::probeMedia(report.outputURL).streams.at(0).codecName, "pcm_s24le");
}

TEST(LevelingEngineTest, ShortSourceIsWrittenWhole) {
    // Shorter than one analysis frame: no plan, unity gain.
    const test::TempDir dir;
    const test::PlanarAudio input = test::sine(48000.0, 1, 100.0 / 48000.0, 1000.0, -20.0);
    const fs::path source = test::floatWav(dir / "blip.wav", input);
    const LevelingReport report = level(source, dir / "blip leveled.wav");
    EXPECT_EQ(report.minGain, 0.0);
    EXPECT_EQ(report.maxGain, 0.0);
    // Shorter than the limiter's latency: written as that many samples.
    EXPECT_EQ(test::decodeAudio(report.outputURL).frames(), 246);
}

TEST(LevelingEngineTest, ProgressRisesThroughBothPassesToOne) {
    const test::TempDir dir;
    const fs::path source = speechWav(dir, "talk.wav", 20.0);
    std::vector<LevelingProgress> progress;
    level(source, dir / "out.wav", std::nullopt, false, &progress);
    ASSERT_GT(progress.size(), 50u);
    EXPECT_LE(progress.size(), 410u);
    double last = 0.0;
    bool leveling = false;
    for (const LevelingProgress& p : progress) {
        EXPECT_GE(p.fraction, last);
        last = p.fraction;
        if (p.phase == LevelingPhase::leveling) {
            leveling = true;
            EXPECT_GE(p.fraction, 0.3);
        } else {
            EXPECT_FALSE(leveling);
            EXPECT_LE(p.fraction, 0.3);
        }
    }
    EXPECT_EQ(progress.back(), (LevelingProgress{LevelingPhase::leveling, 1.0}));
}

struct Container {
    const char* name;
    const char* sourceName;
    const char* outputName;
    const char* expectedCodec;
    int expectedChannels;
    std::int64_t expectedBitRate; // 0: not checked
    fs::path (*make)(const fs::path& path);
};

class LevelingEngineContainers : public testing::TestWithParam<Container> {};

TEST_P(LevelingEngineContainers, OutputFollowsTheSource) {
    const test::TempDir dir;
    const Container& c = GetParam();
    const fs::path source = c.make(dir / c.sourceName);
    const fs::path destination =
        dir / (std::string("out.") + LevelingEngine::outputExtension(source));
    EXPECT_EQ(destination.filename().string(), c.outputName);
    level(source, destination);
    const auto audio = test::probeMedia(destination).ofType("audio");
    ASSERT_EQ(audio.size(), 1u);
    EXPECT_EQ(audio[0].codecName, c.expectedCodec);
    EXPECT_EQ(audio[0].channels, c.expectedChannels);
    if (c.expectedBitRate > 0) {
        EXPECT_NEAR(static_cast<double>(audio[0].bitRate), static_cast<double>(c.expectedBitRate),
                    0.15 * static_cast<double>(c.expectedBitRate));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sources, LevelingEngineContainers,
    testing::Values(
        Container{"aiff", "in.aiff", "out.wav", "pcm_s24le", 2, 0,
                  [](const fs::path& p) { return test::noiseFile(p, 44100, "stereo", 3.0); }},
        Container{"mp3", "in.mp3", "out.m4a", "aac", 2, 256000,
                  [](const fs::path& p) { return test::noiseFile(p, 44100, "stereo", 3.0); }},
        Container{"monoAac", "in.m4a", "out.m4a", "aac", 1, 160000,
                  [](const fs::path& p) { return test::noiseFile(p, 48000, "mono", 3.0); }},
        Container{"surround", "in.mov", "out.mov", "aac", 2, 0,
                  [](const fs::path& p) { return test::surroundFile(p, 3.0); }},
        Container{"twoTracks", "in.mp4", "out.mp4", "aac", 2, 0,
                  [](const fs::path& p) { return test::twoTrackFile(p); }},
        Container{"qt", "in.qt", "out.mov", "aac", 2, 0,
                  [](const fs::path& p) { return test::videoFile(p); }}),
    [](const auto& p) { return std::string(p.param.name); });

class LevelingEngineVideo : public testing::TestWithParam<const char*> {};

TEST_P(LevelingEngineVideo, VideoPacketsAreCopiedBitExactWithTheirRotation) {
    const test::TempDir dir;
    const fs::path source = test::rotatedVideo(dir / (std::string("clip.") + GetParam()), 90);
    const fs::path destination = dir / (std::string("clip leveled.") + GetParam());
    const fs::path sidecar = dir / "clip leveled.wav";
    const LevelingReport report = level(source, destination, sidecar);

    const auto before = test::videoPacketDigests(source);
    const auto after = test::videoPacketDigests(destination);
    ASSERT_EQ(after.size(), before.size());
    for (std::size_t i = 0; i < before.size(); ++i) {
        EXPECT_EQ(after[i].md5, before[i].md5) << "packet " << i;
        EXPECT_NEAR(after[i].ptsSeconds, before[i].ptsSeconds, 1e-3) << "packet " << i;
    }
    const auto video = test::probeMedia(destination).ofType("video");
    ASSERT_EQ(video.size(), 1u);
    ASSERT_TRUE(video[0].rotationDegrees.has_value());
    EXPECT_NEAR(std::fabs(*video[0].rotationDegrees), 90.0, 0.01);

    ASSERT_TRUE(report.audioSidecarURL.has_value());
    EXPECT_EQ(*report.audioSidecarURL, sidecar);
    const auto sidecarAudio = test::probeMedia(sidecar).ofType("audio");
    ASSERT_EQ(sidecarAudio.size(), 1u);
    EXPECT_EQ(sidecarAudio[0].codecName, "pcm_s24le");
}

INSTANTIATE_TEST_SUITE_P(Containers, LevelingEngineVideo, testing::Values("mp4", "mov"));

TEST(LevelingEngineTest, SidecarOnlyBesideVideo) {
    const test::TempDir dir;
    const fs::path source = test::noiseFile(dir / "talk.wav");
    const LevelingReport report = level(source, dir / "talk leveled.wav", dir / "side.wav");
    EXPECT_FALSE(report.audioSidecarURL.has_value());
    EXPECT_FALSE(fs::exists(dir / "side.wav"));
}

TEST(LevelingEngineTest, MonoVideoGetsMonoAacAndSidecar) {
    const test::TempDir dir;
    const fs::path source = test::videoFile(dir / "clip.mov");
    LevelingEngine::process(source, dir / "out.mov", LevelingParameters::forTarget(target), ceiling,
                            true, dir / "out.wav", nullptr, nullptr);
    const auto audio = test::probeMedia(dir / "out.mov").ofType("audio");
    ASSERT_EQ(audio.size(), 1u);
    EXPECT_EQ(audio[0].channels, 1);
    EXPECT_EQ(test::probeMedia(dir / "out.wav").ofType("audio").at(0).channels, 1);
}

struct Failure {
    const char* name;
    fs::path (*make)(const test::TempDir& dir); // returns the source
    const char* expectedStart;
};

class LevelingEngineFailures : public testing::TestWithParam<Failure> {};

TEST_P(LevelingEngineFailures, FailWithAMessageAndLeaveNothing) {
    const test::TempDir dir;
    const fs::path source = GetParam().make(dir);
    const std::string before = fs::exists(source) ? fileBytes(source) : std::string();
    const fs::path destination = dir / "out" / "result.mp4";
    fs::create_directory(dir / "out");
    try {
        level(source, destination, dir / "out" / "result.wav");
        FAIL() << "no error";
    } catch (const OstrandError& error) {
        EXPECT_EQ(error.errorDescription().rfind(GetParam().expectedStart, 0), 0u)
            << error.errorDescription();
    }
    EXPECT_TRUE(fs::is_empty(dir / "out"));
    if (fs::exists(source)) {
        EXPECT_EQ(fileBytes(source), before);
    }
}

INSTANTIATE_TEST_SUITE_P(
    BadSources, LevelingEngineFailures,
    testing::Values(
        Failure{"truncated",
                [](const test::TempDir& dir) {
                    return test::truncatedCopy(test::videoFile(dir / "whole.mp4", 4.0),
                                               dir / "cut.mp4", 0.5);
                },
                "Couldn't read the file: "},
        Failure{"text", [](const test::TempDir& dir) { return test::textFile(dir / "notes.mp4"); },
                "Couldn't read the file: "},
        Failure{"videoOnly",
                [](const test::TempDir& dir) { return test::videoOnly(dir / "silent.mp4"); },
                "This file has no audio track to level."},
        Failure{"missing", [](const test::TempDir& dir) { return dir / "nothing.mp4"; },
                "Couldn't read the file: "}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(LevelingEngineTest, UnwritableDestinationFailsAndLeavesNothing) {
    const test::TempDir dir;
    const fs::path source = test::noiseFile(dir / "talk.wav");
    const std::string before = fileBytes(source);
    // A path through a regular file cannot be created, even by root.
    const fs::path blocker = test::textFile(dir / "blocker");
    try {
        level(source, blocker / "talk leveled.wav");
        FAIL() << "no error";
    } catch (const OstrandError& error) {
        EXPECT_EQ(error.kind(), OstrandError::Kind::writerFailed) << error.errorDescription();
    }
    EXPECT_EQ(fileBytes(source), before);
}

TEST(LevelingEngineTest, RefusesToOverwriteItsSource) {
    const test::TempDir dir;
    const fs::path source = test::noiseFile(dir / "talk.wav");
    const std::string before = fileBytes(source);
    EXPECT_THROW(level(source, source), OstrandError);
    EXPECT_EQ(fileBytes(source), before);
}

class LevelingEngineCancel : public testing::TestWithParam<LevelingPhase> {};

TEST_P(LevelingEngineCancel, StopsAndLeavesNoFiles) {
    const test::TempDir dir;
    const fs::path source = test::videoFile(dir / "clip.mov", 4.0);
    const std::string before = fileBytes(source);
    std::atomic<bool> cancel{false};
    try {
        LevelingEngine::process(
            source, dir / "clip leveled.mov", LevelingParameters::forTarget(target), ceiling, false,
            dir / "clip leveled.wav",
            [&](const LevelingProgress& p) {
                if (p.phase == GetParam() &&
                    p.fraction > (GetParam() == LevelingPhase::analyzing ? 0.1 : 0.5)) {
                    cancel = true;
                }
            },
            [&] { return cancel.load(); });
        FAIL() << "not cancelled";
    } catch (const OstrandError& error) {
        EXPECT_EQ(error.kind(), OstrandError::Kind::cancelled);
        EXPECT_EQ(error.errorDescription(), "Cancelled.");
    }
    EXPECT_FALSE(fs::exists(dir / "clip leveled.mov"));
    EXPECT_FALSE(fs::exists(dir / "clip leveled.wav"));
    EXPECT_EQ(fileBytes(source), before);
}

INSTANTIATE_TEST_SUITE_P(Passes, LevelingEngineCancel,
                         testing::Values(LevelingPhase::analyzing, LevelingPhase::leveling));

struct Naming {
    const char* source;
    const char* extension;
    FileType type;
};

class LevelingEngineNaming : public testing::TestWithParam<Naming> {};

TEST_P(LevelingEngineNaming, ExtensionAndContainerFollowTheTable) {
    const std::string extension = LevelingEngine::outputExtension(GetParam().source);
    EXPECT_EQ(extension, GetParam().extension);
    EXPECT_EQ(LevelingEngine::fileType(extension), GetParam().type);
}

INSTANTIATE_TEST_SUITE_P(Table, LevelingEngineNaming,
                         testing::Values(Naming{"a.mp4", "mp4", FileType::mpeg4},
                                         Naming{"a.M4V", "m4v", FileType::mpeg4},
                                         Naming{"a.mov", "mov", FileType::quickTimeMovie},
                                         Naming{"a.qt", "mov", FileType::quickTimeMovie},
                                         Naming{"a.WAV", "wav", FileType::wave},
                                         Naming{"a.aif", "wav", FileType::wave},
                                         Naming{"a.aiff", "wav", FileType::wave},
                                         Naming{"a.mp3", "m4a", FileType::appleM4A},
                                         Naming{"a.m4a", "m4a", FileType::appleM4A},
                                         Naming{"noextension", "m4a", FileType::appleM4A}));

} // namespace
} // namespace ostrand
