#include "cli/Cli.h"

#include "support/MediaFixtures.h"
#include "support/TempDir.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <map>
#include <thread>

#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace ostrand {
namespace {

namespace fs = std::filesystem;

struct CliRun {
    int status = 0;
    std::string out;
    std::string err;
};

CliRun run(std::vector<std::string> args, std::function<bool()> interrupted = {}) {
    std::ostringstream out;
    std::ostringstream err;
    CliEnvironment environment;
    environment.interrupted = std::move(interrupted);
    const int status = runCli(args, out, err, environment);
    return {status, out.str(), err.str()};
}

std::vector<QJsonObject> jsonLines(const std::string& text) {
    std::vector<QJsonObject> objects;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(line));
        EXPECT_TRUE(document.isObject()) << line;
        objects.push_back(document.object());
    }
    return objects;
}

std::string fileBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(CliTest, LevelsBesideTheSourceWithoutOverwriting) {
    const test::TempDir dir;
    const fs::path source = test::noiseFile(dir / "talk.wav", 48000, "stereo", 2.0, -30.0);
    const std::string before = fileBytes(source);
    for (const char* expected : {"talk leveled.wav", "talk leveled 2.wav", "talk leveled 3.wav"}) {
        const CliRun r = run({"level", source.string()});
        ASSERT_EQ(r.status, exitSuccess) << r.err;
        EXPECT_TRUE(fs::exists(dir / expected)) << expected;
        EXPECT_NE(r.out.find(expected), std::string::npos) << r.out;
        EXPECT_NE(r.out.find(" LUFS \u00b7 2s leveled in "), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("gain +"), std::string::npos) << r.out;
    }
    EXPECT_EQ(fileBytes(source), before);
}

TEST(CliTest, JsonCarriesEveryReportField) {
    const test::TempDir dir;
    const fs::path video = test::videoFile(dir / "clip.mov");
    // --output-dir is made when missing.
    const CliRun ok = run({"level", "--json", "--wav-sidecar", "--preset", "broadcast",
                           "--output-dir", (dir / "out/new").string(), video.string()});
    ASSERT_EQ(ok.status, exitSuccess) << ok.err;
    const std::vector<QJsonObject> lines = jsonLines(ok.out);
    ASSERT_EQ(lines.size(), 1u);
    const QJsonObject& o = lines[0];
    for (const char* key :
         {"source", "outputURL", "audioSidecarURL", "duration", "inputLoudness", "outputLoudness",
          "limiterGainReduction", "minGain", "maxGain", "activeFraction"}) {
        EXPECT_TRUE(o.contains(key)) << key;
    }
    EXPECT_EQ(o["outputURL"].toString().toStdString(),
              (dir / "out/new" / "clip leveled.mov").string());
    EXPECT_EQ(o["audioSidecarURL"].toString().toStdString(),
              (dir / "out/new" / "clip leveled.wav").string());
    EXPECT_NEAR(o["outputLoudness"].toDouble(), -23.0, 0.5);
}

TEST(CliTest, OneFailureDoesNotStopTheOthers) {
    const test::TempDir dir;
    const fs::path good = test::noiseFile(dir / "a.wav");
    const fs::path bad = test::textFile(dir / "b.mp4");
    const fs::path other = test::sineFile(dir / "c.mp3");
    const CliRun r =
        run({"level", "-j", "2", "--json", good.string(), bad.string(), other.string()});
    EXPECT_EQ(r.status, exitFailure);
    // One whole line per file, in the order they finish.
    std::map<std::string, QJsonObject> lines;
    for (const QJsonObject& line : jsonLines(r.out)) {
        lines[fs::path(line["source"].toString().toStdString()).filename().string()] = line;
    }
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(lines["a.wav"].contains("outputURL"));
    EXPECT_EQ(lines["b.mp4"]["error"].toString().toStdString().rfind("Couldn't read the file: ", 0),
              0u);
    EXPECT_TRUE(lines["c.mp3"].contains("outputURL"));
    EXPECT_NE(r.err.find("2 leveled, 0 skipped, 1 failed"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("b.mp4: Couldn't read the file: "), std::string::npos) << r.err;
    EXPECT_TRUE(fs::exists(dir / "c leveled.m4a"));
    EXPECT_FALSE(fs::exists(dir / "b leveled.mp4"));
}

TEST(CliTest, OutputGoesExactlyWhereAskedButNeverOverTheSource) {
    const test::TempDir dir;
    const fs::path source = test::noiseFile(dir / "talk.wav");
    const std::string before = fileBytes(source);
    EXPECT_EQ(run({"level", "--output", (dir / "final.wav").string(), source.string()}).status,
              exitSuccess);
    EXPECT_TRUE(fs::exists(dir / "final.wav"));

    const CliRun same = run({"level", "--output", source.string(), source.string()});
    EXPECT_EQ(same.status, exitFailure);
    EXPECT_NE(same.err.find("source"), std::string::npos) << same.err;
    EXPECT_EQ(fileBytes(source), before);
}

TEST(CliTest, MeasureReportsTheMixedStream) {
    const test::TempDir dir;
    const fs::path source = test::sineFile(dir / "tone.wav", 44100, "mono", 3.0, 997.0, -20.0);
    const CliRun r = run({"measure", "--json", source.string()});
    ASSERT_EQ(r.status, exitSuccess) << r.err;
    const QJsonObject o = jsonLines(r.out).at(0);
    EXPECT_NEAR(o["samplePeak"].toDouble(), -20.0, 0.05);
    EXPECT_NEAR(o["truePeak"].toDouble(), -20.0, 0.1);
    // Mean square -23.01 dB, K-weighting +0.44 dB at 1 kHz, offset -0.691.
    EXPECT_NEAR(o["integratedLoudness"].toDouble(), -23.26, 0.05);
    EXPECT_EQ(o["sampleRate"].toInt(), 44100);
    EXPECT_EQ(o["channels"].toInt(), 1);
    EXPECT_NEAR(o["duration"].toDouble(), 3.0, 0.01);

    const CliRun text = run({"measure", source.string()});
    EXPECT_NE(text.out.find(" LUFS \u00b7 true peak "), std::string::npos) << text.out;
}

TEST(CliTest, InterruptStopsAndLeavesNothing) {
    const test::TempDir dir;
    const fs::path source = test::noiseFile(dir / "talk.wav", 48000, "stereo", 10.0);
    int polls = 0;
    const CliRun r = run({"level", source.string(), source.string()}, [&] { return ++polls > 20; });
    EXPECT_EQ(r.status, exitInterrupted);
    EXPECT_NE(r.err.find("Cancelled."), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(dir / "talk leveled.wav"));
}

struct Usage {
    const char* name;
    std::vector<std::string> args;
    const char* message;
};

class CliUsage : public testing::TestWithParam<Usage> {};

TEST_P(CliUsage, IsRefusedWithStatus2) {
    const CliRun r = run(GetParam().args);
    EXPECT_EQ(r.status, exitUsage);
    EXPECT_NE(r.err.find(GetParam().message), std::string::npos) << r.err;
    EXPECT_TRUE(r.out.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Mistakes, CliUsage,
    testing::Values(
        Usage{"nothing", {}, "no command given"}, Usage{"noFiles", {"level"}, "no files given"},
        Usage{"unknownCommand", {"squash", "a.wav"}, "unknown command"},
        Usage{"unknownOption", {"level", "--loud", "a.wav"}, "unknown option --loud"},
        Usage{"badNumber", {"level", "--target", "loud", "a.wav"}, "needs a number"},
        Usage{"outOfRange", {"level", "--ceiling", "3", "a.wav"}, "must lie between"},
        Usage{"missingValue", {"level", "a.wav", "--target"}, "needs a value"},
        Usage{"unknownPreset", {"level", "--preset", "radio", "a.wav"}, "unknown preset"},
        Usage{"outputTwice", {"level", "--output", "x.wav", "a.wav", "b.wav"}, "exactly one input"},
        Usage{"wrongOutputExtension", {"level", "--output", "x.mp4", "a.wav"}, "must end in .wav"},
        Usage{"measureOptions", {"measure", "--mono", "a.wav"}, "measure takes no --mono"}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(CliTest, HelpAndVersion) {
    EXPECT_NE(run({"--help"}).out.find("usage: ostrand-cli level"), std::string::npos);
    EXPECT_EQ(run({"--version"}).out.rfind("ostrand-cli ", 0), 0u);
}

// The real program, stopped by SIGTERM while it writes over an existing
// file: it ends with 143 and the earlier file is as it was.
TEST(CliProcessTest, SigtermEndsTheRunAndKeepsTheEarlierFile) {
    const test::TempDir dir;
    // AAC encoding keeps the program busy for a few seconds.
    const fs::path source = test::noiseFile(dir / "long.m4a", 48000, "stereo", 240.0, -30.0);
    const fs::path output = test::textFile(dir / "take.m4a", "an earlier take");
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::execl(OSTRAND_CLI_PATH, OSTRAND_CLI_PATH, "level", "--force", "--output", output.c_str(),
                source.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    // Writing has begun once the program holds an unnamed file in the folder.
    const auto writing = [&] {
        std::error_code error;
        for (const auto& fd :
             fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error)) {
            const auto target = fs::read_symlink(fd.path(), error).string();
            if (target.starts_with(dir.path().string()) && target.ends_with("(deleted)")) {
                return true;
            }
        }
        return false;
    };
    int status = 0;
    for (int tries = 0; tries < 6000 && !writing() && ::waitpid(pid, &status, WNOHANG) == 0;
         ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(writing());
    ::kill(pid, SIGTERM);
    ::waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 143);
    EXPECT_EQ(fileBytes(output), "an earlier take");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 2);
}

} // namespace
} // namespace ostrand
