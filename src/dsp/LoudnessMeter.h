#pragma once

#include "Biquad.h"
#include "TruePeakMeter.h"

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace ostrand {

// How a channel counts in the sum of powers: surround channels (beside and
// behind the listener) weigh 1.41, the LFE channel is left out.
enum class ChannelWeight { front, surround, excluded };

// The figures a loudness meter in EBU Mode reports for a whole programme.
// Loudness values are -infinity when there is nothing to measure (a programme
// shorter than the window, or every block below the absolute gate).
struct LoudnessFigures {
    double integratedLoudness; // LUFS, gated
    double loudnessRange;      // LU
    double maxMomentary;       // LUFS, 400 ms window
    double maxShortTerm;       // LUFS, 3 s window
    double truePeak;           // dBTP
    double samplePeak;         // dBFS
};

// A programme loudness meter after ITU-R BS.1770-4 and EBU Tech 3341/3342,
// on the programme's own channel layout. Unlike the leveler's analysis, its
// K-weighting is designed from the analogue response at each sample rate
// (bilinear transform, pre-warped), so it agrees with the standard's
// coefficients at 48 kHz and keeps the same response at 44.1 or 96 kHz.
// Momentary and short-term loudness advance in 100 ms steps. A value type;
// one owner, one thread. Memory grows by a few numbers per 100 ms.
class LoudnessMeter {
public:
    LoudnessMeter(double sampleRate, std::vector<ChannelWeight> weights);

    // Feeds the next `count` samples of every channel.
    void append(std::span<const float* const> planar, std::int64_t count);

    // The figures of everything appended so far.
    LoudnessFigures figures() const;

    std::int64_t channels() const noexcept { return static_cast<std::int64_t>(m_weights.size()); }
    double sampleRate() const noexcept { return m_sampleRate; }

    // The K-weighting sections for a sample rate: [0] the high shelf, [1] the
    // high-pass.
    static std::array<Biquad, 2> kWeighting(double sampleRate) noexcept;
    static double weightOf(ChannelWeight weight) noexcept;

private:
    void endSubBlock();

    double m_sampleRate;
    std::vector<ChannelWeight> m_weights;
    std::vector<std::array<Biquad, 2>> m_filters;

    // The current 100 ms sub-block.
    std::int64_t m_subBlocks = 0;       // completed so far
    std::int64_t m_sampleIndex = 0;     // samples appended so far
    std::int64_t m_subBlockStart = 0;   // first sample of the current sub-block
    std::int64_t m_subBlockEnd = 0;     // first sample of the next one
    std::vector<double> m_channelSums;  // squares of the current sub-block
    std::vector<double> m_subBlockSums; // weighted sum of squares per sub-block
    std::vector<std::int64_t> m_subBlockLengths;

    std::vector<double> m_momentary; // mean power of each 400 ms window
    std::vector<double> m_shortTerm; // mean power of each 3 s window
    double m_samplePeak = 0.0;
    TruePeakMeter m_truePeakMeter;
    std::vector<float> m_peaks; // scratch for the true-peak meter
    std::vector<double> m_work; // one channel's K-weighted samples
};

} // namespace ostrand
