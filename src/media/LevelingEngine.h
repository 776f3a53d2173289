#pragma once

#include "LevelingReport.h"
#include "MediaWriter.h"
#include "OutputNaming.h"
#include "dsp/LevelingParameters.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// Levels one file from end to end: analysis pass, gain plan, leveling pass
// with the true-peak limiter, output (and optional 24-bit WAV sidecar beside a
// video), measurement of what was written. Runs on the caller's thread, which
// must not be a UI thread; `progress` and `isCancelled` are called from it.
namespace ostrand::LevelingEngine {

inline constexpr double limiterLookaheadMs = 5.0;
inline constexpr double limiterReleaseMs = 200.0;
inline constexpr double analysisShare = 0.3; // of the job's progress

using ProgressHandler = std::function<void(const LevelingProgress&)>;
using CancelCheck = std::function<bool()>;

// Writes the output at `destination`, or, when a file takes that name by the
// time the output is complete and `existing` says so, at the next free
// numbered name; the report names the file written. The sidecar follows the
// output's final name. Throws OstrandError (cancelled when isCancelled()
// turned true). On failure no output and no sidecar is left behind, and no
// file that was already there is touched.
LevelingReport process(const std::filesystem::path& source,
                       const std::filesystem::path& destination,
                       OutputNaming::ExistingFile existing, const LevelingParameters& parameters,
                       double truePeakCeiling, bool forceMono,
                       const std::optional<std::filesystem::path>& audioSidecar,
                       const ProgressHandler& progress, const CancelCheck& isCancelled);

// The loudness figures of a file's mixed audio, from the analysis pass only.
struct Measurement {
    double integratedLoudness = 0.0;              // LUFS
    double truePeak = 0.0;                        // dBTP, 4x oversampled estimate
    double samplePeak = 0.0;                      // dBFS
    double duration = 0.0;                        // seconds, of the source
    double sampleRate = 0.0;                      // Hz, of the mixed stream
    std::int64_t channels = 0;                    // of the mixed stream
    std::shared_ptr<const LevelingSeries> series; // the source's loudness only
};

// Reads the source once; progress runs 0 to 1 in the analyzing phase.
// Throws OstrandError.
Measurement measure(const std::filesystem::path& source, bool forceMono,
                    const ProgressHandler& progress, const CancelCheck& isCancelled);

// The output's extension for a source ("mp4", "mov", "wav", "mkv", "m4a", ...)
// and the container an output extension stands for (OutputFormat's table).
std::string outputExtension(const std::filesystem::path& source);
FileType fileType(std::string_view extension);

} // namespace ostrand::LevelingEngine
