#pragma once

#include "media/LevelingReport.h"

#include <cmath>
#include <memory>

// Per-frame series made directly as data, so that plots of any length can be
// drawn without leveling hours of audio.
namespace ostrand::test {

// A leveled talk of `seconds` at 100 frames a second: the source at -30 LUFS
// in its first half and -20 in its second, the output at -14 throughout, the
// gain +16 then +6 dB, the limiter 3 dB deep from 1/3 to 1/3 + 2 % of the
// way, a pause from 45 % to 55 %. `silent` makes it digital silence all
// through, with no speech found.
inline std::shared_ptr<LevelingSeries> talkSeries(double seconds, bool silent = false) {
    auto s = std::make_shared<LevelingSeries>();
    const auto n = static_cast<std::size_t>(std::llround(seconds * 100.0));
    s->frameSeconds = 0.01;
    s->duration = seconds;
    s->targetLufs = -16.0;
    s->inputLoudness.resize(n);
    s->outputLoudness.resize(n);
    s->gain.resize(n);
    s->limiterReduction.resize(n);
    s->active.resize(n);
    for (std::size_t i = 0; i < n; ++i) {
        const double at = static_cast<double>(i) / static_cast<double>(n);
        const bool firstHalf = at < 0.5;
        s->inputLoudness[i] = silent ? -200.691f : (firstHalf ? -30.0f : -20.0f);
        s->outputLoudness[i] = silent ? -200.691f : -14.0f;
        s->gain[i] = firstHalf ? 16.0f : 6.0f;
        s->limiterReduction[i] = !silent && at >= 1.0 / 3.0 && at < 1.0 / 3.0 + 0.02 ? 3.0f : 0.0f;
        s->active[i] = !silent && !(at >= 0.45 && at < 0.55) ? 1 : 0;
    }
    return s;
}

// A measurement: the source alone at `lufs`.
inline std::shared_ptr<LevelingSeries> measuredSeries(double seconds, float lufs) {
    auto s = std::make_shared<LevelingSeries>();
    s->duration = seconds;
    s->inputLoudness.assign(static_cast<std::size_t>(std::llround(seconds * 100.0)), lufs);
    return s;
}

} // namespace ostrand::test
