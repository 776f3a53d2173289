#pragma once

#include "MediaTime.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
#include <span>
#include <vector>

namespace ostrand {

// A bounded queue of planar float blocks between one producing and one
// consuming thread: the reader's read-ahead and the writer's encoder queue.
// Blocks are copied into a ring of `depth` buffers that grow to the largest
// block and are then reused, so memory is bounded and steady state does not
// allocate. Either side can stop the other with an error, which the other
// side's next call rethrows.
class BlockPipe {
public:
    // Thrown to the producer when the consumer abandoned the pipe without an
    // error of its own.
    struct Abandoned {};

    BlockPipe(std::size_t channels, std::size_t depth)
        : m_blocks(depth, Block{std::vector<std::vector<float>>(channels), 0, {}})
        , m_pointers(channels) {}

    // Producer: copies the first `count` samples of each channel in, waiting
    // while the pipe is full. Throws the consumer's error, or Abandoned.
    template <typename Sample>
    void push(std::span<Sample* const> planar, std::int64_t count, MediaTime time) {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_abandoned || m_size < m_blocks.size(); });
        if (m_abandoned) {
            if (m_error) {
                std::rethrow_exception(m_error);
            }
            throw Abandoned{};
        }
        Block& block = m_blocks[(m_first + m_size) % m_blocks.size()];
        lock.unlock();
        // The slot is the producer's until it is counted in m_size.
        for (std::size_t c = 0; c < block.channels.size(); ++c) {
            auto& samples = block.channels[c];
            if (samples.size() < static_cast<std::size_t>(count)) {
                samples.resize(static_cast<std::size_t>(count));
            }
            std::copy_n(planar[c], count, samples.data());
        }
        block.count = count;
        block.time = time;
        lock.lock();
        ++m_size;
        m_changed.notify_all();
    }

    // Producer: no more blocks. The consumer gets `error` (if any) after the
    // blocks already in the pipe.
    void close(std::exception_ptr error = nullptr) {
        const std::lock_guard lock(m_mutex);
        m_closed = true;
        if (!m_error) {
            m_error = std::move(error);
        }
        m_changed.notify_all();
    }

    // Consumer: gives up. Stops waiting pops at once and makes the
    // producer's next push throw `error` (or Abandoned).
    void abandon(std::exception_ptr error = nullptr) {
        const std::lock_guard lock(m_mutex);
        m_abandoned = true;
        if (!m_error) {
            m_error = std::move(error);
        }
        m_changed.notify_all();
    }

    // Consumer: waits for the next block and calls use(planar, count, time)
    // with it (the buffers are the pipe's, writable, valid during the call).
    // Returns false once the pipe is closed and empty, or abandoned; a
    // producer's error is rethrown after its last block.
    template <typename Use>
    bool pop(Use&& use) {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_size > 0 || m_closed || m_abandoned; });
        if (m_abandoned) {
            return false;
        }
        if (m_size == 0) {
            if (m_error) {
                std::rethrow_exception(m_error);
            }
            return false;
        }
        Block& block = m_blocks[m_first];
        lock.unlock();
        for (std::size_t c = 0; c < m_pointers.size(); ++c) {
            m_pointers[c] = block.channels[c].data();
        }
        use(std::span<float* const>(m_pointers), block.count, block.time);
        lock.lock();
        m_first = (m_first + 1) % m_blocks.size();
        --m_size;
        m_changed.notify_all();
        return true;
    }

private:
    struct Block {
        std::vector<std::vector<float>> channels;
        std::int64_t count;
        MediaTime time;
    };

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Block> m_blocks;
    std::vector<float*> m_pointers; // the consumer's
    std::size_t m_first = 0;
    std::size_t m_size = 0;
    bool m_closed = false;
    bool m_abandoned = false;
    std::exception_ptr m_error;
};

} // namespace ostrand
