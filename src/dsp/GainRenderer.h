#pragma once

#include "GainCurve.h"
#include "TruePeakLimiter.h"

#include <cstdint>
#include <span>
#include <vector>

namespace ostrand {

// The leveling pass's signal path: the plan's gains ramped per sample
// (fillGainRamp), then the true-peak limiter, with the limiter's delay taken
// out, so that output sample i is input sample i and the output is as long
// as the input. Every sample goes through the same operations in the same
// order whatever the block size. A value type; one owner, one thread. The
// plan's gains are not copied: the curve must outlive the renderer. Scratch
// grows to the largest block; append() does not allocate after that.
class GainRenderer {
public:
    // The limiter's tuning for speech; the planner models the same release.
    static constexpr double lookaheadMs = 5.0;
    static constexpr double releaseMs = 200.0;

    // Leveled samples ready for the output: `count` from each channel's
    // pointer, and the limiter's gain (linear, 1 or less) on each of them.
    // Valid until the next call.
    struct Block {
        std::span<const float* const> planar;
        std::int64_t count = 0;
        std::span<const float> limiterGains;
    };

    // ceilingDb: where the limiter holds the true peak, dBTP.
    GainRenderer(const GainCurve& curve, std::int64_t channels, double sampleRate,
                 double ceilingDb);
    GainRenderer(const GainCurve&&, std::int64_t, double, double) = delete;

    // Levels the next `count` samples of planar[0 ..< channels] in place and
    // returns the part of them that is output: the limiter holds back its
    // latency, so the first blocks of a file give fewer samples than they take.
    Block append(std::span<float* const> planar, std::int64_t count);

    // After the last append(), once: the samples the limiter still holds.
    Block flush();

    // Deepest reduction of the limiter so far, dB (0 or more).
    double maxGainReduction() const noexcept { return m_limiter.maxGainReduction(); }

private:
    Block output(std::span<float* const> planar, std::int64_t count);

    std::span<const double> m_gainDb;
    std::int64_t m_frameLength;
    TruePeakLimiter m_limiter;
    std::int64_t m_position = 0;
    std::int64_t m_held; // samples of the limiter's own silence still to drop
    std::vector<float> m_gain;
    std::vector<std::vector<float>> m_tail;
    std::vector<float*> m_tailPointers;
    std::vector<const float*> m_output;
};

} // namespace ostrand
