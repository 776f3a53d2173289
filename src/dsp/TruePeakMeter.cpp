#include "TruePeakMeter.h"

#include "Check.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>

namespace ostrand {

namespace {

constexpr std::size_t prototypeTaps = TruePeakMeter::oversample * TruePeakMeter::tapsPerPhase;

// Blackman-windowed sinc, cut off at the input's Nyquist frequency, split
// into four phases of unit DC gain and stored reversed for correlation.
TruePeakMeter::PhaseSet makeReversedPhases() {
    std::array<float, prototypeTaps> h{};
    const double last = static_cast<double>(prototypeTaps - 1);
    for (std::size_t n = 0; n < prototypeTaps; ++n) {
        const double t = (static_cast<double>(n) - 23.5) * 0.25;
        const double sinc =
            t == 0.0 ? 1.0 : std::sin(std::numbers::pi * t) / (std::numbers::pi * t);
        const double w = 0.42 -
                         0.5 * std::cos(2.0 * std::numbers::pi * static_cast<double>(n) / last) +
                         0.08 * std::cos(4.0 * std::numbers::pi * static_cast<double>(n) / last);
        h[n] = static_cast<float>(w * sinc);
    }
    TruePeakMeter::PhaseSet phases{};
    for (std::size_t p = 0; p < phases.size(); ++p) {
        TruePeakMeter::Phase phase{};
        float sum = 0.0f;
        for (std::size_t k = 0; k < phase.size(); ++k) {
            phase[k] = h[p + k * phases.size()];
            sum += phase[k];
        }
        for (float& tap : phase) {
            tap /= sum;
        }
        std::reverse_copy(phase.begin(), phase.end(), phases[p].begin());
    }
    return phases;
}

using PhaseSet = TruePeakMeter::PhaseSet;

// peak[i] = max(peak[i], |w[i + centre]|, |each phase's interpolation at i|).
// Every interpolated value is summed in tap order, so results do not depend
// on the instruction set; the loop over i is what runs in parallel lanes.
template <std::size_t Taps>
[[gnu::always_inline]] inline void accumulatePeaks(const float* w, std::size_t n,
                                                   std::size_t centre, const PhaseSet& phases,
                                                   float* peak) {
    float h[4][Taps];
    for (std::size_t p = 0; p < 4; ++p) {
        for (std::size_t k = 0; k < Taps; ++k) {
            h[p][k] = phases[p][k];
        }
    }
    for (std::size_t i = 0; i < n; ++i) {
        const float* x = w + i;
        float y0 = x[0] * h[0][0];
        float y1 = x[0] * h[1][0];
        float y2 = x[0] * h[2][0];
        float y3 = x[0] * h[3][0];
#pragma GCC unroll 16
        for (std::size_t k = 1; k < Taps; ++k) {
            y0 += x[k] * h[0][k];
            y1 += x[k] * h[1][k];
            y2 += x[k] * h[2][k];
            y3 += x[k] * h[3][k];
        }
        const float a0 = std::fabs(y0);
        const float a1 = std::fabs(y1);
        const float a2 = std::fabs(y2);
        const float a3 = std::fabs(y3);
        const float s = std::fabs(x[centre]);
        float m = peak[i];
        m = m < a0 ? a0 : m;
        m = m < a1 ? a1 : m;
        m = m < a2 ? a2 : m;
        m = m < a3 ? a3 : m;
        m = m < s ? s : m;
        peak[i] = m;
    }
}

// The widest vectors of the machine pay off here; the arithmetic is the same
// on every path (no fused multiply-add: contraction is off). ThreadSanitizer
// cannot run the resolver that picks a clone, so its builds take the default.
#if defined(__SANITIZE_THREAD__)
#define OSTRAND_VECTOR_CLONES
#else
#define OSTRAND_VECTOR_CLONES [[gnu::target_clones("avx2", "default")]]
#endif
OSTRAND_VECTOR_CLONES void accumulatePeaksDispatch(const float* w, std::size_t n,
                                                   std::size_t centre, const PhaseSet& phases,
                                                   float* peak) {
    accumulatePeaks<TruePeakMeter::tapsPerPhase>(w, n, centre, phases, peak);
}

} // namespace

const TruePeakMeter::PhaseSet& TruePeakMeter::reversedPhases() noexcept {
    static const PhaseSet phases = makeReversedPhases();
    return phases;
}

TruePeakMeter::TruePeakMeter(std::int64_t channels)
    : m_history(static_cast<std::size_t>(channels),
                std::vector<float>(static_cast<std::size_t>(historyLength), 0.0f)) {
    OSTRAND_REQUIRE(channels >= 0, "channel count must not be negative");
}

void TruePeakMeter::process(std::span<const float* const> planar, std::int64_t count,
                            std::span<float> peaks) {
    if (count < 1) {
        return;
    }
    OSTRAND_REQUIRE(planar.size() >= m_history.size(), "fewer channel buffers than channels");
    OSTRAND_REQUIRE(peaks.size() >= static_cast<std::size_t>(count), "peak buffer too short");
    const auto n = static_cast<std::size_t>(count);
    const auto history = static_cast<std::size_t>(historyLength);
    const PhaseSet& phases = reversedPhases();
    float* peak = peaks.data();
    std::fill_n(peak, n, 0.0f);
    m_work.resize(history + n);
    for (std::size_t c = 0; c < m_history.size(); ++c) {
        float* w = m_work.data();
        std::copy(m_history[c].begin(), m_history[c].end(), w);
        std::copy_n(planar[c], n, w + history);
        accumulatePeaksDispatch(w, n, history - static_cast<std::size_t>(firDelay), phases, peak);
        std::copy_n(w + n, history, m_history[c].begin());
    }
}

} // namespace ostrand
