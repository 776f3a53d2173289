#include "Cli.h"

#include "app/LevelingJob.h"
#include "app/OstrandSettings.h"
#include "app/ReportText.h"
#include "media/LevelingEngine.h"
#include "media/OstrandError.h"
#include "media/OutputNaming.h"

#include <QByteArray>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <vector>

#ifndef OSTRAND_VERSION
#define OSTRAND_VERSION "unknown"
#endif

namespace ostrand {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view usageText =
    R"usage(usage: ostrand-cli level [options] FILE...
       ostrand-cli measure [--json] FILE...

level: evens out the loudness of the speech in each file and writes the
result beside it as "NAME leveled.EXT" (" 2", " 3" ... when that exists).
The file keeps its container (AVI and other video files become Matroska,
other audio files M4A); video, subtitles, chapters and cover art are copied
untouched; audio is re-encoded (AAC; Opus in WebM; 24-bit WAV for WAV and
AIFF; FLAC stays FLAC). The file appears only once it is complete.
  --target LUFS      integrated loudness to reach (default -16)
  --ceiling DBTP     true-peak ceiling (default -1)
  --preset NAME      loudness preset: "Apple Podcasts" (podcast, -16),
                     "Match Corvane" (-15), "YouTube / Spotify" (streaming,
                     -14), "Broadcast (EBU R128)" (broadcast, -23)
  --mono             mix the audio down to one channel
  --noise-aware      keep room noise down in the pauses of noisy recordings
  --wav-sidecar      also write a 24-bit WAV of the leveled audio beside a
                     leveled video
  --output FILE      write the leveled file exactly here (one input only)
  --output-dir DIR   write the leveled files into this folder
  --json             print one JSON object per file (JSON Lines)

measure: prints the integrated loudness (LUFS), true peak (dBTP) and sample
peak (dBFS) of each file's mixed audio.

Exit status: 0 when every file succeeded, 1 when any failed, 2 for a usage
error, 130 after Ctrl-C, 143 after SIGTERM.
)usage";

// Loudness targets and ceilings a user could mean; anything outside is a
// typing mistake rather than a wish.
constexpr double minTargetLufs = -70.0;
constexpr double maxTargetLufs = 0.0;
constexpr double minCeilingDb = -20.0;
constexpr double maxCeilingDb = 0.0;
// The desktop application's defaults: the podcast target, -1 dBTP.
constexpr double defaultCeilingDb = -1.0;

struct UsageError {
    std::string message;
};

struct Options {
    std::string command;
    std::optional<double> target;
    std::optional<double> ceiling;
    std::optional<LoudnessPreset> preset;
    bool mono = false;
    bool noiseAware = false;
    bool wavSidecar = false;
    std::optional<fs::path> output;
    std::optional<fs::path> outputDir;
    bool json = false;
    bool help = false;
    bool version = false;
    std::vector<fs::path> files;
};

std::string normalized(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (std::isalnum(static_cast<unsigned char>(c))) {
            out.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
        }
    }
    return out;
}

LoudnessPreset presetNamed(const std::string& name) {
    std::string wanted = normalized(name);
    if (wanted == "streaming") {
        wanted = "youtube";
    }
    std::vector<LoudnessPreset> matches;
    for (const LoudnessPreset& preset : LoudnessPreset::all()) {
        if (!wanted.empty() &&
            normalized(preset.name.toStdString()).find(wanted) != std::string::npos) {
            matches.push_back(preset);
        }
    }
    if (matches.size() != 1) {
        std::string known;
        for (const LoudnessPreset& preset : LoudnessPreset::all()) {
            known += (known.empty() ? "\"" : ", \"") + preset.name.toStdString() + "\"";
        }
        throw UsageError{"unknown preset \"" + name + "\" (presets: " + known + ")"};
    }
    return matches.front();
}

double number(const std::string& option, const std::string& text, double lo, double hi) {
    double value = 0.0;
    const char* end = text.data() + text.size();
    const auto [ptr, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || ptr != end || !std::isfinite(value)) {
        throw UsageError{option + " needs a number, not \"" + text + "\""};
    }
    if (value < lo || value > hi) {
        char range[64];
        std::snprintf(range, sizeof range, "%g to %g", lo, hi);
        throw UsageError{option + " must lie between " + range};
    }
    return value;
}

Options parse(std::span<const std::string> args) {
    Options options;
    std::size_t i = 0;
    const auto valueOf = [&](const std::string& option, std::optional<std::string> inlineValue) {
        if (inlineValue) {
            return *inlineValue;
        }
        if (i + 1 >= args.size()) {
            throw UsageError{option + " needs a value"};
        }
        return args[++i];
    };
    bool onlyFiles = false;
    for (; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (onlyFiles || arg.empty() || arg[0] != '-' || arg == "-") {
            if (options.command.empty() && !onlyFiles) {
                options.command = arg;
            } else {
                options.files.emplace_back(arg);
            }
            continue;
        }
        if (arg == "--") {
            onlyFiles = true;
            continue;
        }
        std::string option = arg;
        std::optional<std::string> inlineValue;
        if (const auto eq = arg.find('='); eq != std::string::npos && arg.rfind("--", 0) == 0) {
            option = arg.substr(0, eq);
            inlineValue = arg.substr(eq + 1);
        }
        if (option == "-h" || option == "--help") {
            options.help = true;
        } else if (option == "--version") {
            options.version = true;
        } else if (option == "--json") {
            options.json = true;
        } else if (option == "--mono") {
            options.mono = true;
        } else if (option == "--noise-aware") {
            options.noiseAware = true;
        } else if (option == "--wav-sidecar") {
            options.wavSidecar = true;
        } else if (option == "--target") {
            options.target =
                number(option, valueOf(option, inlineValue), minTargetLufs, maxTargetLufs);
        } else if (option == "--ceiling") {
            options.ceiling =
                number(option, valueOf(option, inlineValue), minCeilingDb, maxCeilingDb);
        } else if (option == "--preset") {
            options.preset = presetNamed(valueOf(option, inlineValue));
        } else if (option == "--output" || option == "-o") {
            options.output = fs::path(valueOf(option, inlineValue));
        } else if (option == "--output-dir") {
            options.outputDir = fs::path(valueOf(option, inlineValue));
        } else {
            throw UsageError{"unknown option " + option};
        }
    }
    if (options.help || options.version) {
        return options;
    }
    if (options.command != "level" && options.command != "measure") {
        throw UsageError{options.command.empty() ? "no command given"
                                                 : "unknown command \"" + options.command + "\""};
    }
    if (options.files.empty()) {
        throw UsageError{"no files given"};
    }
    const bool levelOnly = options.target || options.ceiling || options.preset || options.mono ||
                           options.noiseAware || options.wavSidecar || options.output ||
                           options.outputDir;
    if (options.command == "measure" && levelOnly) {
        throw UsageError{"measure takes only --json and files"};
    }
    if (options.output && options.outputDir) {
        throw UsageError{"--output and --output-dir exclude each other"};
    }
    if (options.output && options.files.size() != 1) {
        throw UsageError{"--output takes exactly one input file"};
    }
    if (options.outputDir && !fs::is_directory(*options.outputDir)) {
        throw UsageError{"--output-dir: " + options.outputDir->string() + " is not a folder"};
    }
    return options;
}

QString decoded(const fs::path& path) {
    return QFile::decodeName(QByteArray::fromStdString(path.string()));
}

QJsonValue jsonNumber(double value) {
    return std::isfinite(value) ? QJsonValue(value) : QJsonValue(QJsonValue::Null);
}

void printJson(std::ostream& out, const QJsonObject& object) {
    out << QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString() << '\n';
    out.flush();
}

std::string errorText(const std::exception& error) {
    if (const auto* own = dynamic_cast<const OstrandError*>(&error)) {
        return own->errorDescription();
    }
    return error.what();
}

// A one-line bar on a terminal, redrawn when the percentage changes.
class ProgressBar {
public:
    ProgressBar(std::ostream& err, bool enabled, std::string name)
        : m_err(err)
        , m_enabled(enabled)
        , m_name(std::move(name)) {}
    ~ProgressBar() { clear(); }

    void update(const LevelingProgress& progress) {
        const int percent = static_cast<int>(std::clamp(progress.fraction, 0.0, 1.0) * 100.0);
        if (!m_enabled || (percent == m_percent && progress.phase == m_phase)) {
            return;
        }
        m_percent = percent;
        m_phase = progress.phase;
        constexpr int width = 30;
        const int filled = percent * width / 100;
        m_err << "\r\033[K[" << std::string(static_cast<std::size_t>(filled), '#')
              << std::string(static_cast<std::size_t>(width - filled), '.') << "] "
              << rawValue(progress.phase) << "\u2026 " << percent << "%  " << m_name << std::flush;
        m_drawn = true;
    }

    void clear() {
        if (m_drawn) {
            m_err << "\r\033[K" << std::flush;
            m_drawn = false;
        }
    }

private:
    std::ostream& m_err;
    bool m_enabled;
    std::string m_name;
    int m_percent = -1;
    LevelingPhase m_phase = LevelingPhase::analyzing;
    bool m_drawn = false;
};

fs::path destinationFor(const Options& options, const fs::path& source) {
    const std::string extension = LevelingEngine::outputExtension(source);
    if (options.output) {
        std::string given = options.output->extension().string();
        std::transform(given.begin(), given.end(), given.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (given != "." + extension) {
            throw UsageError{"--output must end in ." + extension + " for " +
                             source.filename().string() + " (its container follows the source)"};
        }
        return *options.output;
    }
    const fs::path folder =
        options.outputDir ? *options.outputDir : fs::absolute(source).parent_path();
    return OutputNaming::leveledLocation(source, folder);
}

void levelOne(const Options& options, const fs::path& source, std::ostream& out, std::ostream& err,
              const CliEnvironment& environment) {
    const fs::path destination = destinationFor(options, source);
    std::optional<fs::path> sidecar;
    if (options.wavSidecar && OutputNaming::isVideoSource(source)) {
        sidecar = OutputNaming::sidecarLocation(destination);
    }
    const double target = options.target.value_or(
        options.preset ? options.preset->loudness : LevelingParameters{}.targetLoudness);
    const double ceiling =
        options.ceiling.value_or(options.preset ? options.preset->ceiling : defaultCeilingDb);

    ProgressBar bar(err, environment.progressBar, source.filename().string());
    const auto started = std::chrono::steady_clock::now();
    // --output names the file exactly; the naming rule's names move on to
    // the next free number if another run takes them first.
    const auto existing = options.output ? OutputNaming::ExistingFile::replace
                                         : OutputNaming::ExistingFile::keepAndNumber;
    const LevelingReport report = LevelingEngine::process(
        source, destination, existing, LevelingParameters::forTarget(target, options.noiseAware),
        ceiling, options.mono, sidecar,
        [&](const LevelingProgress& progress) { bar.update(progress); },
        [&] { return environment.interrupted && environment.interrupted(); });
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    bar.clear();
    for (const std::string& note : report.notes) {
        err << source.string() << ": note: " << note << '\n';
    }

    if (options.json) {
        QJsonObject object;
        object["source"] = decoded(source);
        object["outputURL"] = decoded(report.outputURL);
        object["audioSidecarURL"] =
            report.audioSidecarURL ? QJsonValue(decoded(*report.audioSidecarURL)) : QJsonValue();
        object["duration"] = jsonNumber(report.duration);
        object["inputLoudness"] = jsonNumber(report.inputLoudness);
        object["outputLoudness"] = jsonNumber(report.outputLoudness);
        object["limiterGainReduction"] = jsonNumber(report.limiterGainReduction);
        object["minGain"] = jsonNumber(report.minGain);
        object["maxGain"] = jsonNumber(report.maxGain);
        object["activeFraction"] = jsonNumber(report.activeFraction);
        printJson(out, object);
    } else {
        out << source.string() << ": " << ReportText::finishedLine(report, elapsed).toStdString()
            << "\n  " << ReportText::detailLine(report).toStdString() << '\n';
        if (report.audioSidecarURL) {
            out << "  WAV sidecar: " << report.audioSidecarURL->filename().string() << '\n';
        }
        out.flush();
    }
}

void measureOne(const Options& options, const fs::path& source, std::ostream& out,
                std::ostream& err, const CliEnvironment& environment) {
    ProgressBar bar(err, environment.progressBar, source.filename().string());
    const LevelingEngine::Measurement m = LevelingEngine::measure(
        source, false, [&](const LevelingProgress& progress) { bar.update(progress); },
        [&] { return environment.interrupted && environment.interrupted(); });
    bar.clear();
    if (options.json) {
        QJsonObject object;
        object["source"] = decoded(source);
        object["integratedLoudness"] = jsonNumber(m.integratedLoudness);
        object["truePeak"] = jsonNumber(m.truePeak);
        object["samplePeak"] = jsonNumber(m.samplePeak);
        object["duration"] = jsonNumber(m.duration);
        object["sampleRate"] = jsonNumber(m.sampleRate);
        object["channels"] = static_cast<qint64>(m.channels);
        printJson(out, object);
    } else {
        char line[256];
        std::snprintf(line, sizeof line,
                      "%.1f LUFS \u00b7 true peak %.1f dBTP \u00b7 sample peak %.1f dBFS \u00b7 ",
                      m.integratedLoudness, m.truePeak, m.samplePeak);
        out << source.string() << ": " << line << LevelingJob::format(m.duration).toStdString()
            << " \u00b7 " << static_cast<long long>(m.sampleRate) << " Hz "
            << (m.channels == 1 ? "mono" : "stereo") << '\n';
        out.flush();
    }
}

} // namespace

int runCli(std::span<const std::string> args, std::ostream& out, std::ostream& err,
           const CliEnvironment& environment) {
    Options options;
    try {
        options = parse(args);
    } catch (const UsageError& error) {
        err << "ostrand-cli: " << error.message << "\nTry 'ostrand-cli --help'.\n";
        return exitUsage;
    }
    if (options.help) {
        out << usageText;
        return exitSuccess;
    }
    if (options.version) {
        out << "ostrand-cli " << OSTRAND_VERSION << '\n';
        return exitSuccess;
    }

    int status = exitSuccess;
    for (const fs::path& source : options.files) {
        try {
            if (options.command == "level") {
                levelOne(options, source, out, err, environment);
            } else {
                measureOne(options, source, out, err, environment);
            }
        } catch (const UsageError& error) {
            err << "ostrand-cli: " << error.message << '\n';
            return exitUsage;
        } catch (const std::exception& error) {
            const bool interrupted = environment.interrupted && environment.interrupted();
            const std::string message = errorText(error);
            err << source.string() << ": " << message << '\n';
            if (options.json) {
                QJsonObject object;
                object["source"] = decoded(source);
                object["error"] = QString::fromStdString(message);
                printJson(out, object);
            }
            if (interrupted) {
                return exitInterrupted;
            }
            status = exitFailure;
        }
    }
    return status;
}

} // namespace ostrand
