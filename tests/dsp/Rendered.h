#pragma once

#include "dsp/GainRenderer.h"
#include "support/Signals.h"

namespace ostrand::test {

// `audio` through `renderer` in blocks of `block` frames, the tail flushed:
// the leveled signal, as the engine writes it.
inline PlanarAudio rendered(GainRenderer& renderer, PlanarAudio audio, std::int64_t block = 4096) {
    PlanarAudio out{audio.sampleRate, std::vector<std::vector<float>>(audio.channels.size())};
    const auto keep = [&out](const GainRenderer::Block& leveled) {
        for (std::size_t c = 0; c < out.channels.size(); ++c) {
            out.channels[c].insert(out.channels[c].end(), leveled.planar[c],
                                   leveled.planar[c] + leveled.count);
        }
    };
    inBlocks(audio, block,
             [&](const auto& at, std::int64_t n, auto) { keep(renderer.append(at, n)); });
    keep(renderer.flush());
    return out;
}

} // namespace ostrand::test
