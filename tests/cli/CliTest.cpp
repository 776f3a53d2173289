#include "cli/Cli.h"
#include "cli/CliConsole.h"
#include "cli/CliOptions.h"
#include "media/AtomicFile.h"
#include "media/OutputFormat.h"

#include "support/MediaFixtures.h"
#include "support/NamedCases.h"
#include "support/TempDir.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <thread>

#include <sstream>
#include <string>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace ostrand::test {
namespace {

namespace fs = std::filesystem;

struct CliRun {
    int status = 0;
    std::string out;
    std::string err;
};

CliRun run(std::vector<std::string> args, std::function<bool()> interrupted = {},
           CliEnvironment environment = {}) {
    std::ostringstream out;
    std::ostringstream err;
    environment.interrupted = std::move(interrupted);
    // The tester's own profiles stay out of the tests.
    if (!environment.profilesFile) {
        environment.profilesFile = "/nonexistent/Ostrand/profiles.ini";
    }
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

// "a|b|c" as {"a", "b", "c"}, bytes as they are; nothing of an empty text.
std::vector<std::string> split(std::string_view text, char separator = '|') {
    std::vector<std::string> parts;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find(separator, at), text.size());
        parts.emplace_back(text.substr(at, end - at));
        at = end + 1;
    }
    return parts;
}

TEST(CliTest, JsonCarriesEveryReportField) {
    const TempDir dir;
    const fs::path video = videoFile(dir / "clip.mov");
    // --output-dir is made when missing.
    const CliRun ok = run({"level", "--json", "--wav-sidecar", "--preset", "broadcast",
                           "--output-dir", (dir / "out/new").string(), video.string()});
    ASSERT_EQ(ok.status, exitSuccess) << ok.err;
    const QJsonObject o = jsonLines(ok.out).at(0);
    for (const char* key :
         {"source", "outputURL", "audioSidecarURL", "duration", "inputLoudness", "outputLoudness",
          "limiterGainReduction", "minGain", "maxGain", "activeFraction", "outputTruePeak",
          "outputIntegratedLoudness", "warnings"}) {
        EXPECT_TRUE(o.contains(key)) << key;
    }
    EXPECT_LE(o["outputTruePeak"].toDouble(), -1.0);
    EXPECT_NEAR(o["outputIntegratedLoudness"].toDouble(), -23.0, 0.5);
    EXPECT_EQ(o["outputURL"].toString().toStdString(),
              (dir / "out/new" / "clip leveled.mov").string());
    EXPECT_EQ(o["audioSidecarURL"].toString().toStdString(),
              (dir / "out/new" / "clip leveled.wav").string());
    EXPECT_NEAR(o["outputLoudness"].toDouble(), -23.0, 0.5);
}

// A result that falls short is still a result: warned about, status 0.
TEST(CliTest, WarningsGoToStandardErrorAndJson) {
    const TempDir dir;
    const fs::path silence = sineFile(dir / "quiet.wav", 48000, "stereo", 3.0, 440.0, -200.0);
    const std::string warning = "no speech was found, only silence or noise";
    const CliRun text = run({"level", silence.string()});
    EXPECT_EQ(text.status, exitSuccess);
    EXPECT_NE(text.err.find(silence.string() + ": warning: " + warning + "\n"), std::string::npos)
        << text.err;
    // The programme meter's silence reads as the leveler's does (pinned with the report's text).
    EXPECT_NE(text.out.find("\n  output silent \u00b7 "), std::string::npos) << text.out;
    const CliRun json = run({"level", "--json", "--force", silence.string()});
    EXPECT_EQ(json.status, exitSuccess);
    const std::vector<QJsonObject> lines = jsonLines(json.out);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0]["warnings"].toArray(), QJsonArray{QString::fromStdString(warning)});
    EXPECT_TRUE(lines[0]["inputLoudness"].isNull());
}

TEST(CliTest, OneFailureDoesNotStopTheOthers) {
    const TempDir dir;
    const fs::path good = noiseFile(dir / "a.wav");
    const fs::path bad = textFile(dir / "b.mp4");
    const fs::path other = sineFile(dir / "c.mp3");
    // A rate the meter cannot take fails alone too, in words.
    const fs::path slow = floatWav(dir / "d.wav", sine(200.0, 1, 2.0, 50.0, -20.0));
    const CliRun r = run(
        {"level", "-j", "2", "--json", good.string(), bad.string(), other.string(), slow.string()});
    EXPECT_EQ(r.status, exitFailure);
    // One whole line per file, in the order they finish.
    std::map<std::string, QJsonObject> lines;
    for (const QJsonObject& line : jsonLines(r.out)) {
        lines[fs::path(line["source"].toString().toStdString()).filename().string()] = line;
    }
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_TRUE(lines["a.wav"].contains("outputURL"));
    EXPECT_EQ(lines["b.mp4"]["error"].toString().toStdString().rfind("Couldn't read the file: ", 0),
              0u);
    EXPECT_TRUE(lines["c.mp3"].contains("outputURL"));
    EXPECT_NE(r.err.find("2 leveled, 0 skipped, 2 failed"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("b.mp4: Couldn't read the file: "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("d.wav: Couldn't read the file: "), std::string::npos) << r.err;
    EXPECT_TRUE(fs::exists(dir / "c leveled.m4a"));
    EXPECT_FALSE(fs::exists(dir / "b leveled.mp4"));
    EXPECT_FALSE(fs::exists(dir / "d leveled.wav"));

    const CliRun measured = run({"measure", "--json", slow.string(), good.string()});
    EXPECT_EQ(measured.status, exitFailure);
    const auto objects = jsonLines(measured.out);
    EXPECT_EQ(objects.size(), 2u) << measured.err;
    for (const QJsonObject& line : objects) {
        EXPECT_EQ(line.contains("error"), line["source"].toString().endsWith("d.wav"))
            << measured.out;
    }
}

// The same tone on every channel: the meter sums the channels of the file's
// own layout, surrounds weighing 1.41, the LFE left out; the text says what
// the JSON does, to a tenth.
struct LayoutCase {
    const char* name;
    const char* layout;
    int channels;
    double gainOverMono; // dB
};

class MeasureLayout : public ::testing::TestWithParam<LayoutCase> {};

TEST_P(MeasureLayout, WeighsEachChannel) {
    const TempDir dir;
    const LayoutCase& c = GetParam();
    const fs::path source = sineFile(dir / "tone.wav", 44100, c.layout, 3.0, 997.0, -20.0);
    const CliRun r = run({"measure", "--json", source.string()});
    ASSERT_EQ(r.status, exitSuccess) << r.err;
    const QJsonObject o = jsonLines(r.out).at(0);
    // Mean square -23.01 dB a channel; the K-weighting and the offset cancel near 1 kHz.
    for (const char* key : {"integratedLoudness", "maxMomentary", "maxShortTerm"}) {
        EXPECT_NEAR(o[key].toDouble(), -23.0 + c.gainOverMono, 0.05) << key;
    }
    EXPECT_NEAR(o["loudnessRange"].toDouble(), 0.0, 0.05);
    EXPECT_NEAR(o["samplePeak"].toDouble(), -20.0, 0.05);
    EXPECT_NEAR(o["truePeak"].toDouble(), -20.0, 0.1);
    EXPECT_NEAR(o["duration"].toDouble(), 3.0, 0.01);
    EXPECT_EQ(o["sampleRate"].toInt(), 44100);
    EXPECT_EQ(o["channels"].toInt(), c.channels);
    EXPECT_EQ(o["layout"].toString(), c.layout);
    const auto tenth = [&o](const char* key) {
        return QString::number(o[key].toDouble(), 'f', 1).toStdString();
    };
    // A steady tone has no speech.
    EXPECT_EQ(o["speechLoudness"], QJsonValue());
    EXPECT_EQ(run({"measure", source.string()}).out,
              source.string() + ": " + tenth("integratedLoudness") +
                  " LUFS \u00b7 no speech found \u00b7 true peak " + tenth("truePeak") +
                  " dBTP \u00b7 sample peak " + tenth("samplePeak") +
                  " dBFS \u00b7 3s \u00b7 44100 Hz " + c.layout + "\n  range " +
                  tenth("loudnessRange") + " LU \u00b7 max momentary " + tenth("maxMomentary") +
                  " LUFS \u00b7 max short-term " + tenth("maxShortTerm") + " LUFS\n");
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, MeasureLayout,
    ::testing::Values(LayoutCase{"Mono", "mono", 1, 0.0}, LayoutCase{"Stereo", "stereo", 2, 3.010},
                      LayoutCase{"FivePointOneBack", "5.1", 6, 7.649},       // 3 + 2 x 1.41
                      LayoutCase{"FivePointOneSide", "5.1(side)", 6, 7.649}, // the same
                      LayoutCase{"SevenPointOne", "7.1", 8, 9.365},          // 3 + 4 x 1.41
                      LayoutCase{"Quad", "quad", 4, 6.830}),                 // 2 + 2 x 1.41
    byName);

TEST(CliTest, MeasureReportsEachTrackAndTheirMix) {
    const TempDir dir;
    AudioRecipe loud;
    loud.seconds = 4.0;
    loud.frequencyHz = 997.0;
    loud.codec = "flac";
    AudioRecipe quiet = loud;
    quiet.peakDbfs = -30.0;
    MediaRecipe recipe;
    recipe.audio = {loud, quiet};
    const fs::path source = makeMedia(dir / "two.mka", recipe);
    const CliRun r = run({"measure", "--json", source.string()});
    ASSERT_EQ(r.status, exitSuccess) << r.err;
    const QJsonObject o = jsonLines(r.out).at(0);
    const QJsonArray tracks = o["tracks"].toArray();
    ASSERT_EQ(tracks.size(), 2);
    const double first = tracks[0].toObject()["integratedLoudness"].toDouble();
    EXPECT_NEAR(first - tracks[1].toObject()["integratedLoudness"].toDouble(), 10.0, 0.1);
    // Tones in phase add their amplitudes: 0.1 + 0.0316.
    EXPECT_NEAR(o["integratedLoudness"].toDouble() - first, 20.0 * std::log10(1.316), 0.1);
    EXPECT_EQ(o["layout"].toString(), "stereo");

    const CliRun text = run({"measure", source.string()});
    EXPECT_NE(text.out.find("stereo, mix of 2 tracks"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("  track 2 (stereo): "), std::string::npos) << text.out;
}

TEST(CliTest, DrawsAPictureBesideEachFile) {
    const TempDir dir;
    const fs::path a = noiseFile(dir / "talk.wav", 48000, "stereo", 2.0, -30.0);
    const fs::path b = sineFile(dir / "tone.wav", 44100, "mono", 1.0);
    // --plot-dir is made when missing; pictures follow the outputs' names.
    const CliRun level =
        run({"level", "--json", "--plot-dir", (dir / "plots").string(), a.string(), b.string()});
    ASSERT_EQ(level.status, exitSuccess) << level.err;
    for (const char* name : {"talk leveled.png", "tone leveled.png"}) {
        EXPECT_EQ(fileBytes(dir / "plots" / name).substr(1, 3), "PNG") << name;
    }
    for (const QJsonObject& o : jsonLines(level.out)) {
        EXPECT_TRUE(o["plot"].toString().endsWith(" leveled.png"))
            << o["plot"].toString().toStdString();
    }
    // Nothing but the tones' warnings and the summary: the drawing's
    // platform keeps quiet.
    std::string others;
    std::istringstream errLines(level.err);
    for (std::string line; std::getline(errLines, line);) {
        if (line.find(": warning: ") == std::string::npos) {
            others += line + '\n';
        }
    }
    EXPECT_EQ(others.rfind("ostrand-cli: 2 leveled", 0), 0u) << level.err;

    const CliRun measure = run({"measure", "--plot", (dir / "talk.svg").string(), a.string()});
    ASSERT_EQ(measure.status, exitSuccess) << measure.err;
    EXPECT_NE(fileBytes(dir / "talk.svg").find("<svg"), std::string::npos);

    // Two files of one name in different folders draw two pictures.
    fs::create_directory(dir / "b");
    const fs::path twin = noiseFile(dir / "b/talk.wav", 48000, "mono", 1.0);
    const CliRun twins =
        run({"measure", "--plot-dir", (dir / "m").string(), a.string(), twin.string()});
    ASSERT_EQ(twins.status, exitSuccess) << twins.err;
    EXPECT_TRUE(fs::exists(dir / "m/talk.png") && fs::exists(dir / "m/talk 2.png"));

    const CliRun nowhere =
        run({"measure", "--plot", (dir / "missing" / "talk.png").string(), a.string()});
    EXPECT_EQ(nowhere.status, exitFailure);
    EXPECT_NE(nowhere.err.find("cannot write the plot"), std::string::npos) << nowhere.err;
}

TEST(CliTest, InterruptStopsAndLeavesNothing) {
    const TempDir dir;
    const fs::path source = noiseFile(dir / "talk.wav", 48000, "stereo", 10.0);
    std::atomic<int> polls = 0; // polled from several threads
    const CliRun r = run({"level", source.string(), source.string()}, [&] { return ++polls > 20; });
    EXPECT_EQ(r.status, exitInterrupted);
    EXPECT_NE(r.err.find("Cancelled."), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(dir / "talk leveled.wav"));
}

struct Usage {
    const char* name;
    const char* args; // split at spaces
    const char* message;
};

class CliUsage : public testing::TestWithParam<Usage> {};

TEST_P(CliUsage, IsRefusedWithStatus2) {
    const CliRun r = run(split(GetParam().args, ' '));
    EXPECT_EQ(r.status, exitUsage);
    EXPECT_NE(r.err.find(GetParam().message), std::string::npos) << r.err;
    EXPECT_TRUE(r.out.empty());
}

const Usage usages[] = {
    {"nothing", "", "no command given"},
    {"noFiles", "level", "no files given"},
    {"unknownCommand", "squash a.wav", "unknown command"},
    {"unknownOption", "level --loud a.wav", "unknown option --loud"},
    {"badNumber", "level --target loud a.wav", "needs a number"},
    {"outOfRange", "level --ceiling 3 a.wav", "must lie between"},
    {"missingValue", "level a.wav --target", "needs a value"},
    {"unknownPreset", "level --preset radio a.wav", "no single profile answers to \"radio\""},
    {"profileAndPreset", "check --profile podcast --preset podcast a.wav", "give one"},
    {"checkNeedsAProfile", "check a.wav", "check needs --profile"},
    {"checkOptions", "check --profile podcast --mono a.wav", "check takes no --mono"},
    {"levelNeedsATarget", "level --profile audiobook a.wav", "sets no loudness target"},
    {"outputTwice", "level --output x.wav a.wav b.wav", "exactly one input"},
    {"wrongOutputExtension", "level --output x.mp4 a.wav", "must end in .wav"},
    {"measureOptions", "measure --mono a.wav", "measure takes no --mono"},
    {"measureNoiseAware", "measure --noise-aware a.wav", "no --noise-aware"},
    {"measureExact", "measure --exact a.wav", "measure takes no --exact"},
    {"exactAndNoiseAware", "level --exact --noise-aware a.wav",
     "--exact and --noise-aware exclude each other"},
    {"plotTwice", "level --plot x.png a.wav b.wav", "exactly one input"},
    {"plotNotAPicture", "measure --plot x.jpg a.wav", "end in .png or .svg"},
    {"plotAndPlotDir", "level --plot x.svg --plot-dir p a.wav", "exclude each other"},
    {"ambiguousAbbreviation", "level --out x.wav a.wav", "--out is ambiguous"},
    {"valueForAFlag", "level --mono=yes a.wav", "--mono takes no value"},
    {"noJobs", "level -j 0 a.wav", "--jobs must lie between"},
    {"fractionOfAJob", "level -j 1.5 a.wav", "whole number"},
    {"quietAndVerbose", "level -q -v a.wav", "exclude each other"},
    {"helpOnNothing", "help squash", "no help for"}};

INSTANTIATE_TEST_SUITE_P(Mistakes, CliUsage, testing::ValuesIn(usages), byName);

struct SignalCase {
    const char* name;
    bool waitsForAList; // reads its files from standard input, which stays open
};

class CliProcessTest : public testing::TestWithParam<SignalCase> {};

// The real program, stopped by SIGTERM while it writes over an existing file
// or waits for its list: it ends with 143 and the earlier file is as it was.
TEST_P(CliProcessTest, SigtermEndsTheRunAndKeepsTheEarlierFile) {
    const TempDir dir;
    // AAC encoding keeps the program busy for a few seconds.
    const fs::path source = noiseFile(dir / "long.m4a", 48000, "stereo", 240.0, -30.0);
    const fs::path output = textFile(dir / "take.m4a", "an earlier take");
    int list[2];
    ASSERT_EQ(::pipe(list), 0);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(list[0], STDIN_FILENO);
        if (GetParam().waitsForAList) {
            ::execl(OSTRAND_CLI_PATH, OSTRAND_CLI_PATH, "level", "-", static_cast<char*>(nullptr));
        } else {
            ::execl(OSTRAND_CLI_PATH, OSTRAND_CLI_PATH, "level", "--force", "--output",
                    output.c_str(), source.c_str(), static_cast<char*>(nullptr));
        }
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
    // The list is read up to its last line once the pipe holds nothing.
    const std::string line = source.string() + "\n";
    ASSERT_EQ(::write(list[1], line.data(), line.size()), static_cast<ssize_t>(line.size()));
    const auto listRead = [&] {
        int unread = 0;
        return ::ioctl(list[0], FIONREAD, &unread) == 0 && unread == 0;
    };
    const auto ready = [&] { return GetParam().waitsForAList ? listRead() : writing(); };
    int status = 0;
    for (int tries = 0; tries < 6000 && !ready() && ::waitpid(pid, &status, WNOHANG) == 0;
         ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(ready());
    ::kill(pid, SIGTERM);
    pid_t ended = 0;
    for (int tries = 0; tries < 1000 && (ended = ::waitpid(pid, &status, WNOHANG)) == 0; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (ended == 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
    }
    ::close(list[0]);
    ::close(list[1]);
    ASSERT_NE(ended, 0) << "SIGTERM did not end the run";
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 143);
    EXPECT_EQ(fileBytes(output), "an earlier take");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 2);
}

INSTANTIATE_TEST_SUITE_P(Signals, CliProcessTest,
                         testing::Values(SignalCase{"WhileWriting", false},
                                         SignalCase{"WhileWaitingForAList", true}),
                         byName);

// A season's folder: episodes in folders, a text file, a hidden file, and
// the outputs of an earlier run.
void makeSeason(const fs::path& dir) {
    fs::create_directories(dir / "season/ep2");
    fs::create_directories(dir / "season/.cache");
    for (const char* episode :
         {"ep1.wav", "ep2/ep2.mp3", ".cache/hidden.wav", "ep0 leveled 2.wav"}) {
        noiseFile(dir / "season" / episode, 48000, "mono", 1.0);
    }
    textFile(dir / "season/notes.txt");
    // Sorts before its target: -r must still level ep1.wav, once.
    fs::create_symlink("ep1.wav", dir / "season/a-link.wav");
    // Names from an old Latin-1 disk: bytes that are not UTF-8.
    fs::create_directories(dir / "\xe9t\xe9");
    noiseFile(dir / "\xe9t\xe9/caf\xe9.wav", 48000, "mono", 1.0);
}

// The names in `folder` (none if it is missing), sorted, joined by '|'; a
// file holding "earlier" is marked so.
std::string listing(const fs::path& folder) {
    std::vector<std::string> names;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(folder, none)) {
        const bool earlier = fileBytes(entry.path()) == "earlier";
        names.push_back(entry.path().filename().string() + (earlier ? " (earlier)" : ""));
    }
    std::sort(names.begin(), names.end());
    std::string joined;
    for (const std::string& name : names) {
        joined += (joined.empty() ? "" : "|") + name;
    }
    return joined;
}

struct InputCase {
    const char* name;
    const char* args;          // '|'-separated; "@x" stands for the season's path x
    const char* standardInput; // "@x" likewise, one a line
    int status;
    const char* outputs;      // as `listing` gives them
    const char* message = ""; // on standard output or error
    const char* command = "level";
};

class CliInputs : public testing::TestWithParam<InputCase> {};

// Folders, lists and standard input all feed the same batch; leveled files
// are skipped unless asked for, and only media files are taken from folders.
TEST_P(CliInputs, TakeTheFilesTheyName) {
    const TempDir dir;
    makeSeason(dir.path());
    const InputCase& c = GetParam();
    const auto expand = [&](std::string text) {
        for (std::size_t at; (at = text.find('@')) != std::string::npos;) {
            const auto end = text.find_first_of("\n", at);
            text.replace(at, end - at, (dir / text.substr(at + 1, end - at - 1)).string());
        }
        return text;
    };
    const fs::path latin1 = dir / "\xe9t\xe9/caf\xe9.wav";
    const std::string latin1Bytes = fileBytes(latin1);
    const std::vector<std::string> given = split(c.args);
    std::vector<std::string> args{c.command, "-j", "2"};
    if (args.front() == "level") {
        args.insert(args.end(), {"--output-dir", (dir / "out").string()});
    }
    for (const std::string& arg : given) {
        args.push_back(expand(arg));
    }
    if (std::find(given.begin(), given.end(), "--input-list") != given.end()) {
        textFile(dir / "list.txt", expand("@season/ep1.wav\n@season/ep2/ep2.mp3\n"));
    }
    std::string standardInput = expand(c.standardInput);
    if (std::find(given.begin(), given.end(), "-0") != given.end()) {
        std::replace(standardInput.begin(), standardInput.end(), '\n', '\0');
    }
    std::istringstream in(standardInput);
    CliEnvironment environment;
    environment.input = &in;
    const CliRun r = run(args, {}, environment);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_EQ(listing(dir / "out"), c.outputs);
    EXPECT_NE((r.out + r.err).find(c.message), std::string::npos) << r.out << r.err;
    EXPECT_EQ(fileBytes(latin1), latin1Bytes);
    // A path JSON cannot hold as text comes as its bytes too, beside the text shown.
    for (const QJsonObject& o : std::find(given.begin(), given.end(), "--json") != given.end()
                                    ? jsonLines(r.out)
                                    : std::vector<QJsonObject>{}) {
        for (const QString& key : o.keys()) {
            if (key.endsWith("Bytes")) {
                const std::string bytes =
                    QByteArray::fromBase64(o[key].toString().toLatin1()).toStdString();
                EXPECT_TRUE(fs::exists(bytes)) << key.toStdString();
                EXPECT_EQ(o[key.chopped(5)].toString().toStdString(), escapedText(bytes));
            }
        }
    }
}

const InputCase inputs[] = {
    {"FolderNeedsRecursive", "@season", "", exitUsage, "", "add -r"},
    {"Recursive", "-r|@season", "", exitSuccess, "ep1 leveled.wav|ep2 leveled.m4a",
     "ep0 leveled 2.wav: skipped, a leveled file"},
    {"IncludeLeveled", "-r|--include-leveled|@season", "", exitSuccess,
     "ep0 leveled 2 leveled.wav|ep1 leveled.wav|ep2 leveled.m4a", "3 leveled, 0 skipped, 0 failed"},
    {"InputList", "--input-list|@list.txt", "", exitSuccess, "ep1 leveled.wav|ep2 leveled.m4a"},
    {"LeveledFileNamedByTheUser", "@season/ep0 leveled 2.wav", "", exitSuccess,
     "ep0 leveled 2 leveled.wav"},
    {"InputListFromStandardInput", "--input-list|-", "@season/ep1.wav\n@season/ep0 leveled 2.wav\n",
     exitSuccess, "ep1 leveled.wav", "ep0 leveled 2.wav: skipped, a leveled file"},
    {"StandardInput", "-", "@season/ep1.wav\n@season/notes.txt\n", exitFailure, "ep1 leveled.wav",
     "1 leveled, 0 skipped, 1 failed"},
    {"NulSeparated", "-0|-", "@season/ep1.wav\n@season/ep2/ep2.mp3\n", exitSuccess,
     "ep1 leveled.wav|ep2 leveled.m4a"},
    {"LinkAndItsTarget", "-r|@season/a-link.wav|@season", "", exitSuccess,
     "ep1 leveled.wav|ep2 leveled.m4a", "2 leveled, 1 skipped"},
    {"ControlCharactersInNamesAreEscaped", "-",
     "@season/ep1.wav\n@season/\x1b]0;x\a\x1b[2J\xc2\x9b.wav\n", exitFailure, "ep1 leveled.wav",
     "season/\\x1b]0;x\\x07\\x1b[2J\\xc2\\x9b.wav: "},
    {"NameNotUtf8", "@\xe9t\xe9/caf\xe9.wav", "", exitSuccess, "caf\xe9 leveled.wav",
     "dB \u00b7 caf\\xe9 leveled.wav\n"},
    {"NameNotUtf8InAFolder", "-r|@\xe9t\xe9", "", exitSuccess, "caf\xe9 leveled.wav",
     "dB \u00b7 caf\\xe9 leveled.wav\n"},
    {"NameNotUtf8Measured", "--plot-dir|@\xe9t\xe9|@\xe9t\xe9/caf\xe9.wav", "", exitSuccess, "",
     "\\xe9t\\xe9/caf\\xe9.wav: -", "measure"},
    {"NameNotUtf8Json", "--json|@\xe9t\xe9/caf\xe9.wav", "", exitSuccess, "caf\xe9 leveled.wav",
     "/caf\\\\xe9 leveled.wav\",\"outputURLBytes\":\""},
    {"SameFileTwice", "@season/ep1.wav|@season/../season/ep1.wav", "", exitSuccess,
     "ep1 leveled.wav"}};

INSTANTIATE_TEST_SUITE_P(Batch, CliInputs, testing::ValuesIn(inputs), byName);

struct PolicyCase {
    const char* name;
    const char* args; // '|'-separated; "@out" stands for the folder of the source
    int status;
    const char* outputs;           // the folder afterwards, as `listing` gives it
    const char* said = "";         // '|'-separated, each on standard output or error
    const char* appears = nullptr; // made in the folder while the file is leveled
    bool onFat = false;            // no unnamed files, no hard links, no rename that keeps a file
};

class CliOutputPolicy : public testing::TestWithParam<PolicyCase> {};

// An existing file is replaced only when asked, the source never; a dry run
// writes nothing.
TEST_P(CliOutputPolicy, KeepsEarlierFilesUnlessForced) {
    const TempDir dir;
    const PolicyCase& c = GetParam();
    fs::create_directory(dir / "out");
    const fs::path source = noiseFile(dir / "out/talk.wav", 48000, "mono", 1.0);
    const std::string sourceBytes = fileBytes(source);
    fs::permissions(source, fs::perms::owner_read | fs::perms::owner_write);
    textFile(dir / "out/talk leveled.wav", "earlier");
    textFile(dir / "out/take.wav", "earlier");
    std::vector<std::string> args{"level"};
    for (const std::string& arg : split(c.args)) {
        args.push_back(arg.starts_with("@out") ? (dir / "out").string() + arg.substr(4) : arg);
    }
    args.push_back(source.string());
    // The first poll is the batch's, before the file is planned; the second
    // is the engine's, while it levels.
    std::atomic<int> polls = 0;
    AtomicFile::actAsFat(c.onFat);
    const CliRun r = run(args, [&] {
        if (++polls == 2 && c.appears != nullptr) {
            textFile(dir / "out" / c.appears, "earlier");
        }
        return false;
    });
    AtomicFile::actAsFat(false);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_EQ(listing(dir / "out"), c.outputs);
    EXPECT_EQ(fileBytes(source), sourceBytes);
    // What is made of a private source, picture included, stays private.
    for (const auto& entry : fs::directory_iterator(dir / "out")) {
        EXPECT_TRUE(fileBytes(entry.path()) == "earlier" ||
                    (entry.status().permissions() & fs::perms::others_read) == fs::perms::none)
            << entry.path();
    }
    for (const std::string& said : split(c.said)) { // ">": on standard output
        const std::string& where = said.starts_with('>') ? r.out : r.out + r.err;
        EXPECT_NE(where.find(said.substr(said.starts_with('>'))), std::string::npos)
            << said << '\n'
            << r.out << r.err;
    }
}

const std::string tooLong = "--output|@out/" + std::string(300, 'a') + ".wav";

const PolicyCase policies[] = {
    {"BesideTheSourceNumbered", "", exitSuccess,
     "take.wav (earlier)|talk leveled 2.wav|talk leveled.wav (earlier)|talk.wav",
     ">talk leveled 2.wav|> LUFS \u00b7 1s leveled in |>gain +|>\n  output -|> LUFS \u00b7 true "
     "peak -"},
    {"NumbersInTheOutputDir", "--output-dir|@out", exitSuccess,
     "take.wav (earlier)|talk leveled 2.wav|talk leveled.wav (earlier)|talk.wav"},
    {"ForceReplaces", "-f|--output-dir|@out", exitSuccess,
     "take.wav (earlier)|talk leveled.wav|talk.wav"},
    {"SkipExisting", "--skip-existing|--output-dir|@out", exitSuccess,
     "take.wav (earlier)|talk leveled.wav (earlier)|talk.wav", "skipped, talk leveled.wav exists"},
    {"OutputRefusesAnExistingFile", "--output|@out/take.wav", exitFailure,
     "take.wav (earlier)|talk leveled.wav (earlier)|talk.wav", "take.wav exists; add --force"},
    {"OutputRefusesTheSource", "--output|@out/talk.wav|--force", exitFailure,
     "take.wav (earlier)|talk leveled.wav (earlier)|talk.wav", "source"},
    {"OutputRefusesAFileThatAppears", "--output|@out/late.wav", exitFailure,
     "late.wav (earlier)|take.wav (earlier)|talk leveled.wav (earlier)|talk.wav",
     "late.wav exists; add --force", "late.wav"},
    {"PlotRefusesAPictureThatAppears", "--output-dir|@out|--plot|@out/talk.png", exitFailure,
     "take.wav (earlier)|talk leveled 2.wav|talk leveled.wav (earlier)|talk.png (earlier)|talk.wav",
     "talk.png exists; add --force", "talk.png"},
    {"PlotDirNumbersPastAPicture", "--output-dir|@out|--plot-dir|@out", exitSuccess,
     "take.wav (earlier)|talk leveled 2.png (earlier)|talk leveled 2.wav|talk leveled 3.png|"
     "talk leveled.wav (earlier)|talk.wav",
     "talk leveled 3.png", "talk leveled 2.png"},
    {"PlotDirNumbersPastAPictureOnFat", "--output-dir|@out|--plot-dir|@out", exitSuccess,
     "take.wav (earlier)|talk leveled 2.png (earlier)|talk leveled 2.wav|talk leveled 3.png|"
     "talk leveled.wav (earlier)|talk.wav",
     "talk leveled 3.png", "talk leveled 2.png", true},
    {"OutputRefusesAFileThatAppearsOnFat", "--output|@out/late.wav", exitFailure,
     "late.wav (earlier)|take.wav (earlier)|talk leveled.wav (earlier)|talk.wav",
     "late.wav exists; add --force", "late.wav", true},
    {"NameTooLongFailsFirst", tooLong.c_str(), exitFailure,
     "take.wav (earlier)|talk leveled.wav (earlier)|talk.wav",
     "aaaa.wav: the name is 304 bytes, more than the 255"},
    {"OutputForced", "--output|@out/take.wav|--force", exitSuccess,
     "take.wav|talk leveled.wav (earlier)|talk.wav"},
    {"DryRun", "-n|--output-dir|@out", exitSuccess,
     "take.wav (earlier)|talk leveled.wav (earlier)|talk.wav", "talk leveled 2.wav"}};

INSTANTIATE_TEST_SUITE_P(Batch, CliOutputPolicy, testing::ValuesIn(policies), byName);

// Options as a well-kept parser takes them.
TEST(CliTest, ParsesLikeAWellKeptTool) {
    const TempDir dir;
    const fs::path source = noiseFile(dir / "talk.wav", 48000, "mono", 1.0);
    // An unambiguous abbreviation, a number with "+", and compacted short options.
    const CliRun ok =
        run({"level", "--output-d", (dir / "o").string(), "-qj", "+2", source.string()});
    EXPECT_EQ(ok.status, exitSuccess) << ok.err;
    EXPECT_TRUE(fs::exists(dir / "o/talk leveled.wav"));
    EXPECT_EQ(ok.out + ok.err, ""); // quiet
    EXPECT_NE(run({"--help"}).out.find("usage: ostrand-cli level"), std::string::npos);
    EXPECT_EQ(run({"--version"}).out.rfind("ostrand-cli ", 0), 0u);
    EXPECT_NE(run({"help", "level"}).out.find("--skip-existing"), std::string::npos);
    EXPECT_NE(run({"presets"}).out.find("EBU R128, also \"Broadcast (EBU R128)\""),
              std::string::npos);
}

// Each criterion with what it requires, what was measured and the verdict;
// the status tells a file that does not meet the profile from one that
// could not be read.
TEST(CliTest, CheckJudgesEachCriterion) {
    const TempDir dir;
    PlanarAudio talk = speechLike(48000.0, 2, 12.0, 7);
    talk.applyGainDb(-6.0);
    const fs::path source = floatWav(dir / "talk.wav", talk);
    const fs::path shortTone = sineFile(dir / "beep.wav", 48000, "mono", 0.3);
    const fs::path text = textFile(dir / "notes.mp4");
    // level checks what it wrote.
    const CliRun level =
        run({"level", "--profile", "podcast", "-o", (dir / "out.wav").string(), source.string()});
    ASSERT_EQ(level.status, exitSuccess) << level.err;
    EXPECT_NE(level.out.find(" dBTP\n  meets Apple Podcasts\n"), std::string::npos) << level.out;

    const CliRun meets = run({"check", "--profile", "podcast", (dir / "out.wav").string()});
    EXPECT_EQ(meets.status, exitSuccess) << meets.err;
    EXPECT_NE(meets.out.find("out.wav: meets Apple Podcasts\n  integrated loudness   -16.0 "
                             "\u00b1 1.0 LUFS      -1"),
              std::string::npos)
        << meets.out;
    EXPECT_NE(meets.out.find(" LU to spare\n  true peak             at most -1.0 dBTP     -"),
              std::string::npos)
        << meets.out;

    const CliRun ebu = run({"check", "--profile", "EBU", "-j", "1", "--json", source.string(),
                            (dir / "out.wav").string(), shortTone.string()});
    EXPECT_EQ(ebu.status, exitNotMet) << ebu.err;
    std::map<std::string, QJsonObject> criteria; // file name: criterion: its object
    for (const QJsonObject& line : jsonLines(ebu.out)) {
        EXPECT_EQ(line["profile"].toString(), "EBU R128");
        EXPECT_FALSE(line["passed"].toBool());
        for (const QJsonValue& criterion : line["criteria"].toArray()) {
            const QJsonObject c = criterion.toObject();
            criteria[fs::path(line["source"].toString().toStdString()).filename().string() + ":" +
                     c["criterion"].toString().toStdString()] = c;
        }
    }
    EXPECT_EQ(criteria["out.wav:integratedLoudness"]["result"], "fail");
    EXPECT_LT(criteria["out.wav:integratedLoudness"]["margin"].toDouble(), -5.0);
    EXPECT_EQ(criteria["out.wav:integratedLoudness"]["target"], -23.0);
    EXPECT_EQ(criteria["out.wav:truePeak"]["result"], "pass");
    EXPECT_EQ(criteria["out.wav:loudnessRange"]["result"], "reported");
    EXPECT_EQ(criteria["beep.wav:integratedLoudness"]["result"], "notMeasurable");
    EXPECT_EQ(criteria["beep.wav:integratedLoudness"]["why"], "too short to measure");
    EXPECT_EQ(criteria["beep.wav:loudnessRange"]["measured"], QJsonValue());

    const CliRun unreadable =
        run({"check", "--profile", "podcast", (dir / "out.wav").string(), text.string()});
    EXPECT_EQ(unreadable.status, exitFailure);
    EXPECT_NE(unreadable.err.find("1 passed Apple Podcasts, 0 failed it, 1 could not be read"),
              std::string::npos)
        << unreadable.err;
}

// The user's own profiles join the list; one with a mistake is named by its
// line (in the words the profile reader's tests pin) and left out.
TEST(CliTest, UsersProfilesJoinTheBuiltInOnes) {
    const TempDir dir;
    CliEnvironment environment;
    environment.profilesFile = textFile(dir / "profiles.ini", "[Morning show]\n"
                                                              "target = -18 LUFS\n"
                                                              "tolerance = 1\n"
                                                              "measured-on = speech\n"
                                                              "\n"
                                                              "[Late show]\n"
                                                              "target = -18\n"
                                                              "lufs = -18\n");
    const CliRun listed = run({"profiles"}, {}, environment);
    EXPECT_EQ(listed.status, exitSuccess);
    EXPECT_NE(listed.out.find("Morning show (your own)\n  speech loudness -18.0 \u00b1 1.0 LUFS\n"),
              std::string::npos)
        << listed.out;
    EXPECT_EQ(listed.out.find("Late show"), std::string::npos);
    EXPECT_NE(listed.err.find("profiles.ini:8: "), std::string::npos) << listed.err;
    const fs::path talk = floatWav(dir / "talk.wav", speechLike(48000.0, 1, 6.0, 3));
    EXPECT_EQ(run({"check", "--profile", "morning", talk.string()}, {}, environment).status,
              exitNotMet);
    EXPECT_EQ(run({"check", "--profile", "late show", talk.string()}, {}, environment).status,
              exitUsage);
}

// The man page's heading lines (".BR \\-o \", \" \\-\\-output") name the options
// of the table and no others; those under FORMATS the table's extensions,
// each once.
TEST(CliTest, ManPageListsTheOptionsAndFormats) {
    std::ifstream page(OSTRAND_CLI_MAN_PAGE);
    ASSERT_TRUE(page) << OSTRAND_CLI_MAN_PAGE;
    // A "-" or "--" that starts a word, then lower-case letters, digits and
    // dashes; troff's "\-" is a dash.
    const auto options = [](std::string line, std::set<std::string>& found) {
        for (std::size_t at; (at = line.find("\\-")) != std::string::npos;) {
            line.erase(at, 1);
        }
        const auto inName = [](char c) {
            return std::islower(static_cast<unsigned char>(c)) != 0 ||
                   std::isdigit(static_cast<unsigned char>(c)) != 0 || c == '-';
        };
        for (std::size_t k = 0; k < line.size(); ++k) {
            const bool starts =
                line[k] == '-' &&
                (k == 0 || (!std::isalnum(static_cast<unsigned char>(line[k - 1])) &&
                            line[k - 1] != '_' && line[k - 1] != '-'));
            const std::size_t first = k + (k + 1 < line.size() && line[k + 1] == '-' ? 2 : 1);
            if (!starts || first >= line.size() || line[first] == '-' || !inName(line[first])) {
                continue;
            }
            std::size_t end = first;
            while (end < line.size() && inName(line[end])) {
                ++end;
            }
            found.insert(line.substr(k, end - k));
            k = end - 1;
        }
    };
    std::set<std::string> documented;
    std::vector<std::string> formats;
    bool inFormats = false;
    for (std::string line, previous; std::getline(page, line); previous = line) {
        inFormats = line.starts_with(".SH") ? line == ".SH FORMATS" : inFormats;
        if (previous == ".TP" && inFormats) {
            std::istringstream words(line.substr(line.find(' ') + 1));
            for (std::string word; std::getline(words >> std::ws, word, ',');) {
                formats.push_back(word);
            }
        } else if (previous == ".TP") {
            options(line, documented);
        }
    }
    std::sort(formats.begin(), formats.end());
    EXPECT_EQ(formats, OutputFormat::sourceExtensions());
    std::set<std::string> declared;
    for (const CliOption& option : cliOptionTable()) {
        if ((option.use & hidden) == 0 && option.shortName != '\0') {
            declared.insert(std::string("-") + option.shortName);
        }
        if ((option.use & hidden) == 0 && !option.longName.empty()) {
            declared.insert("--" + std::string(option.longName));
        }
    }
    EXPECT_EQ(documented, declared);
}

// In a noisy room the pauses are left out of the speech by default (or when
// asked), and counted as speech by the original plan of --exact.
TEST(CliTest, PausesAreNoiseAwareUnlessExact) {
    const TempDir dir;
    PlanarAudio room = speechLike(48000.0, 1, 6.0, 1);
    room.append(silence(48000.0, 1, 4.0));
    room.append(speechLike(48000.0, 1, 6.0, 2));
    room.applyGainDb(10.0);
    const PlanarAudio noise = pinkNoise(48000.0, 1, 16.0, -40.0, 3);
    std::transform(noise.channels[0].begin(), noise.channels[0].end(), room.channels[0].begin(),
                   room.channels[0].begin(), std::plus<>());
    const fs::path source = floatWav(dir / "room.wav", room);
    std::map<std::string, double> active;
    for (const std::string mode : {"-f", "--noise-aware", "--exact"}) { // -f twice: neither
        const CliRun r = run({"level", "--json", "-vf", mode, source.string()});
        ASSERT_EQ(r.status, exitSuccess) << r.err;
        EXPECT_NE(r.err.find("leveling into"), std::string::npos) << r.err; // -v
        active[mode] = jsonLines(r.out).at(0)["activeFraction"].toDouble();
    }
    EXPECT_EQ(active["-f"], active["--noise-aware"]);
    EXPECT_GT(active["--exact"], active["-f"] + 0.1);
}

// The progress line names the batch's place and fits the terminal.
TEST(CliTest, ProgressFitsTheTerminal) {
    const TempDir dir;
    std::vector<std::string> args{"level", "-j", "2"};
    for (const char* name : {"a-long-file-name.wav", "another-long-file-name.wav"}) {
        args.push_back(noiseFile(dir / name, 48000, "stereo", 3.0).string());
    }
    CliEnvironment environment;
    environment.progressBar = true;
    environment.terminalWidth = [] { return 40; };
    const CliRun r = run(args, {}, environment);
    ASSERT_EQ(r.status, exitSuccess) << r.err;
    std::size_t drawn = 0;
    for (std::size_t at = 0; (at = r.err.find("\r\033[K[", at)) != std::string::npos; ++at) {
        const std::string line = r.err.substr(at + 4, r.err.find('\r', at + 1) - at - 4);
        EXPECT_LE(fitToColumns(line, 1000).size(), fitToColumns(line, 39).size()) << line;
        EXPECT_NE(line.find(" of 2]"), std::string::npos) << line;
        ++drawn;
    }
    EXPECT_GT(drawn, 2u);
}

// Reports that cannot be written end the run with a message, not silently.
TEST(CliTest, AFailedWriteToStandardOutputIsAnError) {
    const TempDir dir;
    const fs::path source = noiseFile(dir / "talk.wav", 48000, "mono", 1.0);
    std::ostream closed(nullptr); // every write fails
    std::ostringstream err;
    const int status = runCli(std::vector<std::string>{"level", "--json", source.string()}, closed,
                              err, CliEnvironment{});
    EXPECT_EQ(status, exitFailure);
    EXPECT_NE(err.str().find("cannot write to standard output"), std::string::npos) << err.str();
}

} // namespace
} // namespace ostrand::test
