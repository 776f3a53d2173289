#pragma once

#include "support/Signals.h"

#include <filesystem>

// Independent meters to check the project's own measurements against.
namespace ostrand::test {

// Integrated loudness in LUFS by libebur128.
double ebur128Integrated(const PlanarAudio& audio);

// Largest |sample| in dBFS after resampling to 192 kHz with ffmpeg's soxr at
// very high precision: a long, steep interpolator, closer to the real
// inter-sample peak than any short polyphase filter.
double oversampledPeakDb(const PlanarAudio& audio);

// 32-bit float WAV (WAVE_FORMAT_IEEE_FLOAT), interleaved.
void writeFloatWav(const std::filesystem::path& path, const PlanarAudio& audio);

} // namespace ostrand::test
