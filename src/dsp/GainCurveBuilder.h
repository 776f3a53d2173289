#pragma once

#include "FrameAnalysis.h"
#include "GainCurve.h"
#include "LevelingParameters.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

// Plans the gain ride of one file from its analysis: finds the active
// (speech) frames, tracks their level with a wide Gaussian, turns it into a
// smoothed gain toward a fixed reference and shifts the curve until the
// predicted loudness after the limiter meets the target. Pure functions.
namespace ostrand::GainCurveBuilder {

inline constexpr double framesPerSecond = 100.0;
inline constexpr double referenceLevelDb = -16.0; // level the raw gain aims at before the shift
inline constexpr double powerEpsilon = 1e-14;     // digital silence reads -140 dB
inline constexpr std::int64_t localLevelFrames = 300;
inline constexpr double floorBelowP95Db = 30.0;
inline constexpr double minTrackingWeight = 0.05;
inline constexpr double levelWithoutActivityDb = -30.0;
inline constexpr double loudnessToleranceLu = 0.02;
inline constexpr int maxPredictions = 4;

// Which frames the plan takes for speech. A frame is active when it lies
// above an absolute floor (under the loudest 5 % of frames, at most
// absoluteGate) and no more than relativeGate under the 3 s around it; with
// noiseAwarePauses, the pauses PauseDetector finds by contrast and frames
// the room's noise dominates are not, where the room is loud enough to pass
// those gates (`engaged`). `pause` and `engaged` stay empty without
// noiseAwarePauses.
struct Activity {
    std::vector<unsigned char> active;
    std::vector<unsigned char> pause;
    std::vector<unsigned char> engaged;
};
Activity findActivity(const FrameAnalysis& analysis, const LevelingParameters& parameters);

// ceilingDb: where GainRenderer's limiter will be set, dBTP; the plan
// predicts what it takes away.
GainCurve build(const FrameAnalysis& analysis, const LevelingParameters& parameters,
                double ceilingDb);

// Centred moving average of `width` frames, clipped at the ends.
std::vector<double> boxMean(std::span<const double> x, std::int64_t width);

// Value at rank trunc(p * (n - 1)) of the sorted values; 0 for none.
double percentile(std::span<const double> x, double p);
// That rank, trunc(p * (count - 1)), for count > 0.
std::size_t percentileRank(std::size_t count, double p);

// Normalised Gaussian smoothing (sigma in frames) with the end values held;
// returns the input for fewer than two values or sigma <= 0.3.
std::vector<double> gaussianFilter(std::span<const double> x, double sigma);

// Replaces NaN entries: held before the first and after the last value,
// straight lines between values, -30 when nothing is known.
void fillGaps(std::span<double> x) noexcept;

} // namespace ostrand::GainCurveBuilder
