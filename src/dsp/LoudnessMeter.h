#pragma once

#include "Biquad.h"
#include "OversampledPeak.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace ostrand {

// How a channel counts in the sum of powers: surround channels (beside and
// behind the listener) weigh 1.41, the LFE channel is left out.
enum class ChannelWeight { front, surround, excluded };

// The figures a loudness meter in EBU Mode reports for a whole programme.
// Loudness values are Loudness::silence when there is nothing to measure (a
// programme shorter than the window, or every block below the absolute
// gate); the peaks of digital silence are -infinity.
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
// The gating blocks and the short-term values behind the loudness range
// advance in 100 ms steps; the maxima of momentary and short-term loudness
// are taken every 10 ms, so a burst that starts between two 100 ms steps
// still reads its full level. The true peak comes from an oversampler of its
// own (OversampledPeak), not the leveler's. A value type; one owner, one
// thread. Memory grows by a few numbers per 100 ms.
class LoudnessMeter {
public:
    // The lowest rate the meter takes (a precondition); callers refuse slower
    // streams before they build one.
    static constexpr double minSampleRate = 1000.0;

    LoudnessMeter(double sampleRate, std::vector<ChannelWeight> weights);

    // Feeds the next `count` samples of every channel.
    void append(std::span<const float* const> planar, std::int64_t count);

    // The figures of everything appended so far.
    LoudnessFigures figures() const;

    // From now on keeps the short-term loudness (LUFS, silence -200.7) at the
    // end of every 10 ms slice, over the slices so far in the first 3 s: a
    // curve to draw.
    void keepShortTermSeries() { m_keepsSeries = true; }
    const std::vector<float>& shortTermSeries() const noexcept { return m_series; }

    // The mean power of every 400 ms gating block so far, one each 100 ms:
    // block k spans the 10 ms slices 10 k ..< 10 k + 40.
    const std::vector<double>& blockPowers() const noexcept { return m_momentary; }

    // The integrated loudness of gating blocks: the mean of those above the
    // absolute gate, then of those above 10 LU under that; Loudness::silence
    // when no block passes.
    static double integratedOf(std::span<const double> blockPowers);

    std::int64_t channels() const noexcept { return static_cast<std::int64_t>(m_weights.size()); }
    double sampleRate() const noexcept { return m_sampleRate; }

    // The K-weighting sections for a sample rate: [0] the high shelf, [1] the
    // high-pass.
    static std::array<Biquad, 2> kWeighting(double sampleRate) noexcept;
    static double weightOf(ChannelWeight weight) noexcept;

private:
    // Windows and steps in 10 ms slices.
    static constexpr double slicesPerSecond = 100.0;
    static constexpr std::size_t slicesPerStep = 10;
    static constexpr std::size_t momentarySlices = 40;
    static constexpr std::size_t shortTermSlices = 300;

    std::int64_t sliceBoundary(std::int64_t slice) const noexcept;
    void endSlice();
    double windowPower(std::size_t slices) const;

    double m_sampleRate;
    std::vector<ChannelWeight> m_weights;
    std::vector<std::array<Biquad, 2>> m_filters;

    // The current 10 ms slice.
    std::int64_t m_slices = 0;         // completed so far
    std::int64_t m_sampleIndex = 0;    // samples appended so far
    std::int64_t m_sliceStart = 0;     // first sample of the current slice
    std::int64_t m_sliceEnd = 0;       // first sample of the next one
    std::vector<double> m_channelSums; // squares of the current slice

    // The last 3 s of slices, oldest overwritten first.
    std::vector<double> m_sliceSums; // weighted sum of squares
    std::vector<std::int64_t> m_sliceLengths;

    std::vector<double> m_momentary; // mean power of each 400 ms gating block
    std::vector<double> m_shortTerm; // mean power of each 3 s window, 100 ms apart
    double m_maxMomentary = 0.0;     // powers, every 10 ms
    double m_maxShortTerm = 0.0;
    OversampledPeak m_truePeak; // and the sample peak
    bool m_keepsSeries = false;
    std::vector<float> m_series;
};

} // namespace ostrand
