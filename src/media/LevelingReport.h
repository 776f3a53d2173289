#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ostrand {

enum class LevelingPhase { analyzing, leveling };

// "Analyzing" / "Leveling"; fromRawValue gives nothing for any other text.
const char* rawValue(LevelingPhase phase) noexcept;
std::optional<LevelingPhase> levelingPhaseFromRawValue(const std::string& text);

// Progress of one job: the pass and the completed fraction of the whole job.
struct LevelingProgress {
    LevelingPhase phase = LevelingPhase::analyzing;
    double fraction = 0.0;

    friend bool operator==(const LevelingProgress&, const LevelingProgress&) = default;
};

// What happened to a file over time, one value per analysis frame (about
// 100 a second), for drawing it. Floats keep a three-hour file near 20 MB.
struct LevelingSeries {
    double frameSeconds = 0.01; // length of one frame
    double duration = 0.0;      // seconds, of the source
    // Short-term (3 s) loudness of the source, LUFS.
    std::vector<float> inputLoudness;
    // The rest only for a leveled file; empty for a measurement.
    std::vector<float> outputLoudness;   // short-term loudness of the written audio, LUFS
    std::vector<float> gain;             // the planned gain, dB
    std::vector<float> limiterReduction; // deepest reduction of the limiter, dB (0 or more)
    std::vector<unsigned char> active;   // 1 where the plan found speech, 0 in pauses
    std::optional<double> targetLufs;

    bool isLeveled() const noexcept { return !gain.empty(); }
    std::size_t frames() const noexcept { return inputLoudness.size(); }
};

// Where a job's time went, in seconds of the thread that spent it: the job's
// thread reads the source twice, analyses it, plans, renders and meters its
// own output; each writer's thread, beside it, encodes, meters what a player
// will hear and writes the file. Retries add their passes.
struct StageTimes {
    double decode = 0.0;   // reading and decoding the source
    double analysis = 0.0; // the first pass's frame analysis
    double plan = 0.0;     // every gain plan
    double render = 0.0;   // gain ramp and limiter
    double handOver = 0.0; // the job's thread waiting for the writers
    double encode = 0.0;   // writers: sample conversion and the codec
    double write = 0.0;    // writers: muxing into the file
    double check = 0.0;    // the meters of the written audio
    double total = 0.0;    // the job, by the wall clock

    friend bool operator==(const StageTimes&, const StageTimes&) = default;
};

// The result of leveling one file.
struct LevelingReport {
    std::filesystem::path outputURL;
    std::optional<std::filesystem::path> audioSidecarURL;
    double duration = 0.0; // seconds, of the source
    // Loudness figures are Loudness::silence where nothing rises above the
    // absolute gate.
    double inputLoudness = 0.0;        // LUFS, as the plan measured it
    double outputLoudness = 0.0;       // LUFS, measured on the written audio
    double limiterGainReduction = 0.0; // dB, deepest reduction of the limiter
    double minGain = 0.0;              // dB, smallest planned gain
    double maxGain = 0.0;              // dB, largest planned gain
    double activeFraction = 0.0;       // share of frames judged active
    // The written file as a programme meter reads it; for a lossy codec, on
    // the decoded encoded stream.
    double outputTruePeak = 0.0;           // dBTP
    double outputIntegratedLoudness = 0.0; // LUFS, gated
    // What went wrong with the result without failing it ("the output is
    // 2.1 LU quieter than the target"), one plain sentence each.
    std::vector<std::string> warnings = {};
    // What of the source the output could not keep (subtitles, cover art,
    // chapters ...) and whether the limiter's threshold had to be lowered to
    // keep the ceiling, one plain sentence each; empty when neither.
    std::vector<std::string> notes = {};
    StageTimes stageTimes = {};
    // Shared, so that copies of a report stay cheap; null when not drawn.
    std::shared_ptr<const LevelingSeries> series = {};

    friend bool operator==(const LevelingReport&, const LevelingReport&) = default;
};

} // namespace ostrand
