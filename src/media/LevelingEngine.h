#pragma once

#include "LevelingReport.h"
#include "LevelingRequest.h"
#include "dsp/LoudnessMeter.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// Levels one file from end to end: analysis pass, gain plan, leveling pass
// with the true-peak limiter, output (and optional 24-bit WAV sidecar beside a
// video), measurement of what was written. Runs on the caller's thread, which
// must not be a UI thread; `progress` and `isCancelled` are called from it.
namespace ostrand::LevelingEngine {

inline constexpr double analysisShare = 0.3; // of the job's progress
// Lossy outputs: the limiter's threshold sits this far below the ceiling,
// for the peaks the encoder adds.
inline constexpr double lossyHeadroomDb = 0.3;
// A written file over the ceiling by more than overCeilingDb, by the
// writer's meter, is leveled again, at most maxRetries times, with the
// limiter's threshold lowered by the excess and this margin; the retries
// take the last share of the progress.
inline constexpr double retryMarginDb = 0.1;
// A file under the ceiling whose loudness, by the writer's meter, misses the
// target by more than this (but not by the warning's LU, which is material
// the ceiling holds down) is planned again, for a target moved by the miss:
// the plan's limiter model is per frame, the limiter per sample. Both kinds
// of retry share the maxRetries.
inline constexpr double replanOffTargetLu = 0.2;
// A later plan's move is at most this many times its miss.
inline constexpr double minReplanResponse = 0.5;
inline constexpr int maxRetries = 4;
inline constexpr double retryShare = 0.15;
// Warnings: the output's loudness this far from the target, its true peak
// further above the ceiling than a figure shown to a tenth can tell.
inline constexpr double offTargetWarningLu = 1.0;
inline constexpr double overCeilingDb = 0.05;

using ProgressHandler = std::function<void(const LevelingProgress&)>;
using CancelCheck = std::function<bool()>;

// Writes the output at the request's destination. A file that holds that
// name by the time the output is complete is replaced, passed over for the
// next free numbered name, or left alone with a failure, as `existing` says;
// the report names the file written. The sidecar follows the output's final
// name. Throws OstrandError (cancelled when isCancelled() turned true). On
// failure no output and no sidecar is left behind, and no file that was
// already there is touched.
LevelingReport process(const LevelingRequest& request, const ProgressHandler& progress,
                       const CancelCheck& isCancelled);

// What a finished report should tell the user though the file was written:
// no speech found, loudness more than offTargetWarningLu from the target, a
// true peak above the ceiling. Plain sentences, in that order.
std::vector<std::string> warnings(const LevelingReport& report, double targetLufs, double ceilingDb,
                                  bool speechFound);

// What a programme meter reads on one audio track, or on the tracks' mix,
// on its own channel layout.
struct ProgrammeMeasurement {
    int streamIndex = -1; // -1 for the mix
    std::string layout;   // "stereo", "5.1(side)", ...
    std::int64_t channels = 0;
    double sampleRate = 0.0; // Hz
    LoudnessFigures loudness{};
};

// The loudness figures of a file: its mix (the only track, or the tracks
// summed: on their layout when they share one, else mixed down as for
// leveling) and each track.
struct Measurement {
    double integratedLoudness = 0.0; // LUFS
    double truePeak = 0.0;           // dBTP
    double samplePeak = 0.0;         // dBFS
    double loudnessRange = 0.0;      // LU
    double maxMomentary = 0.0;       // LUFS
    double maxShortTerm = 0.0;       // LUFS
    double duration = 0.0;           // seconds, of the source
    double sampleRate = 0.0;         // Hz, of the mix
    std::int64_t channels = 0;       // of the mix
    std::string layout;              // of the mix
    std::vector<ProgrammeMeasurement> tracks;
    std::shared_ptr<const LevelingSeries> series; // the mix's short-term loudness

    // The loudness of the mix's speech alone (SpeechGate); Loudness::silence
    // without speech.
    double speechLoudness = 0.0; // LUFS
    // Unweighted levels of the mix (ProgrammeLevels); NaN where the programme
    // is too short for them.
    double rms = 0.0;        // dBFS
    double noiseFloor = 0.0; // dBFS, the quietest 500 ms
    // Seconds before the first sound the leveler takes as active and after
    // the last (SpeechGate).
    double headRoomTone = 0.0;
    double tailRoomTone = 0.0;
    // The first audio track's codec and bit rate, as the file states them.
    std::string codec;
    double bitRate = 0.0; // bit/s; 0 when the file does not say
};

// Reads the source once per track, and once more for the mix of several;
// progress runs 0 to 1 in the analyzing phase. Throws OstrandError.
Measurement measure(const std::filesystem::path& source, const ProgressHandler& progress,
                    const CancelCheck& isCancelled);

// The output's extension for a source ("mp4", "mov", "wav", "mkv", "m4a", ...).
std::string outputExtension(const std::filesystem::path& source);

} // namespace ostrand::LevelingEngine
