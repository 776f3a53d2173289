#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace ostrand {

// The planned gain ride of one file: one gain per analysis frame.
struct GainCurve {
    std::vector<double> gainDB; // entry i applies from sample i * frameLength
    std::int64_t frameLength = 0;
    double inputLoudness = 0.0;           // LUFS
    double predictedOutputLoudness = 0.0; // LUFS, last prediction of the planner
    double activeFraction = 0.0;          // share of frames judged active, 0 ... 1
    std::vector<unsigned char> active;    // per frame, 1 where the plan found speech
};

// Per-sample gains (linear) for absolute input samples position ... position +
// out.size() - 1. The gain moves linearly in amplitude from frame i's gain at
// the first sample of frame i to frame i + 1's gain at the first sample of
// frame i + 1; past the last frame the last gain holds. A plan without frames
// (a source shorter than one frame) gives unity gain.
void fillGainRamp(std::span<const double> gainDB, std::int64_t frameLength, std::int64_t position,
                  std::span<float> out) noexcept;

} // namespace ostrand
