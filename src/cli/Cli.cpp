#include "Cli.h"

#include "CliConsole.h"
#include "CliOptions.h"
#include "CliProfiles.h"
#include "app/FilePaths.h"
#include "app/JobQueue.h"
#include "app/LevelingJob.h"
#include "app/ReportText.h"
#include "app/UserProfiles.h"
#include "dsp/Loudness.h"
#include "media/AtomicFile.h"
#include "media/LevelingEngine.h"
#include "media/OstrandError.h"
#include "media/OutputFormat.h"
#include "media/OutputNaming.h"
#include "media/ProfileCheck.h"
#include "plot/LoudnessPlot.h"

#include <QByteArray>
#include <QFile>
#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QUrl>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#ifndef OSTRAND_VERSION
#define OSTRAND_VERSION "unknown"
#endif

namespace ostrand {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// A path under `key` (null when there is none); one that is not UTF-8 also
// as its exact bytes in base64 under key + "Bytes", for scripts to reach it.
void putPath(QJsonObject& object, const QString& key, const std::optional<fs::path>& path) {
    object[key] = path ? QJsonValue(jsonText(path->string())) : QJsonValue();
    if (path && !FilePaths::isUtf8(path->string())) {
        object[key + "Bytes"] = QString::fromLatin1(QByteArray(path->c_str()).toBase64());
    }
}

QJsonValue jsonNumber(double value) {
    return std::isfinite(value) ? QJsonValue(value) : QJsonValue(QJsonValue::Null);
}

// Qt leaves DEL and the C1 controls raw in strings; they are escaped too, so
// that a line shown on a terminal cannot drive it. Such bytes only occur
// inside strings, where \u00XX means the same character.
std::string jsonLine(const QJsonObject& object) {
    const std::string json = QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
    std::string line;
    line.reserve(json.size() + 1);
    for (std::size_t at = 0; at < json.size(); ++at) {
        const auto byte = static_cast<unsigned char>(json[at]);
        const auto next = at + 1 < json.size() ? static_cast<unsigned char>(json[at + 1]) : 0;
        if (byte == 0x7F || (byte == 0xC2 && next >= 0x80 && next < 0xA0)) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", byte == 0x7F ? 0x7F : next);
            line += escaped;
            at += byte == 0x7F ? 0 : 1;
        } else {
            line += json[at];
        }
    }
    return line + '\n';
}

std::string errorText(const std::exception& error) {
    if (const auto* own = dynamic_cast<const OstrandError*>(&error)) {
        return own->errorDescription();
    }
    return error.what();
}

std::string elapsedText(Clock::time_point since) {
    return LevelingJob::format(std::chrono::duration<double>(Clock::now() - since).count())
        .toStdString();
}

// --- Pictures ----------------------------------------------------------------

constexpr QSize plotSize{900, 360};

// Text in a picture needs the font database, which comes with a
// QGuiApplication; the offscreen platform draws without a display. Made
// only when a picture is asked for and none is there, for one run. Qt
// keeps its arguments, and takes the platform's out of them, so they live
// beside it.
struct DrawingApplication {
    int argc = 3;
    char name[12] = "ostrand-cli";
    char platformOption[10] = "-platform";
    char platform[10] = "offscreen";
    char* argv[4] = {name, platformOption, platform, nullptr};
    std::optional<QGuiApplication> application;
};

std::unique_ptr<DrawingApplication> applicationToDraw() {
    if (QCoreApplication::instance() != nullptr) {
        return nullptr;
    }
    auto drawing = std::make_unique<DrawingApplication>();
    // The platform's start-up chatter ("XDG_RUNTIME_DIR not set") is no
    // concern of the user's.
    const QtMessageHandler previous =
        qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& text) {
            if (type == QtCriticalMsg || type == QtFatalMsg) {
                std::fprintf(stderr, "%s\n", qPrintable(text));
            }
        });
    drawing->application.emplace(drawing->argc, drawing->argv);
    qInstallMessageHandler(previous);
    return drawing;
}

// Where a file's picture goes: --plot as given, or in --plot-dir after
// `name` (the output's, or for a measurement the source's).
std::optional<fs::path> plotLocation(const CliOptions& options, const fs::path& name) {
    if (options.plot) {
        return options.plot;
    }
    if (options.plotDir) {
        return *options.plotDir / (name.stem().string() + ".png");
    }
    return std::nullopt;
}

// --- Inputs ----------------------------------------------------------------

std::vector<fs::path> readList(std::istream& in, bool nulSeparated) {
    std::vector<fs::path> paths;
    for (std::string line; std::getline(in, line, nulSeparated ? '\0' : '\n');) {
        if (!nulSeparated && !line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (!line.empty()) {
            paths.emplace_back(line);
        }
    }
    return paths;
}

struct Inputs {
    std::vector<fs::path> files;
    std::string notes; // lines for standard error
    int skipped = 0;   // leveled files a folder or a list brought
};

Inputs collectInputs(const CliOptions& options, std::istream& standardInput) {
    // Each path, and whether a list gave it rather than the user by name.
    std::vector<std::pair<fs::path, bool>> given;
    bool readStandardInput = false;
    const auto addList = [&](std::istream& in) {
        for (fs::path& path : readList(in, options.nulSeparated)) {
            given.emplace_back(std::move(path), true);
        }
    };
    const auto addStandardInput = [&] {
        if (!std::exchange(readStandardInput, true)) {
            addList(standardInput);
        }
    };
    for (const fs::path& input : options.inputs) {
        if (input == "-") {
            addStandardInput();
        } else {
            given.emplace_back(input, false);
        }
    }
    if (options.inputList && *options.inputList == "-") {
        addStandardInput();
    } else if (options.inputList) {
        std::ifstream list(*options.inputList);
        if (!list) {
            throw UsageError{"--input-list: cannot read " + options.inputList->string() + ": " +
                             std::strerror(errno)};
        }
        addList(list);
    }

    Inputs inputs;
    // Each file once, by where it really is: the index of its entry.
    std::map<fs::path, std::size_t> taken;
    std::set<fs::path> passedOver;
    // A leveled file the user names is meant; one a folder or a list brings
    // (or a link to one) is most likely an earlier run's output.
    const auto take = [&](const fs::path& file, bool named) {
        std::error_code error;
        fs::path key = fs::weakly_canonical(file, error);
        if (error) {
            key = file;
        }
        if (const auto found = taken.find(key); found != taken.end()) {
            // A link that sorts before its target must not stand in for it:
            // the real path names the output.
            fs::path& kept = inputs.files[found->second];
            if (fs::is_symlink(kept, error) && !fs::is_symlink(file, error)) {
                kept = file;
            }
            return;
        }
        if (!named && !options.includeLeveled &&
            (OutputNaming::isLeveledName(file) || OutputNaming::isLeveledName(key))) {
            if (passedOver.insert(key).second) {
                ++inputs.skipped;
                inputs.notes +=
                    file.string() + ": skipped, a leveled file (--include-leveled takes it)\n";
            }
            return;
        }
        taken.emplace(key, inputs.files.size());
        inputs.files.push_back(file);
    };
    for (const auto& [path, listed] : given) {
        std::error_code error;
        if (fs::is_directory(path, error)) {
            if (!options.recursive) {
                throw UsageError{path.string() + " is a folder; add -r to take the media files " +
                                 "in it"};
            }
            for (const fs::path& file : JobQueue::mediaFilesIn(path)) {
                take(file, false);
            }
        } else {
            take(path, !listed);
        }
    }
    return inputs;
}

// --- Where each output goes -----------------------------------------------

struct Plan {
    fs::path destination;
    OutputNaming::ExistingFile existing = OutputNaming::ExistingFile::keepAndNumber;
    std::optional<fs::path> sidecar;
    std::string skipped; // why the file is left alone, if it is
};

OstrandError existsError(const fs::path& path) {
    return OstrandError::exportFailed(path.string() + " exists; add --force to replace it");
}

Plan planFor(const CliOptions& options, const fs::path& source) {
    Plan plan;
    const std::string extension = LevelingEngine::outputExtension(source);
    if (options.output) {
        std::error_code error;
        // The source itself is left to the engine, which refuses it in its words.
        if (fs::exists(*options.output, error) && !options.force &&
            !fs::equivalent(*options.output, source, error)) {
            throw existsError(*options.output);
        }
        plan.destination = *options.output;
        // Checked again when the file takes its name: one may appear meanwhile.
        plan.existing = options.force ? OutputNaming::ExistingFile::replace
                                      : OutputNaming::ExistingFile::refuse;
    } else {
        const fs::path folder =
            options.outputDir ? *options.outputDir : fs::absolute(source).parent_path();
        const std::string name = OutputNaming::leveledName(source);
        const fs::path first = folder / (name + "." + extension);
        std::error_code error;
        if (options.force) {
            plan.destination = first;
            plan.existing = OutputNaming::ExistingFile::replace;
        } else if (options.skipExisting && fs::exists(fs::symlink_status(first, error))) {
            plan.skipped = first.filename().string() + " exists";
            return plan;
        } else {
            plan.destination = OutputNaming::uniqueLocation(folder, name, extension);
        }
    }
    if (options.wavSidecar && OutputNaming::isVideoSource(source)) {
        plan.sidecar = OutputNaming::sidecarLocation(plan.destination);
    }
    return plan;
}

void checkOutputExtension(const CliOptions& options, const fs::path& source) {
    const std::string extension = LevelingEngine::outputExtension(source);
    if (OutputFormat::lowerExtension(*options.output) != extension) {
        throw UsageError{"--output must end in ." + extension + " for " +
                         source.filename().string() + " (its container follows the source)"};
    }
}

// --- One file ----------------------------------------------------------------

// `rejected`: checked, and it does not meet the profile.
enum class Outcome { done, skipped, failed, rejected };

class Batch {
public:
    Batch(const CliOptions& options, const std::vector<fs::path>& files, CliConsole& console,
          const CliEnvironment& environment, const DeliveryProfile* profile)
        : m_options(options)
        , m_files(files)
        , m_console(console)
        , m_environment(environment)
        , m_profile(profile) {}

    void run() {
        const std::size_t workers =
            std::min(static_cast<std::size_t>(std::max(m_options.jobs, 1)), m_files.size());
        std::vector<std::thread> threads;
        for (std::size_t slot = 1; slot < workers; ++slot) {
            threads.emplace_back([this, slot] { work(static_cast<int>(slot)); });
        }
        work(0);
        for (auto& thread : threads) {
            thread.join();
        }
    }

    int count(Outcome outcome) const { return m_counts[static_cast<std::size_t>(outcome)]; }

    bool stopped() const {
        return m_console.outputFailed() ||
               (m_environment.interrupted && m_environment.interrupted());
    }

private:
    void work(int slot) {
        while (!stopped()) {
            const std::size_t index = m_next++;
            if (index >= m_files.size()) {
                return;
            }
            const Outcome outcome = processOne(slot, m_files[index]);
            ++m_counts[static_cast<std::size_t>(outcome)];
        }
    }

    Outcome processOne(int slot, const fs::path& source) {
        try {
            std::error_code error;
            // Checked again when the picture takes its name.
            if (m_options.plot && !m_options.force &&
                fs::exists(fs::symlink_status(*m_options.plot, error))) {
                throw existsError(*m_options.plot);
            }
            if (m_options.command == "measure") {
                measure(slot, source);
                return Outcome::done;
            }
            if (m_options.command == "check") {
                return check(slot, source);
            }
            return level(slot, source);
        } catch (const std::exception& error) {
            m_console.ended(slot);
            const std::string message = errorText(error);
            m_console.message(source.string() + ": " + message + '\n');
            if (m_options.json) {
                QJsonObject object;
                putPath(object, "source", source);
                object["error"] = jsonText(message);
                m_console.report(jsonLine(object));
            }
            return Outcome::failed;
        }
    }

    LevelingEngine::CancelCheck cancelCheck() const {
        return [this] { return stopped(); };
    }

    Outcome level(int slot, const fs::path& source) {
        const Plan plan = planFor(m_options, source);
        if (!plan.skipped.empty()) {
            if (!m_options.quiet) {
                m_console.message(source.string() + ": skipped, " + plan.skipped + '\n');
            }
            if (m_options.json) {
                QJsonObject object;
                putPath(object, "source", source);
                object["skipped"] = jsonText(plan.skipped);
                m_console.report(jsonLine(object));
            }
            return Outcome::skipped;
        }
        if (m_options.dryRun) {
            printDryRun(source, plan);
            return Outcome::done;
        }
        if (m_options.verbose) {
            m_console.message(source.string() + ": leveling into " + plan.destination.string() +
                              '\n');
        }
        const LevelingRequest request{
            .source = source,
            .destination = plan.destination,
            .existing = plan.existing,
            .parameters = LevelingParameters::forTarget(
                m_options.targetLufs.value_or(m_profile && m_profile->target
                                                  ? *m_profile->target
                                                  : LevelingParameters{}.targetLufs),
                m_options.noiseAware),
            .ceilingDb = m_options.ceilingDb.value_or(profileCeiling()),
            .mono = m_options.mono,
            .sidecar = plan.sidecar};

        m_console.started(slot, source.filename().string());
        const auto started = Clock::now();
        const LevelingReport report = [&] {
            try {
                return LevelingEngine::process(
                    request,
                    [&](const LevelingProgress& progress) { m_console.progress(slot, progress); },
                    cancelCheck());
            } catch (const OstrandError& error) {
                if (plan.existing == OutputNaming::ExistingFile::refuse &&
                    error.kind() == OstrandError::Kind::exportFailed &&
                    error.message() == plan.destination.string() + " exists") {
                    throw existsError(plan.destination);
                }
                throw;
            }
        }();
        const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
        // The output against the profile it was leveled for: measured anew,
        // for the figures the writer's meter does not take.
        std::optional<std::vector<ProfileCheck::Result>> verdict;
        std::string uncheckedBecause;
        if (m_profile && (m_options.json || !m_options.quiet)) {
            try {
                verdict = ProfileCheck::check(
                    *m_profile, LevelingEngine::measure(report.outputURL, {}, cancelCheck()));
            } catch (const std::exception& error) {
                uncheckedBecause = errorText(error);
            }
        }
        m_console.ended(slot);
        const std::optional<fs::path> plot = drawPlot(report.outputURL, report.series);
        if (!m_options.quiet) {
            std::string notes;
            for (const std::string& note : report.notes) {
                notes += source.string() + ": note: " + note + '\n';
            }
            for (const std::string& warning : report.warnings) {
                notes += source.string() + ": warning: " + warning + '\n';
            }
            if (!notes.empty()) {
                m_console.message(notes);
            }
        }
        if (m_options.json) {
            QJsonObject object;
            putPath(object, "source", source);
            putPath(object, "outputURL", report.outputURL);
            putPath(object, "audioSidecarURL", report.audioSidecarURL);
            object["duration"] = jsonNumber(report.duration);
            object["inputLoudness"] = jsonNumber(report.inputLoudness);
            object["outputLoudness"] = jsonNumber(report.outputLoudness);
            object["limiterGainReduction"] = jsonNumber(report.limiterGainReduction);
            object["minGain"] = jsonNumber(report.minGain);
            object["maxGain"] = jsonNumber(report.maxGain);
            object["activeFraction"] = jsonNumber(report.activeFraction);
            object["outputTruePeak"] = jsonNumber(report.outputTruePeak);
            object["outputIntegratedLoudness"] = jsonNumber(report.outputIntegratedLoudness);
            QJsonArray warnings;
            for (const std::string& warning : report.warnings) {
                warnings.append(QString::fromStdString(warning));
            }
            object["warnings"] = warnings;
            const StageTimes& t = report.stageTimes;
            object["stageSeconds"] = QJsonObject{
                {"decode", t.decode}, {"analysis", t.analysis}, {"plan", t.plan},
                {"render", t.render}, {"handOver", t.handOver}, {"encode", t.encode},
                {"write", t.write},   {"check", t.check},       {"total", t.total},
            };
            if (plot) {
                putPath(object, "plot", plot);
            }
            if (verdict) {
                object["check"] = CliProfiles::checkJson(*m_profile, *verdict);
            }
            m_console.report(jsonLine(object));
        } else if (!m_options.quiet) {
            std::string lines = source.string() + ": " +
                                ReportText::finishedLine(report, elapsed).toStdString() + "\n  " +
                                ReportText::detailLine(report) + '\n';
            lines += "  output " + loudness(report.outputIntegratedLoudness, report.duration) +
                     " \u00b7 true peak " + figure("%.1f dBTP", report.outputTruePeak) + '\n';
            if (verdict) {
                lines += "  " + CliProfiles::verdictLine(*m_profile, *verdict) + '\n';
            } else if (!uncheckedBecause.empty()) {
                lines +=
                    "  not checked against " + m_profile->name + ": " + uncheckedBecause + '\n';
            }
            if (report.audioSidecarURL) {
                lines += "  WAV sidecar: " + report.audioSidecarURL->filename().string() + '\n';
            }
            if (plot) {
                lines += "  Plot: " + plot->string() + '\n';
            }
            m_console.report(lines);
        }
        return Outcome::done;
    }

    void printDryRun(const fs::path& source, const Plan& plan) {
        std::error_code error;
        const bool replaces = plan.existing == OutputNaming::ExistingFile::replace &&
                              fs::exists(plan.destination, error);
        if (m_options.json) {
            QJsonObject object;
            putPath(object, "source", source);
            putPath(object, "outputURL", plan.destination);
            putPath(object, "audioSidecarURL", plan.sidecar);
            object["replaces"] = replaces;
            object["dryRun"] = true;
            m_console.report(jsonLine(object));
        } else if (!m_options.quiet) {
            std::string line = source.string() + " \u2192 " + plan.destination.string();
            if (plan.sidecar) {
                line += " + " + plan.sidecar->filename().string();
            }
            m_console.report(line + (replaces ? " (replaces it)\n" : "\n"));
        }
    }

    // Measures one file, its progress in `slot` of the console.
    LevelingEngine::Measurement measured(int slot, const fs::path& source) {
        m_console.started(slot, source.filename().string());
        LevelingEngine::Measurement m = LevelingEngine::measure(
            source, [&](const LevelingProgress& progress) { m_console.progress(slot, progress); },
            cancelCheck());
        m_console.ended(slot);
        return m;
    }

    void measure(int slot, const fs::path& source) {
        const LevelingEngine::Measurement m = measured(slot, source);
        const std::optional<fs::path> plot = drawPlot(source, m.series);
        if (m_options.json) {
            QJsonObject object;
            putPath(object, "source", source);
            if (plot) {
                putPath(object, "plot", plot);
            }
            object["integratedLoudness"] = jsonNumber(m.integratedLoudness);
            object["speechLoudness"] = jsonNumber(m.speechLoudness);
            object["truePeak"] = jsonNumber(m.truePeak);
            object["samplePeak"] = jsonNumber(m.samplePeak);
            object["loudnessRange"] = jsonNumber(m.loudnessRange);
            object["maxMomentary"] = jsonNumber(m.maxMomentary);
            object["maxShortTerm"] = jsonNumber(m.maxShortTerm);
            object["rms"] = jsonNumber(m.rms);
            object["noiseFloor"] = jsonNumber(m.noiseFloor);
            object["duration"] = jsonNumber(m.duration);
            object["sampleRate"] = jsonNumber(m.sampleRate);
            object["channels"] = static_cast<qint64>(m.channels);
            object["layout"] = QString::fromStdString(m.layout);
            QJsonArray tracks;
            for (const LevelingEngine::ProgrammeMeasurement& track : m.tracks) {
                const LoudnessFigures& f = track.loudness;
                tracks.append(QJsonObject{
                    {"streamIndex", track.streamIndex},
                    {"layout", QString::fromStdString(track.layout)},
                    {"channels", static_cast<qint64>(track.channels)},
                    {"sampleRate", jsonNumber(track.sampleRate)},
                    {"integratedLoudness", jsonNumber(f.integratedLoudness)},
                    {"truePeak", jsonNumber(f.truePeak)},
                    {"samplePeak", jsonNumber(f.samplePeak)},
                    {"loudnessRange", jsonNumber(f.loudnessRange)},
                    {"maxMomentary", jsonNumber(f.maxMomentary)},
                    {"maxShortTerm", jsonNumber(f.maxShortTerm)},
                });
            }
            object["tracks"] = tracks;
            m_console.report(jsonLine(object));
        } else if (!m_options.quiet) {
            std::ostringstream text;
            text << source.string() << ": "
                 << loudnessText(m.integratedLoudness, m.truePeak, m.samplePeak, m.duration,
                                 m.speechLoudness)
                 << " \u00b7 " << LevelingJob::format(m.duration).toStdString() << " \u00b7 "
                 << static_cast<long long>(m.sampleRate) << " Hz " << m.layout;
            if (m.tracks.size() > 1) {
                text << ", mix of " << m.tracks.size() << " tracks";
            }
            text << "\n  " << rangeText(m.loudnessRange, m.maxMomentary, m.maxShortTerm, m.duration)
                 << '\n';
            for (std::size_t i = 0; m.tracks.size() > 1 && i < m.tracks.size(); ++i) {
                const LevelingEngine::ProgrammeMeasurement& track = m.tracks[i];
                const LoudnessFigures& f = track.loudness;
                text << "  track " << i + 1 << " (" << track.layout << "): "
                     << loudnessText(f.integratedLoudness, f.truePeak, f.samplePeak, m.duration)
                     << " \u00b7 "
                     << rangeText(f.loudnessRange, f.maxMomentary, f.maxShortTerm, m.duration)
                     << '\n';
            }
            m_console.report(text.str());
        }
    }

    Outcome check(int slot, const fs::path& source) {
        const LevelingEngine::Measurement m = measured(slot, source);
        const std::vector<ProfileCheck::Result> results = ProfileCheck::check(*m_profile, m);
        if (m_options.json) {
            QJsonObject object = CliProfiles::checkJson(*m_profile, results);
            putPath(object, "source", source);
            m_console.report(jsonLine(object));
        } else if (!m_options.quiet) {
            m_console.report(CliProfiles::checkText(source.string(), *m_profile, results));
        }
        return ProfileCheck::passed(results) ? Outcome::done : Outcome::rejected;
    }

    // A profile's peak limit as the leveler's ceiling: a sample-peak limit is
    // met with room to spare by a true-peak ceiling at its level.
    double profileCeiling() const {
        if (m_profile && m_profile->truePeak) {
            return *m_profile->truePeak;
        }
        if (m_profile && m_profile->samplePeak) {
            return *m_profile->samplePeak;
        }
        return LevelingRequest{}.ceilingDb;
    }

    // Draws the picture for `file` (an output, or a measured source), if one
    // is asked for, and names it as outputs are named: a file already there
    // is replaced only with --force, else --plot fails and --plot-dir takes
    // the next numbered name; two pictures of one run never share a name.
    // Drawn unnamed and then linked, so that a file appearing meanwhile is
    // not replaced either. Returns the name used.
    std::optional<fs::path> drawPlot(const fs::path& file,
                                     const std::shared_ptr<const LevelingSeries>& series) {
        const std::optional<fs::path> first = plotLocation(m_options, file);
        if (!first) {
            return std::nullopt;
        }
        const fs::path folder = first->parent_path().empty() ? "." : first->parent_path();
        const auto failed = [](const fs::path& path, const std::string& reason) {
            return std::runtime_error("cannot write the plot " + path.string() + ": " + reason);
        };
        fs::path candidate = *first;
        try {
            AtomicFile picture(folder, AtomicFile::permissionsLike(file));
            {
                // Qt only writes; the names stay bytes, which a folder's
                // need not be UTF-8 to be.
                QFile device;
                QString error;
                if (!device.open(picture.descriptor(), QIODevice::WriteOnly,
                                 QFileDevice::DontCloseHandle) ||
                    !LoudnessPlot::write(
                        device, QString::fromStdString(OutputFormat::lowerExtension(*first)),
                        series, plotSize, LoudnessPlot::Theme::light,
                        FilePaths::shown(file.filename().string()), &error) ||
                    !device.flush()) {
                    throw failed(*first, error.isEmpty() ? device.errorString().toStdString()
                                                         : error.toStdString());
                }
            }
            const std::lock_guard lock(m_plotsMutex);
            for (int number = 1; number <= (m_options.plot ? 1 : maxPlotNumber); ++number) {
                candidate = OutputNaming::numberedLocation(*first, number);
                if (m_plotsTaken.contains(candidate)) {
                    continue;
                }
                if (m_options.force) {
                    picture.commitReplacing(candidate);
                } else if (!picture.commitNew(candidate)) {
                    continue;
                }
                m_plotsTaken.insert(candidate);
                return candidate;
            }
        } catch (const std::system_error& error) {
            throw failed(candidate, error.code().message());
        }
        if (m_options.plot) {
            throw existsError(*first);
        }
        throw failed(*first, "no free name");
    }

    // With the speech's own loudness when it is given (the mix's line).
    static std::string loudnessText(double integrated, double truePeak, double samplePeak,
                                    double seconds, std::optional<double> speech = std::nullopt) {
        std::string text = loudness(integrated, seconds);
        if (speech) {
            text += Loudness::isSilent(*speech) ? std::string(" \u00b7 no speech found")
                                                : " \u00b7 speech " + loudness(*speech, seconds);
        }
        return text + " \u00b7 true peak " + figure("%.1f dBTP", truePeak) +
               " \u00b7 sample peak " + figure("%.1f dBFS", samplePeak);
    }

    static std::string rangeText(double range, double maxMomentary, double maxShortTerm,
                                 double seconds) {
        return "range " + figure("%.1f LU", range) + " \u00b7 max momentary " +
               loudness(maxMomentary, seconds) + " \u00b7 max short-term " +
               loudness(maxShortTerm, seconds);
    }

    static std::string loudness(double lufs, double seconds) {
        return ReportText::loudness(lufs, seconds).toStdString();
    }

    // A figure with its unit; "-inf" for the peak of digital silence.
    static std::string figure(const char* format, double value) {
        char text[64];
        std::snprintf(text, sizeof text, format, value);
        return text;
    }

    const CliOptions& m_options;
    const std::vector<fs::path>& m_files;
    CliConsole& m_console;
    const CliEnvironment& m_environment;
    std::atomic<std::size_t> m_next{0};
    const DeliveryProfile* m_profile; // --profile, resolved
    std::array<std::atomic<int>, 4> m_counts{};
    static constexpr int maxPlotNumber = 100000;
    std::mutex m_plotsMutex;
    std::set<fs::path> m_plotsTaken; // this run's pictures
};

int defaultJobs() {
    return static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
}

} // namespace

int runCli(std::span<const std::string> args, std::ostream& out, std::ostream& err,
           const CliEnvironment& environment) {
    const auto started = Clock::now();
    CliOptions options;
    Inputs inputs;
    std::optional<DeliveryProfile> profile;
    const auto answer = [&](const std::string& text) {
        out << text;
        out.flush();
        if (!out) {
            err << "ostrand-cli: cannot write to standard output: " << std::strerror(errno) << '\n';
            return exitFailure;
        }
        return exitSuccess;
    };
    try {
        options = parseCliOptions(args, defaultJobs());
        if (options.help || options.version || options.completionShell ||
            options.command == "help") {
            return answer(options.version ? std::string("ostrand-cli ") + OSTRAND_VERSION + "\n"
                          : options.completionShell ? completionScript(*options.completionShell)
                                                    : helpText(options.helpTopic));
        }
        const bool listsProfiles = options.command == "profiles" || options.command == "presets";
        if (listsProfiles || options.profile) {
            const UserProfiles::Profiles profiles =
                UserProfiles::load(environment.profilesFile.value_or(UserProfiles::location()));
            for (const std::string& problem : profiles.problems) {
                err << escapedText("ostrand-cli: " + problem + '\n');
            }
            if (listsProfiles) {
                return answer(escapedText(CliProfiles::listing(profiles.all)));
            }
            const DeliveryProfile* found = findProfile(profiles.all, *options.profile);
            if (found == nullptr) {
                throw UsageError{"no single profile answers to \"" + *options.profile +
                                 "\" (ostrand-cli profiles lists them)"};
            }
            profile = *found;
        }
        if (options.command == "level" && profile) {
            if (!profile->target && !options.targetLufs) {
                throw UsageError{"the profile \"" + profile->name +
                                 "\" sets no loudness target to level to; add --target"};
            }
            if (profile->measuredOn == LoudnessBasis::speech && !options.quiet) {
                err << "ostrand-cli: note: \"" << profile->name
                    << "\" is measured on speech; level aims its target at the integrated "
                       "loudness, and check measures the speech\n";
            }
        }
        inputs = collectInputs(options, environment.input ? *environment.input : std::cin);
        if (options.output) {
            for (const fs::path& source : inputs.files) {
                checkOutputExtension(options, source);
            }
        }
    } catch (const UsageError& error) {
        err << "ostrand-cli: " << escapedText(error.message) << "\nTry 'ostrand-cli help'.\n";
        return exitUsage;
    } catch (const std::exception& error) {
        err << "ostrand-cli: " << escapedText(errorText(error)) << '\n';
        return exitFailure;
    }
    if (!options.quiet) {
        err << escapedText(inputs.notes) << std::flush;
    }
    for (const auto& folder : {options.outputDir, options.plotDir}) {
        if (folder && !options.dryRun) {
            std::error_code error;
            fs::create_directories(*folder, error);
            if (error) {
                err << escapedText("ostrand-cli: cannot make the folder " + folder->string() +
                                   ": " + error.message() + '\n');
                return exitFailure;
            }
        }
    }
    std::unique_ptr<DrawingApplication> application;
    if ((options.plot || options.plotDir) && !options.dryRun) {
        application = applicationToDraw();
        if (qobject_cast<QGuiApplication*>(QCoreApplication::instance()) == nullptr) {
            err << "ostrand-cli: cannot draw plots in this process\n";
            return exitFailure;
        }
    }

    CliConsole console(out, err, environment.progressBar && !options.quiet,
                       environment.terminalWidth, inputs.files.size());
    Batch batch(options, inputs.files, console, environment, profile ? &*profile : nullptr);
    batch.run();
    console.finish();

    const bool interrupted = environment.interrupted && environment.interrupted();
    const int done = batch.count(Outcome::done);
    const int skipped = batch.count(Outcome::skipped) + inputs.skipped;
    const int failed = batch.count(Outcome::failed);
    const int rejected = batch.count(Outcome::rejected);
    if (!options.quiet && (inputs.files.size() > 1 || skipped > 0 || interrupted)) {
        err << "ostrand-cli: " << (interrupted ? "interrupted; " : "");
        if (options.command == "check") {
            err << done << " passed " << profile->name << ", " << rejected << " failed it, "
                << failed << " could not be read";
        } else {
            const char* verb = options.command == "measure" ? "measured"
                               : options.dryRun             ? "to level"
                                                            : "leveled";
            err << done << ' ' << verb << ", " << skipped << " skipped, " << failed << " failed";
        }
        err << " in " << elapsedText(started) << '\n';
    }
    if (interrupted) {
        return exitInterrupted;
    }
    if (failed > 0 || console.outputFailed()) {
        return exitFailure;
    }
    return rejected > 0 ? exitNotMet : exitSuccess;
}

} // namespace ostrand
