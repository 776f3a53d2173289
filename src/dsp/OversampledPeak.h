#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace ostrand {

// The true peak of a programme for the loudness meter: the largest |value|
// of the samples and of the waveform between them, interpolated by a
// polyphase Kaiser-windowed sinc, flat within 0.04 dB to 20 kHz (to 0.4535 of
// the sample rate below 44.1 kHz) with images more than 53 dB down: 36 taps
// per phase below 47 kHz, 24 above, where the band to 20 kHz leaves a wider
// transition.
//
// The factor follows the rate so that a tone at 20 kHz reads at most 0.14 dB
// low between output points, 20 log10(cos(pi f / (factor fs))): 8x below
// 88.2 kHz (at 44.1 kHz, 4x would lose 0.56 dB), 4x below 176.4 kHz, 2x
// above. Stretches whose loudest input times the largest sum of |taps| of any
// phase cannot beat the peak so far are not interpolated, which leaves the
// result unchanged and skips most of a programme. A value type; one owner,
// one thread.
class OversampledPeak {
public:
    OversampledPeak(double sampleRate, std::int64_t channels);

    // Feeds the next `count` samples of every channel.
    void process(std::span<const float* const> planar, std::int64_t count);

    // Linear peak of everything fed so far, the waveform's decay after the
    // last sample included (a copy of the state is flushed with silence).
    double peak() const;
    // Largest |sample| fed so far.
    double samplePeak() const noexcept { return static_cast<double>(m_samplePeak); }

    int factor() const noexcept { return m_factor; }
    std::size_t tapsPerPhase() const noexcept { return m_tapsPerPhase; }
    static int factorFor(double sampleRate) noexcept;
    static std::size_t tapsPerPhaseFor(double sampleRate) noexcept;

private:
    struct Scratch {
        std::vector<float> window;     // history followed by the block being scanned
        std::vector<float> blockPeaks; // largest |sample| of each 16 in the window
    };

    // Scans `input` after `history` (the previous tapsPerPhase - 1 samples,
    // updated on return), raising `peak` and `samplePeak` to what it finds.
    void scan(const float* input, std::int64_t count, std::vector<float>& history, Scratch& scratch,
              float& peak, float& samplePeak) const;
    Scratch makeScratch() const;

    int m_factor;
    std::size_t m_tapsPerPhase;
    std::vector<float> m_taps; // phases 1 .. factor - 1; phase 0 is the sample itself
    float m_gainBound = 0.0f;  // largest sum of |taps| of any phase
    std::vector<std::vector<float>> m_history;
    Scratch m_scratch;
    float m_peak = 0.0f;
    float m_samplePeak = 0.0f;
};

} // namespace ostrand
