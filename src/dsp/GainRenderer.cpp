#include "GainRenderer.h"

#include "Check.h"

#include <algorithm>
#include <cstddef>

namespace ostrand {

GainRenderer::GainRenderer(const GainCurve& curve, std::int64_t channels, double sampleRate,
                           double ceilingDb)
    : m_gainDb(curve.gainDB)
    , m_frameLength(curve.frameLength)
    , m_limiter(channels, sampleRate, ceilingDb, lookaheadMs, releaseMs)
    , m_held(m_limiter.latency())
    , m_tail(static_cast<std::size_t>(std::max<std::int64_t>(channels, 0)),
             std::vector<float>(static_cast<std::size_t>(m_limiter.latency())))
    , m_output(m_tail.size()) {
    for (auto& channel : m_tail) {
        m_tailPointers.push_back(channel.data());
    }
}

GainRenderer::Block GainRenderer::append(std::span<float* const> planar, std::int64_t count) {
    if (count < 1) {
        return {};
    }
    OSTRAND_REQUIRE(planar.size() >= m_output.size(), "fewer channel buffers than channels");
    const auto n = static_cast<std::size_t>(count);
    if (m_gain.size() < n) {
        m_gain.resize(n, 1.0f);
    }
    const std::span<float> gain(m_gain.data(), n);
    fillGainRamp(m_gainDb, m_frameLength, m_position, gain);
    for (std::size_t c = 0; c < m_output.size(); ++c) {
        float* samples = planar[c];
        for (std::size_t i = 0; i < n; ++i) {
            samples[i] *= gain[i];
        }
    }
    m_position += count;
    return output(planar.first(m_output.size()), count);
}

GainRenderer::Block GainRenderer::flush() {
    for (auto& channel : m_tail) {
        std::fill(channel.begin(), channel.end(), 0.0f);
    }
    return output(m_tailPointers, m_limiter.latency());
}

GainRenderer::Block GainRenderer::output(std::span<float* const> planar, std::int64_t count) {
    m_limiter.process(planar, count);
    const std::int64_t dropped = std::min(m_held, count);
    m_held -= dropped;
    for (std::size_t c = 0; c < m_output.size(); ++c) {
        m_output[c] = planar[c] + dropped;
    }
    return {m_output, count - dropped,
            m_limiter.gains().subspan(static_cast<std::size_t>(dropped))};
}

} // namespace ostrand
