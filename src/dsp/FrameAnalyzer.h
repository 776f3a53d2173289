#pragma once

#include "FrameAnalysis.h"
#include "KWeightingFilter.h"

#include <cstdint>
#include <span>
#include <vector>

namespace ostrand {

// Measures a stream of planar blocks in frames of sampleRate / 100 samples:
// per whole frame the channel-averaged mean square, the channel-summed
// K-weighted power and the sample peak. Blocks may have any length; samples
// short of a whole frame wait for the next block, so the series do not depend
// on how the stream was divided. A value type; one owner, one thread. Buffers
// grow to the largest block seen, after which append() does not allocate
// except to extend the series.
class FrameAnalyzer {
public:
    // True for a stream the analyzer can measure: at least one channel and a
    // finite sample rate that gives a frame of at least one sample.
    static bool supportsFormat(double sampleRate, std::int64_t channels) noexcept;

    // Throws std::invalid_argument unless supportsFormat(sampleRate, channels).
    FrameAnalyzer(double sampleRate, std::int64_t channels);

    // Takes the first `count` samples of planar[0 ..< channels()]; the
    // caller's buffers are not modified. count < 1 changes nothing.
    void append(std::span<const float* const> planar, std::int64_t count);

    double sampleRate() const noexcept { return m_sampleRate; }
    std::int64_t channels() const noexcept { return m_channels; }
    std::int64_t frameLength() const noexcept { return m_frameLength; }
    const std::vector<double>& kPower() const noexcept { return m_kPower; }
    const KWeightingFilter& filter() const noexcept { return m_filter; }

    FrameAnalysis analysis() const&;
    FrameAnalysis analysis() &&;

private:
    double m_sampleRate;
    std::int64_t m_channels;
    std::int64_t m_frameLength;
    KWeightingFilter m_filter;
    std::vector<double> m_meanSquare;
    std::vector<double> m_kPower;
    std::vector<double> m_peak;
    // Per channel, samples not yet part of a whole frame at the front
    // (m_pendingCount of them), raw and K-weighted.
    std::vector<std::vector<float>> m_pendingRaw;
    std::vector<std::vector<float>> m_pendingWeighted;
    std::int64_t m_pendingCount = 0;
    std::int64_t m_totalSamples = 0;
    // Scratch reused across blocks.
    std::vector<float*> m_weightedPointers;
    std::vector<double> m_rawSums;
    std::vector<double> m_weightedSums;
    std::vector<double> m_framePeaks;
};

} // namespace ostrand
