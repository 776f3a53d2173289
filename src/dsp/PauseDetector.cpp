#include "PauseDetector.h"

#include "Check.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

namespace ostrand::PauseDetector {

namespace {

constexpr double powerEpsilon = 1e-14; // digital silence reads -140 dB

double decibels(double power) {
    return 10.0 * std::log10(power + powerEpsilon);
}

} // namespace

std::vector<double> noiseFloorDb(std::span<const double> meanSquare) {
    const std::size_t n = meanSquare.size();
    if (n == 0) {
        return {};
    }
    const auto blockFrames = static_cast<std::size_t>(floorBlockFrames);
    const std::size_t blocks = (n + blockFrames - 1) / blockFrames;
    std::vector<double> blockDb(blocks);
    for (std::size_t b = 0; b < blocks; ++b) {
        const std::size_t lo = b * blockFrames;
        const std::size_t hi = std::min(n, lo + blockFrames);
        double sum = 0.0;
        for (std::size_t i = lo; i < hi; ++i) {
            sum += meanSquare[i];
        }
        blockDb[b] = decibels(sum / static_cast<double>(hi - lo));
    }
    const auto reach = static_cast<std::size_t>(floorReachBlocks);
    std::vector<double> floorOfBlock(blocks);
    for (std::size_t b = 0; b < blocks; ++b) {
        const std::size_t lo = b > reach ? b - reach : 0;
        const std::size_t hi = std::min(blocks, b + reach + 1);
        floorOfBlock[b] = *std::min_element(blockDb.begin() + static_cast<std::ptrdiff_t>(lo),
                                            blockDb.begin() + static_cast<std::ptrdiff_t>(hi));
    }
    std::vector<double> out(n);
    for (std::size_t i = 0; i < n; ++i) {
        out[i] = floorOfBlock[i / blockFrames];
    }
    return out;
}

std::vector<double> markPauses(std::span<const double> meanSquare, std::span<unsigned char> pause) {
    const std::size_t n = meanSquare.size();
    OSTRAND_REQUIRE(pause.size() == n, "pause mask of the wrong length");
    if (n == 0) {
        return {};
    }
    std::vector<double> floorDb = noiseFloorDb(meanSquare);

    // Short-term power: centred sums of `smoothingFrames`, clipped at the ends.
    std::vector<double> prefix(n + 1, 0.0);
    for (std::size_t k = 0; k < n; ++k) {
        prefix[k + 1] = prefix[k] + meanSquare[k];
    }
    const auto w = static_cast<std::size_t>(smoothingFrames);
    const auto hangover = static_cast<std::size_t>(hangoverFrames);
    // Frames since the last loud one, forward then backward.
    constexpr std::size_t far = std::numeric_limits<std::size_t>::max() / 2;
    std::vector<std::size_t> distance(n);
    std::size_t sinceLoud = far;
    for (std::size_t i = 0; i < n; ++i) {
        const std::size_t lo = i >= w / 2 ? i - w / 2 : 0;
        const std::size_t hi = std::min(n, i + (w - w / 2));
        const double shortTermDb =
            decibels((prefix[hi] - prefix[lo]) / static_cast<double>(hi - lo));
        sinceLoud =
            shortTermDb > floorDb[i] + speechAboveFloorDb ? 0 : std::min(far, sinceLoud + 1);
        distance[i] = sinceLoud;
    }
    sinceLoud = far;
    for (std::size_t i = n; i-- > 0;) {
        sinceLoud = distance[i] == 0 ? 0 : std::min(far, sinceLoud + 1);
        pause[i] = std::min(distance[i], sinceLoud) > hangover ? 1 : 0;
    }
    return floorDb;
}

void holdAcrossPauses(std::span<double> levelDb, std::span<const unsigned char> pause) {
    const std::size_t n = levelDb.size();
    OSTRAND_REQUIRE(pause.size() == n, "pause mask of the wrong length");
    const auto lead = static_cast<std::size_t>(leadFrames);
    std::size_t i = 0;
    while (i < n) {
        if (pause[i] == 0) {
            ++i;
            continue;
        }
        const std::size_t begin = i;
        while (i < n && pause[i] != 0) {
            ++i;
        }
        const std::size_t end = i;
        if (begin == 0 && end == n) {
            return; // nothing to hold on to
        }
        const double before = begin > 0 ? levelDb[begin - 1] : levelDb[end];
        const double after = end < n ? levelDb[end] : levelDb[begin - 1];
        const double held = std::max(before, after);
        for (std::size_t k = begin; k < end; ++k) {
            levelDb[k] = held;
        }
        if (after < held) {
            for (std::size_t k = end - std::min(lead, end - begin); k < end; ++k) {
                levelDb[k] = after;
            }
        } else if (before < held) {
            for (std::size_t k = begin; k < std::min(end, begin + lead); ++k) {
                levelDb[k] = before;
            }
        }
    }
}

} // namespace ostrand::PauseDetector
