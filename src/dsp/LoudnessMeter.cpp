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

constexpr std::size_t momentaryLength = 4; // 100 ms sub-blocks in 400 ms
constexpr std::size_t shortTermLength = 30;
constexpr double lraRelativeGateLu = -20.0;
constexpr double minusInfinity = -std::numeric_limits<double>::infinity();

double loudness(double power) {
    return power > 0.0 ? 10.0 * std::log10(power) + Loudness::offsetDb : minusInfinity;
}

double decibels(double amplitude) {
    return amplitude > 0.0 ? 20.0 * std::log10(amplitude) : minusInfinity;
}

// Mean power of the blocks louder than `gate` LUFS; 0 when none is.
double gatedMean(const std::vector<double>& powers, double gate) {
    double sum = 0.0;
    std::size_t count = 0;
    for (const double p : powers) {
        if (loudness(p) > gate) {
            sum += p;
            ++count;
        }
    }
    return count > 0 ? sum / static_cast<double>(count) : 0.0;
}

double integratedOf(const std::vector<double>& powers) {
    const double absolute = gatedMean(powers, Loudness::absoluteGateLufs);
    if (absolute <= 0.0) {
        return minusInfinity;
    }
    return loudness(gatedMean(powers, loudness(absolute) + Loudness::relativeGateLu));
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

double maxLoudness(const std::vector<double>& powers) {
    const auto it = std::max_element(powers.begin(), powers.end());
    return it == powers.end() ? minusInfinity : loudness(*it);
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
    , m_truePeakMeter(static_cast<std::int64_t>(m_weights.size())) {
    OSTRAND_REQUIRE(sampleRate >= 1000.0, "sample rate must be at least 1 kHz");
    m_subBlockEnd = static_cast<std::int64_t>(std::floor(m_sampleRate / 10.0 + 1e-6));
}

void LoudnessMeter::append(std::span<const float* const> planar, std::int64_t count) {
    OSTRAND_REQUIRE(static_cast<std::int64_t>(planar.size()) >= channels(),
                    "one buffer per channel");
    if (count <= 0) {
        return;
    }
    if (static_cast<std::int64_t>(m_peaks.size()) < count) {
        m_peaks.resize(static_cast<std::size_t>(count));
    }
    std::fill(m_peaks.begin(), m_peaks.begin() + count, 0.0f);
    m_truePeakMeter.process(planar, count,
                            std::span<float>(m_peaks).first(static_cast<std::size_t>(count)));

    std::int64_t done = 0;
    while (done < count) {
        const std::int64_t n = std::min(count - done, m_subBlockEnd - m_sampleIndex);
        for (std::size_t c = 0; c < m_weights.size(); ++c) {
            const float* x = planar[c] + done;
            std::array<Biquad, 2> f = m_filters[c];
            double sum = 0.0;
            double peak = m_samplePeak;
            for (std::int64_t i = 0; i < n; ++i) {
                const double in = static_cast<double>(x[i]);
                peak = std::max(peak, std::fabs(in));
                // Transposed direct form II in double from input to square.
                const double y0 = f[0].z1 + f[0].b0 * in;
                f[0].z1 = f[0].z2 + (f[0].b1 * in - f[0].a1 * y0);
                f[0].z2 = f[0].b2 * in - f[0].a2 * y0;
                const double y1 = f[1].z1 + f[1].b0 * y0;
                f[1].z1 = f[1].z2 + (f[1].b1 * y0 - f[1].a1 * y1);
                f[1].z2 = f[1].b2 * y0 - f[1].a2 * y1;
                sum += y1 * y1;
            }
            m_filters[c] = f;
            m_channelSums[c] += sum;
            m_samplePeak = peak;
        }
        done += n;
        m_sampleIndex += n;
        if (m_sampleIndex == m_subBlockEnd) {
            endSubBlock();
        }
    }
}

void LoudnessMeter::endSubBlock() {
    double weighted = 0.0;
    for (std::size_t c = 0; c < m_weights.size(); ++c) {
        weighted += weightOf(m_weights[c]) * m_channelSums[c];
        m_channelSums[c] = 0.0;
    }
    m_subBlockSums.push_back(weighted);
    m_subBlockLengths.push_back(m_sampleIndex - m_subBlockStart);
    ++m_subBlocks;
    m_subBlockStart = m_sampleIndex;
    m_subBlockEnd = static_cast<std::int64_t>(
        std::floor(static_cast<double>(m_subBlocks + 1) * m_sampleRate / 10.0 + 1e-6));

    const auto windowPower = [&](std::size_t length) {
        double sum = 0.0;
        std::int64_t samples = 0;
        for (std::size_t i = m_subBlockSums.size() - length; i < m_subBlockSums.size(); ++i) {
            sum += m_subBlockSums[i];
            samples += m_subBlockLengths[i];
        }
        return sum / static_cast<double>(samples);
    };
    if (m_subBlockSums.size() >= momentaryLength) {
        m_momentary.push_back(windowPower(momentaryLength));
    }
    if (m_subBlockSums.size() >= shortTermLength) {
        m_shortTerm.push_back(windowPower(shortTermLength));
    }
}

LoudnessFigures LoudnessMeter::figures() const {
    return {integratedOf(m_momentary),
            loudnessRangeOf(m_shortTerm),
            maxLoudness(m_momentary),
            maxLoudness(m_shortTerm),
            decibels(static_cast<double>(m_truePeakMeter.truePeak())),
            decibels(m_samplePeak)};
}

} // namespace ostrand
