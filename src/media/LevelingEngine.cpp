#include "LevelingEngine.h"

#include "MediaAsset.h"
#include "MixedAudioReader.h"
#include "OstrandError.h"
#include "OutputFormat.h"
#include "dsp/FrameAnalysis.h"
#include "dsp/FrameAnalyzer.h"
#include "dsp/GainCurveBuilder.h"
#include "dsp/Loudness.h"
#include "dsp/TruePeakLimiter.h"
#include "dsp/TruePeakMeter.h"
#include "dsp/VectorOps.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>
#include <memory>
#include <system_error>
#include <vector>

namespace ostrand::LevelingEngine {

namespace {

// Reports a pass's progress when it has moved by more than half a percent,
// so a pass sends at most about 200 reports.
class PassProgress {
public:
    PassProgress(const ProgressHandler& handler, LevelingPhase phase, double expectedSamples,
                 double start, double share)
        : m_handler(handler)
        , m_phase(phase)
        , m_expected(expectedSamples)
        , m_start(start)
        , m_share(share) {}

    void advance(std::int64_t samples) {
        m_read += samples;
        const double f = static_cast<double>(m_read) / m_expected;
        if (f - m_lastReported > 0.005) {
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
    std::int64_t m_read = 0;
    double m_lastReported = 0.0;
};

void checkCancelled(const CancelCheck& isCancelled) {
    if (isCancelled && isCancelled()) {
        throw OstrandError::cancelled();
    }
}

struct OpenedSource {
    MediaAsset asset;
    SourceAudioFormat format;
    std::vector<MediaAsset::AudioTrack> tracks;
};

OpenedSource openSource(const std::filesystem::path& source, bool forceMono,
                        const CancelCheck& isCancelled) {
    MediaAsset asset = MediaAsset::open(source, isCancelled);
    auto [format, tracks] = MixedAudioReader::probe(asset, forceMono);
    // The rate becomes the time scale of the written audio.
    if (!FrameAnalyzer::supportsFormat(format.sampleRate, format.channels) ||
        format.sampleRate > static_cast<double>(std::numeric_limits<std::int32_t>::max())) {
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

// Read-only pointers to a block's channels, advanced past samples already
// used; one per pass, reused for every block.
class ChannelView {
public:
    std::span<const float* const> of(std::span<float* const> planar, std::int64_t skip) {
        m_pointers.resize(planar.size());
        for (std::size_t c = 0; c < planar.size(); ++c) {
            m_pointers[c] = planar[c] + skip;
        }
        return m_pointers;
    }

private:
    std::vector<const float*> m_pointers;
};

// The limiter's deepest reduction per frame of the written audio. Its
// output lags by its latency, which the written audio drops, so output
// sample j of the limiter is sample j - latency of the file.
class ReductionTrack {
public:
    ReductionTrack(std::int64_t frameLength, std::int64_t latency)
        : m_frameLength(frameLength)
        , m_position(-latency) {}

    // A frame's stretch at a time: no division per sample.
    void add(std::span<const float> gains) {
        std::size_t i = 0;
        if (m_position < 0) {
            const auto skipped = std::min(static_cast<std::size_t>(-m_position), gains.size());
            i = skipped;
            m_position += static_cast<std::int64_t>(skipped);
        }
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
    std::int64_t m_position;
    std::vector<float> m_lowest; // linear gain
};

} // namespace

std::string outputExtension(const std::filesystem::path& source) {
    return OutputFormat::forSource(source).extension;
}

FileType fileType(std::string_view extension) {
    return OutputFormat::forOutputExtension(extension).container;
}

namespace {

LevelingReport level(const std::filesystem::path& source, const std::filesystem::path& destination,
                     OutputNaming::ExistingFile existing, const LevelingParameters& parameters,
                     double truePeakCeiling, bool forceMono,
                     const std::optional<std::filesystem::path>& audioSidecar,
                     const ProgressHandler& progress, const CancelCheck& isCancelled) {
    // Refused before anything is opened, though the writer would never
    // replace the source either.
    if (sameFile(source, destination) || (audioSidecar && sameFile(source, *audioSidecar))) {
        throw OstrandError::writerFailed("the destination is the source file itself");
    }

    OpenedSource opened = openSource(source, forceMono, isCancelled);
    const MediaAsset& asset = opened.asset;
    const OutputFormat::Rule rule = OutputFormat::forSource(source);
    const MediaWriter::Encoding encoding = rule.audioFor(!asset.videoTracks.empty());
    // Read at the rate the output codec takes (Opus: 48 kHz), so the plan and
    // the limiter see exactly what is encoded.
    opened.format.sampleRate = OutputFormat::encodedSampleRate(encoding, opened.format.sampleRate);
    const double rate = opened.format.sampleRate;
    const std::int64_t channels = opened.format.channels;
    const double expectedSamples = std::max(rate * asset.durationSeconds, 1.0);

    // Analysis pass.
    FrameAnalyzer analyzer(rate, channels);
    {
        PassProgress pass(progress, LevelingPhase::analyzing, expectedSamples, 0.0, analysisShare);
        MixedAudioReader reader(asset, opened.format, opened.tracks, isCancelled);
        ChannelView view;
        reader.read([&](std::span<float* const> planar, std::int64_t count, MediaTime) {
            checkCancelled(isCancelled);
            analyzer.append(view.of(planar, 0), count);
            pass.advance(count);
        });
    }
    auto series = std::make_shared<LevelingSeries>();
    series->frameSeconds = static_cast<double>(analyzer.frameLength()) / rate;
    series->duration = asset.durationSeconds;
    series->targetLoudness = parameters.targetLoudness;
    const GainCurve curve = [&] {
        const FrameAnalysis analysis = std::move(analyzer).analysis();
        series->inputLoudness = Loudness::shortTerm(analysis.kPower);
        return GainCurveBuilder::build(analysis, parameters, truePeakCeiling,
                                       limiterReleaseMs / 1000.0);
    }();

    // Writers. From here on every failure removes what was written.
    MediaWriter output(destination, existing, rule.container, rate, channels, encoding, asset,
                       asset.videoTracks, true);
    std::unique_ptr<MediaWriter> sidecar;
    TruePeakLimiter limiter(channels, rate, truePeakCeiling, limiterLookaheadMs, limiterReleaseMs);
    FrameAnalyzer outputAnalyzer(rate, channels);
    ReductionTrack reduction(curve.frameLength, limiter.latency());
    try {
        if (!asset.videoTracks.empty() && audioSidecar) {
            sidecar = std::make_unique<MediaWriter>(
                *audioSidecar, OutputNaming::ExistingFile::keepAndNumber, FileType::wave, rate,
                channels, MediaWriter::Encoding::pcm24, asset,
                std::vector<MediaAsset::VideoTrack>{});
        }

        const auto timeScale = static_cast<std::int32_t>(rate);
        std::int64_t position = 0;
        std::int64_t written = 0;
        std::int64_t skip = limiter.latency();
        std::optional<MediaTime> startTime;
        std::vector<float> gain;
        ChannelView view;
        const auto write = [&](std::span<float* const> planar, std::int64_t from, std::int64_t n) {
            const std::span<const float* const> block = view.of(planar, from);
            outputAnalyzer.append(block, n);
            const MediaTime at =
                startTime.value_or(MediaTime{}).advancedBySamples(written, timeScale);
            output.appendAudio(block, n, at);
            if (sidecar) {
                sidecar->appendAudio(block, n, at);
            }
            written += n;
        };

        PassProgress pass(progress, LevelingPhase::leveling, expectedSamples, analysisShare,
                          1.0 - analysisShare);
        MixedAudioReader reader(asset, opened.format, opened.tracks, isCancelled);
        reader.read([&](std::span<float* const> planar, std::int64_t count, MediaTime time) {
            checkCancelled(isCancelled);
            if (!startTime) {
                startTime = time;
            }
            if (gain.size() < static_cast<std::size_t>(count)) {
                gain.resize(static_cast<std::size_t>(count), 1.0f);
            }
            const std::span<float> blockGain(gain.data(), static_cast<std::size_t>(count));
            fillGainRamp(curve.gainDB, curve.frameLength, position, blockGain);
            for (std::size_t c = 0; c < static_cast<std::size_t>(channels); ++c) {
                float* samples = planar[c];
                for (std::size_t i = 0; i < blockGain.size(); ++i) {
                    samples[i] *= blockGain[i];
                }
            }
            position += count;
            limiter.process(planar.first(static_cast<std::size_t>(channels)), count);
            reduction.add(limiter.gains());

            // The limiter's first output is its own silence, not the source.
            const std::int64_t dropped = std::min(skip, count);
            skip -= dropped;
            if (count > dropped) {
                write(planar, dropped, count - dropped);
            }
            pass.advance(count);
        });

        // The tail: the last samples still in the limiter's delay line.
        const std::int64_t latency = limiter.latency();
        std::vector<std::vector<float>> tail(
            static_cast<std::size_t>(channels),
            std::vector<float>(static_cast<std::size_t>(latency), 0.0f));
        std::vector<float*> tailPointers;
        for (auto& channel : tail) {
            tailPointers.push_back(channel.data());
        }
        limiter.process(tailPointers, latency);
        reduction.add(limiter.gains());
        write(tailPointers, 0, latency);

        // Both files complete before either takes a name, so a failure
        // leaves neither. The sidecar follows an output that had to move on
        // to another name.
        output.complete();
        if (sidecar) {
            sidecar->complete();
        }
        output.finish();
        if (sidecar) {
            try {
                if (output.url() != destination) {
                    std::filesystem::path beside = output.url();
                    sidecar->setURL(beside.replace_extension(OutputNaming::sidecarExtension));
                }
                sidecar->finish();
            } catch (...) {
                std::error_code ignored;
                std::filesystem::remove(output.url(), ignored);
                throw;
            }
        }
    } catch (...) {
        output.cancel();
        if (sidecar) {
            sidecar->cancel();
        }
        throw;
    }
    if (progress) {
        progress(LevelingProgress{LevelingPhase::leveling, 1.0});
    }

    LevelingReport report;
    report.outputURL = output.url();
    if (sidecar) {
        report.audioSidecarURL = sidecar->url();
    }
    report.notes = output.notes();
    report.duration = asset.durationSeconds;
    report.inputLoudness = curve.inputLoudness;
    report.outputLoudness = Loudness::integrated(outputAnalyzer.kPower());
    report.limiterGainReduction = limiter.maxGainReduction();
    if (!curve.gainDB.empty()) {
        const auto [lowest, highest] =
            std::minmax_element(curve.gainDB.begin(), curve.gainDB.end());
        report.minGain = *lowest;
        report.maxGain = *highest;
    }
    report.activeFraction = curve.activeFraction;

    series->outputLoudness = Loudness::shortTerm(outputAnalyzer.kPower());
    // The written audio has the source's length, so its frames line up with
    // the plan's; a frame short at the end is left to the plan.
    const std::size_t frames = series->inputLoudness.size();
    series->outputLoudness.resize(frames, static_cast<float>(Loudness::loudnessOf(0.0)));
    series->gain.assign(curve.gainDB.begin(), curve.gainDB.end());
    series->limiterReduction = reduction.decibels(frames);
    series->active = curve.active;
    report.series = std::move(series);
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

LevelingReport process(const std::filesystem::path& source,
                       const std::filesystem::path& destination,
                       OutputNaming::ExistingFile existing, const LevelingParameters& parameters,
                       double truePeakCeiling, bool forceMono,
                       const std::optional<std::filesystem::path>& audioSidecar,
                       const ProgressHandler& progress, const CancelCheck& isCancelled) {
    return inWords([&] {
        return level(source, destination, existing, parameters, truePeakCeiling, forceMono,
                     audioSidecar, progress, isCancelled);
    });
}

namespace {

Measurement measureSource(const std::filesystem::path& source, bool forceMono,
                          const ProgressHandler& progress, const CancelCheck& isCancelled) {
    const OpenedSource opened = openSource(source, forceMono, isCancelled);
    const double rate = opened.format.sampleRate;
    const std::int64_t channels = opened.format.channels;

    FrameAnalyzer analyzer(rate, channels);
    TruePeakMeter meter(channels);
    std::vector<float> peaks;
    float samplePeak = 0.0f;
    PassProgress pass(progress, LevelingPhase::analyzing,
                      std::max(rate * opened.asset.durationSeconds, 1.0), 0.0, 1.0);
    MixedAudioReader reader(opened.asset, opened.format, opened.tracks, isCancelled);
    ChannelView view;
    reader.read([&](std::span<float* const> planar, std::int64_t count, MediaTime) {
        checkCancelled(isCancelled);
        const std::span<const float* const> block = view.of(planar, 0);
        analyzer.append(block, count);
        peaks.resize(std::max(peaks.size(), static_cast<std::size_t>(count)));
        meter.process(block, count, peaks);
        for (const float* channel : block) {
            samplePeak = std::max(samplePeak, VectorOps::maxMagnitude(channel, count));
        }
        pass.advance(count);
    });
    // The interpolator lags by a few samples: flush them.
    const std::vector<float> zeros(TruePeakMeter::firDelay, 0.0f);
    const std::vector<const float*> tail(static_cast<std::size_t>(channels), zeros.data());
    peaks.resize(std::max(peaks.size(), zeros.size()));
    meter.process(tail, TruePeakMeter::firDelay, peaks);

    const auto decibels = [](double amplitude) {
        return amplitude > 0.0 ? 20.0 * std::log10(amplitude)
                               : -std::numeric_limits<double>::infinity();
    };
    Measurement m;
    m.integratedLoudness = Loudness::integrated(analyzer.kPower());
    m.truePeak = decibels(static_cast<double>(meter.truePeak()));
    m.samplePeak = decibels(static_cast<double>(samplePeak));
    m.duration = opened.asset.durationSeconds;
    m.sampleRate = rate;
    m.channels = channels;
    auto series = std::make_shared<LevelingSeries>();
    series->frameSeconds = static_cast<double>(analyzer.frameLength()) / rate;
    series->duration = m.duration;
    series->inputLoudness = Loudness::shortTerm(analyzer.kPower());
    m.series = std::move(series);
    return m;
}

} // namespace

Measurement measure(const std::filesystem::path& source, bool forceMono,
                    const ProgressHandler& progress, const CancelCheck& isCancelled) {
    return inWords([&] { return measureSource(source, forceMono, progress, isCancelled); });
}

} // namespace ostrand::LevelingEngine
