#include "FrameAnalyzer.h"

#include "Check.h"
#include "VectorOps.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <string>

namespace ostrand {

namespace {

constexpr double framesPerSecond = 100.0;
// Keeps the frame length far inside the integer range (and buffers sane).
constexpr double maxSampleRate = 1e9;

std::int64_t frameLengthFor(double sampleRate) {
    return static_cast<std::int64_t>(std::llround(sampleRate / framesPerSecond));
}

std::size_t index(std::int64_t i) {
    return static_cast<std::size_t>(i);
}

double checkedRate(double sampleRate, std::int64_t channels) {
    if (!FrameAnalyzer::supportsFormat(sampleRate, channels)) {
        throw std::invalid_argument("cannot measure audio with " + std::to_string(channels) +
                                    " channels at " + std::to_string(sampleRate) + " Hz");
    }
    return sampleRate;
}

} // namespace

bool FrameAnalyzer::supportsFormat(double sampleRate, std::int64_t channels) noexcept {
    return channels >= 1 && std::isfinite(sampleRate) && sampleRate >= 50.0 &&
           sampleRate <= maxSampleRate;
}

FrameAnalyzer::FrameAnalyzer(double sampleRate, std::int64_t channels)
    : m_sampleRate(checkedRate(sampleRate, channels))
    , m_channels(channels)
    , m_frameLength(frameLengthFor(sampleRate))
    , m_filter(sampleRate, channels)
    , m_pendingRaw(index(channels))
    , m_pendingWeighted(index(channels))
    , m_weightedPointers(index(channels)) {}

void FrameAnalyzer::append(std::span<const float* const> planar, std::int64_t count) {
    if (count < 1) {
        return;
    }
    OSTRAND_REQUIRE(planar.size() >= index(m_channels), "fewer channel buffers than channels");
    m_totalSamples += count;

    const std::int64_t available = m_pendingCount + count;
    for (std::size_t c = 0; c < index(m_channels); ++c) {
        std::vector<float>& raw = m_pendingRaw[c];
        std::vector<float>& weighted = m_pendingWeighted[c];
        raw.resize(index(available));
        weighted.resize(index(available));
        std::copy_n(planar[c], count, raw.data() + m_pendingCount);
        std::copy_n(planar[c], count, weighted.data() + m_pendingCount);
        m_weightedPointers[c] = weighted.data() + m_pendingCount;
    }
    m_filter.processPlanar(m_weightedPointers, count);
    m_pendingCount = available;

    const std::int64_t L = m_frameLength;
    const std::int64_t frames = available / L;
    if (frames < 1) {
        return;
    }

    const auto F = index(frames);
    m_rawSums.assign(F, 0.0);
    m_weightedSums.assign(F, 0.0);
    m_framePeaks.assign(F, 0.0);
    for (std::size_t c = 0; c < index(m_channels); ++c) {
        const float* raw = m_pendingRaw[c].data();
        const float* weighted = m_pendingWeighted[c].data();
        for (std::size_t f = 0; f < F; ++f) {
            const float* frameRaw = raw + f * index(L);
            m_rawSums[f] += static_cast<double>(VectorOps::sumOfSquares(frameRaw, L));
            const auto m = static_cast<double>(VectorOps::maxMagnitude(frameRaw, L));
            if (m_framePeaks[f] < m) {
                m_framePeaks[f] = m;
            }
            m_weightedSums[f] +=
                static_cast<double>(VectorOps::sumOfSquares(weighted + f * index(L), L));
        }
    }

    const double reciprocal = 1.0 / static_cast<double>(L);
    const auto channels = static_cast<double>(m_channels);
    for (std::size_t f = 0; f < F; ++f) {
        m_meanSquare.push_back(reciprocal * m_rawSums[f] / channels);
        m_kPower.push_back(reciprocal * m_weightedSums[f]);
        m_peak.push_back(m_framePeaks[f]);
    }

    // Move the leftover (less than one frame) to the front once per block.
    const std::int64_t consumed = frames * L;
    const std::int64_t left = available - consumed;
    for (std::size_t c = 0; c < index(m_channels); ++c) {
        for (std::vector<float>* pending : {&m_pendingRaw[c], &m_pendingWeighted[c]}) {
            std::copy_n(pending->data() + consumed, left, pending->data());
            pending->resize(index(left));
        }
    }
    m_pendingCount = left;
}

FrameAnalysis FrameAnalyzer::analysis() const& {
    return FrameAnalysis{m_sampleRate, m_channels, m_frameLength, m_meanSquare,
                         m_kPower,     m_peak,     m_totalSamples};
}

FrameAnalysis FrameAnalyzer::analysis() && {
    return FrameAnalysis{
        m_sampleRate,        m_channels,        m_frameLength, std::move(m_meanSquare),
        std::move(m_kPower), std::move(m_peak), m_totalSamples};
}

} // namespace ostrand
