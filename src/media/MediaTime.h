#pragma once

#include <cstdint>

namespace ostrand {

// A media time value: `value` ticks of 1 / `timescale` seconds. Converted to
// FFmpeg time bases with av_rescale_q at the library edge only.
struct MediaTime {
    std::int64_t value = 0;
    std::int32_t timescale = 1;

    double seconds() const noexcept {
        return static_cast<double>(value) / static_cast<double>(timescale);
    }
    // `samples` later, expressed at the sample rate's time scale.
    MediaTime advancedBySamples(std::int64_t samples, std::int32_t sampleRate) const noexcept;

    friend bool operator==(const MediaTime&, const MediaTime&) = default;
};

} // namespace ostrand
