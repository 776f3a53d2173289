#include "LoudnessMeter.h"

#include "Check.h"
#include "Loudness.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <numbers>

namespace ostrand {

namespace {

constexpr double lraRelativeGateLu = -20.0;
constexpr double minusInfinity = -std::numeric_limits<double>::infinity();

double loudness(double power) {
    return power > 0.0 ? 10.0 * std::log10(power) + Loudness::offsetDb : Loudness::silence;
}

double decibels(double amplitude) {
    return amplitude > 0.0 ? 20.0 * std::log10(amplitude) : minusInfinity;
}

double gatedMean(std::span<const double> powers, double gate) {
    return Loudness::gatedMean(powers, gate).mean;
}

// The spread between the 10th and 95th percentiles of the short-term
// loudness, after the absolute gate and a relative gate 20 LU down.
double loudnessRangeOf(const std::vector<double>& shortTerm) {
    const double absolute = gatedMean(shortTerm, Loudness::absoluteGateLufs);
    if (absolute <= 0.0) {
        return 0.0;
    }
    const double gate = loudness(absolute) + lraRelativeGateLu;
    std::vector<double> levels;
    for (const double p : shortTerm) {
        if (const double l = loudness(p); l > gate && l > Loudness::absoluteGateLufs) {
            levels.push_back(l);
        }
    }
    if (levels.empty()) {
        return 0.0;
    }
    std::sort(levels.begin(), levels.end());
    const auto at = [&](double fraction) {
        const double position = fraction * static_cast<double>(levels.size() - 1);
        return levels[static_cast<std::size_t>(std::lround(position))];
    };
    return at(0.95) - at(0.10);
}

} // namespace

std::array<Biquad, 2> LoudnessMeter::kWeighting(double sampleRate) noexcept {
    // The analogue prototype behind the standard's 48 kHz coefficients: a
    // shelf of +4 dB at 1682 Hz and a second-order high-pass at 38.1 Hz.
    std::array<Biquad, 2> sections{};
    {
        constexpr double f0 = 1681.974450955533;
        constexpr double gainDb = 3.999843853973347;
        constexpr double q = 0.7071752369554196;
        const double k = std::tan(std::numbers::pi * f0 / sampleRate);
        const double vh = std::pow(10.0, gainDb / 20.0);
        const double vb = std::pow(vh, 0.4996667741545416);
        const double a0 = 1.0 + k / q + k * k;
        Biquad& shelf = sections[0];
        shelf.b0 = (vh + vb * k / q + k * k) / a0;
        shelf.b1 = 2.0 * (k * k - vh) / a0;
        shelf.b2 = (vh - vb * k / q + k * k) / a0;
        shelf.a1 = 2.0 * (k * k - 1.0) / a0;
        shelf.a2 = (1.0 - k / q + k * k) / a0;
    }
    {
        constexpr double f0 = 38.13547087602444;
        constexpr double q = 0.5003270373238773;
        const double k = std::tan(std::numbers::pi * f0 / sampleRate);
        const double a0 = 1.0 + k / q + k * k;
        Biquad& highPass = sections[1];
        highPass.b0 = 1.0;
        highPass.b1 = -2.0;
        highPass.b2 = 1.0;
        highPass.a1 = 2.0 * (k * k - 1.0) / a0;
        highPass.a2 = (1.0 - k / q + k * k) / a0;
    }
    return sections;
}

double LoudnessMeter::weightOf(ChannelWeight weight) noexcept {
    switch (weight) {
    case ChannelWeight::front:
        return 1.0;
    case ChannelWeight::surround:
        return 1.41;
    case ChannelWeight::excluded:
        break;
    }
    return 0.0;
}

LoudnessMeter::LoudnessMeter(double sampleRate, std::vector<ChannelWeight> weights)
    : m_sampleRate(sampleRate)
    , m_weights(std::move(weights))
    , m_filters(m_weights.size(), kWeighting(sampleRate))
    , m_channelSums(m_weights.size(), 0.0)
    , m_sliceSums(shortTermSlices, 0.0)
    , m_sliceLengths(shortTermSlices, 0)
    , m_truePeak(sampleRate, static_cast<std::int64_t>(m_weights.size())) {
    OSTRAND_REQUIRE(sampleRate >= minSampleRate, "sample rate must be at least 1 kHz");
    m_sliceEnd = sliceBoundary(1);
}

std::int64_t LoudnessMeter::sliceBoundary(std::int64_t slice) const noexcept {
    return static_cast<std::int64_t>(
        std::floor(static_cast<double>(slice) * m_sampleRate / slicesPerSecond + 1e-6));
}

namespace {

// Two channels side by side in one register: their recursions are
// independent, and the pair costs about what one channel does alone.
using Pair = double __attribute__((vector_size(16)));

// One K-weighting section in the state-space form of transposed direct form
// II: the loop-carried path is one multiply and one add.
struct PairSection {
    double b0, c1, c2, a1, a2; // c1 = b1 - a1 b0, c2 = b2 - a2 b0
    Pair s1, s2;

    [[gnu::always_inline]] inline Pair tick(Pair x) noexcept {
        const Pair y = s1 + b0 * x;
        const Pair next = (s2 + c1 * x) - a1 * s1;
        s2 = c2 * x - a2 * s1;
        s1 = next;
        return y;
    }
};

PairSection sectionOf(const Biquad& first, const Biquad* second) {
    return {first.b0,
            first.b1 - first.a1 * first.b0,
            first.b2 - first.a2 * first.b0,
            first.a1,
            first.a2,
            Pair{first.z1, second != nullptr ? second->z1 : 0.0},
            Pair{first.z2, second != nullptr ? second->z2 : 0.0}};
}

void storeState(const PairSection& s, Biquad& first, Biquad* second) {
    first.z1 = s.s1[0];
    first.z2 = s.s2[0];
    if (second != nullptr) {
        second->z1 = s.s1[1];
        second->z2 = s.s2[1];
    }
}

// K-weights `count` samples of one or two channels and adds the squares of
// each to its sum.
template <bool Two>
void weighChannels(const float* x0, const float* x1, std::array<Biquad, 2>* filters, double* sums,
                   std::int64_t count) {
    std::array<Biquad, 2>* second = Two ? filters + 1 : nullptr;
    PairSection shelf = sectionOf((*filters)[0], Two ? &(*second)[0] : nullptr);
    PairSection pass = sectionOf((*filters)[1], Two ? &(*second)[1] : nullptr);
    Pair sum{0.0, 0.0};
    for (std::int64_t i = 0; i < count; ++i) {
        const Pair in{static_cast<double>(x0[i]), Two ? static_cast<double>(x1[i]) : 0.0};
        const Pair y = pass.tick(shelf.tick(in));
        sum += y * y;
    }
    storeState(shelf, (*filters)[0], Two ? &(*second)[0] : nullptr);
    storeState(pass, (*filters)[1], Two ? &(*second)[1] : nullptr);
    sums[0] += sum[0];
    if (Two) {
        sums[1] += sum[1];
    }
}

} // namespace

void LoudnessMeter::append(std::span<const float* const> planar, std::int64_t count) {
    OSTRAND_REQUIRE(static_cast<std::int64_t>(planar.size()) >= channels(),
                    "one buffer per channel");
    if (count <= 0) {
        return;
    }
    m_truePeak.process(planar, count);

    const std::size_t channelCount = m_weights.size();
    std::int64_t done = 0;
    while (done < count) {
        const std::int64_t n = std::min(count - done, m_sliceEnd - m_sampleIndex);
        std::size_t c = 0;
        for (; c + 2 <= channelCount; c += 2) {
            weighChannels<true>(planar[c] + done, planar[c + 1] + done, &m_filters[c],
                                &m_channelSums[c], n);
        }
        if (c < channelCount) {
            weighChannels<false>(planar[c] + done, nullptr, &m_filters[c], &m_channelSums[c], n);
        }
        done += n;
        m_sampleIndex += n;
        if (m_sampleIndex == m_sliceEnd) {
            endSlice();
        }
    }
}

double LoudnessMeter::windowPower(std::size_t slices) const {
    // The newest `slices` entries of the ring: up to two contiguous runs.
    const auto end = static_cast<std::size_t>(m_slices) % shortTermSlices;
    double sum = 0.0;
    std::int64_t samples = 0;
    const auto add = [&](std::size_t from, std::size_t to) {
        for (std::size_t i = from; i < to; ++i) {
            sum += m_sliceSums[i];
            samples += m_sliceLengths[i];
        }
    };
    if (slices <= end) {
        add(end - slices, end);
    } else {
        add(shortTermSlices - (slices - end), shortTermSlices);
        add(0, end);
    }
    return samples > 0 ? sum / static_cast<double>(samples) : 0.0;
}

void LoudnessMeter::endSlice() {
    double weighted = 0.0;
    for (std::size_t c = 0; c < m_weights.size(); ++c) {
        weighted += weightOf(m_weights[c]) * m_channelSums[c];
        m_channelSums[c] = 0.0;
    }
    const auto slot = static_cast<std::size_t>(m_slices) % shortTermSlices;
    m_sliceSums[slot] = weighted;
    m_sliceLengths[slot] = m_sampleIndex - m_sliceStart;
    ++m_slices;
    m_sliceStart = m_sampleIndex;
    m_sliceEnd = sliceBoundary(m_slices + 1);

    const auto completed = static_cast<std::size_t>(m_slices);
    const bool onBlockStep = completed % slicesPerStep == 0;
    if (completed >= momentarySlices) {
        const double power = windowPower(momentarySlices);
        m_maxMomentary = std::max(m_maxMomentary, power);
        if (onBlockStep) {
            m_momentary.push_back(power);
        }
    }
    if (completed < shortTermSlices && !m_keepsSeries) {
        return;
    }
    // One sum serves the maximum, the range and the drawn curve, which in
    // the first 3 s covers the slices so far.
    const double shortTerm = windowPower(std::min(completed, shortTermSlices));
    if (m_keepsSeries) {
        m_series.push_back(static_cast<float>(Loudness::loudnessOf(shortTerm)));
    }
    if (completed >= shortTermSlices) {
        m_maxShortTerm = std::max(m_maxShortTerm, shortTerm);
        if (onBlockStep) {
            m_shortTerm.push_back(shortTerm);
        }
    }
}

double LoudnessMeter::integratedOf(std::span<const double> blockPowers) {
    const double absolute = gatedMean(blockPowers, Loudness::absoluteGateLufs);
    if (absolute <= 0.0) {
        return Loudness::silence;
    }
    return loudness(gatedMean(blockPowers, loudness(absolute) + Loudness::relativeGateLu));
}

LoudnessFigures LoudnessMeter::figures() const {
    return {integratedOf(m_momentary),   loudnessRangeOf(m_shortTerm),
            loudness(m_maxMomentary),    loudness(m_maxShortTerm),
            decibels(m_truePeak.peak()), decibels(m_truePeak.samplePeak())};
}

} // namespace ostrand
