#include "GainCurve.h"

#include <algorithm>
#include <cmath>

namespace ostrand {

void fillGainRamp(std::span<const double> gainDB, std::int64_t frameLength, std::int64_t position,
                  std::span<float> out) noexcept {
    if (gainDB.empty() || frameLength < 1) {
        std::fill(out.begin(), out.end(), 1.0f);
        return;
    }
    const auto lastFrame = static_cast<std::int64_t>(gainDB.size()) - 1;
    const auto gainAt = [&](std::int64_t frame) {
        const double db =
            gainDB[static_cast<std::size_t>(std::clamp<std::int64_t>(frame, 0, lastFrame))];
        return static_cast<float>(std::pow(10.0, db / 20.0));
    };
    const auto count = static_cast<std::int64_t>(out.size());
    const auto length = static_cast<float>(frameLength);
    std::int64_t done = 0;
    while (done < count) {
        const std::int64_t s = position + done;
        const std::int64_t frame = s / frameLength;
        const std::int64_t offset = s % frameLength;
        const float g0 = gainAt(frame);
        const float g1 = gainAt(frame + 1);
        const float step = (g1 - g0) / length;
        const std::int64_t segment = std::min(frameLength - offset, count - done);
        float* o = out.data() + done;
        // Computed from the frame start rather than accumulated, so the gain
        // of a sample does not depend on where the blocks were cut.
        for (std::int64_t k = 0; k < segment; ++k) {
            o[k] = g0 + static_cast<float>(offset + k) * step;
        }
        done += segment;
    }
}

} // namespace ostrand
