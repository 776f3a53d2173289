// Throughput of the DSP core on 48 kHz stereo speech-like audio, fed in the
// block size the media reader delivers. "x_realtime" is seconds of audio
// processed per second of wall time (per core: benchmarks run one thread).

#include "dsp/FrameAnalyzer.h"
#include "dsp/GainCurveBuilder.h"
#include "dsp/GainRenderer.h"
#include "dsp/KWeightingFilter.h"
#include "dsp/LoudnessMeter.h"
#include "dsp/SpeechGate.h"
#include "dsp/TruePeakLimiter.h"
#include "support/Signals.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

namespace {

using namespace ostrand;

constexpr double sampleRate = 48000.0;
constexpr int channels = 2;
constexpr std::int64_t block = 4096;

const test::PlanarAudio& programme() {
    static const test::PlanarAudio audio = [] {
        test::PlanarAudio a = test::speechLike(sampleRate, channels, 20.0, 1);
        a.applyGainDb(12.0); // enough to keep the limiter busy
        return a;
    }();
    return audio;
}

void reportThroughput(benchmark::State& state, std::int64_t samplesPerChannel) {
    const auto processed =
        static_cast<double>(samplesPerChannel) * static_cast<double>(state.iterations());
    state.counters["samples_per_s"] =
        benchmark::Counter(processed * channels, benchmark::Counter::kIsRate);
    state.counters["x_realtime"] =
        benchmark::Counter(processed / sampleRate, benchmark::Counter::kIsRate);
}

void BM_KWeighting(benchmark::State& state) {
    test::PlanarAudio work = programme();
    KWeightingFilter filter(sampleRate, channels);
    std::vector<float*> pointers = work.pointers();
    for (auto _ : state) {
        for (std::int64_t start = 0; start < work.frames(); start += block) {
            const std::int64_t n = std::min(block, work.frames() - start);
            std::vector<float*> at{pointers[0] + start, pointers[1] + start};
            filter.processPlanar(at, n);
        }
        benchmark::ClobberMemory();
    }
    reportThroughput(state, work.frames());
}
BENCHMARK(BM_KWeighting)->Unit(benchmark::kMillisecond);

void BM_FrameAnalyzer(benchmark::State& state) {
    const test::PlanarAudio& audio = programme();
    for (auto _ : state) {
        FrameAnalyzer analyzer(sampleRate, channels);
        std::vector<const float*> pointers = audio.constPointers();
        for (std::int64_t start = 0; start < audio.frames(); start += block) {
            const std::int64_t n = std::min(block, audio.frames() - start);
            analyzer.append(pointers, n);
            for (auto& p : pointers) {
                p += n;
            }
        }
        benchmark::DoNotOptimize(analyzer.kPower().data());
    }
    reportThroughput(state, audio.frames());
}
BENCHMARK(BM_FrameAnalyzer)->Unit(benchmark::kMillisecond);

void BM_TruePeakLimiter(benchmark::State& state) {
    const test::PlanarAudio& audio = programme();
    test::PlanarAudio work = audio;
    for (auto _ : state) {
        state.PauseTiming();
        work.channels = audio.channels;
        state.ResumeTiming();
        TruePeakLimiter limiter(channels, sampleRate, -1.0, GainRenderer::lookaheadMs,
                                GainRenderer::releaseMs);
        std::vector<float*> pointers = work.pointers();
        for (std::int64_t start = 0; start < work.frames(); start += block) {
            const std::int64_t n = std::min(block, work.frames() - start);
            limiter.process(pointers, n);
            for (auto& p : pointers) {
                p += n;
            }
        }
        benchmark::DoNotOptimize(limiter.maxGainReduction());
    }
    reportThroughput(state, work.frames());
}
BENCHMARK(BM_TruePeakLimiter)->Unit(benchmark::kMillisecond);

// The programme meter on a finished file: K-weighting, windows, gating and
// the 8x true peak. Argument 0: speech as recorded; 1: the loud programme,
// whose peaks recur often enough to defeat much of the interpolation skip.
void BM_LoudnessMeter(benchmark::State& state) {
    static const test::PlanarAudio speech = test::speechLike(sampleRate, channels, 20.0, 1);
    const test::PlanarAudio& audio = state.range(0) != 0 ? programme() : speech;
    for (auto _ : state) {
        LoudnessMeter meter(sampleRate, {ChannelWeight::front, ChannelWeight::front});
        std::vector<const float*> pointers = audio.constPointers();
        for (std::int64_t start = 0; start < audio.frames(); start += block) {
            const std::int64_t n = std::min(block, audio.frames() - start);
            meter.append(pointers, n);
            for (auto& p : pointers) {
                p += n;
            }
        }
        benchmark::DoNotOptimize(meter.figures());
    }
    reportThroughput(state, audio.frames());
}
BENCHMARK(BM_LoudnessMeter)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The programme in a room whose noise sits at -45 dBFS.
const test::PlanarAudio& noisyProgramme() {
    static const test::PlanarAudio audio = [] {
        test::PlanarAudio a = programme();
        const test::PlanarAudio noise = test::pinkNoise(
            sampleRate, channels, static_cast<double>(a.frames()) / sampleRate, -45.0, 2);
        for (std::size_t c = 0; c < a.channels.size(); ++c) {
            for (std::size_t i = 0; i < a.channels[c].size(); ++i) {
                a.channels[c][i] += noise.channels[c][i];
            }
        }
        return a;
    }();
    return audio;
}

// One hour of frames: the analysis of 20 s repeated to 360,000 frames.
FrameAnalysis oneHour(const test::PlanarAudio& audio) {
    FrameAnalyzer analyzer(sampleRate, channels);
    analyzer.append(audio.constPointers(), audio.frames());
    const FrameAnalysis part = analyzer.analysis();
    FrameAnalysis hour = part;
    hour.meanSquare.clear();
    hour.kPower.clear();
    hour.peak.clear();
    while (hour.meanSquare.size() < 360000) {
        const std::size_t take = std::min(part.meanSquare.size(), 360000 - hour.meanSquare.size());
        hour.meanSquare.insert(hour.meanSquare.end(), part.meanSquare.begin(),
                               part.meanSquare.begin() + static_cast<std::ptrdiff_t>(take));
        hour.kPower.insert(hour.kPower.end(), part.kPower.begin(),
                           part.kPower.begin() + static_cast<std::ptrdiff_t>(take));
        hour.peak.insert(hour.peak.end(), part.peak.begin(),
                         part.peak.begin() + static_cast<std::ptrdiff_t>(take));
    }
    return hour;
}

// The arguments: the pause mode (0 the exact plan, 1 the default noise-aware
// pauses) and the programme (0 as recorded, 1 in a noisy room).
void BM_GainCurveBuildOneHour(benchmark::State& state) {
    const FrameAnalysis hour = oneHour(state.range(1) != 0 ? noisyProgramme() : programme());
    const auto parameters = LevelingParameters::forTarget(-16.0, state.range(0) != 0);
    for (auto _ : state) {
        const GainCurve curve = GainCurveBuilder::build(hour, parameters, -1.0);
        benchmark::DoNotOptimize(curve.gainDB.data());
    }
    state.counters["frames"] = static_cast<double>(hour.meanSquare.size());
}
BENCHMARK(BM_GainCurveBuildOneHour)
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({0, 1})
    ->Args({1, 1})
    ->Unit(benchmark::kMillisecond);

// What measure adds for the speech loudness of an hour, in a noisy room.
void BM_SpeechFramesOneHour(benchmark::State& state) {
    const FrameAnalysis hour = oneHour(noisyProgramme());
    for (auto _ : state) {
        const SpeechGate::Speech speech = SpeechGate::findSpeech(hour);
        benchmark::DoNotOptimize(speech.frames.data());
    }
}
BENCHMARK(BM_SpeechFramesOneHour)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
