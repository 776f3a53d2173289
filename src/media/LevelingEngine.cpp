#include "LevelingEngine.h"

#include "AtomicFile.h"
#include "MediaAsset.h"
#include "MediaWriter.h"
#include "MixedAudioReader.h"
#include "OstrandError.h"
#include "OutputFormat.h"
#include "Stopwatch.h"
#include "dsp/FrameAnalysis.h"
#include "dsp/FrameAnalyzer.h"
#include "dsp/GainCurveBuilder.h"
#include "dsp/GainRenderer.h"
#include "dsp/Loudness.h"
#include "dsp/LoudnessMeter.h"
#include "dsp/PauseDetector.h"
#include "dsp/ProgrammeLevels.h"
#include "dsp/SpeechGate.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace ostrand::LevelingEngine {

namespace {

// A pass reports its progress when it has moved by more than this share of
// the pass, so it sends at most about 200 reports.
constexpr double reportStep = 0.005;

class PassProgress {
public:
    PassProgress(const ProgressHandler& handler, LevelingPhase phase, double expectedSamples,
                 double start, double share, double step = reportStep)
        : m_handler(handler)
        , m_phase(phase)
        , m_expected(expectedSamples)
        , m_start(start)
        , m_share(share)
        , m_step(step) {}

    void advance(std::int64_t samples) {
        m_read += samples;
        const double f = static_cast<double>(m_read) / m_expected;
        if (f - m_lastReported > m_step) {
            m_lastReported = f;
            if (m_handler) {
                m_handler(LevelingProgress{m_phase, m_start + m_share * std::min(f, 1.0)});
            }
        }
    }

private:
    const ProgressHandler& m_handler;
    LevelingPhase m_phase;
    double m_expected;
    double m_start;
    double m_share;
    double m_step;
    std::int64_t m_read = 0;
    double m_lastReported = 0.0;
};

void checkCancelled(const CancelCheck& isCancelled) {
    if (isCancelled && isCancelled()) {
        throw OstrandError::cancelled();
    }
}

// No recorder writes faster than this; a header that claims more is damaged,
// and buffers sized by its rate would cost memory the file cannot fill.
constexpr double maxSampleRate = 768000.0;

// Every rate the engine meters or writes passes here first, so a stream the
// meter cannot take fails alone, in words, instead of ending the process.
void checkSampleRate(double sampleRate) {
    const auto hz = [](double rate) { return std::to_string(std::llround(rate)) + " Hz"; };
    if (!(sampleRate >= LoudnessMeter::minSampleRate)) {
        throw OstrandError::unreadable("its sample rate of " + hz(sampleRate) +
                                       " is too low to measure (at least " +
                                       hz(LoudnessMeter::minSampleRate) + " is needed)");
    }
    if (sampleRate > maxSampleRate) {
        throw OstrandError::unreadable("its sample rate of " + hz(sampleRate) +
                                       " is beyond any recording (at most " + hz(maxSampleRate) +
                                       "), so its header is likely damaged");
    }
}

struct OpenedSource {
    MediaAsset asset;
    SourceAudioFormat format;
    std::vector<MediaAsset::AudioTrack> tracks;
};

OpenedSource openSource(const std::filesystem::path& source, bool mono,
                        const CancelCheck& isCancelled) {
    MediaAsset asset = MediaAsset::open(source, isCancelled);
    auto [format, tracks] = MixedAudioReader::probe(asset, mono);
    // Slower tracks are resampled to the fastest, which is the rate checked.
    checkSampleRate(format.sampleRate);
    if (!FrameAnalyzer::supportsFormat(format.sampleRate, format.channels)) {
        throw OstrandError::unreadable("unsupported audio format (" +
                                       std::to_string(format.sampleRate) + " Hz, " +
                                       std::to_string(format.channels) + " channels)");
    }
    return {std::move(asset), format, std::move(tracks)};
}

bool sameFile(const std::filesystem::path& a, const std::filesystem::path& b) {
    std::error_code error;
    return std::filesystem::equivalent(a, b, error) && !error;
}

// One decimal, as the reports show figures.
std::string tenths(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

// The limiter's deepest reduction per frame of the written audio.
class ReductionTrack {
public:
    explicit ReductionTrack(std::int64_t frameLength)
        : m_frameLength(frameLength) {}

    // A frame's stretch at a time: no division per sample.
    void add(std::span<const float> gains) {
        std::size_t i = 0;
        while (i < gains.size()) {
            const auto frame = static_cast<std::size_t>(m_position / m_frameLength);
            const auto n =
                std::min(static_cast<std::size_t>(m_frameLength - m_position % m_frameLength),
                         gains.size() - i);
            const auto stretch = gains.subspan(i, n);
            if (frame >= m_lowest.size()) {
                m_lowest.resize(frame + 1, 1.0f);
            }
            m_lowest[frame] =
                std::min(m_lowest[frame], *std::min_element(stretch.begin(), stretch.end()));
            i += n;
            m_position += static_cast<std::int64_t>(n);
        }
    }

    // dB, 0 or more, one per frame of `frames`.
    std::vector<float> decibels(std::size_t frames) const {
        std::vector<float> out(frames, 0.0f);
        for (std::size_t i = 0; i < std::min(frames, m_lowest.size()); ++i) {
            out[i] = m_lowest[i] < 1.0f ? -20.0f * std::log10(m_lowest[i]) : 0.0f;
        }
        return out;
    }

private:
    std::int64_t m_frameLength;
    std::int64_t m_position = 0;
    std::vector<float> m_lowest; // linear gain
};

} // namespace

std::vector<std::string> warnings(const LevelingReport& report, double targetLufs, double ceilingDb,
                                  bool speechFound) {
    std::vector<std::string> found;
    if (!speechFound) {
        found.emplace_back("no speech was found, only silence or noise");
    }
    const double offTarget = report.outputIntegratedLoudness - targetLufs;
    if (std::isfinite(offTarget) && std::fabs(offTarget) > offTargetWarningLu) {
        found.push_back("the output is " + tenths(std::fabs(offTarget)) + " LU " +
                        (offTarget < 0.0 ? "quieter" : "louder") + " than the target of " +
                        tenths(targetLufs) + " LUFS");
    }
    if (report.outputTruePeak > ceilingDb + overCeilingDb) {
        found.push_back("the output's true peak of " + tenths(report.outputTruePeak) +
                        " dBTP is above the ceiling of " + tenths(ceilingDb) + " dBTP");
    }
    return found;
}

std::string outputExtension(const std::filesystem::path& source) {
    return OutputFormat::forSource(source).extension;
}

namespace {

// Speech rises above the recording's floor somewhere; silence and steady
// noise never do, though the plan's gates take them as active.
bool hasSpeech(const FrameAnalysis& analysis, const GainCurve& curve) {
    if (curve.activeFraction <= 0.0) {
        return false;
    }
    std::vector<unsigned char> pause(analysis.meanSquare.size());
    PauseDetector::markPauses(analysis.meanSquare, pause);
    return std::find(pause.begin(), pause.end(), 0) != pause.end();
}

// What one file's leveling needs beyond its passes.
struct Job {
    const LevelingRequest& request;
    const OpenedSource& opened;
    const OutputFormat::Rule& rule;
    MediaWriter::Encoding encoding;
    const ProgressHandler& progress;
    const CancelCheck& isCancelled;
    double expectedSamples;
};

// One leveling pass into complete but still unnamed files: dropping it
// removes them.
struct Attempt {
    std::unique_ptr<MediaWriter> output;
    std::unique_ptr<MediaWriter> sidecar;
    double ownLoudness = 0.0; // the leveler's own figure
    double limiterGainReduction = 0.0;
    std::vector<float> outputLoudness;   // short-term, per frame
    std::vector<float> limiterReduction; // dB, per frame
    // What it was made with.
    GainCurve curve;
    double thresholdDb = 0.0;
    double plannedTarget = 0.0;
};

// The plan's gains through a limiter whose threshold is `thresholdDb`.
Attempt levelingPass(const Job& job, const FrameAnalysis& analysis, const GainCurve& curve,
                     double thresholdDb, double progressStart, double progressShare,
                     double progressStep, StageTimes& times) {
    const MediaAsset& asset = job.opened.asset;
    const double rate = job.opened.format.sampleRate;
    const std::int64_t channels = job.opened.format.channels;
    const LevelingRequest& request = job.request;
    Attempt attempt;

    // A failure from here on drops the writers, which removes what they wrote.
    attempt.output =
        std::make_unique<MediaWriter>(request.destination, request.existing, job.rule.container,
                                      rate, channels, job.encoding, asset, asset.videoTracks, true);
    MediaWriter& output = *attempt.output;
    if (!asset.videoTracks.empty() && request.sidecar) {
        attempt.sidecar = std::make_unique<MediaWriter>(
            *request.sidecar, OutputNaming::ExistingFile::keepAndNumber, FileType::wave, rate,
            channels, MediaWriter::Encoding::pcm24, asset, std::vector<MediaAsset::VideoTrack>{});
    }
    MediaWriter* sidecar = attempt.sidecar.get();
    GainRenderer renderer(curve, channels, rate, thresholdDb);
    FrameAnalyzer outputAnalyzer(rate, channels);
    ReductionTrack reduction(curve.frameLength);

    const auto timeScale = static_cast<std::int32_t>(rate);
    std::int64_t written = 0;
    std::optional<MediaTime> startTime;
    const auto write = [&](const GainRenderer::Block& block) {
        reduction.add(block.limiterGains);
        if (block.count == 0) {
            return;
        }
        {
            const Stopwatch checking(times.check);
            outputAnalyzer.append(block.planar, block.count);
        }
        const MediaTime at = startTime.value_or(MediaTime{}).advancedBySamples(written, timeScale);
        const Stopwatch handing(times.handOver);
        output.appendAudio(block.planar, block.count, at);
        if (sidecar) {
            sidecar->appendAudio(block.planar, block.count, at);
        }
        written += block.count;
    };
    const auto render = [&](auto&& work) {
        const Stopwatch rendering(times.render);
        return work();
    };

    PassProgress pass(job.progress, LevelingPhase::leveling, job.expectedSamples, progressStart,
                      progressShare, progressStep);
    MixedAudioReader reader(asset, job.opened.format, job.opened.tracks, job.isCancelled);
    double readSeconds = 0.0;
    double workSeconds = 0.0; // of the reading, spent on each block
    {
        const Stopwatch reading(readSeconds);
        reader.read([&](std::span<float* const> planar, std::int64_t count, MediaTime time) {
            const Stopwatch working(workSeconds);
            checkCancelled(job.isCancelled);
            if (!startTime) {
                startTime = time;
            }
            write(render([&] { return renderer.append(planar, count); }));
            pass.advance(count);
        });
    }
    times.decode += readSeconds - workSeconds;
    write(render([&] { return renderer.flush(); }));

    {
        const Stopwatch handing(times.handOver);
        output.complete();
        if (sidecar) {
            sidecar->complete();
        }
    }
    output.addTimes(times);
    if (sidecar) {
        sidecar->addTimes(times);
    }
    attempt.ownLoudness = Loudness::integrated(outputAnalyzer.kPower());
    attempt.limiterGainReduction = renderer.maxGainReduction();
    // The written audio has the source's length, so its frames line up with
    // the plan's; a frame short at the end is left to the plan.
    const std::size_t frames = analysis.kPower.size();
    attempt.outputLoudness = Loudness::shortTerm(outputAnalyzer.kPower());
    attempt.outputLoudness.resize(frames, static_cast<float>(Loudness::loudnessOf(0.0)));
    attempt.limiterReduction = reduction.decibels(frames);
    return attempt;
}

// The name `path` would take if the file were named now.
std::filesystem::path likelyName(const std::filesystem::path& path,
                                 OutputNaming::ExistingFile existing) {
    if (existing != OutputNaming::ExistingFile::keepAndNumber) {
        return path;
    }
    const std::string extension = path.extension().string();
    return OutputNaming::uniqueLocation(path.parent_path(), path.stem().string(),
                                        extension.empty() ? extension : extension.substr(1));
}

// Both files are complete before either takes a name, so a failure leaves
// neither. The sidecar follows an output that had to move on to another name.
void name(Attempt& attempt, const std::filesystem::path& destination) {
    attempt.output->finish();
    if (attempt.sidecar) {
        try {
            if (attempt.output->url() != destination) {
                std::filesystem::path beside = attempt.output->url();
                attempt.sidecar->setURL(beside.replace_extension(OutputNaming::sidecarExtension));
            }
            attempt.sidecar->finish();
        } catch (...) {
            std::error_code ignored;
            std::filesystem::remove(attempt.output->url(), ignored);
            throw;
        }
    }
}

LevelingReport level(const LevelingRequest& request, const ProgressHandler& progress,
                     const CancelCheck& isCancelled) {
    const auto& [source, destination, existing, parameters, ceilingDb, mono, sidecar] = request;
    // Refused before anything is opened, though the writer would never
    // replace the source either.
    if (sameFile(source, destination) || (sidecar && sameFile(source, *sidecar))) {
        throw OstrandError::writerFailed("the destination is the source file itself");
    }
    // A name the file system cannot hold, or a folder that takes no file,
    // would otherwise fail only at the end, after all the work. A numbered
    // file is checked under the name it would take now; the sidecar always
    // numbers.
    const auto check = [](const std::filesystem::path& path) {
        const std::size_t length = path.filename().string().size();
        const std::size_t limit = AtomicFile::nameLimit(path.parent_path());
        if (length > limit) {
            throw OstrandError::exportFailed(path.string() + ": the name is " +
                                             std::to_string(length) + " bytes, more than the " +
                                             std::to_string(limit) + " this file system allows");
        }
        try {
            AtomicFile::checkWritable(path.parent_path());
        } catch (const std::system_error& error) {
            throw OstrandError::exportFailed(error.what());
        }
    };
    const std::filesystem::path output = likelyName(destination, existing);
    check(output);
    if (sidecar) {
        std::filesystem::path beside = output;
        check(likelyName(output == destination
                             ? *sidecar
                             : beside.replace_extension(OutputNaming::sidecarExtension),
                         OutputNaming::ExistingFile::keepAndNumber));
    }
    // Whatever front end sent them: a target that is not a number plans
    // silence, a ceiling that is not one lets anything through.
    if (!std::isfinite(parameters.targetLufs) || !std::isfinite(ceilingDb)) {
        throw OstrandError::writerFailed("the loudness target or the ceiling is not a number");
    }

    const auto started = std::chrono::steady_clock::now();
    StageTimes times;
    OpenedSource opened = openSource(source, mono, isCancelled);
    const MediaAsset& asset = opened.asset;
    const OutputFormat::Rule rule = OutputFormat::forSource(source);
    const MediaWriter::Encoding encoding = rule.audioFor(!asset.videoTracks.empty());
    // Read at the rate the output codec takes (Opus: 48 kHz), so the plan and
    // the limiter see exactly what is encoded.
    opened.format.sampleRate = OutputFormat::encodedSampleRate(encoding, opened.format.sampleRate);
    const double rate = opened.format.sampleRate;
    const std::int64_t channels = opened.format.channels;
    const Job job{request,
                  opened,
                  rule,
                  encoding,
                  progress,
                  isCancelled,
                  std::max(rate * asset.durationSeconds, 1.0)};

    // Analysis pass.
    FrameAnalyzer analyzer(rate, channels);
    {
        PassProgress pass(progress, LevelingPhase::analyzing, job.expectedSamples, 0.0,
                          analysisShare);
        MixedAudioReader reader(asset, opened.format, opened.tracks, isCancelled);
        double readSeconds = 0.0;
        {
            const Stopwatch reading(readSeconds);
            reader.read([&](std::span<float* const> planar, std::int64_t count, MediaTime) {
                const Stopwatch analysing(times.analysis);
                checkCancelled(isCancelled);
                analyzer.append(std::span<const float* const>(planar.data(), planar.size()), count);
                pass.advance(count);
            });
        }
        times.decode += readSeconds - times.analysis;
    }
    const double frameSeconds = static_cast<double>(analyzer.frameLength()) / rate;
    const FrameAnalysis analysis = [&] {
        const Stopwatch analysing(times.analysis);
        return std::move(analyzer).analysis();
    }();

    // A lossy codec adds peaks of its own above the limiter's, so its limiter
    // starts below the ceiling. The plan counts on that threshold.
    const double firstThresholdDb =
        ceilingDb - (MediaWriter::isLossy(encoding) ? lossyHeadroomDb : 0.0);
    LevelingParameters planned = parameters;
    const auto plan = [&] {
        const Stopwatch planning(times.plan);
        return GainCurveBuilder::build(analysis, planned, firstThresholdDb);
    };
    GainCurve curve = plan();

    // Peaks the limiter's estimate missed, or the encoder added, take the
    // file over the ceiling: level it again with the same gains and a lower
    // threshold, so that only the peaks give way. A file under the ceiling
    // but off the target is planned again for a target moved by the miss.
    // Where the limiter holds the material down, a louder plan comes out only
    // partly louder, so a later move is scaled by what the last one gave at
    // the same threshold. A miss beyond the warning is what the ceiling
    // allows, and is not chased. A retry
    // can come out worse (a deeper reduction can add peaks of its own): the
    // best attempt is the one kept. Each retry takes half of the progress
    // still left to retries and reports at the first pass's pace.
    double thresholdDb = firstThresholdDb;
    double progressStart = analysisShare;
    const double firstShare = 1.0 - analysisShare - retryShare;
    double progressShare = firstShare;
    const auto attempt = [&] {
        Attempt made = levelingPass(job, analysis, curve, thresholdDb, progressStart, progressShare,
                                    reportStep * firstShare / progressShare, times);
        made.curve = curve;
        made.thresholdDb = thresholdDb;
        made.plannedTarget = planned.targetLufs;
        return made;
    };
    const auto miss = [&](const LoudnessFigures& figures) {
        return parameters.targetLufs - figures.integratedLoudness;
    };
    const auto isBetter = [&](const LoudnessFigures& figures, const LoudnessFigures& than) {
        const bool under = figures.truePeak - ceilingDb <= overCeilingDb;
        if (under != (than.truePeak - ceilingDb <= overCeilingDb)) {
            return under;
        }
        return under ? std::fabs(miss(figures)) < std::fabs(miss(than))
                     : figures.truePeak < than.truePeak;
    };
    Attempt best = attempt();
    LoudnessFigures written = best.output->measured();
    // The last replan at the present threshold: its target and what it gave.
    double replanTarget = NAN;
    double replanLoudness = NAN;
    for (int retry = 0; retry < maxRetries; ++retry) {
        const double excess = written.truePeak - ceilingDb;
        if (excess > overCeilingDb) {
            thresholdDb -= excess + retryMarginDb;
            replanTarget = NAN;
        } else if (std::fabs(miss(written)) > replanOffTargetLu &&
                   std::fabs(miss(written)) <= offTargetWarningLu &&
                   !Loudness::isSilent(written.integratedLoudness)) {
            double response = 1.0;
            if (std::isfinite(replanTarget)) {
                response = std::clamp((written.integratedLoudness - replanLoudness) /
                                          (planned.targetLufs - replanTarget),
                                      minReplanResponse, 1.0);
            }
            replanTarget = planned.targetLufs;
            replanLoudness = written.integratedLoudness;
            // The miss already holds what a lowered threshold took: the plan
            // keeps its first limiter model and moves only its target.
            planned.targetLufs += miss(written) / response;
            curve = plan();
        } else {
            break;
        }
        progressStart += progressShare;
        progressShare = (1.0 - progressStart) / 2.0;
        Attempt next = attempt();
        written = next.output->measured();
        if (isBetter(written, best.output->measured())) {
            best = std::move(next);
        }
    }
    name(best, destination);
    if (progress) {
        progress(LevelingProgress{LevelingPhase::leveling, 1.0});
    }

    const LoudnessFigures& measured = best.output->measured();
    LevelingReport report;
    report.outputURL = best.output->url();
    if (best.sidecar) {
        report.audioSidecarURL = best.sidecar->url();
    }
    report.notes = best.output->notes();
    if (best.thresholdDb < firstThresholdDb) {
        report.notes.push_back("limiter threshold lowered by " +
                               tenths(firstThresholdDb - best.thresholdDb) +
                               " dB to keep the true peak under the ceiling");
    }
    if (best.plannedTarget != parameters.targetLufs) {
        report.notes.push_back("planned again for " + tenths(best.plannedTarget) +
                               " LUFS to meet the target");
    }
    report.duration = asset.durationSeconds;
    report.inputLoudness = best.curve.inputLoudness;
    report.outputLoudness = best.ownLoudness;
    report.limiterGainReduction = best.limiterGainReduction;
    if (!best.curve.gainDB.empty()) {
        const auto [lowest, highest] =
            std::minmax_element(best.curve.gainDB.begin(), best.curve.gainDB.end());
        report.minGain = *lowest;
        report.maxGain = *highest;
    }
    report.activeFraction = best.curve.activeFraction;
    report.outputTruePeak = measured.truePeak;
    report.outputIntegratedLoudness = measured.integratedLoudness;
    report.warnings =
        warnings(report, parameters.targetLufs, ceilingDb, hasSpeech(analysis, best.curve));

    auto series = std::make_shared<LevelingSeries>();
    series->frameSeconds = frameSeconds;
    series->duration = asset.durationSeconds;
    series->targetLufs = parameters.targetLufs;
    series->inputLoudness = Loudness::shortTerm(analysis.kPower);
    series->outputLoudness = std::move(best.outputLoudness);
    series->gain.assign(best.curve.gainDB.begin(), best.curve.gainDB.end());
    series->limiterReduction = std::move(best.limiterReduction);
    series->active = best.curve.active;
    report.series = std::move(series);
    times.total = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    report.stageTimes = times;
    return report;
}

// Memory and file-system failures reach the user in words.
template <typename Work>
auto inWords(Work&& work) {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        throw OstrandError::unreadable("there is not enough memory to level it");
    } catch (const std::filesystem::filesystem_error& error) {
        throw OstrandError::writerFailed(error.code().message());
    }
}

} // namespace

LevelingReport process(const LevelingRequest& request, const ProgressHandler& progress,
                       const CancelCheck& isCancelled) {
    return inWords([&] { return level(request, progress, isCancelled); });
}

namespace {

// Meters one programme (a track, or the mix of several) in one read;
// `series`, when given, receives its short-term loudness every 10 ms, and
// `levels` the figures of the leveler's analysis of the same audio.
LoudnessFigures meterPass(const MediaAsset& asset, const SourceAudioFormat& format,
                          const std::vector<MediaAsset::AudioTrack>& tracks, PassProgress& pass,
                          const CancelCheck& isCancelled, LevelingSeries* series = nullptr,
                          Measurement* levels = nullptr) {
    LoudnessMeter meter(format.sampleRate, channelWeights(format.channelMask, format.channels));
    if (series) {
        meter.keepShortTermSeries();
    }
    std::optional<FrameAnalyzer> analyzer;
    if (levels) {
        analyzer.emplace(format.sampleRate, format.channels);
    }
    MixedAudioReader reader(asset, format, tracks, isCancelled);
    reader.read([&](std::span<float* const> planar, std::int64_t count, MediaTime) {
        checkCancelled(isCancelled);
        const std::span<const float* const> samples(planar.data(), planar.size());
        meter.append(samples, count);
        if (analyzer) {
            analyzer->append(samples, count);
        }
        pass.advance(count);
    });
    if (series) {
        series->inputLoudness = meter.shortTermSeries();
    }
    if (levels) {
        const FrameAnalysis analysis = std::move(*analyzer).analysis();
        const SpeechGate::Speech speech = SpeechGate::findSpeech(analysis);
        levels->speechLoudness = SpeechGate::loudness(meter.blockPowers(), speech.frames,
                                                      analysis.sampleRate, analysis.frameLength);
        levels->headRoomTone = speech.headSeconds;
        levels->tailRoomTone = speech.tailSeconds;
        levels->rms = ProgrammeLevels::rmsDb(analysis);
        levels->noiseFloor = ProgrammeLevels::noiseFloorDb(analysis);
    }
    return meter.figures();
}

Measurement measureSource(const std::filesystem::path& source, const ProgressHandler& progress,
                          const CancelCheck& isCancelled) {
    const MediaAsset asset = MediaAsset::open(source, isCancelled);
    if (asset.audioTracks.empty()) {
        throw OstrandError::noAudioTrack();
    }
    const auto formatOf = [](const MediaAsset::AudioTrack& track) {
        SourceAudioFormat format;
        format.sampleRate = track.sampleRate > 0.0 ? track.sampleRate : 48000.0;
        format.channels = std::max<std::int64_t>(track.channels, 1);
        format.channelMask = track.channelMask;
        format.trackCount = 1;
        return format;
    };
    // Several tracks sum on the layout they share; tracks of different
    // layouts are mixed down as they are for leveling.
    SourceAudioFormat mix = formatOf(asset.audioTracks.front());
    std::string mixLayout = asset.audioTracks.front().layout;
    for (const auto& track : asset.audioTracks) {
        mix.sampleRate = std::max(mix.sampleRate, formatOf(track).sampleRate);
        if (track.channels != mix.channels || track.channelMask != mix.channelMask) {
            mix = MixedAudioReader::probe(asset, false).first;
            mixLayout = mix.channels == 1 ? "mono" : "stereo";
            break;
        }
    }
    mix.trackCount = static_cast<std::int64_t>(asset.audioTracks.size());
    // Each track is metered at its own rate, the mix at the fastest.
    for (const auto& track : asset.audioTracks) {
        checkSampleRate(formatOf(track).sampleRate);
    }
    checkSampleRate(mix.sampleRate);

    const bool severalTracks = asset.audioTracks.size() > 1;
    const double passes = static_cast<double>(asset.audioTracks.size() + (severalTracks ? 1 : 0));
    const double share = 1.0 / passes;
    double start = 0.0;
    const auto expected = [&](double rate) { return std::max(rate * asset.durationSeconds, 1.0); };

    Measurement m;
    for (const auto& track : asset.audioTracks) {
        if (!severalTracks) {
            break;
        }
        const SourceAudioFormat format = formatOf(track);
        PassProgress pass(progress, LevelingPhase::analyzing, expected(format.sampleRate), start,
                          share);
        m.tracks.push_back({track.streamIndex, track.layout, format.channels, format.sampleRate,
                            meterPass(asset, format, {track}, pass, isCancelled)});
        start += share;
    }
    PassProgress pass(progress, LevelingPhase::analyzing, expected(mix.sampleRate), start, share);
    auto series = std::make_shared<LevelingSeries>();
    series->duration = asset.durationSeconds;
    const LoudnessFigures figures =
        meterPass(asset, mix, asset.audioTracks, pass, isCancelled, series.get(), &m);
    m.series = std::move(series);
    if (!severalTracks) {
        m.tracks.push_back({asset.audioTracks.front().streamIndex, mixLayout, mix.channels,
                            mix.sampleRate, figures});
    }

    m.integratedLoudness = figures.integratedLoudness;
    m.truePeak = figures.truePeak;
    m.samplePeak = figures.samplePeak;
    m.loudnessRange = figures.loudnessRange;
    m.maxMomentary = figures.maxMomentary;
    m.maxShortTerm = figures.maxShortTerm;
    m.duration = asset.durationSeconds;
    m.sampleRate = mix.sampleRate;
    m.channels = mix.channels;
    m.layout = mixLayout;
    m.codec = asset.audioTracks.front().codec;
    m.bitRate = asset.audioTracks.front().bitRate;
    return m;
}

} // namespace

Measurement measure(const std::filesystem::path& source, const ProgressHandler& progress,
                    const CancelCheck& isCancelled) {
    return inWords([&] { return measureSource(source, progress, isCancelled); });
}

} // namespace ostrand::LevelingEngine
