#pragma once

namespace ostrand {

// What the gain planner aims for. The target and the pause mode come from the
// user; the other six are the algorithm's fixed tuning for speech.
struct LevelingParameters {
    double targetLufs = -16.0;        // integrated loudness
    double trackingSigma = 0.9;       // seconds, Gaussian tracking the level of active frames
    double relativeGate = -15.0;      // dB below the local 3 s level a frame may be and stay active
    double absoluteGate = -50.0;      // dBFS, upper bound of the activity floor
    double maxBoost = 24.0;           // dB
    double maxCut = 30.0;             // dB, positive
    double gainSmoothingSigma = 0.15; // seconds
    // Judges pauses against the recording's own noise floor, so that a noisy
    // room or a music bed between phrases is not leveled up like speech.
    bool noiseAwarePauses = false;

    static LevelingParameters forTarget(double targetLufs, bool noiseAwarePauses = false) {
        LevelingParameters parameters;
        parameters.targetLufs = targetLufs;
        parameters.noiseAwarePauses = noiseAwarePauses;
        return parameters;
    }

    friend bool operator==(const LevelingParameters&, const LevelingParameters&) = default;
};

} // namespace ostrand
