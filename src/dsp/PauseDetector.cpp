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

namespace {

// Largest x[j] for j in [i - back, i + ahead], clipped at the ends: a
// monotonic queue, amortised constant time per entry.
std::vector<double> slidingMax(const std::vector<double>& x, std::size_t back, std::size_t ahead) {
    const std::size_t n = x.size();
    std::vector<double> out(n);
    std::vector<std::size_t> queue(n); // indices, values strictly decreasing
    std::size_t head = 0;
    std::size_t tail = 0;
    std::size_t next = 0; // next index to enter
    for (std::size_t i = 0; i < n; ++i) {
        for (; next < n && next <= i + ahead; ++next) {
            while (tail > head && x[queue[tail - 1]] <= x[next]) {
                --tail;
            }
            queue[tail++] = next;
        }
        while (queue[head] + back < i) {
            ++head;
        }
        out[i] = x[queue[head]];
    }
    return out;
}

// Centred mean of `width` frames, clipped at the ends, in dB.
std::vector<double> shortTermDb(std::span<const double> power, std::size_t width) {
    const std::size_t n = power.size();
    std::vector<double> prefix(n + 1, 0.0);
    for (std::size_t k = 0; k < n; ++k) {
        prefix[k + 1] = prefix[k] + power[k];
    }
    std::vector<double> out(n);
    for (std::size_t i = 0; i < n; ++i) {
        const std::size_t lo = i >= width / 2 ? i - width / 2 : 0;
        const std::size_t hi = std::min(n, i + (width - width / 2));
        out[i] = decibels((prefix[hi] - prefix[lo]) / static_cast<double>(hi - lo));
    }
    return out;
}

} // namespace

void markQuietStretches(std::span<const double> power, std::span<unsigned char> pause) {
    const std::size_t n = power.size();
    OSTRAND_REQUIRE(pause.size() == n, "pause mask of the wrong length");
    if (n == 0) {
        return;
    }
    const auto width = static_cast<std::size_t>(contrastSmoothingFrames);
    const auto reach = static_cast<std::size_t>(contrastReachFrames);
    const auto steadyReach = static_cast<std::size_t>(steadyReachFrames);
    const auto island = static_cast<std::size_t>(islandFrames);
    const std::vector<double> level = shortTermDb(power, width);
    const std::vector<double> before = slidingMax(level, reach, 0);
    const std::vector<double> after = slidingMax(level, 0, reach);
    std::vector<double> negated(n);
    for (std::size_t i = 0; i < n; ++i) {
        negated[i] = -level[i];
    }
    const std::vector<double> highest = slidingMax(level, steadyReach, steadyReach);
    const std::vector<double> lowest = slidingMax(negated, steadyReach, steadyReach);
    constexpr double beyondTheFile = std::numeric_limits<double>::infinity();
    const auto seed = [&](std::size_t i) {
        const double quiet = level[i] + contrastDb;
        // Past either end of the file there is nothing to be louder than: a
        // stretch quiet against the one side it has is a lead-in or an outro.
        const double left = i < reach ? beyondTheFile : before[i];
        const double right = i + reach >= n ? beyondTheFile : after[i];
        if (quiet < std::min(left, right)) {
            return true; // a gap between phrases, whatever fills it
        }
        // Quiet against one side and steady: a long pause over a room or a
        // bed. A quieter speaker's turn moves with its words.
        return quiet < std::max(before[i], after[i]) && highest[i] + lowest[i] < steadyWithinDb;
    };
    std::vector<unsigned char> mark(n, 0);
    std::size_t i = 0;
    std::size_t grownTo = 0; // frames before this are settled
    while (i < n) {
        if (!seed(i)) {
            ++i;
            continue;
        }
        std::size_t begin = i;
        double top = level[i];
        while (i < n && seed(i)) {
            top = std::max(top, level[i]);
            ++i;
        }
        std::size_t end = i;
        // Grow through what stays at the stretch's own level; what is far
        // quieter is a pause of its own, and what lies beyond it is not
        // this stretch's to take.
        const auto own = [&](std::size_t k) {
            return level[k] <= top + growAboveDb && level[k] >= top - contrastDb;
        };
        while (end < n && own(end)) {
            ++end;
        }
        while (begin > grownTo && own(begin - 1)) {
            --begin;
        }
        std::fill(mark.begin() + static_cast<std::ptrdiff_t>(begin),
                  mark.begin() + static_cast<std::ptrdiff_t>(end), 1);
        grownTo = end;
        i = std::max(i, end);
    }
    // A breath or a click inside a long pause is part of it.
    std::size_t previousEnd = 0;
    std::size_t previousLength = 0;
    forEachPause(mark, [&](std::size_t begin, std::size_t end) {
        if (previousLength >= 2 * island && begin - previousEnd < island &&
            end - begin >= 2 * island) {
            std::fill(mark.begin() + static_cast<std::ptrdiff_t>(previousEnd),
                      mark.begin() + static_cast<std::ptrdiff_t>(begin), 1);
        }
        previousEnd = end;
        previousLength = end - begin;
    });
    for (std::size_t k = 0; k < n; ++k) {
        pause[k] = static_cast<unsigned char>(pause[k] | mark[k]);
    }
}

std::vector<double> noiseFloorDb(std::span<const double> meanSquare) {
    return perFrameExtreme(blockLevelsDb(meanSquare), meanSquare.size(), floorReachBlocks, false);
}

Levels noiseLevels(std::span<const double> meanSquare) {
    const std::vector<double> blockDb = blockLevelsDb(meanSquare);
    const std::size_t n = meanSquare.size();
    return {perFrameExtreme(blockDb, n, floorReachBlocks, false),
            perFrameExtreme(blockDb, n, speechReachBlocks, true)};
}

Levels markPauses(std::span<const double> meanSquare, std::span<unsigned char> pause) {
    const std::size_t n = meanSquare.size();
    OSTRAND_REQUIRE(pause.size() == n, "pause mask of the wrong length");
    if (n == 0) {
        return {};
    }
    Levels levels = noiseLevels(meanSquare);
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
