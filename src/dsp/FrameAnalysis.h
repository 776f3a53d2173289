#pragma once

#include <cstdint>
#include <vector>

namespace ostrand {

// The per-frame measurements of one stream after its analysis pass.
// Frame i covers samples i * frameLength ..< (i + 1) * frameLength.
struct FrameAnalysis {
    double sampleRate = 0.0;
    std::int64_t channels = 0;
    std::int64_t frameLength = 0;
    std::vector<double> meanSquare; // unweighted, averaged over channels
    std::vector<double> kPower;     // K-weighted, summed over channels
    std::vector<double> peak;       // largest |sample| of any channel, linear
    std::int64_t totalSamples = 0;  // per channel, including a partial last frame
};

} // namespace ostrand
