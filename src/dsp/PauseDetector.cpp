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

namespace {

// Power of consecutive blocks of `floorBlockFrames`, in dB.
std::vector<double> blockLevelsDb(std::span<const double> meanSquare) {
    const std::size_t n = meanSquare.size();
    const auto blockFrames = static_cast<std::size_t>(floorBlockFrames);
    std::vector<double> blockDb((n + blockFrames - 1) / blockFrames);
    for (std::size_t b = 0; b < blockDb.size(); ++b) {
        const std::size_t lo = b * blockFrames;
        const std::size_t hi = std::min(n, lo + blockFrames);
        double sum = 0.0;
        for (std::size_t i = lo; i < hi; ++i) {
            sum += meanSquare[i];
        }
        blockDb[b] = decibels(sum / static_cast<double>(hi - lo));
    }
    return blockDb;
}

// For every frame, the smallest (or largest) block level within `reach`
// blocks of its own.
std::vector<double> perFrameExtreme(const std::vector<double>& blockDb, std::size_t n,
                                    std::int64_t reachBlocks, bool largest) {
    const auto reach = static_cast<std::size_t>(reachBlocks);
    const std::size_t blocks = blockDb.size();
    std::vector<double> ofBlock(blocks);
    for (std::size_t b = 0; b < blocks; ++b) {
        const auto lo = blockDb.begin() + static_cast<std::ptrdiff_t>(b > reach ? b - reach : 0);
        const auto hi =
            blockDb.begin() + static_cast<std::ptrdiff_t>(std::min(blocks, b + reach + 1));
        ofBlock[b] = largest ? *std::max_element(lo, hi) : *std::min_element(lo, hi);
    }
    const auto blockFrames = static_cast<std::size_t>(floorBlockFrames);
    std::vector<double> out(n);
    for (std::size_t i = 0; i < n; ++i) {
        out[i] = ofBlock[i / blockFrames];
    }
    return out;
}

} // namespace

std::vector<double> noiseFloorDb(std::span<const double> meanSquare) {
    return perFrameExtreme(blockLevelsDb(meanSquare), meanSquare.size(), floorReachBlocks, false);
}

Levels markPauses(std::span<const double> meanSquare, std::span<unsigned char> pause) {
    const std::size_t n = meanSquare.size();
    OSTRAND_REQUIRE(pause.size() == n, "pause mask of the wrong length");
    if (n == 0) {
        return {};
    }
    const std::vector<double> blockDb = blockLevelsDb(meanSquare);
    Levels levels{perFrameExtreme(blockDb, n, floorReachBlocks, false),
                  perFrameExtreme(blockDb, n, speechReachBlocks, true)};
    const std::vector<double>& floorDb = levels.floorDb;
    const std::vector<double>& speechDb = levels.speechDb;

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
    const auto blockFrames = static_cast<std::size_t>(floorBlockFrames);
    double loudPower = 0.0; // the threshold in power, the same for a whole block
    for (std::size_t i = 0; i < n; ++i) {
        if (i % blockFrames == 0) {
            // Quiet speech over a loud floor is heard at a smaller margin.
            const double margin = std::clamp(0.5 * (speechDb[i] - floorDb[i]),
                                             minSpeechAboveFloorDb, speechAboveFloorDb);
            loudPower = std::pow(10.0, (floorDb[i] + margin) / 10.0) - powerEpsilon;
        }
        const std::size_t lo = i >= w / 2 ? i - w / 2 : 0;
        const std::size_t hi = std::min(n, i + (w - w / 2));
        const double shortTerm = (prefix[hi] - prefix[lo]) / static_cast<double>(hi - lo);
        sinceLoud = shortTerm > loudPower ? 0 : std::min(far, sinceLoud + 1);
        distance[i] = sinceLoud;
    }
    sinceLoud = far;
    for (std::size_t i = n; i-- > 0;) {
        sinceLoud = distance[i] == 0 ? 0 : std::min(far, sinceLoud + 1);
        pause[i] = std::min(distance[i], sinceLoud) > hangover ? 1 : 0;
    }
    return levels;
}

bool noiseDominated(double frameDb, double floorDb, double speechDb) noexcept {
    return speechDb - floorDb >= clearSpeechAboveFloorDb && frameDb <= floorDb + frameAboveFloorDb;
}

void holdAcrossPauses(std::span<double> levelDb, std::span<const unsigned char> pause) {
    const std::size_t n = levelDb.size();
    OSTRAND_REQUIRE(pause.size() == n, "pause mask of the wrong length");
    const auto lead = static_cast<std::size_t>(leadFrames);
    forEachPause(pause, [&](std::size_t begin, std::size_t end) {
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
    });
}

} // namespace ostrand::PauseDetector
