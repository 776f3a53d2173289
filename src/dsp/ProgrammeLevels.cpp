#include "ProgrammeLevels.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

namespace ostrand::ProgrammeLevels {

namespace {

double decibels(double meanSquare) {
    return meanSquare > 0.0 ? 10.0 * std::log10(meanSquare)
                            : -std::numeric_limits<double>::infinity();
}

double meanOf(const std::vector<double>& values, std::size_t from, std::size_t count) {
    double sum = 0.0;
    for (std::size_t i = from; i < from + count; ++i) {
        sum += values[i];
    }
    return sum / static_cast<double>(count);
}

} // namespace

double rmsDb(const FrameAnalysis& analysis) {
    const std::vector<double>& power = analysis.meanSquare;
    if (power.empty()) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    return decibels(meanOf(power, 0, power.size()));
}

double noiseFloorDb(const FrameAnalysis& analysis) {
    const std::vector<double>& power = analysis.meanSquare;
    const auto stretch = static_cast<std::size_t>(noiseFloorFrames);
    if (power.size() < stretch) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    // Summed afresh for every stretch: a running sum would carry the rounding
    // of a loud passage into the quiet one after it.
    double quietest = std::numeric_limits<double>::infinity();
    for (std::size_t start = 0; start + stretch <= power.size(); ++start) {
        quietest = std::min(quietest, meanOf(power, start, stretch));
    }
    return decibels(quietest);
}

} // namespace ostrand::ProgrammeLevels
