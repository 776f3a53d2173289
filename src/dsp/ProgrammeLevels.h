#pragma once

#include "FrameAnalysis.h"

#include <cstdint>

// Unweighted levels of a whole programme from its analysis, as audiobook
// stores check them (the ACX Check plug-in reads them so). dBFS here is the
// mean square of the samples, all channels together, against full scale: a
// full-scale sine reads -3.01. Pure functions.
namespace ostrand::ProgrammeLevels {

// The noise floor is the quietest stretch of this many frames (500 ms).
inline constexpr std::int64_t noiseFloorFrames = 50;

// The RMS level of every whole frame; NaN without frames, -infinity for
// digital silence.
double rmsDb(const FrameAnalysis& analysis);

// The RMS level of the quietest noiseFloorFrames frames in a row, a stretch
// starting at any frame; NaN for a programme shorter than that.
double noiseFloorDb(const FrameAnalysis& analysis);

} // namespace ostrand::ProgrammeLevels
