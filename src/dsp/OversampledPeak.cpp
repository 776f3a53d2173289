#include "OversampledPeak.h"

#include "Check.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <numbers>

namespace ostrand {

namespace {

constexpr double kaiserBeta = 5.0;
// Outputs computed together: one pass over the taps feeds 16 lanes.
constexpr std::size_t lanes = 16;
constexpr std::size_t chunkSamples = 4096;

// Four lanes in one register; GCC and Clang map it to the target's vectors.
using Quad = float __attribute__((vector_size(16)));

Quad load(const float* p) noexcept {
    Quad q;
    std::memcpy(&q, p, sizeof q);
    return q;
}

Quad magnitude(Quad q) noexcept {
    return q < 0.0f ? -q : q;
}

Quad larger(Quad a, Quad b) noexcept {
    return a < b ? b : a;
}

float largest(Quad q) noexcept {
    return std::max(std::max(q[0], q[1]), std::max(q[2], q[3]));
}

double besselI0(double x) {
    double sum = 1.0;
    double term = 1.0;
    for (int k = 1; k < 40; ++k) {
        const double half = x / (2.0 * k);
        term *= half * half;
        sum += term;
    }
    return sum;
}

} // namespace

std::size_t OversampledPeak::tapsPerPhaseFor(double sampleRate) noexcept {
    return sampleRate < 47000.0 ? 36 : 24;
}

int OversampledPeak::factorFor(double sampleRate) noexcept {
    if (sampleRate < 88200.0) {
        return 8;
    }
    return sampleRate < 176400.0 ? 4 : 2;
}

OversampledPeak::OversampledPeak(double sampleRate, std::int64_t channels)
    : m_factor(factorFor(sampleRate))
    , m_tapsPerPhase(tapsPerPhaseFor(sampleRate))
    , m_history(static_cast<std::size_t>(channels), std::vector<float>(m_tapsPerPhase - 1, 0.0f))
    , m_scratch(makeScratch()) {
    OSTRAND_REQUIRE(channels >= 0, "channel count cannot be negative");
    const std::size_t taps = m_tapsPerPhase;
    // Phase p interpolates p / factor of the way from buffer[j + taps/2 - 1]
    // to the next sample. Each phase has unit gain at DC.
    const double halfWidth = static_cast<double>(taps) / 2.0;
    for (int p = 1; p < m_factor; ++p) {
        const double at = halfWidth - 1.0 + static_cast<double>(p) / m_factor;
        std::vector<double> phase(taps);
        double sum = 0.0;
        for (std::size_t k = 0; k < taps; ++k) {
            const double t = at - static_cast<double>(k);
            const double r = t / halfWidth;
            const double window =
                besselI0(kaiserBeta * std::sqrt(std::max(0.0, 1.0 - r * r))) / besselI0(kaiserBeta);
            phase[k] = window * std::sin(std::numbers::pi * t) / (std::numbers::pi * t);
            sum += phase[k];
        }
        float reach = 0.0f;
        for (const double tap : phase) {
            m_taps.push_back(static_cast<float>(tap / sum));
            reach += std::fabs(m_taps.back());
        }
        // Rounding in the lanes' sums stays far below this margin.
        m_gainBound = std::max(m_gainBound, reach * 1.001f);
    }
}

OversampledPeak::Scratch OversampledPeak::makeScratch() const {
    const std::size_t size = m_tapsPerPhase + chunkSamples + 4 * lanes;
    return {std::vector<float>(size, 0.0f), std::vector<float>(size / lanes, 0.0f)};
}

void OversampledPeak::scan(const float* input, std::int64_t count, std::vector<float>& history,
                           Scratch& scratch, float& peak, float& samplePeak) const {
    const std::size_t taps = m_tapsPerPhase;
    const std::size_t phases = static_cast<std::size_t>(m_factor - 1);
    // The blocks of 16 that the 16 outputs of one pass read.
    const std::size_t reachBlocks = (lanes + taps - 2) / lanes + 1;
    while (count > 0) {
        const auto n = static_cast<std::size_t>(std::min<std::int64_t>(count, chunkSamples));
        float* const window = scratch.window.data();
        std::copy(history.begin(), history.end(), window);
        std::copy(input, input + n, window + (taps - 1));
        std::fill(window + (taps - 1 + n), window + scratch.window.size(), 0.0f);
        float* const blockPeaks = scratch.blockPeaks.data();
        for (std::size_t b = 0; b < (n - 1) / lanes + reachBlocks; ++b) {
            Quad loudest{};
            for (std::size_t k = 0; k < lanes; k += 4) {
                loudest = larger(loudest, magnitude(load(window + b * lanes + k)));
            }
            blockPeaks[b] = largest(loudest);
        }

        // Output j lies between window[j + taps/2 - 1] and the sample after
        // it; it reads window[j .. j + taps - 1].
        for (std::size_t j0 = 0; j0 < n; j0 += lanes) {
            const float* reach = window + j0;
            const float* const firstBlock = blockPeaks + j0 / lanes;
            const float most = *std::max_element(firstBlock, firstBlock + reachBlocks);
            // The samples themselves count; whatever an interpolated value
            // can reach from here is bounded by most * m_gainBound.
            samplePeak = std::max(samplePeak, most);
            peak = std::max(peak, most);
            if (most * m_gainBound <= peak) {
                continue;
            }
            const std::size_t valid = std::min(lanes, n - j0);
            Quad loudest{};
            for (std::size_t p = 0; p < phases; ++p) {
                const float* h = m_taps.data() + p * taps;
                // Four named sums, so that they stay in registers.
                Quad s0{};
                Quad s1{};
                Quad s2{};
                Quad s3{};
                for (std::size_t k = 0; k < taps; ++k) {
                    const Quad c = Quad{} + h[k];
                    s0 += c * load(reach + k);
                    s1 += c * load(reach + k + 4);
                    s2 += c * load(reach + k + 8);
                    s3 += c * load(reach + k + 12);
                }
                if (valid == lanes) {
                    loudest = larger(loudest, larger(larger(magnitude(s0), magnitude(s1)),
                                                     larger(magnitude(s2), magnitude(s3))));
                } else {
                    const std::array<Quad, lanes / 4> sum{s0, s1, s2, s3};
                    for (std::size_t i = 0; i < valid; ++i) {
                        peak = std::max(peak, std::fabs(sum[i / 4][i % 4]));
                    }
                }
            }
            peak = std::max(peak, largest(loudest));
        }
        std::copy(window + n, window + (n + taps - 1), history.begin());
        input += n;
        count -= static_cast<std::int64_t>(n);
    }
}

void OversampledPeak::process(std::span<const float* const> planar, std::int64_t count) {
    OSTRAND_REQUIRE(planar.size() >= m_history.size(), "one buffer per channel");
    for (std::size_t c = 0; c < m_history.size(); ++c) {
        scan(planar[c], count, m_history[c], m_scratch, m_peak, m_samplePeak);
    }
}

double OversampledPeak::peak() const {
    // The reconstructed waveform goes on for half the filter after the last
    // sample; silence pushes it through.
    const std::vector<float> silence(m_tapsPerPhase - 1, 0.0f);
    Scratch scratch = makeScratch();
    float peak = m_peak;
    float samplePeak = m_samplePeak;
    for (const std::vector<float>& history : m_history) {
        std::vector<float> state = history;
        scan(silence.data(), static_cast<std::int64_t>(silence.size()), state, scratch, peak,
             samplePeak);
    }
    return static_cast<double>(peak);
}

} // namespace ostrand
