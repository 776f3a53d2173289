#include "Loudness.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace ostrand::Loudness {

double loudnessOf(double power) noexcept {
    return 10.0 * std::log10(std::max(power, powerFloor)) + offsetDb;
}

GatedMean gatedMean(std::span<const double> blockPowers, double gate) {
    double sum = 0.0;
    std::size_t count = 0;
    for (const double p : blockPowers) {
        if (loudnessOf(p) > gate) {
            sum += p;
            ++count;
        }
    }
    return {count > 0 ? sum / static_cast<double>(count) : 0.0, count};
}

double integrated(std::span<const double> kPower) {
    const std::size_t n = kPower.size();
    if (n == 0) {
        return silence;
    }
    constexpr auto block = static_cast<std::size_t>(blockFrames);
    constexpr auto hop = static_cast<std::size_t>(hopFrames);
    if (n < block) {
        double sum = 0.0;
        for (const double p : kPower) {
            sum += p;
        }
        return loudnessOf(sum / static_cast<double>(n));
    }

    // A running sum, as the measurement has always been defined: its rounding
    // error accumulates along the file, and results must not move.
    std::vector<double> blockPowers;
    blockPowers.reserve(n / hop);
    double sum = 0.0;
    for (std::size_t f = 0; f < block; ++f) {
        sum += kPower[f];
    }
    blockPowers.push_back(sum / static_cast<double>(block));
    for (std::size_t start = hop; start + block <= n; start += hop) {
        for (std::size_t f = start - hop; f < start; ++f) {
            sum -= kPower[f];
        }
        for (std::size_t f = start + block - hop; f < start + block; ++f) {
            sum += kPower[f];
        }
        blockPowers.push_back(sum / static_cast<double>(block));
    }

    const GatedMean absolute = gatedMean(blockPowers, absoluteGateLufs);
    if (absolute.count == 0) {
        return silence;
    }
    const double absoluteLoudness = loudnessOf(absolute.mean);
    // The relative gate picks from the absolutely gated blocks: a block must
    // pass both thresholds, that is the higher of the two.
    const double threshold = std::max(absoluteGateLufs, absoluteLoudness + relativeGateLu);
    const GatedMean relative = gatedMean(blockPowers, threshold);
    if (relative.count == 0) {
        return absoluteLoudness;
    }
    return loudnessOf(relative.mean);
}

} // namespace ostrand::Loudness

namespace ostrand::Loudness {

std::vector<float> shortTerm(std::span<const double> kPower) {
    const std::size_t n = kPower.size();
    constexpr auto window = static_cast<std::size_t>(shortTermFrames);
    std::vector<float> out(n);
    double sum = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
        // A fresh sum once per window, so that a loud passage leaves no
        // rounding residue in the silence after it.
        if (i % window == 0 && i >= window) {
            sum = 0.0;
            for (std::size_t k = i + 1 - window; k < i; ++k) {
                sum += kPower[k];
            }
        } else if (i >= window) {
            sum -= kPower[i - window];
        }
        sum += kPower[i];
        const std::size_t count = std::min(i + 1, window);
        out[i] = static_cast<float>(loudnessOf(std::max(sum, 0.0) / static_cast<double>(count)));
    }
    return out;
}

} // namespace ostrand::Loudness
