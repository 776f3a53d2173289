#include "GainCurveBuilder.h"

#include "Check.h"
#include "GainRenderer.h"
#include "Loudness.h"
#include "PauseDetector.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

namespace ostrand::GainCurveBuilder {

namespace {

double clampGain(double gainDb, const LevelingParameters& p) {
    return std::min(std::max(gainDb, -p.maxCut), p.maxBoost);
}

double decibels(double power) {
    return 10.0 * std::log10(power + powerEpsilon);
}

double amplitude(double gainDb) {
    return std::pow(10.0, gainDb / 20.0);
}

// out[i] = sum over m of padded[i + m] * kernel[m], accumulated in m order.
// Tiles keep the output in L1 while four taps at a time stream past it.
void correlate(const std::vector<double>& padded, const std::vector<double>& kernel,
               std::vector<double>& out) {
    constexpr std::size_t tile = 512;
    const std::size_t n = out.size();
    const std::size_t taps = kernel.size();
    for (std::size_t i0 = 0; i0 < n; i0 += tile) {
        const std::size_t len = std::min(tile, n - i0);
        double* o = out.data() + i0;
        const double* p = padded.data() + i0;
        const double k0 = kernel[0];
        for (std::size_t i = 0; i < len; ++i) {
            o[i] = p[i] * k0;
        }
        std::size_t m = 1;
        for (; m + 4 <= taps; m += 4) {
            const double ka = kernel[m];
            const double kb = kernel[m + 1];
            const double kc = kernel[m + 2];
            const double kd = kernel[m + 3];
            const double* pa = p + m;
            for (std::size_t i = 0; i < len; ++i) {
                double acc = o[i];
                acc += pa[i] * ka;
                acc += pa[i + 1] * kb;
                acc += pa[i + 2] * kc;
                acc += pa[i + 3] * kd;
                o[i] = acc;
            }
        }
        for (; m < taps; ++m) {
            const double km = kernel[m];
            const double* pm = p + m;
            for (std::size_t i = 0; i < len; ++i) {
                o[i] += pm[i] * km;
            }
        }
    }
}

// Predicted per-frame output power after the gain and a per-frame model of
// the limiter: instant attack, exponential recovery toward unity.
void predictPowers(const FrameAnalysis& a, const std::vector<double>& gainDb, double ceiling,
                   double decay, std::vector<double>& out) {
    double env = 1.0;
    for (std::size_t i = 0; i < gainDb.size(); ++i) {
        const double gl = amplitude(gainDb[i]);
        const double over = std::max(a.peak[i] * gl / ceiling, 1.0);
        env = std::max(over, decay * (env - 1.0) + 1.0);
        out[i] = (a.kPower[i] * gl) * gl / (env * env);
    }
}

// The limiter takes speech down but leaves the pauses between it alone, so
// a pause would come out louder against its speech than before by what the
// limiter took. Lowers each pause's gain by that, as the model predicts it
// on the two seconds of speech either side; the step is smoothed like the
// gain, and the hangover keeps most of it off the speech. False when no
// pause needed it.
bool lowerPausesByLimiterLoss(const FrameAnalysis& a, std::span<const unsigned char> pause,
                              double ceiling, double decay, double sigma, std::vector<double>& g) {
    const std::size_t n = g.size();
    const auto around = static_cast<std::size_t>(PauseDetector::limiterLossFrames);
    std::vector<double> before(n);
    std::vector<double> after(n);
    double env = 1.0;
    for (std::size_t i = 0; i < n; ++i) {
        const double gl = amplitude(g[i]);
        const double over = std::max(a.peak[i] * gl / ceiling, 1.0);
        env = std::max(over, decay * (env - 1.0) + 1.0);
        before[i] = (a.kPower[i] * gl) * gl;
        after[i] = before[i] / (env * env);
    }
    std::vector<double> adjustment(n, 0.0);
    bool any = false;
    PauseDetector::forEachPause(pause, [&](std::size_t begin, std::size_t end) {
        double sumBefore = 0.0;
        double sumAfter = 0.0;
        const std::size_t lo = begin > around ? begin - around : 0;
        const std::size_t hi = std::min(n, end + around);
        for (std::size_t k = lo; k < hi; ++k) {
            if (pause[k] == 0) {
                sumBefore += before[k];
                sumAfter += after[k];
            }
        }
        if (!(sumAfter > 0.0) || !(sumBefore > sumAfter)) {
            return;
        }
        const double lossDb = 10.0 * std::log10(sumBefore / sumAfter);
        std::fill(adjustment.begin() + static_cast<std::ptrdiff_t>(begin),
                  adjustment.begin() + static_cast<std::ptrdiff_t>(end), -lossDb);
        any = true;
    });
    if (!any) {
        return false;
    }
    const std::vector<double> smoothed = gaussianFilter(adjustment, sigma);
    for (std::size_t k = 0; k < n; ++k) {
        g[k] += smoothed[k];
    }
    return true;
}

// The limiter takes more from a peaky voice than from a smooth one of the
// same loudness, so speakers leveled alike come out of it apart. Sets `g` to
// `base` raised, where the room's noise engaged the pause handling, by what
// the model says the limiter takes from the speech there beyond what it
// takes from the least limited speech.
void evenOutLimiterLoss(const FrameAnalysis& a, std::span<const unsigned char> active,
                        std::span<const unsigned char> engaged, double ceiling, double decay,
                        std::span<const double> base, std::vector<double>& g,
                        const LevelingParameters& p) {
    const std::size_t n = g.size();
    std::vector<double> before(n, 0.0);
    std::vector<double> after(n, 0.0);
    double env = 1.0;
    for (std::size_t i = 0; i < n; ++i) {
        const double gl = amplitude(g[i]);
        const double over = std::max(a.peak[i] * gl / ceiling, 1.0);
        env = std::max(over, decay * (env - 1.0) + 1.0);
        if (active[i] != 0) {
            before[i] = (a.kPower[i] * gl) * gl;
            after[i] = before[i] / (env * env);
        }
    }
    const auto sigma = static_cast<double>(PauseDetector::limiterEvenFrames);
    const std::vector<double> sumBefore = gaussianFilter(before, sigma);
    const std::vector<double> sumAfter = gaussianFilter(after, sigma);
    std::vector<double>& loss = before; // reused
    std::vector<double> speechLoss;
    for (std::size_t i = 0; i < n; ++i) {
        loss[i] = sumAfter[i] > 0.0 && sumBefore[i] > sumAfter[i]
                      ? 10.0 * std::log10(sumBefore[i] / sumAfter[i])
                      : 0.0;
        if (active[i] != 0 && engaged[i] != 0) {
            speechLoss.push_back(loss[i]);
        }
    }
    const double reference = percentile(speechLoss, PauseDetector::limiterEvenReference);
    for (std::size_t i = 0; i < n; ++i) {
        const double room = std::min(PauseDetector::limiterEvenMaxDb,
                                     std::max(0.0, PauseDetector::limiterEvenUpToLossDb - loss[i]));
        const double raise = engaged[i] != 0 ? std::clamp(loss[i] - reference, 0.0, room) : 0.0;
        g[i] = clampGain(base[i] + raise, p);
    }
}

} // namespace

std::vector<double> boxMean(std::span<const double> x, std::int64_t width) {
    const auto n = static_cast<std::int64_t>(x.size());
    if (n == 0) {
        return {};
    }
    const std::int64_t w = std::max<std::int64_t>(std::min(n, width), 1);
    std::vector<double> prefix(x.size() + 1);
    prefix[0] = 0.0;
    for (std::size_t k = 0; k < x.size(); ++k) {
        prefix[k + 1] = prefix[k] + x[k];
    }
    std::vector<double> out(x.size());
    for (std::int64_t i = 0; i < n; ++i) {
        const std::int64_t lo = i - w / 2;
        const std::int64_t hi = lo + w;
        const std::int64_t loClipped = std::max<std::int64_t>(lo, 0);
        const std::int64_t hiClipped = std::min(hi, n);
        out[static_cast<std::size_t>(i)] = (prefix[static_cast<std::size_t>(hiClipped)] -
                                            prefix[static_cast<std::size_t>(loClipped)]) /
                                           static_cast<double>(hiClipped - loClipped);
    }
    return out;
}

std::size_t percentileRank(std::size_t count, double p) {
    const double rank = p * static_cast<double>(count - 1);
    OSTRAND_REQUIRE(std::isfinite(rank) && std::fabs(rank) < 9.2e18,
                    "percentile rank out of range");
    return static_cast<std::size_t>(std::clamp<std::int64_t>(static_cast<std::int64_t>(rank), 0,
                                                             static_cast<std::int64_t>(count) - 1));
}

double percentile(std::span<const double> x, double p) {
    if (x.empty()) {
        return 0.0;
    }
    // The k-th smallest value is what sorting a copy and indexing would give.
    std::vector<double> copy(x.begin(), x.end());
    const auto kth = copy.begin() + static_cast<std::ptrdiff_t>(percentileRank(x.size(), p));
    std::nth_element(copy.begin(), kth, copy.end());
    return *kth;
}

std::vector<double> gaussianFilter(std::span<const double> x, double sigma) {
    const std::size_t n = x.size();
    if (n < 2 || !(sigma > 0.3)) {
        return {x.begin(), x.end()};
    }
    const double reach = std::ceil(4.0 * sigma);
    OSTRAND_REQUIRE(std::isfinite(reach) && reach < 9.2e18, "Gaussian radius out of range");
    const auto r = static_cast<std::size_t>(reach);

    std::vector<double> kernel(2 * r + 1);
    double sum = 0.0;
    for (std::size_t m = 0; m < kernel.size(); ++m) {
        const double j = static_cast<double>(m) - static_cast<double>(r);
        kernel[m] = std::exp((j * j) * -0.5 / (sigma * sigma));
        sum += kernel[m];
    }
    for (double& tap : kernel) {
        tap /= sum;
    }

    std::vector<double> padded(n + 2 * r);
    std::fill_n(padded.begin(), r, x.front());
    std::copy(x.begin(), x.end(), padded.begin() + static_cast<std::ptrdiff_t>(r));
    std::fill(padded.begin() + static_cast<std::ptrdiff_t>(r + n), padded.end(), x.back());

    std::vector<double> out(n);
    correlate(padded, kernel, out);
    return out;
}

void fillGaps(std::span<double> x) noexcept {
    const std::size_t n = x.size();
    std::size_t first = 0;
    while (first < n && std::isnan(x[first])) {
        ++first;
    }
    if (first == n) {
        std::fill(x.begin(), x.end(), levelWithoutActivityDb);
        return;
    }
    std::fill_n(x.begin(), first, x[first]);

    std::size_t lastValue = first;
    for (std::size_t i = first + 1; i < n; ++i) {
        if (std::isnan(x[i])) {
            continue;
        }
        if (i > lastValue + 1) {
            const std::size_t a = lastValue + 1;
            const double prev = x[lastValue];
            const double next = x[i];
            const auto len = static_cast<double>(i - a);
            for (std::size_t m = 0; a + m < i; ++m) {
                x[a + m] = prev + ((next - prev) * static_cast<double>(m + 1)) / (len + 1.0);
            }
        }
        lastValue = i;
    }
    std::fill(x.begin() + static_cast<std::ptrdiff_t>(lastValue + 1), x.end(), x[lastValue]);
}

Activity findActivity(const FrameAnalysis& a, const LevelingParameters& p) {
    const std::size_t n = a.meanSquare.size();
    OSTRAND_REQUIRE(a.kPower.size() >= n, "analysis series of unequal length");
    Activity activity;
    activity.active.assign(n, 0);
    if (n == 0) {
        return activity;
    }
    const std::span<const double> kPower(a.kPower.data(), n);

    // Above an absolute floor and not far below the 3 s around.
    std::vector<double> frameDb(n);
    for (std::size_t i = 0; i < n; ++i) {
        frameDb[i] = decibels(a.meanSquare[i]);
    }
    std::vector<double> local = boxMean(a.meanSquare, localLevelFrames);
    for (double& v : local) {
        v = decibels(v);
    }
    const double floorDb = std::min(percentile(frameDb, 0.95) - floorBelowP95Db, p.absoluteGate);
    for (std::size_t i = 0; i < n; ++i) {
        activity.active[i] = static_cast<unsigned char>(frameDb[i] > floorDb &&
                                                        frameDb[i] > local[i] + p.relativeGate);
    }
    if (p.noiseAwarePauses) {
        activity.engaged.assign(n, 1);
        // A loud room passes both gates above; its pauses, and the frames of
        // speech it drowns, must not drag the tracked level down.
        activity.pause.resize(n);
        const PauseDetector::Levels noise = PauseDetector::noiseLevels(a.meanSquare);
        PauseDetector::markQuietStretches(kPower, activity.pause);
        for (std::size_t i = 0; i < n; ++i) {
            // Under a quiet floor the gates above already work: leave the plan alone.
            if (noise.floorDb[i] <= floorDb - PauseDetector::quietFloorBelowGateDb) {
                activity.pause[i] = 0;
                activity.engaged[i] = 0;
                continue;
            }
            if (activity.pause[i] != 0 ||
                PauseDetector::noiseDominated(frameDb[i], noise.floorDb[i], noise.speechDb[i])) {
                activity.active[i] = 0;
            }
        }
    }
    return activity;
}

GainCurve build(const FrameAnalysis& a, const LevelingParameters& p, double ceilingDb) {
    const std::size_t n = a.meanSquare.size();
    GainCurve curve;
    curve.frameLength = a.frameLength;
    if (n == 0) {
        curve.inputLoudness = Loudness::silence;
        curve.predictedOutputLoudness = Loudness::silence;
        curve.activeFraction = 0.0;
        return curve;
    }
    OSTRAND_REQUIRE(a.kPower.size() >= n && a.peak.size() >= n,
                    "analysis series of unequal length");
    const std::span<const double> kPower(a.kPower.data(), n);
    curve.inputLoudness = Loudness::integrated(kPower);

    Activity activity = findActivity(a, p);
    std::vector<double> num(n, 0.0);
    std::vector<double> den(n, 0.0);
    std::size_t activeCount = 0;
    for (std::size_t i = 0; i < n; ++i) {
        if (activity.active[i] != 0) {
            num[i] = decibels(a.meanSquare[i]);
            den[i] = 1.0;
            ++activeCount;
        }
    }
    const std::vector<unsigned char>& pause = activity.pause;
    const std::vector<unsigned char>& engaged = activity.engaged;
    curve.activeFraction = static_cast<double>(activeCount) / static_cast<double>(n);
    curve.active = std::move(activity.active);

    // Level of the active frames nearby; pauses are bridged, not tracked.
    const std::vector<double> numS = gaussianFilter(num, p.trackingSigma * framesPerSecond);
    const std::vector<double> denS = gaussianFilter(den, p.trackingSigma * framesPerSecond);
    std::vector<double>& level = num; // reused: num is no longer needed
    for (std::size_t i = 0; i < n; ++i) {
        level[i] = denS[i] >= minTrackingWeight ? numS[i] / denS[i]
                                                : std::numeric_limits<double>::quiet_NaN();
    }
    fillGaps(level);
    if (p.noiseAwarePauses) {
        PauseDetector::holdAcrossPauses(level, pause);
    }

    std::vector<double>& raw = den; // reused
    for (std::size_t i = 0; i < n; ++i) {
        raw[i] = clampGain(referenceLevelDb - level[i], p);
    }
    std::vector<double> g = gaussianFilter(raw, p.gainSmoothingSigma * framesPerSecond);

    // Shift the whole curve until the predicted loudness meets the target.
    const double ceiling = amplitude(ceilingDb);
    const double decay = std::exp(-1.0 / (GainRenderer::releaseMs / 1000.0 * framesPerSecond));
    std::vector<double> predictedPower(n);
    const auto meetTarget = [&] {
        double predicted = 0.0;
        for (int prediction = 1;; ++prediction) {
            predictPowers(a, g, ceiling, decay, predictedPower);
            predicted = Loudness::integrated(predictedPower);
            // Silence steers as if it sat at the gate: a finite step up.
            const double delta =
                p.targetLufs -
                (predicted == Loudness::silence ? Loudness::absoluteGateLufs : predicted);
            if (std::fabs(delta) < loudnessToleranceLu) {
                break;
            }
            for (double& gain : g) {
                gain = clampGain(gain + delta, p);
            }
            if (prediction == maxPredictions) {
                break;
            }
        }
        return predicted;
    };
    double predicted = meetTarget();
    if (std::find(engaged.begin(), engaged.end(), 1) != engaged.end()) {
        // Each pass judges the limiter at the gain the last one left, on target.
        const std::vector<double> base = g;
        for (int pass = 0; pass < PauseDetector::limiterEvenPasses; ++pass) {
            evenOutLimiterLoss(a, curve.active, engaged, ceiling, decay, base, g, p);
            predicted = meetTarget();
        }
    }

    if (p.noiseAwarePauses && lowerPausesByLimiterLoss(a, pause, ceiling, decay,
                                                       p.gainSmoothingSigma * framesPerSecond, g)) {
        // Quieter pauses fall under the relative gate and the loudness rises:
        // meet the target again.
        predicted = meetTarget();
    }

    curve.gainDB = std::move(g);
    curve.predictedOutputLoudness = predicted;
    return curve;
}

} // namespace ostrand::GainCurveBuilder
