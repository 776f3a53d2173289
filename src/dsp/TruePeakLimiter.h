#pragma once

#include "TruePeakMeter.h"

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace ostrand {

// Holds audio under a true-peak ceiling. Peaks between samples are estimated
// with a 4x polyphase interpolator; the required reduction is held over a
// look-ahead window, its onset smoothed by a moving average as long as the
// window, its recovery exponential; the gain is applied to a delayed copy and
// the result hard-clipped at the ceiling. Channels share one gain (linked).
//
// Output lags input by latency() = the look-ahead (at least minLookahead
// samples) + firDelay; GainRenderer takes the delay out and flushes the tail.
// A value type; one owner, one thread. Scratch grows to the largest block
// seen; processing does not allocate after that.
class TruePeakLimiter {
public:
    static constexpr std::int64_t oversample = TruePeakMeter::oversample;
    static constexpr std::int64_t tapsPerPhase = TruePeakMeter::tapsPerPhase;
    static constexpr std::int64_t firDelay = TruePeakMeter::firDelay;
    static constexpr std::int64_t minLookahead = 8;

    TruePeakLimiter(std::int64_t channels, double sampleRate, double ceilingDb, double lookaheadMs,
                    double releaseMs);

    // Replaces the first `count` samples of planar[0 ..< channels] by the
    // limited, delayed output. count < 1 changes nothing.
    void process(std::span<float* const> planar, std::int64_t count);

    std::int64_t latency() const noexcept { return m_lookahead + firDelay; }

    // Deepest reduction applied so far, dB (0 or more).
    double maxGainReduction() const noexcept;
    // The linear gains (1 or less) the last process() applied, one per
    // sample it returned; empty before the first call.
    std::span<const float> gains() const noexcept { return m_gain; }

private:
    struct Held {
        std::int64_t index;
        double value;
    };

    void computeGains(std::int64_t count);
    void pushHeld(Held held) noexcept;

    std::int64_t m_channels;
    float m_ceiling;
    std::int64_t m_lookahead;
    double m_releaseCoeff;
    TruePeakMeter m_meter;
    std::vector<std::vector<float>> m_delayLine; // per channel, latency() delayed inputs

    // Sliding maximum of the required reduction: a monotonic queue in a ring
    // of fixed capacity (indices within lookahead + 1 of the newest).
    std::vector<Held> m_queue;
    std::size_t m_queueFront = 0;
    std::size_t m_queueSize = 0;

    std::vector<double> m_attBuffer; // last lookahead release values
    std::size_t m_attBufferPos = 0;
    double m_attBufferSum;
    double m_release = 1.0;
    std::int64_t m_sampleIndex = 0;
    double m_maxReductionFactor = 1.0; // dB taken on request: log10 is monotonic

    std::vector<float> m_peak;
    std::vector<float> m_gain;
    std::vector<float> m_work;
};

} // namespace ostrand
