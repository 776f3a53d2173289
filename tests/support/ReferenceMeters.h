#pragma once

#include "support/Signals.h"

#include <filesystem>
#include <vector>

// Independent meters to check the project's own measurements against.
namespace ostrand::test {

// Integrated loudness in LUFS by libebur128.
double ebur128Integrated(const PlanarAudio& audio);

// Where libebur128 places a channel, by its own numbers; `unused` leaves it
// out (the LFE).
enum class Ebur128Channel { unused, left, right, center, leftSurround, rightSurround };

struct Ebur128Figures {
    double integratedLufs;
    double loudnessRangeLu;
    double truePeakDb; // its own 4x (below 96 kHz) true peak, over all channels
};

// libebur128's programme figures; without a map, on libebur128's default one.
Ebur128Figures ebur128Figures(const PlanarAudio& audio,
                              const std::vector<Ebur128Channel>& map = {});

// Largest |sample| in dBFS after resampling to 192 kHz with ffmpeg's soxr at
// very high precision: a long, steep interpolator, closer to the real
// inter-sample peak than any short polyphase filter.
double oversampledPeakDb(const PlanarAudio& audio);

// Writes `path` as a 32-bit float WAV (WAVE_FORMAT_IEEE_FLOAT), no rounding.
std::filesystem::path floatWav(const std::filesystem::path& path, const PlanarAudio& audio);

} // namespace ostrand::test
