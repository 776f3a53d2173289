#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace ostrand {

// Estimates the peak between samples with a 4x polyphase interpolator
// (a Blackman-windowed sinc of 48 taps, 12 per phase). For input sample i it
// reports the largest of |x[i - firDelay]| and the four interpolated values
// between x[i - firDelay] and x[i - firDelay + 1], over all channels. The
// phases droop above 0.37 of the sample rate, so content near Nyquist reads
// low. A value type; one owner, one thread.
class TruePeakMeter {
public:
    static constexpr std::int64_t oversample = 4;
    static constexpr std::int64_t tapsPerPhase = 12;
    static constexpr std::int64_t firDelay = 6;
    static constexpr std::int64_t historyLength = tapsPerPhase - 1;
    using Phase = std::array<float, tapsPerPhase>;
    using PhaseSet = std::array<Phase, oversample>;

    explicit TruePeakMeter(std::int64_t channels);

    // Writes the estimate for each of the first `count` samples to peaks
    // (linear, at least `count` long), continuing from the previous block.
    void process(std::span<const float* const> planar, std::int64_t count, std::span<float> peaks);

    // The four phases, each stored last tap first for correlation.
    static const PhaseSet& reversedPhases() noexcept;

private:
    std::vector<std::vector<float>> m_history; // per channel, last historyLength inputs
    std::vector<float> m_work;
};

} // namespace ostrand
