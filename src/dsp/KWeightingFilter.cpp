#include "KWeightingFilter.h"

#include "Check.h"

#include <cmath>
#include <cstddef>

namespace ostrand {

void Biquad::process(std::span<float> samples) noexcept {
    Biquad s = *this; // a local copy lets the state live in registers
    for (float& sample : samples) {
        sample = s.tick(sample);
    }
    z1 = s.z1;
    z2 = s.z2;
}

Biquad KWeightingFilter::highShelf(double sampleRate) noexcept {
    constexpr double A = 1.2589140960092773;
    constexpr double aMinus1 = 0.2589140960092773;
    constexpr double aPlus1 = 2.2589140960092773;
    constexpr double twoSqrtA = 2.2440268233773653;
    constexpr double minus2A = -2.5178281920185546;

    const double omega = 10568.157157295256 / sampleRate;
    const double s = std::sin(omega);
    const double c = std::cos(omega);
    const double alpha = s / 1.4143504739108392;

    const double a0 = aPlus1 - aMinus1 * c + twoSqrtA * alpha;
    Biquad q;
    q.b0 = A * (aPlus1 + aMinus1 * c + twoSqrtA * alpha) / a0;
    q.b1 = minus2A * (aMinus1 + aPlus1 * c) / a0;
    q.b2 = A * (aPlus1 + aMinus1 * c - twoSqrtA * alpha) / a0;
    q.a1 = 2.0 * (aMinus1 - aPlus1 * c) / a0;
    q.a2 = (aPlus1 - aMinus1 * c - twoSqrtA * alpha) / a0;
    return q;
}

Biquad KWeightingFilter::highPass(double sampleRate) noexcept {
    const double omega = 239.6122302906118 / sampleRate;
    const double s = std::sin(omega);
    const double c = std::cos(omega);
    const double alpha = s / 1.0006540746477546;

    const double a0 = 1.0 + alpha;
    Biquad q;
    q.b0 = ((1.0 + c) * 0.5) / a0;
    q.b2 = q.b0;
    q.b1 = -(1.0 + c) / a0;
    q.a1 = (-2.0 * c) / a0;
    q.a2 = (1.0 - alpha) / a0;
    return q;
}

KWeightingFilter::KWeightingFilter(double sampleRate, std::int64_t channels) {
    OSTRAND_REQUIRE(channels >= 0, "channel count must not be negative");
    m_stages.assign(static_cast<std::size_t>(channels),
                    Sections{highShelf(sampleRate), highPass(sampleRate)});
}

void KWeightingFilter::process(std::int64_t channel, std::span<float> samples) noexcept {
    OSTRAND_REQUIRE(channel >= 0 && channel < channelCount(), "channel index out of range");
    Sections& sections = m_stages[static_cast<std::size_t>(channel)];
    sections[0].process(samples);
    sections[1].process(samples);
}

namespace {

// Both sections of one channel in a single pass: the high-pass of sample n
// overlaps with the shelf of sample n + 1.
void filterOne(KWeightingFilter::Sections& sections, float* x, std::int64_t count) noexcept {
    Biquad shelf = sections[0];
    Biquad pass = sections[1];
    for (std::int64_t i = 0; i < count; ++i) {
        x[i] = pass.tick(shelf.tick(x[i]));
    }
    sections = {shelf, pass};
}

// Four independent dependency chains (two sections, two channels) per step.
void filterTwo(KWeightingFilter::Sections& left, KWeightingFilter::Sections& right, float* l,
               float* r, std::int64_t count) noexcept {
    Biquad shelfL = left[0];
    Biquad passL = left[1];
    Biquad shelfR = right[0];
    Biquad passR = right[1];
    for (std::int64_t i = 0; i < count; ++i) {
        const float sl = shelfL.tick(l[i]);
        const float sr = shelfR.tick(r[i]);
        l[i] = passL.tick(sl);
        r[i] = passR.tick(sr);
    }
    left = {shelfL, passL};
    right = {shelfR, passR};
}

} // namespace

void KWeightingFilter::processPlanar(std::span<float* const> planar, std::int64_t count) noexcept {
    OSTRAND_REQUIRE(count >= 0, "sample count must not be negative");
    const std::size_t channels = m_stages.size();
    OSTRAND_REQUIRE(planar.size() >= channels, "fewer channel buffers than channels");
    std::size_t c = 0;
    for (; c + 1 < channels; c += 2) {
        filterTwo(m_stages[c], m_stages[c + 1], planar[c], planar[c + 1], count);
    }
    if (c < channels) {
        filterOne(m_stages[c], planar[c], count);
    }
}

} // namespace ostrand
