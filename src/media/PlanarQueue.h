#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace ostrand {

// A first-in, first-out store of planar float samples. Written at the back
// through raw pointers (as swr_convert wants them), read and consumed at the
// front. Storage grows to the largest backlog and is then reused: once warm,
// nothing allocates. One owner, one thread.
class PlanarQueue {
public:
    explicit PlanarQueue(int channels)
        : m_data(static_cast<std::size_t>(channels))
        , m_back(static_cast<std::size_t>(channels)) {}

    int channels() const noexcept { return static_cast<int>(m_data.size()); }
    std::int64_t size() const noexcept { return m_end - m_begin; }
    const float* channel(int c) const noexcept {
        return m_data[static_cast<std::size_t>(c)].data() + m_begin;
    }

    // Room for `count` more samples per channel, as swr_convert's output
    // pointers. Valid until the next call that changes the queue.
    std::uint8_t** reserve(std::int64_t count) {
        const auto capacity = static_cast<std::int64_t>(m_data.front().size());
        if (m_end + count > capacity && m_begin > 0) {
            for (auto& samples : m_data) {
                std::memmove(samples.data(), samples.data() + m_begin,
                             static_cast<std::size_t>(size()) * sizeof(float));
            }
            m_end -= m_begin;
            m_begin = 0;
        }
        if (m_end + count > capacity) {
            const auto grown = static_cast<std::size_t>(std::max(m_end + count, 2 * capacity));
            for (auto& samples : m_data) {
                samples.resize(grown);
            }
        }
        for (std::size_t c = 0; c < m_data.size(); ++c) {
            m_back[c] = reinterpret_cast<std::uint8_t*>(m_data[c].data() + m_end);
        }
        return m_back.data();
    }
    // Makes `count` samples written through reserve() part of the queue.
    void commit(std::int64_t count) noexcept { m_end += count; }

    void appendSilence(std::int64_t count) {
        reserve(count);
        for (auto& samples : m_data) {
            std::fill_n(samples.data() + m_end, count, 0.0f);
        }
        commit(count);
    }

    void consume(std::int64_t count) noexcept {
        m_begin += std::min(count, size());
        if (m_begin == m_end) {
            m_begin = 0;
            m_end = 0;
        }
    }

private:
    std::vector<std::vector<float>> m_data;
    std::vector<std::uint8_t*> m_back;
    std::int64_t m_begin = 0;
    std::int64_t m_end = 0;
};

} // namespace ostrand
