#pragma once

#include "Biquad.h"

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace ostrand {

// The K-weighting of ITU-R BS.1770: a high shelf of about +4 dB above
// 1.7 kHz followed by a high-pass near 38 Hz, with state per channel that
// carries across calls, so any division of a stream into blocks gives the
// same samples. A value type; one owner, one thread at a time. Filtering
// never allocates.
class KWeightingFilter {
public:
    using Sections = std::array<Biquad, 2>; // [0] shelf, [1] high-pass

    KWeightingFilter(double sampleRate, std::int64_t channels);

    // Shelf then high-pass over one channel's samples, in place.
    void process(std::int64_t channel, std::span<float> samples) noexcept;

    // Filters the first `count` samples of channels 0 ..< channelCount() in
    // place. Same results, bit for bit, as process() per channel; faster,
    // because the recurrences of both sections and of channel pairs run
    // interleaved in one loop.
    void processPlanar(std::span<float* const> planar, std::int64_t count) noexcept;

    std::int64_t channelCount() const noexcept {
        return static_cast<std::int64_t>(m_stages.size());
    }

    static Biquad highShelf(double sampleRate) noexcept;
    static Biquad highPass(double sampleRate) noexcept;

private:
    std::vector<Sections> m_stages;
};

} // namespace ostrand
