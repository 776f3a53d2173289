#pragma once

#include <span>

namespace ostrand {

// One second-order section in transposed direct form II. Coefficients are
// normalised by a0; the feedback coefficients carry the sign of
//   y[n] = b0 x[n] + b1 x[n-1] + b2 x[n-2] - a1 y[n-1] - a2 y[n-2].
// State is kept in double between calls; only the output samples are narrowed.
struct Biquad {
    double b0 = 1.0;
    double b1 = 0.0;
    double b2 = 0.0;
    double a1 = 0.0;
    double a2 = 0.0;
    double z1 = 0.0;
    double z2 = 0.0;

    // Filters the samples in place, continuing from the current state.
    void process(std::span<float> samples) noexcept;

    // One step of the recurrence. Every filtering path goes through this, so
    // the fused multi-channel loops give bit-identical results.
    [[gnu::always_inline]] inline float tick(float sample) noexcept {
        const double x = static_cast<double>(sample);
        const double y = z1 + b0 * x;
        z1 = z2 + (b1 * x - a1 * y);
        z2 = b2 * x - a2 * y;
        return static_cast<float>(y);
    }
};

} // namespace ostrand
