#pragma once

#include <filesystem>
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

// The result of leveling one file.
struct LevelingReport {
    std::filesystem::path outputURL;
    std::optional<std::filesystem::path> audioSidecarURL;
    double duration = 0.0;             // seconds, of the source
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
    // chapters ...), one plain sentence each; empty when everything was kept.
    std::vector<std::string> notes = {};

    friend bool operator==(const LevelingReport&, const LevelingReport&) = default;
};

} // namespace ostrand
