#include "TruePeakLimiter.h"

#include "Check.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>

namespace ostrand {

namespace {

constexpr std::size_t prototypeTaps = TruePeakLimiter::oversample * TruePeakLimiter::tapsPerPhase;

std::size_t index(std::int64_t i) {
    return static_cast<std::size_t>(i);
}

std::int64_t lookaheadSamples(double sampleRate, double lookaheadMs) {
    const double samples = sampleRate * lookaheadMs / 1000.0;
    OSTRAND_REQUIRE(std::isfinite(samples) && samples < 1e12, "look-ahead out of range");
    return std::max(static_cast<std::int64_t>(samples), TruePeakLimiter::minLookahead);
}

// Blackman-windowed sinc, cut off at the input's Nyquist frequency, split
// into four phases of unit DC gain and stored reversed for correlation.
std::array<TruePeakLimiter::Phase, TruePeakLimiter::oversample> makeReversedPhases() {
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
    std::array<TruePeakLimiter::Phase, TruePeakLimiter::oversample> phases{};
    for (std::size_t p = 0; p < phases.size(); ++p) {
        TruePeakLimiter::Phase phase{};
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

} // namespace

TruePeakLimiter::TruePeakLimiter(std::int64_t channels, double sampleRate, double ceilingDB,
                                 double lookaheadMs, double releaseMs)
    : m_channels(channels)
    , m_sampleRate(sampleRate)
    , m_ceiling(static_cast<float>(std::pow(10.0, ceilingDB / 20.0)))
    , m_lookahead(lookaheadSamples(sampleRate, lookaheadMs))
    , m_releaseCoeff(std::exp(-1.0 / (sampleRate * releaseMs / 1000.0)))
    , m_reversedPhases(makeReversedPhases())
    , m_history(index(std::max<std::int64_t>(channels, 0)),
                std::vector<float>(index(historyLength), 0.0f))
    , m_delayLine(index(std::max<std::int64_t>(channels, 0)),
                  std::vector<float>(index(latency()), 0.0f))
    , m_queue(index(m_lookahead) + 2)
    , m_attBuffer(index(m_lookahead), 1.0)
    , m_attBufferSum(static_cast<double>(m_lookahead)) {
    OSTRAND_REQUIRE(channels >= 0, "channel count must not be negative");
}

double TruePeakLimiter::maxGainReduction() const noexcept {
    return 20.0 * std::log10(m_maxReductionFactor);
}

void TruePeakLimiter::process(std::span<float* const> planar, std::int64_t count) {
    if (count < 1) {
        return;
    }
    OSTRAND_REQUIRE(planar.size() >= index(m_channels), "fewer channel buffers than channels");
    estimatePeaks(planar, count);
    computeGains(count);

    // Delay by the look-ahead plus the interpolator's centre, apply, clip.
    const std::size_t delay = index(latency());
    const std::size_t n = index(count);
    const float* gain = m_gain.data();
    const float ceiling = m_ceiling;
    m_work.resize(delay + n);
    for (std::size_t c = 0; c < index(m_channels); ++c) {
        float* out = planar[c];
        float* combined = m_work.data();
        std::copy(m_delayLine[c].begin(), m_delayLine[c].end(), combined);
        std::copy_n(out, n, combined + delay);
        for (std::size_t i = 0; i < n; ++i) {
            const float v = combined[i] * gain[i];
            out[i] = v < -ceiling ? -ceiling : (v > ceiling ? ceiling : v);
        }
        std::copy_n(combined + n, delay, m_delayLine[c].begin());
    }
}

namespace {

using PhaseSet = std::array<TruePeakLimiter::Phase, TruePeakLimiter::oversample>;

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
// on every path (no fused multiply-add: contraction is off).
[[gnu::target_clones("avx2", "default")]] void
accumulatePeaksDispatch(const float* w, std::size_t n, std::size_t centre, const PhaseSet& phases,
                        float* peak) {
    accumulatePeaks<TruePeakLimiter::tapsPerPhase>(w, n, centre, phases, peak);
}

} // namespace

void TruePeakLimiter::estimatePeaks(std::span<float* const> planar, std::int64_t count) {
    const std::size_t n = index(count);
    const std::size_t history = index(historyLength);
    m_peak.assign(n, 0.0f);
    m_work.resize(history + n);
    float* peak = m_peak.data();
    for (std::size_t c = 0; c < index(m_channels); ++c) {
        float* w = m_work.data();
        std::copy(m_history[c].begin(), m_history[c].end(), w);
        std::copy_n(planar[c], n, w + history);
        accumulatePeaksDispatch(w, n, history - index(firDelay), m_reversedPhases, peak);
        std::copy_n(w + n, history, m_history[c].begin());
    }
    float blockPeak = m_inputTruePeak;
    for (std::size_t i = 0; i < n; ++i) {
        blockPeak = blockPeak < peak[i] ? peak[i] : blockPeak;
    }
    m_inputTruePeak = blockPeak;
}

void TruePeakLimiter::pushHeld(Held held) noexcept {
    const std::size_t capacity = m_queue.size();
    // An equal older value is replaced: the hold runs from the newer sample.
    while (m_queueSize > 0) {
        const std::size_t back = (m_queueFront + m_queueSize - 1) % capacity;
        if (m_queue[back].value > held.value) {
            break;
        }
        --m_queueSize;
    }
    m_queue[(m_queueFront + m_queueSize) % capacity] = held;
    ++m_queueSize;
    while (m_queue[m_queueFront].index < held.index - m_lookahead) {
        m_queueFront = (m_queueFront + 1) % capacity;
        --m_queueSize;
    }
}

void TruePeakLimiter::computeGains(std::int64_t count) {
    const std::size_t n = index(count);
    m_gain.resize(n);
    const float* peak = m_peak.data();
    const std::size_t window = m_attBuffer.size();
    const auto windowLength = static_cast<double>(m_lookahead);
    double release = m_release;
    double sum = m_attBufferSum;
    std::size_t pos = m_attBufferPos;
    double deepest = m_maxReductionFactor;
    for (std::size_t i = 0; i < n; ++i) {
        const double required = std::max(static_cast<double>(peak[i] / m_ceiling), 1.0);
        pushHeld({m_sampleIndex, required});
        release = std::max(m_queue[m_queueFront].value, m_releaseCoeff * (release - 1.0) + 1.0);
        sum += release - m_attBuffer[pos];
        m_attBuffer[pos] = release;
        pos = pos + 1 == window ? 0 : pos + 1;
        const double x = std::max(sum / windowLength, 1.0);
        m_gain[i] = static_cast<float>(1.0 / x);
        deepest = std::max(deepest, x);
        ++m_sampleIndex;
    }
    m_release = release;
    m_attBufferSum = sum;
    m_attBufferPos = pos;
    m_maxReductionFactor = deepest;
}

} // namespace ostrand
