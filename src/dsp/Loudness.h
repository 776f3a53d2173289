#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

namespace ostrand::Loudness {

// Gating of ITU-R BS.1770 over 10 ms frames: 400 ms blocks, 75 % overlap.
inline constexpr std::int64_t blockFrames = 40;
inline constexpr std::int64_t hopFrames = 10;
inline constexpr double absoluteGateLufs = -70.0;
inline constexpr double relativeGateLu = -10.0;
inline constexpr double powerFloor = 1e-20; // loudnessOf(0) is -200.691, never -inf
inline constexpr double offsetDb = -0.691;
inline constexpr std::int64_t shortTermFrames = 300; // 3 s

// The integrated loudness of a programme with no block above the absolute
// gate (or none at all): what every meter here reports for silence, as
// libebur128 does.
inline constexpr double silence = -std::numeric_limits<double>::infinity();

// Whether a figure is silence to a gated meter: below the absolute gate. The
// report and the graph show such a figure as "silent".
constexpr bool isSilent(double lufs) noexcept {
    return lufs < absoluteGateLufs;
}

// A programme shorter than one gating block (400 ms) has no loudness at all:
// its figure reads as silence, and is shown as too short to measure.
inline constexpr double shortestMeasurableSeconds = 0.4;

// Loudness in LUFS of a K-weighted power relative to full scale squared.
double loudnessOf(double power) noexcept;

// Mean power of the blocks whose loudness is strictly above `gate` LUFS,
// summed in block order; the count is zero when none passes.
struct GatedMean {
    double mean = 0.0;
    std::size_t count = 0;
};
GatedMean gatedMean(std::span<const double> blockPowers, double gate);

// Gated integrated loudness in LUFS of per-frame K-weighted powers (channels
// summed), `silence` when no block passes the absolute gate. Fewer than 40
// frames (no whole block) give their ungated mean, so that a clip still has
// a figure to plan by; no frames give `silence`. Pure; any thread.
double integrated(std::span<const double> kPower);

// Short-term loudness in LUFS at each frame: the mean power of the 3 s ending
// with it, or of all frames so far during the first 3 s. Pure; any thread.
std::vector<float> shortTerm(std::span<const double> kPower);

} // namespace ostrand::Loudness
