// A user's files survive whatever happens to a run: kills, races with
// another run, hostile inputs. Runs in processes of their own where a test
// needs one to die.
#include "Leveling.h"
#include "media/AtomicFile.h"
#include "media/MediaWriter.h"
#include "media/OstrandError.h"

#include "support/MediaFixtures.h"
#include "support/NamedCases.h"
#include "support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <csignal>
#include <fstream>
#include <limits>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ostrand::test {
namespace {

namespace fs = std::filesystem;
using OutputNaming::ExistingFile;

// A child process that runs `work` and reports one byte through a pipe.
struct Child {
    pid_t pid = -1;
    int fromChild = -1;

    template <typename Work>
    explicit Child(Work&& work) {
        std::array<int, 2> pipe{};
        if (::pipe(pipe.data()) != 0) {
            throw std::runtime_error("pipe");
        }
        pid = ::fork();
        if (pid == 0) {
            ::close(pipe[0]);
            const char result = work(pipe[1]);
            [[maybe_unused]] const auto written = ::write(pipe[1], &result, 1);
            ::_exit(0);
        }
        ::close(pipe[1]);
        fromChild = pipe[0];
    }
    std::string read() const {
        std::string text;
        char c = 0;
        while (::read(fromChild, &c, 1) == 1) {
            text += c;
        }
        return text;
    }
    int wait() {
        int status = 0;
        ::waitpid(pid, &status, 0);
        ::close(fromChild);
        return status;
    }
};

// SIGKILL in the middle of writing: the earlier file at the destination is
// untouched and nothing else appears in the folder, not even a hidden file.
TEST(SafetyTest, KilledWhileWritingLeavesNothing) {
    const TempDir dir;
    const fs::path source = videoFile(dir / "clip.mp4", 20.0);
    fs::create_directory(dir / "out");
    const fs::path destination = textFile(dir / "out/clip leveled.mp4", "an earlier take");
    const auto before = listing(dir / "out");

    Child child([&](int toParent) {
        try {
            level(source, destination, {.progress = [&](const LevelingProgress& p) {
                      if (p.phase == LevelingPhase::leveling && p.fraction > 0.5) {
                          [[maybe_unused]] const auto written = ::write(toParent, "w", 1);
                          ::pause(); // until the kill
                      }
                  }});
        } catch (...) {
        }
        return 'x';
    });
    char c = 0;
    ASSERT_EQ(::read(child.fromChild, &c, 1), 1);
    ASSERT_EQ(c, 'w');
    ::kill(child.pid, SIGKILL);
    EXPECT_TRUE(WIFSIGNALED(child.wait()));
    EXPECT_EQ(listing(dir / "out"), before);
    EXPECT_EQ(fileBytes(destination), "an earlier take");
}

// Two runs with same-named sources into one folder both start out meaning
// "talk leveled.wav"; the second to finish takes the next free name, and
// each report names the file it wrote.
TEST(SafetyTest, TwoProcessesClaimTwoNames) {
    const TempDir dir;
    fs::create_directories(dir / "a");
    fs::create_directories(dir / "b");
    fs::create_directories(dir / "out");
    const std::array<fs::path, 2> sources{noiseFile(dir / "a/talk.wav", 48000, "stereo", 2.0),
                                          noiseFile(dir / "b/talk.wav", 48000, "stereo", 3.0)};
    const fs::path destination = OutputNaming::leveledLocation(sources[0], dir / "out");
    ASSERT_EQ(destination.filename(), "talk leveled.wav");

    std::vector<Child> children;
    for (const fs::path& source : sources) {
        children.emplace_back([&](int toParent) {
            try {
                const auto report =
                    level(source, destination, {.existing = ExistingFile::keepAndNumber});
                const std::string name = report.outputURL.filename().string();
                [[maybe_unused]] const auto written = ::write(toParent, name.data(), name.size());
                return '\n';
            } catch (const std::exception& error) {
                [[maybe_unused]] const auto w = ::write(toParent, error.what(), 10);
                return '!';
            }
        });
    }
    std::vector<std::string> reported;
    for (std::size_t i = 0; i < children.size(); ++i) {
        reported.push_back(children[i].read());
        EXPECT_EQ(children[i].wait(), 0);
    }
    EXPECT_THAT(reported,
                ::testing::UnorderedElementsAre("talk leveled.wav\n", "talk leveled 2.wav\n"));
    // Each file is whole and holds its own source's length.
    for (std::size_t i = 0; i < sources.size(); ++i) {
        const fs::path written = dir / "out" / reported[i].substr(0, reported[i].size() - 1);
        EXPECT_EQ(decodeAudio(written).frames(), decodeAudio(sources[i]).frames());
    }
    EXPECT_EQ(listing(dir / "out").size(), 2u);
}

// The engine cancels a failed writer itself; dropping one unfinished must not
// leave a partial file either, and finishing one names only a whole file.
TEST(SafetyTest, WriterDestroyedUnfinishedLeavesNoFile) {
    const TempDir dir;
    const MediaAsset asset = MediaAsset::open(videoFile(dir / "source.mp4", 3.0));
    const PlanarAudio audio = whiteNoise(48000, 2, 1.0, -20, 1);
    {
        MediaWriter writer(dir / "out.mp4", ExistingFile::replace, FileType::mpeg4, 48000, 2,
                           MediaWriter::Encoding::aac, asset, asset.videoTracks);
        writer.appendAudio(audio.constPointers(), audio.frames(), {});
        EXPECT_THROW(writer.measured(), OstrandError); // nothing complete to measure
    }
    EXPECT_EQ(listing(dir.path()).size(), 1u);

    // Finished straight away, a writer completes the file before naming it.
    MediaWriter writer(dir / "out.m4a", ExistingFile::replace, FileType::appleM4A, 48000, 2,
                       MediaWriter::Encoding::aac, asset, {});
    writer.appendAudio(audio.constPointers(), audio.frames(), {});
    writer.finish();
    EXPECT_GE(decodeAudio(dir / "out.m4a").frames(), audio.frames());
    EXPECT_NEAR(writer.measured().integratedLoudness,
                ebur128Integrated(decodeAudio(dir / "out.m4a")), 0.1);
}

// A hidden file left by a run that was killed on a file system without
// unnamed files is cleared by the next run in the folder; a live run's is not.
TEST(SafetyTest, LeftoversOfDeadRunsAreCleared) {
    const TempDir dir;
    Child dead([](int) { return 'x'; });
    dead.read();
    dead.wait();
    const std::string prefix = AtomicFile::hiddenPrefix();
    const std::string host = prefix.substr(0, prefix.rfind('-', prefix.size() - 2) + 1);
    const fs::path leftover = textFile(dir / (host + std::to_string(dead.pid) + "-1.part"), "x");
    const fs::path ours = textFile(dir / (prefix + "2.part"), "x");
    {
        AtomicFile file(dir.path());
        file.discard();
    }
    EXPECT_FALSE(fs::exists(leftover));
    EXPECT_TRUE(fs::exists(ours));
}

// Shifts the presentation time of an audio PES packet of an MPEG-TS file
// (the middle one unless `first`) by `seconds`: one damaged time stamp, as
// one changed byte gives.
fs::path shiftTsTimestamp(const fs::path& path, double seconds, bool first = false) {
    std::string bytes = fileBytes(path);
    std::vector<unsigned char*> stamps; // of the audio PES headers that carry one
    for (std::size_t at = 0; at + 188 <= bytes.size(); at += 188) {
        auto* p = reinterpret_cast<unsigned char*>(bytes.data() + at);
        unsigned char* pes = p + 4 + (((p[3] >> 4) & 3) == 3 ? 1 + p[4] : 0);
        if (p[0] == 0x47 && (p[1] & 0x40) != 0 && pes[0] == 0 && pes[1] == 0 && pes[2] == 1 &&
            (pes[3] & 0xE0) == 0xC0 && (pes[7] & 0x80) != 0) {
            stamps.push_back(pes + 9);
        }
    }
    if (stamps.empty()) {
        throw std::runtime_error("no audio packet");
    }
    unsigned char* t = stamps[first ? 0 : stamps.size() / 2];
    std::int64_t pts = (static_cast<std::int64_t>((t[0] >> 1) & 7) << 30) | (t[1] << 22) |
                       ((t[2] >> 1) << 15) | (t[3] << 7) | (t[4] >> 1);
    pts = (pts + std::llround(seconds * 90000.0)) & ((std::int64_t{1} << 33) - 1);
    t[0] = static_cast<unsigned char>((t[0] & 0xF1) | (((pts >> 30) & 7) << 1));
    t[1] = static_cast<unsigned char>(pts >> 22);
    t[2] = static_cast<unsigned char>((((pts >> 15) & 0x7F) << 1) | 1);
    t[3] = static_cast<unsigned char>(pts >> 7);
    t[4] = static_cast<unsigned char>(((pts & 0x7F) << 1) | 1);
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
}

// Moves the audio packets of the second half of an MPEG-TS file to a new
// PID, which the demuxer takes for a stream appearing mid-file.
fs::path moveSecondHalfOfAudio(const fs::path& path) {
    std::string bytes = fileBytes(path);
    const std::size_t packets = bytes.size() / 188;
    for (std::size_t i = packets / 2; i < packets; ++i) {
        auto* p = reinterpret_cast<unsigned char*>(bytes.data() + i * 188);
        if (p[0] == 0x47 && (((p[1] & 0x1F) << 8) | p[2]) == 0x101) {
            p[1] = static_cast<unsigned char>((p[1] & 0xE0) | 0x11); // PID 0x1101
        }
    }
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
}

struct DamageCase {
    const char* name;
    fs::path (*source)(const fs::path& dir);
    std::size_t streams; // that ffprobe finds in the fixture
    bool hours;          // the fixture's audio time stamps reach hours
    double seconds;      // of sound it holds
};

class DamagedFileTest : public ::testing::TestWithParam<DamageCase> {};

// A time stamp far past the file's length is damage, and a header that
// spreads a few seconds over a day leaves holes: neither becomes hours of
// silence in memory, the audio is read on as if there were no jump. A
// stream the file did not declare at the start is none of ours: it is not
// read as audio, nor copied, and nothing reads past its tables.
TEST_P(DamagedFileTest, OutputHoldsTheSoundOnly) {
    const TempDir dir;
    const DamageCase& c = GetParam();
    const fs::path source = c.source(dir.path());
    // The fixture must be damaged as meant, or the test proves nothing.
    const ProbeInfo probe = probeMedia(source);
    ASSERT_EQ(probe.streams.size(), c.streams);
    const auto packets = probe.ofType("audio").at(0).packets;
    ASSERT_EQ(std::any_of(packets.begin(), packets.end(),
                          [](const std::string& p) { return std::abs(std::stod(p)) > 1000.0; }),
              c.hours);
    const LevelingReport report = level(source, dir / ("out" + source.extension().string()));
    EXPECT_NEAR(static_cast<double>(decodeAudio(report.outputURL).frames()), c.seconds * 48000,
                0.3 * 48000);
}

fs::path clipTs(const fs::path& dir) {
    return makeMedia(dir / "clip.ts", {.video = {{.seconds = 4.0}}, .audio = {{.seconds = 4.0}}});
}

INSTANTIATE_TEST_SUITE_P(
    Damaged, DamagedFileTest,
    ::testing::Values(
        DamageCase{"JumpOfAnHour", [](auto& d) { return shiftTsTimestamp(clipTs(d), 3600.0); }, 2,
                   true, 4.0},
        DamageCase{"JumpOfADay", [](auto& d) { return shiftTsTimestamp(clipTs(d), 86400.0); }, 2,
                   true, 4.0},
        DamageCase{"FirstPacketHoursLate",
                   [](auto& d) { return shiftTsTimestamp(clipTs(d), 3 * 3600.0, true); }, 2, true,
                   4.0},
        DamageCase{"StreamAppearingMidFile",
                   [](auto& d) { return moveSecondHalfOfAudio(clipTs(d)); }, 3, false, 2.0},
        DamageCase{"HolesInADay", [](auto& d) { return spreadOut(d / "spread.mka", 3.0, 3600.0); },
                   1, true, 3.0}),
    byName);

struct SampleCase {
    const char* name;
    float value;
};

class DamagedSampleTest : public ::testing::TestWithParam<SampleCase> {};

// One absurd sample in a float WAV neither silences the rest of the output
// nor holds the limiter down: two seconds on, the level is back.
TEST_P(DamagedSampleTest, DoesNotSilenceTheRest) {
    const TempDir dir;
    PlanarAudio audio = sine(48000.0, 2, 5.0, 440.0, -20.0, 0.0);
    audio.channels[0][48000] = GetParam().value;
    const LevelingReport report = level(floatWav(dir / "damaged.wav", audio), dir / "out.wav");
    const PlanarAudio out = decodeAudio(report.outputURL);
    const auto rms = [&](double from, double to) {
        double sum = 0.0;
        const auto a = static_cast<std::size_t>(from * 48000);
        const auto b = static_cast<std::size_t>(to * 48000);
        for (std::size_t i = a; i < b; ++i) {
            sum += static_cast<double>(out.channels[1][i]) * out.channels[1][i];
        }
        return 10.0 * std::log10(sum / static_cast<double>(b - a));
    };
    EXPECT_TRUE(std::isfinite(report.outputLoudness));
    EXPECT_NEAR(rms(3.2, 4.0), rms(0.2, 0.8), 1.0);
}

INSTANTIATE_TEST_SUITE_P(
    Samples, DamagedSampleTest,
    ::testing::Values(SampleCase{"Infinity", std::numeric_limits<float>::infinity()},
                      SampleCase{"NotANumber", std::numeric_limits<float>::quiet_NaN()},
                      SampleCase{"Huge", 1e20f}),
    byName);

struct PermissionCase {
    const char* name;
    fs::perms source;
    ::mode_t umask;
    fs::perms output;
};

class OutputPermissionTest : public ::testing::TestWithParam<PermissionCase> {};

// A private recording stays private: the output and its WAV sidecar get the
// source's read and write bits, less the umask, from the moment they exist.
TEST_P(OutputPermissionTest, FollowsTheSource) {
    const TempDir dir;
    const fs::path source =
        makeMedia(dir / "clip.mp4", {.video = {{.seconds = 1.0}}, .audio = {{.seconds = 1.0}}});
    fs::permissions(source, GetParam().source);
    // The process's umask is the test's for the run, and restored however it ends.
    const struct Umask {
        ::mode_t previous;
        ~Umask() { ::umask(previous); }
    } restored{::umask(GetParam().umask)};
    const LevelingReport report = level(source, dir / "out.mp4", {.sidecar = dir / "out.wav"});
    ASSERT_TRUE(report.audioSidecarURL);
    for (const fs::path& output : {report.outputURL, *report.audioSidecarURL}) {
        const fs::perms perms = fs::status(output).permissions();
        EXPECT_EQ(perms, GetParam().output)
            << output << " has " << std::oct << static_cast<unsigned>(perms);
    }
}

constexpr auto rw = fs::perms::owner_read | fs::perms::owner_write;
constexpr auto r = fs::perms::group_read | fs::perms::others_read;

INSTANTIATE_TEST_SUITE_P(
    Sources, OutputPermissionTest,
    ::testing::Values(PermissionCase{"Private", rw, 022, rw},
                      PermissionCase{"Shared", rw | r, 022, rw | r},
                      PermissionCase{"SharedUnderStrictUmask", rw | r, 077, rw},
                      PermissionCase{"ReadOnlyOwnerMayStillWrite", fs::perms::owner_read | r, 022,
                                     rw | r},
                      PermissionCase{"ExecutableIsNotCopied", fs::perms::all, 022, rw | r}),
    byName);

} // namespace
} // namespace ostrand::test
