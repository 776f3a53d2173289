#include "MediaTime.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace ostrand {

MediaTime MediaTime::advancedBySamples(std::int64_t samples,
                                       std::int32_t sampleRate) const noexcept {
    // Expressed at the sample rate so that consecutive blocks stay exact.
    const std::int64_t start =
        av_rescale_q(value, AVRational{1, timescale}, AVRational{1, sampleRate});
    return {start + samples, sampleRate};
}

} // namespace ostrand
