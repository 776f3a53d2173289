#include "TruePeakLimiter.h"

#include "Check.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace ostrand {

namespace {

std::size_t index(std::int64_t i) {
    return static_cast<std::size_t>(i);
}

std::int64_t lookaheadSamples(double sampleRate, double lookaheadMs) {
    const double samples = sampleRate * lookaheadMs / 1000.0;
    OSTRAND_REQUIRE(std::isfinite(samples) && samples < 1e12, "look-ahead out of range");
    return std::max(static_cast<std::int64_t>(samples), TruePeakLimiter::minLookahead);
}

} // namespace

TruePeakLimiter::TruePeakLimiter(std::int64_t channels, double sampleRate, double ceilingDb,
                                 double lookaheadMs, double releaseMs)
    : m_channels(channels)
    , m_ceiling(static_cast<float>(std::pow(10.0, ceilingDb / 20.0)))
    , m_lookahead(lookaheadSamples(sampleRate, lookaheadMs))
    , m_releaseCoeff(std::exp(-1.0 / (sampleRate * releaseMs / 1000.0)))
    , m_meter(std::max<std::int64_t>(channels, 0))
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
    m_peak.resize(index(count));
    m_meter.process(std::span<const float* const>(planar.data(), planar.size()), count, m_peak);
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
